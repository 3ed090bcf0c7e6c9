#!/usr/bin/env bash
# configure.sh sdk SOURCES HARDWARE_LIBRARY     the SDK of the card that a build folder uses
# configure.sh missing SOURCES                  errors for what is not installed name the package
# configure.sh alone SOURCES                    library, tools and examples are configured without the others
set -euo pipefail
mode=$1 sources=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "$1" >&2
    cat "$work/out" >&2 || true
    exit 1
}
cmake_path=$PATH
configure() {
    PATH=$cmake_path cmake -S "$sources" -B "$work/build" -DBUILD_TESTING=OFF -DVEXO_BUILD_TOOLS=OFF -DVEXO_BUILD_EXAMPLES=OFF "$@" \
        >"$work/out" 2>&1
}
# The whole message on one line: CMake breaks it to its own width.
message() { tr -s '\n ' ' ' <"$work/out"; }
refused() {  # EXPECTED TEXT... -- CMAKE ARGUMENT...
    local expected=()
    while [ "$1" != -- ]; do expected+=("$1") && shift; done
    shift
    if configure "$@"; then fail "configured in spite of: $*"; fi
    for text in "${expected[@]}"; do
        case $(message) in *"$text"*) ;; *) fail "the error does not say \"$text\"" ;; esac
    done
}
uses() { grep -q -e "$1" "$work/build/build.ninja"; }

case $mode in
sdk)
    for sdk in first second; do
        mkdir -p "$work/$sdk/include/enyx-hw-c" "$work/$sdk/lib"
        cp "$sources/interface/enyx-hw-c/enyx_hw.h" "$work/$sdk/include/enyx-hw-c"
        cp "$3" "$work/$sdk/lib/libenyx-hw-c.so"
    done
    configure -G Ninja -DENYX_HW_ROOT="$work/first" || fail "the first SDK was refused"
    uses "$work/first/lib/libenyx-hw-c.so" && uses "$work/first/include" || fail "the first SDK is not used"
    configure -DENYX_HW_ROOT="$work/second" || fail "the second SDK was refused"
    uses "$work/second/lib/libenyx-hw-c.so" && uses "$work/second/include" || fail "the second SDK is not used"
    if uses "$work/first"; then fail "the first SDK is still used"; fi
    refused "ENYX_HW_ROOT is /nowhere" "-DENYX_HW_ROOT=/path/to/sdk" -- -DENYX_HW_ROOT=/nowhere
    configure -DENYX_HW_ROOT= || fail "a build without the SDK was refused"
    if uses "$work/second"; then fail "the second SDK is still used"; fi
    rm -rf "$work/build"
    refused "ENYX_HW_ROOT is /nowhere" "-DENYX_HW_ROOT=/path/to/sdk" -- -G Ninja -DENYX_HW_ROOT=/nowhere
    ;;
alone)
    configure -G Ninja || fail "the library and the simulated card were refused"
    configure -DVEXO_BUILD_TOOLS=ON || fail "the tools were refused without tests and examples"
    configure -DVEXO_BUILD_TOOLS=OFF -DVEXO_BUILD_EXAMPLES=ON || fail "the examples were refused without tests and tools"
    ;;
missing)
    refused "apt-get install libcli11-dev" -- -G Ninja -DVEXO_BUILD_TOOLS=ON -DCMAKE_DISABLE_FIND_PACKAGE_CLI11=ON
    refused "libgtest-dev" -- -G Ninja -DBUILD_TESTING=ON -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON
    # A PATH with nothing but cmake.
    mkdir "$work/path"
    ln -s "$(command -v cmake)" "$work/path/cmake"
    cmake_path=$work/path
    rm -rf "$work/build"
    refused "apt-get install ninja-build" -- -G Ninja
    rm -rf "$work/build"
    refused "apt-get install make" -- -G "Unix Makefiles"
    ;;
esac
