// qzmath._core: the compiled layer of the Python module. The public functions,
// their defaults and their manual pages are in qzmath/__init__.py; this layer
// checks the arrays, runs the library without the GIL and turns its failures
// into Python exceptions.

#include <chrono>
#include <climits>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include "CloudIO.h"
#include "QZmath/Fitting/FitCircle.h"
#include "QZmath/Fitting/FitLine.h"
#include "QZmath/Fitting/PlaneEq.h"
#include "QZmath/SurfaceAnalysis/NormalEstimation.h"
#include "QZmath/VolTriang/VolumetricTriangulator.h"
#include "QZsys/Progress.h"
#include "ShapeCloud.h"
#include "arrays.h"

namespace py = pybind11;
using qzpy::rows3;
using qzpy::toNumpy;

namespace
{
// ---------------------------------------------------------------- running without the GIL

// Watches a counter while the library works without the GIL. Every so often
// (and at each new phase and at the end) it takes the GIL to let Python run
// its signal handlers and to call the caller's progress callback. A Python
// exception raised there (KeyboardInterrupt from Ctrl-C, or whatever the
// callback raises) is kept and turned into an interruption request on the
// counter: the library stops at its next progress call and unwinds, and the
// kept exception is raised once it has.
class tf_PythonProgress : public IProgressObserver
{
public:
  tf_PythonProgress(CProgressCounter & counter, py::object callback)
      : m_counter(counter), m_callback(callback.is_none() ? py::object() : std::move(callback))
  {
  }

  void onProgress(double pos, std::string const & phase) override
  {
    if (m_error)
      return;
    auto const now = std::chrono::steady_clock::now();
    if (phase == m_phase && pos < 1.0 && now - m_last < kInterval)
      return;
    m_last = now;
    m_phase = phase;
    py::gil_scoped_acquire gil;
    try
    {
      if (PyErr_CheckSignals() != 0)
        throw py::error_already_set();
      if (m_callback)
        m_callback(pos, phase);
    }
    catch (py::error_already_set & e)
    {
      m_error = std::make_unique<py::error_already_set>(std::move(e));
      m_counter.RequestInterrupt();
    }
  }

  /// Raises the kept exception, if any. Needs the GIL.
  void raiseIfFailed() const
  {
    if (m_error)
      throw py::error_already_set(*m_error);
  }

private:
  // Often enough for a prompt Ctrl-C and a smooth bar, rarely enough that
  // the work hardly notices the GIL.
  static constexpr std::chrono::milliseconds kInterval{50};
  CProgressCounter & m_counter;
  py::object m_callback;
  std::unique_ptr<py::error_already_set> m_error;
  std::chrono::steady_clock::time_point m_last{};
  std::string m_phase;
};

// Runs `work(counter)` on this thread without the GIL, with `callback`
// (None or callable(fraction, phase)) fed from the counter. The work must not
// touch Python objects. Raises the Python exception that stopped the work, or
// KeyboardInterrupt for any other interruption; the library's exceptions pass
// on to the translators registered with the module.
template <class Work> void runInterruptible(py::object callback, Work && work)
{
  CProgressCounter counter;
  tf_PythonProgress observer(counter, std::move(callback));
  counter.AddObserver(&observer);
  std::exception_ptr failure;
  {
    py::gil_scoped_release release;
    try
    {
      work(counter);
    }
    catch (...)
    {
      failure = std::current_exception();
    }
    // A Ctrl-C in the last moments of a run is still the caller's; and the
    // bar ends full.
    if (!failure)
      observer.onProgress(1.0, counter.GetPhaseName());
  }
  counter.RemoveObserver(&observer);
  observer.raiseIfFailed();
  if (!failure)
    return;
  try
  {
    std::rethrow_exception(failure);
  }
  catch (CUserIntrException const &)
  {
    PyErr_SetNone(PyExc_KeyboardInterrupt);
    throw py::error_already_set();
  }
}

// ---------------------------------------------------------------- normals

std::vector<float> estimatedNormals(float const * points, int count,
                                    REmath::CNormalEstimationParams const & params,
                                    CProgressCounter * progress, std::vector<float> * curvatures = nullptr)
{
  REmath::CEstimatedNormals result;
  REmath::CNormalEstimator(params).run(points, count, result, progress);
  if (curvatures)
    *curvatures = result.getCurvatures();
  return result.getNormals();
}

REmath::CNormalEstimationParams normalParams(int k)
{
  REmath::CNormalEstimationParams p;
  p.setNeighbours(k);
  p.setPhaseNameShown(true);
  return p;
}

py::array_t<float> estimateNormals(py::handle points, int k, py::handle viewpoint, py::object progress)
{
  auto const pts = rows3<float>(points, "points");
  REmath::CNormalEstimationParams params = normalParams(k);
  if (!viewpoint.is_none())
  {
    auto v = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(viewpoint);
    if (!v || v.size() != 3)
      throw py::value_error("viewpoint must be three numbers x, y, z");
    params.setViewpoint(REmath::Point3D_d(v.data()[0], v.data()[1], v.data()[2]));
  }
  std::vector<float> normals;
  runInterruptible(std::move(progress), [&](CProgressCounter & c)
                   { normals = estimatedNormals(pts.data, static_cast<int>(pts.rows), params, &c); });
  return toNumpy(std::move(normals), 3);
}

py::array_t<float> curvatures(py::handle points, int k, py::object progress)
{
  auto const pts = rows3<float>(points, "points");
  REmath::CNormalEstimationParams params = normalParams(k);
  params.setSecondOrder(true);
  std::vector<float> curv;
  runInterruptible(std::move(progress), [&](CProgressCounter & c)
                   { estimatedNormals(pts.data, static_cast<int>(pts.rows), params, &c, &curv); });
  // The library marks an unknown curvature -1; NaN keeps it out of NumPy's
  // arithmetic unnoticed.
  for (float & x : curv)
    if (x < 0.0f)
      x = std::numeric_limits<float>::quiet_NaN();
  return toNumpy(std::move(curv), 0);
}

// ---------------------------------------------------------------- reconstruction

class tf_ArraySamples : public VolTr::IInputSamples
{
public:
  tf_ArraySamples(float const * points, float const * normals, int count)
      : m_points(points), m_normals(normals), m_count(count)
  {
  }

private:
  int onPointsNumber() const override { return m_count; }
  float const * onGetSampleCoords3(int i) const override
  {
    return m_points + 3 * static_cast<std::size_t>(i);
  }
  float const * onGetSampleNormal3(int i) const override
  {
    return m_normals + 3 * static_cast<std::size_t>(i);
  }
  bool onIsBoundaryVertex(int) const override { return false; }

  float const * m_points;
  float const * m_normals;
  int m_count;
};

// The mesh as the tool keeps it: float vertices, int triangles.
class tf_MeshArrays : public VolTr::ITriangulationTarget
{
public:
  std::vector<float> vertices;
  std::vector<std::int32_t> triangles;

private:
  void onAddNewVertex(int, double const * p, double const *) override
  {
    for (int k = 0; k < 3; ++k)
      vertices.push_back(static_cast<float>(p[k]));
  }
  void onAddNewVertex(int, float const * p, float const *) override
  {
    vertices.insert(vertices.end(), p, p + 3);
  }
  void onAddNewTriangle(int a, int b, int c) override
  {
    triangles.push_back(a);
    triangles.push_back(b);
    triangles.push_back(c);
  }
};

// The depths qzrecon accepts.
constexpr int kMinDepth = 1, kMaxDepth = 16;

// "multilevel" is the recommended solve; the others are the classic solver
// codes of CVolTriangulationParams::setPrefferedSolver.
bool solverCode(std::string const & solver, int & code)
{
  static std::pair<char const *, int> const codes[] = {
      {"multilevel", 0}, {"auto", 0}, {"direct", 1}, {"iterative", 3}, {"decomposing", 4}};
  for (auto const & c : codes)
    if (solver == c.first)
    {
      code = c.second;
      return true;
    }
  return false;
}

py::tuple reconstruct(py::handle points, py::handle normals, int depth, std::string const & solver, bool open,
                      bool density, py::object progress)
{
  if (depth < kMinDepth || depth > kMaxDepth)
    throw py::value_error("depth must be from " + std::to_string(kMinDepth) + " to " +
                          std::to_string(kMaxDepth) + ", got " + std::to_string(depth));
  int code = 0;
  if (!solverCode(solver, code))
    throw py::value_error(
        "solver must be 'multilevel', 'auto', 'direct', 'iterative' or 'decomposing', got '" + solver + "'");
  auto const pts = rows3<float>(points, "points");
  qzpy::Rows3<float> given;
  if (!normals.is_none())
  {
    given = rows3<float>(normals, "normals");
    if (given.rows != pts.rows)
      throw py::value_error("normals has " + std::to_string(given.rows) + " rows, points " +
                            std::to_string(pts.rows));
  }
  int const count = static_cast<int>(pts.rows);

  // The recommended parameters, changed only where the arguments say so,
  // exactly as qzrecon does: the classic solvers go without screening.
  VolTr::CVolTriangulationParams params = VolTr::CVolTriangulationParams::makeRecommended(depth);
  bool const multilevel = solver == "multilevel";
  params.setPrefferedSolver(code);
  params.setMultilevelSolver(multilevel);
  if (!multilevel)
    params.setScreeningWeight(0.0);
  params.setVariableDensity(density);
  params.setClosed(!open);
  params.setPhaseNameShown(true);

  tf_MeshArrays mesh;
  runInterruptible(std::move(progress),
                   [&](CProgressCounter & c)
                   {
                     // Normals first where none were given: a quarter of the bar, as in qzrecon.
                     bool const estimating = given.data == nullptr;
                     std::vector<float> estimated;
                     if (estimating)
                     {
                       CPrgCntSubPhase normalsPhase(&c, 0.0, 0.25);
                       estimated = estimatedNormals(pts.data, count, normalParams(20), &c);
                     }
                     tf_ArraySamples samples(pts.data, estimating ? estimated.data() : given.data, count);
                     CPrgCntSubPhase reconstruction(&c, estimating ? 0.25 : 0.0, estimating ? 0.75 : 1.0);
                     VolTr::CVolumetricTriangulator(&mesh, &samples, &params, &c).run();
                   });
  return py::make_tuple(toNumpy(std::move(mesh.vertices), 3), toNumpy(std::move(mesh.triangles), 3));
}

// ---------------------------------------------------------------- fits

std::vector<REmath::Point3D_d> pointList(py::handle obj, char const * fit, std::size_t least)
{
  auto const r = rows3<double>(obj, "points", true);
  if (r.rows < least)
    throw py::value_error(std::string(fit) + " needs at least " + std::to_string(least) + " points, got " +
                          std::to_string(r.rows));
  std::vector<REmath::Point3D_d> v;
  v.reserve(r.rows);
  for (std::size_t i = 0; i < r.rows; ++i)
    v.emplace_back(r.data + 3 * i);
  return v;
}

py::array_t<double> vec3(double const * p) { return toNumpy(std::vector<double>(p, p + 3), 0); }
py::array_t<double> vec3(REmath::Point3D_d const & p) { return vec3(p.asArray()); }

// Runs a fit without the GIL; a fit that finds nothing is a ValueError.
template <class Fit> void runFit(char const * what, Fit && fit)
{
  bool ok;
  {
    py::gil_scoped_release release;
    ok = fit();
  }
  if (!ok)
    throw py::value_error(what);
}

py::tuple fitPlane(py::handle points, bool robust)
{
  auto const v = pointList(points, "fit_plane", 3);
  double coeff[4], centroid[3];
  runFit("fit_plane: no plane fits these points (they lie on one line or coincide)",
         [&] {
           return robust ? FitPlaneToPointSetRobust(v, coeff, centroid)
                         : FitPlaneToPointSet(v, coeff, centroid);
         });
  return py::make_tuple(vec3(coeff), coeff[3], vec3(centroid));
}

py::tuple fitLine(py::handle points, bool robust)
{
  auto const v = pointList(points, "fit_line", 2);
  REmath::Point3D_d origin, direction;
  runFit("fit_line: no line fits these points (they coincide)",
         [&] {
           return robust ? FitLineToPointSetRobust(v, origin, direction)
                         : FitLineToPointSet(v, origin, direction);
         });
  return py::make_tuple(vec3(origin), vec3(direction));
}

py::tuple fitCircle(py::handle points, bool robust)
{
  auto const v = pointList(points, "fit_circle", 3);
  REmath::Point3D_d center, normal;
  double radius = 0.0;
  runFit("fit_circle: no circle fits these points (they lie on one line, coincide, or the fit failed)",
         [&]
         {
           return robust ? FitCircleToPointSetRobust(v, center, normal, radius)
                         : FitCircleToPointSet(v, center, normal, radius);
         });
  return py::make_tuple(vec3(center), vec3(normal), radius);
}

// ---------------------------------------------------------------- files

[[noreturn]] void raiseOSError(std::exception const & e)
{
  PyErr_SetString(PyExc_OSError, e.what());
  throw py::error_already_set();
}

py::tuple readCloud(std::string const & path)
{
  qzrecon::OrientedCloud cloud;
  {
    py::gil_scoped_release release;
    cloud = qzrecon::readCloud(path);
  }
  bool const withNormals = cloud.hasNormals() && !cloud.points.empty();
  py::object normals = py::none();
  if (withNormals)
    normals = toNumpy(std::move(cloud.normals), 3);
  return py::make_tuple(toNumpy(std::move(cloud.points), 3), normals);
}

std::vector<float> floatList(py::handle obj, char const * name, std::size_t * rows)
{
  auto const r = rows3<float>(obj, name, true);
  *rows = r.rows;
  return std::vector<float>(r.data, r.data + 3 * r.rows);
}

void writeMesh(std::string const & path, py::handle vertices, py::handle triangles)
{
  qzrecon::MeshData mesh;
  std::size_t rows = 0;
  mesh.vertices = floatList(vertices, "vertices", &rows);
  mesh.triangles = qzpy::triangles(triangles, rows);
  try
  {
    py::gil_scoped_release release;
    qzrecon::writePly(path, mesh, false);
  }
  catch (std::runtime_error const & e)
  {
    raiseOSError(e);
  }
}

void writeCloud(std::string const & path, py::handle points, py::handle normals)
{
  qzrecon::OrientedCloud cloud;
  std::size_t rows = 0, normalRows = 0;
  cloud.points = floatList(points, "points", &rows);
  if (!normals.is_none())
  {
    cloud.normals = floatList(normals, "normals", &normalRows);
    if (normalRows != rows)
      throw py::value_error("normals has " + std::to_string(normalRows) + " rows, points " +
                            std::to_string(rows));
  }
  try
  {
    py::gil_scoped_release release;
    qzrecon::writePly(path, cloud);
  }
  catch (std::runtime_error const & e)
  {
    raiseOSError(e);
  }
}

py::tuple sampleShape(std::string const & name, long long count, std::uint32_t seed)
{
  qzrecon::Shape shape;
  if (!qzrecon::shapeFromName(name, shape))
  {
    std::string names;
    for (auto const & n : qzrecon::shapeNames())
      names += (names.empty() ? "'" : ", '") + n + "'";
    throw py::value_error("shape must be one of " + names + ", got '" + name + "'");
  }
  if (count < 1 || count > INT_MAX)
    throw py::value_error("count must be from 1 to " + std::to_string(INT_MAX) + ", got " +
                          std::to_string(count));
  qzrecon::OrientedCloud cloud;
  {
    py::gil_scoped_release release;
    cloud = qzrecon::makeShapeCloud(shape, static_cast<std::size_t>(count), seed);
  }
  return py::make_tuple(toNumpy(std::move(cloud.points), 3), toNumpy(std::move(cloud.normals), 3));
}

// What an entry point reads of an (N, 3) array, for the tests and the
// timing of the hand-over: the caller's own array when no copy was needed.
py::array inputView(py::handle points, std::string const & dtype)
{
  if (dtype == "float32")
    return rows3<float>(points, "points").array;
  if (dtype == "float64")
    return rows3<double>(points, "points").array;
  throw py::value_error("dtype must be 'float32' or 'float64'");
}
} // namespace

PYBIND11_MODULE(_core, m)
{
  m.doc() = "The compiled layer of qzmath; use the functions of the qzmath package.";

  py::register_exception<VolTr::CVolTriangulationError>(m, "ReconstructionError", PyExc_RuntimeError);
  py::register_exception<REmath::CNormalEstimationError>(m, "NormalEstimationError", PyExc_ValueError);
  py::register_exception<qzrecon::CloudReadError>(m, "CloudReadError", PyExc_ValueError);

  using py::arg;
  m.def("reconstruct", &reconstruct, arg("points"), arg("normals"), arg("depth"), arg("solver"), arg("open"),
        arg("density"), arg("progress"), "Mesh (vertices, triangles) of a cloud; see qzmath.reconstruct.");
  m.def("estimate_normals", &estimateNormals, arg("points"), arg("k"), arg("viewpoint"), arg("progress"),
        "Oriented unit normals (N, 3) float32; see qzmath.estimate_normals.");
  m.def("curvatures", &curvatures, arg("points"), arg("k"), arg("progress"),
        "Mean curvature magnitudes (N,) float32; see qzmath.curvatures.");
  m.def("fit_plane", &fitPlane, arg("points"), arg("robust"), "(normal, offset, centroid)");
  m.def("fit_line", &fitLine, arg("points"), arg("robust"), "(origin, direction)");
  m.def("fit_circle", &fitCircle, arg("points"), arg("robust"), "(center, normal, radius)");
  m.def("read_cloud", &readCloud, arg("path"), "(points, normals or None); see qzmath.read_cloud.");
  m.def("write_mesh", &writeMesh, arg("path"), arg("vertices"), arg("triangles"), "Binary PLY of a mesh.");
  m.def("write_cloud", &writeCloud, arg("path"), arg("points"), arg("normals"), "Binary PLY of a cloud.");
  m.def("sample_shape", &sampleShape, arg("shape"), arg("count"), arg("seed"),
        "(points, normals) sampled on a shape; see qzmath.sample_shape.");
  m.def("_input_view", &inputView, arg("points"), arg("dtype") = "float32",
        "The array an entry point reads for `points`: the same object when no copy was needed.");
}
