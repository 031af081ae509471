#pragma once
// The three interfaces of a linear system over vertices.
//
//  - ILinearSystemReadOnly<T>: what a solver core sees: equations, the free
//    matrix row by row, right parts and the delivery of solutions.
//  - ILinearSystemStorage<T>: adds what builds a system: vertex numbering,
//    equations, fixed coefficients and the spoiled state.
//  - IVertexPosLinearSystem<T>: the whole solver a client holds. It owns a
//    storage by composition and does not derive from the two above.
//
// The system solved is F x = -G p: row k of F holds the coefficients of the
// free vertices in equation k, row k of G those of the fixed vertices, p are
// the fixed positions of one informer, x the free positions. Free and fixed
// indices count from 0 in order of definition; a failed lookup gives -1.
//
// Misuse never throws: it spoils the system, a sticky state that every later
// call sees through IsSpoiled and IsCorrectlyDefinedSystem.

#include "QZmath/LinSys/VertexLinearCombination.h"

class CProgressCounter;

namespace REmath
{
template <class T> class ILinearSystemReadOnly
{
public:
  virtual ~ILinearSystemReadOnly() = default;
  virtual bool isSymmetric() const { return onIsSymmetric(); }
  virtual bool isPositiveDefinite() const { return onIsPositiveDefinite(); }

  bool IsCorrectlyDefinedSystem() const { return onIsCorrectlyDefinedSystem(); }
  int GetEquationsNumber() const { return onGetEquationsNumber(); }
  T GetFreeVertCoeff(int row, int column) const { return onGetFreeVertCoeff(row, column); }
  /// Writes one value per equation into `rightPart`.
  void SetSingleRightPart(T * rightPart, IVertexPosInformer<T> const & informer) const
  {
    onSetSingleRightPart(rightPart, informer);
  }
  /// Product of row `row` of the free matrix with `vector` of length `size`.
  T ScalarProductByMatrixRow(int row, int size, T const * vector) const
  {
    return onScalarProductByMatrixRow(row, size, vector);
  }
  /// Hands `solution` (one value per equation) back vertex by vertex.
  void SetSingleSolution(T const * solution, IEqSysResultReciever<T> & reciever) const
  {
    onSetSingleSolution(solution, reciever);
  }

protected:
  ILinearSystemReadOnly() = default;
  ILinearSystemReadOnly(ILinearSystemReadOnly const &) = default;
  ILinearSystemReadOnly & operator=(ILinearSystemReadOnly const &) = default;

private:
  virtual bool onIsCorrectlyDefinedSystem() const = 0;
  virtual void onSetSingleRightPart(T * rightPart, IVertexPosInformer<T> const & informer) const = 0;
  virtual int onGetEquationsNumber() const = 0;
  virtual T onScalarProductByMatrixRow(int row, int size, T const * vector) const = 0;
  /// One element of the free matrix, 0 when not stored.
  virtual T onGetFreeVertCoeff(int row, int column) const = 0;
  virtual void onSetSingleSolution(T const * solution, IEqSysResultReciever<T> & reciever) const = 0;
  /// The free matrix is symmetric and only its upper triangle needs storing.
  virtual bool onIsSymmetric() const = 0;
  /// The caller promises positive definiteness.
  virtual bool onIsPositiveDefinite() const = 0;
};

template <class T> class ILinearSystemStorage : public ILinearSystemReadOnly<T>
{
public:
  bool IsSpoiled() const { return onIsSpoiled(); }
  int GetFreeVariablesNumber() const { return onGetFreeVariablesNumber(); }
  int GetFixedVariablesIndex(int vertex) const { return onGetFixedVariablesIndex(vertex); }
  int GetFreeVariablesIndex(int vertex) const { return onGetFreeVariablesIndex(vertex); }
  int GetFixedVertexByIndex(int index) const { return onGetFixedVertexByIndex(index); }
  int GetFreeVertexByIndex(int index) const { return onGetFreeVertexByIndex(index); }
  int GetFixedVariablesNumber() const { return onGetFixedVariablesNumber(); }
  T GetFixedVertCoeff(int row, int fixedIndex) const { return onGetFixedVertCoeff(row, fixedIndex); }
  T GetFreeVertCoeff(int row, int column) const
  {
    return ILinearSystemReadOnly<T>::GetFreeVertCoeff(row, column);
  }
  void DefineFixedVertex(int vertex) { onDefineFixedVertex(vertex); }
  void DefineFreeVertex(int vertex) { onDefineFreeVertex(vertex); }
  void Spoil() { onSpoil(); }
  void AddEquation(CVertexLinearCombination<T> const & equation) { onAddEquation(equation); }
  void setSymmetric(bool symmetric) { onSetSymmetric(symmetric); }
  void setPositiveDefinite(bool positiveDefinite) { onSetPositiveDefinite(positiveDefinite); }
  void SetFixedVertCoeff(int row, int fixedIndex, T value) { onSetFixedVertCoeff(row, fixedIndex, value); }

  /// A new object of the most derived storage type, owned by the caller.
  virtual ILinearSystemStorage * Copy() const = 0;

protected:
  ILinearSystemStorage() = default;
  ILinearSystemStorage(ILinearSystemStorage const &) = default;
  ILinearSystemStorage & operator=(ILinearSystemStorage const &) = default;

private:
  virtual bool onIsSpoiled() const = 0;
  virtual int onGetFreeVariablesNumber() const = 0;
  virtual int onGetFixedVariablesIndex(int vertex) const = 0;
  virtual int onGetFreeVariablesIndex(int vertex) const = 0;
  virtual int onGetFixedVertexByIndex(int index) const = 0;
  virtual int onGetFreeVertexByIndex(int index) const = 0;
  virtual int onGetFixedVariablesNumber() const = 0;
  virtual T onGetFixedVertCoeff(int row, int fixedIndex) const = 0;
  virtual void onDefineFixedVertex(int vertex) = 0;
  virtual void onDefineFreeVertex(int vertex) = 0;
  virtual void onSpoil() = 0;
  virtual void onAddEquation(CVertexLinearCombination<T> const & equation) = 0;
  virtual void onSetSymmetric(bool symmetric) = 0;
  virtual void onSetPositiveDefinite(bool positiveDefinite) = 0;
  virtual void onSetFixedVertCoeff(int row, int fixedIndex, T value) = 0;
};

/// The whole solver as a client holds it. Calling order:
///  1. optionally setSymmetric, setPositiveDefinite;
///  2. DefineFreeVertex once per unknown, DefineFixedVertex once per known vertex;
///  3. AddEquation once per free vertex: equation k becomes row k;
///  4. IsCorrectlyDefinedSystem, then SolveSystem, as often as needed.
template <class T> class IVertexPosLinearSystem
{
public:
  virtual ~IVertexPosLinearSystem() = default;
  virtual void DefineFreeVertex(int vertex) { OnDefineFreeVertex(vertex); }
  virtual void DefineFixedVertex(int vertex) { OnDefineFixedVertex(vertex); }
  /// A new solver of the most derived type, owned by the caller.
  virtual IVertexPosLinearSystem * Copy() const = 0;

  /// Solves for `nRightParts` sets of fixed positions at once. `informers` and
  /// `recievers` are parallel arrays of `nRightParts` pointers; `progress` may
  /// be null. True on success.
  bool SolveSystem(int nRightParts, IVertexPosInformer<T> const ** informers,
                   IEqSysResultReciever<T> ** recievers, CProgressCounter * progress)
  {
    return OnSolveSystem(nRightParts, informers, recievers, progress);
  }
  void AddEquation(CVertexLinearCombination<T> const & equation) { OnAddEquation(equation); }
  bool IsCorrectlyDefinedSystem() const { return OnIsCorrectlyDefinedSystem(); }
  bool IsSpoiled() const { return OnIsSpoiled(); }
  void setSymmetric(bool symmetric) { onSetSymmetric(symmetric); }
  bool isSymmetric() const { return onIsSymmetric(); }
  bool isPositiveDefinite() const { return onIsPositiveDefinite(); }
  void setPositiveDefinite(bool positiveDefinite) { onSetPositiveDefinite(positiveDefinite); }
  T GetFreeVertCoeff(int row, int column) const { return onGetFreeVertCoeff(row, column); }
  void SetFixedVertCoeff(int row, int fixedIndex, T value) { onSetFixedVertCoeff(row, fixedIndex, value); }

protected:
  IVertexPosLinearSystem() = default;
  IVertexPosLinearSystem(IVertexPosLinearSystem const &) = default;
  IVertexPosLinearSystem & operator=(IVertexPosLinearSystem const &) = default;

private:
  virtual bool OnSolveSystem(int nRightParts, IVertexPosInformer<T> const ** informers,
                             IEqSysResultReciever<T> ** recievers, CProgressCounter * progress) = 0;
  virtual void OnDefineFixedVertex(int vertex) = 0;
  virtual void OnDefineFreeVertex(int vertex) = 0;
  virtual void OnAddEquation(CVertexLinearCombination<T> const & equation) = 0;
  virtual bool OnIsCorrectlyDefinedSystem() const = 0;
  virtual bool OnIsSpoiled() const = 0;
  virtual void onSetSymmetric(bool symmetric) = 0;
  virtual bool onIsSymmetric() const = 0;
  virtual bool onIsPositiveDefinite() const = 0;
  virtual void onSetPositiveDefinite(bool positiveDefinite) = 0;
  virtual T onGetFreeVertCoeff(int row, int column) const = 0;
  virtual void onSetFixedVertCoeff(int row, int fixedIndex, T value) = 0;
};

extern template class ILinearSystemReadOnly<float>;
extern template class ILinearSystemReadOnly<double>;
extern template class ILinearSystemStorage<float>;
extern template class ILinearSystemStorage<double>;
extern template class IVertexPosLinearSystem<float>;
extern template class IVertexPosLinearSystem<double>;
} // namespace REmath
