#!/usr/bin/env bash
# A thousand clients on one locked port: every lease must be installed in
# the data plane within five seconds of the bridge learning its MAC.
#
# lab/tools/dhcp-swarm leases CLIENTS addresses from a real ISC dhcpd, each
# from a MAC of its own, through a port tavrind locks. The bridge learns
# each MAC from its first DHCP frame; tavrind asks dhcpd about it and adds
# its (port, MAC, IP) to the nftables set `allowed`. Two monitors in the
# switch's namespace stamp, as the kernel announces them, each MAC the
# bridge learns (`bridge monitor fdb`) and each element the set gains
# (`nft monitor`); the delay from the later of the MAC's learning and the
# client's ACK to its element is measured for every client and the figures
# printed.
#
# Topology (every name carries a per-run token; all torn down at exit):
#
#   srv (lan0, NET.0.1, dhcpd) --- p0 \
#                                      br0 in "sw" (NET.0.2; tavrind)
#   cl (eth0: the swarm) ------ p1 (locked)
#
# Usage: sudo lab/scale.test.sh [BUILD_DIR]   (CLIENTS=1000 LIMIT=5 RATE=500)
# tavrind, tavrinctl and dhcp-swarm come from BUILD_DIR, else from next to
# LQ_PROBE (scripts/test.sh sets it), else they are built into the run's
# work directory.

set -u -o pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=lib.sh
. "$HERE/lib.sh"

CLIENTS=${CLIENTS:-1000}
LIMIT=${LIMIT:-5}
RATE=${RATE:-500}

lab_init scale
W=$LAB_WORK

# ---------------------------------------------------------------- tools

lab_need_pkgs isc-dhcp-server nftables iproute2 || lab_die "needs isc-dhcp-server and nftables"
command -v python3 >/dev/null || lab_die "needs python3 to stamp and compare the events"

TAVRIND=$(lab_bin tavrind TAVRIND src/daemon "${1:-}") || exit 2
TAVRINCTL=$(lab_bin tavrinctl TAVRINCTL src/daemon "${1:-}") || exit 2
SWARM=$(lab_bin dhcp-swarm DHCP_SWARM lab "${1:-}") || exit 2

# ---------------------------------------------------------------- network

NET=10.195
SRV=$NET.0.1
SWITCH=$NET.0.2

setup_network() {
   lab_ns sw && lab_ns srv && lab_ns cl || return 1
   local n
   for n in sw srv cl; do
      lab_in "$n" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
   done
   lab_bridge sw br0 && lab_addr sw br0 $SWITCH/20 &&
      lab_veth srv lan0 sw p0 && lab_bridge_port sw br0 p0 && lab_addr srv lan0 $SRV/20 &&
      lab_veth cl eth0 sw p1 && lab_bridge_port sw br0 p1
}
setup_network || lab_die "could not build the namespaces"

# ---------------------------------------------------------------- dhcpd

cat >"$W/dhcpd.conf" <<EOF
authoritative;
ping-check false;
default-lease-time 3600;
max-lease-time 3600;
subnet $NET.0.0 netmask 255.255.240.0 {
   range $NET.1.0 $NET.15.254;
   allow leasequery;
}
EOF
lab_dhcpd srv lan0 || lab_die "dhcpd did not start"

# ---------------------------------------------------------------- tavrind

cat >"$W/tavrin.yaml" <<EOF
local-interface: br0
bridge: br0
dhcp-servers:
  - $SRV
interfaces:
  - p1
database: $W/tavrin.db
control-socket: $W/tavrind.sock
trace-dir: $W
EOF
ctl() { "$TAVRINCTL" --socket "$W/tavrind.sock" "$@"; }
# The trace file's ring is what a post-mortem needs; a thousand clients'
# worth of lines on disk is not.
lab_spawn sw "$W/tavrind.log" env TRACERING_DISABLE=1 "$TAVRIND" --config "$W/tavrin.yaml" \
   --foreground
TAVRIND_PID=$LAB_PID
lab_wait 15 ctl show counters >/dev/null 2>&1 || {
   cat "$W/tavrind.log" >&2
   lab_die "tavrind did not start"
}
lab_wait 10 lab_in sw nft list set bridge tavrin allowed >/dev/null 2>&1 ||
   lab_die "tavrind did not program its nftables table"

# ---------------------------------------------------------------- monitors

# stamp FILE CMD...: runs CMD in the switch's namespace, each output line
# prefixed with the wall-clock time it was read, in seconds.
stamp() {
   local out=$1
   shift
   lab_spawn sw "$out" python3 -u -c '
import subprocess, sys, time
p = subprocess.Popen(sys.argv[1:], stdout=subprocess.PIPE, text=True, bufsize=1)
for line in p.stdout:
    sys.stdout.write("%.6f %s" % (time.time(), line))
' "$@"
}
stamp "$W/fdb.log" bridge monitor fdb
stamp "$W/nft.log" nft monitor new elements
# A probe of each kind shows that both monitors read before the swarm starts.
PROBE_MAC=02:00:5e:4f:ff:ff
probe_monitors() {
   lab_in sw bridge fdb replace $PROBE_MAC dev p0 master static
   lab_in sw nft "add table bridge probe; add set bridge probe s { type ether_addr; };
      flush set bridge probe s; add element bridge probe s { $PROBE_MAC }"
   grep -qs "$PROBE_MAC" "$W/fdb.log" && grep -qs "$PROBE_MAC" "$W/nft.log"
}
lab_wait 10 probe_monitors || lab_die "the monitors do not report"
lab_in sw bridge fdb del $PROBE_MAC dev p0 master static
lab_in sw nft delete table bridge probe

# ---------------------------------------------------------------- swarm

lab_log "$CLIENTS clients lease through p1 ($RATE new clients a second)"
lab_in cl "$SWARM" --iface eth0 --count "$CLIENTS" --rate "$RATE" --timeout 60 \
   --mac-base 02:00:5e:50:00:00 --out "$W/swarm.out" 2>"$W/swarm.err"
SWARM_RC=$?
cat "$W/swarm.err" >&2
if [ "$SWARM_RC" = 0 ]; then
   lab_pass "every-client-leased"
else
   lab_fail "every-client-leased" "dhcp-swarm exit $SWARM_RC: $(tail -n 1 "$W/swarm.err")"
fi

installed() { grep -o '02:00:5e:5[0-9a-f]:[0-9a-f]\{2\}:[0-9a-f]\{2\}' "$W/nft.log" | sort -u | wc -l; }
all_installed() { [ "$(installed)" -ge "$CLIENTS" ]; }
lab_wait $((LIMIT + 10)) all_installed
lab_log "$(installed) of $CLIENTS leases installed"

# ---------------------------------------------------------------- figures

python3 - "$W/fdb.log" "$W/nft.log" "$W/swarm.out" "$CLIENTS" "$LIMIT" >"$W/figures" <<'EOF'
import re, sys
fdb_log, nft_log, swarm_out, clients, limit = sys.argv[1:6]
clients, limit = int(clients), float(limit)
mac_re = re.compile(r"02:00:5e:5[0-9a-f](?::[0-9a-f]{2}){2}")
ours = set()
leased, bound = {}, {}
for line in open(swarm_out):
    mac, ip, _, ack = line.split()[:4]
    ours.add(mac)
    if ip != "-":
        leased[mac] = ip
        bound[mac] = float(ack)
learned, installed = {}, {}
for line in open(fdb_log):
    t, rest = line.split(" ", 1)
    if rest.startswith("Deleted"):
        continue
    for mac in mac_re.findall(rest):
        learned.setdefault(mac, float(t))
for line in open(nft_log):
    t, rest = line.split(" ", 1)
    for mac, ip in re.findall(r"(02:00:5e:5[0-9a-f](?::[0-9a-f]{2}){2}) \. ([0-9.]+)", rest):
        installed.setdefault(mac, (float(t), ip))
delays, late, missing, wrong = [], [], [], []
late_bound = 0
for mac in sorted(ours):
    if mac not in learned or mac not in installed:
        missing.append(mac)
        continue
    t, ip = installed[mac]
    if leased.get(mac) != ip:
        wrong.append(mac)
    # The bridge learns a MAC from its first DISCOVER; until the ACK there is
    # no lease to install, so a slow server's time is not the agent's.
    start = max(learned[mac], bound.get(mac, 0.0))
    if bound.get(mac, 0.0) > learned[mac] + 1.0:
        late_bound += 1
    d = t - start
    delays.append(d)
    if d > limit:
        late.append(mac)
delays.sort()
def pct(p):
    return delays[min(len(delays) - 1, int(p * len(delays)))] if delays else float("nan")
print("clients %d, learned %d, installed %d" % (clients, len(learned.keys() & ours), len(installed.keys() & ours)))
if delays:
    span = max(t for t, _ in installed.values()) - min(learned.values())
    print("learned or bound, to installed (s): min %.3f median %.3f p95 %.3f p99 %.3f max %.3f" %
          (delays[0], pct(0.5), pct(0.95), pct(0.99), delays[-1]))
    print("first learned to last installed: %.3f s" % span)
print("bound only after the first lease query (a second after learning): %d" % late_bound)
print("over %.1f s: %d; not learned or not installed: %d; installed with another address: %d" %
      (limit, len(late), len(missing), len(wrong)))
ok = len(delays) == clients and not late and not missing and not wrong
print("verdict", "ok" if ok else "failed")
EOF
sed 's/^/   /' "$W/figures"
if grep -q '^verdict ok' "$W/figures"; then
   lab_pass "every-lease-installed-within-${LIMIT}s-of-learning"
else
   lab_fail "every-lease-installed-within-${LIMIT}s-of-learning" "$(grep '^over' "$W/figures")"
fi
lab_log "tavrind: $(ctl show counters | grep -E '^tavrin_(queries_sent_total|leases|dataplane_allowed) ' | tr '\n' ' ')"

if ! kill -0 "$TAVRIND_PID" 2>/dev/null; then
   lab_fail tavrind-survived "tavrind exited during the run"
fi
if [ "$LAB_FAILED" != 0 ]; then
   echo "--- tavrind log (last 30 lines)" >&2
   tail -n 30 "$W/tavrind.log" >&2
fi
lab_summary
