#include <gtest/gtest.h>

#include <random>

#include "QZmath/VolTriang/Polynom.h"
#include "tests/VolTriang/PolynomTestSupport.h"

using namespace qztest::poly;
using namespace VolTr;

namespace
{
CPolynom term(double w, int a, int b, int c) { return CPolynom(CWeightedMonom(w, CMonom(a, b, c))); }
} // namespace

// Exact cancellations, which random polynomials never reach, take their
// terms away and lower the degree as far as the remaining terms allow.
TEST(Polynom, CancelledTermsLeaveAndTheDegreeFollows)
{
  auto shape = [](CPolynom const & x) { return std::make_pair(x.getSummandNumber(), x.power()); };
  CPolynom p = term(1.0, 2, 0, 0) + term(1.0, 0, 1, 0);
  CPolynom q = p;
  p.insertWeightedMonom(CWeightedMonom(-1.0, CMonom(2, 0, 0))); // cancels the top term
  EXPECT_EQ(shape(p), std::make_pair(1, 1));
  q.insertWeightedMonom(CWeightedMonom(-1.0, CMonom(0, 1, 0))); // cancels a lower one
  EXPECT_EQ(shape(q), std::make_pair(1, 2));
  q.insertWeightedMonom(CWeightedMonom(0.0, CMonom(0, 0, 3)));
  q += q; // 0 + 0 erases the zero term; losing z^3 lowers the degree
  EXPECT_EQ(shape(q), std::make_pair(1, 2));
  EXPECT_TRUE(q.checkClassInvariants());

  // (x + y)(x - y): the mixed terms cancel exactly and disappear.
  CPolynom const s = term(1, 1, 0, 0) + term(1, 0, 1, 0), d = term(1, 1, 0, 0) + term(-1, 0, 1, 0);
  CPolynom const sd = s * d;
  ASSERT_EQ(sd.getSummandNumber(), 2);
  EXPECT_EQ(sd.getSummand(0).getMonomRef(), CMonom(0, 2, 0));
  EXPECT_EQ(sd.getSummand(0).getCoeff(), -1.0);
  EXPECT_EQ(sd.getSummand(1).getMonomRef(), CMonom(2, 0, 0));
  CPolynom z = sd;
  z *= CMonom(0, 0, 1);
  EXPECT_EQ(z.power(), 3);
  EXPECT_TRUE(z.checkClassInvariants());
}

TEST(Polynom, AlgebraAgreesWithValuesOnRandomPolynomials)
{
  std::mt19937 rng(31);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  CPolynom acc, scratch;
  for (int round = 0; round < 30; ++round)
  {
    CPolynom const p = randomPolynom3(rng, 1 + round % 7, 2), q = randomPolynom3(rng, 1 + round % 4, 3);
    double const c[3] = {u(rng), u(rng), u(rng)}, s[3] = {u(rng), 2 * u(rng), u(rng)};
    CPolynom const sum = p + q, prod = p * q;
    CPolynom shifted(p), scaled(p);
    shifted.substituteArgPlusConstWithBuffers(c, &acc, &scratch);
    scaled.scaleArgument(s);
    for (CPolynom const * x : std::initializer_list<CPolynom const *>{&sum, &prod, &shifted, &scaled, &acc})
      EXPECT_TRUE(x->checkClassInvariants());
    EXPECT_EQ(shifted.power(), p.power());
    for (int i = 0; i < 10; ++i)
    {
      double const x[3] = {u(rng), u(rng), u(rng)};
      double const xc[3] = {x[0] + c[0], x[1] + c[1], x[2] + c[2]};
      double const xs[3] = {s[0] * x[0], s[1] * x[1], s[2] * x[2]};
      EXPECT_TRUE(near(sum.eval(x), p.eval(x) + q.eval(x), 1e-13, 1e-13));
      EXPECT_TRUE(near(prod.eval(x), p.eval(x) * q.eval(x), 1e-12, 1e-12));
      EXPECT_TRUE(near(shifted.eval(x), p.eval(xc), 1e-12, 1e-12));
      EXPECT_TRUE(near(scaled.eval(x), p.eval(xs), 1e-13, 1e-13));
    }
    CParallelepiped const box(-0.5, 1.0, c[0], c[0] + 1.0, -1.0, s[2]);
    std::vector<double> const breaks[3] = {{-0.5, 1.0}, {c[0], c[0] + 1.0}, {-1.0, s[2]}};
    double const quad = integrate3D([&](double const * x) { return prod.eval(x); }, breaks);
    EXPECT_TRUE(near(prod.integrateOnBox(box), quad, 1e-11, 1e-12));
  }
}
