#!/usr/bin/env bash
# A larger BGP EVPN fabric built by scripts/evpn-node.sh: six efhost VTEPs
# and two Linux kernel VTEPs, each an iBGP client of one route reflector
# (FRR only, no VTEP), instead of a full mesh. No tunnel is written in any
# file. On the efhost nodes FRR and the EVPN follower run in a control
# namespace whose VXLAN devices carry no traffic.
#
#   h1a h1b        h6a h6b          h7a h7b         h8a h8b
#    |   | VLAN 10/20 |   |           |   | hport100/200 |
#  [e1] [c1] ... [e6] [c6]         [k7: kernel]    [k8: kernel]     [rr]
#    | .1  | .11   | .6  | .16        | .7            | .8             | .100
#    +-----+-------+-----+------------+---------------+----------------+-- [ul: underlay bridge]
#  cN: FRR + evpn-follower, vxlanN local = .N (efhost's VTEP address)
#  rr: FRR route reflector, every cN and kN is its client
#
# VNI 100 = VLAN 10, hosts hNa = 192.168.50.N; VNI 200 = VLAN 20, hosts
# hNb = 192.168.50.1N (one subnet, so that only the VNIs keep them apart).
# Underlay 10.99.0.0/24. EFHOST, VXLANCTL and EVPN_FOLLOWER name the binaries.
#
# It prints CONVERGENCE (from starting the FRRs to complete flood lists
# everywhere, and to every host having reached every host of its VNI),
# WITHDRAWAL (from stopping one efhost node's FRR to its tunnel being gone
# from every other VTEP) and what the daemons used (RESOURCES).
set -u
HERE=$(cd "$(dirname "$0")" && pwd)
E2E_PREFIX=${E2E_PREFIX:-vxevl$$}
. "$HERE/lib.sh"
. "$HERE/evpn_lib.sh"

EF_NODES="1 2 3 4 5 6"
K_NODES="7 8"
VTEPS="$EF_NODES $K_NODES"
VNIS="100 200"
RR_ADDR=10.99.0.100
WITHDRAWN=6          # the efhost node whose FRR is stopped

vtep_addr() { echo "10.99.0.$1"; }
bgp_addr() {   # the address a VTEP speaks BGP from: efhost's control namespace, or the kernel VTEP itself
    case " $EF_NODES " in *" $1 "*) echo "10.99.0.1$1" ;; *) echo "10.99.0.$1" ;; esac
}
frr_node() {   # the namespace of a VTEP's FRR
    case " $EF_NODES " in *" $1 "*) echo "c$1" ;; *) echo "k$1" ;; esac
}
host_ip() {   # hNa -> VNI 100, hNb -> VNI 200
    case "${1:2:1}" in a) echo "192.168.50.${1:1:1}" ;; b) echo "192.168.50.1${1:1:1}" ;; esac
}
HOSTS=
for v in $VTEPS; do HOSTS+=" h${v}a h${v}b"; done
EVPN_NAMESPACES="$NS_UL $(ns rr)"
for v in $EF_NODES; do EVPN_NAMESPACES+=" $(ns e$v) $(ns c$v)"; done
for v in $K_NODES; do EVPN_NAMESPACES+=" $(ns k$v)"; done
for h in $HOSTS; do EVPN_NAMESPACES+=" $(ns "$h")"; done
trap evpn_teardown EXIT

write_node_files() {
    local v
    {
        echo "# route reflector: no VTEP, every VTEP is a client"
        echo "router-id $RR_ADDR"
        echo "reflector"
        for v in $VTEPS; do echo "peer $(bgp_addr "$v")"; done
    } > "$E2E_DIR/rr.conf"
    for v in $EF_NODES; do
        printf '%s\n' "vtep $(vtep_addr "$v")" "router-id $(bgp_addr "$v")" "peer $RR_ADDR" \
            "vni 100 vlan 10" "vni 200 vlan 20" > "$E2E_DIR/e$v.conf"
    done
    for v in $K_NODES; do
        printf '%s\n' "vtep $(vtep_addr "$v")" "peer $RR_ADDR" \
            "vni 100 port hport100" "vni 200 port hport200" > "$E2E_DIR/k$v.conf"
    done
}

# The node file's reflector key: misuse is refused like any other mistake.
check_reflector_key() {
    local out rc
    printf '%s\n' "router-id $RR_ADDR" "reflector yes" "peer 10.99.0.11" > "$E2E_DIR/bad1.conf"
    printf '%s\n' "router-id $RR_ADDR" "reflector" "vni 100 vlan 10" > "$E2E_DIR/bad2.conf"
    printf '%s\n' "reflector" "peer 10.99.0.11" > "$E2E_DIR/bad3.conf"
    printf '%s\n' "router-id $RR_ADDR" "peer 10.99.0.11" > "$E2E_DIR/bad4.conf"
    for f in "bad1:bad1.conf:2: 'reflector' takes no value" \
             "bad2:'vni' lines need a 'vtep ADDRESS' line" \
             "bad3:needs a 'router-id' line" \
             "bad4:no 'vtep ADDRESS' line"; do
        rc=0
        out=$("$NODE_SH" devices "$E2E_DIR/${f%%:*}.conf" 2>&1) || rc=$?
        [ "$rc" = 2 ] && [[ "$out" == *"${f#*:}"* ]] \
            || fail "evpn-node.sh on ${f%%:*}.conf: exit $rc, '$out' (expected exit 2 and '${f#*:}')"
        echo "  $out"
    done
}

topo_create_large() {
    mkdir -p "$E2E_DIR"
    local n v h
    for n in $EVPN_NAMESPACES; do ip netns add "$n" || fail "cannot create namespace $n"; done
    underlay_create
    underlay_port "$(ns rr)" "$RR_ADDR" p100
    for v in $EF_NODES; do
        underlay_port "$(ns e$v)" "" "p$v"
        underlay_port "$(ns c$v)" "$(bgp_addr "$v")" "p1$v"
        # efhost's devices carry no kernel addresses: its own L3 engine
        # answers for the VTEP address.
        in_ns "$(ns e$v)" sysctl -qw net.ipv6.conf.all.disable_ipv6=1
        ip -n "$(ns e$v)" link set dev ul0 address "02:e$v:00:00:00:09"
        link "$(ns h${v}a)" eth0 "$(ns e$v)" acc10 || fail "cannot link h${v}a"
        link "$(ns h${v}b)" eth0 "$(ns e$v)" acc20 || fail "cannot link h${v}b"
        ip -n "$(ns e$v)" link set dev acc10 address "02:e$v:00:00:00:01" up
        ip -n "$(ns e$v)" link set dev acc20 address "02:e$v:00:00:00:02" up
        write_evpn_efhost_yaml "e$v" "$v" "$(vtep_addr "$v")" "e$v" 10 20
    done
    for v in $K_NODES; do
        underlay_port "$(ns k$v)" "$(vtep_addr "$v")" "p$v"
        link "$(ns h${v}a)" eth0 "$(ns k$v)" hport100 || fail "cannot link h${v}a"
        link "$(ns h${v}b)" eth0 "$(ns k$v)" hport200 || fail "cannot link h${v}b"
    done
    for h in $HOSTS; do
        host_up "$(ns "$h")" "$(host_ip "$h")"
        # Hosts keep their frames within the tunnels' inner MTU.
        ip -n "$(ns "$h")" link set dev eth0 mtu 1450
    done
}

# What a complete fabric looks like from VTEP $1: every VNI floods to every
# other VTEP, and, with $2 given, to none at that VTEP.
expected_flood() {   # vtep [withdrawn]
    local vni v
    for vni in $VNIS; do
        for v in $VTEPS; do
            [ "$v" = "$1" ] || [ "$v" = "${2:-}" ] || echo "$vni $(vtep_addr "$v")"
        done
    done | sort
}
flood_of() {   # vtep
    case " $EF_NODES " in
    *" $1 "*) module_tunnels "e$1" ;;
    *) kernel_flood "k$1" $VNIS ;;
    esac
}
flood_is() {   # vtep [withdrawn]
    local have
    have=$(flood_of "$1") || return 1
    [ "$have" = "$(expected_flood "$@")" ]
}
# The quick view of the same while waiting: an efhost node has a tunnel
# interface to each other VTEP, a kernel VTEP its complete flood lists.
tunnels_complete() {
    local v w want have
    for v in $VTEPS; do
        case " $EF_NODES " in
        *" $v "*)
            want=$(for w in $VTEPS; do [ "$w" = "$v" ] || vtep_addr "$w"; done | sort)
            have=$(tunnel_intf_addrs "e$v") && [ "$have" = "$want" ] || return 1 ;;
        *) flood_is "$v" || return 1 ;;
        esac
    done
}
dump_floods() { local v; for v in $VTEPS; do echo "  VTEP $v floods to: $(flood_of "$v" | tr '\n' ' ')"; done; }
fabric_complete() {
    local v
    for v in $VTEPS; do flood_is "$v" || return 1; done
}
# Whether VTEP $1 no longer has a tunnel to VTEP $2.
tunnel_gone() {   # vtep withdrawn
    local have
    case " $EF_NODES " in
    *" $1 "*) have=$(tunnel_intf_addrs "e$1") || return 1 ;;
    *) have=$(kernel_flood "k$1" $VNIS | awk '{ print $2 }') || return 1 ;;
    esac
    ! printf '%s\n' "$have" | grep -qxF "$(vtep_addr "$2")"
}

# Every host pings every other host of its VNI once (each ordered pair, so
# both ways), all pairs at the same time; a pair that fails is tried again
# in the next round until the deadline. Prints the rounds it took.
all_pairs_reach() {   # deadline-seconds
    local limit=$(( $(now_ms) + $1 * 1000 )) pending=() next src dst i round=0
    for src in $HOSTS; do
        for dst in $HOSTS; do
            [ "$src" != "$dst" ] && [ "${src:2:1}" = "${dst:2:1}" ] && pending+=("$src:$dst")
        done
    done
    echo "  ${#pending[@]} ordered pairs"
    while [ ${#pending[@]} -gt 0 ]; do
        round=$((round + 1))
        local pids=()
        for i in "${!pending[@]}"; do
            src=${pending[$i]%%:*} dst=${pending[$i]#*:}
            in_ns "$(ns "$src")" ping -c 1 -W 2 "$(host_ip "$dst")" >/dev/null 2>&1 &
            pids[$i]=$!
        done
        next=()
        for i in "${!pending[@]}"; do wait "${pids[$i]}" || next+=("${pending[$i]}"); done
        pending=("${next[@]+"${next[@]}"}")
        [ ${#pending[@]} -eq 0 ] && break
        echo "  round $round: ${#pending[@]} pairs without an answer: ${pending[*]}"
        [ "$(now_ms)" -lt "$limit" ] || fail "after $1 s still without an answer: ${pending[*]}"
    done
    echo "  every pair answered (rounds: $round)"
}

daemon_pids() {   # efhost|follower|bgpd|zebra
    local v n
    case $1 in
    efhost) for v in $EF_NODES; do echo "${PIDS[e$v]}"; done ;;
    follower) for v in $EF_NODES; do echo "${PIDS[fe$v]}"; done ;;
    *) for n in $EVPN_FRR_NODES; do cat "$E2E_DIR/frr-$n/$1.pid"; done ;;
    esac
}

# Memory and CPU of each kind of daemon over the convergence and the pings
# (FRR's daemons over their whole life, which is the same). A daemon that
# spins or grows without end shows here long before it breaks a ping.
declare -A CPU0=()
note_cpu() { local p; for p in $(daemon_pids efhost) $(daemon_pids follower); do CPU0[$p]=$(proc_cpu_ms "$p"); done; }
report_resources() {   # window-ms
    local window=$1 kind p r c rss_max cpu_max cpu_sum line=
    for kind in efhost follower bgpd zebra; do
        rss_max=0 cpu_max=0 cpu_sum=0
        for p in $(daemon_pids "$kind"); do
            r=$(proc_rss_kb "$p") c=$(proc_cpu_ms "$p")
            [ -n "$r" ] && [ -n "$c" ] || fail "$kind (pid $p) is gone"
            c=$((c - ${CPU0[$p]:-0}))
            [ "$r" -gt "$rss_max" ] && rss_max=$r
            [ "$c" -gt "$cpu_max" ] && cpu_max=$c
            cpu_sum=$((cpu_sum + c))
        done
        line+=" $kind: RSS up to $((rss_max / 1024)) MiB, CPU $cpu_sum ms in all, up to $cpu_max ms each;"
        [ "$rss_max" -lt $((256 * 1024)) ] || fail "a $kind uses $((rss_max / 1024)) MiB"
        [ $((cpu_max * 2)) -lt "$window" ] || fail "a $kind used $cpu_max ms of CPU in $window ms"
    done
    echo "RESOURCES over $window ms:${line%;}"
}

no_reach() {   # from-host to-host
    local out
    out=$(in_ns "$(ns "$1")" ping -c 2 -i 0.3 -W 1 "$(host_ip "$2")" 2>&1)
    echo "$out" | grep -q " 0 received" || { echo "$out"; fail "$1 reaches $2 across VNIs"; }
    echo "  $1 -> $2 (another VNI): no answer, as it should be"
}

require_evpn_facilities
mkdir -p "$E2E_DIR"
say "the node file's reflector key: misuse refused with file and line, exit 2"
check_reflector_key
write_node_files
topo_create_large

say "kernel side of 6 efhost nodes and 2 kernel VTEPs; the reflector has no devices"
node_sh_all devices rr:rr $(for v in $EF_NODES; do echo "c$v:e$v"; done) $(for v in $K_NODES; do echo "k$v:k$v"; done)
[ -z "$(ip -n "$(ns rr)" -o link show type vxlan)" ] || fail "the reflector got VXLAN devices"

say "efhost on e1..e6 (no tunnel in their files), a follower beside each"
for v in $EF_NODES; do start_efhost "e$v"; done
for v in $EF_NODES; do wait_efhost_socket "e$v"; start_follower "e$v" "c$v"; done
for v in $EF_NODES; do
    wait_for "e$v's module holds VNIs 100 and 200, no tunnel" 20 \
        sh -c "'$VXLANCTL' --socket '$E2E_DIR/e$v.sock' show entry | grep -q 'VXLAN 200('" \
        >/dev/null || fail "the follower did not configure e$v's VNIs"
    [ -z "$(module_tunnels "e$v")" ] || fail "e$v has a tunnel before FRR runs"
done

say "FRR on the reflector and the 8 VTEPs"
note_cpu
t0=$(now_ms)
node_sh_all frr-start rr:rr $(for v in $EF_NODES; do echo "c$v:e$v"; done) $(for v in $K_NODES; do echo "k$v:k$v"; done)
wait_for "every efhost has a tunnel to the 7 other VTEPs, every kernel VTEP floods to them" 30 tunnels_complete \
    || { dump_floods
         fail "the fabric's tunnels were not complete 30 s after FRR's start"; }
t_cp=$(now_ms)
say "every host pings every other host of its VNI"
no_reach h1a h2b &
cross1=$!
no_reach h3b h7a &
cross2=$!
all_pairs_reach 20
t_all=$(now_ms)
wait "$cross1" && wait "$cross2" || fail "a host reached another VNI"
# The module's entry table is slow to ask for, so it is read once the
# pings are through rather than while the figure runs.
wait_for "every module associates both VNIs with the 7 other VTEPs" 10 fabric_complete \
    || { dump_floods
         fail "the modules' flood lists are not what the fabric holds"; }
echo "CONVERGENCE: $(( t_cp - t0 )) ms from FRR start to every VTEP's tunnels to the 7 others"
echo "CONVERGENCE: $(( t_all - t0 )) ms from FRR start to every host reaching every host of its VNI"

say "the reflector: a session with every VTEP, its own configuration"
grep -q "route-reflector-client" "$E2E_DIR/frr-rr/bgpd.conf" && ! grep -q "advertise-all-vni" "$E2E_DIR/frr-rr/bgpd.conf" \
    || fail "the reflector's bgpd.conf: $(cat "$E2E_DIR/frr-rr/bgpd.conf")"
summary=$(vtysh_on rr -c "show bgp l2vpn evpn summary") || fail "vtysh on the reflector"
up=$(printf '%s\n' "$summary" | awk '$1 ~ /(^|\()10\.99\.0\.[0-9]+\)?$/ && $10 ~ /^[0-9]+$/ { n++ } END { print n + 0 }')
[ "$up" = 8 ] || { echo "$summary"; fail "the reflector has $up established sessions, not 8"; }
echo "  8 sessions established"
for v in $VTEPS; do
    n=$(vtysh_on "$(frr_node "$v")" -c "show bgp l2vpn evpn summary" \
        | awk '$1 ~ /(^|\()10\.99\.0\.[0-9]+\)?$/ { n++ } END { print n + 0 }')
    [ "$n" = 1 ] || fail "VTEP $v has $n BGP neighbours, not only the reflector"
done
echo "  each VTEP's only BGP neighbour is the reflector"
say "e1's module and k7's flood list for VNI 100"
show_entry e1 | grep -E "VXLAN 100\(|evpn-" | head -8 | sed "s/^VXLAN-EF-SHOW: \[vsd [0-9]*\] */  e1: /"
in_ns "$(ns k7)" bridge fdb show dev vxlan100 | grep "^00:00:00:00:00:00" | sed 's/^/  k7 vxlan100 fdb: /'

say "what the daemons use"
report_resources "$(( t_all - t0 ))"

say "stopping e$WITHDRAWN's FRR (c$WITHDRAWN) withdraws its routes from every VTEP"
# The VTEPs are checked one after the other, so each time is late by up to
# one round of checks (about 100 ms); a watcher per VTEP would be finer but
# takes the CPU the withdrawal itself needs.
t1=$(now_ms)
frr_stop "c$WITHDRAWN" >/dev/null &
# FRR takes seconds to exit after closing its sessions; the teardown ends
# that if it still runs then.
PIDS["stop-c$WITHDRAWN"]=$!
declare -A gone=()
left=
for v in $VTEPS; do [ "$v" = "$WITHDRAWN" ] || left+=" $v"; done
while [ -n "$left" ]; do
    still=
    for v in $left; do
        if tunnel_gone "$v" "$WITHDRAWN"; then gone[$v]=$(( $(now_ms) - t1 )); else still+=" $v"; fi
    done
    left=$still
    [ -z "$left" ] && break
    [ $(( $(now_ms) - t1 )) -lt 15000 ] \
        || fail "15 s after stopping c$WITHDRAWN's FRR, VTEPs$left still flood to $(vtep_addr "$WITHDRAWN")"
    sleep 0.02
done
t_w=0 per=
for v in $VTEPS; do
    [ -n "${gone[$v]:-}" ] || continue
    per+=" $v=${gone[$v]}"
    [ "${gone[$v]}" -gt "$t_w" ] && t_w=${gone[$v]}
done
echo "  gone from VTEP (ms):$per"
echo "WITHDRAWAL: $t_w ms from stopping FRR to the tunnel's removal from 5 efhost modules and 2 kernel flood lists"
for v in $VTEPS; do
    [ "$v" = "$WITHDRAWN" ] || flood_is "$v" "$WITHDRAWN" \
        || fail "VTEP $v lost more than the tunnel to e$WITHDRAWN: $(flood_of "$v" | tr '\n' ',')"
done
echo "  the other VTEPs keep their tunnels to each other"
grep -E "tunnel .* removed|disassociated" "$E2E_DIR/e1-follower.out" | sed 's/^/  e1 follower: /'
for pair in h1a:h7a h8b:h2b; do
    out=$(ping_ok "$(ns "${pair%:*}")" "$(host_ip "${pair#*:}")" 1) \
        || fail "${pair%:*} cannot reach ${pair#*:} after e$WITHDRAWN's withdrawal: $out"
    echo "  ${pair%:*} -> ${pair#*:}: $out"
done

say "followers and efhosts stop cleanly"
stop_ok $(for v in $EF_NODES; do echo "fe$v"; done)
stop_ok $(for v in $EF_NODES; do echo "e$v"; done)
say "PASS"
