#include "QZmath/LinSys/VPLSstorage.h"

#include <algorithm>
#include <cstddef>

#include <mkl_cblas.h>

namespace REmath
{
namespace
{
float tf_dot(int n, float const * x, float const * y) { return cblas_sdot(n, x, 1, y, 1); }
double tf_dot(int n, double const * x, double const * y) { return cblas_ddot(n, x, 1, y, 1); }
} // namespace

// ---- dense rows ------------------------------------------------------------------

template <class T>
void CStdVectorAsVPLSstorageRow<T>::assignRowByArray(RowType * row, int size, T const * array)
{
  row->assign(array, array + std::max(size, 0));
}

template <class T>
T CStdVectorAsVPLSstorageRow<T>::scalarProduct(RowType const & row, int size, T const * vector)
{
  // A row never reaches past its own length: the rest of it is zero.
  int const n = std::min(size, static_cast<int>(row.size()));
  return n > 0 ? tf_dot(n, row.data(), vector) : T(0);
}

template <class T>
T CStdVectorAsVPLSstorageRow<T>::getCoeff(RowType const & row, int column)
{
  return column >= 0 && static_cast<std::size_t>(column) < row.size() ? row[column] : T(0);
}

// ---- shifted rows ----------------------------------------------------------------

template <class T>
void CShiftedVectorAsVPLstorageRow<T>::assignRowByArray(RowType * row, int size, T const * array)
{
  // "Not exactly 0" on both ends, so a NaN is kept as a value.
  int first = 0;
  while (first < size && !(array[first] != T(0)))
    ++first;
  int last = size - 1;
  while (last >= first && !(array[last] != T(0)))
    --last;
  if (last < first)
  {
    row->m_iFirstPos = 0;
    row->m_values.clear();
    return;
  }
  row->m_iFirstPos = first;
  row->m_values.assign(array + first, array + last + 1);
}

template <class T>
T CShiftedVectorAsVPLstorageRow<T>::scalarProduct(RowType const & row, int size, T const * vector)
{
  long long const room = static_cast<long long>(size) - row.m_iFirstPos;
  int const n = static_cast<int>(std::min<long long>(room, static_cast<long long>(row.m_values.size())));
  return n > 0 ? tf_dot(n, row.m_values.data(), vector + row.m_iFirstPos) : T(0);
}

template <class T>
T CShiftedVectorAsVPLstorageRow<T>::getCoeff(RowType const & row, int column)
{
  long long const k = static_cast<long long>(row.m_iFirstPos) + column;
  return k >= 0 && k < static_cast<long long>(row.m_values.size()) ? row.m_values[static_cast<std::size_t>(k)]
                                                                  : T(0);
}

// ---- sparse rows -------------------------------------------------------------------

template <class T>
void CSparseVectorAsVPLSstorageRow<T>::assignRowByArray(RowType * row, int size, T const * array)
{
  row->AssignByVector(size, array);
}

template <class T>
T CSparseVectorAsVPLSstorageRow<T>::scalarProduct(RowType const & row, int size, T const * vector)
{
  T sum = T(0);
  T value;
  int position;
  for (int k = 0, n = row.GetNOfNonZeroElements(); k < n; ++k)
  {
    row.GetNonZeroElementAndPos(k, value, position);
    if (position >= 0 && position < size)
      sum += value * vector[position];
  }
  return sum;
}

// ---- the storage -------------------------------------------------------------------

template <class T, class Row>
void CVPLSstorage<T, Row>::AllocateMatrix()
{
  if (this->IsSpoiled() || IsMatrixAllocated())
    return;
  std::size_t const n = static_cast<std::size_t>(this->GetFreeVariablesNumber());
  m_scratchRow.assign(n, T(0));
  m_rows.assign(n, RowType());
}

template <class T, class Row>
T CVPLSstorage<T, Row>::onScalarProductByMatrixRow(int row, int size, T const * vector) const
{
  if (row < 0 || static_cast<std::size_t>(row) >= m_rows.size())
    return T(0);
  return Row::scalarProduct(m_rows[row], size, vector);
}

template <class T, class Row>
T CVPLSstorage<T, Row>::onGetFreeVertCoeff(int row, int column) const
{
  if (row < 0 || static_cast<std::size_t>(row) >= m_rows.size())
    return T(0);
  return Row::getCoeff(m_rows[row], column);
}

template <class T, class Row>
void CVPLSstorage<T, Row>::onAddEquationFreePart(CVertexLinearCombination<T> const & equation, int row)
{
  AllocateMatrix();
  if (this->IsSpoiled())
    return;
  int const n = this->GetFreeVariablesNumber();
  // Besides a row past the free count: in a system without fixed vertices,
  // free vertices may still be defined after the rows were made, and the
  // rows are then too short for them.
  if (row < 0 || row >= n || static_cast<std::size_t>(n) != m_rows.size())
  {
    this->Spoil();
    return;
  }
  std::fill(m_scratchRow.begin(), m_scratchRow.end(), T(0));
  int count = 0;
  for (auto it = equation.begin(), end = equation.end(); it != end; ++it)
  {
    int const column = this->GetFreeVariablesIndex(it->GetVertexIdx());
    if (column < 0)
      continue; // a fixed vertex: the manager keeps those
    m_scratchRow[column] = it->GetCoeff();
    ++count;
  }
  if (count > 0)
    Row::assignRowByArray(&m_rows[row], n, m_scratchRow.data());
  else
    this->Spoil();
}

template class CStdVectorAsVPLSstorageRow<float>;
template class CStdVectorAsVPLSstorageRow<double>;
template class CShiftedVectorAsVPLstorageRow<float>;
template class CShiftedVectorAsVPLstorageRow<double>;
template class CSparseVectorAsVPLSstorageRow<float>;
template class CSparseVectorAsVPLSstorageRow<double>;
template class CVPLSstorage<float, CStdVectorAsVPLSstorageRow<float>>;
template class CVPLSstorage<double, CStdVectorAsVPLSstorageRow<double>>;
template class CVPLSstorage<float, CShiftedVectorAsVPLstorageRow<float>>;
template class CVPLSstorage<double, CShiftedVectorAsVPLstorageRow<double>>;
template class CVPLSstorage<float, CSparseVectorAsVPLSstorageRow<float>>;
template class CVPLSstorage<double, CSparseVectorAsVPLSstorageRow<double>>;
} // namespace REmath
