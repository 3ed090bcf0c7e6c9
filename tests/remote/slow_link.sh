#!/usr/bin/env bash
# slow_link.sh BUILD LINK...     relay, server and remote card over a slow link: tests of whole streams, in a network of
#                                their own whose loopback is that link. LINK is the discipline of its queue, in the words
#                                of tc, such as "netem delay 20ms loss 1%".
set -euo pipefail
build=$1
shift
PATH=$PATH:/usr/sbin:/sbin
skip() { echo "skipped: $1" && exit 77; }
command -v nats-server >/dev/null || skip "nats-server is not installed"
for tool in ip tc unshare; do command -v "$tool" >/dev/null || skip "$tool is not installed"; done
network=(unshare --net)
[ "$(id -u)" -eq 0 ] || network+=(--user --map-root-user)
"${network[@]}" ip link set lo up 2>/dev/null || skip "this machine allows no network of one's own"
"${network[@]}" tc qdisc add dev lo root "$@" 2>/dev/null || skip "the kernel has no $1"

"${network[@]}" bash -euo pipefail -c '
    build=$1
    shift
    ip link set lo up mtu 1500
    tc qdisc add dev lo root "$@"
    "$build"/tests/remote/vexo_end_to_end_tests --gtest_filter="EndToEnd.AnUnmodifiedProgram*"
    "$build"/tests/remote/vexo_remote_tests \
        --gtest_filter="RemoteCard.AReaderThatWasAway*:RemoteCard.AServerThatWasKilled*:RemoteCard.TenThousand*"
    "$build"/tests/relay/vexo_relay_run_tests --gtest_filter="Relay.PublishesEveryPacket*"
' bash "$build" "$@"
