#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "QZmath/Foundation/Quaternion.h"
#include "tests/Common/Checks.h"

using QZTest::expectNear;
using QZTest::product;

namespace
{
struct Rng
{
  std::mt19937 gen{31};
  std::uniform_real_distribution<double> u{-1.0, 1.0};
  Quaternion unit()
  {
    Quaternion q(u(gen), u(gen), u(gen), u(gen));
    q.normalize();
    return q;
  }
};

// q and -q are the same rotation.
void expectSameRotation(const Quaternion & a, const Quaternion & b, double tol)
{
  double const sign = Quaternion::dotProduct(a, b) < 0 ? -1.0 : 1.0;
  EXPECT_TRUE(
      a.areEqualTo(Quaternion(sign * b.getScalar(), sign * b.getX(), sign * b.getY(), sign * b.getZ()), tol))
      << a.getScalar() << " " << a.getX() << " " << a.getY() << " " << a.getZ();
}
} // namespace

TEST(Quaternion, ValuesAndNormalisation)
{
  Quaternion q(0, 3, 0, 4);
  EXPECT_EQ(q.length(), 5.0);
  q.normalize();
  EXPECT_DOUBLE_EQ(q.getZ(), 0.8);
  // Nothing to scale: the identity.
  for (Quaternion bad : {Quaternion(0, 0, 0, 0), Quaternion(std::nan(""), 0, 0, 0)})
  {
    bad.normalize();
    EXPECT_EQ(bad, Quaternion(1, 0, 0, 0));
  }
  EXPECT_TRUE(Quaternion(1, 2, 3, 4).areEqualTo(Quaternion(1.05, 2, 2.95, 4), 0.051));
  EXPECT_FALSE(Quaternion(1, 2, 3, 4).areEqualTo(Quaternion(1, 2, 3, 4.2), 0.1));

  // About y and z the components are stored as computed; about x normalised.
  double const a = 0.7;
  Quaternion y, x;
  y.setToRotateAboutY(a);
  x.setToRotateAboutX(a);
  EXPECT_EQ(y, Quaternion(std::cos(a / 2), 0, std::sin(a / 2), 0));
  EXPECT_TRUE(x.areEqualTo(Quaternion(std::cos(a / 2), std::sin(a / 2), 0, 0), 1e-16));
}

TEST(Quaternion, MatrixConventionAndRoundTrip)
{
  // The scalar's sign is transposed against the usual convention: a turn by
  // a about z gives [[c, s, 0], [-s, c, 0], [0, 0, 1]].
  double const a = 0.4;
  Quaternion z;
  z.setToRotateAboutZ(a);
  CRotationMatrix m;
  z.getRotationMatrix(m);
  double const rows[3][3] = {{std::cos(a), std::sin(a), 0}, {-std::sin(a), std::cos(a), 0}, {0, 0, 1}};
  expectNear(m, CRotationMatrix(rows), 1e-15);

  Quaternion q;
  Rng rng;
  for (int rep = 0; rep < 300; ++rep)
  {
    Quaternion p = rng.unit();
    if (rep % 4 == 1) // near half turns: the other three branches
      p = Quaternion(0.01 * p.getScalar(), p.getX(), p.getY(), p.getZ()), p.normalize();
    p.getRotationMatrix(m);
    expectNear(product(m, m.getTransposed()), CRotationMatrix::Identity(), 1e-14);
    getQuaternionFromMatrix(m, q);
    expectSameRotation(q, p, 1e-14);
  }
  // Each of the four branches, exactly.
  for (Quaternion const & p :
       {Quaternion(1, 0, 0, 0), Quaternion(0, 1, 0, 0), Quaternion(0, 0, 1, 0), Quaternion(0, 0, 0, 1)})
  {
    p.getRotationMatrix(m);
    getQuaternionFromMatrix(m, q);
    EXPECT_EQ(q, p);
  }
}

TEST(Quaternion, ProductMatchesMatrices)
{
  Rng rng;
  for (int rep = 0; rep < 100; ++rep)
  {
    Quaternion const a = rng.unit(), b = rng.unit();
    CRotationMatrix ma, mb, mab;
    a.getRotationMatrix(ma);
    b.getRotationMatrix(mb);
    (a * b).getRotationMatrix(mab);
    // With the transposed matrix convention the product maps to the matrix
    // product in the same order.
    expectNear(mab, product(ma, mb), 1e-14);
    EXPECT_NEAR((a * b).length(), 1.0, 1e-14);
  }
}

TEST(Quaternion, EulerAngles)
{
  std::mt19937 gen(3);
  std::uniform_real_distribution<double> outer(-3.1, 3.1), middle(0.05, 3.09);
  for (int rep = 0; rep < 50; ++rep)
  {
    // The same rotation as the Euler matrix, and the angles back.
    double const angles[3] = {outer(gen), middle(gen), outer(gen)};
    Quaternion const q(angles[0], angles[1], angles[2]);
    CRotationMatrix e, m;
    makeEulerMatrix(e, angles);
    q.getRotationMatrix(m);
    expectNear(m, e, 1e-14);
    double b[3];
    q.getEulerAngle(b[0], b[1], b[2]);
    for (int i = 0; i < 3; ++i)
      EXPECT_NEAR(b[i], angles[i], 1e-9);
  }
}

TEST(Quaternion, Slerp)
{
  Rng rng;
  Quaternion const a = rng.unit(), b = rng.unit();
  EXPECT_EQ(Quaternion::slerp(a, b, -1.0), a);
  EXPECT_EQ(Quaternion::slerp(a, b, 2.0), b);
  // The shorter arc: -turn is the same rotation, and gives the same blend.
  Quaternion turn, half;
  turn.setToRotateAboutZ(1.2);
  half.setToRotateAboutZ(0.6);
  Quaternion const negTurn(-turn.getScalar(), -turn.getX(), -turn.getY(), -turn.getZ());
  EXPECT_TRUE(Quaternion::slerp(Quaternion(), negTurn, 0.5).areEqualTo(half, 1e-15));

  for (int rep = 0; rep < 100; ++rep)
  {
    Quaternion const p = rng.unit(), q = rng.unit();
    double const t = (rep + 0.5) / 100.0;
    Quaternion const s = Quaternion::slerp(p, q, t);
    EXPECT_NEAR(s.length(), 1.0, 1e-12);
    // Angles along the arc are proportional to t.
    double const whole = std::acos(std::fabs(Quaternion::dotProduct(p, q)));
    EXPECT_NEAR(std::acos(std::min(1.0, std::fabs(Quaternion::dotProduct(p, s)))), t * whole, 1e-7);
  }

  // Nearly equal quaternions: the plain linear blend, not normalised.
  Quaternion const c(1, 0, 0, 0), d(0.99999, 0.004, 0, 0);
  EXPECT_EQ(Quaternion::slerp(c, d, 0.25),
            Quaternion(0.75 * 1 + 0.25 * 0.99999, 0.75 * 0 + 0.25 * 0.004, 0, 0));
}
