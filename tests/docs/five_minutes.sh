#!/usr/bin/env bash
# Runs the commands of the guide's first section as they stand there: the host's in the background, the user's beside it.
set -euo pipefail
page=$1 programs=$2 configuration=$3
work=$(mktemp -d)
trap 'kill "${host:-}" 2>/dev/null || true; rm -rf "$work"' EXIT
export VEXO_SIM_DIR=$work PATH=$programs:$PATH
mkdir "$work/run"
cp "$configuration" "$work/run/"
cd "$work/run"

# The n-th block of shell commands on the page.
block() { awk -v n="$1" '/^```sh$/ { inside = ++count == n; next } /^```$/ { inside = 0 } inside' "$page"; }

fail() {
    echo "$1" >&2
    cat host.log user.log >&2 || true
    exit 1
}

[ -n "$(block 1)" ] && [ -n "$(block 2)" ] || fail "the page has no two blocks of commands"
# A map of the simulated card is left behind on no machine that had none.
day_file=/tmp/.zce_$(date +%Y%m%d)_$([ "$(date +%-H)" -lt 17 ] && echo am || echo pm)
had_day_file=$([ -e "$day_file" ] && echo yes || echo no)

bash -euc "$(block 1 | sed '$s/^/exec /')" >host.log 2>&1 &
host=$!
until vexo-simcard --json >/dev/null 2>&1; do
    kill -0 "$host" 2>/dev/null || fail "the host ended"
    sleep 0.1
done
status=0
bash -euc "$(block 2)" >user.log 2>&1 || status=$?
[ "$had_day_file" = yes ] || rm -f "$day_file"
[ "$status" -eq 0 ] || fail "the user's commands ended with $status"
received=$(sed -n 's/^received \([0-9]*\) quotes.*/\1/p' user.log)
[ "${received:-0}" -gt 1000 ] || fail "received ${received:-no} quotes"
grep -q '^simulated card at bus 0, process .*learned [0-9]* of\|^learned [0-9]* of' user.log || fail "no status was shown"
kill "$host"
wait "$host" || fail "the host did not end well"
