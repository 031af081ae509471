#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "QZmath/VolTriang/CSFProductHelper.h"
#include "QZmath/VolTriang/detail/MultilevelPoisson.h"
#include "tests/VolTriang/SphereBases.h"

using namespace VolTr;

namespace
{
// A small reconstruction tree with its bases, and the reference products of
// the scalar-product cache that the assembled system is made of.
struct Fixture : qztest::SphereBases
{
  explicit Fixture(int depth, bool useCenter = true, int points = 400)
      : SphereBases(depth, useCenter, points, 7)
  {
  }

  // A[a][b] = -<F_a, Lap F_b>, as the assembly computes it.
  std::vector<double> referenceMatrix() const
  {
    int const parity[3] = {1, 1, 1};
    CCSFProductHelperTmpl<CProductPiecewisePolynom> helper(basis.get(), lapBasis.get(), eBasisSymmetric, 7,
                                                           parity);
    std::vector<double> a(static_cast<std::size_t>(n()) * n());
    for (int r = 0; r < n(); ++r)
      for (int c = 0; c < n(); ++c)
        a[static_cast<std::size_t>(r) * n() + c] =
            0.0 - helper.evalScalarProduct(basis->makeFunctionByIndex(r), lapBasis->makeFunctionByIndex(c));
    return a;
  }
};

double maxAbs(std::vector<double> const & v)
{
  double m = 0.0;
  for (double x : v)
    m = std::max(m, std::fabs(x));
  return m;
}

// |A x + rhs| / |rhs|, rhs being -A times the known solution.
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
// scalar product the assembled matrix is made of, with both node placements.
TEST(MultilevelPoisson, EntriesEqualTheAssembledScalarProducts)
{
  for (bool center : {true, false})
  {
    Fixture const f(4, center);
    CMultilevelPoissonSolver const solver(*f.tree, f.kernel);
    std::vector<double> const a = f.referenceMatrix();
    double const scale = maxAbs(a);
    ASSERT_GT(scale, 0.0);
    for (int r = 0; r < f.n(); ++r)
      for (int c = 0; c < f.n(); ++c)
        ASSERT_NEAR(solver.matrixEntry(r, c), a[static_cast<std::size_t>(r) * f.n() + c], 1e-12 * scale)
            << r << " " << c << " center " << center;

    // The product walks the same entries as the dense reference.
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> x(static_cast<std::size_t>(f.n())), y;
    for (double & v : x)
      v = u(rng);
    solver.apply(x, &y);
    std::vector<double> expected(x.size(), 0.0);
    for (int r = 0; r < f.n(); ++r)
      for (int c = 0; c < f.n(); ++c)
        expected[r] += a[static_cast<std::size_t>(r) * f.n() + c] * x[c];
    for (int r = 0; r < f.n(); ++r)
      ASSERT_NEAR(y[r], expected[r], 1e-11 * maxAbs(expected)) << r;
  }
}

// The right part equals the Galerkin projection of the divergence that the
// assembly computes through the cache, for a field on every depth.
TEST(MultilevelPoisson, RightPartEqualsTheProjectedDivergence)
{
  Fixture const f(4);
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> coefficients[3];
  COctreeFuncLinCombTmpl<CProductPiecewisePolynom> field0(f.grad[0].get()), field1(f.grad[1].get()),
      field2(f.grad[2].get());
  COctreeFuncLinCombTmpl<CProductPiecewisePolynom> * fields[3] = {&field0, &field1, &field2};
  for (int j = 0; j < 3; ++j)
  {
    coefficients[j].resize(static_cast<std::size_t>(f.n()));
    for (int i = 0; i < f.n(); ++i)
    {
      // A sparse field, as the splat leaves it.
      double const v = (i % 3 == j) ? u(rng) : 0.0;
      coefficients[j][i] = v;
      fields[j]->setBasisCoefficient(i, v);
    }
  }
  CMultilevelPoissonSolver const solver(*f.tree, f.kernel);
  std::vector<double> b;
  solver.makeRightPart(coefficients, &b);

  int const parity[3] = {-1, 1, 1};
  CCSFProductHelperTmpl<CProductPiecewisePolynom> helper(f.basis.get(), f.grad[0].get(), eBasisNonSymmetric,
                                                         6, parity);
  std::vector<double> expected(static_cast<std::size_t>(f.n()), 0.0);
  for (int j = 0; j < 3; ++j)
  {
    if (j > 0)
      helper.initWithVariablesSwap(j - 1, j, f.basis.get(), f.grad[j].get());
    for (int o = 0; o < f.n(); ++o)
      expected[o] += helper.evalScalarProduct(f.basis->makeFunctionByIndex(o), *fields[j]);
  }
  double const scale = maxAbs(expected);
  for (int o = 0; o < f.n(); ++o)
    ASSERT_NEAR(b[o], expected[o], 1e-12 * scale) << o;
}

// The solve reaches a small residual on a system with a known solution,
// gives the same numbers with one and two threads, and refuses a system
// without unknowns.
TEST(MultilevelPoisson, SolveConvergesAndIsIndependentOfThreads)
{
  Fixture const f(5, true, 2000);
  std::mt19937 rng(9);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> known(static_cast<std::size_t>(f.n())), rhs;
  for (double & v : known)
    v = u(rng);
  CMultilevelPoissonSolver(*f.tree, f.kernel).apply(known, &rhs);
  for (double & v : rhs)
    v = -v;
  std::vector<double> x[2];
  for (int threads : {1, 2})
  {
    SMultilevelSolveSettings s;
    s.threads = threads;
    s.vCycles = 4;
    CMultilevelPoissonSolver solver(*f.tree, f.kernel, s);
    ASSERT_TRUE(solver.solve(rhs, &x[threads - 1], nullptr, nullptr));
    EXPECT_LT(relativeResidual(solver, x[threads - 1], rhs), 0.05);
  }
  EXPECT_EQ(x[0], x[1]);

  QZTest::CSampleCloud empty;
  COctree const tree(&empty, 3, nullptr, true, -1);
  CMultilevelPoissonSolver solver(tree, f.kernel);
  std::vector<double> none;
  EXPECT_FALSE(solver.solve(std::vector<double>(), &none, nullptr, nullptr));
}

// Small trees: a tree of depth 1 or 2 (one or two node depths), one
// sample (a few nodes per depth), and depths left empty by a detail level. The
// solve either refuses (no unknowns) or reaches the known solution's residual;
// nothing crashes.
TEST(MultilevelPoisson, SmallTreesAndEmptyDepths)
{
  QZTest::CSampleCloud one;
  one.add(0.1f, 0.2f, 0.3f, 0.0f, 0.0f, 1.0f);
  QZTest::CSampleCloud const some = QZTest::makeSphereCloud(300, 1.0, 5);
  CProductPiecewisePolynom const kernel = qztest::narrowedKernel();
  struct Case
  {
    QZTest::CSampleCloud const * cloud;
    int depth, detail;
    bool center;
  };
  for (Case const c : {Case{&one, 1, -1, false}, Case{&one, 2, -1, true}, Case{&one, 4, -1, true},
                       Case{&some, 5, 1, true}, Case{&some, 6, 2, false}})
  {
    COctree const tree(c.cloud, c.depth, nullptr, c.center, c.detail);
    CMultilevelPoissonSolver solver(tree, kernel);
    int const n = tree.getNodesNumber();
    std::vector<double> known(static_cast<std::size_t>(n), 1.0), rhs, x;
    solver.apply(known, &rhs);
    for (double & v : rhs)
      v = -v;
    bool const solved = solver.solve(rhs, &x, nullptr, nullptr);
    EXPECT_EQ(solved, n > 0) << "depth " << c.depth;
    if (solved)
    {
      EXPECT_LT(relativeResidual(solver, x, rhs), 0.05) << "depth " << c.depth;
    }
  }
}
