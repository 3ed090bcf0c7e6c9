#!/usr/bin/env bash
# Builds the Debian packages of this tree into build/packages and checks them with lintian.
#
#     scripts/package.sh
#
# The packages: libvexo-zce-md1 (the library), libvexo-zce-md-dev (headers and what linking needs), vexo-sim (the
# simulated card) and vexo-tools (vexo, vexo-cardtest). Install them with: apt-get install ./build/packages/*.deb
# The whole output of the build is in build/packages/build.log.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
help_if_asked "$@"
[ $# -eq 0 ] || usage_error "unexpected argument $1"

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
