// The reconstruction driver: parameters, the log protocol of the entry and the
// tree, phase weights and the failures of the early stages. The whole pipeline
// is checked in the reconstruction suite.

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "tests/Common/Checks.h"
#include "tests/Reconstruction/ReconstructionSupport.h"

using namespace VolTr;
using QZTest::CSampleCloud;
using QZTest::whatOf;

namespace
{
CSampleCloud cubeCorners()
{
  CSampleCloud cloud;
  for (int corner = 0; corner < 8; ++corner)
    cloud.add(float(corner & 1), float((corner >> 1) & 1), float((corner >> 2) & 1));
  return cloud;
}

/// The log of a run with these parameters.
std::vector<std::string> runLogged(CSampleCloud const & cloud, CVolTriangulationParams p)
{
  VsUt::CMemoryDebugLog log;
  p.setDebugLog(&log);
  CVolumetricTriangulator(nullptr, &cloud, &p, nullptr).run();
  return log.lines();
}
} // namespace

// (1 << 3) * 2 = 16 cells per axis, 6 * 16 * 16 triangles; depths where the
// shift would be undefined still give defined numbers.
TEST(CVolTriangulationParams, CellFactorAndTriangleEstimates)
{
  CVolTriangulationParams p;
  p.octreeDepth() = 3;
  p.setReconstructFactor(2.0f);
  EXPECT_EQ(std::make_pair(p.getCellFactor(), p.estimateTrianglesNumber()), std::make_pair(16.0f, 1536));
  p.setOctreeDepth(-1);
  EXPECT_EQ(p.getCellFactor(), 1.0f);
  p.setOctreeDepth(40);
  EXPECT_EQ(p.estimateTrianglesNumber(), 2147483647);
}

TEST(CVolumetricTriangulator, LogsParametersAndTreeExactly)
{
  std::vector<std::string> const lines = runLogged(cubeCorners(), qztest::makeParams(2));

  // Centre nodes at depth 2: the samples fill the corner cells 0 and 3 on each
  // axis, giving 4^3 nodes at depth 1 and 3^3 at depth 0. The cube has edge
  // 1 + 1/16 around the centre 0.5. The lines of the later stages follow.
  // The kernel support, 1.5 cells, is narrowed by the kernel scale 0.95.
  std::vector<std::string> const expected = {"Volumetric triangulation core started",
                                             "Octree depth: 2",
                                             "Kernel scale: 0.95",
                                             "Subdivision factor: 1",
                                             "Closed: 1",
                                             "Normals by gradient: 0",
                                             "Center scheme: 1",
                                             "Samples #: 8",
                                             "Variable density: 1",
                                             "Density estimation level delta: 2",
                                             "Octree depth: 2",
                                             "Leaf cells: 8",
                                             "Nodes number : 91",
                                             "Node depth bounds: 0, 1",
                                             "Leaf cell size: 0.53125",
                                             "Cells box min: -0.03125, -0.03125, -0.03125",
                                             "Cells box max: 1.03125, 1.03125, 1.03125",
                                             "Node min: -0.5625, -0.5625, -0.5625",
                                             "Node max: 1.5625, 1.5625, 1.5625",
                                             "Kernel support size in cells: 1.425",
                                             "Density estimation level: 0"};
  ASSERT_GT(lines.size(), expected.size());
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + expected.size()), expected);
}

TEST(CVolumetricTriangulator, ParameterLinesFollowTheFlagsAndTheDensityLevelIsClamped)
{
  CVolTriangulationParams params = qztest::makeParams(5);
  params.setUseCenter(false);
  params.setVariableDensity(false);
  params.setClosed(false);
  params.setEstimateResultNormals(true);
  std::vector<std::string> const lines = runLogged(QZTest::makeSphereCloud(200, 1.0, 5), params);
  ASSERT_GE(lines.size(), 9u);
  EXPECT_EQ(std::vector<std::string>(lines.begin() + 4, lines.begin() + 9),
            (std::vector<std::string>{"Closed: 0", "Normals by gradient: 1", "Center scheme: 0",
                                      "Samples #: 200", "Variable density: 0"}));
  for (std::string const & l : lines)
    EXPECT_EQ(l.find("Density estimation"), std::string::npos) << l;

  // With the density, its level is clamped to the node depths.
  for (int delta : {0, 2, 10})
  {
    params = qztest::makeParams(5);
    params.setDetalizationLevel(2);
    params.setDensityEstimationDepthDelta(delta);
    // Centre nodes: depths 2 to 4.
    std::vector<std::string> const lines = runLogged(QZTest::makeSphereCloud(100, 1.0, 6), params);
    std::string const expected = "Density estimation level: " + std::to_string(std::max(4 - delta, 2));
    EXPECT_NE(std::find(lines.begin(), lines.end(), expected), lines.end()) << expected;
  }
}

// The parameters are copied when the triangulator is made; what is wrong with
// them or with the samples fails in the tree with its text.
TEST(CVolumetricTriangulator, ParametersAreCopiedAndEarlyFailuresCarryTheirTexts)
{
  CSampleCloud const cloud = cubeCorners();
  VsUt::CMemoryDebugLog log;
  CVolTriangulationParams p;
  p.setOctreeDepth(3);
  p.setDebugLog(&log);
  CVolumetricTriangulator t(nullptr, &cloud, &p, nullptr);
  p.setOctreeDepth(-1);
  p.setDebugLog(nullptr);
  EXPECT_NO_THROW(t.run());
  EXPECT_EQ(log.lines().at(1), "Octree depth: 3");

  for (CVolTriangulationParams const * q : {static_cast<CVolTriangulationParams const *>(&p),
                                            static_cast<CVolTriangulationParams const *>(nullptr)})
    EXPECT_EQ(whatOf<std::exception>([&] { CVolumetricTriangulator(nullptr, &cloud, q, nullptr).run(); }),
              "Incorrect tree depth detected in VolTr::COctree constructor");
  p.setOctreeDepth(4);
  // An empty cloud builds an empty tree and has nothing to solve for.
  CSampleCloud const empty;
  EXPECT_EQ(
      whatOf<CVolTriangulationError>([&] { CVolumetricTriangulator(nullptr, &empty, &p, nullptr).run(); }),
      "Failed to solve linear system");
  CSampleCloud bad = cubeCorners();
  bad.coordsMod(5)[2] = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(whatOf<std::exception>([&] { CVolumetricTriangulator(nullptr, &bad, &p, nullptr).run(); }),
            "Sample 5 has a non-finite coordinate in VolTr::COctree constructor");
}

TEST(CVolumetricTriangulator, PhaseWeightsDecideTheTreeShare)
{
  CSampleCloud const cloud = QZTest::makeSphereCloud(300, 1.0, 9);
  using Case = std::tuple<int, int, bool, double>; // threads, depth, density, total weight
  // tree 10, grad_basis 2, density 30, grad_div 10, assembly 100 (two phases
  // of 50 on one core), update 5, solve 30 or 200, iso-value 10, iso-surface 40.
  // The depth only decides the solve's weight: the runs stop after the tree.
  for (auto const & [threadCount, depth, density, total] :
       {Case{1, 4, true, 237}, Case{2, 4, true, 237}, Case{1, 4, false, 207}, Case{2, 8, true, 237},
        Case{2, 9, true, 407}, Case{1, 9, false, 377}})
  {
    qztest::ThreadCount const threads(threadCount);
    CProgressCounter progress;
    qztest::PhaseObserver recorder(&progress, "grad_basis"); // stops the run after the tree
    CVolTriangulationParams p = qztest::makeParams(depth);
    p.setVariableDensity(density);
    p.setPhaseNameShown(true);
    EXPECT_THROW(CVolumetricTriangulator(nullptr, &cloud, &p, &progress).run(), CUserIntrException);
    EXPECT_DOUBLE_EQ(recorder.interruptedAt, 10.0 / total) << threadCount << " " << depth << " " << density;
    EXPECT_EQ(recorder.names, (std::vector<std::string>{"tree", "grad_basis"}));
  }
}
