#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>

#include "QZmath/VolTriang/OctreeFuncBlockEval.h"
#include "tests/VolTriang/SphereBases.h"

using namespace VolTr;

namespace
{
using LinComb = COctreeFuncLinCombTmpl<CProductPiecewisePolynom>;

struct Fixture : qztest::SphereBases
{
  std::unique_ptr<LinComb> x;
  // Coefficients on every depth; with `onlyDepth` set, on that depth alone;
  // with `derivativeAxis` set, of that partial derivative's functions.
  Fixture(bool useCenter, int depth, int onlyDepth = -1, int derivativeAxis = -1)
      : SphereBases(depth, useCenter, 500, 11)
  {
    x.reset(new LinComb(derivativeAxis >= 0 ? grad[derivativeAxis].get() : basis.get()));
    std::mt19937 rng(5 + depth);
    std::uniform_real_distribution<double> coef(-1.0, 1.0);
    for (int i = 0; i < n(); ++i)
      if (onlyDepth < 0 || tree->getNodeDepth(i) == onlyDepth)
        x->setBasisCoefficient(i, i % 7 == 0 ? 0.0 : coef(rng));
  }
};

// Random points near the samples (where the nodes are), at the borders of the
// tree's box and beyond it, a far one and a NaN; every value must equal the
// combination's own bit for bit, and the bounded approximation must lie within
// its bound.
void expectSameValues(Fixture & fx, int points, unsigned seed)
{
  COctreeFuncBlockEvaluator fast(*fx.x);
  ASSERT_TRUE(fast.isAccelerated());
  COctreeFuncEvalHelper helper(8, 4.0 * fx.tree->getUnit());
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  double const * lo = fx.tree->getBoxMin();
  double const * hi = fx.tree->getBoxMax();
  int nonZero = 0;
  for (int i = 0; i < points; ++i)
  {
    double p[3];
    int const kind = i % 4;
    for (int a = 0; a < 3; ++a)
      p[a] = kind == 0 ? 1.1 * u(rng) : fx.cloud.getSampleCoords3(i % 500)[a] + 0.05 * u(rng);
    if (kind == 3) // on or just beyond a face of the box
    {
      int const a = i % 3;
      p[a] = (i & 4 ? hi[a] : lo[a]) + (i & 8 ? 1e-12 : 0.0) * (i & 4 ? 1 : -1);
    }
    double const ref = fx.x->eval(p, &helper);
    double const value = fast.eval(p);
    EXPECT_EQ(value, ref) << p[0] << " " << p[1] << " " << p[2];
    double bound = -1.0;
    double const approx = fast.evalWithBound(p, &bound);
    EXPECT_LE(std::fabs(approx - ref), bound);
    EXPECT_LE(bound, 1e-12 * (1.0 + std::fabs(ref)) + 1e-10 * std::fabs(ref - approx) + 1e-9);
    nonZero += ref != 0.0;
  }
  EXPECT_GT(nonZero, points / 2);
  EXPECT_GT(fast.blocksBuilt(), 1) << "the default block size is a few cells, not the whole box";
  float const pf[3] = {0.25f, -0.5f, 0.75f};
  double const pd[3] = {0.25, -0.5, 0.75}, far[3] = {1e200, -1e200, 0.0}, nan[3] = {std::nan(""), 0.0, 0.0};
  EXPECT_EQ(fast.eval(pf), fx.x->eval(pd, nullptr));
  EXPECT_EQ(fast.eval(far), fx.x->eval(far, nullptr));
  EXPECT_TRUE(std::isnan(fast.eval(nan)) == std::isnan(fx.x->eval(nan, nullptr)));
}
} // namespace

// Coefficients on every depth and on each depth alone, with both node
// placements, and of the gradient kernels.
TEST(OctreeFuncBlockEvaluator, EqualsTheCombinationOnEveryDepthPositioningAndKernel)
{
  for (bool center : {true, false})
  {
    Fixture all(center, 6);
    expectSameValues(all, 4000, center ? 1u : 2u);
    for (int d = all.tree->getNodeDepthBegin(); d < all.tree->getNodeDepthEnd(); ++d)
    {
      Fixture one(center, 6, d);
      expectSameValues(one, 400, 10u + d);
    }
  }
  for (int axis = 0; axis < 3; ++axis)
  {
    Fixture fx(true, 5, -1, axis);
    expectSameValues(fx, 1500, 20u + axis);
  }
}

// On the polygoniser's lattice: corner values within their bounds of the
// exact ones, and the bisection of edges of all seven directions (both ways)
// ending at exactly the point that bisection on the exact values reaches.
// The level is taken at points on the edges, so that many decisions are near
// ties.
TEST(OctreeFuncBlockEvaluator, LatticeCornersAndBisectionsFollowTheExactValues)
{
  Fixture fx(true, 6);
  // A lattice off the nodes' spacing, so that the windows of every depth
  // take all their sizes.
  double const size = 0.93 * fx.tree->getCellSize(5);
  double const start[3] = {0.013, -0.021, 0.007};
  int const bound = 70;
  COctreeFuncBlockEvaluator fast(*fx.x, 4.0 * size);
  COctreeFuncBlockEvaluator worker(fast); // made before the lattice, as the polygoniser's workers are
  ASSERT_TRUE(fast.setLattice(start, size, bound));
  worker.shareLattice(fast);
  COctreeFuncBlockEvaluator thirds(*fx.x, 4.0 * size);
  ASSERT_TRUE(thirds.setLattice(start, size, bound, 3));
  auto point = [&](int const * index, double * p)
  {
    for (int a = 0; a < 3; ++a)
      p[a] = start[a] - (index[a] - 0.5) * size;
  };
  auto exact = [&](double const * p) { return fx.x->eval(p, nullptr); };
  std::mt19937 rng(77);
  std::uniform_int_distribution<int> pick(0, 499);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  int const directions[7][3] = {{1, 0, 0},  {0, 1, 0},  {0, 0, 1}, {1, 1, 0},
                                {0, 1, -1}, {-1, 0, 1}, {1, -1, 1}};
  int differentFromStart = 0;
  for (int e = 0; e < 700; ++e)
  {
    float const * s = fx.cloud.getSampleCoords3(pick(rng));
    int from[3], to[3];
    for (int a = 0; a < 3; ++a)
    {
      from[a] = static_cast<int>(std::floor((start[a] - s[a]) / size + 0.5));
      to[a] = from[a] + directions[e % 7][a];
    }
    double p1[3], p2[3], q[3], bound = -1.0;
    point(from, p1);
    point(to, p2);
    EXPECT_LE(std::fabs(fast.evalLatticeWithBound(from, &bound) - exact(p1)), bound);
    // The level: the exact value at a random point of the edge.
    double const t = u(rng);
    for (int a = 0; a < 3; ++a)
      q[a] = p1[a] + t * (p2[a] - p1[a]);
    double const level = exact(q);
    double const value1 = exact(p1) - level;
    // Ten bisection steps on the exact values, then the middle.
    std::vector<double> pos(p1, p1 + 3), neg(p2, p2 + 3), mid(3), got(3);
    if (value1 < 0)
      std::swap(pos, neg);
    for (int n = 0; n <= 10; ++n)
    {
      for (int a = 0; a < 3; ++a)
        mid[a] = (pos[a] + neg[a]) * 0.5;
      if (n < 10)
        (exact(mid.data()) - level > 0 ? pos : neg) = mid;
    }
    (e % 2 ? worker : fast).convergeOnLatticeEdge(from, to, value1, level, got.data());
    EXPECT_EQ(got, mid) << "edge " << e;
    differentFromStart +=
        std::fabs(mid[0] - p1[0]) + std::fabs(mid[1] - p1[1]) + std::fabs(mid[2] - p1[2]) > 0.01 * size;

    // The interpolated crossing: the zero of the cubic through the exact
    // values at the thirds of the edge, in its first part that changes side,
    // found here by plain bisection on the cubic.
    double g[4] = {value1, 0, 0, 0};
    for (int k = 1; k < 4; ++k)
    {
      double r[3];
      for (int a = 0; a < 3; ++a)
        r[a] = p1[a] + (p2[a] - p1[a]) * k / 3;
      g[k] = exact(r) - level;
    }
    if ((g[3] >= 0) == (value1 >= 0))
      continue; // both ends on one side: the level's point is not a lone crossing
    auto cubic = [&](double v)
    {
      double sum = 0.0;
      for (int k = 0; k < 4; ++k)
      {
        double w = g[k];
        for (int j = 0; j < 4; ++j)
          if (j != k)
            w *= (v - j) / (k - j);
        sum += w;
      }
      return sum;
    };
    int part = 0;
    while (part < 2 && (g[part + 1] > 0) == (value1 >= 0))
      ++part;
    double lo = part, hi = part + 1.0;
    for (int i = 0; i < 60; ++i)
      ((cubic(0.5 * (lo + hi)) > 0) == (value1 >= 0) ? lo : hi) = 0.5 * (lo + hi);
    double interpolated[3];
    thirds.interpolateOnLatticeEdge(from, to, value1, g[3], level, interpolated);
    for (int a = 0; a < 3; ++a)
      EXPECT_NEAR(interpolated[a], p1[a] + (p2[a] - p1[a]) * lo / 3, 1e-9 * size) << "edge " << e;
  }
  EXPECT_GT(differentFromStart, 300);
  // Beyond the tables the point forms answer.
  int const far[3] = {bound + 5, 0, 0};
  double p[3], b = -1.0;
  point(far, p);
  EXPECT_LE(std::fabs(fast.evalLatticeWithBound(far, &b) - exact(p)), b);
}

// A combination with no coefficient: the evaluator answers 0 without tables.
TEST(OctreeFuncBlockEvaluator, ZeroCombinationGivesZero)
{
  Fixture fx(true, 4, 99); // no node at depth 99: all coefficients 0
  double const p[3] = {0.1, 0.2, 0.3};
  EXPECT_EQ(COctreeFuncBlockEvaluator(*fx.x).eval(p), 0.0);
}
