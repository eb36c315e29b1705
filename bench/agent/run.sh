#!/bin/sh
# Runs the agent benchmarks at full size, each row in a process of its own
# (memory must start from a fresh heap), both sides of every row pinned to
# one CPU. Usage: bench/agent/run.sh [build dir] [extra flags, e.g. --small]
# Full size takes about eight minutes and 2.7 GB of memory at its peak.
set -eu
build=${1:-build/release}
[ $# -gt 0 ] && shift
bin=$build/bench/agent/tavrin-bench-agent
[ -x "$bin" ] || { echo "build it first: cmake --build $build --target tavrin-bench-agent" >&2; exit 2; }
cpu=${TAVRIN_BENCH_CPU:-1}
dir=${TAVRIN_BENCH_DIR:-${TMPDIR:-/tmp}}
echo "# $(nproc) CPUs: $(lscpu | sed -n 's/^Model name: *//p'); pinned to CPU $cpu; databases in $dir"
for row in lookup memory start churn idle; do
  taskset -c "$cpu" "$bin" "$row" --cpu "$cpu" --dir "$dir" "$@"
done
