#!/bin/sh
# Instructions per packet (or per message) of each workload, counted by
# callgrind: the packet driver runs a path N and 2N times, and the difference
# of the two instruction totals divided by N leaves out start-up and shutdown.
# A path with a minimal reference (ref_PATH) gets the reference's count,
# measured the same way, and the ratio of the two.
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

# The driver lists the workloads when called without arguments.
known=$("$driver" 2>&1 | sed -n 's/^  //p')
if [ $# -eq 0 ]; then
    # References come as columns of their paths' rows.
    set -- $(printf '%s\n' $known | grep -v '^ref_')
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

# Instructions of one run of a path, N runs per measurement.
ir_per_run() {
    ir1=$(instructions "$1" "$2")
    ir2=$(instructions "$1" $(($2 * 2)))
    echo $(((ir2 - ir1) / $2))
}

has_reference() {
    case $1 in ref_*) return 1 ;; esac
    printf '%s\n' $known | grep -qx "ref_$1"
}

printf '%-24s %14s %14s  %-8s %12s %8s\n' path "Ir/run" "Ir/unit" unit "ref Ir/run" "ratio"
for path in "$@"; do
    shape "$path"
    run=$(ir_per_run "$path" "$n")
    ref=- ratio=-
    if has_reference "$path"; then
        ref=$(ir_per_run "ref_$path" "$n")
        ratio=$(awk -v m="$run" -v r="$ref" 'BEGIN { printf "%.2f", m / r }')
    fi
    printf '%-24s %14d %14d  %-8s %12s %8s\n' "$path" "$run" $((run / per_run)) "$unit" "$ref" "$ratio"
done
