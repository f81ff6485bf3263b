#!/usr/bin/env bash
# Builds the fuzz targets in the asan build (clang; library code instrumented for coverage) and runs each for a while from the seed
# corpus in fuzz/corpus/<target>. Every decoder of outside bytes has a target here.
#   scripts/fuzz.sh                 every target, FUZZ_SECONDS (default 20) each
#   scripts/fuzz.sh fuzz_archive    one target
# A crash, leak or time-out fails the run; the input that caused it is left in build/asan/findings.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-20}
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for f in fuzz/fuzz_*.cc; do targets+=("$(basename "$f" .cc)"); done
fi

bash scripts/build.sh asan "${targets[@]}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
findings=build/asan/findings
mkdir -p "$findings"
for t in "${targets[@]}"; do
  # New inputs go to a scratch corpus; the repository's seeds are only read.
  work=$(mktemp -d "${TMPDIR:-/tmp}/vorlen-fuzz-XXXXXX")
  echo "=== fuzz $t (${seconds}s)"
  if ! "build/asan/fuzz/$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$findings/$t-" "$work" "fuzz/corpus/$t" 2>"build/asan/$t.log"; then
    tail -n 40 "build/asan/$t.log"
    rm -rf "$work"
    echo "fuzz: $t failed; see build/asan/$t.log and $findings"
    exit 1
  fi
  grep -E "stat::number_of_executed_units|cov:" "build/asan/$t.log" | tail -n 2 || true
  rm -rf "$work"
done
