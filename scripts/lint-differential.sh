#!/usr/bin/env bash
# Runs the lint differential test (tests/dorvanectl/lint_differential_test.cpp)
# far longer than the test run does, in a Wine prefix of its own: TABLES random
# tables of each kind (default 2000), from SEED or a random seed, which it
# prints first. A failure is repeated with DORVANE_LINT_SEED=SEED, and one table of it
# with DORVANE_LINT_ONLY=N as well (both printed with each violation).
#
#   scripts/lint-differential.sh [TABLES [SEED]]
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
tables=${1:-2000}
seed=${2:-$(od -An -N4 -tu4 /dev/urandom | tr -d ' ')}
echo "lint differential: seed $seed, $tables tables of each kind"
"$repo/scripts/build.sh" >/dev/null
export WINEPREFIX="$repo/build/wine/lint" WINEDEBUG=-all
"$repo/scripts/wine-prefix" "$WINEPREFIX"
wineserver -p </dev/null >/dev/null 2>&1 || true
trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
"$repo/scripts/wine-run" cmd /c exit </dev/null >/dev/null 2>&1 || true
start=$(date +%s)
status=0
DORVANE_LINT_SEED=$seed DORVANE_LINT_TABLES=$tables \
  "$repo/scripts/wine-run" "$repo/build/tests/lint_test.exe" --gtest_filter='LintDifferential.*' || status=$?
echo "lint differential: seed $seed, $tables tables of each kind, $(( $(date +%s) - start )) s, exit status $status"
exit $status
