#!/usr/bin/env bash
# Quotes a second from a hosted card to one program on the library, as fast as it takes them. Prints the rate and fails
# below two million, or when a quote is lost.
#
#     bench/hosted_throughput.sh [SECONDS]
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../scripts/common.sh"

seconds=${1:-10}
least=2000000
need_packages "${build_packages[@]}" "${tool_packages[@]}"
build_preset release -DVEXO_BUILD_TOOLS=ON -- vexo-simcard quote_printer
bin=$vexo_root/build/release/bin
work=$(mktemp -d)
trap 'kill "${host:-}" 2>/dev/null || true; rm -rf "$work"' EXIT

export VEXO_SIM_DIR=$work VEXO_SIM_CARD=hosted
cd "$work"
"$bin/vexo-simcard" --pace max --quiet &
host=$!
until "$bin/vexo-simcard" --json >/dev/null 2>&1; do sleep 0.1; done
"$bin/quote_printer" "$vexo_root/examples/demo.ini" --quotes 0 --seconds "$((seconds + 5))" >output.log 2>&1 || {
    cat output.log >&2
    exit 1
}
# The first seconds go into start-up and the contract map: the totals of the last ones count.
rate=$(sed -n 's/^totals .* all \([0-9]*\) .*/\1/p' output.log | tail -n "$((seconds + 1))" |
    awk 'NR == 1 { first = $1 } { last = $1 } END { print int((last - first) / (NR - 1)) }')
lost=$(sed -n 's/^received .*; lost \([0-9]*\)$/\1/p' output.log)
echo "hosted card to one reader: $rate quotes a second over $seconds s, $lost lost ($(nproc) CPUs; at least $least)"
[ "$rate" -ge "$least" ] && [ "$lost" -eq 0 ]
