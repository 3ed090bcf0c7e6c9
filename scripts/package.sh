#!/usr/bin/env bash
# Builds the Debian packages of this tree into build/packages and checks them with lintian.
#
#     scripts/package.sh [--try]
#
# The packages: libvexo-zce-md1 (the library), libvexo-zce-md-dev (headers and what linking needs), vexo-sim (the
# simulated card) and vexo-tools (vexo, vexo-cardtest). Install them with: apt-get install ./build/packages/*.deb
# The whole output of the build is in build/packages/build.log.
# --try then makes a fresh Debian in a folder, as root: it installs the library and its development files alone, builds
# README's program there as README types it, installs the rest, and runs the program on the simulated card.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
help_if_asked "$@"
try=no
if [ "${1:-}" = --try ]; then
    try=yes
    shift
fi
[ $# -eq 0 ] || usage_error "unexpected argument $1"
if [ "$try" = yes ] && [ "$(id -u)" -ne 0 ]; then
    echo "--try makes a Debian in a folder. That needs root." >&2
    exit 1
fi

need_packages "${build_packages[@]}" "${tool_packages[@]}" debhelper dpkg-dev fakeroot lintian python3
packages=$vexo_root/build/packages
tree=$packages/vexo-zce-md
rm -rf "$packages"
mkdir -p "$tree"
# What git tracks and what it would track: neither build folders nor logs get into a package.
(cd "$vexo_root" && git ls-files -z --cached --others --exclude-standard |
    while IFS= read -r -d '' file; do [ ! -f "$file" ] || printf '%s\0' "$file"; done |
    tar --null -T - -cf -) | tar -C "$tree" -xf -
cp -r "$tree/packaging/debian" "$tree/debian"
log=$packages/build.log
echo "Building the packages (some minutes); the whole output is in $log"
(cd "$tree" && dpkg-buildpackage -us -uc -b 2>&1) | report_build "$log" || {
    tail -n 40 "$log" >&2
    echo "Building the packages failed. The whole output is in $log" >&2
    exit 1
}
lintian --fail-on error,warning "$packages"/*.changes
rm -rf "$tree"
echo "The packages are in $packages:"
(cd "$packages" && ls ./*.deb)
[ "$try" = yes ] || exit 0

need_packages debootstrap
fresh=$packages/fresh
log=$packages/try.log
inside() { chroot "$fresh" env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"; }
cleanup() {
    ! mountpoint -q "$fresh/proc" || umount "$fresh/proc"
    rm -rf --one-file-system "$fresh"
}
trap cleanup EXIT
try_packages() {
    debootstrap --variant=minbase bookworm "$fresh"
    mount -t proc proc "$fresh/proc"
    mkdir -p "$fresh/sources/build/packages"
    cp "$packages"/*.deb "$fresh/sources/build/packages"
    cp -r "$vexo_root/README.md" "$vexo_root/packaging/debian/tests" "$fresh/sources"
    inside apt-get update
    inside apt-get install -y --no-install-recommends cmake g++ ninja-build pkg-config procps
    local line
    # As README types it: first without the simulated card.
    while IFS= read -r line; do
        inside sh -euc "cd /sources && $line --yes --no-install-recommends"
        inside sh -euc "cd /sources && if [ ! -e /tmp/vexo-consumer ]; then tests/consumer build; else tests/consumer run; fi"
    done < <(sed -n 's/^    \(apt-get install .*\)/\1/p' "$vexo_root/README.md")
}
echo "Trying them in a fresh Debian (some minutes); the whole output is in $log"
if ! try_packages >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    echo "The packages do not work in a fresh Debian. The whole output is in $log" >&2
    exit 1
fi
tail -n 1 "$log"
