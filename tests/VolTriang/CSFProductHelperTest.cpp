#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "QZmath/VolTriang/CSFProductHelper.h"
#include "tests/VolTriang/SphereBases.h"

using namespace VolTr;

namespace
{
using Helper = CCSFProductHelperTmpl<CProductPiecewisePolynom>;
using GeneralHelper = CCSFProductHelperTmpl<CPiecewisePolynom>;
int const even[3] = {1, 1, 1}, odd[3] = {-1, 1, 1};

// The reference: the integral of the expanded product.
auto const direct = [](auto const & f, auto const & g) { return integrateOnSupport(makeProduct(f, g)); };

// The helper's product of the functions of nodes a and b of two bases,
// against a reference value within a relative tolerance.
template <class H, class B, class R>
void expectProduct(H & helper, B const & left, int a, B const & right, int b, R reference, double tol)
{
  auto const f = left.makeFunctionByIndex(a), g = right.makeFunctionByIndex(b);
  double const v = reference(f, g);
  EXPECT_NEAR(helper.evalScalarProduct(f, g), v, tol * (1 + std::fabs(v))) << a << " " << b;
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

// Mass (no parity: its tables keep negative offsets apart), stiffness and divergence products on every
// depth pair, twice (the second round comes from the tables). The divergence factor is odd: at offset 0 an
// even times an odd function integrates to 0, and after a swap of the variables its tables serve all axes.
TEST(CSFProductHelper, SeparableFormAgreesWithDirectIntegralsOnEveryDepthAndAxis)
{
  for (bool center : {true, false})
  {
    qztest::SphereBases const b(5, center, 300, 11);
    Helper mass(b.basis.get(), b.basis.get(), eBasisSymmetric, 7, nullptr);
    Helper stiff(b.basis.get(), b.lapBasis.get(), eBasisSymmetric, 7, even);
    Helper div(b.basis.get(), b.grad[0].get(), eBasisNonSymmetric, 6, odd);
    std::vector<std::pair<int, int>> const pairs = nearPairs(*b.tree, 150, center ? 1 : 2);
    for (int round = 0; round < 2; ++round)
      for (auto const & pr : pairs)
      {
        expectProduct(mass, *b.basis, pr.first, *b.basis, pr.second, direct, 1e-9);
        expectProduct(stiff, *b.basis, pr.first, *b.lapBasis, pr.second, direct, 1e-9);
        expectProduct(div, *b.basis, pr.first, *b.grad[0], pr.second, direct, 1e-9);
      }
    EXPECT_NEAR(div.evalScalarProduct(b.basis->makeFunctionByIndex(5), b.grad[0]->makeFunctionByIndex(5)),
                0.0, 1e-12);
    for (int axis = 1; axis < 3; ++axis)
    {
      div.initWithVariablesSwap(axis - 1, axis, b.basis.get(), b.grad[axis].get());
      EXPECT_EQ(&div.rightBasisRef(), b.grad[axis].get());
      for (auto const & pr : pairs)
        expectProduct(div, *b.basis, pr.first, *b.grad[axis], pr.second, direct, 1e-9);
    }
  }
}

// The general form keeps its products in a map, and serves the other
// derivative axes after a swap too.
TEST(CSFProductHelper, GeneralFormAgreesWithTheSeparableForm)
{
  qztest::SphereBases const bp(4, true, 150, 11);
  qztest::GeneralBases const bg(bp.tree.get());
  Helper sp(bp.basis.get(), bp.lapBasis.get(), eBasisSymmetric, 7, even);
  Helper dp(bp.basis.get(), bp.grad[0].get(), eBasisNonSymmetric, 6, odd);
  GeneralHelper sg(bg.basis.get(), bg.lapBasis.get(), eBasisSymmetric, 7, even);
  GeneralHelper dg(bg.basis.get(), bg.grad[0].get(), eBasisNonSymmetric, 6, odd);
  std::vector<std::pair<int, int>> const pairs = nearPairs(*bp.tree, 25, 4);
  for (auto const & pr : pairs)
  {
    auto const separable = [&](Helper & h, qztest::SphereBases::Basis const & right)
    {
      double const v =
          h.evalScalarProduct(bp.basis->makeFunctionByIndex(pr.first), right.makeFunctionByIndex(pr.second));
      return [v](auto const &, auto const &) { return v; };
    };
    expectProduct(sg, *bg.basis, pr.first, *bg.lapBasis, pr.second, separable(sp, *bp.lapBasis), 1e-8);
    expectProduct(dg, *bg.basis, pr.first, *bg.grad[0], pr.second, separable(dp, *bp.grad[0]), 1e-8);
  }
  dg.initWithVariablesSwap(0, 1, bg.basis.get(), bg.grad[1].get());
  for (auto const & pr : pairs)
    expectProduct(dg, *bg.basis, pr.first, *bg.grad[1], pr.second, direct, 1e-8);
}
