#include "QZmath/LinSys/LinSysSolverCore.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "QZmath/Foundation/Matrix.h"
#include "QZmath/LinSys/bicgstab.h"
#include "QZmath/LinSys/detail/MklThreads.h"
#include "QZmath/LinSys/detail/SolverArguments.h"
#include "QZsys/Progress.h"

namespace REmath
{
namespace
{
// The progress of an iteration whose length is only estimated. Every product
// counts as a step against the expected count; the position is the plain
// ratio, which the counter clamps, so a run longer than expected simply sits
// at the end of its range.
void tf_reportProductCall(CProgressCounter * progress, int calls, int expected)
{
  if (progress == nullptr)
    return;
  // Where the estimate runs out the long-job curve would take over; it is
  // evaluated but the counter gets the plain ratio.
  (void)VsPCnt::prgCntLongJobPosition(calls, expected, 0.3);
  // A failed iteration leaves an expectation of 0 for the next right part:
  // that counts as already passed.
  progress->SetPosFloat(expected > 0 ? static_cast<double>(calls) / expected : 1.0);
}

// Expected count for the next right part: half as many again as the last.
int tf_nextExpected(int iterations) { return static_cast<int>(iterations * 1.5 + 1.0); }

template <class T> struct TF_SystemProduct
{
  ILinearSystemReadOnly<T> const * system;
  CProgressCounter * progress;
  int expected;
  int size;
  int calls;

  static void multiply(void * context, T const * in, T * out)
  {
    auto * self = static_cast<TF_SystemProduct *>(context);
    for (int row = 0; row < self->size; ++row)
      out[row] = self->system->ScalarProductByMatrixRow(row, self->size, in);
    ++self->calls;
    tf_reportProductCall(self->progress, self->calls, self->expected);
  }
};

template <class T> struct TF_MatrixProduct
{
  ICsrMatrix<T> const * matrix;
  CProgressCounter * progress;
  int expected;
  int size;
  int calls;

  static void multiply(void * context, T const * in, T * out)
  {
    auto * self = static_cast<TF_MatrixProduct *>(context);
    MatrixMultVector(self->size, out, *self->matrix, in);
    ++self->calls;
    tf_reportProductCall(self->progress, self->calls, self->expected);
  }
};

// The bicgstab tolerance of the core that works through row products.
template <class T> T tf_rowCoreEps() { return static_cast<T>(1e-6); }
} // namespace

// ---- iterative, through row products -------------------------------------------

template <class T>
bool CLinSysSolverCoreBicgstab<T>::onSolveSystem(ILinearSystemReadOnly<T> const & system, int nRightParts,
                                                 IVertexPosInformer<T> const ** informers,
                                                 IEqSysResultReciever<T> ** recievers,
                                                 CProgressCounter * progress)
{
  if (!detail::areRightPartsUsable(nRightParts, informers, recievers))
    return false;
  if (!system.IsCorrectlyDefinedSystem())
    return false;
  if (system.GetEquationsNumber() == 0)
    return true;

  int expected = 1000;
  for (int i = 0; i < nRightParts; ++i)
  {
    CPrgCntSubPhase phase(progress, static_cast<double>(i) / nRightParts, 1.0 / nRightParts, 1, true);
    int const n = system.GetEquationsNumber();
    std::vector<T> b(static_cast<std::size_t>(n), T(0));
    system.SetSingleRightPart(b.data(), *informers[i]);
    std::vector<T> x(static_cast<std::size_t>(n), T(0));

    TF_SystemProduct<T> product{&system, progress, expected, n, 0};
    detail::CSingleMklThreadScope smallSystem(n < detail::st_iMklThreadsMinimumSize);
    int const result =
        bicgstab(n, &TF_SystemProduct<T>::multiply, &product, b.data(), x.data(), tf_rowCoreEps<T>(), -1);
    if (result < 0)
      return false;
    expected = tf_nextExpected(result);
    system.SetSingleSolution(x.data(), *recievers[i]);
  }
  return true;
}

// ---- dense ---------------------------------------------------------------------

template <class T>
bool CLinSysSolverCoreMkl<T>::onSolveSystem(ILinearSystemReadOnly<T> const & system, int nRightParts,
                                            IVertexPosInformer<T> const ** informers,
                                            IEqSysResultReciever<T> ** recievers, CProgressCounter * progress)
{
  if (!detail::areRightPartsUsable(nRightParts, informers, recievers))
    return false;

  CPrgCntSubPhase setup(progress, 0, 20, 0, true);
  if (!system.IsCorrectlyDefinedSystem())
    return false;
  int const n = system.GetEquationsNumber();
  if (n == 0 || nRightParts == 0)
    return true;

  Matrix<T> b(n, nRightParts);
  Matrix<T> x(n, nRightParts);
  for (int i = 0; i < nRightParts; ++i)
    system.SetSingleRightPart(b[i], *informers[i]);
  Matrix<T> a(n, n);
  for (int column = n - 1; column >= 0; --column)
  {
    for (int row = n - 1; row >= 0; --row)
      a(row, column) = system.GetFreeVertCoeff(row, column);
  }
  setup.Finish();

  {
    CPrgCntSubPhase solve(progress, 20, 75, 0, true);
    if (!solveMat(a, b, x))
      return false;
    solve.Finish();
  }

  CPrgCntSubPhase deliver(progress, 95, 5, 0, true);
  for (int i = 0; i < nRightParts; ++i)
    system.SetSingleSolution(x[i], *recievers[i]);
  deliver.Finish();
  return true;
}

// ---- iterative, on compressed rows ---------------------------------------------

template <> float const CLinSysSolverSparseMKL<float>::st_DefaultBicgStabEps = 1e-6f;
// The float value widened, not the double 1e-6.
template <> double const CLinSysSolverSparseMKL<double>::st_DefaultBicgStabEps = static_cast<double>(1e-6f);

template <class T>
CLinSysSolverSparseMKL<T>::CLinSysSolverSparseMKL(T eps, int maxIterations)
    : m_eps(eps), m_iMaxIterations(maxIterations), m_iIterationsUsed(0)
{
}

template <class T> int CLinSysSolverSparseMKL<T>::initialExpectedIterations() const
{
  return m_iMaxIterations >= 1 ? m_iMaxIterations : 1000;
}

template <class T>
int CLinSysSolverSparseMKL<T>::internalSolveForExplicitMatrix(T * solution, ICsrMatrix<T> const & matrix,
                                                              T const * rightPart,
                                                              CProgressCounter * progress,
                                                              int expectedIterations)
{
  int const size = matrix.getMatrixSize();
  TF_MatrixProduct<T> product{&matrix, progress, expectedIterations, size, 0};
  detail::CSingleMklThreadScope smallSystem(size < detail::st_iMklThreadsMinimumSize);
  return bicgstab(size, &TF_MatrixProduct<T>::multiply, &product, rightPart, solution, m_eps,
                  m_iMaxIterations);
}

template <class T>
int CLinSysSolverSparseMKL<T>::solveForExplicitMatrix(T * solution, ICsrMatrix<T> const & matrix,
                                                      T const * rightPart, CProgressCounter * progress)
{
  return internalSolveForExplicitMatrix(solution, matrix, rightPart, progress, initialExpectedIterations());
}

template <class T>
bool CLinSysSolverSparseMKL<T>::onSolveSystem(ILinearSystemReadOnly<T> const & system, int nRightParts,
                                              IVertexPosInformer<T> const ** informers,
                                              IEqSysResultReciever<T> ** recievers,
                                              CProgressCounter * progress)
{
  if (!detail::areRightPartsUsable(nRightParts, informers, recievers))
    return false;

  // A compressed-row storage is its own matrix; anything else is copied.
  CCSRSquareMatrix<T> local;
  auto const * matrix = dynamic_cast<ICsrMatrix<T> const *>(&system);
  if (matrix == nullptr)
  {
    local = LinearSystem2CsrMatrix(system, 0, false);
    matrix = &local;
  }

  int const n = system.GetEquationsNumber();
  // The iteration runs over the matrix size, the right part and the delivery
  // over the equations; the two agree for a correctly defined system, and the
  // arrays are sized for the larger so that a spoiled one cannot overrun them.
  std::size_t const length = static_cast<std::size_t>(std::max(n, matrix->getMatrixSize()));
  m_iIterationsUsed = 0;
  int expected = initialExpectedIterations();
  for (int i = 0; i < nRightParts; ++i)
  {
    CPrgCntSubPhase phase(progress, static_cast<double>(i) / nRightParts, 1.0 / nRightParts, 1, true);
    std::vector<T> b(length, T(0));
    system.SetSingleRightPart(b.data(), *informers[i]);
    // The right part itself is the initial guess.
    std::vector<T> x(b);
    int const result = internalSolveForExplicitMatrix(x.data(), *matrix, b.data(), progress, expected);
    // A breakdown (-1) is counted as it comes and its solution delivered.
    expected = tf_nextExpected(result);
    m_iIterationsUsed += result;
    system.SetSingleSolution(x.data(), *recievers[i]);
  }
  return true;
}

template class ILinSysSolverCore<float>;
template class ILinSysSolverCore<double>;
template class CLinSysSolverCoreBicgstab<float>;
template class CLinSysSolverCoreBicgstab<double>;
template class CLinSysSolverCoreMkl<float>;
template class CLinSysSolverCoreMkl<double>;
template class CLinSysSolverSparseMKL<float>;
template class CLinSysSolverSparseMKL<double>;
} // namespace REmath
