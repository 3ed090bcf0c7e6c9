#!/usr/bin/env bash
# Runs the long campaigns that prove the library: more of what the tests do in a small measure.
#
#     scripts/soak.sh [--minutes N] [--binary FILE] [CAMPAIGN...]
#
# Without a campaign it runs all of them, one after the other. Each campaign is a file of scripts/soak/.
# --minutes N  ends each campaign after about N minutes; without it each runs to the counts that docs/reliability.md states.
# --binary FILE  a quote_printer that an earlier release built, which the campaign remote then runs unchanged, too.
# Each campaign ends with one line of figures. The exit status is 0 when no campaign found anything, 1 otherwise.
# What a campaign prints, and what led to a finding, is kept in build/soak.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
help_if_asked "$@"

campaigns=()
export VEXO_SOAK_MINUTES= VEXO_SOAK_BINARY=
while [ $# -gt 0 ]; do
    case $1 in
        --minutes)
            [[ ${2:-} =~ ^[1-9][0-9]*$ ]] || usage_error "--minutes needs a whole number above 0"
            VEXO_SOAK_MINUTES=$2
            shift
            ;;
        --binary)
            [ -x "${2:-}" ] && [ -f "$2" ] || usage_error "--binary needs a program's file"
            VEXO_SOAK_BINARY=$(realpath "$2")
            shift
            ;;
        -*) usage_error "unknown option $1" ;;
        *)
            [[ $1 =~ ^[a-z]+$ ]] && [ -f "$vexo_root/scripts/soak/$1.sh" ] || usage_error "unknown campaign $1"
            campaigns+=("$1")
            ;;
    esac
    shift
done
shopt -s nullglob
if [ ${#campaigns[@]} -eq 0 ]; then
    for file in "$vexo_root"/scripts/soak/*.sh; do
        campaigns+=("$(basename "$file" .sh)")
    done
fi

need_packages "${build_packages[@]}" "${tool_packages[@]}" "${test_packages[@]}"
export VEXO_SOAK_DIR=$vexo_root/build/soak
mkdir -p "$VEXO_SOAK_DIR"
found=0
for campaign in "${campaigns[@]}"; do
    log=$VEXO_SOAK_DIR/$campaign.log
    echo "$campaign: running; its output is in $log"
    if while_showing "  $campaign" into_file "$log" bash "$vexo_root/scripts/soak/$campaign.sh"; then
        echo "$campaign: $(tail -n 1 "$log")"
    else
        found=1
        tail -n 20 "$log"
        echo "$campaign: FOUND SOMETHING OR COULD NOT RUN; the whole output is in $log"
    fi
done
exit "$found"
