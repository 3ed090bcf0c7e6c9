#!/usr/bin/env bash
# The systemd units are what systemd understands, and their command line is what vexo understands.
#
#     units.sh SOURCES VEXO
set -euo pipefail
sources=$1 vexo=$2
if ! command -v systemd-analyze >/dev/null; then
    echo "skipped: systemd-analyze is missing (Debian package systemd)"
    exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ln -s "$vexo" "$work/vexo"
cp "$sources"/packaging/systemd/* "$work"
sed -i "s|^ExecStart=vexo |ExecStart=$work/vexo |" "$work/vexo@.service"

# Any complaint counts. systemd-analyze returns 0 for an unknown key.
verify() { (cd "$work" && systemd-analyze verify --man=no ./vexo*.* 2>&1); }
complaints=$(verify) || true
if [ -n "$complaints" ]; then
    echo "systemd complains about the units: $complaints"
    exit 1
fi
sed -i 's/^WatchdogSec=/WatchDogSec=/' "$work/vexo@.service"
complaints=$(verify) || true
if [ -z "$complaints" ]; then
    echo "systemd-analyze does not see a misspelt key: it proves nothing"
    exit 1
fi

command=$(sed -n "s|^ExecStart=||p" "$work/vexo@.service")
command=${command//\/etc\/vexo\/%i/zce}
command=${command/'${PROGRAM} $ARGUMENTS'//bin/false}
cp "$sources/examples/zce.ini" "$work"
status=0
(cd "$work" && bash -c "$command") || status=$?
if [ "$status" -ne 1 ]; then # that of /bin/false
    echo "vexo ends with status $status: $command"
    exit 1
fi
