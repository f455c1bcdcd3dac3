#!/usr/bin/env bash
# A fabric's churn through a running efhost: a run-time tunnel interface
# towards k2 is removed and created again as fast as a control client can
# ask, with a thousand other run-time tunnel interfaces present, while UDP
# streams cross it both ways (h1 <-> h3). efhost neither crashes nor grows:
# after a warm-up, 100,000 more cycles (or as many as CHURN_SECONDS allow)
# grow its resident memory by less than CHURN_GROWTH_LIMIT_KB. Afterwards
# the tunnel forwards again, a 64-byte UDP overload is counted, and efhost's
# report at exit gives the same drop counts as the last counters request.
#
#     h1 ---- [ efhost ] ==== tunnel 101 (file) ========== [ k1 ] ---- h2
#                        ==== tunnel 1102 (run-time, churned) [ k2 ] ---- h3
set -u
HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/lib.sh"
STREAM_PIDS=
trap 'kill $STREAM_PIDS 2>/dev/null; topo_destroy' EXIT

readonly CHURNED=1102
readonly OTHERS=${CHURN_OTHERS:-1000}
# The sanitizer build's allocator settles only after some 30,000 cycles.
readonly WARMUP=${CHURN_WARMUP:-30000}
readonly CYCLES=${CHURN_CYCLES:-100000}
readonly SECONDS_BOUND=${CHURN_SECONDS:-90}
# Under AddressSanitizer freed blocks wait in a quarantine (256 MB by
# default) and stay resident; a small one keeps use-after-free detection and
# lets the resident size show what efhost itself holds. Even so, the
# sanitizer's allocator spreads recycled blocks over its per-thread caches
# and creeps by a few bytes a cycle where the plain build stays flat (24.7 MB
# to 24.9 MB over 100,000 cycles, not a page more over 300,000 more), so its
# build gets a bound of its own.
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=8:thread_local_quarantine_size_kb=256"
if ldd "$EFHOST" 2>/dev/null | grep -q libasan; then
    readonly CHURN_GROWTH_LIMIT_KB=4096
else
    readonly CHURN_GROWTH_LIMIT_KB=1024
fi

# The drop counts of the l3 line: "no route N, unresolved N, ... hand-off
# queue full N" without the counts that grow with any frame.
l3_drops() { sed -n 's/.*l3: sent [0-9]*, \(no route .*\), replies [0-9]*, waiting [0-9]*, \(waiting queue full .*\)$/\1, \2/p'; }

write_churn_overlay() {
    cat > "$E2E_DIR/overlay.yaml" <<YAML
vnis:
  - {vni: 1000, vlans: [10]}
tunnels:
  - {interface: 101, source: $(underlay_addr 1), destination: $(underlay_addr 2), vnis: [1000], mac_learn: true}
  - {interface: $CHURNED, source: $(underlay_addr 1), destination: $(underlay_addr 3), vnis: [1000], mac_learn: true}
YAML
}

require_facilities
FAMILY=4
topo_create 4
efhost_start
vxlanctl tunnel-intf create "$CHURNED" churn-k2 > /dev/null || fail "vxlanctl tunnel-intf create $CHURNED"
write_churn_overlay
vxlanctl apply "$E2E_DIR/overlay.yaml" > /dev/null || fail "vxlanctl apply"
in_ns "$NS_H1" ping -c 2 -i 0.3 -W 2 192.168.10.3 >/dev/null 2>&1 || true
ping_ok "$NS_H1" 192.168.10.3 3

say "churn of run-time tunnel $CHURNED with $OTHERS others present, UDP both ways across it"
in_ns "$NS_H1" python3 "$HERE/udp_stream.py" 192.168.10.3 9000 512 2000 $((SECONDS_BOUND + 60)) > /dev/null &
STREAM_PIDS="$STREAM_PIDS $!"
in_ns "$NS_H3" python3 "$HERE/udp_stream.py" 192.168.10.1 9000 512 2000 $((SECONDS_BOUND + 60)) > /dev/null &
STREAM_PIDS="$STREAM_PIDS $!"
python3 "$HERE/control_churn.py" "$E2E_DIR/ctl.sock" "$EFHOST_PID" "$CHURNED" churn-k2 \
    "$OTHERS" "$WARMUP" "$CYCLES" "$SECONDS_BOUND" > "$E2E_DIR/churn.txt" \
    || { cat "$E2E_DIR/churn.txt"; tail -20 "$E2E_DIR/efhost.out"; fail "the churn client failed"; }
kill $STREAM_PIDS 2>/dev/null
for pid in $STREAM_PIDS; do wait "$pid" 2>/dev/null; done
STREAM_PIDS=
grep -v '^growth_kb=' "$E2E_DIR/churn.txt"
kill -0 "$EFHOST_PID" 2>/dev/null || { tail -40 "$E2E_DIR/efhost.out"; fail "efhost died during the churn"; }
growth=$(sed -n 's/^growth_kb=//p' "$E2E_DIR/churn.txt")
[ -n "$growth" ] || fail "the churn client printed no growth"
[ "$growth" -lt "$CHURN_GROWTH_LIMIT_KB" ] \
    || fail "efhost grew by $growth kB during the churn (bound $CHURN_GROWTH_LIMIT_KB kB)"

say "the churned tunnel forwards again"
in_ns "$NS_H1" ping -c 2 -i 0.3 -W 2 192.168.10.3 >/dev/null 2>&1 || true
ping_ok "$NS_H1" 192.168.10.3 5

say "a 64-byte UDP overload towards k1"
ip netns exec "$NS_H2" iperf3 -s -1 -B 192.168.10.2 > /dev/null 2>&1 &
STREAM_PIDS="$!"
sleep 0.5
in_ns "$NS_H1" iperf3 -c 192.168.10.2 -t 4 -u -b 0 -l 64 > /dev/null 2>&1
wait $STREAM_PIDS 2>/dev/null
STREAM_PIDS=
sleep 1
running=$(vxlanctl counters | grep '^l3:') || fail "no l3 line in the counters"
echo "while running: $running"
efhost_stop
at_exit=$(grep '^efhost: l3:' "$E2E_DIR/efhost.out") || fail "no l3 line in efhost's report at exit"
echo "at exit:       $at_exit"
[ -n "$(echo "$running" | l3_drops)" ] || fail "unreadable l3 line: $running"
[ "$(echo "$running" | l3_drops)" = "$(echo "$at_exit" | l3_drops)" ] \
    || fail "the report at exit counts other drops than the counters request"
say "PASS"
