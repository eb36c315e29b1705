#!/usr/bin/env bash
# A flood of IPv4 frames from unleased (MAC, IP) pairs on a locked port, as
# fast as the lab can send them, for FLOOD seconds: tavrind must stay
# responsive, bounded in memory, and on time.
#
# flood.py sends from POOL distinct pairs out of c2 through the locked port
# p2 (every frame is trapped: the bridge learns each MAC, nftables passes a
# rate-limited share to NFLOG, tavrind asks dhcpd about every pair). Meanwhile:
#   ctl-under-50ms   every show-counters call (one connection each, as
#                    tavrinctl makes) is answered within 50 ms: p50, p99
#                    and max, against the same calls without the flood
#   rss-bounded      VmRSS never exceeds the pre-flood figure by more than
#                    RSS_BOUND_MB (16 MiB; the pool's query contexts and
#                    MAC table entries need a small fraction of that)
#   leased-passes    leased client T (c1, p1) pings dhcpd every 0.2 s
#                    through the flood and loses no more than 5 % of them
#   expiry-on-time   T's lease ends mid-flood; tavrind must send its
#                    re-query (seen in dhcpd's log) between the expiration
#                    and 2.5 s after it (the first round goes out 1 s after)
#   alive            tavrind still runs and answers afterwards
#
# Topology: see fixture.sh (client namespaces c1, c2 on p1, p2).
# Usage: sudo lab/faults/trap-flood.sh [BUILD_DIR]
#   QUICK=1: a 5 s flood. Default: 30 s. FLOOD, POOL, RSS_BOUND_MB override.

set -u -o pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../lib.sh
. "$HERE/../lib.sh"
# shellcheck source=fixture.sh
. "$HERE/fixture.sh"

if [ "${QUICK:-0}" = 1 ]; then FLOOD=${FLOOD:-5}; else FLOOD=${FLOOD:-30}; fi
POOL=${POOL:-4096}
RSS_BOUND_MB=${RSS_BOUND_MB:-16}
LIMIT_MS=50
FLOOD_PY=$HERE/flood.py

START=$(date +%s)
lab_init trap-flood
W=$LAB_WORK
lab_need_pkgs isc-dhcp-server nftables sqlite3 jq || lab_die "needs isc-dhcp-server, nftables, sqlite3, jq"
command -v python3 >/dev/null || lab_die "needs python3"
fx_tools "${1:-}"
fx_network 2 || lab_die "could not build the namespaces"
MAC_T=02:00:5e:72:00:01
# T's lease ends halfway through the flood: the lease is taken SETUP
# seconds before the flood starts.
SETUP=8
LEASE_T=$((SETUP + FLOOD / 2))
# shellcheck disable=SC2034 # read by fixture.sh
FX_DHCPD_EXTRA="host timer-t {
   hardware ethernet $MAC_T;
   default-lease-time $LEASE_T;
   max-lease-time $LEASE_T;
   min-lease-time $LEASE_T;
}"
fx_dhcpd 36000 || lab_die "dhcpd did not start"
fx_config
fx_start || { fx_tavrind_tail; lab_die "tavrind did not start"; }

pct() { # FILE P: the P-th percentile of the first column
   sort -n "$1" | awk -v p="$2" '{ v[NR] = $1 } END { i = int(p * NR); if (i < 1) i = 1; if (i > NR) i = NR; print v[i] }'
}

# Baseline: the same calls, no flood.
python3 "$FLOOD_PY" probe "$W/tavrind.sock" 3 20 "$W/lat.base"

T_LEASED=$(date +%s.%N)
IP_T=$(fx_client c1 $MAC_T) || lab_die "T got no lease"
lab_wait 10 fx_installed p1 $MAC_T "$IP_T" || lab_die "T was never installed"
T_EXP=$(ctl show leases --json | jq -r --arg m $MAC_T 'first(.[] | select(.mac == $m) | .expiration)')
SRV_MAC=$(lab_in srv cat /sys/class/net/lan0/address)
# c2 must not be answered: it has no address, and its pairs are not leased.
RSS0=$(awk '/^VmRSS:/ { print $2 }' "/proc/$TAVRIND_PID/status")
# Let the flood start SETUP seconds after the lease, whatever setup took.
left=$(awk -v t="$T_LEASED" -v s=$SETUP -v n="$(date +%s.%N)" 'BEGIN { d = t + s - n; printf "%.3f", (d > 0 ? d : 0) }')
sleep "$left"

# ---------------------------------------------------------------- flood

python3 "$FLOOD_PY" watch "$DHCPD_LOG" "$MAC_T" $((FLOOD + 5)) "$W/t-queries" &
WATCH=$!
lab_defer "kill $WATCH"
python3 "$FLOOD_PY" rss "$TAVRIND_PID" $((FLOOD + 3)) 200 "$W/rss" &
RSSW=$!
lab_defer "kill $RSSW"
lab_in c1 ping -n -q -i 0.2 -c $((FLOOD * 5)) -W 1 "$FX_SRV" >"$W/ping.t" 2>&1 &
PINGER=$!
lab_defer "kill $PINGER"
lab_in c2 python3 "$FLOOD_PY" send eth0 "$SRV_MAC" "$FX_SRV" "$FX_NET" "$POOL" 100000000 "$FLOOD" \
   >"$W/flood.out" 2>&1 &
SENDER=$!
lab_defer "kill $SENDER"
T_FLOOD=$(date +%s.%N)
python3 "$FLOOD_PY" probe "$W/tavrind.sock" "$FLOOD" 20 "$W/lat.flood"
wait "$SENDER"
lab_wait 10 lab_dead "$PINGER"
wait "$PINGER"
wait "$RSSW"
lab_wait $((5 + 1)) lab_dead "$WATCH"
wait "$WATCH" 2>/dev/null

# ---------------------------------------------------------------- figures

calls=$(wc -l <"$W/lat.flood")
errors=$(grep -c error "$W/lat.flood")
P50=$(pct "$W/lat.flood" 0.5) P99=$(pct "$W/lat.flood" 0.99) MAX=$(pct "$W/lat.flood" 1)
B50=$(pct "$W/lat.base" 0.5) B99=$(pct "$W/lat.base" 0.99) BMAX=$(pct "$W/lat.base" 1)
if [ "$errors" = 0 ] && [ "$calls" -gt 0 ] && awk -v m="$MAX" -v l=$LIMIT_MS 'BEGIN { exit !(m <= l) }'; then
   lab_pass ctl-under-${LIMIT_MS}ms
else
   lab_fail ctl-under-${LIMIT_MS}ms "max $MAX ms over $calls calls, $errors errors"
fi
RSSMAX=$(awk 'BEGIN { m = 0 } $2 > m { m = $2 } END { print m }' "$W/rss")
GROWTH_KB=$((RSSMAX - RSS0))
if [ "$GROWTH_KB" -le $((RSS_BOUND_MB * 1024)) ]; then
   lab_pass rss-bounded
else
   lab_fail rss-bounded "VmRSS grew by $GROWTH_KB kB (bound $((RSS_BOUND_MB * 1024)) kB)"
fi
SENT=$(grep -o '[0-9]* packets transmitted' "$W/ping.t" | cut -d' ' -f1)
RECV=$(grep -o '[0-9]* received' "$W/ping.t" | cut -d' ' -f1)
if [ -n "$SENT" ] && [ "${RECV:-0}" -ge $((SENT * 95 / 100)) ] && [ "$SENT" -gt 0 ]; then
   lab_pass leased-passes
else
   lab_fail leased-passes "T: ${RECV:-0} of ${SENT:-0} pings answered during the flood"
fi
# The first lease query about T after its expiration.
Q_AT=$(awk -v e="$T_EXP" '$1 >= e - 0.5 && /DHCPLEASEQUERY/ { print $1; exit }' "$W/t-queries")
if [ -n "$Q_AT" ] && awk -v q="$Q_AT" -v e="$T_EXP" 'BEGIN { exit !(q >= e && q <= e + 2.5) }'; then
   lab_pass expiry-on-time
else
   lab_fail expiry-on-time "T expired at $T_EXP; re-query seen at ${Q_AT:-never}"
fi
if kill -0 "$TAVRIND_PID" 2>/dev/null && fx_serving; then lab_pass alive; else lab_fail alive "tavrind gone"; fi

echo "   flood: $(cat "$W/flood.out") from $POOL pairs for $FLOOD s"
echo "   show-counters round trip (ms): flood p50 $P50 p99 $P99 max $MAX over $calls calls;" \
   "no flood p50 $B50 p99 $B99 max $BMAX; p99 ratio $(awk -v a="$P99" -v b="$B99" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }')"
echo "   VmRSS: before $RSS0 kB, peak $RSSMAX kB, growth $GROWTH_KB kB (bound $((RSS_BOUND_MB * 1024)) kB)"
echo "   T: expired $(awk -v e="$T_EXP" -v f="$T_FLOOD" 'BEGIN { printf "%.1f", e - f }') s into the flood," \
   "re-queried $(awk -v e="$T_EXP" -v q="${Q_AT:-0}" 'BEGIN { printf "%.3f", (q ? q - e : -1) }') s after; pings ${RECV:-0}/${SENT:-0}"
echo "   tavrind: $(ctl show counters | grep -E '^tavrin_(trapped_packets_total|queries_sent_total|fdb_entries|queries_in_flight|drops_total)' | tr '\n' ' ')"
[ "$LAB_FAILED" != 0 ] && fx_tavrind_tail
lab_log "run time $(($(date +%s) - START)) s"
lab_summary
