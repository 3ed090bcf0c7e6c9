#!/usr/bin/env bash
# Builds and runs the benchmarks, prints the table of figures with their goals and limits, and writes the numbers to
# build/bench/bench-results.json. Fails when a limit does not hold. A figure for which the machine is too busy, or has
# no counter, is "not judged"; that is no failure.
#
#     scripts/bench.sh [--quick] [--figure NAME]... [--plots] [--write-page]
#     scripts/bench.sh --many [--quick] [--write-page]
#
#   --many         instead: what relay, server and remote cards carry together and cost, for docs/many-machines.md
#   --quick        shorter: fewer turns for each figure
#   --figure NAME  this figure alone; may be repeated. The names are in bench/figures.json: packet, idle, log-line, ...
#   --plots        also draw docs/figures/*.svg from the numbers
#   --write-page   also write the table into docs/performance.md; wants all figures
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
help_if_asked "$@"

page=$vexo_root/docs/performance.md
many_page=$vexo_root/docs/many-machines.md
options=() plots=no writes=no chosen=no many=no
while [ $# -gt 0 ]; do
    case $1 in
        --many) many=yes ;;
        --plots) plots=yes ;;
        --quick) options+=("$1") ;;
        --write-page) writes=yes ;;
        --figure)
            if ! grep -q -F "\"figure\": \"${2:-}\"," "$vexo_root/bench/figures.json"; then
                usage_error "--figure wants the name of a figure of bench/figures.json"
            fi
            chosen=yes
            options+=("$1" "$2")
            shift
            ;;
        *) usage_error "Unknown argument $1" ;;
    esac
    shift
done
[ "$writes$chosen" != yesyes ] || usage_error "--write-page writes all figures, so it takes no --figure"
[ "$many" = no ] || [ "$plots$chosen" = nono ] || usage_error "--many takes neither --plots nor --figure"

if [ "$many" = yes ]; then
    [ "$writes" = no ] || options+=(--write-page "$many_page")
    need_packages "${build_packages[@]}" "${tool_packages[@]}" libspdlog-dev nats-server python3
    echo "Building (a minute or two the first time), then measuring (about four minutes; --quick two) ..."
    build_preset "$vexo_root/build/bench-build.log" bench -- vexo vexo_paced_stream timed_reader
    while_showing "  measuring" python3 "$vexo_root/bench/many.py" --build "$vexo_root/build/bench" \
        --out "$vexo_root/build/bench/many-results.json" "${options[@]}"
    exit
fi
[ "$writes" = no ] || options+=(--write-page "$page")

need_packages "${build_packages[@]}" "${tool_packages[@]}" libspdlog-dev valgrind python3
echo "Building (a minute or two the first time), then measuring (2 to 12 minutes; --quick 1 to 3) ..."
build_preset "$vexo_root/build/bench-build.log" bench
results=$vexo_root/build/bench/bench-results.json
status=0
while_showing "  measuring" python3 "$vexo_root/bench/run.py" --build "$vexo_root/build/bench" --out "$results" "${options[@]}" || status=$?
if [ "$plots" = yes ]; then
    python3 "$vexo_root/bench/plots.py" "$results" "$vexo_root/docs/figures"
fi
exit "$status"
