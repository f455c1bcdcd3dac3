#!/usr/bin/env bash
# Installs what the 64-bit Arm build needs on an x86-64 Debian machine: the
# cross compiler, the arm64 builds of the libraries the module, the platform
# and the unit tests link (through Debian multiarch) and qemu to run the
# unit tests. Does nothing when they are all present.
set -euo pipefail

packages=(
  crossbuild-essential-arm64 binutils-aarch64-linux-gnu qemu-user
  cmake ninja-build pkg-config protobuf-c-compiler
  libc6:arm64 libstdc++6:arm64 libprotobuf-c-dev:arm64 libgtest-dev:arm64 liburcu-dev:arm64
)

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"

updated=0
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  $sudo dpkg --add-architecture arm64
  $sudo apt-get update -qq
  updated=1
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  ((updated)) || $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
