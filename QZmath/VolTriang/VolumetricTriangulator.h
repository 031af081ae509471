#pragma once
// Surface reconstruction from an oriented point cloud: the caller's source of
// samples, the caller's sink of the mesh, the parameter block, and the driver
// that runs the pipeline (octree, basis, Poisson system, iso-surface).

#include <exception>
#include <string>

class CProgressCounter;

namespace VsUt
{
class IDebugLog;
}

/// Kept for callers that switch timing on; nothing in the library reads it.
extern bool b_MEASURE_TRIANG_TIME_On;

namespace VolTr
{
/// The parameters of one reconstruction: a plain value.
class CVolTriangulationParams
{
public:
  CVolTriangulationParams();
  virtual ~CVolTriangulationParams();
  CVolTriangulationParams(CVolTriangulationParams const &) = default;
  CVolTriangulationParams & operator=(CVolTriangulationParams const &) = default;

  /// Depth of the octree: the leaf lattice has 1 << octreeDepth steps per
  /// axis. The default -1 is not usable: set it before running.
  int getOctreeDepth() const { return m_octreeDepth; }
  int & octreeDepth() { return m_octreeDepth; }
  void setOctreeDepth(int v) { m_octreeDepth = v; }

  /// Subdivision of the polygoniser's cube against the octree's leaf cells.
  float getReconstructFactor() const { return m_reconstructFactor; }
  float & reconstructFactor() { return m_reconstructFactor; }
  void setReconstructFactor(float v) { m_reconstructFactor = v; }

  bool getClosed() const { return m_closed; }
  bool & closed() { return m_closed; }
  void setClosed(bool v) { m_closed = v; }

  bool getEstimateResultNormals() const { return m_estimateResultNormals; }
  bool & estimateResultNormals() { return m_estimateResultNormals; }
  void setEstimateResultNormals(bool v) { m_estimateResultNormals = v; }

  bool getPhaseNameShown() const { return m_phaseNameShown; }
  bool & phaseNameShown() { return m_phaseNameShown; }
  void setPhaseNameShown(bool v) { m_phaseNameShown = v; }

  /// Nodes on cell centres rather than on cell corners.
  bool getUseCenter() const { return m_useCenter; }
  bool & useCenter() { return m_useCenter; }
  void setUseCenter(bool v) { m_useCenter = v; }

  /// Width of the kernel against its unscaled form; 0 or less leaves it as is.
  float getKernelScaleFactor() const { return m_kernelScaleFactor; }
  float & kernelScaleFactor() { return m_kernelScaleFactor; }
  void setKernelScaleFactor(float v) { m_kernelScaleFactor = v; }

  /// Sink of the log lines, not owned; null silences the log.
  VsUt::IDebugLog * getDebugLog() const { return m_debugLog; }
  VsUt::IDebugLog *& debugLog() { return m_debugLog; }
  void setDebugLog(VsUt::IDebugLog * v) { m_debugLog = v; }

  bool getVariableDensity() const { return m_variableDensity; }
  bool & variableDensity() { return m_variableDensity; }
  void setVariableDensity(bool v) { m_variableDensity = v; }

  int getDensityEstimationDepthDelta() const { return m_densityEstimationDepthDelta; }
  int & densityEstimationDepthDelta() { return m_densityEstimationDepthDelta; }
  void setDensityEstimationDepthDelta(int v) { m_densityEstimationDepthDelta = v; }

  /// How many depths above the deepest node depth carry nodes; negative (or
  /// too large) means all depths from 0.
  int getDetalizationLevel() const { return m_detalizationLevel; }
  int & detalizationLevel() { return m_detalizationLevel; }
  void setDetalizationLevel(int v) { m_detalizationLevel = v; }

  /// 0 automatic by system size, 1 or 2 direct, 3 iterative, 4 decomposing.
  int getPrefferedSolver() const { return m_prefferedSolver; }
  int & prefferedSolver() { return m_prefferedSolver; }
  void setPrefferedSolver(int v) { m_prefferedSolver = v; }

  /// Extension beyond the classic solver choice, off by default: solve the
  /// system depth by depth (conjugate gradients on each depth's stencil,
  /// corrected by the other depths, in V-cycles) without ever storing or
  /// factorising the whole matrix. When on, `prefferedSolver` is not used.
  /// Same system, same surface within the solve's tolerance; memory grows with
  /// the node count only, and the time stays near linear in it.
  bool getMultilevelSolver() const { return m_multilevelSolver; }
  bool & multilevelSolver() { return m_multilevelSolver; }
  void setMultilevelSolver(bool v) { m_multilevelSolver = v; }

  /// Extension, with the multilevel solver only; 0 (off) by default: the
  /// weight of a screening term that pulls X at the samples toward one
  /// common value, so that the level set passes through the samples instead
  /// of through the noise of the splatted normals. After the multilevel
  /// solve, the finest depths are relaxed again with the samples pulling; 1
  /// makes the pull about as strong as the stiffness on the finest depth.
  /// With `screeningAdaptive` (the default) the weight shrinks as the
  /// samples scatter about the unscreened surface, measured against the
  /// finest node spacing, so that noise is not fitted: on points that lie
  /// on the surface it stays as given (tens suit them), on noisy scans it
  /// falls toward 0.
  double getScreeningWeight() const { return m_screeningWeight; }
  double & screeningWeight() { return m_screeningWeight; }
  void setScreeningWeight(double v) { m_screeningWeight = v; }
  bool getScreeningAdaptive() const { return m_screeningAdaptive; }
  bool & screeningAdaptive() { return m_screeningAdaptive; }
  void setScreeningAdaptive(bool v) { m_screeningAdaptive = v; }

  /// Extension, 0 (off) by default: splat the sample normals on the
  /// deepest depth whose occupied node cells hold at least this many samples
  /// on average, instead of always on the deepest (the density rule still
  /// lifts thin regions further). A cloud thinner than the finest cells
  /// otherwise gives a field as lumpy as its sampling; with screening, the
  /// surface still follows the samples on the finest depth.
  double getSplatSamplesPerCell() const { return m_splatSamplesPerCell; }
  double & splatSamplesPerCell() { return m_splatSamplesPerCell; }
  void setSplatSamplesPerCell(double v) { m_splatSamplesPerCell = v; }

  /// Extension, 0 (off) by default: place each surface vertex at the zero of
  /// the polynomial that interpolates X along its polygoniser edge through
  /// this many equal parts (2 to 8), instead of the ten bisections of the
  /// edge. The mesh's vertices, triangles and their order stay the same;
  /// only the positions move, by far less than the bisection's 1/1024 of an
  /// edge where the function is smooth along it, at a fraction of its cost.
  /// Applies to the fast evaluation (the default of the extraction).
  int getVertexInterpolation() const { return m_vertexInterpolation; }
  int & vertexInterpolation() { return m_vertexInterpolation; }
  void setVertexInterpolation(int v) { m_vertexInterpolation = v; }

  /// The parameters the tools use by default: the specified ones, with the
  /// extensions that give the fastest accurate surface switched on (the
  /// multilevel solve, adaptive screening of weight 64, the splat on cells
  /// of 16 samples or more, vertices interpolated through 3 parts of their
  /// edges).
  static CVolTriangulationParams makeRecommended(int octreeDepth);

  /// (1 << octreeDepth) * reconstructFactor.
  float getCellFactor() const;
  /// modelSize / getCellFactor().
  float estimateTriangleSize(float modelSize) const;
  /// 6 * f * f truncated, f = getCellFactor() (saturates at the int range).
  int estimateTrianglesNumber() const;

private:
  int m_octreeDepth;
  float m_reconstructFactor;
  bool m_closed;
  bool m_estimateResultNormals;
  bool m_phaseNameShown;
  bool m_useCenter;
  float m_kernelScaleFactor;
  VsUt::IDebugLog * m_debugLog;
  bool m_variableDensity;
  int m_densityEstimationDepthDelta;
  int m_detalizationLevel;
  int m_prefferedSolver;
  bool m_multilevelSolver;
  double m_screeningWeight;
  bool m_screeningAdaptive;
  double m_splatSamplesPerCell;
  int m_vertexInterpolation;
};

/// The caller's oriented point cloud. The coordinates pointer of a sample must
/// stay valid while the same sample's normal is asked for. Normals are used as
/// given: their length weights the sample. Reads may come from several threads.
class IInputSamples
{
public:
  virtual ~IInputSamples();

  int pointsNumber() const { return onPointsNumber(); }
  float const * getSampleCoords3(int i) const { return onGetSampleCoords3(i); }
  float const * getSampleNormal3(int i) const { return onGetSampleNormal3(i); }
  bool isBoundaryVertex(int i) const { return onIsBoundaryVertex(i); }

protected:
  IInputSamples() = default;
  IInputSamples(IInputSamples const &) = default;
  IInputSamples & operator=(IInputSamples const &) = default;

private:
  virtual int onPointsNumber() const = 0;
  virtual float const * onGetSampleCoords3(int i) const = 0;
  virtual float const * onGetSampleNormal3(int i) const = 0;
  virtual bool onIsBoundaryVertex(int i) const = 0;
};

/// The caller's mesh. Called from the thread that runs the reconstruction.
class ITriangulationTarget
{
public:
  virtual ~ITriangulationTarget();

  void addNewVertex(int index, double const * coords, double const * normal)
  {
    ++m_verticesAdded;
    onAddNewVertex(index, coords, normal);
  }
  void addNewVertex(int index, float const * coords, float const * normal)
  {
    ++m_verticesAdded;
    onAddNewVertex(index, coords, normal);
  }
  void addNewTriangle(int a, int b, int c) { onAddNewTriangle(a, b, c); }
  /// Vertices added so far.
  int debugCurrentVertexNumber() const { return m_verticesAdded; }

protected:
  ITriangulationTarget() = default;
  ITriangulationTarget(ITriangulationTarget const &) = default;
  ITriangulationTarget & operator=(ITriangulationTarget const &) = default;

private:
  virtual void onAddNewVertex(int index, double const * coords, double const * normal) = 0;
  virtual void onAddNewVertex(int index, float const * coords, float const * normal) = 0;
  virtual void onAddNewTriangle(int a, int b, int c) = 0;

  int m_verticesAdded = 0;
};

/// A failure of the reconstruction, with a fixed text.
class CVolTriangulationError : public std::exception
{
public:
  explicit CVolTriangulationError(char const * text) : m_text(text ? text : "") {}
  const char * what() const noexcept override { return m_text.c_str(); }

private:
  std::string m_text;
};

class CVolumetricTriangulatorImpl;

/// The reconstruction driver. Samples, target, counter and log stay the
/// caller's and must outlive `run`; the parameters are copied.
///
/// A handle owns its implementation alone, so it cannot be copied: two handles
/// sharing one implementation would both delete it.
class CVolumetricTriangulator
{
public:
  /// A null `params` stands for a default-constructed block; `progress` may be null.
  CVolumetricTriangulator(ITriangulationTarget * target, IInputSamples const * samples,
                          CVolTriangulationParams const * params, CProgressCounter * progress);
  virtual ~CVolumetricTriangulator();
  CVolumetricTriangulator(CVolumetricTriangulator const &) = delete;
  CVolumetricTriangulator & operator=(CVolumetricTriangulator const &) = delete;

  /// Runs the whole pipeline once; a failure arrives as an exception.
  void run();

private:
  CVolumetricTriangulatorImpl * m_impl;
};
} // namespace VolTr
