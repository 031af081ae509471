#!/usr/bin/env bash
# Sets everything up, builds, and runs the main job: a sample cloud is
# generated and reconstructed into a mesh.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bash "$here/scripts/setup.sh"
bash "$here/scripts/build.sh" "$here/build" -DQZMATH_BUILD_TESTS=OFF -DQZMATH_BUILD_BENCHMARKS=OFF
out="$here/out"
mkdir -p "$out"
"$here/build/tools/qzrecon/qzsample" --shape sphere --points 20000 "$out/sphere.xyzn"
