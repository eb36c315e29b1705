#!/usr/bin/env bash
# The long run: ten million executions of every target, one at a time on
# one core at low priority, so that it can share a build machine. Each
# target's count is exact (no -jobs/-workers). Takes hours; see
# docs/reliability.md for the measured rates. Targets may be named.
#   fuzz/full.sh [TARGET...]
set -euo pipefail
exec nice -n 10 "$(dirname "$0")/run.sh" 10000000 "$@"
