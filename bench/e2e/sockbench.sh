#!/usr/bin/env bash
# Compares the packet-socket methods efhost's AF_PACKET port could use, with
# sockbench.c, on one veth pair between two namespaces made for this run:
#
#   [ sbPID-tx ] sbPIDa ---- veth ---- sbPIDb [ sbPID-rx ]
#     pktblast / sockbench tx-*          sockbench rx-*
#
# Receive: pktblast offers 64-byte frames as fast as it can from sbPIDa (CPU
# 0) and sockbench takes them on sbPIDb with one thread pinned to CPU 1.
# Transmit: sockbench sends 64-byte frames into sbPIDa from one thread pinned
# to CPU 1; the far end drops them (it has no address). Transmit runs once
# with the veth's own qdisc (noqueue) and once with pfifo_fast, the default
# qdisc of a physical device here, since a bypass can only save what a qdisc
# costs. Runs go round the methods REPS times, so that a burst of other work
# on the machine spreads over all of them; the table gives the medians.
#
# --latency measures instead how long a frame takes to reach user space:
# sockbench tx-stamp (CPU 0) sends one stamped frame every 10 ms, and every
# 100 us (10 000/s), and the receiver (CPU 1) is recvmmsg or the ring with a
# 1 ms or a 4 ms block timeout; the table gives the medians of each
# percentile over the repetitions.
#
#   bench/e2e/sockbench.sh [--latency] [--reps N] [--duration S] [--log FILE]
#
# Needs root (namespaces, veths, tc) and a C compiler. Everything it makes is
# named after its pid and removed when it ends, also on Ctrl-C, TERM or HUP
# (not on SIGKILL: then `ip netns del sb<pid>-tx sb<pid>-rx`).
set -euo pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
# The packet formats the tools build and read come from the module's header.
WIRE_INCLUDE=$HERE/../../platform/include
REPS=3
DURATION=5
LOG=
LATENCY=0
RX_METHODS="rx-mmsg rx-ring"
TX_METHODS="tx-mmsg tx-mmsg-bypass tx-ring tx-ring-bypass"
TX_QDISCS="noqueue pfifo_fast"
# Latency runs: receive method and block timeout (- for recvmmsg).
LAT_RECEIVERS="rx-mmsg:- rx-ring:1 rx-ring:4"
LAT_INTERVALS_US="10000 100"

usage() {
    cat <<EOF
Usage: sockbench.sh [--latency] [--reps N] [--duration S] [--log FILE]
Measures receiving (recvmmsg against a TPACKET_V3 ring) and sending (sendmmsg
and a TPACKET_V2 ring, each through the qdisc and with PACKET_QDISC_BYPASS) of
64-byte frames on a veth pair in namespaces of its own, and prints the medians.
  --latency      instead, the time from send() to user space of frames sent
                 every 10 ms and every 100 us, for recvmmsg and for the ring
                 with a 1 ms and a 4 ms block timeout
  --reps N       runs of each method (default $REPS)
  --duration S   seconds per run (default $DURATION)
  --log FILE     also keep every run's line in FILE
  -h, --help     this text
EOF
}

while [ $# -gt 0 ]; do
    case $1 in
    --reps) REPS=$2; shift 2 ;;
    --duration) DURATION=$2; shift 2 ;;
    --log) LOG=$2; shift 2 ;;
    --latency) LATENCY=1; shift ;;
    -h|--help) usage; exit 0 ;;
    *) usage >&2; exit 2 ;;
    esac
done
[[ $REPS =~ ^[1-9][0-9]?$ ]] || { echo "sockbench.sh: --reps must be 1 to 99" >&2; exit 2; }
[[ $DURATION =~ ^[1-9][0-9]{0,2}$ ]] || { echo "sockbench.sh: --duration must be 1 to 999" >&2; exit 2; }
[ "$(id -u)" = 0 ] || { echo "sockbench.sh: needs root (namespaces, veths)" >&2; exit 1; }

P=sb$$
NS_TX=$P-tx
NS_RX=$P-rx
DEV_TX=${P}a
DEV_RX=${P}b
WORK=
BLAST_PID=
STAMP_PID=
FG_PID=

cleanup() {
    trap - EXIT INT TERM HUP
    local pid
    for pid in $FG_PID $BLAST_PID $STAMP_PID; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    ip netns del "$NS_TX" 2>/dev/null || true
    ip netns del "$NS_RX" 2>/dev/null || true
    [ -z "$WORK" ] || rm -rf "$WORK"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

WORK=$(mktemp -d /tmp/sockbench.XXXXXX)
cc -O2 -Wall -Wextra -Werror -I "$WIRE_INCLUDE" -o "$WORK/sockbench" "$HERE/sockbench.c"
[ "$LATENCY" = 1 ] || cc -O2 -Wall -Wextra -Werror -I "$WIRE_INCLUDE" -o "$WORK/pktblast" "$HERE/pktblast.c"

ip netns add "$NS_TX"
ip netns add "$NS_RX"
ip link add "$DEV_TX" netns "$NS_TX" type veth peer name "$DEV_RX" netns "$NS_RX"
ip -n "$NS_TX" link set "$DEV_TX" up
ip -n "$NS_RX" link set "$DEV_RX" up
RX_MAC=$(ip netns exec "$NS_RX" cat "/sys/class/net/$DEV_RX/address")
RAW=$WORK/runs

load() { cut -d' ' -f1 /proc/loadavg; }

# Runs sockbench in the background and waits for it, so that a trapped signal
# ends the wait at once (bash runs a trap only after a foreground command)
# and the EXIT trap stops it; its line goes to $WORK/line, and a failure
# ends the script with sockbench's message.
bench() {   # namespace sockbench-args...
    local ns=$1 rc=0
    shift
    ip netns exec "$ns" "$WORK/sockbench" "$@" >"$WORK/line" 2>"$WORK/err" &
    FG_PID=$!
    wait "$FG_PID" || rc=$?
    FG_PID=
    if [ "$rc" != 0 ]; then
        echo "sockbench.sh: sockbench $* failed:" >&2
        cat "$WORK/err" >&2
        exit 1
    fi
}

# User and system ticks of a process so far. The kernel here charges softirq
# work to the task it interrupts, so the sender's figure includes handing
# each frame to the receiving socket or ring.
ticks() {   # pid
    local stat
    stat=$(cat "/proc/$1/stat" 2>/dev/null) || { echo 0; return; }
    stat=${stat##*) }
    set -- $stat
    echo $(( ${12} + ${13} ))
}

# Keeps one run's line, shown as it comes.
record() {   # line
    echo "$1" >>"$RAW"
    echo "$1" >&2
}

# One run: the sockbench line with the qdisc and the load average appended.
run_rx() {   # method
    ip netns exec "$NS_TX" "$WORK/pktblast" -i "$DEV_TX" --dst-mac "$RX_MAC" -c 0 -b 64 \
        -t $((DURATION + 2)) >/dev/null &
    BLAST_PID=$!
    sleep 0.5
    local line t0 t1 frames
    t0=$(ticks "$BLAST_PID")
    bench "$NS_RX" -m "$1" -i "$DEV_RX" -c 1 -t "$DURATION"
    line=$(<"$WORK/line")
    t1=$(ticks "$BLAST_PID")
    wait "$BLAST_PID" || true
    BLAST_PID=
    frames=$(sed -n 's/.* frames=\([0-9]*\) .*/\1/p' <<<"$line")
    record "$line qdisc=- load=$(load) sender_cpu_s_per_M=$(awk -v t=$((t1 - t0)) -v hz="$(getconf CLK_TCK)" \
        -v f="$frames" 'BEGIN { printf "%.3f", (f > 0 ? t / hz / (f / 1e6) : 0) }')"
}

run_tx() {   # method qdisc
    bench "$NS_TX" -m "$1" -i "$DEV_TX" --dst-mac "$RX_MAC" -c 1 -t "$DURATION"
    record "$(<"$WORK/line") qdisc=$2 load=$(load)"
}

# One latency run: tx-stamp starts first, so that the receiver sees stamped
# frames from its first moment, and outlives it.
run_latency() {   # method block-timeout interval-us
    local tov=()
    [ "$2" = - ] || tov=(--block-tov "$2")
    ip netns exec "$NS_TX" "$WORK/sockbench" -m tx-stamp -i "$DEV_TX" --dst-mac "$RX_MAC" -c 0 \
        --interval-us "$3" -t $((DURATION + 2)) >/dev/null &
    STAMP_PID=$!
    sleep 0.5
    bench "$NS_RX" -m "$1" -i "$DEV_RX" -c 1 -t "$DURATION" --latency "${tov[@]}"
    record "$(<"$WORK/line") block_tov_ms=$2 interval_us=$3 load=$(load)"
    kill "$STAMP_PID" 2>/dev/null || true
    wait "$STAMP_PID" 2>/dev/null || true
    STAMP_PID=
}

# What both tables' awk programs use: a key=value field of the line and the
# median of a space-separated list.
AWK_FIELDS='function field(k,   i, kv) { for (i = 1; i <= NF; i++) { split($i, kv, "="); if (kv[1] == k) return kv[2] } }
function median(list,   a, n, i, j, t) {
    n = split(list, a, " ")
    for (i = 1; i <= n; i++) for (j = i + 1; j <= n; j++) if (a[j] + 0 < a[i] + 0) { t = a[i]; a[i] = a[j]; a[j] = t }
    return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
}
'

latency_table() {
    awk "$AWK_FIELDS"'
{
    k = field("method") " " field("block_tov_ms") " " field("interval_us")
    if (!(k in st)) order[++n] = k
    st[k] = st[k] " " field("stamped") / field("seconds"); ld[k] = ld[k] " " field("load")
    p50[k] = p50[k] " " field("p50_us"); p90[k] = p90[k] " " field("p90_us")
    p99[k] = p99[k] " " field("p99_us"); mx[k] = mx[k] " " field("max_us")
    drops[k] += field("drops")
}
END {
    printf "| receiver | block timeout, ms | frames/s asked | frames/s seen (median) | median, us | 90th, us | 99th, us | max, us | drops | load avg (median) |\n"
    printf "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n"
    for (i = 1; i <= n; i++) {
        split(order[i], f, " ")
        printf "| %s | %s | %.0f | %.0f | %.1f | %.1f | %.1f | %.1f | %d | %.2f |\n", f[1], f[2],
            1e6 / f[3], median(st[order[i]]), median(p50[order[i]]), median(p90[order[i]]),
            median(p99[order[i]]), median(mx[order[i]]), drops[order[i]], median(ld[order[i]])
    }
}' "$RAW"
}

set_qdisc() {   # qdisc
    if [ "$1" = noqueue ]; then
        ip netns exec "$NS_TX" tc qdisc del dev "$DEV_TX" root 2>/dev/null || true
    else
        ip netns exec "$NS_TX" tc qdisc replace dev "$DEV_TX" root "$1"
    fi
}

echo "== $(nproc) CPUs, kernel $(uname -r), load average at start: $(cut -d' ' -f1-3 /proc/loadavg)" >&2
if [ "$LATENCY" = 1 ]; then
    for ((rep = 1; rep <= REPS; rep++)); do
        for iv in $LAT_INTERVALS_US; do
            for r in $LAT_RECEIVERS; do
                run_latency "${r%%:*}" "${r#*:}" "$iv"
            done
        done
    done
    echo "== load average at end: $(cut -d' ' -f1-3 /proc/loadavg)" >&2
    [ -z "$LOG" ] || cp "$RAW" "$LOG"
    latency_table
    exit 0
fi
for ((rep = 1; rep <= REPS; rep++)); do
    for m in $RX_METHODS; do
        run_rx "$m"
    done
    for q in $TX_QDISCS; do
        set_qdisc "$q"
        for m in $TX_METHODS; do
            run_tx "$m" "$q"
        done
    done
done
set_qdisc noqueue
echo "== load average at end: $(cut -d' ' -f1-3 /proc/loadavg)" >&2
[ -z "$LOG" ] || cp "$RAW" "$LOG"

# Medians per method and qdisc of the rate, the CPU per million frames and
# the load average; drops and errors are summed over the runs.
awk "$AWK_FIELDS"'
{
    k = field("method") " " field("qdisc")
    if (!(k in pps)) order[++n] = k
    pps[k] = pps[k] " " field("pps"); cpu[k] = cpu[k] " " field("cpu_s_per_M")
    snd[k] = snd[k] " " field("sender_cpu_s_per_M")
    ld[k] = ld[k] " " field("load"); drops[k] += field("drops"); errs[k] += field("errors")
}
END {
    printf "| method | qdisc | frames/s (median) | CPU s per million (median) | pktblast CPU s per million (median) | drops | send errors | load avg (median) |\n"
    printf "|---|---|---:|---:|---:|---:|---:|---:|\n"
    for (i = 1; i <= n; i++) {
        k = order[i]; split(k, mq, " ")
        printf "| %s | %s | %.0f | %.3f | %s | %d | %d | %.2f |\n", mq[1], mq[2], median(pps[k]),
            median(cpu[k]), mq[2] == "-" ? sprintf("%.3f", median(snd[k])) : "-", drops[k], errs[k],
            median(ld[k])
    }
}' "$RAW"
