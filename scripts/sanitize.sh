#!/usr/bin/env bash
# Runs all tests under AddressSanitizer with UndefinedBehaviorSanitizer, then under ThreadSanitizer.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

need_packages "${build_packages[@]}" "${tool_packages[@]}" clang pkg-config libgtest-dev libgmock-dev binutils
for preset in asan tsan; do
    echo "Building and testing: $preset ..."
    build_preset "$preset"
    (cd "$vexo_root" && ctest --preset "$preset" -j2 "$@")
done
