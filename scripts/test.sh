#!/usr/bin/env bash
# Every test: unit tests under Wine and the whole-service tests, through CTest;
# then the native build of the portable parts: their unit tests under
# AddressSanitizer and UndefinedBehaviorSanitizer, and each fuzz target for a
# short run. Extra arguments go to both ctest runs (for example -R Logger).
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

if [ ! -f build-native/build.ninja ]; then cmake --preset native >/dev/null; fi
cmake --build --preset native
ctest --preset native -j 2 "$@"

# How much of the code is tests (lines that are neither blank nor comments).
python3 "$repo/scripts/test-share.py"
