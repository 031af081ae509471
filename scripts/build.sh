#!/usr/bin/env bash
# Configures and builds QZmath.  Usage: scripts/build.sh BUILD_DIR [extra cmake args...]
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-"$here/build"}
shift || true
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
cmake --build "$build" -j "$jobs"
