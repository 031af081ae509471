#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "QZmath/Foundation/NumericRoutines.h"

namespace
{
// A square or rectangular matrix as the row-pointer table these routines take.
template <class T> struct RowMatrix
{
  RowMatrix(int rows, int cols) : cols(cols), data(static_cast<std::size_t>(rows) * cols), ptr(rows)
  {
    link();
  }
  RowMatrix(RowMatrix const & o) : cols(o.cols), data(o.data), ptr(o.ptr.size()) { link(); }
  RowMatrix & operator=(RowMatrix const & o)
  {
    cols = o.cols;
    data = o.data;
    ptr.resize(o.ptr.size());
    link();
    return *this;
  }
  void link()
  {
    for (std::size_t r = 0; r < ptr.size(); ++r)
      ptr[r] = data.data() + r * cols;
  }
  T ** p() { return ptr.data(); }
  T * operator[](int r) { return ptr[r]; }
  std::size_t cols;
  std::vector<T> data;
  std::vector<T *> ptr;
};

RowMatrix<double> randomMatrix(int n, int m, std::mt19937 & rng)
{
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  RowMatrix<double> a(n, m);
  for (double & v : a.data)
    v = u(rng);
  return a;
}

template <class T> RowMatrix<T> randomSymmetric(int n, std::mt19937 & rng)
{
  std::uniform_real_distribution<double> u(-2.0, 2.0);
  RowMatrix<T> a(n, n);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j <= i; ++j)
      a[i][j] = a[j][i] = static_cast<T>(u(rng));
  return a;
}

// Runs tred2 + tqli on a copy of `a`; returns the status, eigenvalues in d and
// eigenvectors in the columns of z.
template <class T> int symmetricEigen(RowMatrix<T> a, std::vector<T> & d, RowMatrix<T> & z)
{
  int const n = static_cast<int>(a.ptr.size());
  d.assign(n, 0);
  std::vector<T> e(n);
  if constexpr (std::is_same<T, float>::value)
  {
    tred2(a.p(), n, d.data(), e.data());
    z = a;
    return tqli(d.data(), e.data(), n, z.p());
  }
  else
  {
    tred2_d(a.p(), n, d.data(), e.data());
    z = a;
    return tqli_d(d.data(), e.data(), n, z.p());
  }
}
} // namespace

// ---------------------------------------------------------------------------

TEST(Gaussj, InvertsAndSolvesWithFullPivoting)
{
  std::mt19937 rng(11);
  for (int n : {1, 2, 5, 12})
  {
    RowMatrix<double> a = randomMatrix(n, n, rng), rhs = randomMatrix(n, 3, rng);
    RowMatrix<double> inv = a, x = rhs;
    std::vector<double *> const rowsBefore = inv.ptr;
    ASSERT_EQ(gaussj(inv.p(), n, x.p(), 3), 1);
    EXPECT_EQ(inv.ptr, rowsBefore) << "the row table is the caller's";
    for (int i = 0; i < n; ++i)
    {
      for (int j = 0; j < n; ++j)
      {
        double s = 0;
        for (int k = 0; k < n; ++k)
          s += a[i][k] * inv[k][j];
        EXPECT_NEAR(s, i == j ? 1.0 : 0.0, 1e-9) << n;
      }
      for (int c = 0; c < 3; ++c)
      {
        double s = 0;
        for (int k = 0; k < n; ++k)
          s += a[i][k] * x[k][c];
        EXPECT_NEAR(s, rhs[i][c], 1e-9) << n;
      }
    }
  }
  // A zero leading element needs the row exchange.
  RowMatrix<double> swap(2, 2), none(2, 0);
  swap[0][0] = 0, swap[0][1] = 2, swap[1][0] = 4, swap[1][1] = 0;
  ASSERT_EQ(gaussj(swap.p(), 2, none.p(), 0), 1);
  EXPECT_EQ(swap[0][0], 0.0);
  EXPECT_EQ(swap[0][1], 0.25);
  EXPECT_EQ(swap[1][0], 0.5);
  EXPECT_EQ(swap[1][1], 0.0);
}

TEST(Gaussj, Failures)
{
  // Above the fixed bookkeeping size: nothing is touched.
  RowMatrix<double> big(51, 51), rhs(51, 1);
  for (int i = 0; i < 51; ++i)
    big[i][i] = 2.0;
  EXPECT_EQ(gaussj(big.p(), 51, rhs.p(), 1), -1);
  EXPECT_EQ(big[3][3], 2.0);
  RowMatrix<double> small(2, 2), wide(2, 51);
  small[0][0] = small[1][1] = 2.0;
  EXPECT_EQ(gaussj(small.p(), 2, wide.p(), 51), -1);
  EXPECT_EQ(small[0][0], 2.0);

  // A singular matrix meets an exact zero pivot.
  RowMatrix<double> sing(3, 3), b(3, 1);
  double const rows[3][3] = {{1, 2, 3}, {2, 4, 6}, {1, 0, 1}};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      sing[i][j] = rows[i][j];
  EXPECT_EQ(gaussj(sing.p(), 3, b.p(), 1), -1);
  RowMatrix<double> zero(3, 3);
  EXPECT_EQ(gaussj(zero.p(), 3, b.p(), 1), -1);

  // NaN entries find no pivot: a column comes up twice.
  RowMatrix<double> nan(3, 3);
  for (double & v : nan.data)
    v = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(gaussj(nan.p(), 3, b.p(), 1), 0);

  // An empty system is solved.
  EXPECT_EQ(gaussj(nullptr, 0, nullptr, 0), 1);
}

// ---------------------------------------------------------------------------

template <class T> class SymmetricEigen : public ::testing::Test
{
};
using EigenTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(SymmetricEigen, EigenTypes);

TYPED_TEST(SymmetricEigen, DecomposesRandomMatrices)
{
  using T = TypeParam;
  double const tol = std::is_same<T, float>::value ? 2e-5 : 1e-12;
  std::mt19937 rng(5);
  for (int n : {1, 2, 3, 4, 7})
    for (int rep = 0; rep < 20; ++rep)
    {
      RowMatrix<T> a = randomSymmetric<T>(n, rng);
      std::vector<T> d;
      RowMatrix<T> z(n, n);
      ASSERT_EQ(symmetricEigen(a, d, z), 1);
      double trace = 0, sum = 0;
      for (int i = 0; i < n; ++i)
      {
        trace += a[i][i];
        sum += d[i];
      }
      EXPECT_NEAR(trace, sum, tol * 10 * n);
      for (int c = 0; c < n; ++c)
      {
        // A v = lambda v and orthonormal columns.
        for (int i = 0; i < n; ++i)
        {
          double av = 0;
          for (int k = 0; k < n; ++k)
            av += static_cast<double>(a[i][k]) * z[k][c];
          EXPECT_NEAR(av, static_cast<double>(d[c]) * z[i][c], tol * 10) << n;
        }
        for (int c2 = 0; c2 < n; ++c2)
        {
          double dot = 0;
          for (int k = 0; k < n; ++k)
            dot += static_cast<double>(z[k][c]) * z[k][c2];
          EXPECT_NEAR(dot, c == c2 ? 1.0 : 0.0, tol) << n;
        }
      }
    }
}

TYPED_TEST(SymmetricEigen, KnownSpectrumAndDiagonalInput)
{
  using T = TypeParam;
  // [[2,1,0],[1,2,0],[0,0,5]] has the eigenvalues 1, 3 and 5.
  RowMatrix<T> a(3, 3);
  a[0][0] = 2, a[0][1] = 1, a[1][0] = 1, a[1][1] = 2, a[2][2] = 5;
  std::vector<T> d;
  RowMatrix<T> z(3, 3);
  ASSERT_EQ(symmetricEigen(a, d, z), 1);
  std::vector<double> sorted(d.begin(), d.end());
  std::sort(sorted.begin(), sorted.end());
  EXPECT_NEAR(sorted[0], 1.0, 1e-6);
  EXPECT_NEAR(sorted[1], 3.0, 1e-6);
  EXPECT_NEAR(sorted[2], 5.0, 1e-6);

  // A diagonal matrix needs no sweep: the values come back exactly, in the
  // diagonal's order (not sorted), and the vectors are the unit axes.
  RowMatrix<T> diag(3, 3);
  diag[0][0] = 4, diag[1][1] = -1, diag[2][2] = 2;
  ASSERT_EQ(symmetricEigen(diag, d, z), 1);
  EXPECT_EQ(d[0], T(4));
  EXPECT_EQ(d[1], T(-1));
  EXPECT_EQ(d[2], T(2));
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      EXPECT_EQ(z[i][j], i == j ? T(1) : T(0));
}

TYPED_TEST(SymmetricEigen, NonFiniteInputStopsAtTheSweepLimit)
{
  using T = TypeParam;
  RowMatrix<T> a(3, 3);
  for (T & v : a.data)
    v = 1;
  a[0][1] = a[1][0] = std::numeric_limits<T>::quiet_NaN();
  std::vector<T> d;
  RowMatrix<T> z(3, 3);
  EXPECT_EQ(symmetricEigen(a, d, z), 0);
  // Nothing to do for an empty matrix.
  EXPECT_EQ(symmetricEigen(RowMatrix<T>(0, 0), d, z), 1);
}

TEST(SymmetricEigen, FloatFollowsDouble)
{
  std::mt19937 rng(9);
  for (int rep = 0; rep < 50; ++rep)
  {
    RowMatrix<double> ad = randomSymmetric<double>(3, rng);
    RowMatrix<float> af(3, 3);
    for (std::size_t i = 0; i < ad.data.size(); ++i)
      af.data[i] = static_cast<float>(ad.data[i]);
    for (std::size_t i = 0; i < ad.data.size(); ++i)
      ad.data[i] = af.data[i];
    std::vector<double> dd;
    std::vector<float> df;
    RowMatrix<double> zd(3, 3);
    RowMatrix<float> zf(3, 3);
    ASSERT_EQ(symmetricEigen(ad, dd, zd), 1);
    ASSERT_EQ(symmetricEigen(af, df, zf), 1);
    // Same method, same order of results.
    for (int i = 0; i < 3; ++i)
      EXPECT_NEAR(df[i], dd[i], 1e-4);
  }
}

// ---------------------------------------------------------------------------

TEST(GenRightEigen, SatisfiesTheGeneralisedEquation)
{
  std::mt19937 rng(3);
  for (int n : {1, 2, 4, 6})
    for (int rep = 0; rep < 5; ++rep)
    {
      // A general a and a positive definite b: real pairs satisfy a v = l b v.
      RowMatrix<double> a = randomMatrix(n, n, rng), g = randomMatrix(n, n, rng), b(n, n);
      for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
        {
          for (int k = 0; k < n; ++k)
            b[i][j] += g[k][i] * g[k][j];
          b[i][j] += i == j ? 1.0 : 0.0;
        }
      RowMatrix<double> vec(n, n);
      std::vector<double> val(n);
      int count = -1;
      ASSERT_TRUE(gen_right_eigen(n, a.p(), b.p(), count, vec.p(), val.data()));
      ASSERT_GE(count, n % 2); // complex pairs come in twos
      for (int c = 0; c < count; ++c)
        for (int i = 0; i < n; ++i)
        {
          double av = 0, bv = 0;
          for (int k = 0; k < n; ++k)
          {
            av += a[i][k] * vec[c][k];
            bv += b[i][k] * vec[c][k];
          }
          EXPECT_NEAR(av, val[c] * bv, 1e-9);
        }
    }
}

TEST(GenRightEigen, DropsInfiniteAndComplexEigenvalues)
{
  // b singular in its last entry: that eigenvalue is infinite and dropped,
  // and the accepted ones leave no hole.
  RowMatrix<double> a(3, 3), b(3, 3), vec(3, 3);
  a[0][0] = 3, a[1][1] = 2, a[2][2] = 1;
  b[0][0] = 1, b[1][1] = 1;
  std::vector<double> val(3, -7.0);
  int count = -1;
  ASSERT_TRUE(gen_right_eigen(3, a.p(), b.p(), count, vec.p(), val.data()));
  ASSERT_EQ(count, 2);
  std::vector<double> got(val.begin(), val.begin() + 2);
  std::sort(got.begin(), got.end());
  EXPECT_NEAR(got[0], 2.0, 1e-12);
  EXPECT_NEAR(got[1], 3.0, 1e-12);
  EXPECT_EQ(val[2], -7.0);

  // A quarter turn in the plane has the eigenvalues +-i: only 5 is real.
  RowMatrix<double> rot(3, 3), id(3, 3);
  rot[0][1] = -1, rot[1][0] = 1, rot[2][2] = 5;
  id[0][0] = id[1][1] = id[2][2] = 1;
  ASSERT_TRUE(gen_right_eigen(3, rot.p(), id.p(), count, vec.p(), val.data()));
  ASSERT_EQ(count, 1);
  EXPECT_NEAR(val[0], 5.0, 1e-12);
  EXPECT_NEAR(std::fabs(vec[0][2]), 1.0, 1e-12);
  EXPECT_NEAR(vec[0][0], 0.0, 1e-12);

  count = 4;
  EXPECT_FALSE(gen_right_eigen(0, a.p(), b.p(), count, vec.p(), val.data()));
  EXPECT_EQ(count, 0);
}

// ---------------------------------------------------------------------------

namespace
{
double cubic(double x, void *) { return (x * x - 2.0) * x - 5.0; }
double shifted(double x, void * ctx) { return x - *static_cast<double *>(ctx); }
double cosine(double x, void * ctx)
{
  ++*static_cast<int *>(ctx);
  return std::cos(x);
}
double notANumber(double, void *) { return std::numeric_limits<double>::quiet_NaN(); }
} // namespace

TEST(BrentZeroFun, FindsBracketedRoots)
{
  int iterations = 100, status = 7, calls = 0;
  double root = 0;
  BrentZeroFun(cosine, 1.0, 2.0, 0.0, 12, iterations, root, status, &calls);
  EXPECT_EQ(status, 0);
  EXPECT_NEAR(root, 1.5707963267948966, 1e-12);
  EXPECT_GT(iterations, 0);
  EXPECT_EQ(calls, iterations + 2) << "both ends, then one evaluation per step";

  iterations = 100;
  BrentZeroFun(cubic, 3.0, 1.0, 0.0, 0, iterations, root, status, nullptr); // digits 0 means 9
  EXPECT_EQ(status, 0);
  EXPECT_NEAR(root, 2.0945514815423265, 2e-9);

  // The value tolerance ends the search early.
  iterations = 100;
  double target = 0.3;
  BrentZeroFun(shifted, 0.0, 1.0, 0.25, 15, iterations, root, status, &target);
  EXPECT_EQ(status, 0);
  EXPECT_LE(std::fabs(root - target), 0.25);
}

TEST(BrentZeroFun, EndsAndFailures)
{
  int iterations = 100, status = 7;
  double root = 0, target = 2.0;
  // A root exactly at an end costs no iteration.
  BrentZeroFun(shifted, 0.0, 2.0, 0.0, 9, iterations, root, status, &target);
  EXPECT_EQ(iterations, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(root, 2.0);
  iterations = 100;
  BrentZeroFun(shifted, 2.0, 5.0, 0.0, 9, iterations, root, status, &target);
  EXPECT_EQ(iterations, 0);
  EXPECT_EQ(root, 2.0);

  // The same sign at both ends.
  iterations = 100;
  BrentZeroFun(shifted, 3.0, 4.0, 0.0, 9, iterations, root, status, &target);
  EXPECT_EQ(status, -1);
  EXPECT_EQ(iterations, 1);
  EXPECT_EQ(root, 4.0);

  // The limit is exceeded: one count over it.
  iterations = 2;
  BrentZeroFun(cubic, 1.0, 3.0, 0.0, 15, iterations, root, status, nullptr);
  EXPECT_EQ(status, 1);
  EXPECT_EQ(iterations, 3);

  // NaN at the ends brackets nothing.
  iterations = 50;
  BrentZeroFun(notANumber, 0.0, 1.0, 0.0, 9, iterations, root, status, nullptr);
  EXPECT_EQ(status, -1);
  EXPECT_EQ(iterations, 1);
  EXPECT_EQ(root, 1.0);
}

// ---------------------------------------------------------------------------

TEST(Rounding, RndtoniTruncatesAfterAddingAHalf)
{
  EXPECT_EQ(rndtoni(2.5), 3);
  EXPECT_EQ(rndtoni(2.49), 2);
  EXPECT_EQ(rndtoni(-1.5), -1);
  EXPECT_EQ(rndtoni(-2.6), -2);
  EXPECT_EQ(rndtoni(1e300), INT_MAX);
  EXPECT_EQ(rndtoni(-1e300), INT_MIN);
  EXPECT_EQ(rndtoni(2147483646.6), INT_MAX);
  EXPECT_EQ(rndtoni(-2147483648.0), -2147483647);
  EXPECT_EQ(rndtoni(std::numeric_limits<double>::quiet_NaN()), 0);
}

TEST(Rounding, ScaleByRepeatedMultiplication)
{
  double v = 1.5;
  scaleDouble(v, 3);
  EXPECT_EQ(v, 1500.0);
  v = 1.0;
  scaleDouble(v, -3);
  EXPECT_EQ(v, 1.0 * 0.1 * 0.1 * 0.1);
  EXPECT_NE(v, 0.001) << "0.1 three times is not a division by 1000";
  v = 7.0;
  scaleDouble(v, 0);
  EXPECT_EQ(v, 7.0);
  // Extreme powers saturate at once rather than spin.
  v = 1.0;
  scaleDouble(v, INT_MAX);
  EXPECT_TRUE(std::isinf(v));
  v = 1.0;
  scaleDouble(v, INT_MIN);
  EXPECT_EQ(v, 0.0);

  int e = 99;
  EXPECT_EQ(getScale(100.0, e), 10.0);
  EXPECT_EQ(e, 1);
  EXPECT_EQ(getScale(1.0, e), 10.0);
  EXPECT_EQ(e, -1);
  EXPECT_DOUBLE_EQ(getScale(0.05, e), 5.0);
  EXPECT_EQ(e, -2);
  EXPECT_NEAR(getScale(2345.0, e), 2.345, 1e-14);
  EXPECT_EQ(e, 3);
  // No decade for these: the value comes back with exponent 0.
  for (double bad : {0.0, -5.0, std::numeric_limits<double>::infinity(), std::nan("")})
  {
    e = 99;
    double const r = getScale(bad, e);
    EXPECT_EQ(e, 0);
    EXPECT_TRUE(r == bad || (std::isnan(r) && std::isnan(bad)));
  }
}

TEST(Rounding, RoundBoundaryTable)
{
  struct Case
  {
    double value, top, step;
    int subdivisions, exponent;
  };
  Case const cases[] = {
      {1.1, 1.2, 0.2, 2, 0},    {1.3, 1.4, 0.2, 1, 0},     {1.5, 1.5, 0.5, 5, 0}, {2.2, 2.5, 0.5, 5, 0},
      {2.7, 3, 1, 2, 0},        {3.5, 4, 1, 2, 0},         {4.5, 5, 1, 2, 0},     {6.0, 6, 1, 2, 0},
      {6.5, 7, 1, 2, 0},        {8.0, 8, 1, 2, 0},         {8.5, 10, 5, 5, 0},    {10.0, 10, 5, 5, 0},
      {850.0, 1000, 500, 5, 2}, {0.13, 0.14, 0.02, 1, -1}, {11.0, 12, 2, 2, 1},
  };
  for (Case const & c : cases)
  {
    double value = c.value, top = 0, step = 0;
    int subdivisions = 0, exponent = 0;
    roundBoundary(value, top, step, subdivisions, exponent);
    EXPECT_EQ(value, c.value);
    EXPECT_DOUBLE_EQ(top, c.top) << c.value;
    EXPECT_DOUBLE_EQ(step, c.step) << c.value;
    EXPECT_EQ(subdivisions, c.subdivisions) << c.value;
    EXPECT_EQ(exponent, c.exponent) << c.value;
  }
}

TEST(Rounding, FixedAndSignificantDigits)
{
  EXPECT_DOUBLE_EQ(fRound2(1.234), 1.23);
  EXPECT_DOUBLE_EQ(fRound2(1.235), 1.24);
  EXPECT_DOUBLE_EQ(fRound2(-1.234), -1.22) << "not mirrored for negatives";

  // 1234.5678 -> 1.2345678 with scale 1000; 12345.678 + 0.5 truncates to 12346.
  EXPECT_EQ(fRound4(1234.5678), 1.0 * 1000.0 * 12346.0 * 0.1 * 0.1 * 0.1 * 0.1);
  EXPECT_DOUBLE_EQ(fRound4(1234.5678), 1234.6);
  EXPECT_DOUBLE_EQ(fRound4(-0.000123456), -0.00012346);
  EXPECT_DOUBLE_EQ(fRound4(1.0), 1.0); // brought to 10 first
  EXPECT_DOUBLE_EQ(fRound4(9.99999), 10.0);
  EXPECT_EQ(fRound4(0.0), 0.0);
  EXPECT_EQ(fRound4(-1e-31), 0.0);
  EXPECT_TRUE(std::isinf(fRound4(std::numeric_limits<double>::infinity())));
  EXPECT_TRUE(std::isnan(fRound4(std::nan(""))));

  EXPECT_DOUBLE_EQ(fRoundN(3.14159, 2), 3.14);
  EXPECT_DOUBLE_EQ(fRoundN(-271828.0, 3), -271800.0);
  EXPECT_DOUBLE_EQ(fRoundN(0.56, 0), 0.6);
  std::mt19937 rng(4);
  std::uniform_real_distribution<double> u(-8.0, 8.0);
  for (int i = 0; i < 200; ++i)
  {
    double const x = std::pow(10.0, u(rng)) * (i % 2 ? -1 : 1);
    EXPECT_NEAR(fRoundN(x, 4), fRound4(x), std::fabs(x) * 1e-15);
    EXPECT_LE(std::fabs(fRound4(x) - x), std::fabs(x) * 5.0001e-5);
  }
  EXPECT_TRUE(std::isinf(fRoundN(5.0, 1000)));
}
