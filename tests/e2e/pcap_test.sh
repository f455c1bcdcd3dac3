#!/usr/bin/env bash
# efhost in capture mode: input captures built by the test are read once
# the first resynchronisation is complete; the output captures are compared
# field by field with what they must hold; efhost exits 0 by itself.
set -u
HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/lib.sh"
trap topo_destroy EXIT

[ -x "$EFHOST" ] || fail "efhost not found at '$EFHOST'"
[ -x "$VXLANCTL" ] || fail "vxlanctl not found at '$VXLANCTL'"
/usr/bin/python3 -c "import scapy" 2>/dev/null || fail "python3-scapy is not installed"
mkdir -p "$E2E_DIR"
/usr/bin/python3 "$HERE/pcap_frames.py" make "$E2E_DIR" || fail "building the input captures"
cat > "$E2E_DIR/efhost.yaml" <<YAML
instance: 2
tmpdir: $E2E_DIR/tmp
control_socket: $E2E_DIR/ctl.sock
syslog_file: $E2E_DIR/syslog.log
capabilities: {CAP_VXLAN_BASE: true, CAP_FWDMODE_SOFT: true}
interfaces:
  - {index: 1, name: access1, pvid: 10, vlans: [10], mac: "$EF_MAC_ACC", attach: {pcap_in: $E2E_DIR/acc-in.pcap, pcap_out: $E2E_DIR/acc-out.pcap}}
  - {index: 2, name: uplink, stack: tcpip, mac: "$EF_MAC_UP", addresses: [10.99.0.1/24], attach: {pcap_in: $E2E_DIR/up-in.pcap, pcap_out: $E2E_DIR/up-out.pcap}}
  - {index: 101, name: tunnel-v2, type: 45}
  - {index: 102, name: tunnel-v3, type: 45}
  - {index: 4094, name: L2LOCAL, type: 32}
neighbours:
  - {ip: 10.99.0.2, mac: "02:00:00:00:00:02", interface: 2}
  - {ip: 10.99.0.3, mac: "02:00:00:00:00:03", interface: 2}
YAML
"$EFHOST" --config "$E2E_DIR/efhost.yaml" > "$E2E_DIR/efhost.out" 2>&1 &
EFHOST_PID=$!
for _ in $(seq 100); do [ -S "$E2E_DIR/ctl.sock" ] && break; sleep 0.1; done
FAMILY=4
write_overlay_config "$E2E_DIR/overlay.yaml"
vxlanctl apply "$E2E_DIR/overlay.yaml" || fail "vxlanctl apply"
rc=0
for _ in $(seq 200); do kill -0 "$EFHOST_PID" 2>/dev/null || break; sleep 0.1; done
if kill -0 "$EFHOST_PID" 2>/dev/null; then cat "$E2E_DIR/efhost.out"; fail "efhost did not finish its captures"; fi
wait "$EFHOST_PID" || rc=$?
EFHOST_PID=
cat "$E2E_DIR/efhost.out"
[ "$rc" = 0 ] || fail "efhost exited with status $rc"
/usr/bin/python3 "$HERE/pcap_frames.py" check "$E2E_DIR" || fail "output captures"
echo "PASS: capture mode"
