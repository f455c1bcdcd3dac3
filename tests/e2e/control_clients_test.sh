#!/usr/bin/env bash
# efhost's control socket serves every client at once. With a client that
# stays idle, one that asked for a long show and reads none of it, and one
# that sent half an envelope header all connected, eight concurrent
# `vxlanctl counters`, a module show and the EVPN follower (creating and
# then removing a remote VTEP's tunnel) are answered as fast as on a quiet
# socket. The half envelope is refused at once; the idle and the stalled
# client are closed after the documented 10 s. SIGTERM stops efhost within
# a second while such clients are connected.
#
#   [ efhost ] <-- control socket --+-- stalled_clients.py (idle, noread, half)
#                                   +-- 8 x vxlanctl counters, vxlanctl show status
#                                   +-- evpn-follower in c1: br100 + vxlan100 (local .1),
#                                       flood entry to .2 added, then deleted
set -u
HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/lib.sh"
NS_C1=$E2E_PREFIX-c1
STALLED_PID= FOLLOWER_PID=
cleanup() {
    kill $STALLED_PID $FOLLOWER_PID 2>/dev/null
    wait $STALLED_PID $FOLLOWER_PID 2>/dev/null
    ip netns del "$NS_C1" 2>/dev/null
    topo_destroy
}
trap cleanup EXIT

readonly VNIS=1500
readonly COUNTERS_BOUND_MS=1000
readonly SHOW_BOUND_MS=3000
readonly FOLLOWER_BOUND_MS=5000
readonly STOP_BOUND_MS=1000
readonly CLIENT_TIMEOUT_S=10

now_ms() { date +%s%3N; }

# Runs a command and prints how long it took in milliseconds; fails when
# the command does.
timed() {
    local t0 t1
    t0=$(now_ms)
    "$@" > /dev/null || fail "$* failed"
    t1=$(now_ms)
    echo $((t1 - t0))
}

write_many_vnis() {
    {
        echo "vnis:"
        for i in $(seq 1 "$VNIS"); do echo "  - {vni: $((100000 + i))}"; done
    } > "$E2E_DIR/many.yaml"
}

start_stalled_clients() {
    python3 "$HERE/stalled_clients.py" "$E2E_DIR/ctl.sock" 60 > "$E2E_DIR/stalled.txt" 2>&1 &
    STALLED_PID=$!
    for _ in $(seq 50); do grep -q '^ready' "$E2E_DIR/stalled.txt" && return 0; sleep 0.1; done
    cat "$E2E_DIR/stalled.txt"
    fail "the stalled clients did not connect"
}

# Waits until a log line matching a pattern appears; prints how long it took.
wait_for_line() {   # file pattern bound-ms
    local t0; t0=$(now_ms)
    while ! grep -qE "$2" "$1"; do
        [ $(($(now_ms) - t0)) -le "$3" ] || { cat "$1"; fail "no line matching '$2' in $1 within $3 ms"; }
        sleep 0.05
    done
    echo $(($(now_ms) - t0))
}

# The kernel state zebra would keep for VNI 100 on a node whose VTEP is .1.
control_namespace() {
    ip netns add "$NS_C1"
    ip -n "$NS_C1" addr add 10.99.0.1/32 dev lo
    ip -n "$NS_C1" link set up dev lo
    ip -n "$NS_C1" link add br100 type bridge stp_state 0
    ip -n "$NS_C1" link add vxlan100 type vxlan id 100 local 10.99.0.1 dstport 4789 nolearning
    ip -n "$NS_C1" link set vxlan100 master br100
    ip -n "$NS_C1" link set dev vxlan100 alias "vlan=10"
    ip -n "$NS_C1" link set up dev br100
    ip -n "$NS_C1" link set up dev vxlan100
}

require_facilities
[ -x "${EVPN_FOLLOWER:-}" ] || fail "evpn-follower not found at '${EVPN_FOLLOWER:-}'"
FAMILY=4
topo_create 4
efhost_start
write_many_vnis
vxlanctl apply "$E2E_DIR/many.yaml" > /dev/null || fail "vxlanctl apply"
lines=$(vxlanctl show entry | wc -l)
echo "a whole entry show is $lines lines"
[ "$lines" -gt "$VNIS" ] || fail "the entry show has only $lines lines"
quiet_counters=$(timed vxlanctl counters) || exit 1
quiet_show=$(timed vxlanctl show status) || exit 1
echo "on a quiet socket: counters in $quiet_counters ms, show status in $quiet_show ms"

say "an idle client, one that does not read a long show and one that sent half an envelope"
start_stalled_clients
half_ms=$(wait_for_line "$E2E_DIR/efhost.out" "control client [0-9]+ closed: sent a datagram that is not an envelope" 2000) \
    || exit 1
echo "the half envelope was refused after $half_ms ms"

say "eight concurrent counters requests and a module show meanwhile"
jobs_started=
for i in $(seq 8); do
    timed vxlanctl counters > "$E2E_DIR/counters-$i.ms" &
    jobs_started="$jobs_started $!"
done
timed vxlanctl show status > "$E2E_DIR/show.ms" &
jobs_started="$jobs_started $!"
wait $jobs_started
for i in $(seq 8); do
    ms=$(cat "$E2E_DIR/counters-$i.ms")
    [ -n "$ms" ] || fail "counters request $i failed"
    echo "counters request $i answered in $ms ms"
    [ "$ms" -le "$COUNTERS_BOUND_MS" ] || fail "counters request $i took $ms ms (bound $COUNTERS_BOUND_MS ms)"
done
ms=$(cat "$E2E_DIR/show.ms")
[ -n "$ms" ] || fail "the module show failed"
echo "show status answered in $ms ms"
[ "$ms" -le "$SHOW_BOUND_MS" ] || fail "show status took $ms ms (bound $SHOW_BOUND_MS ms)"

say "the EVPN follower adds and withdraws a remote VTEP meanwhile"
control_namespace
ip netns exec "$NS_C1" "$EVPN_FOLLOWER" --socket "$E2E_DIR/ctl.sock" --poll-ms 200 > "$E2E_DIR/follower.out" 2>&1 &
FOLLOWER_PID=$!
wait_for_line "$E2E_DIR/follower.out" "full resynchronisation|data ready" "$FOLLOWER_BOUND_MS" > /dev/null || exit 1
in_ns "$NS_C1" bridge fdb append 00:00:00:00:00:00 dev vxlan100 dst 10.99.0.2
ms=$(wait_for_line "$E2E_DIR/follower.out" "tunnel [0-9]+ .*10.99.0.2.* created" "$FOLLOWER_BOUND_MS") || exit 1
vxlanctl tunnel-intf list | grep -q "evpn-10.99.0.2" || fail "efhost has no tunnel interface for 10.99.0.2"
echo "the follower created the tunnel to 10.99.0.2 in $ms ms"
in_ns "$NS_C1" bridge fdb del 00:00:00:00:00:00 dev vxlan100 dst 10.99.0.2
ms=$(wait_for_line "$E2E_DIR/follower.out" "tunnel [0-9]+ .*10.99.0.2.* removed" "$FOLLOWER_BOUND_MS") || exit 1
! vxlanctl tunnel-intf list | grep -q "evpn-10.99.0.2" || fail "efhost still has the withdrawn tunnel"
echo "the follower removed the withdrawn tunnel in $ms ms"
grep -Eq "control client [0-9]+ closed: (idle|it read nothing)" "$E2E_DIR/efhost.out" \
    && fail "a stalled client was closed before the others were served"

say "the idle and the stalled client are closed after ${CLIENT_TIMEOUT_S} s"
wait_for_line "$E2E_DIR/efhost.out" "control client [0-9]+ closed: idle for ${CLIENT_TIMEOUT_S} s" 15000 > /dev/null \
    || exit 1
wait_for_line "$E2E_DIR/efhost.out" "control client [0-9]+ closed: it read nothing for ${CLIENT_TIMEOUT_S} s" 15000 \
    > /dev/null || exit 1
grep -E "control client [0-9]+ closed" "$E2E_DIR/efhost.out"
kill "$STALLED_PID" 2>/dev/null; wait "$STALLED_PID" 2>/dev/null; STALLED_PID=

say "SIGTERM while such clients are connected"
start_stalled_clients
sleep 0.5
t0=$(now_ms)
efhost_stop
stop_ms=$(($(now_ms) - t0))
echo "efhost stopped $stop_ms ms after SIGTERM"
[ "$stop_ms" -le "$STOP_BOUND_MS" ] || fail "efhost took $stop_ms ms to stop (bound $STOP_BOUND_MS ms)"
say "PASS"
