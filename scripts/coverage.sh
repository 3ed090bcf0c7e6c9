#!/usr/bin/env bash
# Prints line and branch coverage of src/ by the whole test suite and fails below 97 % of lines or 90 % of branches.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

need_packages "${build_packages[@]}" "${tool_packages[@]}" clang pkg-config libgtest-dev libgmock-dev binutils gcovr
build_preset coverage
cd "$vexo_root"
find build/coverage -name '*.gcda' -delete
quietly ctest --preset coverage -j2
# Branches that the compiler makes for exceptions of every call are not the source's: they are left out.
gcovr --root . --filter 'src/' --object-directory build/coverage --exclude-throw-branches \
      --fail-under-line 97 --fail-under-branch 90 --print-summary
