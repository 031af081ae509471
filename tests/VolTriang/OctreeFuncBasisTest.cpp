#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <set>

#include "QZmath/VolTriang/OctreeFuncBasis.h"
#include "tests/VolTriang/SphereBases.h"

using namespace VolTr;

namespace
{
using Fixture = qztest::SphereBases;
using Basis = COctreeFuncBasisTmpl<CProductPiecewisePolynom>;
using LinComb = COctreeFuncLinCombTmpl<CProductPiecewisePolynom>;

// The reference value of a combination: every node, no cache.
template <class K> double bruteForce(COctreeFuncLinCombTmpl<K> const & lc, double const * p)
{
  COctreeFuncBasisTmpl<K> const & b = lc.getRelatedBasisRef();
  double sum = 0;
  for (int n = 0; n < b.getFunctionsNumber(); ++n)
    sum += lc.getBasisCoefficient(n) * b.evalBasisValue(n, p);
  return sum;
}

template <class T> std::vector<double> v3(T const * p) { return {double(p[0]), double(p[1]), double(p[2])}; }

bool overlaps(CParallelepiped const & a, CParallelepiped const & b)
{
  for (int k = 0; k < 3; ++k)
    if (!(a.getMin()[k] < b.getMax()[k] && b.getMin()[k] < a.getMax()[k]))
      return false;
  return true;
}
} // namespace

// Per depth the scale, the normalisation and the support of every level;
// functions sit at their nodes and a level-0 one integrates to the kernel's
// integral. (Their values are the plain sum's terms, compared below.)
TEST(OctreeFuncBasis, FunctionsAreScaledNormalisedAndPlacedPerDepth)
{
  for (bool center : {true, false})
  {
    Fixture fx(5, center, 400, 7, 2);
    COctree const & t = *fx.tree;
    for (int level = 0; level <= 2; ++level)
    {
      Basis const basis(fx.kernel, &t, level);
      for (int d = 0; d < t.getNodeDepthEnd(); ++d)
      {
        // Depths without nodes have no scale, normalisation or support.
        bool const used = d >= t.getNodeDepthBegin();
        double const s = used ? 1.0 / t.getCellSize(d) : 0.0, reach = used ? 1.425 * t.getCellSize(d) : 0.0;
        EXPECT_EQ(basis.getArgumentScale(d), s);
        EXPECT_NEAR(basis.getNormalization(d), std::pow(s, 3 + level), 1e-12 * std::pow(s, 3 + level));
        EXPECT_NEAR(basis.getScaledKernelSupportRef(d).getMax()[0], reach, used ? 1e-12 : 0.0);
      }
    }
    for (int node = 0; node < fx.n(); node += 7)
    {
      CCSFunc3Tmpl<CProductPiecewisePolynom> const f = fx.basis->makeFunctionByIndex(node);
      double pos[3];
      t.getNodePosition(node, pos);
      EXPECT_EQ(v3(f.getArgumentShift()), v3(pos));
      // The kernel was narrowed by 0.95, so a level-0 function integrates to 0.95^3.
      EXPECT_NEAR(integrateOnSupport(polynomByShiftedKernel(f)), 0.95 * 0.95 * 0.95, 1e-12);
    }
  }
}

TEST(OctreeFuncLinComb, CachedAndUncachedEvaluationEqualThePlainSum)
{
  for (bool center : {true, false})
  {
    Fixture fx(5, center, 600, 7);
    Basis const & basis = *fx.basis;
    LinComb lc(&basis);
    std::mt19937 rng(center ? 3 : 4);
    std::uniform_real_distribution<double> coef(-1.0, 1.0);
    for (int n = 0; n < basis.getFunctionsNumber(); ++n)
      lc.setBasisCoefficient(n, n % 5 == 0 ? 0.0 : coef(rng));
    double const cell = fx.tree->getCellSize(fx.tree->getLeafCellDepth());
    COctreeFuncEvalHelper helper(1, 4.0 * cell);
    COctreeFuncEvalHelper eight(8, 2.0 * cell);
    // A random walk: neighbouring points, as the polygoniser asks for them.
    std::normal_distribution<double> step(0.0, 0.7 * cell);
    double p[3] = {0.9, 0.1, -0.2};
    for (int i = 0; i < 3000; ++i)
    {
      for (double & c : p)
        c = std::max(-1.2, std::min(1.2, c + step(rng)));
      double const ref = bruteForce(lc, p);
      double const tol = 1e-12 * (1.0 + std::fabs(ref));
      EXPECT_NEAR(lc.eval(p, nullptr), ref, tol);
      EXPECT_NEAR(lc.eval(p, &helper), ref, tol);
      EXPECT_NEAR(lc.eval(p, &eight), ref, tol);
    }
    float const pf[3] = {0.5f, 0.5f, 0.5f};
    double const pd[3] = {0.5, 0.5, 0.5};
    EXPECT_EQ(lc.eval(pf, nullptr), lc.eval(pd, nullptr));
  }
}

TEST(InterlacedSupportIterator, FindsEveryFunctionWhoseSupportMeetsTheBox)
{
  for (bool center : {true, false})
  {
    Fixture fx(5, center, 300, 7, 3);
    Basis const & basis = *fx.basis;
    std::mt19937 rng(9);
    std::uniform_real_distribution<double> u(-1.3, 1.3), w(0.0, 0.4);
    for (int q = 0; q < 40; ++q)
    {
      double const x = u(rng), y = u(rng), z = u(rng);
      CParallelepiped const box(x, x + w(rng), y, y + w(rng), z, z + w(rng));
      std::set<int> seen;
      for (CInterlacedSupportIteratorTmpl<CProductPiecewisePolynom> it(&basis, box); !it.isFinished();
           it.next())
      {
        int const n = it.functionIndex();
        EXPECT_TRUE(seen.insert(n).second);
        EXPECT_EQ(v3((*it).getArgumentShiftInt()), v3(basis.makeFunctionByIndex(n).getArgumentShiftInt()));
      }
      for (int n = 0; n < basis.getFunctionsNumber(); ++n)
        EXPECT_TRUE(seen.count(n) ||
                    !overlaps(getScaledFunctionCommonSupport(basis.makeFunctionByIndex(n)), box))
            << "node " << n << " missed";
    }
    CParallelepiped const far(50, 51, 50, 51, 50, 51);
    EXPECT_TRUE((CInterlacedSupportIteratorTmpl<CProductPiecewisePolynom>(&basis, far).isFinished()));
  }
}
