#!/usr/bin/env bash
# Runs all tests under AddressSanitizer with UndefinedBehaviorSanitizer, then under ThreadSanitizer.
#
#     scripts/sanitize.sh [CTEST OPTION...]
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
help_if_asked "$@"

need_packages "${build_packages[@]}" "${tool_packages[@]}" "${test_packages[@]}"
for preset in asan tsan; do
    log=$vexo_root/build/$preset
    echo "Building and testing $preset; the whole output is in $log-build.log and $log-test.log"
    build_preset "$log-build.log" "$preset"
    : >"$log-test.log"
    test_preset "$log-test.log" "$preset" "$@"
done
