#!/usr/bin/env bash
# Compares the interface of the library, as a linked program sees it, with its baseline packaging/abi.
#
#     scripts/abi.sh [--update] [LIBRARY]
#
# LIBRARY is build/release/src/libvexo_zce_md.so.1 unless it is given; it needs debug information. Ends with 1 and a
# report when a symbol, a layout or the order of virtual functions differs. --update makes LIBRARY the new baseline.
# docs/abi.md says which changes are allowed.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
help_if_asked "$@"

update=no
if [ "${1:-}" = --update ]; then
    update=yes
    shift
fi
case ${1:-} in -*) usage_error "unknown option $1" ;; esac
[ $# -le 1 ] || usage_error "unexpected argument $2"
library=${1:-$vexo_root/build/release/src/libvexo_zce_md.so.1}
baseline=${VEXO_ABI_BASELINE:-$vexo_root/packaging/abi/libvexo_zce_md.so.1.abi}
if [ ! -f "$library" ]; then
    echo "There is no library $library. Build it first: cmake --preset release && cmake --build --preset release" >&2
    exit 1
fi

need_packages abigail-tools
if [ "$update" = yes ]; then
    abidw --headers-dir "$vexo_root/include" --drop-private-types --exported-interfaces-only --no-show-locs \
        --no-comp-dir-path --no-corpus-path --no-elf-needed --no-parameter-names --out-file "$baseline" "$library"
elif ! abidiff "$baseline" "$library"; then
    echo "The interface of the library differs from its baseline. See docs/abi.md." >&2
    exit 1
fi
