#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <typeinfo>
#include <vector>

#include "QZmath/LinSys/LinSysSolverCompose.h"
#include "QZmath/LinSys/LinSysSolverDecomposed.h"
#include "SolverTestSystems.h"

using namespace REmath;
using solver_test::CProblem;
using solver_test::CRightParts;

namespace
{
template <class T> class Solvers : public ::testing::Test
{
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

template <class T> std::vector<CSolverKind<T>> allSolvers()
{
  double const eps = sizeof(T) == 4 ? 1e-6 : 1e-9;
  return {
      {"dense", [](int) { return new CLinSysSolverMKL<T>(); }, false, true},
      {"sparse rows, direct", [](int) { return new CSparseLinSysSolver<T>(); }, false, true},
      {"compressed rows, direct", [](int) { return new CSparseStoreSparseLinSysSolver<T>(0); }, false, true},
      {"compressed rows, iterative",
       [eps](int) { return new CSparseStoreBicgstabLinSysSolver<T>(-1, T(eps), 3000); }, true, false},
      {"decomposer",
       [eps](int n) {
         return new CLinSysSolverSpaceDecomposer<T>({n / 4, 2 * n / 4, 3 * n / 4}, eps, 10000);
       },
       true, false},
      // Index base 0: the direct core copies the system into a base-1 matrix
      // (the upper triangle of a symmetric one), the decomposer's leaves
      // take the blocks as they are.
      {"compressed rows of base 0, direct",
       [](int)
       {
         auto * s = new CLinSysSolverCompose<T, CCSRSstorage<T>, CLinSysSolverSparseDss<T>>();
         s->getStorageRefMod().setIndexBase(0);
         return s;
       },
       false, true},
      {"decomposer on base 0",
       [eps](int n)
       {
         auto * s = new CLinSysSolverSpaceDecomposer<T>({n / 3, 2 * n / 3}, eps, 10000);
         s->getStorageRefMod().setIndexBase(0);
         return s;
       },
       true, false},
      {"compose, default iterative core",
       [](int) { return new CLinSysSolverCompose<T, CCSRSstorage<T>, CLinSysSolverSparseMKL<T>>(); }, true,
       false},
      {"compose, default decomposing core",
       [](int) { return new CLinSysSolverCompose<T, CCSRSstorage<T>, CLinSysSolverDecomposed<T>>(); }, false,
       false},
      {"compose, shifted rows and row-product core",
       [](int)
       {
         return new CLinSysSolverCompose<T, CVPLSstorage<T, CShiftedVectorAsVPLstorageRow<T>>,
                                         CLinSysSolverCoreBicgstab<T>>();
       },
       true, true},
  };
}

// Direct solvers agree to rounding; the iterative ones to their eps (the
// default cores run with the float 1e-6).
template <class T> double tolerance(bool iterative)
{
  return sizeof(T) == 4 ? (iterative ? 2e-4 : 5e-5) : (iterative ? 5e-5 : 1e-10);
}
} // namespace

TYPED_TEST(Solvers, AgreeWithTheDenseReferenceForSeveralRightPartsAndRepeatedSolves)
{
  using T = TypeParam;
  for (auto const & problem :
       {solver_test::randomSpd(90, 6, 11u), solver_test::laplacian3D(6, 5, 4), solver_test::chain(70)})
    for (auto const & kind : allSolvers<T>())
    {
      SCOPED_TRACE(kind.name + ", n = " + std::to_string(problem.nFree));
      std::unique_ptr<IVertexPosLinearSystem<T>> solver(kind.make(problem.nFree));
      solver_test::fill<T>(*solver, problem);
      ASSERT_TRUE(solver->IsCorrectlyDefinedSystem());
      // Three right parts at once, then two with new fixed positions.
      for (int first : {0, 3})
      {
        CRightParts<T> parts(problem, first == 0 ? 3 : 2, first);
        ASSERT_TRUE(parts.solveBy(*solver));
        for (int k = 0; k < parts.count(); ++k)
          EXPECT_LT(parts.error(k), tolerance<T>(kind.iterative)) << "right part " << first + k;
      }
      // A copy is a solver of the same class with the same system.
      std::unique_ptr<IVertexPosLinearSystem<T>> copy(solver->Copy());
      EXPECT_EQ(typeid(*copy), typeid(*solver));
      CRightParts<T> again(problem, 1, 7);
      ASSERT_TRUE(again.solveBy(*copy));
      EXPECT_LT(again.error(0), tolerance<T>(kind.iterative));
    }
}

TYPED_TEST(Solvers, FailurePaths)
{
  using T = TypeParam;
  CProblem const problem = solver_test::chain(12);
  for (auto const & kind : allSolvers<T>())
  {
    SCOPED_TRACE(kind.name);
    // An equation too many spoils the system. The iterative and decomposing
    // cores solve whatever matrix there is; the others refuse.
    std::unique_ptr<IVertexPosLinearSystem<T>> solver(kind.make(problem.nFree));
    solver_test::fill<T>(*solver, problem);
    CVertexLinearCombination<T> extra;
    extra.AddVertex(0, T(1));
    solver->AddEquation(extra);
    ASSERT_TRUE(solver->IsSpoiled());
    CRightParts<T> parts(problem, 1);
    EXPECT_EQ(parts.solveBy(*solver), !kind.checksDefinition);
    EXPECT_EQ(parts.recievers[0].calls, kind.checksDefinition ? 0 : problem.nFree);

    // Arguments no core can use.
    std::unique_ptr<IVertexPosLinearSystem<T>> clean(kind.make(problem.nFree));
    solver_test::fill<T>(*clean, problem);
    IEqSysResultReciever<T> * none = nullptr;
    EXPECT_FALSE(clean->SolveSystem(-1, parts.in.data(), parts.out.data(), nullptr));
    EXPECT_FALSE(clean->SolveSystem(1, nullptr, parts.out.data(), nullptr));
    EXPECT_FALSE(clean->SolveSystem(1, parts.in.data(), &none, nullptr));
  }

  // A singular matrix: two equal equations.
  CProblem singular = solver_test::chain(6);
  singular.rows[3] = singular.rows[2];
  CLinSysSolverMKL<T> dense;
  solver_test::fill<T>(dense, singular);
  CRightParts<T> parts(singular, 1);
  EXPECT_FALSE(parts.solveBy(dense));
  EXPECT_EQ(parts.recievers[0].calls, 0);
}

TYPED_TEST(Solvers, IterativeCoreContracts)
{
  using T = TypeParam;
  // The row-product core starts from zero, so a zero right part is an exact
  // start, which breaks down: false, after the right parts before it.
  CProblem const problem = solver_test::chain(10);
  CVPLSstorage<T, CSparseVectorAsVPLSstorageRow<T>> rows;
  solver_test::fill<T>(rows, problem);
  CRightParts<T> parts(problem, 2);
  parts.informers[1] = solver_test::CArrayInformer<T>(problem.nFree, {0.0, 0.0, 0.0});
  CLinSysSolverCoreBicgstab<T> rowCore;
  EXPECT_FALSE(rowCore.solveSystem(rows, 2, parts.in.data(), parts.out.data(), nullptr));
  EXPECT_EQ(parts.recievers[0].calls, problem.nFree);
  EXPECT_EQ(parts.recievers[1].calls, 0);
  // Without equations it succeeds and asks the informers nothing.
  CVPLSstorage<T, CSparseVectorAsVPLSstorageRow<T>> empty;
  EXPECT_TRUE(rowCore.solveSystem(empty, 1, parts.in.data(), parts.out.data(), nullptr));
  EXPECT_EQ(parts.informers[0].asked, 3);

  // The sparse core starts from the right part itself: for an identity matrix
  // that is exact, so each right part "breaks down", counts -1, and is still
  // delivered, exactly; the solve succeeds.
  CProblem identity{3, 3, std::vector<std::map<int, double>>(3), false, false};
  for (int i = 0; i < 3; ++i)
    identity.rows[i] = {{i, 1.0}, {3 + i, -1.0}};
  CCSRSstorage<T> csr;
  solver_test::fill<T>(csr, identity);
  CRightParts<T> exact(identity, 2);
  CLinSysSolverSparseMKL<T> sparseCore(T(1e-6), 100);
  EXPECT_TRUE(sparseCore.solveSystem(csr, 2, exact.in.data(), exact.out.data(), nullptr));
  EXPECT_EQ(sparseCore.getIterationsUsed(), -2);
  EXPECT_EQ(exact.error(0), 0.0);
  EXPECT_EQ(exact.error(1), 0.0);

  EXPECT_EQ(CLinSysSolverSparseMKL<float>::st_DefaultBicgStabEps, 1e-6f);
  EXPECT_EQ(CLinSysSolverSparseMKL<double>::st_DefaultBicgStabEps, 9.999999974752427e-07);
}

TYPED_TEST(Solvers, IterativeSolverCountsIterationsOverAllRightParts)
{
  using T = TypeParam;
  CProblem const problem = solver_test::laplacian3D(7, 6, 5);
  auto solveAndCount = [&](int count, int first, int maxIterations)
  {
    CSparseStoreBicgstabLinSysSolver<T> solver(-1, T(1e-6), maxIterations);
    solver_test::fill<T>(solver, problem);
    CRightParts<T> parts(problem, count, first);
    EXPECT_TRUE(parts.solveBy(solver));
    return solver.getIterationsUsed();
  };
  int const together = solveAndCount(3, 0, 3000);
  EXPECT_GT(together, 0);
  EXPECT_EQ(together, solveAndCount(1, 0, 3000) + solveAndCount(1, 1, 3000) + solveAndCount(1, 2, 3000));
  EXPECT_EQ(solveAndCount(3, 0, 2), 3 * 2);
}

TYPED_TEST(Solvers, InterruptionPassesOutAndLeavesTheSolverUsable)
{
  using T = TypeParam;
  CProblem const problem = solver_test::laplacian3D(5, 5, 4);
  for (auto const & kind : allSolvers<T>())
  {
    SCOPED_TRACE(kind.name);
    std::unique_ptr<IVertexPosLinearSystem<T>> solver(kind.make(problem.nFree));
    solver_test::fill<T>(*solver, problem);
    // Interrupt at each progress check in turn until a solve gets through.
    int interrupted = 0;
    for (int after = 1; after < 500; ++after)
    {
      solver_test::CCountdownCounter counter(after);
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
