#include <gtest/gtest.h>

#include <limits>

#include "QZmath/Fitting/FitLine.h"
#include "tests/Fitting/FitSamples.h"

using namespace QZFitTest;
using REmath::Point3D;

TEST(FitLine, ExactPointsGiveTheLineInBothPrecisionsAndTwoPointsTheirChord)
{
  Point3D_d const dir = unit(Point3D_d(1.0, -2.0, 0.5));
  std::vector<Point3D_d> pts;
  for (int i = 0; i < 7; ++i)
    pts.push_back(Point3D_d(3.0, 1.0, -2.0) + dir * (i - 3.0));
  Point3D_d o, d;
  ASSERT_TRUE(FitLineToPointSet(pts, o, d));
  EXPECT_NEAR(d.length(), 1.0, 1e-14);
  EXPECT_LT(sinAngle(d, dir), 1e-12);
  EXPECT_LT(dist(o, Point3D_d(3.0, 1.0, -2.0)), 1e-12); // the centroid
  ASSERT_TRUE(FitLineToPointSet(toFloat(pts), o, d));
  EXPECT_LT(sinAngle(d, dir), 1e-6);
  // Two points: their midpoint and the unit vector from the first to the second.
  std::vector<Point3D_d> const two = {Point3D_d(1.0, 2.0, 3.0), Point3D_d(1.0, 2.0, 7.0)};
  for (bool robust : {false, true})
  {
    ASSERT_TRUE(robust ? FitLineToPointSetRobust(two, o, d) : FitLineToPointSet(two, o, d));
    EXPECT_TRUE(same(o, Point3D_d(1.0, 2.0, 5.0)) && same(d, Point3D_d(0.0, 0.0, 1.0)));
  }
}

TEST(FitLine, RobustFitIgnoresGrossOutliersThatPullThePlainFit)
{
  CSampler s(7);
  Point3D_d const o0(1.0, 2.0, 3.0), dir = unit(Point3D_d(0.3, 1.0, -0.2));
  double const sigma = 0.01;
  std::vector<Point3D_d> pts = s.line(o0, dir, 400, 5.0, sigma);
  // About 17 % in a cloud off one end of the line.
  s.spoil(pts, 6, o0 + dir * 4.0, 1.0, unit(cross(dir, Point3D_d(0.0, 0.0, 1.0))) * 3.0);
  Point3D_d o, d;
  ASSERT_TRUE(FitLineToPointSet(pts, o, d));
  EXPECT_GT(sinAngle(d, dir), 0.05);
  for (auto const & variant : {0, 1})
  {
    CRobustFitInfo info;
    bool const ok = variant == 0 ? FitLineToPointSetRobust(pts, o, d, &info)
                                 : FitLineToPointSetRobust(toFloat(pts), o, d, &info);
    ASSERT_TRUE(ok);
    EXPECT_LT(sinAngle(d, dir), 3.0 * sigma / 5.0);
    EXPECT_LT(cross(o - o0, dir).length(), 3.0 * sigma); // o on the true line
    EXPECT_GT(info.iterations, 0);
    EXPECT_TRUE(info.supportCount > 250 && info.supportCount < 400 - 60) << info.supportCount;
  }
}

TEST(FitLine, ThroughPointKeepsThePointAndFindsTheDirection)
{
  CSampler s(11);
  Point3D_d const fixed(0.0, 0.0, 0.0), dir = unit(Point3D_d(1.0, 1.0, 0.0));
  std::vector<Point3D_d> pts = s.line(fixed + dir * 6.0, dir, 200, 5.0, 0.01);
  s.spoil(pts, 8, Point3D_d(3.0, 3.0, 0.0), 2.0, Point3D_d(0.0, 0.0, 3.0));
  Point3D_d d;
  ASSERT_TRUE(FitLineToPointSetThroughPointRobust(pts, fixed, d));
  EXPECT_LT(sinAngle(d, dir), 0.005);
  // Two points and a fixed point: no shortcut, the scatter about the point.
  std::vector<Point3D_d> const two = {Point3D_d(1.0, 0.0, 0.0), Point3D_d(3.0, 0.0, 0.0)};
  ASSERT_TRUE(FitLineToPointSetThroughPointRobust(two, Point3D_d(0.0, 1.0, 0.0), d));
  EXPECT_GT(std::fabs(d.y()), 0.1);
}

TEST(FitLine, BadInputFails)
{
  double const nan = std::numeric_limits<double>::quiet_NaN();
  Point3D_d const p(1.0, 1.0, 1.0);
  std::vector<std::vector<Point3D_d>> const bad = {
      {}, {p}, {p, p}, {Point3D_d(0.0, 0.0, 0.0), Point3D_d(1.0, 0.0, 0.0), Point3D_d(nan, 2.0, 0.0), p}};
  Point3D_d o, d;
  for (auto const & pts : bad)
  {
    EXPECT_FALSE(FitLineToPointSet(pts, o, d)) << pts.size();
    EXPECT_FALSE(FitLineToPointSetRobust(pts, o, d)) << pts.size();
    EXPECT_FALSE(FitLineToPointSetRobust(toFloat(pts), o, d)) << pts.size();
  }
  EXPECT_FALSE(FitLineToPointSetThroughPointRobust({}, p, d) ||
               FitLineToPointSetThroughPointRobust({p}, p, d));
}
