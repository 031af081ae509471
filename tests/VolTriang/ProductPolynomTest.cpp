#include <gtest/gtest.h>

#include <stdexcept>

#include "QZmath/VolTriang/ProductPolynom.h"
#include "tests/VolTriang/PolynomTestSupport.h"

using namespace VolTr;
using namespace qztest::poly;

namespace
{
CProductPiecewisePolynom kernel()
{
  CSingleVarLimitedPolynom const k = bsplineFactor();
  CProductPolynom const s(k, k, k);
  return CProductPiecewisePolynom(1, &s);
}

// The kernel as it stands at a node: K(s (p - c)).
CProductPiecewisePolynom placedKernel(double s, double const * c)
{
  CProductPiecewisePolynom f = kernel();
  double const sc[3] = {s, s, s}, minusC[3] = {-c[0], -c[1], -c[2]};
  f.scaleArgument(sc);
  f.substituteArgPlusConst(minusC);
  return f;
}
} // namespace

TEST(ProductPiecewisePolynom, SumsKeepTheOriginInTheirSupport)
{
  CSingleVarLimitedPolynom k = bsplineFactor();
  k.substituteArgPlusConst(-3.0); // [1.5, 4.5]
  CProductPiecewisePolynom f;
  f.addSummand(CProductPolynom(k, k, k));
  // The box reaches back to 0, and the stored copy is re-expressed about the
  // common shift 0.
  for (int a = 0; a < 3; ++a)
    EXPECT_EQ((std::vector<double>{f.getCommonSupportRef().getMin()[a], f.getCommonSupportRef().getMax()[a],
                                   f.getCommonShift()[a], f.getSummand(0).getMultiplier(a).getArgShift()}),
              (std::vector<double>{0.0, 4.5, 0.0, 0.0}))
        << a;
  EXPECT_FALSE(f.checkClassInvariants());
  double const p[3] = {3.0, 3.2, 2.9};
  EXPECT_NEAR(f.eval(p), k.eval(3.0) * k.eval(3.2) * k.eval(2.9), 1e-15);
  EXPECT_TRUE(kernel().checkClassInvariants());
  EXPECT_THROW(f.getSummand(1), std::out_of_range);
}

TEST(ProductPiecewisePolynom, ProductsAndAffineSequencesAgreeWithValuesAndQuadrature)
{
  std::mt19937 rng(17);
  std::uniform_real_distribution<double> u(-0.8, 0.8), us(0.6, 1.4);
  for (int round = 0; round < 6; ++round)
  {
    CProductPiecewisePolynom f = randomSeparable(rng, 1 + round % 2, 2);
    CProductPiecewisePolynom g = randomSeparable(rng, 1 + round / 3, 3);
    double const c[3] = {u(rng), u(rng), u(rng)}, s[3] = {us(rng), us(rng), us(rng)};
    f.substituteArgPlusConst(c);
    g.scaleArgument(s);
    std::vector<double> fBreaks[3], breaks[3];
    breaksOf(f, fBreaks);
    breaksOf(f, breaks);
    breaksOf(g, breaks);
    CProductPiecewisePolynom const fg = expectProductAgrees(f, g, breaks, rng, 2.4);
    // The operand of the greater degree (then: of more summands) keeps its
    // shift, and every summand of the product is expressed about it.
    auto maxPow = [](CProductPiecewisePolynom const & h)
    {
      int p = 0;
      for (int i = 0; i < h.summandsNumber(); ++i)
        p = std::max(p, h.getSummand(i).power());
      return p;
    };
    bool const fBase =
        maxPow(f) > maxPow(g) || (maxPow(f) == maxPow(g) && f.summandsNumber() >= g.summandsNumber());
    for (int a = 0; a < 3; ++a)
    {
      EXPECT_EQ(fg.getCommonShift()[a], (fBase ? f : g).getCommonShift()[a]);
      for (int i = 0; i < fg.summandsNumber(); ++i)
        EXPECT_EQ(fg.getSummand(i).getMultiplier(a).getArgShift(), fg.getCommonShift()[a]);
    }
    expectAffineSequence(f, fBreaks, rng, 12, 3.0);
  }
  CProductPiecewisePolynom z = kernel();
  z *= 0.0;
  EXPECT_EQ(z.summandsNumber(), 0);
  EXPECT_EQ(z.getCommonSupportRef().getMax()[0], 0.0);
  // A single product has three axes, all emptied by a zero factor.
  CProductPolynom s = kernel().getSummand(0);
  s *= 0.0;
  EXPECT_EQ(s.getMultiplier(0).maxPower(), -1);
  EXPECT_THROW(s.getMultiplier(3), std::out_of_range);
}

TEST(ProductPiecewisePolynom, ShiftedKernelsMeetOnlyWithPositiveOverlap)
{
  double const c0[3] = {0.0, 0.0, 0.0}, c3[3] = {0.75, 0.0, 0.0}, cNear[3] = {0.7, 0.1, 0.0};
  CProductPiecewisePolynom const a = placedKernel(4.0, c0);
  // Supports of half-width 0.375 that touch at x = 0.375 multiply to nothing.
  CProductPiecewisePolynom const touching = a * placedKernel(4.0, c3);
  EXPECT_EQ(touching.summandsNumber(), 0);
  EXPECT_EQ(touching.integrateOnSupport(), 0.0);

  CProductPiecewisePolynom const b = placedKernel(4.0, cNear);
  CProductPiecewisePolynom const ab = a * b;
  ASSERT_EQ(ab.summandsNumber(), 1);
  EXPECT_TRUE(ab.checkClassInvariants());
  EXPECT_NEAR(ab.getCommonSupportRef().getMin()[0], 0.325, 1e-15);
  EXPECT_NEAR(ab.getCommonSupportRef().getMax()[0], 0.375, 1e-15);
}
