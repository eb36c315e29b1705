# shellcheck shell=bash
# Shared helpers for the network-namespace labs. Source it, then call
# lab_init once; everything created through these helpers is torn down in
# reverse order when the script exits, whether it passed, failed or was
# interrupted.
#
# Names carry a random per-run token so that two runs (or two people on one
# machine) never collide, and so that teardown can never touch anything the
# lab did not create. Interfaces are created directly inside their
# namespaces, so their short names (15 bytes at most) need only be unique
# within one namespace and never appear on the host.
#
# Conventions: helpers print nothing on success; failures go to stderr and
# return non-zero. Scripts should use `set -u -o pipefail` but not `set -e`:
# a failed check must be recorded, not abort before the summary.

# ---------------------------------------------------------------- state

LAB_NAME=""        # script name, prefix of the summary line
LAB_TOKEN=""       # random per-run token, part of every created name
LAB_WORK=""        # private temporary directory, removed at exit
LAB_VERBOSE=${LAB_VERBOSE:-0}
LAB_CLEANUP=()     # commands run in reverse order at exit
LAB_PASSED=0
LAB_FAILED=0
LAB_SKIPPED=0
LAB_FAILED_NAMES=()
LAB_APT_UPDATED=0

lab_log() { printf '%s: %s\n' "${LAB_NAME:-lab}" "$*" >&2; }
lab_debug() { [ "$LAB_VERBOSE" = 1 ] && lab_log "$*"; return 0; }
lab_die() {
   lab_log "FATAL: $*"
   exit 2
}

# ---------------------------------------------------------------- lifecycle

# lab_init NAME: checks root, creates the work dir and the run token, and
# installs the exit trap. Signals turn into a normal exit so the EXIT trap
# (and therefore teardown) always runs.
lab_init() {
   LAB_NAME=$1
   [ "$(id -u)" = 0 ] || lab_die "must run as root (network namespaces, raw sockets)"
   command -v ip >/dev/null || lab_die "missing 'ip' (package iproute2)"
   LAB_TOKEN=$(od -An -N3 -tx1 /dev/urandom | tr -d ' \n')
   LAB_WORK=$(mktemp -d -t "${LAB_NAME}.XXXXXX") || lab_die "mktemp failed"
   trap lab_cleanup EXIT
   trap 'exit 130' INT
   trap 'exit 143' TERM HUP
   lab_defer "rm -rf '$LAB_WORK'"
}

# lab_defer CMD: registers CMD (a string, eval'd) to run at exit. Later
# registrations run first, so processes die before their namespace goes and
# the namespace goes before the work dir holding its logs.
lab_defer() { LAB_CLEANUP+=("$1"); }

lab_cleanup() {
   local rc=$? i
   trap - EXIT INT TERM HUP
   for ((i = ${#LAB_CLEANUP[@]} - 1; i >= 0; i--)); do
      eval "${LAB_CLEANUP[i]}" >/dev/null 2>&1 || true
   done
   LAB_CLEANUP=()
   exit "$rc"
}

# lab_wait SECONDS CMD...: polls CMD every 0.1 s until it succeeds or the
# time is up. Every wait in a lab goes through here so none is unbounded.
lab_wait() {
   local limit=$1 deadline
   shift
   deadline=$(($(date +%s%N) + limit * 1000000000))
   while :; do
      "$@" && return 0
      [ "$(date +%s%N)" -ge "$deadline" ] && return 1
      sleep 0.1
   done
}

# ---------------------------------------------------------------- packages

# lab_need_pkgs PKG...: installs what is missing, quietly and without
# questions. Package maintainer scripts are kept from starting services on
# the host (the labs run their own daemons inside namespaces) by a
# temporary policy-rc.d, unless the machine already has one.
lab_need_pkgs() {
   local missing=() p
   for p in "$@"; do
      dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' ||
         missing+=("$p")
   done
   [ ${#missing[@]} = 0 ] && return 0
   command -v apt-get >/dev/null || {
      lab_log "missing packages: ${missing[*]} (no apt-get to install them)"
      return 1
   }
   lab_log "installing ${missing[*]}"
   local guard=""
   if [ ! -e /usr/sbin/policy-rc.d ]; then
      guard=/usr/sbin/policy-rc.d
      printf '#!/bin/sh\nexit 101\n' >"$guard" && chmod 755 "$guard"
      lab_defer "rm -f '$guard'"
   fi
   local rc=0
   if [ "$LAB_APT_UPDATED" = 0 ]; then
      DEBIAN_FRONTEND=noninteractive apt-get update -qq >/dev/null 2>&1
      LAB_APT_UPDATED=1
   fi
   DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
      -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold \
      "${missing[@]}" >"$LAB_WORK/apt.log" 2>&1 || rc=$?
   [ -n "$guard" ] && rm -f "$guard"
   if [ $rc != 0 ]; then
      lab_log "could not install ${missing[*]} (apt-get exit $rc):"
      tail -n 5 "$LAB_WORK/apt.log" >&2
      return 1
   fi
}

# ---------------------------------------------------------------- topology

# lab_name SUFFIX: a name unique to this run (namespaces, bridges).
lab_name() { printf 'lab%s-%s' "$LAB_TOKEN" "$1"; }

# lab_ns SUFFIX: creates namespace $(lab_name SUFFIX) with loopback up.
# Teardown first kills whatever still runs inside it: only this run can have
# started processes in a namespace whose name carries its token.
lab_ns() {
   local ns
   ns=$(lab_name "$1")
   ip netns add "$ns" || return 1
   lab_defer "lab_ns_destroy '$ns'"
   ip -n "$ns" link set lo up
}

lab_ns_destroy() {
   local ns=$1 pids
   pids=$(ip netns pids "$ns" 2>/dev/null)
   if [ -n "$pids" ]; then
      # shellcheck disable=SC2086 # one pid per word
      kill $pids 2>/dev/null
      if ! lab_wait 2 lab_ns_empty "$ns"; then
         pids=$(ip netns pids "$ns" 2>/dev/null)
         # shellcheck disable=SC2086
         [ -n "$pids" ] && kill -9 $pids 2>/dev/null
      fi
   fi
   ip netns delete "$ns"
}
lab_ns_empty() { [ -z "$(ip netns pids "$1" 2>/dev/null)" ]; }

# lab_in SUFFIX CMD...: runs CMD inside the namespace.
lab_in() {
   local ns
   ns=$(lab_name "$1")
   shift
   ip netns exec "$ns" "$@"
}

# lab_veth NS_A IF_A NS_B IF_B: a veth pair with one end in each namespace,
# both ends up. Interface names are used as given (keep them short and
# unique inside their namespace; namespaces isolate them from the host).
lab_veth() {
   ip link add name "$2" netns "$(lab_name "$1")" type veth \
      peer name "$4" netns "$(lab_name "$3")" || return 1
   ip -n "$(lab_name "$1")" link set "$2" up && ip -n "$(lab_name "$3")" link set "$4" up
}

# lab_bridge NS BR: a Linux bridge inside NS, up, without STP so ports
# forward at once.
lab_bridge() {
   local ns
   ns=$(lab_name "$1")
   ip -n "$ns" link add "$2" type bridge stp_state 0 forward_delay 0 &&
      ip -n "$ns" link set "$2" up
}

# lab_bridge_port NS BR IF: enslaves IF (already in NS) to BR.
lab_bridge_port() { ip -n "$(lab_name "$1")" link set "$3" master "$2"; }

# lab_addr NS IF CIDR: adds an address; DAD is irrelevant for IPv4.
lab_addr() { ip -n "$(lab_name "$1")" addr add "$3" dev "$2"; }

# lab_mac NS IF MAC: sets the interface's Ethernet address.
lab_mac() { ip -n "$(lab_name "$1")" link set "$2" address "$3"; }

# lab_route NS DEST VIA: a static route.
lab_route() { ip -n "$(lab_name "$1")" route add "$2" via "$3"; }

# ---------------------------------------------------------------- processes

# lab_spawn NS LOG CMD...: starts CMD in the background inside NS, output to
# LOG; the pid is left in LAB_PID and the process is killed at exit (or
# earlier with lab_kill). CMD runs in place of `ip netns exec`, so LAB_PID
# is CMD's own pid; backgrounding lab_in instead would give a subshell's.
LAB_PID=""
lab_spawn() {
   local ns log=$2
   ns=$(lab_name "$1")
   shift 2
   ip netns exec "$ns" "$@" >"$log" 2>&1 &
   LAB_PID=$!
   lab_defer "lab_kill $LAB_PID"
}

# lab_kill PID: TERM, a bounded wait, then KILL; only for a child of the
# calling shell, so that a stale pid that the system has since handed to an
# unrelated process is never signalled.
lab_kill() {
   lab_is_child "$1" || return 0
   kill "$1" 2>/dev/null || return 0
   lab_wait 2 lab_dead "$1" || kill -9 "$1" 2>/dev/null
   wait "$1" 2>/dev/null
   return 0
}
# Field 4 of /proc/PID/stat is the parent pid; the name before it may hold
# spaces, hence the cut at the last ')'.
lab_is_child() {
   local st
   st=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
   st=${st##*) }
   # shellcheck disable=SC2086 # split the fields on purpose
   set -- $st
   [ "$2" = "$BASHPID" ]
}
lab_dead() {
   local st
   st=$(cat "/proc/$1/stat" 2>/dev/null) || return 0
   st=${st##*) }
   [ "${st%% *}" = Z ]
}

# ---------------------------------------------------------------- results

lab_pass() {
   LAB_PASSED=$((LAB_PASSED + 1))
   printf 'PASS %s\n' "$1"
}
lab_fail() {
   LAB_FAILED=$((LAB_FAILED + 1))
   LAB_FAILED_NAMES+=("$1")
   printf 'FAIL %s: %s\n' "$1" "$2"
}
lab_skip() {
   LAB_SKIPPED=$((LAB_SKIPPED + 1))
   printf 'SKIP %s: %s\n' "$1" "$2"
}

# lab_summary: prints the summary line; returns non-zero when anything
# failed or nothing passed at all.
lab_summary() {
   local extra=""
   [ "$LAB_SKIPPED" != 0 ] && extra=", $LAB_SKIPPED skipped"
   [ "$LAB_FAILED" != 0 ] && extra+=" (${LAB_FAILED_NAMES[*]})"
   printf '%s: %d passed, %d failed%s\n' "$LAB_NAME" "$LAB_PASSED" "$LAB_FAILED" "$extra"
   [ "$LAB_FAILED" = 0 ] && [ "$LAB_PASSED" -gt 0 ]
}

# ---------------------------------------------------------------- programs

# lab_bin NAME VAR SUBDIR [BUILD_DIR]: the path of one of this tree's
# programs: the file named by the variable VAR if set, else BUILD_DIR/SUBDIR/
# NAME, else the build next to LQ_PROBE (scripts/test.sh sets it), else
# built from this tree into the run's work directory.
lab_bin() {
   local name=$1 var=$2 sub=$3 build=${4:-} root
   if [ -n "${!var:-}" ]; then
      [ -x "${!var}" ] || lab_die "$var=${!var} is not executable"
      printf '%s' "${!var}"
      return
   fi
   if [ -z "$build" ] && [ -n "${LQ_PROBE:-}" ]; then build=$(dirname "$(dirname "$LQ_PROBE")"); fi
   if [ -n "$build" ] && [ -x "$build/$sub/$name" ]; then
      printf '%s' "$build/$sub/$name"
      return
   fi
   build=$LAB_WORK/build
   if [ ! -x "$build/$sub/$name" ]; then
      command -v cmake >/dev/null || lab_die "needs cmake to build $name (or set $var)"
      root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
      lab_log "building $name"
      cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTAVRIN_TESTS=OFF \
         -DTAVRIN_BENCH=OFF >>"$LAB_WORK/build.log" 2>&1 &&
         cmake --build "$build" --target "$name" >>"$LAB_WORK/build.log" 2>&1 || {
         tail -n 30 "$LAB_WORK/build.log" >&2
         lab_die "$name did not build"
      }
   fi
   printf '%s' "$build/$sub/$name"
}

# lab_dhcpd NS IFACE...: ISC dhcpd in the foreground in namespace NS on the
# given interfaces, with $LAB_WORK/dhcpd.conf, a fresh lease file, and its
# log in $LAB_WORK/dhcpd.log; LAB_PID is its pid. Returns once it serves.
lab_dhcpd() {
   local ns=$1
   shift
   : >"$LAB_WORK/dhcpd.leases"
   lab_spawn "$ns" "$LAB_WORK/dhcpd.log" dhcpd -f -d -4 -cf "$LAB_WORK/dhcpd.conf" \
      -lf "$LAB_WORK/dhcpd.leases" -pf "$LAB_WORK/dhcpd.pid" "$@"
   lab_wait 10 grep -qs "Server starting service" "$LAB_WORK/dhcpd.log" && return 0
   cat "$LAB_WORK/dhcpd.log" >&2
   lab_log "dhcpd did not start"
   return 1
}
