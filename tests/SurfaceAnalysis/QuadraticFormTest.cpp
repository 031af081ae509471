#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "QZmath/SurfaceAnalysis/QuadraticForm.h"
#include "SurfaceSamples.h"

using REmath::Point3D_d;
using SurfTest::raw10;

namespace
{
double const C[10] = {1.5, -2.0, 0.25, 3.0, 4.0, -1.0, 0.5, 0.75, -0.125, 2.5};
} // namespace

TEST(QuadraticForm, CoefficientArraysAndAccessors)
{
  // Mixed coefficients are halved into both mirror entries and summed back.
  CQuadraticForm const f = CQuadraticForm::buildFromCoeffArray(10, C);
  EXPECT_EQ(f.GetQuadaricTerm().m[1][0], -1.0);
  EXPECT_EQ(raw10(f), std::vector<double>(C, C + 10));
  CQuadFormRaw9<float> raw9;
  f.ConvertToRawFormat(raw9);
  EXPECT_EQ(std::vector<float>(raw9, raw9 + 9), std::vector<float>(C, C + 9));
  // buildFromCoefficients takes the three squares first.
  EXPECT_EQ(raw10(CQuadraticForm::buildFromCoefficients(C[0], C[3], C[5], C[1], C[2], C[4], C[6], C[7], C[8],
                                                        C[9])),
            std::vector<double>(C, C + 10));

  // Short arrays leave the later coefficients 0.
  float const cf[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  EXPECT_EQ(raw10(CQuadraticForm::buildFromCoeffArray(9, cf)),
            (std::vector<double>{1, 2, 3, 4, 5, 6, 7, 8, 9, 0}));
  EXPECT_EQ(raw10(CQuadraticForm::buildFromCoeffArray(6, cf)),
            (std::vector<double>{1, 2, 3, 4, 5, 6, 0, 0, 0, 0}));
  // The default form is the identity with no linear or free term.
  EXPECT_EQ(CQuadraticForm().eval(Point3D_d(1.0, 2.0, 2.0)), 9.0);
}

TEST(QuadraticForm, SolvingForZ)
{
  // x^2 + y^2 + (z - 3)^2 = 1.
  CQuadraticForm const s = CQuadraticForm::buildFromCoefficients(1, 1, 1, 0, 0, 0, 0, 0, -6, 8);
  double z1 = -7, z2 = -7;
  ASSERT_EQ(s.calculateZByXY(0.0, 0.0, z1, z2), CQuadraticForm::CalcZTwo);
  EXPECT_TRUE(z1 == 2.0 && z2 == 4.0) << z1 << " " << z2; // the root nearer to z = 0 first
  // Sorted by the gradient: z1 where the gradient points along dir.
  s.calculateZByXYSortedByGrad(0.0, 0.0, z1, z2, Point3D_d(0.0, 0.0, 5.0));
  EXPECT_DOUBLE_EQ(z1, 4.0);
  s.calculateZByXYSortedByGrad(0.0, 0.0, z1, z2, Point3D_d(0.0, 0.0, -1.0));
  EXPECT_DOUBLE_EQ(z1, 2.0);
  // One variable for both outputs keeps the second formula's root.
  double same = 0.0;
  s.calculateZByXY(0.0, 0.0, same, same);
  EXPECT_DOUBLE_EQ(same, 2.0);
  EXPECT_TRUE(s.calculateZByXY(1.0, 0.0, z1, z2) == CQuadraticForm::CalcZTwo && z1 == z2); // tangent
  z1 = z2 = -7;
  EXPECT_EQ(s.calculateZByXY(2.0, 0.0, z1, z2), CQuadraticForm::CalcZNone);
  EXPECT_EQ(z1 + z2, -14.0); // untouched

  // No z^2 term: one root, z2 untouched; no z at all: every z, or none.
  CQuadraticForm const plane = CQuadraticForm::buildFromCoefficients(0, 0, 0, 0, 0, 0, 1, 0, 2, -4);
  ASSERT_EQ(plane.calculateZByXY(2.0, 5.0, z1, z2), CQuadraticForm::CalcZOne);
  EXPECT_DOUBLE_EQ(z1, 1.0);
  EXPECT_EQ(z2, -7.0);
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
  // A turned, moved and scaled frame: the form in frame coordinates y has the
  // value of the original at x = A y + t.
  auto scaled = [](Point3D_d v, double s) { return v.unitLength() *= s; };
  COrthoNormBasis const basis = COrthoNormBasis::buildByOrthsAndOrigin(
      scaled(Point3D_d(1.0, 2.0, 0.5), 2.0), scaled(Point3D_d(-2.0, 1.0, 0.0), 0.5),
      scaled(Point3D_d(-0.4, -0.2, 2.0), 3.0), Point3D_d(1.0, -3.0, 0.7));
  CQuadraticForm const g = f.getTransformedToBasis(basis);
  for (int rep = 0; rep < 20; ++rep)
  {
    Point3D_d const y(u(rng), u(rng), u(rng));
    double const fx = f.eval(basis.transformCoordsFromBasis(y));
    EXPECT_NEAR(g.eval(y), fx, 1e-10 * (1.0 + std::fabs(fx)));
  }
  EXPECT_TRUE(g.GetQuadaricTerm().isSelfAdjoint());

  // The world frame gives the same form, with Q symmetrised.
  CQuadraticForm h = f;
  h.GetQuadaricTerm().m[0][2] += 1.0;
  h.GetQuadaricTerm().m[2][0] -= 1.0;
  CQuadraticForm const id = h.getTransformedToBasis(COrthoNormBasis());
  EXPECT_THAT(raw10(id), testing::Pointwise(testing::DoubleNear(1e-14), raw10(f)));
  EXPECT_EQ(id.GetQuadaricTerm().m[0][2], id.GetQuadaricTerm().m[2][0]);
}
