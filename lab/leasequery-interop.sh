#!/usr/bin/env bash
# Interoperability of the lease query codec with a real ISC dhcpd.
#
# The codec's unit tests only prove it agrees with itself. Here queries
# built by the codec go to a real dhcpd about leases that real dhclients
# obtained, and the codec parses what dhcpd really answers. Where tshark is
# available, an independent dissector reads the same packets.
#
# Topology (every name carries a per-run token; all torn down at exit):
#
#   cl1 (eth0, MAC1) ---+
#                       +-- br0 in "sw" --- lan0  srv  rly0 --- up0  rly
#   cl2 (eth0, MAC2) ---+       NET.1.0/24 (.1)         NET.2.0/24 (.1)  (.2)
#                                                                   + NET.3.2
# srv runs dhcpd on lan0 and rly0; rly is the switch's side: the probe sends
# from there with giaddr = its own address, as the agent does. NET.3.2 is a
# second relay address whose subnet dhcpd is told to refuse.
#
# Usage: sudo lab/leasequery-interop.sh   (LQ_PROBE=path skips the build;
# LAB_VERBOSE=1 shows each probe's output; dhcpd's log is shown on failure)
# Needs root; installs isc-dhcp-server, isc-dhcp-client and tshark with
# apt-get when missing (tshark is optional: its cases are skipped without it).

set -u -o pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(dirname "$HERE")
# shellcheck source=lib.sh
. "$HERE/lib.sh"

START=$(date +%s)
lab_init leasequery-interop
W=$LAB_WORK

# ---------------------------------------------------------------- tools

lab_need_pkgs isc-dhcp-server isc-dhcp-client ||
   lab_die "needs packages isc-dhcp-server and isc-dhcp-client (apt-get install failed)"
HAVE_TSHARK=1
NO_TSHARK_WHY=""
lab_need_pkgs tshark || {
   HAVE_TSHARK=0
   NO_TSHARK_WHY="tshark is not installed and could not be installed"
}

# The probe is built from the tree under test, in the foreground: an
# interrupted compiler would leave its children and temporary files behind.
if [ -n "${LQ_PROBE:-}" ]; then
   PROBE=$LQ_PROBE
   [ -x "$PROBE" ] || lab_die "LQ_PROBE=$PROBE is not executable"
else
   command -v c++ >/dev/null || lab_die "needs a C++20 compiler 'c++' (package g++) to build lq-probe"
   PROBE=$W/lq-probe
   TMPDIR=$W c++ -std=c++20 -O1 -I "$ROOT/src" "$HERE/tools/lq-probe.cc" "$ROOT"/src/dhcp/*.cc \
      "$ROOT"/src/rt/*.cc -o "$PROBE" >"$W/build.log" 2>&1 || {
      cat "$W/build.log" >&2
      lab_die "lq-probe did not build"
   }
fi

# ---------------------------------------------------------------- network

NET=10.199
SRV_LAN=$NET.1.1
SRV_RLY=$NET.2.1
RELAY=$NET.2.2
DENIED_RELAY=$NET.3.2
RANGE_LO=100
RANGE_HI=109
MAC1=02:00:5e:10:00:01
MAC2=02:00:5e:10:00:02
MAC_UNKNOWN=02:00:5e:10:00:99

setup_network() {
   lab_ns srv && lab_ns sw && lab_ns cl1 && lab_ns cl2 && lab_ns rly &&
      lab_bridge sw br0 &&
      lab_veth srv lan0 sw p0 && lab_bridge_port sw br0 p0 &&
      lab_veth cl1 eth0 sw p1 && lab_bridge_port sw br0 p1 &&
      lab_veth cl2 eth0 sw p2 && lab_bridge_port sw br0 p2 &&
      lab_veth srv rly0 rly up0 &&
      lab_mac cl1 eth0 $MAC1 && lab_mac cl2 eth0 $MAC2 &&
      lab_addr srv lan0 $SRV_LAN/24 &&
      lab_addr srv rly0 $SRV_RLY/24 &&
      lab_addr rly up0 $RELAY/24 &&
      lab_addr rly up0 $DENIED_RELAY/24 &&
      lab_route srv $NET.3.0/24 $RELAY
}
setup_network || lab_die "could not build the namespaces"

# ---------------------------------------------------------------- dhcpd

# Leasequery permission is looked up in the scope of the subnet holding the
# query's giaddr, so it is granted to the relay subnet only; the denied
# relay's subnet says so explicitly to show the refusal is policy, not
# routing. ping-check off: it would delay every offer by a second.
cat >"$W/dhcpd.conf" <<EOF
authoritative;
ping-check false;
default-lease-time 600;
max-lease-time 600;
subnet $NET.1.0 netmask 255.255.255.0 {
   range $NET.1.$RANGE_LO $NET.1.$RANGE_HI;
}
subnet $NET.2.0 netmask 255.255.255.0 {
   allow leasequery;
}
subnet $NET.3.0 netmask 255.255.255.0 {
   deny leasequery;
}
EOF
lab_dhcpd srv lan0 rly0 || lab_die "dhcpd did not start"
DHCPD_PID=$LAB_PID

# ---------------------------------------------------------------- capture

# Started before any query so the capture holds every one of them.
if [ "$HAVE_TSHARK" = 1 ]; then
   lab_spawn rly "$W/tshark.log" tshark -n -q -i up0 -f 'udp port 67' -w "$W/lq.pcap" \
      -a duration:120
   TSHARK_PID=$LAB_PID
   if ! lab_wait 15 grep -qs 'Capturing on' "$W/tshark.log"; then
      HAVE_TSHARK=0
      NO_TSHARK_WHY="tshark did not start capturing: $(tail -n 1 "$W/tshark.log")"
   fi
fi

# ---------------------------------------------------------------- clients

# dhclient_lease NS TAG [CLIENT-ID]: one real DHCP exchange from NS's eth0,
# with a script that does nothing, so only dhcpd's state changes (the
# namespace's interface is not configured and the host is never touched).
# dhclient stays in the foreground (-d) and is killed once bound: killing
# does not release the lease. Prints the leased address.
dhclient_lease() {
   local ns=$1 tag=$2 cid=${3:-} pid
   {
      echo "timeout 15;"
      echo "initial-interval 1;"
      [ -n "$cid" ] && echo "send dhcp-client-identifier \"$cid\";"
      echo "request subnet-mask;"
   } >"$W/$tag.conf"
   lab_spawn "$ns" "$W/$tag.log" timeout 20 dhclient -4 -1 -d -v -cf "$W/$tag.conf" \
      -lf "$W/$tag.leases" -pf "$W/$tag.pid" -sf /bin/true eth0
   pid=$LAB_PID
   if ! lab_wait 20 grep -qs 'fixed-address' "$W/$tag.leases"; then
      lab_kill "$pid"
      lab_log "dhclient $tag got no lease: $(tail -n 3 "$W/$tag.log")"
      return 1
   fi
   lab_kill "$pid"
   sed -n 's/^ *fixed-address \([0-9.]*\);/\1/p' "$W/$tag.leases" | tail -n 1
}

IP1=$(dhclient_lease cl1 c1) || lab_die "client 1 could not lease"
IP2=$(dhclient_lease cl2 c2a lab-c2a) || lab_die "client 2 could not lease its first address"
# dhcpd picks the "newest" of a MAC's leases by last-transaction time in
# whole seconds; a second apart makes the newest one certain.
sleep 1.1
IP3=$(dhclient_lease cl2 c2b lab-c2b) || lab_die "client 2 could not lease its second address"
lab_debug "leases: $MAC1=$IP1, $MAC2=$IP2 then $IP3"
[ "$IP2" != "$IP3" ] || lab_die "client 2 got the same address twice ($IP2): dhcpd merged the client ids"

# A free address of the range: none of the three leases.
FREE_IP=""
for ((i = RANGE_HI; i >= RANGE_LO; i--)); do
   cand=$NET.1.$i
   [ "$cand" != "$IP1" ] && [ "$cand" != "$IP2" ] && [ "$cand" != "$IP3" ] && {
      FREE_IP=$cand
      break
   }
done
OUTSIDE_IP=$NET.1.50 # in the subnet, in no range

# ---------------------------------------------------------------- probing

XID_BASE=$((0x$(od -An -N3 -tx1 /dev/urandom | tr -d ' \n') * 16))
NEXT_XID=$XID_BASE
OUT=""
RC=0
declare -A XIDS
# probe NAME ARGS...: runs lq-probe from the relay namespace with a fresh
# xid; leaves its line in OUT, its exit code in RC and the xid in XID and
# XIDS[NAME] (the tshark cases find the packets by it).
probe() {
   local name=$1
   shift
   NEXT_XID=$((NEXT_XID + 1))
   XID=$NEXT_XID
   OUT=$(lab_in rly "$PROBE" --server $SRV_RLY --xid $XID "$@" 2>"$W/probe-$name.err")
   RC=$?
   printf '%s\n' "$OUT" >"$W/probe-$name.out"
   lab_debug "$name: rc=$RC $OUT $(cat "$W/probe-$name.err")"
   XIDS[$name]=$XID
}

# field KEY: the value of KEY in OUT.
field() { tr ' ' '\n' <<<"$OUT" | sed -n "s/^$1=//p"; }

# expect NAME KEY=VALUE...: passes when the probe answered and every field
# matches; VALUE '#' means "a number", '#LO-HI' a number within bounds.
expect() {
   local name=$1 kv key want got bad=""
   shift
   if [ "$RC" != 0 ]; then
      lab_fail "$name" "probe exit $RC: $(head -c 300 "$W/probe-$name.err")"
      return
   fi
   for kv in "$@"; do
      key=${kv%%=*} want=${kv#*=}
      got=$(field "$key")
      case $want in
      '#') [[ $got =~ ^[0-9]+$ ]] || bad+=" $key=$got (want a number)" ;;
      '#'*-*)
         local lo=${want#\#} hi
         hi=${lo#*-} lo=${lo%-*}
         [[ $got =~ ^[0-9]+$ ]] && [ "$got" -ge "$lo" ] && [ "$got" -le "$hi" ] ||
            bad+=" $key=$got (want $lo..$hi)"
         ;;
      *) [ "$got" = "$want" ] || bad+=" $key=$got (want $want)" ;;
      esac
   done
   if [ -z "$bad" ]; then lab_pass "$name"; else lab_fail "$name" "${bad# } [$OUT]"; fi
}

# expect_silence NAME LOGTEXT: passes when the probe timed out and dhcpd's
# log says why; a silent server for the wrong reason would hide a fault.
expect_silence() {
   local name=$1 text=$2
   if [ "$RC" != 1 ]; then
      lab_fail "$name" "want no answer (exit 1), got exit $RC [$OUT]"
   elif ! grep -qF "$text" "$W/dhcpd.log"; then
      lab_fail "$name" "no answer, but dhcpd did not log '$text'"
   else
      lab_pass "$name"
   fi
}

ZERO_MAC=00:00:00:00:00:00
# Lease times: 600 s leases obtained seconds ago; dhcpd reports what is
# left and how long ago the client last talked to it.
LEFT='#540-600'
AGO='#0-60'

# An active lease, by address and by MAC: the two ways the agent asks.
probe active_by_ip --src $RELAY --ip "$IP1"
expect active-lease-by-ip type=DHCPLEASEACTIVE xid=$XID ciaddr="$IP1" chaddr=$MAC1 \
   lease-time=$LEFT last-txn=$AGO assoc=-
probe active_by_mac --src $RELAY --mac $MAC1
expect active-lease-by-mac type=DHCPLEASEACTIVE xid=$XID ciaddr="$IP1" chaddr=$MAC1 \
   lease-time=$LEFT last-txn=$AGO assoc=-

# One MAC, two client ids, two leases. dhcpd answers a by-MAC query with the
# most recent lease in ciaddr and the MAC's other *active* leases in
# option 92; by address it never sends option 92, even for that MAC.
probe assoc_by_mac --src $RELAY --mac $MAC2
expect associated-ips-by-mac type=DHCPLEASEACTIVE xid=$XID ciaddr="$IP3" chaddr=$MAC2 \
   lease-time=$LEFT last-txn=$AGO assoc="$IP2"
probe assoc_by_ip --src $RELAY --ip "$IP2"
expect no-associated-ips-by-ip type=DHCPLEASEACTIVE xid=$XID ciaddr="$IP2" chaddr=$MAC2 \
   lease-time=$LEFT last-txn=$AGO assoc=-

# No lease at all: dhcpd echoes the query's fields and adds no times.
probe unknown_mac --src $RELAY --mac $MAC_UNKNOWN
expect unknown-mac type=DHCPLEASEUNKNOWN xid=$XID ciaddr=0.0.0.0 chaddr=$MAC_UNKNOWN \
   lease-time=- last-txn=- assoc=-
# A free address of the range is one dhcpd is responsible for but has not
# leased; an address outside every range it does not know at all, even
# inside a declared subnet.
if [ -n "$FREE_IP" ]; then
   probe unassigned_ip --src $RELAY --ip "$FREE_IP"
   expect unassigned-free-ip type=DHCPLEASEUNASSIGNED xid=$XID ciaddr="$FREE_IP" \
      chaddr=$ZERO_MAC lease-time=- last-txn=- assoc=-
else
   lab_fail unassigned-free-ip "no free address left in the range"
fi
probe unknown_ip --src $RELAY --ip $OUTSIDE_IP
expect unknown-ip-outside-range type=DHCPLEASEUNKNOWN xid=$XID ciaddr=$OUTSIDE_IP \
   chaddr=$ZERO_MAC lease-time=- last-txn=- assoc=-

# dhcpd answers nobody without a giaddr, and nobody whose giaddr's subnet
# is not allowed; both silently, which the agent sees only as a timeout.
probe no_giaddr --src $RELAY --giaddr 0.0.0.0 --mac $MAC1 --timeout 1
expect_silence no-giaddr-is-ignored 'missing giaddr'
probe denied --src $DENIED_RELAY --mac $MAC1 --timeout 1
expect_silence relay-not-allowed-is-ignored "DHCPLEASEQUERY from $DENIED_RELAY: LEASEQUERY not allowed"

# A released lease: what the agent sees when a host leaves cleanly. The
# release needs the leased address on the interface (dhclient unicasts it
# to the server), as a real client's script would have configured.
lab_in cl1 ip addr add "$IP1/24" dev eth0
lab_in cl1 timeout 10 dhclient -4 -r -v -cf "$W/c1.conf" -lf "$W/c1.leases" -pf "$W/c1r.pid" \
   -sf /bin/true eth0 >"$W/c1-release.log" 2>&1
if lab_wait 5 grep -q "DHCPRELEASE of $IP1" "$W/dhcpd.log"; then
   probe released_ip --src $RELAY --ip "$IP1"
   expect released-lease-by-ip type=DHCPLEASEUNASSIGNED xid=$XID ciaddr="$IP1" \
      chaddr=$ZERO_MAC lease-time=- last-txn=- assoc=-
   # By MAC dhcpd still finds the released lease and calls it unassigned
   # rather than unknown, naming the address it was.
   probe released_mac --src $RELAY --mac $MAC1
   expect released-lease-by-mac type=DHCPLEASEUNASSIGNED xid=$XID ciaddr="$IP1" \
      chaddr=$MAC1 lease-time=- last-txn=- assoc=-
else
   lab_fail released-lease "dhcpd never saw the release: $(tail -n 3 "$W/c1-release.log")"
fi

# ---------------------------------------------------------------- tshark

# tshark_fields XID FIELD...: one line, the fields of the packet with that
# xid in the given direction (op 1 query, 2 answer), separated by '|'.
tshark_fields() {
   local xid=$1 op=$2
   shift 2
   local args=() f
   for f in "$@"; do args+=(-e "$f"); done
   tshark -n -r "$W/lq.pcap" -Y "dhcp.id == $xid && dhcp.type == $op" -T fields \
      -E separator='|' -E occurrence=a -E aggregator=, "${args[@]}" 2>/dev/null | head -n 1
}

# tshark_expect NAME GOT WANT
tshark_expect() {
   if [ "$2" = "$3" ]; then lab_pass "$1"; else lab_fail "$1" "tshark read '$2', want '$3'"; fi
}

if [ "$HAVE_TSHARK" = 1 ]; then
   lab_kill "$TSHARK_PID"
   hex() { printf '0x%08x' "$1"; }
   F=(dhcp.option.dhcp dhcp.id dhcp.ip.relay dhcp.ip.client dhcp.hw.type dhcp.hw.len
      dhcp.hw.mac_addr dhcp.option.request_list_item)
   # Our queries as a third party reads them: message type 10, our xid,
   # giaddr and the query key; the request list asks for 51, 91 and 92. A
   # by-address query has htype and hlen 0, so tshark shows no client MAC.
   tshark_expect tshark-dissects-query-by-ip \
      "$(tshark_fields "${XIDS[active_by_ip]}" 1 "${F[@]}")" \
      "10|$(hex "${XIDS[active_by_ip]}")|$RELAY|$IP1|0x00|0||51,91,92"
   tshark_expect tshark-dissects-query-by-mac \
      "$(tshark_fields "${XIDS[active_by_mac]}" 1 "${F[@]}")" \
      "10|$(hex "${XIDS[active_by_mac]}")|$RELAY|0.0.0.0|0x01|6|$MAC1|51,91,92"
   # dhcpd's answer as tshark reads it must match what our parser printed
   # for the same packet, the times included (they differ per run).
   OUT=$(cat "$W/probe-assoc_by_mac.out")
   tshark_expect tshark-agrees-on-answer \
      "$(tshark_fields "${XIDS[assoc_by_mac]}" 2 dhcp.option.dhcp dhcp.ip.client \
         dhcp.hw.mac_addr dhcp.option.ip_address_lease_time \
         dhcp.option.client_last_transaction_time dhcp.option.associated_ip_option)" \
      "13|$IP3|$MAC2|$(field lease-time)|$(field last-txn)|$IP2"
else
   lab_skip tshark-dissects-queries "$NO_TSHARK_WHY"
fi

# ---------------------------------------------------------------- wrap up

if ! kill -0 "$DHCPD_PID" 2>/dev/null; then
   lab_fail dhcpd-survived "dhcpd exited during the run"
fi
if [ "$LAB_FAILED" != 0 ]; then
   echo "--- dhcpd log (last 40 lines)" >&2
   tail -n 40 "$W/dhcpd.log" >&2
fi
lab_log "run time $(($(date +%s) - START)) s"
lab_summary
