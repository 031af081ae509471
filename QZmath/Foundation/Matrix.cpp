#include "QZmath/Foundation/Matrix.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include <mkl.h>

#include "QZmath/Foundation/detail/DenseElement.h"

namespace REmath
{
namespace
{
/// Owned arrays of a rows x cols matrix, made before the old ones are let go
/// so that a failed allocation leaves the matrix as it was.
template <class T> struct tf_MatrixArrays
{
  std::unique_ptr<T[]> memory;
  std::unique_ptr<T *[]> columns;

  tf_MatrixArrays(int rows, int cols)
  {
    std::size_t const n = static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols);
    memory.reset(new T[n]);
    std::fill(memory.get(), memory.get() + n, detail::zeroElement<T>());
    columns.reset(new T *[static_cast<std::size_t>(cols)]);
    for (int c = 0; c < cols; ++c)
      columns[c] = memory.get() + static_cast<std::size_t>(rows) * static_cast<std::size_t>(c);
  }
};
} // namespace

template <class T> Matrix<T>::Matrix() : m_rows(0), m_cols(0), m_memory(nullptr), m_columns(nullptr), m_owns(1)
{
  init(1, 1);
}

template <class T>
Matrix<T>::Matrix(int rows, int cols) : m_rows(0), m_cols(0), m_memory(nullptr), m_columns(nullptr), m_owns(1)
{
  init(rows, cols);
}

template <class T>
Matrix<T>::Matrix(Matrix const & m) : m_rows(0), m_cols(0), m_memory(nullptr), m_columns(nullptr), m_owns(1)
{
  init(m.m_rows, m.m_cols);
  if (hasElements())
    std::copy(m.m_memory, m.m_memory + elementCount(), m_memory);
}

template <class T>
Matrix<T>::Matrix(Matrix && m) noexcept
    : m_rows(m.m_rows), m_cols(m.m_cols), m_memory(m.m_memory), m_columns(m.m_columns), m_owns(m.m_owns)
{
  m.m_rows = m.m_cols = 0;
  m.m_memory = nullptr;
  m.m_columns = nullptr;
  m.m_owns = 1;
}

template <class T>
Matrix<T>::Matrix(T * memory, T ** columnTable, int rows, int cols)
    : m_rows(rows), m_cols(cols), m_memory(memory), m_columns(columnTable), m_owns(0)
{
  if (hasElements())
    for (int c = 0; c < cols; ++c)
      m_columns[c] = m_memory + static_cast<std::size_t>(rows) * static_cast<std::size_t>(c);
}

template <class T> Matrix<T>::~Matrix() { freeArrays(); }

template <class T> void Matrix<T>::init(int rows, int cols)
{
  m_rows = rows;
  m_cols = cols;
  m_owns = 1;
  if (!hasElements())
    return;
  tf_MatrixArrays<T> a(rows, cols);
  m_memory = a.memory.release();
  m_columns = a.columns.release();
}

template <class T> std::size_t Matrix<T>::elementCount() const
{
  return hasElements() ? static_cast<std::size_t>(m_rows) * static_cast<std::size_t>(m_cols) : 0;
}

template <class T> void Matrix<T>::freeArrays()
{
  if (m_owns)
  {
    delete[] m_memory;
    delete[] m_columns;
  }
  m_memory = nullptr;
  m_columns = nullptr;
}

template <class T> Matrix<T> & Matrix<T>::operator=(Matrix const & m)
{
  if (this == &m)
    return *this;
  if (m_rows != m.m_rows || m_cols != m.m_cols)
    resize(m.m_rows, m.m_cols);
  // A source without elements leaves this matrix as it was, as resize does.
  if (m_rows == m.m_rows && m_cols == m.m_cols)
    std::copy(m.m_memory, m.m_memory + m.elementCount(), m_memory);
  return *this;
}

template <class T> T Matrix<T>::operator=(T value)
{
  reset(value);
  return value;
}

template <class T> void Matrix<T>::resize(int rows, int cols)
{
  if (rows < 1 || cols < 1)
    return;
  tf_MatrixArrays<T> a(rows, cols);
  freeArrays();
  m_rows = rows;
  m_cols = cols;
  m_memory = a.memory.release();
  m_columns = a.columns.release();
  m_owns = 1;
}

template <class T> void Matrix<T>::resizeKeep(int rows, int cols)
{
  if (rows < 1 || cols < 1)
    return;
  tf_MatrixArrays<T> a(rows, cols);
  if (hasElements())
  {
    int const keepRows = std::min(rows, m_rows), keepCols = std::min(cols, m_cols);
    for (int c = 0; c < keepCols; ++c)
      std::copy(m_columns[c], m_columns[c] + keepRows, a.columns[c]);
  }
  freeArrays();
  m_rows = rows;
  m_cols = cols;
  m_memory = a.memory.release();
  m_columns = a.columns.release();
  m_owns = 1;
}

template <class T> void Matrix<T>::reset(T value)
{
  static_assert(std::is_trivially_copyable<T>::value, "a block clear needs plain elements");
  if (!hasElements())
    return;
  // Zero fills with one block clear; the elements are plain values whose
  // zero is all bits clear (a -0.0 request thus gives +0.0).
  if (detail::isExactZero(value))
    std::memset(static_cast<void *>(m_memory), 0, elementCount() * sizeof(T));
  else
    std::fill(m_memory, m_memory + elementCount(), value);
}

template <class T> void Matrix<T>::reset() { reset(detail::zeroElement<T>()); }

template <class T> void Matrix<T>::swap(Matrix & m) noexcept
{
  std::swap(m_rows, m.m_rows);
  std::swap(m_cols, m.m_cols);
  std::swap(m_memory, m.m_memory);
  std::swap(m_columns, m.m_columns);
  std::swap(m_owns, m.m_owns);
}

template <class T> void Matrix<T>::submatrix(int i, int j, Matrix const & m)
{
  // A tile without rows or columns cannot divide anything.
  if (m.m_rows < 1 || m.m_cols < 1)
    throw "NURBSWrongSize2D";
  if (m_rows < m.m_rows || m_cols < m.m_cols || m_rows % m.m_rows != 0 || m_cols % m.m_cols != 0)
    throw "NURBSWrongSize2D";
  if (i < 0 || i >= m_rows / m.m_rows || j < 0 || j >= m_cols / m.m_cols)
    throw "NURBSOutOfBound2D";
  copySubMatrix(i * m.m_rows, j * m.m_cols, m.m_rows, m.m_cols, m, 0, 0);
}

template <class T> void Matrix<T>::as(int r, int c, Matrix const & m)
{
  // Negative corners are refused too: the block must lie inside.
  if (r < 0 || c < 0 || static_cast<long long>(r) + m.m_rows > m_rows ||
      static_cast<long long>(c) + m.m_cols > m_cols)
    throw "NURBSMatrixErr";
  if (m.hasElements())
    copySubMatrix(r, c, m.m_rows, m.m_cols, m, 0, 0);
}

template <class T>
void Matrix<T>::copySubMatrix(int r, int c, int nRows, int nCols, Matrix const & m, int mr, int mc)
{
  if (nRows < 1)
    return;
  for (int k = 0; k < nCols; ++k)
    std::copy(m.m_columns[mc + k] + mr, m.m_columns[mc + k] + mr + nRows, m_columns[c + k] + r);
}

template <class T> Matrix<T> Matrix<T>::get(int r, int c, int nRows, int nCols) const
{
  if (r < 0 || c < 0 || nRows < 0 || nCols < 0 || static_cast<long long>(r) + nRows > m_rows ||
      static_cast<long long>(c) + nCols > m_cols)
    throw "NURBSMatrixErr";
  Matrix w(nRows, nCols);
  w.copySubMatrix(0, 0, nRows, nCols, *this, r, c);
  return w;
}

template <class T> Matrix<T> & Matrix<T>::operator+=(Matrix const & m)
{
  if (m_rows != m.m_rows || m_cols != m.m_cols)
    throw "NURBSWrongSize2D";
  for (std::size_t k = 0, n = elementCount(); k < n; ++k)
    detail::addTo(m_memory[k], m.m_memory[k]);
  return *this;
}

template <class T> Matrix<T> & Matrix<T>::operator-=(Matrix const & m)
{
  if (m_rows != m.m_rows || m_cols != m.m_cols)
    throw "NURBSWrongSize2D";
  for (std::size_t k = 0, n = elementCount(); k < n; ++k)
    detail::subFrom(m_memory[k], m.m_memory[k]);
  return *this;
}

template <class T> Matrix<T> & Matrix<T>::operator+=(double d)
{
  for (std::size_t k = 0, n = elementCount(); k < n; ++k)
    detail::scalarOp(m_memory[k], d, detail::Plus());
  return *this;
}

template <class T> Matrix<T> & Matrix<T>::operator-=(double d)
{
  for (std::size_t k = 0, n = elementCount(); k < n; ++k)
    detail::scalarOp(m_memory[k], d, detail::Minus());
  return *this;
}

template <class T> Matrix<T> & Matrix<T>::operator*=(double d)
{
  for (std::size_t k = 0, n = elementCount(); k < n; ++k)
    detail::scalarOp(m_memory[k], d, detail::Times());
  return *this;
}

template <class T> Matrix<T> & Matrix<T>::operator/=(double d)
{
  for (std::size_t k = 0, n = elementCount(); k < n; ++k)
    detail::scalarOp(m_memory[k], d, detail::Divide());
  return *this;
}

template <class T> Matrix<T> Matrix<T>::transpose() const
{
  Matrix t(m_cols, m_rows);
  if (hasElements())
    for (int c = 0; c < m_cols; ++c)
      for (int r = 0; r < m_rows; ++r)
        t.m_columns[r][c] = m_columns[c][r];
  return t;
}

template <class T> Matrix<T> Matrix<T>::herm() const { return transpose(); }

template <class T> Matrix<T> Matrix<T>::flop() const
{
  Matrix f(m_rows, m_cols);
  if (hasElements())
    for (int c = 0; c < m_cols; ++c)
      std::copy(m_columns[m_cols - 1 - c], m_columns[m_cols - 1 - c] + m_rows, f.m_columns[c]);
  return f;
}

template <class T> void Matrix<T>::diag(T value)
{
  for (int i = 0, n = std::min(m_rows, m_cols); i < n; ++i)
    m_columns[i][i] = value;
}

template <class T> Vector<T> Matrix<T>::getDiag() const
{
  int const n = std::max(0, std::min(m_rows, m_cols));
  Vector<T> d(n);
  for (int i = 0; i < n; ++i)
    d[i] = m_columns[i][i];
  return d;
}

template <class T> T Matrix<T>::trace() const
{
  T sum = detail::zeroElement<T>();
  for (int i = 0, n = std::min(m_rows, m_cols); i < n; ++i)
    detail::addTo(sum, m_columns[i][i]);
  return sum;
}

template <class T> Matrix<T> operator+(Matrix<T> const & a, Matrix<T> const & b)
{
  if (a.rows() != b.rows() || a.cols() != b.cols())
    throw "NURBSWrongSize2D";
  Matrix<T> s(a);
  s += b;
  return s;
}

template <class T> Matrix<T> operator-(Matrix<T> const & a, Matrix<T> const & b)
{
  if (a.rows() != b.rows() || a.cols() != b.cols())
    throw "NURBSWrongSize2D";
  Matrix<T> s(a);
  s -= b;
  return s;
}

template <class T>
std::enable_if_t<detail::HasElementProduct<T>::value, Matrix<T>> operator*(Matrix<T> const & a,
                                                                           Matrix<T> const & b)
{
  if (a.cols() != b.rows())
    throw "NURBSWrongSize2D";
  Matrix<T> p(a.rows(), b.cols());
  if (a.rows() < 1 || b.cols() < 1)
    return p;
  // Column by column of the result, so that the innermost loop runs down a
  // column of `a`. Every element still sums its terms in ascending k from 0,
  // the order of the plain triple loop.
  for (int j = 0; j < b.cols(); ++j)
  {
    T * pj = p[j];
    for (int k = 0; k < a.cols(); ++k)
    {
      T const bkj = b(k, j);
      T const * ak = a[k];
      for (int i = 0; i < a.rows(); ++i)
        if (!detail::isExactZero(ak[i]))
          detail::addTo(pj[i], detail::product(ak[i], bkj));
    }
  }
  return p;
}

template <class T> Matrix<T> operator*(double d, Matrix<T> const & m)
{
  Matrix<T> s(m);
  s *= d;
  return s;
}

template <class T>
std::enable_if_t<std::is_arithmetic<T>::value, Vector<T>> operator*(Matrix<T> const & m, Vector<T> const & v)
{
  if (m.cols() != v.size())
    throw "NURBSWrongSize2D";
  Vector<T> r(m.rows());
  if (m.rows() < 1)
    return r;
  for (int k = 0; k < m.cols(); ++k)
  {
    T const vk = v[k];
    T const * mk = m[k];
    for (int i = 0; i < m.rows(); ++i)
      detail::addTo(r[i], detail::product(mk[i], vk));
  }
  return r;
}

template <class T> bool operator==(Matrix<T> const & a, Matrix<T> const & b)
{
  if (a.rows() != b.rows() || a.cols() != b.cols())
    throw "NURBSWrongSize2D";
  for (int c = 0; c < a.cols(); ++c)
    for (int r = 0; r < a.rows(); ++r)
      if (!detail::elementEqual(a(r, c), b(r, c)))
        return false;
  return true;
}

template <class T> bool operator!=(Matrix<T> const & a, Matrix<T> const & b) { return !(a == b); }

template <class T>
std::enable_if_t<std::is_arithmetic<T>::value, Matrix<T>> comm(Matrix<T> const & a, Matrix<T> const & b)
{
  return a * b - b * a;
}

// ---- LAPACK ------------------------------------------------------------------

namespace
{
void tf_getrf(MKL_INT n, float * a, MKL_INT lda, MKL_INT * ipiv, MKL_INT & info)
{
  sgetrf(&n, &n, a, &lda, ipiv, &info);
}
void tf_getrf(MKL_INT n, double * a, MKL_INT lda, MKL_INT * ipiv, MKL_INT & info)
{
  dgetrf(&n, &n, a, &lda, ipiv, &info);
}
void tf_getrs(MKL_INT n, MKL_INT nrhs, float const * a, MKL_INT lda, MKL_INT const * ipiv, float * b, MKL_INT ldb,
              MKL_INT & info)
{
  sgetrs("N", &n, &nrhs, a, &lda, ipiv, b, &ldb, &info);
}
void tf_getrs(MKL_INT n, MKL_INT nrhs, double const * a, MKL_INT lda, MKL_INT const * ipiv, double * b,
              MKL_INT ldb, MKL_INT & info)
{
  dgetrs("N", &n, &nrhs, a, &lda, ipiv, b, &ldb, &info);
}

template <class T> bool tf_solveMat(Matrix<T> & a, Matrix<T> const & b, Matrix<T> & x)
{
  int const n = a.rows();
  // Besides a square `a`, the right side must have its rows: the solver
  // reads b and x as n-row columns.
  if (n < 0 || a.cols() != n || b.rows() != n || b.cols() < 0)
    throw "MatrixSolveDimError";
  if (&x != &b)
    x = b;
  // `x` may have been `a` itself, which the copy has just reshaped.
  if (a.rows() != n || a.cols() != n)
    throw "MatrixSolveDimError";
  if (n == 0)
    return true;
  MKL_INT const nrhs = b.cols();
  std::vector<MKL_INT> ipiv(static_cast<std::size_t>(n));
  MKL_INT info = 0;
  tf_getrf(n, a[0], n, ipiv.data(), info);
  if (info == 0 && nrhs > 0)
    tf_getrs(n, nrhs, a[0], n, ipiv.data(), x[0], n, info);
  return info == 0;
}
} // namespace

bool solveMat(Matrix<float> & a, Matrix<float> const & b, Matrix<float> & x) { return tf_solveMat(a, b, x); }
bool solveMat(Matrix<double> & a, Matrix<double> const & b, Matrix<double> & x) { return tf_solveMat(a, b, x); }

bool inverseMat(Matrix<double> const & a, Matrix<double> & inverse)
{
  MKL_INT const n = a.rows();
  if (n < 0 || a.cols() != n)
    throw "MatrixSolveDimError";
  inverse = a;
  if (n == 0)
    return true;
  std::vector<MKL_INT> ipiv(static_cast<std::size_t>(n));
  MKL_INT info = 0;
  dgetrf(&n, &n, inverse[0], &n, ipiv.data(), &info);
  if (info != 0)
    return false;
  // Workspace size query first, then the inversion proper.
  MKL_INT lwork = -1;
  double query = 0.0;
  dgetri(&n, inverse[0], &n, ipiv.data(), &query, &lwork, &info);
  if (info != 0)
    return false;
  lwork = std::max<MKL_INT>(n, static_cast<MKL_INT>(query));
  std::vector<double> work(static_cast<std::size_t>(lwork));
  dgetri(&n, inverse[0], &n, ipiv.data(), work.data(), &lwork, &info);
  return info == 0;
}

// ---- instantiations ------------------------------------------------------------

#define QZ_DENSE_INSTANTIATE_MATRIX(T)                                                                           \
  template class Matrix<T>;                                                                                    \
  template Matrix<T> operator+(Matrix<T> const &, Matrix<T> const &);                                          \
  template Matrix<T> operator-(Matrix<T> const &, Matrix<T> const &);                                          \
  template Matrix<T> operator*(double, Matrix<T> const &);                                                     \
  template bool operator==(Matrix<T> const &, Matrix<T> const &);                                              \
  template bool operator!=(Matrix<T> const &, Matrix<T> const &);
#define QZ_DENSE_INSTANTIATE_PRODUCT(T) template Matrix<T> operator*(Matrix<T> const &, Matrix<T> const &);
#define QZ_DENSE_INSTANTIATE_NUMERIC(T)                                                                          \
  template Vector<T> operator*(Matrix<T> const &, Vector<T> const &);                                          \
  template Matrix<T> comm(Matrix<T> const &, Matrix<T> const &);

#define QZ_DENSE_INSTANTIATE_NUMBER(T)                                                                           \
  QZ_DENSE_INSTANTIATE_MATRIX(T) QZ_DENSE_INSTANTIATE_PRODUCT(T) QZ_DENSE_INSTANTIATE_NUMERIC(T)

QZ_DENSE_INSTANTIATE_NUMBER(char)
QZ_DENSE_INSTANTIATE_NUMBER(unsigned char)
QZ_DENSE_INSTANTIATE_NUMBER(int)
QZ_DENSE_INSTANTIATE_NUMBER(unsigned int)
QZ_DENSE_INSTANTIATE_NUMBER(float)
QZ_DENSE_INSTANTIATE_NUMBER(double)
QZ_DENSE_INSTANTIATE_MATRIX(Point3D)
QZ_DENSE_INSTANTIATE_MATRIX(Point3D_d)
QZ_DENSE_INSTANTIATE_MATRIX(HPoint3D)
QZ_DENSE_INSTANTIATE_PRODUCT(HPoint3D)
QZ_DENSE_INSTANTIATE_MATRIX(HPoint3D_d)
QZ_DENSE_INSTANTIATE_PRODUCT(HPoint3D_d)
#undef QZ_DENSE_INSTANTIATE_NUMBER
#undef QZ_DENSE_INSTANTIATE_NUMERIC
#undef QZ_DENSE_INSTANTIATE_PRODUCT
#undef QZ_DENSE_INSTANTIATE_MATRIX
} // namespace REmath
