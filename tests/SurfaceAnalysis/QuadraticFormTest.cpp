#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "QZmath/SurfaceAnalysis/QuadraticForm.h"
#include "QZsys/Exceptions.h"

using REmath::Point3D_d;

namespace
{
// x^2 + y^2 + (z - 3)^2 - 1: a unit sphere centred at (0, 0, 3).
CQuadraticForm unitSphereAt3()
{
  return CQuadraticForm::buildFromCoefficients(1, 1, 1, 0, 0, 0, 0, 0, -6, 8);
}

double monomialValue(const double * c, const Point3D_d & p)
{
  double const x = p.x(), y = p.y(), z = p.z();
  return c[0] * x * x + c[1] * x * y + c[2] * x * z + c[3] * y * y + c[4] * y * z + c[5] * z * z + c[6] * x +
         c[7] * y + c[8] * z + c[9];
}
} // namespace

TEST(QuadraticForm, RawArraysRoundTripAndAccessors)
{
  double const c[10] = {1.5, -2.0, 0.25, 3.0, 4.0, -1.0, 0.5, 0.75, -0.125, 2.5};
  CQuadraticForm const f = CQuadraticForm::buildFromCoeffArray(10, c);
  // The mixed coefficients are halved into both mirror entries.
  EXPECT_EQ(f.GetQuadaricTerm().m[0][1], -1.0);
  EXPECT_EQ(f.GetQuadaricTerm().m[1][0], -1.0);
  EXPECT_EQ(f.getKXY(), -2.0);
  EXPECT_EQ(f.getKYZ(), 4.0);
  EXPECT_EQ(f.getKZ(), -0.125);
  EXPECT_EQ(f.getK(), 2.5);
  CQuadFormRaw10<double> raw10;
  f.ConvertToRawFormat(raw10);
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(raw10[i], c[i]);
  CQuadFormRaw9<float> raw9;
  f.ConvertToRawFormat(raw9);
  for (int i = 0; i < 9; ++i)
    EXPECT_EQ(raw9[i], static_cast<float>(c[i]));
  // The argument order of buildFromCoefficients puts the squares first.
  CQuadraticForm const g =
      CQuadraticForm::buildFromCoefficients(c[0], c[3], c[5], c[1], c[2], c[4], c[6], c[7], c[8], c[9]);
  EXPECT_EQ(g.GetQuadaricTerm().m[1][2], f.GetQuadaricTerm().m[1][2]);
  EXPECT_EQ(g.getKYY(), 3.0);

  // Short arrays leave the later coefficients 0; float arrays work alike.
  float const cf[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  CQuadraticForm const nine = CQuadraticForm::buildFromCoeffArray(9, cf);
  EXPECT_EQ(nine.getKZ(), 9.0);
  EXPECT_EQ(nine.getK(), 0.0);
  CQuadraticForm const six = CQuadraticForm::buildFromCoeffArray(6, cf);
  EXPECT_EQ(six.getKZZ(), 6.0);
  EXPECT_EQ(six.GetLinearTerm().length(), 0.0);
  EXPECT_EQ(six.getK(), 0.0);

  // The default form: the identity, no linear or free term.
  CQuadraticForm const d;
  EXPECT_EQ(d.getKXX() + d.getKYY() + d.getKZZ(), 3.0);
  EXPECT_EQ(d.getKXY() + d.getKXZ() + d.getKYZ() + d.getK(), 0.0);
}

TEST(QuadraticForm, EvaluationAndGradient)
{
  double const c[10] = {1.5, -2.0, 0.25, 3.0, 4.0, -1.0, 0.5, 0.75, -0.125, 2.5};
  CQuadraticForm f = CQuadraticForm::buildFromCoeffArray(10, c);
  Point3D_d const p(0.3, -1.2, 2.0);
  EXPECT_NEAR(f.eval(p), monomialValue(c, p), 1e-12);
  // The gradient against central differences.
  Point3D_d const g = f.evalGradient(p);
  for (int k = 0; k < 3; ++k)
  {
    Point3D_d a = p, b = p;
    a.asArray()[k] += 1e-6, b.asArray()[k] -= 1e-6;
    EXPECT_NEAR(g.asArray()[k], (monomialValue(c, a) - monomialValue(c, b)) / 2e-6, 1e-6);
  }
  // A non-symmetric Q: eval reads all nine entries, the gradient rows only.
  f.GetQuadaricTerm().m[0][1] = 1.0;
  f.GetQuadaricTerm().m[1][0] = -3.0;
  EXPECT_NEAR(f.eval(p), monomialValue(c, p), 1e-12); // the sum of the pair is unchanged
  EXPECT_EQ(f.evalGradient(p).x(), 2.0 * (1.5 * 0.3 + 1.0 * -1.2 + 0.125 * 2.0) + 0.5);
}

TEST(QuadraticForm, SolvingForZ)
{
  CQuadraticForm const s = unitSphereAt3();
  double z1 = -7, z2 = -7;
  // Two roots, the one nearer to z = 0 first.
  ASSERT_EQ(s.calculateZByXY(0.0, 0.0, z1, z2), CQuadraticForm::CalcZTwo);
  EXPECT_DOUBLE_EQ(z1, 2.0);
  EXPECT_DOUBLE_EQ(z2, 4.0);
  // Sorted by the gradient: z1 where the gradient points along dir.
  ASSERT_EQ(s.calculateZByXYSortedByGrad(0.0, 0.0, z1, z2, Point3D_d(0.0, 0.0, 5.0)),
            CQuadraticForm::CalcZTwo);
  EXPECT_DOUBLE_EQ(z1, 4.0);
  ASSERT_EQ(s.calculateZByXYSortedByGrad(0.0, 0.0, z1, z2, Point3D_d(0.0, 0.0, -1.0)),
            CQuadraticForm::CalcZTwo);
  EXPECT_DOUBLE_EQ(z1, 2.0);
  // One variable for both outputs keeps the second formula's root.
  double same = 0.0;
  s.calculateZByXY(0.0, 0.0, same, same);
  EXPECT_DOUBLE_EQ(same, 2.0);
  // Tangent: a double root.
  ASSERT_EQ(s.calculateZByXY(1.0, 0.0, z1, z2), CQuadraticForm::CalcZTwo);
  EXPECT_EQ(z1, z2);
  EXPECT_DOUBLE_EQ(z1, 3.0);
  // Outside: no root, outputs untouched.
  z1 = z2 = -7;
  EXPECT_EQ(s.calculateZByXY(2.0, 0.0, z1, z2), CQuadraticForm::CalcZNone);
  EXPECT_EQ(z1, -7.0);
  EXPECT_EQ(z2, -7.0);

  // No z^2 term: the plane x + 2z - 4 = 0 has one root, z2 untouched.
  CQuadraticForm const plane = CQuadraticForm::buildFromCoefficients(0, 0, 0, 0, 0, 0, 1, 0, 2, -4);
  ASSERT_EQ(plane.calculateZByXY(2.0, 5.0, z1, z2), CQuadraticForm::CalcZOne);
  EXPECT_DOUBLE_EQ(z1, 1.0);
  EXPECT_EQ(z2, -7.0);
  // No z at all: every z, or none.
  CQuadraticForm const cyl = CQuadraticForm::buildFromCoefficients(1, 1, 0, 0, 0, 0, 0, 0, 0, -1);
  z1 = -7;
  EXPECT_EQ(cyl.calculateZByXY(1.0, 0.0, z1, z2), CQuadraticForm::CalcZAny);
  EXPECT_EQ(cyl.calculateZByXY(0.5, 0.0, z1, z2), CQuadraticForm::CalcZNone);
  EXPECT_EQ(z1, -7.0);
}

TEST(QuadraticForm, TransformToBasisKeepsTheSurface)
{
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> u(-2.0, 2.0);
  double c[10];
  for (double & v : c)
    v = u(rng);
  CQuadraticForm const f = CQuadraticForm::buildFromCoeffArray(10, c);

  // A turned, moved and scaled frame: the form in frame coordinates y has
  // the value of the original at x = A y + t.
  auto scaled = [](Point3D_d v, double s) { return v.unitLength() *= s; };
  Point3D_d const e0 = scaled(Point3D_d(1.0, 2.0, 0.5), 2.0);
  Point3D_d const e1 = scaled(Point3D_d(-2.0, 1.0, 0.0), 0.5);
  Point3D_d const e2 = scaled(Point3D_d(-0.4, -0.2, 2.0), 3.0);
  Point3D_d const origin(1.0, -3.0, 0.7);
  COrthoNormBasis const basis = COrthoNormBasis::buildByOrthsAndOrigin(e0, e1, e2, origin);
  CQuadraticForm const g = f.getTransformedToBasis(basis);
  for (int rep = 0; rep < 20; ++rep)
  {
    Point3D_d const y(u(rng), u(rng), u(rng));
    Point3D_d const x = basis.transformCoordsFromBasis(y);
    EXPECT_NEAR(g.eval(y), f.eval(x), 1e-10 * (1.0 + std::fabs(f.eval(x))));
  }
  EXPECT_TRUE(g.GetQuadaricTerm().isSelfAdjoint());

  // The world frame gives the same form, with Q symmetrised.
  CQuadraticForm h = f;
  h.GetQuadaricTerm().m[0][2] += 1.0;
  h.GetQuadaricTerm().m[2][0] -= 1.0;
  CQuadraticForm const id = h.getTransformedToBasis(COrthoNormBasis());
  CQuadFormRaw10<double> a, b;
  f.ConvertToRawFormat(a);
  id.ConvertToRawFormat(b);
  for (int i = 0; i < 10; ++i)
    EXPECT_NEAR(a[i], b[i], 1e-14);
  EXPECT_EQ(id.GetQuadaricTerm().m[0][2], id.GetQuadaricTerm().m[2][0]);
}
