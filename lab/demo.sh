#!/usr/bin/env bash
# The demo on a real network: tavrind locks three ports of a Linux bridge to
# the leases a real ISC dhcpd gave their clients.
#
# Three clients get leases from dhcpd through the locked ports; tavrind
# learns their MACs from the bridge, asks dhcpd about them (DHCPLEASEQUERY)
# and opens the data plane for each leased (port, MAC, IP); each client then
# reaches the server. One client adds an address it was never leased and
# tries again from it: the data plane drops its packets and traps them to
# tavrind, which asks dhcpd and finds no lease for it, so it stays blocked.
# The trapped packets show in `tavrinctl show counters`, the lease table in
# `tavrinctl show leases`; then everything is torn down.
#
# Topology (every name carries a per-run token; all torn down at exit):
#
#   srv (lan0, NET.1, dhcpd) ---------- p0 \
#   c1 (eth0) ------------------ p1 (locked) br0 in "sw" (NET.2: the switch's
#   c2 (eth0) ------------------ p2 (locked)    own address; tavrind runs here)
#   c3 (eth0) ------------------ p3 (locked) /
#
# Usage: sudo lab/demo.sh [BUILD_DIR]
# tavrind and tavrinctl come from BUILD_DIR (a CMake build of this tree),
# else they are built into the run's work directory. LAB_VERBOSE=1 shows
# tavrind's log as it runs. Needs root; installs isc-dhcp-server,
# isc-dhcp-client, nftables and iputils-ping with apt-get when missing.

set -u -o pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=lib.sh
. "$HERE/lib.sh"

lab_init demo
W=$LAB_WORK
BUILD=${1:-}

say() { printf '\n== %s\n' "$*"; }
show() { sed 's/^/   /'; }

# ---------------------------------------------------------------- tools

lab_need_pkgs isc-dhcp-server isc-dhcp-client nftables iputils-ping ||
   lab_die "needs isc-dhcp-server, isc-dhcp-client, nftables and iputils-ping"

TAVRIND=$(lab_bin tavrind TAVRIND src/daemon "$BUILD") || exit 2
TAVRINCTL=$(lab_bin tavrinctl TAVRINCTL src/daemon "$BUILD") || exit 2

# ---------------------------------------------------------------- network

NET=10.196
SRV=$NET.1.1
SWITCH=$NET.1.2
SPOOFED=$NET.1.50 # in the subnet, outside dhcpd's range: never leased
CLIENTS=(c1 c2 c3)

setup_network() {
   lab_ns sw && lab_ns srv || return 1
   lab_bridge sw br0 && lab_addr sw br0 $SWITCH/24 || return 1
   lab_veth srv lan0 sw p0 && lab_bridge_port sw br0 p0 && lab_addr srv lan0 $SRV/24 || return 1
   local i=1 c
   for c in "${CLIENTS[@]}"; do
      lab_ns "$c" && lab_veth "$c" eth0 sw "p$i" && lab_bridge_port sw br0 "p$i" &&
         lab_mac "$c" eth0 "02:00:5e:40:00:0$i" || return 1
      i=$((i + 1))
   done
   # IPv6 chatter is not this lock's business; quiet namespaces read better.
   for c in sw srv "${CLIENTS[@]}"; do
      lab_in "$c" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
   done
}
setup_network || lab_die "could not build the namespaces"

# ---------------------------------------------------------------- dhcpd

# Lease queries come from the switch's address, in the served subnet.
cat >"$W/dhcpd.conf" <<EOF
authoritative;
ping-check false;
default-lease-time 600;
max-lease-time 600;
subnet $NET.1.0 netmask 255.255.255.0 {
   range $NET.1.100 $NET.1.199;
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
  - p2
  - p3
database: $W/tavrin.db
control-socket: $W/tavrind.sock
trace-dir: $W
EOF
ctl() { lab_in sw "$TAVRINCTL" --socket "$W/tavrind.sock" "$@"; }

say "starting tavrind on bridge br0, ports p1 p2 p3 locked"
lab_spawn sw "$W/tavrind.log" "$TAVRIND" --config "$W/tavrin.yaml" --foreground
TAVRIND_PID=$LAB_PID
if [ "$LAB_VERBOSE" = 1 ]; then
   tail -f "$W/tavrind.log" --pid "$TAVRIND_PID" >&2 &
   lab_defer "kill $! 2>/dev/null"
fi
lab_wait 15 ctl show counters >/dev/null 2>&1 || {
   cat "$W/tavrind.log" >&2
   lab_die "tavrind did not start"
}
lab_wait 10 lab_in sw nft list table bridge tavrin >/dev/null 2>&1 ||
   lab_die "tavrind did not program its nftables table"
ctl show interfaces | show

# ---------------------------------------------------------------- clients

# dhclient_lease NS: one real DHCP exchange, with a script that does nothing
# (the address is configured below, as a client's own script would); killed
# once bound, which does not release the lease. Prints the leased address.
dhclient_lease() {
   local ns=$1 pid
   printf 'timeout 15;\ninitial-interval 1;\nrequest subnet-mask;\n' >"$W/$ns.conf"
   lab_spawn "$ns" "$W/$ns.log" timeout 20 dhclient -4 -1 -d -v -cf "$W/$ns.conf" \
      -lf "$W/$ns.leases" -pf "$W/$ns.pid" -sf /bin/true eth0
   pid=$LAB_PID
   if ! lab_wait 20 grep -qs 'fixed-address' "$W/$ns.leases"; then
      lab_kill "$pid"
      lab_log "dhclient in $ns got no lease: $(tail -n 3 "$W/$ns.log")"
      return 1
   fi
   lab_kill "$pid"
   sed -n 's/^ *fixed-address \([0-9.]*\);/\1/p' "$W/$ns.leases" | tail -n 1
}

say "three clients ask dhcpd for a lease through the locked ports"
declare -A IP
for c in "${CLIENTS[@]}"; do
   IP[$c]=$(dhclient_lease "$c") || lab_die "client $c could not lease"
   lab_in "$c" ip addr add "${IP[$c]}/24" dev eth0
   echo "   $c leased ${IP[$c]}"
done

lease_count() { ctl show leases --json | grep -o '"mac"' | wc -l; }
leases_are() { [ "$(lease_count)" = "$1" ]; }
if lab_wait 15 leases_are 3; then
   lab_pass "tavrind-learned-the-three-leases"
else
   lab_fail "tavrind-learned-the-three-leases" "tavrind holds $(lease_count) leases"
fi
say "the lease table"
ctl show leases | show

# ---------------------------------------------------------------- reach

reaches() { lab_in "$1" ping -c 1 -W 1 -I "$2" "$SRV" >/dev/null 2>&1; }
say "each client reaches the server from its leased address"
for c in "${CLIENTS[@]}"; do
   # The data plane may take the last lease a moment after the agent holds it.
   if lab_wait 5 reaches "$c" "${IP[$c]}"; then
      echo "   $c (${IP[$c]}) -> $SRV: reached"
      lab_pass "$c-reaches-the-server"
   else
      lab_fail "$c-reaches-the-server" "ping from ${IP[$c]} got no answer"
   fi
done

say "c3 adds $SPOOFED, an address it was never leased, and tries from it"
lab_in c3 ip addr add "$SPOOFED/24" dev eth0
blocked=1
for _ in 1 2 3; do
   if reaches c3 "$SPOOFED"; then blocked=0; fi
done
if [ "$blocked" = 1 ]; then
   echo "   c3 ($SPOOFED) -> $SRV: blocked"
   lab_pass "unleased-address-is-blocked"
else
   lab_fail "unleased-address-is-blocked" "a ping from $SPOOFED got through"
fi
if reaches c3 "${IP[c3]}"; then
   lab_pass "c3-still-reaches-from-its-lease"
else
   lab_fail "c3-still-reaches-from-its-lease" "ping from ${IP[c3]} got no answer"
fi

trapped() { ctl show counters | sed -n 's/^tavrin_trapped_packets_total \([0-9]*\)$/\1/p'; }
trapped_some() { [ "$(trapped)" -gt 0 ] 2>/dev/null; }
say "what tavrind counted"
if lab_wait 5 trapped_some; then
   lab_pass "trapped-packets-are-counted"
else
   lab_fail "trapped-packets-are-counted" "tavrin_trapped_packets_total is '$(trapped)'"
fi
ctl show counters | grep -E '^tavrin_(trapped|queries_sent|answers|leases |drops)' | show

say "the lease table after the attempt: still the three leases, nothing for $SPOOFED"
ctl show leases | show
if leases_are 3 && ! ctl show leases | grep -qF "$SPOOFED"; then
   lab_pass "no-lease-for-the-unleased-address"
else
   lab_fail "no-lease-for-the-unleased-address" "the lease table changed"
fi

# ---------------------------------------------------------------- wrap up

if ! kill -0 "$TAVRIND_PID" 2>/dev/null; then
   lab_fail tavrind-survived "tavrind exited during the demo"
fi
if [ "$LAB_FAILED" != 0 ]; then
   echo "--- tavrind log (last 40 lines)" >&2
   tail -n 40 "$W/tavrind.log" >&2
fi
say "tearing the lab down"
lab_summary
