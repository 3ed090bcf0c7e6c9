#!/usr/bin/env bash
# Installs the build into a prefix and uses it from there as a stranger would: a program built through the CMake package
# and one built through pkg-config, each on the simulated card and, unchanged, on another hardware library.
set -euo pipefail
export VEXO_SIM_CARD=embedded  # whatever card is hosted on this machine
build=$1 sources=$2 libdir=$3 no_card=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
consumer=$sources/tests/packaging/consumer

fail() {
    echo "$1" >&2
    exit 1
}

cmake --install "$build" --prefix "$prefix" >/dev/null
# The prefix that the build was configured for is another one; the package finds its own by itself.
export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
package() { pkg-config "$@" vexo-zce-md; }

cmake -G Ninja -S "$consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
# shellcheck disable=SC2046  # the flags are words
g++ "$consumer/main.cpp" -o "$work/consumer-pkgconfig" $(package --cflags --libs)

# The folder of examples builds by itself, wherever somebody copies it. tests/examples runs them in earnest.
cp -r "$sources/examples" "$work/copied"
cmake -G Ninja -S "$work/copied" -B "$work/examples" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/examples" >/dev/null
for program in blocking poll_loop several_channels several_processes framework_adapter quote_printer; do
    LD_LIBRARY_PATH=$prefix/$libdir:$prefix/$libdir/vexo-sim "$work/examples/$program" --version >/dev/null ||
        fail "the example $program does not run"
done

printf '[config]\ndevice = xilinx0:3\n' >"$work/zce.ini"
cd "$work"
for program in "$work/cmake/consumer" "$work/consumer-pkgconfig"; do
    status=0
    LD_LIBRARY_PATH=$prefix/$libdir:$prefix/$libdir/vexo-sim "$program" zce.ini >out 2>err || status=$?
    [ "$status" -eq 42 ] || fail "$program on the simulated card ended with $status: $(cat out err)"
    grep -q 'Init dma channel :CUSTOM_CHAN3_DATA success.' out || fail "no stream opened: $(cat out)"
    grep -q SIMULATED err || fail "the simulated card does not announce itself: $(cat err)"

    status=0
    LD_LIBRARY_PATH=$(dirname "$no_card"):$prefix/$libdir "$program" zce.ini >out 2>err || status=$?
    [ "$status" -eq 0 ] || fail "$program without a card ended with $status: $(cat out err)"
    grep -q 'get acc num:0.' out || fail "the other hardware library was not asked: $(cat out)"
done

# The command-line tool finds what it loads into programs, from where it was installed.
if [ -x "$prefix/bin/vexo" ]; then
    status=0
    LD_LIBRARY_PATH=$prefix/$libdir "$prefix/bin/vexo" sim run -- "$prefix/bin/vexo" tap --output tapped.pcapng -- \
        "$work/cmake/consumer" zce.ini >out 2>err || status=$?
    [ "$status" -eq 42 ] || fail "vexo sim run -- vexo tap ended with $status: $(cat out err)"
    grep -q SIMULATED err || fail "vexo sim run did not choose the simulated card: $(cat err)"
    [ -s tapped.pcapng ] || fail "vexo tap recorded nothing: $(cat err)"
fi

soname=$(readelf -d "$prefix/$libdir/libvexo_zce_md.so" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
[ "$soname" = libvexo_zce_md.so.1 ] || fail "SONAME is $soname"
if readelf -d "$prefix/$libdir/libvexo_zce_md.so" | grep -q -e RUNPATH -e RPATH; then
    fail "the installed library has a run path of its own"
fi
