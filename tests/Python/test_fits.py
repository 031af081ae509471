"""Fits, normals and curvature against known geometry."""

import numpy as np
import pytest

import qzmath

rng = np.random.default_rng(7)


def _frame(normal):
    """Two unit vectors spanning the plane orthogonal to `normal`."""
    n = np.asarray(normal, float) / np.linalg.norm(normal)
    u = np.cross(n, [1.0, 0.0, 0.0] if abs(n[0]) < 0.9 else [0.0, 1.0, 0.0])
    u /= np.linalg.norm(u)
    return n, u, np.cross(n, u)


def _parallel(a, b):
    return abs(abs(np.dot(a, b)) - 1) < 1e-9


def test_plane_line_circle_recover_exact_geometry():
    n, u, w = _frame([1.0, 2.0, 2.0])
    c = np.array([0.5, -1.0, 2.0])
    s, t = rng.uniform(-1, 1, (2, 50))
    plane_points = c + np.outer(s, u) + np.outer(t, w)
    angles = np.linspace(0, 5, 40)
    circle_points = c + 1.5 * (np.outer(np.cos(angles), u) + np.outer(np.sin(angles), w))
    line_points = c + np.outer(np.linspace(-2, 3, 30), n)
    plane = qzmath.fit_plane(plane_points, robust=False)
    assert _parallel(plane.normal, n) and plane.offset == pytest.approx(np.dot(plane.normal, c))
    line = qzmath.fit_line(line_points.astype(np.float32))  # robust, as by default
    assert _parallel(line.direction, n) and np.linalg.norm(np.cross(line.origin - c, n)) < 1e-5
    circle = qzmath.fit_circle(circle_points, robust=False)
    np.testing.assert_allclose(circle.center, c, atol=1e-9)
    assert circle.radius == pytest.approx(1.5) and _parallel(circle.normal, n)


def test_robust_fits_ignore_outliers_that_tilt_plain_ones():
    # Eight of 208 points far off the plane (above it) and off the circle (outside it).
    s, t = rng.uniform(-1, 1, (2, 208))
    z = np.where(np.arange(208) < 8, rng.uniform(1, 3, 208), 0.001 * rng.standard_normal(208))
    plane_points = np.c_[s, t, z]
    assert qzmath.fit_plane(plane_points, robust=False).normal[2] ** 2 < 0.9999
    assert qzmath.fit_plane(plane_points).normal[2] ** 2 > 1 - 1e-8
    angles = rng.uniform(0, 2 * np.pi, 208)
    radii = np.where(np.arange(208) < 8, rng.uniform(3, 6, 208), 2.0)
    circle_points = np.c_[radii * np.cos(angles), radii * np.sin(angles), 0.001 * rng.standard_normal(208)]
    assert abs(qzmath.fit_circle(circle_points, robust=False).radius - 2) > 0.1
    assert qzmath.fit_circle(circle_points).radius == pytest.approx(2, abs=1e-4)


def test_too_few_points_for_a_fit():
    with pytest.raises(ValueError, match="fit_plane needs at least 3 points, got 2"):
        qzmath.fit_plane(np.zeros((2, 3)))
    with pytest.raises(ValueError, match="fit_line needs at least 2 points"):
        qzmath.fit_line(np.zeros((1, 3)))
    with pytest.raises(ValueError, match="no circle fits"):
        qzmath.fit_circle(np.outer(np.arange(5.0), [1, 1, 1]))


def test_normals_of_a_sphere_point_outward_or_at_the_viewpoint(sphere):
    points, _ = sphere
    radial = points / np.linalg.norm(points, axis=1, keepdims=True)
    normals = qzmath.estimate_normals(points)
    assert normals.shape == points.shape and normals.dtype == np.float32
    assert np.min(np.sum(normals * radial, axis=1)) > 0.99
    # A viewpoint inside the sphere turns every normal inward.
    inward = qzmath.estimate_normals(points.astype(np.float64), k=12, viewpoint=(0.0, 0.0, 0.0))
    assert np.max(np.sum(inward * radial, axis=1)) < -0.99


def test_curvature_of_a_slightly_noisy_sphere_is_one_over_its_radius(sphere):
    points = 2.0 * sphere[0] + rng.normal(0, 1e-4, sphere[0].shape)
    c = qzmath.curvatures(points, k=30)
    assert c.shape == (len(points),) and np.mean(np.isnan(c)) < 0.05
    assert np.nanmedian(c) == pytest.approx(0.5, rel=0.02)
