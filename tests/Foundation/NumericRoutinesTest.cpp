#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <tuple>
#include <vector>

#include "QZmath/Foundation/NumericRoutines.h"

namespace
{
double const NaN = std::numeric_limits<double>::quiet_NaN();

// Row-pointer table over a row-major array, as these routines take matrices.
template <class T> std::vector<T *> rows(std::vector<T> & data, int n)
{
  std::vector<T *> r(n);
  for (int i = 0; i < n; ++i)
    r[i] = data.data() + data.size() / n * i;
  return r;
}

std::vector<double> random(std::size_t size, std::mt19937 & rng)
{
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> v(size);
  for (double & x : v)
    x = u(rng);
  return v;
}

// |a b - c| over n x k products of row-major arrays (a is n x n).
double residual(std::vector<double> const & a, std::vector<double> const & b, std::vector<double> const & c,
                int n)
{
  int const k = static_cast<int>(b.size()) / n;
  double worst = 0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < k; ++j)
    {
      double s = -c[i * k + j];
      for (int l = 0; l < n; ++l)
        s += a[i * n + l] * b[l * k + j];
      worst = std::max(worst, std::fabs(s));
    }
  return worst;
}

// tred2 + tqli on a copy of the symmetric `a`: eigenvalues in d, vectors in
// the columns of z.
template <class T> int symmetricEigen(std::vector<T> z, int n, std::vector<T> & d, std::vector<T> & zOut)
{
  d.assign(n, 0);
  std::vector<T> e(n);
  std::vector<T *> r = rows(z, n);
  int status;
  if constexpr (std::is_same<T, float>::value)
    tred2(r.data(), n, d.data(), e.data()), status = tqli(d.data(), e.data(), n, r.data());
  else
    tred2_d(r.data(), n, d.data(), e.data()), status = tqli_d(d.data(), e.data(), n, r.data());
  zOut = z;
  return status;
}
} // namespace

TEST(Gaussj, InvertsSolvesAndReportsFailures)
{
  std::mt19937 rng(11);
  for (int n : {1, 5, 12})
  {
    std::vector<double> const a = random(n * n, rng), b = random(n * 3, rng);
    std::vector<double> inv = a, x = b, id(n * n);
    for (int i = 0; i < n; ++i)
      id[i * n + i] = 1;
    std::vector<double *> ra = rows(inv, n), rb = rows(x, n), before = ra;
    ASSERT_EQ(gaussj(ra.data(), n, rb.data(), 3), 1);
    EXPECT_EQ(ra, before) << "the row table stays the caller's";
    EXPECT_LT(residual(a, inv, id, n), 1e-9);
    EXPECT_LT(residual(a, x, b, n), 1e-9);
  }

  // Above the fixed bookkeeping size of 50: nothing touched.
  std::vector<double> big(51 * 51, 2.0), rhs(51, 1.0);
  std::vector<double *> rBig = rows(big, 51), rRhs = rows(rhs, 51);
  EXPECT_TRUE(gaussj(rBig.data(), 51, rRhs.data(), 1) == -1 && big[3 * 51 + 3] == 2.0);

  std::vector<double> b(3), singular = {1, 2, 3, 2, 4, 6, 1, 0, 1}, nan(9, NaN);
  std::vector<double *> rb = rows(b, 3), rs = rows(singular, 3), rn = rows(nan, 3);
  EXPECT_EQ(gaussj(rs.data(), 3, rb.data(), 1), -1) << "zero pivot";
  // NaN entries find no pivot, so a column comes up twice.
  EXPECT_EQ(gaussj(rn.data(), 3, rb.data(), 1), 0);
  EXPECT_EQ(gaussj(nullptr, 0, nullptr, 0), 1);
}

template <class T> class SymmetricEigen : public ::testing::Test
{
};
using EigenTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(SymmetricEigen, EigenTypes);

TYPED_TEST(SymmetricEigen, DecomposesRandomMatricesAndKnownSpectra)
{
  using T = TypeParam;
  double const tol = std::is_same<T, float>::value ? 2e-5 : 1e-12;
  std::mt19937 rng(5);
  for (int n : {1, 2, 3, 7})
    for (int rep = 0; rep < 10; ++rep)
    {
      std::vector<double> const r = random(n * n, rng);
      std::vector<T> a(n * n), d, z;
      for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
          a[i * n + j] = static_cast<T>(r[i * n + j] + r[j * n + i]);
      ASSERT_EQ(symmetricEigen(a, n, d, z), 1);
      // A v = lambda v, with orthonormal columns.
      for (int c = 0; c < n; ++c)
        for (int i = 0; i < n; ++i)
        {
          double av = 0, dot = 0;
          for (int k = 0; k < n; ++k)
          {
            av += static_cast<double>(a[i * n + k]) * z[k * n + c];
            dot += static_cast<double>(z[k * n + c]) * z[k * n + i];
          }
          EXPECT_NEAR(av, static_cast<double>(d[c]) * z[i * n + c], 10 * tol);
          EXPECT_NEAR(dot, c == i ? 1.0 : 0.0, tol);
        }
    }

  // NaN never converges: the sweep limit ends it.
  T const nan = std::numeric_limits<T>::quiet_NaN();
  std::vector<T> d, z;
  EXPECT_EQ(symmetricEigen(std::vector<T>{1, nan, 1, nan, 1, 1, 1, 1, 1}, 3, d, z), 0);
  EXPECT_EQ(symmetricEigen(std::vector<T>{}, 0, d, z), 1);
}

TEST(GenRightEigen, SatisfiesTheGeneralisedEquationAndDropsInfiniteAndComplexValues)
{
  std::mt19937 rng(3);
  for (int n : {1, 4, 6})
  {
    // A general a and a positive definite b.
    std::vector<double> a = random(n * n, rng), g = random(n * n, rng), b(n * n), vec(n * n), val(n);
    for (int i = 0; i < n; ++i)
      for (int j = 0; j < n; ++j)
        for (int k = 0; k < n; ++k)
          b[i * n + j] += g[k * n + i] * g[k * n + j] + (i == j && k == 0 ? 1.0 : 0.0);
    std::vector<double *> ra = rows(a, n), rb = rows(b, n), rv = rows(vec, n);
    int count = -1;
    ASSERT_TRUE(gen_right_eigen(n, ra.data(), rb.data(), count, rv.data(), val.data()));
    EXPECT_GE(count, n % 2); // complex pairs come in twos
    for (int c = 0; c < count; ++c)
      for (int i = 0; i < n; ++i)
      {
        double av = 0, bv = 0;
        for (int k = 0; k < n; ++k)
          av += a[i * n + k] * vec[c * n + k], bv += b[i * n + k] * vec[c * n + k];
        EXPECT_NEAR(av, val[c] * bv, 1e-9);
      }
  }

  // b singular in its last entry: that eigenvalue is infinite and dropped,
  // without leaving a hole.
  std::vector<double> a = {3, 0, 0, 0, 2, 0, 0, 0, 1}, b = {1, 0, 0, 0, 1, 0, 0, 0, 0}, vec(9), val(3, -7.0);
  std::vector<double *> ra = rows(a, 3), rb = rows(b, 3), rv = rows(vec, 3);
  int count = -1;
  ASSERT_TRUE(gen_right_eigen(3, ra.data(), rb.data(), count, rv.data(), val.data()));
  ASSERT_EQ(count, 2);
  std::sort(val.begin(), val.begin() + 2);
  EXPECT_EQ(val, (std::vector<double>{2, 3, -7}));

  // A quarter turn in a plane has eigenvalues +-i: only 5 is real. The
  // vector is the right one of the matrix as given (not of its transpose).
  std::vector<double> turn = {0, -1, 0, 1, 0, 0, 1, 0, 5}, id = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  std::vector<double *> rt = rows(turn, 3), ri = rows(id, 3);
  ASSERT_TRUE(gen_right_eigen(3, rt.data(), ri.data(), count, rv.data(), val.data()));
  ASSERT_EQ(count, 1);
  EXPECT_NEAR(std::fabs(val[0] - 5.0) + std::fabs(vec[0]) + std::fabs(std::fabs(vec[2]) - 1.0), 0.0, 1e-12);

  EXPECT_FALSE(gen_right_eigen(0, ra.data(), rb.data(), count, rv.data(), val.data()));
  EXPECT_EQ(count, 0);
}

namespace
{
double cubic(double x, void *) { return (x * x - 2.0) * x - 5.0; }
double shifted(double x, void * ctx) { return x - *static_cast<double *>(ctx); }
double counted(double x, void * ctx) { return ++*static_cast<int *>(ctx), std::cos(x); }
double notANumber(double, void *) { return NaN; }

/// Status, iterations and root of a search with an iteration limit.
std::tuple<int, int, double> brent(double (*f)(double, void *), double a, double b, double tol, int digits,
                                   void * context, int limit = 100)
{
  int status = 7;
  double root = 0;
  BrentZeroFun(f, a, b, tol, digits, limit, root, status, context);
  return {status, limit, root};
}
} // namespace

TEST(BrentZeroFun, RootsAndFailures)
{
  int calls = 0;
  double target = 2.0;
  auto const found = brent(counted, 1.0, 2.0, 0.0, 12, &calls);
  EXPECT_EQ(std::get<0>(found), 0);
  EXPECT_NEAR(std::get<2>(found), M_PI / 2, 1e-12);
  EXPECT_EQ(calls, std::get<1>(found) + 2) << "the ends, then one evaluation per iteration";
  EXPECT_LE(std::fabs(std::get<2>(brent(shifted, 0.0, 5.0, 0.25, 15, &target)) - target), 0.25)
      << "the value tolerance ends the search";
  // A root exactly at an end costs no iteration.
  EXPECT_EQ(brent(shifted, 0.0, 2.0, 0.0, 9, &target), std::make_tuple(0, 0, 2.0));
  // No sign change, or NaN at an end: status -1, one iteration, root b.
  for (auto f : {shifted, notANumber})
    EXPECT_EQ(brent(f, 3.0, 4.0, 0.0, 9, &target), std::make_tuple(-1, 1, 4.0));
  // The limit exceeded: the count ends one above it.
  EXPECT_EQ(std::get<1>(brent(cubic, 1.0, 3.0, 0.0, 15, nullptr, 2)), 3);
  EXPECT_EQ(std::get<0>(brent(cubic, 1.0, 3.0, 0.0, 15, nullptr, 2)), 1);
}

TEST(Rounding, IntegersPowersOfTenAndDisplayedDigits)
{
  // -1.5 gives -1: truncation after adding 0.5.
  EXPECT_EQ((std::vector<int>{rndtoni(2.5), rndtoni(-1.5), rndtoni(-2.6), rndtoni(1e300), rndtoni(-1e300),
                              rndtoni(NaN)}),
            (std::vector<int>{3, -1, -2, INT_MAX, INT_MIN, 0}));

  auto scaled = [](double v, int power)
  {
    scaleDouble(v, power);
    return v;
  };
  EXPECT_EQ(scaled(1.0, -3), 1.0 * 0.1 * 0.1 * 0.1) << "repeated multiplication, not a division";
  EXPECT_TRUE(std::isinf(scaled(1.0, INT_MAX))) << "saturates rather than spins";
  EXPECT_EQ(scaled(1.0, INT_MIN), 0.0);

  auto scale = [](double v)
  {
    int e = 99;
    double const s = getScale(v, e);
    return std::make_pair(s, e);
  };
  EXPECT_EQ(scale(100.0), std::make_pair(10.0, 1)) << "an exact power falls into the decade below";
  for (double bad : {0.0, -5.0, HUGE_VAL})
    EXPECT_EQ(scale(bad), std::make_pair(bad, 0));

  EXPECT_DOUBLE_EQ(fRound2(1.235), 1.24);
  EXPECT_DOUBLE_EQ(fRound2(-1.234), -1.22) << "not mirrored for negatives";
  // 1234.5678 -> 1.2345678 with scale 1000; 12345.678 + 0.5 truncates to
  // 12346; the factors in this order.
  EXPECT_EQ(fRound4(1234.5678), 1.0 * 1000.0 * 12346.0 * 0.1 * 0.1 * 0.1 * 0.1);
  EXPECT_DOUBLE_EQ(fRound4(1.0), 1.0); // brought to 10 first
  EXPECT_EQ(fRound4(-1e-31), 0.0);
  EXPECT_TRUE(std::isinf(fRound4(HUGE_VAL)));
  EXPECT_TRUE(std::isnan(fRound4(NaN)));
  EXPECT_DOUBLE_EQ(fRoundN(-271828.0, 3), -271800.0);
  EXPECT_TRUE(std::isinf(fRoundN(5.0, 1000)));
  std::mt19937 rng(4);
  std::uniform_real_distribution<double> u(-8.0, 8.0);
  for (int i = 0; i < 200; ++i)
  {
    double const x = std::pow(10.0, u(rng)) * (i % 2 ? -1 : 1);
    EXPECT_NEAR(fRoundN(x, 4), fRound4(x), std::fabs(x) * 1e-15);
    EXPECT_LE(std::fabs(fRound4(x) - x), std::fabs(x) * 5.0001e-5);
  }
}

TEST(Rounding, RoundBoundaryTable)
{
  struct Case
  {
    double value, top, step;
    int subdivisions, exponent;
  } const cases[] = {
      {1.1, 1.2, 0.2, 2, 0}, {1.3, 1.4, 0.2, 1, 0},  {1.5, 1.5, 0.5, 5, 0},     {2.2, 2.5, 0.5, 5, 0},
      {2.7, 3, 1, 2, 0},     {6.0, 6, 1, 2, 0},      {8.0, 8, 1, 2, 0},         {8.5, 10, 5, 5, 0},
      {10.0, 10, 5, 5, 0},   {850, 1000, 500, 5, 2}, {0.13, 0.14, 0.02, 1, -1},
  };
  for (Case const & c : cases)
  {
    double value = c.value, top = 0, step = 0;
    int subdivisions = 0, exponent = 0;
    roundBoundary(value, top, step, subdivisions, exponent);
    EXPECT_EQ(value, c.value);
    EXPECT_DOUBLE_EQ(top, c.top) << c.value;
    EXPECT_DOUBLE_EQ(step, c.step) << c.value;
    EXPECT_EQ(std::make_pair(subdivisions, exponent), std::make_pair(c.subdivisions, c.exponent)) << c.value;
  }
}
