#!/usr/bin/env bash
# The demo: efhost running the VXLAN module between a host on an access port
# and two Linux kernel VXLAN endpoints, each with a host behind it.
#
#     h1 192.168.10.1                        h2 192.168.10.2        h3 192.168.10.3
#      | VLAN 10 -> VNI 1000                  |                      |
#   [ efhost + libtq_vxlan_ef ]           [ kernel VTEP k1 ]     [ kernel VTEP k2 ]
#      | 10.99.0.1                            | 10.99.0.2            | 10.99.0.3
#      +---------------- underlay bridge, MTU 1500 ----------------+
#
# Installs what it needs, builds, runs, removes everything it created, and
# ends with PASS or FAIL.
set -u
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD:-$ROOT/build-demo}

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

[ "$(id -u)" -eq 0 ] || { echo "FAIL: the demo needs root (network namespaces)"; exit 1; }
step "Installing the Debian packages the demo needs (skipped when present)"
"$ROOT/scripts/install-deps.sh" || { echo "FAIL: package installation"; exit 1; }

step "Building libtq_vxlan_ef.so, efhost and vxlanctl in $BUILD"
mkdir -p "$BUILD"
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo > "$BUILD/cmake-output.log" 2>&1 \
    || { cat "$BUILD/cmake-output.log"; echo "FAIL: cmake"; exit 1; }
ninja -C "$BUILD" tq_vxlan_ef efhost vxlanctl | tail -1 || { echo "FAIL: build"; exit 1; }
export EFHOST=$BUILD/tools/efhost VXLANCTL=$BUILD/tools/vxlanctl

E2E_PREFIX=vxdemo$$
. "$ROOT/tests/e2e/lib.sh"
result=FAIL
finish() {
    step "Removing every namespace, link and file the demo created"
    topo_destroy
    echo
    echo "$result"
}
trap finish EXIT
fail() { printf '%s\n' "demo step failed: $*" >&2; exit 1; }

require_facilities
step "Creating the namespaces: h1, efhost, underlay, kernel VTEPs k1 and k2, hosts h2 and h3"
topo_create 4
for ns in $ALL_NS; do echo "  $ns"; done

step "Starting efhost (it loads libtq_vxlan_ef.so and attaches its ports to acc and ul0)"
efhost_start
cat "$E2E_DIR/efhost.yaml"

step "Applying the VXLAN configuration with vxlanctl (a full resynchronisation)"
write_overlay_config "$E2E_DIR/overlay.yaml"
cat "$E2E_DIR/overlay.yaml"
vxlanctl apply "$E2E_DIR/overlay.yaml" || fail "vxlanctl apply"

step "Pinging from h1 to the hosts behind both kernel VTEPs (ARP goes through efhost's flood)"
in_ns "$NS_H1" ping -c 2 -i 0.3 -W 2 192.168.10.2 >/dev/null 2>&1 || true
in_ns "$NS_H1" ping -c 2 -i 0.3 -W 2 192.168.10.3 >/dev/null 2>&1 || true
ping_ok "$NS_H1" 192.168.10.2 5
ping_ok "$NS_H1" 192.168.10.3 5

step "Pinging back from h2 and h3 to h1"
ping_ok "$NS_H2" 192.168.10.1 5
ping_ok "$NS_H3" 192.168.10.1 5

step "The module's status (vxlanctl show status)"
vxlanctl show status || fail "show status"

step "The module's entry table (vxlanctl show entry 1000)"
vxlanctl show entry 1000 || fail "show entry"

step "Stopping efhost (SIGTERM: the module exits and efhost unloads it)"
efhost_stop
tail -3 "$E2E_DIR/efhost.out"
result=PASS
