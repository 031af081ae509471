#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>
#include <tuple>

#include "tests/Common/Checks.h"
#include "tests/Reconstruction/ReconstructionSupport.h"

using namespace VolTr;
using namespace qztest;

// The multilevel solve gives the surface of the assembled direct solve: same
// topology, an enclosed volume that differs by a thin shell of a small part of
// the leaf cell, and the same mesh with one thread or two.
TEST(MultilevelReconstruction, SameSurfaceAsTheDirectSolveWhateverTheThreads)
{
  using Case = std::tuple<QZTest::CSampleCloud, int, int>; // cloud, depth, genus
  Case const cases[] = {{QZTest::makeSphereCloud(6000, 1.0, 21), 5, 2},
                        {QZTest::makeTorusCloud(8000, 1.0, 0.35, 5), 6, 0}};
  for (auto const & [cloud, depth, euler] : cases)
  {
    SCOPED_TRACE("depth " + std::to_string(depth) + " euler " + std::to_string(euler));
    RunResult direct = reconstruct(cloud, makeParams(depth));
    RunResult ml, single;
    for (RunResult * r : {&ml, &single})
    {
      ThreadCount const threads(r == &ml ? 2 : 1);
      *r = reconstruct(cloud, makeParams(depth, true));
    }
    MeshTopology const t = analyse(ml.mesh);
    EXPECT_TRUE(t.closedManifold());
    EXPECT_EQ(std::make_pair(t.eulerCharacteristic, t.components), std::make_pair(euler, 1));
    double const cell = std::stod(logValue(ml.log, "Leaf cell size"));
    EXPECT_NEAR(signedVolume(ml.mesh), signedVolume(direct.mesh), 0.1 * cell) << cell;
    EXPECT_EQ(logValue(ml.log, "Multilevel solver"), "1");
    for (char const * label : {"System normalized by factor", "Right part normalized by factor"})
      EXPECT_EQ(logValue(ml.log, label), logValue(direct.log, label)) << label;
    EXPECT_EQ(single.mesh.vertices, ml.mesh.vertices);
    EXPECT_EQ(single.mesh.triangles, ml.mesh.triangles);
  }
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
  for (QZTest::CSampleCloud const * c : {&empty, &zero})
    EXPECT_EQ(QZTest::whatOf<CVolTriangulationError>([&] { reconstruct(*c, makeParams(4, true)); }),
              c == &zero ? "Failed to reconstruct iso-value surface" : "Failed to solve linear system");

  QZTest::CSampleCloud const cloud = QZTest::makeSphereCloud(3000, 1.0, 8);
  CProgressCounter progress;
  PhaseObserver interrupt(&progress, "solve");
  CVolTriangulationParams p = makeParams(5, true);
  p.setPhaseNameShown(true);
  CMeshTarget target;
  CVolumetricTriangulator t(&target, &cloud, &p, &progress);
  EXPECT_THROW(t.run(), CUserIntrException);
  EXPECT_TRUE(target.mesh.triangles.empty());
}

// The screening extension with the coarser splat: on samples that lie on
// the sphere the surface follows them far closer than the plain solve; on
// samples scattered about it (noise of a third of the finest node spacing)
// the pull gives way, and the surface stays one closed sphere.
TEST(MultilevelReconstruction, ScreeningFollowsCleanSamplesAndGivesWayToNoise)
{
  auto screened = [](int depth)
  {
    CVolTriangulationParams p = makeParams(depth, true);
    p.setScreeningWeight(64.0);
    p.setSplatSamplesPerCell(16.0);
    return p;
  };
  QZTest::CSampleCloud const clean = QZTest::makeSphereCloud(20000, 1.0, 31);
  RunResult const plain = reconstruct(clean, makeParams(7, true));
  RunResult const pulled = reconstruct(clean, screened(7));
  EXPECT_TRUE(analyse(pulled.mesh).closedManifold());
  EXPECT_EQ(analyse(pulled.mesh).eulerCharacteristic, 2);
  EXPECT_LT(surfaceError(pulled.mesh, 1)[1], 0.4 * surfaceError(plain.mesh, 1)[1]);
  EXPECT_NE(logValue(pulled.log, "Splat depths above the deepest"), "0");

  QZTest::CSampleCloud noisy = QZTest::makeSphereCloud(20000, 1.0, 32);
  std::mt19937 rng(33);
  std::normal_distribution<double> gauss(0.0, 2.0 * std::stod(logValue(pulled.log, "Leaf cell size")) / 3.0);
  for (int i = 0; i < noisy.pointsNumber(); ++i)
  {
    float * p = noisy.coordsMod(i);
    double const r = 1.0 + gauss(rng);
    for (int a = 0; a < 3; ++a)
      p[a] = static_cast<float>(p[a] * r);
  }
  MeshTopology const t = analyse(reconstruct(noisy, screened(7)).mesh);
  EXPECT_TRUE(t.closedManifold());
  EXPECT_EQ(std::make_pair(t.eulerCharacteristic, t.components), std::make_pair(2, 1));
}
