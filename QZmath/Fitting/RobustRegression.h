#pragma once
// Iteratively reweighted least squares for any model that can fit itself with
// weights. The solver owns the robust scale, the weight function and the
// iteration limit; the task owns samples, parameters, the weighted fit and the
// test that two successive parameter sets agree. The solver knows nothing of
// geometry: the line and circle fits implement the task.

#include <vector>

/// The abstract model of a robust fit. Residuals written by the task must be
/// non-negative distances: the solver never takes an absolute value.
class IRegressionAnalysisTask
{
public:
  virtual ~IRegressionAnalysisTask() = default;
  /// Number of model parameters (6 for a line, 3 for a circle); the solver
  /// itself never asks.
  virtual int parameterCount() = 0;
  virtual unsigned int sampleCount() = 0;
  /// First, unweighted fit; `residuals` is already sized to the sample count.
  /// 0 for success, any other value is passed through as the failure.
  virtual int fitInitial(std::vector<double> & residuals) = 0;
  /// A weighted fit that refills `residuals`; 0 for success.
  virtual int fitWeighted(const std::vector<double> & weights, std::vector<double> & residuals) = 0;
  /// Writes the current parameters into `parameters`, resizing it.
  virtual void storeParameters(std::vector<double> & parameters) = 0;
  /// True when the current parameters equal, within the task's tolerance,
  /// the set stored earlier.
  virtual bool isConverged(const std::vector<double> & parameters) = 0;

protected:
  IRegressionAnalysisTask() = default;
  IRegressionAnalysisTask(IRegressionAnalysisTask const &) = default;
  IRegressionAnalysisTask & operator=(IRegressionAnalysisTask const &) = default;
};

/// The code the library's tasks return for a fit that could not be made.
constexpr int ROBUST_FIT_FAILED = 9;

/// What a robust fit did, for callers who want more than success: the number
/// of weighted fits made (0 to 49) and how many samples carried the last one.
struct CRobustFitInfo
{
  int iterations = 0;
  int supportCount = 0;
};

/// Drives a task through the reweighting scheme:
/// scale s = 1.4826 * (lower median of the residuals), never below the scale of
/// the first round; weight 1 / (1 + (r / s)^2)^2 below 2 s, 0 from 2 s on; at
/// most 49 weighted fits. Running out of rounds counts as success.
/// Buffers are kept between rounds, so after the first round the loop itself
/// allocates nothing.
class CRobustRegressionSolver
{
public:
  explicit CRobustRegressionSolver(IRegressionAnalysisTask & task);

  /// 0 on success, else the first non-zero code of the task's fits.
  int solveRegression();
  /// Weights of the last round (empty before the first run).
  const std::vector<double> & suppWeights() const { return m_suppWeights; }
  /// Samples with a non-zero weight in the last round.
  int suppCount() const { return m_suppCount; }
  /// Weighted fits made by the last run.
  int iterationCount() const { return m_iterations; }
  /// The robust scale of the last round (-1 before the first).
  double sigma() const { return m_sigma; }

private:
  void updateVariance();
  void calculateSuppWeights();

  IRegressionAnalysisTask & m_task;
  double m_sigma;
  double m_sigmaFloor;
  std::vector<double> m_residuals;
  std::vector<double> m_sortBuffer;
  std::vector<double> m_suppWeights;
  int m_suppCount;
  int m_iterations;
};
