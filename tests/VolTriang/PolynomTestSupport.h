#pragma once
// Independent references for the polynomial tests: Gauss-Legendre quadrature,
// naive power sums, random functions in
// the separable form, and the checks both 3D forms share.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <set>
#include <vector>

#include "QZmath/VolTriang/PiecewisePolynom.h"
#include "QZmath/VolTriang/Polynom.h"
#include "QZmath/VolTriang/ProductPolynom.h"
#include "QZmath/VolTriang/SingleVarPolynom.h"

namespace qztest
{
namespace poly
{
/// n-point Gauss-Legendre rule on [-1, 1], exact for degree 2n - 1: the
/// positive nodes and their weights (the rule is symmetric).
struct GaussRule
{
  std::vector<double> x, w;
};

/// The n-point rule, n being 4 or 8.
inline GaussRule const & rule(int n)
{
  static GaussRule const r4{{0.3399810435848563, 0.8611363115940526},
                            {0.6521451548625464, 0.34785484513745374}};
  static GaussRule const r8{
      {0.18343464249564978, 0.525532409916329, 0.7966664774136268, 0.9602898564975363},
      {0.362683783378362, 0.3137066458778874, 0.22238103445337445, 0.10122853629037679}};
  return n == 4 ? r4 : r8;
}

/// The integral of f over [a, b], one rule per cell between sorted breakpoints.
template <class F> double integrate1D(F f, std::vector<double> breaks, GaussRule const & g = rule(8))
{
  std::sort(breaks.begin(), breaks.end());
  double sum = 0.0;
  for (size_t c = 0; c + 1 < breaks.size(); ++c)
  {
    double const h = 0.5 * (breaks[c + 1] - breaks[c]);
    double const m = 0.5 * (breaks[c + 1] + breaks[c]);
    for (size_t i = 0; i < g.x.size(); ++i)
      sum += g.w[i] * h * (f(m - h * g.x[i]) + f(m + h * g.x[i]));
  }
  return sum;
}

/// The same over a grid of boxes given by breakpoints per axis, with the
/// 4-point rule (exact up to degree 7 per axis).
template <class F> double integrate3D(F f, std::vector<double> const (&breaks)[3])
{
  double p[3];
  std::function<double(int)> const over = [&](int a)
  {
    return integrate1D(
        [&](double t)
        {
          p[a] = t;
          return a == 2 ? f(static_cast<double const *>(p)) : over(a + 1);
        },
        breaks[a], rule(4));
  };
  return over(0);
}

inline VolTr::CSingleVarPolynom randomPolynom(std::mt19937 & rng, int degree)
{
  std::uniform_real_distribution<double> u(-2.0, 2.0);
  std::vector<double> c(static_cast<size_t>(degree + 1));
  for (double & v : c)
    v = u(rng);
  if (!c.empty() && c.back() == 0.0)
    c.back() = 1.0;
  return VolTr::CSingleVarPolynom(static_cast<int>(c.size()), c.data());
}

/// `pieces` random pieces of degree up to `maxDegree` on random ascending
/// knots inside [lo, hi], about a random shift.
inline VolTr::CSingleVarLimitedPolynom randomLimited(std::mt19937 & rng, int pieces, int maxDegree,
                                                     double lo = -2.0, double hi = 2.0)
{
  std::uniform_real_distribution<double> u(lo, hi);
  std::uniform_int_distribution<int> deg(0, maxDegree);
  std::set<double> k;
  while (static_cast<int>(k.size()) < pieces + 1)
    k.insert(u(rng));
  double const shift = std::uniform_real_distribution<double>(-1.0, 1.0)(rng);
  std::vector<double> knots;
  for (double v : k)
    knots.push_back(v - shift);
  std::vector<VolTr::CSingleVarPolynom> p;
  for (int i = 0; i < pieces; ++i)
    p.push_back(randomPolynom(rng, deg(rng)));
  return VolTr::CSingleVarLimitedPolynom(shift, pieces, p.data(), pieces + 1, knots.data());
}

/// `terms` random terms with exponents up to `maxExp` on each axis.
inline VolTr::CPolynom randomPolynom3(std::mt19937 & rng, int terms, int maxExp)
{
  std::uniform_int_distribution<int> e(0, maxExp);
  std::uniform_real_distribution<double> w(-2.0, 2.0);
  VolTr::CPolynom p;
  for (int i = 0; i < terms; ++i)
    p.insertWeightedMonom(VolTr::CWeightedMonom(w(rng), VolTr::CMonom(e(rng), e(rng), e(rng))));
  return p;
}

/// The knots of f in x.
inline std::vector<double> breaksOf(VolTr::CSingleVarLimitedPolynom const & f)
{
  std::vector<double> b;
  for (int i = 0; i < f.getKnotsNumber(); ++i)
    b.push_back(f.getKnot(i) + f.getArgShift());
  return b;
}

/// A sum of `summands` random products whose boxes hold the origin, so that
/// the sum satisfies its invariants.
inline VolTr::CProductPiecewisePolynom randomSeparable(std::mt19937 & rng, int summands, int maxDegree)
{
  VolTr::CProductPiecewisePolynom f;
  std::uniform_int_distribution<int> pieces(1, 3);
  auto factor = [&]
  {
    int const n = pieces(rng);
    for (;;)
    {
      VolTr::CSingleVarLimitedPolynom h = randomLimited(rng, n, maxDegree);
      if (h.getLeftBound() < 0.0 && h.getRightBound() > 0.0)
        return h;
    }
  };
  for (int i = 0; i < summands; ++i)
    f.addSummand(VolTr::CProductPolynom(factor(), factor(), factor()));
  return f;
}

/// All knots in x, y, z of all summands.
inline void breaksOf(VolTr::CProductPiecewisePolynom const & f, std::vector<double> (&out)[3])
{
  for (int i = 0; i < f.summandsNumber(); ++i)
    for (int a = 0; a < 3; ++a)
    {
      std::vector<double> const b = breaksOf(f.getSummand(i).getMultiplier(a));
      out[a].insert(out[a].end(), b.begin(), b.end());
    }
}

/// True when x is farther than eps from every breakpoint: values there do
/// not depend on which side of a knot rounding puts the point.
inline bool awayFrom(double x, std::vector<double> const & breaks, double eps = 1e-9)
{
  for (double b : breaks)
    if (std::fabs(x - b) <= eps)
      return false;
  return true;
}

inline bool awayFrom3(double const * p, std::vector<double> const (&b)[3])
{
  return awayFrom(p[0], b[0]) && awayFrom(p[1], b[1]) && awayFrom(p[2], b[2]);
}

/// |a - b| within `rel` of the larger magnitude, or within `abs`.
inline bool near(double a, double b, double rel = 1e-10, double abs = 1e-12)
{
  return std::fabs(a - b) <= std::max(abs, rel * std::max(std::fabs(a), std::fabs(b)));
}

/// The quadratic B-spline on knots -1.5, -0.5, 0.5, 1.5: the shape of the
/// reconstruction kernel on one axis.
inline VolTr::CSingleVarLimitedPolynom bsplineFactor()
{
  double const a[3] = {1.125, 1.5, 0.5}, b[3] = {0.75, 0.0, -1.0}, c[3] = {1.125, -1.5, 0.5};
  VolTr::CSingleVarPolynom const p[3] = {{3, a}, {3, b}, {3, c}};
  double const knots[4] = {-1.5, -0.5, 0.5, 1.5};
  return VolTr::CSingleVarLimitedPolynom(0.0, 3, p, 4, knots);
}
inline int termsOf(VolTr::CPiecewisePolynom const & f) { return f.getTermsNumber(); }
inline int termsOf(VolTr::CProductPiecewisePolynom const & f) { return f.summandsNumber(); }

/// f * g and g * f against the pointwise product at random points of
/// [-spread, spread]^3 away from the breakpoints, and their integrals against
/// quadrature; fg is returned for further checks.
template <class F>
F expectProductAgrees(F const & f, F const & g, std::vector<double> const (&breaks)[3], std::mt19937 & rng,
                      double spread)
{
  std::uniform_real_distribution<double> u(-spread, spread);
  F const fg = f * g, gf = g * f;
  EXPECT_TRUE(fg.checkClassInvariants());
  for (int i = 0; i < 60; ++i)
  {
    double const p[3] = {u(rng), u(rng), u(rng)};
    if (!awayFrom3(p, breaks))
      continue;
    EXPECT_TRUE(near(fg.eval(p), f.eval(p) * g.eval(p), 1e-10, 1e-11));
    EXPECT_TRUE(near(gf.eval(p), fg.eval(p), 1e-10, 1e-11));
  }
  double const quad = integrate3D([&](double const * p) { return f.eval(p) * g.eval(p); }, breaks);
  EXPECT_TRUE(near(fg.integrateOnSupport(), quad, 1e-9, 1e-11));
  EXPECT_TRUE(near(gf.integrateOnSupport(), quad, 1e-9, 1e-11));
  return fg;
}

/// A random sequence of shifts, rebases, axis scalings, products by constants
/// and self-sums applied to f0: after every step the invariants hold and
/// f(p) = k f0(m p + b), axis by axis, away from f0's breakpoints.
template <class F>
void expectAffineSequence(F const & f0, std::vector<double> const (&breaks)[3], std::mt19937 & rng, int steps,
                          double spread)
{
  std::uniform_real_distribution<double> u(-1.0, 1.0), us(0.5, 2.0);
  std::uniform_int_distribution<int> op(0, 4);
  F f = f0;
  double m[3] = {1, 1, 1}, b[3] = {0, 0, 0}, k = 1.0;
  for (int step = 0; step < steps; ++step)
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
      EXPECT_TRUE(std::equal(v, v + 3, f.getCommonShift()));
      break;
    case 2:
      for (double & x : v)
        x = us(rng);
      f.scaleArgument(v);
      for (int a = 0; a < 3; ++a)
        m[a] *= v[a];
      break;
    case 3:
      f *= 3.0 * v[0];
      k *= 3.0 * v[0];
      break;
    default:
      if (termsOf(f) > 32)
        continue;
      f += f;
      k *= 2.0;
      break;
    }
    ASSERT_TRUE(f.checkClassInvariants()) << "step " << step;
    for (int i = 0; i < 10; ++i)
    {
      double const p[3] = {spread * u(rng), spread * u(rng), spread * u(rng)};
      double const q[3] = {m[0] * p[0] + b[0], m[1] * p[1] + b[1], m[2] * p[2] + b[2]};
      EXPECT_TRUE(!awayFrom3(q, breaks) || near(f.eval(p), k * f0.eval(q), 1e-9, 1e-10));
    }
  }
}
} // namespace poly
} // namespace qztest
