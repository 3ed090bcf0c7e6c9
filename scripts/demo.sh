#!/usr/bin/env bash
# Builds the library with its simulated card and shows about 15 seconds of market data: the contract map being learned,
# the subscription by the rules of examples/demo.ini, quotes, and what was received.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

need_packages "${build_packages[@]}"
echo "Building (a minute or two the first time) ..."
build_preset release -DBUILD_TESTING=OFF -DVEXO_BUILD_TOOLS=OFF -- quote_printer

bin=$vexo_root/build/release
run_dir=${VEXO_DEMO_DIR:-$vexo_root/run/demo}
mkdir -p "$run_dir"
cd "$run_dir"

half_day() { if [ "$(date +%-H)" -lt 17 ]; then echo am; else echo pm; fi; }
day_file=/tmp/.zce_$(date +%Y%m%d)_$(half_day)
if grep -qs '^bin_file_over_tag$' "$day_file"; then
    echo "There is a contract map of this half-day, $day_file: it is used. Remove it to see the map learned again."
else
    echo "No contract map of this half-day yet: it is learned from the card now and kept in $day_file."
fi
echo "Working directory: $run_dir"
echo

# The library tells every row it writes and every check of the map: the first lines of a kind are shown, the rest counted.
shorten='
function kind(line) {
    sub(/\[[0-9]+-[0-9:]+\]/, "", line)
    if (line ~ /Subscribes:Write to fpga:/) return "rows written"
    if (line ~ /channel is [0-9]+, m_SubsContractClass|Prefix is|instId is/) return "checks of the map"
    return ""
}
{
    k = kind($0)
    if (k == "" || seen[k]++ < 3) print
    else if (seen[k] == 4) print "    ... more " k " ..."
    fflush()
}
END { for (k in seen) print "    " seen[k] " " k " in all" }'

status=0
"$bin/examples/quote_printer" "$vexo_root/examples/demo.ini" --seconds 11 --quotes 2 |
    tee output.log | awk "$shorten" || status=$?

received=$(sed -n 's/^received \([0-9]*\) quotes.*/\1/p' output.log)
echo
if [ "$status" -ne 0 ] || [ "${received:-0}" -lt 1000 ]; then
    echo "The demo did not receive its quotes (${received:-0}); the whole output is in $run_dir/output.log" >&2
    exit 1
fi
if grep -q 'loading bin file is success' output.log; then
    map="taken from the day file"
else
    map="learned from the card, $(grep -vc -e inst_index -e bin_file_over_tag "$day_file") instruments"
fi
echo "Done: $received quotes received; contract map $map. Log: $run_dir/fpga_$(date +%Y%m%d).log"
