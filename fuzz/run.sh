#!/usr/bin/env bash
# Runs every fuzz target (or the ones named) for a bounded time each, one at
# a time, starting from its seed corpus in fuzz/corpus/<target>. Builds the
# clang fuzz build first when needed.
#
#   fuzz/run.sh SECONDS [TARGET...]      e.g. fuzz/run.sh 600 channel parser
#
# New inputs go to $FUZZ_BUILD/fuzz-work/<target> (kept between runs, so a
# longer run goes on where the last one stopped); crashes, leaks and hangs to
# $FUZZ_BUILD/fuzz-artifacts/<target>-*. Exits non-zero when any target found
# one. docs/fuzzing.md says how to replay and keep what they find.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -lt 1 ] || ! [[ $1 =~ ^[0-9]+$ ]]; then
  echo "usage: $0 SECONDS [TARGET...]" >&2
  exit 2
fi
seconds=$1
shift
all_targets=(channel parser forward frame_fixup tcp_join l3_input efhost_config vxlanctl_apply vxlanctl_args control_envelope)
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=("${all_targets[@]}")

build=${FUZZ_BUILD:-build-fuzz}
if [ ! -f "$build/build.ninja" ]; then
  CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DVXLAN_EF_FUZZ=ON -DVXLAN_EF_BENCH=OFF >/dev/null
fi
ninja -C "$build" fuzz_targets >/dev/null

# Messages reach 8196 bytes and frames 9000; the text inputs stay small.
# efhost reads control datagrams of up to 28 + 65536 bytes.
max_len() {
  case $1 in
    channel) echo 20000 ;;
    parser|forward|frame_fixup|tcp_join) echo 10000 ;;
    control_envelope) echo 70000 ;;
    *) echo 4096 ;;
  esac
}

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:allocator_may_return_null=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
failed=()
for t in "${targets[@]}"; do
  bin=$build/fuzz/fuzz_$t
  if [ ! -x "$bin" ]; then
    echo "fuzz/run.sh: no target '$t' (known: ${all_targets[*]})" >&2
    exit 2
  fi
  work=$build/fuzz-work/$t
  artifacts=$build/fuzz-artifacts
  mkdir -p "$work" "$artifacts"
  log=$build/fuzz-artifacts/$t.log
  echo "== fuzz_$t: ${seconds}s"
  if "$bin" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2560 -max_len="$(max_len "$t")" \
       -print_final_stats=1 -artifact_prefix="$artifacts/$t-" "$work" "fuzz/corpus/$t" >"$log" 2>&1; then
    grep -E '^(#[0-9]+ +DONE|stat::number_of_executed_units)' "$log" | tail -2 || true
  else
    echo "fuzz_$t FAILED; its output is in $log:"
    grep -E 'ERROR|runtime error|==== fuzz check failed|Test unit written' -A3 "$log" | head -20 || true
    failed+=("$t")
  fi
done
passed=$((${#targets[@]} - ${#failed[@]}))
if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzzing found problems in: ${failed[*]}"
fi
echo "fuzzing: ${passed} passed, ${#failed[@]} failed"
[ ${#failed[@]} -eq 0 ]
