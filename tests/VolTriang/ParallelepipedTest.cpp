#include <gtest/gtest.h>

#include <cfloat>

#include "QZmath/VolTriang/Parallelepiped.h"

using namespace VolTr;

TEST(CParallelepiped, MakersAndConstructorsAgree)
{
  EXPECT_EQ(CInterval::all().getLeft(), -DBL_MAX);
  EXPECT_EQ(CInterval::all().getRight(), DBL_MAX);
  EXPECT_EQ(CInterval::lessX(2).getRight(), 2.0);
  EXPECT_EQ(CInterval::lessX(2).getLeft(), -DBL_MAX);
  EXPECT_EQ(CInterval::greaterX(-1).getLeft(), -1.0);
  EXPECT_EQ(CInterval::greaterX(-1).getRight(), DBL_MAX);
  double const lo[3] = {0, 1, 2}, hi[3] = {3, 4, 5};
  CParallelepiped a(0, 3, 1, 4, 2, 5), b(lo, hi), c(CInterval(0, 3), CInterval(1, 4), CInterval(2, 5)), d;
  for (int i = 0; i < 3; ++i)
    for (CParallelepiped const * box : {&a, &b, &c})
      EXPECT_TRUE(box->getMin()[i] == lo[i] && box->getMax()[i] == hi[i]) << i;
  EXPECT_EQ(d.getMax()[2], 0.0);
  d.setDimension(1, CInterval(-1, 1));
  EXPECT_EQ(d.getDimension(1).getLeft(), -1.0);
  EXPECT_EQ(d.getMinMod()[1], -1.0);
}

TEST(CParallelepiped, BoundaryPoints)
{
  CParallelepiped box(0, 1, 0, 1, 0, 1);
  double const inside[3] = {0.5, 0.5, 0.5}, face[3] = {0.5, 1.0, 0.5}, nearFace[3] = {0.5, 0.5, -0.05},
               outside[3] = {0.5, 0.5, 1.2}, corner[3] = {1, 1, 1};
  EXPECT_FALSE(box.isBoundaryPoint(inside, 0.1));
  EXPECT_TRUE(box.isBoundaryPoint(face, 0.0));
  EXPECT_TRUE(box.isBoundaryPoint(nearFace, 0.1));
  EXPECT_FALSE(box.isBoundaryPoint(nearFace, 0.01));
  EXPECT_FALSE(box.isBoundaryPoint(outside, 0.1));
  EXPECT_TRUE(box.isBoundaryPoint(corner, 0));
}
