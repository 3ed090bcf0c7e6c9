#!/usr/bin/env bash
# Builds the library with its simulated card and shows about 15 seconds of market data: the contract map being learned,
# the subscription by the rules of examples/demo.ini, quotes, and what was received.
#
#     scripts/demo.sh [--built FOLDER] [--seconds N]
#
#   --built FOLDER   use the programs of this build folder; install and build nothing
#   --seconds N      receive for N seconds (11)
#
# The demo builds in build/demo, a folder of its own. Logs and output are in run/demo.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
help_if_asked "$@"

build=$vexo_root/build/demo built=no seconds=11
while [ $# -gt 0 ]; do
    case $1 in
        --built)
            [ -d "${2:-}" ] || usage_error "--built wants a folder"
            build=$(cd "$2" && pwd) built=yes
            ;;
        --seconds)
            [[ ${2:-} =~ ^[0-9]+$ ]] || usage_error "--seconds wants a number"
            seconds=$2
            ;;
        *) usage_error "Unknown argument $1" ;;
    esac
    shift 2
done
if [ "$built" = no ]; then
    need_packages "${build_packages[@]}"
    if [ -x "$build/bin/quote_printer" ]; then
        echo "Building what has changed; the whole output is in $build-build.log"
    else
        echo "Building (a minute or two); the whole output is in $build-build.log"
    fi
    build_preset "$build-build.log" demo -- quote_printer
fi

run_dir=${VEXO_DEMO_DIR:-$vexo_root/run/demo}
mkdir -p "$run_dir"
cd "$run_dir"
echo "Working directory: $run_dir"
echo

# The library logs every row that it writes and every check of the map: the first three of a kind are shown, the rest
# counted. Line by line in bash, because awk may read its input in blocks and then shows the quotes late.
shorten() {
    local line kind rows=0 checks=0
    while IFS= read -r line || [ -n "$line" ]; do
        kind=0
        case $line in
            *'Subscribes:Write to fpga:'*) kind=$((++rows)) ;;
            *'m_SubsContractClass size is'* | *'Prefix is '* | *'instId is '*) kind=$((++checks)) ;;
        esac
        if [ "$kind" -le 3 ]; then
            printf '%s\n' "$line"
        elif [ "$kind" -eq 4 ]; then
            echo "    ... more lines of this kind ..."
        fi
    done
    echo "    rows written: $rows; checks of the map: $checks"
}

fail() {
    printf '%s\n' "$@" "The whole output is in $run_dir/output.log" >&2
    exit 1
}
logged() { grep -q -e "$1" output.log; }

export VEXO_SIM_CARD=embedded  # whatever card is hosted on this machine
unset VEXO_SIM_SCENARIO        # the demo's card is the ordinary one
status=0
"$build/bin/quote_printer" "$vexo_root/examples/demo.ini" --seconds "$seconds" --quotes 2 |
    tee output.log | shorten || status=$?

received=$(sed -n 's/^received \([0-9]*\) quotes.*/\1/p' output.log)
quoted=$(sed -n 's/^quote   type [0-9]*  \([^ ]*\) .*/\1/p' output.log | sort -u)
subscribed=$(sed -n 's/.*Subscribes:Write to fpga:.*instId:\(.*\)$/\1/p' output.log | sort -u)
strange=$(comm -23 <(printf '%s\n' "$quoted") <(printf '%s\n' "$subscribed") | head -n 3 | tr '\n' ' ')
echo

# What happened to the day file, as the library's own log tells it.
if [ "$(date +%-H)" -lt 17 ]; then half_day=am; else half_day=pm; fi
day_file=/tmp/.zce_$(date +%Y%m%d)_$half_day
if logged 'loading bin file is success'; then
    map="loaded from the day file $day_file, $(sed -n 's/.*m_Intrade_AllInstMap size is \[\([0-9]*\)\].*/\1/p' output.log) instruments"
    if [ -n "$strange" ]; then
        fail "The demo received quotes of instruments that it did not subscribe: $strange" \
            "The day file $day_file is from a card with another instrument list. Remove it, then run the demo again."
    fi
else
    map="learned from the card"
    if logged 'open contract index file failed' || logged 'write contract index file failed' ||
        logged 'contract index file .* is not written' || logged 'contract index file .* is not complete'; then
        map="$map; the library could not write the day file $day_file"
    elif logged 'write bin file is success' && ! logged 'contract index file .* lacks an instrument'; then
        map="$map and kept in the day file $day_file, $(grep -c '^[0-9]*,' "$day_file") instruments"
    else
        map="$map; the day file $day_file is not complete, the next start learns the map again"
    fi
    refusal=$(sed -n 's/.*contract index file .* is not used, \(.*\)\.$/\1/p' output.log)
    if [ -n "$refusal" ]; then
        map="$map; the file that was there before was not used ($refusal)"
    elif logged 'loading bin file is fail'; then
        map="$map; the file that was there before was not complete"
    fi
    [ -z "$strange" ] || fail "The demo received quotes of instruments that it did not subscribe: $strange"
fi

if [ "$status" -ne 0 ] || [ "${received:-0}" -lt 1000 ]; then
    cause=()
    if logged 'loading bin file is success'; then
        cause=("The contract map was $map. If that file is from another card, remove it, then run the demo again.")
    fi
    fail "The demo did not receive its quotes: ${received:-0} quotes, exit status $status." "${cause[@]}"
fi
echo "Done: $received quotes received."
echo "Contract map: $map."
if logged 'loading bin file is success'; then echo "Remove the day file to see the map learned again."; fi
echo "Log: $run_dir/fpga_$(date +%Y%m%d).log"
