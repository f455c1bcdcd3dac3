#!/usr/bin/env bash
# The Debian packages as a user gets them: built from the committed tree with
# dpkg-buildpackage (without their own checks: the suite runs those), free of
# lintian errors, their units clean for systemd-analyze verify, and the
# installed efhost, started with the installed example configuration (only
# its paths moved into the scratch tree) in a network namespace whose veths
# carry the example's device names, answers `vxlanctl show status` on the
# default control socket with the installed overlay applied.
#
# Usage: package_test.sh SOURCE_DIR
set -u -o pipefail

SRC=${1:?usage: package_test.sh SOURCE_DIR}
PREFIX=vxpkg$$
WORK=$(mktemp -d /tmp/$PREFIX.XXXXXX)
NS=$PREFIX-ef

fail() { printf '%s\n' "FAIL: $*" >&2; exit 1; }
cleanup() {
    # An efhost left behind by a run that timed out.
    [ -s "$WORK/efhost.pid" ] && kill -KILL "$(cat "$WORK/efhost.pid")" 2>/dev/null
    ip netns del "$NS" 2>/dev/null
    rm -rf "$WORK"
}
trap cleanup EXIT
trap 'exit 1' INT TERM HUP

[ "$(id -u)" -eq 0 ] || fail "the package test needs root (dpkg-buildpackage's tree, a network namespace)"
for tool in git dpkg-buildpackage dh lintian dpkg-deb systemd-analyze ip unshare mount; do
    command -v "$tool" >/dev/null || fail "missing tool: $tool (scripts/install-deps.sh installs it)"
done
git -C "$SRC" rev-parse --verify -q HEAD >/dev/null || fail "$SRC is not a git work tree with a commit"

# Only what is committed enters a package.
mkdir "$WORK/src"
git -C "$SRC" archive HEAD | tar -x -C "$WORK/src" || fail "git archive of $SRC failed"

start=$SECONDS
(cd "$WORK/src" && DEB_BUILD_OPTIONS="nocheck noddebs parallel=2" dpkg-buildpackage -us -uc -b) \
    >"$WORK/build.log" 2>&1 || { tail -n 40 "$WORK/build.log" >&2; fail "dpkg-buildpackage failed"; }
echo "== packages built in $((SECONDS - start)) s:"
(cd "$WORK" && ls ./*.deb)
changes=$(ls "$WORK"/*.changes)

start=$SECONDS
lintian --fail-on none "$changes" >"$WORK/lintian.log" 2>&1
echo "== lintian ($((SECONDS - start)) s):"
cat "$WORK/lintian.log"
grep -q '^E: ' "$WORK/lintian.log" && fail "lintian reports errors (E: lines above)"

ROOT=$WORK/root
for deb in "$WORK"/*.deb; do dpkg-deb -x "$deb" "$ROOT" || fail "dpkg-deb -x $deb failed"; done

# systemd-analyze checks the commands and manual pages a unit names on the
# running system: the packages' own are laid over it in a mount namespace
# of the check's own.
export ROOT
verify=$(unshare --mount --propagation private bash -c '
    for d in /usr/sbin /usr/share/man/man8; do
        mount -t overlay overlay -o "lowerdir=$ROOT$d:$d" "$d" || exit 3
    done
    systemd-analyze verify "$ROOT"/lib/systemd/system/efhost.service \
        "$ROOT"/lib/systemd/system/evpn-follower.service' 2>&1) \
    || fail "systemd-analyze verify failed: $verify"
[ -z "$verify" ] || fail "systemd-analyze verify is not clean: $verify"
echo "== systemd-analyze verify: clean"

# The example configuration, its paths moved into the scratch tree; the
# control socket stays the default one, in a /run of the test's own.
CFG_DIR=$WORK/etc-efhost
cp -r "$ROOT/etc/efhost" "$CFG_DIR"
mkdir "$WORK/log"
sed -i -e "s|/var/log/efhost|$WORK/log|g" -e "s|module: /usr/lib/|module: $ROOT/usr/lib/|" "$CFG_DIR/efhost.yaml"
devices=$(sed -n 's/.*attach: {device: \([^}]*\)}.*/\1/p' "$CFG_DIR/efhost.yaml")
[ -n "$devices" ] || fail "the example configuration names no device"

ip netns add "$NS" || fail "cannot create network namespace $NS"
for d in $devices; do
    ip -n "$NS" link add "$d" type veth peer name "$d-peer" || fail "cannot create veth $d"
    ip netns exec "$NS" sysctl -qw "net.ipv6.conf.$d.disable_ipv6=1"
    ip -n "$NS" link set "$d" up && ip -n "$NS" link set "$d-peer" up
done

# One mount namespace for efhost and vxlanctl, so that /run/efhost is theirs.
export CFG_DIR WORK
status=$(timeout 60 ip netns exec "$NS" unshare --mount --propagation private bash -c '
    mount -t tmpfs tmpfs /run && mkdir /run/efhost || exit 3
    "$ROOT/usr/sbin/efhost" --config "$CFG_DIR/efhost.yaml" >"$WORK/efhost.log" 2>&1 &
    pid=$!
    echo "$pid" >"$WORK/efhost.pid"
    for _ in $(seq 100); do
        out=$(env -u EFHOST_SOCKET "$ROOT/usr/sbin/vxlanctl" show status 2>&1)
        printf "%s\n" "$out" | grep -q "Entry Count *: 1$" && break
        sleep 0.1
    done
    printf "%s\n" "$out"
    kill -TERM "$pid"
    wait "$pid"
    echo "efhost exit status $?"
    rm -f "$WORK/efhost.pid"
') || fail "the installed efhost could not be run in $NS: $status"
echo "== vxlanctl show status through the default socket:"
printf '%s\n' "$status"
echo "== efhost's log:"
cat "$WORK/efhost.log"
printf '%s\n' "$status" | grep -q "Entry Count *: 1$" \
    || fail "vxlanctl show status did not show the installed overlay's VNI"
printf '%s\n' "$status" | grep -qx "efhost exit status 0" || fail "efhost did not stop cleanly on SIGTERM"
grep -qx "efhost: forwarding; control socket /run/efhost/efhost.sock" "$WORK/efhost.log" \
    || fail "efhost did not report forwarding on the default control socket"
echo "PASS"
