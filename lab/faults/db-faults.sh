#!/usr/bin/env bash
# The database fails under a running tavrind: the daemon says so, keeps
# enforcing from memory, and writes everything once the store is back.
#
# The database lives on a small tmpfs mounted in a mount namespace of the
# test's own (held by a sleeping process; tavrind runs inside it, the host
# never sees the mount). For each fault a new client leases through its own
# locked port while the fault lasts:
#   FAULT-logged     tavrind's log names the database and the reason
#                    ("cannot write the database ...") and the failure
#                    counter moves
#   FAULT-enforced   the new lease is installed in `allowed` and the
#                    client's traffic passes
#   FAULT-not-written the lease is not in the file while the fault lasts
#                    (proof that the fault really hit the store)
#   FAULT-resumed    once the fault is lifted, the lease is in the file
#                    (within 5 s: a failed commit is retried every second),
#                    the log says "database writes resumed", and the file
#                    passes PRAGMA integrity_check
# Faults:
#   full       the file system is filled with a file (ENOSPC)
#   locked     another process holds the write lock (sqlite3 in BEGIN
#              EXCLUSIVE); tavrind does not wait for locks
#   readonly   the file system is remounted read-only. The kernel refuses
#              that while tavrind holds the database open for writing
#              (EBUSY), so the case first checks that refusal, then stops
#              tavrind, remounts read-only, starts it on the read-only
#              store (it must start: the leases can be read, enforcement
#              must go on), and remounts read-write while it runs
#
# Topology: see fixture.sh (client namespaces c1..c3 on p1..p3).
# Usage: sudo lab/faults/db-faults.sh [BUILD_DIR]   (QUICK=1 runs the same:
# it takes well under two minutes)

set -u -o pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../lib.sh
. "$HERE/../lib.sh"
# shellcheck source=fixture.sh
. "$HERE/fixture.sh"

START=$(date +%s)
lab_init db-faults
W=$LAB_WORK
lab_need_pkgs isc-dhcp-server nftables sqlite3 jq util-linux ||
   lab_die "needs isc-dhcp-server, nftables, sqlite3, jq"
fx_tools "${1:-}"
fx_network 3 || lab_die "could not build the namespaces"
fx_dhcpd 3600 || lab_die "dhcpd did not start"

# The mount namespace: a bounded sleeper holds it, killed at exit (and the
# tmpfs with it).
DBDIR=$W/dbfs
mkdir -p "$DBDIR"
unshare -m --propagation private sleep 1800 &
HOLDER=$!
lab_defer "kill $HOLDER"
lab_wait 5 sh -c "[ \"\$(readlink /proc/$HOLDER/ns/mnt)\" != \"\$(readlink /proc/self/ns/mnt)\" ]" ||
   lab_die "no mount namespace"
in_mnt() { nsenter -t "$HOLDER" -m "$@"; }
in_mnt mount -t tmpfs -o size=1m,mode=0700 tavrin-faults "$DBDIR" || lab_die "could not mount the tmpfs"
# shellcheck disable=SC2034 # read by fixture.sh
FX_MNTNS_PID=$HOLDER
# shellcheck disable=SC2034 # read by fixture.sh
NSENTER="nsenter -t $HOLDER -m"
DB=$DBDIR/tavrin.db
fx_config "$DB"
fx_start || { fx_tavrind_tail; lab_die "tavrind did not start"; }

db_has() { fx_db_leases "$DB" 2>/dev/null | grep -qx "$1 $2 $3"; }
log_since() { tail -c +$(($1 + 1)) "$TAVRIND_LOG"; }
log_size() { stat -c %s "$TAVRIND_LOG"; }
log_says() { log_since "$1" | grep -q "$2"; }
failures() { fx_counter tavrin_store_commit_failures_total; }
more_failures() { [ "$(failures)" -gt "$1" ] 2>/dev/null; }

# fault NAME NS PORT MAC INJECT LIFT: one fault, four checks.
fault() {
   local name=$1 ns=$2 port=$3 mac=$4 inject=$5 lift=$6 off f0 ip integ t0 t1
   off=$(log_size)
   f0=$(failures)
   local log=$TAVRIND_LOG
   INJECT_WHY="the fault could not be made" INJECT_CASE=injected
   "$inject" || { lab_fail "$name-$INJECT_CASE" "$INJECT_WHY"; "$lift"; return; }
   # A fault that restarts tavrind starts a new log and new counters.
   [ "$TAVRIND_LOG" != "$log" ] && off=0 f0=0
   ip=$(fx_client "$ns" "$mac") || { lab_fail "$name-enforced" "$ns got no lease"; "$lift"; return; }
   if lab_wait 10 fx_installed "$port" "$mac" "$ip" && fx_passes "$ns"; then
      lab_pass "$name-enforced"
   else
      lab_fail "$name-enforced" "$mac $ip not installed or its traffic does not pass"
   fi
   if lab_wait 5 log_says "$off" "cannot write the database $DB: " && more_failures "$f0"; then
      lab_pass "$name-logged"
      lab_log "$name: $(log_since "$off" | grep -m1 'cannot write the database')"
   else
      lab_fail "$name-logged" "no failure in the log or the counter ($(failures) failures)"
   fi
   if db_has "$port" "$mac" "$ip"; then
      lab_fail "$name-not-written" "the lease reached the file during the fault"
   else
      lab_pass "$name-not-written"
   fi
   t0=$(date +%s%N)
   "$lift" || lab_log "$name: lifting the fault failed"
   if lab_wait 5 db_has "$port" "$mac" "$ip" && lab_wait 3 log_says "$off" "database writes resumed"; then
      t1=$(date +%s%N)
      integ=$(in_mnt sqlite3 -readonly "$DB" "PRAGMA integrity_check;" 2>&1)
      if [ "$integ" = ok ]; then
         lab_pass "$name-resumed"
         printf '   %-9s lease written %4d ms after the fault was lifted; pending at the end %s\n' \
            "$name" $(((t1 - t0) / 1000000)) "$(fx_counter tavrin_store_pending)" >>"$W/figures"
      else
         lab_fail "$name-resumed" "integrity_check: $integ"
      fi
   else
      lab_fail "$name-resumed" "lease not in the file 5 s after the fault was lifted ($(fx_counter tavrin_store_pending) pending)"
      log_since "$off" | tail -n 5 >&2
   fi
   fx_serving || lab_fail "$name-alive" "tavrind stopped answering"
}

# ---------------------------------------------------------------- full
fill() {
   # Fills until ENOSPC (bounded by the tmpfs' size); dd's failure is the point.
   in_mnt dd if=/dev/zero of="$DBDIR/fill" bs=4k status=none 2>/dev/null
   [ "$(in_mnt df --output=avail -k "$DBDIR" | tail -n 1 | tr -d ' ')" -le 4 ]
}
unfill() { in_mnt rm -f "$DBDIR/fill"; }
fault full c1 p1 02:00:5e:70:00:01 fill unfill

# ---------------------------------------------------------------- locked
lock_db() {
   rm -f "$W/unlock" "$W/lock.out"
   (
      echo 'BEGIN EXCLUSIVE;'
      echo "SELECT 'holding';"
      lab_wait 60 test -e "$W/unlock"
      echo 'COMMIT;'
   ) | in_mnt sqlite3 "$DB" >"$W/lock.out" 2>&1 &
   LOCKER=$!
   lab_wait 5 grep -qs holding "$W/lock.out"
}
unlock_db() {
   touch "$W/unlock"
   lab_wait 5 lab_dead "$LOCKER"
   wait "$LOCKER"
}
fault locked c2 p2 02:00:5e:70:00:02 lock_db unlock_db

# ---------------------------------------------------------------- readonly
case_ro_refused() {
   local out
   out=$(in_mnt mount -o remount,ro "$DBDIR" 2>&1) && {
      lab_log "remounted read-only under a running tavrind"
      in_mnt mount -o remount,rw "$DBDIR"
      return 1
   }
   grep -q busy <<<"$out"
}
if case_ro_refused; then
   lab_pass readonly-refused-while-open
else
   lab_fail readonly-refused-while-open "a read-only remount was not refused with EBUSY"
fi
# Stopped, remounted read-only, started: the client leases meanwhile.
remount_ro() {
   kill -TERM "$TAVRIND_PID"
   lab_wait 10 lab_dead "$TAVRIND_PID" || return 1
   wait "$TAVRIND_PID"
   in_mnt mount -o remount,ro "$DBDIR" || return 1
   fx_start || {
      INJECT_CASE=starts
      INJECT_WHY="tavrind does not start on a read-only store: $(tail -n 1 "$TAVRIND_LOG")"
      return 1
   }
}
remount_rw() {
   in_mnt mount -o remount,rw "$DBDIR" || return 1
   # `ip netns exec` gave tavrind a copy of the mount namespace, which a
   # remount in the holder's does not reach: the file system comes back
   # where tavrind sees it, as an operator's remount on the host would.
   nsenter -t "$TAVRIND_PID" -m mount -o remount,rw "$DBDIR" 2>/dev/null
   # Back on a writable store, a daemon that refused to start must start.
   fx_serving || fx_start
}
fault readonly c3 p3 02:00:5e:70:00:03 remount_ro remount_rw

# ---------------------------------------------------------------- wrap up
[ -e "$W/figures" ] && cat "$W/figures"
lab_log "commits $(fx_counter tavrin_store_commits_total), failed $(fx_counter tavrin_store_commit_failures_total)"
[ "$LAB_FAILED" != 0 ] && fx_tavrind_tail
lab_log "run time $(($(date +%s) - START)) s"
lab_summary
