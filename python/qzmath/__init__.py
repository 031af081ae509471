"""qzmath - surface reconstruction, normals and fitting for 3D scans.

Point clouds are NumPy arrays of shape (N, 3), float32 or float64. A float32
C-contiguous array is read in place; any other layout or float64 is converted
to float32 first, since the reconstruction and the normal estimation work in
single precision (the fits work in double and take either). Results come
back as new NumPy arrays that own the library's output, with no further copy.

    >>> import qzmath
    >>> points, normals = qzmath.sample_shape("sphere", 20000)
    >>> vertices, triangles = qzmath.reconstruct(points, normals, depth=7)
    >>> qzmath.write_mesh("sphere.ply", vertices, triangles)

Functions
    reconstruct        watertight (or open) triangle mesh of a cloud
    estimate_normals   oriented unit normals of a cloud without them
    curvatures         mean curvature magnitude at every point
    fit_plane, fit_line, fit_circle
                       least-squares or robust fits, as named tuples
    read_cloud, write_cloud, write_mesh
                       PLY and text clouds in, binary PLY out
    sample_shape       synthetic oriented clouds (sphere, torus, ...)

Errors
    TypeError and ValueError for bad arguments (shapes, dtypes, NaN, empty
    arrays, out-of-range values); ReconstructionError, NormalEstimationError
    and CloudReadError carry the library's own text; KeyboardInterrupt when
    Ctrl-C (or a progress callback) stops a run, which then leaves nothing
    behind.
"""

import operator as _operator
import os as _os
import sys as _sys
import time as _time
from collections import namedtuple as _namedtuple

# MKL loads its processor-specific kernels at run time, and they look for
# MKL's core symbols in the global scope: a Python extension and the libraries
# it pulls in are loaded locally unless asked otherwise, and MKL then aborts
# the process ("Cannot load libmkl_def.so").
_flags = _sys.getdlopenflags()
_sys.setdlopenflags(_flags | _os.RTLD_GLOBAL)
try:
    from . import _core
finally:
    _sys.setdlopenflags(_flags)
from ._core import CloudReadError, NormalEstimationError, ReconstructionError

__all__ = [
    "reconstruct", "estimate_normals", "curvatures", "fit_plane", "fit_line", "fit_circle",
    "read_cloud", "write_cloud", "write_mesh", "sample_shape", "Plane", "Line", "Circle",
    "ReconstructionError", "NormalEstimationError", "CloudReadError",
]

ReconstructionError.__doc__ = "The reconstruction failed (a RuntimeError); the text is the library's."
NormalEstimationError.__doc__ = ("The cloud cannot have normals estimated (a ValueError): too few points, all on "
                                 "one line, a bad k or viewpoint; the text is the library's.")
CloudReadError.__doc__ = "A cloud file's content cannot be read (a ValueError); the text names the file and place."
for _error in (ReconstructionError, NormalEstimationError, CloudReadError):
    _error.__module__ = __name__  # tracebacks name them qzmath.X, where users catch them

Plane = _namedtuple("Plane", "normal offset centroid")
Plane.__doc__ = """A fitted plane: the points p with normal . p == offset.

normal    unit normal, float64 (3,); its sign is arbitrary
offset    normal . centroid
centroid  mean of the points that carry the fit (weighted in the robust
          fit), float64 (3,)"""

Line = _namedtuple("Line", "origin direction")
Line.__doc__ = """A fitted line: origin + t * direction.

origin     centroid of the points that carry the fit, float64 (3,)
direction  unit vector, float64 (3,); its sign is arbitrary"""

Circle = _namedtuple("Circle", "center normal radius")
Circle.__doc__ = """A fitted circle in space.

center   float64 (3,)
normal   unit normal of the circle's plane, float64 (3,); its sign is arbitrary
radius   float"""


class _ProgressBar:
    """Shows a run's progress: a tqdm bar when tqdm is installed, else one
    line on stderr rewritten in place. Called as callback(fraction, phase)."""

    def __init__(self):
        try:
            from tqdm import tqdm
        except ImportError:
            tqdm = None
        self._bar = tqdm(total=100, unit="%", bar_format="{desc}: {percentage:3.0f}%|{bar}| {elapsed}",
                         desc="qzmath") if tqdm else None
        self._shown = (-1, None)
        self._started = _time.monotonic()
        # Rewriting a line in place only works on a terminal; a log gets a
        # line per phase instead.
        self._in_place = _sys.stderr.isatty()

    def __call__(self, fraction, phase):
        percent = int(fraction * 100)
        if (percent, phase) == self._shown:
            return
        new_phase = phase != self._shown[1]
        self._shown = (percent, phase)
        if self._bar is not None:
            self._bar.set_description_str(phase or "qzmath", refresh=False)
            self._bar.update(percent - self._bar.n)
        elif self._in_place or new_phase:
            _sys.stderr.write("%sqzmath: %3d%% %-20s %6.1f s%s" % (
                "\r" if self._in_place else "", percent, phase[:20], _time.monotonic() - self._started,
                "" if self._in_place else "\n"))
            _sys.stderr.flush()

    def close(self):
        if self._bar is not None:
            self._bar.close()
        elif self._in_place and self._shown[0] >= 0:
            _sys.stderr.write("\n")
            _sys.stderr.flush()


def _run_with_progress(progress, run):
    """Calls run(callback) with the callback that `progress` asks for:
    True a bar, False or None nothing, a callable itself."""
    bar = None
    if progress is True:
        bar = callback = _ProgressBar()
    elif progress is False or progress is None:
        callback = None
    elif callable(progress):
        callback = progress
    else:
        raise TypeError("progress must be True, False or a callable(fraction, phase), got %r" % (progress,))
    try:
        return run(callback)
    finally:
        if bar is not None:
            bar.close()


def reconstruct(points, normals=None, depth=8, solver="multilevel", open=False, density=True,
                progress=True):
    """Reconstruct a triangle mesh from a point cloud.

    SYNOPSIS
        vertices, triangles = qzmath.reconstruct(points, normals=None, depth=8,
                                                 solver="multilevel", open=False,
                                                 density=True, progress=True)

    DESCRIPTION
        Solves a Poisson-type equation over an octree of the given depth
        and extracts the level set that passes through the samples as a
        triangle mesh, with triangles about (size of the cloud) / 2**depth
        across. The mesh is watertight unless open=True.

        The defaults are the library's recommended parameters, the same as
        the qzrecon tool's: the multilevel solve with adaptive screening
        (the surface follows the samples, less so where they scatter), the
        normals splatted on cells of 16 samples or more, vertices
        interpolated along their polygoniser edges, and sample weights from
        an estimated density. Given the same cloud and options, the
        result equals qzrecon's vertex for vertex.

        Without normals, they are estimated and oriented first (as
        estimate_normals with k=20 does), which takes the first quarter of
        the progress bar.

        The work runs without the GIL. Ctrl-C stops it within a moment (at
        the library's next progress report) and raises KeyboardInterrupt;
        so does any exception raised by a progress callback, which is then
        raised in its place. Nothing of the run is left behind.

    PARAMETERS
        points    (N, 3) float32 or float64 array; float32 C-contiguous is
                  read in place, anything else is converted to float32.
        normals   (N, 3) array of oriented normals, or None to estimate them.
                  Their length weights the sample: pass unit normals unless
                  that is intended.
        depth     octree depth, 1 to 16 (default 8). Each step halves the
                  triangle size and roughly quadruples time and memory.
        solver    "multilevel" (default: depth by depth, no stored matrix), or
                  one of the classic paths "auto" (by system size), "direct",
                  "iterative", "decomposing", which solve the plain equation
                  without screening.
        open      True for an open surface (a single scan, a terrain): the
                  mesh stops far from the samples instead of closing.
        density   True (default) weighs samples by their estimated density;
                  False makes every sample weigh the same.
        progress  True (default) shows a progress bar on stderr (tqdm when it
                  is installed), False shows nothing, and a callable
                  progress(fraction, phase) is called instead, about every
                  50 ms and at each new phase, with the fraction done
                  (0 to 1) and the phase's name.

    RETURNS
        (vertices, triangles): vertices an (M, 3) float32 array, triangles a
        (K, 3) int32 array of vertex indices, counter-clockwise seen from
        outside.

    RAISES
        TypeError     points or normals not a float array, a bad progress.
        ValueError    a shape other than (N, 3), an empty cloud, NaN or
                      infinite values, normals of another length, depth or
                      solver out of range.
        NormalEstimationError
                      (a ValueError) the cloud cannot have normals estimated:
                      fewer than 21 points, all on one line, ...
        ReconstructionError
                      (a RuntimeError) the library failed, with its text.
        MemoryError   the run needs more memory than there is.
        KeyboardInterrupt
                      Ctrl-C, or raised by the progress callback.

    EXAMPLE
        >>> points, normals = qzmath.sample_shape("torus", 50000)
        >>> v, f = qzmath.reconstruct(points, normals, depth=7, progress=False)
        >>> qzmath.write_mesh("torus.ply", v, f)

    SEE ALSO
        estimate_normals, write_mesh, the qzrecon tool.
    """
    depth = _operator.index(depth)
    if not isinstance(solver, str):
        raise TypeError("solver must be a string, got %r" % (solver,))
    return _run_with_progress(progress, lambda cb: _core.reconstruct(
        points, normals, depth, solver, bool(open), bool(density), cb))


def estimate_normals(points, k=20, viewpoint=None, progress=False):
    """Estimate and orient the normals of a cloud.

    SYNOPSIS
        normals = qzmath.estimate_normals(points, k=20, viewpoint=None)

    DESCRIPTION
        Fits a plane to each point's k nearest neighbours and orients the
        normals consistently along a minimum spanning tree of the neighbour
        graph. Without a viewpoint each connected part is oriented from its
        highest point, facing up (+z); a part inside another faces inward.
        With a viewpoint (a scanner position), normals face it. The results
        do not depend on the number of threads.

    PARAMETERS
        points     (N, 3) float32 or float64 array, N > k.
        k          neighbours per point, not counting itself (default 20).
        viewpoint  None, or the scanner position (x, y, z).
        progress   as in reconstruct (default False).

    RETURNS
        (N, 3) float32 array of unit normals, in the order of the points.

    RAISES
        TypeError, ValueError  as in reconstruct.
        NormalEstimationError  (a ValueError) the cloud cannot have normals:
                               k not positive, N <= k, all points coincide or
                               lie on one line; the text says which.
        KeyboardInterrupt      Ctrl-C.
    """
    k = _operator.index(k)
    return _run_with_progress(progress, lambda cb: _core.estimate_normals(points, k, viewpoint, cb))


def curvatures(points, k=20, progress=False):
    """Mean curvature magnitude at every point of a cloud.

    SYNOPSIS
        c = qzmath.curvatures(points, k=20)

    DESCRIPTION
        Fits a quadric to each point's k nearest neighbours and returns the
        magnitude of its mean curvature there, in the points' units
        (1/length): 1/R on a sphere of radius R, 1/(2R) on a cylinder, 0 on
        a plane (within the flatness limit of the fit). The quadric needs a
        trace of noise: on exactly sampled curved surfaces many points get
        no quadric, and their curvature is unknown.

    PARAMETERS
        points    (N, 3) float32 or float64 array, N > k.
        k         neighbours per point (default 20).
        progress  as in reconstruct (default False).

    RETURNS
        (N,) float32 array; NaN where the curvature is unknown (use
        numpy.nanmean and friends).

    RAISES
        As estimate_normals.
    """
    k = _operator.index(k)
    return _run_with_progress(progress, lambda cb: _core.curvatures(points, k, cb))


def fit_plane(points, robust=True):
    """Fit a plane to points: Plane(normal, offset, centroid).

    The least-squares plane (the direction of least scatter through the
    centroid), or with robust=True (default) the plane under iteratively
    reweighted least squares, where points far from the plane in units of a
    robust scale lose their weight: gross outliers do not tilt it. Works in
    double precision. points: (N, 3) float array, N >= 3. ValueError when
    no plane fits (all points on one line).
    """
    return Plane(*_core.fit_plane(points, bool(robust)))


def fit_line(points, robust=True):
    """Fit a straight line to points: Line(origin, direction).

    The least-squares line (the principal axis of the scatter through the
    centroid; two points give the line from the first to the second), or
    with robust=True (default) the line under iteratively reweighted least
    squares, which discards outliers. points: (N, 3) float array, N >= 2.
    ValueError when no line fits (all points coincide).
    """
    return Line(*_core.fit_line(points, bool(robust)))


def fit_circle(points, robust=True):
    """Fit a circle to points in space: Circle(center, normal, radius).

    Finds the plane of the points, then the circle in that plane: the
    least-squares circle (algebraic start, Levenberg-Marquardt refinement),
    or with robust=True (default) a fit of the geometric distance under
    iteratively reweighted least squares, which discards outliers. Three
    points give the circle through them. points: (N, 3) float array, N >= 3.
    ValueError when no circle fits (points on one line, coincident).
    """
    return Circle(*_core.fit_circle(points, bool(robust)))


def read_cloud(path):
    """Read a point cloud: (points, normals), normals None when the file has none.

    PLY (ASCII or binary, either byte order; vertex x y z [nx ny nz] as float
    or double, other properties skipped) or text with "x y z [nx ny nz]" per
    line (.xyzn, .xyz, .pts, .txt; '#' starts a comment). Both arrays are
    (N, 3) float32. OSError when the file cannot be opened; CloudReadError
    (a ValueError) naming the line or byte offset when its content is bad.
    """
    path = _os.fspath(path)
    with open(path, "rb"):
        pass  # a missing or unreadable file is an OSError of its own kind
    return _core.read_cloud(path)


def write_cloud(path, points, normals=None):
    """Write a cloud as binary little-endian PLY (vertex float x y z [nx ny nz]).

    The format qzrecon and read_cloud read. OSError when the file cannot be
    written.
    """
    _core.write_cloud(_os.fspath(path), points, normals)


def write_mesh(path, vertices, triangles):
    """Write a mesh as binary little-endian PLY, as qzrecon writes it.

    vertices: (M, 3) float array (written as float32); triangles: (K, 3)
    integer array of indices into vertices (written as int32). ValueError for
    an index outside 0..M-1; OSError when the file cannot be written.
    """
    _core.write_mesh(_os.fspath(path), vertices, triangles)


def sample_shape(shape="sphere", count=20000, seed=1):
    """A synthetic oriented cloud: (points, normals), both (count, 3) float32.

    shape: "sphere" (radius 1 at the origin), "torus" (radii 1 and 0.35
    around z), "nested" (spheres of radii 1 and 0.5, the inner one facing its
    cavity), "noisy" (the unit sphere, jittered), "half" (the upper half of
    the unit sphere, an open surface). Points are uniform by area and the
    same for the same seed; qzsample writes the same clouds.
    """
    return _core.sample_shape(shape, _operator.index(count), _operator.index(seed))
