#include <gtest/gtest.h>

#include <vector>

#include "QZmath/LinSys/CSRSstorage.h"
#include "QZmath/LinSys/LinSysSolverCore.h"
#include "QZmath/LinSys/VPLSstorage.h"
#include "SolverTestSystems.h"

using namespace REmath;
using solver_test::CProblem;
using solver_test::CRightParts;

namespace
{
template <class T> class SolverCores : public ::testing::Test
{
};
using Scalars = ::testing::Types<float, double>;
TYPED_TEST_SUITE(SolverCores, Scalars);

template <class T> using CDenseRows = CVPLSstorage<T, CStdVectorAsVPLSstorageRow<T>>;

template <class T> bool solveBy(ILinSysSolverCore<T> & core, ILinearSystemReadOnly<T> const & system,
                                CRightParts<T> & parts)
{
  return core.solveSystem(system, parts.count(), parts.in(), parts.out(), nullptr);
}

/// An identity system x(i) = fixed position of vertex n + i.
CProblem identity(int n)
{
  CProblem p;
  p.nFree = n;
  p.nFixed = n;
  p.rows.resize(n);
  for (int i = 0; i < n; ++i)
  {
    p.rows[i][i] = 1.0;
    p.rows[i][n + i] = -1.0;
  }
  return p;
}
} // namespace

TEST(SolverCoreConstants, DefaultIterativeEpsIsTheFloatValueInBothMembers)
{
  EXPECT_EQ(CLinSysSolverSparseMKL<float>::st_DefaultBicgStabEps, 1e-6f);
  EXPECT_EQ(CLinSysSolverSparseMKL<double>::st_DefaultBicgStabEps, 9.999999974752427e-07);
  EXPECT_NE(CLinSysSolverSparseMKL<double>::st_DefaultBicgStabEps, 1e-6);
}

TYPED_TEST(SolverCores, RowProductCoreAsksNothingOfAnEmptySystemAndRefusesASpoiledOne)
{
  using T = TypeParam;
  CLinSysSolverCoreBicgstab<T> core;
  CDenseRows<T> empty;
  solver_test::CArrayInformer<T> informer(0, {});
  solver_test::CVectorReciever<T> reciever(0);
  IVertexPosInformer<T> const * in[] = {&informer};
  IEqSysResultReciever<T> * out[] = {&reciever};
  EXPECT_TRUE(core.solveSystem(empty, 1, in, out, nullptr));
  EXPECT_EQ(informer.asked(), 0);
  EXPECT_EQ(reciever.calls, 0);

  CProblem const problem = solver_test::chain(8);
  CDenseRows<T> spoiled;
  solver_test::fill<T>(spoiled, problem);
  spoiled.Spoil();
  CRightParts<T> parts(problem, 1);
  EXPECT_FALSE(solveBy<T>(core, spoiled, parts));
  EXPECT_EQ(parts.recievers[0].calls, 0);
}

TYPED_TEST(SolverCores, RowProductCoreFailsOnBreakdownAfterDeliveringEarlierRightParts)
{
  using T = TypeParam;
  // The core starts from zero: a zero right part is an exactly solved start,
  // which the iteration reports as a breakdown.
  CProblem const problem = solver_test::chain(10);
  CDenseRows<T> storage;
  solver_test::fill<T>(storage, problem);
  solver_test::CArrayInformer<T> good(problem.nFree, {1.0, 2.0, 0.5});
  solver_test::CArrayInformer<T> zero(problem.nFree, {0.0, 0.0, 0.0});
  solver_test::CVectorReciever<T> first(problem.nFree), second(problem.nFree);
  IVertexPosInformer<T> const * in[] = {&good, &zero};
  IEqSysResultReciever<T> * out[] = {&first, &second};
  CLinSysSolverCoreBicgstab<T> core;
  EXPECT_FALSE(core.solveSystem(storage, 2, in, out, nullptr));
  EXPECT_EQ(first.calls, problem.nFree);
  EXPECT_EQ(second.calls, 0);
  EXPECT_LT(solver_test::relativeError(first.values, solver_test::referenceSolution<T>(problem, {1.0, 2.0, 0.5})),
            sizeof(T) == 4 ? 1e-4 : 1e-5);
}

TYPED_TEST(SolverCores, DenseCoreRefusesSpoiledAndSingularSystems)
{
  using T = TypeParam;
  CLinSysSolverCoreMkl<T> core;
  CProblem problem = solver_test::chain(5);
  CDenseRows<T> spoiled;
  solver_test::fill<T>(spoiled, problem);
  spoiled.Spoil();
  CRightParts<T> parts(problem, 2);
  EXPECT_FALSE(solveBy<T>(core, spoiled, parts));

  problem.rows[3] = problem.rows[2]; // two equal equations
  CDenseRows<T> singular;
  solver_test::fill<T>(singular, problem);
  ASSERT_TRUE(singular.IsCorrectlyDefinedSystem());
  EXPECT_FALSE(solveBy<T>(core, singular, parts));
  EXPECT_EQ(parts.recievers[0].calls + parts.recievers[1].calls, 0);

  CDenseRows<T> empty;
  EXPECT_TRUE(core.solveSystem(empty, 0, nullptr, nullptr, nullptr));
}

TYPED_TEST(SolverCores, SparseIterativeCoreStartsFromTheRightPartAndToleratesBreakdown)
{
  using T = TypeParam;
  // For an identity matrix the right part is the solution, so the start is
  // exact: each right part "breaks down", is counted -1, and is delivered
  // exactly; the core still succeeds.
  CProblem const problem = identity(6);
  CCSRSstorage<T> storage;
  solver_test::fill<T>(storage, problem);
  CLinSysSolverSparseMKL<T> core(T(1e-6), 100);
  CRightParts<T> parts(problem, 2);
  EXPECT_TRUE(solveBy<T>(core, storage, parts));
  EXPECT_EQ(core.getIterationsUsed(), -2);
  for (int k = 0; k < 2; ++k)
  {
    auto const fixed = solver_test::fixedPositions(problem, k);
    for (int i = 0; i < problem.nFree; ++i)
      EXPECT_EQ(parts.solution(k)[i], static_cast<double>(static_cast<T>(fixed[i])));
  }

  // No equations: the iteration runs on size 0, which is a breakdown too.
  CCSRSstorage<T> empty;
  solver_test::CArrayInformer<T> informer(0, {});
  solver_test::CVectorReciever<T> reciever(0);
  IVertexPosInformer<T> const * in[] = {&informer};
  IEqSysResultReciever<T> * out[] = {&reciever};
  EXPECT_TRUE(core.solveSystem(empty, 1, in, out, nullptr));
  EXPECT_EQ(core.getIterationsUsed(), -1);
}

TYPED_TEST(SolverCores, SparseIterativeCoreCopiesASystemThatIsNoMatrix)
{
  using T = TypeParam;
  CProblem const problem = solver_test::chain(40);
  CDenseRows<T> rows;
  CCSRSstorage<T> csr;
  solver_test::fill<T>(rows, problem);
  solver_test::fill<T>(csr, problem);
  CLinSysSolverSparseMKL<T> core(T(1e-7), -1);
  EXPECT_EQ(core.getBicgstabEps(), T(1e-7));
  EXPECT_EQ(core.getMaxIterationsAllowed(), -1);
  CRightParts<T> fromRows(problem, 2), fromCsr(problem, 2);
  ASSERT_TRUE(solveBy<T>(core, rows, fromRows));
  int const rowIterations = core.getIterationsUsed();
  ASSERT_TRUE(solveBy<T>(core, csr, fromCsr));
  // Same matrix, same start, same iteration.
  EXPECT_EQ(core.getIterationsUsed(), rowIterations);
  EXPECT_GT(rowIterations, 0);
  for (int k = 0; k < 2; ++k)
    EXPECT_LT(solver_test::relativeError(fromRows.solution(k), fromCsr.solution(k)), sizeof(T) == 4 ? 1e-6 : 1e-14);

  // The explicit form runs the same iteration from the caller's start.
  std::vector<T> b(problem.nFree, T(0));
  csr.SetSingleRightPart(b.data(), fromCsr.informers[0]);
  std::vector<T> x = b;
  int const iterations = core.solveForExplicitMatrix(x.data(), csr, b.data(), nullptr);
  EXPECT_GT(iterations, 0);
  for (int i = 0; i < problem.nFree; ++i)
    EXPECT_EQ(static_cast<double>(x[i]), fromCsr.solution(0)[i]);
}
