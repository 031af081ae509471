#include "QZmath/Fitting/MinMaxOptimizer.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace REmath
{
namespace
{

double tf_squaredLength(double const * v) { return v[0] * v[0] + v[1] * v[1] + v[2] * v[2]; }

// A NaN value is the worst possible one: no move is accepted because of it.
double tf_eval(CMinMaxTask::Criterion const & f, Point3D_d const & p)
{
  double const v = f(p);
  return std::isnan(v) ? -std::numeric_limits<double>::infinity() : v;
}
} // namespace

class CMinMaxOptimizer::CImpl
{
public:
  CImpl(CMinMaxTask const & task, CMinMaxParams const & params) : m_task(&task), m_params(&params)
  {
    double diag[3];
    boxDiagonal(diag);
    m_delta = std::max(tf_squaredLength(diag) * params.GetGradCalcRelDelta(), 1e-5);
  }

  void run(Point3D_d & result) const
  {
    result = m_task->GetInitApprox();
    if (m_task->NFunctions() == 0)
      return;
    std::vector<double> values(static_cast<std::size_t>(m_task->NFunctions()));
    double v = minimum(result, values);
    for (int it = 0; it < m_params->GetMaxIter(); ++it)
    {
      step(result, values);
      double const w = minimum(result, values);
      if (v + m_params->GetTolerance() > w)
        break;
      v = w;
    }
  }

private:
  void boxDiagonal(double * d) const
  {
    for (int k = 0; k < 3; ++k)
      d[k] = m_task->GetLimitMax().asArray()[k] - m_task->GetLimitMin().asArray()[k];
  }

  // The smallest criterion at x; `values` receives all of them.
  double minimum(Point3D_d const & x, std::vector<double> & values) const
  {
    double m = 1.7976931348623157e+308;
    for (int i = 0; i < m_task->NFunctions(); ++i)
    {
      values[static_cast<std::size_t>(i)] = tf_eval(*m_task->FnByIdx(i), x);
      m = std::min(m, values[static_cast<std::size_t>(i)]);
    }
    return m;
  }

  // Forward differences with one step for all axes: four evaluations.
  void gradient(CMinMaxTask::Criterion const & f, Point3D_d const & x, double * g) const
  {
    double const f0 = tf_eval(f, x);
    for (int k = 0; k < 3; ++k)
    {
      Point3D_d y(x);
      y.asArray()[k] += m_delta;
      g[k] = (tf_eval(f, y) - f0) / m_delta;
    }
  }

  void step(Point3D_d & x, std::vector<double> & values) const
  {
    double const m = minimum(x, values);
    int const count = m_task->NFunctions();

    // The direction: the gradient of the lowest criterion that has one.
    std::vector<int> order(static_cast<std::size_t>(count));
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return values[a] < values[b]; });
    double g[3] = {0.0, 0.0, 0.0};
    double g2 = 0.0;
    bool found = false;
    for (int idx : order)
    {
      gradient(*m_task->FnByIdx(idx), x, g);
      g2 = tf_squaredLength(g);
      if (g2 > 1e-08 && std::isfinite(g2))
      {
        found = true;
        break;
      }
    }
    if (!found)
      return;

    // The step length: at most the box diagonal, no further than where a
    // falling higher criterion meets the rising one, and short of the box.
    double diag[3];
    boxDiagonal(diag);
    double t = std::sqrt(tf_squaredLength(diag) / g2);
    for (int j = 0; j < count; ++j)
    {
      double const fj = values[static_cast<std::size_t>(j)];
      if (!(fj > m))
        continue;
      double gj[3];
      gradient(*m_task->FnByIdx(j), x, gj);
      double const d = gj[0] * g[0] + gj[1] * g[1] + gj[2] * g[2];
      if (d < 0)
        t = std::min(t, (fj - m) / (g2 - d));
    }
    for (int k = 0; k < 3; ++k)
    {
      if (!(std::fabs(g[k]) >= 1e-10))
        continue;
      double const room = g[k] > 0 ? m_task->GetLimitMax().asArray()[k] - x.asArray()[k]
                                   : x.asArray()[k] - m_task->GetLimitMin().asArray()[k];
      t = std::min(t, std::fabs(room / g[k]) * 0.98);
    }

    std::vector<double> trial(values.size());
    for (int attempt = 0; attempt < m_params->GetMaxGradientMoveAttempts(); ++attempt)
    {
      Point3D_d y(x.x() + t * g[0], x.y() + t * g[1], x.z() + t * g[2]);
      if (m_task->GetProjector())
        m_task->GetProjector()->Project(y);
      if (minimum(y, trial) > m + m_params->GetTolerance())
      {
        x = y;
        return;
      }
      t *= m_params->GetGradientScale();
    }
  }

  CMinMaxTask const * m_task;
  CMinMaxParams const * m_params;
  double m_delta;
};

CMinMaxOptimizer::CMinMaxOptimizer(const CMinMaxTask & task, const CMinMaxParams & params)
    : m_pImpl(new CImpl(task, params))
{
}

CMinMaxOptimizer::CMinMaxOptimizer(CMinMaxOptimizer const & other) : m_pImpl(new CImpl(*other.m_pImpl)) {}

CMinMaxOptimizer & CMinMaxOptimizer::operator=(CMinMaxOptimizer const & other)
{
  if (this != &other)
    *m_pImpl = *other.m_pImpl;
  return *this;
}

CMinMaxOptimizer::~CMinMaxOptimizer() { delete m_pImpl; }

void CMinMaxOptimizer::Run(Point3D_d & result) const { m_pImpl->run(result); }
} // namespace REmath
