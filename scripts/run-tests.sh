#!/usr/bin/env bash
# Builds and runs the whole test suite three ways: a plain build, an
# AddressSanitizer + UndefinedBehaviorSanitizer build, and a ThreadSanitizer
# build for the concurrency tests; every fuzz target for a short bounded time
# (FUZZ_SECONDS each, 20 by default; docs/fuzzing.md runs them longer); then
# the module, the platform and the unit tests cross-built for 64-bit Arm, the
# unit suite run under qemu.
set -euo pipefail
cd "$(dirname "$0")/.."

./scripts/install-deps.sh

jobs=$(nproc)

build_and_test() {
  local dir=$1 sanitize=$2
  shift 2
  cmake -S . -B "$dir" -G Ninja -DVXLAN_EF_SANITIZE="$sanitize" >/dev/null
  ninja -C "$dir" -j "$jobs"
  ctest --test-dir "$dir" --output-on-failure --no-tests=error -j "$jobs" "$@"
}

echo "== plain build =="
build_and_test build ""
echo "== AddressSanitizer + UndefinedBehaviorSanitizer build =="
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  build_and_test build-asan asan-ubsan
echo "== ThreadSanitizer build (concurrency tests) =="
TSAN_OPTIONS=halt_on_error=1 build_and_test build-tsan tsan -R "Concurrent|ControlServer"
echo "== fuzz targets (clang, libFuzzer), ${FUZZ_SECONDS:-20}s each =="
./fuzz/run.sh "${FUZZ_SECONDS:-20}"
echo "== 64-bit Arm build (unit tests under qemu) =="
./scripts/build-arm64.sh --test
