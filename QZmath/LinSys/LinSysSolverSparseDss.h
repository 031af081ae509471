#pragma once
// The direct sparse core: MKL's Direct Sparse Solver on the compressed rows.
//
// One reordering and one factorisation serve all right parts of a solve.
// The structure is declared symmetric when the matrix stores only its upper
// triangle, otherwise non-symmetric; the factorisation is Cholesky when the
// caller promises positive definiteness, otherwise indefinite. MKL's own
// messages are switched off: a failure shows only as `false`.
//
// Every failure of MKL (a structure it rejects, a zero pivot of a matrix
// declared positive definite but not, a size-0 system, a matrix without
// elements) gives false, and the solver handle is always released, also when
// an interruption from the progress counter passes through.
//
// The work is in double precision for both members: the float member widens
// the matrix values and the right parts and narrows the solutions.

#include "QZmath/LinSys/LinSysSolverCore.h"

namespace REmath
{
template <class T> class CLinSysSolverSparseDss : public ILinSysSolverCore<T>
{
public:
  /// The index base the solver takes without conversion.
  static int const st_iDssIndexBase = 1;

  CLinSysSolverSparseDss() = default;

  /// One right part. `solution` and `rightPart` hold `getMatrixSize()`
  /// values. The matrix may have either index base; rows never filled count
  /// as empty (and make the matrix singular). True on success.
  bool solveForExplicitMatrix(T * solution, ICsrMatrix<T> const & matrix, bool positiveDefinite,
                              T const * rightPart, CProgressCounter * progress);

private:
  /// A system that is a matrix of index base 1 already (a CCSRSstorage) is
  /// used as it stands; any other is copied into a local matrix of base 1,
  /// only its upper triangle when the system is symmetric. False also for a
  /// system that is not correctly defined and for unusable arguments.
  bool onSolveSystem(ILinearSystemReadOnly<T> const & system, int nRightParts,
                     IVertexPosInformer<T> const ** informers, IEqSysResultReciever<T> ** recievers,
                     CProgressCounter * progress) override;
  /// `nRightParts` right parts of `getMatrixSize()` values each, one after
  /// the other in `rightParts`; the solutions go to `solutions` in the same
  /// layout.
  bool solveForExplicitMatrixInternal(int nRightParts, T * solutions, ICsrMatrix<T> const & matrix,
                                      bool positiveDefinite, T const * rightParts,
                                      CProgressCounter * progress);
};

extern template class CLinSysSolverSparseDss<float>;
extern template class CLinSysSolverSparseDss<double>;
} // namespace REmath
