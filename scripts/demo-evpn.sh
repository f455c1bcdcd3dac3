#!/usr/bin/env bash
# The EVPN demo: two efhost VTEPs and one Linux kernel VTEP that find each
# other through BGP EVPN (FRR), with no tunnel written anywhere: type-3
# routes make the tunnels, type-2 MAC and MAC/IP routes go both ways (no
# flooding of known unicast, a host that moves is followed), and VNI 100
# answers ARP at the asker's own VTEP (suppression).
#
#   h1a h1b h1c            h2a h2b h2c            h3a   h3b   h3c
#    |   |   | VLAN 10/20/30 |   |   |              |     |     |
#  [e1: efhost]  [c1]      [e2: efhost]  [c2]     [k3: kernel VTEP + FRR]
#    | .1         | .11      | .2         | .12     | .3
#    +-----------+-----------+------------+---------+---- underlay 10.99.0.0/24
#  c1, c2: FRR (zebra + bgpd) and evpn-follower; their VXLAN devices carry the
#  EVPN state only, efhost carries the traffic.
#
# Installs what it needs, builds, runs the fabric step by step (the same
# scenario as the end-to-end test tests/e2e/evpn_test.sh), removes everything
# it created, and ends with PASS or FAIL.
set -u
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${BUILD:-$ROOT/build-demo}

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

[ "$(id -u)" -eq 0 ] || { echo "FAIL: the demo needs root (network namespaces)"; exit 1; }
step "Installing the Debian packages the demo needs, FRR among them (skipped when present)"
"$ROOT/scripts/install-deps.sh" || { echo "FAIL: package installation"; exit 1; }

step "Building libtq_vxlan_ef.so, efhost, vxlanctl and evpn-follower in $BUILD"
mkdir -p "$BUILD"
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo > "$BUILD/cmake-output.log" 2>&1 \
    || { cat "$BUILD/cmake-output.log"; echo "FAIL: cmake"; exit 1; }
ninja -C "$BUILD" tq_vxlan_ef efhost vxlanctl evpn-follower | tail -1 || { echo "FAIL: build"; exit 1; }

step "The fabric"
sed -n '8,14p' "$0" | sed 's/^# \{0,1\}/  /'
echo
echo "  Each node is described by a small file (docs/evpn.md); scripts/evpn-node.sh turns it into"
echo "  bridges + VXLAN devices and an FRR configuration. The steps below print what each part did."

# The scenario removes its namespaces, daemons and files when it ends,
# whatever happens.
export EFHOST=$BUILD/tools/efhost VXLANCTL=$BUILD/tools/vxlanctl EVPN_FOLLOWER=$BUILD/tools/evpn-follower
E2E_PREFIX=vxevdemo$$ "$ROOT/tests/e2e/evpn_test.sh"
rc=$?
echo
if [ "$rc" = 0 ]; then echo PASS; else echo FAIL; fi
exit "$rc"
