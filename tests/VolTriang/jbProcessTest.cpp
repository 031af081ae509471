#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <stdexcept>
#include <tuple>

#include "QZmath/VolTriang/jbProcess.h"
#include "tests/Common/MeshChecks.h"

using namespace VolTr;
using REmath::Point3D_d;

namespace
{
// A function given by a lambda; points with x above flagBeyondX are refused.
struct Field : jbFunction
{
  std::function<double(Point3D_d const &)> f;
  double flagBeyondX = 1e300;
  explicit Field(std::function<double(Point3D_d const &)> g) : f(std::move(g)) {}
  double operator()(Point3D_d const & p, int * flag) override
  {
    if (flag)
      *flag = p.x() > flagBeyondX ? 1 : 0;
    return f(p);
  }
};

// Positive inside a sphere.
Field sphere(double r, double cx = 0, double cy = 0, double cz = 0)
{
  return Field(
      [=](Point3D_d const & p)
      {
        double const dx = p.x() - cx, dy = p.y() - cy, dz = p.z() - cz;
        return r * r - (dx * dx + dy * dy + dz * dz);
      });
}

// Positive inside a torus around the z axis.
Field torus(double R, double r)
{
  return Field(
      [=](Point3D_d const & p)
      {
        double const q = std::sqrt(p.x() * p.x() + p.y() * p.y()) - R;
        return r * r - (q * q + p.z() * p.z());
      });
}

// Collects the mesh the way a target does: each vertex when it first appears.
struct Collector : jbTriangleProcessor
{
  qztest::Mesh mesh;
  int refuseAfter = -1;
  int throwAfter = -1;
  int announcedBeforeUse = 1;
  int operator()(int a, int b, int c, jbVertices v) override
  {
    for (int i = static_cast<int>(mesh.vertices.size()); i < v.count; ++i)
      mesh.vertices.push_back({v.items[i].position.x(), v.items[i].position.y(), v.items[i].position.z()});
    if (a >= v.count || b >= v.count || c >= v.count)
      announcedBeforeUse = 0;
    mesh.triangles.push_back({a, b, c});
    int const n = static_cast<int>(mesh.triangles.size());
    if (n == throwAfter)
      throw std::runtime_error("sink failed");
    return n == refuseAfter ? 0 : 1;
  }
};

int bounds100[3] = {100, 100, 100};
} // namespace

// Positive inside gives triangles that turn clockwise seen from outside: the
// signed volume is negative, and a negated function turns it.
TEST(jbProcess, ClosedSurfacesHaveTheirGenusVolumeAndOrientation)
{
  Field s = sphere(1.0), t = torus(1.0, 0.35);
  Field outside([&](Point3D_d const & p) { return -s.f(p); });
  double const ball = 4.0 / 3.0 * M_PI, ring = 2 * M_PI * M_PI * 0.35 * 0.35;
  using Case = std::tuple<Field *, double, Point3D_d, int, double, double>; // size, start, genus, volume
  for (auto const & [f, size, start, euler, volume, tolerance] :
       {Case{&s, 0.1, Point3D_d(0.9, 0.1, 0.0), 2, -ball, 0.03 * ball},
        Case{&outside, 0.1, Point3D_d(1, 0, 0), 2, ball, 0.03 * ball},
        Case{&t, 0.07, Point3D_d(1.35, 0, 0), 0, -ring, 0.05 * ring}})
  {
    Collector sink;
    jbProcess p;
    ASSERT_EQ(p.polygonize(*f, size, bounds100, start, sink), 0);
    auto const t = qztest::analyse(sink.mesh);
    EXPECT_TRUE(t.closedManifold()) << t.boundaryEdges << " " << t.nonManifoldEdges << " "
                                    << t.inconsistentEdges;
    EXPECT_EQ(
        (std::vector<int>{t.eulerCharacteristic, t.components, t.unusedVertices, sink.announcedBeforeUse}),
        (std::vector<int>{euler, 1, 0, 1}));
    EXPECT_NEAR(qztest::signedVolume(sink.mesh), volume, tolerance);
    // Bisection leaves each vertex within 1/2048 of an edge from the surface;
    // with a curved surface allow a little more.
    for (auto const & v : sink.mesh.vertices)
      EXPECT_TRUE(euler != 2 ||
                  std::fabs(std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]) - 1.0) < size * 0.01);
    EXPECT_TRUE(p.centers == nullptr && p.vertices.items == nullptr); // everything freed at the end
  }
}

// Cube bounds and refused points end the surface in a border; a plane through
// lattice points, where many corner values are exactly 0, still gives its
// vertices.
TEST(jbProcess, BoundsFlagsAndZeroCornersGiveBorderedSurfaces)
{
  Field bounded = sphere(1.0), flagged = sphere(1.0), plane([](Point3D_d const &p) { return 0.25 - p.x(); });
  flagged.flagBeyondX = 0.5;
  int alongX[3] = {3, 100, 100}, small[3] = {4, 4, 4};
  using Case = std::tuple<Field *, double, int *, Point3D_d, double, double>; // size, bounds, start, x range
  for (auto const & [f, size, bounds, start, maxX, minX] :
       {Case{&bounded, 0.1, alongX, Point3D_d(0, 1, 0), 2.0, -2.0},
        Case{&flagged, 0.1, bounds100, Point3D_d(-1, 0, 0), 0.5 + 0.2, -2.0},
        Case{&plane, 0.5, small, Point3D_d(0.25, 0, 0), 0.25 + 0.5 / 1024, 0.25 - 0.5 / 1024}})
  {
    Collector sink;
    jbProcess p;
    ASSERT_EQ(p.polygonize(*f, size, bounds, start, sink), 0);
    auto const t = qztest::analyse(sink.mesh);
    EXPECT_GT(t.boundaryEdges, 0);
    EXPECT_EQ(std::make_pair(t.nonManifoldEdges, t.inconsistentEdges), std::make_pair(0, 0));
    for (auto const & v : sink.mesh.vertices)
      EXPECT_TRUE(v[0] <= maxX && v[0] >= minX) << v[0];
  }
}

TEST(jbProcess, MarchingCubesCoversEveryComponent)
{
  // Two separate spheres: the exhaustive walk finds both.
  Field a = sphere(0.4, -0.6, 0, 0), b = sphere(0.4, 0.6, 0, 0);
  Field f([&](Point3D_d const & p) { return std::max(a.f(p), b.f(p)); });
  Collector all;
  jbProcess p;
  EXPECT_EQ(p.marchingcubes(f, 0.08, Point3D_d(-1.2, -0.6, -0.6), Point3D_d(1.2, 0.6, 0.6), all), 0);
  auto const t = qztest::analyse(all.mesh);
  EXPECT_EQ(std::make_pair(t.components, t.eulerCharacteristic), std::make_pair(2, 4));
  EXPECT_TRUE(t.closedManifold());
  EXPECT_NEAR(-qztest::signedVolume(all.mesh), 2 * 4.0 / 3.0 * M_PI * 0.064, 0.05 * 0.536);
}

namespace
{
// Bisects each deferred edge with the walk's own `converge` on a polygoniser
// of its own, after an optional number of batches fails.
struct SerialSolver : jbVertexSolver
{
  jbFunction * function;
  int batches = 0, failAt = -1, count = 0;
  jbEdgeJob const * pending = nullptr;
  jbVertex * out = nullptr;
  explicit SerialSolver(jbFunction * f) : function(f) {}
  void submit(jbEdgeJob const * jobs, jbVertex * results, int n) override
  {
    EXPECT_EQ(count, 0); // one batch at a time
    pending = jobs, out = results, count = n;
  }
  void wait() override
  {
    int const n = count;
    count = 0;
    if (n > 0 && ++batches == failAt)
      throw std::runtime_error("solver failed");
    jbProcess bisector;
    bisector.function = function;
    for (int k = 0; k < n; ++k)
      out[k].position = bisector.converge(pending[k].p1, pending[k].p2, pending[k].value1);
  }
};
} // namespace

TEST(jbProcess, DeferredVerticesGiveTheSameSequenceAndBothWalksStopCleanly)
{
  Field f = sphere(0.7, 0.1, -0.2, 0.3), t = torus(0.6, 0.25);
  // The gyroid in a box of 8 cubes each way has more vertices than the
  // deferred walk makes room for (6 (b0 b1 + b1 b2 + b2 b0)): the list grows.
  double const k = 2 * M_PI / 0.15;
  Field y(
      [k](Point3D_d const & p)
      {
        double const x = k * p.x(), y = k * p.y(), z = k * p.z();
        return std::sin(x) * std::cos(y) + std::sin(y) * std::cos(z) + std::sin(z) * std::cos(x);
      });
  int small[3] = {8, 8, 8};
  Point3D_d const start(0.6, 0.1, 0.1);
  for (Field * g : {&f, &t, &y})
    for (int batch : {1, 7, 100000})
    {
      Collector plain, deferred;
      jbProcess p, q;
      int * b = g == &y ? small : bounds100;
      ASSERT_EQ(p.polygonize(*g, 0.05, b, start, plain), 0);
      SerialSolver solver(g);
      ASSERT_EQ(q.polygonizeDeferred(*g, 0.05, b, start, deferred, solver, batch), 0);
      EXPECT_TRUE(g != &y || deferred.mesh.vertices.size() > 6u * 3 * 64);
      EXPECT_EQ(plain.mesh.triangles, deferred.mesh.triangles);
      EXPECT_EQ(plain.mesh.vertices, deferred.mesh.vertices);
      EXPECT_TRUE(deferred.announcedBeforeUse);
      EXPECT_GT(solver.batches, batch == 1 ? 100 : 0);
      EXPECT_EQ(q.vertices.items, nullptr);
    }
  // A refusal of the sink stops either walk at its triangle, and an exception
  // from the sink or a failing batch leaves through: both free everything.
  Collector refused, refusedPlain, throwing, sink;
  refused.refuseAfter = refusedPlain.refuseAfter = 123;
  SerialSolver solver(&f), failing(&f);
  jbProcess p;
  EXPECT_EQ(p.polygonizeDeferred(f, 0.05, bounds100, start, refused, solver, 10), 2);
  EXPECT_EQ(p.polygonize(f, 0.05, bounds100, start, refusedPlain), 2);
  EXPECT_EQ(std::make_pair(refused.mesh.triangles.size(), refusedPlain.mesh.triangles.size()),
            std::make_pair(std::size_t(123), std::size_t(123)));
  throwing.throwAfter = 40;
  EXPECT_THROW(p.polygonize(f, 0.05, bounds100, start, throwing), std::runtime_error);
  EXPECT_TRUE(p.cubes == nullptr && p.corners == nullptr && p.edges == nullptr);
  failing.failAt = 3;
  EXPECT_THROW(p.polygonizeDeferred(f, 0.05, bounds100, start, sink, failing, 10), std::runtime_error);
  EXPECT_TRUE(p.cubes == nullptr && p.corners == nullptr); // the sanitizer run proves nothing leaked
  // No sign change means no start, on either walk; zero is the negative side.
  Field positive([](Point3D_d const &) { return 1.0; }), zero([](Point3D_d const &) { return 0.0; });
  EXPECT_EQ(p.polygonizeDeferred(positive, 0.05, bounds100, Point3D_d(0, 0, 0), sink, failing, 10), 1);
  EXPECT_EQ(p.polygonize(zero, 0.05, bounds100, Point3D_d(0, 0, 0), sink), 1);
}
