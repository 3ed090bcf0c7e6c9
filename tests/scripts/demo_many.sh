#!/usr/bin/env bash
# demo_many.sh BUILD SOURCES     the demo of one card and many machines accounts for every packet
set -euo pipefail
build=$1 sources=$2
PATH=$PATH:/usr/sbin command -v nats-server >/dev/null || { echo "skipped: nats-server is not installed" && exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "$1" >&2
    cat "$work/out" "$work"/run/*.err >&2
    exit 1
}
status=0
VEXO_DEMO_DIR="$work/run" "$sources/scripts/demo-many.sh" --built "$build" --seconds 1 --rate 2000 >"$work/out" 2>&1 ||
    status=$?
[ "$status" -eq 0 ] || fail "the demo ended with $status"
rows=$(grep -c ', on a remote card  *[0-9][0-9]*  *[0-9][0-9]*$' "$work/out")
[ "$rows" -eq 3 ] || fail "$rows of three programs are in the table"
grep -q '^Every packet is accounted for\.$' "$work/out" || fail "the demo does not say that all packets are there"
if grep -q '^Message server: $' "$work/out"; then fail "the demo does not know its server"; fi
