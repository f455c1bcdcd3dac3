# The line of namespaces every system is measured on, sourced by compare.sh:
#
#   h1 ---- [ VTEP under test ] ==== underlay ==== [ far: kernel VTEP ] ---- h2
#   192.168.10.1/24     10.99.0.1/24          10.99.0.2/24        192.168.10.2/24
#
# Only the box in the middle changes between runs (vtep-*.sh): the hosts, the
# far VTEP and every veth are built the same way each time. With OFFLOADS=off
# all veth ends have transmit checksum offload, TSO and GSO off, so each VTEP
# gets wire-sized frames with their checksums filled in and the kernel cannot
# carry 64 KiB super-frames past the one under test; with OFFLOADS=on they keep
# the kernel's defaults, as users run them. The underlay keeps MTU 1500; the
# hosts use 1450 so that an encapsulated full-sized frame still fits in it.

H1_IP=192.168.10.1
H2_IP=192.168.10.2
UL_LOCAL=10.99.0.1
UL_FAR=10.99.0.2
UL_PREFIX=24
UL_NET=10.99.0.0
VNI=1000
UNDERLAY_MTU=1500
INNER_MTU=1450
OFFLOADS=off

say()  { printf '%s\n' "== $*" >&2; }
warn() { printf '%s\n' "warning: $*" >&2; }
fail() { printf '%s\n' "compare.sh: $*" >&2; exit 1; }
in_ns() { local ns=$1; shift; ip netns exec "$ns" "$@"; }

# Commands that may run long are started in the background and waited for:
# a trapped signal (Ctrl-C) ends `wait` at once and the EXIT trap cleans up,
# whereas bash would carry on past a foreground iperf3 or ping that handles
# Ctrl-C itself and exits normally. The command must be an external one (not
# a shell function) so that FG_PID is the process to stop.
FG_PID=
fg_run() {
    "$@" &
    FG_PID=$!
    local rc=0
    wait "$FG_PID" || rc=$?
    FG_PID=
    return "$rc"
}

fg_stop() {
    [ -n "$FG_PID" ] || return 0
    kill -TERM "$FG_PID" 2>/dev/null
    wait "$FG_PID" 2>/dev/null
    FG_PID=
}

# Waits up to the given seconds for a process to be gone.
wait_gone() {   # pid seconds
    local i
    for ((i = 0; i < $2 * 10; i++)); do
        kill -0 "$1" 2>/dev/null || return 0
        sleep 0.1
    done
    return 1
}

# Names for one system's run. Device names stay within the kernel's 15 bytes
# (RUN is at most 9) and still carry the run's prefix, so nothing made here
# can be mistaken for a device of anyone else's.
topo_names() {   # system
    NS_H1=$RUN-$1-h1
    NS_VTEP=$RUN-$1-vtep
    NS_FAR=$RUN-$1-far
    NS_H2=$RUN-$1-h2
    DEV_HOST=$RUN-h     # h1's and h2's interface
    DEV_ACC=$RUN-acc    # the VTEP's side of h1's link
    DEV_UL=$RUN-ul      # both ends of the underlay link
    DEV_HPORT=$RUN-hp   # the far VTEP's side of h2's link
    DEV_VX=$RUN-vx      # a VXLAN device or port
    DEV_BR=$RUN-br      # a kernel bridge
}

# veth pair between two namespaces, both ends up, offloads as OFFLOADS says.
veth() {   # ns-a dev-a ns-b dev-b
    ip link add "$2" netns "$1" mtu "$UNDERLAY_MTU" type veth peer name "$4" netns "$3" \
        || fail "cannot create veth $2 ($1) <-> $4 ($3)"
    port_up "$1" "$2"
    port_up "$3" "$4"
}

port_up() {   # ns dev
    if [ "$OFFLOADS" = off ]; then
        in_ns "$1" ethtool -K "$2" tx off tso off gso off >/dev/null 2>&1 \
            || fail "ethtool -K $2 tx off tso off gso off failed in $1"
    fi
    ip -n "$1" link set up dev "$2"
}

host_up() {   # ns address
    ip -n "$1" link set up dev lo
    ip -n "$1" link set dev "$DEV_HOST" mtu "$INNER_MTU"
    ip -n "$1" addr add "$2/24" dev "$DEV_HOST"
    ip -n "$1" link set up dev "$DEV_HOST"
}

# A Linux kernel VTEP: a bridge joining a host port and a VXLAN device whose
# flood list is the single remote. Used for the far side of every run and,
# with other arguments, as the kernel system under test.
kernel_vtep() {   # ns host-port self remote
    local ns=$1 hport=$2 self=$3 remote=$4
    ip -n "$ns" link set up dev lo
    ip -n "$ns" addr add "$self/$UL_PREFIX" dev "$DEV_UL"
    ip -n "$ns" link add "$DEV_VX" type vxlan id "$VNI" local "$self" dstport 4789 \
        || fail "cannot create a kernel VXLAN device in $ns"
    ip -n "$ns" link add "$DEV_BR" type bridge
    ip -n "$ns" link set "$DEV_VX" master "$DEV_BR"
    ip -n "$ns" link set "$hport" master "$DEV_BR"
    in_ns "$ns" bridge fdb append 00:00:00:00:00:00 dev "$DEV_VX" dst "$remote"
    ip -n "$ns" link set up dev "$DEV_VX"
    ip -n "$ns" link set up dev "$DEV_BR"
}

# Everything but the VTEP under test, whose namespace is left with two bare
# links: DEV_ACC towards h1 and DEV_UL towards the far VTEP.
topo_create() {   # system
    topo_names "$1"
    local ns
    for ns in "$NS_H1" "$NS_VTEP" "$NS_FAR" "$NS_H2"; do
        ip netns add "$ns" || fail "cannot create namespace $ns"
        CREATED_NS+=("$ns")
        # IPv4 only: no router solicitations or MLD reports flooded through
        # the VTEPs while they are measured.
        in_ns "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
    done
    veth "$NS_H1" "$DEV_HOST" "$NS_VTEP" "$DEV_ACC"
    veth "$NS_VTEP" "$DEV_UL" "$NS_FAR" "$DEV_UL"
    veth "$NS_FAR" "$DEV_HPORT" "$NS_H2" "$DEV_HOST"
    ip -n "$NS_VTEP" link set up dev lo
    host_up "$NS_H1" "$H1_IP"
    host_up "$NS_H2" "$H2_IP"
    kernel_vtep "$NS_FAR" "$DEV_HPORT" "$UL_FAR" "$UL_LOCAL"
}

topo_destroy() {
    local ns kept=()
    for ns in "${CREATED_NS[@]}"; do
        ip netns del "$ns" 2>/dev/null || { [ -e "/run/netns/$ns" ] && kept+=("$ns"); }
    done
    CREATED_NS=("${kept[@]}")
    return 0
}

# h1 reaches h2 and h2 reaches h1: the first pings also teach every bridge
# on the way where the hosts are, and ARP is resolved on both sides.
topo_forwards() {   # seconds
    local deadline=$((SECONDS + $1))
    while ((SECONDS < deadline)); do
        if fg_run ip netns exec "$NS_H1" ping -c 1 -W 1 "$H2_IP" >/dev/null 2>&1 \
            && fg_run ip netns exec "$NS_H2" ping -c 1 -W 1 "$H1_IP" >/dev/null 2>&1; then
            return 0
        fi
        sleep 0.5
    done
    return 1
}
