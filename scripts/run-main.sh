#!/usr/bin/env bash
# Sets everything up, builds, and runs the main job.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bash "$here/scripts/setup.sh"
bash "$here/scripts/build.sh" "$here/build" -DQZMATH_BUILD_TESTS=OFF -DQZMATH_BUILD_BENCHMARKS=OFF
"$here/build/tools/qzexample/qzexample"
