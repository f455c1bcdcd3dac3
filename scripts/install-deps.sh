#!/usr/bin/env bash
# Installs the Debian packages the build, the tests, the fuzz targets (clang
# with libFuzzer, llvm-symbolizer for their reports), the Debian packages'
# build and its test (debhelper, lintian) and the demo need; does nothing
# when they are all present.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  protobuf-c-compiler libprotobuf-c-dev
  libyaml-cpp-dev libcli11-dev libfmt-dev libpcap-dev liburcu-dev libsystemd-dev help2man
  nlohmann-json3-dev libcpp-httplib-dev
  iproute2 binutils ethtool iputils-ping iperf3 tshark python3-scapy valgrind
  frr libnl-route-3-dev
  clang libclang-rt-14-dev llvm
  debhelper dpkg-dev fakeroot lintian git systemd
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
fi
