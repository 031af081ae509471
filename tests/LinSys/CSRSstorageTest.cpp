#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#include "EquationTestSupport.h"
#include "QZmath/LinSys/CSRSstorage.h"

using namespace REmath;
using linsys_test::buildSystem;
using linsys_test::CMapInformer;
using linsys_test::denseProduct;
using linsys_test::densify;
using linsys_test::eq;
using linsys_test::randomSparseDense;

namespace
{
template <class T> class CsrStorage : public ::testing::Test
{
};
using Scalars = ::testing::Types<float, double>;
TYPED_TEST_SUITE(CsrStorage, Scalars);

template <class T> std::vector<T> storedValues(ICsrMatrix<T> const & m)
{
  return std::vector<T>(m.getCsrValues(), m.getCsrValues() + m.getNonZeroValuesNumber());
}
} // namespace

TYPED_TEST(CsrStorage, AgreesWithTheDenseReferenceAndReachesMklWithoutACopy)
{
  using T = TypeParam;
  double const tolerance = sizeof(T) == 4 ? 1e-4 : 1e-12;
  int const n = 40;
  for (int base : {0, 1})
  {
    for (bool symmetric : {false, true})
    {
      std::vector<T> const a = randomSparseDense<T>(n, 5, symmetric, 77u + base);
      CCSRSstorage<T> csr;
      csr.setIndexBase(base);
      buildSystem(csr, a, n, symmetric);
      ASSERT_TRUE(csr.IsCorrectlyDefinedSystem());

      std::vector<T> x(static_cast<size_t>(n));
      for (int i = 0; i < n; ++i)
        x[i] = i % 3 == 0 ? T(0) : static_cast<T>(std::cos(0.5 + i));
      std::vector<double> const ax = denseProduct(a, n, x);
      for (int i = 0; i < n; ++i)
      {
        for (int j = 0; j < n; ++j)
          ASSERT_EQ(csr.GetFreeVertCoeff(i, j), a[static_cast<size_t>(i) * n + j]) << i << "," << j;
        EXPECT_NEAR(csr.ScalarProductByMatrixRow(i, n, x.data()), ax[i], tolerance);
      }
      // A solver sees only the read-only interface and cross-casts it.
      ILinearSystemReadOnly<T> const & system = csr;
      auto const * matrix = dynamic_cast<ICsrMatrix<T> const *>(&system);
      ASSERT_NE(matrix, nullptr);
      EXPECT_EQ(matrix->getCsrValues(), csr.getCsrValuesMod()) << "the storage is the matrix";
      EXPECT_EQ(matrix->getIndexBase(), base);
      EXPECT_EQ(matrix->isUpperTriangleOnlyStored(), symmetric);
      EXPECT_EQ(densify(*matrix), a);
      EXPECT_EQ(densify(LinearSystem2CsrMatrix<T>(system, 0, false)), a);
    }
  }
}

TYPED_TEST(CsrStorage, BulkRowsEqualEquationRows)
{
  using T = TypeParam;
  int const n = 25;
  std::vector<T> const a = randomSparseDense<T>(n, 6, true, 3u);
  CCSRSstorage<T> byEquations;
  buildSystem(byEquations, a, n, true);
  CCSRSstorage<T> bulk;
  bulk.setSymmetric(true);
  bulk.setExpectedElementsPerLine(6);
  for (int v = 0; v <= n; ++v)
    v < n ? bulk.DefineFreeVertex(v) : bulk.DefineFixedVertex(v);
  bulk.reserveMatrixMemory(n * 6);
  for (int i = 0; i < n; ++i)
  {
    std::vector<T> values;
    std::vector<int> columns;
    for (int j = 0; j < n; ++j) // whole rows: the lower part must be skipped
      if (a[static_cast<size_t>(i) * n + j] != T(0))
        values.push_back(a[static_cast<size_t>(i) * n + j]), columns.push_back(j);
    bulk.addEquationFreePartNoAliases(i, static_cast<int>(values.size()), values.data(), columns.data());
    bulk.SetFixedVertCoeff(i, 0, static_cast<T>(i + 1));
  }
  ASSERT_TRUE(bulk.IsCorrectlyDefinedSystem());
  EXPECT_EQ(storedValues<T>(bulk), storedValues<T>(byEquations));
  EXPECT_EQ(std::vector<int>(bulk.getRowIndex(), bulk.getRowIndex() + n + 1),
            std::vector<int>(byEquations.getRowIndex(), byEquations.getRowIndex() + n + 1));
  CMapInformer<T> informer({{n, T(1)}});
  std::vector<T> r1(n), r2(n);
  bulk.SetSingleRightPart(r1.data(), informer);
  byEquations.SetSingleRightPart(r2.data(), informer);
  EXPECT_EQ(r1, r2);
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
    EXPECT_TRUE(s.IsSpoiled()) << c.what;
    EXPECT_EQ(s.GetEquationsNumber(), c.booked) << c.what;
    EXPECT_FALSE(s.IsCorrectlyDefinedSystem()) << c.what;
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

TEST(CsrStorageSymmetric, RowsWithOnlyLowerTermsStayEmptyAndReadThroughTheMirror)
{
  CCSRSstorage<double> s;
  s.setIndexBase(0);
  s.setSymmetric(true);
  for (int v = 0; v < 3; ++v)
    s.DefineFreeVertex(v);
  s.AddEquation(eq<double>({{0, 2}, {2, 1}}));
  s.AddEquation(eq<double>({{1, 3}}));
  s.AddEquation(eq<double>({{0, 1}})); // below the diagonal only: counted, nothing stored
  ASSERT_TRUE(s.IsCorrectlyDefinedSystem());
  EXPECT_EQ(s.getRowIndex()[3], -1) << "the last row was never filled";
  EXPECT_EQ(s.GetFreeVertCoeff(2, 0), 1.0);
  EXPECT_EQ(s.GetFreeVertCoeff(2, 2), 0.0);
  double const x[3] = {1.0, 10.0, 100.0};
  EXPECT_EQ(s.ScalarProductByMatrixRow(2, 3, x), 1.0);
  EXPECT_EQ(s.ScalarProductByMatrixRow(3, 3, x), 0.0) << "no row 3";
  double y[3];
  MatrixMultVector(3, y, s, x);
  EXPECT_EQ(std::vector<double>(y, y + 3), (std::vector<double>{102.0, 30.0, 1.0}));
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
  EXPECT_EQ(storedValues<double>(*copy), storedValues<double>(s));
  EXPECT_EQ(copy->GetFixedVertCoeff(0, 0), 4.0);

  // The original refuses new vertices, a copy without a filler does not.
  CCSRSstorage<double> assigned;
  assigned = s;
  assigned.DefineFixedVertex(10);
  EXPECT_FALSE(assigned.IsSpoiled());
  s.DefineFixedVertex(10);
  EXPECT_TRUE(s.IsSpoiled());

  copy->AddEquation(eq<double>({{2, 5}}));
  EXPECT_FALSE(copy->IsSpoiled());
  EXPECT_EQ(copy->GetEquationsNumber(), 3);
  EXPECT_EQ(copy->GetFreeVertCoeff(2, 2), 5.0);
  EXPECT_EQ(copy->GetFreeVertCoeff(0, 0), 0.0) << "making the filler cleared the copied rows";
}

TYPED_TEST(CsrStorage, NormalizationDividesByTheMagnitudeOfTheLastStoredValue)
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
