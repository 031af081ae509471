#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "QZmath/Fitting/PolylineFitCurve.h"
#include "tests/Fitting/FitSamples.h"

using namespace QZFitTest;

namespace
{
typedef std::vector<std::vector<Point3D_d>> Segments;
double const PI = 3.14159265358979323846;

// The plane of the test chains: (x, y) -> O + x U + y V.
Point3D_d const PO(2.0, -1.0, 0.5);
Point3D_d const PN = unit(Point3D_d(0.2, -0.3, 1.0));
struct CPlane
{
  Point3D_d u, v;
  CPlane() { planeAxes(PN, u, v); }
  Point3D_d at(double x, double y) const { return PO + u * x + v * y; }
} const g_plane;

std::vector<Point3D_d> linePts(CSampler & s, double x0, double y0, double x1, double y1, int n, double sigma)
{
  std::vector<Point3D_d> pts;
  for (double i = 0; i < n; ++i)
    pts.push_back(g_plane.at(x0 + i / (n - 1) * (x1 - x0), y0 + i / (n - 1) * (y1 - y0)) + s.noise(sigma));
  return pts;
}
std::vector<Point3D_d> arcPts(CSampler & s, double cx, double cy, double r, double a0, double a1, int n,
                              double sigma)
{
  std::vector<Point3D_d> pts;
  for (int i = 0; i < n; ++i)
  {
    double const a = a0 + (a1 - a0) * i / (n - 1);
    pts.push_back(g_plane.at(cx + r * std::cos(a), cy + r * std::sin(a)) + s.noise(sigma));
  }
  return pts;
}

// Line (-10,0)-(0,0), quarter arc about (0,5) of radius 5 to (5,5), line up to
// (5,15): smooth at both joins.
Segments lineArcLine(CSampler & s, double sigma)
{
  return {linePts(s, -10, 0, 0, 0, 100, sigma), arcPts(s, 0, 5, 5, -PI / 2, 0, 100, sigma),
          linePts(s, 5, 5, 5, 15, 100, sigma)};
}

// The curves of the result, read back in space.
Point3D_d at3(std::vector<double> const & a, int i) { return Point3D_d(a[i], a[i + 1], a[i + 2]); }

// Distance of a point in space from curve k of the result.
double distToCurve(std::vector<double> const & crv, int k, Point3D_d const & p)
{
  Point3D_d const w = p - at3(crv, 7 * k), d = at3(crv, 7 * k + 3);
  if (crv[7 * k + 6] == -1.0)
    return sinAngle(w, d) * w.length(); // a line: point, direction
  return std::fabs((w - d * dot(w, d)).length() - std::fabs(crv[7 * k + 6]));
}

// The tangent of curve k at a point on it, in space.
Point3D_d tangentOf(std::vector<double> const & crv, int k, Point3D_d const & p)
{
  Point3D_d const d = at3(crv, 7 * k + 3);
  return crv[7 * k + 6] == -1.0 ? d : cross(d, p - at3(crv, 7 * k));
}

// Boundary b near `truth`, on both curves within `meet`; tangents agree within
// `meet` where the chain is smooth, and differ clearly at a corner.
void expectJoin(std::vector<double> const & crv, std::vector<double> const & bnd, int b, int before,
                int after, bool smooth, Point3D_d const & truth, double meet)
{
  Point3D_d const p = at3(bnd, 6 * b);
  EXPECT_LT(dist(p, truth), 0.02) << "boundary " << b;
  EXPECT_LT(distToCurve(crv, before, p), meet) << "boundary " << b;
  EXPECT_LT(distToCurve(crv, after, p), meet) << "boundary " << b;
  double const sinT = sinAngle(tangentOf(crv, before, p), tangentOf(crv, after, p));
  EXPECT_TRUE(smooth ? sinT < meet : sinT > 0.5) << "boundary " << b << ": sin " << sinT;
}

void expectTypes(CPolylineFitCurve & fit, std::vector<int> const & curves, std::vector<int> const & bnds)
{
  for (std::size_t k = 0; k < curves.size(); ++k)
    EXPECT_EQ(fit.getCurveType(static_cast<int>(k)), curves[k]) << "segment " << k;
  for (std::size_t b = 0; b < bnds.size(); ++b)
    EXPECT_EQ(fit.getBndCondType(static_cast<int>(b)), bnds[b]) << "boundary " << b;
}

double const NOISE = 0.002;
// The specified damping may keep the separate first approximations: joins
// then hold to the noise level. The adaptive damping reaches the constraints.
double const MEET_NOISE = 5 * NOISE;
double const MEET_EXACT = 1e-6;
int const L = PolylineCurveLine, A = PolylineCurveArc, N = PolylineCurveNurbs;

class PolylineFitCurveDamping : public ::testing::TestWithParam<bool>
{
protected:
  void SetUp() override { fit.setAdaptiveDamping(GetParam()); }
  double meet() const { return GetParam() ? MEET_EXACT : MEET_NOISE; }
  CPolylineFitCurve fit;
  std::vector<double> crv, bnd;
};
} // namespace

TEST_P(PolylineFitCurveDamping, ArcArcTangentAndLineLineCorner)
{
  CSampler s(12);
  // Two arcs of opposite turn that touch at (0, 4), then a line at 45 degrees
  // from their end: smooth at the first join, a corner at the second.
  Segments segs = {arcPts(s, 0, 0, 4, PI, PI / 2, 120, NOISE), arcPts(s, 0, 10, 6, -PI / 2, 0, 120, NOISE),
                   linePts(s, 6, 10, 13, 3, 120, NOISE)};
  ASSERT_EQ(fit.fitPolyline(segs, crv, bnd), 0);
  expectTypes(fit, {A, A, L}, {BndCondFree, BndCondPointDir, BndCondPoint});
  EXPECT_NEAR(std::fabs(crv[6]), 4.0, 0.01);
  EXPECT_NEAR(std::fabs(crv[13]), 6.0, 0.01);
  EXPECT_LT(dist(at3(crv, 0), g_plane.at(0, 0)), 0.01);
  EXPECT_LT(dist(at3(crv, 7), g_plane.at(0, 10)), 0.01);
  expectJoin(crv, bnd, 1, 0, 1, true, g_plane.at(0, 4), meet());
  expectJoin(crv, bnd, 2, 1, 2, false, g_plane.at(6, 10), meet());
}

TEST_P(PolylineFitCurveDamping, ClosedRoundedRectangle)
{
  CSampler s(13);
  // 20 x 10 with corner radius 2, counter-clockwise from the bottom side.
  Segments segs = {linePts(s, 2, 0, 18, 0, 80, NOISE),   arcPts(s, 18, 2, 2, -PI / 2, 0, 40, NOISE),
                   linePts(s, 20, 2, 20, 8, 60, NOISE),  arcPts(s, 18, 8, 2, 0, PI / 2, 40, NOISE),
                   linePts(s, 18, 10, 2, 10, 80, NOISE), arcPts(s, 2, 8, 2, PI / 2, PI, 40, NOISE),
                   linePts(s, 0, 8, 0, 2, 60, NOISE),    arcPts(s, 2, 2, 2, PI, 1.5 * PI, 40, NOISE)};
  segs.back().back() = segs.front().front();
  ASSERT_EQ(fit.fitPolyline(segs, crv, bnd), 0);
  EXPECT_TRUE(fit.isPolylineClosed());
  ASSERT_EQ(crv.size(), 56u);
  ASSERT_EQ(bnd.size(), 48u);
  expectTypes(fit, {L, A, L, A, L, A, L, A}, std::vector<int>(8, BndCondPointDir));
  Point3D_d const centres[4] = {g_plane.at(18, 2), g_plane.at(18, 8), g_plane.at(2, 8), g_plane.at(2, 2)};
  Point3D_d const joins[8] = {g_plane.at(2, 0),   g_plane.at(18, 0), g_plane.at(20, 2), g_plane.at(20, 8),
                              g_plane.at(18, 10), g_plane.at(2, 10), g_plane.at(0, 8),  g_plane.at(0, 2)};
  for (int k = 0; k < 8; ++k)
  {
    if (k % 2)
    {
      EXPECT_NEAR(std::fabs(crv[7 * k + 6]), 2.0, 0.02) << k;
      EXPECT_LT(dist(at3(crv, 7 * k), centres[k / 2]), 0.02) << k;
    }
    // Boundary k lies between segment k - 1 and segment k. Boundary 0 is tied
    // to segment 0 alone (twice), so the last segment meets it only to the
    // noise level.
    expectJoin(crv, bnd, k, (k + 7) % 8, k, true, joins[k], k == 0 ? MEET_NOISE : meet());
  }
  EXPECT_LT(distToCurve(crv, 0, at3(bnd, 0)), meet());
}

INSTANTIATE_TEST_SUITE_P(SpecifiedAndAdaptive, PolylineFitCurveDamping, ::testing::Values(false, true));

TEST(PolylineFitCurve, CallersEndConditionsAndTypesAreKeptByTheRefit)
{
  CSampler s(14);
  CPolylineFitCurve fit;
  std::vector<double> crv, bnd;
  ASSERT_EQ(fit.fitPolyline(lineArcLine(s, NOISE), crv, bnd), 0);
  // The ends stay free after a fit; the caller fixes the start of the chain
  // slightly off the samples, with a direction along the true line.
  EXPECT_EQ(fit.getBndCondType(0), BndCondFree);
  EXPECT_TRUE(fit.setBndCondType(0, BndCondPointDir));
  EXPECT_FALSE(fit.setBndCondType(0, BndCondPointDir));
  EXPECT_FALSE(fit.setCurveType(1, PolylineCurveArc));
  Point3D_d const start = g_plane.at(-10, 0.03);
  fit.setBndCond(0, start, g_plane.u * 3.0);
  ASSERT_EQ(fit.fitPolyline(crv, bnd), 0);
  // The end is held in the fitted plane: as given up to the plane's tilt,
  // and the first line goes through it along its direction exactly.
  EXPECT_LT(dist(at3(bnd, 0), start), 1e-3);
  EXPECT_LT(sinAngle(at3(bnd, 3), g_plane.u), 1e-3);
  EXPECT_LT(distToCurve(crv, 0, at3(bnd, 0)), 1e-9);
  EXPECT_LT(sinAngle(at3(crv, 3), at3(bnd, 3)), 1e-9);
  // A segment made free keeps its result entries, and its joins go free.
  std::vector<double> const before(crv.begin() + 14, crv.end());
  EXPECT_TRUE(fit.setCurveType(2, PolylineCurveNurbs));
  ASSERT_EQ(fit.fitPolyline(crv, bnd), 0);
  EXPECT_EQ(std::vector<double>(crv.begin() + 14, crv.end()), before);
  EXPECT_EQ(fit.getCurveType(1), PolylineCurveArc);
  EXPECT_NEAR(std::fabs(crv[13]), 5.0, 0.02);
}

TEST(PolylineFitCurve, NothingToFitFreeSegmentsAndBadPoints)
{
  CPolylineFitCurve fit;
  std::vector<double> crv(3, 7.0), bnd(2, 7.0);
  EXPECT_EQ(fit.fitPolyline(Segments(), crv, bnd), 9);
  EXPECT_EQ(fit.fitPolyline(crv, bnd), 9);
  EXPECT_TRUE(crv == std::vector<double>(3, 7.0) && bnd == std::vector<double>(2, 7.0));
  EXPECT_TRUE(fit.moveSegmentsCyclically(0)); // nothing to move, and no error

  // A tolerance below the noise accepts no model: every segment stays free,
  // nothing is fitted and the curve entries stay 0.
  CSampler s(15);
  fit.setFitTolerance(1e-9);
  crv.clear();
  ASSERT_EQ(fit.fitPolyline(lineArcLine(s, NOISE), crv, bnd), 0);
  expectTypes(fit, {N, N, N}, {});
  EXPECT_EQ(crv, std::vector<double>(21, 0.0));

  // A NaN point, a segment of one point, an empty one, coincident points,
  // collinear ones offered to an arc: decided and fitted without a crash.
  fit.setFitTolerance(0.01);
  Segments segs = lineArcLine(s, NOISE);
  segs[1][10] = Point3D_d(std::numeric_limits<double>::quiet_NaN(), 0.0, 0.0);
  EXPECT_EQ(fit.fitPolyline(segs, crv, bnd), 0);
  Segments odd = {linePts(s, 0, 0, 5, 0, 30, NOISE),
                  {g_plane.at(5, 0)},
                  {},
                  Segments::value_type(20, g_plane.at(5, 0)),
                  linePts(s, 5, 0, 5, 5, 30, 0.0)};
  EXPECT_EQ(fit.fitPolyline(odd, crv, bnd), 0);
  EXPECT_EQ(fit.getCurveType(2), PolylineCurveNurbs);
  EXPECT_TRUE(fit.setCurveType(4, PolylineCurveArc));
  EXPECT_EQ(fit.fitPolyline(crv, bnd), 0);
  EXPECT_EQ(crv.size(), 35u);
}

TEST(PolylineFitCurve, EditingTheSegmentation)
{
  CSampler s(16);
  Segments segs = lineArcLine(s, NOISE);
  CPolylineFitCurve fit;
  std::vector<double> crv, bnd;
  ASSERT_EQ(fit.fitPolyline(segs, crv, bnd), 0);

  // Merging the last line into the arc leaves a segment that fits neither.
  fit.deleteSegment(2, crv, bnd);
  EXPECT_TRUE(crv.size() == 14u && bnd.size() == 18u);
  expectTypes(fit, {L, N}, {BndCondFree, BndCondPointDir, BndCondFree});
  // Cutting it again where it was restores the types and the join.
  fit.addSegment(segs, 1, crv, bnd);
  EXPECT_TRUE(crv.size() == 21u && bnd.size() == 24u);
  expectTypes(fit, {L, A, L}, {BndCondFree, BndCondPointDir, BndCondPointDir});
  // Shifting a boundary replaces points only; the ends can't move.
  EXPECT_TRUE(fit.moveBnd(segs, 1));
  EXPECT_FALSE(fit.moveBnd(segs, 0));
  EXPECT_FALSE(fit.moveBnd(segs, 3));
  EXPECT_FALSE(fit.moveBnd(Segments(2), 1));
  // Segment 0 of an open polyline has nothing before it.
  fit.deleteSegment(0, crv, bnd);
  EXPECT_EQ(crv.size(), 21u);

  // Cyclic moves turn the type arrays by one entry, from either end only.
  EXPECT_FALSE(fit.moveSegmentsCyclically(1));
  EXPECT_TRUE(fit.moveSegmentsCyclically(0));
  expectTypes(fit, {A, L, L}, {BndCondPointDir, BndCondPointDir, BndCondFree, BndCondFree});
  EXPECT_TRUE(fit.moveSegmentsCyclically(3));
  expectTypes(fit, {L, A, L}, {BndCondFree, BndCondPointDir, BndCondPointDir, BndCondFree});
}
