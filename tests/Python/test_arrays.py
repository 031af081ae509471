"""Arrays across the boundary: converted when not in the library's layout,
refused with a clear exception when unusable."""

import numpy as np
import pytest

import qzmath
from qzmath import _core


@pytest.mark.parametrize("make", [
    lambda p: p.astype(np.float64),             # narrowed to float32
    lambda p: np.asfortranarray(p),             # column-major
    lambda p: p.astype(">f4"),                  # big-endian
    lambda p: p.tolist(),                       # not an array at all
], ids=["float64", "fortran", "big-endian", "list"])
def test_other_layouts_are_copied_with_the_same_values(sphere, make):
    points = sphere[0]
    given = make(points)
    seen = _core._input_view(given)
    assert seen is not given and not np.shares_memory(seen, points)
    assert seen.dtype == np.float32 and seen.flags.c_contiguous
    np.testing.assert_array_equal(seen, points)


def _nan_at(p, row):
    p = p.copy()
    p[row, 1] = np.nan
    return p


# One case per check: other dtypes, shapes and non-finite values take the same paths.
@pytest.mark.parametrize("make, error, text", [
    (lambda p: p.astype(np.int32), TypeError, "float32 or float64 array, got int32"),
    (lambda p: p.astype(np.float16), TypeError, "got float16"),
    (lambda p: p[:, :2], ValueError, r"shape \(N, 3\), got \(3000, 2\)"),
    (lambda p: p.ravel(), ValueError, r"got \(9000,\)"),
    (lambda p: p[:0], ValueError, "points is empty"),
    (lambda p: _nan_at(p, 17), ValueError, "non-finite value in row 17"),
    (lambda p: p.astype(np.float64) * 1e300, ValueError, "beyond the float32 range"),
], ids=["int", "half", "two-columns", "flat", "empty", "nan", "overflow"])
def test_unusable_points_are_refused_by_every_entry(sphere, make, error, text):
    with np.errstate(over="ignore"):  # NumPy's own warning for the float64 overflow case
        bad = make(sphere[0])
        for call in (lambda: qzmath.reconstruct(bad, progress=False), lambda: qzmath.estimate_normals(bad),
                     lambda: qzmath.curvatures(bad)):
            with pytest.raises(error, match=text):
                call()


def test_bad_arguments_name_the_problem(sphere):
    points, normals = sphere
    cases = [
        (dict(normals=normals[:10]), ValueError, "normals has 10 rows, points 3000"),
        (dict(normals=normals.astype(int)), TypeError, "normals must be a float32"),
        (dict(depth=17), ValueError, "depth must be from 1 to 16, got 17"),
        (dict(depth=7.5), TypeError, "integer"),
        (dict(solver="fast"), ValueError, "solver must be 'multilevel', 'auto'"),
        (dict(progress=3), TypeError, "progress must be True, False or a callable"),
    ]
    for kwargs, error, text in cases:
        with pytest.raises(error, match=text):
            qzmath.reconstruct(points, **{"normals": normals, "progress": False, **kwargs})
    with pytest.raises(ValueError, match="viewpoint must be three numbers"):
        qzmath.estimate_normals(points, viewpoint=(1, 2))


def test_library_failures_carry_the_library_text(sphere):
    few = sphere[0][:5]
    with pytest.raises(qzmath.NormalEstimationError, match="5 points, fewer than k [+] 1 = 21"):
        qzmath.reconstruct(few, progress=False)
    with pytest.raises(ValueError, match="the neighbour count k must be positive, got 0"):
        qzmath.estimate_normals(sphere[0], k=0)
    assert issubclass(qzmath.ReconstructionError, RuntimeError)


def test_results_own_their_memory(sphere):
    v, f = qzmath.reconstruct(*sphere, depth=5, progress=False)
    assert v.dtype == np.float32 and f.dtype == np.int32
    assert v.shape[1] == 3 and f.shape[1] == 3 and v.flags.c_contiguous and f.flags.c_contiguous
    assert v.flags.writeable and not np.shares_memory(v, sphere[0])
    assert f.min() >= 0 and f.max() < len(v)


def test_files_round_trip_and_refuse_bad_meshes(tmp_path, sphere):
    points, normals = sphere
    qzmath.write_cloud(tmp_path / "c.ply", points, normals)
    p, n = qzmath.read_cloud(tmp_path / "c.ply")
    np.testing.assert_array_equal(p, points)
    np.testing.assert_array_equal(n, normals)
    qzmath.write_cloud(tmp_path / "bare.ply", points.astype(np.float64))
    assert qzmath.read_cloud(tmp_path / "bare.ply")[1] is None

    with pytest.raises(FileNotFoundError):
        qzmath.read_cloud(tmp_path / "missing.xyz")
    (tmp_path / "bad.xyz").write_text("1 2 3\n4 5\n")
    with pytest.raises(qzmath.CloudReadError, match="line 2"):
        qzmath.read_cloud(tmp_path / "bad.xyz")
    with pytest.raises(ValueError, match="refers to vertex 3, but there are 3 vertices"):
        qzmath.write_mesh(tmp_path / "m.ply", points[:3], np.array([[0, 1, 3]]))
    with pytest.raises(ValueError, match="refers to vertex -1"):
        qzmath.write_mesh(tmp_path / "m.ply", points[:3], np.array([[0, 1, -1]], dtype=np.int8))
    with pytest.raises(TypeError, match="integer array, got float64"):
        qzmath.write_mesh(tmp_path / "m.ply", points[:3], np.array([[0.0, 1.0, 2.0]]))
    with pytest.raises(OSError, match="cannot write"):
        qzmath.write_mesh(tmp_path / "no" / "m.ply", points[:3], np.array([[0, 1, 2]]))
