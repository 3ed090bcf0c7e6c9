#!/usr/bin/env bash
# More than a million quotes, printed by an unmodified program on a remote card and by the same one beside the card: the
# lines have to be the same. Given the program of an earlier release, the same with that. Then a subscriber that is stopped
# (SIGSTOP) and continues in turn: the relay's application must not lose a packet, and its statistics page tells what it
# took. Then a cluster of three servers that are killed one after another, 20 times: each packet has to be there or
# counted. VEXO_SOAK_MINUTES ends it earlier; VEXO_SOAK_DIR is where its results are.
#     scripts/soak.sh [--binary QUOTE_PRINTER] remote
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../common.sh"

need_packages nats-server
quotes=1200000 every_ns=20000 rounds=20 turn=30 turns=2
work=${VEXO_SOAK_DIR:-$vexo_root/build/soak}/remote
rm -rf "$work" && mkdir -p "$work"
end=$((SECONDS + 60 * ${VEXO_SOAK_MINUTES:-1000000}))
# What takes its time by the clock is made smaller for a short campaign: half a minute here, and one to write and compare.
if [ -n "${VEXO_SOAK_MINUTES:-}" ] && [ "$VEXO_SOAK_MINUTES" -lt 10 ]; then
    quotes=$((VEXO_SOAK_MINUTES * 120000)) turn=5 turns=1
fi
build_preset "$work/build.log" release -DVEXO_BUILD_TOOLS=ON -DBUILD_TESTING=ON -- \
    vexo vexo-simcard vexo_tap quote_printer card_user quote_recorder vexo_own_day_files vexo_end_to_end_tests \
    vexo_relay_run_tests
tests=$vexo_root/build/release/tests
found=0

# One test; its properties are in NAME.xml, and its output in NAME.log.
run() {  # NAME PROGRAM FILTER
    if ! "$2" --gtest_filter="$3" --gtest_output="xml:$work/$1.xml" >"$work/$1.log" 2>&1; then
        found=1
        echo "FOUND: $1"
        grep -v -e '^\[--' -e '^$' "$work/$1.log" | head -n 40
    fi
    echo "$1: $(property "$1" quotes) quotes, $(property "$1" arrived) packets arrived, $(property "$1" counted_as_lost) lost"
}
# From <property name="KEY" value="N"/> or KEY="N"; 0 when there is none.
property() {  # NAME KEY
    local value
    value=$(grep -o -e "name=\"$2\" value=\"[0-9]*\"" -e " $2=\"[0-9]*\"" "$work/$1.xml" 2>/dev/null | tail -n 1 |
        grep -o '[0-9]*' | tail -n 1) || true
    echo "${value:-0}"
}

VEXO_END_TO_END_QUOTES=$quotes VEXO_END_TO_END_EVERY_NS=$every_ns \
    run quotes "$tests/remote/vexo_end_to_end_tests" 'EndToEnd.AnUnmodifiedProgramPrints*'
earlier=
if [ -n "${VEXO_SOAK_BINARY:-}" ]; then
    VEXO_END_TO_END_QUOTES=$quotes VEXO_END_TO_END_EVERY_NS=$every_ns VEXO_END_TO_END_PRINTER=$VEXO_SOAK_BINARY \
        run earlier "$tests/remote/vexo_end_to_end_tests" 'EndToEnd.AnUnmodifiedProgramPrints*'
    if [ "$(property earlier quotes)" -lt "$quotes" ]; then found=1; fi
    earlier="$(property earlier quotes) by the program of an earlier release, $(property earlier lost) lost; "
fi
if ! python3 "$vexo_root/tests/soak/stopped_subscriber.py" "$vexo_root/build/release" "$turn" "$turns" \
    >"$work/stopped.log" 2>&1; then
    found=1
    echo "FOUND: with a stopped subscriber"
fi
cat "$work/stopped.log"
stopped=$(tail -n 1 "$work/stopped.log")
arrived=0 lost=0 finished=0
for ((round = 1; round <= rounds; ++round)); do
    [ "$round" -eq 1 ] || [ "$SECONDS" -lt "$end" ] || break
    run "cluster$round" "$tests/relay/vexo_relay_run_tests" 'Relay.AClusterWhoseServersDie*'
    arrived=$((arrived + $(property "cluster$round" arrived)))
    lost=$((lost + $(property "cluster$round" counted_as_lost)))
    finished=$round
done
# A test that was skipped has no properties.
if [ "$(property quotes quotes)" -lt "$quotes" ] || [ "$arrived" -eq 0 ]; then found=1; fi
verdict="all the same, none lost"
[ "$found" -eq 0 ] || verdict="FINDINGS"
echo "$verdict; $(property quotes quotes) quotes on a remote card, $(property quotes lost) lost; $earlier$stopped;" \
    "$finished clusters whose servers died: $arrived packets arrived, $lost counted as lost"
exit "$found"
