#include <gtest/gtest.h>

#include <vector>

#include "QZmath/VolTriang/Parallelepiped.h"

using namespace VolTr;

TEST(CParallelepiped, BoundaryPointsLieWithinTheToleranceOfAFace)
{
  CParallelepiped box(0, 1, 0, 1, 0, 1);
  double const inside[3] = {0.5, 0.5, 0.5}, face[3] = {0.5, 1.0, 0.5}, nearFace[3] = {0.5, 0.5, -0.05},
               outside[3] = {0.5, 0.5, 1.2}, corner[3] = {1, 1, 1};
  EXPECT_EQ((std::vector<bool>{box.isBoundaryPoint(inside, 0.1), box.isBoundaryPoint(face, 0.0),
                               box.isBoundaryPoint(nearFace, 0.1), box.isBoundaryPoint(nearFace, 0.01),
                               box.isBoundaryPoint(outside, 0.1), box.isBoundaryPoint(corner, 0)}),
            (std::vector<bool>{false, true, true, false, false, true}));
}
