#!/usr/bin/env bash
# Kills the real vorlend with SIGKILL while a client streams feedback events, TRIALS times (default 1000),
# and prints how many events were sent but not yet in a session file at each kill (max and mean). Every
# trial also checks that the files read back whole and in order; a failure stops the run.
#   tools/session-kill-trials.sh [TRIALS] [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/.."
trials=${1:-1000}
build=${2:-build/default}
ninja -C "$build" integration_tests vorlend vorlenctl >/dev/null
VORLEN_BINARY_DIR="$PWD/$build" VORLEN_KILL_TRIALS="$trials" \
  "$build/tests/integration_tests" --gtest_filter='SessionFileProcessTest.KilledWhileEventsStreamIn*'
