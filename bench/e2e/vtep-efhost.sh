# efhost as the VTEP under test, sourced by compare.sh: the access port on
# h1's link (untagged, VLAN 10 -> VNI 1000), the uplink on the underlay with
# efhost's own L3 engine answering for 10.99.0.1, one tunnel to the far VTEP,
# configured through vxlanctl as a control process would.

EFHOST_PID=
EFHOST_MAC_ACC=02:ef:00:00:00:01
EFHOST_MAC_UP=02:ef:00:00:00:02

efhost_write_config() {   # dir
    cat > "$1/efhost.yaml" <<YAML
instance: 1
tmpdir: $1/tmp
control_socket: $1/ctl.sock
syslog_file: $1/syslog.log
capabilities:
  CAP_VXLAN_BASE: true
  CAP_FWDMODE_SOFT: true
interfaces:
  - {index: 1, name: access1, type: 2, stack: bridge, mac: "$EFHOST_MAC_ACC", pvid: 10, vlans: [10], attach: {device: $DEV_ACC}}
  - {index: 2, name: uplink, type: 2, stack: tcpip, mac: "$EFHOST_MAC_UP", addresses: [$UL_LOCAL/$UL_PREFIX], attach: {device: $DEV_UL}}
  - {index: 101, name: tunnel-far, type: 45, stack: bridge}
  - {index: 4094, name: L2LOCAL, type: 32, stack: bridge}
YAML
    cat > "$1/overlay.yaml" <<YAML
vnis:
  - {vni: $VNI, vlans: [10]}
tunnels:
  - {interface: 101, source: $UL_LOCAL, destination: $UL_FAR, vnis: [$VNI], mac_learn: true}
YAML
}

efhost_up() {
    local dir=$RUN_DIR/efhost
    mkdir -p "$dir"
    # The ports carry no kernel addresses (and, as everywhere here, no IPv6):
    # efhost's L3 engine alone answers for the VTEP address.
    ip -n "$NS_VTEP" link set dev "$DEV_ACC" address "$EFHOST_MAC_ACC"
    ip -n "$NS_VTEP" link set dev "$DEV_UL" address "$EFHOST_MAC_UP"
    efhost_write_config "$dir"
    # Started straight from ip netns exec (which execs efhost) so that $! is
    # efhost itself, not a subshell around it.
    ip netns exec "$NS_VTEP" "$EFHOST" --config "$dir/efhost.yaml" > "$dir/efhost.out" 2>&1 &
    EFHOST_PID=$!
    echo "$EFHOST_PID" > "$dir/efhost.pid"
    local i
    for ((i = 0; i < 100; i++)); do
        [ -S "$dir/ctl.sock" ] && break
        kill -0 "$EFHOST_PID" 2>/dev/null || { cat "$dir/efhost.out" >&2; EFHOST_PID=; fail "efhost exited at start"; }
        sleep 0.1
    done
    [ -S "$dir/ctl.sock" ] || fail "efhost did not open its control socket"
    "$VXLANCTL" --socket "$dir/ctl.sock" apply "$dir/overlay.yaml" > "$dir/apply.out" 2>&1 \
        || { cat "$dir/apply.out" >&2; fail "vxlanctl apply was refused"; }
}

efhost_alive() { [ -n "$EFHOST_PID" ] && kill -0 "$EFHOST_PID" 2>/dev/null; }

# What efhost counted over the whole run goes with the raw results.
efhost_down() {
    [ -n "$EFHOST_PID" ] || return 0
    local dir=$RUN_DIR/efhost
    [ -S "$dir/ctl.sock" ] && "$VXLANCTL" --socket "$dir/ctl.sock" counters > "$OUT_DIR/efhost-counters.txt" 2>&1
    kill -TERM "$EFHOST_PID" 2>/dev/null
    local rc=0
    wait "$EFHOST_PID" || rc=$?
    EFHOST_PID=
    cp "$dir/efhost.out" "$OUT_DIR/efhost.out" 2>/dev/null
    [ "$rc" = 0 ] || warn "efhost exited with status $rc (see $OUT_DIR/efhost.out)"
    return 0
}
