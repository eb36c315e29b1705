#!/usr/bin/env bash
# The nftables data plane end to end: tavrind locks the ports of a real
# bridge, real clients lease addresses from a real ISC dhcpd, and what
# passes is measured on the server's side of the bridge.
#
# Each case checks one promise of the lock:
#   lease-opens-port         a client passes only once its lease is installed
#   spoofed-ip-dropped       a leased client sending from another's address is dropped
#   spoofed-mac-dropped      the leased address from another MAC is dropped
#   static-client-blocked    a client with a static address and no lease never
#                            passes, and its trapped packets make queries
#   moved-client             a client that moves to another port passes there
#                            and no longer on the old one
#   expired-lease-stops      a lease dhcpd lets expire stops passing once the
#                            expiry re-query says so
#   restart-sigterm, restart-kill9
#                            tavrind restarted: a continuous ping loses nothing
#   unlock-opens-port        a port taken out of the configuration opens
#   drift-repaired           elements and rules changed behind tavrind's back
#                            are put right
#
# "Dropped" is measured, not inferred from a failed ping: the server
# counts, by source address, the echo requests that reach it, and clients
# that must not pass get a permanent neighbour entry for the server, so
# that what they send is IPv4 (trapped) rather than ARP (counted).
#
# Topology (every name carries a per-run token; all torn down at exit):
#
#   srv lan0 ------ p0 \
#   cl1 eth0 ------ p1  |
#   cl2 eth0 ------ p2  |  br0 in "sw" (NET.1.2, tavrind's local interface)
#   st  eth0 ------ p3  |  locked: p1 .. p6
#   mv  eth0 ------ p4  |
#   mv  eth1 ------ p5  |  (mv's two links share one MAC: the client moves)
#   ex  eth0 ------ p6 /
#
# Usage: sudo lab/dataplane.test.sh
# tavrind and tavrinctl come from TAVRIND and TAVRINCTL, else from the build
# next to LQ_PROBE (scripts/test.sh sets it), else they are built from this
# tree into the run's work directory. LAB_VERBOSE=1 shows progress; the
# daemon's and dhcpd's logs are shown when a case fails.

set -u -o pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=lib.sh
. "$HERE/lib.sh"

lab_init dataplane
W=$LAB_WORK

# ---------------------------------------------------------------- tools

lab_need_pkgs isc-dhcp-server isc-dhcp-client nftables ||
   lab_die "needs isc-dhcp-server, isc-dhcp-client and nftables (apt-get install failed)"
command -v ping >/dev/null || lab_need_pkgs iputils-ping || lab_die "needs ping (iputils-ping)"

TAVRIND_BIN=$(lab_bin tavrind TAVRIND src/daemon) || exit 2
TAVRINCTL_BIN=$(lab_bin tavrinctl TAVRINCTL src/daemon) || exit 2

# ---------------------------------------------------------------- network

NET=10.197
SRV=$NET.1.1
SW=$NET.1.2
STATIC_IP=$NET.1.50 # in the subnet, in no range: nobody leases it
TMP_IP=$NET.1.60
SRV_MAC=02:00:5e:30:00:fe
MAC_C1=02:00:5e:30:00:01
MAC_C2=02:00:5e:30:00:02
MAC_ST=02:00:5e:30:00:03
MAC_MV=02:00:5e:30:00:04
MAC_EX=02:00:5e:30:00:05
MAC_SPOOF=02:00:5e:30:00:66
EXPIRY=20 # seconds: ex's lease, which dhcpd lets run out

in_sw() { lab_in sw "$@"; }

setup_network() {
   local ns
   for ns in srv sw cl1 cl2 st mv ex; do
      lab_ns $ns || return 1
      # Quiet hosts: only the traffic the cases make crosses the bridge.
      lab_in $ns sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
   done
   lab_bridge sw br0 &&
      lab_addr sw br0 $SW/24 &&
      lab_veth srv lan0 sw p0 && lab_bridge_port sw br0 p0 &&
      lab_veth cl1 eth0 sw p1 && lab_bridge_port sw br0 p1 &&
      lab_veth cl2 eth0 sw p2 && lab_bridge_port sw br0 p2 &&
      lab_veth st eth0 sw p3 && lab_bridge_port sw br0 p3 &&
      lab_veth mv eth0 sw p4 && lab_bridge_port sw br0 p4 &&
      lab_veth mv eth1 sw p5 && lab_bridge_port sw br0 p5 &&
      lab_veth ex eth0 sw p6 && lab_bridge_port sw br0 p6 &&
      lab_mac srv lan0 $SRV_MAC && lab_addr srv lan0 $SRV/24 &&
      lab_mac cl1 eth0 $MAC_C1 && lab_mac cl2 eth0 $MAC_C2 && lab_mac st eth0 $MAC_ST &&
      lab_mac mv eth0 $MAC_MV && lab_mac mv eth1 $MAC_MV && lab_mac ex eth0 $MAC_EX &&
      lab_in mv ip link set eth1 down
}
setup_network || lab_die "could not build the namespaces"

# Echo requests that reach the server, counted by source address.
lab_in srv nft -f - <<EOF || lab_die "could not set up the server's counters"
table inet labcount {
   chain input {
      type filter hook input priority 0; policy accept;
   }
}
EOF
COUNTERS=0
declare -A COUNTER_OF
# count_from IP: starts counting echo requests from IP (once per address;
# not from a subshell, which would forget it did).
count_from() {
   [ -n "${COUNTER_OF[$1]:-}" ] && return 0
   COUNTERS=$((COUNTERS + 1))
   local name=from$COUNTERS
   lab_in srv nft add counter inet labcount "$name" &&
      lab_in srv nft add rule inet labcount input ip saddr "$1" icmp type echo-request \
         counter name "$name" &&
      COUNTER_OF[$1]=$name
}
# arrivals IP: how many echo requests from IP reached the server so far.
arrivals() {
   local name=${COUNTER_OF[$1]:?no counter for $1}
   lab_in srv nft list counter inet labcount "$name" | sed -n 's/.*packets \([0-9]*\).*/\1/p'
}

# ---------------------------------------------------------------- dhcpd

# One subnet, whose addresses may ask lease queries (tavrind asks from
# br0's address). ex's lease is short; the others outlive the run.
cat >"$W/dhcpd.conf" <<EOF
authoritative;
ping-check false;
default-lease-time 900;
max-lease-time 900;
subnet $NET.1.0 netmask 255.255.255.0 {
   range $NET.1.100 $NET.1.149;
   allow leasequery;
}
host expiring {
   hardware ethernet $MAC_EX;
   default-lease-time $EXPIRY;
   max-lease-time $EXPIRY;
   min-lease-time $EXPIRY;
}
EOF
lab_dhcpd srv lan0 || lab_die "dhcpd did not start"

# ---------------------------------------------------------------- tavrind

write_config() {
   local ports=$1
   cat >"$W/tavrin.yaml" <<EOF
local-interface: br0
bridge: br0
dhcp-servers: [$SRV]
interfaces: [$ports]
database: $W/tavrin.db
control-socket: $W/tavrind.sock
EOF
}
write_config "p1, p2, p3, p4, p5, p6"

TAVRIND_PID=""
STARTS=0
ctl() { in_sw "$TAVRINCTL_BIN" --socket "$W/tavrind.sock" --timeout 5 "$@"; }
serving() { ctl show interfaces >/dev/null 2>&1; }
start_tavrind() {
   STARTS=$((STARTS + 1))
   lab_spawn sw "$W/tavrind.$STARTS.log" env TRACERINGDIR="$W" "$TAVRIND_BIN" \
      --config "$W/tavrin.yaml" --foreground
   TAVRIND_PID=$LAB_PID
   lab_wait 15 serving
}
start_tavrind || {
   cat "$W/tavrind.$STARTS.log" >&2
   lab_die "tavrind did not start"
}

# ---------------------------------------------------------------- helpers

nft_sw() { in_sw nft "$@"; }
# The set's listing is read whole before it is searched: `nft | grep -q`
# under pipefail fails whenever grep stops reading first.
set_list() { nft_sw list set bridge tavrin "$1" 2>/dev/null; }
allowed_has() {
   local l
   l=$(set_list allowed) && grep -q "\"$1\" . $2 . $3" <<<"$l"
}
# allowed_lacks PORT MAC IP: no element for the pair on any port.
allowed_lacks() {
   local l
   l=$(set_list allowed) && ! grep -q "$2 . $3" <<<"$l"
}
allowed_only_on() {
   local l
   l=$(set_list allowed) && grep -q "\"$1\" . $2 . $3" <<<"$l" && [ "$(grep -c "$2 . $3" <<<"$l")" = 1 ]
}
locked_has() {
   local l
   l=$(set_list locked) && grep -q "\"$1\"" <<<"$l"
}
locked_lacks() {
   local l
   l=$(set_list locked) && ! grep -q "\"$1\"" <<<"$l"
}

# pings NS SRC COUNT: COUNT echo requests from SRC; true when all are answered.
pings() {
   local out
   out=$(lab_in "$1" ping -n -q -c "$3" -i 0.2 -W 1 -I "$2" $SRV 2>&1)
   printf '%s' "$out" | grep -q " $3 received"
}
# passes NS SRC: one ping gets through.
passes() { lab_in "$1" ping -n -q -c 1 -W 1 -I "$2" $SRV >/dev/null 2>&1; }

# pin_server NS DEV: the server's MAC without asking ARP, so what the client
# sends is IPv4.
pin_server() { lab_in "$1" ip neigh replace $SRV lladdr $SRV_MAC dev "$2" nud permanent; }

# none_arrive NS SRC: a few pings from SRC; true when none reached the server.
none_arrive() {
   local before after
   count_from "$2" || return 1
   before=$(arrivals "$2") || return 1
   lab_in "$1" ping -n -q -c 5 -i 0.2 -W 1 -I "$2" $SRV >/dev/null 2>&1
   after=$(arrivals "$2") || return 1
   lab_debug "arrivals from $2: $before -> $after"
   [ "$before" = "$after" ]
}

# The script dhclient runs: the leased address on the namespace's own
# interface, nothing else (no resolv.conf, no routes, no host files).
cat >"$W/dhclient-script" <<'EOF'
#!/bin/sh
case "$reason" in
PREINIT) ip link set dev "$interface" up ;;
BOUND | RENEW | REBIND | REBOOT)
   if [ -n "$old_ip_address" ] && [ "$old_ip_address" != "$new_ip_address" ]; then
      ip addr del "$old_ip_address/24" dev "$interface" 2>/dev/null
   fi
   ip addr replace "$new_ip_address/24" dev "$interface"
   ;;
esac
exit 0
EOF
chmod 755 "$W/dhclient-script"

# lease NS DEV TAG: one real DHCP exchange; the address is configured by
# the script above and printed. dhclient is stopped once bound: stopping
# it releases nothing, and nothing renews the lease afterwards.
lease() {
   local ns=$1 dev=$2 tag=$3 pid
   printf 'timeout 20;\ninitial-interval 1;\nrequest subnet-mask;\n' >"$W/$tag.conf"
   lab_spawn "$ns" "$W/$tag.log" timeout 25 dhclient -4 -1 -d -v -cf "$W/$tag.conf" \
      -lf "$W/$tag.leases" -pf "$W/$tag.pid" -sf "$W/dhclient-script" "$dev"
   pid=$LAB_PID
   if ! lab_wait 25 grep -qs 'fixed-address' "$W/$tag.leases"; then
      lab_kill "$pid"
      lab_log "dhclient $tag got no lease: $(tail -n 3 "$W/$tag.log" | tr '\n' ' ')"
      return 1
   fi
   lab_wait 3 sh -c "ip netns exec $(lab_name "$ns") ip -4 addr show dev $dev | grep -q inet"
   lab_kill "$pid"
   sed -n 's/^ *fixed-address \([0-9.]*\);/\1/p' "$W/$tag.leases" | tail -n 1
}

# Lease queries dhcpd logged about a MAC.
queries_for() { grep -c "DHCPLEASEQUERY.*$1" "$W/dhcpd.log"; }

metric() { ctl metrics 2>/dev/null | sed -n "s/^$1 \([0-9.e+]*\)\$/\1/p" | head -n 1; }

# check NAME CONDITION...: one case, passed when the condition holds.
FAILED_ANY=0
check() {
   local name=$1 why=$2
   shift 2
   if "$@"; then
      lab_pass "$name"
   else
      lab_fail "$name" "$why"
      FAILED_ANY=1
   fi
}

# ---------------------------------------------------------------- leases

IP1=$(lease cl1 eth0 cl1) || lab_die "cl1 could not lease"
IPX=$(lease ex eth0 ex) || lab_die "ex could not lease"
EX_LEASED_AT=$(date +%s)
IPM=$(lease mv eth0 mv) || lab_die "mv could not lease"
lab_debug "leases: cl1 $IP1, ex $IPX, mv $IPM"
lab_wait 20 passes cl1 "$IP1" || lab_log "cl1 does not pass yet"
EX_PASSED=0
lab_wait 20 passes ex "$IPX" && EX_PASSED=1

# ---------------------------------------------------------------- cases

# Before its lease, cl2 sends from an address of its own choosing and
# nothing reaches the server; once leased, it passes, with its element.
case_lease_opens_port() {
   lab_addr cl2 eth0 $TMP_IP/24 && pin_server cl2 eth0 || return 1
   none_arrive cl2 $TMP_IP || { lab_log "traffic passed before any lease"; return 1; }
   allowed_lacks p2 $MAC_C2 "" || {
      lab_log "an element for cl2 exists before its lease"
      return 1
   }
   lab_in cl2 ip addr del $TMP_IP/24 dev eth0
   lab_in cl2 ip neigh del $SRV dev eth0
   IP2=$(lease cl2 eth0 cl2) || return 1
   lab_wait 20 passes cl2 "$IP2" || { lab_log "cl2 does not pass with its lease"; return 1; }
   allowed_has p2 $MAC_C2 "$IP2"
}
IP2=""
check lease-opens-port "cl2 did not pass only once leased" case_lease_opens_port

# cl1 claims cl2's leased address: the pair (p1, MAC_C1, IP2) has no lease.
case_spoofed_ip() {
   [ -n "$IP2" ] || return 1
   lab_addr cl1 eth0 "$IP2/24" && pin_server cl1 eth0 || return 1
   local rc=0
   none_arrive cl1 "$IP2" || rc=1
   lab_in cl1 ip addr del "$IP2/24" dev eth0
   # The control: the same client from its own address does pass.
   pings cl1 "$IP1" 3 || { lab_log "cl1 does not pass from its own address"; rc=1; }
   return $rc
}
check spoofed-ip-dropped "packets from a spoofed address reached the server" case_spoofed_ip

# cl1 keeps its address but changes its MAC.
case_spoofed_mac() {
   local rc=0
   lab_in cl1 ip link set eth0 down && lab_mac cl1 eth0 $MAC_SPOOF &&
      lab_in cl1 ip link set eth0 up && pin_server cl1 eth0 || return 1
   none_arrive cl1 "$IP1" || rc=1
   lab_in cl1 ip link set eth0 down && lab_mac cl1 eth0 $MAC_C1 && lab_in cl1 ip link set eth0 up
   pin_server cl1 eth0
   lab_wait 10 passes cl1 "$IP1" || { lab_log "cl1 does not pass with its own MAC again"; rc=1; }
   return $rc
}
check spoofed-mac-dropped "packets from a spoofed MAC reached the server" case_spoofed_mac

# st never leased STATIC_IP: nothing passes, and what is trapped makes the
# agent ask (the first query comes from the MAC table; later ones only
# from trapped packets, the client sending nothing but IPv4).
case_static_client() {
   lab_addr st eth0 $STATIC_IP/24 && pin_server st eth0 || return 1
   lab_in st ping -n -q -c 2 -W 1 -I $STATIC_IP $SRV >/dev/null 2>&1
   sleep 3 # the MAC table's query, delayed by a second, and its answer
   local q0 t0 rc=0
   q0=$(queries_for $MAC_ST)
   t0=$(metric tavrin_trapped_packets_total)
   none_arrive st $STATIC_IP || { lab_log "st's packets reached the server"; rc=1; }
   none_arrive st $STATIC_IP || rc=1
   local q1 t1
   q1=$(queries_for $MAC_ST)
   t1=$(metric tavrin_trapped_packets_total)
   lab_debug "st: queries $q0 -> $q1, trapped $t0 -> $t1"
   # st sent IPv4 only, and the MAC table had nothing new to say: each
   # further query was asked because of a trapped packet.
   [ "$q1" -gt "$q0" ] || { lab_log "no lease query followed st's trapped packets"; rc=1; }
   allowed_lacks p3 $MAC_ST $STATIC_IP || rc=1
   return $rc
}
check static-client-blocked "a client without a lease passed, or its traps made no query" \
   case_static_client

# mv leased on eth0 (p4); the same MAC comes up on eth1 (p5) with the same
# address. The lease follows the MAC; then, with p4 made unable to teach
# the bridge (so that the check does not move the MAC back), the old port
# no longer passes.
case_moved_client() {
   lab_wait 20 passes mv "$IPM" || { lab_log "mv does not pass on p4"; return 1; }
   lab_in mv ip addr del "$IPM/24" dev eth0 && lab_in mv ip link set eth0 down &&
      lab_in mv ip link set eth1 up && lab_addr mv eth1 "$IPM/24" || return 1
   lab_wait 20 passes mv "$IPM" || { lab_log "mv does not pass on p5"; return 1; }
   lab_wait 5 allowed_only_on p5 $MAC_MV "$IPM" || { lab_log "the element did not move to p5"; return 1; }
   in_sw bridge link set dev p4 learning off &&
      lab_in mv ip addr del "$IPM/24" dev eth1 && lab_in mv ip link set eth1 down &&
      lab_in mv ip link set eth0 up && lab_addr mv eth0 "$IPM/24" && pin_server mv eth0 || return 1
   none_arrive mv "$IPM" || { lab_log "mv still passes on p4"; return 1; }
}
check moved-client "the lease did not follow the MAC to its new port" case_moved_client

# ex's lease ran out at dhcpd: at its expiration the agent asks again, by
# MAC. ISC dhcpd answers that with DHCPLEASEUNASSIGNED, which the agent
# does not take from a query by MAC, so it is the query giving up after its
# last round (74 s) that reports the lease gone; then ex stops passing.
EXPIRY_SETTLES=$((EXPIRY + 1 + 74 + 15))
case_expired_lease() {
   [ "$EX_PASSED" = 1 ] || { lab_log "ex never passed while leased"; return 1; }
   local left=$((EX_LEASED_AT + EXPIRY_SETTLES - $(date +%s)))
   [ "$left" -lt 5 ] && left=5
   lab_wait "$left" allowed_lacks p6 $MAC_EX "$IPX" || {
      lab_log "ex's element is still there $EXPIRY_SETTLES s after its lease began"
      return 1
   }
   pin_server ex eth0
   none_arrive ex "$IPX"
}
check expired-lease-stops "an expired lease kept passing" case_expired_lease

# A continuous ping through a restart: not one echo may go unanswered.
# TERM: tavrind stops cleanly; KILL: it has no chance to. Either way the
# table stays in the kernel, and the new tavrind replaces it in one
# transaction holding every lease it finds in its database.
restart_without_loss() {
   local how=$1 out sent got
   lab_spawn cl1 "$W/ping.$how.log" ping -n -i 0.05 -W 1 -I "$IP1" $SRV
   local ping_pid=$LAB_PID
   sleep 1
   kill -"$how" "$TAVRIND_PID" 2>/dev/null
   lab_wait 10 lab_dead "$TAVRIND_PID"
   wait "$TAVRIND_PID" 2>/dev/null
   sleep 1 # the lock holds while nobody watches it
   start_tavrind || { lab_log "tavrind did not start again"; return 1; }
   sleep 2
   kill -INT "$ping_pid" 2>/dev/null
   lab_wait 5 lab_dead "$ping_pid"
   wait "$ping_pid" 2>/dev/null
   out=$(grep 'packets transmitted' "$W/ping.$how.log")
   sent=$(printf '%s' "$out" | sed -n 's/^\([0-9]*\) packets transmitted.*/\1/p')
   got=$(printf '%s' "$out" | sed -n 's/.* \([0-9]*\) received.*/\1/p')
   lab_debug "restart by $how: $out"
   [ -n "$sent" ] && [ "$sent" -gt 40 ] && [ "$sent" = "$got" ] || {
      lab_log "restart by $how: ${out:-no ping summary}"
      return 1
   }
   [ "$(metric tavrin_dataplane_rebuilds_total)" = 1 ]
}
check restart-sigterm "a continuous ping lost packets across a clean restart" \
   restart_without_loss TERM
check restart-kill9 "a continuous ping lost packets across kill -9 and a start" \
   restart_without_loss KILL

# p3 leaves the configuration: after a reload it is no longer locked, and
# st (no lease) passes.
case_unlock() {
   write_config "p1, p2, p4, p5, p6"
   ctl reload >/dev/null || { lab_log "reload refused"; return 1; }
   lab_wait 10 locked_lacks p3 || { lab_log "p3 is still in the locked set"; return 1; }
   lab_wait 10 passes st $STATIC_IP
}
check unlock-opens-port "an unlocked port did not open" case_unlock

no_bare_accept() {
   local l
   l=$(nft_sw list chain bridge tavrin lock 2>/dev/null) && ! grep -q '^[[:space:]]*accept$' <<<"$l"
}

# Someone deletes cl1's element, adds one nobody leased, adds a rule that
# accepts everything, and finally deletes the table: each is put right.
case_drift() {
   local rc=0 drift
   # Its own changes (every lease, lock and restart so far) are no drift.
   drift=$(metric tavrin_dataplane_drift_total)
   [ "$drift" = 0 ] || { lab_log "tavrind took its own changes for drift ($drift)"; rc=1; }
   nft_sw delete element bridge tavrin allowed "{ \"p1\" . $MAC_C1 . $IP1 }" || return 1
   lab_wait 5 allowed_has p1 $MAC_C1 "$IP1" || { lab_log "deleted element not put back"; rc=1; }
   nft_sw add element bridge tavrin allowed "{ \"p3\" . $MAC_ST . $STATIC_IP }" || return 1
   lab_wait 5 allowed_lacks p3 $MAC_ST $STATIC_IP || { lab_log "foreign element not removed"; rc=1; }
   nft_sw insert rule bridge tavrin lock accept || return 1
   lab_wait 5 no_bare_accept || { lab_log "foreign rule not removed"; rc=1; }
   nft_sw delete table bridge tavrin || return 1
   lab_wait 5 allowed_has p1 $MAC_C1 "$IP1" || { lab_log "deleted table not rebuilt"; rc=1; }
   lab_wait 5 locked_has p1 || rc=1
   pings cl1 "$IP1" 3 || { lab_log "cl1 does not pass after the repairs"; rc=1; }
   drift=$(metric tavrin_dataplane_drift_total)
   [ "${drift:-0}" -ge 4 ] || { lab_log "tavrind counted $drift changes behind its back, not 4"; rc=1; }
   return $rc
}
check drift-repaired "a change behind tavrind's back was not put right" case_drift

# ---------------------------------------------------------------- summary

if [ "$FAILED_ANY" = 1 ] || [ "$LAB_VERBOSE" = 1 ]; then
   {
      echo "--- nft list table bridge tavrin"
      nft_sw list table bridge tavrin 2>&1 | head -n 60
      for ((i = 1; i <= STARTS; i++)); do
         echo "--- tavrind run $i (last 20 lines)"
         tail -n 20 "$W/tavrind.$i.log"
      done
      echo "--- dhcpd (last 30 lines)"
      tail -n 30 "$W/dhcpd.log"
   } >&2
fi
lab_summary
