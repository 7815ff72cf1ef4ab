#!/usr/bin/env bash
# Runs the benchmarks under Wine, in a prefix of their own: the AT round trip
# against the simulator, a table lookup, the package extraction against
# Info-ZIP unzip, and the reading of a 50 MiB service log by dorvanectl log.
# "bench.sh zip [ARGS]" runs the extraction alone, passing ARGS on to
# benchmarks/bench_zip.py (for example --rounds 5); "bench.sh log [ARGS]" the
# log reading alone, passing ARGS on to benchmarks/bench_log.py (for example
# --runs 9).
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$repo/scripts/build.sh" >/dev/null
export WINEPREFIX="$repo/build/wine/bench"
"$repo/scripts/wine-prefix" "$WINEPREFIX"
wineserver -p </dev/null >/dev/null 2>&1 || true
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
run() { "$repo/scripts/wine-run" "$@"; }
run cmd /c exit </dev/null >/dev/null 2>&1 || true
unzip_bench() {
  python3 "$repo/benchmarks/bench_zip.py" --exe "$repo/build/benchmarks/unzip_package.exe" \
    --work "$repo/build/bench/zip" "$@"
}
log_bench() {
  python3 "$repo/benchmarks/bench_log.py" --exe "$repo/build/tools/dorvanectl/dorvanectl.exe" \
    --peak "$repo/build/benchmarks/peak_memory.exe" --work "$repo/build/bench/log" "$@"
}
if [ "${1-}" = zip ]; then
  shift
  unzip_bench "$@"
  exit
fi
if [ "${1-}" = log ]; then
  shift
  log_bench "$@"
  exit
fi
run "$repo/build/tools/mbnsim/mbnsimctl.exe" register >/dev/null
run "$repo/build/tools/mbnsim/mbnsimctl.exe" reset 1
run "$repo/build/benchmarks/at_roundtrip.exe" 100 'C:\bench\Dorvane.log'
run "$repo/build/benchmarks/table_lookup.exe" 10000 'C:\bench\tables.log'
unzip_bench
log_bench
