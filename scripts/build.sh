#!/usr/bin/env bash
# Installs what is missing, then configures and builds (incrementally).
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$repo/scripts/bootstrap.sh"
cd "$repo"
if [ ! -f build/build.ninja ]; then cmake --preset mingw >/dev/null; fi
cmake --build --preset mingw
