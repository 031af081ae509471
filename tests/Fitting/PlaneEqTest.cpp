#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <memory>

#include "QZmath/Fitting/PlaneEq.h"
#include "QZmath/Foundation/VectorGeometry.h"
#include "tests/Fitting/FitSamples.h"

using namespace QZFitTest;
using REmath::CPlaneEquation;
using REmath::CPtVecAdapder;
using REmath::IPlaneAppoximator;
using REmath::Point3D;
using testing::DoubleNear;
using testing::Pointwise;

namespace
{
Point3D_d const C0(2.0, -1.0, 4.0);
Point3D_d const N0 = unit(Point3D_d(0.2, 0.5, 1.0));

Point3D_d normalOf(double const * coefficients) { return Point3D_d(coefficients); }
std::vector<double> four(double const * coefficients) { return {coefficients, coefficients + 4}; }

struct CRecognition
{
  Point3D_d center, normal, basisU, basisV;
  double maxError = 0.0, meanError = 0.0, limitsU[2] = {0.0, 0.0}, limitsV[2] = {0.0, 0.0};
  bool run(std::vector<Point3D> const & pts, int constraint, double angle = 0.0, bool useDistance = false,
           double distance = 0.0, Point3D_d const & fp = Point3D_d(0.0, 0.0, 0.0),
           Point3D_d const & fd = Point3D_d(0.0, 0.0, 1.0))
  {
    return RecognizePlaneSelectionConstrained(pts, Point3D(0.0f, 0.0f, 1.0f), constraint, angle, useDistance,
                                              distance, fp, fd, center, normal, maxError, meanError, basisU,
                                              basisV, limitsU, limitsV);
  }
};
} // namespace

TEST(PlaneEq, LeastSquaresAndRobustPlanesInBothPrecisions)
{
  CSampler s(21);
  std::vector<Point3D_d> const pts = s.plane(C0, N0, 300, 3.0, 0.0);
  double coeff[4], centroid[3];
  ASSERT_TRUE(FitPlaneToPointSet(pts, coeff, centroid));
  EXPECT_LT(sinAngle(normalOf(coeff), N0), 1e-12);
  EXPECT_NEAR(std::sqrt(dot(normalOf(coeff), normalOf(coeff))), 1.0, 1e-14);
  // The fourth coefficient is +n.c, and the centroid lies in the plane.
  EXPECT_DOUBLE_EQ(coeff[3], dot(normalOf(coeff), Point3D_d(centroid)));
  EXPECT_NEAR(dot(normalOf(coeff), C0), coeff[3], 1e-12);
  // The robust fit of exact points is the same plane (its rejection of
  // outliers is the shared solver's, shown with the line and circle fits).
  ASSERT_TRUE(FitPlaneToPointSetRobust(toFloat(pts), coeff, centroid));
  EXPECT_LT(sinAngle(normalOf(coeff), N0), 1e-6);

  // Three collinear points: some normal across the line.
  std::vector<Point3D_d> const line = {Point3D_d(0.0, 0.0, 0.0), Point3D_d(1.0, 1.0, 0.0),
                                       Point3D_d(2.0, 2.0, 0.0)};
  ASSERT_TRUE(FitPlaneToPointSet(line, coeff, centroid));
  EXPECT_NEAR(dot(normalOf(coeff), unit(Point3D_d(1.0, 1.0, 0.0))), 0.0, 1e-12);
  EXPECT_FALSE(FitPlaneToPointSet(std::vector<Point3D_d>(line.begin(), line.begin() + 2), coeff, centroid));
  std::vector<Point3D_d> withNaN = line;
  withNaN.push_back(Point3D_d(std::numeric_limits<double>::quiet_NaN(), 0.0, 0.0));
  EXPECT_FALSE(FitPlaneToPointSet(withNaN, coeff, centroid));
  EXPECT_FALSE(FitPlaneToPointSetRobust(withNaN, coeff, centroid));
}

TEST(PlaneEq, ApproximatorIsOrderFreeAndRemovesExactly)
{
  CSampler s(25);
  std::vector<Point3D> const a = toFloat(s.plane(C0, N0, 50, 2.0, 0.01));
  std::vector<Point3D> const b = toFloat(s.plane(C0 + Point3D_d(3.0, 0.0, 0.0), N0, 30, 1.0, 0.01));
  std::vector<Point3D> const up(30, Point3D(N0.x(), N0.y(), N0.z()));
  CPtVecAdapder<std::vector<Point3D>> const ra(a), rb(b), rup(up);
  std::unique_ptr<IPlaneAppoximator> ab(IPlaneAppoximator::CreateByConstraint(REmath::PlaneFitFree));
  std::unique_ptr<IPlaneAppoximator> ba(IPlaneAppoximator::CreateByConstraint(REmath::PlaneFitFree));
  ab->addPoints(&ra, nullptr);
  ab->addPoints(&rb, &rup);
  ba->addPoints(&rb, &rup);
  ba->addPoints(&ra, nullptr);
  CPlaneEquation p1, p2;
  ab->getPlane(p1);
  ba->getPlane(p2);
  ASSERT_TRUE(p1.IsValid());
  EXPECT_THAT(four(p1.Coefficients()), Pointwise(DoubleNear(1e-12), four(p2.Coefficients())));
  EXPECT_GT(dot(normalOf(p1.NormalDir()), N0), 0.99); // oriented by the normals

  // Removing b leaves the plane of a alone, as a fresh fit gives it.
  ab->removePoints(&rb, &rup);
  ab->getPlane(p1);
  double coeff[4], centroid[3];
  ASSERT_TRUE(FitPlaneToPointSet(a, coeff, centroid));
  double const sg = dot(normalOf(p1.NormalDir()), normalOf(coeff)) < 0.0 ? -1.0 : 1.0;
  EXPECT_THAT(four(p1.Coefficients()),
              Pointwise(DoubleNear(1e-9), {sg * coeff[0], sg * coeff[1], sg * coeff[2], -sg * coeff[3]}));

  ab->removePoints(&ra, nullptr);
  ab->getPlane(p1);
  EXPECT_TRUE(!p1.IsValid() && p1.FreeTerm() == 0.0);
  ab->addPoints(&rb, nullptr);
  ab->removePoints(&ra, nullptr); // more than held: empties it
  ab->getPlane(p1);
  EXPECT_FALSE(p1.IsValid());

  EXPECT_EQ(whatOf<std::exception>(
                [] { delete IPlaneAppoximator::CreateByConstraint(REmath::PlaneFitThroughPoint); }),
            "bad allocation");
}

TEST(PlaneEq, SelectionConstraints)
{
  CSampler s(27);
  // A selection on the plane z = 1 + 0.5 x, offsets of +-0.1 alternating.
  std::vector<Point3D> pts;
  for (int i = 0; i < 40; ++i)
  {
    double const x = s.uniform(-2.0, 2.0), y = s.uniform(-1.0, 1.0);
    pts.emplace_back(x, y, 1.0 + 0.5 * x + (i % 2 ? 0.1 : -0.1));
  }
  Point3D_d const truth = unit(Point3D_d(-0.5, 0.0, 1.0));
  CRecognition r;

  ASSERT_TRUE(r.run(pts, REmath::PlaneFitFree));
  EXPECT_LT(sinAngle(r.normal, truth), 0.05);
  EXPECT_GT(r.normal.z(), 0.0); // towards the view direction
  EXPECT_GE(r.maxError, r.meanError);
  EXPECT_NEAR(r.meanError, 0.1 * truth.z(), 0.01);
  EXPECT_NEAR(dot(r.basisU, r.normal), 0.0, 1e-12);
  EXPECT_NEAR(dot(r.basisV, r.basisU), 0.0, 1e-12);
  for (Point3D const & p : pts)
  {
    Point3D_d const q(p.x(), p.y(), p.z());
    EXPECT_GE(dot(q, r.basisU), r.limitsU[0] - 1e-12);
    EXPECT_LE(dot(q, r.basisV), r.limitsV[1] + 1e-12);
  }

  Point3D_d const down(0.0, 0.0, -1.0);
  ASSERT_TRUE(r.run(pts, REmath::PlaneFitNormal, 0.0, false, 0.0, Point3D_d(0.0, 0.0, 0.0), down));
  EXPECT_TRUE(same(r.normal, Point3D_d(0.0, 0.0, 1.0))); // turned to the viewer
  ASSERT_TRUE(r.run(pts, REmath::PlaneFitNormalAndDist, 0.0, true, 0.25, Point3D_d(0.0, 0.0, 0.0), down));
  EXPECT_NEAR(r.center.z(), 0.25, 1e-12); // on the centroid's side of z = 0
  ASSERT_TRUE(r.run(pts, REmath::PlaneFitNormalAndDist, 0.0, true, 0.25, Point3D_d(0.0, 0.0, 5.0), down));
  EXPECT_NEAR(r.center.z(), 4.75, 1e-12);

  Point3D_d const through(0.0, 0.0, 3.0);
  ASSERT_TRUE(r.run(pts, REmath::PlaneFitThroughPoint, 0.0, false, 0.0, through));
  EXPECT_TRUE(same(r.center, through));

  // Through the line x = 0, z = 1 along y, which lies in the true plane.
  ASSERT_TRUE(r.run(pts, REmath::PlaneFitThroughLine, 0.0, false, 0.0, Point3D_d(0.0, 0.0, 1.0),
                    Point3D_d(0.0, 1.0, 0.0)));
  EXPECT_NEAR(r.normal.y(), 0.0, 1e-12);
  EXPECT_LT(sinAngle(r.normal, truth), 0.05);

  // The true normal is 26.565 degrees from z.
  double const angle = std::atan(0.5) * 180.0 / 3.141592653589793;
  ASSERT_TRUE(r.run(pts, REmath::PlaneFitAngleToAxis, angle, false, 0.0, Point3D_d(0.0, 0.0, 0.0),
                    Point3D_d(0.0, 0.0, 1.0)));
  EXPECT_NEAR(r.normal.z(), std::cos(angle * 3.141592653589793 / 180.0), 1e-9);
  EXPECT_LT(sinAngle(r.normal, truth), 0.05);
  EXPECT_NEAR(dot(r.basisU, Point3D_d(0.0, 0.0, 1.0)), 0.0, 1e-12); // fixedDir x normal

  Point3D_d const untouched(7.0, 7.0, 7.0);
  r.center = untouched;
  EXPECT_FALSE(r.run(pts, 6));
  EXPECT_FALSE(r.run(pts, -1));
  EXPECT_TRUE(same(r.center, untouched));
  EXPECT_FALSE(r.run({pts[0], pts[1]}, REmath::PlaneFitFree));
  EXPECT_FALSE(r.run({}, REmath::PlaneFitNormal));
  ASSERT_TRUE(r.run({}, REmath::PlaneFitThroughPoint, 0.0, false, 0.0, through));
  EXPECT_TRUE(r.limitsU[0] == -1.0 && r.limitsU[1] == 1.0 && r.maxError == 0.0);
}

TEST(PlaneEq, BoundingBasisFollowsTheRectangle)
{
  // A 4 x 1 rectangle turned by 30 degrees about z, its corners and edges.
  double const t = 30.0 * 3.141592653589793 / 180.0;
  Point3D_d const a(std::cos(t), std::sin(t), 0.0), b(-std::sin(t), std::cos(t), 0.0);
  std::vector<Point3D> pts;
  for (int i = 0; i <= 8; ++i)
    for (double side : {-0.5, 0.5})
    {
      Point3D_d const p = a * (-2.0 + 0.5 * i) + b * side;
      pts.emplace_back(p.x(), p.y(), p.z());
    }
  CPtVecAdapder<std::vector<Point3D>> const refs(pts);
  double const n[3] = {0.0, 0.0, 1.0};
  double e1[3], e2[3];
  REmath::DefinePointsLimitsBasis(refs, n, e1, e2, 120);
  EXPECT_NEAR(std::fabs(std::fabs(dot(Point3D_d(e1), a)) - 1.0) *
                  std::fabs(std::fabs(dot(Point3D_d(e1), b)) - 1.0),
              0.0, 1e-12);

  // DefineAuto: the same first vector, the second left as the frame gave it
  // (not turned with the first), and the ranges of the points along both.
  CPlaneEquation plane;
  plane.NormalDir()[2] = 1.0;
  REmath::CPlaneLimits limits;
  limits.DefineAuto(refs, plane);
  double u[3], v[3];
  BuildUCSbyVector(n, u, v);
  EXPECT_EQ(std::vector<double>(limits.GetBasisVector(0), limits.GetBasisVector(0) + 3),
            std::vector<double>(e1, e1 + 3));
  EXPECT_EQ(std::vector<double>(limits.GetBasisVector(1), limits.GetBasisVector(1) + 3),
            std::vector<double>(v, v + 3));
  double const width = limits.GetLimitsInDir(0)[1] - limits.GetLimitsInDir(0)[0];
  EXPECT_TRUE(std::fabs(width - 4.0) < 1e-6 || std::fabs(width - 1.0) < 1e-6) << width;
  EXPECT_EQ(limits.GetLimitsInDir(7), limits.GetLimitsInDir(1));
}
