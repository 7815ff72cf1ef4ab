#!/usr/bin/env bash
# The package extraction benchmark (not a test): Info-ZIP unzip against
# UnzipAllItems under Wine on a generated 256 MiB package, and our peak memory.
# Extra arguments go to benchmarks/bench_zip.py (for example --rounds 5).
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$repo/scripts/build.sh" >/dev/null
export WINEPREFIX="$repo/build/wine/bench"
"$repo/scripts/wine-prefix" "$WINEPREFIX"
wineserver -p </dev/null >/dev/null 2>&1 || true
"$repo/scripts/wine-run" cmd /c exit </dev/null >/dev/null 2>&1 || true
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
python3 "$repo/benchmarks/bench_zip.py" --exe "$repo/build/benchmarks/unzip_package.exe" \
  --work "$repo/build/bench/zip" "$@"
