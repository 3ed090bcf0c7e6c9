#!/usr/bin/env bash
# Prints line and branch coverage of src/ by the whole test suite. Fails below 97 % of lines or 90 % of branches.
#
#     scripts/coverage.sh
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
help_if_asked "$@"
[ $# -eq 0 ] || usage_error "Unknown argument $1"

need_packages "${build_packages[@]}" "${tool_packages[@]}" "${test_packages[@]}" gcovr
log=$vexo_root/build/coverage
echo "Building and testing; the whole output is in $log-build.log and $log-test.log"
build_preset "$log-build.log" coverage
cd "$vexo_root"
find build/coverage -name '*.gcda' -delete
: >"$log-test.log"
test_preset "$log-test.log" coverage
# Branches that the compiler makes for exceptions of every call are not the source's: they are left out.
while_showing "  counting" gcovr --root . --filter 'src/' --object-directory build/coverage --exclude-throw-branches \
      --fail-under-line 97 --fail-under-branch 90 --print-summary
