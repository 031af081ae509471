#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "QZmath/Fitting/FitCircle.h"
#include "tests/Fitting/FitSamples.h"

using namespace QZFitTest;

namespace
{
// Distance from the centre `c` to the projection of `p` on the circle's plane.
double inPlaneDistance(Point3D_d const & p, Point3D_d const & c, Point3D_d const & n)
{
  Point3D_d const d = p - c;
  return (d - n * dot(d, n)).length();
}

Point3D_d const C0(1.0, -2.0, 3.0);
Point3D_d const N0 = unit(Point3D_d(0.3, -0.4, 1.0));
double const R0 = 5.0;

void expectCircle(Point3D_d const & c, Point3D_d const & n, double r, double tol)
{
  EXPECT_LT(dist(c, C0), tol);
  EXPECT_NEAR(r, R0, tol);
  EXPECT_LT(sinAngle(n, N0), tol);
}

// y = a + b t through the samples t = 0, 1, ... of 2 + t / 2, for the adapter.
struct CLineFunctor : REmath::LmderFunctor
{
  int operator()(int m, int, const double * x, double * fvec, double * fjac, int ldfjac,
                 int iflag) const override
  {
    for (int i = 0; i < m; ++i)
    {
      if (iflag == 1)
        fvec[i] = x[0] + x[1] * i - (2.0 + 0.5 * i);
      else
        fjac[i] = 1.0, fjac[i + ldfjac] = i;
    }
    return m_stopAt < 0 ? m_stopAt : 1;
  }
  int m_stopAt = 0;
};

// The frame (u, v) of the true circle's plane, and the outputs of a fit.
class FitCircle : public ::testing::Test
{
protected:
  FitCircle() { planeAxes(N0, u, v); }
  Point3D_d u, v, c, n;
  double r = 0.0;
};
} // namespace

TEST_F(FitCircle, ThreePointsAndLeastSquaresOnAShortArc)
{
  Point3D_d pts[3];
  for (int i = 0; i < 3; ++i)
    pts[i] = C0 + u * (R0 * std::cos(0.4 + 1.9 * i)) + v * (R0 * std::sin(0.4 + 1.9 * i));
  ASSERT_TRUE(makeCircleByThreePoints(pts, c, n, r));
  expectCircle(c, n, r, 1e-12);
  EXPECT_GT(dot(n, N0), 0.0); // (p1 - p0) x (p2 - p0): counter-clockwise about N0
  ASSERT_TRUE(FitCircleToPointSetRobust(std::vector<Point3D_d>(pts, pts + 3), c, n, r));
  expectCircle(c, n, r, 1e-12);
  Point3D_d const line[3] = {Point3D_d(0.0, 0.0, 0.0), Point3D_d(1.0, 1.0, 1.0), Point3D_d(3.0, 3.0, 3.0)};
  EXPECT_FALSE(makeCircleByThreePoints(line, c, n, r));

  // The centre of a short arc is the least determined: the tolerance grows
  // with 1 / arc^2. (Quarter turns are the curve fits', the robust fit's
  // arcs its own test's.)
  CSampler s(3);
  double const sigma = 0.005, arc = 0.6;
  ASSERT_TRUE(FitCircleToPointSet(s.circle(C0, N0, R0, 300, 0.2, 0.2 + arc, sigma), c, n, r));
  expectCircle(c, n, r, 20.0 * sigma / (arc * arc));
}

TEST_F(FitCircle, RobustFitIgnoresGrossOutliers)
{
  CSampler s(5);
  double const sigma = 0.01;
  std::vector<Point3D_d> pts = s.circle(C0, N0, R0, 500, 0.0, 4.5, sigma);
  // Outliers in the plane's neighbourhood, inside and around the circle.
  for (std::size_t i = 0; i < pts.size(); i += 7)
    pts[i] = C0 + u * s.uniform(-4.0, 8.0) + v * s.uniform(-4.0, 8.0) + s.noise(0.05);
  ASSERT_TRUE(FitCircleToPointSet(pts, c, n, r));
  EXPECT_GT(dist(c, C0) + std::fabs(r - R0), 0.2);
  CRobustFitInfo info;
  ASSERT_TRUE(FitCircleToPointSetRobust(pts, c, n, r, &info));
  EXPECT_LT(dist(c, C0), 5.0 * sigma);
  EXPECT_NEAR(r, R0, 5.0 * sigma);
  EXPECT_GT(info.iterations, 0);
}

TEST_F(FitCircle, FixedPointsAreMetExactly)
{
  CSampler s(9);
  std::vector<Point3D_d> const pts = s.circle(C0, N0, R0, 200, 0.0, 3.0, 0.01);
  Point3D_d const P = C0 + u * R0, Q = C0 + v * R0, T = C0 - u * R0;
  // Fixed points are met in the samples' plane: their projections lie on the
  // circle.
  ASSERT_TRUE(FitCircleToPointSetWithFixedPointsRobust(pts, {P}, c, n, r));
  EXPECT_NEAR(inPlaneDistance(P, c, n), r, 1e-9);
  EXPECT_LT(dist(c, C0), 0.05);
  ASSERT_TRUE(FitCircleToPointSetWithFixedPointsRobust(pts, {P, Q}, c, n, r));
  EXPECT_THAT((std::vector<double>{inPlaneDistance(P, c, n), inPlaneDistance(Q, c, n)}),
              testing::Each(testing::DoubleNear(r, 1e-9)));
  EXPECT_NEAR(r, R0, 0.05);
  // Three fixed points decide alone, whatever the samples (here none).
  ASSERT_TRUE(FitCircleToPointSetWithFixedPointsRobust({}, {P, Q, T}, c, n, r));
  expectCircle(c, n, r, 1e-12);
  EXPECT_FALSE(FitCircleToPointSetWithFixedPointsRobust(pts, {P, Q, T, P}, c, n, r));
  EXPECT_FALSE(FitCircleToPointSetWithFixedPointsRobust(pts, {}, c, n, r));
  EXPECT_FALSE(FitCircleToPointSetWithFixedPointsRobust({P, Q}, {P}, c, n, r));
}

TEST_F(FitCircle, TangentConditionsAreMet)
{
  CSampler s(13);
  // Noise-free samples: they give the plane, and the two-point circle is then
  // exact.
  std::vector<Point3D_d> const pts = s.circle(C0, N0, R0, 200, -1.0, 2.0, 0.0);
  Point3D_d const P = C0 + u * R0, Q = C0 + v * R0;
  // Two points with their tangents: the circle of the conditions alone.
  ASSERT_TRUE(FitCircleByPointsWithDirs(pts, {P, Q}, {v, u * -3.0}, c, n, r));
  expectCircle(c, n, r, 1e-9);
  // One point and its tangent: through P, centre on the normal of the tangent.
  Point3D_d const tangent = v + u * 0.02; // not along the frame axes
  ASSERT_TRUE(FitCircleByPointsWithDirs(pts, {P}, {tangent}, c, n, r));
  EXPECT_NEAR(dist(P, c), r, 1e-9);
  EXPECT_LT(std::fabs(dot(unit(P - c), unit(tangent))), 1e-6);
  EXPECT_NEAR(r, R0, 0.3);
  // Two points need two tangents, even when a second one lies in memory just
  // past the end of the array.
  std::vector<Point3D_d> oneDir = {v, u * -3.0};
  oneDir.pop_back();
  EXPECT_FALSE(FitCircleByPointsWithDirs(pts, {P, Q}, oneDir, c, n, r));
  EXPECT_FALSE(FitCircleByPointsWithDirs(pts, {}, {}, c, n, r));
}

TEST_F(FitCircle, MinpackAdapterCodes)
{
  CLineFunctor f;
  double x[2] = {1.0, 0.1}, fvec[6];
  int const code = REmath::lmder1_adapter(f, 6, 2, x, fvec, 1e-12);
  EXPECT_TRUE(code >= 1 && code <= 4) << code;
  EXPECT_THAT(x, testing::Pointwise(testing::DoubleNear(1e-9), {2.0, 0.5}));
  EXPECT_EQ(REmath::lmder1_adapter(f, 1, 2, x, fvec, 1e-12), 0); // m < n
  f.m_stopAt = -3;
  EXPECT_LT(REmath::lmder1_adapter(f, 6, 2, x, fvec, 1e-12), 0);
}

TEST_F(FitCircle, BadInputFails)
{
  CSampler s(1);
  std::vector<Point3D_d> withNaN = s.circle(C0, N0, R0, 20, 0.0, 6.0, 0.0);
  withNaN[4] = Point3D_d(std::numeric_limits<double>::quiet_NaN(), 0.0, 0.0);
  std::vector<std::vector<Point3D_d>> const bad = {{},
                                                   {Point3D_d(0.0, 0.0, 0.0), Point3D_d(1.0, 0.0, 0.0)},
                                                   std::vector<Point3D_d>(10, Point3D_d(1.0, 1.0, 1.0)),
                                                   withNaN};
  for (auto const & pts : bad)
  {
    EXPECT_FALSE(FitCircleToPointSet(pts, c, n, r)) << pts.size();
    EXPECT_FALSE(FitCircleToPointSetRobust(pts, c, n, r)) << pts.size();
  }
  EXPECT_FALSE(FitCircleToPointSetWithFixedPointsRobust(withNaN, {C0}, c, n, r));
  // Collinear points: no circle, or at least never a crash or a small one.
  std::vector<Point3D_d> line;
  for (int i = 0; i < 10; ++i)
    line.push_back(Point3D_d(i, 2.0 * i, 0.0));
  EXPECT_TRUE(!FitCircleToPointSet(line, c, n, r) || r > 100.0);
  EXPECT_TRUE(!FitCircleToPointSetRobust(line, c, n, r) || r > 100.0);
}
