#pragma once
// The sparse square matrix of the library, in the three-array compressed-row
// form that the sparse routines of MKL take as they stand: values, columns and
// a row index of size+1 entries, columns and row index already in the index
// base. The row beginnings are the row index, the row ends the same array
// shifted by one.
//
// CCSRSquareMatrixFiller is the only writer that keeps a matrix consistent: it
// takes elements in strict row-major order, columns rising within a row, and
// fails hard (spoils itself for good) on anything else.

#include <vector>

#include "QZmath/LinSys/LinearSystemInterfaces.h"

namespace REmath
{
/// 0: columns and row index count from 0; 1: they count from 1 (the form the
/// direct solver needs).
enum eCSRindexBase : int
{
  eCSRindexBaseZero = 0,
  eCSRindexBaseOne = 1,
};

/// 0: memory was sized in advance for an exactly known number of elements;
/// 1: memory grows as elements arrive.
enum eCSRmemoryPolicy : int
{
  eCSRmemoryPreallocated = 0,
  eCSRmemoryIncreasing = 1,
};

template <class T> class ICsrMatrix
{
public:
  virtual ~ICsrMatrix() = default;

  eCSRindexBase getIndexBase() const { return doGetIndexBase(); }
  bool isUpperTriangleOnlyStored() const { return doIsUpperTriangleOnlyStored(); }
  /// Number of rows (and columns).
  int getMatrixSize() const { return doGetMatrixSize(); }
  int getNonZeroValuesNumber() const { return doGetNonZeroValuesNumber(); }
  T const * getCsrValues() const { return doGetCsrValues(); }
  int const * getCsrColumns() const { return doGetCsrColumns(); }
  /// Row beginnings, `getMatrixSize()` entries.
  int const * getCsrPointerB() const { return doGetCsrPointerB(); }
  /// Row ends, `getMatrixSize()` entries.
  int const * getCsrPointerE() const { return doGetCsrPointerE(); }

protected:
  ICsrMatrix() = default;
  ICsrMatrix(ICsrMatrix const &) = default;
  ICsrMatrix & operator=(ICsrMatrix const &) = default;

private:
  virtual eCSRindexBase doGetIndexBase() const = 0;
  virtual bool doIsUpperTriangleOnlyStored() const = 0;
  virtual int doGetMatrixSize() const = 0;
  virtual int doGetNonZeroValuesNumber() const = 0;
  virtual T const * doGetCsrValues() const = 0;
  virtual int const * doGetCsrColumns() const = 0;
  virtual int const * doGetCsrPointerB() const = 0;
  virtual int const * doGetCsrPointerE() const = 0;
};

template <class T> class CCSRSquareMatrix : public ICsrMatrix<T>
{
public:
  /// Empty, base 0, preallocated policy, full storage.
  CCSRSquareMatrix();
  CCSRSquareMatrix(CCSRSquareMatrix const &) = default;
  CCSRSquareMatrix(CCSRSquareMatrix &&) = default;
  CCSRSquareMatrix & operator=(CCSRSquareMatrix const &) = default;
  CCSRSquareMatrix & operator=(CCSRSquareMatrix &&) = default;
  ~CCSRSquareMatrix() override = default;

  T * getCsrValuesMod() { return m_values.data(); }
  int * getCsrColumnsMod() { return m_columns.data(); }
  int * getCsrPointerBMod() { return m_rowIndex.data(); }
  int * getCsrPointerEMod() { return m_rowIndex.empty() ? nullptr : m_rowIndex.data() + 1; }
  int const * getRowIndex() const { return m_rowIndex.data(); }
  int * getRowIndexMod() { return m_rowIndex.data(); }

  int getCsrValuesSize() const { return static_cast<int>(m_values.size()); }
  int getCsrColumnsSize() const { return static_cast<int>(m_columns.size()); }
  int getRowIndexSize() const { return static_cast<int>(m_rowIndex.size()); }
  int getCsrPointerBSize() const { return this->getMatrixSize(); }
  int getCsrPointerESize() const { return this->getMatrixSize(); }

  eCSRmemoryPolicy getMemoryPolicy() const { return m_memoryPolicy; }
  void pushBackCsrValue(T value) { m_values.push_back(value); }
  void pushBackCsrColumn(int column) { m_columns.push_back(column); }
  /// Appends a value and its column, both or neither: when memory runs out,
  /// std::bad_alloc passes on and the two arrays stay as they were.
  void pushBackCsrElement(T value, int column);
  /// Reserves capacity for `count` values and columns; never shrinks.
  void reserveMemory(int count);

  /// Clears the three arrays and releases their memory. With `nonZeros` below
  /// 1 the policy becomes "increasing" and values and columns stay empty;
  /// otherwise "preallocated" with `nonZeros` values and columns of -1. The row
  /// index gets `size`+1 entries of -1 (a negative size counts as 0).
  void initMemory(int size, int nonZeros, eCSRindexBase base, bool upperOnly);

  /// Makes this matrix the square block of `source` over rows and columns
  /// `first` to `last`-1, with the base and the upper-only flag of `source`
  /// and columns shifted down by `first`. The range is clipped to the source;
  /// rows of the source that were never filled count as empty.
  void makeSelfSubMatrix(int first, int last, ICsrMatrix<T> const & source);

private:
  eCSRindexBase doGetIndexBase() const override { return m_indexBase; }
  bool doIsUpperTriangleOnlyStored() const override { return m_bUpperTriangleOnly; }
  /// The row index size minus one; 0 for a matrix that was never initialised.
  int doGetMatrixSize() const override;
  int doGetNonZeroValuesNumber() const override { return static_cast<int>(m_values.size()); }
  T const * doGetCsrValues() const override { return m_values.data(); }
  int const * doGetCsrColumns() const override { return m_columns.data(); }
  int const * doGetCsrPointerB() const override { return m_rowIndex.data(); }
  int const * doGetCsrPointerE() const override
  {
    return m_rowIndex.empty() ? nullptr : m_rowIndex.data() + 1;
  }

  std::vector<T> m_values;
  std::vector<int> m_columns;
  std::vector<int> m_rowIndex;
  eCSRindexBase m_indexBase;
  eCSRmemoryPolicy m_memoryPolicy;
  bool m_bUpperTriangleOnly;
};

/// Fills a CCSRSquareMatrix element by element in row-major order.
///
/// A filler is open (count from 0 up to the expected count), complete (count
/// equal to the expected count) or spoiled (count -1, final). A push fails and
/// spoils it when there is no target, it is spoiled already, the expected count
/// is reached, the row goes back, the column does not rise within the row, or
/// row or column lie outside the matrix. In an upper-only filler an element
/// below the diagonal is dropped without any error and without any effect.
///
/// Rows that a push jumps over become empty rows. Rows behind the last pushed
/// row keep -1 in the row index; readers of this library treat such rows as
/// empty, and MatrixMultVector never hands them to MKL.
template <class T> class CCSRSquareMatrixFiller
{
public:
  /// Performs `initMemory(size, nonZeros, indexBase, upperOnly)` on `target`
  /// (not owned). The mode is "preallocated" when `nonZeros` is 1 or more,
  /// "increasing" otherwise. A null target gives a filler with expected count
  /// -1 and mode "increasing" that touches nothing. An index base other than 0
  /// or 1 gives a filler that is spoiled from the start and touches nothing.
  CCSRSquareMatrixFiller(CCSRSquareMatrix<T> * target, int size, int nonZeros, int indexBase, bool upperOnly);
  virtual ~CCSRSquareMatrixFiller() = default;
  CCSRSquareMatrixFiller(CCSRSquareMatrixFiller const &) = delete;
  CCSRSquareMatrixFiller & operator=(CCSRSquareMatrixFiller const &) = delete;

  /// `row` and `column` include the index base. A growing filler that runs
  /// out of memory passes std::bad_alloc on with the filler and the matrix as
  /// they were before the push, so that the push can be made again.
  bool pushByRawNextNonZeroElement(int row, int column, T value);
  /// Reserves room in the target; spoils unless both the filler and the target
  /// grow their memory.
  void reserveMemory(int count);
  /// Declares the matrix complete. Succeeds only for a growing filler that got
  /// at least one element (and exactly the expected count, when one was given);
  /// in every other case, a preallocated filler included, it spoils the filler.
  bool setCompleted();
  bool isCompleted() const { return m_iCount >= 0 && m_iCount == m_iExpected; }
  bool isSpoiled() const { return m_iCount < 0; }

private:
  void Spoil() { m_iCount = -1; }
  bool pushByRawNextNonZeroElementMemoryPreallocatedCore(int column, T value);
  bool pushByRawNextNonZeroElementIncreaseMemoryCore(int column, T value);
  void fillLastElement() {}

  CCSRSquareMatrix<T> * m_pTarget;
  int m_iExpected;
  int m_iCount;
  int m_iLastRow;
  int m_iLastColumn;
  eCSRmemoryPolicy m_eMode;
  int m_iIndexBase;
  bool m_bUpperTriangleOnly;
};

/// The free matrix of `system` as a compressed-row matrix: every element that
/// differs from exactly 0, only those on or above the diagonal when `upperOnly`.
/// The result reports full storage whatever `upperOnly` says; the filtering is
/// done by the walk alone. An index base other than 0 or 1, or an internal
/// inconsistency, throws std::logic_error("REmath::LinearSystem2CsrMatrix
/// internal error").
template <class T>
CCSRSquareMatrix<T> LinearSystem2CsrMatrix(ILinearSystemReadOnly<T> const & system, int indexBase,
                                           bool upperOnly);

/// result := matrix · vector through MKL's sparse BLAS, with no copy of the
/// matrix: the symmetric routine on the upper triangle for an upper-only
/// matrix, the general one otherwise, the zero-based or one-based form by the
/// index base. `result` and `vector` hold `size` values and may be the same
/// array.
///
/// MKL never sees an invalid structure: a matrix without elements gives zeros;
/// rows that were never filled are passed as empty rows (a repaired copy of the
/// row index only). A `size` other than the matrix size, or a base other than 0
/// or 1, is a misuse that writes `size` zeros.
template <class T>
void MatrixMultVector(int size, T * result, ICsrMatrix<T> const & matrix, T const * vector);

/// True when `matrix` is in the three-array form (row ends = row beginnings
/// shifted by one) and its row index runs from the base, never falls, and ends
/// within the stored elements: a structure the sparse routines may read as it
/// stands. False for a matrix with rows never filled.
template <class T> bool isCsrRowIndexComplete(ICsrMatrix<T> const & matrix);

/// A row index of `getMatrixSize()`+1 entries, in the base of `matrix`, in
/// which every row that is not properly described (never filled, or not
/// following on from the row before) is empty. Equal to the matrix's own row
/// index when `isCsrRowIndexComplete(matrix)`.
template <class T> std::vector<int> makeCompleteCsrRowIndex(ICsrMatrix<T> const & matrix);

extern template class ICsrMatrix<float>;
extern template class ICsrMatrix<double>;
extern template class CCSRSquareMatrix<float>;
extern template class CCSRSquareMatrix<double>;
extern template class CCSRSquareMatrixFiller<float>;
extern template class CCSRSquareMatrixFiller<double>;
extern template CCSRSquareMatrix<float> LinearSystem2CsrMatrix(ILinearSystemReadOnly<float> const &, int,
                                                               bool);
extern template CCSRSquareMatrix<double> LinearSystem2CsrMatrix(ILinearSystemReadOnly<double> const &, int,
                                                                bool);
extern template void MatrixMultVector(int, float *, ICsrMatrix<float> const &, float const *);
extern template void MatrixMultVector(int, double *, ICsrMatrix<double> const &, double const *);
extern template bool isCsrRowIndexComplete(ICsrMatrix<float> const &);
extern template bool isCsrRowIndexComplete(ICsrMatrix<double> const &);
extern template std::vector<int> makeCompleteCsrRowIndex(ICsrMatrix<float> const &);
extern template std::vector<int> makeCompleteCsrRowIndex(ICsrMatrix<double> const &);
} // namespace REmath
