#!/usr/bin/env bash
# The examples of docs/efhost-config.md and docs/vxlanctl.md run as they are
# written: efhost starts from the complete example configuration on the
# devices the page creates, and every vxlanctl example session prints what the
# page says it prints.
#
# The examples are read from the markdown itself, never copied here: a block
# is the fenced block on the line right after `<!-- example: NAME -->`.
#   efhost-devices     shell commands creating the devices (efhost-config.md)
#   efhost.yaml        efhost's configuration (efhost-config.md)
#   vxlanctl-env       shell commands pointing vxlanctl at that efhost
#   overlay.yaml       the apply file (vxlanctl.md)
#   vxlanctl-session   `$ vxlanctl ARGS` lines, each followed by what it
#                      prints; every such block, in the order of the page
#
# What differs on a test machine, and how it is rewritten (nothing else is):
#   - /tmp/efh1, the example's directory, becomes this run's directory in
#     every block (configuration, environment commands);
#   - the `module:` line names the library of the build under test,
#     ../src/libtq_vxlan_ef.so from $EFHOST's directory;
#   - the device commands run as written inside a network namespace of this
#     run, which keeps the documented device names (veth0 ...) apart from the
#     machine's own devices and from every other run;
#   - `vxlanctl` in a session is $VXLANCTL, run in this run's directory, where
#     overlay.yaml is written.
#
# A session command must exit 0, or 4 when its documented output has a
# `vxlanctl: error:` line. Its output (standard output, then standard error)
# must be the documented lines, blanks at line ends aside, where a line `...`
# stands for any number of lines.
set -u
HERE=$(cd "$(dirname "$0")" && pwd)
DOCS=$(cd "$HERE/../../docs" && pwd)
E2E_PREFIX=vxdoc$$
. "$HERE/lib.sh"

NS=$E2E_PREFIX-ef
WORK=
EF_PID=

cleanup() {
    if [ -n "$EF_PID" ]; then
        kill -TERM "$EF_PID" 2>/dev/null
        wait "$EF_PID" 2>/dev/null
    fi
    ip netns del "$NS" 2>/dev/null
    [ -n "$WORK" ] && rm -rf "$WORK"
    return 0
}
trap cleanup EXIT

# doc_block FILE NAME: the lines of every block marked NAME in FILE, in order.
doc_block() {
    local file=$1 name=$2 out rc=0
    out=$(awk -v marker="<!-- example: $name -->" '
        $0 == marker { state = 1; next }
        state == 1 {
            if ($0 !~ /^```/) { bad = "the marker on line " NR - 1 " is not followed by a fenced block"; exit }
            state = 2; found++; next
        }
        state == 2 { if ($0 ~ /^```/) { state = 0; next } print }
        END {
            if (bad == "" && state == 2) bad = "a block marked there is not closed"
            if (bad != "") { print bad > "/dev/stderr"; exit 3 }
            if (found == 0) exit 2
        }' "$file") || rc=$?
    [ "$rc" = 2 ] && fail "$file has no block marked '<!-- example: $name -->'"
    [ "$rc" = 0 ] || fail "$file: the block marked '$name' cannot be read"
    [ -n "$out" ] || fail "$file: the block marked '$name' is empty"
    printf '%s\n' "$out"
}

# The example's directory moved into this run's.
relocate() { sed -e "s#/tmp/efh1#$WORK#g"; }

# No path of the example may be left outside this run's directory.
only_run_paths() {   # file what
    local stray
    stray=$(grep -n '/tmp/' "$1" | grep -vF -e "$WORK" -e "$MODULE" || true)
    [ -z "$stray" ] || fail "$2 names a path this test does not move into its directory: $stray"
}

# output_matches WANT GOT: GOT's lines are WANT's, `...` standing for any run.
output_matches() {
    local -a want got segs
    mapfile -t want < "$1"
    mapfile -t got < "$2"
    local i n=${#want[@]} ng=${#got[@]}
    for i in "${!want[@]}"; do want[$i]=${want[$i]%"${want[$i]##*[![:space:]]}"}; done
    for i in "${!got[@]}"; do got[$i]=${got[$i]%"${got[$i]##*[![:space:]]}"}; done
    # Literal runs between `...` lines, each found after the one before; the
    # first is anchored at the start and the last at the end unless a `...`
    # stands there.
    local pos=0 start=0 k p len first=1 open_end
    [ "$n" -gt 0 ] && [ "${want[$((n - 1))]}" = "..." ] && open_end=1 || open_end=0
    while [ "$start" -le "$n" ]; do
        local end=$start
        while [ "$end" -lt "$n" ] && [ "${want[$end]}" != "..." ]; do end=$((end + 1)); done
        len=$((end - start))
        local last=0
        [ "$end" -ge "$n" ] && last=1
        if [ "$len" -gt 0 ] || { [ "$last" = 1 ] && [ "$open_end" = 0 ]; }; then
            local from=$pos to=$((ng - len))
            if [ "$first" = 1 ] && [ "$start" = 0 ]; then to=$pos; fi
            if [ "$last" = 1 ] && [ "$open_end" = 0 ]; then from=$((ng - len)); [ "$from" -lt "$pos" ] && return 1; fi
            local found=-1
            for ((p = from; p <= to; p++)); do
                local ok=1
                for ((k = 0; k < len; k++)); do
                    [ "${got[$((p + k))]-}" = "${want[$((start + k))]}" ] || { ok=0; break; }
                done
                [ "$ok" = 1 ] && { found=$p; break; }
            done
            [ "$found" -ge 0 ] || return 1
            pos=$((found + len))
        fi
        first=0
        start=$((end + 1))
    done
    return 0
}

# Runs one documented command and compares it with the documented output.
run_documented() {   # command-line want-file
    local line=$1 want=$2 got="$WORK/session.out" rc=0 want_rc=0
    local -a words
    set -f
    read -r -a words <<< "${line#\$ }"
    set +f
    [ "${words[0]}" = vxlanctl ] || fail "session line '$line' does not run vxlanctl"
    grep -q '^vxlanctl: error:' "$want" && want_rc=4
    (cd "$WORK" && "$VXLANCTL" "${words[@]:1}") > "$got" 2> "$got.err" || rc=$?
    cat "$got.err" >> "$got"
    [ "$rc" = "$want_rc" ] || { cat "$got"; fail "'$line': exit status $rc, the page implies $want_rc"; }
    output_matches "$want" "$got" || {
        echo "--- documented"; cat "$want"; echo "--- printed"; cat "$got"
        fail "'$line' does not print what the page shows"
    }
    echo "as documented: $line"
    SESSION_COMMANDS=$((SESSION_COMMANDS + 1))
}

# Every session block's commands in page order.
run_sessions() {
    local line cmd= want="$WORK/session.want"
    SESSION_COMMANDS=0
    : > "$want"
    while IFS= read -r line; do
        if [ "${line#\$ }" != "$line" ]; then
            [ -n "$cmd" ] && run_documented "$cmd" "$want"
            cmd=$line
            : > "$want"
        else
            [ -n "$cmd" ] || fail "session output line '$line' follows no command"
            printf '%s\n' "$line" >> "$want"
        fi
    done < "$WORK/sessions.txt"
    [ -n "$cmd" ] && run_documented "$cmd" "$want"
    [ "$SESSION_COMMANDS" -gt 0 ] || fail "the vxlanctl sessions hold no command"
}

start_efhost() {   # config
    rm -f "$WORK/efhost.out"
    (cd "$WORK" && exec ip netns exec "$NS" "$EFHOST" --config "$1") > "$WORK/efhost.out" 2>&1 &
    EF_PID=$!
    for _ in $(seq 100); do
        grep -q "^efhost: forwarding; control socket $WORK/ctl.sock$" "$WORK/efhost.out" 2>/dev/null && return 0
        kill -0 "$EF_PID" 2>/dev/null || { cat "$WORK/efhost.out"; EF_PID=; fail "efhost exited at start with $1"; }
        sleep 0.1
    done
    cat "$WORK/efhost.out"
    fail "efhost did not say it forwards on control socket $WORK/ctl.sock"
}

stop_efhost() {
    local rc=0
    kill -TERM "$EF_PID"
    wait "$EF_PID" || rc=$?
    EF_PID=
    [ "$rc" = 0 ] || { cat "$WORK/efhost.out"; fail "efhost exited with status $rc on SIGTERM"; }
}

# A value of the first `KEY: VALUE` line after the line START of a YAML file.
yaml_value() {   # file start key
    awk -v start="$2" -v key="$3" '
        $0 ~ start { on = 1 }
        on && match($0, key ":[ ]*[^ ,}#]+") {
            v = substr($0, RSTART, RLENGTH); sub(/^[^:]*:[ ]*/, "", v); print v; exit
        }' "$1"
}

say "facilities"
remove_stale_namespaces
[ "$(id -u)" -eq 0 ] || fail "the documented examples need root (network namespaces, veth devices)"
for tool in ip awk sed sysctl; do command -v "$tool" >/dev/null || fail "missing tool: $tool"; done
[ -x "${EFHOST:-}" ] || fail "efhost not found at '${EFHOST:-}'"
[ -x "${VXLANCTL:-}" ] || fail "vxlanctl not found at '${VXLANCTL:-}'"
MODULE=$(cd "$(dirname "$EFHOST")/../src" 2>/dev/null && pwd)/libtq_vxlan_ef.so
[ -f "$MODULE" ] || fail "the build's module is not at $MODULE"
ip netns add "$NS" || fail "cannot create a network namespace"
WORK=$(mktemp -d /tmp/vxdoc.XXXXXX) || fail "cannot create a directory below /tmp"

say "the examples, from the pages"
doc_block "$DOCS/efhost-config.md" efhost-devices > "$WORK/devices.sh"
doc_block "$DOCS/efhost-config.md" efhost.yaml > "$WORK/efhost.doc.yaml"
relocate < "$WORK/efhost.doc.yaml" | sed -e "s#^module:[^#]*#module: $MODULE  #" > "$WORK/efhost.yaml"
grep -q "^module: $MODULE " "$WORK/efhost.yaml" || fail "the efhost example has no 'module:' line to point at the build"
only_run_paths "$WORK/efhost.yaml" "the efhost example"
doc_block "$DOCS/vxlanctl.md" vxlanctl-env > "$WORK/env.doc.sh"
relocate < "$WORK/env.doc.sh" > "$WORK/env.sh"
only_run_paths "$WORK/env.sh" "the vxlanctl environment"
doc_block "$DOCS/vxlanctl.md" overlay.yaml > "$WORK/overlay.yaml"
doc_block "$DOCS/vxlanctl.md" vxlanctl-session > "$WORK/sessions.txt"
echo "efhost.yaml: $(wc -l < "$WORK/efhost.yaml") lines, overlay.yaml: $(wc -l < "$WORK/overlay.yaml") lines," \
     "sessions: $(grep -c '^\$ ' "$WORK/sessions.txt") commands"

say "the devices, created as documented"
ip netns exec "$NS" sh -e "$WORK/devices.sh" || fail "the documented device commands failed"
for dev in $(sed -n 's/.*attach: {device: \([^}, ]*\)}.*/\1/p' "$WORK/efhost.yaml"); do
    ip -n "$NS" link show dev "$dev" > /dev/null 2>&1 \
        || fail "the device commands do not create $dev, which the efhost example attaches"
done

say "efhost, started with the example"
start_efhost "$WORK/efhost.yaml"
. "$WORK/env.sh"
[ "${EFHOST_SOCKET:-}" = "$WORK/ctl.sock" ] \
    || fail "the vxlanctl environment points at '${EFHOST_SOCKET:-}', not at the example's control socket"

say "the vxlanctl sessions, in page order"
run_sessions

say "the module holds what the examples configure"
VNI=$(yaml_value "$WORK/overlay.yaml" '^vnis:' 'vni')
TIFX=$(yaml_value "$WORK/overlay.yaml" '^tunnels:' 'interface')
TSRC=$(yaml_value "$WORK/overlay.yaml" '^tunnels:' 'source')
TDST=$(yaml_value "$WORK/overlay.yaml" '^tunnels:' 'destination')
TNAME=$(yaml_value "$WORK/efhost.yaml" "index: $TIFX," 'name')
L2LOCAL=$(yaml_value "$WORK/efhost.yaml" 'index: 4094,' 'name')
for v in VNI TIFX TSRC TDST TNAME L2LOCAL; do
    [ -n "${!v}" ] || fail "cannot read $v from the examples"
done
echo "VNI $VNI, tunnel $TIFX $TNAME $TSRC -> $TDST, L2 local interface $L2LOCAL"
"$VXLANCTL" show entry > "$WORK/entry.txt" 2>&1 || fail "vxlanctl show entry: $(cat "$WORK/entry.txt")"
grep -qE "^VXLAN-EF-SHOW: \[vsd 1\] VXLAN $VNI\(Normal\)$" "$WORK/entry.txt" \
    || { cat "$WORK/entry.txt"; fail "show entry does not list VNI $VNI"; }
grep -qE "^VXLAN-EF-SHOW: \[vsd 1\] +$TNAME +$TIFX +$TSRC +$TDST *$" "$WORK/entry.txt" \
    || { cat "$WORK/entry.txt"; fail "show entry does not list tunnel $TIFX $TNAME $TSRC -> $TDST"; }
"$VXLANCTL" show status > "$WORK/status.txt" 2>&1 || fail "vxlanctl show status: $(cat "$WORK/status.txt")"
grep -qE "^VXLAN-EF-SHOW: \[vsd 1\] L2 Local Intf +: $L2LOCAL$" "$WORK/status.txt" \
    || { cat "$WORK/status.txt"; fail "show status does not name $L2LOCAL as the L2 local interface"; }
echo "show entry lists VNI $VNI and tunnel $TNAME; show status names $L2LOCAL"

say "the files the example names"
SYSLOG=$(sed -n 's/^syslog_file: *\([^ #]*\).*/\1/p' "$WORK/efhost.yaml")
[ "$SYSLOG" = "$WORK/syslog.log" ] || fail "the example's syslog_file is '$SYSLOG'"
grep -q "VXLAN-EF-SHOW: \[vsd 1\] VXLAN $VNI(Normal)" "$SYSLOG" \
    || fail "the syslog file $SYSLOG lacks the show lines the module printed"
MODLOG=$WORK/dc/vxlan/vxlan_ef_log_dump.text
[ -s "$MODLOG" ] || fail "the module's log file $MODLOG is missing or empty"
stop_efhost
echo "syslog file and module log file written; efhost stopped with status 0"

say "without syslog_file"
rm -f "$SYSLOG"
log_size=$(stat -c %s "$MODLOG")
sed '/^syslog_file:/d' "$WORK/efhost.yaml" > "$WORK/efhost-nosyslog.yaml"
start_efhost "$WORK/efhost-nosyslog.yaml"
(cd "$WORK" && "$VXLANCTL" apply overlay.yaml) > "$WORK/apply2.txt" 2>&1 \
    || fail "vxlanctl apply without syslog_file: $(cat "$WORK/apply2.txt")"
"$VXLANCTL" show entry "$VNI" > "$WORK/entry2.txt" 2>&1 || fail "vxlanctl show entry: $(cat "$WORK/entry2.txt")"
grep -qE "^VXLAN-EF-SHOW: \[vsd 1\] VXLAN $VNI\(Normal\)$" "$WORK/entry2.txt" \
    || { cat "$WORK/entry2.txt"; fail "without syslog_file, show entry does not reach vxlanctl"; }
[ ! -e "$SYSLOG" ] || fail "without syslog_file, $SYSLOG was written"
[ "$(stat -c %s "$MODLOG")" -gt "$log_size" ] || fail "without syslog_file, the module's log file was not written"
stop_efhost
echo "show lines reach vxlanctl, no syslog file, the module's log file grows"
say "PASS"
