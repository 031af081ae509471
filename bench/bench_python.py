#!/usr/bin/env python3
"""Cost of the Python binding: qzmath.reconstruct against qzrecon on the same
cloud, and the hand-over of a large array.

    PYTHONPATH=BUILD/python /usr/bin/python3 bench/bench_python.py BUILD [--points N]
                                                                   [--depth D] [--rounds R]

Each round runs the tool and the binding once, each in a fresh process, one
after the other, so that load from elsewhere falls on both alike. Prints
medians: the tool's reconstruction time (its own phase meter), the time of
reconstruct() alone, and both processes' wall time (reading the cloud,
reconstructing, writing the PLY). Then the hand-over of a 10M-point float32
array: the call with its finiteness scan, and the call on one row.
"""

import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

BINDING_RUN = """
import sys, time, json, qzmath
points, normals = qzmath.read_cloud(sys.argv[1])
start = time.perf_counter()
v, f = qzmath.reconstruct(points, normals, depth=int(sys.argv[3]), progress=False)
seconds = time.perf_counter() - start
qzmath.write_mesh(sys.argv[2], v, f)
print(json.dumps({"seconds": seconds}))
"""


def timed(command):
    start = time.perf_counter()
    out = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    return time.perf_counter() - start, out


def handover():
    from qzmath import _core
    big = np.random.default_rng(1).random((10_000_000, 3), dtype=np.float32)
    one = big[:1].copy()
    assert _core._input_view(big) is big  # no copy

    def median_ms(f, k=21):
        times = []
        for _ in range(k):
            start = time.perf_counter()
            f()
            times.append(time.perf_counter() - start)
        return 1e3 * statistics.median(times)

    print("10M points float32, in place, with the finiteness scan: %.3f ms"
          % median_ms(lambda: _core._input_view(big)))
    print("one row (the hand-over without the scan):               %.4f ms"
          % median_ms(lambda: _core._input_view(one)))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", help="build folder with tools/qzrecon and python/")
    parser.add_argument("--points", type=int, default=1_000_000)
    parser.add_argument("--depth", type=int, default=8)
    parser.add_argument("--rounds", type=int, default=5)
    args = parser.parse_args()
    tools = os.path.join(args.build, "tools", "qzrecon")
    env = dict(os.environ, PYTHONPATH=os.path.join(args.build, "python"))

    with tempfile.TemporaryDirectory() as tmp:
        cloud = os.path.join(tmp, "sphere.xyzn")
        subprocess.run([os.path.join(tools, "qzsample"), "--shape", "sphere", "--points", str(args.points),
                        cloud], check=True, capture_output=True)
        rows = {"tool": [], "tool wall": [], "binding": [], "binding wall": []}
        for r in range(args.rounds):
            wall, _ = timed([os.path.join(tools, "qzrecon"), "--quiet", "--depth", str(args.depth), "--json",
                             os.path.join(tmp, "t.json"), cloud, os.path.join(tmp, "tool.ply")])
            with open(os.path.join(tmp, "t.json")) as f:
                rows["tool"].append(json.load(f)["seconds"])
            rows["tool wall"].append(wall)
            start = time.perf_counter()
            out = subprocess.run([sys.executable, "-c", BINDING_RUN, cloud, os.path.join(tmp, "py.ply"),
                                  str(args.depth)],
                                 check=True, capture_output=True, text=True, env=env).stdout
            rows["binding wall"].append(time.perf_counter() - start)
            rows["binding"].append(json.loads(out)["seconds"])
            last = [rows[k][-1] for k in ("tool", "tool wall", "binding", "binding wall")]
            print("round %d: tool %.2f s (wall %.2f), binding %.2f s (wall %.2f)" % (r + 1, *last),
                  flush=True)
        meshes = [open(os.path.join(tmp, name), "rb").read() for name in ("tool.ply", "py.ply")]
        same = meshes[0] == meshes[1]
    med = {k: statistics.median(v) for k, v in rows.items()}
    print("medians over %d rounds, %d points, depth %d (same mesh: %s)"
          % (args.rounds, args.points, args.depth, same))
    print("  reconstruction: tool %.2f s, binding %.2f s, overhead %+.1f %%" % (
        med["tool"], med["binding"], 100 * (med["binding"] / med["tool"] - 1)))
    print("  whole process:  tool %.2f s, binding %.2f s, overhead %+.1f %%" % (
        med["tool wall"], med["binding wall"], 100 * (med["binding wall"] / med["tool wall"] - 1)))
    handover()


if __name__ == "__main__":
    main()
