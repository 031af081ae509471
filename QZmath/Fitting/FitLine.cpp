#include "QZmath/Fitting/FitLine.h"

#include <cmath>

#include "QZmath/Fitting/detail/ScatterEigen.h"

using REmath::Point3D;
using REmath::Point3D_d;
namespace dt = REmath::detail;

namespace
{
bool tf_finite(Point3D_d const & p)
{
  return std::isfinite(p.x()) && std::isfinite(p.y()) && std::isfinite(p.z());
}

// The line fit shared by the plain function and the robust task. `weights`
// null means all 1. With `fixedOrigin` the origin is given and stays.
template <class P>
bool tf_fitLine(std::vector<P> const & points, double const * weights, bool fixedOrigin, Point3D_d & origin,
                Point3D_d & direction)
{
  std::size_t const n = points.size();
  if (n < 2)
    return false;
  if (n == 2 && !fixedOrigin)
  {
    double p[3], q[3];
    dt::coords(points[0], p);
    dt::coords(points[1], q);
    double d[3] = {q[0] - p[0], q[1] - p[1], q[2] - p[2]};
    if (!(dt::dot3(d, d) > 0.0))
      return false;
    NormalizeVector(d);
    direction = Point3D_d(d);
    origin = Point3D_d((p[0] + q[0]) * 0.5, (p[1] + q[1]) * 0.5, (p[2] + q[2]) * 0.5);
    return true;
  }
  double o[3] = {origin.x(), origin.y(), origin.z()};
  if (!fixedOrigin && !dt::weightedMean(points, weights, o))
    return false;
  double m[3][3], values[3];
  dt::weightedScatter(points, weights, o, m);
  if (!dt::symmetricEigen3(m, values))
    return false;
  double d[3];
  dt::eigenvector(m, dt::largestEigenIndex(values), d);
  NormalizeVector(d);
  origin = Point3D_d(o);
  direction = Point3D_d(d);
  return true;
}

// The robust model of a line: six parameters (origin, direction); a residual
// is the distance from the line.
template <class P> class RobustLinearFit : public IRegressionAnalysisTask
{
public:
  RobustLinearFit(std::vector<P> const & points, Point3D_d const & origin, int throughFixedPoint)
      : m_points(&points), m_origin(origin), m_direction(0.0, 0.0, 0.0), m_positionTolerance(0.001),
        m_directionTolerance(0.001), m_throughFixedPoint(throughFixedPoint)
  {
  }

  Point3D_d const & origin() const { return m_origin; }
  Point3D_d const & direction() const { return m_direction; }

  int parameterCount() override { return 6; }
  unsigned int sampleCount() override { return static_cast<unsigned int>(m_points->size()); }
  int fitInitial(std::vector<double> & residuals) override
  {
    std::vector<double> const ones(m_points->size(), 1.0);
    return fitWeighted(ones, residuals);
  }
  int fitWeighted(std::vector<double> const & weights, std::vector<double> & residuals) override
  {
    if (m_points->size() < 2)
      return ROBUST_FIT_FAILED;
    double greatest = 0.0;
    for (double w : weights)
      if (w > greatest)
        greatest = w;
    // Nothing carries weight: keep the last line and its residuals.
    if (greatest == 0.0)
      return 0;
    if (!tf_fitLine(*m_points, weights.data(), m_throughFixedPoint != 0, m_origin, m_direction))
      return ROBUST_FIT_FAILED;
    double const o[3] = {m_origin.x(), m_origin.y(), m_origin.z()};
    double const d[3] = {m_direction.x(), m_direction.y(), m_direction.z()};
    std::size_t const n = m_points->size();
    for (std::size_t i = 0; i < n; ++i)
    {
      double p[3];
      dt::coords((*m_points)[i], p);
      double const v[3] = {p[0] - o[0], p[1] - o[1], p[2] - o[2]};
      double const along = dt::dot3(v, d);
      double const h2 = dt::dot3(v, v) - along * along;
      residuals[i] = std::sqrt(h2 > 0.0 ? h2 : 0.0);
    }
    return 0;
  }
  void storeParameters(std::vector<double> & parameters) override
  {
    parameters.resize(6);
    parameters[0] = m_origin.x();
    parameters[1] = m_origin.y();
    parameters[2] = m_origin.z();
    parameters[3] = m_direction.x();
    parameters[4] = m_direction.y();
    parameters[5] = m_direction.z();
  }
  // Only the direction decides, and its sign does not matter.
  bool isConverged(std::vector<double> const & parameters) override
  {
    double const c =
        parameters[3] * m_direction.x() + parameters[4] * m_direction.y() + parameters[5] * m_direction.z();
    return c * c > 1.0 - 2.0 * m_directionTolerance;
  }

private:
  std::vector<P> const * m_points;
  Point3D_d m_origin;
  Point3D_d m_direction;
  double m_positionTolerance; // kept for the model's completeness; not read
  double m_directionTolerance;
  int m_throughFixedPoint;
};

template <class P>
bool tf_fitLineRobust(std::vector<P> const & points, Point3D_d const & start, int throughFixedPoint,
                      Point3D_d & origin, Point3D_d & direction, CRobustFitInfo * info)
{
  RobustLinearFit<P> task(points, start, throughFixedPoint);
  CRobustRegressionSolver solver(task);
  int const code = solver.solveRegression();
  if (info)
  {
    info->iterations = solver.iterationCount();
    info->supportCount = solver.suppCount();
  }
  if (code != 0)
    return false;
  origin = task.origin();
  direction = task.direction();
  return tf_finite(origin) && tf_finite(direction);
}
} // namespace

bool FitLineToPointSet(const std::vector<Point3D_d> & points, Point3D_d & origin, Point3D_d & direction)
{
  return tf_fitLine(points, nullptr, false, origin, direction) && tf_finite(origin) && tf_finite(direction);
}

bool FitLineToPointSet(const std::vector<Point3D> & points, Point3D_d & origin, Point3D_d & direction)
{
  return tf_fitLine(points, nullptr, false, origin, direction) && tf_finite(origin) && tf_finite(direction);
}

bool FitLineToPointSetRobust(const std::vector<Point3D_d> & points, Point3D_d & origin, Point3D_d & direction)
{
  return tf_fitLineRobust(points, Point3D_d(0.0, 0.0, 0.0), 0, origin, direction, nullptr);
}

bool FitLineToPointSetRobust(const std::vector<Point3D> & points, Point3D_d & origin, Point3D_d & direction)
{
  return tf_fitLineRobust(points, Point3D_d(0.0, 0.0, 0.0), 0, origin, direction, nullptr);
}

bool FitLineToPointSetRobust(const std::vector<Point3D_d> & points, Point3D_d & origin, Point3D_d & direction,
                             CRobustFitInfo * info)
{
  return tf_fitLineRobust(points, Point3D_d(0.0, 0.0, 0.0), 0, origin, direction, info);
}

bool FitLineToPointSetRobust(const std::vector<Point3D> & points, Point3D_d & origin, Point3D_d & direction,
                             CRobustFitInfo * info)
{
  return tf_fitLineRobust(points, Point3D_d(0.0, 0.0, 0.0), 0, origin, direction, info);
}

bool FitLineToPointSetThroughPointRobust(const std::vector<Point3D_d> & points, const Point3D_d & fixedPoint,
                                         Point3D_d & direction)
{
  Point3D_d origin;
  return tf_fitLineRobust(points, fixedPoint, 1, origin, direction, nullptr);
}

bool FitLineToPointSetThroughPointRobust(const std::vector<Point3D_d> & points, const Point3D_d & fixedPoint,
                                         Point3D_d & direction, CRobustFitInfo * info)
{
  Point3D_d origin;
  return tf_fitLineRobust(points, fixedPoint, 1, origin, direction, info);
}
