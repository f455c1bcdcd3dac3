#!/usr/bin/env bash
# Hostile traffic through efhost: a flood of frames from invented source
# MACs, one of IPv4 fragments whose rest never comes, and one of ARP
# requests from invented senders on the underlay. The MAC table and the
# neighbour table stop at their capacities and count what they refused,
# efhost's memory stays bounded, and a known flow keeps going without loss.
set -u
HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/lib.sh"
trap topo_destroy EXIT

readonly CAPACITY=1000
readonly MACS=30000
readonly FRAGMENTS=30000
readonly ARPS=30000
readonly NEIGHBOUR_CAPACITY=4096
# efhost may grow by its packet buffers' caches and the ports' receive
# slots, not by anything the flood carries.
readonly RSS_GROWTH_LIMIT_KB=65536
# Under AddressSanitizer freed blocks wait in a quarantine (256 MB by
# default) and stay resident; a small one keeps use-after-free detection and
# lets the resident size show what efhost itself holds.
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}quarantine_size_mb=8:thread_local_quarantine_size_kb=256"

rss_kb() { awk '/^VmRSS:/ {print $2}' "/proc/$EFHOST_PID/status"; }
peak_kb() { awk '/^VmHWM:/ {print $2}' "/proc/$EFHOST_PID/status"; }

mac_of() {   # ns dev
    ip -n "$1" link show dev "$2" | awk '/link\/ether/ {print $2}'
}

counter_line() {   # prefix
    vxlanctl counters | grep "^$1" || fail "no '$1' line in the counters"
}

require_facilities
FAMILY=4
topo_create 4
EFHOST_EXTRA_CONFIG="mac_table_capacity: $CAPACITY"
efhost_start
write_overlay_config "$E2E_DIR/overlay.yaml"
vxlanctl apply "$E2E_DIR/overlay.yaml" || fail "vxlanctl apply"
in_ns "$NS_H1" ping -c 2 -i 0.3 -W 2 192.168.10.2 >/dev/null 2>&1 || true
ping_ok "$NS_H1" 192.168.10.2 5
rss_before=$(rss_kb)
h2_mac=$(mac_of "$NS_H2" eth0)

say "$MACS frames from invented source MACs"
in_ns "$NS_H1" python3 "$HERE/flood_frames.py" macs eth0 "$h2_mac" "$MACS" || fail "MAC flood"
sleep 1
echo "efhost peak resident memory after the MAC flood: $(peak_kb) kB"
say "$FRAGMENTS fragments whose rest never comes"
in_ns "$NS_H1" python3 "$HERE/flood_frames.py" fragments eth0 "$h2_mac" 192.168.10.1 192.168.10.2 "$FRAGMENTS" \
    || fail "fragment flood"
sleep 1
echo "efhost peak resident memory after the fragment flood: $(peak_kb) kB"
say "$ARPS ARP requests for efhost's underlay address from invented senders"
in_ns "$NS_K1" python3 "$HERE/flood_frames.py" arp ul0 "$(underlay_addr 1)" "$ARPS" || fail "ARP flood"
sleep 1
echo "efhost peak resident memory after the ARP flood: $(peak_kb) kB"

line=$(counter_line "neighbours:")
echo "$line"
held=$(echo "$line" | sed -n 's/^neighbours: \([0-9]*\) entries, \([0-9]*\) refused$/\1/p')
turned=$(echo "$line" | sed -n 's/^neighbours: \([0-9]*\) entries, \([0-9]*\) refused$/\2/p')
[ -n "$held" ] && [ -n "$turned" ] || fail "unreadable neighbours line: $line"
[ "$held" -le "$NEIGHBOUR_CAPACITY" ] || fail "efhost holds $held neighbours"
[ "$turned" -ge $((ARPS - NEIGHBOUR_CAPACITY)) ] || fail "only $turned of $ARPS ARP senders refused"

line=$(counter_line "mac table:")
echo "$line"
entries=$(echo "$line" | sed -n 's/^mac table: \([0-9]*\) entries, \([0-9]*\) refused$/\1/p')
refused=$(echo "$line" | sed -n 's/^mac table: \([0-9]*\) entries, \([0-9]*\) refused$/\2/p')
[ -n "$entries" ] && [ -n "$refused" ] || fail "unreadable MAC table line: $line"
# Configured MACs are taken beyond the capacity; learning stops at it.
[ "$entries" -le $((CAPACITY + 8)) ] || fail "the MAC table holds $entries entries, capacity $CAPACITY"
[ "$refused" -ge $((MACS / 2)) ] || fail "only $refused MACs refused out of a flood of $MACS"

rss_after=$(rss_kb)
echo "efhost resident memory: $rss_before kB before, $rss_after kB after"
[ $((rss_after - rss_before)) -le $RSS_GROWTH_LIMIT_KB ] \
    || fail "efhost grew by $((rss_after - rss_before)) kB under the floods"

say "the known flow still goes through"
ping_ok "$NS_H1" 192.168.10.2 10
ping_ok "$NS_H1" 192.168.10.3 10
efhost_stop
say "PASS"
