#!/usr/bin/env bash
# efhost and vxlanctl on the command line: help and version, refusal of a bad
# configuration file (exit status 2, line and field named) or of a missing
# device, capture or module, a vxlanctl that finds no efhost, shortened and
# unknown verbs.
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

# Exactly this output and exit status.
expect_exact() {   # exit-status expected-output command...
    local want_rc=$1 want=$2 rc=0 out; shift 2
    out=$("$@" 2>&1) || rc=$?
    [ "$rc" = "$want_rc" ] || fail "$*: exit status $rc, expected $want_rc ($out)"
    [ "$out" = "$want" ] || fail "$*: printed '$out', expected '$want'"
    echo "($rc) $*: $out"
}

# --version prints the version project() gives in CMakeLists.txt.
VERSION=$(sed -n 's/^project([^ ]* VERSION \([0-9.]*\).*/\1/p' "$(dirname "$0")/../../CMakeLists.txt")
[ -n "$VERSION" ] || fail "no VERSION in project() of CMakeLists.txt"
expect_exact 0 "efhost $VERSION" "$EFHOST" --version
expect_exact 0 "vxlanctl $VERSION" "$VXLANCTL" --version
[ -z "${EVPN_FOLLOWER:-}" ] || expect_exact 0 "evpn-follower $VERSION" "$EVPN_FOLLOWER" --version

# Verbs and show tables: unknown and ambiguous words are named, unambiguous
# prefixes stand for the word.
COMMANDS="commands: apply, send, raw, show, debug, techdump, tunnel-intf, counters, mac, suppress"
expect_exact 2 "vxlanctl: unknown command 'bogus'; $COMMANDS" "$VXLANCTL" bogus
expect_exact 2 "vxlanctl: unknown command 'shwo'; $COMMANDS" "$VXLANCTL" shwo status
expect_exact 2 "vxlanctl: ambiguous command 's'; it could be send, show or suppress" "$VXLANCTL" s status
NO_EFHOST="vxlanctl: cannot connect to $DIR/none.sock: No such file or directory"
expect_exact 1 "$NO_EFHOST" "$VXLANCTL" --socket "$DIR/none.sock" sh st
expect_exact 1 "$NO_EFHOST" "$VXLANCTL" --socket "$DIR/none.sock" cou
expect_exact 1 "$NO_EFHOST" "$VXLANCTL" --socket "$DIR/none.sock" show e 100
expect_exact 2 "vxlanctl: show: ambiguous table 's'; it could be status or subif" \
    "$VXLANCTL" --socket "$DIR/none.sock" show s
expect_exact 2 "vxlanctl: show: VNI '16777216' is not a number in 0..16777215" \
    "$VXLANCTL" --socket "$DIR/none.sock" show entry 16777216

# send --help lists the TLV types with their fields.
"$VXLANCTL" send --help | grep -qxF "  SET_ENTRY (8): vni u32, oper u8" || fail "send --help lacks SET_ENTRY's fields"
"$VXLANCTL" send --help | grep -qxF "  SET_VLAN (9): vni u32, oper u8, vlans vlan bitmap" \
    || fail "send --help lacks SET_VLAN's fields"

# send and apply take the same VLANs and refuse the others in the same words.
expect_exact 2 "vxlanctl: send: field 'vlans' (vlan bitmap): VLAN 4095 is outside 1..4094" \
    "$VXLANCTL" --socket "$DIR/none.sock" send SET_VLAN vni=5 vlans=10,4095
printf 'vnis:\n  - {vni: 5, vlans: [10, 4095]}\n' > "$DIR/vlan.yaml"
expect_exact 2 "$DIR/vlan.yaml:2: field 'vnis[0].vlans[1]': VLAN 4095 is outside 1..4094" \
    "$VXLANCTL" --socket "$DIR/none.sock" apply "$DIR/vlan.yaml"
expect_exact 2 "vxlanctl: send: field 'vlans' (vlan bitmap): VLAN 0 is outside 1..4094" \
    "$VXLANCTL" --socket "$DIR/none.sock" send SET_VLAN vni=5 vlans=0

# efhost refuses a missing device, capture or module before it creates its
# socket, log file or directories.
refused_untouched() {   # config-name expected-message [start-of-message]
    if [ "${3:-}" = start ]; then
        expect_usage "$2" "$EFHOST" --config "$DIR/$1.yaml"
    else
        expect_exact 2 "$2" "$EFHOST" --config "$DIR/$1.yaml"
    fi
    [ ! -e "$DIR/state" ] || fail "$1: efhost created $(find "$DIR/state")"
}
state="control_socket: $DIR/state/ctl.sock\ntmpdir: $DIR/state/tmp\nsyslog_file: $DIR/state/syslog.log\n"
printf "$state"'interfaces:\n  - {index: 1, name: p1, attach: {device: veth-none9}}\n' > "$DIR/nodev.yaml"
refused_untouched nodev "efhost: interface p1: no network device 'veth-none9'"
printf "$state"'interfaces:\n  - {index: 1, name: p1, attach: {pcap_in: %s/in.pcap, pcap_out: %s/state/out.pcap}}\n' \
    "$DIR" "$DIR" > "$DIR/nopcap.yaml"
refused_untouched nopcap "efhost: interface p1: cannot read capture file '$DIR/in.pcap': No such file or directory"
printf "$state"'module: %s/none.so\ninterfaces:\n  - {index: 1, name: p1, attach: {device: lo}}\n' "$DIR" > "$DIR/nomod.yaml"
refused_untouched nomod "efhost: module '$DIR/none.so': No such file or directory"
printf "$state"'module: %s/vlan.yaml\ninterfaces:\n  - {index: 1, name: p1}\n' "$DIR" > "$DIR/badmod.yaml"
# The dynamic linker's own words follow.
refused_untouched badmod "efhost: module '$DIR/vlan.yaml': cannot be loaded: $DIR/vlan.yaml: " start
echo "PASS: command lines"
