#!/usr/bin/env bash
# The whole test suite: installs what is missing, checks the formatting, builds with ninja, runs every test in the default
# (RelWithDebInfo) build and again under AddressSanitizer + UndefinedBehaviorSanitizer, then runs every
# fuzz target for FUZZ_SECONDS (20) each (scripts/fuzz.sh).
#   scripts/test.sh            both builds and the fuzz run
#   scripts/test.sh default    one preset only (default, asan or tsan)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
bash scripts/check-format.sh

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(default asan)

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

for preset in "${presets[@]}"; do
  echo "=== build ($preset)"
  start=$(date +%s)
  bash scripts/build.sh "$preset"
  echo "=== test ($preset)"
  ctest --preset "$preset"
  echo "=== $preset done in $(( $(date +%s) - start ))s"
done

# The full run (no preset named) fuzzes too: every decoder of outside bytes has a target.
if [ $# -eq 0 ]; then
  echo "=== fuzz"
  start=$(date +%s)
  bash scripts/fuzz.sh
  echo "=== fuzz done in $(( $(date +%s) - start ))s"
fi
