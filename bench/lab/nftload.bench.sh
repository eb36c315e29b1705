#!/usr/bin/env bash
# Loading COUNT allowed pairs into nftables: tavrind's programmer against
# `nft -f` of the same table, in one fresh namespace each time.
#
#   baseline      `nft -f` of the text the programmer itself would send (the
#                 table with COUNT elements, written by bench/lab/nft-load
#                 text), under /usr/bin/time -v: wall time and peak RSS.
#   programmer    bench/lab/nft-load program: NftProgrammer::start() on a
#                 published table of COUNT pairs, as tavrind runs it at start;
#                 wall time of the load and the peak RSS the load added on top
#                 of the table the process already held. Goals: <= 2 x the
#                 baseline's wall time, <= 10 % of its peak RSS. Also checked:
#                 nft lists all COUNT elements afterwards, and the programmer
#                 took the kernel's acknowledgements without reading the
#                 table back.
#   tavrind       (CASES with "tavrind") tavrind itself started on an SQLite database of
#                 COUNT persisted leases (written directly, schema of
#                 docs/state.md): spawn to COUNT pairs allowed, and its peak
#                 RSS; shows what the agent adds around the programmer.
#
# Topology: one namespace "sw" with bridge br0 and a veth port p1 that
# carries the locking rule; nothing is sent anywhere.
#
# Usage: sudo bench/lab/nftload.bench.sh BUILD_DIR
#        (COUNT=1000000 CASES="programmer"; CASES="tavrind" for the daemon:
#        each case runs against its own baseline measurement, and the two
#        together do not fit in five minutes of a loaded two-core machine)
# BUILD_DIR built with TAVRIN_BENCH=ON and the targets nft-load, tavrind,
# tavrinctl.

set -u -o pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(dirname "$(dirname "$HERE")")
# shellcheck source=../../lab/lib.sh
. "$ROOT/lab/lib.sh"

COUNT=${COUNT:-1000000}
CASES=${CASES:-programmer}

lab_init nftload-bench
W=$LAB_WORK
lab_need_pkgs nftables iproute2 time sqlite3 || lab_die "needs nftables, time and sqlite3"
BUILD=${1:-}
[ -n "$BUILD" ] || lab_die "usage: $0 BUILD_DIR"
LOAD=$BUILD/bench/lab/nft-load
TAVRIND=$BUILD/src/daemon/tavrind
TAVRINCTL=$BUILD/src/daemon/tavrinctl
for t in "$LOAD" "$TAVRIND" "$TAVRINCTL"; do
   [ -x "$t" ] || lab_die "missing $t (configure with -DTAVRIN_BENCH=ON and build it)"
done

# fresh_ns TAG: a new namespace "sw-TAG" with br0 and the veth port p1.
fresh_ns() {
   lab_ns "sw-$1" && lab_bridge "sw-$1" br0 &&
      ip -n "$(lab_name "sw-$1")" link add p1 type veth peer name q1 &&
      ip -n "$(lab_name "sw-$1")" link set p1 master br0 up
}
# timed FILE: wall seconds and peak RSS (kB) from /usr/bin/time -v's report.
wall_of() { awk -F': ' '/Elapsed \(wall clock\)/ {n = split($2, p, ":"); s = 0; for (i = 1; i <= n; i++) s = s * 60 + p[i]; print s}' "$1"; }
rss_of() { awk -F': ' '/Maximum resident set size/ {print $2}' "$1"; }

"$LOAD" text --count "$COUNT" --port p1 --out "$W/table.nft" || lab_die "nft-load text failed"
lab_log "table text: $(wc -c <"$W/table.nft") bytes for $COUNT elements"

# ---------------------------------------------------------------- baseline

fresh_ns base || lab_die "could not build the namespace"
lab_in sw-base /usr/bin/time -v -o "$W/time.base" nft -f "$W/table.nft" 2>"$W/nft.err" ||
   lab_die "nft -f failed: $(head -n 3 "$W/nft.err")"
BASE_S=$(wall_of "$W/time.base")
BASE_KB=$(rss_of "$W/time.base")
lab_log "baseline nft -f: $BASE_S s, peak RSS $BASE_KB kB"

has_case() { [[ " $CASES " == *" $1 "* ]]; }

# ---------------------------------------------------------------- programmer

if has_case programmer; then
fresh_ns prog || lab_die "could not build the namespace"
lab_in sw-prog /usr/bin/time -v -o "$W/time.prog" "$LOAD" program --count "$COUNT" --port p1 \
   >"$W/prog.out" 2>"$W/prog.err" || lab_fail programmer-loads "$(tail -n 3 "$W/prog.err")"
read -r _ PROG_S _ BEFORE_KB _ PEAK_KB _ LOAD_KB _ ELEMS _ INSTALLED _ RESYNCS _ BATCHES _ <"$W/prog.out"
PROG_RSS_KB=$(rss_of "$W/time.prog")
lab_log "programmer: ${PROG_S:-?} s, RSS before $BEFORE_KB kB, peak during load $PEAK_KB kB (+$LOAD_KB kB), process peak $PROG_RSS_KB kB, $ELEMS elements ($INSTALLED installed), $BATCHES netlink transactions, $RESYNCS read-backs"
[ "${ELEMS:-0}" = "$COUNT" ] && [ "${INSTALLED:-0}" = "$COUNT" ] && lab_pass programmer-loads-all ||
   lab_fail programmer-loads-all "${ELEMS:-0} of $COUNT in the kernel, ${INSTALLED:-0} installed"
# Nothing else commits in this namespace, so the kernel's acknowledgements
# are enough: reading a million elements back would cost more than the load.
[ "${RESYNCS:-x}" = 0 ] && lab_pass programmer-trusts-its-own-load ||
   lab_fail programmer-trusts-its-own-load "${RESYNCS:-?} read-backs"
# What the kernel holds, counted by nft itself (one IPv4 address per element).
KERNEL_ELEMS=$(lab_in sw-prog nft list set bridge tavrin allowed 2>/dev/null |
   grep -oE '\. [0-9]+\.[0-9]+\.[0-9]+\.[0-9]+' | wc -l)
[ "$KERNEL_ELEMS" = "$COUNT" ] && lab_pass kernel-holds-all ||
   lab_fail kernel-holds-all "nft lists $KERNEL_ELEMS of $COUNT"

TIME_RATIO=$(awk -v a="$PROG_S" -v b="$BASE_S" 'BEGIN { printf "%.2f", a / b }')
MEM_RATIO=$(awk -v a="$LOAD_KB" -v b="$BASE_KB" 'BEGIN { printf "%.3f", a / b }')
echo "RESULT nftload count=$COUNT nft-f=${BASE_S}s/${BASE_KB}kB programmer=${PROG_S}s/+${LOAD_KB}kB(process ${PROG_RSS_KB}kB) time-ratio=$TIME_RATIO memory-ratio=$MEM_RATIO"
awk -v r="$TIME_RATIO" 'BEGIN { exit !(r <= 2) }' && lab_pass "load-within-2x-nft-f" ||
   lab_fail "load-within-2x-nft-f" "ratio $TIME_RATIO"
awk -v r="$MEM_RATIO" 'BEGIN { exit !(r <= 0.10) }' && lab_pass "load-memory-within-10%-of-nft-f" ||
   lab_fail "load-memory-within-10%-of-nft-f" "ratio $MEM_RATIO"
fi

# ---------------------------------------------------------------- tavrind

if has_case tavrind; then
   fresh_ns e2e && lab_addr sw-e2e br0 10.255.0.2/16 || lab_die "could not build the namespace"
   NOW=$(date +%s)
   sqlite3 "$W/tavrin.db" >/dev/null <<EOF || lab_die "could not write the database"
PRAGMA application_id = 0x54617672;
PRAGMA user_version = 1;
PRAGMA journal_mode = WAL;
CREATE TABLE lease (
   interface TEXT NOT NULL, mac TEXT NOT NULL, ip TEXT NOT NULL, server TEXT NOT NULL,
   last_transaction_time REAL NOT NULL, expiration_time REAL NOT NULL,
   PRIMARY KEY (interface, mac, ip, server)
) STRICT, WITHOUT ROWID;
CREATE TABLE interface_rule (interface TEXT NOT NULL PRIMARY KEY, rule INTEGER NOT NULL) STRICT, WITHOUT ROWID;
INSERT INTO interface_rule VALUES ('p1', 1);
WITH RECURSIVE c(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM c WHERE i < $COUNT - 1)
INSERT INTO lease SELECT 'p1',
   printf('02:00:5e:%02x:%02x:%02x', (i >> 16) & 255, (i >> 8) & 255, i & 255),
   printf('10.%d.%d.%d', (i >> 16) & 255, (i >> 8) & 255, i & 255),
   '10.255.0.1', $NOW.0, $NOW.0 + 86400 FROM c;
EOF
   cat >"$W/tavrin.yaml" <<EOF
local-interface: br0
bridge: br0
dhcp-servers:
  - 10.255.0.1
interfaces:
  - p1
database: $W/tavrin.db
control-socket: $W/tavrind.sock
trace-dir: $W
EOF
   allowed_all() {
      "$TAVRINCTL" --socket "$W/tavrind.sock" show counters 2>/dev/null |
         awk -v n="$COUNT" '$1 == "tavrin_dataplane_allowed" && $2 >= n {ok = 1} END {exit !ok}'
   }
   T0=$(date +%s%N)
   lab_spawn sw-e2e "$W/tavrind.log" env TRACERING_DISABLE=1 "$TAVRIND" --config "$W/tavrin.yaml" --foreground
   TPID=$LAB_PID
   if lab_wait 200 allowed_all; then
      E2E_S=$(awk -v a="$T0" -v b="$(date +%s%N)" 'BEGIN { printf "%.3f", (b - a) / 1e9 }')
      E2E_KB=$(awk '/VmHWM/ {print $2}' "/proc/$TPID/status")
      echo "RESULT nftload-tavrind count=$COUNT spawn-to-allowed=${E2E_S}s (vs nft -f x$(awk -v a="$E2E_S" -v b="$BASE_S" 'BEGIN { printf "%.2f", a / b }')) peak-rss=${E2E_KB}kB (vs nft -f x$(awk -v a="$E2E_KB" -v b="$BASE_KB" 'BEGIN { printf "%.2f", a / b }'))"
      lab_pass tavrind-starts-with-all-allowed
   else
      lab_fail tavrind-starts-with-all-allowed "not all allowed within 200 s: $(tail -n 3 "$W/tavrind.log")"
   fi
   lab_kill "$TPID"
fi
lab_summary
