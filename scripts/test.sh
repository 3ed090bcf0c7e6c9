#!/usr/bin/env bash
# Builds everything and runs all tests. Options are handed to ctest, such as -R NAME.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

need_packages "${build_packages[@]}" clang pkg-config libgtest-dev libgmock-dev binutils valgrind python3
echo "Building (some minutes the first time) ..."
build_preset release -DBUILD_TESTING=ON
cd "$vexo_root"
ctest --preset release -j2 "$@"
