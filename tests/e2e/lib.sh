# Shared by the end-to-end tests and the demo: a topology of network
# namespaces around one efhost and two Linux kernel VXLAN endpoints.
#
#     h1 (192.168.10.1)                       h2 (192.168.10.2)     h3 (192.168.10.3)
#      | eth0, untagged                          | eth0                  | eth0
#      | acc (VLAN 10 -> VNI 1000)               | br0 + vxlan1000       | br0 + vxlan1000
#   [ efhost ]                                 [ k1: kernel VTEP ]     [ k2: kernel VTEP ]
#      | ul0 VTEP .1                             | ul0 VTEP .2           | ul0 VTEP .3
#      +------------------[ ul: underlay bridge, MTU 1500 ]-----------+
#
# Underlay 10.99.0.0/24 or fd00:99::/64. Every name carries a prefix unique
# to the run; topo_destroy removes all of it and is safe to call twice.

set -o pipefail

E2E_PREFIX=${E2E_PREFIX:-vxe$$}
E2E_DIR=${E2E_DIR:-/tmp/$E2E_PREFIX}
NS_H1=$E2E_PREFIX-h1 NS_EF=$E2E_PREFIX-ef NS_UL=$E2E_PREFIX-ul
NS_K1=$E2E_PREFIX-k1 NS_K2=$E2E_PREFIX-k2 NS_H2=$E2E_PREFIX-h2 NS_H3=$E2E_PREFIX-h3
ALL_NS="$NS_H1 $NS_EF $NS_UL $NS_K1 $NS_K2 $NS_H2 $NS_H3"
EF_MAC_ACC=02:ef:00:00:00:01
EF_MAC_UP=02:ef:00:00:00:02
EFHOST_PID=

say()  { printf '%s\n' "== $*"; }
fail() { printf '%s\n' "FAIL: $*" >&2; exit 1; }
in_ns() { local ns=$1; shift; ip netns exec "$ns" "$@"; }

# Namespaces left by a run that was killed outright (its EXIT trap never
# ran): their names carry the dead run's process id.
remove_stale_namespaces() {
    local ns pid
    for ns in $(ip netns list 2>/dev/null | awk '{print $1}'); do
        pid=$(printf '%s\n' "$ns" | sed -n 's/^vx[a-z]*\([0-9][0-9]*\)-.*/\1/p')
        [ -n "$pid" ] && [ ! -d "/proc/$pid" ] && ip netns del "$ns" 2>/dev/null
    done
    return 0
}

# A signal ends the run through its EXIT trap, which removes what it made.
trap 'exit 1' INT TERM HUP

# Fails (never skips) when something the tests need is missing.
require_facilities() {
    remove_stale_namespaces
    [ "$(id -u)" -eq 0 ] || fail "end-to-end tests need root (network namespaces, veth, vxlan)"
    for tool in ip ping tshark iperf3 sha256sum ethtool; do
        command -v "$tool" >/dev/null || fail "missing tool: $tool"
    done
    [ -x "$EFHOST" ] || fail "efhost not found at '$EFHOST'"
    [ -x "$VXLANCTL" ] || fail "vxlanctl not found at '$VXLANCTL'"
    ip netns add "$E2E_PREFIX-probe" 2>/dev/null || fail "cannot create network namespaces"
    ip -n "$E2E_PREFIX-probe" link add probe0 type vxlan id 1 dstport 4789 2>/dev/null \
        || { ip netns del "$E2E_PREFIX-probe"; fail "the kernel VXLAN driver is not available"; }
    ip netns del "$E2E_PREFIX-probe"
}

# veth pair between two namespaces.
link() { ip link add "$2" netns "$1" type veth peer name "$4" netns "$3"; }

# Underlay addresses of the three VTEPs for family 4 or 6.
underlay_addr() {
    if [ "$FAMILY" = 6 ]; then echo "fd00:99::$1"; else echo "10.99.0.$1"; fi
}
underlay_prefix() { if [ "$FAMILY" = 6 ]; then echo 64; else echo 24; fi; }

kernel_vtep() {   # ns host-ns index
    local ns=$1 hns=$2 idx=$3 self peer
    self=$(underlay_addr "$idx")
    ip -n "$ns" link set up dev lo
    ip -n "$ns" addr add "$self/$(underlay_prefix)" dev ul0 nodad 2>/dev/null \
        || ip -n "$ns" addr add "$self/$(underlay_prefix)" dev ul0
    ip -n "$ns" link set up dev ul0
    ip -n "$ns" link add vxlan1000 type vxlan id 1000 local "$self" dstport 4789 \
        $([ "$FAMILY" = 6 ] && echo udp6zerocsumrx)
    ip -n "$ns" link add br0 type bridge
    ip -n "$ns" link set vxlan1000 master br0
    ip -n "$ns" link set hport master br0
    for peer in 1 2 3; do
        [ "$peer" = "$idx" ] && continue
        in_ns "$ns" bridge fdb append 00:00:00:00:00:00 dev vxlan1000 dst "$(underlay_addr "$peer")"
    done
    for dev in vxlan1000 br0 hport; do ip -n "$ns" link set up dev "$dev"; done
    # A host behind a kernel VTEP keeps its frames within the VXLAN device's MTU.
    local inner_mtu; inner_mtu=$([ "$FAMILY" = 6 ] && echo 1430 || echo 1450)
    ip -n "$hns" link set dev eth0 mtu "$inner_mtu"
}

host_up() {   # ns address
    ip -n "$1" link set up dev lo
    ip -n "$1" addr add "$2/24" dev eth0
    ip -n "$1" link set up dev eth0
}

topo_create() {
    FAMILY=${1:-4}
    mkdir -p "$E2E_DIR"
    for ns in $ALL_NS; do ip netns add "$ns"; done
    for ns in $NS_EF $NS_UL; do in_ns "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=0; done
    ip -n "$NS_UL" link add ulbr type bridge
    ip -n "$NS_UL" link set up dev ulbr
    link "$NS_H1" eth0 "$NS_EF" acc
    link "$NS_EF" ul0 "$NS_UL" p1
    link "$NS_K1" ul0 "$NS_UL" p2
    link "$NS_K2" ul0 "$NS_UL" p3
    link "$NS_K1" hport "$NS_H2" eth0
    link "$NS_K2" hport "$NS_H3" eth0
    for p in p1 p2 p3; do
        ip -n "$NS_UL" link set "$p" master ulbr
        ip -n "$NS_UL" link set up dev "$p"
    done
    # efhost's devices carry no kernel addresses: its own L3 engine answers
    # for the VTEP address.
    in_ns "$NS_EF" sysctl -qw net.ipv6.conf.all.disable_ipv6=1
    ip -n "$NS_EF" link set dev acc address "$EF_MAC_ACC" up
    ip -n "$NS_EF" link set dev ul0 address "$EF_MAC_UP" up
    host_up "$NS_H1" 192.168.10.1
    host_up "$NS_H2" 192.168.10.2
    host_up "$NS_H3" 192.168.10.3
    kernel_vtep "$NS_K1" "$NS_H2" 2
    kernel_vtep "$NS_K2" "$NS_H3" 3
}

write_efhost_config() {
    cat > "$E2E_DIR/efhost.yaml" <<YAML
instance: 1
tmpdir: $E2E_DIR/tmp
control_socket: $E2E_DIR/ctl.sock
syslog_file: $E2E_DIR/syslog.log
# Two receive workers per port even on a small machine, so that every check
# also covers frames shared out by the fanout group.
packet_workers: 2
${EFHOST_EXTRA_CONFIG:-}
capabilities:
  CAP_VXLAN_BASE: true
  CAP_FWDMODE_SOFT: true
interfaces:
  - {index: 1, name: access1, type: 2, stack: bridge, mac: "$EF_MAC_ACC", pvid: 10, vlans: [10], attach: {device: acc}}
  - {index: 2, name: uplink, type: 2, stack: tcpip, mac: "$EF_MAC_UP", addresses: [$(underlay_addr 1)/$(underlay_prefix)], attach: {device: ul0}}
  - {index: 101, name: tunnel-k1, type: 45, stack: bridge}
  - {index: 102, name: tunnel-k2, type: 45, stack: bridge}
  - {index: 4094, name: L2LOCAL, type: 32, stack: bridge}
YAML
}

# The overlay: VNI 1000 on VLAN 10, a tunnel to each kernel VTEP. With
# "keep_only_k1" the second tunnel is left out (a changed resync).
write_overlay_config() {
    local file=$1 which=${2:-both}
    {
        echo "vnis:"
        echo "  - {vni: 1000, vlans: [10]}"
        echo "tunnels:"
        echo "  - {interface: 101, source: $(underlay_addr 1), destination: $(underlay_addr 2), vnis: [1000], mac_learn: true}"
        [ "$which" = both ] && \
        echo "  - {interface: 102, source: $(underlay_addr 1), destination: $(underlay_addr 3), vnis: [1000], mac_learn: true}"
    } > "$file"
}

efhost_start() {
    write_efhost_config
    rm -f "$E2E_DIR/ctl.sock"
    ip netns exec "$NS_EF" "$EFHOST" --config "$E2E_DIR/efhost.yaml" > "$E2E_DIR/efhost.out" 2>&1 &
    EFHOST_PID=$!
    for _ in $(seq 100); do
        [ -S "$E2E_DIR/ctl.sock" ] && return 0
        kill -0 "$EFHOST_PID" 2>/dev/null || { cat "$E2E_DIR/efhost.out"; fail "efhost exited at start"; }
        sleep 0.1
    done
    fail "efhost did not open its control socket"
}

# Stops efhost with SIGTERM; its exit status must be 0.
efhost_stop() {
    [ -n "$EFHOST_PID" ] || return 0
    kill -TERM "$EFHOST_PID" 2>/dev/null || true
    local rc=0
    wait "$EFHOST_PID" || rc=$?
    EFHOST_PID=
    [ "$rc" = 0 ] || { cat "$E2E_DIR/efhost.out"; fail "efhost exited with status $rc"; }
}

vxlanctl() { "$VXLANCTL" --socket "$E2E_DIR/ctl.sock" "$@"; }

topo_destroy() {
    if [ -n "$EFHOST_PID" ]; then kill -TERM "$EFHOST_PID" 2>/dev/null; wait "$EFHOST_PID" 2>/dev/null; fi
    EFHOST_PID=
    for ns in $ALL_NS; do ip netns del "$ns" 2>/dev/null; done
    [ -n "${E2E_KEEP:-}" ] || rm -rf "$E2E_DIR"
    return 0
}

# ping from a namespace; prints the summary line, fails on any loss.
ping_ok() {   # ns target count [extra...]
    local ns=$1 target=$2 count=$3; shift 3
    local out
    out=$(in_ns "$ns" ping -c "$count" -i 0.2 -W 2 "$@" "$target" 2>&1) || { echo "$out"; fail "ping $target from $ns"; }
    echo "$out" | grep -E "packets transmitted"
}
