#!/usr/bin/env bash
# Re-records the expected log of each named scenario (or of all). Read every
# changed log before committing it: the log is the assertion.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
sim=${SIM:-$here/../../build/release/src/sim/tavrin-sim}
[ $# -gt 0 ] || set -- "$here"/*.scn
for scn in "$@"; do
  "$sim" "$scn" > "${scn%.scn}.log" || true
done
