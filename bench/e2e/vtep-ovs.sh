# Open vSwitch's userspace datapath as the VTEP under test, sourced by
# compare.sh. This run has its own ovsdb-server and ovs-vswitchd with their
# database, sockets, pid files and logs in a private directory, so a system
# OVS service (if any) is neither used nor touched.
#
#   $RUN-bi  (netdev): h1's link as an AF_PACKET port + VXLAN port, NORMAL
#   $RUN-bp  (netdev): the underlay veth as an AF_PACKET port; its LOCAL port
#                      (a tap in the VTEP namespace) holds 10.99.0.1/24
#
# The userspace tunnel code routes, resolves ARP and takes VXLAN packets off
# the wire by the address on a bridge's LOCAL port: the kernel route through
# $RUN-bp sends encapsulated frames out of that bridge, and frames coming in
# on the underlay for 10.99.0.1:4789 are decapsulated before they reach the
# tap. `ovs-appctl ovs/route/show` and `tnl/arp/show` show both halves.

OVS_DIR=
OVS_PIDS=()

ovs_vsctl()  { ovs-vsctl --timeout=20 --db="unix:$OVS_DIR/db.sock" "$@"; }
ovs_appctl() { ovs-appctl --timeout=10 --target="$OVS_DIR/ovs-vswitchd.ctl" "$@"; }

# Every default path of the OVS tools points into the private directory too,
# in case one of them looks for a file it was not given.
ovs_env() {
    export OVS_RUNDIR=$OVS_DIR OVS_LOGDIR=$OVS_DIR OVS_DBDIR=$OVS_DIR OVS_SYSCONFDIR=$OVS_DIR
}

ovs_start_daemons() {
    ovsdb-tool create "$OVS_DIR/conf.db" /usr/share/openvswitch/vswitch.ovsschema \
        || fail "ovsdb-tool create failed"
    ovsdb-server "$OVS_DIR/conf.db" --remote="punix:$OVS_DIR/db.sock" \
        --pidfile="$OVS_DIR/ovsdb-server.pid" --unixctl="$OVS_DIR/ovsdb-server.ctl" \
        --log-file="$OVS_DIR/ovsdb-server.log" --detach --no-chdir 2>> "$OVS_DIR/ovsdb-server.err" \
        || fail "ovsdb-server did not start (see $OVS_DIR/ovsdb-server.log)"
    OVS_PIDS+=("$(cat "$OVS_DIR/ovsdb-server.pid")")
    ovs_vsctl --no-wait init || fail "cannot initialise the OVS database"
    # ovs-vswitchd opens its AF_PACKET sockets and taps in the namespace it
    # runs in, so it runs in the VTEP's.
    in_ns "$NS_VTEP" ovs-vswitchd "unix:$OVS_DIR/db.sock" \
        --pidfile="$OVS_DIR/ovs-vswitchd.pid" --unixctl="$OVS_DIR/ovs-vswitchd.ctl" \
        --log-file="$OVS_DIR/ovs-vswitchd.log" --detach --no-chdir 2>> "$OVS_DIR/ovs-vswitchd.err" \
        || fail "ovs-vswitchd did not start (see $OVS_DIR/ovs-vswitchd.log)"
    OVS_PIDS+=("$(cat "$OVS_DIR/ovs-vswitchd.pid")")
}

ovs_up() {
    OVS_DIR=$RUN_DIR/ovs
    # A fresh database each time: the same run sets OVS up once per offload setting.
    rm -rf "$OVS_DIR"
    mkdir -p "$OVS_DIR"
    ovs_env
    ovs_start_daemons
    local bi=$RUN-bi bp=$RUN-bp
    ovs_vsctl add-br "$bp" -- set bridge "$bp" datapath_type=netdev \
        -- add-port "$bp" "$DEV_UL" \
        || fail "OVS refused the underlay bridge"
    ovs_vsctl add-br "$bi" -- set bridge "$bi" datapath_type=netdev \
        -- add-port "$bi" "$DEV_ACC" \
        -- add-port "$bi" "$DEV_VX" -- set interface "$DEV_VX" type=vxlan \
           options:remote_ip="$UL_FAR" options:local_ip="$UL_LOCAL" options:key="$VNI" \
        || fail "OVS refused the overlay bridge"
    ip -n "$NS_VTEP" addr add "$UL_LOCAL/$UL_PREFIX" dev "$bp" || fail "no OVS LOCAL port $bp"
    ip -n "$NS_VTEP" link set up dev "$bp"
    ip -n "$NS_VTEP" link set up dev "$bi"
    ovs_wait_route || fail "OVS has no tunnel route to $UL_FAR (see $OVS_DIR/ovs-vswitchd.log)"
}

# ovs-vswitchd learns the kernel's routes through netlink; the tunnel cannot
# send until the route through the LOCAL port is in its table.
ovs_wait_route() {
    local i
    for ((i = 0; i < 50; i++)); do
        ovs_appctl ovs/route/show 2>/dev/null | grep -q "$UL_NET/$UL_PREFIX dev $RUN-bp" && return 0
        sleep 0.1
    done
    return 1
}

ovs_alive() {
    local pid
    for pid in "${OVS_PIDS[@]}"; do kill -0 "$pid" 2>/dev/null || return 1; done
    return 0
}

# Keeps the tunnel's view (routes, ARP, datapath flows, port counters) with the
# raw results, then stops both daemons by the pids this run recorded.
ovs_down() {
    [ -n "$OVS_DIR" ] || return 0
    if [ -S "$OVS_DIR/ovs-vswitchd.ctl" ]; then
        {
            ovs_appctl ovs/route/show
            ovs_appctl tnl/arp/show
            ovs_appctl dpctl/show -s
            ovs_appctl dpctl/dump-flows
        } > "$OUT_DIR/ovs-state.txt" 2>&1
    fi
    local pid
    for pid in "${OVS_PIDS[@]}"; do kill -TERM "$pid" 2>/dev/null; done
    for pid in "${OVS_PIDS[@]}"; do wait_gone "$pid" 5 || kill -KILL "$pid" 2>/dev/null; done
    OVS_PIDS=()
    cp "$OVS_DIR"/*.log "$OUT_DIR/" 2>/dev/null
    OVS_DIR=
    return 0
}
