#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "QZmath/Fitting/PolylineSmoothing.h"
#include "QZmath/Foundation/NumericRoutines.h"

using REmath::Point3D;
using REmath::Point3D_d;

namespace
{
// The scheme written out plainly: full-length impulse responses, all three
// coordinates solved at once by Gauss-Jordan.
std::vector<Point3D_d> referenceSmooth(std::vector<Point3D_d> pts, bool closed, double w, int nIter,
                                       bool keep, std::vector<int> fixed)
{
  int const n = static_cast<int>(pts.size()), m = closed ? n - 1 : n;
  double const u = keep ? w / (1.0f - 0.1f * w) : 0.0;
  auto run = [&](std::vector<double> & v)
  {
    for (int it = 0; it < nIter; ++it)
    {
      std::vector<double> t(v);
      for (int i = closed ? 0 : 1; i < (closed ? m : m - 1); ++i)
        t[i] = (1 - w) * v[i] + w / 2 * (v[(i + m - 1) % m] + v[(i + 1) % m]);
      v = t;
      for (int i = closed ? 0 : 1; u != 0.0 && i < (closed ? m : m - 1); ++i)
        v[i] = (1 + u) * t[i] + -u / 2 * (t[(i + m - 1) % m] + t[(i + 1) % m]);
    }
  };
  int k = static_cast<int>(fixed.size());
  if (closed && k > 1 && std::abs(fixed[0] - fixed[k - 1]) == n - 1)
    --k;
  std::vector<std::vector<double>> resp(k, std::vector<double>(m, 0.0)), a(k), rhs(k), smooth(3);
  std::vector<double *> aRows, rhsRows;
  for (int j = 0; j < k; ++j)
    resp[j][fixed[j]] = 1.0, run(resp[j]);
  for (int c = 0; c < 3; ++c)
  {
    for (int i = 0; i < m; ++i)
      smooth[c].push_back(pts[i].asArray()[c]);
    run(smooth[c]);
  }
  for (int i = 0; i < k; ++i)
  {
    for (int j = 0; j < k; ++j)
      a[i].push_back(resp[j][fixed[i]]);
    for (int c = 0; c < 3; ++c)
      rhs[i].push_back(pts[fixed[i]].asArray()[c] - smooth[c][fixed[i]]);
    aRows.push_back(a[i].data()), rhsRows.push_back(rhs[i].data());
  }
  EXPECT_EQ(gaussj(aRows.data(), k, rhsRows.data(), 3), 1);
  std::vector<Point3D_d> out(pts);
  for (int i = 0; i < m; ++i)
    for (int c = 0; c < 3; ++c)
    {
      double corr = 0.0;
      for (int j = 0; j < k; ++j)
        corr += resp[j][i] * rhs[j][c];
      out[i].asArray()[c] = smooth[c][i] + corr;
    }
  for (int idx : fixed)
    out[idx] = pts[idx];
  if (closed)
    out[n - 1] = out[0];
  return out;
}

std::vector<Point3D_d> noisyCurve(int n, bool closed, unsigned seed)
{
  std::mt19937 rng(seed);
  std::normal_distribution<double> noise(0.0, 0.05);
  std::vector<Point3D_d> pts;
  for (int i = 0; i < n; ++i)
  {
    double const t = 2.0 * M_PI * i / (closed ? n - 1 : n);
    pts.emplace_back(std::cos(t) + noise(rng), std::sin(2 * t) + noise(rng), 0.1 * t + noise(rng));
  }
  if (closed)
    pts.back() = pts.front();
  return pts;
}

} // namespace

TEST(PolylineSmoothing, MatchesTheFullLengthSchemeOpenAndClosed)
{
  struct Case
  {
    int n;
    bool closed, keep;
    int nIter;
    std::vector<int> fixed;
  } const cases[] = {
      {60, false, true, 10, {3, 20, 41}}, {60, false, false, 25, {0, 30, 59}},
      {60, true, true, 10, {0, 15, 59}},                                 // one point named twice: solved once
      {60, true, false, 7, {58, 1, 30}},  {25, true, true, 40, {5, 12}}, // responses wrap round
      {40, false, true, 5, {}},           {9, true, true, 3, {2}},
  };
  for (Case const & c : cases)
  {
    std::vector<Point3D_d> pts = noisyCurve(c.n, c.closed, 5);
    std::vector<Point3D_d> const want = referenceSmooth(pts, c.closed, 0.4, c.nIter, c.keep, c.fixed);
    CPolylineSmoothParams const params(c.closed, 0.4, c.nIter, c.keep,
                                       const_cast<std::vector<int> *>(&c.fixed));
    ASSERT_TRUE(smoothPolylineWithFixedPoints(pts, params)) << c.n << " " << c.closed;
    for (int i = 0; i < c.n; ++i)
      for (int k = 0; k < 3; ++k)
        ASSERT_NEAR(pts[i].asArray()[k], want[i].asArray()[k], 1e-12) << "point " << i << " case " << c.n;
    for (int idx : c.fixed)
      EXPECT_EQ(pts[idx].x(), want[idx].x());
  }
}

TEST(PolylineSmoothing, DegenerateInputKeepsThePointsOrFailsAsDocumented)
{
  std::vector<Point3D_d> none;
  EXPECT_TRUE(smoothPolylineWithFixedPoints(none, CPolylineSmoothParams()));
  std::vector<Point3D_d> const orig = noisyCurve(12, false, 1);
  std::vector<int> all = {11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0}, twice = {4, 4}, past = {12}, negative = {-1};
  // No passes, or every point fixed: nothing moves. An index outside the
  // polyline: refused, nothing moves. A repeated index makes the impulse
  // system singular: smoothed, not restored.
  struct Case
  {
    int nIter;
    std::vector<int> * fixed;
    bool ok, moves;
  } const cases[] = {{0, nullptr, true, false},
                     {10, &all, true, false},
                     {10, &past, false, false},
                     {10, &negative, false, false},
                     {10, &twice, false, true}};
  for (Case const & c : cases)
  {
    std::vector<Point3D_d> pts = orig;
    EXPECT_EQ(smoothPolylineWithFixedPoints(pts, CPolylineSmoothParams(false, 0.4, c.nIter, true, c.fixed)),
              c.ok);
    for (int i = 0; i < 12; ++i)
      EXPECT_EQ(pts[i].y() != orig[i].y() || pts[i].z() != orig[i].z(), c.moves && i % 11 != 0)
          << i; // open ends stay
  }
}

TEST(ArrangePoints, OnLineSortsInTheRequestedDirection)
{
  std::vector<float> v = {3.0f, -1.0f, 2.0f, 2.0f, 7.5f};
  EXPECT_TRUE(ArrangePointsOnLine(v, 1, 0));
  EXPECT_EQ(v, (std::vector<float>{-1.0f, 2.0f, 2.0f, 3.0f, 7.5f}));
  EXPECT_TRUE(ArrangePointsOnLine(v, -1, 0));
  EXPECT_EQ(v, (std::vector<float>{7.5f, 3.0f, 2.0f, 2.0f, -1.0f}));
  std::vector<float> withNan = {1.0f, NAN, 0.0f};
  EXPECT_TRUE(ArrangePointsOnLine(withNan, 1, 0));
  EXPECT_EQ(withNan[0], 0.0f);
}

TEST(ArrangePoints, OnCircleKeepsOrderedListsRepairsAnOutlierOrRestores)
{
  std::vector<float> const ordered = {300.0f, 350.0f, 10.0f, 100.0f, 200.0f};
  std::vector<float> v = ordered;
  EXPECT_TRUE(ArrangePointsOnCircle(v, 1, 360));
  EXPECT_EQ(v, ordered);
  std::vector<float> back(ordered.rbegin(), ordered.rend());
  v = back;
  EXPECT_TRUE(ArrangePointsOnCircle(v, -1, 360));
  EXPECT_EQ(v, back);

  // 200 breaks the order; the window 10 .. 40 around it is respaced with the
  // step span / (1 + span) from its start.
  v = {10.0f, 20.0f, 200.0f, 40.0f, 50.0f, 60.0f};
  ASSERT_TRUE(ArrangePointsOnCircle(v, 1, 360));
  float const step = static_cast<float>(30.0 / 31.0);
  EXPECT_FLOAT_EQ(v[1], 10.0f + step);
  EXPECT_FLOAT_EQ(v[2], 10.0f + 2 * step);
  EXPECT_EQ(v[3], 40.0f);

  // Equal values have no sense at all: restored, false.
  std::vector<float> const same = {5.0f, 5.0f, 5.0f, 5.0f};
  v = same;
  EXPECT_FALSE(ArrangePointsOnCircle(v, 1, 360));
  EXPECT_EQ(v, same);
  EXPECT_FALSE(ArrangePointsOnCircle(v, 0, 360));
}
