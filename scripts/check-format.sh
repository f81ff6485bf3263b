#!/usr/bin/env bash
# Fails when a C++ file of the project disagrees with .clang-format, listing each such file.
#   scripts/check-format.sh          check
#   scripts/check-format.sh --fix    rewrite the files in place
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cc' '*.h')
if [ "${1:-}" = "--fix" ]; then
  clang-format -i "${files[@]}"
  exit 0
fi
mapfile -t bad < <(clang-format --dry-run "${files[@]}" 2>&1 | sed -n 's/^\([^:]*\):[0-9]*:[0-9]*: warning:.*/\1/p' | sort -u)
if [ ${#bad[@]} -gt 0 ]; then
  printf 'format: %s differs from .clang-format\n' "${bad[@]}"
  echo "format: ${#bad[@]} file(s); run scripts/check-format.sh --fix"
  exit 1
fi
echo "format: ${#files[@]} files agree with .clang-format"
