#!/usr/bin/env bash
# compiles.sh headers SOURCES               each public header alone, as C++11, with both compilers
# compiles.sh sources SOURCES COMPILER      every source of the library, with all warnings as errors
set -euo pipefail
mode=$1 sources=$2
case $mode in
headers)
    for header in "$sources"/include/*.h; do
        for compiler in g++ clang++; do
            "$compiler" -x c++ -std=c++11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -include "$header" /dev/null
        done
    done
    ;;
sources)
    find "$sources/src" -name '*.cpp' -print0 |
        xargs -0 -n 4 -P 2 "$3" -std=c++17 -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror -fsyntax-only \
            -I"$sources" -I"$sources/include" -I"$sources/interface"
    ;;
esac
