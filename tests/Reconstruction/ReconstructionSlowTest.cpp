#include <gtest/gtest.h>

#include "tests/Reconstruction/ReconstructionSupport.h"

using namespace qztest;

// Depth 7: a finer tree, more depths, the same guarantees.
TEST(ReconstructionDeep, SphereAndTorusAtDepthSeven)
{
  RunResult const s = reconstruct(QZTest::makeSphereCloud(40000, 1.0, 31), makeParams(7));
  RunResult const t = reconstruct(QZTest::makeTorusCloud(40000, 1.0, 0.35, 7), makeParams(7));
  EXPECT_TRUE(analyse(s.mesh).closedManifold());
  EXPECT_TRUE(analyse(t.mesh).closedManifold());
  EXPECT_EQ(analyse(s.mesh).eulerCharacteristic, 2);
  EXPECT_EQ(analyse(t.mesh).eulerCharacteristic, 0);
  EXPECT_LT(surfaceError(s.mesh, 0, 1.0)[0], 0.5 * 2.02 / 64);
  EXPECT_LT(surfaceError(t.mesh, 1.0, 0.35)[0], 0.5 * 2.72 / 64);
  EXPECT_NEAR(signedVolume(s.mesh), 4.18879, 0.02);
}
