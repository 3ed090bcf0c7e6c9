#!/usr/bin/env bash
# Fuzzes the library and the simulated card with libFuzzer under AddressSanitizer and UndefinedBehaviorSanitizer, and the
# dissector with captures that were made up. scripts/soak.sh calls it.
#
# VEXO_SOAK_MINUTES  minutes in all; empty: 10 million packets for the packet entry, 300,000 inputs for the archive, 1 million
#                    for each other target and 1 million packets for the dissector; the archive and the spoiled cards take
#                    more than half an hour each, because an input reads compressed files or runs a whole card
# VEXO_SOAK_DIR      what the fuzzers leave: a log a target, the inputs found, and each input that is a finding
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../common.sh"

need_packages "${build_packages[@]}" "${tool_packages[@]}" clang libclang-rt-14-dev tshark python3
work=${VEXO_SOAK_DIR:-$vexo_root/build/soak}/fuzz
minutes=${VEXO_SOAK_MINUTES:-}
mkdir -p "$work"
build_preset "$work/build.log" fuzz

# Name, runs and longest input of each target. A fuzzer finds long inputs late and runs them slowly.
targets=(
    "dayfile 1000000 1024"
    "scenario 1000000 2048"
    "capture 1000000 2048"
    "ini 1000000 2048"
    "packet 10000000 1024"
    "remote 1000000 2048"
    "history 300000 1024"
    "block 1000000 600"
)
seconds=$((${minutes:-0} * 60 / (${#targets[@]} + 1)))

export TZ=Asia/Shanghai VEXO_SIM_CARD=embedded
# The library keeps its services until the process ends, so leaks are not asked for. The small quarantine keeps big
# buffers in the cache, and short call stacks of allocations take less time.
ASAN_OPTIONS=detect_leaks=0:quarantine_size_mb=4:thread_local_quarantine_size_kb=64:hard_rss_limit_mb=2500
export ASAN_OPTIONS+=:malloc_context_size=4
# Files that are written for each input are best in memory.
if [ -d /dev/shm ] && [ -w /dev/shm ]; then export TMPDIR=/dev/shm; fi

figures=()
found=0
for target in "${targets[@]}"; do
    read -r name runs longest <<<"$target"
    mkdir -p "$work/$name"
    limit=(-runs="$runs")
    if [ "$seconds" -gt 0 ]; then limit=(-max_total_time="$seconds"); fi
    # To weigh the inputs by how rare their features are takes as long as running them: -entropic=0.
    # The thread that watches the memory sleeps through the library's fake clock; the sanitizer watches instead.
    if ! nice -n 10 "$vexo_root/build/fuzz/tests/fuzz/vexo_fuzz_$name" "${limit[@]}" -max_len="$longest" \
        -entropic=0 -rss_limit_mb=0 -detect_leaks=0 -close_fd_mask=2 -print_final_stats=1 -artifact_prefix="$work/$name-" \
        -dict="$vexo_root/tests/fuzz/dictionaries/$name.dict" \
        "$work/$name" "$vexo_root/tests/fuzz/corpus/$name" >"$work/$name.log" 2>&1; then
        found=1
        echo "$name: a finding; the input is in $work, the report at the end of $work/$name.log"
        tail -n 40 "$work/$name.log"
    fi
    count=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$name.log")
    figures+=("$name ${count:-0}")
done

packets=1000000
limit=(--packets "$packets")
if [ "$seconds" -gt 0 ]; then limit=(--seconds "$seconds"); fi
if ! nice -n 10 python3 "$vexo_root/tests/fuzz/dissector_fuzz.py" "${limit[@]}" --work "$work/dissector" \
    "$vexo_root/tools/wireshark/vexo.lua" >"$work/dissector.log" 2>&1; then
    found=1
    tail -n 40 "$work/dissector.log"
fi
figures+=("dissector $(sed -n 's/^packets: *//p' "$work/dissector.log")")

printf -v line '%s, ' "${figures[@]}"
[ "$found" -eq 0 ] && verdict="no finding" || verdict="FINDINGS"
echo "$verdict; inputs: ${line%, }"
exit "$found"
