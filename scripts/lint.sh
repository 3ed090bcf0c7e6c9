#!/usr/bin/env bash
# Runs clang-tidy as .clang-tidy says, over src, capture, sim and tools, or over the files named. Takes minutes.
#     scripts/lint.sh [--build DIR] [FILE...]
# DIR is a configured build folder, build/release by default. Exit status 77 without clang-tidy 14.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

build=$root/build/release
while [ $# -gt 0 ]; do
    case $1 in
        --build)
            [ -n "${2:-}" ] || { echo "--build wants a folder; see scripts/lint.sh --help" >&2; exit 2; }
            build=$2
            shift 2
            ;;
        --help) sed -n '2,4s/^# \?//p' "${BASH_SOURCE[0]}"; exit 0 ;;
        -*) sed -n '2,4s/^# \?//p' "${BASH_SOURCE[0]}" >&2; exit 2 ;;
        *) break ;;
    esac
done

# Another release has other checks.
tidy=
for candidate in clang-tidy-14 clang-tidy; do
    if "$candidate" --version 2>/dev/null | grep -q 'version 14\.'; then
        tidy=$candidate
        break
    fi
done
if [ -z "$tidy" ]; then
    echo "skipped: clang-tidy 14 is not installed (Debian: apt-get install clang-tidy)" >&2
    exit 77
fi
if [ ! -f "$build/compile_commands.json" ]; then
    echo "$build is no configured build folder: cmake --preset release makes one" >&2
    exit 2
fi

if [ $# -gt 0 ]; then
    printf '%s\0' "$@"
else
    find "$root/src" "$root/capture" "$root/sim" "$root/tools" -name '*.cpp' -print0
fi | xargs -0 -P "$(nproc)" -n 1 "$tidy" -p "$build" --quiet
