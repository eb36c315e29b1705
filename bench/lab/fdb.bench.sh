#!/usr/bin/env bash
# The MAC table follower (src/linux/RtnlFollower, run by bench/lab/fdb-follow
# as lab/tools/rtnl-watch runs it) under a burst of FDB changes.
#
#   burst-no-loss     BURST `bridge fdb add` in one `bridge -batch` run while
#                     the follower reads with an 8 MiB receive buffer: no
#                     overrun, and its view equals `bridge fdb show`.
#   resync            a follower with the smallest buffer the kernel grants,
#                     on the table of BURST entries, then CHURN changes in
#                     one batch: overruns are forced, and the follower
#                     re-dumps. Goal: the last resync (last overrun seen to
#                     synced) within 2 x the baseline, and the view equal to
#                     a fresh follower's first dump.
#   baseline          a bare dump of the same table: `bridge fdb show br br0`
#                     to /dev/null, best of three (process start included).
#   fresh dump        for reference: a fresh follower's start to first sync.
#
# Topology: one namespace "sw", bridge br0 with two veth ports p1 and p2;
# the entries are added by hand, no frame is sent.
#
# Usage: sudo bench/lab/fdb.bench.sh BUILD_DIR   (BURST=100000 CHURN=4000)
# BUILD_DIR built with TAVRIN_BENCH=ON and the target fdb-follow.

set -u -o pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(dirname "$(dirname "$HERE")")
# shellcheck source=../../lab/lib.sh
. "$ROOT/lab/lib.sh"

BURST=${BURST:-100000}
CHURN=${CHURN:-4000}

lab_init fdb-bench
W=$LAB_WORK
lab_need_pkgs iproute2 || lab_die "needs iproute2"
BUILD=${1:-}
[ -n "$BUILD" ] || lab_die "usage: $0 BUILD_DIR"
FOLLOW=$BUILD/bench/lab/fdb-follow
[ -x "$FOLLOW" ] || lab_die "missing $FOLLOW (configure with -DTAVRIN_BENCH=ON and build it)"

lab_ns sw && lab_bridge sw br0 || lab_die "could not build the namespace"
# Ports are veth ends whose peers stay unplugged in the same namespace.
for p in 1 2; do
   ip -n "$(lab_name sw)" link add p$p type veth peer name q$p &&
      ip -n "$(lab_name sw)" link set q$p up &&
      ip -n "$(lab_name sw)" link set p$p master br0 up || lab_die "could not add p$p"
done
# Entries added by hand are dynamic; five minutes of ageing outlast the run.

# awk, not a shell loop: a hundred thousand lines in well under a second.
awk -v n="$BURST" 'function mac(i) { return sprintf("02:00:5e:%02x:%02x:%02x", int(i / 65536) % 256, int(i / 256) % 256, i % 256) }
   BEGIN { for (i = 0; i < n; i++) printf "fdb add %s dev p%d master dynamic\n", mac(i), i % 2 + 1 }' >"$W/add.batch"
awk -v n="$BURST" -v c="$CHURN" 'function mac(i) { return sprintf("02:00:5e:%02x:%02x:%02x", int(i / 65536) % 256, int(i / 256) % 256, i % 256) }
   BEGIN {
      for (i = 0; i < c / 2; i++) printf "fdb del %s dev p1 master\n", mac(i * 2)
      for (i = 0; i < c / 2; i++) printf "fdb add %s dev p2 master dynamic\n", mac(n + i)
   }' >"$W/churn.batch"

# follower TAG ARGS...: starts fdb-follow; FPID and FLOG name it.
FPID=""
FLOG=""
follower() {
   local tag=$1
   shift
   FLOG=$W/follow-$tag.log
   lab_spawn sw "$FLOG" "$FOLLOW" --bridge br0 --snapshot "$W/snap-$tag" "$@"
   FPID=$LAB_PID
   lab_wait 20 grep -q '^synced 1 ' "$FLOG"
}
SNAPS=0
# snapshot: asks the follower for its view; prints its entry count.
snapshot() {
   SNAPS=$((SNAPS + 1))
   local n=$(($(grep -c '^snapshot ' "$FLOG") + 1))
   kill -USR1 "$FPID" || return 1
   lab_wait 10 grep -q "^snapshot $n " "$FLOG" || return 1
   grep "^snapshot $n " "$FLOG" | awk '{print $3}'
}
ours() { grep ' 02:00:5e:' "$1" | sort; }
kernel_view() {
   lab_in sw bridge fdb show br br0 | awk '$1 ~ /^02:00:5e:/ {
      vlan = 0; for (i = 2; i < NF; i++) if ($i == "vlan") vlan = $(i + 1)
      print vlan, $1, $3 }' | sort
}
counter() { grep '^snapshot ' "$FLOG" | tail -n 1 | grep -o "$1=[0-9]*" | cut -d= -f2; }

# ---------------------------------------------------------------- burst

follower burst --rcvbuf $((8 << 20)) || lab_die "fdb-follow did not start: $(tail -n 3 "$FLOG")"
T0=$(date +%s%N)
lab_in sw bridge -batch "$W/add.batch" >"$W/batch.log" 2>&1 || lab_log "bridge -batch: $(head -n 2 "$W/batch.log")"
T1=$(date +%s%N)
settled() { [ "$(snapshot)" -ge "$BURST" ]; }
lab_wait 30 settled
BURST_S=$(awk -v a="$T0" -v b="$T1" 'BEGIN { printf "%.3f", (b - a) / 1e9 }')
kernel_view >"$W/kernel.burst"
ours "$W/snap-burst" >"$W/ours.burst"
lab_log "burst: $BURST adds in $BURST_S s ($(awk -v n="$BURST" -v s="$BURST_S" 'BEGIN { printf "%.0f", n / s }')/s); follower: $(grep '^snapshot ' "$FLOG" | tail -n 1)"
if [ "$(counter overruns)" = 0 ] && cmp -s "$W/kernel.burst" "$W/ours.burst" &&
   [ "$(wc -l <"$W/kernel.burst")" = "$BURST" ]; then
   lab_pass "burst-of-$BURST-no-lost-notification-8MiB"
else
   lab_fail "burst-of-$BURST-no-lost-notification-8MiB" "overruns $(counter overruns), ours $(wc -l <"$W/ours.burst"), kernel $(wc -l <"$W/kernel.burst")"
fi
echo "RESULT fdb-burst changes=$BURST batch=${BURST_S}s rcvbuf=8MiB overruns=$(counter overruns) resyncs=$(counter resyncs) view-equals-kernel=$(cmp -s "$W/kernel.burst" "$W/ours.burst" && echo yes || echo no)"
lab_kill "$FPID"

# ---------------------------------------------------------------- baseline

best=""
for _ in 1 2 3; do
   a=$(date +%s%N)
   lab_in sw bridge fdb show br br0 >/dev/null
   b=$(date +%s%N)
   t=$(((b - a) / 1000))
   [ -z "$best" ] || [ "$t" -lt "$best" ] && best=$t
done
BASE_S=$(awk -v u="$best" 'BEGIN { printf "%.4f", u / 1e6 }')
lab_log "baseline: bridge fdb show of $BURST entries in $BASE_S s (best of 3)"

# ---------------------------------------------------------------- resync

follower resync --rcvbuf 1 || lab_die "fdb-follow did not start: $(tail -n 3 "$FLOG")"
RESYNC_LOG=$FLOG
RESYNC_PID=$FPID
lab_in sw bridge -batch "$W/churn.batch" >"$W/batch.log" 2>&1 || lab_log "bridge -batch: $(head -n 2 "$W/batch.log")"
want=$((BURST - CHURN / 2 + CHURN / 2))
resynced() { [ "$(grep -c '^overrun ' "$RESYNC_LOG")" -ge 1 ] && [ "$(snapshot)" -ge "$want" ] &&
   awk '/^overrun / {o = $2} /^synced / {s = $3} END {exit !(o && s > o)}' "$RESYNC_LOG"; }
lab_wait 30 resynced || lab_log "no completed resync after the churn: $(tail -n 3 "$RESYNC_LOG")"
sleep 1
snapshot >/dev/null
RESYNC_S=$(awk '/^overrun / {o = $2} /^synced / {s = $3} END { if (o && s > o) printf "%.4f", s - o; else print "nan" }' "$RESYNC_LOG")
OVERRUNS=$(counter overruns)
RESYNCS=$(counter resyncs)
ours "$W/snap-resync" >"$W/ours.resync"

follower fresh --rcvbuf $((8 << 20)) || lab_die "fdb-follow did not start: $(tail -n 3 "$FLOG")"
FRESH_S=$(awk '/^started / {a = $2} /^synced 1 / {printf "%.4f", $3 - a}' "$FLOG")
snapshot >/dev/null
ours "$W/snap-fresh" >"$W/ours.fresh"
kernel_view >"$W/kernel.resync"
RATIO=$(awk -v a="$RESYNC_S" -v b="$BASE_S" 'BEGIN { printf "%.2f", a / b }')
EQUAL=no
cmp -s "$W/ours.resync" "$W/ours.fresh" && cmp -s "$W/ours.fresh" "$W/kernel.resync" && EQUAL=yes
echo "RESULT fdb-resync entries=$(wc -l <"$W/ours.fresh") churn=$CHURN rcvbuf=min overruns=$OVERRUNS resyncs=$RESYNCS last-resync=${RESYNC_S}s baseline(bridge fdb show)=${BASE_S}s ratio=$RATIO fresh-follower-dump=${FRESH_S}s equal-to-fresh-dump=$EQUAL"
[ "${OVERRUNS:-0}" -ge 1 ] && lab_pass overrun-forced || lab_fail overrun-forced "no overrun with the smallest buffer"
[ "$EQUAL" = yes ] && lab_pass resync-equals-fresh-dump ||
   lab_fail resync-equals-fresh-dump "resync $(wc -l <"$W/ours.resync"), fresh $(wc -l <"$W/ours.fresh"), kernel $(wc -l <"$W/kernel.resync")"
awk -v r="$RATIO" 'BEGIN { exit !(r <= 2) }' && lab_pass resync-within-2x-bare-dump ||
   lab_fail resync-within-2x-bare-dump "ratio $RATIO"
lab_kill "$FPID"
lab_kill "$RESYNC_PID"
lab_summary
