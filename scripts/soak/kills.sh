#!/usr/bin/env bash
# Kills 1,000 writers of day files and 500 each of taps, hosts, recording hosts, readers and users of registers, each at a
# random instant, and looks at what was left. VEXO_SOAK_MINUTES ends it earlier; VEXO_SOAK_DIR is where it works.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../common.sh"
work=${VEXO_SOAK_DIR:-$vexo_root/build/soak}/kills
rm -rf "$work" && mkdir -p "$work"
build_preset "$work/build.log" release -- vexo vexo-simcard vexo_tap card_user quote_recorder vexo_own_day_files
cd "$work"
seed=$RANDOM
echo "seed $seed"
nice -n 10 python3 "$vexo_root/tests/soak/kills.py" "$vexo_root/build/release" "$seed" 1000 500 4
