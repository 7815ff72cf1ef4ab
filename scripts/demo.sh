#!/usr/bin/env bash
# The main job: the service end to end under Wine, printing its log.
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$repo/scripts/build.sh" >/dev/null
"$repo/scripts/wine-prefix" "$repo/build/wine/base"
exec python3 "$repo/tools/demo.py" --exe "$repo/build/dorvane.exe" \
  --mbnsim-dir "$repo/build/tools/mbnsim" \
  --dorvanectl "$repo/build/tools/dorvanectl/dorvanectl.exe" \
  --prefix "$repo/build/wine/demo" --base "$repo/build/wine/base"
