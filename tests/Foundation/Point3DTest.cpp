#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>

#include "QZmath/Foundation/Point3D.h"

using namespace REmath;

// Float points take double operands in double and round once: the length is
// summed in float and inverted in double.
TEST(Point3D, MixedPrecisionRule)
{
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> u(-10.f, 10.f);
  for (int i = 0; i < 1000; ++i)
  {
    Point3D p(u(rng), u(rng), u(rng));
    float const n2 = p.x() * p.x() + p.y() * p.y() + p.z() * p.z();
    double const inv = 1.0 / std::sqrt(static_cast<double>(n2));
    Point3D const n = p.unitLength();
    EXPECT_TRUE(n.x() == static_cast<float>(p.x() * inv) && n.y() == static_cast<float>(p.y() * inv) &&
                n.z() == static_cast<float>(p.z() * inv));
  }
  Point3D z(0);
  z.normalize();
  EXPECT_TRUE(std::isnan(z.x()));
}

TEST(HPoint3D, OrderComparesNorm2SquaredInFloatAndSummedInDouble)
{
  HPoint3D a(1, 2, 2, 9), b(3, 0, 0, 0);
  EXPECT_TRUE(!(a < b) && !(b < a) && a <= b && a >= b && a != b) << "equal norms, different points";
  EXPECT_TRUE(HPoint3D(1, 1, 1, 0) < HPoint3D(0, 0, 2, 0) && HPoint3D(0, 0, 2, 0) > HPoint3D(-1, 1, 1, 100));
  // 4097^2 rounds in float to 16785408; that plus 1 summed in double is
  // 16785409, which neither a float sum nor double squares give.
  EXPECT_EQ(HPoint3D(4097, 1, 0, 0).norm2(), 16785409.0);
}

TEST(NormalizeVector, GuardsZeroAndScalesInDouble)
{
  float z[3] = {0, 0, 0};
  EXPECT_EQ(NormalizeVector(z), 0.0);
  EXPECT_TRUE(z[0] == 0.f && z[2] == 0.f);

  float v[3] = {3, 4, 12};
  EXPECT_TRUE(NormalizeVector(v) == 13.0 && v[0] == static_cast<float>(3.0 / 13.0));
  // tiny float vectors whose float square would underflow still normalise
  float tiny[3] = {1e-30f, 0, 0};
  NormalizeVector(tiny);
  EXPECT_FLOAT_EQ(tiny[0], 1.f);
}

TEST(NoValueMark, BitsOfTheMagicNumber)
{
  float const m = NO_VALUE_MARK;
  std::uint32_t bits;
  std::memcpy(&bits, &m, sizeof bits);
  EXPECT_EQ(bits, 0x606710AFu);
  EXPECT_TRUE(isNoValueMark(6.66e19) && !isNoValueMark(6.6e19));
}

namespace
{
__attribute__((noinline)) void fillPosition(double * p)
{
  p[0] = 1.2684966, p[1] = -0.2685777, p[2] = -0.244;
}
} // namespace

// Our targets are built so that rounding to float survives the optimiser: a
// float widened back to double keeps the float's value. (g++ 12's straight-line
// vectorizer used to fold the round trip away in exactly this shape.)
TEST(FloatingPoint, RoundingToFloatSurvivesTheOptimiser)
{
  double pos[3];
  fillPosition(pos);
  float const pf[3] = {static_cast<float>(pos[0] + 0.01), static_cast<float>(pos[1] - 0.02),
                       static_cast<float>(pos[2] + 0.003)};
  double const pd[3] = {pf[0], pf[1], pf[2]};
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(pd[i], static_cast<double>(pf[i]));
  EXPECT_NE(pd[0], pos[0] + 0.01);
}
