#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "QZmath/Foundation/Matrix.h"
#include "QZmath/Foundation/VectorGeometry.h"

using REmath::Matrix;
using REmath::NO_VALUE_MARK;
using REmath::Point3D;
using REmath::Point3D_d;

namespace
{
double dot(double const * a, double const * b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
void cross(double const * a, double const * b, double * out)
{
  out[0] = a[1] * b[2] - a[2] * b[1];
  out[1] = a[2] * b[0] - a[0] * b[2];
  out[2] = a[0] * b[1] - a[1] * b[0];
}

struct Rng
{
  std::mt19937 gen{17};
  std::uniform_real_distribution<double> u{-3.0, 3.0};
  void fill(double * v)
  {
    for (int i = 0; i < 3; ++i)
      v[i] = u(gen);
  }
  void fill(float * v)
  {
    for (int i = 0; i < 3; ++i)
      v[i] = static_cast<float>(u(gen));
  }
};

void widen(float const * f, double * d) { d[0] = f[0], d[1] = f[1], d[2] = f[2]; }
} // namespace

TEST(VectorGeometry, LineToPointVector)
{
  Rng rng;
  for (int rep = 0; rep < 200; ++rep)
  {
    double a[3], b[3], p[3], out[3], d[3], foot[3], c[3];
    rng.fill(a), rng.fill(b), rng.fill(p);
    Vector_Line2Point(a, b, p, out);
    for (int i = 0; i < 3; ++i)
    {
      d[i] = b[i] - a[i];
      foot[i] = p[i] - out[i] - a[i];
    }
    // Across the line, and p - out lies on it.
    EXPECT_NEAR(dot(out, d), 0.0, 1e-12);
    cross(foot, d, c);
    EXPECT_NEAR(dot(c, c), 0.0, 1e-20);

    // The float form computes in double and rounds once.
    float fa[3], fb[3], fp[3], fout[3];
    rng.fill(fa), rng.fill(fb), rng.fill(fp);
    Vector_Line2Point(fa, fb, fp, fout);
    widen(fa, a), widen(fb, b), widen(fp, p);
    Vector_Line2Point(a, b, p, out);
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(fout[i], static_cast<float>(out[i]));
  }
}

TEST(VectorGeometry, DefaultPerpendicularAndFrame)
{
  double const z[3] = {0, 0, 1}, x[3] = {1, 0, 0};
  double out[3];
  BuildDefPerpendicular(z, out);
  EXPECT_EQ(out[0], 0.0);
  EXPECT_EQ(out[1], -1.0);
  EXPECT_EQ(out[2], 0.0);
  BuildDefPerpendicular(x, out);
  EXPECT_EQ(out[0], 0.0);
  EXPECT_EQ(out[1], 1.0);
  EXPECT_EQ(out[2], 0.0);
  // A short vector takes the second branch even off the z axis.
  double const shortX[3] = {0.3, 0, 0};
  BuildDefPerpendicular(shortX, out);
  EXPECT_TRUE(std::isnan(out[1]));

  Rng rng;
  for (int rep = 0; rep < 200; ++rep)
  {
    double v[3], p[3], q[3], pq[3];
    rng.fill(v);
    double const len = std::sqrt(dot(v, v));
    for (double & c : v)
      c /= len;
    BuildUCSbyVector(v, p, q);
    // (p, q, v) is a right-handed orthonormal frame.
    EXPECT_NEAR(dot(p, p), 1.0, 1e-14);
    EXPECT_NEAR(dot(q, q), 1.0, 1e-14);
    EXPECT_NEAR(dot(p, v), 0.0, 1e-14);
    EXPECT_NEAR(dot(p, q), 0.0, 1e-14);
    cross(p, q, pq);
    for (int i = 0; i < 3; ++i)
      EXPECT_NEAR(pq[i], v[i], 1e-14);

    float fv[3], fp[3], fq[3];
    for (int i = 0; i < 3; ++i)
      fv[i] = static_cast<float>(v[i]);
    BuildUCSbyVector(fv, fp, fq);
    widen(fv, v);
    BuildDefPerpendicular(v, p);
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(fp[i], static_cast<float>(p[i]));
    double dp[3];
    widen(fp, dp);
    cross(v, dp, q);
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(fq[i], static_cast<float>(q[i]));
  }
}

TEST(VectorGeometry, RotateVectorKeepsTheSystemForm)
{
  double const axis[3] = {0, 0, 1}, halfPi = 1.5707963267948966, pi = 3.141592653589793;
  double const e0[3] = {1, 0, 0}, e0z[3] = {1, 0, 1};
  double out[3];
  RotateVector(out, axis, e0, halfPi);
  EXPECT_NEAR(out[0], 0.0, 1e-15);
  EXPECT_NEAR(out[1], 1.0, 1e-15);
  EXPECT_NEAR(out[2], 0.0, 1e-15);
  RotateVector(out, axis, e0z, halfPi);
  EXPECT_NEAR(out[0], 0.0, 1e-15);
  EXPECT_NEAR(out[1], 1.0, 1e-15);
  EXPECT_NEAR(out[2], 1.0, 1e-15);
  RotateVector(out, axis, e0z, pi);
  EXPECT_NEAR(out[0], -1.0, 1e-15);
  EXPECT_NEAR(out[1], 0.0, 1e-15);
  EXPECT_NEAR(out[2], -1.0, 1e-15) << "the axial part scales by cos + sin";

  // Against the closed form: the part across the axis turns as a rotation,
  // the axial part is scaled by cos + sin. The axis need not be unit.
  Rng rng;
  for (int rep = 0; rep < 200; ++rep)
  {
    double ax[3], v[3], unit[3], axial[3], perp[3], c[3];
    rng.fill(ax), rng.fill(v);
    double const angle = rng.u(rng.gen);
    double const len = std::sqrt(dot(ax, ax));
    for (int i = 0; i < 3; ++i)
      unit[i] = ax[i] / len;
    double const along = dot(unit, v);
    for (int i = 0; i < 3; ++i)
    {
      axial[i] = unit[i] * along;
      perp[i] = v[i] - axial[i];
    }
    if (dot(perp, perp) <= dot(v, v) * 1e-4)
      continue;
    cross(unit, perp, c);
    RotateVector(out, ax, v, angle);
    for (int i = 0; i < 3; ++i)
    {
      double const expected =
          perp[i] * std::cos(angle) + c[i] * std::sin(angle) + axial[i] * (std::cos(angle) + std::sin(angle));
      EXPECT_NEAR(out[i], expected, 1e-12);
    }
    // In place.
    double w[3] = {v[0], v[1], v[2]};
    RotateVector(w, ax, w, angle);
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(w[i], out[i]);
  }

  // Along the axis, or zero: unchanged.
  double const along[3] = {0, 0, 5}, nearly[3] = {0.009, 0, 1}, zero[3] = {0, 0, 0};
  RotateVector(out, axis, along, 1.0);
  EXPECT_EQ(out[2], 5.0);
  RotateVector(out, axis, nearly, 1.0);
  EXPECT_EQ(out[0], 0.009);
  RotateVector(out, axis, zero, 1.0);
  EXPECT_EQ(out[0], 0.0);
}

TEST(VectorGeometry, MakeRotationMatrixRowsAreTurnedAxes)
{
  Matrix<double> m(5, 2);
  double const axis[3] = {1, 2, 2}; // along no coordinate axis
  MakeRotationMatrix(m, axis, 0.7);
  ASSERT_EQ(m.rows(), 3);
  ASSERT_EQ(m.cols(), 3);
  for (int i = 0; i < 3; ++i)
  {
    double e[3] = {0, 0, 0}, row[3];
    e[i] = 1;
    RotateVector(row, axis, e, 0.7);
    for (int j = 0; j < 3; ++j)
      EXPECT_EQ(m(i, j), row[j]);
  }
  double const z[3] = {0, 0, 1};
  MakeRotationMatrix(m, z, 0.3);
  EXPECT_EQ(m(2, 0), 0.0);
  EXPECT_EQ(m(2, 1), 0.0);
  EXPECT_EQ(m(2, 2), 1.0);
  EXPECT_NEAR(m(0, 0), std::cos(0.3), 1e-15);
  EXPECT_NEAR(m(0, 1), std::sin(0.3), 1e-15);
  // A zero axis has no direction: every row stays a unit axis.
  double const none[3] = {0, 0, 0};
  MakeRotationMatrix(m, none, 0.3);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      EXPECT_EQ(m(i, j), i == j ? 1.0 : 0.0);
}

TEST(VectorGeometry, PlaneAndParallelTests)
{
  Point3D_d const origin(1, 1, 1), normal(0, 0, 1);
  EXPECT_TRUE(PointInPlane(Point3D_d(1.05, 1, 1.05), origin, normal, 0.1)) << "near the origin";
  EXPECT_TRUE(PointInPlane(Point3D_d(4, -2, 1), origin, normal, 1e-9));
  EXPECT_FALSE(PointInPlane(Point3D_d(4, -2, 1.5), origin, normal, 1e-3));
  // tol bounds |sin^2 - 1| of the angle to the normal: a tilt of 0.01 rad.
  double const tilt = 0.01;
  Point3D_d const tilted(1 + std::cos(tilt), 1, 1 + std::sin(tilt));
  EXPECT_TRUE(PointInPlane(tilted, origin, normal, 1.01e-4));
  EXPECT_FALSE(PointInPlane(tilted, origin, normal, 0.99e-4));
  EXPECT_FALSE(PointInPlane(origin, origin, normal, 0.0)) << "no direction, no plane";

  Point3D_d const a(1, 2, 3);
  EXPECT_TRUE(VectorsAreParallel(a, Point3D_d(-2, -4, -6), 1e-12));
  EXPECT_FALSE(VectorsAreParallel(Point3D_d(1, 0, 0), Point3D_d(0, 1, 0), 0.5));
  // tol bounds the squared sine.
  Point3D_d const b(std::cos(0.1), std::sin(0.1), 0);
  double const s2 = std::sin(0.1) * std::sin(0.1);
  EXPECT_TRUE(VectorsAreParallel(Point3D_d(2, 0, 0), b, s2 * 1.001));
  EXPECT_FALSE(VectorsAreParallel(Point3D_d(2, 0, 0), b, s2 * 0.999));
}

TEST(VectorGeometry, CosinesAndSemiPlanarProducts)
{
  Point3D const o(0, 0, 0), x(2, 0, 0), y(0, 3, 0), diag(1, 1.7320508f, 0);
  EXPECT_NEAR(cos_ABC(x, o, y), 0.0f, 1e-7);
  EXPECT_NEAR(cos_ABC(x, o, diag), 0.5f, 1e-6);
  EXPECT_EQ(cos_ABC(o, o, y), NO_VALUE_MARK);
  EXPECT_EQ(cos_ABC(x, o, o), NO_VALUE_MARK);

  // Line along x: the parts across it are (0, 2, 0) and (0, 3, 4).
  Point3D const c(1, 2, 0), d(5, 3, 4), dn(5, -3, -4);
  EXPECT_FLOAT_EQ(SemiPlanarScalarProd(o, x, c, d), 6.0f);
  EXPECT_FLOAT_EQ(SemiPlanarCos2(o, x, c, d), 36.0f / (4.0f * 25.0f));
  EXPECT_FLOAT_EQ(SemiPlanarCos2(o, x, c, dn), -36.0f / (4.0f * 25.0f));
  // A point on the line leaves no part across it.
  EXPECT_EQ(SemiPlanarCos2(o, x, Point3D(7, 0, 0), d), NO_VALUE_MARK);
  // A line whose ends coincide within float precision is degenerate.
  Point3D const big(1000, 1000, 1000), nextToBig(1000.0001f, 1000, 1000);
  EXPECT_EQ(SemiPlanarScalarProd(big, nextToBig, c, d), 0.0f);
  EXPECT_EQ(SemiPlanarCos2(big, nextToBig, c, d), NO_VALUE_MARK);
  EXPECT_EQ(SemiPlanarScalarProd(o, o, c, d), 0.0f);
}

TEST(VectorGeometry, CircumscribeCircleOverloads)
{
  double const a[3] = {0, 0, 0}, b[3] = {2, 0, 0}, c[3] = {0, 2, 0};
  float const fa[3] = {0, 0, 0}, fb[3] = {2, 0, 0}, fc[3] = {0, 2, 0};
  double centre[3], r2 = 0;
  ASSERT_TRUE(CircumscribeCircle(a, b, c, centre, r2));
  EXPECT_DOUBLE_EQ(centre[0], 1.0);
  EXPECT_DOUBLE_EQ(centre[1], 1.0);
  EXPECT_DOUBLE_EQ(centre[2], 0.0);
  EXPECT_DOUBLE_EQ(r2, 2.0) << "the square of the radius";
  ASSERT_TRUE(CircumscribeCircle(fa, fb, fc, centre, r2));
  EXPECT_DOUBLE_EQ(r2, 2.0);
  float fcentre[3], fr2 = 0;
  ASSERT_TRUE(CircumscribeCircle(fa, fb, fc, fcentre, fr2));
  EXPECT_FLOAT_EQ(fcentre[1], 1.0f);
  EXPECT_FLOAT_EQ(fr2, 2.0f);
  Point3D const pts[3] = {Point3D(fa), Point3D(fb), Point3D(fc)};
  Point3D pc;
  ASSERT_TRUE(CircumscribeCircle(pts, pc, fr2));
  EXPECT_FLOAT_EQ(pc.x(), 1.0f);
  EXPECT_FLOAT_EQ(fr2, 2.0f);
  Point3D_d const dpts[3] = {Point3D_d(a), Point3D_d(b), Point3D_d(c)};
  Point3D_d dc;
  ASSERT_TRUE(CircumscribeCircle(dpts, dc, r2));
  EXPECT_DOUBLE_EQ(dc.y(), 1.0);

  // Random triangles in space: the centre is equidistant and in their plane.
  Rng rng;
  for (int rep = 0; rep < 100; ++rep)
  {
    double p[3][3], n[3], e1[3], e2[3], dp[3];
    for (auto & q : p)
      rng.fill(q);
    if (!CircumscribeCircle(p[0], p[1], p[2], centre, r2))
      continue;
    for (auto & q : p)
    {
      for (int i = 0; i < 3; ++i)
        dp[i] = q[i] - centre[i];
      EXPECT_NEAR(dot(dp, dp), r2, 1e-7 * (1 + r2));
    }
    for (int i = 0; i < 3; ++i)
    {
      e1[i] = p[1][i] - p[0][i], e2[i] = p[2][i] - p[0][i], dp[i] = centre[i] - p[0][i];
    }
    cross(e1, e2, n);
    EXPECT_NEAR(dot(n, dp), 0.0, 1e-7 * std::sqrt(dot(n, n) * (1 + r2)));
  }

  // Collinear points fail: the point forms store the mark, the raw forms
  // leave their outputs alone.
  double const l[3][3] = {{0, 0, 0}, {1, 1, 1}, {3, 3, 3}};
  centre[0] = 42, r2 = 42;
  EXPECT_FALSE(CircumscribeCircle(l[0], l[1], l[2], centre, r2));
  EXPECT_EQ(centre[0], 42.0);
  EXPECT_EQ(r2, 42.0);
  Point3D_d const dl[3] = {Point3D_d(l[0]), Point3D_d(l[1]), Point3D_d(l[2])};
  dc = Point3D_d(7.0);
  EXPECT_FALSE(CircumscribeCircle(dl, dc, r2));
  EXPECT_EQ(r2, static_cast<double>(NO_VALUE_MARK));
  EXPECT_EQ(dc.x(), 7.0);
  Point3D const fl[3] = {Point3D(l[0]), Point3D(l[1]), Point3D(l[0])};
  EXPECT_FALSE(CircumscribeCircle(fl, pc, fr2));
  EXPECT_EQ(fr2, NO_VALUE_MARK);

  // A flat triangle of height 0.01 passes the double tolerance but not the
  // float forms' 0.001.
  float const f0[3] = {0, 0, 0}, f1[3] = {1, 0.01f, 0}, f2[3] = {2, 0, 0};
  EXPECT_TRUE(CircumscribeCircle(f0, f1, f2, centre, r2));
  fr2 = 5;
  EXPECT_FALSE(CircumscribeCircle(f0, f1, f2, fcentre, fr2));
  EXPECT_EQ(fr2, 5.0f);
}

TEST(VectorGeometry, PlaneFrameCoordinates)
{
  double const e1[3] = {1, 0, 0}, e2[3] = {1, 2, 0};
  double p[3];
  for (int i = 0; i < 3; ++i)
    p[i] = 2 * e1[i] - 3 * e2[i];
  p[2] = 9; // out of the plane: ignored
  double u = 0, v = 0;
  ASSERT_TRUE(CoordinateRelativeForPlaneReperDbl(p, e1, e2, u, v, 1e-9));
  EXPECT_DOUBLE_EQ(u, 2.0);
  EXPECT_DOUBLE_EQ(v, -3.0);
  double const par[3] = {-2, 0, 0};
  u = v = 11;
  EXPECT_FALSE(CoordinateRelativeForPlaneReperDbl(p, e1, par, u, v, 1e-9));
  EXPECT_EQ(u, 11.0);
  EXPECT_EQ(v, 11.0);
  double const zero[3] = {0, 0, 0};
  EXPECT_FALSE(CoordinateRelativeForPlaneReperDbl(p, zero, e2, u, v, 1e-9));
}

TEST(VectorGeometry, TriangleBulge)
{
  float const a[3] = {1, 2, 0}, b[3] = {0, 0, 0}, c[3] = {4, 0, 0};
  EXPECT_FLOAT_EQ(GetTriangleBulge(a, b, c), 0.25f); // (2 / 4)^2
  float const xs[4] = {9, 0, 1, 4}, ys[4] = {9, 0, 2, 0};
  EXPECT_FLOAT_EQ(GetTriangleBulge2(xs, ys, 2), 0.25f);
  EXPECT_FALSE(std::isfinite(GetTriangleBulge(a, b, b)));
}
