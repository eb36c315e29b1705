#!/usr/bin/env bash
# Builds Tavrin and runs the main demo: one client's whole road through the
# agent on the simulated switch, from the MAC table learning it to its
# published lease, its expiry re-query and renewal.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh build daemon
cmake --preset release >/dev/null
cmake --build --preset release --target tavrin-sim -j "$(nproc)"
./build/release/src/sim/tavrin-sim examples/demo.scn
