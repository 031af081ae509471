#include "QZmath/LinSys/LinSysVariableManager.h"

#include <cstddef>
#include <iterator>

namespace REmath
{
namespace
{
int findOr(std::map<int, int> const & map, int key, int missing)
{
  auto found = map.find(key);
  return found != map.end() ? found->second : missing;
}
} // namespace

template <class T>
CLinSysVariableManager<T>::CLinSysVariableManager()
    : m_bSpoiled(false), m_iEquationsNumber(0), m_bPositiveDefinite(false)
{
}

// ---- lookups -----------------------------------------------------------------

template <class T> bool CLinSysVariableManager<T>::onIsSpoiled() const { return m_bSpoiled; }

template <class T> int CLinSysVariableManager<T>::onGetFreeVariablesNumber() const
{
  return static_cast<int>(m_freeVertexToIndex.size());
}

template <class T> int CLinSysVariableManager<T>::onGetFixedVariablesNumber() const
{
  return static_cast<int>(m_fixedVertexToIndex.size());
}

template <class T> int CLinSysVariableManager<T>::onGetFreeVariablesIndex(int vertex) const
{
  return findOr(m_freeVertexToIndex, vertex, -1);
}

template <class T> int CLinSysVariableManager<T>::onGetFixedVariablesIndex(int vertex) const
{
  return findOr(m_fixedVertexToIndex, vertex, -1);
}

template <class T> int CLinSysVariableManager<T>::onGetFreeVertexByIndex(int index) const
{
  return findOr(m_freeIndexToVertex, index, -1);
}

template <class T> int CLinSysVariableManager<T>::onGetFixedVertexByIndex(int index) const
{
  return findOr(m_fixedIndexToVertex, index, -1);
}

template <class T> int CLinSysVariableManager<T>::onGetEquationsNumber() const { return m_iEquationsNumber; }

template <class T> bool CLinSysVariableManager<T>::onIsPositiveDefinite() const
{
  return m_bPositiveDefinite;
}

template <class T> void CLinSysVariableManager<T>::onSetPositiveDefinite(bool positiveDefinite)
{
  m_bPositiveDefinite = positiveDefinite;
}

template <class T> void CLinSysVariableManager<T>::onSpoil() { m_bSpoiled = true; }

// ---- fixed matrix ------------------------------------------------------------

template <class T> T CLinSysVariableManager<T>::onGetFixedVertCoeff(int row, int fixedIndex) const
{
  // Vertices may be defined after the matrix was made (a spoiled system still
  // records them), so a fixed index can lie outside it: such an element reads 0.
  if (row < 0 || fixedIndex < 0 || static_cast<std::size_t>(row) >= m_fixedMatrix.size())
    return T(0);
  std::vector<T> const & line = m_fixedMatrix[static_cast<std::size_t>(row)];
  if (static_cast<std::size_t>(fixedIndex) >= line.size())
    return T(0);
  return line[static_cast<std::size_t>(fixedIndex)];
}

template <class T> void CLinSysVariableManager<T>::onSetFixedVertCoeff(int row, int fixedIndex, T value)
{
  if (row < 0 || fixedIndex < 0 || static_cast<std::size_t>(row) >= m_fixedMatrix.size() ||
      static_cast<std::size_t>(fixedIndex) >= m_fixedMatrix[static_cast<std::size_t>(row)].size())
  {
    onSpoil();
    return;
  }
  m_fixedMatrix[static_cast<std::size_t>(row)][static_cast<std::size_t>(fixedIndex)] = value;
}

template <class T> bool CLinSysVariableManager<T>::areFixedVariablesDefined() const
{
  return !m_fixedMatrix.empty();
}

template <class T> bool CLinSysVariableManager<T>::areVariablesDefined() const
{
  return areFixedVariablesDefined() && areFreeVariablesDefined();
}

template <class T> void CLinSysVariableManager<T>::allocateFixedVariableMatrix()
{
  if (!m_fixedMatrix.empty())
    return;
  int const freeCount = this->GetFreeVariablesNumber();
  int const fixedCount = this->GetFixedVariablesNumber();
  if (fixedCount < 1)
    return;
  std::vector<T> const zeroRow(static_cast<std::size_t>(fixedCount), T(0));
  m_fixedMatrix.resize(static_cast<std::size_t>(freeCount), zeroRow);
}

// ---- definitions -------------------------------------------------------------

template <class T>
void CLinSysVariableManager<T>::defineVertex(int vertex, std::map<int, int> & ownToIndex,
                                             std::map<int, int> & ownByIndex,
                                             std::map<int, int> const & otherToIndex)
{
  if (areVariablesDefined() || otherToIndex.count(vertex) != 0)
  {
    onSpoil();
    return;
  }
  // Vertices usually come in ascending order (the compressed-row storage needs
  // that), so the end of the map is tried first as the place of a new one.
  auto place = ownToIndex.end();
  if (!ownToIndex.empty() && std::prev(place)->first >= vertex)
  {
    place = ownToIndex.lower_bound(vertex);
    if (place != ownToIndex.end() && place->first == vertex)
    {
      onSpoil();
      return;
    }
  }
  int const index = static_cast<int>(ownToIndex.size());
  ownToIndex.emplace_hint(place, vertex, index);
  ownByIndex.emplace_hint(ownByIndex.end(), index, vertex);
}

template <class T> void CLinSysVariableManager<T>::onDefineFreeVertex(int vertex)
{
  defineVertex(vertex, m_freeVertexToIndex, m_freeIndexToVertex, m_fixedVertexToIndex);
}

template <class T> void CLinSysVariableManager<T>::onDefineFixedVertex(int vertex)
{
  defineVertex(vertex, m_fixedVertexToIndex, m_fixedIndexToVertex, m_freeVertexToIndex);
}

// ---- equations ---------------------------------------------------------------

template <class T>
void CLinSysVariableManager<T>::onAddEquationFixedPart(CVertexLinearCombination<T> const & equation, int row)
{
  allocateFixedVariableMatrix();
  if (m_bSpoiled)
    return;
  if (row >= this->GetFreeVariablesNumber())
  {
    onSpoil();
    return;
  }
  int freeTerms = 0;
  for (auto it = equation.begin(), end = equation.end(); it != end; ++it)
  {
    int const vertex = it->GetVertexIdx();
    int const freeIndex = this->GetFreeVariablesIndex(vertex);
    int const fixedIndex = this->GetFixedVariablesIndex(vertex);
    if (freeIndex >= 0)
    {
      ++freeTerms;
    }
    else if (fixedIndex < 0)
    {
      // An unknown vertex: nothing behind it is looked at.
      onSpoil();
      return;
    }
    else
    {
      this->SetFixedVertCoeff(row, fixedIndex, it->GetCoeff());
    }
  }
  if (freeTerms == 0)
    onSpoil();
}

template <class T> void CLinSysVariableManager<T>::onAddEquation(CVertexLinearCombination<T> const & equation)
{
  if (m_bSpoiled)
    return;
  int const row = m_iEquationsNumber;
  onAddEquationFixedPart(equation, row);
  if (m_bSpoiled)
    return;
  onAddEquationFreePart(equation, row);
  ++m_iEquationsNumber;
}

template <class T> void CLinSysVariableManager<T>::imitateAddEquation(int row)
{
  if (m_iEquationsNumber != row)
  {
    onSpoil();
    return;
  }
  allocateFixedVariableMatrix();
  ++m_iEquationsNumber;
}

// ---- right parts and solutions -----------------------------------------------

template <class T> bool CLinSysVariableManager<T>::onIsCorrectlyDefinedSystem() const
{
  if (m_bSpoiled)
    return false;
  int const equations = this->GetEquationsNumber();
  return this->GetFreeVariablesNumber() == equations && equations == m_iEquationsNumber;
}

template <class T>
void CLinSysVariableManager<T>::onSetSingleRightPart(T * rightPart,
                                                     IVertexPosInformer<T> const & informer) const
{
  int const n = m_iEquationsNumber;
  int const m = this->GetFixedVariablesNumber();
  for (int i = 0; i < n; ++i)
    rightPart[i] = T(0);
  for (int j = 0; j < m; ++j)
  {
    T const position = informer.GetVertexPosition(this->GetFixedVertexByIndex(j));
    for (int i = 0; i < n; ++i)
    {
      T const c = this->GetFixedVertCoeff(i, j);
      // A zero coefficient never meets the position, so a NaN position in an
      // unused column leaves the row alone.
      if (c != T(0))
        rightPart[i] += T(0) - c * position;
    }
  }
}

template <class T>
void CLinSysVariableManager<T>::onSetSingleSolution(T const * solution,
                                                    IEqSysResultReciever<T> & reciever) const
{
  for (int i = 0; i < m_iEquationsNumber; ++i)
    reciever.SetVertexPosition(this->GetFreeVertexByIndex(i), solution[i]);
}

template class CLinSysVariableManager<float>;
template class CLinSysVariableManager<double>;
} // namespace REmath
