#!/usr/bin/env bash
# tavrind and tavrinctl end to end: a real bridge, a real ISC dhcpd that
# answers lease queries from a routed relay address, real dhclients.
#
# Cases:
#   bad-config-checked      --check-config names file:line and exits 2
#   bad-config-refused      a daemon started on a bad file says the same, exits 2
#   not-a-database          a database file that is not one: clear message,
#                           exit 1, the file untouched
#   missing-bridge          a bridge that does not exist: a warning, and the
#                           daemon serves and stops cleanly
#   lease-within-2s-CLIENT  a client's lease is shown within two seconds of
#                           its MAC being learned, with dhcpd's times
#   fdb-del-requeries       a MAC removed from the bridge's table is asked
#                           about again, and its lease stays
#   clear-and-requery       a cleared lease leaves the table and the database;
#                           requery brings it back
#   silent-server           a server that never answers: queries wait for it
#                           in `show queries`, tavrind names it once in its
#                           log and in a gauge, nothing else suffers
#   reload-refused          a bad file on reload (tavrinctl and SIGHUP): the
#                           reason, the old configuration, nothing lost
#   restart-TERM, restart-KILL
#                           every lease comes back from the database, before
#                           any answer, and every MAC is asked about again
#
# Topology (every name carries a per-run token; all torn down at exit):
#
#   cl1 eth0 -- p1 \
#   cl2 eth0 -- p2  br0 "sw" NET.3.1 (tavrind's local interface: giaddr)
#   srv lan0 -- p0 /     NET.1.1 (dhcpd: the clients' subnet)
#   srv rly0 ----------- up0 "sw"   NET.2.1 <-> NET.2.2 (queries are routed here)
#
# dhcpd hands out NET.1.0/24 on lan0 and allows lease queries from the
# relay subnet NET.3.0/24 only, so every answer proves the query went out
# from br0's address and came back to it on port 67. The clients lease with
# learning off on their ports, so that the moment the bridge learns each MAC
# is the test's to choose.
#
# Usage: sudo lab/daemon.test.sh
# tavrind and tavrinctl come from TAVRIND and TAVRINCTL, else from the build
# next to LQ_PROBE (scripts/test.sh sets it), else they are built from this
# tree into the run's work directory. LAB_VERBOSE=1 shows progress; the
# daemon's and dhcpd's logs are shown when a case fails.

set -u -o pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=lib.sh
. "$HERE/lib.sh"

START=$(date +%s)
lab_init daemon
W=$LAB_WORK

# ---------------------------------------------------------------- tools

lab_need_pkgs isc-dhcp-server isc-dhcp-client jq sqlite3 ||
   lab_die "needs isc-dhcp-server, isc-dhcp-client, jq and sqlite3 (apt-get install failed)"
command -v ping >/dev/null || lab_need_pkgs iputils-ping || lab_die "needs ping (iputils-ping)"

TAVRIND_BIN=$(lab_bin tavrind TAVRIND src/daemon) || exit 2
TAVRINCTL_BIN=$(lab_bin tavrinctl TAVRINCTL src/daemon) || exit 2

# ---------------------------------------------------------------- network

NET=10.196
SRV_LAN=$NET.1.1
SRV_RLY=$NET.2.1
SW_UP=$NET.2.2
SW_BR=$NET.3.1
SILENT=$NET.2.99 # on the relay link, owned by nobody: queries to it vanish
MAC1=02:00:5e:40:00:01
MAC2=02:00:5e:40:00:02

in_sw() { lab_in sw "$@"; }

setup_network() {
   local ns
   for ns in srv sw cl1 cl2 solo; do
      lab_ns $ns || return 1
      # Quiet hosts: only the traffic the cases make crosses the bridge.
      lab_in $ns sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
   done
   lab_bridge sw br0 &&
      lab_addr sw br0 $SW_BR/24 &&
      lab_veth srv lan0 sw p0 && lab_bridge_port sw br0 p0 &&
      lab_veth cl1 eth0 sw p1 && lab_bridge_port sw br0 p1 &&
      lab_veth cl2 eth0 sw p2 && lab_bridge_port sw br0 p2 &&
      lab_veth srv rly0 sw up0 &&
      lab_mac cl1 eth0 $MAC1 && lab_mac cl2 eth0 $MAC2 &&
      lab_addr srv lan0 $SRV_LAN/24 &&
      lab_addr srv rly0 $SRV_RLY/24 &&
      lab_addr sw up0 $SW_UP/24 &&
      lab_route srv $NET.3.0/24 $SW_UP &&
      in_sw bridge link set dev p1 learning off &&
      in_sw bridge link set dev p2 learning off
}
setup_network || lab_die "could not build the namespaces"

# ---------------------------------------------------------------- dhcpd

# Lease query permission is looked up in the subnet of the query's giaddr:
# granted to the relay subnet, where br0's address is, and nowhere else.
# Times are written as epoch seconds, to be compared with tavrind's.
cat >"$W/dhcpd.conf" <<EOF
authoritative;
ping-check false;
db-time-format local;
default-lease-time 900;
max-lease-time 900;
subnet $NET.1.0 netmask 255.255.255.0 {
   range $NET.1.100 $NET.1.149;
}
subnet $NET.2.0 netmask 255.255.255.0 {
}
subnet $NET.3.0 netmask 255.255.255.0 {
   allow leasequery;
}
EOF
lab_dhcpd srv lan0 rly0 || lab_die "dhcpd did not start"
DHCPD_PID=$LAB_PID
# A case stops dhcpd for a while; whatever happens, it is not left stopped.
lab_defer "kill -CONT $DHCPD_PID"

# ---------------------------------------------------------------- helpers

FAILED_ANY=0
# check NAME WHY CONDITION...: one case, passed when the condition holds.
check() {
   local name=$1 why=$2
   shift 2
   lab_debug "case $name"
   if "$@"; then
      lab_pass "$name"
   else
      lab_fail "$name" "$why"
      FAILED_ANY=1
   fi
}

# config FILE [SERVERS] [BRIDGE] [DB] [SOCKET]: writes a configuration.
config() {
   cat >"$1" <<EOF
local-interface: br0
bridge: ${3:-br0}
dhcp-servers: [${2:-$SRV_RLY}]
interfaces: [p1, p2]
database: ${4:-$W/tavrin.db}
control-socket: ${5:-$W/tavrind.sock}
EOF
}
CONF=$W/tavrin.yaml
config "$CONF"

ctl() { in_sw "$TAVRINCTL_BIN" --socket "$W/tavrind.sock" --timeout 5 "$@"; }
serving() { ctl show interfaces >/dev/null 2>&1; }
TAVRIND_PID=""
STARTS=0
start_tavrind() {
   STARTS=$((STARTS + 1))
   lab_spawn sw "$W/tavrind.$STARTS.log" env TRACERINGDIR="$W" "$TAVRIND_BIN" \
      --config "$CONF" --foreground
   TAVRIND_PID=$LAB_PID
   lab_wait 15 serving
}
# alive: the daemon of the last start still runs and answers.
alive() { ! lab_dead "$TAVRIND_PID" && serving; }

# The leases tavrind shows, one "interface mac ip server" per line, sorted.
lease_keys() { ctl show leases --json | jq -r '.[] | "\(.interface) \(.mac) \(.ip) \(.server)"' | sort; }
# The same read from the database file.
db_keys() {
   sqlite3 -readonly "$W/tavrin.db" \
      "SELECT interface || ' ' || mac || ' ' || ip || ' ' || server FROM lease;" | sort
}
has_lease() {
   local l
   l=$(ctl show leases --json) &&
      jq -e --arg p "$1" --arg m "$2" --arg i "$3" \
         'any(.[]; .interface == $p and .mac == $m and .ip == $i)' <<<"$l" >/dev/null
}
lacks_lease() {
   local l
   l=$(ctl show leases --json) && jq -e --arg m "$1" 'all(.[]; .mac != $m)' <<<"$l" >/dev/null
}
lease_field() {
   ctl show leases --json | jq -r --arg m "$1" --arg f "$2" 'first(.[] | select(.mac == $m) | .[$f])'
}
# querying MAC [SERVER]: a query by MAC is in flight (waiting for SERVER).
querying() {
   local q
   q=$(ctl show queries --json) &&
      jq -e --arg m "$1" --arg s "${2:-}" \
         'any(.[]; .mac == $m and ($s == "" or (.pending | index($s) != null)))' <<<"$q" >/dev/null
}
not_querying() { ! querying "$@"; }
sees_local_address() {
   local l
   l=$(ctl show interfaces --json) && jq -e --arg a "$SW_BR" '.local_address == $a' <<<"$l" >/dev/null
}
db_has_mac() {
   local l
   l=$(sqlite3 -readonly "$W/tavrin.db" "SELECT mac FROM lease;") && grep -q "$1" <<<"$l"
}
db_lacks_mac() {
   local l
   l=$(sqlite3 -readonly "$W/tavrin.db" "SELECT mac FROM lease;") && ! grep -q "$1" <<<"$l"
}
metric() { ctl metrics 2>/dev/null | sed -n "s/^$1 \([0-9.e+]*\)\$/\1/p" | head -n 1; }
answers_active() { metric 'tavrin_answers_total{type="DHCPLEASEACTIVE"}'; }
more_answers() { [ "$(answers_active)" -gt "$1" ]; }
# Lease queries dhcpd logged about a MAC.
queries_for() { grep -c "DHCPLEASEQUERY.*$1" "$W/dhcpd.log"; }
more_queries_for() { [ "$(queries_for "$1")" -gt "$2" ]; }

# dhcpd_time IP FIELD: the last value of FIELD (ends, cltt) dhcpd wrote for IP.
dhcpd_time() {
   awk -v ip="$1" -v f="$2" '
      $1 == "lease" && $2 == ip { inl = 1 }
      inl && $1 == f && $2 == "epoch" { v = $3; sub(";", "", v) }
      $1 == "}" { inl = 0 }
      END { print v }' "$W/dhcpd.leases"
}
# near A B SLACK: |A - B| <= SLACK (numbers with fractions).
near() { awk -v a="$1" -v b="$2" -v s="$3" 'BEGIN { d = a - b; if (d < 0) d = -d; exit !(a != "" && b != "" && d <= s) }'; }
now_ms() { echo $(($(date +%s%N) / 1000000)); }

# The script dhclient runs: the leased address on the namespace's own
# interface, nothing else.
cat >"$W/dhclient-script" <<'EOF'
#!/bin/sh
case "$reason" in
PREINIT) ip link set dev "$interface" up ;;
BOUND | RENEW | REBIND | REBOOT) ip addr replace "$new_ip_address/24" dev "$interface" ;;
esac
exit 0
EOF
chmod 755 "$W/dhclient-script"

# lease NS TAG: one real DHCP exchange; prints the address. dhclient is
# stopped once bound: stopping it releases nothing.
lease() {
   local ns=$1 tag=$2 pid
   printf 'timeout 20;\ninitial-interval 1;\nrequest subnet-mask;\n' >"$W/$tag.conf"
   lab_spawn "$ns" "$W/$tag.log" timeout 25 dhclient -4 -1 -d -v -cf "$W/$tag.conf" \
      -lf "$W/$tag.leases" -pf "$W/$tag.pid" -sf "$W/dhclient-script" eth0
   pid=$LAB_PID
   if ! lab_wait 25 grep -qs 'fixed-address' "$W/$tag.leases"; then
      lab_kill "$pid"
      lab_log "dhclient $tag got no lease: $(tail -n 3 "$W/$tag.log" | tr '\n' ' ')"
      return 1
   fi
   lab_wait 3 sh -c "ip netns exec $(lab_name "$ns") ip -4 addr show dev eth0 | grep -q inet"
   lab_kill "$pid"
   sed -n 's/^ *fixed-address \([0-9.]*\);/\1/p' "$W/$tag.leases" | tail -n 1
}

fdb_has() {
   local l
   l=$(in_sw bridge fdb show br br0 dev "$1") && grep -qi "^$2 " <<<"$l"
}

# ---------------------------------------------------------------- refusals

# A solitary namespace: no bridge, nobody to talk to; start-up refusals
# happen there, away from the main daemon's port.
run_solo() {
   local log=$1 conf=$2
   lab_in solo timeout 10 "$TAVRIND_BIN" --foreground --config "$conf" >"$log" 2>&1
}

printf 'local-interface: br0\nbridge: br0\nbrige: br1\ndhcp-servers: [%s]\n' $SRV_RLY \
   >"$W/bad.yaml"
case_bad_config_checked() {
   local rc=0
   "$TAVRIND_BIN" --check-config "$W/bad.yaml" >"$W/check.log" 2>&1 || rc=$?
   [ "$rc" = 2 ] && grep -q "^tavrind: $W/bad.yaml:3: " "$W/check.log" || {
      lab_log "exit $rc: $(cat "$W/check.log")"
      return 1
   }
   "$TAVRIND_BIN" --check-config "$CONF" >/dev/null 2>&1
}
check bad-config-checked "--check-config did not name the bad line" case_bad_config_checked

case_bad_config_refused() {
   local rc=0
   run_solo "$W/bad-start.log" "$W/bad.yaml" || rc=$?
   [ "$rc" = 2 ] && grep -q "$W/bad.yaml:3: " "$W/bad-start.log" || {
      lab_log "exit $rc: $(cat "$W/bad-start.log")"
      return 1
   }
}
check bad-config-refused "a daemon started on a bad file" case_bad_config_refused

case_not_a_database() {
   local rc=0 sum
   head -c 8192 /dev/urandom | base64 >"$W/junk.db"
   sum=$(md5sum <"$W/junk.db")
   config "$W/junk.yaml" $SRV_RLY br0 "$W/junk.db" "$W/junk.sock"
   run_solo "$W/junk.log" "$W/junk.yaml" || rc=$?
   [ "$rc" = 1 ] && grep -q "$W/junk.db" "$W/junk.log" &&
      grep -Eqi "not (a|an SQLite) database" "$W/junk.log" || {
      lab_log "exit $rc: $(cat "$W/junk.log")"
      return 1
   }
   [ "$(md5sum <"$W/junk.db")" = "$sum" ] || { lab_log "junk.db was written to"; return 1; }
   [ ! -e "$W/junk.sock" ]
}
check not-a-database "a file that is not a database" case_not_a_database

case_missing_bridge() {
   local pid rc=0
   config "$W/nobr.yaml" $SRV_RLY nosuch0 "$W/nobr.db" "$W/nobr.sock"
   lab_spawn solo "$W/nobr.log" "$TAVRIND_BIN" --foreground --config "$W/nobr.yaml"
   pid=$LAB_PID
   lab_wait 10 grep -q "bridge nosuch0 does not exist" "$W/nobr.log" || {
      lab_log "no word of the missing bridge: $(cat "$W/nobr.log")"
      return 1
   }
   lab_in solo "$TAVRINCTL_BIN" --socket "$W/nobr.sock" --timeout 5 show interfaces >/dev/null ||
      return 1
   kill -TERM "$pid"
   lab_wait 10 lab_dead "$pid" || return 1
   wait "$pid" || rc=$?
   [ "$rc" = 0 ] || { lab_log "exit $rc after SIGTERM: $(tail -n 3 "$W/nobr.log")"; return 1; }
   [ ! -e "$W/nobr.sock" ] || { lab_log "socket left behind"; return 1; }
}
check missing-bridge "a missing bridge" case_missing_bridge

# ---------------------------------------------------------------- the daemon

start_tavrind || {
   cat "$W/tavrind.$STARTS.log" >&2
   lab_die "tavrind did not start"
}
lab_wait 5 sees_local_address || lab_log "tavrind does not see br0's address $SW_BR"

IP1=$(lease cl1 c1) || lab_die "cl1 could not lease"
IP2=$(lease cl2 c2) || lab_die "cl2 could not lease"
lab_debug "leases: $MAC1=$IP1 $MAC2=$IP2"

# The bridge learns the client's MAC when it next speaks (learning on, one
# ping to dhcpd's side); its lease must be shown two seconds later at most,
# with the times dhcpd holds for it.
case_learn() {
   local ns=$1 port=$2 mac=$3 ip=$4 t0 t1 ms exp lasttx ends cltt
   in_sw bridge link set dev "$port" learning on || return 1
   lab_in "$ns" ping -n -q -c 1 -W 1 $SRV_LAN >/dev/null 2>&1
   lab_wait 3 fdb_has "$port" "$mac" || { lab_log "$mac never learned on $port"; return 1; }
   t0=$(now_ms)
   lab_wait 5 has_lease "$port" "$mac" "$ip" || { lab_log "no lease for $mac on $port"; return 1; }
   t1=$(now_ms)
   ms=$((t1 - t0))
   lab_debug "$mac: lease shown $ms ms after the bridge learned it"
   [ "$ms" -le 2000 ] || { lab_log "$mac: lease shown $ms ms after learning"; return 1; }
   exp=$(lease_field "$mac" expiration)
   lasttx=$(lease_field "$mac" last_transaction)
   ends=$(dhcpd_time "$ip" ends)
   cltt=$(dhcpd_time "$ip" cltt)
   [ "$(lease_field "$mac" server)" = $SRV_RLY ] || { lab_log "$mac: wrong server"; return 1; }
   near "$exp" "$ends" 2 && near "$lasttx" "$cltt" 2 || {
      lab_log "$mac: tavrind expiration $exp last transaction $lasttx, dhcpd ends $ends cltt $cltt"
      return 1
   }
}
check lease-within-2s-cl1 "cl1's lease was not shown in time or with dhcpd's times" \
   case_learn cl1 p1 $MAC1 "$IP1"
check lease-within-2s-cl2 "cl2's lease was not shown in time or with dhcpd's times" \
   case_learn cl2 p2 $MAC2 "$IP2"

# The MAC leaves the table (the client went quiet): it is asked about at
# once, and while dhcpd still holds the lease, it stays.
case_fdb_del() {
   local before answers
   before=$(queries_for $MAC1)
   answers=$(answers_active)
   in_sw bridge fdb del $MAC1 dev p1 master || return 1
   lab_wait 3 more_queries_for $MAC1 "$before" || { lab_log "no new query for $MAC1"; return 1; }
   lab_wait 3 more_answers "$answers" || { lab_log "no answer counted"; return 1; }
   has_lease p1 $MAC1 "$IP1"
}
check fdb-del-requeries "removing a MAC from the bridge's table did not re-query it" case_fdb_del

# Cleared: gone from the table and the database; requery asks about every
# MAC the agent knows (cl2's is still learned on p2) and it comes back.
case_clear() {
   local out
   out=$(ctl clear leases --mac $MAC2) || return 1
   [ "$out" = "removed 1 lease" ] || { lab_log "clear said: $out"; return 1; }
   lacks_lease $MAC2 || return 1
   lab_wait 3 db_lacks_mac $MAC2 || { lab_log "cleared lease still in the database"; return 1; }
   ctl requery >/dev/null || return 1
   lab_wait 3 has_lease p2 $MAC2 "$IP2" || { lab_log "requery did not bring it back"; return 1; }
   lab_wait 3 db_has_mac $MAC2
}
check clear-and-requery "clear leases or requery" case_clear

# A configured server that never answers: the query waits for it, retries,
# and nothing else is disturbed. Taken out again, the waiting ends.
case_silent_server() {
   local out keys
   keys=$(lease_keys)
   config "$CONF" "$SRV_RLY, $SILENT"
   out=$(ctl reload) || { lab_log "reload: $out"; return 1; }
   grep -q "dhcp server $SILENT added" <<<"$out" || { lab_log "reload said: $out"; return 1; }
   ctl requery --server $SILENT >/dev/null || return 1
   lab_wait 3 querying $MAC1 $SILENT || { lab_log "no query waits for $SILENT"; return 1; }
   # Rounds go out at 0, 1, 3, 7 and 15 s: by the fifth, ten seconds of
   # silence have passed, and tavrind says so once.
   lab_wait 20 grep -q "dhcp server $SILENT has not answered" "$W/tavrind.$STARTS.log" ||
      { lab_log "no word of the silent server"; return 1; }
   [ "$(metric "tavrin_server_silent{server=\"$SILENT\"}")" = 1 ] &&
      [ "$(metric "tavrin_server_silent{server=\"$SRV_RLY\"}")" = 0 ] ||
      { lab_log "silence gauges: $(ctl metrics | grep server_silent | tr '\n' ' ')"; return 1; }
   local rounds
   rounds=$(ctl show queries --json | jq -r --arg m $MAC1 'first(.[] | select(.mac == $m) | .rounds)')
   [ "${rounds:-0}" -ge 4 ] || { lab_log "rounds sent: ${rounds:-none}"; return 1; }
   alive && [ "$(lease_keys)" = "$keys" ] || { lab_log "leases changed"; return 1; }
   config "$CONF"
   out=$(ctl reload) || { lab_log "reload: $out"; return 1; }
   lab_wait 3 not_querying $MAC1 $SILENT
}
check silent-server "a server that never answers" case_silent_server

# A bad file at reload: the reason, and nothing changes, through tavrinctl
# and through SIGHUP alike.
case_reload_refused() {
   local out rc=0 keys db ifs
   keys=$(lease_keys)
   db=$(db_keys)
   ifs=$(ctl show interfaces --json)
   cp "$CONF" "$W/good.yaml"
   printf 'local-interface: br0\nbridge: br0\ndhcp-servers: [%s]\ninterfaces: [p1, p1]\n' \
      $SRV_RLY >"$CONF"
   out=$(ctl reload 2>&1) || rc=$?
   [ "$rc" = 1 ] && grep -q "$CONF:4: " <<<"$out" || { lab_log "exit $rc: $out"; rc=9; }
   kill -HUP "$TAVRIND_PID"
   lab_wait 3 grep -q "reload refused" "$W/tavrind.$STARTS.log" || { lab_log "SIGHUP: no word"; rc=9; }
   cp "$W/good.yaml" "$CONF"
   alive || { lab_log "tavrind died"; return 1; }
   [ "$(lease_keys)" = "$keys" ] || { lab_log "leases changed"; rc=9; }
   [ "$(db_keys)" = "$db" ] && [ -n "$db" ] || { lab_log "the database changed"; rc=9; }
   [ "$(ctl show interfaces --json)" = "$ifs" ] || { lab_log "interfaces changed"; rc=9; }
   [ "$rc" = 1 ]
}
check reload-refused "a refused reload" case_reload_refused

# Restarted: every lease is shown again from the database before dhcpd can
# say anything (it is stopped meanwhile), each MAC is asked about again,
# and the answers keep the leases.
case_restart() {
   local how=$1 keys rc=0 q1 q2
   keys=$(lease_keys)
   [ -n "$keys" ] || { lab_log "no leases to begin with"; return 1; }
   kill -"$how" "$TAVRIND_PID"
   lab_wait 10 lab_dead "$TAVRIND_PID" || return 1
   wait "$TAVRIND_PID" 2>/dev/null || rc=$?
   if [ "$how" = TERM ]; then
      [ "$rc" = 0 ] || { lab_log "exit $rc after SIGTERM"; return 1; }
      [ ! -e "$W/tavrind.sock" ] || { lab_log "socket left behind"; return 1; }
   fi
   [ "$(db_keys)" = "$keys" ] || { lab_log "database: $(db_keys | tr '\n' ';') want $keys"; return 1; }
   q1=$(queries_for $MAC1)
   q2=$(queries_for $MAC2)
   kill -STOP "$DHCPD_PID"
   start_tavrind || { kill -CONT "$DHCPD_PID"; lab_log "tavrind did not start again"; return 1; }
   [ "$(lease_keys)" = "$keys" ] || { kill -CONT "$DHCPD_PID"; lab_log "not restored"; return 1; }
   lab_wait 5 querying $MAC1 && lab_wait 5 querying $MAC2 || {
      kill -CONT "$DHCPD_PID"
      lab_log "not every MAC is asked about again"
      return 1
   }
   kill -CONT "$DHCPD_PID"
   lab_wait 10 more_queries_for $MAC1 "$q1" && lab_wait 10 more_queries_for $MAC2 "$q2" ||
      { lab_log "dhcpd saw no new query"; return 1; }
   lab_wait 10 not_querying $MAC1 && lab_wait 10 not_querying $MAC2 ||
      { lab_log "queries never answered"; return 1; }
   [ "$(lease_keys)" = "$keys" ]
}
check restart-TERM "a restart after SIGTERM" case_restart TERM
check restart-KILL "a restart after kill -9" case_restart KILL

# ---------------------------------------------------------------- wrap up

kill -0 "$DHCPD_PID" 2>/dev/null || lab_fail dhcpd-survived "dhcpd exited during the run"
if [ "$FAILED_ANY" = 1 ] || [ "$LAB_VERBOSE" = 1 ]; then
   {
      for ((i = 1; i <= STARTS; i++)); do
         echo "--- tavrind run $i (last 20 lines)"
         tail -n 20 "$W/tavrind.$i.log"
      done
      echo "--- dhcpd (last 30 lines)"
      tail -n 30 "$W/dhcpd.log"
   } >&2
fi
lab_log "run time $(($(date +%s) - START)) s"
lab_summary
