#!/usr/bin/env bash
# Shows one card and many machines, all of them on this one: a message server, a hosted card, a relay of its channel 3,
# and three programs that receive the channel over the network. At the end a table tells who received what.
#
#     scripts/demo-many.sh [--built FOLDER] [--seconds N] [--rate N]
#
#   --built FOLDER   use the programs of this build folder; install and build nothing
#   --seconds N      relay for N seconds (10)
#   --rate N         quotes a second of the card (20000)
#
# The demo builds in build/demo-many, a folder of its own. Logs and output are in run/demo-many.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
help_if_asked "$@"

build=$vexo_root/build/demo-many built=no seconds=10 rate=20000
while [ $# -gt 0 ]; do
    case $1 in
        --built)
            [ -d "${2:-}" ] || usage_error "--built wants a folder"
            build=$(cd "$2" && pwd) built=yes
            ;;
        --seconds | --rate)
            [[ ${2:-} =~ ^[1-9][0-9]*$ ]] || usage_error "$1 wants a number"
            if [ "$1" = --rate ]; then rate=$2; else seconds=$2; fi
            ;;
        *) usage_error "Unknown argument $1" ;;
    esac
    shift 2
done
if [ "$built" = no ]; then
    need_packages "${build_packages[@]}" "${tool_packages[@]}" nats-server
    echo "Building (a few minutes the first time); the whole output is in $build-build.log"
    build_preset "$build-build.log" demo-many -- vexo vexo-simcard quote_printer
fi
PATH=$build/bin:$PATH:/usr/sbin
command -v nats-server >/dev/null || {
    echo "nats-server is not installed. As root, run: apt-get install nats-server" >&2
    exit 1
}

run_dir=${VEXO_DEMO_DIR:-$vexo_root/run/demo-many}
rm -rf "$run_dir"
mkdir -p "$run_dir/ports" "$run_dir/cards"
cd "$run_dir"
echo "Working directory: $run_dir"

# Nothing of the user's own takes part: no other card, no setting.
for name in "${!VEXO_SIM_@}" "${!VEXO_NATS_@}"; do unset "$name"; done
chmod 700 cards
export VEXO_SIM_DIR=$run_dir/cards

running=()
trap 'kill "${running[@]}" 2>/dev/null || true' EXIT
start() {  # NAME COMMAND...
    "${@:2}" >"$1.out" 2>"$1.err" &
    running+=($!)
}
fail() {
    printf '%s\n' "$@" "Its output is in $run_dir." >&2
    exit 1
}
# Until a command succeeds, while a process lives. Nothing here takes longer than a program's start.
until_true() {  # NAME PROCESS COMMAND...
    until "${@:3}"; do
        kill -0 "$2" 2>/dev/null || fail "$1 ended: $(tail -n 1 "$1.err")"
        sleep 0.05
    done
}

cp "$vexo_root/examples/demo.ini" master.ini
printf '\n[channel3]\ninsts   = SR, CF, TA\noptions = norecv\n' >>master.ini
sed 's/xilinx0:0/xilinx0:3/' master.ini >third.ini

start server nats-server --addr 127.0.0.1 --port -1 --ports_file_dir ports
has_port() { url=$(sed -n 's/.*"nats": *\["\([^"]*\)".*/\1/p' ports/*.ports 2>/dev/null | head -n 1) && [ -n "$url" ]; }
until_true server "${running[-1]}" has_port
echo "Message server: $url"

start host vexo-simcard --quiet --set quotes.per_second="$rate"
is_hosted() { vexo-simcard --status >status.out 2>&1; }
until_true host "${running[-1]}" is_hosted
echo "Card: hosted, $rate quotes a second on all channels together"

# What the master has programmed stays when it has ended.
vexo sim run --hosted -- quote_printer master.ini --seconds 3 --quotes 0 >master.out 2>master.err ||
    fail "The master ended with $?: $(tail -n 1 master.err)"
echo "Master: has subscribed channel 3"

programs=(research risk display)
for name in "${programs[@]}"; do
    start "$name" vexo remote run --from "$url" -- quote_printer third.ini --json --quotes 0
    has_stream() { grep -q 'Init dma channel :CUSTOM_CHAN3_DATA success' "$name.err"; }
    until_true "$name" "${running[-1]}" has_stream
done
echo "Programs: ${programs[*]} wait on remote cards"

echo "Relay: $seconds seconds of channel 3 to $url"
vexo sim run --hosted -- vexo relay --channel 3 --to "$url" --seconds "$seconds" --json >relay.out 2>relay.err ||
    fail "The relay ended with $?: $(tail -n 1 relay.err)"

number() { sed -n "s/.*\"$2\": *\([0-9]*\).*/\1/p" "$1" | tail -n 1; }  # FILE KEY
delivered=$(number relay.out packets)
received() { [ "$(number "$1.out" all)" -ge "$((delivered - $(number relay.out relay)))" ]; }
wrong=0
row() { printf '%-34s %12s %12s\n' "$@"; }
echo
row who packets lost
row "stream of the relay" "$delivered" "$(number relay.out ring)"
row "relay, to the server" "$(number relay.out sent)" "$(number relay.out relay)"
for i in "${!programs[@]}"; do
    name=${programs[$i]} process=${running[$((i + 2))]}
    # The last packets are on their way for less than a second; a program that lost some never gets them.
    for _ in {1..40}; do
        if received "$name"; then break; fi
        sleep 0.05
    done
    kill -INT "$process"
    wait "$process" || fail "$name ended with $?: $(tail -n 1 "$name.err")"
    packets=$(number "$name.out" all)
    lost=$(sed -n 's/.*DMA count info: backpress:\([0-9]*\),.*/\1/p' "$name.err")
    row "$name, on a remote card" "$packets" "$lost"
    [ "$((packets + lost))" -eq "$((delivered + $(number relay.out ring)))" ] || wrong=1
done
echo
[ "$wrong" -eq 0 ] || fail "Packets are missing that nobody has counted."
[ "${delivered:-0}" -gt 0 ] || fail "The relay received nothing."
echo "Every packet is accounted for."
