#include "QZmath/LinSys/VertexLinearCombination.h"

#include <map>

namespace REmath
{
// ---- CVertexMonom ----------------------------------------------------------

template <class T> CVertexMonom<T> & CVertexMonom<T>::operator=(CVertexMonom const & other)
{
  m_iVertexIdx = other.m_iVertexIdx;
  m_coeff = other.m_coeff;
  return *this;
}

// ---- bodies ------------------------------------------------------------------

template <class T> struct CVertexLinearCombination<T>::SBody
{
  std::map<int, T> terms;
};

template <class T> struct CLinearCombIterator<T>::SBody
{
  typename std::map<int, T>::const_iterator position;
  typename std::map<int, T>::const_iterator end;
};

// ---- CLinearCombIterator -----------------------------------------------------

template <class T> CLinearCombIterator<T>::CLinearCombIterator() : m_pBody(new SBody()) {}

template <class T> CLinearCombIterator<T>::CLinearCombIterator(SBody * body) : m_pBody(body)
{
  refreshCurrent();
}

template <class T>
CLinearCombIterator<T>::CLinearCombIterator(CLinearCombIterator const & other)
    : m_pBody(new SBody(*other.m_pBody)), m_current(other.m_current)
{
}

template <class T> CLinearCombIterator<T>::~CLinearCombIterator() { delete m_pBody; }

template <class T>
CLinearCombIterator<T> & CLinearCombIterator<T>::operator=(CLinearCombIterator const & other)
{
  if (this != &other)
  {
    *m_pBody = *other.m_pBody;
    m_current = other.m_current;
  }
  return *this;
}

template <class T> void CLinearCombIterator<T>::refreshCurrent()
{
  if (m_pBody->position != m_pBody->end)
  {
    m_current.VertexIdx() = m_pBody->position->first;
    m_current.Coeff() = m_pBody->position->second;
  }
}

template <class T> CLinearCombIterator<T> & CLinearCombIterator<T>::operator++()
{
  ++m_pBody->position;
  refreshCurrent();
  return *this;
}

template <class T> CLinearCombIterator<T> CLinearCombIterator<T>::operator++(int)
{
  CLinearCombIterator before(*this);
  ++*this;
  return before;
}

template <class T> bool operator==(CLinearCombIterator<T> const & a, CLinearCombIterator<T> const & b)
{
  return a.m_pBody->position == b.m_pBody->position;
}

// ---- CVertexLinearCombination ------------------------------------------------

template <class T> CVertexLinearCombination<T>::CVertexLinearCombination() : m_pBody(new SBody()) {}

template <class T>
CVertexLinearCombination<T>::CVertexLinearCombination(CVertexLinearCombination const & other)
    : m_pBody(new SBody(*other.m_pBody))
{
}

template <class T> CVertexLinearCombination<T>::~CVertexLinearCombination() { delete m_pBody; }

template <class T>
CVertexLinearCombination<T> & CVertexLinearCombination<T>::operator=(CVertexLinearCombination const & other)
{
  if (this != &other)
    m_pBody->terms = other.m_pBody->terms;
  return *this;
}

template <class T> void CVertexLinearCombination<T>::AddVertex(int vertex, T coeff)
{
  auto found = m_pBody->terms.find(vertex);
  if (found != m_pBody->terms.end())
    found->second += coeff;
  else
    m_pBody->terms.emplace(vertex, coeff);
}

template <class T> T CVertexLinearCombination<T>::VertexCoeff(int vertex) const
{
  auto found = m_pBody->terms.find(vertex);
  return found != m_pBody->terms.end() ? found->second : T(0);
}

template <class T> CLinearCombIterator<T> const CVertexLinearCombination<T>::begin() const
{
  auto * body = new typename CLinearCombIterator<T>::SBody();
  body->position = m_pBody->terms.begin();
  body->end = m_pBody->terms.end();
  return CLinearCombIterator<T>(body);
}

template <class T> CLinearCombIterator<T> const CVertexLinearCombination<T>::end() const
{
  auto * body = new typename CLinearCombIterator<T>::SBody();
  body->position = m_pBody->terms.end();
  body->end = m_pBody->terms.end();
  return CLinearCombIterator<T>(body);
}

template <class T> CVertexLinearCombination<T> & CVertexLinearCombination<T>::operator*=(T factor)
{
  for (auto & term : m_pBody->terms)
    term.second *= factor;
  return *this;
}

template <class T>
CVertexLinearCombination<T> & CVertexLinearCombination<T>::operator+=(CVertexLinearCombination const & other)
{
  // With `other` being this object no vertex is new, so the walk never meets
  // an inserted element and every coefficient is doubled exactly once.
  for (auto const & term : other.m_pBody->terms)
    AddVertex(term.first, term.second);
  return *this;
}

// ---- evaluation --------------------------------------------------------------

template <class T>
T EvaluateLinCombination(CVertexLinearCombination<T> const & combination,
                         IVertexPosInformer<T> const & informer)
{
  T sum = T(0);
  for (auto it = combination.begin(), end = combination.end(); it != end; ++it)
  {
    if (it->GetCoeff() == T(0))
      continue;
    sum += it->GetCoeff() * informer.GetVertexPosition(it->GetVertexIdx());
  }
  return sum;
}

template class CVertexMonom<float>;
template class CVertexMonom<double>;
template class CLinearCombIterator<float>;
template class CLinearCombIterator<double>;
template class CVertexLinearCombination<float>;
template class CVertexLinearCombination<double>;
template bool operator==(CLinearCombIterator<float> const &, CLinearCombIterator<float> const &);
template bool operator==(CLinearCombIterator<double> const &, CLinearCombIterator<double> const &);
template float EvaluateLinCombination(CVertexLinearCombination<float> const &,
                                      IVertexPosInformer<float> const &);
template double EvaluateLinCombination(CVertexLinearCombination<double> const &,
                                       IVertexPosInformer<double> const &);
} // namespace REmath
