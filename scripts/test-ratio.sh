#!/usr/bin/env bash
# Prints the lines of tests against the lines of code, and their ratio: the
# tests are meant to stay between a quarter and a third of the code.
# Counts the files git tracks (every line, blank and comment lines included).
#   scripts/test-ratio.sh            whole project
#   scripts/test-ratio.sh --suites   also one line per folder under tests/
set -euo pipefail
cd "$(dirname "$0")/.."

count() { git ls-files -z -- "$@" | xargs -0 -r cat -- 2>/dev/null | wc -l; }
ratio() { awk -v t="$1" -v c="$2" 'BEGIN { printf "%.1f %%", c ? 100 * t / c : 0 }'; }

code=$(count QZmath QZsys tools bench)
tests=$(count tests)
# The aim is at most a third: 3 * tests <= code.
if [ $((3 * tests)) -le "$code" ]; then verdict="within the aim of at most a third"; else verdict="ABOVE the aim of at most a third"; fi
echo "test ratio: $tests lines of tests / $code lines of code = $(ratio "$tests" "$code") ($verdict)"
if [ "${1:-}" = --suites ]; then
  for d in $(git ls-files tests | cut -d/ -f2 | sort -u); do
    [ -d "tests/$d" ] || continue
    printf '  %-20s %6d lines\n' "$d" "$(count "tests/$d")"
  done
fi
