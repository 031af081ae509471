#pragma once
// One equation of a linear system over vertices: a linear combination of
// caller-chosen integer vertex identifiers that must vanish, together with the
// two callback interfaces through which positions enter and leave a solver.
//
// Iteration over a combination always runs in ascending vertex identifier; the
// compressed-row storage relies on it to produce rows with rising columns.
//
// The templates exist for `float` and `double` only (instantiated in the .cpp).

namespace REmath
{
/// One term of an equation: a vertex and its coefficient.
template <class T> class CVertexMonom
{
public:
  CVertexMonom() : m_iVertexIdx(0), m_coeff(0) {}
  CVertexMonom(int vertex, T coeff) : m_iVertexIdx(vertex), m_coeff(coeff) {}
  CVertexMonom(CVertexMonom const &) = default;
  virtual ~CVertexMonom() = default;
  virtual CVertexMonom & operator=(CVertexMonom const & other);

  int GetVertexIdx() const { return m_iVertexIdx; }
  int & VertexIdx() { return m_iVertexIdx; }
  T GetCoeff() const { return m_coeff; }
  T & Coeff() { return m_coeff; }

private:
  int m_iVertexIdx;
  T m_coeff;
};

template <class T> class CVertexLinearCombination;
template <class T> class CLinearCombIterator;

/// Two iterators are equal when they stand at the same term; the copied term
/// they carry takes no part in the comparison.
template <class T> bool operator==(CLinearCombIterator<T> const & a, CLinearCombIterator<T> const & b);
template <class T> bool operator!=(CLinearCombIterator<T> const & a, CLinearCombIterator<T> const & b)
{
  return !(a == b);
}

/// Forward iterator over the terms of a combination in ascending vertex order.
/// It carries a copy of the current term, so the term it shows stays valid
/// while the combination changes coefficients, but adding new vertices to the
/// combination during a walk is not allowed.
template <class T> class CLinearCombIterator
{
public:
  CLinearCombIterator(CLinearCombIterator const & other);
  virtual ~CLinearCombIterator();
  virtual CLinearCombIterator & operator=(CLinearCombIterator const & other);

  CLinearCombIterator & operator++();
  CLinearCombIterator operator++(int);
  CVertexMonom<T> const & operator*() const { return m_current; }
  CVertexMonom<T> const * operator->() const { return &m_current; }

  friend bool operator==<T>(CLinearCombIterator const & a, CLinearCombIterator const & b);

private:
  friend class CVertexLinearCombination<T>;
  struct SBody;

  CLinearCombIterator();
  explicit CLinearCombIterator(SBody * body);
  void refreshCurrent();

  SBody * m_pBody;
  CVertexMonom<T> m_current;
};

/// An equation: at most one term per vertex, terms kept in ascending vertex
/// order, zero coefficients kept (nothing prunes them). Copies are deep.
template <class T> class CVertexLinearCombination
{
public:
  typedef CLinearCombIterator<T> const_iterator;

  CVertexLinearCombination();
  CVertexLinearCombination(CVertexLinearCombination const & other);
  virtual ~CVertexLinearCombination();
  virtual CVertexLinearCombination & operator=(CVertexLinearCombination const & other);

  /// Accumulates: a vertex already present gets `coeff` added to its coefficient.
  void AddVertex(int vertex, T coeff);
  /// The coefficient of `vertex`, 0 when absent; never inserts.
  T VertexCoeff(int vertex) const;

  CLinearCombIterator<T> const begin() const;
  CLinearCombIterator<T> const end() const;

  CVertexLinearCombination & operator*=(T factor);
  /// Term by term with the semantics of `AddVertex`; adding a combination to
  /// itself doubles it.
  CVertexLinearCombination & operator+=(CVertexLinearCombination const & other);

private:
  struct SBody;
  SBody * m_pBody;
};

/// The source of fixed positions: one scalar per vertex.
template <class T> class IVertexPosInformer
{
public:
  virtual ~IVertexPosInformer() = default;
  virtual T GetVertexPosition(int vertex) const = 0;
};

/// The sink of solved positions: one call per free vertex.
template <class T> class IEqSysResultReciever
{
public:
  virtual ~IEqSysResultReciever() = default;
  virtual void SetVertexPosition(int vertex, T position) = 0;
};

/// Sum of coefficient times position over the terms, in iteration order and
/// starting from 0. A term whose coefficient is exactly 0 is skipped, so the
/// informer is never asked about its vertex.
template <class T>
T EvaluateLinCombination(CVertexLinearCombination<T> const & combination,
                         IVertexPosInformer<T> const & informer);

extern template class CVertexMonom<float>;
extern template class CVertexMonom<double>;
extern template class CLinearCombIterator<float>;
extern template class CLinearCombIterator<double>;
extern template class CVertexLinearCombination<float>;
extern template class CVertexLinearCombination<double>;
extern template bool operator==(CLinearCombIterator<float> const &, CLinearCombIterator<float> const &);
extern template bool operator==(CLinearCombIterator<double> const &, CLinearCombIterator<double> const &);
extern template float EvaluateLinCombination(CVertexLinearCombination<float> const &,
                                             IVertexPosInformer<float> const &);
extern template double EvaluateLinCombination(CVertexLinearCombination<double> const &,
                                              IVertexPosInformer<double> const &);
} // namespace REmath
