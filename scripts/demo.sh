#!/usr/bin/env bash
# Builds Tavrin and runs the main demo.
#
#   scripts/demo.sh         tavrind on a real network in namespaces (needs root):
#                           three clients lease from a real DHCP server through
#                           locked bridge ports and reach it; one tries an
#                           address it was never leased and is blocked, its
#                           packets trapped and counted (lab/demo.sh)
#   scripts/demo.sh --sim   one client's whole road through the agent on the
#                           simulated switch, from the MAC table learning it to
#                           its published lease, its expiry re-query and renewal
set -euo pipefail
cd "$(dirname "$0")/.."

case "${1:-}" in
  --sim)
    scripts/deps.sh build daemon
    cmake --preset release >/dev/null
    cmake --build --preset release --target tavrin-sim -j "$(nproc)"
    exec ./build/release/src/sim/tavrin-sim examples/demo.scn
    ;;
  "") ;;
  *)
    echo "usage: scripts/demo.sh [--sim]" >&2
    exit 2
    ;;
esac

if [ "$(id -u)" -ne 0 ]; then
  echo "demo.sh: the demo builds a network in namespaces and needs root" >&2
  echo "demo.sh: (scripts/demo.sh --sim runs the simulated one without)" >&2
  exit 1
fi
scripts/deps.sh build daemon lab
cmake --preset release >/dev/null
cmake --build --preset release --target tavrind tavrinctl -j "$(nproc)"
exec bash lab/demo.sh "$PWD/build/release"
