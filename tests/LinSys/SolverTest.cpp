// The ready solvers, their cores and bicgstab, against dense reference
// solutions.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "LinSysTestSupport.h"
#include "QZmath/LinSys/LinSysSolverCompose.h"
#include "QZmath/LinSys/LinSysSolverDecomposed.h"
#include "QZmath/LinSys/bicgstab.h"
#include "QZsys/Threading.h"

using namespace REmath;
using namespace linsys_test;

namespace
{
template <class T> class Solvers : public ::testing::Test
{
protected:
  void TearDown() override { CVescaThreadingTasksHelper::setNumOfPhisicalThread(0); }
};
using Scalars = ::testing::Types<float, double>;
TYPED_TEST_SUITE(Solvers, Scalars);

template <class T> struct CSolverKind
{
  std::string name;
  std::function<IVertexPosLinearSystem<T> *(int n)> make;
  bool iterative;
  bool checksDefinition; // refuses a spoiled system
};

/// Makes solvers of class S from `args`.
template <class T, class S, class... A> std::function<IVertexPosLinearSystem<T> *(int)> make(A... args)
{
  return [=](int) { return static_cast<IVertexPosLinearSystem<T> *>(new S(args...)); };
}

template <class S> S * onBase0(S * solver)
{
  solver->getStorageRefMod().setIndexBase(0);
  return solver;
}

/// Makes decomposers into `blocks` even blocks.
template <class T>
std::function<IVertexPosLinearSystem<T> *(int)> decomposer(int blocks, double eps, bool base0)
{
  return [=](int n)
  {
    std::vector<int> cuts;
    for (int k = 1; k < blocks; ++k)
      cuts.push_back(k * n / blocks);
    auto * solver = new CLinSysSolverSpaceDecomposer<T>(cuts, eps, 10000);
    return base0 ? onBase0(solver) : solver;
  };
}

template <class T> std::vector<CSolverKind<T>> allSolvers()
{
  double const eps = sizeof(T) == 4 ? 1e-6 : 1e-9;
  return {
      {"dense", make<T, CLinSysSolverMKL<T>>(), false, true},
      {"sparse rows, direct", make<T, CSparseLinSysSolver<T>>(), false, true},
      {"compressed rows, direct", make<T, CSparseStoreSparseLinSysSolver<T>>(0), false, true},
      {"compressed rows, iterative", make<T, CSparseStoreBicgstabLinSysSolver<T>>(-1, T(eps), 3000), true,
       false},
      {"decomposer", decomposer<T>(4, eps, false), true, false},
      // Index base 0: the direct core copies the system into a base-1 matrix
      // (the upper triangle of a symmetric one), the decomposer's leaves
      // take the blocks as they are.
      {"compressed rows of base 0, direct",
       [](int) { return onBase0(new CLinSysSolverCompose<T, CCSRSstorage<T>, CLinSysSolverSparseDss<T>>()); },
       false, true},
      {"decomposer on base 0", decomposer<T>(3, eps, true), true, false},
      {"compose, default iterative core",
       make<T, CLinSysSolverCompose<T, CCSRSstorage<T>, CLinSysSolverSparseMKL<T>>>(), true, false},
      {"compose, default decomposing core",
       make<T, CLinSysSolverCompose<T, CCSRSstorage<T>, CLinSysSolverDecomposed<T>>>(), false, false},
      {"compose, shifted rows and row-product core",
       make<T, CLinSysSolverCompose<T, CVPLSstorage<T, CShiftedVectorAsVPLstorageRow<T>>,
                                    CLinSysSolverCoreBicgstab<T>>>(),
       true, true},
  };
}

// Direct solvers agree to rounding; the iterative ones to their eps (the
// default cores run with the float 1e-6).
template <class T> double tolerance(bool iterative)
{
  return sizeof(T) == 4 ? (iterative ? 2e-4 : 5e-5) : (iterative ? 5e-5 : 1e-10);
}

/// What `work` wrote to file descriptor 1, C streams included.
template <class F> std::string captureStdout(F work)
{
  ::testing::internal::CaptureStdout();
  work();
  return ::testing::internal::GetCapturedStdout();
}

// A dense row-major matrix behind bicgstab's product callback.
template <class T> struct CDense
{
  int n = 0;
  std::vector<T> a;

  static void multiply(void * context, T const * in, T * out)
  {
    auto * self = static_cast<CDense *>(context);
    for (int i = 0; i < self->n; ++i)
    {
      out[i] = T(0);
      for (int j = 0; j < self->n; ++j)
        out[i] += self->a[std::size_t(i) * self->n + j] * in[j];
    }
  }
  int solve(std::vector<T> const & b, std::vector<T> & x, int maxIterations)
  {
    return bicgstab(n, &multiply, this, b.data(), x.data(), T(1e-6), maxIterations);
  }
};
} // namespace

TYPED_TEST(Solvers, AgreeWithTheDenseReferenceForSeveralRightPartsRepeatedSolvesAndThreadCounts)
{
  using T = TypeParam;
  int threads = 0;
  for (auto const & problem : {randomProblem(90, 6, true, 11u), laplacian3D(6, 5, 4), chain(70)})
  {
    // One thread runs the decomposers' tasks on the caller's; more run a
    // level in batches.
    CVescaThreadingTasksHelper::setNumOfPhisicalThread(++threads);
    for (auto const & kind : allSolvers<T>())
    {
      SCOPED_TRACE(kind.name + ", n = " + std::to_string(problem.nFree) + ", " + std::to_string(threads) +
                   " threads");
      std::unique_ptr<IVertexPosLinearSystem<T>> solver(kind.make(problem.nFree));
      fill<T>(*solver, problem);
      ASSERT_TRUE(solver->IsCorrectlyDefinedSystem());
      // Three right parts at once, then two with new fixed positions.
      for (int first : {0, 3})
      {
        CRightParts<T> parts(problem, first == 0 ? 3 : 2, first);
        ASSERT_TRUE(parts.solveBy(*solver));
        for (int k = 0; k < parts.count(); ++k)
          EXPECT_LT(parts.error(k), tolerance<T>(kind.iterative)) << "right part " << first + k;
      }
      // A copy solves the same system.
      std::unique_ptr<IVertexPosLinearSystem<T>> copy(solver->Copy());
      CRightParts<T> again(problem, 1, 7);
      ASSERT_TRUE(again.solveBy(*copy));
      EXPECT_LT(again.error(0), tolerance<T>(kind.iterative));
    }
  }
}

TYPED_TEST(Solvers, FailurePaths)
{
  using T = TypeParam;
  CProblem const problem = chain(12);
  for (auto const & kind : allSolvers<T>())
  {
    SCOPED_TRACE(kind.name);
    // An equation too many spoils the system. The iterative and decomposing
    // cores solve whatever matrix there is; the others refuse.
    std::unique_ptr<IVertexPosLinearSystem<T>> solver(kind.make(problem.nFree));
    fill<T>(*solver, problem);
    solver->AddEquation(eq<T>({{0, 1}}));
    ASSERT_TRUE(solver->IsSpoiled());
    CRightParts<T> parts(problem, 1);
    EXPECT_EQ(parts.solveBy(*solver), !kind.checksDefinition);
    EXPECT_EQ(parts.delivered(0), kind.checksDefinition ? 0 : problem.nFree);

    // Arguments no core can use.
    std::unique_ptr<IVertexPosLinearSystem<T>> clean(kind.make(problem.nFree));
    fill<T>(*clean, problem);
    IEqSysResultReciever<T> * none = nullptr;
    EXPECT_FALSE(clean->SolveSystem(-1, parts.in.data(), parts.out.data(), nullptr));
    EXPECT_FALSE(clean->SolveSystem(1, nullptr, parts.out.data(), nullptr));
    EXPECT_FALSE(clean->SolveSystem(1, parts.in.data(), &none, nullptr));
  }

  // A singular matrix: two equal equations.
  CProblem singular = chain(6);
  singular.rows[3] = singular.rows[2];
  CLinSysSolverMKL<T> dense;
  fill<T>(dense, singular);
  CRightParts<T> parts(singular, 1);
  EXPECT_FALSE(parts.solveBy(dense));
  EXPECT_EQ(parts.delivered(0), 0);
}

TYPED_TEST(Solvers, IterativeCoreContracts)
{
  using T = TypeParam;
  // The row-product core starts from zero, so a zero right part is an exact
  // start, which breaks down: false, after the right parts before it.
  CProblem const problem = chain(10);
  CVPLSstorage<T, CSparseVectorAsVPLSstorageRow<T>> rows;
  fill<T>(rows, problem);
  CRightParts<T> parts(problem, 2);
  parts.informers[1] = CMapInformer<T>();
  CLinSysSolverCoreBicgstab<T> rowCore;
  EXPECT_FALSE(rowCore.solveSystem(rows, 2, parts.in.data(), parts.out.data(), nullptr));
  EXPECT_EQ(parts.delivered(0), problem.nFree);
  EXPECT_EQ(parts.delivered(1), 0);

  // The sparse core starts from the right part itself: for an identity matrix
  // that is exact, so each right part "breaks down", counts -1, and is still
  // delivered, exactly; the solve succeeds.
  CProblem identity{3, 3, std::vector<std::map<int, double>>(3), false, false};
  for (int i = 0; i < 3; ++i)
    identity.rows[i] = {{i, 1.0}, {3 + i, -1.0}};
  CCSRSstorage<T> csr;
  fill<T>(csr, identity);
  CRightParts<T> exact(identity, 2);
  CLinSysSolverSparseMKL<T> sparseCore(T(1e-6), 100);
  EXPECT_TRUE(sparseCore.solveSystem(csr, 2, exact.in.data(), exact.out.data(), nullptr));
  EXPECT_EQ(sparseCore.getIterationsUsed(), -2);
  EXPECT_EQ(exact.error(0) + exact.error(1), 0.0);
}

// Every right part may use up the limit; the count is their sum.
TYPED_TEST(Solvers, IterativeSolverCountsIterationsOverAllRightParts)
{
  using T = TypeParam;
  CProblem const problem = laplacian3D(7, 6, 5);
  CSparseStoreBicgstabLinSysSolver<T> solver(-1, T(1e-6), 2);
  fill<T>(solver, problem);
  CRightParts<T> parts(problem, 3);
  EXPECT_TRUE(parts.solveBy(solver));
  EXPECT_EQ(solver.getIterationsUsed(), 3 * 2);
}

TYPED_TEST(Solvers, InterruptionPassesOutAndLeavesTheSolverUsable)
{
  using T = TypeParam;
  CProblem const problem = laplacian3D(5, 5, 4);
  for (auto const & kind : allSolvers<T>())
  {
    SCOPED_TRACE(kind.name);
    std::unique_ptr<IVertexPosLinearSystem<T>> solver(kind.make(problem.nFree));
    fill<T>(*solver, problem);
    // Interrupt at each progress check in turn until a solve gets through.
    int interrupted = 0;
    for (int after = 1; after < 500; ++after)
    {
      CCountdownCounter counter(after);
      CRightParts<T> parts(problem, 2);
      try
      {
        ASSERT_TRUE(parts.solveBy(*solver, &counter));
        EXPECT_NEAR(counter.GetPosFloat(), 1.0, 1e-12);
        EXPECT_LT(parts.error(1), tolerance<T>(kind.iterative));
        break;
      }
      catch (CUserIntrException const &)
      {
        ++interrupted;
      }
    }
    EXPECT_GT(interrupted, 2);
  }
}

TYPED_TEST(Solvers, DecomposerBoundariesBreakdownAndSystemsWithoutAMatrix)
{
  using T = TypeParam;
  CProblem const problem = laplacian3D(5, 4, 4);
  int const n = problem.nFree;
  CCSRSstorage<T> storage;
  fill<T>(storage, problem);
  struct LC_Case
  {
    std::vector<int> given, completed;
  };
  for (LC_Case const & c : {LC_Case{{}, {0, n}}, LC_Case{{0, n}, {0, n}}, LC_Case{{n}, {0, n}},
                            LC_Case{{30}, {0, 30, n}}, LC_Case{{0, 30, 30, n}, {0, 30, 30, n}}})
  {
    CLinSysSolverDecomposed<T> core(c.given, sizeof(T) == 4 ? 1e-5 : 1e-10, -1); // reachable
    CRightParts<T> parts(problem, 1);
    ASSERT_TRUE(core.solveSystem(storage, 1, parts.in.data(), parts.out.data(), nullptr));
    EXPECT_EQ(core.getBoundaries(), c.completed);
    EXPECT_LT(parts.error(0), sizeof(T) == 4 ? 1e-4 : 1e-8);
    // Only merged blocks iterate; a single block is a leaf.
    EXPECT_EQ(core.getIterationsUsed() == 0, c.completed.size() == 2);
  }
  // Boundaries that fall or leave the system solve nothing.
  for (std::vector<int> const & bad :
       {std::vector<int>{0, 40, 20, n}, std::vector<int>{0, n + 5}, std::vector<int>{-3, 10}})
  {
    CLinSysSolverDecomposed<T> core(bad, 1e-6, -1);
    CRightParts<T> parts(problem, 1);
    EXPECT_FALSE(core.solveSystem(storage, 1, parts.in.data(), parts.out.data(), nullptr));
    EXPECT_EQ(parts.delivered(0), 0);
  }

  // A diagonal system of powers of two: the leaves solve their halves
  // exactly, so the root's residual is exactly 0, which the iteration takes
  // for a breakdown. Nothing is delivered.
  CProblem diagonal{8, 1, std::vector<std::map<int, double>>(8), false, false};
  for (int i = 0; i < 8; ++i)
    diagonal.rows[i] = {{i, double(1 << (i % 4))}, {8, -double(1 << (i % 3))}};
  CLinSysSolverSpaceDecomposer<T> solver({4}, 1e-6, 100);
  fill<T>(solver, diagonal);
  CRightParts<T> parts(diagonal, 1);
  EXPECT_FALSE(parts.solveBy(solver));
  EXPECT_EQ(parts.delivered(0), 0);

  // A system that is no compressed-row matrix: nothing is solved, zeros are
  // delivered, and the solve succeeds.
  CProblem const chained = chain(20);
  CVPLSstorage<T, CSparseVectorAsVPLSstorageRow<T>> rows;
  fill<T>(rows, chained);
  CLinSysSolverDecomposed<T> core({10}, 1e-6, -1);
  CRightParts<T> zeros(chained, 1);
  ASSERT_TRUE(core.solveSystem(rows, 1, zeros.in.data(), zeros.out.data(), nullptr));
  EXPECT_EQ(zeros.solution(0), std::vector<double>(chained.nFree, 0.0));
}

TYPED_TEST(Solvers, DirectSparseFailuresGiveFalseAndMklPrintsNothing)
{
  using T = TypeParam;
  // Symmetric and indefinite: the chain made symmetric, one diagonal negative.
  CProblem indefinite = chain(30);
  for (int i = 0; i + 1 < 30; ++i)
    indefinite.rows[i][i + 1] = indefinite.rows[i + 1][i] = -1.0;
  indefinite.rows[15][15] = -3.0;
  indefinite.symmetric = indefinite.positiveDefinite = true;
  CSparseStoreSparseLinSysSolver<T> solver(0);
  fill<T>(solver, indefinite);
  CRightParts<T> parts(indefinite, 1);
  // Declared positive definite, it fails in the factorisation; without the
  // promise it is solved as indefinite.
  EXPECT_EQ(captureStdout([&] { EXPECT_FALSE(parts.solveBy(solver)); }), "");
  EXPECT_EQ(parts.delivered(0), 0);
  solver.setPositiveDefinite(false);
  EXPECT_EQ(captureStdout([&] { EXPECT_TRUE(parts.solveBy(solver)); }), "");
  EXPECT_LT(parts.error(0), sizeof(T) == 4 ? 1e-4 : 1e-11);

  // A system of size 0.
  CSparseStoreSparseLinSysSolver<T> empty(0);
  CProblem const none;
  CRightParts<T> noParts(none, 1);
  EXPECT_FALSE(noParts.solveBy(empty));

  // Matrices without a usable element: rows never filled (which read as
  // empty rows), or none at all.
  CLinSysSolverSparseDss<T> dss;
  std::vector<T> b(4, T(1)), x(4, T(0));
  CCSRSquareMatrix<T> unfinished;
  {
    CCSRSquareMatrixFiller<T> filler(&unfinished, 4, -1, 1, false);
    filler.pushByRawNextNonZeroElement(1, 1, T(2));
    filler.pushByRawNextNonZeroElement(2, 2, T(2));
  }
  EXPECT_EQ(
      captureStdout(
          [&] { EXPECT_FALSE(dss.solveForExplicitMatrix(x.data(), unfinished, false, b.data(), nullptr)); }),
      "");
  EXPECT_FALSE(dss.solveForExplicitMatrix(x.data(), CCSRSquareMatrix<T>(), false, b.data(), nullptr));
}

TYPED_TEST(Solvers, BicgstabReturnContractAndSafetyLimit)
{
  using T = TypeParam;
  // Identity from zero: alpha is 1, x becomes b, and the loop ends after one step.
  CDense<T> identity{3, {1, 0, 0, 0, 1, 0, 0, 0, 1}};
  std::vector<T> const b = {T(1), T(-2), T(0.5)};
  std::vector<T> x(3, T(0));
  EXPECT_EQ(identity.solve(b, x, -1), 1);
  EXPECT_EQ(x, b);
  // An exact start has a zero shadow residual: a breakdown, the start kept.
  EXPECT_EQ(identity.solve(b, x, -1), -1);
  EXPECT_EQ(x, b);
  // Skew-symmetric: h.(A h) is 0 in the first step.
  CDense<T> skew{2, {0, 1, -1, 0}};
  std::vector<T> b2 = {T(1), T(2)}, x2(2, T(0));
  EXPECT_EQ(skew.solve(b2, x2, 100), -1);
  EXPECT_EQ(bicgstab(-1, &CDense<T>::multiply, &skew, b2.data(), x2.data(), T(1e-6), 100), -1);

  // h.h = 1e-16: below the float threshold 1e-15, far above the double 1e-40.
  CDense<T> one{1, {T(1)}};
  std::vector<T> tiny = {T(1e-8)}, t(1, T(0));
  EXPECT_EQ(one.solve(tiny, t, -1), sizeof(T) == 4 ? -1 : 1);

  // A constant product (no linear map) keeps the residual at its part
  // orthogonal to the constant for ever, and never breaks down.
  struct LC_Constant
  {
    int calls = 0;
    static void multiply(void * context, T const *, T * out)
    {
      ++static_cast<LC_Constant *>(context)->calls;
      out[0] = T(1), out[1] = T(0), out[2] = T(0);
    }
  } constant;
  std::vector<T> const bc = {T(0.5), T(1), T(0)};
  std::vector<T> xc(3, T(0)), yc(3, T(0));
  EXPECT_EQ(bicgstab(3, &LC_Constant::multiply, &constant, bc.data(), xc.data(), T(1e-6), 0), -1);
  EXPECT_EQ(constant.calls, 2 * (10 * 3 + 1000) + 1);
  // A limit of the caller's is obeyed as given, however far from the solution.
  EXPECT_EQ(bicgstab(3, &LC_Constant::multiply, &constant, bc.data(), yc.data(), T(1e-6), 5000), 5000);
}
