#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>

#include "QZsys/Threading.h"
#include "tests/Reconstruction/ReconstructionSupport.h"

using namespace VolTr;
using namespace qztest;

namespace
{
CVolTriangulationParams multilevel(int depth)
{
  CVolTriangulationParams p = makeParams(depth);
  p.setMultilevelSolver(true);
  return p;
}

double pointTriangleDistance(std::array<double, 3> const & p, std::array<double, 3> const & a,
                             std::array<double, 3> const & b, std::array<double, 3> const & c)
{
  // Closest point on a triangle by its Voronoi regions.
  auto sub = [](std::array<double, 3> const & u, std::array<double, 3> const & v) {
    return std::array<double, 3>{u[0] - v[0], u[1] - v[1], u[2] - v[2]};
  };
  auto dot = [](std::array<double, 3> const & u, std::array<double, 3> const & v)
  { return u[0] * v[0] + u[1] * v[1] + u[2] * v[2]; };
  auto at = [&](std::array<double, 3> const & o, std::array<double, 3> const & e1, double s,
                std::array<double, 3> const & e2, double t)
  {
    return std::array<double, 3>{o[0] + s * e1[0] + t * e2[0], o[1] + s * e1[1] + t * e2[1],
                                 o[2] + s * e1[2] + t * e2[2]};
  };
  std::array<double, 3> const ab = sub(b, a), ac = sub(c, a), ap = sub(p, a), bp = sub(p, b), cp = sub(p, c);
  double const d1 = dot(ab, ap), d2 = dot(ac, ap), d3 = dot(ab, bp), d4 = dot(ac, bp), d5 = dot(ab, cp),
               d6 = dot(ac, cp);
  std::array<double, 3> q;
  double const va = d3 * d6 - d5 * d4, vb = d5 * d2 - d1 * d6, vc = d1 * d4 - d3 * d2;
  if (d1 <= 0 && d2 <= 0)
    q = a;
  else if (d3 >= 0 && d4 <= d3)
    q = b;
  else if (d6 >= 0 && d5 <= d6)
    q = c;
  else if (vc <= 0 && d1 >= 0 && d3 <= 0)
    q = at(a, ab, d1 / (d1 - d3), ac, 0);
  else if (vb <= 0 && d2 >= 0 && d6 <= 0)
    q = at(a, ab, 0, ac, d2 / (d2 - d6));
  else if (va <= 0 && d4 - d3 >= 0 && d5 - d6 >= 0)
    q = at(b, sub(c, b), (d4 - d3) / ((d4 - d3) + (d5 - d6)), ab, 0);
  else
  {
    double const den = va + vb + vc;
    q = at(a, ab, vb / den, ac, vc / den);
  }
  std::array<double, 3> const d = sub(p, q);
  return std::sqrt(dot(d, d));
}

// Mean distance from the vertices of `a` to the surface of `b`, looking only
// at the triangles near each vertex.
double meanSurfaceDistance(Mesh const & a, Mesh const & b, double reach)
{
  double sum = 0.0;
  for (auto const & p : a.vertices)
  {
    double best = reach;
    for (auto const & t : b.triangles)
    {
      auto const & v = b.vertices[t[0]];
      if (std::fabs(v[0] - p[0]) > reach || std::fabs(v[1] - p[1]) > reach || std::fabs(v[2] - p[2]) > reach)
        continue;
      best = std::min(best, pointTriangleDistance(p, v, b.vertices[t[1]], b.vertices[t[2]]));
    }
    sum += best;
  }
  return a.vertices.empty() ? 0.0 : sum / a.vertices.size();
}

double leafCell(std::vector<std::string> const & log) { return std::stod(logValue(log, "Leaf cell size")); }
} // namespace

// The multilevel solve gives the surface of the assembled direct solve: same
// topology, vertices within a small part of the leaf cell. Of two nested
// spheres (the inner wall facing the cavity) the walk from the start reaches
// one, and the two solves agree on which.
TEST(MultilevelReconstruction, SameSurfaceAsTheDirectSolve)
{
  QZTest::CSampleCloud nested = QZTest::makeSphereCloud(5000, 1.0, 3);
  QZTest::CSampleCloud const inner = QZTest::makeSphereCloud(3000, 0.5, 4);
  for (int i = 0; i < inner.pointsNumber(); ++i)
  {
    float const * p = inner.getSampleCoords3(i);
    float const * n = inner.getSampleNormal3(i);
    nested.add(p[0], p[1], p[2], -n[0], -n[1], -n[2]);
  }
  struct Case
  {
    QZTest::CSampleCloud cloud;
    int depth;
    int euler;
  };
  Case const cases[] = {{QZTest::makeSphereCloud(6000, 1.0, 21), 5, 2},
                        {QZTest::makeTorusCloud(8000, 1.0, 0.35, 5), 6, 0},
                        {nested, 5, 2}};
  for (Case const & c : cases)
  {
    RunResult const direct = reconstruct(c.cloud, makeParams(c.depth));
    RunResult const ml = reconstruct(c.cloud, multilevel(c.depth));
    for (RunResult const * r : {&direct, &ml})
    {
      MeshTopology const t = analyse(r->mesh);
      EXPECT_TRUE(t.closedManifold());
      EXPECT_EQ(t.eulerCharacteristic, c.euler);
      EXPECT_EQ(t.components, 1);
    }
    double const cell = leafCell(ml.log);
    EXPECT_LT(meanSurfaceDistance(ml.mesh, direct.mesh, cell), 0.02 * cell) << "depth " << c.depth;
    EXPECT_EQ(logValue(ml.log, "Multilevel solver"), "1");
    EXPECT_EQ(logValue(ml.log, "System normalized by factor"),
              logValue(direct.log, "System normalized by factor"));
    EXPECT_EQ(logValue(ml.log, "Right part normalized by factor"),
              logValue(direct.log, "Right part normalized by factor"));
  }
}

// One or two threads give the same mesh, run after run.
TEST(MultilevelReconstruction, DeterministicWhateverTheThreads)
{
  QZTest::CSampleCloud const cloud = QZTest::makeSphereCloud(6000, 1.0, 21);
  RunResult r[3];
  for (int k = 0; k < 3; ++k)
  {
    CVescaThreadingTasksHelper::setNumOfPhisicalThread(k == 0 ? 1 : 2);
    r[k] = reconstruct(cloud, multilevel(6));
  }
  CVescaThreadingTasksHelper::setNumOfPhisicalThread(0);
  EXPECT_EQ(r[0].mesh.vertices, r[1].mesh.vertices);
  EXPECT_EQ(r[0].mesh.triangles, r[1].mesh.triangles);
  EXPECT_EQ(r[1].mesh.vertices, r[2].mesh.vertices);
}

// What fails on the assembled path fails the same way here, and an
// interruption during the solve leaves nothing behind.
TEST(MultilevelReconstruction, FailuresAndInterruptionAsOnTheAssembledPath)
{
  QZTest::CSampleCloud empty, zero;
  for (int i = 0; i < 200; ++i)
    zero.add(static_cast<float>(std::sin(i)), static_cast<float>(std::cos(3 * i)),
             static_cast<float>(std::sin(7 * i)), 0, 0, 0);
  // Zero normals give a zero field, X = 0 everywhere: no surface to walk.
  std::string const expected[2] = {"Failed to solve linear system",
                                   "Failed to reconstruct iso-value surface"};
  for (QZTest::CSampleCloud const * c : {&empty, &zero})
  {
    std::string texts[2];
    for (int k = 0; k < 2; ++k)
      try
      {
        reconstruct(*c, k ? multilevel(4) : makeParams(4));
      }
      catch (CVolTriangulationError const & e)
      {
        texts[k] = e.what();
      }
    EXPECT_EQ(texts[0], expected[c == &zero]);
    EXPECT_EQ(texts[1], texts[0]);
  }

  QZTest::CSampleCloud const cloud = QZTest::makeSphereCloud(3000, 1.0, 8);
  struct Interrupt : IProgressObserver
  {
    CProgressCounter * counter;
    void onProgress(double, std::string const & name) override
    {
      if (name == "solve")
        counter->RequestInterrupt();
    }
  };
  CProgressCounter progress;
  Interrupt interrupt;
  interrupt.counter = &progress;
  progress.AddObserver(&interrupt);
  CVolTriangulationParams p = multilevel(5);
  p.setPhaseNameShown(true);
  CMeshTarget target;
  CVolumetricTriangulator t(&target, &cloud, &p, &progress);
  EXPECT_THROW(t.run(), CUserIntrException);
  EXPECT_TRUE(target.mesh.triangles.empty());
}

// The screening extension with the coarser splat: on samples that lie on
// the sphere the surface follows them far closer than the plain solve; on
// samples scattered about it (noise of a third of the finest node spacing)
// the pull gives way, and the surface stays one closed sphere. Either way the
// mesh does not depend on the threads.
TEST(MultilevelReconstruction, ScreeningFollowsCleanSamplesAndGivesWayToNoise)
{
  auto meanSphereError = [](Mesh const & m)
  {
    double e = 0;
    for (auto const & v : m.vertices)
      e += std::fabs(std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]) - 1.0);
    return m.vertices.empty() ? 1.0 : e / m.vertices.size();
  };
  auto screened = [](int depth)
  {
    CVolTriangulationParams p = multilevel(depth);
    p.setScreeningWeight(64.0);
    p.setSplatSamplesPerCell(16.0);
    return p;
  };
  QZTest::CSampleCloud const clean = QZTest::makeSphereCloud(20000, 1.0, 31);
  RunResult const plain = reconstruct(clean, multilevel(7));
  RunResult const pulled = reconstruct(clean, screened(7));
  EXPECT_TRUE(analyse(pulled.mesh).closedManifold());
  EXPECT_EQ(analyse(pulled.mesh).eulerCharacteristic, 2);
  EXPECT_LT(meanSphereError(pulled.mesh), 0.4 * meanSphereError(plain.mesh));
  EXPECT_NE(logValue(pulled.log, "Splat depths above the deepest"), "0");

  QZTest::CSampleCloud noisy = QZTest::makeSphereCloud(20000, 1.0, 32);
  double const spacing = 2.0 * std::stod(logValue(pulled.log, "Leaf cell size"));
  std::mt19937 rng(33);
  std::normal_distribution<double> gauss(0.0, spacing / 3.0);
  for (int i = 0; i < noisy.pointsNumber(); ++i)
  {
    float * p = noisy.coordsMod(i);
    double const r = 1.0 + gauss(rng);
    for (int a = 0; a < 3; ++a)
      p[a] = static_cast<float>(p[a] * r);
  }
  RunResult r[2];
  for (int k = 0; k < 2; ++k)
  {
    CVescaThreadingTasksHelper::setNumOfPhisicalThread(k + 1);
    r[k] = reconstruct(noisy, screened(7));
  }
  CVescaThreadingTasksHelper::setNumOfPhisicalThread(0);
  MeshTopology const t = analyse(r[0].mesh);
  EXPECT_TRUE(t.closedManifold());
  EXPECT_EQ(t.eulerCharacteristic, 2);
  EXPECT_EQ(t.components, 1);
  EXPECT_EQ(r[0].mesh.vertices, r[1].mesh.vertices);
  EXPECT_EQ(r[0].mesh.triangles, r[1].mesh.triangles);
}
