#!/usr/bin/env python3
"""Reconstructs a generated point cloud with qzmath and saves a picture of the mesh.

    PYTHONPATH=build/python python3 examples/reconstruct.py [--points N] [--depth D]
                                                           [--png FILE] [--ply FILE]

The cloud is a knotted tube (a trefoil) sampled with a little noise and no
normals, so the library first estimates and orients them; the mesh is drawn
with matplotlib off screen and written as a PNG, so no mesh viewer is needed.
"""

import argparse
import sys
import time

import matplotlib

matplotlib.use("Agg")  # no display needed
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402
from mpl_toolkits.mplot3d.art3d import Poly3DCollection  # noqa: E402

import qzmath  # noqa: E402


def trefoil_tube(count, radius=0.3, noise=0.002, seed=1):
    """Points on a tube around a trefoil knot, without normals."""
    rng = np.random.default_rng(seed)
    t = rng.uniform(0, 2 * np.pi, count)
    a = rng.uniform(0, 2 * np.pi, count)
    centre = np.c_[np.sin(t) + 2 * np.sin(2 * t), np.cos(t) - 2 * np.cos(2 * t), -np.sin(3 * t)]
    tangent = np.c_[np.cos(t) + 4 * np.cos(2 * t), -np.sin(t) + 4 * np.sin(2 * t), -3 * np.cos(3 * t)]
    tangent /= np.linalg.norm(tangent, axis=1, keepdims=True)
    side = np.cross(tangent, [0.0, 0.0, 1.0])
    side /= np.linalg.norm(side, axis=1, keepdims=True)
    up = np.cross(tangent, side)
    ring = np.cos(a)[:, None] * side + np.sin(a)[:, None] * up
    points = centre + radius * ring + rng.normal(0, noise, (count, 3))
    return points.astype(np.float32)


def render(vertices, triangles, path):
    """Draws the mesh lit from the upper left and saves it as a PNG."""
    corners = vertices[triangles]
    normals = np.cross(corners[:, 1] - corners[:, 0], corners[:, 2] - corners[:, 0])
    normals /= np.maximum(np.linalg.norm(normals, axis=1, keepdims=True), 1e-30)
    light = np.array([-0.4, 0.3, 0.85])
    shade = 0.3 + 0.7 * np.abs(normals @ (light / np.linalg.norm(light)))
    colours = np.ones((len(triangles), 4))
    colours[:, :3] = np.outer(shade, [0.95, 0.75, 0.45])

    figure = plt.figure(figsize=(8, 8), dpi=100)
    axes = figure.add_subplot(projection="3d")
    axes.add_collection3d(Poly3DCollection(corners, facecolors=colours, linewidths=0))
    low, high = vertices.min(axis=0), vertices.max(axis=0)
    middle, half = (low + high) / 2, (high - low).max() / 2
    for axis, m in zip("xyz", middle):
        getattr(axes, "set_%slim" % axis)(m - half, m + half)
    axes.set_box_aspect((1, 1, 1), zoom=1.3)
    axes.view_init(elev=35, azim=-60)
    axes.set_axis_off()
    axes.set_title("%d vertices, %d triangles" % (len(vertices), len(triangles)))
    figure.savefig(path, bbox_inches="tight")
    plt.close(figure)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--points", type=int, default=60000, help="cloud size (default 60000)")
    parser.add_argument("--depth", type=int, default=7, help="octree depth (default 7)")
    parser.add_argument("--png", default="reconstruct.png", help="picture to write (default reconstruct.png)")
    parser.add_argument("--ply", help="also write the mesh as PLY")
    args = parser.parse_args()

    points = trefoil_tube(args.points)
    start = time.monotonic()
    vertices, triangles = qzmath.reconstruct(points, depth=args.depth)
    print("%d points -> %d vertices, %d triangles in %.2f s"
          % (len(points), len(vertices), len(triangles), time.monotonic() - start))
    if args.ply:
        qzmath.write_mesh(args.ply, vertices, triangles)
    render(vertices, triangles, args.png)
    print("picture written to", args.png)
    return 0


if __name__ == "__main__":
    sys.exit(main())
