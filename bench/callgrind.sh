#!/bin/sh
# Instructions per packet (or per message) of each workload, counted by
# callgrind: the packet driver runs a path N and 2N times, and the difference
# of the two instruction totals divided by N leaves out start-up and shutdown.
#
# usage: bench/callgrind.sh [BUILD_DIR [PATH...]]
#   BUILD_DIR defaults to build-bench next to this script's folder (configure
#   it with -DCMAKE_BUILD_TYPE=Release); PATHs default to every workload.
set -eu

here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build-bench}
[ $# -gt 0 ] && shift
driver=$build/bench/vxlan_ef_packet_driver
if [ ! -x "$driver" ]; then
    echo "callgrind.sh: $driver not found; build it with: ninja -C $build vxlan_ef_packet_driver" >&2
    exit 1
fi
if ! command -v valgrind >/dev/null 2>&1; then
    echo "callgrind.sh: valgrind is not installed (apt-get install valgrind)" >&2
    exit 1
fi

if [ $# -eq 0 ]; then
    # The driver lists the workloads when called without arguments.
    set -- $("$driver" 2>&1 | sed -n 's/^  //p')
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Total instructions of one driver run.
instructions() {
    out=$work/callgrind.out
    valgrind --tool=callgrind --callgrind-out-file="$out" "$driver" "$1" "$2" >/dev/null 2>"$work/log" || {
        echo "callgrind.sh: '$1 $2' failed:" >&2
        cat "$work/log" >&2
        exit 1
    }
    sed -n 's/^totals: *\([0-9]*\).*/\1/p' "$out"
}

# Runs per measurement (n) and what one run holds (per_run units of unit).
shape() {
    case $1 in
    resync_1000_vnis) n=10 per_run=1000 unit=VNI ;;
    control_message_set) n=1000 per_run=2 unit=message ;;
    *) n=1000 per_run=1 unit=packet ;;
    esac
}

printf '%-24s %14s %14s  %s\n' path "Ir/run" "Ir/unit" unit
for path in "$@"; do
    shape "$path"
    ir1=$(instructions "$path" "$n")
    ir2=$(instructions "$path" $((2 * n)))
    run=$(((ir2 - ir1) / n))
    printf '%-24s %14d %14d  %s\n' "$path" "$run" $((run / per_run)) "$unit"
done
