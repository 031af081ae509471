#pragma once
// A system storage that keeps the free matrix row by row, each row in a form
// chosen by a row adapter. Rows may name their columns in any order, so unlike
// the compressed-row storage it needs no ascending vertex order; it keeps
// every row in full, a symmetric system included.
//
// Every added equation goes through a dense scratch row of one element per
// free vertex, so adding costs O(n) per equation: this storage suits the
// moderate sizes of fitting and smoothing, the compressed-row storage the
// large systems.
//
// Row adapters are classes of static operations with no data:
//   RowType                                   the row object
//   assignRowByArray(RowType *, size, array)  a row from a dense array
//   scalarProduct(RowType const &, size, v)   the row times a vector
//   getCoeff(RowType const &, column)         one element, 0 when not stored
//
// Misuse spoils the system, as everywhere in linear systems: a row number at
// or past the free count, an equation with no free term.

#include <vector>

#include "QZmath/LinSys/LinSysVariableManager.h"
#include "QZmath/LinSys/SparseVector.h"

namespace REmath
{
/// Rows as dense vectors; the product is BLAS ?dot.
template <class T>
class CStdVectorAsVPLSstorageRow
{
public:
  typedef std::vector<T> RowType;
  /// Copies `size` elements.
  static void assignRowByArray(RowType * row, int size, T const * array);
  /// ?dot over `size` elements (at most the row's length).
  static T scalarProduct(RowType const & row, int size, T const * vector);
  /// Element `column`; 0 outside the row.
  static T getCoeff(RowType const & row, int column);
};

/// Rows as the span between the first and the last element that is not
/// exactly 0, inner zeros included: suited to banded systems, whose equations
/// touch a short run of neighbouring vertices.
template <class T>
class CShiftedVectorAsVPLstorageRow
{
public:
  struct SparceCoeffRow
  {
    SparceCoeffRow() : m_iFirstPos(0) {}
    int m_iFirstPos;
    std::vector<T> m_values;
  };
  typedef SparceCoeffRow RowType;

  /// Trims the array at both ends; an all-zero array gives an empty row.
  static void assignRowByArray(RowType * row, int size, T const * array);
  /// ?dot of the values with `vector` from the first position on.
  static T scalarProduct(RowType const & row, int size, T const * vector);
  /// The value at index first position + `column`, 0 past the values. The
  /// first position is added to the column, not subtracted: single elements
  /// of these rows do not read as matrix elements, and solvers over them use
  /// scalar products only.
  static T getCoeff(RowType const & row, int column);
};

/// Rows as sparse vectors.
template <class T>
class CSparseVectorAsVPLSstorageRow
{
public:
  typedef CSparseVectorTmpl<T> RowType;
  /// AssignByVector(size, array).
  static void assignRowByArray(RowType * row, int size, T const * array);
  /// Sum of value x vector[position] over the stored pairs, from 0, in
  /// ascending position; pairs at or past `size` take no part.
  static T scalarProduct(RowType const & row, int size, T const * vector);
  /// Binary search; 0 when absent.
  static T getCoeff(RowType const & row, int column) { return row.GetElement(column); }
};

template <class T, class Row>
class CVPLSstorage : public CLinSysVariableManager<T>
{
public:
  typedef typename Row::RowType RowType;

  CVPLSstorage() : m_bSymmetric(false) {}
  CVPLSstorage(CVPLSstorage const &) = default;
  CVPLSstorage & operator=(CVPLSstorage const &) = default;
  ~CVPLSstorage() override = default;

  /// A deep copy, owned by the caller.
  CVPLSstorage * Copy() const override { return new CVPLSstorage(*this); }

  /// Makes the scratch row and one empty row per free vertex, unless the
  /// system is spoiled or the rows exist already.
  void AllocateMatrix();
  bool IsMatrixAllocated() const { return !m_rows.empty(); }

private:
  // ILinearSystemReadOnly
  /// 0 for a row that does not exist.
  T onScalarProductByMatrixRow(int row, int size, T const * vector) const override;
  T onGetFreeVertCoeff(int row, int column) const override;
  bool onIsSymmetric() const override { return m_bSymmetric; }
  // ILinearSystemStorage
  /// Only kept: rows are stored in full whatever the flag says.
  void onSetSymmetric(bool symmetric) override { m_bSymmetric = symmetric; }
  // CLinSysVariableManager
  void onAddEquationFreePart(CVertexLinearCombination<T> const & equation, int row) override;
  bool areFreeVariablesDefined() const override { return IsMatrixAllocated(); }

  std::vector<T> m_scratchRow;
  std::vector<RowType> m_rows;
  bool m_bSymmetric;
};

extern template class CStdVectorAsVPLSstorageRow<float>;
extern template class CStdVectorAsVPLSstorageRow<double>;
extern template class CShiftedVectorAsVPLstorageRow<float>;
extern template class CShiftedVectorAsVPLstorageRow<double>;
extern template class CSparseVectorAsVPLSstorageRow<float>;
extern template class CSparseVectorAsVPLSstorageRow<double>;
extern template class CVPLSstorage<float, CStdVectorAsVPLSstorageRow<float>>;
extern template class CVPLSstorage<double, CStdVectorAsVPLSstorageRow<double>>;
extern template class CVPLSstorage<float, CShiftedVectorAsVPLstorageRow<float>>;
extern template class CVPLSstorage<double, CShiftedVectorAsVPLstorageRow<double>>;
extern template class CVPLSstorage<float, CSparseVectorAsVPLSstorageRow<float>>;
extern template class CVPLSstorage<double, CSparseVectorAsVPLSstorageRow<double>>;
} // namespace REmath
