#!/usr/bin/env bash
# second_master.sh PROGRAMS INI PRELOAD     what docs/troubleshooting.md says of a second master, on a hosted card
set -euo pipefail
programs=$1 ini=$2
work=$(mktemp -d)
trap 'kill "${host:-}" "${first:-}" 2>/dev/null || true; rm -rf "$work"' EXIT
cp "$3" "$work/preload.so"  # LD_PRELOAD takes no path with a blank
mkdir "$work/day-files" "$work/first" "$work/second"
export VEXO_SIM_DIR=$work VEXO_SIM_CARD=hosted VEXO_TEST_DAY_FILES=$work/day-files
# The day file is never complete: a master goes on learning for a quarter of an hour.
sed 's/^BIN_DELAY_TIME.*/BIN_DELAY_TIME = 15/' "$ini" >"$work/demo.ini"

fail() {
    echo "$1" >&2
    tail -n 30 "$work"/*.log >&2
    exit 1
}
master() { cd "$work/$1" && exec env LD_PRELOAD="$work/preload.so" "$programs/quote_printer" ../demo.ini --quotes 0; }
totals() { sed -n 's/^totals .* all \([0-9]*\) .*/\1/p' "$work/first.log"; }
# Waits for one more line of totals of the first master, and prints it.
next_total() {
    local before
    before=$(totals | wc -l)
    until [ "$(totals | wc -l)" -gt "$before" ]; do
        kill -0 "$first" 2>/dev/null || fail "the first master ended"
        sleep 0.1
    done
    totals | tail -n 1
}

"$programs/vexo-simcard" --quiet >"$work/host.log" 2>&1 &
host=$!
until "$programs/vexo-simcard" --json >/dev/null 2>&1; do
    kill -0 "$host" 2>/dev/null || fail "the host ended"
    sleep 0.1
done
(master first) >"$work/first.log" 2>&1 &
first=$!
until [ "$(next_total)" -gt 0 ]; do :; done

status=0
(master second) >"$work/second.log" 2>&1 || status=$?
[ "$status" -eq 1 ] || fail "the second master ended with $status"
grep -q 'Could not create a2c stream.dmaName:CUSTOM_CHAN0_DATA,  err:Device or resource busy' "$work/second.log" ||
    fail "the second master did not find the stream taken"
# What was under way may still be counted in the next line; after that the numbers stand still.
next_total >/dev/null
stands=$(next_total)
[ "$(next_total)" -eq "$stands" ] || fail "the first master still receives quotes"
if grep -q 'write bin file is success' "$work/first.log"; then fail "the first master ended its day file"; fi
kill "$first"
wait "$first" || fail "the first master did not end well"
first=
