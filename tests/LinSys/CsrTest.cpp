// The compressed-row matrix, its filler and product, and the storage that
// keeps a system in one.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "LinSysTestSupport.h"
#include "QZmath/LinSys/CSRSstorage.h"
#include "tests/Common/Checks.h"

using namespace REmath;
using namespace linsys_test;

namespace
{
template <class M> std::vector<int> rowIndexOf(M const & m)
{
  return std::vector<int>(m.getRowIndex(), m.getRowIndex() + m.getRowIndexSize());
}

template <class T> class Csr : public ::testing::Test
{
};
using Scalars = ::testing::Types<float, double>;
TYPED_TEST_SUITE(Csr, Scalars);
} // namespace

TEST(CsrFiller, JumpedRowsAreEmptyRowsBehindStayUnsetAndLowerElementsAreDropped)
{
  CCSRSquareMatrix<double> m;
  CCSRSquareMatrixFiller<double> f(&m, 6, -1, 1, true);
  EXPECT_TRUE(f.pushByRawNextNonZeroElement(1, 2, 1.0));
  EXPECT_TRUE(f.pushByRawNextNonZeroElement(4, 4, 2.0));
  EXPECT_TRUE(f.pushByRawNextNonZeroElement(5, 4, 9.0)); // below the diagonal: dropped
  // Had the dropped element moved the last row to 5, row 4 would be closed.
  EXPECT_TRUE(f.pushByRawNextNonZeroElement(4, 6, 3.0));
  EXPECT_EQ(rowIndexOf(m), (std::vector<int>{1, 2, 2, 2, 4, -1, -1}));
  EXPECT_EQ(std::vector<int>(m.getCsrColumns(), m.getCsrColumns() + 3), (std::vector<int>{2, 4, 6}));
  EXPECT_EQ(m.getCsrPointerE(), m.getCsrPointerB() + 1);
  EXPECT_FALSE(isCsrRowIndexComplete(m));
  EXPECT_EQ(makeCompleteCsrRowIndex(m), (std::vector<int>{1, 2, 2, 2, 4, 4, 4}));
}

TEST(CsrFiller, OrderViolationsAndOutOfRangeElementsSpoilForGood)
{
  struct Case
  {
    char const * what;
    int row, column;
  };
  // Each case follows a valid push of (1, 1) into a 3 x 3 matrix of base 0.
  Case const cases[] = {{"same element twice", 1, 1},   {"column going back", 1, 0},
                        {"row going back", 0, 2},       {"row past the size", 3, 0},
                        {"column past the size", 2, 3}, {"negative column", 2, -1}};
  for (Case const & c : cases)
  {
    CCSRSquareMatrix<double> m;
    CCSRSquareMatrixFiller<double> f(&m, 3, -1, 0, false);
    ASSERT_TRUE(f.pushByRawNextNonZeroElement(1, 1, 1.0));
    EXPECT_FALSE(f.pushByRawNextNonZeroElement(c.row, c.column, 2.0)) << c.what;
    EXPECT_TRUE(f.isSpoiled()) << c.what;
    EXPECT_FALSE(f.pushByRawNextNonZeroElement(2, 2, 3.0)) << c.what << ": spoiled is final";
    EXPECT_FALSE(f.setCompleted() || f.isCompleted()) << c.what;
    EXPECT_EQ(m.getCsrValuesSize(), 1) << c.what;
  }
}

TEST(CsrFiller, CompletionDependsOnTheMemoryMode)
{
  CCSRSquareMatrix<double> m;
  CCSRSquareMatrixFiller<double> pre(&m, 3, 2, 0, false);
  EXPECT_TRUE(pre.pushByRawNextNonZeroElement(0, 0, 1.0) && !pre.isCompleted());
  EXPECT_TRUE(pre.pushByRawNextNonZeroElement(1, 1, 2.0) && pre.isCompleted());
  EXPECT_FALSE(pre.pushByRawNextNonZeroElement(2, 2, 3.0)) << "no room for a third element";
  CCSRSquareMatrixFiller<double> full(&m, 1, 1, 0, false);
  EXPECT_TRUE(full.pushByRawNextNonZeroElement(0, 0, 1.0));
  EXPECT_FALSE(full.setCompleted()) << "a preallocated filler is only tested with isCompleted";
  EXPECT_TRUE(full.isSpoiled());

  CCSRSquareMatrixFiller<double> growing(&m, 2, -1, 0, false);
  growing.reserveMemory(64);
  EXPECT_TRUE(growing.pushByRawNextNonZeroElement(0, 1, 1.0) && growing.setCompleted());
  EXPECT_FALSE(growing.pushByRawNextNonZeroElement(1, 1, 1.0)) << "a completed filler is full";
  EXPECT_FALSE(CCSRSquareMatrixFiller<double>(&m, 2, -1, 0, false).setCompleted()) << "nothing pushed";
  CCSRSquareMatrixFiller<double> reserving(&m, 2, 3, 0, false);
  reserving.reserveMemory(10);
  EXPECT_TRUE(reserving.isSpoiled()) << "reservation needs growing memory";
  EXPECT_FALSE(
      CCSRSquareMatrixFiller<double>(nullptr, 2, 3, 0, false).pushByRawNextNonZeroElement(0, 0, 1.0));
  m.initMemory(2, 0, eCSRindexBaseOne, false);
  EXPECT_TRUE(CCSRSquareMatrixFiller<double>(&m, 5, -1, 2, false).isSpoiled());
  EXPECT_EQ(m.getMatrixSize(), 2) << "a filler with a bad base leaves the target alone";
}

// Blocks of every form and base are the decomposer's leaves, whose solutions
// the solver tests compare with dense ones; here a block of itself, whose last
// row was never filled.
TYPED_TEST(Csr, SubMatrixMayBeItsOwnSource)
{
  using T = TypeParam;
  CCSRSquareMatrix<T> m;
  {
    CCSRSquareMatrixFiller<T> f(&m, 3, -1, 1, false);
    f.pushByRawNextNonZeroElement(1, 1, T(1));
    f.pushByRawNextNonZeroElement(2, 3, T(2));
  }
  m.makeSelfSubMatrix(1, 3, m);
  EXPECT_TRUE(rowIndexOf(m) == (std::vector<int>{1, 2, 2}) && m.getCsrColumns()[0] == 2);
}

// The full conversion meets the dense references through the direct solvers,
// which convert every storage that is no matrix of base 1, and in the
// storage's dense-reference test; the upper part of a non-symmetric system
// only here.
TYPED_TEST(Csr, ConversionOfTheUpperPartDropsExactZerosAndRefusesABadBase)
{
  using T = TypeParam;
  int const n = 12;
  CProblem const p = randomProblem(n, 3, false, 5u);
  CPlainRowStorage<T> system;
  fill<T>(system, p);
  std::vector<T> upperPart = freeMatrix<T>(p);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < i; ++j)
      upperPart[static_cast<size_t>(i) * n + j] = T(0);
  CCSRSquareMatrix<T> const upper = LinearSystem2CsrMatrix<T>(system, 1, true);
  EXPECT_FALSE(upper.isUpperTriangleOnlyStored()) << "only the walk filters the triangle";
  EXPECT_EQ(densify(upper), upperPart);

  CPlainRowStorage<T> zero;
  zero.DefineFreeVertex(0);
  zero.AddEquation(eq<T>({{0, 0}}));
  EXPECT_EQ(LinearSystem2CsrMatrix<T>(zero, 1, false).getNonZeroValuesNumber(), 0);
  EXPECT_EQ(LinearSystem2CsrMatrix<T>(CPlainRowStorage<T>(), 0, true).getMatrixSize(), 0);
  EXPECT_EQ(QZTest::whatOf<std::logic_error>([&] { LinearSystem2CsrMatrix<T>(zero, 3, false); }),
            "REmath::LinearSystem2CsrMatrix internal error")
      << "a base of 3 must not be accepted";
}

// The product against the dense reference is what the sparse cores iterate
// with, compared with the dense solutions in the solver tests.
TYPED_TEST(Csr, ProductsTolerateUnfinishedRowsAliasingAndAWrongSize)
{
  using T = TypeParam;
  std::vector<T> const x = {T(1), T(2), T(3), T(4), T(5)};
  for (int base : {0, 1})
    for (bool upper : {false, true})
    {
      // Rows 0 and 2 of 5 filled; rows 3 and 4 keep -1 in the row index.
      CCSRSquareMatrix<T> m;
      CCSRSquareMatrixFiller<T> f(&m, 5, -1, base, upper);
      f.pushByRawNextNonZeroElement(0 + base, 0 + base, T(2));
      f.pushByRawNextNonZeroElement(0 + base, 4 + base, T(1));
      f.pushByRawNextNonZeroElement(2 + base, 3 + base, T(3));
      std::vector<T> expected = {T(7), T(0), T(12), T(upper ? 9 : 0), T(upper ? 1 : 0)};
      std::vector<T> y(5, T(-1));
      MatrixMultVector(5, y.data(), m, x.data());
      EXPECT_EQ(y, expected) << "base " << base << " upper " << upper;
      EXPECT_EQ(m.getRowIndex()[4], -1) << "the product must not repair the matrix itself";
      std::vector<T> same = x;
      MatrixMultVector(5, same.data(), m, same.data());
      EXPECT_EQ(same, expected) << "result and vector may be one array";
    }
  MatrixMultVector(0, static_cast<T *>(nullptr), CCSRSquareMatrix<T>(), static_cast<T const *>(nullptr));
  std::vector<T> y(5, T(7));
  CCSRSquareMatrix<T> two;
  CCSRSquareMatrixFiller<T>(&two, 2, -1, 0, false).pushByRawNextNonZeroElement(0, 0, T(1));
  MatrixMultVector(5, y.data(), two, x.data());
  EXPECT_EQ(y, std::vector<T>(5, T(0))) << "a size other than the matrix size gives zeros";
}

TYPED_TEST(Csr, EquationAndBulkRowsAgreeWithTheDenseReferenceAndReachMklWithoutACopy)
{
  using T = TypeParam;
  double const tolerance = sizeof(T) == 4 ? 1e-4 : 1e-12;
  int const n = 40;
  for (int base : {0, 1})
    for (bool symmetric : {false, true})
    {
      CProblem const p = randomProblem(n, 5, symmetric, 77u + base);
      std::vector<T> const a = freeMatrix<T>(p);
      CCSRSstorage<T> csr;
      csr.setIndexBase(base);
      fill<T>(csr, p);
      ASSERT_TRUE(csr.IsCorrectlyDefinedSystem());

      std::vector<T> x(static_cast<size_t>(n));
      for (int i = 0; i < n; ++i)
        x[i] = i % 3 == 0 ? T(0) : static_cast<T>(std::cos(0.5 + i));
      std::vector<double> const ax = denseProduct(a, n, x);
      for (int i = 0; i < n; ++i)
        EXPECT_NEAR(csr.ScalarProductByMatrixRow(i, n, x.data()), ax[i], tolerance);
      EXPECT_EQ(csr.ScalarProductByMatrixRow(n, n, x.data()), T(0)) << "no such row";
      // A solver sees only the read-only interface and cross-casts it.
      ILinearSystemReadOnly<T> const & system = csr;
      auto const * matrix = dynamic_cast<ICsrMatrix<T> const *>(&system);
      ASSERT_NE(matrix, nullptr);
      EXPECT_EQ(matrix->getCsrValues(), csr.getCsrValuesMod()) << "the storage is the matrix";
      EXPECT_EQ(std::make_pair(static_cast<int>(matrix->getIndexBase()), matrix->isUpperTriangleOnlyStored()),
                std::make_pair(base, symmetric));
      EXPECT_EQ(densify(*matrix), a);
      EXPECT_EQ(densify(LinearSystem2CsrMatrix<T>(system, 0, false)), a);

      // Whole rows in bulk: a symmetric storage must skip their lower part.
      CCSRSstorage<T> bulk;
      bulk.setIndexBase(base);
      bulk.setSymmetric(symmetric);
      for (int v = 0; v < n; ++v)
        bulk.DefineFreeVertex(v);
      for (int i = 0; i < n; ++i)
      {
        std::vector<T> values;
        std::vector<int> columns;
        for (int j = 0; j < n; ++j)
          if (a[static_cast<size_t>(i) * n + j] != T(0))
            values.push_back(a[static_cast<size_t>(i) * n + j]), columns.push_back(j);
        bulk.addEquationFreePartNoAliases(i, static_cast<int>(values.size()), values.data(), columns.data());
      }
      ASSERT_TRUE(bulk.IsCorrectlyDefinedSystem());
      EXPECT_EQ(densify<T>(bulk), a);
    }
}

TEST(CsrStorageMisuse, EveryFailureOfTheFreePartSpoils)
{
  double const values[] = {1.0, 2.0};
  int const columns[] = {0, 1};
  int const repeated[] = {1, 1};
  // Each case follows two good rows of a system with five free vertices.
  // After a failed push the equation is still booked when it is in turn.
  struct Case
  {
    char const * what;
    int row, count;
    double const * values;
    int const * columns;
    int booked;
  };
  Case const cases[] = {{"an empty row", 2, 0, values, columns, 2},
                        {"a row past the free count", 5, 2, values, columns, 2},
                        {"no values", 2, 2, nullptr, columns, 2},
                        {"an aliased element", 2, 2, values, repeated, 3},
                        {"row 3 while 2 are stored", 3, 2, values, columns, 2}};
  for (Case const & c : cases)
  {
    CCSRSstorage<double> s;
    for (int v = 0; v < 5; ++v)
      s.DefineFreeVertex(v);
    s.addEquationFreePartNoAliases(0, 1, values, columns);
    s.addEquationFreePartNoAliases(1, 1, values + 1, columns + 1);
    ASSERT_FALSE(s.IsSpoiled());
    s.addEquationFreePartNoAliases(c.row, c.count, c.values, c.columns);
    EXPECT_TRUE(s.IsSpoiled() && !s.IsCorrectlyDefinedSystem()) << c.what;
    EXPECT_EQ(s.GetEquationsNumber(), c.booked) << c.what;
  }

  CCSRSstorage<double> descending; // free indices must rise with vertices
  descending.DefineFreeVertex(5);
  descending.DefineFreeVertex(3);
  descending.AddEquation(eq<double>({{3, 1}, {5, 1}}));
  EXPECT_TRUE(descending.IsSpoiled());

  CCSRSstorage<double> badBase;
  badBase.setIndexBase(2);
  EXPECT_TRUE(badBase.IsSpoiled());
  CCSRSstorage<double> rebased;
  rebased.DefineFreeVertex(0);
  rebased.addEquationFreePartNoAliases(0, 1, values, columns);
  rebased.setIndexBase(1); // the base it has
  EXPECT_FALSE(rebased.IsSpoiled());
  rebased.setIndexBase(0);
  EXPECT_TRUE(rebased.IsSpoiled()) << "the base cannot change under a filler";
}

TEST(CsrStorageCopy, ACopyHasNoFillerAndStartsTheMatrixAfreshOnTheNextEquation)
{
  CCSRSstorage<double> s;
  for (int v = 0; v < 3; ++v)
    s.DefineFreeVertex(v);
  s.DefineFixedVertex(9);
  s.AddEquation(eq<double>({{0, 1}, {9, 4}}));
  s.AddEquation(eq<double>({{1, 2}}));
  std::unique_ptr<CCSRSstorage<double>> copy(s.Copy());
  // The copy holds the rows; its solving is the solver tests' business.
  EXPECT_TRUE(copy->GetFreeVertCoeff(0, 0) == 1.0 && copy->GetFixedVertCoeff(0, 0) == 4.0);

  // The original refuses new vertices, a copy without a filler does not.
  CCSRSstorage<double> assigned;
  assigned = s;
  assigned.DefineFixedVertex(10);
  EXPECT_FALSE(assigned.IsSpoiled());
  s.DefineFixedVertex(10);
  EXPECT_TRUE(s.IsSpoiled());

  copy->AddEquation(eq<double>({{2, 5}}));
  EXPECT_TRUE(!copy->IsSpoiled() && copy->GetEquationsNumber() == 3);
  EXPECT_EQ(std::make_pair(copy->GetFreeVertCoeff(2, 2), copy->GetFreeVertCoeff(0, 0)),
            std::make_pair(5.0, 0.0))
      << "making the filler cleared the copied rows";
}

TYPED_TEST(Csr, NormalizationDividesByTheMagnitudeOfTheLastStoredValue)
{
  using T = TypeParam;
  T const inf = std::numeric_limits<T>::infinity();
  T const nan = std::numeric_limits<T>::quiet_NaN();
  for (auto const & v : std::vector<std::vector<T>>{{T(4), T(-8), T(2)}, {T(3), nan}, {T(-3), T(0)}})
  {
    CCSRSstorage<T> s;
    s.setIndexBase(0);
    for (int v = 0; v < 3; ++v)
      s.DefineFreeVertex(v);
    int const columns[] = {0, 1, 2};
    s.addEquationFreePartNoAliases(0, static_cast<int>(v.size()), v.data(), columns);
    T const m = s.normalizeSystemMatrix();
    EXPECT_TRUE(m == std::fabs(v.back()) || (std::isnan(m) && std::isnan(v.back())));
    T const scale = m > T(0) ? T(1) / m : T(1); // a NaN or 0 factor scales nothing
    EXPECT_EQ(s.getCsrValuesMod()[0], v[0] * scale);
    EXPECT_FALSE(s.IsSpoiled());
  }
  EXPECT_EQ(CCSRSstorage<T>().normalizeSystemMatrix(), T(0));
  // The walk ends on the last value whatever the others are.
  for (auto const & v : std::vector<std::vector<T>>{{T(0), T(0)}, {inf, T(-1)}, {T(1), inf}, {nan, T(2)}})
    EXPECT_EQ(vectorNormalizationFactor<T>(v.data(), static_cast<long long>(v.size())), std::fabs(v.back()));
}
