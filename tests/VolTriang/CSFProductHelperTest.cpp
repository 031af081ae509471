#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "QZmath/VolTriang/CSFProductHelper.h"
#include "tests/VolTriang/PolynomTestSupport.h"
#include "tests/VolTriang/SphereBases.h"

using namespace VolTr;

namespace
{
// The bases of the sphere tree in the general form, which has no derivative
// operations: the analytic derivatives, narrowed like the kernel.
struct GeneralBases
{
  CPiecewisePolynom kernel, dx[3], lap;
  std::unique_ptr<COctreeFuncBasisTmpl<CPiecewisePolynom>> basis, grad[3], lapBasis;
  explicit GeneralBases(COctree const * tree)
      : kernel(makeApproxGaussian<CPiecewisePolynom>()), lap(makeApproxGaussianLaplacian<CPiecewisePolynom>())
  {
    double const s = 1.0 / 0.95, scale[3] = {s, s, s};
    kernel.scaleArgument(scale);
    basis.reset(new COctreeFuncBasisTmpl<CPiecewisePolynom>(kernel, tree, 0));
    for (int a = 0; a < 3; ++a)
    {
      dx[a] = DgaussianDx<CPiecewisePolynom>(a);
      dx[a].scaleArgument(scale);
      dx[a] *= s;
      grad[a].reset(new COctreeFuncBasisTmpl<CPiecewisePolynom>(dx[a], tree, 1));
    }
    lap.scaleArgument(scale);
    lap *= s * s;
    lapBasis.reset(new COctreeFuncBasisTmpl<CPiecewisePolynom>(lap, tree, 2));
  }
};

// The trees of these tests: 300 samples unless said.
qztest::SphereBases sphereBases(bool center, int depth, int points = 300)
{
  return qztest::SphereBases(depth, center, points, 11);
}

// An independent value: tensor Gauss quadrature of f * g on the cells between
// the knots of both functions, exact for the piecewise quadratics.
template <class K> double quadrature(CCSFunc3Tmpl<K> const & f, CCSFunc3Tmpl<K> const & g)
{
  std::vector<double> knots[3];
  for (int a = 0; a < 3; ++a)
    for (CCSFunc3Tmpl<K> const * h : {&f, &g})
      for (double t : {-1.5, -0.5, 0.5, 1.5})
        knots[a].push_back(h->getArgumentShift()[a] + 0.95 * t / h->getArgumentScale());
  return qztest::poly::integrate3D([&](double const * p) { return f.eval(p) * g.eval(p); }, knots);
}

template <class K> double direct(CCSFunc3Tmpl<K> const & f, CCSFunc3Tmpl<K> const & g)
{
  return integrateOnSupport(makeProduct(f, g));
}

// Random node pairs whose supports meet: a node and another from a random depth near it.
std::vector<std::pair<int, int>> nearPairs(COctree const & t, int count, unsigned seed)
{
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> pick(0, t.getNodesNumber() - 1);
  std::vector<std::pair<int, int>> out;
  while (static_cast<int>(out.size()) < count)
  {
    int const a = pick(rng), b = pick(rng);
    double pa[3], pb[3];
    t.getNodePosition(a, pa);
    t.getNodePosition(b, pb);
    double const reach = 1.5 * (t.getCellSize(t.getNodeDepth(a)) + t.getCellSize(t.getNodeDepth(b)));
    double const d = std::max({std::fabs(pa[0] - pb[0]), std::fabs(pa[1] - pb[1]), std::fabs(pa[2] - pb[2])});
    if (d < reach || rng() % 8 == 0) // mostly overlapping pairs, some apart
      out.push_back({a, b});
  }
  return out;
}
} // namespace

TEST(CSFProductHelper, SeparableFormAgreesWithDirectIntegralsAtAllDepths)
{
  for (bool center : {true, false})
  {
    qztest::SphereBases const b = sphereBases(center, 5);
    int const even[3] = {1, 1, 1}, odd[3] = {-1, 1, 1};
    CCSFProductHelperTmpl<CProductPiecewisePolynom> mass(b.basis.get(), b.basis.get(), eBasisSymmetric, 7,
                                                         even);
    CCSFProductHelperTmpl<CProductPiecewisePolynom> stiff(b.basis.get(), b.lapBasis.get(), eBasisSymmetric, 7,
                                                          even);
    CCSFProductHelperTmpl<CProductPiecewisePolynom> div(b.basis.get(), b.grad[0].get(), eBasisNonSymmetric, 6,
                                                        odd);
    int const massSize = mass.cashSize();
    for (int round = 0; round < 2; ++round) // the second round is answered from the tables
      for (auto const & pr : nearPairs(*b.tree, 150, center ? 1 : 2))
      {
        auto const f = b.basis->makeFunctionByIndex(pr.first);
        auto const g = b.basis->makeFunctionByIndex(pr.second);
        auto const gl = b.lapBasis->makeFunctionByIndex(pr.second);
        auto const gx = b.grad[0]->makeFunctionByIndex(pr.second);
        double const vm = direct(f, g), vs = direct(f, gl), vd = direct(f, gx);
        EXPECT_NEAR(mass.evalScalarProduct(f, g), vm, 1e-9 * (1 + std::fabs(vm)));
        EXPECT_NEAR(stiff.evalScalarProduct(f, gl), vs, 1e-9 * (1 + std::fabs(vs)));
        EXPECT_NEAR(div.evalScalarProduct(f, gx), vd, 1e-9 * (1 + std::fabs(vd)));
      }
    EXPECT_EQ(mass.cashSize(), massSize); // the tables are allocated in full at the start
  }
}

TEST(CSFProductHelper, AgreesWithIndependentQuadrature)
{
  qztest::SphereBases const b = sphereBases(true, 4);
  CCSFProductHelperTmpl<CProductPiecewisePolynom> mass(b.basis.get(), b.basis.get(), eBasisSymmetric, 7,
                                                       nullptr);
  CCSFProductHelperTmpl<CProductPiecewisePolynom> stiff(b.basis.get(), b.lapBasis.get(), eBasisSymmetric, 7,
                                                        nullptr);
  for (auto const & pr : nearPairs(*b.tree, 12, 5))
  {
    auto const f = b.basis->makeFunctionByIndex(pr.first);
    auto const g = b.basis->makeFunctionByIndex(pr.second);
    auto const gl = b.lapBasis->makeFunctionByIndex(pr.second);
    double const q = quadrature(f, g), ql = quadrature(f, gl);
    EXPECT_NEAR(mass.evalScalarProduct(f, g), q, 1e-9 * (1 + std::fabs(q)));
    EXPECT_NEAR(stiff.evalScalarProduct(f, gl), ql, 1e-8 * (1 + std::fabs(ql)));
  }
}

TEST(CSFProductHelper, DepthScalingAndZeroTest)
{
  qztest::SphereBases const b = sphereBases(false, 5);
  CCSFProductHelperTmpl<CProductPiecewisePolynom> mass(b.basis.get(), b.basis.get(), eBasisSymmetric, 7,
                                                       nullptr);
  // A node with itself at the deepest depth, then one depth up: level-0
  // functions scale by 8 per level.
  COctree const & tree = *b.tree;
  int deep = -1, up = -1;
  for (int n = 0; n < tree.getNodesNumber() && (deep < 0 || up < 0); ++n)
  {
    if (tree.getNodeDepth(n) == tree.getNodeDepthEnd() - 1 && deep < 0)
      deep = n;
    if (tree.getNodeDepth(n) == tree.getNodeDepthEnd() - 2 && up < 0)
      up = n;
  }
  ASSERT_GE(deep, 0);
  ASSERT_GE(up, 0);
  double const vDeep =
      mass.evalScalarProduct(b.basis->makeFunctionByIndex(deep), b.basis->makeFunctionByIndex(deep));
  double const vUp =
      mass.evalScalarProduct(b.basis->makeFunctionByIndex(up), b.basis->makeFunctionByIndex(up));
  EXPECT_NEAR(vDeep / vUp, 8.0, 1e-12);
  // Two functions whose supports only touch give exactly 0 without a table.
  int const sizeBefore = mass.cashSize();
  auto f = b.basis->makeFunctionByIndex(deep);
  auto g = f;
  double const reach = 2 * 1.425; // in deepest cells
  int const step = 1 << (tree.getLeafCellDepth() - f.getNodeDepth());
  g.getArgumentShiftIntMod()[1] += static_cast<int>(std::ceil(reach)) * step;
  g.getArgumentShiftMod()[1] += std::ceil(reach) * step * tree.getUnit();
  EXPECT_EQ(mass.evalScalarProduct(f, g), 0.0);
  EXPECT_EQ(mass.cashSize(), sizeBefore);
}

TEST(CSFProductHelper, OddFactorHasParityAndSwapServesTheOtherAxes)
{
  qztest::SphereBases const b = sphereBases(true, 5);
  int const odd[3] = {-1, 1, 1};
  CCSFProductHelperTmpl<CProductPiecewisePolynom> div(b.basis.get(), b.grad[0].get(), eBasisNonSymmetric, 6,
                                                      odd);
  // At offset 0 the integral of an even times an odd function vanishes.
  int const n0 = 5;
  EXPECT_NEAR(div.evalScalarProduct(b.basis->makeFunctionByIndex(n0), b.grad[0]->makeFunctionByIndex(n0)),
              0.0, 1e-12);
  std::vector<std::pair<int, int>> const pairs = nearPairs(*b.tree, 80, 9);
  for (auto const & pr : pairs) // fill the tables for the x derivative
    div.evalScalarProduct(b.basis->makeFunctionByIndex(pr.first), b.grad[0]->makeFunctionByIndex(pr.second));
  for (int axis = 1; axis < 3; ++axis)
  {
    div.initWithVariablesSwap(axis - 1, axis, b.basis.get(), b.grad[axis].get());
    EXPECT_EQ(&div.rightBasisRef(), b.grad[axis].get());
    for (auto const & pr : pairs)
    {
      auto const f = b.basis->makeFunctionByIndex(pr.first);
      auto const g = b.grad[axis]->makeFunctionByIndex(pr.second);
      double const v = direct(f, g);
      EXPECT_NEAR(div.evalScalarProduct(f, g), v, 1e-9 * (1 + std::fabs(v))) << "axis " << axis;
    }
  }
}

TEST(CSFProductHelper, ProductWithACombinationIsTheSumOverNodes)
{
  qztest::SphereBases const b = sphereBases(true, 4);
  int const odd[3] = {-1, 1, 1};
  CCSFProductHelperTmpl<CProductPiecewisePolynom> div(b.basis.get(), b.grad[0].get(), eBasisNonSymmetric, 6,
                                                      odd);
  COctreeFuncLinCombTmpl<CProductPiecewisePolynom> field(b.grad[0].get());
  for (int n = 0; n < b.basis->getFunctionsNumber(); ++n)
    field.setBasisCoefficient(n, n % 3 == 0 ? 0.0 : std::cos(0.7 * n));
  for (int o = 0; o < b.basis->getFunctionsNumber(); o += 7)
  {
    auto const f = b.basis->makeFunctionByIndex(o);
    double ref = 0;
    for (int n = 0; n < b.basis->getFunctionsNumber(); ++n)
      ref += field.getBasisCoefficient(n) * direct(f, b.grad[0]->makeFunctionByIndex(n));
    EXPECT_NEAR(div.evalScalarProduct(f, field), ref, 1e-9 * (1 + std::fabs(ref)));
  }
}

TEST(CSFProductHelper, GeneralFormAgreesWithTheSeparableForm)
{
  qztest::SphereBases const bp = sphereBases(true, 4, 150);
  GeneralBases const bg(bp.tree.get());
  int const even[3] = {1, 1, 1}, odd[3] = {-1, 1, 1};
  CCSFProductHelperTmpl<CProductPiecewisePolynom> sp(bp.basis.get(), bp.lapBasis.get(), eBasisSymmetric, 7,
                                                     even);
  CCSFProductHelperTmpl<CPiecewisePolynom> sg(bg.basis.get(), bg.lapBasis.get(), eBasisSymmetric, 7, even);
  CCSFProductHelperTmpl<CProductPiecewisePolynom> dp(bp.basis.get(), bp.grad[0].get(), eBasisNonSymmetric, 6,
                                                     odd);
  CCSFProductHelperTmpl<CPiecewisePolynom> dg(bg.basis.get(), bg.grad[0].get(), eBasisNonSymmetric, 6, odd);
  std::vector<std::pair<int, int>> const pairs = nearPairs(*bp.tree, 25, 4);
  int misses = 0;
  for (auto const & pr : pairs)
  {
    int const before = sg.cashSize();
    double const vp = sp.evalScalarProduct(bp.basis->makeFunctionByIndex(pr.first),
                                           bp.lapBasis->makeFunctionByIndex(pr.second));
    double const vg = sg.evalScalarProduct(bg.basis->makeFunctionByIndex(pr.first),
                                           bg.lapBasis->makeFunctionByIndex(pr.second));
    EXPECT_NEAR(vg, vp, 1e-8 * (1 + std::fabs(vp)));
    EXPECT_LE(sg.cashSize() - before, 1); // the map grows by at most one per miss
    misses += sg.cashSize() - before;
    double const wp = dp.evalScalarProduct(bp.basis->makeFunctionByIndex(pr.first),
                                           bp.grad[0]->makeFunctionByIndex(pr.second));
    double const wg = dg.evalScalarProduct(bg.basis->makeFunctionByIndex(pr.first),
                                           bg.grad[0]->makeFunctionByIndex(pr.second));
    EXPECT_NEAR(wg, wp, 1e-8 * (1 + std::fabs(wp)));
  }
  EXPECT_GT(misses, 0);
  // The same pairs again: all hits.
  int const size = sg.cashSize();
  for (auto const & pr : pairs)
    sg.evalScalarProduct(bg.basis->makeFunctionByIndex(pr.first),
                         bg.lapBasis->makeFunctionByIndex(pr.second));
  EXPECT_EQ(sg.cashSize(), size);
  // The general helper serves the other derivative axes after a swap too.
  dg.initWithVariablesSwap(0, 1, bg.basis.get(), bg.grad[1].get());
  for (auto const & pr : pairs)
  {
    auto const f = bg.basis->makeFunctionByIndex(pr.first);
    auto const g = bg.grad[1]->makeFunctionByIndex(pr.second);
    double const v = direct(f, g);
    EXPECT_NEAR(dg.evalScalarProduct(f, g), v, 1e-8 * (1 + std::fabs(v)));
  }
}
