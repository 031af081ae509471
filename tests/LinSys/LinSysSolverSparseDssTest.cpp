#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

#include "QZmath/LinSys/LinSysSolverCompose.h"
#include "SolverTestSystems.h"

using namespace REmath;
using solver_test::CProblem;
using solver_test::CRightParts;

namespace
{
template <class T> class DirectSparseSolver : public ::testing::Test
{
};
using Scalars = ::testing::Types<float, double>;
TYPED_TEST_SUITE(DirectSparseSolver, Scalars);

/// What `work` wrote to file descriptor 1, C streams included.
std::string captureStdout(std::function<void()> const & work)
{
  std::fflush(stdout);
  std::FILE * sink = std::tmpfile();
  int const saved = dup(1);
  dup2(fileno(sink), 1);
  work();
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  std::string text;
  std::rewind(sink);
  for (int c = std::fgetc(sink); c != EOF; c = std::fgetc(sink))
    text.push_back(static_cast<char>(c));
  std::fclose(sink);
  return text;
}
} // namespace

TYPED_TEST(DirectSparseSolver, FailuresGiveFalseAndMklPrintsNothing)
{
  using T = TypeParam;
  // Symmetric and indefinite: the chain made symmetric, one diagonal negative.
  CProblem indefinite = solver_test::chain(30);
  for (int i = 0; i + 1 < 30; ++i)
    indefinite.rows[i][i + 1] = indefinite.rows[i + 1][i] = -1.0;
  indefinite.rows[15][15] = -3.0;
  indefinite.symmetric = indefinite.positiveDefinite = true;
  CSparseStoreSparseLinSysSolver<T> solver(0);
  solver_test::fill<T>(solver, indefinite);
  CRightParts<T> parts(indefinite, 1);
  // Declared positive definite, it fails in the factorisation; without the
  // promise it is solved as indefinite.
  EXPECT_EQ(captureStdout([&] { EXPECT_FALSE(parts.solveBy(solver)); }), "");
  EXPECT_EQ(parts.recievers[0].calls, 0);
  solver.setPositiveDefinite(false);
  EXPECT_EQ(captureStdout([&] { EXPECT_TRUE(parts.solveBy(solver)); }), "");
  EXPECT_LT(parts.error(0), sizeof(T) == 4 ? 1e-4 : 1e-11);

  // The graph Laplacian (rows summing to 0) is singular: a zero pivot.
  CProblem singular = solver_test::laplacian3D(3, 3, 2);
  for (int i = 0; i < singular.nFree; ++i)
    singular.rows[i][i] = static_cast<double>(singular.rows[i].size() - 2); // the neighbours
  CSparseStoreSparseLinSysSolver<T> singularSolver(0);
  solver_test::fill<T>(singularSolver, singular);
  CRightParts<T> singularParts(singular, 1);
  EXPECT_EQ(captureStdout([&] { EXPECT_FALSE(singularParts.solveBy(singularSolver)); }), "");

  // A system of size 0.
  CSparseStoreSparseLinSysSolver<T> empty(0);
  CProblem const none;
  CRightParts<T> noParts(none, 1);
  EXPECT_FALSE(noParts.solveBy(empty));

  // Matrices without a usable element: none at all, or rows never filled
  // (which read as empty rows).
  CLinSysSolverSparseDss<T> dss;
  std::vector<T> b(4, T(1)), x(4, T(0));
  CCSRSquareMatrix<T> bare, unfinished;
  {
    CCSRSquareMatrixFiller<T> filler(&bare, 4, -1, 1, false);
  }
  {
    CCSRSquareMatrixFiller<T> filler(&unfinished, 4, -1, 1, false);
    filler.pushByRawNextNonZeroElement(1, 1, T(2));
    filler.pushByRawNextNonZeroElement(2, 2, T(2));
  }
  EXPECT_FALSE(dss.solveForExplicitMatrix(x.data(), bare, true, b.data(), nullptr));
  EXPECT_EQ(
      captureStdout(
          [&] { EXPECT_FALSE(dss.solveForExplicitMatrix(x.data(), unfinished, false, b.data(), nullptr)); }),
      "");
  EXPECT_FALSE(dss.solveForExplicitMatrix(x.data(), CCSRSquareMatrix<T>(), false, b.data(), nullptr));
}
