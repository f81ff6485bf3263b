#!/usr/bin/env bash
# Configures (once) and builds one preset with ninja: scripts/build.sh [default|asan|tsan] [targets...]
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-default}
shift || true
if [ ! -f "build/$preset/build.ninja" ]; then
  cmake --preset "$preset" >/dev/null
fi
jobs=$(nproc 2>/dev/null || echo 2)
ninja -C "build/$preset" -j"$jobs" "$@"
