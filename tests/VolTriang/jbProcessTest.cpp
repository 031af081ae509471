#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

#include "QZmath/VolTriang/jbProcess.h"
#include "tests/Common/MeshChecks.h"

using namespace VolTr;
using REmath::Point3D_d;

namespace
{
// Positive inside a sphere.
struct Sphere : jbFunction
{
  double r, cx, cy, cz;
  int evaluations = 0;
  double flagBeyondX = 1e300; // points with x above it are refused
  Sphere(double radius, double x = 0, double y = 0, double z = 0) : r(radius), cx(x), cy(y), cz(z) {}
  double operator()(Point3D_d const & p, int * flag) override
  {
    ++evaluations;
    if (flag)
      *flag = p.x() > flagBeyondX ? 1 : 0;
    double const dx = p.x() - cx, dy = p.y() - cy, dz = p.z() - cz;
    return r * r - (dx * dx + dy * dy + dz * dz);
  }
};

// Positive inside a torus around the z axis.
struct Torus : jbFunction
{
  double R, r;
  Torus(double big, double small) : R(big), r(small) {}
  double operator()(Point3D_d const & p, int * flag) override
  {
    if (flag)
      *flag = 0;
    double const q = std::sqrt(p.x() * p.x() + p.y() * p.y()) - R;
    return r * r - (q * q + p.z() * p.z());
  }
};

// A gyroid of the given period: one connected surface through most cubes.
struct Gyroid : jbFunction
{
  double k;
  explicit Gyroid(double period) : k(2 * M_PI / period) {}
  double operator()(Point3D_d const & p, int * flag) override
  {
    if (flag)
      *flag = 0;
    double const x = k * p.x(), y = k * p.y(), z = k * p.z();
    return std::sin(x) * std::cos(y) + std::sin(y) * std::cos(z) + std::sin(z) * std::cos(x);
  }
};

struct Constant : jbFunction
{
  double v;
  explicit Constant(double value) : v(value) {}
  double operator()(Point3D_d const &, int * flag) override
  {
    if (flag)
      *flag = 0;
    return v;
  }
};

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

double maxRadialError(qztest::Mesh const & m, double r)
{
  double e = 0;
  for (auto const & v : m.vertices)
    e = std::max(e, std::fabs(std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]) - r));
  return e;
}
} // namespace

// Positive inside gives triangles that turn clockwise seen from outside: the
// signed volume is negative, and a negated function turns it.
TEST(jbProcess, ClosedSurfacesHaveTheirGenusVolumeAndOrientation)
{
  struct Outside : Sphere
  {
    Outside() : Sphere(1.0) {}
    double operator()(Point3D_d const & p, int * flag) override { return -Sphere::operator()(p, flag); }
  } outside;
  Sphere sphere(1.0);
  Torus torus(1.0, 0.35);
  double const ball = 4.0 / 3.0 * M_PI, ring = 2 * M_PI * M_PI * 0.35 * 0.35;
  struct Case
  {
    jbFunction * f;
    double size;
    Point3D_d start;
    int euler;
    double volume, tolerance;
  };
  for (Case const & c : {Case{&sphere, 0.1, Point3D_d(0.9, 0.1, 0.0), 2, -ball, 0.03 * ball},
                         Case{&outside, 0.1, Point3D_d(1, 0, 0), 2, ball, 0.03 * ball},
                         Case{&torus, 0.07, Point3D_d(1.35, 0, 0), 0, -ring, 0.05 * ring}})
  {
    Collector sink;
    jbProcess p;
    int bounds[3] = {100, 100, 100};
    ASSERT_EQ(p.polygonize(*c.f, c.size, bounds, c.start, sink), 0);
    auto const t = qztest::analyse(sink.mesh);
    EXPECT_TRUE(t.closedManifold()) << t.boundaryEdges << " " << t.nonManifoldEdges << " "
                                    << t.inconsistentEdges;
    EXPECT_EQ(t.eulerCharacteristic, c.euler);
    EXPECT_EQ(t.components, 1);
    EXPECT_EQ(t.unusedVertices, 0);
    EXPECT_TRUE(sink.announcedBeforeUse);
    EXPECT_NEAR(qztest::signedVolume(sink.mesh), c.volume, c.tolerance);
    // Bisection leaves each vertex within 1/2048 of an edge from the surface;
    // with a curved surface allow a little more.
    if (c.euler == 2)
    {
      EXPECT_LT(maxRadialError(sink.mesh, 1.0), c.size * 0.01);
    }
    EXPECT_EQ(p.centers, nullptr); // everything freed at the end
    EXPECT_EQ(p.vertices.items, nullptr);
  }
}

TEST(jbProcess, EveryCornerIsEvaluatedOnce)
{
  Sphere f(1.0);
  Collector sink;
  jbProcess p;
  int bounds[3] = {100, 100, 100};
  ASSERT_EQ(p.polygonize(f, 0.2, bounds, Point3D_d(1, 0, 0), sink), 0);
  // Evaluations: corners once each, ten per bisected edge, and those of find.
  // Each vertex is one bisected edge; the corners of the visited cubes number
  // fewer than 8 per cube. So the total stays far below a naive count.
  int const bisections = 10 * static_cast<int>(sink.mesh.vertices.size());
  EXPECT_LT(f.evaluations - bisections, 8 * static_cast<int>(sink.mesh.triangles.size()));
}

TEST(jbProcess, BoundsAndFlagsEndTheSurface)
{
  {
    Sphere f(1.0);
    Collector sink;
    jbProcess p;
    int bounds[3] = {3, 100, 100}; // cubes limited along x
    ASSERT_EQ(p.polygonize(f, 0.1, bounds, Point3D_d(0, 1, 0), sink), 0);
    auto const t = qztest::analyse(sink.mesh);
    EXPECT_GT(t.boundaryEdges, 0);
    EXPECT_EQ(t.nonManifoldEdges, 0);
    EXPECT_EQ(t.inconsistentEdges, 0);
  }
  {
    Sphere f(1.0);
    f.flagBeyondX = 0.5;
    Collector sink;
    jbProcess p;
    int bounds[3] = {100, 100, 100};
    ASSERT_EQ(p.polygonize(f, 0.1, bounds, Point3D_d(-1, 0, 0), sink), 0);
    auto const t = qztest::analyse(sink.mesh);
    EXPECT_GT(t.boundaryEdges, 0);
    EXPECT_EQ(t.inconsistentEdges, 0);
    for (auto const & v : sink.mesh.vertices)
      EXPECT_LT(v[0], 0.5 + 0.2);
  }
}

TEST(jbProcess, NoSignChangeMeansNoStart)
{
  Constant f(1.0);
  Collector sink;
  jbProcess p;
  int bounds[3] = {10, 10, 10};
  EXPECT_EQ(p.polygonize(f, 0.1, bounds, Point3D_d(0, 0, 0), sink), 1);
  EXPECT_TRUE(sink.mesh.triangles.empty());
  Constant zero(0.0); // zero is the negative side: no positive point exists
  EXPECT_EQ(p.polygonize(zero, 0.1, bounds, Point3D_d(0, 0, 0), sink), 1);
}

TEST(jbProcess, SinkRefusalAndExceptionsFreeEverything)
{
  Sphere f(1.0);
  int bounds[3] = {100, 100, 100};
  {
    Collector sink;
    sink.refuseAfter = 5;
    jbProcess p;
    EXPECT_EQ(p.polygonize(f, 0.1, bounds, Point3D_d(1, 0, 0), sink), 2);
    EXPECT_EQ(sink.mesh.triangles.size(), 5u);
    EXPECT_EQ(p.cubes, nullptr);
    EXPECT_EQ(p.edges, nullptr);
  }
  {
    Collector sink;
    sink.throwAfter = 40;
    jbProcess p;
    EXPECT_THROW(p.polygonize(f, 0.1, bounds, Point3D_d(1, 0, 0), sink), std::runtime_error);
    EXPECT_EQ(p.cubes, nullptr);
    EXPECT_EQ(p.corners, nullptr); // the sanitizer run proves nothing leaked
  }
}

TEST(jbProcess, ZeroCornerValuesStillGiveVertices)
{
  // A plane through lattice points: many corner values are exactly 0.
  struct Plane : jbFunction
  {
    double operator()(Point3D_d const & p, int * flag) override
    {
      if (flag)
        *flag = 0;
      return 0.25 - p.x();
    }
  } f;
  Collector sink;
  jbProcess p;
  int bounds[3] = {4, 4, 4};
  ASSERT_EQ(p.polygonize(f, 0.5, bounds, Point3D_d(0.25, 0, 0), sink), 0);
  EXPECT_FALSE(sink.mesh.triangles.empty());
  for (auto const & v : sink.mesh.vertices)
    EXPECT_NEAR(v[0], 0.25, 0.5 / 1024);
  auto const t = qztest::analyse(sink.mesh);
  EXPECT_EQ(t.nonManifoldEdges, 0);
  EXPECT_EQ(t.inconsistentEdges, 0);
}

TEST(jbProcess, MarchingCubesCoversEveryComponent)
{
  // Two separate spheres: the continuation walk finds one, the exhaustive
  // walk both.
  struct Two : jbFunction
  {
    Sphere a{0.4, -0.6, 0, 0}, b{0.4, 0.6, 0, 0};
    double operator()(Point3D_d const & p, int * flag) override { return std::max(a(p, flag), b(p, flag)); }
  } f;
  Collector walk, all;
  jbProcess p;
  int bounds[3] = {100, 100, 100};
  ASSERT_EQ(p.polygonize(f, 0.08, bounds, Point3D_d(-0.2, 0, 0), walk), 0);
  EXPECT_EQ(qztest::analyse(walk.mesh).components, 1);
  EXPECT_EQ(p.marchingcubes(f, 0.08, Point3D_d(-1.2, -0.6, -0.6), Point3D_d(1.2, 0.6, 0.6), all), 0);
  auto const t = qztest::analyse(all.mesh);
  EXPECT_EQ(t.components, 2);
  EXPECT_TRUE(t.closedManifold());
  EXPECT_EQ(t.eulerCharacteristic, 4);
  EXPECT_NEAR(-qztest::signedVolume(all.mesh), 2 * 4.0 / 3.0 * M_PI * 0.064, 0.05 * 0.536);
}

TEST(jbVertices, GrowsFromTenByDoubling)
{
  jbVertices v{0, 0, nullptr};
  for (int i = 0; i < 25; ++i)
  {
    jbVertex x;
    x.position = Point3D_d(i, 0, 0);
    EXPECT_EQ(v.add(x), i);
    if (i == 0)
    {
      EXPECT_EQ(v.capacity, 10);
    }
  }
  EXPECT_EQ(v.capacity, 40);
  EXPECT_EQ(v.items[24].position.x(), 24.0);
  std::free(v.items);
}

namespace
{
// Bisects each deferred edge with the walk's own `converge` on a polygoniser
// of its own, after an optional number of batches fails.
struct SerialSolver : jbVertexSolver
{
  jbFunction * function;
  double size;
  int batches = 0;
  int failAt = -1;
  explicit SerialSolver(jbFunction * f, double s) : function(f), size(s) {}
  jbEdgeJob const * pending = nullptr;
  jbVertex * out = nullptr;
  int count = 0;
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

TEST(jbProcess, DeferredVerticesGiveTheSameSequence)
{
  Sphere f(0.7, 0.1, -0.2, 0.3);
  Torus t(0.6, 0.25);
  // The gyroid in a box of 8 cubes each way has more vertices than the
  // deferred walk makes room for (6 (b0 b1 + b1 b2 + b2 b0)): the list grows.
  Gyroid y(0.15);
  int bounds[3] = {50, 50, 50}, small[3] = {8, 8, 8};
  for (jbFunction * g :
       {static_cast<jbFunction *>(&f), static_cast<jbFunction *>(&t), static_cast<jbFunction *>(&y)})
    for (int batch : {1, 7, 100000})
    {
      Collector plain, deferred;
      jbProcess p, q;
      int * b = g == &y ? small : bounds;
      ASSERT_EQ(p.polygonize(*g, 0.05, b, Point3D_d(0.6, 0.1, 0.1), plain), 0);
      SerialSolver solver(g, 0.05);
      ASSERT_EQ(q.polygonizeDeferred(*g, 0.05, b, Point3D_d(0.6, 0.1, 0.1), deferred, solver, batch), 0);
      if (g == &y)
      {
        EXPECT_GT(deferred.mesh.vertices.size(), 6u * 3 * 64);
      }
      EXPECT_EQ(plain.mesh.triangles, deferred.mesh.triangles);
      EXPECT_EQ(plain.mesh.vertices, deferred.mesh.vertices);
      EXPECT_TRUE(deferred.announcedBeforeUse);
      EXPECT_GT(solver.batches, batch == 1 ? 100 : 0);
      EXPECT_EQ(q.vertices.items, nullptr);
    }
  // A refusal stops at the same triangle; a failing batch frees everything.
  Collector refused;
  refused.refuseAfter = 123;
  SerialSolver solver(&f, 0.05);
  jbProcess p;
  EXPECT_EQ(p.polygonizeDeferred(f, 0.05, bounds, Point3D_d(0.6, 0.1, 0.1), refused, solver, 10), 2);
  EXPECT_EQ(refused.mesh.triangles.size(), 123u);
  SerialSolver failing(&f, 0.05);
  failing.failAt = 3;
  Collector sink;
  EXPECT_THROW(p.polygonizeDeferred(f, 0.05, bounds, Point3D_d(0.6, 0.1, 0.1), sink, failing, 10),
               std::runtime_error);
  EXPECT_EQ(p.corners, nullptr);
  EXPECT_EQ(p.cubes, nullptr);
  // No start: the same answer as the plain walk.
  Constant positive(1.0);
  EXPECT_EQ(p.polygonizeDeferred(positive, 0.05, bounds, Point3D_d(0, 0, 0), sink, failing, 10), 1);
}
