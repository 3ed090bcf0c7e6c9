#!/usr/bin/env bash
# A linked program's view of the library is the one of the baseline, and a difference is found.
set -euo pipefail
sources=$1 library=$2
command -v abidiff >/dev/null || { echo "skipped: there is no abidiff (Debian package abigail-tools)"; exit 77; }
"$sources/scripts/abi.sh" "$library"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
baseline=$sources/packaging/abi/libvexo_zce_md.so.1.abi
found() {
    export VEXO_ABI_BASELINE=$work/other.abi
    sed -e "$2" "$baseline" >"$VEXO_ABI_BASELINE"
    ! cmp -s "$baseline" "$VEXO_ABI_BASELINE" || { echo "$1: nothing was changed" >&2; exit 1; }
    if "$sources/scripts/abi.sh" "$library" >/dev/null 2>&1; then
        echo "$1 was not found" >&2
        exit 1
    fi
}
found "a symbol that is gone" 's/_Z10IsValidMacPc/_Z12IsValidOtherPc/g'
found "a symbol that has changed its type" "s/'g_uiPktCnt' size='4'/'g_uiPktCnt' size='8'/"
found "an object that has grown" "s/IVexoZceMdApi' size-in-bits='64'/IVexoZceMdApi' size-in-bits='128'/"
found "virtual functions in another order" "/name='IVexoZceMdSpi'/,/class-decl>/s/vtable-offset='0'/vtable-offset='9'/"
