#!/usr/bin/env bash
# Trapped frames through tavrind from NFLOG, against a process that only
# receives from the same group and counts.
#
#   baseline      tavrind programs its table and is stopped (the table stays);
#                 bench/lab/nflog-count binds the NFLOG group with tavrind's
#                 reader settings (whole packets, batches of 32 or 10 ms,
#                 4 MiB buffer) while frame-blast sends COUNT IPv4 frames from
#                 SOURCES unleased (MAC, IP) pairs through the locked port as
#                 fast as it can. Rate: packets counted / time taken
#                 (nflog-count's first to last packet).
#   throughput    the same blast with tavrind running: its trapped-packet
#                 count / blast start to the moment the counter stops
#                 moving (polled every 0.2 s, so slightly in the baseline's
#                 favour). Goal: >= 80 % of the baseline.
#   half-rate     HALF_SECONDS of frames at half the baseline's rate with
#                 tavrind running. Goal: no ENOBUFS, read both as tavrind's
#                 reader counts them (tavrin_trap_overruns_total) and as the
#                 kernel's drop count of the namespace's netfilter netlink
#                 sockets (/proc/net/netlink); every frame sent is trapped.
#   slice         how far the reader of a port's trapped frames
#                 (IntfPamSm::handleReadableCount) runs past its 5 ms bound:
#                 tavrind's own slice counters over the throughput blast
#                 (tavrin_trap_slice*), and with SLICE=1 (needs perf) uprobes
#                 on its entry and return during a second full-speed blast.
#
# The lock's rate limit is raised (data-plane nflog-rate and nflog-burst) so
# that the limiter does not hide the reader's own speed.
#
# Topology (every name carries a per-run token; all torn down at exit):
#
#   cl (eth0: frame-blast) --- p1 (locked) - br0 in "sw" (NET.0.2; tavrind)
#
# Usage: sudo bench/lab/trap.bench.sh BUILD_DIR
#        (COUNT=1000000 SOURCES=64 HALF_SECONDS=5 SLICE=1 PROFILE=)
# PROFILE=FILE records tavrind's call graphs with perf during the
# throughput blast into FILE (perf report -i FILE), to see where a trapped
# frame's time goes. The recording costs tavrind some speed, so the
# throughput figure of such a run is not the one to quote.
# BUILD_DIR built with TAVRIN_BENCH=ON and the targets tavrind, tavrinctl,
# frame-blast, nflog-count.

set -u -o pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(dirname "$(dirname "$HERE")")
# shellcheck source=../../lab/lib.sh
. "$ROOT/lab/lib.sh"

COUNT=${COUNT:-1000000}
SOURCES=${SOURCES:-64}
HALF_SECONDS=${HALF_SECONDS:-5}
SLICE=${SLICE:-1}
PROFILE=${PROFILE:-}
GROUP=7

lab_init trap-bench
W=$LAB_WORK
lab_need_pkgs nftables iproute2 || lab_die "needs nftables"
BUILD=${1:-}
[ -n "$BUILD" ] || lab_die "usage: $0 BUILD_DIR"
TAVRIND=$BUILD/src/daemon/tavrind
TAVRINCTL=$BUILD/src/daemon/tavrinctl
FRAMES=$BUILD/bench/lab/frame-blast
COUNTER=$BUILD/bench/lab/nflog-count
for t in "$TAVRIND" "$TAVRINCTL" "$FRAMES" "$COUNTER"; do
   [ -x "$t" ] || lab_die "missing $t (configure with -DTAVRIN_BENCH=ON and build it)"
done

NET=10.197
lab_ns sw && lab_ns cl && lab_bridge sw br0 && lab_addr sw br0 $NET.0.2/16 &&
   lab_veth cl eth0 sw p1 && lab_bridge_port sw br0 p1 || lab_die "could not build the namespaces"
for ((i = 0; i < SOURCES; i++)); do
   printf '02:00:5e:70:%02x:%02x %s.%d.%d\n' $((i >> 8)) $((i & 255)) $NET $((100 + i / 250)) $((1 + i % 250))
done >"$W/sources"

cat >"$W/tavrin.yaml" <<EOF
local-interface: br0
bridge: br0
dhcp-servers:
  - $NET.0.1
interfaces:
  - p1
database: $W/tavrin.db
control-socket: $W/tavrind.sock
trace-dir: $W
data-plane:
  nflog-group: $GROUP
  nflog-rate: 1000000
  nflog-burst: 1000000
EOF
ctl() { "$TAVRINCTL" --socket "$W/tavrind.sock" "$@"; }
# CPU seconds (user + system) a process has used so far: the cost per
# frame that the sender competes with on a small machine, and a figure that
# other load on the machine disturbs far less than a rate.
TICK=$(getconf CLK_TCK)
cpu_s() { awk -v t="$TICK" '{ sub(/^.*\) /, ""); printf "%.2f", ($12 + $13) / t }' "/proc/$1/stat"; }
TPID=""
start_tavrind() {
   lab_spawn sw "$W/tavrind.$1.log" env TRACERING_DISABLE=1 "$TAVRIND" --config "$W/tavrin.yaml" --foreground
   TPID=$LAB_PID
   lab_wait 15 ctl show counters >/dev/null 2>&1 &&
      lab_wait 10 lab_in sw nft list set bridge tavrin allowed >/dev/null 2>&1
}
counter() { ctl show counters | awk -v f="$1" '$1 == f {print $2}'; }
trapped() { counter tavrin_trapped_packets_total; }
# The reader's slices so far: "count over over-seconds seconds".
slices() {
   ctl show counters | awk '
      $1 == "tavrin_trap_slices_total" { n = $2 }
      $1 == "tavrin_trap_slice_overruns_total" { o = $2 }
      $1 == "tavrin_trap_slice_overrun_seconds_total" { os = $2 }
      $1 == "tavrin_trap_slice_seconds_total" { s = $2 }
      END { print n + 0, o + 0, os + 0, s + 0 }'
}
# Kernel drops (ENOBUFS) of the namespace's NETLINK_NETFILTER sockets.
nl_drops() { lab_in sw cat /proc/net/netlink | awk '$2 == 12 {d += $9} END {print d + 0}'; }
blast() { # blast OUT ARGS...: frame-blast's "sent N in S s" line into OUT
   local out=$1
   shift
   lab_in cl "$FRAMES" --iface eth0 --macs "$W/sources" --mode ipv4 "$@" >"$out"
}

# ---------------------------------------------------------------- baseline

start_tavrind setup || lab_die "tavrind did not start: $(tail -n 3 "$W/tavrind.setup.log")"
lab_kill "$TPID"
lab_in sw nft list chain bridge tavrin lock >"$W/lock.rules" 2>&1 || lab_die "the table did not outlive tavrind"
grep -q "log group $GROUP" "$W/lock.rules" || lab_die "no NFLOG rule: $(cat "$W/lock.rules")"

lab_spawn sw "$W/count.log" "$COUNTER" --group $GROUP --duration 60
CPID=$LAB_PID
lab_wait 5 grep -q '^bound' "$W/count.log" || lab_die "nflog-count did not bind: $(cat "$W/count.log")"
blast "$W/blast.base" --count "$COUNT" --duration 20
sleep 0.5
BASE_CPU=$(cpu_s "$CPID")
lab_kill "$CPID"
read -r _ SENT _ SECS _ <"$W/blast.base"
read -r _ BASE_N _ BASE_E _ BASE_S < <(grep '^packets' "$W/count.log")
BASE_RATE=$(awk -v n="$BASE_N" -v s="$BASE_S" 'BEGIN { printf "%.0f", n / s }')
lab_log "baseline: sent $SENT in $SECS s; counted $BASE_N in $BASE_S s, $BASE_E ENOBUFS: $BASE_RATE/s"

# ---------------------------------------------------------------- throughput

start_tavrind run || lab_die "tavrind did not restart: $(tail -n 3 "$W/tavrind.run.log")"
# settle: waits (30 s at most) until the trapped counter stops moving; leaves
# its last value in SETTLED and the wall time it was first seen in SETTLED_AT.
settle() {
   local v last="" i
   for ((i = 0; i < 150; i++)); do
      v=$(trapped)
      if [ "$v" = "$last" ]; then return 0; fi
      last=$v
      SETTLED=$v
      SETTLED_AT=$(date +%s%N)
      sleep 0.2
   done
}
t0=$(trapped)
d0=$(nl_drops)
c0=$(cpu_s "$TPID")
read -r sn0 so0 sos0 ss0 < <(slices)
if [ -n "$PROFILE" ]; then
   lab_spawn sw "$W/profile.log" perf record -q -g -o "$PROFILE" -p "$TPID"
   PROFPID=$LAB_PID
fi
T0=$(date +%s%N)
blast "$W/blast.ours" --count "$COUNT" --duration 20
settle
if [ -n "$PROFILE" ]; then
   kill -INT "$PROFPID" 2>/dev/null
   lab_wait 10 lab_dead "$PROFPID"
   lab_log "profile of the throughput blast in $PROFILE"
fi
d1=$(nl_drops)
c1=$(cpu_s "$TPID")
read -r sn1 so1 sos1 ss1 < <(slices)
read -r _ SENT2 _ SECS2 _ <"$W/blast.ours"
OURS_N=$((${SETTLED%.*} - ${t0%.*}))
OURS_S=$(awk -v a="$T0" -v b="$SETTLED_AT" 'BEGIN { printf "%.3f", (b - a) / 1e9 }')
OURS_RATE=$(awk -v n="$OURS_N" -v s="$OURS_S" 'BEGIN { printf "%.0f", n / s }')
lab_log "tavrind: sent $SENT2 in $SECS2 s; trapped $OURS_N in $OURS_S s: $OURS_RATE/s"
RATIO=$(awk -v a="$OURS_RATE" -v b="$BASE_RATE" 'BEGIN { printf "%.2f", a / b }')
echo "RESULT trap-throughput sent=$SENT/$SENT2 baseline=$BASE_RATE/s (counted $BASE_N, enobufs $BASE_E) tavrind=$OURS_RATE/s (trapped $OURS_N, netlink drops $((d1 - d0))) ratio=$RATIO"
# Both figures include what each process does besides the frames (the
# counter's wait loop; tavrind's timers and the polls of its counters).
awk -v b="$BASE_CPU" -v bn="$BASE_N" -v a="$c0" -v z="$c1" -v n="$OURS_N" 'BEGIN {
   pb = bn ? b / bn * 1e6 : 0; po = n ? (z - a) / n * 1e6 : 0
   printf "RESULT trap-cpu baseline=%.2fus/frame (%.2f s) tavrind=%.2fus/frame (%.2f s) ratio=%.2f\n",
      pb, b, po, z - a, pb ? po / pb : 0 }'
awk -v n=$((sn1 - sn0)) -v o=$((so1 - so0)) -v os="$sos0" -v os1="$sos1" -v s="$ss0" -v s1="$ss1" 'BEGIN {
   printf "RESULT trap-slice-counters slices=%d mean=%.3fms over-5ms=%d (%.1f%%) mean-overrun=%.3fms\n",
      n, n ? (s1 - s) / n * 1000 : 0, o, n ? o * 100 / n : 0, o ? (os1 - os) / o * 1000 : 0 }'
awk -v r="$RATIO" 'BEGIN { exit !(r >= 0.8) }' && lab_pass trap-throughput-80%-of-baseline ||
   lab_fail trap-throughput-80%-of-baseline "ratio $RATIO"

# ---------------------------------------------------------------- half rate

HALF=$((BASE_RATE / 2))
t0=$(trapped)
d0=$(nl_drops)
o0=$(counter tavrin_trap_overruns_total)
blast "$W/blast.half" --rate "$HALF" --count $((HALF * HALF_SECONDS)) --duration $((HALF_SECONDS + 5))
sleep 1
t1=$(trapped)
d1=$(nl_drops)
o1=$(counter tavrin_trap_overruns_total)
read -r _ SENT3 _ SECS3 _ <"$W/blast.half"
GOT=$((${t1%.*} - ${t0%.*}))
OVER=$((${o1:-0} - ${o0:-0}))
echo "RESULT trap-half-rate rate=$HALF/s sent=$SENT3 in ${SECS3}s trapped=$GOT enobufs=$OVER netlink-drops=$((d1 - d0))"
[ $((d1 - d0)) = 0 ] && [ "$OVER" = 0 ] && [ "$GOT" = "$SENT3" ] && lab_pass no-enobufs-at-half-rate ||
   lab_fail no-enobufs-at-half-rate "enobufs $OVER, drops $((d1 - d0)), trapped $GOT of $SENT3"
lab_log "tavrind: $(ctl show counters | grep -E '^tavrin_(drops_total|queries_sent_total|queries_in_flight)' | tr '\n' ' ')"

# ---------------------------------------------------------------- slice

if [ "$SLICE" = 1 ] && command -v perf >/dev/null; then
   # perf probe takes no C++ scope in a function name: the mangled one, and
   # finds its return only with --no-demangle (event "trapslice_ret__return").
   FN=$(nm "$TAVRIND" | awk '$2 == "T" && $3 ~ /IntfPamSm19handleReadableCountEv$/ {print $3}')
   if [ -n "$FN" ] &&
      perf probe -q -x "$TAVRIND" --no-demangle -a "trapslice=$FN" -a "trapslice_ret=$FN%return" \
         2>"$W/probe.err"; then
      lab_defer "perf probe -q -d 'probe_tavrind:trapslice*'"
      lab_spawn sw "$W/perf.log" perf record -q -o "$W/perf.data" -p "$TPID" \
         -e 'probe_tavrind:trapslice*' -- sleep 8
      PPID_=$LAB_PID
      sleep 1
      blast "$W/blast.slice" --count "$COUNT" --duration 5
      lab_wait 15 lab_dead "$PPID_"
      lab_kill "$PPID_"
      perf script -i "$W/perf.data" -F time,event 2>/dev/null | awk '
         /trapslice_ret/ { if (t0) { d = ($1 + 0 - t0) * 1000; n++; s += d; if (d > m) m = d; if (d > 5) o++; if (d > 5) os += d - 5 }; t0 = 0; next }
         /trapslice/ { t0 = $1 + 0 }
         END { printf "RESULT trap-slice slices=%d mean=%.3fms max=%.3fms over-5ms=%d mean-overrun=%.3fms\n", n, n ? s / n : 0, m, o, o ? os / o : 0 }'
   else
      lab_log "no uprobe on $FN: $(head -n 2 "$W/probe.err")"
   fi
fi
lab_summary
