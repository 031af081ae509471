#include "QZmath/LinSys/CSRSstorage.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include "QZmath/LinSys/detail/CsrRows.h"

namespace REmath
{
namespace
{
// The larger of two magnitudes, a non-finite operand (first before second)
// being taken as it is.
template <class T> T largerMagnitude(T a, T b)
{
  a = std::fabs(a);
  b = std::fabs(b);
  if (!std::isfinite(a))
    return a;
  if (!std::isfinite(b))
    return b;
  return a < b ? b : a;
}
} // namespace

template <class T> T vectorNormalizationFactor(T const * values, long long count)
{
  if (values == nullptr || count <= 0)
    return T(0);
  T const * best = values;
  for (long long k = 1; k < count; ++k)
  {
    // The magnitude serves as a truth value: only two zeros keep the best
    // element where it is, and then both have magnitude 0 anyway.
    if (largerMagnitude(*best, values[k]) != T(0))
      best = values + k;
  }
  return std::fabs(*best);
}

// ---- life cycle --------------------------------------------------------------

template <class T>
CCSRSstorage<T>::CCSRSstorage()
    : m_iIndexBase(eCSRindexBaseOne), m_pFiller(nullptr), m_bSymmetric(false), m_iExpectedElementsPerLine(0)
{
}

template <class T>
CCSRSstorage<T>::CCSRSstorage(CCSRSstorage const & other)
    : CLinSysVariableManager<T>(other), CCSRSquareMatrix<T>(other), m_iIndexBase(other.m_iIndexBase),
      m_pFiller(nullptr), m_bSymmetric(other.m_bSymmetric),
      m_iExpectedElementsPerLine(other.m_iExpectedElementsPerLine)
{
}

template <class T> CCSRSstorage<T> & CCSRSstorage<T>::operator=(CCSRSstorage const & other)
{
  if (this == &other)
    return *this;
  delete m_pFiller;
  m_pFiller = nullptr;
  CLinSysVariableManager<T>::operator=(other);
  CCSRSquareMatrix<T>::operator=(other);
  m_iIndexBase = other.m_iIndexBase;
  m_bSymmetric = other.m_bSymmetric;
  m_iExpectedElementsPerLine = other.m_iExpectedElementsPerLine;
  return *this;
}

template <class T> CCSRSstorage<T>::~CCSRSstorage() { delete m_pFiller; }

template <class T> CCSRSstorage<T> * CCSRSstorage<T>::Copy() const { return new CCSRSstorage(*this); }

template <class T> void CCSRSstorage<T>::setIndexBase(int base)
{
  // The filler subtracts the base it was made with; a different base from the
  // storage would shift every element it receives afterwards.
  if ((base != eCSRindexBaseZero && base != eCSRindexBaseOne) ||
      (m_pFiller != nullptr && base != m_iIndexBase))
  {
    this->Spoil();
    return;
  }
  m_iIndexBase = base;
}

// ---- filling -----------------------------------------------------------------

template <class T> void CCSRSstorage<T>::initFiller()
{
  if (m_pFiller != nullptr)
    return;
  int const freeCount = this->GetFreeVariablesNumber();
  // Making the filler clears the matrix: a copied storage starts afresh here.
  m_pFiller = new CCSRSquareMatrixFiller<T>(this, freeCount, -1, m_iIndexBase, m_bSymmetric);
  if (m_iExpectedElementsPerLine > 0)
  {
    long long const wanted = static_cast<long long>(m_iExpectedElementsPerLine) * freeCount;
    m_pFiller->reserveMemory(static_cast<int>(std::min<long long>(wanted, INT_MAX)));
  }
}

template <class T> void CCSRSstorage<T>::reserveMatrixMemory(int count)
{
  initFiller();
  this->reserveMemory(count);
}

template <class T>
void CCSRSstorage<T>::onAddEquationFreePart(CVertexLinearCombination<T> const & equation, int row)
{
  initFiller();
  if (this->IsSpoiled())
    return;
  if (row >= this->GetFreeVariablesNumber())
  {
    this->Spoil();
    return;
  }
  int freeTerms = 0;
  for (auto it = equation.begin(), end = equation.end(); it != end; ++it)
  {
    int const column = this->GetFreeVariablesIndex(it->GetVertexIdx());
    if (column < 0)
      continue;
    ++freeTerms;
    if (m_bSymmetric && column < row)
      continue;
    if (!m_pFiller->pushByRawNextNonZeroElement(row + m_iIndexBase, column + m_iIndexBase, it->GetCoeff()))
    {
      this->Spoil();
      break;
    }
  }
  if (freeTerms == 0)
    this->Spoil();
  if (row + 1 == this->GetFreeVariablesNumber())
    m_pFiller->setCompleted();
}

template <class T>
void CCSRSstorage<T>::addEquationFreePartNoAliases(int row, int count, T const * values, int const * columns)
{
  initFiller();
  if (this->IsSpoiled())
    return;
  if (row >= this->GetFreeVariablesNumber() || count < 1 || values == nullptr || columns == nullptr)
  {
    this->Spoil();
    return;
  }
  for (int k = 0; k < count; ++k)
  {
    if (m_bSymmetric && columns[k] < row)
      continue;
    if (!m_pFiller->pushByRawNextNonZeroElement(row + m_iIndexBase, columns[k] + m_iIndexBase, values[k]))
    {
      this->Spoil();
      break;
    }
  }
  if (row + 1 == this->GetFreeVariablesNumber())
    m_pFiller->setCompleted();
  this->imitateAddEquation(row);
}

// ---- reading -----------------------------------------------------------------

template <class T> void CCSRSstorage<T>::storedRow(int row, int & begin, int & end) const
{
  ICsrMatrix<T> const & matrix = *this;
  detail::csrRowRange(matrix.getCsrPointerB(), matrix.getCsrPointerE(), matrix.getMatrixSize(),
                      matrix.getNonZeroValuesNumber(), matrix.getIndexBase(), row, begin, end);
}

template <class T> T CCSRSstorage<T>::onGetFreeVertCoeff(int row, int column) const
{
  if (m_bSymmetric && column < row)
    return onGetFreeVertCoeff(column, row);
  int begin = 0;
  int end = 0;
  storedRow(row, begin, end);
  ICsrMatrix<T> const & matrix = *this;
  int const * columns = matrix.getCsrColumns();
  if (begin == end)
    return T(0);
  int const wanted = column + matrix.getIndexBase();
  int const * found = std::lower_bound(columns + begin, columns + end, wanted);
  if (found == columns + end || *found != wanted)
    return T(0);
  return matrix.getCsrValues()[found - columns];
}

template <class T>
T CCSRSstorage<T>::onScalarProductByMatrixRow(int row, int /*size*/, T const * vector) const
{
  ICsrMatrix<T> const & matrix = *this;
  // A row outside the matrix has nothing stored, and its mirrored part would
  // read the vector past the matrix size.
  if (row < 0 || row >= matrix.getMatrixSize())
    return T(0);
  int const base = matrix.getIndexBase();
  T const * values = matrix.getCsrValues();
  int const * columns = matrix.getCsrColumns();
  int begin = 0;
  int end = 0;
  storedRow(row, begin, end);
  T sum = T(0);
  for (int k = begin; k < end; ++k)
    sum += values[k] * vector[columns[k] - base];
  if (m_bSymmetric && row > 0)
  {
    // The lower part of the row is the upper part of the column.
    for (int j = 0; j < row; ++j)
    {
      if (vector[j] != T(0))
        sum += vector[j] * this->GetFreeVertCoeff(j, row);
    }
  }
  return sum;
}

// ---- scaling -----------------------------------------------------------------

template <class T> T CCSRSstorage<T>::normalizeSystemMatrix()
{
  int const count = this->getCsrValuesSize();
  if (count == 0)
    return T(0);
  T * values = this->getCsrValuesMod();
  T const m = vectorNormalizationFactor<T>(values, count);
  if (m > T(0))
  {
    T const scale = T(1) / m;
    for (int k = 0; k < count; ++k)
      values[k] *= scale;
  }
  return m;
}

template class CCSRSstorage<float>;
template class CCSRSstorage<double>;
template float vectorNormalizationFactor(float const *, long long);
template double vectorNormalizationFactor(double const *, long long);
} // namespace REmath
