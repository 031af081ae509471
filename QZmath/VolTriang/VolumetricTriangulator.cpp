#include "QZmath/VolTriang/VolumetricTriangulator.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>
#include <sstream>
#include <vector>

#include "QZmath/VolTriang/detail/VolumetricTriangulatorImpl.h"
#include "QZsys/DebugLog.h"
#include "QZsys/Progress.h"
#include "QZsys/Threading.h"

bool b_MEASURE_TRIANG_TIME_On = true;

namespace VolTr
{
// ----------------------------------------------------- CVolTriangulationParams

CVolTriangulationParams::CVolTriangulationParams()
    : m_octreeDepth(-1), m_reconstructFactor(1.0f), m_closed(true), m_estimateResultNormals(false),
      m_phaseNameShown(false), m_useCenter(true), m_kernelScaleFactor(0.95f), m_debugLog(nullptr),
      m_variableDensity(true), m_densityEstimationDepthDelta(2), m_detalizationLevel(-1),
      m_prefferedSolver(0), m_multilevelSolver(false), m_screeningWeight(0.0), m_screeningAdaptive(true),
      m_splatSamplesPerCell(0.0), m_vertexInterpolation(0)
{
}

CVolTriangulationParams::~CVolTriangulationParams() = default;

CVolTriangulationParams CVolTriangulationParams::makeRecommended(int octreeDepth)
{
  CVolTriangulationParams p;
  p.setOctreeDepth(octreeDepth);
  p.setMultilevelSolver(true);
  p.setScreeningWeight(64.0);
  p.setScreeningAdaptive(true);
  p.setSplatSamplesPerCell(16.0);
  p.setVertexInterpolation(3);
  return p;
}

float CVolTriangulationParams::getCellFactor() const
{
  // (1 << octreeDepth) taken to float; ldexp gives the same for every depth
  // where the shift is defined and stays defined for the others.
  return std::ldexp(1.0f, m_octreeDepth) * m_reconstructFactor;
}

float CVolTriangulationParams::estimateTriangleSize(float modelSize) const
{
  return modelSize / getCellFactor();
}

int CVolTriangulationParams::estimateTrianglesNumber() const
{
  float const f = getCellFactor();
  float const n = 6 * f * f;
  if (!(n > 0.0f))
    return 0;
  if (n >= static_cast<float>(INT_MAX))
    return INT_MAX;
  return static_cast<int>(n);
}

IInputSamples::~IInputSamples() = default;
ITriangulationTarget::~ITriangulationTarget() = default;

// ------------------------------------------------- CVolumetricTriangulatorImpl

CVolumetricTriangulatorImpl::CVolumetricTriangulatorImpl(ITriangulationTarget * target, IInputSamples const * samples,
                                                         CVolTriangulationParams const * params,
                                                         CProgressCounter * progress)
    : m_samples(samples), m_progress(progress), m_params(params ? *params : CVolTriangulationParams()),
      m_target(target), m_kernel(makeApproxGaussian<CProductPiecewisePolynom>()), m_debugLog(m_params.getDebugLog())
{
}

CVolumetricTriangulatorImpl::~CVolumetricTriangulatorImpl() = default;

void CVolumetricTriangulatorImpl::pipeline()
{
  tf_CLogLine const log(m_debugLog);
  log.text("Volumetric triangulation core started");
  logParameters(log);

  // A factor above 1 widens the kernel's support, one below 1 narrows it.
  if (m_params.getKernelScaleFactor() > 0)
  {
    double const s = 1.0 / m_params.getKernelScaleFactor();
    double const scale[3] = {s, s, s};
    m_kernel.scaleArgument(scale);
  }

  VsPCnt::CMultiPhaseManager phases(m_progress);
  if (m_params.getPhaseNameShown())
    phases.showPhaseName();
  registerPhases(phases);

  {
    VsPCnt::CMultiPhaseManagerSingleSubPhase phase(&phases, "tree");
    buildTree(log);
  }

  // The gradient of the kernel, as a basis per axis, and the vector field of
  // the splatted normals over it. Owned here: they are dropped before the
  // solve unless the result normals need them.
  std::unique_ptr<tf_Basis> gradBasis[3];
  std::unique_ptr<tf_LinComb> field[3];
  {
    VsPCnt::CMultiPhaseManagerSingleSubPhase phase(&phases, "grad_basis");
    for (int j = 0; j < 3; ++j)
    {
      CProductPiecewisePolynom derivative;
      m_kernel.makePartialDerivative(&derivative, j);
      gradBasis[j].reset(new tf_Basis(derivative, m_octree.get(), 1));
      field[j].reset(new tf_LinComb(gradBasis[j].get()));
    }
  }

  if (m_params.getVariableDensity())
  {
    VsPCnt::CMultiPhaseManagerSingleSubPhase phase(&phases, "density weights");
    calcDensityWeights(log);
  }

  {
    VsPCnt::CMultiPhaseManagerSingleSubPhase phase(&phases, "grad_div");
    m_splatDepthShift = splatDepthShift(log);
    int const n = m_samples ? m_samples->pointsNumber() : 0;
    for (int i = 0; i < n; ++i)
    {
      CPrgCntSubPhase sample(m_progress, static_cast<double>(i) / n, 1.0 / n, 1, true);
      addSample(i, 3, field);
    }
  }

  std::unique_ptr<tf_LinComb> x;
  if (m_params.getMultilevelSolver())
    x = solveMultilevel(phases, log, field);
  else
    assembleSystem(phases, gradBasis, field);

  if (!m_params.getEstimateResultNormals())
    for (int j = 0; j < 3; ++j)
    {
      field[j].reset();
      gradBasis[j].reset();
    }

  if (!x)
  {
    phases.StartPhase("solve");
    x = solveEquation(log);
    phases.FinishCurrentPhase();
  }

  double isoValue = 0.0;
  {
    VsPCnt::CMultiPhaseManagerSingleSubPhase phase(&phases, "iso-value");
    log.text("Start calculating iso-value...");
    isoValue = calcMeanIsoValue(*x);
    log("Surface iso-value", isoValue);
  }

  {
    VsPCnt::CMultiPhaseManagerSingleSubPhase phase(&phases, "iso-surface");
    extractIsoSurface(log, *x, isoValue, m_params.getEstimateResultNormals() ? gradBasis : nullptr);
  }

  log.text("Volumetric triangulation core completed");
}

void CVolumetricTriangulatorImpl::logParameters(tf_CLogLine const & log) const
{
  if (!log.enabled())
    return;
  log("Octree depth", m_params.getOctreeDepth());
  log("Kernel scale", m_params.getKernelScaleFactor());
  log("Subdivision factor", m_params.getReconstructFactor());
  log("Closed", m_params.getClosed());
  log("Normals by gradient", m_params.getEstimateResultNormals());
  log("Center scheme", m_params.getUseCenter());
  log("Samples #", m_samples ? m_samples->pointsNumber() : 0);
  log("Variable density", m_params.getVariableDensity());
  if (m_params.getVariableDensity())
    log("Density estimation level delta", m_params.getDensityEstimationDepthDelta());
  if (m_params.getMultilevelSolver())
    log("Multilevel solver", m_params.getMultilevelSolver());
  if (m_params.getMultilevelSolver() && m_params.getScreeningWeight() > 0.0)
  {
    log("Screening weight", m_params.getScreeningWeight());
    log("Screening adaptive", m_params.getScreeningAdaptive());
  }
  if (m_params.getSplatSamplesPerCell() > 0.0)
    log("Splat samples per cell", m_params.getSplatSamplesPerCell());
  if (m_params.getVertexInterpolation() > 0)
    log("Vertex interpolation parts", m_params.getVertexInterpolation());
}

void CVolumetricTriangulatorImpl::registerPhases(VsPCnt::CMultiPhaseManager & phases) const
{
  bool const twoThreads = CVescaThreadingTasksHelper::getNumOfPhisicalThread() >= 2;
  phases.RegisterPhase("tree", 10);
  phases.RegisterPhase("grad_basis", 2);
  if (m_params.getVariableDensity())
    phases.RegisterPhase("density weights", 30);
  phases.RegisterPhase("grad_div", 10);
  if (m_params.getMultilevelSolver())
  {
    // No matrix is assembled: the right part, then the solve by depths.
    phases.RegisterPhase("right_part", 10);
    phases.RegisterPhase("solve", 30);
  }
  else
  {
    if (!twoThreads)
    {
      phases.RegisterPhase("right_part", 50);
      phases.RegisterPhase("matrix", 50);
    }
    else
      phases.RegisterPhase("matrix+right_part", 100);
    phases.RegisterPhase("update right part", 5);
    phases.RegisterPhase("solve", m_params.getOctreeDepth() >= 9 ? 200 : 30);
  }
  phases.RegisterPhase("iso-value", 10);
  phases.RegisterPhase("iso-surface", 40);
}

void CVolumetricTriangulatorImpl::buildTree(tf_CLogLine const & log)
{
  // The former basis and tree go before the new ones are built.
  m_basis.reset();
  m_octree.reset();
  m_octree.reset(new COctree(m_samples, m_params.getOctreeDepth(), m_progress, m_params.getUseCenter(),
                             m_params.getDetalizationLevel()));
  COctree const & tree = *m_octree;
  if (log.enabled())
  {
    log("Octree depth", tree.getLeafCellDepth());
    log("Leaf cells", tree.getCellsNumberOnDeepestLevel());
    log("Nodes number ", tree.getNodesNumber());
    log("Node depth bounds", tree.getNodeDepthBegin(), tree.getNodeDepthEnd() - 1);
    log("Leaf cell size", tree.getCellSize(m_params.getOctreeDepth() - 1));
    CParallelepiped const cells = tree.getCellsBoundaryBox();
    log("Cells box min", cells.getMin()[0], cells.getMin()[1], cells.getMin()[2]);
    log("Cells box max", cells.getMax()[0], cells.getMax()[1], cells.getMax()[2]);
    CParallelepiped const nodes = tree.getNodesBoundaryBox();
    log("Node min", nodes.getMin()[0], nodes.getMin()[1], nodes.getMin()[2]);
    log("Node max", nodes.getMax()[0], nodes.getMax()[1], nodes.getMax()[2]);
  }

  m_basis.reset(new tf_Basis(m_kernel, m_octree.get(), 0));
  log("Kernel support size in cells", m_basis->getSupportSizeInCells());

  if (m_params.getVariableDensity())
  {
    m_densityEstimationLevel = std::max(
        tree.getNodeDepthEnd() - m_params.getDensityEstimationDepthDelta() - 1, tree.getNodeDepthBegin());
    log("Density estimation level", m_densityEstimationLevel);
  }
}

// ------------------------------------------------------ CVolumetricTriangulator

CVolumetricTriangulator::CVolumetricTriangulator(ITriangulationTarget * target, IInputSamples const * samples,
                                                 CVolTriangulationParams const * params,
                                                 CProgressCounter * progress)
    : m_impl(new CVolumetricTriangulatorImpl(target, samples, params, progress))
{
}

CVolumetricTriangulator::~CVolumetricTriangulator() { delete m_impl; }

void CVolumetricTriangulator::run() { m_impl->pipeline(); }
} // namespace VolTr
