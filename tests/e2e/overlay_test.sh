#!/usr/bin/env bash
# End-to-end checks of efhost against the Linux kernel's VXLAN driver.
# Usage: overlay_test.sh CHECK FAMILY   (CHECK: ping fragment tcp capture resync; FAMILY: 4 or 6)
# EFHOST and VXLANCTL name the binaries.
set -u
HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/lib.sh"

CHECK=${1:?check name}
FAMILY=${2:?family 4 or 6}
trap topo_destroy EXIT

up() {
    require_facilities
    topo_create "$FAMILY"
    efhost_start
    write_overlay_config "$E2E_DIR/overlay.yaml"
    vxlanctl apply "$E2E_DIR/overlay.yaml" || fail "vxlanctl apply"
}

# The first packets of each flow pay for ARP through the flood and for the
# underlay's neighbour resolution; after that no loss is allowed.
warm_up() {
    in_ns "$NS_H1" ping -c 2 -i 0.3 -W 2 192.168.10.2 >/dev/null 2>&1 || true
    in_ns "$NS_H1" ping -c 2 -i 0.3 -W 2 192.168.10.3 >/dev/null 2>&1 || true
}

check_ping() {
    warm_up
    ping_ok "$NS_H1" 192.168.10.2 10
    ping_ok "$NS_H1" 192.168.10.3 10
    ping_ok "$NS_H2" 192.168.10.1 10
    ping_ok "$NS_H3" 192.168.10.1 10
    # h1 learnt h2's and h3's MACs by ARP requests that efhost flooded to
    # both tunnels.
    for pair in "$NS_H2 192.168.10.2" "$NS_H3 192.168.10.3"; do
        set -- $pair
        local mac; mac=$(ip -n "$1" -br link show eth0 | awk '{print $3}')
        ip -n "$NS_H1" neigh show 192.168.10.${2##*.} | grep -q "lladdr $mac" \
            || fail "h1 has no ARP entry $2 -> $mac"
        echo "h1 resolved $2 to $mac"
    done
    check_counters
}

# efhost's counters, read while it runs: both ports moved frames and lost
# none, the module took frames for the tunnels and none was lost on the way
# to the L3 engine, the MAC table and the neighbour table learnt.
check_counters() {
    vxlanctl counters 2>&1 | tee "$E2E_DIR/counters.txt" || fail "vxlanctl counters"
    local port
    for port in "port 1 access1" "port 2 uplink"; do
        grep -Eq "^$port: in [1-9][0-9]*, out [1-9][0-9]*, lost in 0, lost out 0\$" "$E2E_DIR/counters.txt" \
            || fail "counters of $port"
    done
    grep -Eq "^pipeline: received [1-9][0-9]*, sent on ports [1-9][0-9]*, taken by the module [1-9]" \
        "$E2E_DIR/counters.txt" || fail "pipeline counters"
    grep -Eq "^mac table: [1-9][0-9]* entries, 0 refused\$" "$E2E_DIR/counters.txt" || fail "MAC table counter"
    grep -Eq "^l3: sent [1-9][0-9]*, .*, waiting queue full 0, hand-off queue full 0\$" "$E2E_DIR/counters.txt" \
        || fail "L3 engine counters"
    grep -Eq "^neighbours: [1-9][0-9]* entries, 0 refused\$" "$E2E_DIR/counters.txt" || fail "neighbour counter"
    grep -qx "vxlanctl: ok" "$E2E_DIR/counters.txt" || fail "counters request not answered ok"
}

check_fragment() {
    warm_up
    ping_ok "$NS_H1" 192.168.10.2 5 -s 1472 -M dont
    ping_ok "$NS_H1" 192.168.10.2 5 -s 4000 -M dont
    ping_ok "$NS_H1" 192.168.10.3 5 -s 4000 -M dont
}

# 100 MB over one TCP connection from h1 to h2, compared by checksum; then
# iperf3 each way for the throughput figures, and between the two kernel
# VTEPs' hosts beside them.
check_tcp() {
    warm_up
    head -c 100M /dev/urandom > "$E2E_DIR/in.bin"
    ip netns exec "$NS_H2" /usr/bin/python3 "$HERE/tcp_copy.py" recv 192.168.10.2 5301 "$E2E_DIR/out.bin" &
    local server=$!
    in_ns "$NS_H1" /usr/bin/python3 "$HERE/tcp_copy.py" send 192.168.10.2 5301 "$E2E_DIR/in.bin" \
        || fail "file copy"
    wait "$server" || fail "file copy receiver"
    local a b
    a=$(sha256sum < "$E2E_DIR/in.bin" | cut -d' ' -f1)
    b=$(sha256sum < "$E2E_DIR/out.bin" | cut -d' ' -f1)
    [ "$a" = "$b" ] || fail "file changed in transit: $a != $b"
    echo "sha256 identical after the copy: $a"
    ip netns exec "$NS_H2" iperf3 -s -1 -B 192.168.10.2 > /dev/null 2>&1 &
    server=$!
    sleep 0.5
    in_ns "$NS_H1" iperf3 -c 192.168.10.2 -n 100M -J > "$E2E_DIR/iperf.json" || fail "iperf3 h1 -> h2"
    wait "$server"
    report_iperf "h1 -> h2 (efhost encapsulates)"
    ip netns exec "$NS_H2" iperf3 -s -1 -B 192.168.10.2 > /dev/null 2>&1 &
    server=$!
    sleep 0.5
    in_ns "$NS_H1" iperf3 -R -c 192.168.10.2 -n 100M -J > "$E2E_DIR/iperf.json" || fail "iperf3 h2 -> h1"
    wait "$server"
    report_iperf "h2 -> h1 (efhost decapsulates)"
    # The same transfer between the two kernel VTEPs, for comparison.
    ip netns exec "$NS_H3" iperf3 -s -1 -B 192.168.10.3 > /dev/null 2>&1 &
    server=$!
    sleep 0.5
    in_ns "$NS_H2" iperf3 -c 192.168.10.3 -n 100M -J > "$E2E_DIR/iperf.json" || fail "iperf3 h2 -> h3"
    wait "$server"
    report_iperf "h2 -> h3 (kernel VXLAN at both ends)"
}

report_iperf() {
    /usr/bin/python3 -c 'import json,sys; e=json.load(open(sys.argv[1]))["end"]; print("iperf3 %s: %d bytes, %.0f Mbit/s, %d retransmits" % (sys.argv[2], e["sum_received"]["bytes"], e["sum_received"]["bits_per_second"]/1e6, e["sum_sent"].get("retransmits",0)))' "$E2E_DIR/iperf.json" "$1"
}

check_capture() {
    warm_up
    ip netns exec "$NS_UL" tshark -q -i ulbr -f "udp port 4789 or (ip and ip[6:2] & 0x1fff != 0) or (ip6 and ip6[6] == 44)" \
        -w "$E2E_DIR/underlay.pcap" > "$E2E_DIR/tshark.txt" 2>&1 &
    local cap=$!
    sleep 2
    ping_ok "$NS_H1" 192.168.10.2 5
    ping_ok "$NS_H1" 192.168.10.3 5 -s 4000 -M dont
    ping_ok "$NS_H2" 192.168.10.1 5 -s 1472 -M dont
    sleep 1
    kill -INT "$cap"; wait "$cap"
    local ours; ours=$(underlay_addr 1)
    local src_field; src_field=$([ "$FAMILY" = 6 ] && echo ipv6.src || echo ip.src)
    local total bad
    total=$(tshark -r "$E2E_DIR/underlay.pcap" -Y "vxlan && $src_field == $ours" 2>/dev/null | wc -l)
    bad=$(tshark -r "$E2E_DIR/underlay.pcap" -o udp.check_checksum:TRUE -o ip.check_checksum:TRUE \
          -o icmp.check_checksum:TRUE \
          -Y "$src_field == $ours && (_ws.malformed || _ws.expert.severity >= warning || ip.checksum.status == 2 || udp.checksum.status == 2 || icmp.checksum.status == 2)" 2>/dev/null)
    echo "tshark decoded $total VXLAN packets sent by efhost"
    [ "$total" -ge 15 ] || fail "expected at least 15 VXLAN packets from efhost, saw $total"
    [ -z "$bad" ] || { echo "$bad"; fail "tshark reported malformed or bad-checksum packets"; }
    echo "tshark: no malformed packet, no bad checksum, no warning"
}

# A changed configuration applied while h1 pings h2: the kept VNI loses at
# most the pings in flight; the tunnel left out of the new file is gone.
check_resync() {
    warm_up
    ip netns exec "$NS_H1" ping -c 50 -i 0.1 -W 1 192.168.10.2 > "$E2E_DIR/ping.txt" 2>&1 &
    local pinger=$!
    sleep 2
    write_overlay_config "$E2E_DIR/changed.yaml" keep_only_k1
    vxlanctl apply "$E2E_DIR/changed.yaml" || fail "vxlanctl apply of the changed file"
    wait "$pinger" || true
    grep "packets transmitted" "$E2E_DIR/ping.txt"
    local lost; lost=$(awk '/packets transmitted/ {print $1 - $4}' "$E2E_DIR/ping.txt")
    [ "$lost" -le 2 ] || fail "$lost pings lost during the resynchronisation"
    vxlanctl show entry 1000 | tee "$E2E_DIR/entry.txt"
    if in_ns "$NS_H1" ping -c 3 -i 0.2 -W 1 192.168.10.3 >/dev/null 2>&1; then
        fail "h3 still reachable after its tunnel was removed"
    fi
    echo "h3 unreachable after the resynchronisation, as configured"
}

up
"check_$CHECK"
efhost_stop
echo "PASS: $CHECK over IPv$FAMILY"
