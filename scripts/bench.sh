#!/usr/bin/env bash
# Runs the benchmarks under Wine against the simulator, in a prefix of their own.
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$repo/scripts/build.sh" >/dev/null
export WINEPREFIX="$repo/build/wine/bench"
"$repo/scripts/wine-prefix" "$WINEPREFIX"
wineserver -p </dev/null >/dev/null 2>&1 || true
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
run() { "$repo/scripts/wine-run" "$@"; }
run "$repo/build/tools/mbnsim/mbnsimctl.exe" register >/dev/null
run "$repo/build/tools/mbnsim/mbnsimctl.exe" reset 1
run "$repo/build/benchmarks/at_roundtrip.exe" 100 'C:\bench\Dorvane.log'
run "$repo/build/benchmarks/table_lookup.exe" 10000 'C:\bench\tables.log'
