#!/usr/bin/env bash
# BGP EVPN fabric end to end: two efhost VTEPs and one Linux kernel VTEP find
# each other through FRR (zebra + bgpd per node, iBGP l2vpn evpn full mesh);
# no tunnel is written in any file. On the efhost nodes FRR and the EVPN
# follower run in a control namespace whose VXLAN devices carry no traffic.
#
#   h1a h1b h1c            h2a h2b h2c            h3a   h3b   h3c
#    |   |   | VLAN 10/20/30 |   |   |              |     |     | hport100/200/300
#  [e1: efhost]  [c1]      [e2: efhost]  [c2]     [k3: br100/200/300 + vxlan, FRR]
#    | ul0 .1     | .11      | ul0 .2     | .12     | ul0 .3
#    +-----------+-----------+------------+---------+---- [ul: underlay bridge]
#  c1/c2: FRR + evpn-follower, vxlanN local = .1/.2 (efhost's VTEP address)
#
# hm: h1a's twin behind k3 (same MAC and IP), for a host that moves.
#
# VNI 100 = VLAN 10 with ARP and ND suppression, hosts 192.168.50.1-3; VNI 200 = VLAN 20, .11-13;
# VNI 300 = VLAN 30, .21-23 (on e2 and k3 from the start, added to e1 later).
# Underlay 10.99.0.0/24. FRR 8.4 (Debian 12) handles IPv4 VTEP addresses only.
# EFHOST, VXLANCTL and EVPN_FOLLOWER name the binaries.
set -u
HERE=$(cd "$(dirname "$0")" && pwd)
E2E_PREFIX=${E2E_PREFIX:-vxev$$}
. "$HERE/lib.sh"
. "$HERE/evpn_lib.sh"

NODES="e1 e2"
HOSTS="h1a h1b h1c h2a h2b h2c h3a h3b h3c"
ALL_NS="$NS_UL $E2E_PREFIX-e1 $E2E_PREFIX-c1 $E2E_PREFIX-e2 $E2E_PREFIX-c2 $E2E_PREFIX-k3 $E2E_PREFIX-hm"
for h in $HOSTS; do ALL_NS="$ALL_NS $E2E_PREFIX-$h"; done
EVPN_NAMESPACES=$ALL_NS
EVPN_FRR_NODES="c1 c2 k3"
trap evpn_teardown EXIT

host_ip() {   # host name -> address: VNI by letter, node by digit
    local node=${1:1:1} vni=${1:2:1}
    case "$vni" in a) echo "192.168.50.$node" ;; b) echo "192.168.50.1$node" ;; c) echo "192.168.50.2$node" ;; esac
}

write_node_files() {
    local vni300_on_e1=$1
    cat > "$E2E_DIR/e1.conf" <<CONF
# efhost node e1: control namespace c1 speaks BGP from .11 for VTEP .1
vtep 10.99.0.1
router-id 10.99.0.11
timers 3 9
peer 10.99.0.12
peer 10.99.0.3
vni 100 vlan 10 suppress
vni 200 vlan 20
CONF
    [ "$vni300_on_e1" = yes ] && echo "vni 300 vlan 30" >> "$E2E_DIR/e1.conf"
    cat > "$E2E_DIR/e2.conf" <<CONF
vtep 10.99.0.2
router-id 10.99.0.12
timers 3 9
peer 10.99.0.11
peer 10.99.0.3
vni 100 vlan 10 suppress
vni 200 vlan 20
vni 300 vlan 30
CONF
    cat > "$E2E_DIR/k3.conf" <<CONF
# kernel VTEP: its devices carry the traffic of its hosts
vtep 10.99.0.3
timers 3 9
peer 10.99.0.11
peer 10.99.0.12
vni 100 port hport100 suppress
vni 200 port hport200
vni 300 port hport300
CONF
}

write_efhost_yaml() {   # node index
    local n=$1
    cat > "$E2E_DIR/$n.yaml" <<YAML
instance: ${n#e}
tmpdir: $E2E_DIR/tmp-$n
control_socket: $E2E_DIR/$n.sock
syslog_file: $E2E_DIR/$n-syslog.log
capabilities:
  CAP_VXLAN_BASE: true
  CAP_FWDMODE_SOFT: true
interfaces:
  - {index: 1, name: acc10, type: 2, stack: bridge, mac: "02:e${n#e}:00:00:00:01", pvid: 10, vlans: [10], attach: {device: acc10}}
  - {index: 2, name: acc20, type: 2, stack: bridge, mac: "02:e${n#e}:00:00:00:02", pvid: 20, vlans: [20], attach: {device: acc20}}
  - {index: 3, name: acc30, type: 2, stack: bridge, mac: "02:e${n#e}:00:00:00:03", pvid: 30, vlans: [30], attach: {device: acc30}}
  - {index: 9, name: uplink, type: 2, stack: tcpip, mac: "02:e${n#e}:00:00:00:09", addresses: [10.99.0.${n#e}/24], attach: {device: ul0}}
  - {index: 4094, name: L2LOCAL, type: 32, stack: bridge}
YAML
}

topo_create_evpn() {
    mkdir -p "$E2E_DIR"
    local n h
    for n in $ALL_NS; do ip netns add "$n" || fail "cannot create namespace $n"; done
    underlay_create
    underlay_port "$(ns e1)" "" p1
    underlay_port "$(ns e2)" "" p2
    underlay_port "$(ns k3)" 10.99.0.3 p3
    underlay_port "$(ns c1)" 10.99.0.11 p11
    underlay_port "$(ns c2)" 10.99.0.12 p12
    for n in 1 2; do
        in_ns "$(ns e$n)" sysctl -qw net.ipv6.conf.all.disable_ipv6=1
        ip -n "$(ns e$n)" link set dev ul0 address "02:e$n:00:00:00:09"
        local v l=1
        for v in a b c; do
            link "$(ns h$n$v)" eth0 "$(ns e$n)" "acc${l}0"
            ip -n "$(ns e$n)" link set dev "acc${l}0" address "02:e$n:00:00:00:0$l" up
            l=$((l + 1))
        done
    done
    local v l=1
    for v in a b c; do link "$(ns h3$v)" eth0 "$(ns k3)" "hport${l}00"; l=$((l + 1)); done
    for h in $HOSTS; do
        host_up "$(ns "$h")" "$(host_ip "$h")"
        # Hosts keep their frames within the tunnels' inner MTU.
        ip -n "$(ns "$h")" link set dev eth0 mtu 1450
    done
}

frr_start() { in_ns "$(ns "$1")" "$NODE_SH" frr-start "$E2E_DIR/$2.conf" "$E2E_DIR/frr-$1" || fail "FRR start on $1"; }
pings() { in_ns "$(ns "$1")" ping -c 1 -W 1 "$2"; }

# Every host of a VNI pings every other one, both ways (each ordered pair).
all_pairs() {   # letter
    local a b
    for a in 1 2 3; do
        for b in 1 2 3; do
            [ "$a" = "$b" ] && continue
            in_ns "$(ns "h$a$1")" ping -c 1 -W 2 "$(host_ip "h$b$1")" >/dev/null 2>&1 || true
            ping_ok "$(ns "h$a$1")" "$(host_ip "h$b$1")" 3 | sed "s/^/h$a$1 -> h$b$1: /"
            [ "${PIPESTATUS[0]}" = 0 ] || fail "h$a$1 cannot reach h$b$1"
        done
    done
}

no_reach() {   # from-host to-host
    local out
    out=$(in_ns "$(ns "$1")" ping -c 2 -i 0.3 -W 1 "$(host_ip "$2")" 2>&1)
    echo "$out" | grep -q " 0 received" || { echo "$out"; fail "$1 reaches $2 across VNIs"; }
    echo "$1 -> $2 (another VNI): no answer, as it should be"
}

# The VNI and adjacency lines of a module's entry table.
show_tunnels() { show_entry "$1" | grep -E "VXLAN [0-9]+\(|evpn-" | sed "s/^VXLAN-EF-SHOW: \[vsd [0-9]*\] */  $1: /"; }

entry_has() { show_entry "$1" | grep -q "$2"; }
entry_lacks() { ! show_entry "$1" | grep -q "$2"; }
vni_has_tunnel() {   # node vni address: the VNI's adjacency list names the address
    show_entry "$1" | awk -v vni="VXLAN $2(" -v ip="$3" '
        index($0, vni) { inside = 1; next }
        /VXLAN [0-9]+\(/ { inside = 0 }
        inside && index($0, ip) { found = 1 }
        END { exit !found }'
}

host_mac() { ip -n "$(ns "$1")" -br link show eth0 | awk '{print $3}'; }
vtysh_k3() { in_ns "$(ns k3)" vtysh --vty_socket "$E2E_DIR/frr-k3" -c "$1"; }
counters() { "$VXLANCTL" --socket "$E2E_DIR/$1.sock" counters; }
mac_list() { "$VXLANCTL" --socket "$E2E_DIR/$1.sock" mac list "${@:2}"; }

# k3's BGP table holds both type-2 routes of a host: its MAC, and its MAC with its IP.
k3_has_type2() {   # mac ip
    local routes
    routes=$(vtysh_k3 "show bgp l2vpn evpn route type macip")
    echo "$routes" | grep -qF "[48]:[$1]:[32]:[$2]" && echo "$routes" | grep -qE "\[48\]:\[$1\]\s*$"
}
mac_kind_is() { mac_list "$1" mac "$2" | grep -qE "^$2 .* $3 "; }
mac_absent() { mac_list "$1" mac "$2" 2>&1 | grep -q "ok 0 MAC entries"; }

# Counts frames of a kind arriving at a device while the caller sends.
start_count() {   # file namespace device seconds kind [target]
    local file=$1 namespace=$2
    shift 2
    ip netns exec "$namespace" python3 "$HERE/count_frames.py" "$@" > "$file" 2>&1 &
    COUNT_PID=$!
    for _ in $(seq 50); do grep -q ready "$file" && return 0; sleep 0.1; done
    fail "count_frames.py did not start: $(cat "$file")"
}
end_count() {   # file: COUNT = what was counted
    wait "$COUNT_PID"
    COUNT=$(tail -1 "$1")
}

# 1,000 datagrams from one host to another; the VXLAN copies addressed to
# the receiver that reach a third VTEP's underlay port meanwhile are
# flooding of known unicast.
no_copies_at() {   # from to third-node
    local file=$E2E_DIR/count-$1-$2
    start_count "$file" "$(ns "$3")" ul0 2.5 vxlan-to "$(host_mac "$2")"
    in_ns "$(ns "$1")" python3 "$HERE/udp_stream.py" "$(host_ip "$2")" 9 64 1000 1 >/dev/null
    end_count "$file"
    echo "FLOODED COPIES: $COUNT at $3 for 1000 datagrams $1 -> $2"
    [ "$COUNT" = 0 ] || fail "$COUNT copies of unicast $1 -> $2 reached $3"
}

# No ARP request for the target reaches it while the asker pings it: the
# asker's own VTEP answered.
answered_locally() {   # asker target
    local file=$E2E_DIR/arp-$1-$2
    in_ns "$(ns "$1")" ip neigh flush all
    start_count "$file" "$(ns "$2")" eth0 2 arp-request "$(host_ip "$2")"
    ping_ok "$(ns "$1")" "$(host_ip "$2")" 1 | sed "s/^/$1 -> $2: /"
    [ "${PIPESTATUS[0]}" = 0 ] || fail "$1 cannot reach $2 with ARP suppression on"
    end_count "$file"
    echo "ARP requests for $2 that reached it: $COUNT"
    [ "$COUNT" = 0 ] || fail "$COUNT ARP requests from $1 crossed the underlay to $2"
}

# h1a's twin behind k3, down until h1a moves there.
twin_create() {
    link "$(ns hm)" eth0 "$(ns k3)" hportm
    ip -n "$(ns k3)" link set hportm master br100 up
    ip -n "$(ns hm)" link set dev eth0 address "$(host_mac h1a)"
    ip -n "$(ns hm)" link set dev eth0 mtu 1450
    ip -n "$(ns hm)" addr add "$(host_ip h1a)/24" dev eth0
    ip -n "$(ns hm)" link set up dev lo
}

# The host leaves one place and speaks from the other, as a moved virtual
# machine announces itself; h2a then reaches it there.
move_host() {   # from-ns to-ns label
    local t
    ip -n "$1" link set dev eth0 down
    ip -n "$2" link set dev eth0 up
    t=$(now_ms)
    in_ns "$2" ping -c 1 -W 1 "$(host_ip h2a)" >/dev/null 2>&1 || true
    wait_for "h2a reaches h1a $3" 10 pings h2a "$(host_ip h1a)" || fail "h2a cannot reach h1a $3"
    echo "MOVE: $(( $(now_ms) - t )) ms until h1a is reached $3"
}

require_evpn_facilities
topo_create_evpn
write_node_files no
for n in $NODES; do write_efhost_yaml "$n"; done
say "kernel side: per VNI a bridge and a VXLAN device (nolearning, local = the VTEP address)"
in_ns "$(ns c1)" "$NODE_SH" devices "$E2E_DIR/e1.conf" || fail "devices on c1"
in_ns "$(ns c2)" "$NODE_SH" devices "$E2E_DIR/e2.conf" || fail "devices on c2"
in_ns "$(ns k3)" "$NODE_SH" devices "$E2E_DIR/k3.conf" || fail "devices on k3"
say "efhost on e1 and e2 (no tunnel in their files), a follower beside each"
for n in $NODES; do start_efhost "$n"; wait_efhost_socket "$n"; start_follower "$n" "c${n#e}"; done
wait_for "e1's module holds VNIs 100 and 200 (no tunnel yet)" 10 entry_has e1 "VXLAN 200(" \
    || fail "the follower did not configure e1's VNIs"
entry_lacks e1 "10.99.0.3" || fail "e1 has a tunnel before FRR runs"

say "FRR on c1, c2 and k3"
t0=$(now_ms)
frr_start c1 e1; frr_start c2 e2; frr_start k3 k3
wait_for "first ping h1a -> h3a (efhost to kernel VTEP)" 60 pings h1a "$(host_ip h3a)" \
    || fail "no ping h1a -> h3a within 60 s of FRR's start"
echo "CONVERGENCE: $(( $(now_ms) - t0 )) ms from FRR start to the first ping efhost -> kernel VTEP"
wait_for "first ping h1a -> h2a (efhost to efhost)" 30 pings h1a "$(host_ip h2a)" \
    || fail "no ping h1a -> h2a"
echo "CONVERGENCE: $(( $(now_ms) - t0 )) ms from FRR start to the first ping efhost -> efhost"
say "what FRR exchanged: k3's type-3 routes (originator = VTEP address) and the flood list zebra installed"
in_ns "$(ns k3)" vtysh --vty_socket "$E2E_DIR/frr-k3" -c "show bgp l2vpn evpn route type multicast" \
    | grep -E "^\*|\[3\]" | sed 's/^/  k3 bgp: /'
in_ns "$(ns k3)" bridge fdb show dev vxlan100 | grep "^00:00:00:00:00:00" | sed 's/^/  k3 vxlan100 fdb: /'
say "what the followers made of it in e1's module (vxlanctl show entry) and their log"
show_tunnels e1
grep -E "created|associated" "$E2E_DIR/e1-follower.out" | sed 's/^/  /'

say "every host pings every host of its VNI, both ways"
all_pairs a
all_pairs b
say "hosts of different VNIs do not reach each other"
no_reach h1a h2b; no_reach h2b h3a; no_reach h3b h1a

say "type-2 routes: every efhost host is advertised with its MAC and its IP (VNI 300's once e1 has it)"
for h in h1a h1b h2a h2b; do
    wait_for "k3's BGP table has $h ($(host_mac "$h"), $(host_ip "$h"))" 10 k3_has_type2 "$(host_mac "$h")" "$(host_ip "$h")" \
        || fail "k3 has no MAC and MAC/IP routes for $h"
done
in_ns "$(ns k3)" bridge fdb show dev vxlan100 | grep -F "$(host_mac h1a)" | sed 's/^/  k3 vxlan100 fdb: /'
grep -E "local (MAC|IP)" "$E2E_DIR/e1-follower.out" | head -4 | sed 's/^/  /'
say "e1's MAC table: its own hosts learned, k3's and e2's remote toward their tunnels"
mac_list e1 vni 100 | sed 's/^/  /'
mac_kind_is e1 "$(host_mac h3a)" remote || fail "h3a is not a remote entry in e1's bridge"

say "known unicast is never flooded: no copy reaches the VTEP that hosts neither end"
no_copies_at h3a h1a e2
no_copies_at h1b h3b e2
no_copies_at h1a h2a k3
no_copies_at h2b h1b k3

say "a MAC k3 knows but that never crossed the fabric is in e1's bridge before any traffic"
quiet=02:33:00:00:00:99
in_ns "$(ns k3)" bridge fdb add "$quiet" dev hport100 master static
wait_for "e1's bridge has $quiet as remote" 10 mac_kind_is e1 "$quiet" remote || fail "e1 did not install $quiet"
in_ns "$(ns k3)" bridge fdb del "$quiet" dev hport100 master
wait_for "e1's bridge dropped $quiet once withdrawn" 10 mac_absent e1 "$quiet" || fail "e1 kept the withdrawn $quiet"

say "ARP suppression on VNI 100: the asker's own VTEP answers"
# A kernel VTEP learns its hosts' addresses on the VNI's bridge interface,
# as they resolve their gateway there; zebra advertises them.
ip -n "$(ns k3)" addr add 192.168.50.254/24 dev br100
in_ns "$(ns h3a)" ping -c 1 -W 1 192.168.50.254 >/dev/null || fail "h3a cannot reach k3's bridge interface"
wait_for "e1's suppression table has h3a" 10 sh -c "'$VXLANCTL' --socket '$E2E_DIR/e1.sock' suppress list vni 100 | grep -q '$(host_ip h3a) .* remote'" \
    || fail "h3a's MAC/IP route did not reach e1's suppression table"
answered_locally h1a h3a
answered_locally h3a h1a
answered_locally h1a h2a
counters e1 | grep "^suppression" | sed 's/^/  e1 /'
counters e1 | grep -qE "arp answered [1-9]" || fail "e1 counted no ARP request answered"

say "h1a moves behind k3 (same MAC and IP) and back"
twin_create
move_host "$(ns h1a)" "$(ns hm)" "behind k3"
wait_for "e1's bridge points h1a at k3" 10 mac_kind_is e1 "$(host_mac h1a)" remote || fail "e1 did not follow the move"
move_host "$(ns hm)" "$(ns h1a)" "back behind e1"
wait_for "e1's bridge has h1a on its port again" 10 mac_kind_is e1 "$(host_mac h1a)" learned \
    || fail "e1 did not take h1a back"
all_pairs a

say "VNI 300 exists on e2 and k3 only; e1 has no tunnel for it"
vni_has_tunnel e2 300 10.99.0.3 || fail "e2's VNI 300 has no tunnel to k3"
vni_has_tunnel e2 300 10.99.0.1 && fail "e2's VNI 300 has a tunnel to e1 before e1 has the VNI"
say "VNI 300 added on e1 (its node file and devices)"
write_node_files yes
in_ns "$(ns c1)" "$NODE_SH" devices "$E2E_DIR/e1.conf" || fail "adding VNI 300 on c1"
wait_for "e2's module associates VNI 300 with the tunnel to e1" 30 vni_has_tunnel e2 300 10.99.0.1 \
    || fail "VNI 300 of e1 did not reach e2"
wait_for "e1's module associates VNI 300 with k3" 30 vni_has_tunnel e1 300 10.99.0.3 \
    || fail "VNI 300 did not reach e1"
all_pairs c
for h in h1c h2c; do
    wait_for "k3's BGP table has $h ($(host_mac "$h"), $(host_ip "$h"))" 10 k3_has_type2 "$(host_mac "$h")" "$(host_ip "$h")" \
        || fail "k3 has no MAC and MAC/IP routes for $h"
done

say "stopping c2's FRR withdraws e2's routes"
# The daemons take a few seconds to exit; bgpd closes its sessions at once,
# so the removal is timed from the stop signal, not from their exit.
t1=$(now_ms)
frr_stop c2 &
stopper=$!
wait_for "tunnel to 10.99.0.2 gone from e1's module" 30 entry_lacks e1 "10.99.0.2" \
    || fail "e1 still has a tunnel to e2 30 s after e2's FRR stopped"
echo "WITHDRAWAL: $(( $(now_ms) - t1 )) ms from stopping FRR to the removal in e1's module"
wait "$stopper"
wait_for "k3's flood list without 10.99.0.2" 30 \
    sh -c "! ip netns exec $(ns k3) bridge fdb show dev vxlan100 | grep -q 'dst 10.99.0.2'" \
    || fail "k3 still floods to e2"
show_tunnels e1
grep -E "removed|disassociated" "$E2E_DIR/e1-follower.out" | sed 's/^/  /'

say "restarting c2's FRR brings the tunnels back"
t2=$(now_ms)
frr_start c2 e2
wait_for "tunnel to 10.99.0.2 back in e1's module" 60 vni_has_tunnel e1 100 10.99.0.2 \
    || fail "e1 did not get its tunnel to e2 back"
wait_for "ping h1a -> h2a again" 30 pings h1a "$(host_ip h2a)" || fail "h1a cannot reach h2a after FRR came back"
echo "RETURN: $(( $(now_ms) - t2 )) ms from FRR restart to a ping through the tunnel"

say "efhost e1 restarts: its follower resynchronises it in full"
stop_ok e1
start_efhost e1
wait_efhost_socket e1
wait_for "e1's module again associates VNI 100 with k3" 30 vni_has_tunnel e1 100 10.99.0.3 \
    || fail "the follower did not resynchronise the new efhost"
wait_for "ping h1a -> h3a after efhost's restart" 30 pings h1a "$(host_ip h3a)" || fail "no ping after efhost restart"
grep -q "efhost restarted" "$E2E_DIR/e1-follower.out" || fail "the follower did not notice efhost's restart"
"$VXLANCTL" --socket "$E2E_DIR/e1.sock" tunnel-intf list | sed 's/^/  e1 tunnel interfaces: /'
rc=0
out=$("$VXLANCTL" --socket "$E2E_DIR/e1.sock" tunnel-intf remove 1 2>&1) || rc=$?
[ "$rc" = 4 ] && [ "$out" = "vxlanctl: error: interface 1 belongs to the configuration file" ] \
    || fail "removing a configured interface: exit $rc, '$out'"
echo "  $out (exit 4)"

say "the follower restarts: it adopts the tunnel interfaces it finds and changes nothing"
stop_ok fe1
before=$(show_entry e1 | grep -c "evpn-")
start_follower e1 c1
wait_for "follower resynchronised" 20 grep -c "full resynchronisation" "$E2E_DIR/e1-follower.out" || true
sleep 1
after=$(show_entry e1 | grep -c "evpn-")
[ "$before" = "$after" ] || fail "tunnel adjacencies before/after the follower's restart: $before/$after"
ping_ok "$(ns h1b)" "$(host_ip h3b)" 3

say "followers and efhosts stop cleanly"
stop_ok fe1 fe2
stop_ok e1 e2
say "PASS"
