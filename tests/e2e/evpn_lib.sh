# shellcheck shell=bash
# Shared by the EVPN fabric tests, sourced after lib.sh: nodes built by
# scripts/evpn-node.sh from their node files, efhost VTEPs each with an
# EVPN follower in a control namespace, kernel VTEPs, and what the tests
# read back from them (efhost's module, the kernel's flood lists).
#
# The caller sets E2E_PREFIX (before lib.sh), E2E_DIR (lib.sh does) and
# EVPN_NAMESPACES (every namespace of the run, for the teardown); node N
# lives in namespace "$E2E_PREFIX-N", its FRR in "$E2E_DIR/frr-N", its
# efhost's control socket is "$E2E_DIR/N.sock". Processes started here are
# kept in PIDS by key (the efhost node's name, "f" + it for its follower).

NODE_SH=${NODE_SH:-$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/scripts/evpn-node.sh}
NS_UL=$E2E_PREFIX-ul
EVPN_NAMESPACES=${EVPN_NAMESPACES:-}
EVPN_FRR_NODES=
declare -A PIDS=()

ns() { echo "$E2E_PREFIX-$1"; }
now_ms() { date +%s%3N; }

# A run killed outright leaves its FRR daemons and followers running in its
# namespaces, and its directory; they go before the namespaces themselves
# (which lib.sh's require_facilities removes).
evpn_stop_stale_daemons() {
    local n pid
    for n in $(ip netns list 2>/dev/null | awk '{print $1}'); do
        pid=$(printf '%s\n' "$n" | sed -n 's/^vxev[a-z]*\([0-9][0-9]*\)-.*/\1/p')
        [ -n "$pid" ] && [ ! -d "/proc/$pid" ] || continue
        ip netns pids "$n" 2>/dev/null | xargs -r kill -KILL 2>/dev/null
        rm -rf "/tmp/${n%-*}"
    done
    return 0
}

require_evpn_facilities() {
    evpn_stop_stale_daemons
    require_facilities
    command -v bridge >/dev/null || fail "missing tool: bridge (iproute2)"
    command -v vtysh >/dev/null || fail "missing tool: vtysh (FRR)"
    [ -x /usr/lib/frr/zebra ] && [ -x /usr/lib/frr/bgpd ] \
        || fail "FRR is not installed (zebra, bgpd in /usr/lib/frr): scripts/install-deps.sh installs it"
    [ -x "${EVPN_FOLLOWER:-}" ] || fail "evpn-follower not found at '${EVPN_FOLLOWER:-}'"
    id frr >/dev/null 2>&1 || fail "the frr user is missing (FRR's package creates it)"
    [ -x "$NODE_SH" ] || fail "scripts/evpn-node.sh not found at '$NODE_SH'"
}

# Stops everything of the run whatever state it is in; the EXIT trap.
# Every daemon gets SIGTERM at once and a short while to exit: stopped one
# node after the other, FRR's orderly exits would add seconds per node.
evpn_teardown() {
    local key n f p frr='' alive
    for key in "${!PIDS[@]}"; do kill -TERM "${PIDS[$key]}" 2>/dev/null; done
    for n in $EVPN_FRR_NODES; do
        for f in "$E2E_DIR/frr-$n"/bgpd.pid "$E2E_DIR/frr-$n"/zebra.pid; do
            [ -r "$f" ] && p=$(cat "$f") && kill -TERM "$p" 2>/dev/null && frr+=" $p"
        done
    done
    for key in "${!PIDS[@]}"; do wait "${PIDS[$key]}" 2>/dev/null; done
    for _ in $(seq 10); do
        alive=
        for p in $frr; do kill -0 "$p" 2>/dev/null && { alive=$p; break; }; done
        [ -z "$alive" ] && break
        sleep 0.1
    done
    # Whatever still runs inside the namespaces was started by this run.
    for n in $EVPN_NAMESPACES; do ip netns pids "$n" 2>/dev/null | xargs -r kill -KILL 2>/dev/null; done
    for n in $EVPN_NAMESPACES; do ip netns del "$n" 2>/dev/null; done
    [ -n "${E2E_KEEP:-}" ] || rm -rf "$E2E_DIR"
    return 0
}

# The underlay: one bridge in its own namespace, a veth port per node.
underlay_create() {
    ip -n "$NS_UL" link add ulbr type bridge || fail "cannot create the underlay bridge"
    ip -n "$NS_UL" link set up dev ulbr
}

underlay_port() {   # namespace address(or empty) port-in-ul
    link "$1" ul0 "$NS_UL" "$3" || fail "cannot link $1 to the underlay"
    ip -n "$NS_UL" link set "$3" master ulbr
    ip -n "$NS_UL" link set up dev "$3"
    ip -n "$1" link set up dev lo
    [ -z "$2" ] || ip -n "$1" addr add "$2/24" dev ul0
    ip -n "$1" link set up dev ul0
}

# efhost's file for an EVPN node: an access port per VLAN, the uplink with
# the VTEP address, and no tunnel: those come from the follower.
write_evpn_efhost_yaml() {   # node instance vtep-address mac-byte vlan...
    local node=$1 inst=$2 vtep=$3 mb=$4 vlan i=1; shift 4
    {
        echo "instance: $inst"
        echo "tmpdir: $E2E_DIR/tmp-$node"
        echo "control_socket: $E2E_DIR/$node.sock"
        echo "syslog_file: $E2E_DIR/$node-syslog.log"
        # One receive thread per port: a fabric of many efhosts shares few CPUs.
        echo "packet_workers: 1"
        echo "capabilities:"
        echo "  CAP_VXLAN_BASE: true"
        echo "  CAP_FWDMODE_SOFT: true"
        echo "interfaces:"
        for vlan in "$@"; do
            echo "  - {index: $i, name: acc$vlan, type: 2, stack: bridge, mac: \"02:$mb:00:00:00:0$i\", pvid: $vlan, vlans: [$vlan], attach: {device: acc$vlan}}"
            i=$((i + 1))
        done
        echo "  - {index: 9, name: uplink, type: 2, stack: tcpip, mac: \"02:$mb:00:00:00:09\", addresses: [$vtep/24], attach: {device: ul0}}"
        echo "  - {index: 4094, name: L2LOCAL, type: 32, stack: bridge}"
    } > "$E2E_DIR/$node.yaml"
}

start_efhost() {   # node
    local n=$1
    rm -f "$E2E_DIR/$n.sock"
    ip netns exec "$(ns "$n")" "$EFHOST" --config "$E2E_DIR/$n.yaml" >> "$E2E_DIR/$n-efhost.out" 2>&1 &
    PIDS[$n]=$!
}

wait_efhost_socket() {   # node
    local n=$1
    for _ in $(seq 100); do
        [ -S "$E2E_DIR/$n.sock" ] && return 0
        kill -0 "${PIDS[$n]}" 2>/dev/null || { cat "$E2E_DIR/$n-efhost.out"; fail "efhost $n exited at start"; }
        sleep 0.1
    done
    fail "efhost $n did not open its control socket"
}

start_follower() {   # efhost node, its control namespace
    ip netns exec "$(ns "$2")" "$EVPN_FOLLOWER" --socket "$E2E_DIR/$1.sock" --poll-ms 500 \
        >> "$E2E_DIR/$1-follower.out" 2>&1 &
    PIDS[f$1]=$!
}

# Runs an evpn-node.sh command in the namespaces given as "node:file"
# words, all at once (the nodes share nothing); a node where it fails fails
# the test with what evpn-node.sh said.
node_sh_all() {   # devices|frr-start node:file...
    local cmd=$1 word n f args pids=() names=(); shift
    for word in "$@"; do
        n=${word%%:*} f=${word#*:} args=("$E2E_DIR/$f.conf")
        if [ "$cmd" = frr-start ]; then
            EVPN_FRR_NODES+=" $n"
            args+=("$E2E_DIR/frr-$n")
        fi
        in_ns "$(ns "$n")" "$NODE_SH" "$cmd" "${args[@]}" > "$E2E_DIR/$cmd-$n.out" 2>&1 &
        pids+=($!) names+=("$n")
    done
    local i rc=0
    for i in "${!pids[@]}"; do
        wait "${pids[$i]}" || { sed "s/^/${names[$i]}: /" "$E2E_DIR/$cmd-${names[$i]}.out" >&2; rc=1; }
    done
    [ "$rc" = 0 ] || fail "evpn-node.sh $cmd failed on a node"
}

frr_stop() { in_ns "$(ns "$1")" "$NODE_SH" frr-stop "$E2E_DIR/frr-$1"; }
vtysh_on() { local n=$1; shift; in_ns "$(ns "$n")" vtysh --vty_socket "$E2E_DIR/frr-$n" "$@"; }

show_entry() { "$VXLANCTL" --socket "$E2E_DIR/$1.sock" show entry; }

# The flood lists of efhost's module as "VNI destination" lines, sorted;
# fails when efhost does not answer (an empty list is no proof of anything).
module_tunnels() {   # node
    local out
    out=$(show_entry "$1") || return 1
    printf '%s\n' "$out" | awk '
        match($0, /VXLAN [0-9]+\(/) { vni = substr($0, RSTART + 6, RLENGTH - 7); next }
        / evpn-/ { print vni, $NF }' | sort
}

# The remote VTEPs efhost has a tunnel interface to (the follower names
# them evpn-ADDRESS), one address a line, sorted. Much quicker to ask for
# than the module's entry table, so this is what the tests poll.
tunnel_intf_addrs() {   # node
    local out
    out=$("$VXLANCTL" --socket "$E2E_DIR/$1.sock" tunnel-intf list 2>/dev/null) || return 1
    printf '%s\n' "$out" | awk '$2 ~ /^evpn-/ { print substr($2, 6) }' | sort
}

# The same of a kernel VTEP: its all-zero-MAC FDB entries (head-end
# replication), read from each VNI's VXLAN device.
kernel_flood() {   # namespace-node vni...
    local n=$1 vni out; shift
    for vni in "$@"; do
        out=$(in_ns "$(ns "$n")" bridge fdb show dev "vxlan$vni") || return 1
        printf '%s\n' "$out" | awk -v vni="$vni" '$1 == "00:00:00:00:00:00" {
            for (i = 2; i < NF; i++) if ($i == "dst") print vni, $(i + 1) }'
    done | sort
}

# Waits up to $2 seconds until command "$3..." succeeds; prints the time.
wait_for() {   # label seconds command...
    local label=$1 limit=$2 start; shift 2
    start=$(now_ms)
    while ! "$@" >/dev/null 2>&1; do
        [ $(( $(now_ms) - start )) -lt $((limit * 1000)) ] || return 1
        sleep 0.1
    done
    echo "$label after $(( $(now_ms) - start )) ms"
}

# Stops processes of the run, all at once; each exit status must be 0 (a
# sanitizer report makes it non-zero).
stop_ok() {   # key...
    local key rc bad=
    for key in "$@"; do kill -TERM "${PIDS[$key]}" 2>/dev/null; done
    for key in "$@"; do
        rc=0
        wait "${PIDS[$key]}" || rc=$?
        unset "PIDS[$key]"
        [ "$rc" = 0 ] || bad+=" $key (status $rc)"
    done
    [ -z "$bad" ] || fail "exited with an error:$bad"
}

# Resident memory (kB) and CPU time (ms) a process has used so far; empty
# when it is gone.
proc_rss_kb() { awk '/^VmRSS:/ { print $2 }' "/proc/$1/status" 2>/dev/null; }
CLK_TCK=$(getconf CLK_TCK)
proc_cpu_ms() {
    local hz=$CLK_TCK
    # Fields after the command name, which may hold spaces: utime and stime
    # are the 14th and 15th fields of the whole line.
    sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | awk -v hz="$hz" '{ print int(($12 + $13) * 1000 / hz) }'
}
