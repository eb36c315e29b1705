# shellcheck shell=bash
# shellcheck disable=SC2034 # variables read by the scripts that source it
# The switch every fault test breaks in its own way: a bridge whose ports
# tavrind locks, a real ISC dhcpd answering lease queries, and clients on
# locked ports. Source it after lib.sh and lab_init.
#
#   srv lan0 (NET.0.1, dhcpd) --- p0 \
#                                     br0 in "sw" (NET.0.2: tavrind, giaddr)
#   c1 eth0 ... cN eth0 ------ p1..pN (locked)
#
# NET is a /16: dhcpd hands out NET.16.0 - NET.63.255, enough for a churn
# of tens of thousands of clients without reusing an address.
#
# Binaries come from BUILD (or the script's first argument), else from next
# to LQ_PROBE (scripts/test.sh sets it), else from build/release, else they
# are built into the run's work directory.

FX_NET=${FX_NET:-10.197}
FX_SRV=$FX_NET.0.1
FX_SW=$FX_NET.0.2
FX_PORTS=()
TAVRIND_PID=""
DHCPD_PID=""
FX_STARTS=0

fx_tools() {
   local root build=${BUILD:-${1:-}}
   root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
   if [ -z "$build" ] && [ -n "${LQ_PROBE:-}" ]; then build=$(dirname "$(dirname "$LQ_PROBE")"); fi
   [ -z "$build" ] && [ -x "$root/build/release/src/daemon/tavrind" ] && build=$root/build/release
   # Absolute: nsenter starts programs from another working directory.
   [ -n "$build" ] && [ -d "$build" ] && build=$(cd "$build" && pwd)
   TAVRIND=$(lab_bin tavrind TAVRIND src/daemon "$build") || exit 2
   TAVRINCTL=$(lab_bin tavrinctl TAVRINCTL src/daemon "$build") || exit 2
   SWARM=$(lab_bin dhcp-swarm DHCP_SWARM lab "$build") || exit 2
}

# fx_network NPORTS: the switch, the server and NPORTS client namespaces
# c1..cN, each on its own locked port p1..pN.
fx_network() {
   local n=$1 i ns
   lab_ns sw && lab_ns srv || return 1
   for ns in sw srv; do
      lab_in $ns sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
   done
   lab_bridge sw br0 && lab_addr sw br0 "$FX_SW/16" &&
      lab_veth srv lan0 sw p0 && lab_bridge_port sw br0 p0 && lab_addr srv lan0 "$FX_SRV/16" || return 1
   for ((i = 1; i <= n; i++)); do
      lab_ns "c$i" || return 1
      lab_in "c$i" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
      lab_veth "c$i" eth0 sw "p$i" && lab_bridge_port sw br0 "p$i" || return 1
      FX_PORTS+=("p$i")
   done
}

# fx_dhcpd LEASE_SECONDS: dhcpd on lan0, lease queries allowed from the
# switch's subnet (the only subnet there is). FX_DHCPD_EXTRA is added to
# its configuration. Called again, it starts dhcpd anew on the same leases.
fx_dhcpd() {
   cat >"$LAB_WORK/dhcpd.conf" <<EOF
authoritative;
ping-check false;
db-time-format local;
default-lease-time $1;
max-lease-time $1;
min-lease-time $1;
subnet $FX_NET.0.0 netmask 255.255.0.0 {
   range $FX_NET.16.0 $FX_NET.63.255;
   allow leasequery;
}
${FX_DHCPD_EXTRA:-}
EOF
   [ -e "$LAB_WORK/dhcpd.leases" ] || : >"$LAB_WORK/dhcpd.leases"
   local log=$LAB_WORK/dhcpd.log
   [ -e "$log" ] && log=$LAB_WORK/dhcpd.$(date +%s%N).log
   lab_spawn srv "$log" dhcpd -f -d -4 -cf "$LAB_WORK/dhcpd.conf" -lf "$LAB_WORK/dhcpd.leases" \
      -pf "$LAB_WORK/dhcpd.pid" lan0
   DHCPD_PID=$LAB_PID
   DHCPD_LOG=$log
   lab_wait 10 grep -qs "Server starting service" "$log" || {
      cat "$log" >&2
      return 1
   }
}

# fx_config [DB]: tavrind's configuration, every client port locked.
fx_config() {
   local p
   {
      printf 'local-interface: br0\nbridge: br0\ndhcp-servers:\n  - %s\ninterfaces:\n' "$FX_SRV"
      for p in "${FX_PORTS[@]}"; do printf '  - %s\n' "$p"; done
      printf 'database: %s\ncontrol-socket: %s\n' "${1:-$LAB_WORK/tavrin.db}" "$LAB_WORK/tavrind.sock"
   } >"$LAB_WORK/tavrin.yaml"
}

ctl() { lab_in sw "$TAVRINCTL" --socket "$LAB_WORK/tavrind.sock" --timeout "${CTL_TIMEOUT:-5}" "$@"; }
fx_serving() { ctl show counters >/dev/null 2>&1; }

# fx_start: starts tavrind in the switch's namespace and waits until it
# answers. With FX_MNTNS_PID set, it runs in that process's mount namespace
# (where a test mounted the file system its database lives on). The trace
# ring is off: tens of thousands of clients' worth of trace lines on disk
# are not what these tests measure.
fx_start() {
   FX_STARTS=$((FX_STARTS + 1))
   TAVRIND_LOG=$LAB_WORK/tavrind.$FX_STARTS.log
   if [ -n "${FX_MNTNS_PID:-}" ]; then
      nsenter -t "$FX_MNTNS_PID" -m ip netns exec "$(lab_name sw)" env TRACERING_DISABLE=1 \
         "$TAVRIND" --config "$LAB_WORK/tavrin.yaml" --foreground >"$TAVRIND_LOG" 2>&1 &
      LAB_PID=$!
      lab_defer "lab_kill $LAB_PID"
   else
      lab_spawn sw "$TAVRIND_LOG" env TRACERING_DISABLE=1 "$TAVRIND" \
         --config "$LAB_WORK/tavrin.yaml" --foreground
   fi
   TAVRIND_PID=$LAB_PID
   lab_wait 30 fx_serving
}

# The elements of `allowed`, one "port mac ip" per line, sorted. The set is
# read whole and given to jq as a file: a reader that stops early would fail
# the pipeline.
fx_allowed() {
   local f=$LAB_WORK/allowed.$BASHPID.json
   lab_in sw nft -j list set bridge tavrin allowed >"$f" 2>/dev/null || return 1
   jq -r '.nftables[] | select(.set) | .set.elem // [] | .[]
          | (if type == "object" and has("elem") then .elem.val else . end)
          | .concat | "\(.[0]) \(.[1]) \(.[2])"' "$f" | sort
}

# The persisted leases, one "port mac ip" per line, sorted. DB defaults to
# the configured file; NSENTER (a command prefix) reads it from another
# mount namespace.
fx_db_leases() {
   # Readers wait for each other: after a kill -9 the first one to open the
   # file recovers its WAL, holding a lock meanwhile.
   ${NSENTER:-} sqlite3 -readonly -cmd ".timeout 5000" "${1:-$LAB_WORK/tavrin.db}" \
      "SELECT interface || ' ' || mac || ' ' || ip FROM lease;" | sort
}

# fx_counter NAME: one sample of `tavrinctl show counters --json`.
fx_counter() {
   ctl show counters --json | jq -r --arg n "$1" 'first(.[] | select(.name == $n) | .value)'
}

# fx_swarm NS COUNT RATE MACBASE OUT [TIMEOUT]: COUNT clients lease through
# NS's eth0.
fx_swarm() {
   lab_in "$1" "$SWARM" --iface eth0 --count "$2" --rate "$3" --mac-base "$4" \
      --timeout "${6:-60}" --out "$5"
}

fx_tavrind_tail() {
   local f
   for f in "$LAB_WORK"/tavrind.*.log; do
      [ -e "$f" ] || continue
      echo "--- $(basename "$f") (last 15 lines)"
      tail -n 15 "$f"
   done >&2
}

# fx_client NS MAC: gives NS's eth0 the MAC, leases one address for it from
# dhcpd (one swarm client with that very MAC, so the bridge learns the host
# as it will send) and puts the address on eth0; prints the address.
fx_client() {
   local ns=$1 mac=$2 ip
   lab_mac "$ns" eth0 "$mac" || return 1
   fx_swarm "$ns" 1 10 "$mac" "$LAB_WORK/$ns.$mac.out" 20 2>/dev/null || return 1
   ip=$(awk '$2 != "-" { print $2 }' "$LAB_WORK/$ns.$mac.out")
   [ -n "$ip" ] || return 1
   lab_in "$ns" ip addr replace "$ip/16" dev eth0 || return 1
   printf '%s' "$ip"
}
# fx_passes NS: NS reaches dhcpd's address through the locked port.
fx_passes() { lab_in "$1" ping -n -q -c 2 -i 0.2 -W 1 "$FX_SRV" >/dev/null 2>&1; }
# fx_installed PORT MAC IP: the pair's element is in `allowed`.
fx_installed() {
   local l
   l=$(fx_allowed) && grep -qx "$1 $2 $3" <<<"$l"
}
