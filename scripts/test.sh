#!/usr/bin/env bash
# Installs what the tests need, builds everything and runs all tests.
#
#     scripts/test.sh [CTEST OPTION...]
#
# Options are handed to ctest, such as -R NAME for some tests only. Shows the failures and ctest's summary; the whole
# output is in build/release-build.log and build/release-test.log.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
help_if_asked "$@"

need_packages "${build_packages[@]}" "${tool_packages[@]}" "${test_packages[@]}"
log=$vexo_root/build/release
echo "Building (some minutes the first time); the whole output is in $log-build.log"
build_preset "$log-build.log" release -DBUILD_TESTING=ON -DVEXO_BUILD_TOOLS=ON
echo "Testing; the whole output is in $log-test.log"
: >"$log-test.log"
test_preset "$log-test.log" release "$@"
