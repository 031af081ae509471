#include <gtest/gtest.h>

#include <cmath>

#include "tests/Reconstruction/ReconstructionSupport.h"

using namespace VolTr;
using namespace qztest;

// Depth 7: a finer tree, more depths, the same guarantees.
TEST(ReconstructionDeep, SphereAndTorusAtDepthSeven)
{
  QZTest::CSampleCloud const sphere = QZTest::makeSphereCloud(40000, 1.0, 31);
  RunResult const s = reconstruct(sphere, makeParams(7));
  MeshTopology const ts = analyse(s.mesh);
  EXPECT_TRUE(ts.closedManifold());
  EXPECT_EQ(ts.eulerCharacteristic, 2);
  EXPECT_LT(sphereError(s.mesh, 1.0), 0.5 * 2.02 / 64);
  EXPECT_NEAR(signedVolume(s.mesh), 4.18879, 0.02);

  QZTest::CSampleCloud const torus = QZTest::makeTorusCloud(40000, 1.0, 0.35, 7);
  RunResult const t = reconstruct(torus, makeParams(7));
  MeshTopology const tt = analyse(t.mesh);
  EXPECT_TRUE(tt.closedManifold());
  EXPECT_EQ(tt.eulerCharacteristic, 0);
  EXPECT_LT(torusError(t.mesh, 1.0, 0.35), 0.5 * 2.72 / 64);
}
