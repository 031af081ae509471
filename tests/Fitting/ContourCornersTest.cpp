#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "QZmath/Fitting/ContourCorners.h"
#include "tests/Fitting/FitSamples.h"

using namespace QZFitTest;

namespace
{
double const PI = 3.14159265358979323846;

/// A closed polygon through `corners` (x, y pairs), `perSide` points a side,
/// starting at the first corner.
std::vector<Point3D_d> polygon(std::vector<double> const & corners, int perSide)
{
  std::vector<Point3D_d> pts;
  std::size_t const n = corners.size() / 2;
  for (std::size_t c = 0; c < n; ++c)
    for (double i = 0; i < perSide; ++i)
    {
      Point3D_d const a(corners[2 * c], corners[2 * c + 1], 0.0);
      Point3D_d const b(corners[2 * ((c + 1) % n)], corners[2 * ((c + 1) % n) + 1], 0.0);
      pts.push_back(a + (b - a) * (i / perSide));
    }
  return pts;
}

std::vector<int> marked(std::vector<int> const & marks)
{
  std::vector<int> idx;
  for (std::size_t i = 0; i < marks.size(); ++i)
    if (marks[i])
      idx.push_back(static_cast<int>(i));
  return idx;
}

/// The marking as plainly as it can be written: arms by walking, and a
/// thinning that starts its scan again after every cleared mark.
std::vector<int> referenceMarks(std::vector<Point3D_d> const & p, double r2, bool closed)
{
  int const n = static_cast<int>(p.size());
  std::vector<double> c(n, -1.0);
  for (int i = 0; i < n; ++i)
  {
    Point3D_d arm[2];
    bool found[2] = {false, false};
    for (int side = 0; side < 2; ++side)
      for (int s = 1; s < n && !found[side]; ++s)
      {
        int j = side == 0 ? i + s : i - s;
        if (!closed && (j < 0 || j >= n))
          break;
        j = (j + n) % n;
        if (dot(p[j] - p[i], p[j] - p[i]) > r2)
          found[side] = true, arm[side] = unit(p[j] - p[i]);
      }
    if (found[0] && found[1])
      c[i] = dot(arm[0], arm[1]);
  }
  std::vector<int> m(n, 0);
  double const lim = static_cast<double>(-0.7f);
  for (int i = closed ? 0 : 1; i < (closed ? n : n - 1); ++i)
    if (c[i] >= lim && !(c[(i + n - 1) % n] > c[i]) && !(c[(i + 1) % n] > c[i]))
      m[i] = 1;
  if (!closed)
    m[0] = m[n - 1] = 1;
  for (bool changed = n > 10; changed;)
  {
    changed = false;
    for (int i = closed ? 0 : 1; i < (closed ? n : n - 1) && !changed; ++i)
    {
      if (!m[i])
        continue;
      for (int d = 1; d <= 5 && !changed; ++d)
      {
        if (!closed && i + d >= n)
          break;
        int const j = (i + d) % n;
        if (m[j])
        {
          (c[i] > c[j] ? m[j] : m[i]) = 0;
          changed = true;
        }
      }
    }
  }
  return m;
}
} // namespace

TEST(ContourCorners, SquareHasFourCornersAndSplitsIntoSharedPieces)
{
  std::vector<Point3D_d> const square = polygon({0, 0, 10, 0, 10, 10, 0, 10}, 10);
  std::vector<int> marks;
  ASSERT_TRUE(GetContourCornerMarks(square, 2.0 * 2.0, true, marks));
  EXPECT_EQ(marked(marks), (std::vector<int>{0, 10, 20, 30}));
  // The float form computes the same in double.
  std::vector<int> const marksD = marks;
  ASSERT_TRUE(GetContourCornerMarks(toFloat(square), 2.0 * 2.0, true, marks));
  EXPECT_EQ(marks, marksD);

  std::vector<std::vector<Point3D_d>> pieces(1); // appended to, not replaced
  int count = -1;
  ASSERT_TRUE(SplitContourByCorners(&pieces, square, 4.0, true, &count));
  EXPECT_EQ(count, 4);
  ASSERT_EQ(pieces.size(), 5u);
  for (int k = 1; k <= 4; ++k)
  {
    ASSERT_EQ(pieces[k].size(), 11u);
    EXPECT_TRUE(same(pieces[k].front(), square[10 * (k - 1)]));
    EXPECT_TRUE(same(pieces[k].back(), square[(10 * k) % 40]));
  }
  EXPECT_FALSE(SplitContourByCorners(static_cast<std::vector<std::vector<Point3D_d>> *>(nullptr), square, 4.0,
                                     true, &count));
}

TEST(ContourCorners, OpenContourEnds)
{
  // An L with its corner 3 points before the end: the corner wins over the
  // end's mark (the marks of open zigzags are the reference's), and the
  // points past it are in no piece.
  std::vector<Point3D_d> ell = polygon({0, 0, 20, 0, 20, 20}, 20);
  ell.resize(24);
  std::vector<int> marks;
  std::vector<std::vector<Point3D_d>> pieces;
  int count = 0;
  ASSERT_TRUE(SplitContourByCorners(&pieces, ell, 0.5, false, &count));
  EXPECT_EQ(count, 2);
  ASSERT_EQ(pieces.size(), 1u);
  EXPECT_EQ(pieces[0].size(), 21u);

  // One point: marked, and an open contour of one corner has no piece.
  ASSERT_TRUE(GetContourCornerMarks(std::vector<Point3D_d>(1), 1.0, false, marks));
  EXPECT_EQ(marks, std::vector<int>{1});
}

TEST(ContourCorners, ThinningMatchesTheRescanningReference)
{
  CSampler s(22);
  for (int trial = 0; trial < 40; ++trial)
  {
    // Zigzags with random steps put many competing corners close together.
    std::vector<Point3D_d> zig;
    Point3D_d p;
    int const n = 11 + trial * 7;
    for (int i = 0; i < n; ++i)
    {
      zig.push_back(p);
      p += Point3D_d(s.uniform(-1.0, 1.0), s.uniform(-1.0, 1.0), 0.0);
    }
    bool const closed = trial % 2 == 1;
    double const r2 = s.uniform(0.1, 2.0);
    std::vector<int> marks;
    ASSERT_TRUE(GetContourCornerMarks(zig, r2, closed, marks));
    EXPECT_EQ(marks, referenceMarks(zig, r2, closed)) << "trial " << trial;
  }
}

TEST(ContourCorners, DegenerateContours)
{
  std::vector<int> marks;
  std::vector<std::vector<Point3D_d>> pieces;
  // A closed contour inside the chord, or of one point, fails.
  std::vector<Point3D_d> const tiny = polygon({0, 0, 1, 0, 1, 1}, 5);
  EXPECT_FALSE(GetContourCornerMarks(tiny, 100.0, true, marks));
  EXPECT_FALSE(SplitContourByCorners(&pieces, tiny, 100.0, true, nullptr));
  EXPECT_TRUE(pieces.empty());
  EXPECT_FALSE(GetContourCornerMarks(std::vector<Point3D_d>(1), 0.0, true, marks));
  // Coincident points with a negative radius: no zero-length arm is taken.
  EXPECT_FALSE(GetContourCornerMarks(std::vector<Point3D_d>(30), -1.0, true, marks));
  ASSERT_TRUE(GetContourCornerMarks(std::vector<Point3D_d>(30), -1.0, false, marks));
  EXPECT_EQ(marked(marks), (std::vector<int>{0, 29}));
  // NaN points are never arms; the rest of the contour is still measured.
  std::vector<Point3D_d> square = polygon({0, 0, 10, 0, 10, 10, 0, 10}, 10);
  square[5] = Point3D_d(std::numeric_limits<double>::quiet_NaN(), 0.0, 0.0);
  EXPECT_FALSE(GetContourCornerMarks(square, 4.0, true, marks));
  ASSERT_TRUE(GetContourCornerMarks(square, 4.0, false, marks));
  EXPECT_EQ(marks.size(), 40u);
  // A closed contour with one corner is one piece as it stands.
  std::vector<Point3D_d> drop;
  for (int i = 0; i < 60; ++i)
  {
    double const t = 2 * PI * i / 60;
    drop.emplace_back(std::sin(t) * std::sin(t / 2), std::cos(t) - 1, 0.0);
  }
  int count = 0;
  ASSERT_TRUE(SplitContourByCorners(&pieces, drop, 0.01, true, &count));
  ASSERT_EQ(count, 1);
  ASSERT_EQ(pieces.size(), 1u);
  EXPECT_TRUE(same(pieces[0][7], drop[7]));
}
