#!/usr/bin/env bash
# Bad input to the tools while efhost runs a configured overlay: vxlanctl
# given malformed, unknown, out-of-range or missing input, or a socket that
# is not efhost's, answers with a clear message and a non-zero exit; a second
# efhost given the running one's socket is refused and takes nothing; clients
# that send broken envelopes or hang up mid-request leave efhost running.
# Through all of it the module's tables stay as they were and traffic flows.
set -u
HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/lib.sh"
trap topo_destroy EXIT

tables() { vxlanctl show entry && vxlanctl show intf; }

expect_refused() {   # exit-status expected-text command...
    local want_rc=$1 want=$2 rc=0 out; shift 2
    out=$("$@" 2>&1) || rc=$?
    [ "$rc" = "$want_rc" ] || fail "$*: exit status $rc, expected $want_rc ($out)"
    printf '%s\n' "$out" | grep -qF -- "$want" || fail "$*: message '$out' lacks '$want'"
    echo "refused ($rc): $* -> $(printf '%s' "$out" | head -1)"
}

unchanged() {   # what was done
    kill -0 "$EFHOST_PID" 2>/dev/null || fail "efhost is gone after $1"
    tables > "$E2E_DIR/now.txt" 2>&1 || fail "vxlanctl show after $1"
    cmp -s "$E2E_DIR/before.txt" "$E2E_DIR/now.txt" \
        || { diff "$E2E_DIR/before.txt" "$E2E_DIR/now.txt"; fail "the tables changed after $1"; }
}

require_facilities
FAMILY=4
topo_create 4
efhost_start
write_overlay_config "$E2E_DIR/overlay.yaml"
vxlanctl apply "$E2E_DIR/overlay.yaml" > /dev/null || fail "vxlanctl apply"
in_ns "$NS_H1" ping -c 2 -i 0.3 -W 2 192.168.10.2 >/dev/null 2>&1 || true
ping_ok "$NS_H1" 192.168.10.2 3
tables > "$E2E_DIR/before.txt" 2>&1 || fail "vxlanctl show"
grep -q "1000" "$E2E_DIR/before.txt" || fail "VNI 1000 is not in the tables: $(cat "$E2E_DIR/before.txt")"

say "apply files that are not right"
printf 'vnis: [\n' > "$E2E_DIR/syntax.yaml"
expect_refused 2 "syntax.yaml:" vxlanctl apply "$E2E_DIR/syntax.yaml"
printf 'vnis:\n  - {vni: 1000, vlans: [10], colour: red}\n' > "$E2E_DIR/unknown.yaml"
expect_refused 2 "colour" vxlanctl apply "$E2E_DIR/unknown.yaml"
printf 'vnis:\n  - {vni: 16777216, vlans: [10]}\n' > "$E2E_DIR/range.yaml"
expect_refused 2 "16777216" vxlanctl apply "$E2E_DIR/range.yaml"
expect_refused 2 "missing.yaml" vxlanctl apply "$E2E_DIR/missing.yaml"
expect_refused 2 "$E2E_DIR" vxlanctl apply "$E2E_DIR"
unchanged "bad apply files"

say "send and raw arguments that are not right"
expect_refused 2 "NO_SUCH_TLV" vxlanctl send NO_SUCH_TLV
expect_refused 2 "is not a hex digit" vxlanctl raw zz
expect_refused 2 "show" vxlanctl show nothing
unchanged "bad arguments"

say "sockets that are not efhost's"
: > "$E2E_DIR/plain-file"
expect_refused 1 "cannot connect to $E2E_DIR/plain-file" "$VXLANCTL" --socket "$E2E_DIR/plain-file" show entry
expect_refused 1 "cannot connect to $E2E_DIR/none.sock" "$VXLANCTL" --socket "$E2E_DIR/none.sock" show entry
unchanged "wrong sockets"

say "a second efhost given the running one's control socket"
log_size=$(stat -c %s "$E2E_DIR/syslog.log")
expect_refused 1 "another process answers on $E2E_DIR/ctl.sock (is another efhost running?)" \
    timeout 10 ip netns exec "$NS_EF" "$EFHOST" --config "$E2E_DIR/efhost.yaml"
[ -S "$E2E_DIR/ctl.sock" ] || fail "the refused efhost removed the running one's socket"
[ "$(stat -c %s "$E2E_DIR/syslog.log")" -ge "$log_size" ] || fail "the refused efhost truncated the running one's log"
unchanged "a second efhost"

say "clients that break off or send what is no envelope"
for kind in hangup short magic truncated garbage noread; do
    python3 "$HERE/control_peer.py" "$E2E_DIR/ctl.sock" "$kind" || fail "control peer '$kind' could not run"
    unchanged "a client that did '$kind'"
    echo "efhost unchanged after a client that did '$kind'"
done

say "traffic still flows"
ping_ok "$NS_H1" 192.168.10.2 5
ping_ok "$NS_H1" 192.168.10.3 5
efhost_stop
say "PASS"
