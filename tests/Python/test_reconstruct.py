"""Reconstruction from Python: the same mesh as the qzrecon tool, closed
surfaces from unoriented clouds, and runs stopped by a callback or Ctrl-C."""

import os
import signal
import subprocess
import sys
import textwrap
import time

import numpy as np
import pytest

import qzmath


@pytest.mark.parametrize("columns, depth, options", [
    ("x y z nx ny nz", 6, []),              # oriented, recommended solve
    ("x y z nx ny nz", 5, ["--solver", "direct", "--no-density", "--open"]),
    ("x y z", 6, []),                       # normals estimated first
], ids=["oriented", "classic", "unoriented"])
def test_same_mesh_as_the_tool(tmp_path, tools, columns, depth, options):
    cloud = tmp_path / "sphere.xyzn"
    subprocess.run([tools["qzsample"], "--shape", "sphere", "--points", "3000", str(cloud)], check=True,
                   capture_output=True)
    if columns == "x y z":
        rows = np.loadtxt(cloud)[:, :3]
        cloud = tmp_path / "sphere.xyz"
        np.savetxt(cloud, rows, fmt="%.9g")
    subprocess.run([tools["qzrecon"], "--quiet", "--depth", str(depth), *options, str(cloud),
                    str(tmp_path / "tool.ply")], check=True, capture_output=True)

    points, normals = qzmath.read_cloud(cloud)
    kwargs = dict(solver="direct", density=False, open=True) if options else {}
    v, f = qzmath.reconstruct(points, normals, depth=depth, progress=False, **kwargs)
    qzmath.write_mesh(tmp_path / "py.ply", v, f)
    # One writer for both: equal files mean equal vertex and triangle arrays.
    assert (tmp_path / "py.ply").read_bytes() == (tmp_path / "tool.ply").read_bytes()


def test_unoriented_cloud_gives_a_closed_mesh():
    points, _ = qzmath.sample_shape("torus", 4000)
    v, f = qzmath.reconstruct(points, depth=6, progress=False)
    edges = np.concatenate([f[:, [0, 1]], f[:, [1, 2]], f[:, [2, 0]]])
    # Closed and consistently oriented: each directed edge once, its reverse once.
    directed = {tuple(e) for e in edges.tolist()}
    assert len(directed) == len(edges)
    assert all((b, a) in directed for a, b in directed)
    used = len(np.unique(f))
    assert used - len(edges) // 2 + len(f) == 0  # Euler characteristic of a torus
    assert np.all(np.abs(np.hypot(np.hypot(v[:, 0], v[:, 1]) - 1, v[:, 2]) - 0.35) < 0.02)
    # The estimated normals were turned outward: so are the triangles.
    a, b, c = (v[f[:, k]].astype(np.float64) for k in range(3))
    assert np.sum(a * np.cross(b, c)) / 6 == pytest.approx(2 * np.pi**2 * 0.35**2, rel=0.05)


def test_progress_reaches_the_callback_in_order(sphere):
    seen = []
    qzmath.reconstruct(sphere[0], depth=5, progress=lambda x, phase: seen.append((x, phase)))
    fractions = [x for x, _ in seen]
    assert fractions == sorted(fractions) and fractions[-1] == 1.0
    phases = [p for _, p in seen]
    assert phases.index("normals") < phases.index("solve") < phases.index("iso-surface")


def test_a_callback_interrupts_cleanly(sphere):
    points, normals = sphere
    expected = qzmath.reconstruct(points, normals, depth=6, progress=False)

    def stop(x, phase):
        if phase == "solve":
            raise KeyboardInterrupt

    def fail(x, phase):
        raise LookupError("from the callback")

    counts = [sys.getrefcount(a) for a in (points, normals, stop)]
    for callback, error in ((stop, KeyboardInterrupt), (fail, LookupError)):
        with pytest.raises(error):
            qzmath.reconstruct(points, normals, depth=6, progress=callback)
    assert [sys.getrefcount(a) for a in (points, normals, stop)] == counts
    # Nothing of the stopped runs lingers in the next one.
    for a, b in zip(qzmath.reconstruct(points, normals, depth=6, progress=False), expected):
        np.testing.assert_array_equal(a, b)


def test_ctrl_c_raises_keyboard_interrupt_promptly():
    script = textwrap.dedent("""
        import qzmath, time
        p, n = qzmath.sample_shape("sphere", 50000)
        print("ready", flush=True)
        try:
            qzmath.reconstruct(p, n, depth=9, progress=False)
            print("finished")
        except KeyboardInterrupt:
            print("interrupted")
    """)
    child = subprocess.Popen([sys.executable, "-c", script], stdout=subprocess.PIPE, text=True,
                             env=dict(os.environ))
    assert child.stdout.readline().strip() == "ready"
    # Once the run is under way: the GIL is released, so only the observer's
    # check lets Python see the signal.
    time.sleep(0.5)
    child.send_signal(signal.SIGINT)
    out, _ = child.communicate(timeout=30)
    assert out.strip() == "interrupted" and child.returncode == 0
