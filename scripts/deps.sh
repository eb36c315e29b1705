#!/usr/bin/env bash
# Installs the Debian 12 packages a task needs, only those missing.
# Usage: scripts/deps.sh build|daemon|lab|fuzz ...
set -euo pipefail

declare -A sets=(
  [build]="build-essential cmake ninja-build pkg-config libgtest-dev libgmock-dev libbenchmark-dev"
  [daemon]="libmnl-dev libnftnl-dev libnftables-dev libsqlite3-dev libyaml-cpp-dev libcli11-dev nlohmann-json3-dev nftables"
  [fuzz]="clang libclang-rt-14-dev"
  [lab]="iproute2 isc-dhcp-server isc-dhcp-client tshark procps nftables iputils-ping"
)

want=()
for s in "$@"; do
  [ -n "${sets[$s]:-}" ] || { echo "deps.sh: unknown set '$s'" >&2; exit 2; }
  for p in ${sets[$s]}; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || want+=("$p")
  done
done
[ ${#want[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "deps.sh: missing packages (${want[*]}); run as root to install them" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
# tshark asks whether non-root users may capture; the default (no) is right.
echo "wireshark-common wireshark-common/install-setuid boolean false" | debconf-set-selections
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${want[@]}" >/dev/null
