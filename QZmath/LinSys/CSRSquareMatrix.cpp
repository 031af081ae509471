#include "QZmath/LinSys/CSRSquareMatrix.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <stdexcept>

#include <mkl_spblas.h>

#include "QZmath/LinSys/detail/CsrRows.h"

static_assert(sizeof(MKL_INT) == sizeof(int), "the library uses the LP64 interface of MKL");

namespace REmath
{
namespace
{
bool isValidIndexBase(int base) { return base == eCSRindexBaseZero || base == eCSRindexBaseOne; }

// The routines below are the classic sparse BLAS products, which MKL marks as
// deprecated in favour of its inspector-executor interface. They take our
// arrays as they stand, which is the point of the layout, so the deprecation
// is silenced here and only here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
void mklProduct(bool upperOnly, bool oneBased, MKL_INT n, float const * a, int const * ia, int const * ja,
                float const * x, float * y)
{
  char const upper = 'U';
  char const noTrans = 'N';
  if (upperOnly)
  {
    if (oneBased)
      mkl_scsrsymv(&upper, &n, a, ia, ja, x, y);
    else
      mkl_cspblas_scsrsymv(&upper, &n, a, ia, ja, x, y);
  }
  else
  {
    if (oneBased)
      mkl_scsrgemv(&noTrans, &n, a, ia, ja, x, y);
    else
      mkl_cspblas_scsrgemv(&noTrans, &n, a, ia, ja, x, y);
  }
}

void mklProduct(bool upperOnly, bool oneBased, MKL_INT n, double const * a, int const * ia, int const * ja,
                double const * x, double * y)
{
  char const upper = 'U';
  char const noTrans = 'N';
  if (upperOnly)
  {
    if (oneBased)
      mkl_dcsrsymv(&upper, &n, a, ia, ja, x, y);
    else
      mkl_cspblas_dcsrsymv(&upper, &n, a, ia, ja, x, y);
  }
  else
  {
    if (oneBased)
      mkl_dcsrgemv(&noTrans, &n, a, ia, ja, x, y);
    else
      mkl_cspblas_dcsrgemv(&noTrans, &n, a, ia, ja, x, y);
  }
}
#pragma GCC diagnostic pop
} // namespace

// ---- CCSRSquareMatrix --------------------------------------------------------

template <class T>
CCSRSquareMatrix<T>::CCSRSquareMatrix()
    : m_indexBase(eCSRindexBaseZero), m_memoryPolicy(eCSRmemoryPreallocated), m_bUpperTriangleOnly(false)
{
}

template <class T> int CCSRSquareMatrix<T>::doGetMatrixSize() const
{
  return m_rowIndex.empty() ? 0 : static_cast<int>(m_rowIndex.size()) - 1;
}

template <class T> void CCSRSquareMatrix<T>::reserveMemory(int count)
{
  if (count <= 0)
    return;
  m_values.reserve(static_cast<std::size_t>(count));
  m_columns.reserve(static_cast<std::size_t>(count));
}

template <class T> void CCSRSquareMatrix<T>::pushBackCsrElement(T value, int column)
{
  m_values.push_back(value);
  try
  {
    m_columns.push_back(column);
  }
  catch (...)
  {
    m_values.pop_back();
    throw;
  }
}

template <class T>
void CCSRSquareMatrix<T>::initMemory(int size, int nonZeros, eCSRindexBase base, bool upperOnly)
{
  std::vector<T>().swap(m_values);
  std::vector<int>().swap(m_columns);
  std::vector<int>().swap(m_rowIndex);
  m_bUpperTriangleOnly = upperOnly;
  if (nonZeros < 1)
  {
    m_memoryPolicy = eCSRmemoryIncreasing;
  }
  else
  {
    m_memoryPolicy = eCSRmemoryPreallocated;
    m_values.assign(static_cast<std::size_t>(nonZeros), T(-1));
    m_columns.assign(static_cast<std::size_t>(nonZeros), -1);
  }
  m_rowIndex.assign(static_cast<std::size_t>(std::max(size, 0)) + 1, -1);
  m_indexBase = base;
}

template <class T>
void CCSRSquareMatrix<T>::makeSelfSubMatrix(int first, int last, ICsrMatrix<T> const & source)
{
  if (static_cast<ICsrMatrix<T> const *>(this) == &source)
  {
    // The block is built into cleared arrays, so it cannot be read from them.
    CCSRSquareMatrix const copy(*this);
    makeSelfSubMatrix(first, last, copy);
    return;
  }

  int const n = source.getMatrixSize();
  int const base = source.getIndexBase();
  int const stored = source.getNonZeroValuesNumber();
  int const * pointerB = source.getCsrPointerB();
  int const * pointerE = source.getCsrPointerE();
  int const * columns = source.getCsrColumns();
  T const * values = source.getCsrValues();
  first = std::min(std::max(first, 0), n);
  last = std::min(std::max(last, first), n);

  m_indexBase = source.getIndexBase();
  m_bUpperTriangleOnly = source.isUpperTriangleOnlyStored();
  m_memoryPolicy = eCSRmemoryPreallocated;
  m_values.clear();
  m_columns.clear();
  m_rowIndex.clear();

  // Positions of the first column at or above `first` and of the first at or
  // above `last`, in the sorted columns of a row.
  auto blockSpan = [&](int row, int & from, int & to)
  {
    int b = 0;
    int e = 0;
    detail::csrRowRange(pointerB, pointerE, n, stored, base, row, b, e);
    if (columns == nullptr)
      e = b;
    int const * lo = std::lower_bound(columns + b, columns + e, first + base);
    int const * hi = std::lower_bound(columns + b, columns + e, last + base);
    from = static_cast<int>(lo - columns);
    to = static_cast<int>(hi - columns);
  };

  m_rowIndex.reserve(static_cast<std::size_t>(last - first) + 1);
  int count = 0;
  for (int r = first; r < last; ++r)
  {
    int from = 0;
    int to = 0;
    blockSpan(r, from, to);
    m_rowIndex.push_back(count + base);
    count += to - from;
  }
  m_rowIndex.push_back(count + base);
  m_values.reserve(static_cast<std::size_t>(count));
  m_columns.reserve(static_cast<std::size_t>(count));
  for (int r = first; r < last; ++r)
  {
    int from = 0;
    int to = 0;
    blockSpan(r, from, to);
    for (int k = from; k < to; ++k)
    {
      m_values.push_back(values[k]);
      m_columns.push_back(columns[k] - first);
    }
  }
}

// ---- CCSRSquareMatrixFiller --------------------------------------------------

template <class T>
CCSRSquareMatrixFiller<T>::CCSRSquareMatrixFiller(CCSRSquareMatrix<T> * target, int size, int nonZeros,
                                                  int indexBase, bool upperOnly)
    : m_pTarget(target), m_iExpected(nonZeros < 0 ? -1 : nonZeros), m_iCount(0), m_iLastRow(-1),
      m_iLastColumn(-1), m_eMode(nonZeros >= 1 ? eCSRmemoryPreallocated : eCSRmemoryIncreasing),
      m_iIndexBase(indexBase), m_bUpperTriangleOnly(upperOnly)
{
  if (m_pTarget == nullptr)
  {
    m_iExpected = -1;
    m_eMode = eCSRmemoryIncreasing;
    return;
  }
  if (!isValidIndexBase(indexBase))
  {
    Spoil();
    return;
  }
  m_pTarget->initMemory(size, nonZeros, static_cast<eCSRindexBase>(indexBase), upperOnly);
}

template <class T>
bool CCSRSquareMatrixFiller<T>::pushByRawNextNonZeroElementMemoryPreallocatedCore(int column, T value)
{
  if (m_iCount >= m_pTarget->getCsrValuesSize() || m_iCount >= m_pTarget->getCsrColumnsSize())
    return false;
  m_pTarget->getCsrValuesMod()[m_iCount] = value;
  m_pTarget->getCsrColumnsMod()[m_iCount] = column;
  return true;
}

template <class T>
bool CCSRSquareMatrixFiller<T>::pushByRawNextNonZeroElementIncreaseMemoryCore(int column, T value)
{
  m_pTarget->pushBackCsrElement(value, column);
  return true;
}

template <class T> bool CCSRSquareMatrixFiller<T>::pushByRawNextNonZeroElement(int row, int column, T value)
{
  if (m_bUpperTriangleOnly && column < row)
    return true;
  long long const r = static_cast<long long>(row) - m_iIndexBase;
  long long const c = static_cast<long long>(column) - m_iIndexBase;
  if (m_pTarget == nullptr || m_iCount < 0 || m_iCount == m_iExpected || m_iCount == INT_MAX)
  {
    Spoil();
    return false;
  }
  long long const size = static_cast<long long>(m_pTarget->getRowIndexSize()) - 1;
  if (r < m_iLastRow || (r == m_iLastRow && c <= m_iLastColumn) || r < 0 || r >= size || c < 0 || c >= size)
  {
    Spoil();
    return false;
  }
  int const storedColumn = static_cast<int>(c) + m_iIndexBase;
  bool pushed = false;
  if (m_eMode == eCSRmemoryPreallocated)
    pushed = pushByRawNextNonZeroElementMemoryPreallocatedCore(storedColumn, value);
  else if (m_eMode == eCSRmemoryIncreasing)
    pushed = pushByRawNextNonZeroElementIncreaseMemoryCore(storedColumn, value);
  if (!pushed)
  {
    Spoil();
    return false;
  }
  int * rowIndex = m_pTarget->getRowIndexMod();
  for (long long k = static_cast<long long>(m_iLastRow) + 1; k <= r; ++k)
    rowIndex[k] = m_iCount + m_iIndexBase;
  m_iLastRow = static_cast<int>(r);
  m_iLastColumn = static_cast<int>(c);
  ++m_iCount;
  rowIndex[r + 1] = m_iCount + m_iIndexBase;
  return true;
}

template <class T> void CCSRSquareMatrixFiller<T>::reserveMemory(int count)
{
  if (m_eMode != eCSRmemoryIncreasing || m_pTarget == nullptr ||
      m_pTarget->getMemoryPolicy() != eCSRmemoryIncreasing)
  {
    Spoil();
    return;
  }
  m_pTarget->reserveMemory(count);
}

template <class T> bool CCSRSquareMatrixFiller<T>::setCompleted()
{
  bool const possible = m_eMode == eCSRmemoryIncreasing && (m_iExpected <= 0 || m_iExpected == m_iCount) &&
                        m_iCount >= 1 && m_pTarget != nullptr;
  if (!possible)
  {
    Spoil();
    return false;
  }
  m_iExpected = m_iCount;
  return true;
}

// ---- structure checks --------------------------------------------------------

template <class T> bool isCsrRowIndexComplete(ICsrMatrix<T> const & matrix)
{
  int const n = matrix.getMatrixSize();
  int const * rows = matrix.getCsrPointerB();
  if (rows == nullptr || matrix.getCsrPointerE() != rows + 1)
    return false;
  int const base = matrix.getIndexBase();
  if (rows[0] != base)
    return false;
  for (int i = 0; i < n; ++i)
  {
    if (rows[i + 1] < rows[i])
      return false;
  }
  return static_cast<long long>(rows[n]) - base <= matrix.getNonZeroValuesNumber();
}

template <class T> std::vector<int> makeCompleteCsrRowIndex(ICsrMatrix<T> const & matrix)
{
  int const n = matrix.getMatrixSize();
  int const base = matrix.getIndexBase();
  int const stored = matrix.getNonZeroValuesNumber();
  int const * pointerB = matrix.getCsrPointerB();
  int const * pointerE = matrix.getCsrPointerE();
  std::vector<int> rows(static_cast<std::size_t>(n) + 1);
  rows[0] = base;
  for (int i = 0; i < n; ++i)
  {
    int b = 0;
    int e = 0;
    bool const described = detail::csrRowRange(pointerB, pointerE, n, stored, base, i, b, e);
    rows[i + 1] = described && b + base == rows[i] ? e + base : rows[i];
  }
  return rows;
}

// ---- conversion and product --------------------------------------------------

template <class T>
CCSRSquareMatrix<T> LinearSystem2CsrMatrix(ILinearSystemReadOnly<T> const & system, int indexBase,
                                           bool upperOnly)
{
  int const n = system.GetEquationsNumber();
  long long count = 0;
  for (int i = 0; i < n; ++i)
  {
    for (int j = upperOnly ? i : 0; j < n; ++j)
    {
      if (system.GetFreeVertCoeff(i, j) != T(0))
        ++count;
    }
  }
  if (count > INT_MAX)
    throw std::logic_error("REmath::LinearSystem2CsrMatrix internal error");

  CCSRSquareMatrix<T> matrix;
  {
    // The flag stays false: only the walk filters the triangle.
    CCSRSquareMatrixFiller<T> filler(&matrix, n, static_cast<int>(count), indexBase, false);
    for (int i = 0; i < n; ++i)
    {
      for (int j = upperOnly ? i : 0; j < n; ++j)
      {
        T const value = system.GetFreeVertCoeff(i, j);
        if (value != T(0))
          filler.pushByRawNextNonZeroElement(i + indexBase, j + indexBase, value);
      }
    }
    if (!filler.isCompleted())
      throw std::logic_error("REmath::LinearSystem2CsrMatrix internal error");
  }
  return matrix;
}

template <class T> void MatrixMultVector(int size, T * result, ICsrMatrix<T> const & matrix, T const * vector)
{
  if (size <= 0 || result == nullptr)
    return;
  int const n = matrix.getMatrixSize();
  int const base = matrix.getIndexBase();
  T const * values = matrix.getCsrValues();
  int const * columns = matrix.getCsrColumns();
  if (size != n || !isValidIndexBase(base) || vector == nullptr || matrix.getNonZeroValuesNumber() <= 0 ||
      values == nullptr || columns == nullptr)
  {
    std::fill(result, result + size, T(0));
    return;
  }

  std::vector<int> repaired;
  int const * rows = matrix.getCsrPointerB();
  if (!isCsrRowIndexComplete(matrix))
  {
    repaired = makeCompleteCsrRowIndex(matrix);
    rows = repaired.data();
  }
  if (rows[n] == base)
  {
    // Nothing reachable: all rows are empty.
    std::fill(result, result + size, T(0));
    return;
  }

  // MKL requires distinct input and output arrays.
  std::vector<T> separate;
  T * out = result;
  if (result == vector)
  {
    separate.resize(static_cast<std::size_t>(n));
    out = separate.data();
  }
  mklProduct(matrix.isUpperTriangleOnlyStored(), base == eCSRindexBaseOne, n, values, rows, columns, vector,
             out);
  if (out != result)
    std::copy(separate.begin(), separate.end(), result);
}

template class ICsrMatrix<float>;
template class ICsrMatrix<double>;
template class CCSRSquareMatrix<float>;
template class CCSRSquareMatrix<double>;
template class CCSRSquareMatrixFiller<float>;
template class CCSRSquareMatrixFiller<double>;
template CCSRSquareMatrix<float> LinearSystem2CsrMatrix(ILinearSystemReadOnly<float> const &, int, bool);
template CCSRSquareMatrix<double> LinearSystem2CsrMatrix(ILinearSystemReadOnly<double> const &, int, bool);
template void MatrixMultVector(int, float *, ICsrMatrix<float> const &, float const *);
template void MatrixMultVector(int, double *, ICsrMatrix<double> const &, double const *);
template bool isCsrRowIndexComplete(ICsrMatrix<float> const &);
template bool isCsrRowIndexComplete(ICsrMatrix<double> const &);
template std::vector<int> makeCompleteCsrRowIndex(ICsrMatrix<float> const &);
template std::vector<int> makeCompleteCsrRowIndex(ICsrMatrix<double> const &);
} // namespace REmath
