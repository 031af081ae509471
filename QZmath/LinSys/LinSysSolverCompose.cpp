#include "QZmath/LinSys/LinSysSolverCompose.h"

namespace REmath
{
// ---- direct, compressed rows of base 1 -------------------------------------------

template <class T>
CSparseStoreSparseLinSysSolver<T>::CSparseStoreSparseLinSysSolver(int expectedElementsPerLine)
{
  CCSRSstorage<T> & storage = this->getStorageRefMod();
  storage.setIndexBase(CLinSysSolverSparseDss<T>::st_iDssIndexBase);
  if (expectedElementsPerLine > 0)
    storage.setExpectedElementsPerLine(expectedElementsPerLine);
}

template <class T> void CSparseStoreSparseLinSysSolver<T>::reserveMemory(int count)
{
  if (count > 0)
    static_cast<CCSRSquareMatrix<T> &>(this->getStorageRefMod()).reserveMemory(count);
}

// ---- iterative, compressed rows of base 0 ----------------------------------------

template <class T>
CSparseStoreBicgstabLinSysSolver<T>::CSparseStoreBicgstabLinSysSolver(int expectedElementsPerLine, T eps,
                                                                      int maxIterations)
    : m_eps(eps), m_iMaxIterations(maxIterations), m_iIterationsUsed(0)
{
  CCSRSstorage<T> & storage = this->getStorageRefMod();
  storage.setIndexBase(eCSRindexBaseZero);
  if (expectedElementsPerLine > 0)
    storage.setExpectedElementsPerLine(expectedElementsPerLine);
}

template <class T>
bool CSparseStoreBicgstabLinSysSolver<T>::OnSolveSystem(int nRightParts,
                                                        IVertexPosInformer<T> const ** informers,
                                                        IEqSysResultReciever<T> ** recievers,
                                                        CProgressCounter * progress)
{
  CLinSysSolverSparseMKL<T> core(m_eps, m_iMaxIterations);
  bool const solved = this->solveWithCore(core, nRightParts, informers, recievers, progress);
  m_iIterationsUsed = solved ? core.getIterationsUsed() : -1;
  return solved;
}

template class CLinSysSolverCompose<float, CVPLSstorage<float, CStdVectorAsVPLSstorageRow<float>>,
                                    CLinSysSolverCoreMkl<float>>;
template class CLinSysSolverCompose<double, CVPLSstorage<double, CStdVectorAsVPLSstorageRow<double>>,
                                    CLinSysSolverCoreMkl<double>>;
template class CLinSysSolverCompose<float, CVPLSstorage<float, CSparseVectorAsVPLSstorageRow<float>>,
                                    CLinSysSolverSparseDss<float>>;
template class CLinSysSolverCompose<double, CVPLSstorage<double, CSparseVectorAsVPLSstorageRow<double>>,
                                    CLinSysSolverSparseDss<double>>;
template class CLinSysSolverCompose<float, CCSRSstorage<float>, CLinSysSolverSparseDss<float>>;
template class CLinSysSolverCompose<double, CCSRSstorage<double>, CLinSysSolverSparseDss<double>>;
template class CLinSysSolverCompose<float, CCSRSstorage<float>, CLinSysSolverSparseMKL<float>>;
template class CLinSysSolverCompose<double, CCSRSstorage<double>, CLinSysSolverSparseMKL<double>>;
template class CLinSysSolverMKL<float>;
template class CLinSysSolverMKL<double>;
template class CSparseLinSysSolver<float>;
template class CSparseLinSysSolver<double>;
template class CSparseStoreSparseLinSysSolver<float>;
template class CSparseStoreSparseLinSysSolver<double>;
template class CSparseStoreBicgstabLinSysSolver<float>;
template class CSparseStoreBicgstabLinSysSolver<double>;
} // namespace REmath
