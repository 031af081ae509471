#!/usr/bin/env bash
# Sets everything up, builds, and runs the whole test suite twice: a release
# build, then a build under AddressSanitizer + UndefinedBehaviorSanitizer.
# Set QZ_SKIP_SANITIZERS=1 to run the release pass only.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc 2>/dev/null || echo 2)
bash "$here/scripts/setup.sh"
bash "$here/scripts/test-ratio.sh" # tests against code, meant to stay at a quarter to a third

# Every option is given, never left to the cache: the main command configures
# build/ without the suites, and a run after it must still build them all.
# ctest fails when it finds no tests rather than passing on nothing.
echo "== release build and tests"
bash "$here/scripts/build.sh" "$here/build" -DQZMATH_BUILD_TESTS=ON -DQZMATH_BUILD_BENCHMARKS=ON \
  -DQZMATH_BUILD_TOOLS=ON -DQZMATH_SANITIZE= -DQZMATH_BUILD_PYTHON=ON
ctest --test-dir "$here/build" --output-on-failure --no-tests=error -j "$jobs"

if [ "${QZ_SKIP_SANITIZERS:-0}" != 1 ]; then
  echo "== address,undefined sanitizer build and tests"
  bash "$here/scripts/build.sh" "$here/build-asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DQZMATH_SANITIZE=address,undefined -DQZMATH_BUILD_TESTS=ON -DQZMATH_BUILD_BENCHMARKS=OFF \
    -DQZMATH_BUILD_TOOLS=ON
  # MKL's threaded runtime keeps per-thread buffers until exit; only our own
  # leaks matter, and LeakSanitizer still reports those.
  export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
  export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
  ctest --test-dir "$here/build-asan" --output-on-failure --no-tests=error -j "$jobs" -LE slow
fi
# The Python module of the release build, under the interpreter it was built for.
echo "== python tests"
PYTHONPATH="$here/build/python" PYTHONDONTWRITEBYTECODE=1 \
  /usr/bin/python3 -m pytest -q -p no:cacheprovider "$here/tests/Python"
# The readers of untrusted bytes, fuzzed for a short while each on their
# corpora (seeds from our writers and every input that once broke them).
echo "== fuzz targets"
bash "$here/fuzz/run.sh"
echo "== all tests passed"
