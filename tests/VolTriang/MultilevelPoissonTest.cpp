#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <tuple>
#include <vector>

#include "QZmath/VolTriang/CSFProductHelper.h"
#include "QZmath/VolTriang/detail/MultilevelPoisson.h"
#include "tests/VolTriang/SphereBases.h"

using namespace VolTr;

namespace
{
using LinComb = COctreeFuncLinCombTmpl<CProductPiecewisePolynom>;

double maxAbs(std::vector<double> const & v)
{
  double m = 0.0;
  for (double x : v)
    m = std::max(m, std::fabs(x));
  return m;
}

std::vector<double> random(int n, unsigned seed)
{
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> x(static_cast<std::size_t>(n));
  for (double & v : x)
    v = u(rng);
  return x;
}

// |A x + rhs| / |rhs|.
double relativeResidual(CMultilevelPoissonSolver const & solver, std::vector<double> const & x,
                        std::vector<double> const & rhs)
{
  std::vector<double> ax;
  solver.apply(x, &ax);
  double num = 0.0, den = 0.0;
  for (std::size_t i = 0; i < ax.size(); ++i)
  {
    num += (ax[i] + rhs[i]) * (ax[i] + rhs[i]);
    den += rhs[i] * rhs[i];
  }
  return std::sqrt(num / std::max(den, 1e-300));
}
} // namespace

// Every entry of the operator, within a depth and across depths, equals the
// scalar product the assembled matrix is made of, A[a][b] = -<F_a, Lap F_b>,
// with both node placements; the product walks the same entries as the dense
// reference.
TEST(MultilevelPoisson, EntriesEqualTheAssembledScalarProducts)
{
  int const parity[3] = {1, 1, 1};
  for (bool center : {true, false})
  {
    qztest::SphereBases const f(4, center, 400, 7);
    CMultilevelPoissonSolver const solver(*f.tree, f.kernel);
    CCSFProductHelperTmpl<CProductPiecewisePolynom> helper(f.basis.get(), f.lapBasis.get(), eBasisSymmetric,
                                                           7, parity);
    std::vector<double> a(static_cast<std::size_t>(f.n()) * f.n());
    for (int r = 0; r < f.n(); ++r)
      for (int c = 0; c < f.n(); ++c)
        a[static_cast<std::size_t>(r) * f.n() + c] =
            0.0 -
            helper.evalScalarProduct(f.basis->makeFunctionByIndex(r), f.lapBasis->makeFunctionByIndex(c));
    double const scale = maxAbs(a);
    ASSERT_GT(scale, 0.0);
    for (int r = 0; r < f.n(); ++r)
      for (int c = 0; c < f.n(); ++c)
        ASSERT_NEAR(solver.matrixEntry(r, c), a[static_cast<std::size_t>(r) * f.n() + c], 1e-12 * scale)
            << r << " " << c << " center " << center;

    std::vector<double> const x = random(f.n(), 3);
    std::vector<double> y, expected(x.size(), 0.0);
    solver.apply(x, &y);
    for (int r = 0; r < f.n(); ++r)
      for (int c = 0; c < f.n(); ++c)
        expected[r] += a[static_cast<std::size_t>(r) * f.n() + c] * x[c];
    for (int r = 0; r < f.n(); ++r)
      ASSERT_NEAR(y[r], expected[r], 1e-11 * maxAbs(expected)) << r;
  }
}

// The right part equals the Galerkin projection of the divergence that the
// assembly computes through the cache (its product with a combination, for
// each axis after a swap of the variables), for a sparse field (as the splat
// leaves it) on every depth.
TEST(MultilevelPoisson, RightPartEqualsTheProjectedDivergence)
{
  qztest::SphereBases const f(4, true, 400, 7);
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> coefficients[3];
  LinComb fields[3] = {LinComb(f.grad[0].get()), LinComb(f.grad[1].get()), LinComb(f.grad[2].get())};
  for (int j = 0; j < 3; ++j)
    for (int i = 0; i < f.n(); ++i)
    {
      coefficients[j].push_back(i % 3 == j ? u(rng) : 0.0);
      fields[j].setBasisCoefficient(i, coefficients[j].back());
    }
  std::vector<double> b;
  CMultilevelPoissonSolver(*f.tree, f.kernel).makeRightPart(coefficients, &b);

  int const parity[3] = {-1, 1, 1};
  CCSFProductHelperTmpl<CProductPiecewisePolynom> helper(f.basis.get(), f.grad[0].get(), eBasisNonSymmetric,
                                                         6, parity);
  std::vector<double> expected(static_cast<std::size_t>(f.n()), 0.0);
  for (int j = 0; j < 3; ++j)
  {
    if (j > 0)
      helper.initWithVariablesSwap(j - 1, j, f.basis.get(), f.grad[j].get());
    for (int o = 0; o < f.n(); ++o)
      expected[o] += helper.evalScalarProduct(f.basis->makeFunctionByIndex(o), fields[j]);
  }
  double const scale = maxAbs(expected);
  for (int o = 0; o < f.n(); ++o)
    ASSERT_NEAR(b[o], expected[o], 1e-12 * scale) << o;
}

// A full tree, and small ones: no sample (no unknowns), a tree of depth 1 or
// 2 (one or two node depths), one sample (a few nodes per depth), and depths
// left empty by a detail level. The solve either refuses (no unknowns) or
// reaches a small residual on a system with a known solution.
TEST(MultilevelPoisson, SolveReachesTheKnownSolutionOnFullAndSmallTrees)
{
  QZTest::CSampleCloud empty, one;
  one.add(0.1f, 0.2f, 0.3f, 0.0f, 0.0f, 1.0f);
  QZTest::CSampleCloud const some = QZTest::makeSphereCloud(300, 1.0, 5),
                             full = QZTest::makeSphereCloud(2000, 1.0, 7);
  CProductPiecewisePolynom const kernel = qztest::narrowedKernel();
  using Case = std::tuple<QZTest::CSampleCloud const *, int, int, bool>; // cloud, depth, detail, centre
  for (auto const & [cloud, depth, detail, center] :
       {Case{&empty, 3, -1, true}, Case{&one, 1, -1, false}, Case{&one, 2, -1, true}, Case{&one, 4, -1, true},
        Case{&some, 5, 1, true}, Case{&some, 6, 2, false}, Case{&full, 5, -1, true}})
  {
    COctree const tree(cloud, depth, nullptr, center, detail);
    CMultilevelPoissonSolver solver(tree, kernel);
    int const n = tree.getNodesNumber();
    // -A times a known solution: the right part the solve must invert.
    std::vector<double> rhs;
    solver.apply(random(n, 9), &rhs);
    for (double & v : rhs)
      v = -v;
    std::vector<double> x;
    bool const solved = solver.solve(rhs, &x, nullptr, nullptr);
    EXPECT_EQ(solved, n > 0) << "depth " << depth;
    EXPECT_TRUE(!solved || relativeResidual(solver, x, rhs) < 0.05) << "depth " << depth;
  }
}
