#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "QZmath/LinSys/LinSysSolverCompose.h"
#include "QZmath/LinSys/LinSysSolverDecomposed.h"
#include "SolverTestSystems.h"

using namespace REmath;
using solver_test::CProblem;
using solver_test::CRightParts;

namespace
{
template <class T> class ReadySolvers : public ::testing::Test
{
};
using Scalars = ::testing::Types<float, double>;
TYPED_TEST_SUITE(ReadySolvers, Scalars);

template <class T> struct CSolverKind
{
  std::string name;
  std::function<IVertexPosLinearSystem<T> *(int n)> make;
  bool iterative;
};

template <class T> std::vector<CSolverKind<T>> allSolvers()
{
  T const eps = sizeof(T) == 4 ? T(1e-6) : T(1e-9);
  return {
      {"CLinSysSolverMKL", [](int) { return new CLinSysSolverMKL<T>(); }, false},
      {"CSparseLinSysSolver", [](int) { return new CSparseLinSysSolver<T>(); }, false},
      {"CSparseStoreSparseLinSysSolver", [](int) { return new CSparseStoreSparseLinSysSolver<T>(0); }, false},
      {"CSparseStoreBicgstabLinSysSolver",
       [eps](int) { return new CSparseStoreBicgstabLinSysSolver<T>(-1, eps, 3000); }, true},
      {"CLinSysSolverSpaceDecomposer",
       [](int n) {
         return new CLinSysSolverSpaceDecomposer<T>({n / 4, 2 * n / 4, 3 * n / 4}, sizeof(T) == 4 ? 1e-6 : 1e-9,
                                                    10000);
       },
       true},
      {"compose: compressed rows + default iterative core",
       [](int) { return new CLinSysSolverCompose<T, CCSRSstorage<T>, CLinSysSolverSparseMKL<T>>(); }, true},
      {"compose: compressed rows + default decomposing core",
       [](int) { return new CLinSysSolverCompose<T, CCSRSstorage<T>, CLinSysSolverDecomposed<T>>(); }, false},
      {"compose: shifted rows + row-product iterative core",
       [](int) {
         return new CLinSysSolverCompose<T, CVPLSstorage<T, CShiftedVectorAsVPLstorageRow<T>>,
                                         CLinSysSolverCoreBicgstab<T>>();
       },
       true},
  };
}

template <class T> double tolerance(bool iterative)
{
  if (sizeof(T) == 4)
    return iterative ? 2e-4 : 5e-5;
  // The default iterative core runs with the float eps 1e-6.
  return iterative ? 5e-5 : 1e-10;
}
} // namespace

TYPED_TEST(ReadySolvers, AgreeWithTheDenseReferenceForSeveralRightPartsAndRepeatedSolves)
{
  using T = TypeParam;
  std::vector<CProblem> const problems = {solver_test::randomSpd(90, 6, 11u), solver_test::laplacian3D(6, 5, 4),
                                          solver_test::chain(70)};
  for (auto const & kind : allSolvers<T>())
  {
    for (auto const & problem : problems)
    {
      SCOPED_TRACE(kind.name + ", n = " + std::to_string(problem.nFree));
      std::unique_ptr<IVertexPosLinearSystem<T>> solver(kind.make(problem.nFree));
      solver_test::fill<T>(*solver, problem);
      ASSERT_TRUE(solver->IsCorrectlyDefinedSystem());

      // Three right parts at once, then two more with new fixed positions.
      for (int first : {0, 3})
      {
        CRightParts<T> parts(problem, first == 0 ? 3 : 2, first);
        ASSERT_TRUE(solver_test::solve(*solver, parts));
        for (int k = 0; k < parts.count(); ++k)
        {
          auto const reference = solver_test::referenceSolution<T>(problem, solver_test::fixedPositions(problem, first + k));
          EXPECT_LT(solver_test::relativeError(parts.solution(k), reference), tolerance<T>(kind.iterative))
              << "right part " << first + k;
        }
      }

      // A copy is a solver of the same kind with the same system.
      std::unique_ptr<IVertexPosLinearSystem<T>> copy(solver->Copy());
      EXPECT_EQ(typeid(*copy), typeid(*solver));
      CRightParts<T> again(problem, 1, 7);
      ASSERT_TRUE(solver_test::solve(*copy, again));
      EXPECT_LT(solver_test::relativeError(
                    again.solution(0), solver_test::referenceSolution<T>(problem, solver_test::fixedPositions(problem, 7))),
                tolerance<T>(kind.iterative));
    }
  }
}

TYPED_TEST(ReadySolvers, FailOnSystemsTheirCoresCannotSolve)
{
  using T = TypeParam;
  CProblem const problem = solver_test::chain(12);
  // An equation too many spoils the system; every core that checks the
  // definition refuses it, and nothing is delivered.
  for (auto const & kind : allSolvers<T>())
  {
    SCOPED_TRACE(kind.name);
    std::unique_ptr<IVertexPosLinearSystem<T>> solver(kind.make(problem.nFree));
    solver_test::fill<T>(*solver, problem);
    CVertexLinearCombination<T> extra;
    extra.AddVertex(0, T(1));
    solver->AddEquation(extra);
    ASSERT_TRUE(solver->IsSpoiled());
    CRightParts<T> parts(problem, 1);
    bool const solved = solver_test::solve(*solver, parts);
    bool const checksDefinition = kind.name != "CSparseStoreBicgstabLinSysSolver" &&
                                  kind.name != "compose: compressed rows + default iterative core" &&
                                  kind.name != "CLinSysSolverSpaceDecomposer" &&
                                  kind.name != "compose: compressed rows + default decomposing core";
    if (checksDefinition)
    {
      EXPECT_FALSE(solved);
      EXPECT_EQ(parts.recievers[0].calls, 0);
    }
    else
    {
      // The iterative and decomposing cores solve whatever matrix there is.
      EXPECT_TRUE(solved);
    }
  }

  // Arguments no core can use.
  for (auto const & kind : allSolvers<T>())
  {
    SCOPED_TRACE(kind.name);
    std::unique_ptr<IVertexPosLinearSystem<T>> solver(kind.make(problem.nFree));
    solver_test::fill<T>(*solver, problem);
    CRightParts<T> parts(problem, 1);
    EXPECT_FALSE(solver->SolveSystem(-1, parts.in(), parts.out(), nullptr));
    EXPECT_FALSE(solver->SolveSystem(1, nullptr, parts.out(), nullptr));
    IEqSysResultReciever<T> * none = nullptr;
    EXPECT_FALSE(solver->SolveSystem(1, parts.in(), &none, nullptr));
    EXPECT_EQ(parts.recievers[0].calls, 0);
  }
}

TYPED_TEST(ReadySolvers, TheDenseSolverRefusesASingularMatrix)
{
  using T = TypeParam;
  CProblem problem = solver_test::chain(6);
  problem.rows[3] = problem.rows[2]; // two equal equations
  CLinSysSolverMKL<T> solver;
  solver_test::fill<T>(solver, problem);
  ASSERT_TRUE(solver.IsCorrectlyDefinedSystem());
  CRightParts<T> parts(problem, 1);
  EXPECT_FALSE(solver_test::solve(solver, parts));
  EXPECT_EQ(parts.recievers[0].calls, 0);
}

TYPED_TEST(ReadySolvers, IterativeSolverCountsIterationsOverAllRightParts)
{
  using T = TypeParam;
  CProblem const problem = solver_test::laplacian3D(7, 6, 5);
  CSparseStoreBicgstabLinSysSolver<T> together(-1, T(1e-6), 3000);
  solver_test::fill<T>(together, problem);
  EXPECT_EQ(together.getIterationsUsed(), 0);
  CRightParts<T> parts(problem, 3);
  ASSERT_TRUE(solver_test::solve(together, parts));

  // The same right parts one by one: the counts add up.
  int sum = 0;
  for (int k = 0; k < 3; ++k)
  {
    CSparseStoreBicgstabLinSysSolver<T> alone(-1, T(1e-6), 3000);
    solver_test::fill<T>(alone, problem);
    CRightParts<T> one(problem, 1, k);
    ASSERT_TRUE(solver_test::solve(alone, one));
    EXPECT_GT(alone.getIterationsUsed(), 0);
    sum += alone.getIterationsUsed();
  }
  EXPECT_EQ(together.getIterationsUsed(), sum);

  // The limit is the solver's own.
  together.setMaxIterations(2);
  EXPECT_EQ(together.getMaxIterations(), 2);
  ASSERT_TRUE(solver_test::solve(together, parts));
  EXPECT_EQ(together.getIterationsUsed(), 3 * 2);
}

// The path of the surface reconstruction: a symmetric positive definite
// system of a 27-point stencil, filled row by row through the compressed-row
// storage's bulk operations, its right part carried by one fixed vertex whose
// position is 1, solved by the direct, the iterative and the decomposing
// solver in double.
TEST(ReadySolversReconstructionPath, BulkFilledStencilSystemSolvedByAllThree)
{
  int const side = 7;
  int const n = side * side * side;
  auto index = [&](int x, int y, int z) { return (z * side + y) * side + x; };
  auto source = [&](int i) { return std::cos(0.05 * i) + 0.25; };

  auto build = [&](CCSRSstorage<double> & storage) {
    storage.setSymmetric(true);
    storage.setPositiveDefinite(true);
    for (int v = 0; v < n; ++v)
      storage.DefineFreeVertex(v);
    storage.DefineFixedVertex(n);
    storage.reserveMatrixMemory(n * 27);
    std::vector<double> values;
    std::vector<int> columns;
    for (int z = 0; z < side; ++z)
      for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x)
        {
          values.clear();
          columns.clear();
          for (int dz = -1; dz <= 1; ++dz)
            for (int dy = -1; dy <= 1; ++dy)
              for (int dx = -1; dx <= 1; ++dx)
              {
                int const cx = x + dx, cy = y + dy, cz = z + dz;
                if (cx < 0 || cy < 0 || cz < 0 || cx >= side || cy >= side || cz >= side)
                  continue;
                bool const centre = dx == 0 && dy == 0 && dz == 0;
                columns.push_back(index(cx, cy, cz));
                values.push_back(centre ? 27.0 : -1.0);
              }
          int const row = index(x, y, z);
          storage.addEquationFreePartNoAliases(row, static_cast<int>(values.size()), values.data(),
                                               columns.data());
          storage.SetFixedVertCoeff(row, 0, -source(row));
        }
  };

  CProblem reference;
  reference.nFree = n;
  reference.nFixed = 1;
  reference.rows.resize(n);

  CSparseStoreSparseLinSysSolver<double> direct(0);
  CSparseStoreBicgstabLinSysSolver<double> iterative(-1, 1e-6, 3000);
  CLinSysSolverSpaceDecomposer<double> decomposer({n / 4, 2 * n / 4, 3 * n / 4}, 1e-6, 10000);
  IVertexPosLinearSystem<double> * solvers[] = {&direct, &iterative, &decomposer};
  build(direct.getStorageRefMod());
  build(iterative.getStorageRefMod());
  build(decomposer.getStorageRefMod());
  for (int i = 0; i < n; ++i)
  {
    for (int j = 0; j < n; ++j)
    {
      double const c = direct.GetFreeVertCoeff(i, j);
      if (c != 0.0)
        reference.rows[i][j] = c;
    }
    reference.rows[i][n] = -source(i);
  }
  // The one fixed position of right part 0 is 1.
  ASSERT_EQ(solver_test::fixedPositions(reference, 0), std::vector<double>{1.0});
  std::vector<double> const expected = solver_test::referenceSolution<double>(reference, {1.0});

  for (auto * solver : solvers)
  {
    ASSERT_TRUE(solver->IsCorrectlyDefinedSystem());
    CRightParts<double> parts(reference, 1);
    ASSERT_TRUE(solver_test::solve(*solver, parts));
    EXPECT_LT(solver_test::relativeError(parts.solution(0), expected), solver == &direct ? 1e-12 : 1e-5);
  }
  EXPECT_GT(iterative.getIterationsUsed(), 0);
  EXPECT_GT(decomposer.getIterationsUsed(), 0);
}

TYPED_TEST(ReadySolvers, InterruptionPassesOutAndLeavesTheSolverUsable)
{
  using T = TypeParam;
  CProblem const problem = solver_test::laplacian3D(5, 5, 4);
  auto const reference = solver_test::referenceSolution<T>(problem, solver_test::fixedPositions(problem, 0));
  for (auto const & kind : allSolvers<T>())
  {
    SCOPED_TRACE(kind.name);
    std::unique_ptr<IVertexPosLinearSystem<T>> solver(kind.make(problem.nFree));
    solver_test::fill<T>(*solver, problem);

    // Interrupt at every progress check in turn until a solve gets through.
    int interrupted = 0;
    for (int after = 1; after < 500; ++after)
    {
      solver_test::CCountdownCounter counter(after);
      CRightParts<T> parts(problem, 2);
      try
      {
        ASSERT_TRUE(solver_test::solve(*solver, parts, &counter));
        EXPECT_NEAR(counter.GetPosFloat(), 1.0, 1e-12);
        break;
      }
      catch (CUserIntrException const &)
      {
        ++interrupted;
      }
    }
    EXPECT_GT(interrupted, 2);

    CRightParts<T> parts(problem, 1);
    ASSERT_TRUE(solver_test::solve(*solver, parts));
    EXPECT_LT(solver_test::relativeError(parts.solution(0), reference), tolerance<T>(kind.iterative));
  }
}
