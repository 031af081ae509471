#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer) in a build folder of their own and runs each for
# a short while on its corpus: the seeds our writers made at build time, the
# inputs earlier runs kept, and the committed inputs under fuzz/regressions/
# (every one of them once broke a reader). Any crash, leak, hang or broken
# invariant fails the run and leaves the input in the artifacts folder.
#   QZ_FUZZ_SECONDS  seconds per target (20)
#   QZ_FUZZ_BUILD    build folder (build-fuzz beside this folder)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${QZ_FUZZ_BUILD:-"$here/build-fuzz"}
seconds=${QZ_FUZZ_SECONDS:-20}
jobs=$(nproc 2>/dev/null || echo 2)
targets=(component_filters sparse_vector extern_vector ply_reader text_cloud_reader)

cmake -S "$here/fuzz" -B "$build" -DCMAKE_CXX_COMPILER=clang++-14 >/dev/null
cmake --build "$build" -j "$jobs"

mkdir -p "$build/artifacts"
# One target per core at a time: each fuzzer is a single process.
fuzz_one() {
  local t=$1
  local corpus=("$build/corpus/$t" "$build/corpus-seeds/$t")
  mkdir -p "${corpus[0]}"
  [ -d "$here/fuzz/regressions/$t" ] && corpus+=("$here/fuzz/regressions/$t")
  "$build/fuzz_$t" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$build/artifacts/$t-" "${corpus[@]}" >"$build/$t.log" 2>&1
}
declare -A pid
for t in "${targets[@]}"; do
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
  fuzz_one "$t" &
  pid[$t]=$!
done

status=0
for t in "${targets[@]}"; do
  log="$build/$t.log"
  if wait "${pid[$t]}"; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "fuzz $t: ${runs:-?} executions in ${seconds} s, no failure"
  else
    echo "fuzz $t: FAILED (input and log in $build/artifacts, $log)"
    grep -v '^INFO' "$log" | tail -40
    status=1
  fi
done
exit $status
