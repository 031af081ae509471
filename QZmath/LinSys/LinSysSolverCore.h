#pragma once
// Solver cores: the half of a solver that takes any read-only system and
// solves it for a number of right parts. A storage keeps vertices and
// equations, a core solves; CLinSysSolverCompose joins the two.
//
//  - CLinSysSolverCoreBicgstab: iterative, with no matrix at all: the product
//    goes row by row through ScalarProductByMatrixRow.
//  - CLinSysSolverCoreMkl: dense LU through LAPACK, for small systems.
//  - CLinSysSolverSparseMKL: iterative on the compressed rows through MKL's
//    sparse product; the direct sparse core is in LinSysSolverSparseDss.h.
//
// A core keeps nothing from one solve to the next, apart from the iteration
// count of the last solve of CLinSysSolverSparseMKL. Interruption from the
// progress counter (CUserIntrException) passes through every core.

#include "QZmath/LinSys/CSRSquareMatrix.h"
#include "QZmath/LinSys/LinearSystemInterfaces.h"

class CProgressCounter;

namespace REmath
{
template <class T> class ILinSysSolverCore
{
public:
  virtual ~ILinSysSolverCore() = default;

  /// Solves `system` for `nRightParts` sets of fixed positions: informer i
  /// gives the positions, reciever i gets the solution. `progress` may be
  /// null. True on success.
  bool solveSystem(ILinearSystemReadOnly<T> const & system, int nRightParts,
                   IVertexPosInformer<T> const ** informers, IEqSysResultReciever<T> ** recievers,
                   CProgressCounter * progress)
  {
    return onSolveSystem(system, nRightParts, informers, recievers, progress);
  }

protected:
  ILinSysSolverCore() = default;
  ILinSysSolverCore(ILinSysSolverCore const &) = default;
  ILinSysSolverCore & operator=(ILinSysSolverCore const &) = default;

private:
  virtual bool onSolveSystem(ILinearSystemReadOnly<T> const & system, int nRightParts,
                             IVertexPosInformer<T> const ** informers, IEqSysResultReciever<T> ** recievers,
                             CProgressCounter * progress) = 0;
};

/// Stabilised bi-conjugate gradients through the system's own row products,
/// with eps 1e-6 and no iteration limit of its own, from a zero start. The
/// right parts are solved one after the other; each one's progress expects
/// half as many iterations again as the previous one took.
///
/// False when the system is not correctly defined (spoiled, or equations
/// missing), when the arguments are unusable, or when the iteration breaks
/// down on a right part; solutions of right parts before it were delivered.
/// A system without equations gives true and asks the informers nothing.
template <class T> class CLinSysSolverCoreBicgstab : public ILinSysSolverCore<T>
{
private:
  bool onSolveSystem(ILinearSystemReadOnly<T> const & system, int nRightParts,
                     IVertexPosInformer<T> const ** informers, IEqSysResultReciever<T> ** recievers,
                     CProgressCounter * progress) override;
};

/// Dense LU through LAPACK: the free matrix is copied into a dense matrix and
/// all right parts are solved with one factorisation. False for a system that
/// is not correctly defined, for unusable arguments, and for a singular
/// matrix. A system without equations gives true.
template <class T> class CLinSysSolverCoreMkl : public ILinSysSolverCore<T>
{
private:
  bool onSolveSystem(ILinearSystemReadOnly<T> const & system, int nRightParts,
                     IVertexPosInformer<T> const ** informers, IEqSysResultReciever<T> ** recievers,
                     CProgressCounter * progress) override;
};

/// Stabilised bi-conjugate gradients on the compressed rows, the product
/// going through MKL's sparse routines. A system that is a matrix already (a
/// CCSRSstorage) is used as it stands; any other is first copied into a
/// local compressed-row matrix.
///
/// Each right part starts from itself as the initial guess. A breakdown is
/// not a failure here: the solution reached is delivered, the iteration count
/// goes down by one, and the solve goes on, so onSolveSystem returns true for
/// every usable argument, without testing whether the system is correctly
/// defined. Only unusable arguments (a negative count, null pointers) give
/// false.
template <class T> class CLinSysSolverSparseMKL : public ILinSysSolverCore<T>
{
public:
  /// The eps of a composed solver that makes this core without parameters:
  /// 1e-6 in float precision for both members, so the double one holds
  /// 9.999999974752427e-07.
  static T const st_DefaultBicgStabEps;

  /// `maxIterations` of 0 or less sets no limit.
  CLinSysSolverSparseMKL(T eps, int maxIterations);

  T getBicgstabEps() const { return m_eps; }
  void setBicgstabEps(T eps) { m_eps = eps; }
  int getMaxIterationsAllowed() const { return m_iMaxIterations; }
  void setMaxIterationsAllowed(int maxIterations) { m_iMaxIterations = maxIterations; }
  /// Sum of the iteration counts of all right parts of the last solve, -1 for
  /// each that broke down; 0 before the first.
  int getIterationsUsed() const { return m_iIterationsUsed; }

  /// One right part of `matrix`, starting from `solution` as the initial
  /// guess; returns the iteration count, -1 on breakdown (see bicgstab). Both
  /// arrays hold `getMatrixSize()` values.
  int solveForExplicitMatrix(T * solution, ICsrMatrix<T> const & matrix, T const * rightPart,
                             CProgressCounter * progress);

private:
  bool onSolveSystem(ILinearSystemReadOnly<T> const & system, int nRightParts,
                     IVertexPosInformer<T> const ** informers, IEqSysResultReciever<T> ** recievers,
                     CProgressCounter * progress) override;
  int internalSolveForExplicitMatrix(T * solution, ICsrMatrix<T> const & matrix, T const * rightPart,
                                     CProgressCounter * progress, int expectedIterations);
  /// The progress estimate before any count is known.
  int initialExpectedIterations() const;

  T m_eps;
  int m_iMaxIterations;
  int m_iIterationsUsed;
};

template <> float const CLinSysSolverSparseMKL<float>::st_DefaultBicgStabEps;
template <> double const CLinSysSolverSparseMKL<double>::st_DefaultBicgStabEps;

extern template class ILinSysSolverCore<float>;
extern template class ILinSysSolverCore<double>;
extern template class CLinSysSolverCoreBicgstab<float>;
extern template class CLinSysSolverCoreBicgstab<double>;
extern template class CLinSysSolverCoreMkl<float>;
extern template class CLinSysSolverCoreMkl<double>;
extern template class CLinSysSolverSparseMKL<float>;
extern template class CLinSysSolverSparseMKL<double>;
} // namespace REmath
