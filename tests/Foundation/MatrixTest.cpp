#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <type_traits>

#include "QZmath/Foundation/Matrix.h"
#include "QZmath/Foundation/Vector.h"
#include "tests/Common/Checks.h"

using namespace REmath;
using QZTest::thrownWord;

namespace
{
template <class T>
Matrix<T> randomMatrix(int rows, int cols, std::mt19937 & rng, double lo = -10, double hi = 10)
{
  std::uniform_real_distribution<double> u(lo, hi);
  Matrix<T> m(rows, cols);
  for (int c = 0; c < cols; ++c)
    for (int r = 0; r < rows; ++r)
      m(r, c) = static_cast<T>(u(rng));
  return m;
}

/// The plain triple loop: each element sums its terms in ascending k from 0,
/// leaving out the exact zeros of `a`.
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

Vector<int> iota(int n, int from = 1)
{
  Vector<int> v(n);
  for (int i = 0; i < n; ++i)
    v[i] = from + i;
  return v;
}

template <class T> double maxAbs(Matrix<T> const & m)
{
  double r = 0;
  for (int c = 0; c < m.cols(); ++c)
    for (int rr = 0; rr < m.rows(); ++rr)
      r = std::max(r, std::fabs(static_cast<double>(m(rr, c))));
  return r;
}

} // namespace

TEST(MatrixStorage, ColumnMajorLayoutEmptySizesAndResizeKeep)
{
  Matrix<double> m(3, 2);
  EXPECT_EQ(&m[1][2], &m.elem(2, 1));
  for (int c = 0; c < 2; ++c)
    for (int r = 0; r < 3; ++r)
      EXPECT_EQ(&m(r, c), &m[0][0] + r + 3 * c); // one block, column after column

  // Sizes below 1 are stored and allocate nothing; resize ignores them.
  Matrix<int> e(0, 5);
  EXPECT_EQ((std::vector<int>{e.cols(), e.getDiag().size(), e.transpose().rows()}),
            (std::vector<int>{5, 0, 5}));
  Matrix<int> k(2, 2);
  k(1, 0) = 7;
  k.resize(0, 5);
  k.resizeKeep(3, -1);
  k = e; // an element-less source changes nothing, like resize
  EXPECT_TRUE(k.rows() == 2 && k(1, 0) == 7);

  // resizeKeep keeps the overlap and zeroes the rest.
  for (int c = 0; c < 2; ++c)
    for (int r = 0; r < 2; ++r)
      k(r, c) = 10 * r + c + 1;
  Matrix<int> g(k);
  k.resizeKeep(1, 2);
  EXPECT_TRUE(k == g.get(0, 0, 1, 2));
  g.resizeKeep(3, 4);
  EXPECT_TRUE(g.get(0, 0, 1, 2) == k && g(1, 1) == 12);
  EXPECT_EQ(g(2, 3) + g(0, 2) + g(2, 0), 0);
}

TEST(MatrixStorage, ExternalMemoryStaysTheCallersUntilResize)
{
  double memory[6] = {1, 2, 3, 4, 5, 6};
  double * table[3] = {};
  {
    Matrix<double> m(memory, table, 2, 3);
    EXPECT_TRUE(table[0] == memory && table[1] == memory + 2);
    EXPECT_EQ(m(1, 2), 6.0);
    Matrix<double> same(2, 3);
    same(1, 1) = -1;
    m = same; // same size: filled in place, not replaced
    EXPECT_EQ(memory[3], -1.0);
  } // must not free the caller's arrays (the sanitizer would see it)
  memory[0] = 9;
  Matrix<double> m(memory, table, 2, 3);
  m.resize(2, 3);
  m(0, 0) = 5;
  EXPECT_TRUE(memory[0] == 9.0 && m(1, 1) == 0.0) << "owns new, zeroed memory";
}

// submatrix writes whole tiles; as and get are inverse; transpose and flop
// reverse.
TEST(MatrixWindows, TilesBlocksTransposeAndFlop)
{
  Matrix<int> tiled(4, 2), tile(2, 2);
  tile(0, 0) = 1, tile(1, 0) = 2, tile(0, 1) = 3, tile(1, 1) = 4;
  tiled.submatrix(1, 0, tile);
  EXPECT_TRUE(tiled.get(2, 0, 2, 2) == tile);
  EXPECT_EQ(maxAbs(tiled.get(0, 0, 2, 2)), 0.0);
  EXPECT_EQ(thrownWord([&] { tiled.submatrix(2, 0, tile); }), "NURBSOutOfBound2D");
  Matrix<int> odd(3, 2);
  EXPECT_EQ(thrownWord([&] { tiled.submatrix(0, 0, odd); }), "NURBSWrongSize2D");

  std::mt19937 rng(2);
  Matrix<double> m(5, 4);
  Matrix<double> const block = randomMatrix<double>(2, 3, rng);
  m.as(3, 1, block);
  EXPECT_TRUE(m.get(3, 1, 2, 3) == block);
  EXPECT_EQ(m(2, 1) + m(3, 0), 0.0);

  EXPECT_EQ(thrownWord([&] { m.as(4, 1, block); }), "NURBSMatrixErr");
  EXPECT_EQ(thrownWord([&] { m.get(0, 0, 1, std::numeric_limits<int>::max()); }), "NURBSMatrixErr");

  Matrix<double> const t = block.transpose();
  EXPECT_TRUE(t.transpose() == block && block.herm() == t && t(2, 1) == block(1, 2));
  Matrix<double> const f = block.flop();
  for (int c = 0; c < 3; ++c)
    EXPECT_TRUE(f.get(0, c, 2, 1) == block.get(0, 2 - c, 2, 1));
  m.diag(-1);
  EXPECT_TRUE(m.getDiag().size() == 4 && m.trace() == -4);
}

TEST(MatrixArithmetic, SizeErrorsThrowTheirWords)
{
  Matrix<double> a(3, 4), acc(3, 4);
  Matrix<double> const wrong(4, 3);
  EXPECT_EQ(thrownWord([&] { return a + wrong; }), "NURBSWrongSize2D");
  EXPECT_EQ(thrownWord([&] { acc -= wrong; }), "NURBSWrongSize2D");
  EXPECT_EQ(thrownWord([&] { return a == wrong; }), "NURBSWrongSize2D"); // throws, not false
  EXPECT_EQ(thrownWord([&] { return a * a; }), "NURBSWrongSize2D");
  EXPECT_EQ(thrownWord([&] { return a * Vector<double>(3); }), "NURBSWrongSize2D");
  EXPECT_EQ(thrownWord([&] { return comm(a, wrong); }),
            "NURBSWrongSize2D"); // products fit, the difference not
}

TEST(MatrixArithmetic, ScalarOperationsRoundOnceOrWrap)
{
  Matrix<float> f(1, 1);
  f(0, 0) = 0.1f;
  EXPECT_EQ(((1.0 / 3.0) * f)(0, 0), static_cast<float>(static_cast<double>(0.1f) * (1.0 / 3.0)));

  // Integer elements: truncation toward zero, wrapping, 0 for non-finite.
  Matrix<int> i(1, 3);
  i(0, 0) = 7, i(0, 1) = -7, i(0, 2) = std::numeric_limits<int>::max();
  EXPECT_EQ((0.5 * i)(0, 1), -3);
  i += 1.0;
  EXPECT_EQ(i(0, 2), std::numeric_limits<int>::min());
  i /= 0.0;
  EXPECT_EQ(i(0, 0), 0);
}

TEST(MatrixArithmetic, ProductsMatchTheSlowLoopBitForBit)
{
  std::mt19937 rng(4);
  for (int trial = 0; trial < 20; ++trial)
  {
    int const n = 1 + trial % 7, k = 1 + (trial * 3) % 5, m = 1 + (trial * 5) % 6;
    Matrix<double> a = randomMatrix<double>(n, k, rng), b = randomMatrix<double>(k, m, rng);
    a(0, 0) = 0;
    EXPECT_TRUE(a * b == slowProduct(a, b));
    Matrix<float> const af = randomMatrix<float>(n, k, rng), bf = randomMatrix<float>(k, m, rng);
    EXPECT_TRUE(af * bf == slowProduct(af, bf));
  }
  // A vector multiplies as a column.
  Matrix<int> const s3 = randomMatrix<int>(3, 3, rng), t3 = randomMatrix<int>(3, 3, rng),
                    column = randomMatrix<int>(3, 1, rng);
  Vector<int> v(3);
  for (int i = 0; i < 3; ++i)
    v[i] = column(i, 0);
  Vector<int> const sv = s3 * v;
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(sv[i], (s3 * column)(i, 0));
  EXPECT_TRUE(comm(s3, t3) == s3 * t3 - t3 * s3);
  // Exact zeros of the left factor are skipped, those of the right are not.
  double const inf = std::numeric_limits<double>::infinity();
  Matrix<double> a(1, 2), b(2, 1);
  a(0, 0) = 0.0, a(0, 1) = 2.0;
  b(0, 0) = inf, b(1, 0) = 3.0;
  EXPECT_EQ((a * b)(0, 0), 6.0);
  EXPECT_TRUE(std::isnan((b.transpose() * a.transpose())(0, 0)));
}

TEST(MatrixPoints, HomogeneousProductIsCoordinateWiseOnAllFour)
{
  Matrix<HPoint3D_d> a(1, 2), b(2, 1);
  a(0, 0) = HPoint3D_d(1, 2, 3, 4);
  a(0, 1) = HPoint3D_d(0.0); // exactly zero: skipped, so the NaN below stays out
  b(0, 0) = HPoint3D_d(5, 6, 7, 8);
  b(1, 0) = HPoint3D_d(std::nan(""), 1, 1, 1);
  EXPECT_EQ((a * b)(0, 0), HPoint3D_d(5, 12, 21, 32));
}

template <class T> class MatrixSolve : public ::testing::Test
{
};
using SolveTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(MatrixSolve, SolveTypes);

TYPED_TEST(MatrixSolve, ResidualsOfRandomSystemsAndSingularOrMisshapenOnes)
{
  using T = TypeParam;
  double const tol = std::is_same<T, float>::value ? 1e-5 : 1e-13;
  std::mt19937 rng(7);
  Matrix<T> const a17 = wellConditioned<T>(17, rng), b17 = randomMatrix<T>(17, 3, rng);
  Matrix<T> lu(a17), x(1, 1);
  ASSERT_TRUE(solveMat(lu, b17, x));
  ASSERT_EQ(x.rows() * 10 + x.cols(), 173);
  EXPECT_LT(maxAbs(a17 * x - b17), tol * maxAbs(b17) * 17);
  Matrix<T> lu2(a17), bx(b17); // the right side doubles as the solution
  ASSERT_TRUE(solveMat(lu2, bx, bx));
  EXPECT_TRUE(bx == x);

  Matrix<T> a(2, 2), b(2, 1);
  a(0, 0) = 1, a(0, 1) = 2, a(1, 0) = 2, a(1, 1) = 4; // rank 1: an exact zero pivot
  EXPECT_FALSE(solveMat(a, b, x));

  Matrix<T> rect(2, 3), b4(4, 1), sq(3, 3), b31(3, 1);
  EXPECT_EQ(thrownWord([&] { solveMat(rect, b, x); }), "MatrixSolveDimError");
  EXPECT_EQ(thrownWord([&] { solveMat(sq, b4, x); }), "MatrixSolveDimError");
  sq.diag(1);
  EXPECT_EQ(thrownWord([&] { solveMat(sq, b31, sq); }),
            "MatrixSolveDimError"); // x is a, reshaped by the copy
  Matrix<T> e(0, 0);
  EXPECT_TRUE(solveMat(e, e, x));
}

TEST(MatrixInverse, ProductWithInverseIsIdentity)
{
  std::mt19937 rng(8);
  for (int n : {1, 3, 8, 33})
  {
    Matrix<double> const a = wellConditioned<double>(n, rng);
    Matrix<double> inv(2, 2), id(n, n);
    ASSERT_TRUE(inverseMat(a, inv));
    id.diag(1.0);
    EXPECT_LT(maxAbs(a * inv - id), 1e-13 * n);
    EXPECT_LT(maxAbs(inv * a - id), 1e-13 * n);
  }
  Matrix<double> singular(3, 3), inv, rect(3, 2);
  singular(0, 0) = singular(1, 1) = 1;
  EXPECT_FALSE(inverseMat(singular, inv));
  EXPECT_TRUE(inverseMat(Matrix<double>(0, 0), inv));
  EXPECT_EQ(thrownWord([&] { inverseMat(rect, inv); }), "MatrixSolveDimError");
}

TEST(VectorStorage, TrimUntrimAndRefusedSizes)
{
  // Resizing within and past the allocation is the external memory's test.
  Vector<int> v = iota(4);
  v.trim(v.size() + 1); // no spare room: nothing happens
  v.trim(-1);
  EXPECT_EQ(v.size(), 4);
  v.trim(2);
  v.untrim();
  EXPECT_TRUE(v.size() == 4 && v[3] == 4);
  EXPECT_EQ(v.resize(-1), -1); // refused, unchanged
  EXPECT_EQ(v.size(), 4);
}

TEST(VectorStorage, ExternalMemoryIsLeftToTheCaller)
{
  double memory[3] = {1, 2, 3};
  {
    Vector<double> v(memory, 3);
    v = Vector<double>(3); // same size: written in place
    EXPECT_EQ(memory[0], 0.0);
  } // not freed: the sanitizer would see it
  memory[0] = 1, memory[1] = 2, memory[2] = 3;
  Vector<double> v(memory, 3);
  v.trim(2);
  EXPECT_EQ(v.resize(3), 3);
  EXPECT_EQ(v.memory(), memory); // within the caller's room
  EXPECT_EQ(v.resize(5), 5);
  v[0] = 9;
  // Past it: an owned copy, the rest zero. Element 2 was exposed again by the
  // first resize, hence zero too.
  EXPECT_TRUE(memory[0] == 1.0 && v[1] == 2.0 && v[2] == 0.0 && v[4] == 0.0);
}

TEST(VectorArithmetic, SumsWindowsTheirWordsAndTheMinimum)
{
  Vector<int> const a = iota(3), b = iota(3, 10);
  EXPECT_TRUE((a + b) - b == a);
  Vector<int> acc(a);
  Vector<int> const wrong(4);
  EXPECT_EQ(thrownWord([&] { acc += wrong; }), "NURBSsize");
  EXPECT_EQ(thrownWord([&] { return a == wrong; }), "NURBSsize");

  Vector<int> v(6);
  v.as(3, a);
  EXPECT_TRUE(v.get(3, 3) == a && v[2] == 0);
  EXPECT_EQ(thrownWord([&] { v.as(4, a); }), "NURBSmatrix_err");
  EXPECT_EQ(thrownWord([&] { v.as(-1, a); }), "NURBSmatrix_err");
  EXPECT_EQ(thrownWord([&] { v.get(1, std::numeric_limits<int>::max()); }), "NURBSmatrix_err");

  Vector<unsigned> u(1), one(1);
  one[0] = 1;
  u -= one; // unsigned elements wrap
  EXPECT_EQ(u[0], std::numeric_limits<unsigned>::max());

  // The minimum is the first of equal ones; an empty vector has none.
  double values[5] = {3, -1, 4, -1, 5};
  Vector<double> w(values, 5);
  EXPECT_TRUE(w.minIndex() == 1 && w.minimum() == -1.0);
  EXPECT_EQ(Vector<char>(0).minIndex(), -1);
}
