#!/usr/bin/env bash
# efhost and vxlanctl on the command line: help, refusal of a bad
# configuration file (exit status 2, line and field named), a vxlanctl that
# finds no efhost.
set -u
fail() { printf '%s\n' "FAIL: $*" >&2; exit 1; }
[ -x "$EFHOST" ] || fail "efhost not found at '$EFHOST'"
[ -x "$VXLANCTL" ] || fail "vxlanctl not found at '$VXLANCTL'"
DIR=$(mktemp -d /tmp/vxcli.XXXXXX)
trap 'rm -rf "$DIR"' EXIT

"$EFHOST" --help | grep -q -- "--config" || fail "efhost --help does not mention --config"
"$VXLANCTL" --help | grep -q "apply" || fail "vxlanctl --help does not mention apply"

expect_refusal() {   # name expected-text
    local rc=0 out
    out=$("$EFHOST" --config "$DIR/$1.yaml" 2>&1) || rc=$?
    [ "$rc" = 2 ] || fail "$1: exit status $rc, expected 2 ($out)"
    printf '%s\n' "$out" | grep -qF -- "$2" || fail "$1: message '$out' lacks '$2'"
    echo "refused $1: $out"
}

printf 'control_socket: %s/ctl.sock\ninterfaces:\n  - index: 1\n    name: p1\n    mac: zz:00\n' "$DIR" > "$DIR/badmac.yaml"
expect_refusal badmac "badmac.yaml:5"
printf 'control_socket: %s/ctl.sock\ninterfaces:\n  - {index: 1, name: p1, colour: red}\n' "$DIR" > "$DIR/unknown.yaml"
expect_refusal unknown "colour"
printf 'interfaces: [\n' > "$DIR/syntax.yaml"
expect_refusal syntax "syntax.yaml:"
expect_refusal missing "missing.yaml"

rc=0
out=$("$EFHOST" --bogus 2>&1) || rc=$?
[ "$rc" -ne 0 ] || fail "efhost accepted an unknown option"
echo "efhost --bogus: exit $rc"

rc=0
out=$("$VXLANCTL" --socket "$DIR/none.sock" show status 2>&1) || rc=$?
[ "$rc" -ne 0 ] || fail "vxlanctl without efhost exited 0"
printf '%s\n' "$out" | grep -qF "cannot connect to $DIR/none.sock" || fail "vxlanctl message: $out"
echo "vxlanctl without efhost: $out"
# Run-time tunnel interfaces and the EVPN follower: bad arguments are refused
# before anything is sent.
expect_usage() {   # expected-text command...
    local want=$1 rc=0 out; shift
    out=$("$@" 2>&1) || rc=$?
    [ "$rc" = 2 ] || fail "$*: exit status $rc, expected 2 ($out)"
    printf '%s\n' "$out" | grep -qF -- "$want" || fail "$*: message '$out' lacks '$want'"
    echo "refused $*: $out"
}
expect_usage "unknown action 'rename'" "$VXLANCTL" --socket "$DIR/none.sock" tunnel-intf rename 5
expect_usage "create takes 2 argument(s)" "$VXLANCTL" --socket "$DIR/none.sock" tunnel-intf create 5
expect_usage "'0' is not an interface index" "$VXLANCTL" --socket "$DIR/none.sock" tunnel-intf remove 0
if [ -n "${EVPN_FOLLOWER:-}" ]; then
    [ -x "$EVPN_FOLLOWER" ] || fail "evpn-follower not found at '$EVPN_FOLLOWER'"
    "$EVPN_FOLLOWER" --help | grep -q -- "--socket" || fail "evpn-follower --help does not mention --socket"
    expect_usage "--tunnel-base" "$EVPN_FOLLOWER" --tunnel-base 0
    expect_usage "--bogus" "$EVPN_FOLLOWER" --bogus
fi
echo "PASS: command lines"
