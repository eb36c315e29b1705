#!/usr/bin/env bash
# The rtnetlink follower against a real kernel.
#
# The unit tests feed the follower's tables from canned messages; here the
# follower (inside lab/tools/rtnl-watch) reads a live bridge in a namespace,
# and its view of the MAC table and of the primary addresses is held
# against what iproute2 reads from the same kernel (`bridge -j fdb show`,
# `ip -j addr show`) after each change: the initial dump, entries learned
# from real frames, a move, an entry made static, a port leaving the
# bridge, a VLAN entry (where the kernel filters VLANs), addresses with
# secondaries and promotion. Then the follower is restarted with a tiny
# receive buffer and bursts of FDB changes overflow it (ENOBUFS): its view
# must converge to the kernel's again, stale entries deleted, without a
# single notification of the burst having been read.
#
# Topology (every name carries a per-run token; all torn down at exit):
#
#   c1 (eth0, MAC1) --- p1 \
#                           br0 in "sw"      up0 (addresses)
#   c2 (eth0, MAC2) --- p2 /            (up0: a veth whose peer stays idle)
#
# Usage: sudo lab/rtnl-follower.test.sh
# The tool comes from RTNL_WATCH, else from next to LQ_PROBE (scripts/test.sh
# sets it), else it is built from this tree into the run's work directory.

set -u -o pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=lib.sh
. "$HERE/lib.sh"

lab_init rtnl-follower
W=$LAB_WORK

WATCH=$(lab_bin rtnl-watch RTNL_WATCH lab) || exit 2
command -v python3 >/dev/null || lab_die "needs python3 to compare the views"
command -v bridge >/dev/null || lab_die "needs 'bridge' (package iproute2)"

# ---------------------------------------------------------------- network

NET=10.198
MAC1=02:00:5e:20:00:01
MAC2=02:00:5e:20:00:02
SPARE=02:00:5e:20:00:77

in_sw() { lab_in sw "$@"; }

setup_network() {
   lab_ns sw && lab_ns c1 && lab_ns c2 || return 1
   local c
   for c in c1 c2; do
      # Quiet clients: only the frames the lab sends teach the bridge.
      lab_in $c sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
   done
   lab_bridge sw br0 &&
      in_sw ip link set br0 type bridge ageing_time 3000000 &&
      lab_veth c1 eth0 sw p1 && lab_bridge_port sw br0 p1 &&
      lab_veth c2 eth0 sw p2 && lab_bridge_port sw br0 p2 &&
      lab_mac c1 eth0 $MAC1 && lab_mac c2 eth0 $MAC2 &&
      lab_addr c1 eth0 $NET.1.11/24 && lab_addr c2 eth0 $NET.1.12/24 &&
      in_sw ip link add up0 type veth peer name up1 && in_sw ip link set up0 up
}
setup_network || lab_die "could not build the namespaces"

# ---------------------------------------------------------------- views

# The follower's view, from the snapshot it prints on SIGUSR1.
WATCH_PID=""
WATCH_LOG=""
SNAP=0
take_snapshot() {
   SNAP=$((SNAP + 1))
   kill -USR1 "$WATCH_PID" 2>/dev/null || return 1
   lab_wait 5 grep -q "^snapshot end $SNAP\$" "$WATCH_LOG" || return 1
   sed -n "/^snapshot begin $SNAP\$/,/^snapshot end $SNAP\$/p" "$WATCH_LOG" >"$W/snap"
}

# Compares the snapshot with iproute2's reading of the kernel; prints the
# differences to $W/diff. The MAC table holds what br0 learned on a port:
# not its own addresses, not static or permanent entries, not the ports'
# own device tables ("self").
cat >"$W/compare.py" <<'EOF'
import json, sys
snap, fdb_json, addr_json = sys.argv[1:4]
tool_fdb, tool_ip = set(), set()
for line in open(snap):
    w = line.split()
    if w and w[0] == "fdb":
        tool_fdb.add((int(w[1]), w[2], w[3]))
    elif w and w[0] == "ip":
        tool_ip.add((w[1], w[2]))
kernel_fdb = set()
for e in json.load(open(fdb_json)):
    if e.get("master") != "br0" or e["ifname"] == "br0" or "self" in e.get("flags", []):
        continue
    if e.get("state") in ("permanent", "static"):
        continue
    kernel_fdb.add((int(e.get("vlan", 0)), e["mac"], e["ifname"]))
kernel_ip = set()
for link in json.load(open(addr_json)):
    primaries = [a["local"] for a in link.get("addr_info", [])
                 if a.get("family") == "inet" and not a.get("secondary")]
    if primaries:
        kernel_ip.add((link["ifname"], primaries[0]))
out = []
for what, tool, kernel in (("fdb", tool_fdb, kernel_fdb), ("ip", tool_ip, kernel_ip)):
    for e in sorted(kernel - tool):
        out.append("missing %s %s" % (what, e))
    for e in sorted(tool - kernel):
        out.append("extra %s %s" % (what, e))
print("\n".join(out))
sys.exit(1 if out else 0)
EOF

views_match() {
   take_snapshot || return 1
   in_sw bridge -j fdb show br br0 >"$W/fdb.json" &&
      in_sw ip -j -4 addr show >"$W/addr.json" &&
      python3 "$W/compare.py" "$W/snap" "$W/fdb.json" "$W/addr.json" >"$W/diff"
}

# check NAME [SECONDS]: the views converge in time, else the differences.
check() {
   if lab_wait "${2:-5}" views_match; then
      lab_pass "$1"
   else
      lab_fail "$1" "views differ: $(head -n 5 "$W/diff" | tr '\n' ';')"
   fi
}

# in_view PATTERN: the last snapshot has a line matching PATTERN.
in_view() { grep -Eq "$1" "$W/snap"; }

counter() { sed -n "s/.* $1=\([0-9]*\).*/\1/p" "$W/snap"; }

start_watch() {
   WATCH_LOG=$W/watch.$1.log
   SNAP=0
   shift
   lab_spawn sw "$WATCH_LOG" "$WATCH" --bridge br0 "$@"
   WATCH_PID=$LAB_PID
   lab_wait 5 grep -q '^synced 1$' "$WATCH_LOG"
}

# ---------------------------------------------------------------- cases

# Entries that exist before the follower starts come from its first dump.
in_sw bridge fdb add $SPARE dev p1 master dynamic
in_sw bridge fdb add 02:00:5e:20:00:88 dev p2 master static
lab_addr sw up0 $NET.9.1/24

if ! start_watch follow; then
   lab_fail initial-dump "rtnl-watch did not report its first dump: $(tail -n 3 "$WATCH_LOG")"
   lab_summary
   exit 1
fi
check initial-dump
if in_view "^fdb 0 $SPARE p1\$" && ! in_view "02:00:5e:20:00:88" && in_view "^ip up0 $NET.9.1\$"; then
   lab_pass initial-dump-content
else
   lab_fail initial-dump-content "expected $SPARE on p1, no static entry, up0 $NET.9.1"
fi

# One datagram from c1 to c2: c1's ARP request and c2's reply teach the
# bridge both MACs.
lab_in c1 python3 -c "import socket; socket.socket(socket.AF_INET, socket.SOCK_DGRAM).sendto(b'x', ('$NET.1.12', 9))" ||
   lab_log "could not send from c1"
lab_wait 3 sh -c "ip netns exec $(lab_name sw) bridge fdb show br br0 | grep -q $MAC2" ||
   lab_log "the bridge did not learn MAC2"
check learned-from-frames
if in_view "^fdb 0 $MAC1 p1\$" && in_view "^fdb 0 $MAC2 p2\$"; then
   lab_pass learned-on-their-ports
else
   lab_fail learned-on-their-ports "MAC1 on p1 and MAC2 on p2 expected"
fi

in_sw bridge fdb replace $SPARE dev p2 master dynamic
check moved
in_view "^fdb 0 $SPARE p2\$" && lab_pass moved-to-p2 || lab_fail moved-to-p2 "$SPARE not on p2"

in_sw bridge fdb replace $SPARE dev p2 master static
check made-static
in_view "$SPARE" && lab_fail static-left-out "$SPARE still in the view" || lab_pass static-left-out

in_sw ip link set p2 nomaster
check port-left
in_view "$MAC2" && lab_fail port-left-entries-gone "MAC2 still in the view" ||
   lab_pass port-left-entries-gone
in_sw ip link set p2 master br0

if in_sw ip link set br0 type bridge vlan_filtering 1 2>/dev/null; then
   in_sw bridge vlan add dev p1 vid 7 &&
      in_sw bridge fdb add 02:00:5e:20:00:07 dev p1 master dynamic vlan 7
   check vlan-entry
   in_view "^fdb 7 02:00:5e:20:00:07 p1\$" && lab_pass vlan-keyed || lab_fail vlan-keyed "no VLAN 7 key"
   in_sw ip link set br0 type bridge vlan_filtering 0
else
   lab_skip vlan-entry "this kernel's bridge does not filter VLANs"
fi

# Addresses: a secondary leaves the primary alone; with promotion on, the
# secondary takes over when the primary goes, but in the kernel's list it
# goes behind the primaries of other subnets; the last one gone, no entry.
in_sw sysctl -qw net.ipv4.conf.up0.promote_secondaries=1
lab_addr sw up0 $NET.9.2/24
check addresses-secondary
in_view "^ip up0 $NET.9.1\$" && lab_pass primary-kept || lab_fail primary-kept "up0 primary changed"
in_sw ip addr del $NET.9.1/24 dev up0
check addresses-promoted
in_view "^ip up0 $NET.9.2\$" && lab_pass secondary-promoted || lab_fail secondary-promoted "up0 not $NET.9.2"
lab_addr sw up0 192.168.77.1/24
lab_addr sw up0 $NET.9.3/24
in_sw ip addr del $NET.9.2/24 dev up0
check addresses-promoted-behind
in_view "^ip up0 192.168.77.1\$" && lab_pass promoted-behind-other-primaries ||
   lab_fail promoted-behind-other-primaries "up0 not 192.168.77.1"
in_sw ip addr flush dev up0
check addresses-flushed
in_view "^ip up0 " && lab_fail no-address-no-entry "up0 still listed" || lab_pass no-address-no-entry

# ---------------------------------------------------------------- overrun

lab_kill "$WATCH_PID"
# The smallest buffer the kernel grants holds a handful of notifications.
start_watch overrun --rcvbuf 1 || lab_fail overrun-start "rtnl-watch did not start"

burst() { # burst FILE: one `bridge -batch` run, as fast as the kernel takes it
   in_sw bridge -batch "$1" >"$W/batch.log" 2>&1 || lab_log "bridge -batch: $(head -n 2 "$W/batch.log")"
}
BURST=2000
for ((i = 0; i < BURST; i++)); do
   printf 'fdb add 02:00:5e:3%x:%02x:%02x dev p%d master dynamic\n' $((i >> 16 & 15)) \
      $((i >> 8 & 255)) $((i & 255)) $((i % 2 + 1))
done >"$W/add.batch"
burst "$W/add.batch"
check overrun-add-converges 20
if [ "$(counter overruns)" -ge 1 ] && [ "$(counter resyncs)" -ge 1 ]; then
   lab_pass overrun-detected
else
   lab_fail overrun-detected "expected overruns and resyncs: $(grep counters "$W/snap")"
fi
n=$(grep -c '^fdb 0 02:00:5e:3' "$W/snap")
[ "$n" = $BURST ] && lab_pass overrun-all-entries || lab_fail overrun-all-entries "$n of $BURST"

# Deletions lost in an overflow must not leave stale entries behind.
before=$(counter resyncs)
{
   for ((i = 0; i < BURST; i += 2)); do
      printf 'fdb del 02:00:5e:3%x:%02x:%02x dev p%d master\n' $((i >> 16 & 15)) \
         $((i >> 8 & 255)) $((i & 255)) $((i % 2 + 1))
   done
   for ((i = 0; i < 500; i++)); do
      printf 'fdb add 02:00:5e:4%x:%02x:%02x dev p2 master dynamic\n' $((i >> 16 & 15)) \
         $((i >> 8 & 255)) $((i & 255))
   done
} >"$W/churn.batch"
burst "$W/churn.batch"
check overrun-churn-converges 20
[ "$(counter resyncs)" -gt "$before" ] && lab_pass overrun-churn-resynced ||
   lab_fail overrun-churn-resynced "no resync after the second burst"
n=$(grep -c '^fdb 0 02:00:5e:3' "$W/snap")
[ "$n" = $((BURST / 2)) ] && lab_pass overrun-stale-deleted || lab_fail overrun-stale-deleted "$n left, $((BURST / 2)) expected"
[ "$(counter malformed)" = 0 ] && lab_pass no-malformed || lab_fail no-malformed "$(grep counters "$W/snap")"

lab_summary
