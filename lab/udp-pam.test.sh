#!/usr/bin/env bash
# The lease query client's UDP socket (LinuxUdpPam) against a peer we did
# not write.
#
# lab/tools/udp-pam-probe drives the socket on its event loop as the agent
# does; a small Python peer in another namespace logs what arrives (sender
# address and port) and echoes it back. Checks: the socket binds the server
# port and sends from the source address asked for, primary or secondary
# (IP_PKTINFO), while bound to the wildcard; a source that is not local is a
# counted send error, not a datagram from another address; an unbound
# socket sends from an ephemeral port and still hears the answer; a burst
# larger than one read batch arrives whole, each datagram with its sender;
# a port held by someone else is a clear open error.
#
# Topology (names carry a per-run token; all torn down at exit):
#
#   ag: a0 NET.1.1/24, NET.1.2/24 (secondary) ---- s0 NET.1.10/24 :srv
#
# Usage: sudo lab/udp-pam.test.sh
# The probe comes from UDP_PAM_PROBE, else from next to LQ_PROBE (scripts/
# test.sh sets it), else it is built from this tree into the work directory.

set -u -o pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=lib.sh
. "$HERE/lib.sh"

lab_init udp-pam
W=$LAB_WORK

PROBE=$(lab_bin udp-pam-probe UDP_PAM_PROBE lab) || exit 2
command -v python3 >/dev/null || lab_die "needs python3 for the peer"

NET=10.197
AG1=$NET.1.1
AG2=$NET.1.2
SRV=$NET.1.10

lab_ns ag && lab_ns srv && lab_veth ag a0 srv s0 &&
   lab_addr ag a0 $AG1/24 && lab_addr ag a0 $AG2/24 && lab_addr srv s0 $SRV/24 ||
   lab_die "could not build the namespaces"

cat >"$W/peer.py" <<'EOF'
import socket, sys, time
mode = sys.argv[1]
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
if mode == "echo":  # echo LOG: log each datagram's sender and echo it back
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.bind(("0.0.0.0", 67))
    log = open(sys.argv[2], "a", buffering=1)
    print("ready", file=log)
    while True:
        data, (ip, port) = s.recvfrom(4096)
        print("from", ip, port, data.decode(), file=log)
        s.sendto(b"echo " + data, (ip, port))
elif mode == "burst":  # burst DST N: N datagrams to DST:67, in paced groups
    for i in range(int(sys.argv[3])):
        s.sendto(b"burst %d" % i, (sys.argv[2], 67))
        if i % 50 == 49:
            time.sleep(0.01)
elif mode == "hold":  # hold READY: keep port 67 without SO_REUSEADDR
    s.bind(("0.0.0.0", 67))
    open(sys.argv[2], "w").write("held\n")
    time.sleep(60)
EOF

lab_spawn srv "$W/peer.out" python3 "$W/peer.py" echo "$W/peer.log"
lab_wait 5 grep -q ready "$W/peer.log" 2>/dev/null || lab_die "the peer did not start: $(cat "$W/peer.out")"

# probe NAME ARGS...: runs the probe in ag, output in $W/NAME.out; its exit status.
probe() {
   local name=$1
   shift
   lab_in ag timeout 20 "$PROBE" "$@" >"$W/$name.out" 2>&1
}
peer_lines() { grep -c "$1" "$W/peer.log"; }
has() { grep -q "$2" "$W/$1.out"; }

# ---------------------------------------------------------------- cases

probe secondary --bind 0.0.0.0:67 --send $SRV:67 --src $AG2 --count 3 --expect 3
rc=$?
if [ $rc = 0 ] && [ "$(peer_lines "^from $AG2 67 probe ")" = 3 ] &&
   [ "$(grep -c "^rx $SRV .* echo probe " "$W/secondary.out")" = 3 ] &&
   has secondary "sent=3 send-errors=0 received=3"; then
   lab_pass source-secondary-bound-67
else
   lab_fail source-secondary-bound-67 "rc=$rc; peer: $(grep -c . "$W/peer.log") lines; $(tail -n 1 "$W/secondary.out")"
fi

probe primary --send $SRV:67 --src $AG1 --count 1 --expect 1
if [ $? = 0 ] && [ "$(peer_lines "^from $AG1 67 probe 0")" = 1 ]; then
   lab_pass source-primary
else
   lab_fail source-primary "$(tail -n 1 "$W/primary.out")"
fi

before=$(grep -c . "$W/peer.log")
probe foreign --send $SRV:67 --src $NET.1.99 --count 2 --expect 0 --timeout 1
sleep 0.5 # a datagram that did leave would need this long at most to be logged
if has foreign "sent=0 send-errors=2" && [ "$(grep -c . "$W/peer.log")" = "$before" ]; then
   lab_pass foreign-source-refused
else
   lab_fail foreign-source-refused "$(tail -n 1 "$W/foreign.out")"
fi

probe unbound --mode tx --send $SRV:67 --src $AG1 --count 1 --expect 1
rc=$?
port=$(sed -n "s/^from $AG1 \([0-9]*\) probe 0\$/\1/p" "$W/peer.log" | tail -n 1)
if [ $rc = 0 ] && [ -n "$port" ] && [ "$port" != 67 ] && has unbound "^rx $SRV "; then
   lab_pass unbound-ephemeral-port
else
   lab_fail unbound-ephemeral-port "peer saw port '${port}'; $(tail -n 1 "$W/unbound.out")"
fi

# More than one read batch (64) in a burst: every datagram, with its sender.
BURST=200
lab_spawn ag "$W/burst.out" "$PROBE" --bind 0.0.0.0:67 --expect $BURST --timeout 10
BURST_PID=$LAB_PID
lab_wait 5 grep -q '^open 67' "$W/burst.out" || lab_log "burst probe did not open"
lab_in srv python3 "$W/peer.py" burst $AG1 $BURST
lab_wait 10 grep -q '^counters' "$W/burst.out"
n=$(grep -c "^rx $SRV [0-9]* burst " "$W/burst.out")
if [ "$n" = $BURST ] && grep -q "queue-drops=0" "$W/burst.out"; then
   lab_pass burst-received-whole
else
   lab_fail burst-received-whole "$n of $BURST; $(grep counters "$W/burst.out")"
fi
lab_kill "$BURST_PID"

lab_spawn ag "$W/hold.out" python3 "$W/peer.py" hold "$W/held"
HOLD_PID=$LAB_PID
lab_wait 5 test -e "$W/held" || lab_log "the port holder did not start"
probe inuse --bind 0.0.0.0:67
rc=$?
if [ $rc = 3 ] && has inuse "^open-error .*bind 0.0.0.0:67: Address already in use"; then
   lab_pass port-in-use-reported
else
   lab_fail port-in-use-reported "rc=$rc: $(head -n 1 "$W/inuse.out")"
fi
lab_kill "$HOLD_PID"

lab_summary
