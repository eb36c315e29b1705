#!/usr/bin/env bash
# dhcpd stops for OUTAGE seconds and comes back: tavrind must not crash,
# must withdraw only what the expiry and give-up rules withdraw, and must
# learn everything again once dhcpd answers.
#
# Clients, each on its own locked port, leased before the outage:
#   A (c1)  a long lease (10 h); nothing asks about it during the outage
#   B (c2)  a long lease; its MAC leaves the bridge's table two seconds into
#           the outage, so tavrind asks dhcpd about it and gets no answer
#           (rounds at 1, 2, 4, ... 64 s, given up at 74 s)
#   C (c3)  (full run only) a lease of LEASE_C seconds that ends during the
#           outage: it is asked about at its expiration, unanswered, and
#           given up 74 s later
# Cases:
#   no-crash                 tavrind answers throughout and after
#   A-kept                   A stays installed the whole outage
#   B-until-give-up          B stays installed until its query is given
#                            up (77 s into the outage: 2 s, then the 1 s
#                            delay, then 74 s); a server that leaves a
#                            query by MAC unanswered that long no longer
#                            vouches for the MAC, so an outage longer than
#                            that withdraws B then, and not before
#   C-withdrawn-after-expiry (full) C stays installed until its expiration
#                            and is withdrawn once its query is given up
#   relearned                after dhcpd is back, every client still leased
#                            (A, B) is installed and passes within 15 s of
#                            sending traffic again
# The figure: a timeline, one sample a second, of which leases are
# installed and how many queries are in flight; when each was withdrawn.
#
# Topology: see fixture.sh (client namespaces c1..c3 on p1..p3).
# Usage: sudo lab/faults/dhcpd-outage.sh [BUILD_DIR]
#   QUICK=1: a 20 s outage (no C). Default: 120 s. OUTAGE overrides.

set -u -o pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../lib.sh
. "$HERE/../lib.sh"
# shellcheck source=fixture.sh
. "$HERE/fixture.sh"

if [ "${QUICK:-0}" = 1 ]; then OUTAGE=${OUTAGE:-20}; else OUTAGE=${OUTAGE:-120}; fi
# C's lease must end inside the outage and its query be given up (74 s
# after the first round, which goes out a second after the expiration)
# before dhcpd is back.
LEASE_C=$((OUTAGE - 90))
WITH_C=1
[ "$LEASE_C" -lt 10 ] && WITH_C=0

START=$(date +%s)
lab_init dhcpd-outage
W=$LAB_WORK
lab_need_pkgs isc-dhcp-server nftables sqlite3 jq || lab_die "needs isc-dhcp-server, nftables, sqlite3, jq"
fx_tools "${1:-}"
fx_network 3 || lab_die "could not build the namespaces"
MAC_A=02:00:5e:71:00:01
MAC_B=02:00:5e:71:00:02
MAC_C=02:00:5e:71:00:03
if [ "$WITH_C" = 1 ]; then
   # A host's own lease time: only C's lease is short.
   # shellcheck disable=SC2034 # read by fixture.sh
   FX_DHCPD_EXTRA="host short-c {
   hardware ethernet $MAC_C;
   default-lease-time $LEASE_C;
   max-lease-time $LEASE_C;
   min-lease-time $LEASE_C;
}"
fi
fx_dhcpd 36000 || lab_die "dhcpd did not start"
fx_config
fx_start || { fx_tavrind_tail; lab_die "tavrind did not start"; }

IP_A=$(fx_client c1 $MAC_A) || lab_die "A got no lease"
IP_B=$(fx_client c2 $MAC_B) || lab_die "B got no lease"
lab_wait 10 fx_installed p1 $MAC_A "$IP_A" && lab_wait 10 fx_installed p2 $MAC_B "$IP_B" ||
   lab_die "A or B was never installed"
fx_passes c1 && fx_passes c2 || lab_die "A or B does not pass before the outage"
if [ "$WITH_C" = 1 ]; then
   IP_C=$(fx_client c3 $MAC_C) || lab_die "C got no lease"
   lab_wait 10 fx_installed p3 $MAC_C "$IP_C" || lab_die "C was never installed"
   C_EXP=$(ctl show leases --json | jq -r --arg m $MAC_C 'first(.[] | select(.mac == $m) | .expiration)')
fi

# ---------------------------------------------------------------- outage

lab_log "dhcpd stops for $OUTAGE s"
lab_kill "$DHCPD_PID"
T0=$(date +%s.%N)
since() { awk -v t0="$T0" -v t="$(date +%s.%N)" 'BEGIN { printf "%.1f", t - t0 }'; }
in_flight() { fx_counter tavrin_queries_in_flight 2>/dev/null || echo '?'; }
B_DEL_DONE=0
ALIVE_MISSES=0
: >"$W/timeline"
deadline=$(($(date +%s) + OUTAGE))
while [ "$(date +%s)" -lt "$deadline" ]; do
   s=$(since)
   if [ "$B_DEL_DONE" = 0 ] && awk -v s="$s" 'BEGIN { exit !(s >= 2) }'; then
      lab_in sw bridge fdb del $MAC_B dev p2 master 2>/dev/null
      B_DEL_DONE=1
   fi
   fx_serving || ALIVE_MISSES=$((ALIVE_MISSES + 1))
   cur=$(fx_allowed)
   a=0 b=0 c=-
   grep -qx "p1 $MAC_A $IP_A" <<<"$cur" && a=1
   grep -qx "p2 $MAC_B $IP_B" <<<"$cur" && b=1
   [ "$WITH_C" = 1 ] && { c=0; grep -qx "p3 $MAC_C $IP_C" <<<"$cur" && c=1; }
   echo "$s $a $b $c $(in_flight)" >>"$W/timeline"
   sleep 1
done

# First time a column went to 0 (empty: never).
gone_at() { awk -v col="$1" '$col == 0 { print $1; exit }' "$W/timeline"; }
A_GONE=$(gone_at 2)
B_GONE=$(gone_at 3)
C_GONE=$(gone_at 4)

if [ "$ALIVE_MISSES" = 0 ] && kill -0 "$TAVRIND_PID" 2>/dev/null; then
   lab_pass no-crash-during-outage
else
   lab_fail no-crash-during-outage "$ALIVE_MISSES unanswered samples"
fi
[ -z "$A_GONE" ] && lab_pass A-kept || lab_fail A-kept "A withdrawn $A_GONE s into the outage"
B_DUE=77
if [ "$OUTAGE" -gt $((B_DUE + 3)) ]; then
   # Sampled once a second: a little slack either side of the give-up.
   if [ -n "$B_GONE" ] && awk -v g="$B_GONE" -v d="$B_DUE" 'BEGIN { exit !(g >= d - 1 && g <= d + 3) }'; then
      lab_pass B-until-give-up
   else
      lab_fail B-until-give-up "B withdrawn at ${B_GONE:-never} s into the outage; its query gives up at $B_DUE s"
   fi
else
   [ -z "$B_GONE" ] && lab_pass B-until-give-up ||
      lab_fail B-until-give-up "B withdrawn $B_GONE s into a $OUTAGE s outage, before its query gave up"
fi
if [ "$WITH_C" = 1 ]; then
   C_DUE=$(awk -v e="$C_EXP" -v t0="$T0" 'BEGIN { printf "%.1f", e - t0 }')
   # Withdrawn after its expiration, and no later than the give-up plus slack.
   if [ -n "$C_GONE" ] && awk -v g="$C_GONE" -v d="$C_DUE" 'BEGIN { exit !(g >= d && g <= d + 75 + 5) }'; then
      lab_pass C-withdrawn-after-expiry
   else
      lab_fail C-withdrawn-after-expiry "expired at ${C_DUE} s, withdrawn at ${C_GONE:-never} s"
   fi
fi

# ---------------------------------------------------------------- back

fx_dhcpd 36000 || lab_die "dhcpd did not start again"
T_BACK=$(date +%s%N)
# The clients speak again: the bridge relearns them, a withdrawn one is
# trapped; either way tavrind asks.
relearned() {
   lab_in c1 ping -n -q -c 1 -W 1 "$FX_SRV" >/dev/null 2>&1
   lab_in c2 ping -n -q -c 1 -W 1 "$FX_SRV" >/dev/null 2>&1
   fx_installed p1 $MAC_A "$IP_A" && fx_installed p2 $MAC_B "$IP_B" && fx_passes c1 && fx_passes c2
}
if lab_wait 15 relearned; then
   lab_pass relearned
   RELEARN_MS=$((($(date +%s%N) - T_BACK) / 1000000))
else
   lab_fail relearned "A or B not installed and passing 15 s after dhcpd came back"
   RELEARN_MS=never
fi
fx_serving && kill -0 "$TAVRIND_PID" 2>/dev/null && lab_pass no-crash-after || lab_fail no-crash-after "tavrind gone"

echo "   outage $OUTAGE s; withdrawn (s into the outage): A ${A_GONE:-never}, B ${B_GONE:-never}, C ${C_GONE:-never}${C_DUE:+ (C expired at $C_DUE s)}"
echo "   relearned ${RELEARN_MS} ms after dhcpd was back"
echo "   timeline (s, A, B, C, queries in flight), every 10th sample:"
awk 'NR % 10 == 1' "$W/timeline" | sed 's/^/      /'
grep -E "has not answered|answered again" "$TAVRIND_LOG" | sed 's/^/   log: /' | head -n 4
[ "$LAB_FAILED" != 0 ] && fx_tavrind_tail
lab_log "run time $(($(date +%s) - START)) s"
lab_summary
