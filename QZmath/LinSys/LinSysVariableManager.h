#pragma once
// The common half of every system storage: numbering of free and fixed
// vertices, the dense matrix of fixed coefficients, the count of equations,
// the sticky spoiled state, right parts and the delivery of solutions.
//
// A subclass decides how the free part of an equation is stored, through
// onAddEquationFreePart and areFreeVariablesDefined, and implements the
// free-matrix reads, the symmetric flag and Copy.
//
// Everything a caller can get wrong spoils the system; nothing clears the
// state except assignment from a clean object:
//  - a vertex defined twice, in either list;
//  - a vertex defined after both the fixed matrix and the free storage exist;
//  - more equations than free vertices;
//  - an equation naming a vertex never defined;
//  - an equation without any free vertex (even one that holds fixed terms);
//  - imitateAddEquation out of turn;
//  - SetFixedVertCoeff outside the fixed matrix.
//
// A system without fixed vertices never gets a fixed matrix, so vertices may
// still be defined after equations were added there. That asymmetry is
// deliberate.

#include <map>
#include <vector>

#include "QZmath/LinSys/LinearSystemInterfaces.h"

namespace REmath
{
template <class T> class CLinSysVariableManager : public ILinearSystemStorage<T>
{
public:
  ~CLinSysVariableManager() override = default;

protected:
  CLinSysVariableManager();
  CLinSysVariableManager(CLinSysVariableManager const &) = default;
  CLinSysVariableManager & operator=(CLinSysVariableManager const &) = default;

  /// Books an equation whose free part a subclass stored by other means: spoils
  /// when `row` is not the next equation, otherwise allocates the fixed matrix
  /// and counts the equation. It does not test the spoiled state and writes no
  /// fixed coefficient; the caller sets those through SetFixedVertCoeff.
  void imitateAddEquation(int row);

private:
  // ILinearSystemReadOnly
  bool onIsCorrectlyDefinedSystem() const override;
  void onSetSingleRightPart(T * rightPart, IVertexPosInformer<T> const & informer) const override;
  int onGetEquationsNumber() const override;
  void onSetSingleSolution(T const * solution, IEqSysResultReciever<T> & reciever) const override;
  bool onIsPositiveDefinite() const override;

  // ILinearSystemStorage
  bool onIsSpoiled() const override;
  int onGetFreeVariablesNumber() const override;
  int onGetFixedVariablesIndex(int vertex) const override;
  int onGetFreeVariablesIndex(int vertex) const override;
  int onGetFixedVertexByIndex(int index) const override;
  int onGetFreeVertexByIndex(int index) const override;
  int onGetFixedVariablesNumber() const override;
  /// 0 outside the fixed matrix.
  T onGetFixedVertCoeff(int row, int fixedIndex) const override;
  void onDefineFixedVertex(int vertex) override;
  void onDefineFreeVertex(int vertex) override;
  void onSpoil() override;
  void onAddEquation(CVertexLinearCombination<T> const & equation) override;
  void onSetPositiveDefinite(bool positiveDefinite) override;
  /// An assignment; a position outside the fixed matrix spoils the system.
  void onSetFixedVertCoeff(int row, int fixedIndex, T value) override;

  /// Stores the free terms of `equation` as row `row` of the free matrix.
  virtual void onAddEquationFreePart(CVertexLinearCombination<T> const & equation, int row) = 0;
  /// Storage for the free matrix has been created.
  virtual bool areFreeVariablesDefined() const = 0;

  void allocateFixedVariableMatrix();
  void onAddEquationFixedPart(CVertexLinearCombination<T> const & equation, int row);
  bool areFixedVariablesDefined() const;
  bool areVariablesDefined() const;
  void defineVertex(int vertex, std::map<int, int> & ownToIndex, std::map<int, int> & ownByIndex,
                    std::map<int, int> const & otherToIndex);

  bool m_bSpoiled;
  std::map<int, int> m_freeVertexToIndex;
  std::map<int, int> m_freeIndexToVertex;
  std::map<int, int> m_fixedVertexToIndex;
  std::map<int, int> m_fixedIndexToVertex;
  /// Row k belongs to equation k, column j to fixed index j; empty until the
  /// first equation of a system with fixed vertices.
  std::vector<std::vector<T>> m_fixedMatrix;
  int m_iEquationsNumber;
  bool m_bPositiveDefinite;
};

extern template class CLinSysVariableManager<float>;
extern template class CLinSysVariableManager<double>;
} // namespace REmath
