#!/usr/bin/env bash
# The same traffic through three VTEPs on one line of network namespaces:
# efhost, Open vSwitch's userspace datapath and the Linux kernel's VXLAN
# driver, each facing a kernel VTEP on the far side (topology.sh).
# Run by hand, as root; docs/performance.md ("End to end") has the figures.
set -u -o pipefail

HERE=$(cd "$(dirname "$0")" && pwd)
REPO=$(cd "$HERE/../.." && pwd)
RESULTS=$HERE/results.py

usage() {
    cat <<EOF
Usage: $0 [options]

Measures h1 -> h2 (the VTEP under test encapsulates) and h2 -> h1 (it
decapsulates) through efhost, OVS (userspace datapath) and the kernel's VXLAN
driver: iperf3 TCP with 1 and 4 streams each way, iperf3 UDP with 64-byte
datagrams at full rate each way, idle ping, and the 64-byte capacity h1 -> h2
with pktblast (an AF_PACKET sender built from pktblast.c), with the VTEP's CPU
seconds per million packets. Every test is repeated, with the veths' offloads
off, on (the kernel's defaults) or both; one table per setting gives the
medians and efhost's ratio to each of the other two.

  --build DIR     where tools/efhost and tools/vxlanctl are (default: $REPO/build-rel)
  --duration S    seconds of each iperf3 test (default: 10)
  --reps N        repetitions of every test (default: 3)
  --only SYSTEM   efhost, ovs or kernel; repeat to pick several (default: all three)
  --offloads M    on, off or both: the veths' TSO/GSO/checksum offloads (default: both)
  --tests T       all, capacity (pktblast only) or iperf (all but pktblast) (default: all)
  --plot PATH     the PNG of the ratios (default: $REPO/docs/e2e-comparison.png)
  --out DIR       raw results, medians.csv, ratios.dat, logs (default: /tmp/vxlan-e2e-DATE-TIME)
  -h, --help      this text

Needs root. Installs what is missing of iperf3, ethtool, gnuplot-nox, gcc and
openvswitch-switch from Debian; starts its own OVS daemons in a private
directory and stops them at the end; removes every namespace it made, also
on Ctrl-C or failure.
EOF
}

BUILD=$REPO/build-rel
DURATION=10
REPS=3
ONLY=()
OFFLOAD_MODES=(off on)
TEST_SET=all
PLOT=$REPO/docs/e2e-comparison.png
OUT_DIR=/tmp/vxlan-e2e-$(date +%Y%m%d-%H%M%S)

# Every namespace, device and directory of this run starts with RUN; the pid
# in it tells a later run whether this one is still alive.
RUN=eb$$
RUN_DIR=/tmp/$RUN-compare
CREATED_NS=()

. "$HERE/topology.sh"
. "$HERE/measure.sh"
. "$HERE/vtep-efhost.sh"
. "$HERE/vtep-ovs.sh"
. "$HERE/vtep-kernel.sh"

parse_args() {
    while (($#)); do
        case $1 in
            --build) BUILD=${2:?--build needs a directory}; shift 2 ;;
            --duration) DURATION=${2:?--duration needs seconds}; shift 2 ;;
            --reps) REPS=${2:?--reps needs a number}; shift 2 ;;
            --only) ONLY+=("${2:?--only needs efhost, ovs or kernel}"); shift 2 ;;
            --offloads)
                case ${2:-} in
                    on|off) OFFLOAD_MODES=("$2") ;;
                    both) OFFLOAD_MODES=(off on) ;;
                    *) fail "--offloads takes on, off or both" ;;
                esac
                shift 2 ;;
            --tests) TEST_SET=${2:-}; shift 2 ;;
            --plot) PLOT=${2:?--plot needs a path}; shift 2 ;;
            --out) OUT_DIR=${2:?--out needs a directory}; shift 2 ;;
            -h|--help) usage; exit 0 ;;
            *) usage >&2; fail "unknown option '$1'" ;;
        esac
    done
    [[ $DURATION =~ ^[1-9][0-9]*$ ]] || fail "--duration must be a whole number of seconds"
    [[ $REPS =~ ^[1-9][0-9]*$ ]] || fail "--reps must be a positive number"
    case $TEST_SET in
        all) TESTS=("ping" "tcp 1 enc" "tcp 1 dec" "tcp 4 enc" "tcp 4 dec" "udp enc" "udp dec" "capacity") ;;
        iperf) TESTS=("ping" "tcp 1 enc" "tcp 1 dec" "tcp 4 enc" "tcp 4 dec" "udp enc" "udp dec") ;;
        capacity) TESTS=("capacity") ;;
        *) fail "--tests takes all, capacity or iperf" ;;
    esac
    ((${#ONLY[@]})) || ONLY=(efhost ovs kernel)
    local s
    for s in "${ONLY[@]}"; do
        case $s in efhost|ovs|kernel) ;; *) fail "--only takes efhost, ovs or kernel, not '$s'" ;; esac
    done
    # The systems run in a fixed order whatever order they were named in.
    SYSTEMS=()
    for s in efhost ovs kernel; do
        [[ " ${ONLY[*]} " == *" $s "* ]] && SYSTEMS+=("$s")
    done
    EFHOST=$BUILD/tools/efhost
    VXLANCTL=$BUILD/tools/vxlanctl
}

selected() { [[ " ${SYSTEMS[*]} " == *" $1 "* ]]; }

install_missing() {
    local packages=(iproute2 iputils-ping ethtool iperf3 util-linux procps python3 gnuplot-nox gcc libc6-dev)
    selected ovs && packages+=(openvswitch-switch)
    local p missing=()
    for p in "${packages[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    ((${#missing[@]})) || return 0
    say "installing ${missing[*]}"
    apt-get -o DPkg::Lock::Timeout=600 update -qq \
        && DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 install -y -qq "${missing[@]}" \
        || fail "could not install ${missing[*]}"
}

require_tools() {
    [ "$(id -u)" -eq 0 ] || fail "needs root (network namespaces, veth, VXLAN devices)"
    local tools=(ip ethtool iperf3 ping taskset ss timeout python3 gnuplot bridge gcc getconf) t
    selected ovs && tools+=(ovsdb-tool ovsdb-server ovs-vswitchd ovs-vsctl ovs-appctl)
    for t in "${tools[@]}"; do
        command -v "$t" >/dev/null || fail "missing tool: $t"
    done
    if selected ovs; then
        [ -r /usr/share/openvswitch/vswitch.ovsschema ] \
            || fail "missing /usr/share/openvswitch/vswitch.ovsschema (openvswitch-common)"
        [ -c /dev/net/tun ] || fail "OVS's userspace bridges need /dev/net/tun"
    fi
    if selected efhost; then
        [ -x "$EFHOST" ] || fail "efhost not found at '$EFHOST' (build it, or give --build DIR)"
        [ -x "$VXLANCTL" ] || fail "vxlanctl not found at '$VXLANCTL' (build it, or give --build DIR)"
    fi
    ip netns add "$RUN-probe" 2>/dev/null || fail "cannot create network namespaces"
    ip -n "$RUN-probe" link add "$RUN-probe" type vxlan id 1 dstport 4789 2>/dev/null \
        || { ip netns del "$RUN-probe"; fail "the kernel VXLAN driver is not available"; }
    ip netns del "$RUN-probe"
}

# What a run killed outright (no EXIT trap) left: its namespaces with what
# still runs in them (iperf3, efhost), and the OVS daemons whose pid files are
# in its directory. Only runs whose process is gone are touched.
remove_stale_runs() {
    local ns pid dir f daemon
    for ns in $(ip netns list 2>/dev/null | awk '{print $1}'); do
        pid=$(sed -n 's/^eb\([0-9][0-9]*\)-.*/\1/p' <<< "$ns")
        [ -n "$pid" ] && [ ! -d "/proc/$pid" ] || continue
        for daemon in $(ip netns pids "$ns" 2>/dev/null); do kill -TERM "$daemon" 2>/dev/null; done
        ip netns del "$ns" 2>/dev/null
    done
    for dir in /tmp/eb[0-9]*-compare; do
        [ -d "$dir" ] || continue
        pid=${dir#/tmp/eb}; pid=${pid%-compare}
        [[ $pid =~ ^[0-9]+$ ]] && [ ! -d "/proc/$pid" ] || continue
        for f in "$dir"/*/*.pid; do
            [ -f "$f" ] || continue
            daemon=$(cat "$f" 2>/dev/null)
            [[ $daemon =~ ^[0-9]+$ ]] || continue
            tr '\0' ' ' < "/proc/$daemon/cmdline" 2>/dev/null | grep -q -- "$dir/" && kill -TERM "$daemon"
        done
        rm -rf "$dir"
    done
    return 0
}

cleanup() {
    trap - EXIT INT TERM HUP
    fg_stop
    iperf_server_stop now
    efhost_down
    ovs_down
    topo_destroy
    ((${#CREATED_NS[@]})) && warn "could not remove namespaces: ${CREATED_NS[*]}"
    rm -rf "$RUN_DIR"
}

display_name() {
    case $1 in efhost) echo efhost ;; ovs) echo "OVS (userspace datapath)" ;; kernel) echo "kernel VXLAN" ;; esac
}

# The capacity test's sender, built for this run.
build_pktblast() {
    PKTBLAST=$RUN_DIR/pktblast
    gcc -O2 -Wall -I "$REPO/platform/include" -o "$PKTBLAST" "$HERE/pktblast.c" || fail "cannot build $HERE/pktblast.c"
}

run_system() {   # efhost|ovs|kernel
    SYSTEM=$1
    say "$(display_name "$1"), offloads $OFFLOADS: setting up"
    topo_create "$1"
    "$1_up"
    topo_forwards 15 || fail "$(display_name "$1") does not forward: no ping between h1 and h2 within 15 s"
    local started=$SECONDS
    for ((REP = 1; REP <= REPS; REP++)); do
        measure_all
    done
    say "$(display_name "$1"), offloads $OFFLOADS: measured in $((SECONDS - started)) s"
    "$1_down"
    topo_destroy
}

machine_info() {
    echo "date: $(date -Is)"
    echo "command: $COMMAND_LINE"
    echo "repository: $(git -C "$REPO" rev-parse --short HEAD 2>/dev/null || echo unknown)"
    echo "cpu: $(nproc) x $(lscpu 2>/dev/null | sed -n 's/^Model name: *//p' | head -1)"
    echo "kernel: $(uname -r)"
    echo "debian: $(cat /etc/debian_version 2>/dev/null)"
    echo "iperf3: $(iperf3 --version 2>/dev/null | head -1)"
    selected ovs && echo "ovs: $(ovs-vswitchd --version 2>/dev/null | head -1)"
    echo "duration: $DURATION s, repetitions: $REPS, systems: ${SYSTEMS[*]}, offloads: ${OFFLOAD_MODES[*]}, tests: $TEST_SET"
    echo "load average at start: $(cut -d' ' -f1-3 /proc/loadavg)"
}

# The smallest and largest ratio in ratios.dat. The label is quoted and may
# hold spaces, so the ratios are the fields after its closing quote; "?" is
# no ratio.
ratio_extremes() {   # ratios.dat
    awk -F'"' '/^"/ { n = split($3, r, " ")
                      for (i = 1; i <= n; i++) if (r[i] != "?") {
                          if (lo == "" || r[i] + 0 < lo) lo = r[i] + 0
                          if (hi == "" || r[i] + 0 > hi) hi = r[i] + 0 } }
               END { if (lo != "") print lo, hi }' "$1"
}

plot() {
    local dat=$OUT_DIR/ratios.dat extremes series=
    if ! selected efhost || [ "${#SYSTEMS[@]}" -lt 2 ]; then
        say "no plot: it needs efhost and at least one of ovs and kernel"
        return 0
    fi
    extremes=$(ratio_extremes "$dat")
    [ -n "$extremes" ] || { warn "no ratio to plot"; return 0; }
    set -- $extremes
    selected ovs && series=ovs
    selected kernel && series="${series:+$series }kernel"
    local subtitle
    subtitle="iperf3 ${DURATION} s, medians of $REPS, $(nproc) CPUs, $(date +%Y-%m-%d); TCP/UDP: higher = efhost faster; RTT: higher = efhost slower"
    mkdir -p "$(dirname "$PLOT")"
    gnuplot -e "datafile='$dat'; outfile='$PLOT'; subtitle='$subtitle'; series='$series'; lo=$1; hi=$2" \
        "$HERE/ratios.gp" || { warn "gnuplot failed"; return 0; }
    cp "$PLOT" "$OUT_DIR/" 2>/dev/null
    say "plot: $PLOT"
}

main() {
    COMMAND_LINE="$0${*:+ $*}"
    parse_args "$@"
    [ "$(id -u)" -eq 0 ] || fail "needs root (network namespaces, veth, VXLAN devices)"
    install_missing
    require_tools
    remove_stale_runs
    trap cleanup EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    trap 'exit 129' HUP
    mkdir -p "$RUN_DIR" "$OUT_DIR" || fail "cannot create $RUN_DIR or $OUT_DIR"
    RAW_CSV=$OUT_DIR/raw.csv
    echo "system,offloads,metric,rep,value" > "$RAW_CSV"
    machine_info | tee "$OUT_DIR/run-info.txt" >&2
    build_pktblast
    local started=$SECONDS s
    for OFFLOADS in "${OFFLOAD_MODES[@]}"; do
        for s in "${SYSTEMS[@]}"; do
            run_system "$s"
        done
    done
    echo "load average at end: $(cut -d' ' -f1-3 /proc/loadavg)" | tee -a "$OUT_DIR/run-info.txt" >&2
    echo "elapsed: $((SECONDS - started)) s" | tee -a "$OUT_DIR/run-info.txt" >&2
    echo
    "$RESULTS" report "$RAW_CSV" "$OUT_DIR" | tee "$OUT_DIR/table.txt"
    echo
    echo "raw results and medians.csv: $OUT_DIR"
    plot
}

main "$@"
