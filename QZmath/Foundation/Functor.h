#pragma once
// Small polymorphic function objects. The polygoniser calls a scalar field and
// a triangle sink through them, the circle fit its residuals, the optimiser its
// criteria.

namespace REmath
{
/// Common base: one optional bound pointer (an object the functor works for).
template <class R> class FunctorBase
{
public:
  virtual ~FunctorBase() = default;
  virtual bool isBound() const { return m_bound != nullptr; }

protected:
  explicit FunctorBase(void * bound = nullptr) : m_bound(bound) {}
  FunctorBase(FunctorBase const &) = default;
  FunctorBase & operator=(FunctorBase const &) = default;

  void * m_bound;
};

/// A criterion: called through const pointers, so the call is const.
template <class R, class A1> class Functor1 : public FunctorBase<R>
{
public:
  virtual R operator()(A1 a1) const = 0;

protected:
  using FunctorBase<R>::FunctorBase;
};

template <class R, class A1, class A2> class Functor2 : public FunctorBase<R>
{
public:
  virtual R operator()(A1 a1, A2 a2) = 0;

protected:
  using FunctorBase<R>::FunctorBase;
};

template <class R, class A1, class A2, class A3, class A4> class Functor4 : public FunctorBase<R>
{
public:
  virtual R operator()(A1 a1, A2 a2, A3 a3, A4 a4) = 0;

protected:
  using FunctorBase<R>::FunctorBase;
};

template <class R, class A1, class A2, class A3, class A4, class A5, class A6, class A7>
class Functor7 : public FunctorBase<R>
{
public:
  virtual R operator()(A1 a1, A2 a2, A3 a3, A4 a4, A5 a5, A6 a6, A7 a7) const = 0;

protected:
  using FunctorBase<R>::FunctorBase;
};
} // namespace REmath
