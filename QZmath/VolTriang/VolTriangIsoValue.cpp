// The iso-value of the reconstruction: the weighted mean of the implicit
// function at the samples, on one task per physical thread over strips of
// cell x, with sums added in task order so that the result does not depend on
// the scheduling.

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "QZmath/BlockProcessor/TransThreadPrgCntAdapter.h"
#include "QZmath/VolTriang/LevelSetExtraction.h"
#include "QZmath/VolTriang/OctreeFuncBlockEval.h"
#include "QZmath/VolTriang/detail/VolumetricTriangulatorImpl.h"
#include "QZsys/Threading.h"

namespace VolTr
{
namespace
{
// ---------------------------------------------------------------- iso-value task

// The weighted sum of X over the samples of a strip of cells along x. With
// `values` (X at every sample, computed beforehand by the block evaluator, bit
// for bit the combination's) the task only adds them up in the walk's order.
template <class TKernel, class TWeights> class tf_calcMeanIsoValueCycleByPoints : public IVescaInvokeProc
{
public:
  tf_calcMeanIsoValueCycleByPoints(COctreeFuncLinCombTmpl<TKernel> const * x, IInputSamples const * samples,
                                   TWeights const * weights, int xBegin, int xEnd,
                                   CTransThreadPrgCntAdapter * adapter, double const * values)
      : m_x(x), m_samples(samples), m_weights(weights), m_xBegin(xBegin), m_xEnd(xEnd), m_adapter(adapter),
        m_values(values)
  {
  }

  void run() override
  {
    m_weightedValuesSum = 0.0;
    m_weightsSum = 0.0;
    if (m_xBegin >= m_xEnd)
      return;
    COctree const & octree = m_x->getRelatedBasisRef().getOctreeRef();
    COctreeFuncEvalHelper helper(1, 4.0 * octree.getCellSize(octree.getLeafCellDepth()));
    CParallelepiped box = octree.getCellsBoundaryBox();
    double const unit = octree.getUnit();
    double const x0 = octree.getBoxMin()[0];
    box.setDimension(0, CInterval(m_xBegin * unit + x0, m_xEnd * unit + x0));
    int lastX = m_xBegin;
    for (CSamplePointsIteratorInBox it(*m_samples, octree, box, -1); !it.isFinished(); it.next())
    {
      // The box's clamped cells are wider than the strip: keep its own cells.
      int const cx = it.currCellIntCoord().x();
      if (cx < m_xBegin || cx >= m_xEnd)
        continue;
      for (; lastX < cx; ++lastX)
        if (m_adapter)
          m_adapter->increment();
      float const w = m_weights ? (*m_weights)[static_cast<std::size_t>(it.currentSampleIndex())] : 1.0f;
      m_weightsSum += w;
      double const value =
          m_values ? m_values[static_cast<std::size_t>(it.currentSampleIndex())] : m_x->eval(*it, &helper);
      m_weightedValuesSum += value * w;
    }
    for (; lastX < m_xEnd; ++lastX)
      if (m_adapter)
        m_adapter->increment();
  }

  double weightedValuesSum() const { return m_weightedValuesSum; }
  double weightsSum() const { return m_weightsSum; }

private:
  COctreeFuncLinCombTmpl<TKernel> const * m_x;
  IInputSamples const * m_samples;
  TWeights const * m_weights;
  int m_xBegin;
  int m_xEnd;
  double m_weightedValuesSum = 0.0;
  double m_weightsSum = 0.0;
  CTransThreadPrgCntAdapter * m_adapter;
  double const * m_values;
};
} // namespace

// ---------------------------------------------------------------- iso-value

double CVolumetricTriangulatorImpl::calcMeanIsoValue(tf_LinComb const & x)
{
  std::vector<float> const * weights = m_params.getVariableDensity() ? &m_densityWeights : nullptr;
  return CLevelSetExtraction::meanValueAtSamples(x, m_samples, weights, m_progress);
}

double CLevelSetExtraction::meanValueAtSamples(LinComb const & x, IInputSamples const * samples,
                                               std::vector<float> const * weights,
                                               CProgressCounter * progress, EEvaluation evaluation)
{
  using Task = tf_calcMeanIsoValueCycleByPoints<CProductPiecewisePolynom, std::vector<float>>;
  if (!samples)
    return 0.0;
  int const tasks = std::max(1, CVescaThreadingTasksHelper::getNumOfPhisicalThread());
  COctree const & octree = x.getRelatedBasisRef().getOctreeRef();
  // The fast form evaluates X at all samples first, block of space by block
  // on every thread; the tasks then add the same values in the same order.
  std::vector<double> values;
  if (evaluation == eFast)
  {
    int const n = samples->pointsNumber();
    std::vector<double> points(static_cast<std::size_t>(n) * 3);
    for (int i = 0; i < n; ++i)
    {
      float const * p = samples->getSampleCoords3(i);
      for (int a = 0; a < 3; ++a)
        points[static_cast<std::size_t>(i) * 3 + a] = p[a];
    }
    values.resize(static_cast<std::size_t>(n));
    // The points go block by block, each block once: sixteen cells a side,
    // and a cache of a few (not the hundreds a walk that comes back needs,
    // whose memory would be written for nothing).
    COctreeFuncBlockEvaluator const fast(
        x, 16.0 * octree.getCellSize(std::max(0, octree.getNodeDepthEnd() - 1)), 4);
    fast.evalMany(points.data(), values.size(), values.data(), tasks);
  }
  CParallelepiped const box = octree.getCellsBoundaryBox();
  double const lo = octree.getBoxMin()[0], hi = octree.getBoxMax()[0];
  int const size = octree.getLatticeSize();
  auto strip = [&](double v)
  { return hi == lo ? 0 : static_cast<int>(std::floor(size * (v - lo) / (hi - lo))); };
  int const xLow = strip(box.getMin()[0]) - 1;
  int const xHigh = strip(box.getMax()[0]) + 1;

  std::vector<std::unique_ptr<Task>> work;
  std::unique_ptr<CTransThreadPrgCntAdapter> adapter;
  if (tasks > 1)
  {
    adapter.reset(new CTransThreadPrgCntAdapter);
    adapter->refresh(progress, std::max(0, xHigh - xLow));
  }
  int begin = xLow;
  for (int k = 0; k < tasks; ++k)
  {
    int const end = xLow + static_cast<int>(static_cast<long long>(xHigh - xLow) * (k + 1) / tasks);
    // Owned before the list grows, so that a list that cannot grow frees it.
    work.push_back(std::unique_ptr<Task>(
        new Task(&x, samples, weights, begin, end, adapter.get(), values.empty() ? nullptr : values.data())));
    begin = end;
  }
  if (tasks == 1)
    work[0]->run();
  else
  {
    std::vector<IVescaInvokeProc *> procs;
    for (auto & t : work)
      procs.push_back(t.get());
    CVescaThreadingTasksHelper::performInParallel(procs.data(), tasks, adapter.get());
  }
  double weightedValuesSum = 0.0, weightsSum = 0.0;
  for (auto const & t : work)
  {
    weightedValuesSum += t->weightedValuesSum();
    weightsSum += t->weightsSum();
  }
  return weightsSum != 0.0 ? weightedValuesSum / weightsSum : weightedValuesSum;
}
} // namespace VolTr
