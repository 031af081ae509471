#!/usr/bin/env bash
# Sets everything up, builds, and runs the main job: a sample cloud (a sphere
# of 100k oriented points, made by our generator) is reconstructed into a
# watertight mesh at octree depth 8, with a summary of the run.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bash "$here/scripts/setup.sh"
bash "$here/scripts/build.sh" "$here/build" -DQZMATH_BUILD_TESTS=OFF -DQZMATH_BUILD_BENCHMARKS=OFF
out="$here/out"
mkdir -p "$out"
"$here/build/tools/qzrecon/qzsample" --shape sphere --points 100000 "$out/sphere.xyzn"
"$here/build/tools/qzrecon/qzrecon" --depth 8 --log "$out/sphere.log" --json "$out/sphere.json" \
  "$out/sphere.xyzn" "$out/sphere.ply"
