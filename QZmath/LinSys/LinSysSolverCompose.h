#pragma once
// A complete solver is a storage and a core joined: the storage keeps vertices
// and equations, the core solves whatever read-only system it is given.
// CLinSysSolverCompose owns one storage and makes a fresh core on the stack
// for each solve, so a solve changes nothing in the storage and a solver can
// be solved again and again with new fixed positions.
//
// The ready solvers:
//   CLinSysSolverMKL                  row storage of dense rows, dense LU (small systems)
//   CSparseLinSysSolver               row storage of sparse rows, direct sparse solver
//   CSparseStoreSparseLinSysSolver    compressed rows of base 1, direct sparse solver
//   CSparseStoreBicgstabLinSysSolver  compressed rows of base 0, iterative solver
//   CLinSysSolverSpaceDecomposer      compressed rows, blocks solved directly and merged
//                                     iteratively (LinSysSolverDecomposed.h)
//
// The compressed-row storages take their free vertices in ascending order
// (see CSRSstorage.h); a large system is best filled through
// getStorageRefMod() and the storage's bulk operations.

#include "QZmath/LinSys/CSRSstorage.h"
#include "QZmath/LinSys/LinSysSolverCore.h"
#include "QZmath/LinSys/LinSysSolverSparseDss.h"
#include "QZmath/LinSys/VPLSstorage.h"

namespace REmath
{
namespace detail
{
/// How a composed solver makes its core for one solve: by the default
/// constructor, unless a core's header says otherwise.
template <class Core> struct CComposedCoreMaker
{
  static Core make() { return Core(); }
};

/// The iterative core of a composed solver that sets no parameters: the
/// default eps and no iteration limit.
template <class T> struct CComposedCoreMaker<CLinSysSolverSparseMKL<T>>
{
  static CLinSysSolverSparseMKL<T> make()
  {
    return CLinSysSolverSparseMKL<T>(CLinSysSolverSparseMKL<T>::st_DefaultBicgStabEps, -1);
  }
};
} // namespace detail

template <class T, class Storage, class Core> class CLinSysSolverCompose : public IVertexPosLinearSystem<T>
{
public:
  typedef Storage StorageType;
  typedef Core CoreType;

  CLinSysSolverCompose() = default;
  CLinSysSolverCompose(CLinSysSolverCompose const &) = default;
  CLinSysSolverCompose & operator=(CLinSysSolverCompose const &) = default;
  ~CLinSysSolverCompose() override = default;

  /// A copy made by the copy constructor, owned by the caller.
  CLinSysSolverCompose * Copy() const override { return new CLinSysSolverCompose(*this); }

  Storage & getStorageRefMod() { return m_storage; }
  Storage const & getStorageRef() const { return m_storage; }

protected:
  /// What the plain composition does for a solve: a core made for this call
  /// solves the storage.
  bool solveWithCore(Core & core, int nRightParts, IVertexPosInformer<T> const ** informers,
                     IEqSysResultReciever<T> ** recievers, CProgressCounter * progress)
  {
    return core.solveSystem(m_storage, nRightParts, informers, recievers, progress);
  }

private:
  bool OnSolveSystem(int nRightParts, IVertexPosInformer<T> const ** informers,
                     IEqSysResultReciever<T> ** recievers, CProgressCounter * progress) override
  {
    Core core = detail::CComposedCoreMaker<Core>::make();
    return solveWithCore(core, nRightParts, informers, recievers, progress);
  }
  void OnDefineFixedVertex(int vertex) override { m_storage.DefineFixedVertex(vertex); }
  void OnDefineFreeVertex(int vertex) override { m_storage.DefineFreeVertex(vertex); }
  void OnAddEquation(CVertexLinearCombination<T> const & equation) override
  {
    m_storage.AddEquation(equation);
  }
  bool OnIsCorrectlyDefinedSystem() const override { return m_storage.IsCorrectlyDefinedSystem(); }
  bool OnIsSpoiled() const override { return m_storage.IsSpoiled(); }
  void onSetSymmetric(bool symmetric) override { m_storage.setSymmetric(symmetric); }
  bool onIsSymmetric() const override { return m_storage.isSymmetric(); }
  bool onIsPositiveDefinite() const override { return m_storage.isPositiveDefinite(); }
  void onSetPositiveDefinite(bool positiveDefinite) override
  {
    m_storage.setPositiveDefinite(positiveDefinite);
  }
  T onGetFreeVertCoeff(int row, int column) const override { return m_storage.GetFreeVertCoeff(row, column); }
  void onSetFixedVertCoeff(int row, int fixedIndex, T value) override
  {
    m_storage.SetFixedVertCoeff(row, fixedIndex, value);
  }

  Storage m_storage;
};

/// Dense LU over rows stored in full: for small systems.
template <class T>
class CLinSysSolverMKL
    : public CLinSysSolverCompose<T, CVPLSstorage<T, CStdVectorAsVPLSstorageRow<T>>, CLinSysSolverCoreMkl<T>>
{
public:
  CLinSysSolverMKL * Copy() const override { return new CLinSysSolverMKL(*this); }
};

/// The direct sparse solver over rows kept as sparse vectors; the rows are
/// copied into a compressed-row matrix for each solve.
template <class T>
class CSparseLinSysSolver : public CLinSysSolverCompose<T, CVPLSstorage<T, CSparseVectorAsVPLSstorageRow<T>>,
                                                        CLinSysSolverSparseDss<T>>
{
public:
  CSparseLinSysSolver * Copy() const override { return new CSparseLinSysSolver(*this); }
};

/// The direct sparse solver on compressed rows of index base 1, which it
/// factorises where they stand.
template <class T>
class CSparseStoreSparseLinSysSolver
    : public CLinSysSolverCompose<T, CCSRSstorage<T>, CLinSysSolverSparseDss<T>>
{
public:
  /// Index base 1; the expected elements per row are set when above 0.
  explicit CSparseStoreSparseLinSysSolver(int expectedElementsPerLine);
  CSparseStoreSparseLinSysSolver * Copy() const override { return new CSparseStoreSparseLinSysSolver(*this); }

  /// Reserves room for `count` elements in the matrix when above 0. The
  /// matrix is started afresh by its first equation, so a reservation made
  /// before it is lost; the storage's reserveMatrixMemory, called once the
  /// vertices are defined, starts the matrix and reserves in one go.
  void reserveMemory(int count);
};

/// The iterative solver on compressed rows of index base 0, through MKL's
/// sparse product, with its own tolerance and iteration limit.
template <class T>
class CSparseStoreBicgstabLinSysSolver
    : public CLinSysSolverCompose<T, CCSRSstorage<T>, CLinSysSolverSparseMKL<T>>
{
public:
  /// Index base 0; the expected elements per row are set when above 0.
  /// `maxIterations` of 0 or less sets no limit.
  CSparseStoreBicgstabLinSysSolver(int expectedElementsPerLine, T eps, int maxIterations);
  CSparseStoreBicgstabLinSysSolver * Copy() const override
  {
    return new CSparseStoreBicgstabLinSysSolver(*this);
  }

  T getBicgStabEps() const { return m_eps; }
  void setBicgStabEps(T eps) { m_eps = eps; }
  int getMaxIterations() const { return m_iMaxIterations; }
  void setMaxIterations(int maxIterations) { m_iMaxIterations = maxIterations; }
  /// Sum of the iterations of all right parts of the last solve (a breakdown
  /// counting -1 there); -1 when the last solve failed; 0 before the first.
  int getIterationsUsed() const { return m_iIterationsUsed; }

private:
  bool OnSolveSystem(int nRightParts, IVertexPosInformer<T> const ** informers,
                     IEqSysResultReciever<T> ** recievers, CProgressCounter * progress) override;

  T m_eps;
  int m_iMaxIterations;
  int m_iIterationsUsed;
};

extern template class CLinSysSolverCompose<float, CVPLSstorage<float, CStdVectorAsVPLSstorageRow<float>>,
                                           CLinSysSolverCoreMkl<float>>;
extern template class CLinSysSolverCompose<double, CVPLSstorage<double, CStdVectorAsVPLSstorageRow<double>>,
                                           CLinSysSolverCoreMkl<double>>;
extern template class CLinSysSolverCompose<float, CVPLSstorage<float, CSparseVectorAsVPLSstorageRow<float>>,
                                           CLinSysSolverSparseDss<float>>;
extern template class CLinSysSolverCompose<
    double, CVPLSstorage<double, CSparseVectorAsVPLSstorageRow<double>>, CLinSysSolverSparseDss<double>>;
extern template class CLinSysSolverCompose<float, CCSRSstorage<float>, CLinSysSolverSparseDss<float>>;
extern template class CLinSysSolverCompose<double, CCSRSstorage<double>, CLinSysSolverSparseDss<double>>;
extern template class CLinSysSolverCompose<float, CCSRSstorage<float>, CLinSysSolverSparseMKL<float>>;
extern template class CLinSysSolverCompose<double, CCSRSstorage<double>, CLinSysSolverSparseMKL<double>>;
extern template class CLinSysSolverMKL<float>;
extern template class CLinSysSolverMKL<double>;
extern template class CSparseLinSysSolver<float>;
extern template class CSparseLinSysSolver<double>;
extern template class CSparseStoreSparseLinSysSolver<float>;
extern template class CSparseStoreSparseLinSysSolver<double>;
extern template class CSparseStoreBicgstabLinSysSolver<float>;
extern template class CSparseStoreBicgstabLinSysSolver<double>;
} // namespace REmath
