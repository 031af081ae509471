#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "QZmath/Fitting/Arc2D.h"

using testing::Each;
using testing::FloatNear;
using testing::Pointwise;

namespace
{
CArc2D segment(float x0, float y0, float x1, float y1)
{
  CArc2D a{};
  a.m_start[0] = x0, a.m_start[1] = y0, a.m_end[0] = x1, a.m_end[1] = y1;
  a.m_straight = 1;
  return a;
}
CArc2D circle(float cx, float cy, float r)
{
  CArc2D a{};
  a.m_center[0] = cx, a.m_center[1] = cy, a.m_radius = r;
  return a;
}
/// Every field: centre, radius, start, end, straight.
std::vector<float> fields(CArc2D const & a)
{
  return {a.m_center[0], a.m_center[1], a.m_radius, a.m_start[0],
          a.m_start[1],  a.m_end[0],    a.m_end[1], static_cast<float>(a.m_straight)};
}
float dist(float const * a, float const * b) { return std::hypot(a[0] - b[0], a[1] - b[1]); }
} // namespace

TEST(Arc2D, Intersections)
{
  struct Case
  {
    CArc2D a, b;
    bool ok;
    float x, y;
  } const cases[] = {
      {segment(-1, 1, 3, 1), segment(2, -5, 2, -4), true, 2, 1}, // the infinite lines meet
      {segment(10, 3, 9, 3), circle(4, 0, 5), true, 0, 3},       // y = 3 cuts at x = 0 and x = 8
      {circle(4, 0, 5), segment(10, 3, 9, 3), true, 0, 3},
      {segment(0, 6, 1, 6), circle(4, 0, 5), false, 0, 0},
      // (4, 3) and (4, -3) are equally near the origin: the + solution,
      // m + h (wy, -wx) / L = (4, -3), is kept.
      {circle(0, 0, 5), circle(8, 0, 5), true, 4, -3},
      {circle(8, 2, 5), circle(0, 2, 5), true, 4, -1}, // (4, 5) or (4, -1): the - solution is nearer
      {circle(0, 0, 1), circle(5, 0, 1), false, 0, 0},
      {circle(1, 1, 1), circle(1, 1, 2), false, 0, 0}, // one centre
  };
  for (Case const & c : cases)
  {
    CArc2D const pair[2] = {c.a, c.b};
    float p[2] = {7, 7};
    ASSERT_EQ(Get2ArcsIntersect(pair, p), c.ok) << c.x << " " << c.y;
    EXPECT_TRUE(!c.ok || (std::fabs(p[0] - c.x) < 1e-5f && std::fabs(p[1] - c.y) < 1e-5f))
        << p[0] << " " << p[1];
  }
}

TEST(Arc2D, FilletsTouchBothElementsThroughThePoint)
{
  // The corner of the negative x axis and the positive y axis; the fillet
  // through (-1, 1) has centre (-r, r) with r = 2 + sqrt(2) (the larger root:
  // the point is the arc's middle, nearest the corner). m_straight is kept.
  CArc2D const corner[2] = {segment(-10, 0, 0, 0), segment(0, 0, 0, 10)};
  CArc2D f{};
  f.m_straight = 7;
  float const p[2] = {-1, 1}, r = 2.0f + std::sqrt(2.0f);
  ASSERT_TRUE(f.Make2ArcsFillet(corner, p));
  EXPECT_THAT(fields(f), Pointwise(FloatNear(1e-5f), std::vector<float>{-r, r, r, -r, 0, 0, r, 7}));
  // A point outside the corner is on the wrong side of the second segment;
  // parallel segments have no centre.
  float const outside[2] = {1, 1}, between[2] = {2, 1};
  EXPECT_FALSE(f.Make2ArcsFillet(corner, outside));
  CArc2D const parallel[2] = {segment(0, 0, 1, 0), segment(5, 2, 4, 2)};
  EXPECT_FALSE(f.Make2ArcsFillet(parallel, between));

  // A circle's offset: from outside, the fillet touches the line y = 0 and
  // the circle through the point; a point inside a circle contradicts a
  // fillet from outside.
  CArc2D const lc[2] = {segment(-10, 0, 0, 0), circle(5, 5, 3)}, cc[2] = {circle(0, 0, 2), circle(6, 0, 2)};
  float const q[2] = {1, 1}, inside[2] = {0.5f, 0};
  ASSERT_TRUE(f.Make2ArcsFillet(lc, q));
  EXPECT_THAT(
      (std::vector<float>{f.m_center[1] - f.m_radius, dist(f.m_center, lc[1].m_center) - 3 - f.m_radius,
                          dist(f.m_center, q) - f.m_radius}),
      Each(FloatNear(0.0f, 1e-4f)));
  EXPECT_FALSE(f.Make2ArcsFillet(cc, inside));
}

TEST(Arc2D, ThreePointsAndFourPointError)
{
  // Straight unless arcs are switched on, and straight through collinear
  // points; a straight element leaves its centre and radius alone.
  float const xs[3] = {0, 1, 2}, ys[3] = {0, 1, 0}, cy[3] = {0, 2, 4};
  CArc2D a = circle(9, 9, 9);
  CArc2D::m_bArcApprox = false;
  a.MakeBy3Points(xs, ys);
  EXPECT_EQ(fields(a), (std::vector<float>{9, 9, 9, 0, 0, 2, 0, 1}));
  CArc2D::m_bArcApprox = true;
  a.MakeBy3Points(xs, ys);
  EXPECT_THAT(fields(a), Pointwise(FloatNear(1e-6f), std::vector<float>{1, 0, 1, 0, 0, 2, 0, 0}));
  a.MakeBy3Points(xs, cy);
  EXPECT_EQ(a.m_straight, 1);
  EXPECT_EQ(a.m_end[1], 4.0f);
  CArc2D::m_bArcApprox = false;

  float px[4], py[4];
  for (int i = 0; i < 4; ++i)
    px[i] = 1 + 3 * std::cos(0.7f * i), py[i] = 2 + 3 * std::sin(0.7f * i);
  EXPECT_NEAR(Arc4pointsError(px, py), 0.0f, 1e-5f);
  px[2] = 1 + 3.5f * std::cos(1.4f), py[2] = 2 + 3.5f * std::sin(1.4f);
  EXPECT_NEAR(Arc4pointsError(px, py), 0.5f, 1e-5f);
  float const lx[4] = {0, 1, 1.5f, 3}, ly[4] = {0, 0, -2, 0}, same[4] = {1, 1, 1, 1}, up[4] = {0, 0, 3, 0};
  EXPECT_NEAR(Arc4pointsError(lx, ly), 2.0f, 1e-6f);
  EXPECT_NEAR(Arc4pointsError(same, up), 3.0f, 1e-6f);
}
