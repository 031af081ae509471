#pragma once
// The body of the reconstruction driver, shared by the source files of its
// stages: the entry and tree (VolumetricTriangulator.cpp), the system and the
// iso-value (VolTriangAssembly.cpp, VolTriangIsoValue.cpp), the iso-surface (VolTriangIsoSurface.cpp).
// Not installed: nothing here is for callers.

#include <memory>
#include <sstream>
#include <vector>

#include "QZmath/LinSys/CSRSstorage.h"
#include "QZmath/LinSys/LinearSystemInterfaces.h"
#include "QZmath/VolTriang/Octree.h"
#include "QZmath/VolTriang/OctreeFuncBasis.h"
#include "QZmath/VolTriang/VolumetricTriangulator.h"
#include "QZsys/DebugLog.h"
#include "QZsys/Progress.h"

namespace VolTr
{
/// One log line: the label, ": " and the values by plain stream insertion,
/// separated by ", ". Nothing is formatted when there is no log.
class tf_CLogLine
{
public:
  explicit tf_CLogLine(VsUt::IDebugLog * log) : m_log(log) {}

  template <class... V> void operator()(char const * label, V const &... values) const
  {
    if (!m_log)
      return;
    std::ostringstream line;
    line << label << ": ";
    char const * separator = "";
    ((line << separator << values, separator = ", "), ...);
    m_log->getMessage(line.str().c_str());
  }
  /// A bare text, without colon.
  void text(char const * text) const
  {
    if (m_log)
      m_log->getMessage(text);
  }
  bool enabled() const { return m_log != nullptr; }

private:
  VsUt::IDebugLog * m_log;
};

using tf_Basis = COctreeFuncBasisTmpl<CProductPiecewisePolynom>;
using tf_LinComb = COctreeFuncLinCombTmpl<CProductPiecewisePolynom>;

/// Where the chosen solver keeps its matrix, how much memory it should reserve
/// and how it is normalised.
class tf_IMatrixMemoryReservator
{
public:
  virtual ~tf_IMatrixMemoryReservator() = default;
  virtual int reservationRow() const = 0;
  virtual void addRowElements(int count) = 0;
  virtual void reserveMemory() = 0;
  virtual long long expectedElements() const = 0;
  virtual long long elementsNumber() const = 0;
  virtual void normalizeSystem(VsUt::IDebugLog * log) = 0;
  virtual REmath::CCSRSstorage<double> & getStorage() = 0;
};

/// What the solve reports after it ran (iterations of the iterative solvers).
class tf_ISystemSolveDetails
{
public:
  virtual ~tf_ISystemSolveDetails() = default;
  virtual void logDetails(VsUt::IDebugLog * log) = 0;
};

class CVolumetricTriangulatorImpl
{
public:
  CVolumetricTriangulatorImpl(ITriangulationTarget * target, IInputSamples const * samples,
                              CVolTriangulationParams const * params, CProgressCounter * progress);
  virtual ~CVolumetricTriangulatorImpl();

  void pipeline();

private:
  void logParameters(tf_CLogLine const & log) const;
  void registerPhases(VsPCnt::CMultiPhaseManager & phases) const;
  void buildTree(tf_CLogLine const & log);

  // The system (VolTriangAssembly.cpp) and the iso-value (VolTriangIsoValue.cpp).
  void calcDensityWeights(tf_CLogLine const & log);
  void addSample(int index, int dimension, std::unique_ptr<tf_LinComb> * field);
  void chooseSolver(tf_CLogLine const & log);
  void assembleSystem(VsPCnt::CMultiPhaseManager & phases, std::unique_ptr<tf_Basis> * gradBasis,
                      std::unique_ptr<tf_LinComb> * field);
  std::unique_ptr<tf_LinComb> solveEquation(tf_CLogLine const & log);
  /// The extension's path: right part and solve by depths, no stored matrix.
  std::unique_ptr<tf_LinComb> solveMultilevel(VsPCnt::CMultiPhaseManager & phases, tf_CLogLine const & log,
                                              std::unique_ptr<tf_LinComb> const * field);
  double calcMeanIsoValue(tf_LinComb const & x);
  int splatDepthShift(tf_CLogLine const & log) const;

  // The iso-surface (VolTriangIsoSurface.cpp).
  void extractIsoSurface(tf_CLogLine const & log, tf_LinComb const & x, double isoValue,
                         std::unique_ptr<tf_Basis> const * gradBasis);

  IInputSamples const * m_samples;
  std::unique_ptr<COctree> m_octree;
  /// The basis of the unknown function.
  std::unique_ptr<tf_Basis> m_basis;
  /// Kept for the layout of the record; always null.
  std::unique_ptr<tf_Basis> m_unused[3];
  std::unique_ptr<REmath::IVertexPosLinearSystem<double>> m_solver;
  std::unique_ptr<tf_IMatrixMemoryReservator> m_matrixReservator;
  std::unique_ptr<tf_ISystemSolveDetails> m_solveDetails;
  CProgressCounter * m_progress;
  CVolTriangulationParams m_params;
  ITriangulationTarget * m_target;
  CProductPiecewisePolynom m_kernel;
  VsUt::IDebugLog * m_debugLog;
  /// Densities while the density step runs, sample weights after it.
  std::vector<float> m_densityWeights;
  float m_averageDensity = 0.0f;
  int m_splatDepthShift = 0;
  int m_densityEstimationLevel = -1;
};
} // namespace VolTr
