#!/usr/bin/env bash
# Sends 5,000 times SIGINT or SIGTERM at a random instant: one signal must end the process, and no line of the log may be
# torn. VEXO_SOAK_MINUTES ends it earlier; VEXO_SOAK_DIR is where it works.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../common.sh"
work=${VEXO_SOAK_DIR:-$vexo_root/build/soak}/signals
rm -rf "$work" && mkdir -p "$work"
build_preset "$work/build.log" release -- stop_signals
cd "$work"
seed=$RANDOM
echo "seed $seed"
nice -n 10 "$vexo_root/build/release/tests/soak/stop_signals" 5000 "$seed" 2>"$work/errors" || {
    grep -e '^FOUND' "$work/errors"
    echo "one signal did not end each process, or a line is torn: see $work"
    exit 1
}
