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

need_packages "${build_packages[@]}" "${tool_packages[@]}" build-essential debhelper dpkg-dev fakeroot git lintian \
    python3
packages=$vexo_root/build/packages
rm -rf "$packages"
mkdir -p "$packages"
# debian/rules could not take a path with a blank, and the one of the sources may have some.
work=$(mktemp -d "${TMPDIR:-/var/tmp}/vexo-packages.XXXXXX")
tree=$work/vexo-zce-md fresh=$work/fresh
cleanup() {
    ! mountpoint -q "$fresh/proc" || umount "$fresh/proc"
    rm -rf --one-file-system "$work"
}
trap cleanup EXIT
# What git tracks and what it would track: neither build folders nor logs get into a package.
mkdir "$tree"
(cd "$vexo_root" && git -c safe.directory="$vexo_root" ls-files -z --cached --others --exclude-standard |
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
while_showing "  checking with lintian" lintian --allow-root --fail-on error,warning "$work"/*.changes
mv "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$packages"
rm -rf "$tree"
echo "The packages are in $packages:"
(cd "$packages" && ls ./*.deb)
[ "$try" = yes ] || exit 0

need_packages debootstrap
log=$packages/try.log
echo "Trying them in a fresh Debian (some minutes); the whole output is in $log"
if ! while_showing "  trying" into_file "$log" "$vexo_root/packaging/try.sh" "$packages" "$fresh"; then
    tail -n 40 "$log" >&2
    echo "The packages do not work in a fresh Debian. The whole output is in $log" >&2
    exit 1
fi
tail -n 1 "$log"
