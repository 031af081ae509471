#include "QZmath/Fitting/RobustRegression.h"

#include <cstddef>

namespace
{
// Consistency factor of the median absolute residual for Gaussian noise.
constexpr double TF_MAD_TO_SIGMA = 1.4826;
// Residuals from this many scales on carry no weight.
constexpr double TF_CUT_IN_SCALES = 2.0;
// The iteration counter stops the scheme when it reaches this value; with the
// first, unweighted fit counted as 1 that allows 49 weighted fits.
constexpr int TF_ITERATION_LIMIT = 50;

double tf_median3(double a, double b, double c)
{
  if (a < b)
    return b < c ? b : (a < c ? c : a);
  return a < c ? a : (b < c ? c : b);
}

// The k-th smallest value of a[0..n-1], by in-place quick-selection around the
// median of the first, middle and last element. A three-way partition keeps
// every element equal to the pivot (and any NaN, which compares neither way)
// in the middle band, so each round removes at least the pivot and the loop
// ends on every input.
double tf_selectKth(double * a, std::ptrdiff_t n, std::ptrdiff_t k)
{
  std::ptrdiff_t lo = 0, hi = n - 1;
  while (lo < hi)
  {
    double const pivot = tf_median3(a[lo], a[lo + (hi - lo) / 2], a[hi]);
    std::ptrdiff_t lt = lo, i = lo, gt = hi;
    while (i <= gt)
    {
      double const v = a[i];
      if (v < pivot)
      {
        a[i] = a[lt];
        a[lt] = v;
        ++lt;
        ++i;
      }
      else if (v > pivot)
      {
        a[i] = a[gt];
        a[gt] = v;
        --gt;
      }
      else
        ++i;
    }
    if (k < lt)
      hi = lt - 1;
    else if (k > gt)
      lo = gt + 1;
    else
      return a[k];
  }
  return a[k];
}
} // namespace

CRobustRegressionSolver::CRobustRegressionSolver(IRegressionAnalysisTask & task)
    : m_task(task), m_sigma(-1.0), m_sigmaFloor(-1.0), m_suppCount(0), m_iterations(0)
{
}

int CRobustRegressionSolver::solveRegression()
{
  std::size_t const n = m_task.sampleCount();
  m_residuals.resize(n);
  m_suppWeights.clear();
  m_suppWeights.resize(n, 1.0);
  m_sigma = -1.0;
  m_sigmaFloor = -1.0;
  m_suppCount = 0;
  m_iterations = 0;

  int code = m_task.fitInitial(m_residuals);
  if (code != 0)
    return code;
  std::vector<double> previous;
  m_task.storeParameters(previous);
  for (int counter = 1; counter < TF_ITERATION_LIMIT;)
  {
    updateVariance();
    calculateSuppWeights();
    ++m_iterations;
    code = m_task.fitWeighted(m_suppWeights, m_residuals);
    if (code != 0)
      return code;
    if (m_task.isConverged(previous))
      return 0;
    m_task.storeParameters(previous);
    ++counter;
  }
  return 0;
}

void CRobustRegressionSolver::updateVariance()
{
  m_sortBuffer.clear();
  m_sortBuffer.insert(m_sortBuffer.end(), m_residuals.begin(), m_residuals.end());
  std::ptrdiff_t const n = static_cast<std::ptrdiff_t>(m_sortBuffer.size());
  // No samples give no scale; the weights then have nothing to weigh.
  double const median = n > 0 ? tf_selectKth(m_sortBuffer.data(), n, (n - 1) / 2) : 0.0;
  double const s = TF_MAD_TO_SIGMA * median;
  if (m_sigmaFloor < 0.0)
    m_sigmaFloor = s;
  // The scale never drops below that of the first round: otherwise a good fit
  // would shrink it until the weights collapse onto a few samples.
  m_sigma = m_sigmaFloor > s ? m_sigmaFloor : s;
}

void CRobustRegressionSolver::calculateSuppWeights()
{
  m_suppCount = 0;
  double const cut = TF_CUT_IN_SCALES * m_sigma;
  std::size_t const n = m_residuals.size();
  for (std::size_t i = 0; i < n; ++i)
  {
    double const r = m_residuals[i];
    if (r >= cut)
      m_suppWeights[i] = 0.0;
    else
    {
      double const q = r / m_sigma;
      double const t = 1.0 + q * q;
      m_suppWeights[i] = 1.0 / (t * t);
      ++m_suppCount;
    }
  }
}
