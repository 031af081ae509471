#include <gtest/gtest.h>

#include <stdexcept>

#include "QZmath/VolTriang/SingleVarPolynom.h"
#include "tests/Common/Checks.h"
#include "tests/VolTriang/PolynomTestSupport.h"

using namespace VolTr;
using namespace qztest::poly;

TEST(SingleVarPolynom, AlgebraAgreesWithPointwiseValues)
{
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> ux(-1.5, 1.5), ua(-1.0, 1.0);
  for (int round = 0; round < 50; ++round)
  {
    CSingleVarPolynom const p = randomPolynom(rng, round % 6), q = randomPolynom(rng, (round / 6) % 5);
    double const a = ua(rng), s = ua(rng);
    CSingleVarPolynom pq, dp, shifted(p), scaled(p), prim;
    p.multiply(&pq, q);
    p.makeDerivative(&dp);
    p.makePrimitive(&prim);
    shifted.substituteArgPlusConst(a);
    scaled.scaleArgument(s);
    for (int i = 0; i < 10; ++i)
    {
      double const x = ux(rng);
      double naive = 0.0; // by powers, not by Horner
      for (int k = 0; k <= p.power(); ++k)
        naive += p.getCoeff(k) * std::pow(x, static_cast<double>(k));
      EXPECT_TRUE(near(p.eval(x), naive));
      EXPECT_TRUE(near(pq.eval(x), p.eval(x) * q.eval(x), 1e-12, 1e-12));
      EXPECT_TRUE(near(shifted.eval(x), p.eval(x + a), 1e-12, 1e-12));
      EXPECT_TRUE(near(scaled.eval(x), p.eval(s * x), 1e-12, 1e-12));
      double const h = 1e-5;
      EXPECT_TRUE(near(dp.eval(x), (p.eval(x + h) - p.eval(x - h)) / (2 * h), 1e-7, 1e-7));
    }
    double const lo = ux(rng), hi = ux(rng);
    double const quad = integrate1D([&](double x) { return p.eval(x); }, {lo, hi}) * (hi < lo ? -1.0 : 1.0);
    EXPECT_TRUE(near(p.integrateOnIntervalWithBuffer(lo, hi, &prim), quad, 1e-12, 1e-13));
  }
}

TEST(SingleVarPolynom, ExactForms)
{
  // x^3 shifted by 2 lays out the binomial rows: 8 + 12x + 6x^2 + x^3.
  double const x3[4] = {0.0, 0.0, 0.0, 1.0};
  CSingleVarPolynom cube(4, x3);
  cube.substituteArgPlusConst(2.0);
  EXPECT_EQ(cube.getCoeffs(), (std::vector<double>{8.0, 12.0, 6.0, 1.0}));

  double const c[2] = {3.0, 1.0};
  CSingleVarPolynom p(2, c);
  p.scaleArgument(0.0);
  EXPECT_EQ(p.getCoeffs(), std::vector<double>{3.0});

  CSingleVarPolynom z(2, c), prod;
  z *= 0.0;
  CSingleVarPolynom(2, c).multiply(&prod, z);
  EXPECT_EQ((std::vector<double>{double(z.power()), z.eval(5.0), double(prod.power())}),
            (std::vector<double>{-1.0, 0.0, -1.0}));
  // A product into one of its own operands.
  CSingleVarPolynom self(2, c);
  self.multiply(&self, self);
  EXPECT_EQ(self.getCoeffs(), (std::vector<double>{9.0, 6.0, 1.0}));
  // From degree 33 on the 32-bit binomial factor of the in-place shift wraps
  // around; the shift must still run through, with the rows that fit exact.
  std::vector<double> x33(34, 0.0);
  x33[33] = 1.0;
  CSingleVarPolynom high(34, x33.data());
  high.substituteArgPlusConst(1.0);
  EXPECT_EQ(std::vector<double>(high.getCoeffs().end() - 3, high.getCoeffs().end()),
            (std::vector<double>{528.0, 33.0, 1.0}));
}

TEST(SingleVarLimitedPolynom, RefusedArgumentsAndBoundaryConventions)
{
  CSingleVarPolynom const one[2] = {CSingleVarPolynom(1, std::vector<double>{7.0}.data()),
                                    CSingleVarPolynom(1, std::vector<double>{9.0}.data())};
  double const same[2] = {0.0, 0.0};
  EXPECT_EQ(QZTest::whatOf<std::exception>([&] { CSingleVarLimitedPolynom(0.0, 1, one, 2, same); }),
            "VolTr::CSingleVarLimitedPolynom: ctor fails");
  double const k01[2] = {0.0, 1.0}, k3[3] = {0.0, 1.0, 2.0}, nan3[3] = {0.0, std::nan(""), 2.0};
  CSingleVarLimitedPolynom f(0.5, 1, one, 2, k01);
  CSingleVarLimitedPolynom const before(f);
  EXPECT_EQ((std::vector<bool>{f.assign(0.0, 1, one, 2, same), f.assign(0.0, 0, one, 1, k01),
                               f.assign(0.0, 1, one, 3, k3), f.assign(0.0, 1, nullptr, 2, k01),
                               f.assign(0.0, 2, one, 3, nan3)}),
            std::vector<bool>(5, false));
  EXPECT_TRUE(f == before);

  // One piece on (0, 1): its value at t = 0, nothing at t = 1.
  EXPECT_EQ((std::vector<double>{f.eval(0.5), f.eval(1.5), f.eval(0.5 - 1e-12)}),
            (std::vector<double>{7.0, 0.0, 0.0}));
  // Two pieces; t = 1 is a knot: the piece on its right.
  ASSERT_TRUE(f.assign(-1.0, 2, one, 3, k3));
  EXPECT_EQ(
      (std::vector<double>{f.eval(0.0), f.eval(-1.0), f.eval(1.0), f.getLeftBound(), f.getRightBound(),
                           CSingleVarLimitedPolynom().eval(0.0), CSingleVarLimitedPolynom().getRightBound()}),
      (std::vector<double>{9.0, 7.0, 0.0, -1.0, 1.0, 0.0, 0.0}));
  EXPECT_THROW(f.getPiece(2), std::out_of_range);
}

// Shifts and scales of the pieces are compared in the separable form's affine
// sequences, whose factors these are.
TEST(SingleVarLimitedPolynom, RebasesProductsAndIntegralsAgreeWithValues)
{
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> ux(-3.5, 3.5), ua(-1.0, 1.0);
  // Reused across rounds, so that their piece counts grow and shrink.
  CSingleVarLimitedPolynom buffered, shiftBuffer;
  for (int round = 0; round < 60; ++round)
  {
    CSingleVarLimitedPolynom const f = randomLimited(rng, 1 + round % 4, 3);
    CSingleVarLimitedPolynom const g = randomLimited(rng, 1 + round % 3, round % 4);
    double const a = ua(rng);
    CSingleVarLimitedPolynom rebased(f), fg, gf;
    rebased.changeShift(a);
    f.multiply(&fg, g);
    g.multiply(&gf, f);
    f.multiplyWithBuffer(&buffered, g, &shiftBuffer);
    EXPECT_TRUE(buffered == fg);
    // The operand of the greater degree keeps its shift.
    EXPECT_EQ(fg.getArgShift(), g.maxPower() > f.maxPower() ? g.getArgShift() : f.getArgShift());
    for (CSingleVarLimitedPolynom const * h : {&rebased, &fg, &gf})
      EXPECT_TRUE(h->checkClassInvariants());

    std::vector<double> const fb = breaksOf(f), gb = breaksOf(g);
    for (int i = 0; i < 20; ++i)
    {
      double const x = ux(rng);
      if (!awayFrom(x, fb) || !awayFrom(x, gb))
        continue;
      EXPECT_TRUE(near(rebased.eval(x), f.eval(x), 1e-11, 1e-11));
      EXPECT_TRUE(near(fg.eval(x), f.eval(x) * g.eval(x), 1e-11, 1e-11));
      EXPECT_TRUE(near(gf.eval(x), fg.eval(x), 1e-11, 1e-11));
    }
    // Products live on the intersection of the supports.
    EXPECT_TRUE(fg.empty() ||
                std::fabs(fg.getLeftBound() - std::max(f.getLeftBound(), g.getLeftBound())) <= 1e-12);
    EXPECT_TRUE(fg.empty() ||
                std::fabs(fg.getRightBound() - std::min(f.getRightBound(), g.getRightBound())) <= 1e-12);
    std::vector<double> breaks = fb;
    breaks.insert(breaks.end(), gb.begin(), gb.end());
    CSingleVarPolynom buf;
    double const quad = integrate1D([&](double x) { return f.eval(x) * g.eval(x); }, breaks);
    EXPECT_TRUE(near(fg.integrateWithBuffer(&buf), quad, 1e-10, 1e-12));
    EXPECT_TRUE(near(f.integrateWithBuffer(&buf), integrate1D([&](double x) { return f.eval(x); }, fb), 1e-11,
                     1e-12));
  }
}
