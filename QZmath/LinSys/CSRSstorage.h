#pragma once
// A system storage whose free matrix is a compressed-row matrix: while a
// system is being built it is at the same time the matrix the solvers hand to
// MKL, with no copy (cross-cast an ILinearSystemReadOnly<T> to ICsrMatrix<T>).
//
// Rows are filled through a CCSRSquareMatrixFiller, which demands rising
// columns within a row. Terms of an equation come in ascending vertex order,
// so this storage works only when free indices rise with vertex identifiers:
// define free vertices in ascending order, or the push fails and the system is
// spoiled. For a symmetric system only the upper triangle is stored.

#include "QZmath/LinSys/CSRSquareMatrix.h"
#include "QZmath/LinSys/LinSysVariableManager.h"

namespace REmath
{
template <class T> class CCSRSstorage : public CLinSysVariableManager<T>, public CCSRSquareMatrix<T>
{
public:
  /// Index base 1, not symmetric, no expected row length.
  CCSRSstorage();
  /// Copies both bases; the copy has no filler, so the next equation added to
  /// it starts the matrix afresh.
  CCSRSstorage(CCSRSstorage const & other);
  CCSRSstorage & operator=(CCSRSstorage const & other);
  ~CCSRSstorage() override;

  CCSRSstorage * Copy() const override;

  /// Elements per row to reserve room for when the filler is made.
  void setExpectedElementsPerLine(int count) { m_iExpectedElementsPerLine = count; }
  int getExpectedElementsPerLine() const { return m_iExpectedElementsPerLine; }
  /// The base used for the matrix (0 or 1). This hides the matrix's own
  /// getIndexBase, which reports the base the matrix was filled with.
  int getIndexBase() const { return m_iIndexBase; }
  /// Only 0 and 1 are bases; anything else, or a change of base once the
  /// matrix is being filled, spoils the system.
  void setIndexBase(int base);

  /// Divides all stored values by the magnitude m of the last stored value
  /// (when m > 0) and returns m; 0 for an empty matrix.
  T normalizeSystemMatrix();

  /// The bulk path of row `row`: `count` elements with columns given directly
  /// as free indices, without base, rising. Below-diagonal elements are skipped
  /// in a symmetric system. Rows must come in order, one thread at a time; the
  /// equation is counted as added, and fixed coefficients are then set with
  /// SetFixedVertCoeff.
  void addEquationFreePartNoAliases(int row, int count, T const * values, int const * columns);
  /// Makes the filler if needed, then reserves room for `count` elements.
  void reserveMatrixMemory(int count);

private:
  // ILinearSystemReadOnly
  T onScalarProductByMatrixRow(int row, int size, T const * vector) const override;
  T onGetFreeVertCoeff(int row, int column) const override;
  bool onIsSymmetric() const override { return m_bSymmetric; }
  // ILinearSystemStorage
  void onSetSymmetric(bool symmetric) override { m_bSymmetric = symmetric; }
  // CLinSysVariableManager
  void onAddEquationFreePart(CVertexLinearCombination<T> const & equation, int row) override;
  bool areFreeVariablesDefined() const override { return m_pFiller != nullptr; }

  void initFiller();
  /// Positions [begin, end) of the stored elements of `row`; empty for rows
  /// not filled yet.
  void storedRow(int row, int & begin, int & end) const;

  int m_iIndexBase;
  CCSRSquareMatrixFiller<T> * m_pFiller;
  bool m_bSymmetric;
  int m_iExpectedElementsPerLine;
};

/// The normalisation factor of a vector of values: a walk that keeps a best
/// element, starting at the first, and moves it to each further element unless
/// the larger of the two magnitudes is exactly 0 (a NaN or an infinite operand
/// is taken as the larger). As the test is on the magnitude, not a comparison,
/// the walk ends on the last element: the factor is the magnitude of the last
/// value, not the largest one. 0 for no values.
template <class T> T vectorNormalizationFactor(T const * values, long long count);

extern template class CCSRSstorage<float>;
extern template class CCSRSstorage<double>;
extern template float vectorNormalizationFactor(float const *, long long);
extern template double vectorNormalizationFactor(double const *, long long);
} // namespace REmath
