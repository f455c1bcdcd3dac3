#!/usr/bin/env bash
# efhost under valgrind: configured through vxlanctl, asked for its shows,
# given malformed messages (refused, nothing changed), then stopped with
# SIGTERM; the module exits, efhost unloads it and exits 0 with no leak and
# no memory error.
set -u
fail() { printf '%s\n' "FAIL: $*" >&2; exit 1; }
[ -x "$EFHOST" ] || fail "efhost not found at '$EFHOST'"
command -v valgrind >/dev/null || fail "valgrind is not installed"
DIR=$(mktemp -d /tmp/vxvg.XXXXXX)
PID=
cleanup() { [ -n "$PID" ] && kill -KILL "$PID" 2>/dev/null; rm -rf "$DIR"; }
trap cleanup EXIT

cat > "$DIR/efhost.yaml" <<YAML
instance: 4
tmpdir: $DIR/tmp
control_socket: $DIR/ctl.sock
syslog_file: $DIR/syslog.log
capabilities: {CAP_VXLAN_BASE: true, CAP_FWDMODE_SOFT: true}
interfaces:
  - {index: 1, name: access1, pvid: 10, vlans: [10]}
  - {index: 2, name: uplink, stack: tcpip, addresses: [10.99.0.1/24]}
  - {index: 101, name: tunnel-1, type: 45}
  - {index: 201, name: sub-1, parent: 1}
  - {index: 4094, name: L2LOCAL, type: 32}
YAML
cat > "$DIR/overlay.yaml" <<YAML
vnis:
  - {vni: 1000, vlans: [10]}
tunnels:
  - {interface: 101, source: 10.99.0.1, destination: 10.99.0.2, vnis: [1000]}
subinterfaces:
  - {interface: 201, parent: 1, vni: 1000, svid: 30, cvid: 0}
YAML
valgrind --leak-check=full --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite,indirect \
    --error-exitcode=99 "$EFHOST" --config "$DIR/efhost.yaml" > "$DIR/valgrind.txt" 2>&1 &
PID=$!
for _ in $(seq 300); do [ -S "$DIR/ctl.sock" ] && break; sleep 0.1; done
[ -S "$DIR/ctl.sock" ] || { cat "$DIR/valgrind.txt"; fail "efhost did not start under valgrind"; }
"$VXLANCTL" --socket "$DIR/ctl.sock" --timeout 60 apply "$DIR/overlay.yaml" || fail "apply"
"$VXLANCTL" --socket "$DIR/ctl.sock" --timeout 60 show entry 1000 || fail "show entry"
"$VXLANCTL" --socket "$DIR/ctl.sock" --timeout 60 show subif || fail "show subif"
# Malformed input over the socket is refused by the module and changes nothing.
"$VXLANCTL" --socket "$DIR/ctl.sock" --timeout 60 debug 0x3 || fail "debug"
refused_raw() {   # hex expected-error-text
    local rc=0 out
    out=$("$VXLANCTL" --socket "$DIR/ctl.sock" --timeout 60 raw "$1" 2>&1) || rc=$?
    [ "$rc" = 5 ] || fail "raw $1: exit status $rc, expected 5 ($out)"
    printf '%s\n' "$out" | grep -F "vxlanctl: module: VXLAN-EF-ERR: [vsd 4 " | grep -qF "$2" \
        || fail "raw $1: '$out' lacks the module's '$2'"
}
refused_raw "01 0c 00 03 01 00 00 00 02 00 00 00" "msg check error, ver: 01, len: 12, tlv_num: 3"
refused_raw "02 08 00 01 00 00 00 00" "Msg version is incompatible, current ver: 0x01, msg ver: 0x02"
grep -F "msg check error, ver: 01, len: 12, tlv_num: 3" "$DIR/syslog.log" || fail "no framing error logged"
grep -F "Msg version is incompatible, current ver: 0x01, msg ver: 0x02" "$DIR/syslog.log" || fail "no version error logged"
"$VXLANCTL" --socket "$DIR/ctl.sock" --timeout 60 show entry 1000 | grep -q "tunnel-1" || fail "entry lost"
kill -TERM "$PID"
rc=0
wait "$PID" || rc=$?
PID=
grep -E "ERROR SUMMARY|definitely lost|indirectly lost|All heap blocks" "$DIR/valgrind.txt"
[ "$rc" = 0 ] || { cat "$DIR/valgrind.txt"; fail "efhost under valgrind exited with status $rc"; }
echo "PASS: clean stop under valgrind"
