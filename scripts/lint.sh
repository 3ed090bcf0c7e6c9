#!/usr/bin/env bash
# Runs clang-tidy as .clang-tidy says, over src, capture, sim and tools, or over the files named. Takes minutes.
# Without files it runs cppcheck over the same folders, too; scripts/cppcheck.txt gives the exceptions.
#     scripts/lint.sh [--build DIR] [FILE...]
# DIR is a configured build folder, build/release by default. Exit status 77 without clang-tidy 14.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
root=$vexo_root

build=$root/build/release
while [ $# -gt 0 ]; do
    case $1 in
        --build)
            [ -n "${2:-}" ] || { echo "--build wants a folder; see scripts/lint.sh --help" >&2; exit 2; }
            build=$2
            shift 2
            ;;
        --help) sed -n '2,5s/^# \?//p' "${BASH_SOURCE[0]}"; exit 0 ;;
        -*) sed -n '2,5s/^# \?//p' "${BASH_SOURCE[0]}" >&2; exit 2 ;;
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

files=("$@")
if [ $# -eq 0 ]; then
    mapfile -d '' files < <(find "$root/src" "$root/capture" "$root/sim" "$root/tools" -name '*.cpp' -print0)
fi

# Shows what the checks of the files found. A line with nothing but a mark says that one more file is done.
report_lint() {
    local line checked=0
    begin_progress
    while next_line; do
        if [ "$line" = "$done_mark" ]; then
            checked=$((checked + 1))
            show_progress "  checked $checked of ${#files[@]} files"
        else
            end_progress
            printf '%s\n' "$line"
        fi
    done
    end_progress
}
export tidy build done_mark=$'\001'
# shellcheck disable=SC2016  # for the shell that xargs starts
check_one='status=0; found=$("$tidy" -p "$build" --quiet "$1" 2>&1) || status=$?
    # It counts what it has left out, too.
    found=$(sed "/^[0-9]* warnings* generated\.$/d" <<<"$found")
    [ -z "$found" ] || printf "%s\n" "$found"
    printf "%s\n" "$done_mark"
    exit "$status"'
found=0
printf '%s\0' "${files[@]}" | xargs -0 -P "$(nproc)" -n 1 bash -c "$check_one" bash | report_lint || found=1

check_with_cppcheck() {
    cppcheck --quiet -j "$(nproc)" --std=c++17 --language=c++ --enable=warning,performance,portability \
        --suppressions-list=scripts/cppcheck.txt --error-exitcode=1 \
        -I include -I interface -I sim/include -I . src capture sim tools
}
if [ $# -eq 0 ] && ! command -v cppcheck >/dev/null; then
    echo "without cppcheck, which is not installed (Debian: apt-get install cppcheck)" >&2
elif [ $# -eq 0 ]; then
    cd "$root"
    while_showing "  cppcheck" check_with_cppcheck || found=1
fi
exit "$found"
