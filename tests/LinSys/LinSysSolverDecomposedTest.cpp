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

template <class T> std::vector<std::vector<double>> directSolutions(CProblem const & problem, int parts)
{
  CSparseStoreSparseLinSysSolver<T> direct(0);
  solver_test::fill<T>(direct, problem);
  CRightParts<T> rightParts(problem, parts);
  EXPECT_TRUE(solver_test::solve(direct, rightParts));
  return {rightParts.recievers[0].values, rightParts.recievers[parts - 1].values};
}
} // namespace

TYPED_TEST(DecomposingSolver, AgreesWithTheDirectSolverFor2And4And8Blocks)
{
  using T = TypeParam;
  double const eps = sizeof(T) == 4 ? 1e-6 : 1e-10;
  double const tolerance = sizeof(T) == 4 ? 2e-4 : 1e-8;
  for (auto const & problem : {solver_test::laplacian3D(8, 6, 5), solver_test::chain(150), solver_test::randomSpd(160, 5, 9u)})
  {
    auto const direct = directSolutions<T>(problem, 2);
    for (int threads : {1, 2, 3})
    {
      CVescaThreadingTasksHelper::setNumOfPhisicalThread(threads);
      for (int blocks : {2, 4, 8})
      {
        SCOPED_TRACE("n " + std::to_string(problem.nFree) + ", " + std::to_string(blocks) + " blocks, " +
                     std::to_string(threads) + " threads");
        CLinSysSolverSpaceDecomposer<T> solver(evenCuts(problem.nFree, blocks), eps, 10000);
        solver_test::fill<T>(solver, problem);
        CRightParts<T> parts(problem, 2);
        ASSERT_TRUE(solver_test::solve(solver, parts));
        EXPECT_LT(solver_test::relativeError(parts.solution(0), direct[0]), tolerance);
        EXPECT_LT(solver_test::relativeError(parts.solution(1), direct[1]), tolerance);
        EXPECT_GT(solver.getIterationsUsed(), 0);
      }
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
  auto const direct = directSolutions<T>(problem, 1);

  struct LC_Case
  {
    std::vector<int> given;
    std::vector<int> completed;
  };
  for (LC_Case const & c : {LC_Case{{}, {0, n}}, LC_Case{{0, n}, {0, n}}, LC_Case{{n}, {0, n}},
                            LC_Case{{0}, {0, n}}, LC_Case{{30}, {0, 30, n}}, LC_Case{{0, 30, 30, n}, {0, 30, 30, n}}})
  {
    CLinSysSolverDecomposed<T> core(c.given, sizeof(T) == 4 ? 1e-5 : 1e-9, -1);
    CRightParts<T> parts(problem, 1);
    ASSERT_TRUE(core.solveSystem(storage, 1, parts.in(), parts.out(), nullptr));
    EXPECT_EQ(core.getBoundaries(), c.completed);
    EXPECT_LT(solver_test::relativeError(parts.solution(0), direct[0]), sizeof(T) == 4 ? 1e-4 : 1e-8);
    // Only merged blocks iterate; a single block is a leaf.
    if (c.completed.size() == 2)
    {
      EXPECT_EQ(core.getIterationsUsed(), 0);
    }
  }

  // Boundaries that fall or leave the system solve nothing.
  for (std::vector<int> const & bad : {std::vector<int>{0, 40, 20, n}, std::vector<int>{0, n + 5}, std::vector<int>{-3, 10}})
  {
    CLinSysSolverDecomposed<T> core(bad, 1e-9, -1);
    CRightParts<T> parts(problem, 1);
    EXPECT_FALSE(core.solveSystem(storage, 1, parts.in(), parts.out(), nullptr));
    EXPECT_EQ(parts.recievers[0].calls, 0);
  }
}

TYPED_TEST(DecomposingSolver, CountsTheIterationsOfMergedBlocksOverAllRightParts)
{
  using T = TypeParam;
  CProblem const problem = solver_test::chain(120);
  std::vector<int> const cuts = evenCuts(problem.nFree, 4);
  double const eps = sizeof(T) == 4 ? 1e-5 : 1e-8;
  int sum = 0;
  for (int k = 0; k < 3; ++k)
  {
    CLinSysSolverSpaceDecomposer<T> alone(cuts, eps, 10000);
    solver_test::fill<T>(alone, problem);
    CRightParts<T> one(problem, 1, k);
    ASSERT_TRUE(solver_test::solve(alone, one));
    sum += alone.getIterationsUsed();
  }
  CLinSysSolverSpaceDecomposer<T> together(cuts, eps, 10000);
  solver_test::fill<T>(together, problem);
  CRightParts<T> parts(problem, 3);
  ASSERT_TRUE(solver_test::solve(together, parts));
  EXPECT_EQ(together.getIterationsUsed(), sum);
  EXPECT_GT(sum, 0);
}

TYPED_TEST(DecomposingSolver, FailsWhenTheRootStartsExactlySolved)
{
  using T = TypeParam;
  // A diagonal system of powers of two: the leaves solve their halves
  // exactly, so the root's residual is exactly 0, which the iteration takes
  // for a breakdown. Nothing is delivered.
  CProblem p;
  p.nFree = 8;
  p.nFixed = 1;
  p.rows.resize(8);
  for (int i = 0; i < 8; ++i)
  {
    p.rows[i][i] = static_cast<double>(1 << (i % 4));
    p.rows[i][8] = -static_cast<double>(1 << (i % 3));
  }
  CLinSysSolverSpaceDecomposer<T> solver({4}, 1e-6, 100);
  solver_test::fill<T>(solver, p);
  CRightParts<T> parts(p, 1);
  EXPECT_FALSE(solver_test::solve(solver, parts));
  EXPECT_EQ(parts.recievers[0].calls, 0);
}

TYPED_TEST(DecomposingSolver, ASystemThatIsNoMatrixIsDeliveredAsZeros)
{
  using T = TypeParam;
  CProblem const problem = solver_test::chain(20);
  CVPLSstorage<T, CSparseVectorAsVPLSstorageRow<T>> rows;
  solver_test::fill<T>(rows, problem);
  CLinSysSolverDecomposed<T> core({10}, 1e-6, -1);
  CRightParts<T> parts(problem, 1);
  ASSERT_TRUE(core.solveSystem(rows, 1, parts.in(), parts.out(), nullptr));
  EXPECT_EQ(parts.solution(0), std::vector<double>(problem.nFree, 0.0));
  EXPECT_EQ(core.getIterationsUsed(), 0);
}
