#!/usr/bin/env bash
# Several users on one machine: two users and a group, squatted names, containers, versions, a 17th process, and 60
# processes that are stopped in the middle of a register access. What needs root is skipped without it, and the figures
# say so. VEXO_SOAK_MINUTES ends it earlier; VEXO_SOAK_DIR is where it works.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../common.sh"
work=${VEXO_SOAK_DIR:-$vexo_root/build/soak}/users
rm -rf "$work" && mkdir -p "$work"
build_preset "$work/build.log" release -- vexo vexo-simcard vexo_tap card_user quote_recorder vexo_own_day_files
cd "$work"
seed=$RANDOM
echo "seed $seed"
nice -n 10 python3 "$vexo_root/tests/soak/users.py" "$vexo_root/build/release" "$seed" 60
