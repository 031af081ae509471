// The numerical middle of the reconstruction: density weights, the splat of
// the sample normals, the Poisson system (right part and matrix) and its solve.

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

#include "QZmath/BlockProcessor/TransThreadPrgCntAdapter.h"
#include "QZmath/LinSys/LinSysSolverCompose.h"
#include "QZmath/LinSys/LinSysSolverDecomposed.h"
#include "QZmath/VolTriang/CSFProductHelper.h"
#include "QZmath/VolTriang/OctreeFuncBlockEval.h"
#include "QZmath/VolTriang/detail/MultilevelPoisson.h"
#include "QZmath/VolTriang/detail/VolumetricTriangulatorImpl.h"
#include "QZsys/Threading.h"

namespace VolTr
{
namespace
{
using REmath::CCSRSstorage;
using REmath::CLinSysSolverSpaceDecomposer;
using REmath::CSparseStoreBicgstabLinSysSolver;
using REmath::CSparseStoreSparseLinSysSolver;

// The factor of a normalisation is usable when above 0 and finite.
template <class T> bool tf_usableFactor(T f) { return f > T(0) && std::isfinite(f); }

// How many times q is multiplied by 0.25 until it falls below 4.
int tf_log4(double q)
{
  int k = 0;
  while (q >= 4.0)
  {
    q *= 0.25;
    ++k;
  }
  return k;
}

// ---------------------------------------------------------------- solver companions

template <class TSolver> class tf_CSparseMatrixReservator : public tf_IMatrixMemoryReservator
{
public:
  tf_CSparseMatrixReservator(TSolver * solver, int systemSize) : m_solver(solver), m_systemSize(systemSize) {}
  int reservationRow() const override { return 0; }
  void addRowElements(int count) override { m_elementsNumber += count; }
  void reserveMemory() override
  {
    // The storage's arrays hold int positions: keep the request within them.
    long long const expected = std::min<long long>(expectedElements(), 0x7fffffffLL);
    getStorage().reserveMatrixMemory(static_cast<int>(expected));
  }
  long long expectedElements() const override { return static_cast<long long>(m_systemSize) * 240; }
  long long elementsNumber() const override { return m_elementsNumber; }
  void normalizeSystem(VsUt::IDebugLog * debugLog) override
  {
    double const factor = getStorage().normalizeSystemMatrix();
    tf_CLogLine const log(debugLog);
    log("System normalized by factor", factor);
  }
  CCSRSstorage<double> & getStorage() override { return m_solver->getStorageRefMod(); }

private:
  TSolver * m_solver;
  int m_systemSize;
  long long m_elementsNumber = 0;
};

class tf_CNullSolveDetails : public tf_ISystemSolveDetails
{
public:
  void logDetails(VsUt::IDebugLog *) override {}
};

template <class TSolver> class tf_CIterativeSolverDetails : public tf_ISystemSolveDetails
{
public:
  explicit tf_CIterativeSolverDetails(TSolver * solver) : m_solver(solver) {}
  void logDetails(VsUt::IDebugLog * debugLog) override
  {
    tf_CLogLine const log(debugLog);
    log("Iterations used", m_solver->getIterationsUsed());
  }

private:
  TSolver * m_solver;
};

// ---------------------------------------------------------------- assembly tasks

// The right part: b[o] = sum over j of <F_o, field[j]>, the Galerkin
// projection of the divergence of the splatted field.
void tf_makeRightPart(std::vector<double> * right, std::unique_ptr<tf_LinComb> const * field,
                      tf_Basis const * basis, std::unique_ptr<tf_Basis> const * gradBasis,
                      CTransThreadPrgCntAdapter * adapter, CProgressCounter * progress,
                      VsUt::IDebugLog * debugLog)
{
  tf_CLogLine const log(debugLog);
  int const n = basis->getFunctionsNumber();
  log("System size", n);
  right->assign(static_cast<std::size_t>(n), 0.0);
  int const parity[3] = {-1, 1, 1};
  CCSFProductHelperTmpl<CProductPiecewisePolynom> helper(basis, gradBasis[0].get(), eBasisNonSymmetric, 6,
                                                         parity);
  for (int j = 0; j < 3; ++j)
  {
    CPrgCntSubPhase axis(progress, j / 3.0, 1.0 / 3.0, 1, true);
    if (j > 0)
      helper.initWithVariablesSwap(j - 1, j, basis, gradBasis[j].get());
    for (int o = 0; o < n; ++o)
    {
      CPrgCntSubPhase row(progress, static_cast<double>(o) / n, 1.0 / n, 1, true);
      if (adapter)
        adapter->increment();
      CCSFunc3Tmpl<CProductPiecewisePolynom> const f = basis->makeFunctionByIndex(o);
      (*right)[static_cast<std::size_t>(o)] += helper.evalScalarProduct(f, *field[j]);
    }
  }
  double const factor =
      REmath::vectorNormalizationFactor(right->data(), static_cast<long long>(right->size()));
  if (tf_usableFactor(factor))
  {
    double const scale = 1.0 / factor;
    for (double & v : *right)
      v *= scale;
  }
  log("Right part normalized by factor", factor);
  log("Right part scalar product cash size", helper.cashSize());
}

// The matrix: A[o][i] = -<F_o, Lap F_i>, the upper triangle only, row by row.
void tf_makeMatrix(REmath::IVertexPosLinearSystem<double> * solver, tf_IMatrixMemoryReservator * reservator,
                   tf_Basis const * basis, COctree const * octree, CTransThreadPrgCntAdapter * adapter,
                   CProgressCounter * progress, VsUt::IDebugLog * debugLog)
{
  tf_CLogLine const log(debugLog);
  CCSRSstorage<double> & storage = reservator->getStorage();
  solver->setSymmetric(true);
  solver->setPositiveDefinite(true);

  CProductPiecewisePolynom lapKernel;
  basis->getSamplePtr()->makeLaplacian(&lapKernel);
  tf_Basis const lapBasis(lapKernel, octree, 2);
  int const parity[3] = {1, 1, 1};
  CCSFProductHelperTmpl<CProductPiecewisePolynom> helper(basis, &lapBasis, eBasisSymmetric, 7, parity);

  int const n = basis->getFunctionsNumber();
  // The vertex numbers are the node indices; the fixed vertex n carries the
  // right part with position 1.
  for (int i = 0; i < n; ++i)
    solver->DefineFreeVertex(i);
  solver->DefineFixedVertex(n);

  // One row's buffers, reused across rows.
  std::vector<std::pair<int, double>> row;
  std::vector<int> columns;
  std::vector<double> values;
  for (int r = 0; r < n; ++r)
  {
    CPrgCntSubPhase rowPhase(progress, static_cast<double>(r) / n, 1.0 / n, 1, true);
    if (adapter)
      adapter->increment();
    CCSFunc3Tmpl<CProductPiecewisePolynom> const f = basis->makeFunctionByIndex(r);
    CParallelepiped const box = getScaledFunctionCommonSupport(f);
    row.clear();
    for (CInterlacedSupportIteratorTmpl<CProductPiecewisePolynom> it(&lapBasis, box); !it.isFinished();
         it.next())
    {
      int const c = it.functionIndex();
      if (c < r)
        continue;
      double const v = 0.0 - helper.evalScalarProduct(f, *it);
      if (v != 0.0)
        row.emplace_back(c, v);
    }
    int const count = static_cast<int>(row.size());
    reservator->addRowElements(count);
    if (r == reservator->reservationRow())
    {
      log("Reserving memory for system matrix, elements expected", reservator->expectedElements());
      reservator->reserveMemory();
    }
    std::sort(row.begin(), row.end(), [](auto const & a, auto const & b) { return a.first < b.first; });
    columns.resize(row.size());
    values.resize(row.size());
    for (std::size_t k = 0; k < row.size(); ++k)
    {
      columns[k] = row[k].first;
      values[k] = row[k].second;
    }
    storage.addEquationFreePartNoAliases(r, count, values.data(), columns.data());
  }
  solver->IsCorrectlyDefinedSystem();
  long long const elements = reservator->elementsNumber();
  log("Matrix scalar product cash size", helper.cashSize());
  log("Non zero elements in system", elements);
  log("Average non-zero elements per line", n > 0 ? static_cast<double>(elements) / n : 0.0);
  log("System symmetric", solver->isSymmetric());
  log("System positive definite", solver->isPositiveDefinite());
}

// The two assembly tasks, run side by side on two physical threads.
class tf_rigthPartMaker : public IVescaInvokeProc
{
public:
  tf_rigthPartMaker(std::vector<double> * result, std::unique_ptr<tf_LinComb> const * field,
                    VsUt::IDebugLog * log, CTransThreadPrgCntAdapter * adapter, tf_Basis const * basis,
                    std::unique_ptr<tf_Basis> const * gradBasis)
      : m_result(result), m_dimension(3), m_field(field), m_log(log), m_adapter(adapter), m_basis(basis),
        m_gradBasis(gradBasis)
  {
  }
  void run() override
  {
    tf_makeRightPart(m_result, m_field, m_basis, m_gradBasis, m_adapter, nullptr, m_log);
  }

private:
  std::vector<double> * m_result;
  int m_dimension;
  std::unique_ptr<tf_LinComb> const * m_field;
  VsUt::IDebugLog * m_log;
  CTransThreadPrgCntAdapter * m_adapter;
  tf_Basis const * m_basis;
  std::unique_ptr<tf_Basis> const * m_gradBasis;
};

class tf_matrixMaker : public IVescaInvokeProc
{
public:
  tf_matrixMaker(REmath::IVertexPosLinearSystem<double> * solver, CTransThreadPrgCntAdapter * adapter,
                 tf_Basis const * basis, COctree const * octree, VsUt::IDebugLog * log,
                 tf_IMatrixMemoryReservator * reservator)
      : m_solver(solver), m_adapter(adapter), m_basis(basis), m_octree(octree), m_log(log),
        m_reservator(reservator)
  {
  }
  void run() override { tf_makeMatrix(m_solver, m_reservator, m_basis, m_octree, m_adapter, nullptr, m_log); }

private:
  REmath::IVertexPosLinearSystem<double> * m_solver;
  CTransThreadPrgCntAdapter * m_adapter;
  tf_Basis const * m_basis;
  COctree const * m_octree;
  VsUt::IDebugLog * m_log;
  tf_IMatrixMemoryReservator * m_reservator;
};

} // namespace

// ---------------------------------------------------------------- density

void CVolumetricTriangulatorImpl::calcDensityWeights(tf_CLogLine const & log)
{
  COctree const & octree = *m_octree;
  int const samplesNumber = m_samples ? m_samples->pointsNumber() : 0;
  m_averageDensity = 0.0f;
  m_densityWeights.assign(static_cast<std::size_t>(samplesNumber), 0.0f);

  CParallelepiped const nodesBox = octree.getNodesBoundaryBox();
  int const level = m_densityEstimationLevel;
  std::vector<int> nodes;
  for (COctreeInBoxNodeIterator it(&octree, nodesBox, level); !it.isFinished(); it.next())
    nodes.push_back(it.currentNodeIndex());
  int const count = static_cast<int>(nodes.size());
  double const h = octree.getCellSize(level);
  int const tasks = std::max(1, std::min(CVescaThreadingTasksHelper::getNumOfPhisicalThread(), 8));

  // The local density at every node: trilinear weights of the samples in the
  // eight cells that have the node at a corner, summed cell after cell. Each
  // node's sum is its own, so the nodes are shared out among the threads.
  // One walk over the samples of the eight cells' box finds them all (a walk
  // per cell cost three times the seeking); a sample counts for a cell when
  // its leaf cell lies in the cell's range of leaf cells, as a walk over the
  // cell alone would have found it, and it lies in the closed cell. The terms
  // are kept per cell and added in the order of such walks.
  std::vector<double> sums(static_cast<std::size_t>(count), 0.0);
  std::atomic<int> done{0};
  int const lastCell = octree.getPositioningPolicy().getCellsPerAxis() - 1;
  int const firstCell = octree.getPositioningPolicy().getMinCellCoord();
  // The leaf cell range of a box's side, as the sample walk takes it.
  auto leafCell = [&](int a, double v)
  {
    double const c = octree.latticeCoordinate(a, v), limit = 1 << 30;
    int const m = std::isnan(c) ? 0 : static_cast<int>(std::max(-limit, std::min(limit, c)));
    return std::max(firstCell, std::min(lastCell, m));
  };
  auto localDensity = [&](int k, std::vector<double> * terms)
  {
    double q[3];
    octree.getNodePosition(nodes[static_cast<std::size_t>(k)], q);
    CParallelepiped cells[8], all;
    int lo[8][3], hi[8][3];
    for (int corner = 0; corner < 8; ++corner)
    {
      terms[corner].clear();
      for (int a = 0; a < 3; ++a)
      {
        if ((corner >> a) & 1)
          cells[corner].setDimension(a, CInterval(q[a] - h, q[a]));
        else
          cells[corner].setDimension(a, CInterval(q[a], q[a] + h));
        lo[corner][a] = leafCell(a, cells[corner].getMin()[a]);
        hi[corner][a] = leafCell(a, cells[corner].getMax()[a]);
      }
    }
    for (int a = 0; a < 3; ++a)
      all.setDimension(a, CInterval(q[a] - h, q[a] + h));
    for (CSamplePointsIteratorInBox s(*m_samples, octree, all, -1); !s.isFinished(); s.next())
    {
      double const * p = *s;
      CInt3 const c = s.currCellIntCoord();
      for (int corner = 0; corner < 8; ++corner)
      {
        CParallelepiped const & cell = cells[corner];
        if (c.x() < lo[corner][0] || c.x() > hi[corner][0] || c.y() < lo[corner][1] ||
            c.y() > hi[corner][1] || c.z() < lo[corner][2] || c.z() > hi[corner][2])
          continue;
        if (cell.getMin()[0] <= p[0] && p[0] <= cell.getMax()[0] && cell.getMin()[1] <= p[1] &&
            p[1] <= cell.getMax()[1] && cell.getMin()[2] <= p[2] && p[2] <= cell.getMax()[2])
          terms[corner].push_back(calcTrilinearWeight(p, q, cell));
      }
    }
    double sum = 0.0;
    for (int corner = 0; corner < 8; ++corner)
      for (double w : terms[corner])
        sum += w;
    sums[static_cast<std::size_t>(k)] = sum;
  };

  // Spreading: every sample under a node's function takes the node's density
  // times the function's value, rounded to float, added in the order of the
  // nodes. The nodes are cut into one run per thread in that order; a sample
  // that an earlier run can reach gets the later runs' terms in a list that
  // is added afterwards, run by run, so every entry sees its terms in order.
  struct Term
  {
    int sample;
    float value;
  };
  std::vector<std::vector<Term>> deferred(static_cast<std::size_t>(tasks));
  // The reach of a node's function beyond its position, along x.
  double reach = 0.0;
  if (count > 0)
  {
    CParallelepiped const support = getScaledFunctionCommonSupport(m_basis->makeFunctionByIndex(nodes[0]));
    double q[3];
    octree.getNodePosition(nodes[0], q);
    reach = std::max(support.getMax()[0] - q[0], q[0] - support.getMin()[0]) + 2.0 * octree.getUnit();
  }
  auto spread = [&](int part, int begin, int end)
  {
    // Samples at or beyond this x no earlier run reaches.
    if (begin >= end)
      return;
    double limit = -DBL_MAX;
    if (part > 0 && begin > 0)
    {
      double q[3];
      octree.getNodePosition(nodes[static_cast<std::size_t>(begin - 1)], q);
      limit = q[0] + reach;
    }
    for (int k = begin; k < end; ++k)
    {
      double const sum = sums[static_cast<std::size_t>(k)];
      if (sum == 0.0)
        continue;
      int const node = nodes[static_cast<std::size_t>(k)];
      CParallelepiped const support = getScaledFunctionCommonSupport(m_basis->makeFunctionByIndex(node));
      for (CSamplePointsIteratorInBox s(*m_samples, octree, support, -1); !s.isFinished(); s.next())
      {
        double const * p = *s;
        if (support.getMin()[0] <= p[0] && p[0] <= support.getMax()[0] && support.getMin()[1] <= p[1] &&
            p[1] <= support.getMax()[1] && support.getMin()[2] <= p[2] && p[2] <= support.getMax()[2])
        {
          float const value = static_cast<float>(m_basis->evalBasisValue(node, p) * sum);
          int const sample = s.currentSampleIndex();
          if (p[0] <= limit)
            deferred[static_cast<std::size_t>(part)].push_back(Term{sample, value});
          else
            m_densityWeights[static_cast<std::size_t>(sample)] += value;
        }
      }
    }
  };

  struct Task : IVescaInvokeProc
  {
    std::function<void()> body;
    void run() override { body(); }
  };
  std::vector<Task> work(static_cast<std::size_t>(tasks));
  std::vector<IVescaInvokeProc *> procs;
  for (int t = 0; t < tasks; ++t)
    procs.push_back(&work[static_cast<std::size_t>(t)]);
  auto runAll = [&]()
  {
    if (tasks == 1)
      work[0].run();
    else
      CVescaThreadingTasksHelper::performInParallel(procs.data(), tasks, nullptr);
  };
  // The first half of the progress for the densities, the second for the
  // spreading; the caller's thread reports while it takes its share.
  for (int t = 0; t < tasks; ++t)
    work[static_cast<std::size_t>(t)].body = [&, t]()
    {
      std::vector<double> terms[8];
      for (int k = t; k < count; k += tasks)
      {
        localDensity(k, terms);
        int const d = ++done;
        if (t == 0 && m_progress && (k & 63) == 0)
          m_progress->SetPosFloat(0.5 * d / count);
      }
    };
  runAll();
  for (int t = 0; t < tasks; ++t)
    work[static_cast<std::size_t>(t)].body = [&, t]()
    {
      spread(t, static_cast<int>(static_cast<long long>(count) * t / tasks),
             static_cast<int>(static_cast<long long>(count) * (t + 1) / tasks));
    };
  runAll();
  for (auto const & terms : deferred)
    for (Term const & term : terms)
      m_densityWeights[static_cast<std::size_t>(term.sample)] += term.value;
  if (m_progress)
    m_progress->SetPosFloat(1.0);

  float const factor = REmath::vectorNormalizationFactor(m_densityWeights.data(),
                                                         static_cast<long long>(m_densityWeights.size()));
  if (tf_usableFactor(factor))
  {
    float const inverse = 1.0f / factor;
    for (float & w : m_densityWeights)
      w *= inverse;
  }
  log("Weights normalized by factor", samplesNumber > 0 ? factor : 0.0f);

  float minimal = FLT_MAX, maximal = 0.0f;
  for (float & w : m_densityWeights)
  {
    m_averageDensity += w;
    minimal = std::min(minimal, w);
    maximal = std::max(maximal, w);
    if (w > 0.0f)
      w = 1.0f / w;
  }
  if (samplesNumber > 0)
    m_averageDensity /= static_cast<float>(samplesNumber);
  log("Average density", m_averageDensity);
  log("Minimal density", minimal);
  log("Maximal density", maximal);
}

// ---------------------------------------------------------------- splat

// How many depths above the deepest the samples are splatted (an extension;
// 0 unless the parameters ask for a number of samples per cell): the deepest
// depth whose occupied node cells hold, on average, that many samples. A
// cloud thinner than the deepest depth's cells splats the normals of single
// samples into single nodes, and the field is as lumpy as the sampling.
int CVolumetricTriangulatorImpl::splatDepthShift(tf_CLogLine const & log) const
{
  double const wanted = m_params.getSplatSamplesPerCell();
  int const n = m_samples ? m_samples->pointsNumber() : 0;
  if (!(wanted > 0.0) || n == 0)
    return 0;
  COctree const & octree = *m_octree;
  int const deepest = octree.getNodeDepthEnd() - 1;
  int const first = octree.getNodeDepthBegin();
  int const leaf = octree.getLeafCellDepth();
  std::vector<std::uint64_t> keys(static_cast<std::size_t>(n));
  int shift = 0;
  for (; deepest - shift > first; ++shift)
  {
    // Cells of the depth's node spacing, keyed by their lattice index.
    int const bits = std::max(0, leaf - (deepest - shift));
    double const * boxMin = octree.getBoxMin();
    double const cell = octree.getUnit() * static_cast<double>(1LL << bits);
    for (int i = 0; i < n; ++i)
    {
      float const * p = m_samples->getSampleCoords3(i);
      std::uint64_t key = 0;
      for (int a = 0; a < 3; ++a)
      {
        double const c = std::floor((p[a] - boxMin[a]) / cell);
        key = key * 2097152u + static_cast<std::uint64_t>(std::min(2097151.0, std::max(0.0, c)));
      }
      keys[static_cast<std::size_t>(i)] = key;
    }
    std::sort(keys.begin(), keys.end());
    double const occupied = static_cast<double>(std::unique(keys.begin(), keys.end()) - keys.begin());
    log("Samples per occupied cell at depth", deepest - shift, static_cast<double>(n) / occupied);
    if (static_cast<double>(n) / occupied >= wanted)
      break;
  }
  log("Splat depths above the deepest", shift);
  return shift;
}

void CVolumetricTriangulatorImpl::addSample(int index, int dimension, std::unique_ptr<tf_LinComb> * field)
{
  COctree const & octree = *m_octree;
  float const * p = m_samples->getSampleCoords3(index);
  int const deepest = octree.getNodeDepthEnd() - 1;
  int const first = octree.getNodeDepthBegin();
  int depth = deepest;
  float weight = 1.0f;
  if (m_params.getVariableDensity())
  {
    weight = m_densityWeights.at(static_cast<std::size_t>(index));
    float const density = weight > 0.0f ? 1.0f / weight : 0.0f;
    double const r = static_cast<double>(density) / m_averageDensity;
    // A zero density (or a zero average) has no finite ratio: such a sample
    // weighs nothing anyway, and stays on the deepest depth.
    if (r > 0.0 && std::isfinite(r))
    {
      int const level = r >= 1.0 ? tf_log4(r) : -tf_log4(1.0 / r);
      depth = std::max(first, std::min(deepest, deepest + level));
    }
  }
  // The extension's coarser splat, for clouds too thin for the deepest depth.
  depth = std::max(first, depth - m_splatDepthShift);
  int const cell = octree.getCellByCoordinates(index);
  CParallelepiped const box = octree.getBoxOnNbrNodes(cell, depth);
  float const * n = m_samples->getSampleNormal3(index);
  for (COctreeNeighborNodeIterator it(&octree, cell, depth); !it.isFinished(); it.next())
  {
    int const node = it.currentNodeIndex();
    double c[3];
    octree.getNodePosition(node, c);
    double const t = calcTrilinearWeight(p, c, box);
    for (int j = 0; j < dimension; ++j)
    {
      tf_LinComb & f = *field[j];
      f.setBasisCoefficient(node, f.getBasisCoefficient(node) + n[j] * (t * weight));
    }
  }
}

// ---------------------------------------------------------------- the system

void CVolumetricTriangulatorImpl::chooseSolver(tf_CLogLine const & log)
{
  m_matrixReservator.reset();
  m_solveDetails.reset(new tf_CNullSolveDetails);
  m_solver.reset();
  int const n = m_basis->getFunctionsNumber();
  int kind = m_params.getPrefferedSolver();
  if (kind == 0)
    kind = n < 200000 ? 1 : (n < 1000000 ? 3 : 4);
  switch (kind)
  {
  case 1:
  case 2:
  {
    auto * solver = new CSparseStoreSparseLinSysSolver<double>(0);
    m_solver.reset(solver);
    log.text("Use CSparseStoreSparseLinSysSolver");
    m_matrixReservator.reset(
        new tf_CSparseMatrixReservator<CSparseStoreSparseLinSysSolver<double>>(solver, n));
    break;
  }
  case 3:
  {
    auto * solver = new CSparseStoreBicgstabLinSysSolver<double>(-1, 1e-6, 3000);
    m_solver.reset(solver);
    log.text("Use CSparseStoreBicgstabLinSysSolver<double>");
    log("Maximal allowed iterations", 3000);
    log("Tolerance", 1e-6);
    m_matrixReservator.reset(
        new tf_CSparseMatrixReservator<CSparseStoreBicgstabLinSysSolver<double>>(solver, n));
    m_solveDetails.reset(new tf_CIterativeSolverDetails<CSparseStoreBicgstabLinSysSolver<double>>(solver));
    break;
  }
  case 4:
  {
    // Four blocks, cut by node index.
    std::vector<int> const splits = {n / 4, 2 * n / 4, 3 * n / 4};
    auto * solver = new CLinSysSolverSpaceDecomposer<double>(splits, 1e-6, 10000);
    m_solver.reset(solver);
    log.text("Use CLinSysSolverSpaceDecomposer<double>");
    m_matrixReservator.reset(new tf_CSparseMatrixReservator<CLinSysSolverSpaceDecomposer<double>>(solver, n));
    m_solveDetails.reset(new tf_CIterativeSolverDetails<CLinSysSolverSpaceDecomposer<double>>(solver));
    break;
  }
  default:
    log("Error unexpected solver type", m_params.getPrefferedSolver());
    throw CVolTriangulationError("Unexpected solver type");
  }
}

void CVolumetricTriangulatorImpl::assembleSystem(VsPCnt::CMultiPhaseManager & phases,
                                                 std::unique_ptr<tf_Basis> * gradBasis,
                                                 std::unique_ptr<tf_LinComb> * field)
{
  tf_CLogLine const log(m_debugLog);
  chooseSolver(log);
  std::vector<double> right;
  int const n = m_basis->getFunctionsNumber();
  if (CVescaThreadingTasksHelper::getNumOfPhisicalThread() < 2)
  {
    {
      VsPCnt::CMultiPhaseManagerSingleSubPhase phase(&phases, "right_part");
      tf_makeRightPart(&right, field, m_basis.get(), gradBasis, nullptr, m_progress, m_debugLog);
    }
    {
      VsPCnt::CMultiPhaseManagerSingleSubPhase phase(&phases, "matrix");
      tf_makeMatrix(m_solver.get(), m_matrixReservator.get(), m_basis.get(), m_octree.get(), nullptr,
                    m_progress, m_debugLog);
    }
  }
  else
  {
    VsPCnt::CMultiPhaseManagerSingleSubPhase phase(&phases, "matrix+right_part");
    CTransThreadPrgCntAdapter adapter;
    adapter.refresh(m_progress, std::max(0, 3 * n + n));
    tf_rigthPartMaker rightPart(&right, field, m_debugLog, &adapter, m_basis.get(), gradBasis);
    tf_matrixMaker matrix(m_solver.get(), &adapter, m_basis.get(), m_octree.get(), m_debugLog,
                          m_matrixReservator.get());
    IVescaInvokeProc * tasks[2] = {&rightPart, &matrix};
    CVescaThreadingTasksHelper::performInParallel(tasks, 2, &adapter);
  }
  {
    VsPCnt::CMultiPhaseManagerSingleSubPhase phase(&phases, "update right part");
    for (int i = 0; i < n; ++i)
    {
      m_solver->SetFixedVertCoeff(i, 0, right[static_cast<std::size_t>(i)]);
      if (m_progress)
        m_progress->SetPosFloat(static_cast<double>(i) / n);
    }
  }
}

std::unique_ptr<tf_LinComb> CVolumetricTriangulatorImpl::solveEquation(tf_CLogLine const & log)
{
  // Every fixed vertex (there is one) stands at 1: the right part.
  class LC_RightPartSetter : public REmath::IVertexPosInformer<double>
  {
  public:
    explicit LC_RightPartSetter(int size) : m_size(size) {}
    double GetVertexPosition(int) const override { return 1.0; }

  private:
    int m_size;
  };
  class LC_SolutionReceiver : public REmath::IEqSysResultReciever<double>
  {
  public:
    explicit LC_SolutionReceiver(tf_LinComb * result) : m_result(result) {}
    void SetVertexPosition(int vertex, double position) override
    {
      m_result->setBasisCoefficient(vertex, position);
    }

  private:
    tf_LinComb * m_result;
  };

  log.text("Trying to solve linear system...");
  std::unique_ptr<tf_LinComb> x(new tf_LinComb(m_basis.get()));
  m_matrixReservator->normalizeSystem(m_debugLog);
  LC_RightPartSetter const setter(m_basis->getFunctionsNumber());
  LC_SolutionReceiver receiver(x.get());
  REmath::IVertexPosInformer<double> const * informers[1] = {&setter};
  REmath::IEqSysResultReciever<double> * receivers[1] = {&receiver};
  if (!m_solver->SolveSystem(1, informers, receivers, m_progress))
  {
    log.text("Failed to solve linear system");
    throw CVolTriangulationError("Failed to solve linear system");
  }
  m_solveDetails->logDetails(m_debugLog);
  m_solveDetails.reset();
  m_matrixReservator.reset();
  m_solver.reset();
  log.text("Linear system solved");
  return x;
}

// ---------------------------------------------------------------- multilevel solve

std::unique_ptr<tf_LinComb>
CVolumetricTriangulatorImpl::solveMultilevel(VsPCnt::CMultiPhaseManager & phases, tf_CLogLine const & log,
                                             std::unique_ptr<tf_LinComb> const * field)
{
  int const n = m_basis->getFunctionsNumber();
  log.text("Use CMultilevelPoissonSolver");
  std::unique_ptr<CMultilevelPoissonSolver> solver;
  std::vector<double> right;
  {
    VsPCnt::CMultiPhaseManagerSingleSubPhase phase(&phases, "right_part");
    log("System size", n);
    try
    {
      SMultilevelSolveSettings settings;
      settings.screening = m_params.getScreeningWeight();
      settings.screeningAdaptive = m_params.getScreeningAdaptive();
      solver.reset(new CMultilevelPoissonSolver(*m_octree, m_kernel, settings));
    }
    catch (std::invalid_argument const &)
    {
      log.text("Failed to solve linear system");
      throw CVolTriangulationError("Failed to solve linear system");
    }
    std::vector<double> const coefficients[3] = {field[0]->getCoefficients(), field[1]->getCoefficients(),
                                                 field[2]->getCoefficients()};
    solver->makeRightPart(coefficients, &right);
    // The same normalisation as the assembled path, so that X comes out on
    // the same scale.
    double const factor =
        REmath::vectorNormalizationFactor(right.data(), static_cast<long long>(right.size()));
    if (tf_usableFactor(factor))
    {
      double const scale = 1.0 / factor;
      for (double & v : right)
        v *= scale;
    }
    log("Right part normalized by factor", factor);
    if (m_params.getScreeningWeight() > 0.0 && m_samples)
    {
      int const count = m_samples->pointsNumber();
      std::vector<double> points(static_cast<std::size_t>(count) * 3),
          weights(static_cast<std::size_t>(count), 1.0);
      for (int i = 0; i < count; ++i)
      {
        float const * q = m_samples->getSampleCoords3(i);
        for (int a = 0; a < 3; ++a)
          points[static_cast<std::size_t>(i) * 3 + a] = q[a];
        if (m_params.getVariableDensity() && static_cast<std::size_t>(i) < m_densityWeights.size())
          weights[static_cast<std::size_t>(i)] = m_densityWeights[static_cast<std::size_t>(i)];
      }
      solver->setScreeningSamples(points, weights);
    }
  }

  VsPCnt::CMultiPhaseManagerSingleSubPhase phase(&phases, "solve");
  log.text("Trying to solve linear system...");
  // The assembled path divides the matrix by its last stored element, the
  // diagonal of the last row.
  double const matrixFactor = n > 0 ? std::fabs(solver->matrixEntry(n - 1, n - 1)) : 0.0;
  log("System normalized by factor", matrixFactor);
  std::vector<double> solution;
  if (!solver->solve(right, &solution, m_progress, m_debugLog))
  {
    log.text("Failed to solve linear system");
    throw CVolTriangulationError("Failed to solve linear system");
  }
  std::unique_ptr<tf_LinComb> x(new tf_LinComb(m_basis.get()));
  double const scale = tf_usableFactor(matrixFactor) ? matrixFactor : 1.0;
  for (int i = 0; i < n; ++i)
    x->setBasisCoefficient(i, solution[static_cast<std::size_t>(i)] * scale);
  log.text("Linear system solved");
  return x;
}
} // namespace VolTr
