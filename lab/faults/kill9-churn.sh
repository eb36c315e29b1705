#!/usr/bin/env bash
# kill -9 of tavrind at random instants while leases churn: nothing that was
# allowed in the data plane may be lost.
#
# Churn: dhcp-swarm leases LEASES clients in batches of BATCH through the
# locked port p1 (the bridge learns each MAC, tavrind asks dhcpd and
# installs the lease), while a second loop withdraws leases (`tavrinctl
# clear leases --mac`) and makes the bridge learn the MAC again (a dynamic
# FDB entry, so the lease is asked about and installed again), and deletes
# other MACs from the FDB (a re-query that keeps the lease).
#
# At each of KILLS random instants tavrind is killed with SIGKILL. The
# kernel keeps the nftables table the dead daemon left, so the set
# `allowed` read right after the kill is exactly what was installed the
# moment it died. Then, per kill:
#   db-intact-N          PRAGMA integrity_check says ok
#   persisted-N          every element of `allowed` has its row in the
#                        database (the commit precedes the install), except
#                        one whose clear was in flight (withdrawn, not lost)
#   reinstalled-N        the restarted daemon installs every one of them again
# and at the end:
#   churn-all-installed  every lease dhcpd granted is installed once the
#                        churn is over (each kill lost nothing for good)
# The figures: per kill the set's size, rows missing, elements not back,
# restart-to-serving and restart-to-reinstalled times; totals lost.
#
# Topology: see fixture.sh (one client namespace c1 on p1).
#
# Usage: sudo lab/faults/kill9-churn.sh [BUILD_DIR]
#   QUICK=1: 3 kills, 1,000 leases. Default: 20 kills, 10,000 leases.
#   KILLS, LEASES, BATCH, RATE (new clients a second) override; KEEP=DIR
#   keeps the run's logs and snapshots there.

set -u -o pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../lib.sh
. "$HERE/../lib.sh"
# shellcheck source=fixture.sh
. "$HERE/fixture.sh"

if [ "${QUICK:-0}" = 1 ]; then
   KILLS=${KILLS:-3} LEASES=${LEASES:-1000} RATE=${RATE:-100}
else
   KILLS=${KILLS:-20} LEASES=${LEASES:-10000} RATE=${RATE:-100}
fi
BATCH=${BATCH:-1000}
BATCHES=$(((LEASES + BATCH - 1) / BATCH))
# Kills fall at random instants spread over the leasing time.
GAP_MS=$((LEASES * 1000 / RATE / KILLS))
[ "$GAP_MS" -lt 1000 ] && GAP_MS=1000
# A clear that began this long before the kill may have been committed
# but not yet taken out of the set.
CLEAR_INFLIGHT_MS=3000

START=$(date +%s)
lab_init kill9-churn
W=$LAB_WORK
lab_need_pkgs isc-dhcp-server nftables sqlite3 jq || lab_die "needs isc-dhcp-server, nftables, sqlite3, jq"
fx_tools "${1:-}"
fx_network 1 || lab_die "could not build the namespaces"
fx_dhcpd 36000 || lab_die "dhcpd did not start"
fx_config
fx_start || { fx_tavrind_tail; lab_die "tavrind did not start"; }
lab_log "$KILLS kills during a churn of $LEASES leases ($BATCHES batches at $RATE/s)"

# ---------------------------------------------------------------- churn

batch_mac() { printf '02:00:5e:%02x:00:00' $((0x60 + $1)); }

# Leasing: the batches one after another; each swarm ends at its timeout.
(
   for ((b = 0; b < BATCHES; b++)); do
      n=$BATCH
      [ $(((b + 1) * BATCH)) -gt "$LEASES" ] && n=$((LEASES - b * BATCH))
      fx_swarm c1 "$n" "$RATE" "$(batch_mac $b)" "$W/swarm.$b.out" 60 2>>"$W/swarm.err"
   done
   touch "$W/leasing.done"
) &
LEASER=$!
lab_defer "kill $LEASER"

# Withdrawing and relearning: bounded by a count and by the stop file.
now_ms() { echo $(($(date +%s%N) / 1000000)); }
: >"$W/clears.log"
: >"$W/kills"
(
   for ((i = 0; i < 100000; i++)); do
      [ -e "$W/churn.stop" ] && break
      # Six leased MACs, read from the database: cheaper than listing the
      # set, and the swarm writes its own list only when it ends.
      # Not while tavrind restarts: the first reader after a kill recovers
      # the WAL under a lock, and tavrind, which never waits for a lock,
      # refuses to start meanwhile.
      [ -e "$W/down" ] && { sleep 0.1; continue; }
      mapfile -t macs < <(sqlite3 -readonly -cmd ".timeout 5000" "$W/tavrin.db" \
         "SELECT DISTINCT mac FROM lease ORDER BY random() LIMIT 6;" 2>/dev/null)
      [ ${#macs[@]} -lt 6 ] && { sleep 0.2; continue; }
      for m in "${macs[@]:0:3}"; do
         echo "$(now_ms) $m" >>"$W/clears.log"
         ctl clear leases --mac "$m" >/dev/null 2>&1
         # Out and in again, so the bridge announces it whatever it held.
         lab_in sw bridge fdb del "$m" dev p1 master 2>/dev/null
         lab_in sw bridge fdb add "$m" dev p1 master dynamic 2>/dev/null
      done
      for m in "${macs[@]:3:3}"; do
         lab_in sw bridge fdb del "$m" dev p1 master 2>/dev/null
      done
      sleep 0.1
   done
) &
CHURNER=$!
lab_defer "kill $CHURNER"

# ---------------------------------------------------------------- kills

# has_all FILE [SINCE_MS]: every line of FILE is in the set, but for the
# MACs the churn cleared since SINCE_MS (withdrawn on purpose, back only
# once the bridge relearns them).
has_all() {
   local cur
   cur=$(fx_allowed) || return 1
   [ -z "$(comm -23 "$1" <(printf '%s\n' "$cur") |
      awk -v t="${2:-}" 'NR == FNR { if (t != "" && $1 >= t) c[$2] = 1; next } !c[$2]' "$W/clears.log" -)" ]
}
TOTAL_LOST=0 TOTAL_NOT_BACK=0 TOTAL_EXCUSED=0 TOTAL_SEEN=0
printf '%-5s %8s %8s %6s %8s %9s %12s %14s\n' kill allowed excused lost notback integrity \
   serving_ms reinstalled_ms >"$W/figures"
for ((k = 1; k <= KILLS; k++)); do
   sleep "$(awk -v g="$GAP_MS" -v r="$RANDOM" 'BEGIN { printf "%.3f", (300 + r % (g - 300)) / 1000 }')"
   touch "$W/down"
   kill -9 "$TAVRIND_PID"
   T_KILL=$(now_ms)
   echo "$T_KILL $k" >>"$W/kills"
   lab_wait 5 lab_dead "$TAVRIND_PID"
   wait "$TAVRIND_PID" 2>/dev/null
   fx_allowed >"$W/snap.$k" || lab_fail "snapshot-$k" "could not read the set"
   integ=$(sqlite3 -readonly -cmd ".timeout 5000" "$W/tavrin.db" "PRAGMA integrity_check;" 2>&1)
   # A read that fails is no evidence of loss: it is its own failure.
   fx_db_leases >"$W/db.$k" 2>"$W/db.$k.err" || lab_fail "db-read-$k" "$(head -n 1 "$W/db.$k.err")"
   if [ "$integ" = ok ]; then lab_pass "db-intact-$k"; else lab_fail "db-intact-$k" "$integ"; fi
   # Elements without a row; those whose clear was in flight are withdrawals.
   comm -23 "$W/snap.$k" "$W/db.$k" >"$W/missing.$k"
   awk -v t="$T_KILL" -v w=$CLEAR_INFLIGHT_MS '$1 >= t - w { print $2 }' "$W/clears.log" 2>/dev/null |
      sort -u >"$W/inflight.$k"
   excused=$(awk 'NR == FNR { c[$1] = 1; next } c[$2]' "$W/inflight.$k" "$W/missing.$k" | wc -l)
   lost=$(($(wc -l <"$W/missing.$k") - excused))
   seen=$(wc -l <"$W/snap.$k")
   if [ "$lost" = 0 ]; then
      lab_pass "persisted-$k"
   else
      lab_fail "persisted-$k" "$lost of $seen installed leases have no row: $(head -n 3 "$W/missing.$k" | tr '\n' ';')"
   fi
   # Restarted while the churn goes on; what it must bring back is what was
   # both installed and persisted (a lease cleared since is rightly gone).
   comm -12 "$W/snap.$k" "$W/db.$k" >"$W/want.$k"
   T0=$(now_ms)
   if ! fx_start; then
      fx_tavrind_tail
      lab_fail "restart-$k" "tavrind did not serve again"
      break
   fi
   T1=$(now_ms)
   rm -f "$W/down"
   # Withdrawn since the restart by the churn: taken out of what must be back.
   back=1
   lab_wait 60 has_all "$W/want.$k" "$T0" || back=0
   T2=$(now_ms)
   notback=0
   if [ "$back" = 0 ]; then
      fx_allowed >"$W/after.$k"
      awk -v t="$T0" '$1 >= t { print $2 }' "$W/clears.log" | sort -u >"$W/cleared-since.$k"
      comm -23 "$W/want.$k" "$W/after.$k" |
         awk 'NR == FNR { c[$1] = 1; next } !c[$2]' "$W/cleared-since.$k" - >"$W/notback.$k"
      notback=$(wc -l <"$W/notback.$k")
   fi
   if [ "$notback" = 0 ]; then
      lab_pass "reinstalled-$k"
   else
      lab_fail "reinstalled-$k" "$notback not installed again: $(head -n 3 "$W/notback.$k" | tr '\n' ';')"
   fi
   printf '%-5s %8s %8s %6s %8s %9s %12s %14s\n' "$k" "$seen" "$excused" "$lost" "$notback" \
      "$integ" $((T1 - T0)) $((T2 - T0)) >>"$W/figures"
   TOTAL_LOST=$((TOTAL_LOST + lost))
   TOTAL_NOT_BACK=$((TOTAL_NOT_BACK + notback))
   TOTAL_EXCUSED=$((TOTAL_EXCUSED + excused))
   TOTAL_SEEN=$((TOTAL_SEEN + seen))
done

# ---------------------------------------------------------------- settle

# The leasing ends by itself (each swarm has a timeout); then the churn
# stops and every granted lease must be installed.
lab_wait $((BATCHES * 70)) test -e "$W/leasing.done" || lab_log "leasing did not finish"
touch "$W/churn.stop"
lab_wait 10 lab_dead "$CHURNER"
wait "$CHURNER" 2>/dev/null
cat "$W"/swarm.*.out | awk '$2 != "-" { print "p1", $1, $2 }' | sort >"$W/granted"
GRANTED=$(wc -l <"$W/granted")
# A cleared MAC is asked about once the bridge relearns it, a second
# later; the last few clears need that long.
lab_wait 60 has_all "$W/granted"
fx_allowed >"$W/final"
comm -23 "$W/granted" "$W/final" >"$W/final.missing"
FINAL_MISSING=$(wc -l <"$W/final.missing")
if [ "$FINAL_MISSING" = 0 ] && [ "$GRANTED" -ge $((LEASES * 95 / 100)) ]; then
   lab_pass churn-all-installed
else
   lab_fail churn-all-installed "$FINAL_MISSING of $GRANTED granted leases not installed"
   # What happened to each: its clears and FDB removals, against the kills.
   head -n 10 "$W/final.missing" | while read -r _ mac ip; do
      echo "   missing $mac $ip: clears at $(awk -v m="$mac" '$2 == m { printf "%s ", $1 }' "$W/clears.log")"
   done
   echo "   kills at $(awk '{ printf "%s ", $1 }' "$W/kills")"
   first=$(head -n 1 "$W/final.missing" | cut -d' ' -f2)
   grep "$first" "$DHCPD_LOG" | sed 's/^/   dhcpd: /'
   grep -h "$first" "$W"/swarm.*.out | sed 's/^/   swarm: /'
   lab_in sw bridge fdb show br br0 | grep "$first" | sed 's/^/   fdb: /'
   ctl show queries --json | jq -c --arg m "$first" '.[] | select(.mac == $m)' | sed 's/^/   query: /'
fi
kill -0 "$TAVRIND_PID" 2>/dev/null || lab_fail tavrind-survived "tavrind exited by itself"

sed 's/^/   /' "$W/figures"
printf '   kills %d, leases granted %d of %d, clears %d\n' "$KILLS" "$GRANTED" "$LEASES" \
   "$(wc -l <"$W/clears.log" 2>/dev/null || echo 0)"
printf '   installed at the kills %d; lost %d (goal 0); not installed again %d; withdrawals in flight %d\n' \
   "$TOTAL_SEEN" "$TOTAL_LOST" "$TOTAL_NOT_BACK" "$TOTAL_EXCUSED"
printf '   granted but not installed at the end: %d\n' "$FINAL_MISSING"
[ "$LAB_FAILED" != 0 ] && fx_tavrind_tail
# KEEP=DIR keeps the run's files (logs, snapshots, swarm lists) for a
# post-mortem; the work directory itself goes at exit.
if [ -n "${KEEP:-}" ]; then
   mkdir -p "$KEEP" && cp -a "$W"/*.log "$W"/*.out "$W"/snap.* "$W"/db.[0-9]* "$W"/kills "$W"/granted \
      "$W"/final* "$W"/dhcpd.leases "$KEEP"/ 2>/dev/null
fi
lab_log "run time $(($(date +%s) - START)) s"
lab_summary
