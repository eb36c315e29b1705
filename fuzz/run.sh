#!/usr/bin/env bash
# Builds the fuzz preset and runs each libFuzzer target for EXECUTIONS
# inputs (default 1000000), starting from the committed seeds, one target
# after the other on one core, so that the count is exact. Any crash,
# sanitizer report, leak or timeout fails the script; the input that caused
# it is left in build/fuzz/artifacts/. CI calls it with a small count;
# fuzz/full.sh is the long run. Naming targets runs only those;
# FUZZ_SECONDS caps each target's time (the count reached is then printed).
#   [FUZZ_SECONDS=N] fuzz/run.sh [EXECUTIONS [TARGET...]]
set -euo pipefail

runs=${1:-1000000}
[[ $runs =~ ^[0-9]+$ ]] || { echo "usage: $0 [EXECUTIONS [TARGET...]]" >&2; exit 2; }
shift || true
seconds=${FUZZ_SECONDS:-0}
[[ $seconds =~ ^[0-9]+$ ]] || { echo "FUZZ_SECONDS must be a number" >&2; exit 2; }

# The longest input each target is given: a little past the largest message
# its parser meets (a link message with all its statistics is ~1.9 KB; the
# control socket refuses lines over 4096 bytes, so the limit is crossed).
declare -A maxLen=(
   [fuzz_dhcp_parse]=1500
   [fuzz_ip_parse]=128
   [fuzz_rtnl_digest]=4096
   [fuzz_nflog_digest]=1024
   [fuzz_nft_digest]=2048
   [fuzz_config_parse]=4096
   [fuzz_control_request]=4200
)
all=(fuzz_dhcp_parse fuzz_ip_parse fuzz_rtnl_digest fuzz_nflog_digest fuzz_nft_digest
     fuzz_config_parse fuzz_control_request)
targets=("$@")
[[ ${#targets[@]} -gt 0 ]] || targets=("${all[@]}")
for target in "${targets[@]}"; do
   [[ -n ${maxLen[$target]:-} ]] || { echo "unknown target $target" >&2; exit 2; }
done

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target "${targets[@]}"

# Where each heap block was allocated and freed is kept for reports only;
# taking a stack trace on every allocation was a fifth of the time of the
# targets whose parsers allocate per token (YAML, JSON). Detection is the
# same; for a finding's full report, run the target on the saved input
# (build/fuzz/fuzz/TARGET build/fuzz/artifacts/TARGET-...).
export ASAN_OPTIONS=${ASAN_OPTIONS:-malloc_context_size=0}

artifacts=build/fuzz/artifacts
mkdir -p "$artifacts"
for target in "${targets[@]}"; do
   # New inputs go to a scratch corpus so the committed seeds stay small.
   scratch=$(mktemp -d)
   log=$artifacts/$target.log
   echo "== $target: $runs executions"
   status=0
   build/fuzz/fuzz/$target -runs="$runs" -max_len="${maxLen[$target]}" -timeout=10 \
      -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$artifacts/$target-" \
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
