#!/usr/bin/env bash
# One EVPN node from its description file: the kernel side that FRR's zebra
# follows (per VNI a bridge and a VXLAN device, nolearning, local = the
# node's VTEP address) and FRR itself (zebra and bgpd with a private run
# directory, iBGP l2vpn evpn to the peers). Run it inside the node's network
# namespace (or on the node). A route reflector is a node of the same file
# format with the reflector key, and needs neither a VTEP address nor VNIs.
# The file format is in docs/evpn.md.
#
# Usage: evpn-node.sh --help (its text is also the manual page evpn-node(8)).
set -euo pipefail

FRR_DIR=${FRR_DIR:-/usr/lib/frr}

die() { echo "evpn-node: $*" >&2; exit 2; }

# Reads FILE into VTEP, ROUTER_ID, ASN, PEERS, REFLECTOR (yes/no) and
# VNI_LIST ("vni:vlan:port:suppress").
read_node() {
    local file=$1 n=0 key a b c d e
    [ -r "$file" ] || die "cannot read $file"
    VTEP= ROUTER_ID= ASN=65000 PEERS=() VNI_LIST=() TIMERS="3 9" REFLECTOR=no
    while read -r key a b c d e; do
        n=$((n + 1))
        case "$key" in
        ''|'#'*) continue ;;
        vtep) VTEP=$a ;;
        router-id) ROUTER_ID=$a ;;
        as) ASN=$a ;;
        timers) TIMERS="$a $b" ;;
        peer) PEERS+=("$a") ;;
        reflector)
            case "$a" in ''|'#'*) ;; *) die "$file:$n: 'reflector' takes no value, found '$a'" ;; esac
            REFLECTOR=yes ;;
        vni)
            [[ "$a" =~ ^[0-9]+$ ]] && [ "$a" -ge 1 ] && [ "$a" -le 16777215 ] \
                || die "$file:$n: VNI '$a' is not 1..16777215"
            local vlan= port= suppress=off
            set -- $b $c $d $e
            while [ $# -gt 0 ]; do
                case "$1" in
                vlan) vlan=${2:-}; [[ "$vlan" =~ ^[0-9]+$ ]] && [ "$vlan" -ge 1 ] && [ "$vlan" -le 4094 ] \
                        || die "$file:$n: VLAN '$vlan' is not 1..4094"; shift 2 ;;
                port) port=${2:-}; [ -n "$port" ] || die "$file:$n: port needs a device name"; shift 2 ;;
                suppress) suppress=on; shift ;;
                '#'*) break ;;
                *) die "$file:$n: unknown word '$1' (vni N [vlan V] [port DEV] [suppress])" ;;
                esac
            done
            VNI_LIST+=("$a:$vlan:$port:$suppress") ;;
        *) die "$file:$n: unknown key '$key' (vtep, router-id, as, timers, peer, reflector, vni)" ;;
        esac
    done < "$file"
    # A reflector that is no VTEP only passes routes on: it has no local
    # address for VXLAN devices, so its router id must be given.
    if [ -z "$VTEP" ]; then
        [ "$REFLECTOR" = yes ] || die "$file: no 'vtep ADDRESS' line"
        [ ${#VNI_LIST[@]} -eq 0 ] || die "$file: 'vni' lines need a 'vtep ADDRESS' line"
        [ -n "$ROUTER_ID" ] || die "$file: a reflector without 'vtep' needs a 'router-id' line"
    fi
    [ -n "$ROUTER_ID" ] || ROUTER_ID=$VTEP
}

# On an efhost node the bridge gets a local port that carries no traffic:
# the EVPN follower writes the MACs efhost learns on its access ports there,
# where zebra reads local MACs. Its peer end only keeps it up; neither end
# gets an IPv6 link-local address, so neither sends anything.
local_port_up() {   # vni
    local lp=local$1
    if ! ip link show "$lp" >/dev/null 2>&1; then
        ip link add "$lp" type veth peer name "${lp}p"
        ip link set "$lp" addrgenmode none
        ip link set "${lp}p" addrgenmode none
        ip link set "$lp" master "br$1"
        bridge link set dev "$lp" learning off
    fi
    ip link set up dev "${lp}p"
    ip link set up dev "$lp"
}

vni_up() {   # vni vlan port suppress
    local vni=$1 vlan=$2 port=$3 suppress=$4
    if ! ip link show "vxlan$vni" >/dev/null 2>&1; then
        ip link add "br$vni" type bridge stp_state 0
        ip link add "vxlan$vni" type vxlan id "$vni" local "$VTEP" dstport 4789 nolearning
        ip link set "vxlan$vni" master "br$vni"
        bridge link set dev "vxlan$vni" learning off
        echo "evpn-node: VNI $vni: br$vni + vxlan$vni (local $VTEP${vlan:+, VLAN $vlan}${port:+, port $port})"
    fi
    # efhost's follower reads the VNI's VLAN from the device's alias.
    [ -z "$vlan" ] || ip link set dev "vxlan$vni" alias "vlan=$vlan"
    [ -z "$port" ] || ip link set dev "$port" master "br$vni"
    ip link set up dev "br$vni"
    ip link set up dev "vxlan$vni"
    [ -z "$port" ] || ip link set up dev "$port"
    [ -z "$vlan" ] || local_port_up "$vni"
    # ARP and ND suppression: the kernel answers for its own hosts, and the
    # follower switches efhost's on from the same flag.
    bridge link set dev "vxlan$vni" neigh_suppress "$suppress"
}

devices() {
    read_node "$1"
    local entry want=" "
    for entry in "${VNI_LIST[@]}"; do
        IFS=: read -r vni vlan port suppress <<< "$entry"
        vni_up "$vni" "$vlan" "$port" "$suppress"
        want+="$vni "
    done
    local dev
    for dev in $(ip -o link show type vxlan | awk -F': ' '{print $2}' | sed 's/@.*//'); do
        local vni=${dev#vxlan}
        case "$want" in *" $vni "*) continue ;; esac
        ip link del "$dev"; ip link del "br$vni" 2>/dev/null || true
        ip link del "local$vni" 2>/dev/null || true
        echo "evpn-node: VNI $vni removed"
    done
}

down() {
    read_node "$1"
    local entry
    for entry in "${VNI_LIST[@]}"; do
        IFS=: read -r vni _ _ _ <<< "$entry"
        ip link del "vxlan$vni" 2>/dev/null || true
        ip link del "local$vni" 2>/dev/null || true
        ip link del "br$vni" 2>/dev/null || true
    done
}

frr_start() {
    local file=$1 dir=$2 peer
    read_node "$file"
    [ -x "$FRR_DIR/zebra" ] && [ -x "$FRR_DIR/bgpd" ] || die "FRR's zebra and bgpd not found in $FRR_DIR (apt-get install frr)"
    mkdir -p "$dir"
    # The daemons drop to the frr user and write their sockets here.
    chown frr:frr "$dir" 2>/dev/null || true
    echo "hostname $(basename "$file" .conf)" > "$dir/zebra.conf"
    {
        echo "frr defaults datacenter"
        echo "hostname $(basename "$file" .conf)"
        echo "log file $dir/bgpd.log"
        echo "router bgp $ASN"
        echo " bgp router-id $ROUTER_ID"
        echo " no bgp default ipv4-unicast"
        for peer in "${PEERS[@]}"; do
            echo " neighbor $peer remote-as $ASN"
            echo " neighbor $peer timers $TIMERS"
            echo " neighbor $peer timers connect 1"
        done
        echo " address-family l2vpn evpn"
        for peer in "${PEERS[@]}"; do
            echo "  neighbor $peer activate"
            [ "$REFLECTOR" = no ] || echo "  neighbor $peer route-reflector-client"
        done
        # A reflector without a VTEP address has no VNI of its own to
        # advertise; it keeps and passes on its clients' routes all the same.
        [ -z "$VTEP" ] || echo "  advertise-all-vni"
        echo " exit-address-family"
    } > "$dir/bgpd.conf"
    local common=(-d --vty_socket "$dir" -z "$dir/zserv.api" -P 0)
    # What the daemons print before they detach (notices such as "Disabling
    # MPLS support") goes to startup.log; a daemon that fails to start says why there.
    "$FRR_DIR/zebra" "${common[@]}" -f "$dir/zebra.conf" -i "$dir/zebra.pid" --log "file:$dir/zebra.log" \
        2>> "$dir/startup.log" || die "zebra did not start: $(tail -3 "$dir/startup.log")"
    for _ in $(seq 50); do [ -S "$dir/zserv.api" ] && break; sleep 0.1; done
    [ -S "$dir/zserv.api" ] || die "zebra did not start (see $dir/zebra.log, $dir/startup.log)"
    "$FRR_DIR/bgpd" "${common[@]}" -f "$dir/bgpd.conf" -i "$dir/bgpd.pid" \
        2>> "$dir/startup.log" || die "bgpd did not start: $(tail -3 "$dir/startup.log")"
    local role="VTEP ${VTEP:-none}"
    [ "$REFLECTOR" = no ] || role+=", route reflector"
    echo "evpn-node: FRR started in $dir (router-id $ROUTER_ID, $role, peers ${PEERS[*]})"
}

frr_stop() {
    local dir=$1 d pid
    for d in bgpd zebra; do
        [ -r "$dir/$d.pid" ] || continue
        pid=$(cat "$dir/$d.pid")
        kill -TERM "$pid" 2>/dev/null || continue
        for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
        kill -KILL "$pid" 2>/dev/null || true
        rm -f "$dir/$d.pid"
    done
}

usage() {
    cat <<'EOF'
Usage: evpn-node COMMAND ARGUMENTS
Sets up one EVPN node from its description file (docs/evpn.md): the kernel
devices that FRR's zebra follows, and FRR's zebra and bgpd themselves.
Run it inside the node's network namespace, or on the node.

Commands:
  devices FILE          create or remove devices until they match FILE
  frr-start FILE DIR    write FRR's configuration into DIR and start zebra and bgpd
  frr-stop DIR          stop the zebra and bgpd started with DIR
  down FILE             remove every device FILE describes
  --help                print this text

Environment:
  FRR_DIR               where zebra and bgpd are (default /usr/lib/frr)
EOF
}

case "${1:-}" in
--help) usage ;;
devices) [ $# -eq 2 ] || die "usage: devices FILE"; devices "$2" ;;
down) [ $# -eq 2 ] || die "usage: down FILE"; down "$2" ;;
frr-start) [ $# -eq 3 ] || die "usage: frr-start FILE DIR"; frr_start "$2" "$3" ;;
frr-stop) [ $# -eq 2 ] || die "usage: frr-stop DIR"; frr_stop "$2" ;;
*) die "usage: evpn-node.sh devices FILE | frr-start FILE DIR | frr-stop DIR | down FILE" ;;
esac
