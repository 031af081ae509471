#pragma once
// Solving a large system by blocks.
//
// The unknowns are cut at ascending boundaries into ranges whose diagonal
// blocks are nearly independent. The small blocks (the leaves) are solved
// exactly by the direct sparse solver, all at the same time; neighbouring
// blocks are then merged pairwise up a binary tree, and each merged block is
// solved by the iterative solver, started from the solutions of its two
// halves. The root is the whole system. Each level starts close to its
// answer, so few iterations are needed there, and the direct solver never
// sees the whole matrix. The coupling between blocks is ignored on the lower
// levels and taken in only where blocks merge.
//
// The system must be a compressed-row matrix (a CCSRSstorage); any other
// system is not solved at all, and the solution delivered is all zeros.

#include <vector>

#include "QZmath/LinSys/LinSysSolverCompose.h"

namespace REmath
{
/// The block-solving core.
///
/// Boundaries are indices into the unknowns. A solve first puts 0 in front
/// of them unless they start with it and appends the number of equations n
/// unless they end with it; the stored boundaries stay changed. They must
/// then rise (a repeated value gives an empty block) and stay within 0..n,
/// or the solve returns false without solving anything. With k+1 boundaries
/// there are k leaves; {0, n} makes the whole system one leaf, solved
/// directly, with no iteration.
///
/// The tasks of one tree level run at once, at most one per physical core
/// (CVescaThreadingTasksHelper::getNumOfPhisicalThread()), through
/// CVescaThreadingTasksHelper::performInParallel; while several run, MKL is
/// held to one thread in each. Only the calling thread touches the progress
/// counter, between batches of tasks.
///
/// A leaf whose direct solve fails keeps zeros in its rows and goes
/// unreported; the merged blocks above it start from those zeros. A merged
/// block whose iteration breaks down (see bicgstab: among others, a start
/// that already solves it exactly, or a block with no rows) makes the solve
/// return false, and that right part is not delivered; right parts before it
/// were.
template <class T> class CLinSysSolverDecomposed : public ILinSysSolverCore<T>
{
public:
  /// `eps` and `maxIterations` are those of the merged blocks (bicgstab's);
  /// `maxIterations` of 0 or less sets no limit.
  CLinSysSolverDecomposed(std::vector<int> const & boundaries, double eps, int maxIterations);

  /// Sum of the iterations of all merged blocks over all right parts of the
  /// last solve; the leaves add 0.
  int getIterationsUsed() const { return m_iIterationsUsed; }
  std::vector<int> const & getBoundaries() const { return m_boundaries; }

private:
  bool onSolveSystem(ILinearSystemReadOnly<T> const & system, int nRightParts,
                     IVertexPosInformer<T> const ** informers, IEqSysResultReciever<T> ** recievers,
                     CProgressCounter * progress) override;

  std::vector<int> m_boundaries;
  double m_eps;
  int m_iMaxIterations;
  int m_iIterationsUsed;
};

namespace detail
{
/// A composed solver that sets no parameters: no boundaries, which makes one
/// direct solve of the whole system.
template <class T> struct CComposedCoreMaker<CLinSysSolverDecomposed<T>>
{
  static CLinSysSolverDecomposed<T> make()
  {
    return CLinSysSolverDecomposed<T>(std::vector<int>(), -1.0, -1);
  }
};
} // namespace detail

/// The complete block solver over compressed rows (index base 1 by default).
/// A new core is made for each solve, so the boundaries given here are the
/// ones every solve starts from.
template <class T>
class CLinSysSolverSpaceDecomposer
    : public CLinSysSolverCompose<T, CCSRSstorage<T>, CLinSysSolverDecomposed<T>>
{
public:
  CLinSysSolverSpaceDecomposer(std::vector<int> const & boundaries, double eps, int maxIterations);
  CLinSysSolverSpaceDecomposer * Copy() const override { return new CLinSysSolverSpaceDecomposer(*this); }

  /// The core's count of the last solve.
  int getIterationsUsed() const { return m_iIterationsUsed; }

private:
  bool OnSolveSystem(int nRightParts, IVertexPosInformer<T> const ** informers,
                     IEqSysResultReciever<T> ** recievers, CProgressCounter * progress) override;

  std::vector<int> m_boundaries;
  double m_eps;
  int m_iMaxIterations;
  int m_iIterationsUsed;
};

extern template class CLinSysSolverDecomposed<float>;
extern template class CLinSysSolverDecomposed<double>;
extern template class CLinSysSolverCompose<float, CCSRSstorage<float>, CLinSysSolverDecomposed<float>>;
extern template class CLinSysSolverCompose<double, CCSRSstorage<double>, CLinSysSolverDecomposed<double>>;
extern template class CLinSysSolverSpaceDecomposer<float>;
extern template class CLinSysSolverSpaceDecomposer<double>;
} // namespace REmath
