#!/usr/bin/env bash
# A million quotes of a hosted card at full rate, as vexo export and tshark show them: every field of every row has to be
# the same. Measures the rates of CSV, JSON lines and numpy; CSV has to reach 500,000 rows a second, or the rate at which
# the disk takes the same bytes, and five times tshark's.
#     scripts/soak.sh export
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../common.sh"

quotes=1000000
build_preset "$VEXO_SOAK_DIR/export-build.log" release -DVEXO_BUILD_TOOLS=ON -DBUILD_TESTING=ON -- \
    vexo vexo-simcard quote_printer vexo_own_day_files
bin=$vexo_root/build/release/bin
work=$(mktemp -d -p "$VEXO_SOAK_DIR")
trap 'kill "${host:-}" 2>/dev/null || true; rm -rf "$work"' EXIT

export VEXO_SIM_DIR=$work VEXO_SIM_CARD=hosted VEXO_TEST_DAY_FILES=$work
cd "$work"
"$bin/vexo-simcard" --pace max --quiet &
host=$!
until "$bin/vexo-simcard" --json >/dev/null 2>&1; do sleep 0.1; done
# The loader takes no path with a blank.
cp "$vexo_root/build/release/tests/scripts/libvexo_own_day_files.so" days.so
LD_PRELOAD=$work/days.so "$bin/vexo" tap --ring 64 --output quotes.pcapng -- \
    "$bin/quote_printer" "$vexo_root/examples/demo.ini" --quotes "$quotes" >tap.log 2>&1 || { cat tap.log; exit 1; }
kill "$host"
python3 "$vexo_root/tests/soak/export.py" "$bin/vexo" "$vexo_root/tools/wireshark/vexo.lua" quotes.pcapng
