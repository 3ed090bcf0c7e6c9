#!/usr/bin/env bash
# Tries the packages in a fresh Debian in a folder. scripts/package.sh --try calls it, as root.
#
#     packaging/try.sh PACKAGES FOLDER
#
# Installs the library and its development files alone, with the commands of README, and builds README's program there
# as README types it. Then it installs the rest and runs the program on the simulated card. The folder stays.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
packages=$1 fresh=$2

settings=(HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive)
for name in http_proxy https_proxy no_proxy; do
    [ -z "${!name:-}" ] || settings+=("$name=${!name}")
done
inside() { chroot "$fresh" env -i "${settings[@]}" "$@"; }

# The mirror of this machine, which is reachable; debootstrap has one of its own to fall back on.
mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Origin: Debian' 'Codename: bookworm' |
    sort -u | head -n 1)
# shellcheck disable=SC2086  # none is no word
debootstrap --variant=minbase bookworm "$fresh" ${mirror%/}
mount -t proc proc "$fresh/proc"
mkdir -p "$fresh/sources/build/packages"
cp "$packages"/*.deb "$fresh/sources/build/packages"
cp -r "$root/README.md" "$root/packaging/debian/tests" "$fresh/sources"
inside apt-get update
inside apt-get install -y --no-install-recommends cmake g++ ninja-build pkg-config procps

# What README types to install: first without the simulated card.
mapfile -t lines < <(sed -n 's/^    \(apt-get install .*\)/\1/p' "$root/README.md")
[ "${#lines[@]}" -eq 2 ] || { echo "README has ${#lines[@]} lines that install packages, not 2" >&2; exit 1; }
install() { inside sh -euc "cd /sources && $1 --yes --no-install-recommends"; }
installed() { inside dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q '^install ok installed$'; }
install "${lines[0]}"
for package in vexo-sim vexo-tools; do
    if installed "$package"; then
        echo "the library's packages bring $package with them" >&2
        exit 1
    fi
done
inside sh -euc "cd /sources && tests/consumer build"
install "${lines[1]}"
inside sh -euc "cd /sources && tests/consumer run"
