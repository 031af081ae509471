#pragma once
// Dense matrix of the library, stored column by column so that its memory goes
// to LAPACK as it stands. A table of column pointers makes `m[c]` the address
// of column c; `elem(r, c)` and `m(r, c)` read column-table[c][r]. None of the
// element accessors check their indices: they are the hot paths.
//
// A matrix can wrap memory and a column table that it does not own; the first
// `resize` moves it into arrays of its own. Sizes below 1 are stored as given
// and allocate nothing; such a matrix has no elements.
//
// Exists for char, unsigned char, int, unsigned int, float, double and the
// four point types, instantiated in Matrix.cpp. The matrix product is offered
// for the numbers and the homogeneous points, `comm` and the product with a
// vector for the numbers alone. Size errors throw plain `char const *` words:
// "NURBSWrongSize2D", "NURBSOutOfBound2D", "NURBSMatrixErr",
// "MatrixSolveDimError".

#include <cstddef>
#include <type_traits>

#include "QZmath/Foundation/Point3D.h"
#include "QZmath/Foundation/Vector.h"

namespace REmath
{
namespace detail
{
/// Element types with a product of two elements: the numbers, and the
/// homogeneous points through their coordinate-wise product.
template <class T>
struct HasElementProduct
    : std::integral_constant<bool, std::is_arithmetic<T>::value || std::is_same<T, HPoint3D>::value ||
                                       std::is_same<T, HPoint3D_d>::value>
{
};
} // namespace detail

template <class T> class Matrix
{
public:
  /// 1 x 1, holding 0.
  Matrix();
  /// Zero-filled. When either size is below 1 the sizes are stored and
  /// nothing is allocated.
  Matrix(int rows, int cols);
  Matrix(Matrix const & m);
  /// Takes the arrays over and leaves `m` without elements.
  Matrix(Matrix && m) noexcept;
  /// Over external memory of rows x cols elements, column after column. The
  /// table must have room for `cols` pointers and is filled here; both stay
  /// the caller's.
  Matrix(T * memory, T ** columnTable, int rows, int cols);
  virtual ~Matrix();

  int rows() const { return m_rows; }
  int cols() const { return m_cols; }

  /// Pointer to column c (not to a row).
  T * operator[](int c) { return m_columns[c]; }
  T const * operator[](int c) const { return m_columns[c]; }
  T & elem(int r, int c) { return m_columns[c][r]; }
  T const & elem(int r, int c) const { return m_columns[c][r]; }
  T & operator()(int r, int c) { return m_columns[c][r]; }
  T const & operator()(int r, int c) const { return m_columns[c][r]; }

  /// Takes the size of `m` and copies it. When the sizes already agree the
  /// elements are copied in place, so a matrix over external memory is
  /// filled rather than replaced.
  Matrix & operator=(Matrix const & m);
  /// Fills and returns the value.
  T operator=(T value);

  /// When either size is below 1 nothing changes. Otherwise new zeroed
  /// arrays replace the old ones (freed when owned), and the matrix owns its
  /// memory from then on.
  void resize(int rows, int cols);
  void resize(Matrix const & m) { resize(m.rows(), m.cols()); }
  /// As `resize`, keeping the overlap of the old contents in place.
  void resizeKeep(int rows, int cols);
  void reset(T value);
  void reset();
  void swap(Matrix & m) noexcept;

  /// Writes `m` as tile (i, j) of this matrix, cut into tiles of the size
  /// of `m`. "NURBSWrongSize2D" when the sizes are not whole multiples,
  /// "NURBSOutOfBound2D" when the tile lies outside.
  void submatrix(int i, int j, Matrix const & m);
  /// Writes `m` with its corner at row r, column c; "NURBSMatrixErr" when
  /// it does not fit.
  void as(int r, int c, Matrix const & m);
  /// Copies the nRows x nCols window of `m` at (mr, mc) to (r, c). No check.
  void copySubMatrix(int r, int c, int nRows, int nCols, Matrix const & m, int mr, int mc);
  /// The nRows x nCols window at (r, c); "NURBSMatrixErr" when it leaves
  /// the matrix.
  Matrix get(int r, int c, int nRows, int nCols) const;

  /// Element-wise; "NURBSWrongSize2D" on different sizes.
  Matrix & operator+=(Matrix const & m);
  Matrix & operator-=(Matrix const & m);
  Matrix & operator+=(double d);
  Matrix & operator-=(double d);
  Matrix & operator*=(double d);
  Matrix & operator/=(double d);

  /// Rows and columns exchanged; the elements are real, so the two agree.
  Matrix herm() const;
  Matrix transpose() const;
  /// The columns in reverse order.
  Matrix flop() const;

  /// Sets the first min(rows, cols) diagonal elements to `value`.
  void diag(T value);
  Vector<T> getDiag() const;
  /// Sum of the diagonal, starting from 0.
  T trace() const;

protected:
  /// The allocation the constructors share: zeroed owned arrays, or none for
  /// a size below 1.
  void init(int rows, int cols);

private:
  bool hasElements() const { return m_rows > 0 && m_cols > 0; }
  std::size_t elementCount() const;
  void freeArrays();

  int m_rows;
  int m_cols;
  T * m_memory;
  T ** m_columns;
  int m_owns;
};

/// Element-wise; "NURBSWrongSize2D" on different sizes.
template <class T> Matrix<T> operator+(Matrix<T> const & a, Matrix<T> const & b);
template <class T> Matrix<T> operator-(Matrix<T> const & a, Matrix<T> const & b);
/// a b; "NURBSWrongSize2D" when a.cols() differs from b.rows(). An element of
/// `a` that is exactly zero is skipped in the inner sum.
template <class T>
std::enable_if_t<detail::HasElementProduct<T>::value, Matrix<T>> operator*(Matrix<T> const & a,
                                                                           Matrix<T> const & b);
template <class T> Matrix<T> operator*(double d, Matrix<T> const & m);
/// "NURBSWrongSize2D" when the columns differ from the vector's size.
template <class T>
std::enable_if_t<std::is_arithmetic<T>::value, Vector<T>> operator*(Matrix<T> const & m, Vector<T> const & v);
/// Exact comparison of every element; different sizes throw
/// "NURBSWrongSize2D" instead of comparing unequal.
template <class T> bool operator==(Matrix<T> const & a, Matrix<T> const & b);
template <class T> bool operator!=(Matrix<T> const & a, Matrix<T> const & b);
/// The commutator a b - b a.
template <class T>
std::enable_if_t<std::is_arithmetic<T>::value, Matrix<T>> comm(Matrix<T> const & a, Matrix<T> const & b);

/// Solves a x = b through LU factors; `a` is overwritten with them. `x` may be
/// the same object as `b`. "MatrixSolveDimError" when `a` is not square or
/// `b` does not have its rows. False when `a` is singular.
bool solveMat(Matrix<float> & a, Matrix<float> const & b, Matrix<float> & x);
bool solveMat(Matrix<double> & a, Matrix<double> const & b, Matrix<double> & x);
/// The inverse through LU factors; "MatrixSolveDimError" when `a` is not
/// square, false when it is singular.
bool inverseMat(Matrix<double> const & a, Matrix<double> & inverse);
} // namespace REmath
