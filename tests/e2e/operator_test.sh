#!/usr/bin/env bash
# An operator's first hour with a running efhost: it comes up configured from
# the overlay file its configuration names and applies that file again on
# SIGHUP; one apply moves a VLAN from one VNI to another; an apply naming a
# tunnel interface efhost lacks is refused at its line; the tech-support dump
# is written where vxlanctl says; what the module refused fails the command
# with the module's own error line, and its debug mask is left as it was; a
# show of a VNI that does not exist says so; data and status lines go to
# standard output and standard error; the EVPN follower leaves alone a
# module whose configuration efhost's overlay file owns.
set -u
HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/lib.sh"
DUMP=/tmp/vsd/1//dc/vxlan/.vxlan_ef_dump.txt
FOLLOWER_PID=
trap '[ -n "$FOLLOWER_PID" ] && kill "$FOLLOWER_PID" 2>/dev/null; rm -f "$DUMP"; topo_destroy' EXIT

expect() {   # exit-status expected-text command...
    local want_rc=$1 want=$2 rc=0 out; shift 2
    out=$("$@" 2>&1) || rc=$?
    [ "$rc" = "$want_rc" ] || fail "$*: exit status $rc, expected $want_rc ($out)"
    printf '%s\n' "$out" | grep -qF -- "$want" || fail "$*: output '$out' lacks '$want'"
    echo "($rc) $* -> $(printf '%s' "$out" | grep -F -- "$want" | head -1)"
}

vlans_of() { vxlanctl show entry "$1" | grep "Extend Vlan" | sed 's/.*: //'; }

wait_for_log() {   # text count
    for _ in $(seq 100); do
        [ "$(grep -cF -- "$1" "$E2E_DIR/efhost.out")" -ge "$2" ] && return 0
        sleep 0.1
    done
    cat "$E2E_DIR/efhost.out"
    fail "efhost did not log '$1' $2 times"
}

require_facilities
FAMILY=4
topo_create 4
write_overlay_config "$E2E_DIR/overlay.yaml"
EFHOST_EXTRA_CONFIG="overlay: overlay.yaml"
efhost_start

say "the overlay file is applied once efhost forwards"
wait_for_log "efhost: overlay $E2E_DIR/overlay.yaml: data ready" 1
[ "$(vlans_of 1000)" = 10 ] || fail "VNI 1000 has VLANs '$(vlans_of 1000)' after start"
in_ns "$NS_H1" ping -c 2 -i 0.3 -W 2 192.168.10.2 >/dev/null 2>&1 || true
ping_ok "$NS_H1" 192.168.10.2 3

say "one apply moves VLAN 10 from VNI 1000 to VNI 2000"
{
    echo "vnis:"
    echo "  - {vni: 1000}"
    echo "  - {vni: 2000, vlans: [10]}"
    sed -n '/^tunnels:/,$p' "$E2E_DIR/overlay.yaml"
} > "$E2E_DIR/moved.yaml"
vxlanctl apply "$E2E_DIR/moved.yaml" || fail "apply of the moved VLAN"
[ "$(vlans_of 2000)" = 10 ] || fail "VNI 2000 has VLANs '$(vlans_of 2000)' after one apply"
[ "$(vlans_of 1000)" = NA ] || fail "VNI 1000 still has VLANs '$(vlans_of 1000)'"

say "SIGHUP applies the overlay file again, moving VLAN 10 back"
kill -HUP "$EFHOST_PID"
wait_for_log "efhost: overlay $E2E_DIR/overlay.yaml: data ready" 2
grep -qF "efhost: SIGHUP: re-applying the overlay $E2E_DIR/overlay.yaml" "$E2E_DIR/efhost.out" \
    || fail "efhost did not say it re-applies: $(cat "$E2E_DIR/efhost.out")"
kill -0 "$EFHOST_PID" || fail "efhost is gone after SIGHUP"
[ "$(vlans_of 1000)" = 10 ] || fail "VNI 1000 has VLANs '$(vlans_of 1000)' after SIGHUP"
expect 1 "no VNI 2000 in the module" vxlanctl show entry 2000
ping_ok "$NS_H1" 192.168.10.2 3

say "a tunnel on an interface efhost lacks is refused at its line"
vxlanctl show entry > "$E2E_DIR/before.txt"
printf 'vnis:\n  - {vni: 1000, vlans: [10]}\ntunnels:\n  - interface: 100\n    source: %s\n    destination: %s\n' \
    "$(underlay_addr 1)" "$(underlay_addr 2)" > "$E2E_DIR/notunnel.yaml"
expect 2 "notunnel.yaml:4: field 'tunnels[0].interface': efhost has no tunnel interface 100 (its tunnel interfaces: 101, 102;" \
    vxlanctl apply "$E2E_DIR/notunnel.yaml"
vxlanctl show entry | cmp -s - "$E2E_DIR/before.txt" || fail "the refused apply changed the tables"

say "data goes to standard output, status lines to standard error"
out=$(vxlanctl tunnel-intf tunnels 2>"$E2E_DIR/err.txt") || fail "tunnel-intf tunnels"
[ "$out" = "$(printf '101 tunnel-k1\n102 tunnel-k2')" ] || fail "tunnel-intf tunnels printed '$out'"
[ "$(cat "$E2E_DIR/err.txt")" = "vxlanctl: ok 2 tunnel interfaces" ] || fail "status line: $(cat "$E2E_DIR/err.txt")"
out=$(vxlanctl apply "$E2E_DIR/overlay.yaml" 2>"$E2E_DIR/err.txt") || fail "apply"
[ -z "$out" ] || fail "apply printed '$out' on standard output"
grep -qx "vxlanctl: data ready" "$E2E_DIR/err.txt" || fail "apply's status: $(cat "$E2E_DIR/err.txt")"

say "the tech-support dump is written where vxlanctl says"
rm -f "$DUMP"
expect 0 "vxlanctl: tech-support dump written to $DUMP" vxlanctl techdump
head -1 "$DUMP" | grep -qF "VXLAN_EF TECH-SUPPORT DUMP START" || fail "no dump at $DUMP"
grep -qF "VXLAN 1000(Normal)" "$DUMP" || fail "the dump lacks VNI 1000"

say "what the module refuses fails the command with its error line"
status_before=$(vxlanctl show status | grep "Debug Status")
expect 5 "vxlanctl: module: VXLAN-EF-ERR: [vsd 1 vxlan_ef_entry_alloc] ERROR VNI: 0" vxlanctl send SET_ENTRY vni=0 oper=1
expect 5 "entry is not exist, vni: 3000" vxlanctl send SET_VLAN vni=3000 vlans=20 oper=1
vxlanctl send SET_ENTRY vni=2000 oper=1 || fail "SET_ENTRY of VNI 2000"
expect 5 "vxlanctl: send: VLAN 10 stays with VNI 1000, which holds it" vxlanctl send SET_VLAN vni=2000 vlans=10 oper=1
[ "$(vxlanctl show status | grep "Debug Status")" = "$status_before" ] \
    || fail "the debug mask changed: '$status_before' -> '$(vxlanctl show status | grep "Debug Status")'"
expect 0 "VXLAN 1000(Normal)" vxlanctl show entry 1000
expect 1 "vxlanctl: show: no VNI 5 in the module" vxlanctl show entry 5

say "the EVPN follower leaves a module that efhost's overlay file owns alone"
in_ns "$NS_EF" "$EVPN_FOLLOWER" --socket "$E2E_DIR/ctl.sock" --poll-ms 100 > "$E2E_DIR/follower.out" 2>&1 &
FOLLOWER_PID=$!
for _ in $(seq 50); do
    grep -qF "the follower leaves the module alone" "$E2E_DIR/follower.out" && break
    sleep 0.1
done
sleep 0.5
kill -TERM "$FOLLOWER_PID"; wait "$FOLLOWER_PID" 2>/dev/null
FOLLOWER_PID=
grep -qF "efhost applies its own overlay file $E2E_DIR/overlay.yaml (its \`overlay\` key)" "$E2E_DIR/follower.out" \
    || fail "the follower did not refuse: $(cat "$E2E_DIR/follower.out")"
[ "$(grep -c "leaves the module alone" "$E2E_DIR/follower.out")" = 1 ] || fail "the refusal was not said once"
grep -q "full resynchronisation" "$E2E_DIR/follower.out" && fail "the follower resynchronised: $(cat "$E2E_DIR/follower.out")"
[ "$(vlans_of 1000)" = 10 ] || fail "VNI 1000 has VLANs '$(vlans_of 1000)' after the follower ran"

efhost_stop
echo "PASS"
