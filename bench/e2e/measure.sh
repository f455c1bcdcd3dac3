# The traffic every system carries, sourced by compare.sh. The iperf3 server
# runs in h2 on CPU 1 and the client in h1 on CPU 0, so neither end takes the
# other's CPU; with -R the server (h2) sends and the VTEP under test
# decapsulates. Each result is kept as iperf3's JSON or ping's output under
# OUT_DIR/raw and its figures appended to OUT_DIR/raw.csv.

IPERF_PORT=5201
IPERF_SERVER_PID=
PING_COUNT=20
PING_INTERVAL=0.2

record() {   # metric value
    echo "$SYSTEM,$1,$REP,$2" >> "$RAW_CSV"
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

# One repetition of everything. A second between tests lets the queues a
# flood filled drain before the next one starts.
measure_all() {
    mkdir -p "$OUT_DIR/raw/$SYSTEM"
    local test
    for test in "ping" "tcp 1 enc" "tcp 1 dec" "tcp 4 enc" "tcp 4 dec" "udp enc" "udp dec"; do
        "${SYSTEM}_alive" || fail "$(display_name "$SYSTEM") stopped during the measurements (logs in $OUT_DIR)"
        set -- $test
        local fn=measure_$1; shift
        "$fn" "$@"
        sleep 1
    done
}
