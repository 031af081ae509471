#include <gtest/gtest.h>

#include <cmath>
#include <type_traits>
#include <vector>

#include "LinSysTestSupport.h"
#include "QZmath/LinSys/VPLSstorage.h"

using namespace REmath;
using namespace linsys_test;

namespace
{
// Identifiers in falling order, so that free indices do not rise with them.
int falling(int v) { return 1000 - 3 * v; }

template <class S> using ElementOf = decltype(std::declval<S const &>().GetFreeVertCoeff(0, 0));
template <class S> constexpr bool hasShiftedRows()
{
  return std::is_same<typename S::RowType,
                      typename CShiftedVectorAsVPLstorageRow<ElementOf<S>>::RowType>::value;
}
} // namespace

template <class S> class VPLSstorage : public ::testing::Test
{
};
using Storages = ::testing::Types<CVPLSstorage<float, CStdVectorAsVPLSstorageRow<float>>,
                                  CVPLSstorage<double, CStdVectorAsVPLSstorageRow<double>>,
                                  CVPLSstorage<float, CShiftedVectorAsVPLstorageRow<float>>,
                                  CVPLSstorage<double, CShiftedVectorAsVPLstorageRow<double>>,
                                  CVPLSstorage<float, CSparseVectorAsVPLSstorageRow<float>>,
                                  CVPLSstorage<double, CSparseVectorAsVPLSstorageRow<double>>>;
TYPED_TEST_SUITE(VPLSstorage, Storages);

TYPED_TEST(VPLSstorage, RowsMatchTheDenseReference)
{
  using S = TypeParam;
  using T = ElementOf<S>;
  double const tol = std::is_same<T, float>::value ? 1e-5 : 1e-12;
  for (int n : {13, 14, 15})
  {
    CProblem const p = randomProblem(n, 4, n % 2 == 0, n);
    std::vector<T> const a = freeMatrix<T>(p);
    S s;
    fill<T>(s, p, falling);
    ASSERT_TRUE(s.IsCorrectlyDefinedSystem());
    std::vector<T> x(n);
    for (int i = 0; i < n; ++i)
      x[i] = static_cast<T>(std::sin(n + i));
    std::vector<double> const ax = denseProduct(a, n, x);
    for (int k = 0; k < n; ++k)
    {
      // Shifted rows do not read single elements as the matrix's.
      for (int c = 0; c < n && !hasShiftedRows<S>(); ++c)
        EXPECT_EQ(s.GetFreeVertCoeff(k, c), a[static_cast<size_t>(k) * n + c]);
      EXPECT_NEAR(s.ScalarProductByMatrixRow(k, n, x.data()), ax[k], tol) << "row " << k;
    }
  }
}

// The manager's own rules, late definitions among them, are checked in its
// suite; these are the rows'.
TYPED_TEST(VPLSstorage, SpoiledSystemsMakeNoRowsAndAbsentRowsReadZero)
{
  using S = TypeParam;
  using T = ElementOf<S>;
  S s;
  s.DefineFreeVertex(1);
  s.Spoil();
  s.AllocateMatrix();
  EXPECT_FALSE(s.IsMatrixAllocated());
  T const v[1] = {T(1)};
  EXPECT_EQ(s.ScalarProductByMatrixRow(0, 1, v), T(0));
  EXPECT_EQ(s.GetFreeVertCoeff(-1, 0), T(0));
}

TEST(VPLSstorageRows, ShiftedRowsTrimBothEndsAndNoRowIsReadPastItsEnd)
{
  using A = CShiftedVectorAsVPLstorageRow<double>;
  A::RowType row;
  double const inner[5] = {0, 1, 0, 2, 0};
  A::assignRowByArray(&row, 5, inner);
  EXPECT_EQ(row.m_iFirstPos, 1);
  EXPECT_EQ(row.m_values, (std::vector<double>{1, 0, 2}));
  double const v[5] = {10, 20, 30, 40, 50};
  EXPECT_EQ(A::scalarProduct(row, 5, v), 20 + 2 * 40.0);
  EXPECT_EQ(A::scalarProduct(row, 2, v), 20.0); // a short vector is not read past its end
  // Single elements read at first position + column.
  EXPECT_EQ(A::getCoeff(row, 1), 2.0);
  EXPECT_EQ(A::getCoeff(row, 2), 0.0); // past the values
  EXPECT_EQ(A::getCoeff(row, -1), 1.0);
  double const nan[3] = {0, std::nan(""), -0.0};
  A::assignRowByArray(&row, 3, nan);
  EXPECT_EQ(row.m_values.size(), 1u); // NaN is not zero, -0 is

  using D = CStdVectorAsVPLSstorageRow<float>;
  using Sp = CSparseVectorAsVPLSstorageRow<float>;
  float const a[4] = {1, 0, 2, 3};
  float const ones[4] = {1, 1, 1, 1};
  D::RowType dense;
  D::assignRowByArray(&dense, 4, a);
  Sp::RowType sparse;
  Sp::assignRowByArray(&sparse, 4, a);
  EXPECT_EQ(sparse.GetNOfNonZeroElements(), 3);
  EXPECT_EQ(D::scalarProduct(dense, 3, ones) + Sp::scalarProduct(sparse, 3, ones), 6.0f);
  EXPECT_EQ(D::scalarProduct(dense, 10, ones), 6.0f); // the row is only 4 long
  EXPECT_EQ(Sp::scalarProduct(sparse, 0, ones), 0.0f);
}
