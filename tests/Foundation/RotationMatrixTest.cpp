#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "QZmath/Foundation/RotationMatrix.h"
#include "tests/Common/Checks.h"

using REmath::Point3D_d;

using QZTest::expectNear;
using QZTest::product;

namespace
{
CRotationMatrix randomMatrix(std::mt19937 & rng)
{
  std::uniform_real_distribution<double> u(-2.0, 2.0);
  CRotationMatrix r;
  for (auto & row : r.m)
    for (double & v : row)
      v = u(rng);
  return r;
}
} // namespace

TEST(RotationMatrix, RowsColumnsAndArithmetic)
{
  Point3D_d const r0(1, 2, 3), r1(4, 5, 6), r2(7, 8, 10);
  CRotationMatrix const a = CRotationMatrix::buildFromRows(r0, r1, r2);
  EXPECT_EQ(a.m[1][2], 6.0);
  EXPECT_EQ(a.getColumn(0).y(), 4.0);
  CRotationMatrix acc = CRotationMatrix::buildFromColumns(r0, r1, r2);
  acc += a;
  expectNear(acc, a + a.getTransposed(), 0);
  EXPECT_EQ((a / 3.0).m[0][0], 1.0 / 3.0) << "a true division";
  expectNear(CRotationMatrix(), CRotationMatrix::Identity(), 0);
}

TEST(RotationMatrix, SelfAdjointTolerances)
{
  EXPECT_TRUE(CRotationMatrix::Zero().isSelfAdjoint()) << "0 <= 0 passes the relative test";
  CRotationMatrix m;
  m.m[0][2] = 1.0;
  m.m[2][0] = 1.0000001;
  EXPECT_TRUE(m.isSelfAdjointAsFloats());
  EXPECT_FALSE(m.isSelfAdjoint());
  EXPECT_TRUE(IsSelfAdjoint(m));
  // Large entries: relative float tolerance passes, absolute does not.
  m.m[0][2] = 1e8;
  m.m[2][0] = 1e8 + 1;
  EXPECT_TRUE(m.isSelfAdjointAsFloats());
  EXPECT_FALSE(IsSelfAdjoint(m));
  // Small entries: the reverse.
  m.m[0][2] = 1e-9;
  m.m[2][0] = 2e-9;
  EXPECT_FALSE(m.isSelfAdjointAsFloats());
  EXPECT_TRUE(IsSelfAdjoint(m));
  m.m[0][2] = m.m[2][0] = 5;
  m.m[1][2] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_FALSE(m.isSelfAdjoint());
}

TEST(RotationMatrix, Inversion)
{
  std::mt19937 rng(2);
  for (int rep = 0; rep < 50; ++rep)
  {
    CRotationMatrix const a = randomMatrix(rng);
    CRotationMatrix inv;
    ASSERT_TRUE(invertMatrix(a, inv));
    expectNear(product(a, inv), CRotationMatrix::Identity(), 1e-9);
    expectNear(product(inv, a), CRotationMatrix::Identity(), 1e-9);
  }
  CRotationMatrix out = CRotationMatrix::Identity() * 7.0;
  EXPECT_FALSE(invertMatrix(CRotationMatrix::Zero(), out));
  EXPECT_EQ(out.m[0][0], 7.0) << "untouched on failure";
  CRotationMatrix const rankTwo =
      CRotationMatrix::buildFromRows(Point3D_d(1, 2, 3), Point3D_d(2, 4, 6), Point3D_d(0, 1, 0));
  EXPECT_FALSE(invertMatrix(rankTwo, out));
}

TEST(RotationMatrix, EigenvectorsOfSelfAdjoint)
{
  std::mt19937 rng(8);
  for (int rep = 0; rep < 50; ++rep)
  {
    CRotationMatrix a = randomMatrix(rng);
    a = a + a.getTransposed();
    Point3D_d v[3];
    double values[3];
    GetEigenVectorsSA(a, v, values, rep % 2 == 0);
    for (int k = 0; k < 3; ++k)
    {
      EXPECT_NEAR(v[k].length(), 1.0, 1e-12);
      for (int i = 0; i < 3; ++i)
      {
        double const av = a.m[i][0] * v[k].x() + a.m[i][1] * v[k].y() + a.m[i][2] * v[k].z();
        EXPECT_NEAR(av, values[k] * v[k].asArray()[i], 1e-11);
      }
    }
  }
  // The solver's order, not sorted: a diagonal comes back as it stands.
  double const diag[3][3] = {{5, 0, 0}, {0, -2, 0}, {0, 0, 3}};
  Point3D_d v[3];
  double values[3];
  GetEigenVectorsSA(CRotationMatrix(diag), v, values, false);
  EXPECT_EQ(values[1], -2.0);
  EXPECT_EQ(v[1].y(), 1.0);

  CRotationMatrix bad;
  bad.m[0][1] = bad.m[1][0] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(QZTest::whatOf<std::runtime_error>([&] { GetEigenVectorsSA(bad, v, values, true); }),
            "GetEigenVectorsSA failed");
}

TEST(RotationMatrix, EulerAngles)
{
  double a0 = 9, a1 = 9, a2 = 9;
  getEulerAnglesFromMatrix(CRotationMatrix::Identity(), a0, a1, a2);
  EXPECT_TRUE(a0 == 0.0 && a1 == 0.0 && a2 == 0.0);
  // Half a turn about x: diag(1, -1, -1).
  CRotationMatrix flip = CRotationMatrix::Zero();
  flip.m[0][0] = 1, flip.m[1][1] = -1, flip.m[2][2] = -1;
  getEulerAnglesFromMatrix(flip, a0, a1, a2);
  EXPECT_DOUBLE_EQ(a1, M_PI);
  EXPECT_EQ(a2, 0.0);
  // m22 slightly beyond 1 is clamped, not NaN.
  CRotationMatrix over;
  over.m[2][2] = 1.0 + 1e-15;
  getEulerAnglesFromMatrix(over, a0, a1, a2);
  EXPECT_EQ(a1, 0.0);

  std::mt19937 rng(6);
  std::uniform_real_distribution<double> outer(-3.1, 3.1), middle(0.05, 3.09);
  for (int rep = 0; rep < 200; ++rep)
  {
    double const angles[3] = {outer(rng), middle(rng), outer(rng)};
    CRotationMatrix m;
    makeEulerMatrix(m, angles);
    expectNear(product(m, m.getTransposed()), CRotationMatrix::Identity(), 1e-14);
    getEulerAnglesFromMatrix(m, a0, a1, a2);
    EXPECT_NEAR(a0, angles[0], 1e-9);
    EXPECT_NEAR(a1, angles[1], 1e-9);
    EXPECT_NEAR(a2, angles[2], 1e-9);
  }
  // The z-y-z order: with a1 = 0 the outer angles add up about z.
  double const zOnly[3] = {0.3, 0.0, 0.4};
  CRotationMatrix m;
  makeEulerMatrix(m, zOnly);
  getEulerAnglesFromMatrix(m, a0, a1, a2);
  EXPECT_NEAR(a0, 0.7, 1e-15);
  EXPECT_EQ(a2, 0.0);
}
