#!/usr/bin/env bash
# Builds the Debian packages, installs them in a fresh Debian, and builds and runs README's program there.
#
# That is scripts/package.sh --try, and takes five minutes of a CPU: everything is compiled again with the flags of
# Debian, which no other build has. So it runs where CI is set, or VEXO_TRY_PACKAGES=yes; VEXO_TRY_PACKAGES=no keeps it
# out of CI. What can be compared without that, contents.py compares everywhere.
set -euo pipefail
sources=$1
skip() { echo "skipped: $1" && exit 77; }
wanted=no
[ -z "${CI:-}" ] || wanted=yes
[ "${VEXO_TRY_PACKAGES:-$wanted}" = yes ] ||
    skip "it takes minutes; CI does it, and scripts/package.sh --try"
[ "$(id -u)" -eq 0 ] || skip "only root can make a Debian in a folder"
unshare --mount true 2>/dev/null || skip "nobody can mount anything in this container"
command -v apt-get >/dev/null || skip "this is no Debian"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Origin: Debian' 'Codename: bookworm' |
    sort -u | head -n 1)
[ -n "$mirror" ] && /usr/lib/apt/apt-helper download-file "${mirror%/}/dists/bookworm/Release" "$work/Release" >/dev/null 2>&1 ||
    skip "no mirror of Debian is reachable"
# Debug information and the last optimization would take a third of the time, and nothing here looks at them.
export DEB_BUILD_OPTIONS=noautodbgsym DEB_CFLAGS_APPEND='-g0 -O1' DEB_CXXFLAGS_APPEND='-g0 -O1'
"$sources/scripts/package.sh" --try
