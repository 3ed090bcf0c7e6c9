#!/usr/bin/env bash
# Makes 500 small mistakes in src/, one at a time, and counts those that the tests notice. Takes about
# twenty minutes of a processor.
# A survivor that no test can kill stands in scripts/soak/equivalent_mutants.txt, with the reason.
#     scripts/soak.sh mutation
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
exec nice -n 5 python3 "$here/mutation.py" "$here/../.." "$VEXO_SOAK_DIR/mutation" --minutes "${VEXO_SOAK_MINUTES:-0}"
