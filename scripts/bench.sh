#!/usr/bin/env bash
# Builds and runs the benchmarks, prints the table of figures with their goals and limits, and writes the numbers to
# build/bench/bench-results.json. Fails when a limit does not hold.
#
#     scripts/bench.sh [--quick] [--figure N]... [--plots]
#
#   --quick      fewer and shorter repetitions
#   --figure N   this figure alone; may be repeated
#   --plots      also draw docs/figures/*.svg from the numbers
#
# Without --figure the throughput of a hosted card is measured too.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
help_if_asked "$@"

options=() plots=no hosted=yes
while [ $# -gt 0 ]; do
    case $1 in
        --plots) plots=yes ;;
        --quick) options+=("$1") ;;
        --figure)
            [[ ${2:-} =~ ^[0-9]+$ ]] || usage_error "--figure wants a number"
            hosted=no
            options+=("$1" "$2")
            shift
            ;;
        *) usage_error "Unknown argument $1" ;;
    esac
    shift
done

need_packages "${build_packages[@]}" "${tool_packages[@]}" libbenchmark-dev libspdlog-dev valgrind python3
echo "Building (a minute or two the first time), then measuring (some minutes; --quick takes less) ..."
build_preset "$vexo_root/build/bench-build.log" bench
results=$vexo_root/build/bench/bench-results.json
status=0
python3 "$vexo_root/bench/run.py" --build "$vexo_root/build/bench" --out "$results" "${options[@]}" || status=$?
if [ "$plots" = yes ]; then
    python3 "$vexo_root/bench/plots.py" "$results" "$vexo_root/docs/figures"
fi
if [ "$hosted" = yes ]; then
    "$vexo_root/bench/hosted_throughput.sh" 5 || status=1
fi
exit "$status"
