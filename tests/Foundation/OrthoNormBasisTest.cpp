#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "QZmath/Foundation/OrthoNormBasis.h"
#include "tests/Common/Checks.h"

using REmath::Point3D_d;
using namespace QZTest;

namespace
{
struct Rng
{
  std::mt19937 gen{23};
  std::uniform_real_distribution<double> u{-5.0, 5.0};
  Point3D_d point() { return Point3D_d(u(gen), u(gen), u(gen)); }
};

} // namespace

TEST(OrthoNormBasis, WorldFrameAndBuilders)
{
  EXPECT_TRUE(COrthoNormBasis().isOrthoNormRightHand());
  EXPECT_EQ(COrthoNormBasis::IdentityE2().z(), 1.0);
  // The helper axis: y for V2 along x, x for V2 along z.
  expectNear(COrthoNormBasis::buildAnyRightHandByV2AndOrigin(Point3D_d(1, 0, 0), Point3D_d()).getE0(),
             Point3D_d(0, 0, -1), 0);
  COrthoNormBasis const alongZ =
      COrthoNormBasis::buildAnyRightHandByV2AndOrigin(Point3D_d(0, 0, 3), Point3D_d());
  expectNear(alongZ.getE0(), Point3D_d(0, -1, 0), 0);
  expectNear(alongZ.getE1(), Point3D_d(1, 0, 0), 0);

  Rng rng;
  for (int rep = 0; rep < 100; ++rep)
  {
    Point3D_d const v0 = rng.point(), v1 = rng.point(), origin = rng.point();
    COrthoNormBasis const a = COrthoNormBasis::buildRightHandByV0V1AndOrigin(v0, v1, origin);
    COrthoNormBasis const b = COrthoNormBasis::buildRightHandByV2V0AndOrigin(v0, v1, origin);
    COrthoNormBasis const c = COrthoNormBasis::buildAnyRightHandByV2AndOrigin(v0, origin);
    for (COrthoNormBasis const * f : {&a, &b, &c})
    {
      EXPECT_TRUE(f->isOrthoNormRightHand());
      EXPECT_NEAR(dot(f->getE0(), cross(f->getE1(), f->getE2())), 1.0, 1e-14);
      EXPECT_EQ(f->getOrigin().z(), origin.z());
    }
    // e0 along V0 and e1 towards V1; e2 along V2 and e0 towards V0.
    Point3D_d const u0 = v0.unitLength();
    expectNear(a.getE0(), u0, 1e-14);
    EXPECT_NEAR(dot(a.getE2(), v1), 0.0, 1e-12);
    EXPECT_GT(dot(a.getE1(), v1), 0.0);
    expectNear(b.getE2(), u0, 1e-14);
    EXPECT_GT(dot(b.getE0(), v1), 0.0);
    expectNear(c.getE2(), u0, 1e-14);
    expectNear(COrthoNormBasis::buildRightHandByE0E1AndOrigin(a.getE0(), a.getE1(), origin).getE2(),
               a.getE2(), 1e-14);
  }
}

TEST(OrthoNormBasis, CoordinatesAndProjection)
{
  Rng rng;
  for (int rep = 0; rep < 100; ++rep)
  {
    Point3D_d const origin = rng.point(), p = rng.point();
    COrthoNormBasis const f =
        COrthoNormBasis::buildRightHandByV0V1AndOrigin(rng.point(), rng.point(), origin);
    Point3D_d const local = f.transformCoordsToBasis(p);
    expectNear(f.transformCoordsFromBasis(local), p, 1e-12);
    Point3D_d rel = p;
    rel -= origin;
    EXPECT_NEAR(local.x(), dot(rel, f.getE0()), 1e-12);
    EXPECT_NEAR(local.z(), dot(rel, f.getE2()), 1e-12);
    expectNear(f.transformCoordsToBasis(origin), Point3D_d(), 1e-12);

    // The world seen from the frame: the maps exchanged.
    COrthoNormBasis const w = f.getWorldBasisInLocalCoords();
    expectNear(w.transformCoordsFromBasis(p), local, 0);

    // Moving keeps the axes and maps the new origin to 0.
    Point3D_d const to = rng.point();
    COrthoNormBasis const moved = f.getMovedTo(to);
    expectNear(moved.getE1(), f.getE1(), 0);
    expectNear(moved.transformCoordsToBasis(to), Point3D_d(), 1e-12);
    EXPECT_TRUE(moved.isOrthoNormRightHand());

    // The projection lies in the plane of e0, e1 and differs from p along e2.
    Point3D_d const proj = f.projectPointToXYPlane(p);
    EXPECT_NEAR(f.transformCoordsToBasis(proj).z(), 0.0, 1e-12);
    Point3D_d diff = p;
    diff -= proj;
    expectNear(cross(diff, f.getE2()), Point3D_d(), 1e-11);
  }
}

TEST(OrthoNormBasis, OrthonormalityTests)
{
  // Exact axes pass; a left-handed set is orthonormal but not right-handed.
  Point3D_d const x(1, 0, 0), y(0, 1, 0), z(0, 0, 1), o(3, 4, 5);
  EXPECT_TRUE(COrthoNormBasis::buildByOrthsAndOrigin(y, z, x, o).isOrthoNormRightHand());
  COrthoNormBasis const left = COrthoNormBasis::buildByOrthsAndOrigin(y, x, z, o);
  EXPECT_TRUE(left.isOrthoNorm());
  EXPECT_FALSE(left.isOrthoNormRightHand());

  // A skew set gets a true inverse and fails the test.
  Point3D_d const skew(1, 1, 0);
  COrthoNormBasis const s = COrthoNormBasis::buildByOrthsAndOrigin(x, skew, z, o);
  EXPECT_FALSE(s.isOrthoNorm());
  Point3D_d const p(0.5, -7, 2);
  expectNear(s.transformCoordsToBasis(s.transformCoordsFromBasis(p)), p, 1e-12);
  expectNear(s.transformCoordsFromBasis(Point3D_d(1, 2, 3)), Point3D_d(3 + 1 + 2, 4 + 2, 5 + 3), 1e-15);

  // Scaled axes are orthogonal but not unit: not orthonormal.
  Point3D_d x2 = x;
  x2 *= 2.0;
  EXPECT_FALSE(COrthoNormBasis::buildByOrthsAndOrigin(x2, y, z, o).isOrthoNorm());

  // No guard against a zero vector: the axes are not finite.
  COrthoNormBasis const zero = COrthoNormBasis::buildAnyRightHandByV2AndOrigin(Point3D_d(), o);
  EXPECT_FALSE(std::isfinite(zero.getE2().x()));
  EXPECT_FALSE(zero.isOrthoNorm());
}
