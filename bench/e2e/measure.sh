# The traffic every system carries, sourced by compare.sh. The iperf3 server
# runs in h2 on CPU 1 and the client in h1 on CPU 0, so neither end takes the
# other's CPU; with -R the server (h2) sends and the VTEP under test
# decapsulates. Each result is kept as iperf3's JSON or ping's output under
# OUT_DIR/raw and its figures appended to OUT_DIR/raw.csv, with the offload
# setting they were measured under.
#
# The 64-byte capacity test uses pktblast (built from pktblast.c by
# compare.sh) instead of iperf3, whose one system call per datagram caps what
# it can offer: pktblast sends in h1 on CPU 0 towards h2 (the VTEP under test
# encapsulates), and the frames are counted from the veths' own counters.

IPERF_PORT=5201
IPERF_SERVER_PID=
PING_COUNT=20
PING_INTERVAL=0.2
CAP_DST_IP=192.168.10.3
CLK_TCK=$(getconf CLK_TCK)

record() {   # metric value
    echo "$SYSTEM,$OFFLOADS,$1,$REP,$2" >> "$RAW_CSV"
}

iperf_listening() {
    local i
    for ((i = 0; i < 50; i++)); do
        in_ns "$NS_H2" ss -Hltn "sport = :$IPERF_PORT" 2>/dev/null | grep -q . && return 0
        sleep 0.1
    done
    return 1
}

# A one-off server that finished its test exits by itself; one whose client
# never came, or any at cleanup ("now"), is stopped.
iperf_server_stop() {   # [now]
    [ -n "$IPERF_SERVER_PID" ] || return 0
    [ "${1:-}" = now ] || wait_gone "$IPERF_SERVER_PID" 5
    kill -TERM "$IPERF_SERVER_PID" 2>/dev/null
    wait "$IPERF_SERVER_PID" 2>/dev/null
    IPERF_SERVER_PID=
}

iperf_pair() {   # json client-args...
    local json=$1; shift
    # Not through in_ns: $! must be iperf3 itself (ip netns exec and taskset
    # both exec), not a subshell whose death would leave it running.
    ip netns exec "$NS_H2" taskset -c 1 iperf3 -s -1 -B "$H2_IP" -p "$IPERF_PORT" > "$json.server" 2>&1 &
    IPERF_SERVER_PID=$!
    if ! iperf_listening; then
        iperf_server_stop
        return 1
    fi
    local rc=0
    fg_run timeout $((DURATION + 30)) ip netns exec "$NS_H1" taskset -c 0 \
        iperf3 -c "$H2_IP" -p "$IPERF_PORT" -t "$DURATION" --connect-timeout 5000 -J "$@" \
        > "$json" 2> "$json.err" || rc=$?
    iperf_server_stop
    return "$rc"
}

progress() {   # name text
    printf '   %-7s rep %s  %-18s %s\n' "$SYSTEM" "$REP" "$1" "$2" >&2
}

measure_tcp() {   # streams enc|dec
    local name=tcp$1_$2 json out
    json=$OUT_DIR/raw/$SYSTEM/$name-$REP.json
    if ! iperf_pair "$json" -P "$1" $([ "$2" = dec ] && echo -R); then
        warn "$SYSTEM: iperf3 $name failed (repetition $REP; see $json)"
        return 0
    fi
    out=$("$RESULTS" tcp "$json") || { warn "$SYSTEM: unreadable $json"; return 0; }
    set -- $out
    record "$name" "$1"
    record "${name}_retrans" "$2"
    progress "$name" "$1 Mbit/s, $2 retransmits"
}

# Datagrams the receiving host's UDP sockets had no room for, from the
# namespace's own counters: the part of the loss that happened after the
# VTEPs, in the receiving iperf3.
udp_rcvbuf_errors() {   # ns
    in_ns "$1" awk '/^Udp:/ { if (!seen) { for (i = 2; i <= NF; i++) col[$i] = i; seen = 1 }
                              else print $col["RcvbufErrors"] }' /proc/net/snmp
}

measure_udp() {   # enc|dec
    local name=udp64_$1 json out rx_ns=$NS_H2 before after
    [ "$1" = dec ] && rx_ns=$NS_H1
    json=$OUT_DIR/raw/$SYSTEM/$name-$REP.json
    before=$(udp_rcvbuf_errors "$rx_ns")
    if ! iperf_pair "$json" -u -l 64 -b 0 $([ "$1" = dec ] && echo -R); then
        warn "$SYSTEM: iperf3 $name failed (repetition $REP; see $json)"
        return 0
    fi
    after=$(udp_rcvbuf_errors "$rx_ns")
    out=$("$RESULTS" udp "$json" $((after - before))) || { warn "$SYSTEM: unreadable $json"; return 0; }
    set -- $out
    record "${name}_pps" "$1"
    record "${name}_loss" "$2"
    record "${name}_sockloss" "$4"
    record "${name}_offered" "$3"
    record "${name}_delivered" "$5"
    progress "$name" "$1 pps received, $2 % lost ($4 % at the receiving socket), $3 pps offered, $5 pps delivered"
}

measure_ping() {
    local file=$OUT_DIR/raw/$SYSTEM/ping-$REP.txt out
    fg_run ip netns exec "$NS_H1" ping -c "$PING_COUNT" -i "$PING_INTERVAL" -W 2 "$H2_IP" > "$file" 2>&1
    out=$("$RESULTS" ping "$file") || { warn "$SYSTEM: no ping reply (repetition $REP; see $file)"; return 0; }
    set -- $out
    record ping_rtt_median "$1"
    record ping_rtt_avg "$2"
    progress ping "rtt median $1 ms, average $2 ms, $3 % lost"
}

dev_stat() {   # ns dev counter
    in_ns "$1" cat "/sys/class/net/$2/statistics/$3" 2>/dev/null || echo 0
}

# utime + stime, in clock ticks, of the VTEP's own processes (all their
# threads); for the kernel VTEP, the softirq time of every CPU from /proc/stat
# instead, which also holds the softirq work of the sender's veth and of the
# far VTEP.
vtep_cpu_ticks() {
    local pids=()
    case $SYSTEM in
        efhost) pids=("$EFHOST_PID") ;;
        ovs) pids=("${OVS_PIDS[@]:1}") ;;   # ovs-vswitchd (OVS_PIDS[0] is ovsdb-server)
        kernel) awk '$1 == "cpu" { print $8; exit }' /proc/stat; return ;;
    esac
    local pid total=0 t
    for pid in "${pids[@]}"; do
        t=$(awk '{ sub(/^.*\) /, ""); print $12 + $13 }' "/proc/$pid/stat" 2>/dev/null) || t=0
        total=$((total + ${t:-0}))
    done
    echo "$total"
}

# 64-byte frames from h1 to an address on h2's subnet that nobody holds, with
# h2's MAC: h2's veth counts them and its stack drops them without a reply.
# offered: what pktblast's sendmmsg accepted; arrived: what reached the VTEP's
# port towards h1; forwarded: what the VTEP put on the underlay (the far end's
# receive counter); delivered: what reached h2 through the far kernel VTEP.
measure_capacity() {
    local log=$OUT_DIR/raw/$SYSTEM/cap64-$OFFLOADS-$REP.txt h2_mac out
    h2_mac=$(in_ns "$NS_H2" cat "/sys/class/net/$DEV_HOST/address")
    local acc0 accdrop0 ul0 h20 cpu0 acc1 accdrop1 ul1 h21 cpu1
    acc0=$(dev_stat "$NS_VTEP" "$DEV_ACC" rx_packets)
    accdrop0=$(dev_stat "$NS_VTEP" "$DEV_ACC" rx_dropped)
    ul0=$(dev_stat "$NS_FAR" "$DEV_UL" rx_packets)
    h20=$(dev_stat "$NS_H2" "$DEV_HOST" rx_packets)
    cpu0=$(vtep_cpu_ticks)
    fg_run timeout $((DURATION + 30)) ip netns exec "$NS_H1" "$PKTBLAST" -i "$DEV_HOST" -d "$h2_mac" \
        --src-ip "$H1_IP" --dst-ip "$CAP_DST_IP" --size 64 --duration "$DURATION" --cpu 0 > "$log" 2>&1 \
        || { warn "$SYSTEM: pktblast failed (repetition $REP; see $log)"; return 0; }
    # Frames still queued in the VTEP are its to forward: a moment to drain.
    sleep 0.5
    cpu1=$(vtep_cpu_ticks)
    acc1=$(dev_stat "$NS_VTEP" "$DEV_ACC" rx_packets)
    accdrop1=$(dev_stat "$NS_VTEP" "$DEV_ACC" rx_dropped)
    ul1=$(dev_stat "$NS_FAR" "$DEV_UL" rx_packets)
    h21=$(dev_stat "$NS_H2" "$DEV_HOST" rx_packets)
    echo "arrived=$((acc1 - acc0)) arrive_dropped=$((accdrop1 - accdrop0)) forwarded=$((ul1 - ul0)) delivered=$((h21 - h20)) cpu_ticks=$((cpu1 - cpu0)) clk_tck=$CLK_TCK" >> "$log"
    out=$("$RESULTS" capacity "$log") || { warn "$SYSTEM: unreadable $log"; return 0; }
    set -- $out
    record cap64_offered "$1"
    record cap64_arrived "$2"
    record cap64_forwarded "$3"
    record cap64_drops "$4"
    record cap64_delivered "$5"
    record cap64_cpu_per_mpkt "$6"
    progress cap64 "$1 pps offered, $2 arrived, $3 forwarded, $4 % dropped, $5 delivered, $6 CPU s/Mpkt"
}

# One repetition of everything. A second between tests lets the queues a
# flood filled drain before the next one starts.
measure_all() {
    mkdir -p "$OUT_DIR/raw/$SYSTEM"
    local test
    for test in "${TESTS[@]}"; do
        "${SYSTEM}_alive" || fail "$(display_name "$SYSTEM") stopped during the measurements (logs in $OUT_DIR)"
        set -- $test
        local fn=measure_$1; shift
        "$fn" "$@"
        sleep 1
    done
}
