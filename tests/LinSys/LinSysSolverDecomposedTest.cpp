#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QZmath/LinSys/LinSysSolverDecomposed.h"
#include "QZsys/Threading.h"
#include "SolverTestSystems.h"

using namespace REmath;
using solver_test::CProblem;
using solver_test::CRightParts;

namespace
{
template <class T> class DecomposingSolver : public ::testing::Test
{
protected:
  void TearDown() override { CVescaThreadingTasksHelper::setNumOfPhisicalThread(0); }
};
using Scalars = ::testing::Types<float, double>;
TYPED_TEST_SUITE(DecomposingSolver, Scalars);

std::vector<int> evenCuts(int n, int blocks)
{
  std::vector<int> cuts;
  for (int k = 1; k < blocks; ++k)
    cuts.push_back(k * n / blocks);
  return cuts;
}

// An eps the precision can reach.
template <class T> double reachableEps() { return sizeof(T) == 4 ? 1e-5 : 1e-10; }
} // namespace

TYPED_TEST(DecomposingSolver, AgreesWithTheDirectSolverFor2And4And8Blocks)
{
  using T = TypeParam;
  for (auto const & problem :
       {solver_test::laplacian3D(8, 6, 5), solver_test::chain(150), solver_test::randomSpd(160, 5, 9u)})
  {
    CSparseStoreSparseLinSysSolver<T> direct(0);
    solver_test::fill<T>(direct, problem);
    CRightParts<T> reference(problem, 2);
    ASSERT_TRUE(reference.solveBy(direct));
    // One thread runs the tasks on the caller's; more run a level in batches.
    for (int threads : {1, 2, 3})
      for (int blocks : {2, 4, 8})
      {
        SCOPED_TRACE("n " + std::to_string(problem.nFree) + ", " + std::to_string(blocks) + " blocks, " +
                     std::to_string(threads) + " threads");
        CVescaThreadingTasksHelper::setNumOfPhisicalThread(threads);
        CLinSysSolverSpaceDecomposer<T> solver(evenCuts(problem.nFree, blocks), reachableEps<T>(), 10000);
        solver_test::fill<T>(solver, problem);
        CRightParts<T> parts(problem, 2);
        ASSERT_TRUE(parts.solveBy(solver));
        for (int k = 0; k < 2; ++k)
          EXPECT_LT(solver_test::relativeError(parts.solution(k), reference.solution(k)),
                    sizeof(T) == 4 ? 2e-4 : 1e-8);
        EXPECT_GT(solver.getIterationsUsed(), 0);
      }
  }
}

TYPED_TEST(DecomposingSolver, BoundariesAreCompletedAndOneBlockIsOneDirectSolve)
{
  using T = TypeParam;
  CProblem const problem = solver_test::laplacian3D(5, 4, 4);
  int const n = problem.nFree;
  CCSRSstorage<T> storage;
  solver_test::fill<T>(storage, problem);
  struct LC_Case
  {
    std::vector<int> given, completed;
  };
  for (LC_Case const & c : {LC_Case{{}, {0, n}}, LC_Case{{0, n}, {0, n}}, LC_Case{{n}, {0, n}},
                            LC_Case{{30}, {0, 30, n}}, LC_Case{{0, 30, 30, n}, {0, 30, 30, n}}})
  {
    CLinSysSolverDecomposed<T> core(c.given, reachableEps<T>(), -1);
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
    EXPECT_EQ(parts.recievers[0].calls, 0);
  }
}

TYPED_TEST(DecomposingSolver, BreakdownAtTheRootAndSystemsWithoutAMatrix)
{
  using T = TypeParam;
  // A diagonal system of powers of two: the leaves solve their halves
  // exactly, so the root's residual is exactly 0, which the iteration takes
  // for a breakdown. Nothing is delivered.
  CProblem diagonal{8, 1, std::vector<std::map<int, double>>(8), false, false};
  for (int i = 0; i < 8; ++i)
    diagonal.rows[i] = {{i, double(1 << (i % 4))}, {8, -double(1 << (i % 3))}};
  CLinSysSolverSpaceDecomposer<T> solver({4}, 1e-6, 100);
  solver_test::fill<T>(solver, diagonal);
  CRightParts<T> parts(diagonal, 1);
  EXPECT_FALSE(parts.solveBy(solver));
  EXPECT_EQ(parts.recievers[0].calls, 0);

  // A system that is no compressed-row matrix: nothing is solved, zeros are
  // delivered, and the solve succeeds.
  CProblem const problem = solver_test::chain(20);
  CVPLSstorage<T, CSparseVectorAsVPLSstorageRow<T>> rows;
  solver_test::fill<T>(rows, problem);
  CLinSysSolverDecomposed<T> core({10}, 1e-6, -1);
  CRightParts<T> zeros(problem, 1);
  ASSERT_TRUE(core.solveSystem(rows, 1, zeros.in.data(), zeros.out.data(), nullptr));
  EXPECT_EQ(zeros.solution(0), std::vector<double>(problem.nFree, 0.0));
}
