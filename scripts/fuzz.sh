#!/usr/bin/env bash
# Runs every fuzz target of the native build for SECONDS (default 600), all
# at once, each on its own core, and prints each one's totals. The corpus
# grows in build-native/fuzz-work/<target>/corpus from the seeds in
# fuzz/corpus/<target>; a finding is written to .../artifacts/ and fails the run.
#
#   scripts/fuzz.sh [SECONDS]
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
seconds=${1:-600}
"$repo/scripts/bootstrap.sh" >/dev/null
cd "$repo"
if [ ! -f build-native/build.ninja ]; then cmake --preset native >/dev/null; fi
cmake --build --preset native

targets=(zip_reader entry_name log_records)
pids=()
for t in "${targets[@]}"; do
  work="build-native/fuzz-work/$t"
  mkdir -p "$work/corpus" "$work/artifacts"
  "build-native/fuzz/$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$work/artifacts/" \
    "$work/corpus" "fuzz/corpus/$t" >"$work/run.log" 2>&1 &
  pids+=($!)
done
status=0
for i in "${!targets[@]}"; do
  t=${targets[$i]}
  if ! wait "${pids[$i]}"; then status=1; fi
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "build-native/fuzz-work/$t/run.log")
  rss=$(sed -n 's/^stat::peak_rss_mb: *//p' "build-native/fuzz-work/$t/run.log")
  echo "$t: ${runs:-?} executions in $seconds s ($(( ${runs:-0} / seconds ))/s), peak RSS ${rss:-?} MB"
  if ls "build-native/fuzz-work/$t/artifacts/"* >/dev/null 2>&1; then
    echo "$t: FINDINGS in build-native/fuzz-work/$t/artifacts/ (see run.log)"
    status=1
  fi
done
exit $status
