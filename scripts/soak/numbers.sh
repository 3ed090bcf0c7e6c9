#!/usr/bin/env bash
# Five minutes of quotes at full rate, from a hosted card to one program on the library. Watches the memory, the
# descriptors, the threads and the writes of the program and of the card's host: after ten seconds none of them moves.
#     scripts/soak.sh numbers
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../common.sh"

seconds=$((${VEXO_SOAK_MINUTES:-5} * 60))
warm_up=10  # start-up, contract map, and the first round through the rings
most_kb=64  # of growth: a page that is touched late for the first time, such as the code of the program's end
build_preset "$VEXO_SOAK_DIR/numbers-build.log" release -DVEXO_BUILD_TOOLS=ON -DBUILD_TESTING=ON -- \
    vexo-simcard quote_printer vexo_own_day_files
bin=$vexo_root/build/release/bin
work=$(mktemp -d)
trap 'kill "${host:-}" "${program:-}" 2>/dev/null || true; rm -rf "$work"' EXIT

export VEXO_SIM_DIR=$work VEXO_SIM_CARD=hosted
cd "$work"
"$bin/vexo-simcard" --pace max --quiet &
host=$!
until "$bin/vexo-simcard" --json >/dev/null 2>&1; do sleep 0.1; done
mkdir days
VEXO_TEST_DAY_FILES=$work/days LD_PRELOAD=$vexo_root/build/release/tests/scripts/libvexo_own_day_files.so \
    "$bin/quote_printer" "$vexo_root/examples/demo.ini" --quotes 0 --seconds $((seconds + 3600)) >output.log 2>&1 &
program=$!
quotes() { sed -n 's/^totals .* all \([0-9]*\) .*/\1/p' output.log | tail -n 1; }
until [ -n "$(quotes)" ]; do
    kill -0 "$program" 2>/dev/null || { cat output.log; exit 1; }
    sleep 0.2
done
sleep "$warm_up"

# One line of a process's figures: kilobytes resident, kilobytes of heap and other data, descriptors, threads, writes.
figures() {
    local rss data threads writes
    rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$1/status")
    data=$(awk '/^VmData:/ { print $2 }' "/proc/$1/status")
    threads=$(awk '/^Threads:/ { print $2 }' "/proc/$1/status")
    writes=$(awk '/^syscw:/ { print $2 }' "/proc/$1/io")
    echo "$rss $data $(find "/proc/$1/fd" -mindepth 1 | wc -l) $threads $writes"
}

first_quotes=$(quotes)
first_program=$(figures "$program")
first_host=$(figures "$host")
start=$SECONDS
while [ $((SECONDS - start)) -lt "$seconds" ]; do
    sleep 5
    echo "after $((SECONDS - start)) s: program $(figures "$program"), host $(figures "$host"), $(quotes) quotes"
done
took=$((SECONDS - start))
last_program=$(figures "$program")
last_host=$(figures "$host")
count=$(($(quotes) - first_quotes))
kill -TERM "$program"
wait "$program" || true
program=
lost=$(sed -n 's/^received .*; lost \([0-9]*\)$/\1/p' output.log)

found=0
# Ends the campaign with a finding when a figure of a process has moved.
compare() {
    local who=$1 rss data fds threads writes rss2 data2 fds2 threads2 writes2
    read -r rss data fds threads writes <<<"$2"
    read -r rss2 data2 fds2 threads2 writes2 <<<"$3"
    echo "$who: resident $rss -> $rss2 kB, data $data -> $data2 kB, descriptors $fds -> $fds2," \
        "threads $threads -> $threads2, $((writes2 - writes)) writes"
    if [ $((rss2 - rss)) -gt "$most_kb" ] || [ "$data2" -gt "$data" ] || [ "$fds2" -ne "$fds" ] ||
        [ "$threads2" -ne "$threads" ] || [ $((writes2 - writes)) -gt $((4 * (took + 10))) ]; then
        echo "FOUND: a figure of the $who has moved"
        found=1
    fi
}
compare program "$first_program" "$last_program"
compare host "$first_host" "$last_host"
if [ "${lost:-none}" != 0 ] || [ "$count" -le 0 ]; then
    echo "FOUND: lost ${lost:-unknown} quotes of $count"
    found=1
fi
read -r rss data fds _ writes <<<"$first_program"
read -r rss2 data2 fds2 _ writes2 <<<"$last_program"
echo "$count quotes in $took s, $lost lost; the program grew by $((rss2 - rss)) kB resident, $((data2 - data)) kB data," \
    "$((fds2 - fds)) descriptors; $((writes2 - writes)) writes"
exit "$found"
