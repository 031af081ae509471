#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <type_traits>

#include "QZmath/Foundation/Matrix.h"

using namespace REmath;

namespace
{
/// The word a call throws as `char const *`, or a marker when it throws none.
template <class F> std::string thrownWord(F f)
{
  try
  {
    f();
  }
  catch (char const * word)
  {
    return word;
  }
  return "<nothing thrown>";
}

template <class T> Matrix<T> randomMatrix(int rows, int cols, std::mt19937 & rng, double lo = -10, double hi = 10)
{
  std::uniform_real_distribution<double> u(lo, hi);
  Matrix<T> m(rows, cols);
  for (int c = 0; c < cols; ++c)
    for (int r = 0; r < rows; ++r)
      m(r, c) = static_cast<T>(u(rng));
  return m;
}

/// The plain triple loop, each element summed in ascending k from 0 with the
/// zero elements of `a` left out.
template <class T> Matrix<T> slowProduct(Matrix<T> const & a, Matrix<T> const & b)
{
  Matrix<T> p(a.rows(), b.cols());
  for (int i = 0; i < a.rows(); ++i)
    for (int j = 0; j < b.cols(); ++j)
    {
      T s = 0;
      for (int k = 0; k < a.cols(); ++k)
        if (a(i, k) != 0)
          s = static_cast<T>(s + a(i, k) * b(k, j));
      p(i, j) = s;
    }
  return p;
}

/// Diagonally dominant, hence well conditioned.
template <class T> Matrix<T> wellConditioned(int n, std::mt19937 & rng)
{
  Matrix<T> a = randomMatrix<T>(n, n, rng, -1, 1);
  for (int i = 0; i < n; ++i)
    a(i, i) = static_cast<T>(a(i, i) + (a(i, i) < 0 ? -n : n));
  return a;
}

template <class T> double maxAbs(Matrix<T> const & m)
{
  double r = 0;
  for (int c = 0; c < m.cols(); ++c)
    for (int rr = 0; rr < m.rows(); ++rr)
      r = std::max(r, std::fabs(static_cast<double>(m(rr, c))));
  return r;
}

template <class M, class = void> struct HasProduct : std::false_type
{
};
template <class M>
struct HasProduct<M, std::void_t<decltype(std::declval<M const &>() * std::declval<M const &>())>> : std::true_type
{
};
} // namespace

// ---- layout and storage ---------------------------------------------------------

TEST(MatrixStorage, ColumnMajorLayout)
{
  Matrix<double> d;
  EXPECT_EQ(d.rows(), 1);
  EXPECT_EQ(d.cols(), 1);
  EXPECT_EQ(d(0, 0), 0.0);

  Matrix<double> m(3, 2);
  EXPECT_EQ(&m[1][2], &m.elem(2, 1));
  EXPECT_EQ(&m(2, 1), &m.elem(2, 1));
  for (int c = 0; c < 2; ++c)
    for (int r = 0; r < 3; ++r)
    {
      EXPECT_EQ(m(r, c), 0.0);
      EXPECT_EQ(&m(r, c), &m[0][0] + r + 3 * c); // one block, column after column
    }
}

TEST(MatrixStorage, SizesBelowOneAllocateNothingAndResizeIgnoresThem)
{
  Matrix<int> e(0, 5);
  EXPECT_EQ(e.rows(), 0);
  EXPECT_EQ(e.cols(), 5);
  EXPECT_EQ(e.getDiag().size(), 0);
  EXPECT_EQ(e.trace(), 0);
  EXPECT_EQ(e.transpose().rows(), 5);
  Matrix<int> e2(e); // copying and scaling an empty matrix touches nothing
  e2 *= 3.0;
  EXPECT_TRUE(e2 == e);

  Matrix<int> m(2, 2);
  m(1, 0) = 7;
  m.resize(0, 5);
  m.resize(3, -1);
  m.resizeKeep(0, 0);
  EXPECT_EQ(m.rows(), 2);
  EXPECT_EQ(m.cols(), 2);
  EXPECT_EQ(m(1, 0), 7);
}

TEST(MatrixStorage, ExternalMemoryStaysTheCallersUntilResize)
{
  double memory[6] = {1, 2, 3, 4, 5, 6};
  double * table[3] = {nullptr, nullptr, nullptr};
  {
    Matrix<double> m(memory, table, 2, 3);
    EXPECT_EQ(table[1], memory + 2);
    EXPECT_EQ(m(1, 2), 6.0);
    m(0, 1) = 30; // writes through to the caller's memory
    Matrix<double> same(2, 3);
    same(1, 1) = -1;
    m = same; // same size: copied in place
    EXPECT_EQ(memory[3], -1.0);
    EXPECT_EQ(m[0], memory);
  } // the destructor must not free the caller's arrays (the sanitizer sees it)
  memory[0] = 9;
  Matrix<double> m(memory, table, 2, 3);
  m.resize(2, 3);
  EXPECT_NE(m[0], memory);
  EXPECT_EQ(m(0, 0), 0.0);
  m(0, 0) = 5;
  EXPECT_EQ(memory[0], 9.0);
}

TEST(MatrixStorage, ResizeClearsAndResizeKeepKeepsTheOverlap)
{
  Matrix<int> m(3, 3);
  for (int c = 0; c < 3; ++c)
    for (int r = 0; r < 3; ++r)
      m(r, c) = 10 * r + c + 1;
  Matrix<int> k(m);
  k.resizeKeep(2, 2);
  ASSERT_EQ(k.rows(), 2);
  EXPECT_TRUE(k == m.get(0, 0, 2, 2));

  Matrix<int> g(m);
  g.resizeKeep(4, 5);
  EXPECT_TRUE(g.get(0, 0, 3, 3) == m);
  EXPECT_EQ(g(3, 4), 0);
  EXPECT_EQ(g(0, 3), 0);
  EXPECT_EQ(g(3, 0), 0);

  m.resize(3, 3);
  EXPECT_EQ(maxAbs(m), 0.0);
}

TEST(MatrixStorage, CopyAssignFillSwap)
{
  std::mt19937 rng(1);
  Matrix<float> a = randomMatrix<float>(4, 3, rng);
  Matrix<float> b(1, 7);
  b = a;
  EXPECT_EQ(b.rows(), 4);
  EXPECT_EQ(b.cols(), 3);
  EXPECT_TRUE(b == a);
  b(2, 2) += 1;
  EXPECT_FALSE(b == a); // deep copy
  b = b;
  EXPECT_EQ(b(2, 2), a(2, 2) + 1);

  EXPECT_EQ(b = 2.5f, 2.5f);
  EXPECT_EQ(b(3, 1), 2.5f);
  b.reset(-0.0f); // block clear of a zero request
  EXPECT_FALSE(std::signbit(b(0, 0)));
  EXPECT_EQ(maxAbs(b), 0.0);
  b.reset(4.f);
  EXPECT_EQ(b(1, 2), 4.f);

  Matrix<float> s(2, 2);
  Matrix<float> const a0(a);
  s.swap(a);
  EXPECT_EQ(a.rows(), 2);
  EXPECT_TRUE(s == a0);
}

// ---- windows and tiles ---------------------------------------------------------

TEST(MatrixWindows, SubmatrixWritesWholeTiles)
{
  Matrix<int> m(4, 2), t(2, 2);
  t(0, 0) = 1, t(1, 0) = 2, t(0, 1) = 3, t(1, 1) = 4;
  m.submatrix(1, 0, t);
  EXPECT_EQ(m(2, 0), 1);
  EXPECT_EQ(m(3, 0), 2);
  EXPECT_EQ(m(2, 1), 3);
  EXPECT_EQ(m(3, 1), 4);
  EXPECT_EQ(m(0, 0), 0);
  EXPECT_EQ(m(1, 1), 0);

  EXPECT_EQ(thrownWord([&] { m.submatrix(2, 0, t); }), "NURBSOutOfBound2D");
  EXPECT_EQ(thrownWord([&] { m.submatrix(0, 1, t); }), "NURBSOutOfBound2D");
  EXPECT_EQ(thrownWord([&] { m.submatrix(-1, 0, t); }), "NURBSOutOfBound2D");
  Matrix<int> odd(3, 2), big(8, 2), empty(0, 2);
  EXPECT_EQ(thrownWord([&] { m.submatrix(0, 0, odd); }), "NURBSWrongSize2D"); // not a whole multiple
  EXPECT_EQ(thrownWord([&] { m.submatrix(0, 0, big); }), "NURBSWrongSize2D");
  EXPECT_EQ(thrownWord([&] { m.submatrix(0, 0, empty); }), "NURBSWrongSize2D");
  EXPECT_EQ(thrownWord([&] { odd.submatrix(0, 0, t); }), "NURBSWrongSize2D");
}

TEST(MatrixWindows, AsAndGetAreInverse)
{
  std::mt19937 rng(2);
  Matrix<double> m(5, 4);
  Matrix<double> const block = randomMatrix<double>(2, 3, rng);
  m.as(3, 1, block);
  EXPECT_TRUE(m.get(3, 1, 2, 3) == block);
  EXPECT_EQ(m(2, 1), 0.0);
  EXPECT_EQ(m(3, 0), 0.0);
  EXPECT_EQ(m.get(1, 1, 0, 2).rows(), 0);

  EXPECT_EQ(thrownWord([&] { m.as(4, 1, block); }), "NURBSMatrixErr");
  EXPECT_EQ(thrownWord([&] { m.as(0, 2, block); }), "NURBSMatrixErr");
  EXPECT_EQ(thrownWord([&] { m.as(-1, 0, block); }), "NURBSMatrixErr");
  EXPECT_EQ(thrownWord([&] { m.get(4, 0, 2, 1); }), "NURBSMatrixErr");
  EXPECT_EQ(thrownWord([&] { m.get(0, 1, 1, 4); }), "NURBSMatrixErr");
  EXPECT_EQ(thrownWord([&] { m.get(0, -1, 1, 1); }), "NURBSMatrixErr");
  EXPECT_EQ(thrownWord([&] { m.get(0, 0, -1, 1); }), "NURBSMatrixErr");
  EXPECT_EQ(thrownWord([&] { m.get(0, 0, 1, std::numeric_limits<int>::max()); }), "NURBSMatrixErr");

  Matrix<double> const before(m);
  m.copySubMatrix(0, 0, 3, 0, block, 0, 0);
  EXPECT_TRUE(m == before);
  m.copySubMatrix(0, 0, 1, 2, block, 1, 1);
  EXPECT_EQ(m(0, 0), block(1, 1));
  EXPECT_EQ(m(0, 1), block(1, 2));
}

TEST(MatrixWindows, TransposeFlopAndDiagonal)
{
  Matrix<int> m(2, 3);
  for (int c = 0; c < 3; ++c)
    for (int r = 0; r < 2; ++r)
      m(r, c) = 10 * r + c;
  Matrix<int> const t = m.transpose();
  ASSERT_EQ(t.rows(), 3);
  ASSERT_EQ(t.cols(), 2);
  EXPECT_EQ(t(2, 1), m(1, 2));
  EXPECT_TRUE(t.transpose() == m);
  EXPECT_TRUE(m.herm() == t);

  Matrix<int> const f = m.flop();
  for (int c = 0; c < 3; ++c)
    for (int r = 0; r < 2; ++r)
      EXPECT_EQ(f(r, c), m(r, 2 - c));
  EXPECT_TRUE(f.flop() == m);

  m.diag(-1);
  EXPECT_EQ(m(0, 0), -1);
  EXPECT_EQ(m(1, 1), -1);
  EXPECT_EQ(m(0, 1), 1); // off the diagonal: untouched
  EXPECT_EQ(m(1, 2), 12);
  Vector<int> const d = m.getDiag();
  ASSERT_EQ(d.size(), 2);
  EXPECT_EQ(d[1], -1);
  EXPECT_EQ(m.trace(), -2);
}

// ---- arithmetic ---------------------------------------------------------------------

TEST(MatrixArithmetic, SumsDifferencesAndSizeErrors)
{
  std::mt19937 rng(3);
  Matrix<double> const a = randomMatrix<double>(3, 4, rng), b = randomMatrix<double>(3, 4, rng);
  Matrix<double> const s = a + b, d = a - b;
  for (int c = 0; c < 4; ++c)
    for (int r = 0; r < 3; ++r)
    {
      EXPECT_EQ(s(r, c), a(r, c) + b(r, c));
      EXPECT_EQ(d(r, c), a(r, c) - b(r, c));
    }
  Matrix<double> acc(a);
  acc += b;
  acc -= b;
  EXPECT_LT(maxAbs(acc - a), 1e-14);

  Matrix<double> const wrong(4, 3);
  EXPECT_EQ(thrownWord([&] { return a + wrong; }), "NURBSWrongSize2D");
  EXPECT_EQ(thrownWord([&] { return a - wrong; }), "NURBSWrongSize2D");
  EXPECT_EQ(thrownWord([&] { acc += wrong; }), "NURBSWrongSize2D");
  EXPECT_EQ(thrownWord([&] { return a == wrong; }), "NURBSWrongSize2D"); // throws, not false
  EXPECT_EQ(thrownWord([&] { return a != wrong; }), "NURBSWrongSize2D");
  EXPECT_EQ(thrownWord([&] { return a * a; }), "NURBSWrongSize2D");
  EXPECT_EQ(thrownWord([&] { return a * Vector<double>(3); }), "NURBSWrongSize2D");
  EXPECT_EQ(thrownWord([&] { return comm(a, wrong); }), "NURBSWrongSize2D"); // both products fit, not the difference
}

TEST(MatrixArithmetic, ComparisonIsExactAndNaNIsUnequal)
{
  Matrix<double> a(2, 2), b(2, 2);
  EXPECT_TRUE(a == b);
  b(1, 1) = -0.0;
  EXPECT_TRUE(a == b);
  a(0, 1) = std::nan("");
  b(0, 1) = a(0, 1);
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a != a);
}

TEST(MatrixArithmetic, ScalarOperationsRoundOnceFromDouble)
{
  Matrix<float> f(1, 2);
  f(0, 0) = 0.1f, f(0, 1) = 3.f;
  Matrix<float> g = (1.0 / 3.0) * f;
  EXPECT_EQ(g(0, 0), static_cast<float>(static_cast<double>(0.1f) * (1.0 / 3.0)));
  g = f;
  g += 0.1;
  EXPECT_EQ(g(0, 1), static_cast<float>(3.0 + 0.1));
  g = f;
  g /= 3.0;
  EXPECT_EQ(g(0, 0), static_cast<float>(static_cast<double>(0.1f) / 3.0));
  g -= 1.0;
  EXPECT_EQ(g(0, 1), 0.f);

  // Integer elements truncate toward zero and wrap; non-finite results give 0.
  Matrix<int> i(1, 3);
  i(0, 0) = 7, i(0, 1) = -7, i(0, 2) = std::numeric_limits<int>::max();
  Matrix<int> h = 0.5 * i;
  EXPECT_EQ(h(0, 0), 3);
  EXPECT_EQ(h(0, 1), -3);
  h = i;
  h += 1.0;
  EXPECT_EQ(h(0, 2), std::numeric_limits<int>::min());
  h = i;
  h /= 0.0;
  EXPECT_EQ(h(0, 0), 0);
  Matrix<unsigned char> u(1, 1);
  u(0, 0) = 200;
  u *= 2.0;
  EXPECT_EQ(u(0, 0), 144); // 400 mod 256
  u -= 145.0;
  EXPECT_EQ(u(0, 0), 255);
}

TEST(MatrixArithmetic, ProductMatchesTheSlowLoopBitForBit)
{
  std::mt19937 rng(4);
  for (int trial = 0; trial < 20; ++trial)
  {
    int const n = 1 + trial % 7, k = 1 + (trial * 3) % 5, m = 1 + (trial * 5) % 6;
    Matrix<double> a = randomMatrix<double>(n, k, rng), b = randomMatrix<double>(k, m, rng);
    a(0, 0) = 0; // exercised skip
    EXPECT_TRUE(a * b == slowProduct(a, b));
    Matrix<float> const af = randomMatrix<float>(n, k, rng), bf = randomMatrix<float>(k, m, rng);
    EXPECT_TRUE(af * bf == slowProduct(af, bf));
  }
}

TEST(MatrixArithmetic, IntegerProductIsExactAndAssociative)
{
  std::mt19937 rng(5);
  Matrix<int> const a = randomMatrix<int>(4, 5, rng, -1e9, 1e9), b = randomMatrix<int>(5, 3, rng, -1e9, 1e9),
                    c = randomMatrix<int>(3, 6, rng, -1e9, 1e9);
  // Products wrap modulo 2^32 and thus stay a ring: associativity is exact.
  EXPECT_TRUE((a * b) * c == a * (b * c));
  Matrix<unsigned char> const ua = randomMatrix<unsigned char>(3, 3, rng, 0, 255),
                              ub = randomMatrix<unsigned char>(3, 3, rng, 0, 255);
  Matrix<unsigned char> const up = ua * ub;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
    {
      unsigned s = 0;
      for (int k = 0; k < 3; ++k)
        s += unsigned(ua(i, k)) * unsigned(ub(k, j));
      EXPECT_EQ(up(i, j), static_cast<unsigned char>(s));
    }

  Matrix<int> id(4, 4);
  id.diag(1);
  EXPECT_TRUE(id * a == a);
  EXPECT_TRUE(a.transpose() * id == a.transpose());
}

TEST(MatrixArithmetic, ExactZerosOfTheLeftFactorAreSkipped)
{
  double const inf = std::numeric_limits<double>::infinity();
  Matrix<double> a(1, 2), b(2, 1);
  a(0, 0) = 0.0, a(0, 1) = 2.0;
  b(0, 0) = inf, b(1, 0) = 3.0;
  EXPECT_EQ((a * b)(0, 0), 6.0); // 0 * inf would be NaN
  EXPECT_TRUE(std::isnan((b.transpose() * a.transpose())(0, 0))); // the right factor's zero is not skipped
}

TEST(MatrixArithmetic, MatrixTimesVectorAndCommutator)
{
  std::mt19937 rng(6);
  Matrix<double> const m = randomMatrix<double>(4, 3, rng);
  Vector<double> v(3);
  Matrix<double> vc(3, 1);
  for (int i = 0; i < 3; ++i)
    vc(i, 0) = v[i] = 0.5 * i - 1.25;
  Vector<double> const r = m * v;
  Matrix<double> const rc = m * vc;
  ASSERT_EQ(r.size(), 4);
  for (int i = 0; i < 4; ++i)
    EXPECT_DOUBLE_EQ(r[i], rc(i, 0));

  Matrix<int> const a = randomMatrix<int>(3, 3, rng), b = randomMatrix<int>(3, 3, rng);
  EXPECT_TRUE(comm(a, a) == Matrix<int>(3, 3));
  EXPECT_TRUE(comm(a, b) + comm(b, a) == Matrix<int>(3, 3));
  Matrix<int> id(3, 3);
  id.diag(5);
  EXPECT_TRUE(comm(a, id) == Matrix<int>(3, 3));
}

// ---- point elements ---------------------------------------------------------------

TEST(MatrixPoints, OnlyNumbersAndHomogeneousPointsMultiply)
{
  static_assert(HasProduct<Matrix<double>>::value, "");
  static_assert(HasProduct<Matrix<char>>::value, "");
  static_assert(HasProduct<Matrix<HPoint3D>>::value, "");
  static_assert(HasProduct<Matrix<HPoint3D_d>>::value, "");
  static_assert(!HasProduct<Matrix<Point3D>>::value, "");
  static_assert(!HasProduct<Matrix<Point3D_d>>::value, "");
}

TEST(MatrixPoints, HomogeneousProductIsCoordinateWiseOnAllFour)
{
  Matrix<HPoint3D_d> a(1, 2), b(2, 1);
  a(0, 0) = HPoint3D_d(1, 2, 3, 4);
  a(0, 1) = HPoint3D_d(0, 0, 0, 0); // exactly zero: skipped
  b(0, 0) = HPoint3D_d(5, 6, 7, 8);
  b(1, 0) = HPoint3D_d(std::nan(""), 1, 1, 1);
  HPoint3D_d const p = (a * b)(0, 0);
  EXPECT_EQ(p, HPoint3D_d(5, 12, 21, 32));

  Matrix<HPoint3D> c(2, 2);
  c(0, 0) = HPoint3D(1, 1, 1, 1);
  c(1, 1) = HPoint3D(2, 3, 4, 5);
  c(1, 0) = HPoint3D(0, 0, 0, 1); // w alone keeps it in the sum
  Matrix<HPoint3D> const cc = c * c;
  EXPECT_EQ(cc(1, 1), HPoint3D(4, 9, 16, 25));
  EXPECT_EQ(cc(1, 0), HPoint3D(0, 0, 0, 1 + 5));
  EXPECT_EQ(c.trace(), HPoint3D(3, 4, 5, 6));
}

TEST(MatrixPoints, PointMatricesSumScaleAndCompare)
{
  Matrix<Point3D> m(2, 1);
  m(0, 0) = Point3D(1.f, 2.f, 3.f);
  m(1, 0) = Point3D(0.1f, 0.f, -1.f);
  Matrix<Point3D> const s = m + m;
  EXPECT_EQ(s(0, 0).z(), 6.f);
  Matrix<Point3D> const t = 0.5 * s;
  EXPECT_TRUE(t == m);
  Matrix<Point3D> shifted(m);
  shifted += 0.1; // every coordinate, in double, rounded once
  EXPECT_EQ(shifted(1, 0).x(), static_cast<float>(static_cast<double>(0.1f) + 0.1));
  EXPECT_EQ(shifted(1, 0).y(), static_cast<float>(0.1));
  EXPECT_FALSE(shifted == m);
  shifted = m;
  shifted(0, 0).y() = std::nextafter(2.f, 3.f); // one coordinate differs
  EXPECT_TRUE(shifted != m);

  Matrix<HPoint3D_d> h(1, 1);
  h(0, 0) = HPoint3D_d(1, 2, 3, 4);
  h += h;
  h -= 1.0;
  EXPECT_EQ(h(0, 0), HPoint3D_d(1, 3, 5, 7));
  h.reset();
  EXPECT_EQ(h(0, 0), HPoint3D_d(0.0));
  Matrix<Point3D_d> z(2, 2);
  z.diag(Point3D_d(1.0));
  EXPECT_EQ(z.trace().y(), 2.0);
}

// ---- LAPACK -------------------------------------------------------------------------------

template <class T> class MatrixSolve : public ::testing::Test
{
};
using SolveTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(MatrixSolve, SolveTypes);

TYPED_TEST(MatrixSolve, ResidualsOfRandomWellConditionedSystems)
{
  using T = TypeParam;
  double const tol = std::is_same<T, float>::value ? 1e-5 : 1e-13;
  std::mt19937 rng(7);
  for (int n : {1, 2, 5, 17, 40})
  {
    Matrix<T> const a = wellConditioned<T>(n, rng);
    Matrix<T> const b = randomMatrix<T>(n, 3, rng);
    Matrix<T> lu(a), x(1, 1);
    ASSERT_TRUE(solveMat(lu, b, x));
    ASSERT_EQ(x.rows(), n);
    ASSERT_EQ(x.cols(), 3);
    EXPECT_LT(maxAbs(a * x - b), tol * maxAbs(b) * n) << "n = " << n;
    if (n > 1)
    {
      EXPECT_FALSE(lu == a); // overwritten by its factors
    }

    // The right side may double as the solution.
    Matrix<T> lu2(a), bx(b);
    ASSERT_TRUE(solveMat(lu2, bx, bx));
    EXPECT_TRUE(bx == x);
  }
}

TYPED_TEST(MatrixSolve, SingularAndMisshapenSystems)
{
  using T = TypeParam;
  Matrix<T> a(2, 2), b(2, 1), x;
  a(0, 0) = 1, a(0, 1) = 2, a(1, 0) = 2, a(1, 1) = 4; // rank 1, exact zero pivot
  b(0, 0) = 1;
  EXPECT_FALSE(solveMat(a, b, x));
  Matrix<T> zero(3, 3), b3(3, 2);
  EXPECT_FALSE(solveMat(zero, b3, x));

  Matrix<T> rect(2, 3), b2(2, 1), b4(4, 1), sq(3, 3);
  EXPECT_EQ(thrownWord([&] { solveMat(rect, b2, x); }), "MatrixSolveDimError");
  EXPECT_EQ(thrownWord([&] { solveMat(sq, b4, x); }), "MatrixSolveDimError");
  sq.diag(1);
  Matrix<T> b31(3, 1);
  EXPECT_EQ(thrownWord([&] { solveMat(sq, b31, sq); }), "MatrixSolveDimError"); // x is a: reshaped by the copy

  Matrix<T> e(0, 0), eb(0, 0);
  EXPECT_TRUE(solveMat(e, eb, x));
}

TEST(MatrixInverse, ProductWithInverseIsIdentity)
{
  std::mt19937 rng(8);
  for (int n : {1, 3, 8, 33})
  {
    Matrix<double> const a = wellConditioned<double>(n, rng);
    Matrix<double> inv(2, 2);
    ASSERT_TRUE(inverseMat(a, inv));
    Matrix<double> id(n, n);
    id.diag(1.0);
    EXPECT_LT(maxAbs(a * inv - id), 1e-13 * n);
    EXPECT_LT(maxAbs(inv * a - id), 1e-13 * n);
  }
}

TEST(MatrixInverse, SingularAndNonSquare)
{
  Matrix<double> a(3, 3), inv;
  a(0, 0) = 1, a(1, 1) = 1; // last row and column zero
  EXPECT_FALSE(inverseMat(a, inv));
  Matrix<double> rect(3, 2);
  EXPECT_EQ(thrownWord([&] { inverseMat(rect, inv); }), "MatrixSolveDimError");
  Matrix<double> self(2, 2);
  self(0, 0) = 2, self(1, 1) = 4;
  ASSERT_TRUE(inverseMat(self, self));
  EXPECT_EQ(self(0, 0), 0.5);
  EXPECT_EQ(self(1, 1), 0.25);
}
