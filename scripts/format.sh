#!/usr/bin/env bash
# Formats every C and C++ source of the tree as .clang-format says.
#     scripts/format.sh           rewrites what is not formatted
#     scripts/format.sh --check   names what is not, and fails; exit status 77 without clang-format 14
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
cd "$vexo_root"

usage() {
    sed -n '2,4s/^# \?//p' "${BASH_SOURCE[0]}"
}

mode=(-i)
case "$#:${1:-}" in
    0:) ;;
    1:--check) mode=(--dry-run -Werror) ;;
    1:--help) usage; exit 0 ;;
    *) usage >&2; exit 2 ;;
esac

# Another release formats some lines in another way.
formatter=
for candidate in clang-format-14 clang-format; do
    if "$candidate" --version 2>/dev/null | grep -q 'version 14\.'; then
        formatter=$candidate
        break
    fi
done
if [ -z "$formatter" ]; then
    echo "skipped: clang-format 14 is not installed (Debian: apt-get install clang-format)" >&2
    exit 77
fi

format_all() {
    find bench capture examples include interface sim src tests tools \
         \( -name '*.h' -o -name '*.c' -o -name '*.cpp' \) -print0 |
        xargs -0 -P 2 -n 40 "$formatter" "${mode[@]}" --style=file
}
while_showing "  formatting" format_all
