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

bool awayFrom3(double const * p, std::vector<double> const (&b)[3])
{
  return awayFrom(p[0], b[0]) && awayFrom(p[1], b[1]) && awayFrom(p[2], b[2]);
}
} // namespace

TEST(ProductPolynom, FactorSpreadOverAxesAndStrictOverlap)
{
  CSingleVarLimitedPolynom const k = bsplineFactor();
  CProductPolynom s(k, k, k);
  s *= 8.0;
  for (int a = 0; a < 3; ++a)
    EXPECT_EQ(s.getMultiplier(a).eval(0.0), 1.5);
  EXPECT_EQ(s.power(), 6);
  EXPECT_THROW(s.getMultiplier(3), std::out_of_range);

  CSingleVarLimitedPolynom touching(k);
  touching.substituteArgPlusConst(-3.0);
  CProductPolynom const t(k, touching, k);
  CProductPolynom out(k, k, k);
  s.multiply(&out, t);
  EXPECT_TRUE(out.empty());
  for (int a = 0; a < 3; ++a)
    EXPECT_TRUE(out.getMultiplier(a).empty());
  EXPECT_EQ(out.integrateOnSupportWithBuffer(nullptr), 0.0);
  s *= 0.0;
  EXPECT_EQ(s.getMultiplier(0).maxPower(), -1);
  EXPECT_EQ(s.eval(std::vector<double>{0.0, 0.0, 0.0}.data()), 0.0);
}

TEST(ProductPiecewisePolynom, SumsKeepTheOriginInTheirSupport)
{
  CSingleVarLimitedPolynom k = bsplineFactor();
  k.substituteArgPlusConst(-3.0); // [1.5, 4.5]
  CProductPiecewisePolynom f;
  f.addSummand(CProductPolynom(k, k, k));
  for (int a = 0; a < 3; ++a)
  {
    EXPECT_EQ(f.getCommonSupportRef().getMin()[a], 0.0);
    EXPECT_EQ(f.getCommonSupportRef().getMax()[a], 4.5);
    EXPECT_EQ(f.getCommonShift()[a], 0.0);
    // The stored copy is re-expressed about the common shift 0.
    EXPECT_EQ(f.getSummand(0).getMultiplier(a).getArgShift(), 0.0);
  }
  EXPECT_FALSE(f.checkClassInvariants());
  double const p[3] = {3.0, 3.2, 2.9};
  EXPECT_NEAR(f.eval(p), k.eval(3.0) * k.eval(3.2) * k.eval(2.9), 1e-15);
  EXPECT_TRUE(kernel().checkClassInvariants());
  EXPECT_THROW(f.getSummand(1), std::out_of_range);
}

TEST(ProductPiecewisePolynom, KernelValuesIntegralsAndDerivatives)
{
  CProductPiecewisePolynom const K = kernel();
  double const zero[3] = {0.0, 0.0, 0.0}, edge[3] = {1.5, 0.0, 0.0};
  EXPECT_EQ(K.eval(zero), 0.421875);
  EXPECT_EQ(K.eval(edge), 0.0);
  EXPECT_NEAR(K.integrateOnSupport(), 1.0, 1e-15);
  EXPECT_NEAR(integrateOnSupport(K), 1.0, 1e-15);

  double const c[3] = {0.3, -0.7, 1.1};
  CProductPiecewisePolynom const F = placedKernel(2.0, c);
  CProductPiecewisePolynom d[3], lap;
  for (int a = 0; a < 3; ++a)
  {
    F.makePartialDerivative(&d[a], a);
    EXPECT_EQ(d[a].summandsNumber(), 1);
    EXPECT_NEAR(d[a].integrateOnSupport(), 0.0, 1e-13);
  }
  F.makeLaplacian(&lap);
  EXPECT_EQ(lap.summandsNumber(), 3);
  EXPECT_NEAR(lap.integrateOnSupport(), 0.0, 1e-12);
  EXPECT_NEAR(F.integrateOnSupport(), 1.0 / 8.0, 1e-15);

  std::vector<double> breaks[3];
  breaksOf(F, breaks);
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> u(-1.0, 2.0);
  double const h = 1e-4;
  for (int i = 0; i < 200; ++i)
  {
    double p[3] = {u(rng), u(rng), u(rng)};
    // The stencils must not cross a knot, where the second derivative jumps.
    bool ok = true;
    for (int a = 0; a < 3; ++a)
      ok = ok && awayFrom(p[a], breaks[a], 3 * h);
    if (!ok)
      continue;
    double secondSum = 0.0;
    for (int a = 0; a < 3; ++a)
    {
      double q[3] = {p[0], p[1], p[2]};
      q[a] = p[a] + h;
      double const fp = F.eval(q);
      q[a] = p[a] - h;
      double const fm = F.eval(q);
      EXPECT_NEAR(d[a].eval(p), (fp - fm) / (2 * h), 1e-6);
      secondSum += (fp - 2 * F.eval(p) + fm) / (h * h);
    }
    EXPECT_NEAR(lap.eval(p), secondSum, 1e-4);
  }
}

TEST(ProductPiecewisePolynom, ProductsAgreeWithValuesAndQuadrature)
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
    CProductPiecewisePolynom const fg = f * g, gf = g * f;
    // The operand of the greater degree (then: of more summands) keeps its shift.
    auto maxPow = [](CProductPiecewisePolynom const & h) {
      int p = 0;
      for (int i = 0; i < h.summandsNumber(); ++i)
        p = std::max(p, h.getSummand(i).power());
      return p;
    };
    bool const fBase = maxPow(f) > maxPow(g) || (maxPow(f) == maxPow(g) && f.summandsNumber() >= g.summandsNumber());
    for (int a = 0; a < 3; ++a)
    {
      EXPECT_EQ(fg.getCommonShift()[a], (fBase ? f : g).getCommonShift()[a]);
      // ... and every summand of the product is expressed about it.
      for (int i = 0; i < fg.summandsNumber(); ++i)
        EXPECT_EQ(fg.getSummand(i).getMultiplier(a).getArgShift(), fg.getCommonShift()[a]);
    }

    std::vector<double> breaks[3];
    breaksOf(f, breaks);
    breaksOf(g, breaks);
    for (int i = 0; i < 100; ++i)
    {
      double const p[3] = {3 * u(rng), 3 * u(rng), 3 * u(rng)};
      if (!awayFrom3(p, breaks))
        continue;
      EXPECT_TRUE(near(fg.eval(p), f.eval(p) * g.eval(p), 1e-10, 1e-11));
      EXPECT_TRUE(near(gf.eval(p), fg.eval(p), 1e-10, 1e-11));
    }
    double const quad = integrate3D([&](double const * p) { return f.eval(p) * g.eval(p); }, breaks);
    EXPECT_TRUE(near(fg.integrateOnSupport(), quad, 1e-9, 1e-11));
    EXPECT_TRUE(near(gf.integrateOnSupport(), quad, 1e-9, 1e-11));
  }
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
  std::vector<double> breaks[3];
  breaksOf(a, breaks);
  breaksOf(b, breaks);
  double const quad = integrate3D([&](double const * p) { return a.eval(p) * b.eval(p); }, breaks);
  EXPECT_TRUE(near(ab.integrateOnSupport(), quad, 1e-9, 1e-15));
}

TEST(ProductPiecewisePolynom, RandomShiftScaleSequencesKeepValuesAndInvariants)
{
  std::mt19937 rng(23);
  std::uniform_real_distribution<double> u(-1.0, 1.0), us(0.5, 2.0);
  std::uniform_int_distribution<int> op(0, 3);
  for (int round = 0; round < 10; ++round)
  {
    CProductPiecewisePolynom const f0 = randomSeparable(rng, 1 + round % 3, 3);
    std::vector<double> breaks[3];
    breaksOf(f0, breaks);
    CProductPiecewisePolynom f = f0;
    // f(p) = k * f0(m p + b), axis by axis.
    double m[3] = {1, 1, 1}, b[3] = {0, 0, 0}, k = 1.0;
    for (int step = 0; step < 12; ++step)
    {
      double v[3] = {u(rng), u(rng), u(rng)};
      switch (op(rng))
      {
      case 0:
        f.substituteArgPlusConst(v);
        for (int a = 0; a < 3; ++a)
          b[a] += m[a] * v[a];
        break;
      case 1:
        f.changeShift(v);
        for (int a = 0; a < 3; ++a)
          EXPECT_EQ(f.getCommonShift()[a], v[a]);
        break;
      case 2:
        for (double & x : v)
          x = us(rng);
        f.scaleArgument(v);
        for (int a = 0; a < 3; ++a)
          m[a] *= v[a];
        break;
      default:
        f *= 2.0 * v[0];
        k *= 2.0 * v[0];
        break;
      }
      ASSERT_TRUE(f.checkClassInvariants()) << "round " << round << " step " << step;
      for (int i = 0; i < 10; ++i)
      {
        double const p[3] = {3 * u(rng), 3 * u(rng), 3 * u(rng)};
        double const q[3] = {m[0] * p[0] + b[0], m[1] * p[1] + b[1], m[2] * p[2] + b[2]};
        if (awayFrom3(q, breaks))
        {
          EXPECT_TRUE(near(f.eval(p), k * f0.eval(q), 1e-9, 1e-10));
        }
      }
    }
  }
  CProductPiecewisePolynom z = kernel();
  z *= 0.0;
  EXPECT_EQ(z.summandsNumber(), 0);
  EXPECT_EQ(z.getCommonSupportRef().getMax()[0], 0.0);
}
