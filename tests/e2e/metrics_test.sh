#!/usr/bin/env bash
# efhost's counters as operators read them, checked against traffic this test
# sends: the Prometheus endpoint (metrics: in efhost's YAML), vxlanctl
# counters as text, as JSON and as rates, and --json on the other read verbs.
#
#     h1 --- acc [ efhost, metrics on 127.0.0.1 in its namespace ] ul0 --- k1 (kernel VTEP) --- h2
#
# 20 pings of 100 bytes from h1 to h2 after warm-up: VNI 1000 and tunnel-k1
# (ifindex 101) count 20 encapsulated requests and 20 decapsulated replies,
# 142 inner bytes each (Ethernet 14, IPv4 20, ICMP 8, payload 100).
set -u
HERE=$(cd "$(dirname "$0")" && pwd)
. "$HERE/lib.sh"
FAMILY=4
trap topo_destroy EXIT
METRICS_PORT=9464
PINGS=20
FRAME_BYTES=142

require_facilities
topo_create 4
ip -n "$NS_EF" link set lo up
# No IPv6 chatter (router and multicast listener messages) among the hosts:
# only the test's own frames cross the overlay.
for ns in "$NS_H1" "$NS_H2" "$NS_H3" "$NS_K1" "$NS_K2"; do in_ns "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1; done
EFHOST_EXTRA_CONFIG="metrics: 127.0.0.1:$METRICS_PORT" efhost_start
write_overlay_config "$E2E_DIR/overlay.yaml" keep_only_k1
vxlanctl apply "$E2E_DIR/overlay.yaml" || fail "vxlanctl apply"

scrape() {   # path -> body on stdout, HTTP status on fd 3 as "status N"
    in_ns "$NS_EF" /usr/bin/python3 - "$1" <<'PY'
import sys, urllib.request, urllib.error
try:
    with urllib.request.urlopen("http://127.0.0.1:%s%s" % (9464, sys.argv[1]), timeout=5) as r:
        sys.stdout.write(r.read().decode())
        sys.stderr.write("status %d %s\n" % (r.status, r.headers.get("Content-Type")))
except urllib.error.HTTPError as e:
    sys.stderr.write("status %d\n" % e.code)
PY
}

# The value of one sample of a scrape, by its full name and labels.
sample() { grep -F "$2 " "$1" | awk '{print $2}'; }

say "warm-up: ARP and the first flood, then fixed neighbours so that only the pings cross"
in_ns "$NS_H1" ping -c 3 -i 0.3 -W 2 192.168.10.2 > /dev/null 2>&1 || true
mac_of() { ip -n "$1" -br link show eth0 | awk '{print $3}'; }
ip -n "$NS_H1" neigh replace 192.168.10.2 lladdr "$(mac_of "$NS_H2")" dev eth0 nud permanent
ip -n "$NS_H2" neigh replace 192.168.10.1 lladdr "$(mac_of "$NS_H1")" dev eth0 nud permanent
sleep 1
scrape /metrics > "$E2E_DIR/before.prom" 2> "$E2E_DIR/before.status" || fail "scrape before"
grep -qx "status 200 text/plain; version=0.0.4; charset=utf-8" "$E2E_DIR/before.status" \
    || fail "scrape answered $(cat "$E2E_DIR/before.status")"

say "$PINGS pings of 100 bytes from h1 to h2"
ping_ok "$NS_H1" 192.168.10.2 "$PINGS" -s 100
sleep 0.5
scrape /metrics > "$E2E_DIR/after.prom" 2>/dev/null || fail "scrape after"
vxlanctl --json counters > "$E2E_DIR/counters.json" 2> "$E2E_DIR/counters.err" || { cat "$E2E_DIR/counters.err"; fail "vxlanctl --json counters"; }

check_delta() {   # sample expected
    local was now
    was=$(sample "$E2E_DIR/before.prom" "$1"); now=$(sample "$E2E_DIR/after.prom" "$1")
    [ -n "$now" ] || fail "no sample $1 in the scrape"
    echo "$1: ${was:-0} -> $now"
    [ $((now - ${was:-0})) -eq "$2" ] || fail "$1 grew by $((now - ${was:-0})), expected $2"
}
check_delta 'vxlan_ef_vni_tx_frames_total{vni="1000"}' "$PINGS"
check_delta 'vxlan_ef_vni_rx_frames_total{vni="1000"}' "$PINGS"
check_delta 'vxlan_ef_vni_tx_bytes_total{vni="1000"}' $((PINGS * FRAME_BYTES))
check_delta 'vxlan_ef_vni_rx_bytes_total{vni="1000"}' $((PINGS * FRAME_BYTES))
check_delta 'vxlan_ef_tunnel_tx_frames_total{tunnel="tunnel-k1",ifindex="101"}' "$PINGS"
check_delta 'vxlan_ef_tunnel_rx_frames_total{tunnel="tunnel-k1",ifindex="101"}' "$PINGS"
check_delta 'vxlan_ef_vni_flood_frames_total{vni="1000"}' 0

say "every family has its HELP and TYPE, counters end in _total"
/usr/bin/python3 - "$E2E_DIR/after.prom" <<'PY' || fail "exposition format"
import re, sys
help_, type_, samples = {}, {}, []
for line in open(sys.argv[1]):
    line = line.rstrip("\n")
    if line.startswith("# HELP "):
        name = line.split()[2]; help_[name] = True
    elif line.startswith("# TYPE "):
        _, _, name, kind = line.split(); type_[name] = kind
    else:
        m = re.fullmatch(r'([a-zA-Z_:][a-zA-Z0-9_:]*)(\{[^}]*\})? ([0-9]+)', line)
        if not m:
            sys.exit("not a sample line: %r" % line)
        samples.append(m.group(1))
for name in set(samples):
    if name not in help_ or name not in type_:
        sys.exit("%s lacks # HELP or # TYPE" % name)
    if (type_[name] == "counter") != name.endswith("_total"):
        sys.exit("%s is a %s" % (name, type_[name]))
for needed in ("vxlan_ef_drops_total", "efhost_port_in_frames_total", "efhost_pipeline_received_frames_total"):
    if needed not in samples:
        sys.exit("no %s" % needed)
print("%d samples in %d families, each with HELP and TYPE" % (len(samples), len(set(samples))))
PY
grep -q '^vxlan_ef_drops_total{reason="unknown_vni"} [0-9]' "$E2E_DIR/after.prom" || fail "no unknown_vni drop sample"

say "vxlanctl --json counters agrees with the scrape"
/usr/bin/python3 - "$E2E_DIR/counters.json" "$E2E_DIR/after.prom" <<'PY' || fail "JSON counters"
import json, sys
doc = json.load(open(sys.argv[1]))
prom = dict(l.rsplit(" ", 1) for l in open(sys.argv[2]).read().splitlines() if not l.startswith("#"))
vni = [v for v in doc["module"]["vnis"] if v["vni"] == 1000][0]
tunnel = [t for t in doc["module"]["tunnels"] if t["ifindex"] == 101][0]
assert tunnel["name"] == "tunnel-k1", tunnel
assert int(prom['vxlan_ef_vni_tx_frames_total{vni="1000"}']) == vni["encapsulated_frames"], vni
assert int(prom['vxlan_ef_vni_rx_bytes_total{vni="1000"}']) == vni["decapsulated_bytes"], vni
assert set(doc["module"]["drops"]) >= {"unknown_vni", "arp_suppressed", "bad_inner_tag"}
assert doc["ports"][0]["name"] == "access1" and doc["ports"][0]["in"] > 0
print("VNI 1000: %d encapsulated, %d decapsulated" % (vni["encapsulated_frames"], vni["decapsulated_frames"]))
PY

say "vxlanctl counters as text"
vxlanctl counters > "$E2E_DIR/counters.txt" 2>/dev/null || fail "vxlanctl counters"
grep -E "^(module drops|vni|tunnel) " "$E2E_DIR/counters.txt"
grep -Eq "^module drops: [0-9]+" "$E2E_DIR/counters.txt" || fail "no module drops line"
grep -Eq "^vni 1000: decapsulated [1-9][0-9]* frames [0-9]+ bytes, encapsulated [1-9]" "$E2E_DIR/counters.txt" \
    || fail "no vni 1000 line"
grep -Eq "^tunnel 101 tunnel-k1: decapsulated [1-9]" "$E2E_DIR/counters.txt" || fail "no tunnel-k1 line"

say "vxlanctl counters --interval 1 --count 2: rates while h1 pings"
in_ns "$NS_H1" ping -c 15 -i 0.2 -W 2 192.168.10.2 > /dev/null 2>&1 &
PING_PID=$!
vxlanctl counters --interval 1 --count 2 > "$E2E_DIR/rates.txt" 2>&1 || fail "counters --interval"
wait "$PING_PID"
cat "$E2E_DIR/rates.txt" | grep -E "^(rates|vni 1000)"
[ "$(grep -c '^rates per second over ' "$E2E_DIR/rates.txt")" -eq 2 ] || fail "expected 2 samples of rates"
grep -Eq "^vni 1000: decapsulated_frames [1-9][0-9.]*, decapsulated_bytes" "$E2E_DIR/rates.txt" \
    || fail "no rate of VNI 1000"

say "--json on the other read verbs parses"
for verb in "show status" "show entry" "mac list" "suppress switches" "tunnel-intf list"; do
    vxlanctl --json $verb > "$E2E_DIR/verb.json" 2> "$E2E_DIR/verb.err" || { cat "$E2E_DIR/verb.err"; fail "vxlanctl --json $verb"; }
    /usr/bin/python3 -c 'import json,sys; d=json.load(open(sys.argv[1])); assert d["command"]==sys.argv[2] and isinstance(d["lines"], list); print("%s: %d lines" % (sys.argv[2], len(d["lines"])))' \
        "$E2E_DIR/verb.json" "$verb" || fail "vxlanctl --json $verb is not the expected JSON"
done
rc=0; vxlanctl --json debug 0 > /dev/null 2>&1 || rc=$?
[ "$rc" = 2 ] || fail "--json on a verb that writes exited $rc, expected 2"

say "anything but /metrics is 404"
scrape /other > /dev/null 2> "$E2E_DIR/other.status"
grep -q "^status 404" "$E2E_DIR/other.status" || fail "/other answered $(cat "$E2E_DIR/other.status")"
efhost_stop
say "PASS"
