#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

#include "QZmath/LinSys/LinSysSolverCompose.h"
#include "QZmath/LinSys/LinSysSolverSparseDss.h"
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

/// Symmetric and indefinite: the chain with its coupling made symmetric and
/// a negative diagonal element.
CProblem symmetricIndefinite(int n)
{
  CProblem p = solver_test::chain(n);
  for (int i = 0; i + 1 < n; ++i)
  {
    p.rows[i][i + 1] = -1.0;
    p.rows[i + 1][i] = -1.0;
  }
  p.rows[n / 2][n / 2] = -3.0;
  p.symmetric = true;
  return p;
}

template <class T> using CDirectOnCsr = CLinSysSolverCompose<T, CCSRSstorage<T>, CLinSysSolverSparseDss<T>>;
} // namespace

TYPED_TEST(DirectSparseSolver, FailuresGiveFalseAndPrintNothing)
{
  using T = TypeParam;
  CProblem indefinite = symmetricIndefinite(30);

  // Declared positive definite but not: the Cholesky factorisation fails.
  CSparseStoreSparseLinSysSolver<T> solver(0);
  indefinite.positiveDefinite = true;
  solver_test::fill<T>(solver, indefinite);
  CRightParts<T> parts(indefinite, 1);
  std::string const printed = captureStdout([&] { EXPECT_FALSE(solver_test::solve(solver, parts)); });
  EXPECT_EQ(printed, "");
  EXPECT_EQ(parts.recievers[0].calls, 0);

  // Without the promise it is solved, indefinite.
  solver.setPositiveDefinite(false);
  std::string const printedToo = captureStdout([&] { EXPECT_TRUE(solver_test::solve(solver, parts)); });
  EXPECT_EQ(printedToo, "");
  EXPECT_LT(solver_test::relativeError(parts.solution(0),
                                       solver_test::referenceSolution<T>(indefinite, solver_test::fixedPositions(indefinite, 0))),
            sizeof(T) == 4 ? 1e-4 : 1e-11);

  // Singular and declared positive definite: a zero pivot.
  CProblem singular = solver_test::laplacian3D(3, 3, 2);
  // The graph Laplacian: each diagonal element the negated sum of the others
  // in its row, so every row sums to 0.
  for (int i = 0; i < singular.nFree; ++i)
  {
    double off = 0;
    for (auto const & term : singular.rows[i])
      if (term.first < singular.nFree && term.first != i)
        off += term.second;
    singular.rows[i][i] = -off;
  }
  CSparseStoreSparseLinSysSolver<T> singularSolver(0);
  solver_test::fill<T>(singularSolver, singular);
  CRightParts<T> singularParts(singular, 1);
  EXPECT_EQ(captureStdout([&] { EXPECT_FALSE(solver_test::solve(singularSolver, singularParts)); }), "");

  // A system of size 0.
  CSparseStoreSparseLinSysSolver<T> empty(0);
  CProblem const none;
  CRightParts<T> noParts(none, 1);
  EXPECT_FALSE(solver_test::solve(empty, noParts));
}

TYPED_TEST(DirectSparseSolver, ExplicitMatricesWithoutUsableElementsGiveFalse)
{
  using T = TypeParam;
  CLinSysSolverSparseDss<T> dss;
  std::vector<T> b(4, T(1)), x(4, T(0));

  // Rows but no element.
  CCSRSquareMatrix<T> bare;
  {
    CCSRSquareMatrixFiller<T> filler(&bare, 4, -1, 1, false);
  }
  EXPECT_FALSE(dss.solveForExplicitMatrix(x.data(), bare, true, b.data(), nullptr));

  // The last two rows never filled: they read as empty rows, so singular.
  CCSRSquareMatrix<T> unfinished;
  {
    CCSRSquareMatrixFiller<T> filler(&unfinished, 4, -1, 1, false);
    filler.pushByRawNextNonZeroElement(1, 1, T(2));
    filler.pushByRawNextNonZeroElement(2, 2, T(2));
  }
  EXPECT_EQ(captureStdout([&] { EXPECT_FALSE(dss.solveForExplicitMatrix(x.data(), unfinished, false, b.data(), nullptr)); }),
            "");

  // No matrix at all.
  CCSRSquareMatrix<T> nothing;
  EXPECT_FALSE(dss.solveForExplicitMatrix(x.data(), nothing, false, b.data(), nullptr));
}

TYPED_TEST(DirectSparseSolver, EitherIndexBaseAndEitherStorageGiveTheSameSolution)
{
  using T = TypeParam;
  double const tolerance = sizeof(T) == 4 ? 5e-5 : 1e-11;
  for (auto const & problem : {solver_test::randomSpd(50, 5, 3u), solver_test::chain(40)})
  {
    auto const reference = solver_test::referenceSolution<T>(problem, solver_test::fixedPositions(problem, 0));
    for (int base : {0, 1})
    {
      SCOPED_TRACE("base " + std::to_string(base) + (problem.symmetric ? ", symmetric" : ""));
      // A base-0 matrix is copied into a base-1 one (its upper triangle for
      // a symmetric system) before it reaches the solver.
      CDirectOnCsr<T> solver;
      solver.getStorageRefMod().setIndexBase(base);
      solver_test::fill<T>(solver, problem);
      EXPECT_EQ(solver.getStorageRef().isUpperTriangleOnlyStored(), problem.symmetric);
      CRightParts<T> parts(problem, 1);
      ASSERT_TRUE(solver_test::solve(solver, parts));
      EXPECT_LT(solver_test::relativeError(parts.solution(0), reference), tolerance);

      // The explicit form takes the storage's matrix in either base as it is.
      CCSRSstorage<T> const & storage = solver.getStorageRef();
      std::vector<T> b(problem.nFree), x(problem.nFree, T(0));
      storage.SetSingleRightPart(b.data(), parts.informers[0]);
      CLinSysSolverSparseDss<T> dss;
      ASSERT_TRUE(dss.solveForExplicitMatrix(x.data(), storage, problem.positiveDefinite, b.data(), nullptr));
      std::vector<double> xd(x.begin(), x.end());
      EXPECT_LT(solver_test::relativeError(xd, reference), tolerance);
    }
  }
}
