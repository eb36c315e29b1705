#!/usr/bin/env bash
# Builds the fuzz preset and runs each libFuzzer target for EXECUTIONS
# inputs (default 1000000), starting from the committed seeds. Any crash,
# sanitizer report, leak or timeout fails the script; the input that caused
# it is left in build/fuzz/artifacts/. CI calls it with a small count.
#   fuzz/run.sh [EXECUTIONS]
set -euo pipefail

runs=${1:-1000000}
[[ $runs =~ ^[0-9]+$ ]] || { echo "usage: $0 [EXECUTIONS]" >&2; exit 2; }

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target fuzz_dhcp_parse fuzz_ip_parse

artifacts=build/fuzz/artifacts
mkdir -p "$artifacts"
declare -A maxLen=([fuzz_dhcp_parse]=1500 [fuzz_ip_parse]=128)
for target in fuzz_dhcp_parse fuzz_ip_parse; do
   # New inputs go to a scratch corpus so the committed seeds stay small.
   scratch=$(mktemp -d)
   log=$artifacts/$target.log
   echo "== $target: $runs executions"
   status=0
   build/fuzz/fuzz/$target -runs="$runs" -max_len="${maxLen[$target]}" -timeout=10 \
      -print_final_stats=1 -artifact_prefix="$artifacts/$target-" \
      "$scratch" "fuzz/corpus/$target" >"$log" 2>&1 || status=$?
   rm -rf "$scratch"
   grep -E '^(#[0-9]+[[:space:]]+DONE|stat::(number_of_executed_units|average_exec_per_sec|peak_rss_mb)|Done )' \
      "$log" || true
   if [[ $status -ne 0 ]]; then
      tail -n 60 "$log" >&2
      echo "$target: finding (exit $status); input and log in $artifacts/" >&2
      exit 1
   fi
done
echo "fuzz: no findings"
