#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>

#include "QZmath/Foundation/Matrix.h"
#include "QZmath/Foundation/VectorGeometry.h"

using REmath::NO_VALUE_MARK;
using REmath::Point3D;
using REmath::Point3D_d;

namespace
{
using V = std::array<double, 3>;

double dot(V const & a, V const & b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
V cross(V const & a, V const & b)
{
  return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
V sub(V const & a, V const & b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
void expectNear(double const * got, V const & want, double tol)
{
  for (int i = 0; i < 3; ++i)
    EXPECT_NEAR(got[i], want[i], tol) << "component " << i;
}

struct Rng
{
  std::mt19937 gen{17};
  std::uniform_real_distribution<double> u{-3.0, 3.0};
  V vec() { return {u(gen), u(gen), u(gen)}; }
};
} // namespace

TEST(VectorGeometry, LineToPointAndFloatWidening)
{
  // The offset of p from its foot on the line through a and b.
  V const a = {1, 1, 0}, b = {3, 1, 0}, p = {7, 4, 4};
  V out;
  Vector_Line2Point(a.data(), b.data(), p.data(), out.data());
  EXPECT_EQ(out, (V{0, 3, 4}));
  // The float form computes in double and rounds once at the end.
  float const fa[3] = {0, 0, 0}, fb[3] = {3, 0.1f, 0}, fp[3] = {0.7f, 2, 0.3f};
  V const wa = {fa[0], fa[1], fa[2]}, wb = {fb[0], fb[1], fb[2]}, wp = {fp[0], fp[1], fp[2]};
  float fout[3];
  Vector_Line2Point(fa, fb, fp, fout);
  Vector_Line2Point(wa.data(), wb.data(), wp.data(), out.data());
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(fout[i], static_cast<float>(out[i]));
}

TEST(VectorGeometry, DefaultPerpendicularAndFrame)
{
  auto perpendicular = [](V v)
  {
    V out;
    BuildDefPerpendicular(v.data(), out.data());
    return out;
  };
  EXPECT_EQ(perpendicular({0, 0, 1}), (V{0, -1, 0}));
  EXPECT_EQ(perpendicular({1, 0, 0}), (V{0, 1, 0}));
  // A short vector takes the second branch even off the z axis.
  EXPECT_TRUE(std::isnan(perpendicular({0.3, 0, 0})[1]));

  Rng rng;
  for (int rep = 0; rep < 100; ++rep)
  {
    V v = rng.vec(), p, q;
    double const len = std::sqrt(dot(v, v));
    for (double & c : v)
      c /= len;
    BuildUCSbyVector(v.data(), p.data(), q.data());
    // (p, q, v) is a right-handed orthonormal frame.
    EXPECT_NEAR(std::fabs(dot(p, p) - 1) + std::fabs(dot(q, q) - 1) + std::fabs(dot(p, v)), 0.0, 1e-14);
    expectNear(cross(p, q).data(), v, 1e-14);
  }
}

TEST(VectorGeometry, RotateVectorKeepsTheSystemForm)
{
  V const z = {0, 0, 1};
  V out;
  // Against the closed form, for an axis of any length: the part across the
  // axis turns, the axial part is scaled by cos + sin.
  Rng rng;
  for (int rep = 0; rep < 100; ++rep)
  {
    V const axis = rng.vec(), v = rng.vec();
    double const angle = rng.u(rng.gen), len = std::sqrt(dot(axis, axis));
    V const unit = {axis[0] / len, axis[1] / len, axis[2] / len};
    V const axial = {unit[0] * dot(unit, v), unit[1] * dot(unit, v), unit[2] * dot(unit, v)};
    V const perp = sub(v, axial), turned = cross(unit, perp);
    if (dot(perp, perp) <= dot(v, v) * 1e-4)
      continue;
    RotateVector(out.data(), axis.data(), v.data(), angle);
    V want;
    for (int i = 0; i < 3; ++i)
      want[i] = perp[i] * std::cos(angle) + turned[i] * std::sin(angle) +
                axial[i] * (std::cos(angle) + std::sin(angle));
    expectNear(out.data(), want, 1e-12);
    V inPlace = v;
    RotateVector(inPlace.data(), axis.data(), inPlace.data(), angle);
    EXPECT_EQ(inPlace, out);
  }
  // Along the axis (within the threshold), or zero: unchanged.
  for (V const & v : {V{0, 0, 5}, V{0.009, 0, 1}, V{0, 0, 0}})
  {
    RotateVector(out.data(), z.data(), v.data(), 1.0);
    EXPECT_EQ(out, v);
  }
}

TEST(VectorGeometry, MakeRotationMatrixRowsAreTurnedAxes)
{
  REmath::Matrix<double> m(5, 2);
  V const axis = {1, 2, 2}; // along no coordinate axis
  MakeRotationMatrix(m, axis.data(), 0.7);
  ASSERT_TRUE(m.rows() == 3 && m.cols() == 3);
  for (int i = 0; i < 3; ++i)
  {
    V e = {0, 0, 0}, row;
    e[i] = 1;
    RotateVector(row.data(), axis.data(), e.data(), 0.7);
    for (int j = 0; j < 3; ++j)
      EXPECT_EQ(m(i, j), row[j]);
  }
  // A zero axis turns nothing.
  MakeRotationMatrix(m, V{0, 0, 0}.data(), 0.3);
  REmath::Matrix<double> identity(3, 3);
  identity.diag(1.0);
  EXPECT_TRUE(m == identity);
}

TEST(VectorGeometry, PlaneParallelAndPlaneFrameCoordinates)
{
  Point3D_d const origin(1, 1, 1), normal(0, 0, 1);
  EXPECT_TRUE(PointInPlane(Point3D_d(4, -2, 1), origin, normal, 1e-9));
  // tol bounds |sin^2 - 1| of the angle to the normal: here sin^2(0.01).
  Point3D_d const tilted(1 + std::cos(0.01), 1, 1 + std::sin(0.01));
  EXPECT_TRUE(PointInPlane(tilted, origin, normal, 1.01e-4));
  EXPECT_FALSE(PointInPlane(tilted, origin, normal, 0.99e-4));
  EXPECT_FALSE(PointInPlane(origin, origin, normal, 0.0)) << "no direction, no plane";

  EXPECT_TRUE(VectorsAreParallel(Point3D_d(1, 2, 3), Point3D_d(-2, -4, -6), 1e-12));

  // p = 2 e1 - 3 e2, plus a part out of the plane that is ignored.
  V const e1 = {1, 0, 0}, e2 = {1, 2, 0}, p = {2 - 3, -6, 9};
  double u = 0, v = 0;
  ASSERT_TRUE(CoordinateRelativeForPlaneReperDbl(p.data(), e1.data(), e2.data(), u, v, 1e-9));
  EXPECT_NEAR(std::fabs(u - 2.0) + std::fabs(v + 3.0), 0.0, 1e-15);
  u = v = 11;
  EXPECT_FALSE(CoordinateRelativeForPlaneReperDbl(p.data(), e1.data(), V{-2, 0, 0}.data(), u, v, 1e-9));
  EXPECT_FALSE(CoordinateRelativeForPlaneReperDbl(p.data(), V{0, 0, 0}.data(), e2.data(), u, v, 1e-9));
  EXPECT_TRUE(u == 11.0 && v == 11.0);
}

TEST(VectorGeometry, CosinesSemiPlanarProductsAndBulge)
{
  Point3D const o(0, 0, 0), x(2, 0, 0), y(0, 3, 0), diag(1, 1.7320508f, 0);
  EXPECT_NEAR(cos_ABC(x, o, y), 0.0f, 1e-7);
  EXPECT_NEAR(cos_ABC(x, o, diag), 0.5f, 1e-6);
  EXPECT_TRUE(cos_ABC(o, o, y) == NO_VALUE_MARK && cos_ABC(x, o, o) == NO_VALUE_MARK);

  // Line along x: the parts across it are (0, 2, 0) and (0, 3, 4).
  Point3D const c(1, 2, 0), d(5, 3, 4), dn(5, -3, -4);
  EXPECT_FLOAT_EQ(SemiPlanarScalarProd(o, x, c, d), 6.0f);
  EXPECT_FLOAT_EQ(SemiPlanarCos2(o, x, c, d), 0.36f);
  EXPECT_FLOAT_EQ(SemiPlanarCos2(o, x, c, dn), -0.36f) << "the sign of the cosine";
  EXPECT_EQ(SemiPlanarCos2(o, x, Point3D(7, 0, 0), d), NO_VALUE_MARK) << "nothing across the line";
  // Ends equal within float precision: a degenerate line.
  Point3D const big(1000, 1000, 1000), nextToBig(1000.0001f, 1000, 1000);
  EXPECT_TRUE(SemiPlanarScalarProd(big, nextToBig, c, d) == 0.0f &&
              SemiPlanarCos2(big, nextToBig, c, d) == NO_VALUE_MARK);

  // Height 2 over a base of 4: (2 / 4)^2.
  float const ta[3] = {1, 2, 0}, tb[3] = {0, 0, 0}, tc[3] = {4, 0, 0};
  EXPECT_FLOAT_EQ(GetTriangleBulge(ta, tb, tc), 0.25f);
  float const xs[4] = {9, 0, 1, 4}, ys[4] = {9, 0, 2, 0};
  EXPECT_FLOAT_EQ(GetTriangleBulge2(xs, ys, 2), 0.25f);
  EXPECT_FALSE(std::isfinite(GetTriangleBulge(ta, tb, tb)));
}

TEST(VectorGeometry, CircumscribeCircleOverloads)
{
  // Every form gives the SQUARED radius: 2 for the centre (1, 1, 0).
  double const a[3] = {0, 0, 0}, b[3] = {2, 0, 0}, c[3] = {0, 2, 0};
  float const fa[3] = {0, 0, 0}, fb[3] = {2, 0, 0}, fc[3] = {0, 2, 0};
  double centre[3], r2 = 0;
  ASSERT_TRUE(CircumscribeCircle(a, b, c, centre, r2));
  expectNear(centre, {1, 1, 0}, 1e-15);
  EXPECT_DOUBLE_EQ(r2, 2.0);
  float fcentre[3], fr2 = 0;
  ASSERT_TRUE(CircumscribeCircle(fa, fb, fc, fcentre, fr2));
  EXPECT_FLOAT_EQ(fr2, 2.0f);
  Point3D const pts[3] = {Point3D(fa), Point3D(fb), Point3D(fc)};
  Point3D pc;
  ASSERT_TRUE(CircumscribeCircle(pts, pc, fr2));
  EXPECT_FLOAT_EQ(pc.y(), 1.0f);

  // Collinear points: the point forms store the mark, the raw forms leave
  // their outputs alone.
  double const l0[3] = {0, 0, 0}, l1[3] = {1, 1, 1}, l2[3] = {3, 3, 3};
  centre[0] = r2 = 42;
  EXPECT_TRUE(!CircumscribeCircle(l0, l1, l2, centre, r2) && centre[0] == 42.0 && r2 == 42.0);
  Point3D_d const dl[3] = {Point3D_d(l0), Point3D_d(l1), Point3D_d(l2)};
  Point3D_d dc;
  EXPECT_TRUE(!CircumscribeCircle(dl, dc, r2) && r2 == static_cast<double>(NO_VALUE_MARK));
  // A flat triangle of height 0.01 passes 1e-9 but not the float forms' 0.001.
  float const f0[3] = {0, 0, 0}, f1[3] = {1, 0.01f, 0}, f2[3] = {2, 0, 0};
  EXPECT_TRUE(CircumscribeCircle(f0, f1, f2, centre, r2));
  fr2 = 5;
  EXPECT_TRUE(!CircumscribeCircle(f0, f1, f2, fcentre, fr2) && fr2 == 5.0f);
}
