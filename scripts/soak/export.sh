#!/usr/bin/env bash
# Over a million quotes of a hosted card at full rate, as vexo export and tshark show them: every field of every row has to
# be the same. Measures the rates of CSV, JSON lines and numpy; CSV has to reach 500,000 rows a second of CPU time, and five
# times tshark's rate.
#     scripts/soak.sh export
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../common.sh"

bytes=260000000  # a little over a million quotes
build_preset "$VEXO_SOAK_DIR/export-build.log" release -DVEXO_BUILD_TOOLS=ON -DBUILD_TESTING=ON -- \
    vexo vexo-simcard quote_printer vexo_own_day_files
bin=$vexo_root/build/release/bin
work=$(mktemp -d)
trap 'kill "${host:-}" "${program:-}" 2>/dev/null || true; rm -rf "$work"' EXIT

export VEXO_SIM_DIR=$work VEXO_SIM_CARD=hosted VEXO_TEST_DAY_FILES=$work
cd "$work"
"$bin/vexo-simcard" --pace max --quiet &
host=$!
until "$bin/vexo-simcard" --json >/dev/null 2>&1; do sleep 0.1; done
LD_PRELOAD=$vexo_root/build/release/tests/scripts/libvexo_own_day_files.so "$bin/vexo" tap --ring 64 --output quotes.pcapng -- \
    "$bin/quote_printer" "$vexo_root/examples/demo.ini" --quotes 0 >tap.log 2>&1 &
program=$!
while [ "$(stat -c %s quotes.pcapng 2>/dev/null || echo 0)" -lt "$bytes" ]; do
    kill -0 "$program" 2>/dev/null || { cat tap.log; exit 1; }
    sleep 0.05
done
kill -INT "$program"
wait "$program"
kill "$host"
python3 "$vexo_root/tests/soak/export.py" "$bin/vexo" "$vexo_root/tools/wireshark/vexo.lua" quotes.pcapng
