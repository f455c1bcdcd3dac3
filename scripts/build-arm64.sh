#!/usr/bin/env bash
# Builds the module, the reference platform and the unit tests for 64-bit Arm
# Linux (the product's target) in build-arm64, with Debian's cross compiler;
# installs what that needs first. With --test, also runs the unit suite
# under qemu through CTest. Tools and benchmarks are native-only.
set -euo pipefail
cd "$(dirname "$0")/.."

dir=build-arm64
run_tests=0
for arg in "$@"; do
  case "$arg" in
    --test) run_tests=1 ;;
    *) echo "usage: $0 [--test]" >&2; exit 2 ;;
  esac
done

start=$SECONDS
./scripts/install-arm-deps.sh

jobs=$(nproc)
# The optimisation the module ships with, without debug information: the
# build is most of this stage's time and nobody steps through it.
cmake -S . -B "$dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS_RELEASE=-O2 -DCMAKE_CXX_FLAGS_RELEASE=-O2 >/dev/null
ninja -C "$dir" -j "$jobs"
echo "64-bit Arm build ready in $((SECONDS - start)) s"

if ((run_tests)); then
  # A bounded time per test, so that a hang under emulation fails the run
  # instead of eating CI's time.
  ctest --test-dir "$dir" --output-on-failure --no-tests=error -j "$jobs" --timeout 300
fi
