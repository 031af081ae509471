#include "QZmath/LinSys/LinSysSolverSparseDss.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include <mkl_dss.h>

#include "QZmath/LinSys/detail/MklThreads.h"
#include "QZmath/LinSys/detail/SolverArguments.h"
#include "QZsys/Progress.h"

static_assert(sizeof(MKL_INT) == sizeof(int), "the library uses the LP64 interface of MKL");

namespace REmath
{
namespace
{
// Carries a failed MKL call to the one place that cleans up.
struct TF_MklDssError
{
};

// MKL prints its diagnostics to the standard output at the default message
// level; only fatal ones are left on, in every call, as the level of a handle
// is whatever the last call set.
constexpr MKL_INT tf_quiet = MKL_DSS_MSG_LVL_FATAL;

void tf_check(MKL_INT status)
{
  if (status != MKL_DSS_SUCCESS)
    throw TF_MklDssError();
}

// Owns a solver handle: the handle goes with the scope, whatever leaves it
// (a failed call, an interruption from the progress counter, no memory).
class TF_DssHandle
{
public:
  TF_DssHandle() = default;
  ~TF_DssHandle() { release(); }
  TF_DssHandle(TF_DssHandle const &) = delete;
  TF_DssHandle & operator=(TF_DssHandle const &) = delete;

  _MKL_DSS_HANDLE_t & ref() { return m_handle; }
  /// Deletes the handle when there is one; the status of the deletion.
  MKL_INT release() noexcept
  {
    if (m_handle == nullptr)
      return MKL_DSS_SUCCESS;
    MKL_INT options = tf_quiet;
    MKL_INT const status = dss_delete(m_handle, options);
    m_handle = nullptr;
    return status;
  }

private:
  _MKL_DSS_HANDLE_t m_handle = nullptr;
};

// A compressed-row matrix read as holding its upper triangle only. The copy
// of a symmetric system keeps only that triangle, but reports full storage;
// without this the solver would take the triangle for the whole matrix.
template <class T> class TF_UpperTriangleView : public ICsrMatrix<T>
{
public:
  explicit TF_UpperTriangleView(ICsrMatrix<T> const & matrix) : m_matrix(matrix) {}

private:
  eCSRindexBase doGetIndexBase() const override { return m_matrix.getIndexBase(); }
  bool doIsUpperTriangleOnlyStored() const override { return true; }
  int doGetMatrixSize() const override { return m_matrix.getMatrixSize(); }
  int doGetNonZeroValuesNumber() const override { return m_matrix.getNonZeroValuesNumber(); }
  T const * doGetCsrValues() const override { return m_matrix.getCsrValues(); }
  int const * doGetCsrColumns() const override { return m_matrix.getCsrColumns(); }
  int const * doGetCsrPointerB() const override { return m_matrix.getCsrPointerB(); }
  int const * doGetCsrPointerE() const override { return m_matrix.getCsrPointerE(); }

  ICsrMatrix<T> const & m_matrix;
};

// The solver works in double: a double array is used in place, a float one
// is widened into `copy`.
double const * tf_asDouble(double const * values, std::size_t, std::vector<double> &) { return values; }
double const * tf_asDouble(float const * values, std::size_t count, std::vector<double> & copy)
{
  copy.assign(values, values + count);
  return copy.data();
}
} // namespace

template <class T> int const CLinSysSolverSparseDss<T>::st_iDssIndexBase;

template <class T>
bool CLinSysSolverSparseDss<T>::solveForExplicitMatrixInternal(int nRightParts, T * solutions,
                                                               ICsrMatrix<T> const & matrix,
                                                               bool positiveDefinite, T const * rightParts,
                                                               CProgressCounter * progress)
{
  TF_DssHandle handle;
  try
  {
    int const n = matrix.getMatrixSize();
    int const base = matrix.getIndexBase();
    if (n <= 0 || nRightParts <= 0 || solutions == nullptr || rightParts == nullptr ||
        (base != eCSRindexBaseZero && base != eCSRindexBaseOne))
      throw TF_MklDssError();

    // Rows a filler never reached read as empty rows.
    std::vector<int> repaired;
    int const * rows = matrix.getCsrPointerB();
    if (!isCsrRowIndexComplete(matrix))
    {
      repaired = makeCompleteCsrRowIndex(matrix);
      rows = repaired.data();
    }
    int const nonZeros = rows[n] - base;
    int const * columns = matrix.getCsrColumns();
    if (nonZeros <= 0 || columns == nullptr || matrix.getCsrValues() == nullptr)
      throw TF_MklDssError();
    std::vector<double> widenedValues;
    double const * values =
        tf_asDouble(matrix.getCsrValues(), static_cast<std::size_t>(nonZeros), widenedValues);

    detail::CSingleMklThreadScope smallSystem(n < detail::st_iMklThreadsMinimumSize);
    MKL_INT createOptions = tf_quiet + (base == eCSRindexBaseZero ? MKL_DSS_ZERO_BASED_INDEXING : 0);
    tf_check(dss_create(handle.ref(), createOptions));

    MKL_INT structure =
        (matrix.isUpperTriangleOnlyStored() ? MKL_DSS_SYMMETRIC : MKL_DSS_NON_SYMMETRIC) + tf_quiet;
    MKL_INT size = n;
    MKL_INT count = nonZeros;
    tf_check(dss_define_structure(handle.ref(), structure, rows, size, size, columns, count));

    {
      CPrgCntSubPhase phase(progress, 0, 5, 0, true);
      MKL_INT order = MKL_DSS_METIS_OPENMP_ORDER + tf_quiet;
      tf_check(dss_reorder(handle.ref(), order, nullptr));
      phase.Finish();
    }
    {
      CPrgCntSubPhase phase(progress, 5, 80, 0, true);
      MKL_INT kind = (positiveDefinite ? MKL_DSS_POSITIVE_DEFINITE : MKL_DSS_INDEFINITE) + tf_quiet;
      tf_check(dss_factor_real(handle.ref(), kind, values));
      phase.Finish();
    }

    std::size_t const total = static_cast<std::size_t>(n) * static_cast<std::size_t>(nRightParts);
    std::vector<double> result(total, 0.0);
    CPrgCntSubPhase phase(progress, 85, 15, 0, true);
    std::vector<double> widenedRightParts;
    double const * rhs = tf_asDouble(rightParts, total, widenedRightParts);
    MKL_INT solveOptions = tf_quiet;
    MKL_INT nRhs = nRightParts;
    tf_check(dss_solve_real(handle.ref(), solveOptions, rhs, nRhs, result.data()));
    for (std::size_t k = 0; k < total; ++k)
      solutions[k] = static_cast<T>(result[k]);

    tf_check(handle.release());
    phase.Finish();
    return true;
  }
  catch (TF_MklDssError const &)
  {
    handle.release();
    return false;
  }
}

template <class T>
bool CLinSysSolverSparseDss<T>::solveForExplicitMatrix(T * solution, ICsrMatrix<T> const & matrix,
                                                       bool positiveDefinite, T const * rightPart,
                                                       CProgressCounter * progress)
{
  return solveForExplicitMatrixInternal(1, solution, matrix, positiveDefinite, rightPart, progress);
}

template <class T>
bool CLinSysSolverSparseDss<T>::onSolveSystem(ILinearSystemReadOnly<T> const & system, int nRightParts,
                                              IVertexPosInformer<T> const ** informers,
                                              IEqSysResultReciever<T> ** recievers,
                                              CProgressCounter * progress)
{
  if (!detail::areRightPartsUsable(nRightParts, informers, recievers))
    return false;

  CPrgCntSubPhase setup(progress, 0, 10, 0, true);
  // A spoiled system may hold a matrix that does not match its equations.
  if (!system.IsCorrectlyDefinedSystem())
    return false;

  ICsrMatrix<T> const * matrix = dynamic_cast<ICsrMatrix<T> const *>(&system);
  CCSRSquareMatrix<T> local;
  TF_UpperTriangleView<T> localUpper(local);
  if (matrix == nullptr || matrix->getIndexBase() != st_iDssIndexBase)
  {
    // Element by element through the read interface: quadratic in the size,
    // meant for the moderate systems of the row storages.
    bool const upperOnly = system.isSymmetric();
    local = LinearSystem2CsrMatrix(system, st_iDssIndexBase, upperOnly);
    matrix = upperOnly ? static_cast<ICsrMatrix<T> const *>(&localUpper) : &local;
  }

  int const n = matrix->getMatrixSize();
  if (system.GetEquationsNumber() != n)
    return false;
  if (nRightParts == 0)
    return true;

  std::size_t const length = static_cast<std::size_t>(n);
  std::vector<T> rightParts(length * static_cast<std::size_t>(nRightParts), T(0));
  std::vector<T> scratch(length, T(0));
  for (int i = 0; i < nRightParts; ++i)
  {
    system.SetSingleRightPart(scratch.data(), *informers[i]);
    std::copy(scratch.begin(), scratch.end(), rightParts.begin() + static_cast<std::ptrdiff_t>(length * i));
  }
  setup.Finish();

  CPrgCntSubPhase solve(progress, 10, 90, 0, true);
  std::vector<T> solutions(rightParts.size(), T(0));
  if (!solveForExplicitMatrixInternal(nRightParts, solutions.data(), *matrix, system.isPositiveDefinite(),
                                      rightParts.data(), progress))
    return false;
  for (int i = 0; i < nRightParts; ++i)
    system.SetSingleSolution(solutions.data() + length * i, *recievers[i]);
  solve.Finish();
  return true;
}

template class CLinSysSolverSparseDss<float>;
template class CLinSysSolverSparseDss<double>;
} // namespace REmath
