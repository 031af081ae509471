// Rotation matrices, quaternions, frames and rigid transforms.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>

#include "QZmath/Foundation/LinearTransform.h"
#include "QZmath/Foundation/OrthoNormBasis.h"
#include "QZmath/Foundation/Quaternion.h"
#include "QZmath/Foundation/VectorGeometry.h"
#include "tests/Common/Checks.h"

using REmath::Point3D_d;
using namespace QZTest;

namespace
{
struct Rng
{
  std::mt19937 gen{23};
  double u() { return std::uniform_real_distribution<double>(-2.0, 2.0)(gen); }
  Point3D_d point()
  {
    double const x = u(), y = u();
    return Point3D_d(x, y, u());
  }
  Quaternion unit()
  {
    Point3D_d const v = point();
    Quaternion q(u(), v.x(), v.y(), v.z());
    q.normalize();
    return q;
  }
  RElinearTransform rotation()
  {
    double const angles[3] = {u(), u(), u()};
    CRotationMatrix m;
    makeEulerMatrix(m, angles);
    return RElinearTransform(m, point());
  }
};

using Angles = std::array<double, 3>;

Angles eulerOf(CRotationMatrix const & m)
{
  Angles a = {9, 9, 9};
  getEulerAnglesFromMatrix(m, a[0], a[1], a[2]);
  return a;
}

CRotationMatrix eulerMatrix(Angles const & angles)
{
  CRotationMatrix m;
  makeEulerMatrix(m, angles.data());
  return m;
}

CRotationMatrix matrixOf(Quaternion const & q)
{
  CRotationMatrix m;
  q.getRotationMatrix(m);
  return m;
}

// q and -q are the same rotation.
void expectSameRotation(const Quaternion & a, const Quaternion & b, double tol)
{
  double const sign = Quaternion::dotProduct(a, b) < 0 ? -1.0 : 1.0;
  EXPECT_TRUE(
      a.areEqualTo(Quaternion(sign * b.getScalar(), sign * b.getX(), sign * b.getY(), sign * b.getZ()), tol))
      << a.getScalar() << " " << a.getX() << " " << a.getY() << " " << a.getZ();
}
} // namespace

TEST(RotationMatrix, SelfAdjointTolerances)
{
  EXPECT_TRUE(CRotationMatrix::Zero().isSelfAdjoint()) << "0 <= 0 passes the relative test";
  // Near entries, then large ones (the relative float tolerance passes, the
  // absolute one not), then small ones (the reverse).
  struct Case
  {
    double upper, lower;
    bool asFloats, absolute;
  } const cases[] = {{1.0, 1.0000001, true, true}, {1e8, 1e8 + 1, true, false}, {1e-9, 2e-9, false, true}};
  CRotationMatrix m;
  for (Case const & c : cases)
  {
    m.m[0][2] = c.upper;
    m.m[2][0] = c.lower;
    EXPECT_FALSE(m.isSelfAdjoint()) << c.upper;
    EXPECT_EQ(m.isSelfAdjointAsFloats(), c.asFloats) << c.upper;
    EXPECT_EQ(IsSelfAdjoint(m), c.absolute) << c.upper;
  }
  m.m[0][2] = m.m[2][0] = 5;
  m.m[1][2] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_FALSE(m.isSelfAdjoint());
}

TEST(RotationMatrix, EigenvectorsOfSelfAdjoint)
{
  // The routines behind it are checked on random matrices in their own
  // suite; here the vectors must be the columns of their result, not its rows.
  CRotationMatrix const a =
      CRotationMatrix::buildFromRows(Point3D_d(2, 1, 0), Point3D_d(1, 2, -1), Point3D_d(0, -1, 5));
  Point3D_d v[3];
  double values[3];
  GetEigenVectorsSA(a, v, values, true);
  for (int k = 0; k < 3; ++k)
  {
    EXPECT_NEAR(v[k].length(), 1.0, 1e-14);
    Point3D_d const av(dot(a.getColumn(0), v[k]), dot(a.getColumn(1), v[k]), dot(a.getColumn(2), v[k]));
    expectNear(av, v[k] * values[k], 1e-13); // a is symmetric: its columns are its rows
  }
  // The solver's order, not sorted: a diagonal comes back as it stands.
  double const diag[3][3] = {{5, 0, 0}, {0, -2, 0}, {0, 0, 3}};
  GetEigenVectorsSA(CRotationMatrix(diag), v, values, false);
  EXPECT_TRUE(values[1] == -2.0 && v[1].y() == 1.0);

  CRotationMatrix bad;
  bad.m[0][1] = bad.m[1][0] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(whatOf<std::runtime_error>([&] { GetEigenVectorsSA(bad, v, values, true); }),
            "GetEigenVectorsSA failed");
}

TEST(RotationMatrix, EulerAnglesOfMatricesAndQuaternions)
{
  // Half a turn about x: diag(1, -1, -1).
  CRotationMatrix flip = CRotationMatrix::Zero();
  flip.m[0][0] = 1, flip.m[1][1] = -1, flip.m[2][2] = -1;
  EXPECT_DOUBLE_EQ(eulerOf(flip)[1], M_PI);
  EXPECT_EQ(eulerOf(flip)[2], 0.0);
  // m22 slightly beyond 1 is clamped, not NaN.
  CRotationMatrix over;
  over.m[2][2] = 1.0 + 1e-15;
  EXPECT_EQ(eulerOf(over)[1], 0.0);
  // The z-y-z order: with a1 = 0 the outer angles add up about z.
  Angles const zOnly = eulerOf(eulerMatrix({0.3, 0.0, 0.4}));
  EXPECT_NEAR(zOnly[0], 0.7, 1e-15);
  EXPECT_EQ(zOnly[2], 0.0);

  std::mt19937 rng(6);
  std::uniform_real_distribution<double> outer(-3.1, 3.1), middle(0.05, 3.09);
  for (int rep = 0; rep < 200; ++rep)
  {
    Angles const angles = {outer(rng), middle(rng), outer(rng)};
    CRotationMatrix const m = eulerMatrix(angles);
    // A quaternion made from the angles is the same rotation and gives them back.
    Quaternion const q(angles[0], angles[1], angles[2]);
    expectNear(matrixOf(q), m, 1e-14);
    Angles back;
    q.getEulerAngle(back[0], back[1], back[2]);
    for (Angles const & b : {eulerOf(m), back})
      for (int i = 0; i < 3; ++i)
        EXPECT_NEAR(b[i], angles[i], 1e-9);
  }
}

TEST(Quaternion, ValuesAndNormalisation)
{
  // Nothing to scale: the identity.
  for (Quaternion bad : {Quaternion(0, 0, 0, 0), Quaternion(std::nan(""), 0, 0, 0)})
  {
    bad.normalize();
    EXPECT_EQ(bad, Quaternion(1, 0, 0, 0));
  }

  double const a = 0.7;
  Quaternion y, x;
  y.setToRotateAboutY(a);
  x.setToRotateAboutX(a);
  EXPECT_TRUE(y.areEqualTo(Quaternion(std::cos(a / 2), 0, std::sin(a / 2), 0), 1e-16) &&
              x.areEqualTo(Quaternion(std::cos(a / 2), std::sin(a / 2), 0, 0), 1e-16));
}

TEST(Quaternion, MatrixConventionRoundTripAndProduct)
{
  // The scalar's sign is transposed against the usual convention: a turn by
  // a about z gives [[c, s, 0], [-s, c, 0], [0, 0, 1]].
  double const a = 0.4;
  Quaternion z;
  z.setToRotateAboutZ(a);
  double const rows[3][3] = {{std::cos(a), std::sin(a), 0}, {-std::sin(a), std::cos(a), 0}, {0, 0, 1}};
  expectNear(matrixOf(z), CRotationMatrix(rows), 1e-15);

  Quaternion q;
  Rng rng;
  for (int rep = 0; rep < 300; ++rep)
  {
    Quaternion p = rng.unit();
    if (rep % 4 == 1) // near half turns: the other three branches
      p = Quaternion(0.01 * p.getScalar(), p.getX(), p.getY(), p.getZ()), p.normalize();
    CRotationMatrix const m = matrixOf(p);
    expectNear(product(m, m.getTransposed()), CRotationMatrix::Identity(), 1e-14);
    getQuaternionFromMatrix(m, q);
    expectSameRotation(q, p, 1e-14);
    // With the transposed matrix convention the product maps to the matrix
    // product in the same order.
    Quaternion const r = rng.unit();
    expectNear(matrixOf(p * r), product(m, matrixOf(r)), 1e-14);
    EXPECT_NEAR((p * r).length(), 1.0, 1e-14);
  }
}

TEST(Quaternion, Slerp)
{
  Rng rng;
  Quaternion const a = rng.unit(), b = rng.unit();
  EXPECT_TRUE(Quaternion::slerp(a, b, -1.0) == a && Quaternion::slerp(a, b, 2.0) == b);
  // Angles along the arc are proportional to t: a quarter of the way from a
  // turn by 0.2 about z to one by 1.4 is the turn by 0.5. The shorter arc:
  // -to is the same rotation, and gives the same blend.
  Quaternion from, to, quarter;
  from.setToRotateAboutZ(0.2);
  to.setToRotateAboutZ(1.4);
  quarter.setToRotateAboutZ(0.5);
  Quaternion const negTo(-to.getScalar(), -to.getX(), -to.getY(), -to.getZ());
  EXPECT_TRUE(Quaternion::slerp(from, to, 0.25).areEqualTo(quarter, 1e-15));
  EXPECT_TRUE(Quaternion::slerp(from, negTo, 0.25).areEqualTo(quarter, 1e-15));

  // Nearly equal quaternions: the plain linear blend, not normalised.
  Quaternion const c(1, 0, 0, 0), d(0.99999, 0.004, 0, 0);
  EXPECT_EQ(Quaternion::slerp(c, d, 0.25),
            Quaternion(0.75 * 1 + 0.25 * 0.99999, 0.75 * 0 + 0.25 * 0.004, 0, 0));
}

TEST(OrthoNormBasis, BuildersCoordinatesAndProjection)
{
  // The helper axis: y for V2 along x, x for V2 along z.
  auto helperFrame = [](Point3D_d v2)
  { return COrthoNormBasis::buildAnyRightHandByV2AndOrigin(v2, Point3D_d()); };
  expectNear(helperFrame(Point3D_d(1, 0, 0)).getE0(), Point3D_d(0, 0, -1), 0);
  expectNear(helperFrame(Point3D_d(0, 0, 3)).getE0(), Point3D_d(0, -1, 0), 0);

  Rng rng;
  for (int rep = 0; rep < 100; ++rep)
  {
    Point3D_d const v0 = rng.point(), v1 = rng.point(), origin = rng.point(), p = rng.point();
    COrthoNormBasis const a = COrthoNormBasis::buildRightHandByV0V1AndOrigin(v0, v1, origin);
    COrthoNormBasis const b = COrthoNormBasis::buildRightHandByV2V0AndOrigin(v0, v1, origin);
    COrthoNormBasis const c = COrthoNormBasis::buildAnyRightHandByV2AndOrigin(v0, origin);
    for (COrthoNormBasis const * f : {&a, &b, &c})
      EXPECT_TRUE(f->isOrthoNormRightHand());
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

    // Coordinates are the offset from the origin along the axes.
    Point3D_d const local = a.transformCoordsToBasis(p);
    expectNear(a.transformCoordsFromBasis(local), p, 1e-12);
    EXPECT_NEAR(local.x(), dot(p - origin, a.getE0()), 1e-12);
    // The world seen from the frame: the maps exchanged.
    expectNear(a.getWorldBasisInLocalCoords().transformCoordsFromBasis(p), local, 0);
    // Moving keeps the axes and maps the new origin to 0.
    COrthoNormBasis const moved = a.getMovedTo(v1);
    expectNear(moved.getE1(), a.getE1(), 0);
    expectNear(moved.transformCoordsToBasis(v1), Point3D_d(), 1e-12);
    // The projection lies in the plane of e0, e1 and differs from p along e2.
    Point3D_d const proj = a.projectPointToXYPlane(p);
    EXPECT_NEAR(a.transformCoordsToBasis(proj).z(), 0.0, 1e-12);
    expectNear(cross(p - proj, a.getE2()), Point3D_d(), 1e-11);
  }
}

TEST(OrthoNormBasis, OrthonormalityTests)
{
  // Exact axes pass; a left-handed set is orthonormal but not right-handed.
  Point3D_d const x(1, 0, 0), y(0, 1, 0), z(0, 0, 1), o(3, 4, 5);
  EXPECT_TRUE(COrthoNormBasis::buildByOrthsAndOrigin(y, z, x, o).isOrthoNormRightHand());
  COrthoNormBasis const left = COrthoNormBasis::buildByOrthsAndOrigin(y, x, z, o);
  EXPECT_TRUE(left.isOrthoNorm() && !left.isOrthoNormRightHand());

  // A skew set gets a true inverse and fails the test.
  Point3D_d const skew(1, 1, 0);
  COrthoNormBasis const s = COrthoNormBasis::buildByOrthsAndOrigin(x, skew, z, o);
  EXPECT_FALSE(s.isOrthoNorm());
  Point3D_d const p(0.5, -7, 2);
  expectNear(s.transformCoordsToBasis(s.transformCoordsFromBasis(p)), p, 1e-12);
  expectNear(s.transformCoordsFromBasis(Point3D_d(1, 2, 3)), Point3D_d(3 + 1 + 2, 4 + 2, 5 + 3), 1e-15);

  // Scaled axes are orthogonal but not unit: not orthonormal.
  EXPECT_FALSE(COrthoNormBasis::buildByOrthsAndOrigin(x * 2.0, y, z, o).isOrthoNorm());
}

TEST(LinearTransform, ApplyComposeAndInvert)
{
  Rng rng;
  for (int rep = 0; rep < 100; ++rep)
  {
    RElinearTransform const a = rng.rotation(), b = rng.rotation();
    Point3D_d const q = rng.point();
    // Composition is application after application.
    expectNear((a * b).transformPoint(q), a.transformPoint(b.transformPoint(q)), 1e-12);
    // The orthogonal inverse undoes a rigid map.
    expectNear(a.getInvertedOrtho().transformPoint(a.transformPoint(q)), q, 1e-12);
    EXPECT_TRUE(a.isOrtho());

    // A general regular map needs invertTransform.
    RElinearTransform general = a;
    general.matrix[0][0] += 0.5;
    general.matrix[2][1] -= 0.25;
    EXPECT_FALSE(general.isOrtho());
    RElinearTransform ginv;
    ASSERT_TRUE(invertTransform(general, ginv));
    expectNear(ginv.transformPoint(general.transformPoint(q)), q, 1e-10);
  }
  RElinearTransform out = rng.rotation();
  RElinearTransform const before = out;
  EXPECT_FALSE(invertTransform(RElinearTransform::Zero(), out));
  EXPECT_TRUE(out.shift[1] == before.shift[1] && out.matrix[2][0] == before.matrix[2][0]) << "untouched";
}

TEST(LinearTransform, AxisRotation)
{
  // Points of the line stay; others turn about it as RotateVector turns
  // their offset from it.
  RElinearTransform r;
  Rng rng;
  for (int rep = 0; rep < 100; ++rep)
  {
    Point3D_d axis = rng.point();
    axis.normalize();
    Point3D_d const point = rng.point(), q = rng.point();
    double const angle = rng.u();
    setAxisRotationTransform(r, point, axis, angle);
    expectNear(r.transformPoint(point + axis * 2.5), point + axis * 2.5, 1e-12);
    Point3D_d const rel = q - point, axial = axis * dot(axis, rel), perp = rel - axial;
    double across[3];
    RotateVector(across, axis.asArray(), perp.asArray(), angle);
    expectNear(r.transformPoint(q), Point3D_d(across) + axial + point, 1e-11);
  }
}
