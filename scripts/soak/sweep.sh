#!/usr/bin/env bash
# Lets every call of the library fail: see tests/sweep. Takes about half an hour. scripts/soak.sh runs it.
#
#     VEXO_SOAK_DIR=DIR [VEXO_SOAK_MINUTES=N] scripts/soak/sweep.sh
#
# What a run with a finding leaves is kept in DIR.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../common.sh"

build_preset "$vexo_root/build/soak-sweep-build.log" release -- vexo_sweep_tests
program=$vexo_root/build/release/tests/sweep/vexo_sweep_tests
export VEXO_SWEEP=all VEXO_SWEEP_PATIENCE=600 TZ=Asia/Shanghai VEXO_SIM_CARD=embedded
output=$VEXO_SOAK_DIR/sweep-output.log
end=$((SECONDS + 60 * ${VEXO_SOAK_MINUTES:-1000000}))
: >"$output"
# "Suite." and below it, indented, its tests; behind a # the parameter.
tests=$("$program" --gtest_list_tests |
    awk '/^Running/ { next } /^[^ ]/ { suite = $1; next } { print suite $1 }')
status=0 ran=0
for one in $tests; do
    [ "$SECONDS" -lt "$end" ] || break
    "$program" --gtest_filter="$one" >>"$output" 2>&1 || status=1
    ran=$((ran + 1))
done
grep -A 4 ': Failure$' "$output" || true
awk -v tests="$ran" '
    /^sweep: / { points += $2; findings += $4 }
    /^\[  FAILED  \] .* ms\)$/ { failed++ }
    END { printf "%d points, %d findings, %d of %d tests failed\n", points, findings, failed, tests }' "$output"
exit "$status"
