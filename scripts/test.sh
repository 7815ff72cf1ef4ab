#!/usr/bin/env bash
# Every test: unit tests under Wine and the whole-service tests, through CTest.
# Extra arguments go to ctest (for example -R Logger).
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$repo/scripts/build.sh"
cd "$repo"

unit="$repo/build/wine/unit"
"$repo/scripts/wine-prefix" "$unit"
"$repo/scripts/wine-prefix" "$repo/build/wine/base"
# Leftovers of earlier runs (some are 50 MiB logs).
rm -rf "$unit"/drive_c/users/*/[Tt]emp/dorvane-* "$repo/build/whole"

# A persistent wineserver makes each test process start in milliseconds
# instead of seconds; it is ended again whatever the outcome.
export WINEPREFIX="$unit" WINEDEBUG=-all
wineserver -p </dev/null >/dev/null 2>&1 || true  # already running is fine
"$repo/scripts/wine-run" cmd /c exit </dev/null >/dev/null 2>&1 || true
trap 'WINEPREFIX="$unit" wineserver -k >/dev/null 2>&1 || true' EXIT

ctest --preset mingw "$@"
