#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "QZmath/SurfaceAnalysis/Projectors.h"

using REmath::Matrix;
using REmath::Point3D;
using REmath::Point3D_d;

namespace
{
// A net over z = 0.1 x y (a gentle saddle), node (row r, column c) at
// (2 c, 3 r): 4 rows, 5 columns.
Matrix<Point3D> makeNet(double bend = 0.0)
{
  Matrix<Point3D> net(4, 5);
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 5; ++c)
      net(r, c) = Point3D(2.0 * c, 3.0 * r, bend * c * r);
  return net;
}

// A member that always fails and cannot be copied; counts its calls.
class CFailingProjector : public IPointToGeomObjProjector
{
public:
  int calls = 0;

private:
  IPointToGeomObjProjector * OnCopy() const override { return nullptr; }
  bool OnProjectPoint(const Point3D_d &, Point3D_d &) override { return ++calls < 0; }
};
} // namespace

TEST(NetProjection, NodesNormalsAndBlends)
{
  Matrix<Point3D> const net = makeNet();
  float const p[3] = {4.2f, 5.0f, 1.0f};
  int c = -1, r = -1;
  EXPECT_FLOAT_EQ(static_cast<float>(GetNearestNetKnot(p, net, c, r)), 0.04f + 1.0f + 1.0f);
  EXPECT_TRUE(c == 2 && r == 2) << c << " " << r;
  // Columns along x, rows along y: the normal is +z, at the last row and
  // column too; `sign` false turns it round.
  Point3D n;
  for (auto rc : {std::make_pair(1, 1), std::make_pair(3, 4), std::make_pair(0, 4), std::make_pair(3, 0)})
    EXPECT_TRUE(GetNetNormal(net, rc.second, rc.first, n, true) && n.z() == 1.0f);
  EXPECT_TRUE(GetNetNormal(net, 0, 0, n, false) && n.z() == -1.0f);
  EXPECT_FALSE(GetNetNormal(Matrix<Point3D>(1, 5), 0, 0, n, true));

  // Fractional coordinates in each quadrant round the nearest node, and at
  // the borders, come back through getPointOnNet.
  for (auto uv : {std::make_pair(2.3, 1.6), std::make_pair(1.8, 1.6), std::make_pair(1.8, 2.4),
                  std::make_pair(2.3, 2.4), std::make_pair(3.9, 2.8), std::make_pair(0.2, 0.1)})
  {
    float const q[3] = {static_cast<float>(2.0 * uv.first), static_cast<float>(3.0 * uv.second), 7.0f};
    double u = -1, v = -1;
    float back[3];
    ProjectPointToNet(q, net, u, v);
    EXPECT_TRUE(std::fabs(u - uv.first) < 1e-6 && std::fabs(v - uv.second) < 1e-6) << u << " " << v;
    getPointOnNet(static_cast<float>(u), static_cast<float>(v), net, back);
    EXPECT_TRUE(std::fabs(back[0] - q[0]) < 1e-5 && std::fabs(back[1] - q[1]) < 1e-5 && back[2] == 0.0f);
  }
  // A bilinear blend on a bent net, and the last row and column read safely.
  Matrix<Point3D> const bent = makeNet(0.1);
  float out[3];
  getPointOnNet(1.5f, 2.5f, bent, out);
  EXPECT_NEAR(out[2], 0.1 * 1.5 * 2.5, 1e-6);
  getPointOnNet(4.0f, 3.0f, bent, out);
  EXPECT_EQ(out[2], bent(3, 4).z());
  getPointOnNet(9.0f, -2.0f, bent, out); // held to the border
  EXPECT_TRUE(out[0] == 8.0f && out[1] == 0.0f);
}

TEST(Contour2D, SelfIntersectionsAndInside)
{
  std::vector<double> const square = {0, 0, 4, 0, 4, 4, 0, 4, 0, 0};
  std::vector<double> const pentagon = {0, 0, 4, 0, 5, 3, 2, 5, -1, 3, 0, 0};
  // A bow tie crosses itself; three segments are too few to test; the
  // contour that runs back along itself overlaps collinearly.
  EXPECT_EQ(
      (std::vector<bool>{Check2dContourSelfIntersections(square), Check2dContourSelfIntersections(pentagon),
                         Check2dContourSelfIntersections({0, 0, 4, 0, 0, 4, 4, 4, 0, 0}),
                         Check2dContourSelfIntersections({0, 0, 4, 0, 0, 4, 0, 0}),
                         Check2dContourSelfIntersections({0, 0, 4, 0, 4, 2, 4, 1, 4, 3, 0, 3, 0, 0})}),
      (std::vector<bool>{true, true, false, true, false}));
  // Straight over the vertex (2, 5) of the pentagon is outside, straight
  // above its vertex (4, 0) inside.
  EXPECT_EQ((std::vector<bool>{isPointInContour(1.0, 1.0, square), isPointInContour(5.0, 1.0, square),
                               isPointInContour(1.0, -1.0, square), isPointInContour(2.0, 5.5, pentagon),
                               isPointInContour(2.0, 4.5, pentagon), isPointInContour(4.0, 1.0, pentagon),
                               isPointInContour(1.0, 1.0, {}), isPointInContour(1.0, 1.0, {1.0, 1.0})}),
            (std::vector<bool>{true, false, false, false, true, true, false, false}));
}

TEST(Projectors, PolylineProjection)
{
  CProjectorToPolyline poly({Point3D_d(0, 0, 0), Point3D_d(4, 0, 0), Point3D_d(4, 4, 0)});
  Point3D_d r;
  double param = -1;
  ASSERT_TRUE(poly.projectPoint(Point3D_d(1, -2, 1), r, param));
  EXPECT_TRUE(param == 0.25 && r.x() == 1.0 && r.y() == 0.0);
  ASSERT_TRUE(poly.projectPoint(Point3D(5.0f, 3.0f, 0.0f), r, param));
  EXPECT_TRUE(param == 1.75 && r.y() == 3.0);
  // Past the end: the last point exactly, parameter 2.
  ASSERT_TRUE(poly.projectPoint(Point3D_d(4, 9, 0), r, param));
  EXPECT_TRUE(param == 2.0 && r.y() == 4.0);

  EXPECT_TRUE(CProjectorToPolyline({Point3D_d(1, 2, 3)}).projectPoint(Point3D_d(9, 9, 9), r, param) &&
              param == 0.0 && r.z() == 3.0);
  EXPECT_FALSE(CProjectorToPolyline().projectPoint(Point3D_d(), r, param));
  EXPECT_FALSE(poly.projectPoint(Point3D_d(std::nan(""), 0.0, 0.0), r, param));

  // A copy is independent of its original, and projects through the base interface.
  std::unique_ptr<IPointToGeomObjProjector> copy(poly.Copy());
  poly.GetPoints().clear();
  EXPECT_TRUE(copy->projectPoint(Point3D_d(1, -2, 1), r) && r.x() == 1.0);
}

TEST(Projectors, JoinTakesTheNearerOwner)
{
  CProjectorsJoin join;
  Point3D_d r;
  join.AddProjectorWithOwnerShip(nullptr);
  EXPECT_FALSE(join.projectPoint(Point3D_d(), r) || join.GetProjectorsNumber() != 0);

  join.AddProjectorWithOwnerShip(new CProjectorToPolyline({Point3D_d(0, 0, 0), Point3D_d(10, 0, 0)}));
  join.AddProjectorWithOwnerShip(new CProjectorToPolyline({Point3D_d(0, 5, 0), Point3D_d(10, 5, 0)}));
  EXPECT_TRUE(join.projectPoint(Point3D_d(3, 1, 0), r) && r.y() == 0.0);
  EXPECT_TRUE(join.projectPoint(Point3D_d(3, 4, 0), r) && r.y() == 5.0);
  EXPECT_TRUE(join.projectPoint(Point3D_d(3, 2.5, 0), r) && r.y() == 0.0); // a tie: the first

  // The result is the best success, the return value the last member's.
  auto * failing = new CFailingProjector;
  join.AddProjectorWithOwnerShip(failing);
  r = Point3D_d(-1, -1, -1);
  EXPECT_FALSE(join.projectPoint(Point3D_d(3, 1, 0), r));
  EXPECT_TRUE(r.y() == 0.0 && failing->calls == 1);

  // A copy leaves out members that cannot be copied, and outlives the join.
  std::unique_ptr<IPointToGeomObjProjector> copy;
  {
    CProjectorsJoin scoped(join);
    EXPECT_EQ(scoped.GetProjectorsNumber(), 2);
    copy.reset(join.Copy());
  }
  EXPECT_TRUE(copy->projectPoint(Point3D_d(3, 4, 0), r) && r.y() == 5.0);
  CProjectorsJoin assigned;
  assigned = *static_cast<CProjectorsJoin *>(copy.get());
  EXPECT_EQ(assigned.GetProjectorsNumber(), 2);
}

TEST(Projectors, NonFiniteInputFailsQuietly)
{
  float const nan = std::nanf("");
  float const a[3] = {0, 0, 0}, b[3] = {1, 0, 0}, c[3] = {0, 1, 0}, down[3] = {0, 0, -1};
  float const bad[3] = {nan, 0.5f, 1.0f};
  float hit[3], over = 0.0f, dist2 = 0.0f;
  bool inside = true;
  EXPECT_FALSE(IntersectTriangLine(a, b, c, bad, down, hit));
  EXPECT_FALSE(IntersectTriangLineFree(a, b, c, bad, down, hit, 0.1f, inside, &over, &dist2));
  float const * const v[3] = {a, b, c};
  int where = 0;
  EXPECT_TRUE(std::isnan(distancePointTriangle2(bad, v, where, hit)));
  EXPECT_TRUE(std::isnan(REmath::CProjectorTriangle(a, b, c).DistToTriangle2Precalced(bad)));
  double params[2];
  double const d[3] = {1, 0, 0}, dn[3] = {std::nan(""), 1, 0};
  EXPECT_FALSE(MakeMinDist2Lines(d, d, d, dn, params));
  double delta[3] = {0, 0, 1};
  EXPECT_FALSE(meetTwoVectors(d, dn, delta, params, 1.0));

  Matrix<Point3D> const net = makeNet();
  double u = -1, vv = -1;
  ProjectPointToNet(bad, net, u, vv);
  float out[3];
  getPointOnNet(nan, nan, net, out);
  EXPECT_EQ(out[0], 0.0f);
  // The contour tests take their data as valid: only that they return.
  Check2dContourSelfIntersections({0, 0, 4, 0, std::nan(""), 4, 0, 4, 2, 2, 0, 0});
  EXPECT_FALSE(isPointInContour(std::nan(""), 1.0, {0, 0, 4, 0, 4, 4, 0, 0}));
}
