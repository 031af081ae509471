#include "QZmath/Fitting/PlaneEq.h"

#include <cmath>

#include "QZmath/Fitting/detail/ScatterEigen.h"
#include "QZmath/Foundation/NumericRoutines.h"
#include "QZmath/Foundation/VectorGeometry.h"
#include "QZsys/Exceptions.h"

using REmath::CPtVecAdapder;
using REmath::ICoord3DRefs;
using REmath::Point3D;
using REmath::Point3D_d;
namespace dt = REmath::detail;

namespace
{
constexpr double TF_PI = 3.141592653589793;
// Below this squared length an eigenvector is taken as lost.
constexpr double TF_MIN_NORMAL_LENGTH2 = 9.999999999999998e-15;
// Sentinels of the running minima and maxima; a minimum still above
// TF_EMPTY_TEST means nothing was seen.
constexpr double TF_BIG = 1e100;
constexpr double TF_EMPTY_TEST = 1e99;
constexpr int TF_RECT_STEPS = 120;

void tf_setPoint(Point3D_d & p, double const * v) { p = Point3D_d(v[0], v[1], v[2]); }
void tf_getPoint(Point3D_d const & p, double * v)
{
  v[0] = p.x();
  v[1] = p.y();
  v[2] = p.z();
}

// A normal is turned to the viewer when its dot with the view direction,
// taken in float as the selection tools do, is negative.
void tf_orientToView(double * n, Point3D const & viewDir)
{
  float const dp = static_cast<float>(n[0]) * viewDir.x() + static_cast<float>(n[1]) * viewDir.y() +
                   static_cast<float>(n[2]) * viewDir.z();
  if (dp < 0.0f)
    for (int k = 0; k < 3; ++k)
      n[k] = -n[k];
}

// Least-squares plane normal of points about `origin` (the scatter is taken
// there), with the running minimum from `start`; false when the eigen-solution
// fails or no eigenvalue lies below `start`.
template <class P>
bool tf_planeNormal(std::vector<P> const & points, double const * weights, double const * origin,
                    double start, double * normal)
{
  double m[3][3], values[3];
  dt::weightedScatter(points, weights, origin, m);
  if (!dt::symmetricEigen3(m, values))
    return false;
  int const k = dt::smallestEigenIndex(values, start);
  if (k < 0)
    return false;
  dt::eigenvector(m, k, normal);
  return true;
}

template <class P> bool tf_fitPlane(std::vector<P> const & points, double * coefficients, double * centroid)
{
  if (points.size() < 3)
    return false;
  double c[3], n[3];
  if (!dt::weightedMean(points, nullptr, c) || !tf_planeNormal(points, nullptr, c, 1e30, n))
    return false;
  NormalizeVector(n);
  for (int k = 0; k < 3; ++k)
  {
    coefficients[k] = n[k];
    centroid[k] = c[k];
  }
  coefficients[3] = dt::dot3(n, c);
  return std::isfinite(coefficients[3]);
}

// The robust plane: four parameters (normal, n . c); a residual is the
// distance from the plane.
template <class P> class TF_RobustPlaneFit : public IRegressionAnalysisTask
{
public:
  explicit TF_RobustPlaneFit(std::vector<P> const & points) : m_points(&points) {}

  double const * normal() const { return m_normal; }
  double const * centroid() const { return m_centroid; }

  int parameterCount() override { return 4; }
  unsigned int sampleCount() override { return static_cast<unsigned int>(m_points->size()); }
  int fitInitial(std::vector<double> & residuals) override
  {
    std::vector<double> const ones(m_points->size(), 1.0);
    int const code = fitWeighted(ones, residuals);
    if (code == 0)
    {
      // The length scale of the position test: the spread of the cloud.
      double m[3][3];
      dt::weightedScatter(*m_points, nullptr, m_centroid, m);
      m_spread = std::sqrt((m[0][0] + m[1][1] + m[2][2]) / static_cast<double>(m_points->size()));
    }
    return code;
  }
  int fitWeighted(std::vector<double> const & weights, std::vector<double> & residuals) override
  {
    if (m_points->size() < 3)
      return ROBUST_FIT_FAILED;
    double greatest = 0.0;
    for (double w : weights)
      if (w > greatest)
        greatest = w;
    if (greatest == 0.0)
      return 0;
    if (!dt::weightedMean(*m_points, weights.data(), m_centroid) ||
        !tf_planeNormal(*m_points, weights.data(), m_centroid, 1e30, m_normal))
      return ROBUST_FIT_FAILED;
    NormalizeVector(m_normal);
    double const offset = dt::dot3(m_normal, m_centroid);
    std::size_t const n = m_points->size();
    for (std::size_t i = 0; i < n; ++i)
    {
      double p[3];
      dt::coords((*m_points)[i], p);
      residuals[i] = std::fabs(dt::dot3(p, m_normal) - offset);
    }
    return 0;
  }
  void storeParameters(std::vector<double> & parameters) override
  {
    parameters.resize(4);
    for (int k = 0; k < 3; ++k)
      parameters[k] = m_normal[k];
    parameters[3] = dt::dot3(m_normal, m_centroid);
  }
  bool isConverged(std::vector<double> const & parameters) override
  {
    // The eigen-solver may flip the normal between rounds: compare the plane
    // with the stored one turned the same way.
    double const c = parameters[0] * m_normal[0] + parameters[1] * m_normal[1] + parameters[2] * m_normal[2];
    double const offset = dt::dot3(m_normal, m_centroid);
    double const stored = c < 0.0 ? -parameters[3] : parameters[3];
    return 1.0 - c * c < 1e-8 && std::fabs(offset - stored) <= 1e-4 * m_spread;
  }

private:
  std::vector<P> const * m_points;
  double m_normal[3] = {0.0, 0.0, 0.0};
  double m_centroid[3] = {0.0, 0.0, 0.0};
  double m_spread = 0.0;
};

template <class P>
bool tf_fitPlaneRobust(std::vector<P> const & points, double * coefficients, double * centroid,
                       CRobustFitInfo * info)
{
  TF_RobustPlaneFit<P> task(points);
  CRobustRegressionSolver solver(task);
  int const code = solver.solveRegression();
  if (info)
  {
    info->iterations = solver.iterationCount();
    info->supportCount = solver.suppCount();
  }
  if (code != 0)
    return false;
  for (int k = 0; k < 3; ++k)
  {
    coefficients[k] = task.normal()[k];
    centroid[k] = task.centroid()[k];
  }
  coefficients[3] = dt::dot3(task.normal(), task.centroid());
  return std::isfinite(coefficients[3]);
}

// The free approximator: count, sums of points and reference normals, and
// the scatter about the current mean, updated exactly on add and remove.
class CPlaneAppoximatorCovMatrBase : public REmath::IPlaneAppoximator
{
public:
  void getPlane(REmath::CPlaneEquation & plane) override
  {
    plane.Clear();
    if (m_count < 3)
      return;
    double m[3][3], values[3];
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j)
        m[i][j] = m_scatter[i][j];
    if (!dt::symmetricEigen3(m, values))
      return;
    int const k = dt::smallestEigenIndex(values, HUGE_VAL);
    if (k < 0)
      return;
    double n[3];
    dt::eigenvector(m, k, n);
    if (dt::dot3(n, n) < TF_MIN_NORMAL_LENGTH2)
      return;
    NormalizeVector(n);
    if (dt::dot3(n, m_normalSum) < 0.0)
      for (double & c : n)
        c = -c;
    double * out = plane.NormalDir();
    for (int i = 0; i < 3; ++i)
      out[i] = n[i];
    plane.SetValidityMark(std::sqrt(dt::dot3(n, n)));
    plane.SetFreeTerm(-dt::dot3(n, m_pointSum) / static_cast<double>(m_count));
  }
  void addPoints(const ICoord3DRefs * points, const ICoord3DRefs * normals) override
  {
    update(points, normals, 1);
  }
  void removePoints(const ICoord3DRefs * points, const ICoord3DRefs * normals) override
  {
    update(points, normals, -1);
  }
  void update(const ICoord3DRefs * points, const ICoord3DRefs * normals, int sign) override
  {
    int const m = points ? points->getPointsNumber() : 0;
    if (m <= 0)
      return;
    std::uint64_t const oldCount = m_count;
    if (sign < 1 && static_cast<std::uint64_t>(m) > oldCount)
    {
      // More removed than held: nothing meaningful remains.
      clear();
      return;
    }
    double const oldSum[3] = {m_pointSum[0], m_pointSum[1], m_pointSum[2]};
    std::uint64_t const newCount = sign >= 1 ? oldCount + static_cast<std::uint64_t>(m) : oldCount - m;
    m_count = newCount;
    float const fsign = static_cast<float>(sign);
    if (newCount != 0)
    {
      addSum(points, fsign, m_pointSum);
      if (normals)
        addSum(normals, fsign, m_normalSum);
    }
    else
    {
      for (int k = 0; k < 3; ++k)
        m_pointSum[k] = m_normalSum[k] = 0.0;
    }
    double const newFactor = newCount ? 1.0 / static_cast<double>(newCount) : 0.0;
    double const oldFactor = oldCount ? 1.0 / static_cast<double>(oldCount) : 0.0;
    double mean[3];
    for (int k = 0; k < 3; ++k)
      mean[k] = sign >= 1 ? m_pointSum[k] * newFactor : oldSum[k] * oldFactor;
    double const s = static_cast<double>(sign);
    for (int i = 0; i < m; ++i)
    {
      float const * p = points->getPointCoords(i);
      double const v[3] = {p[0] - mean[0], p[1] - mean[1], p[2] - mean[2]};
      addOuter(s, v);
    }
    if (oldCount != 0)
    {
      double d[3];
      for (int k = 0; k < 3; ++k)
        d[k] = oldSum[k] * oldFactor - m_pointSum[k] * newFactor;
      double const w = sign >= 1 ? static_cast<double>(oldCount) : -static_cast<double>(newCount);
      addOuter(w, d);
    }
  }

private:
  static void addSum(const ICoord3DRefs * refs, float sign, double * sum)
  {
    int const count = refs->getPointsNumber();
    for (int i = 0; i < count; ++i)
    {
      float const * p = refs->getPointCoords(i);
      for (int k = 0; k < 3; ++k)
        sum[k] += static_cast<float>(sign * p[k]);
    }
  }
  void addOuter(double w, double const * v)
  {
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j)
        m_scatter[i][j] += w * v[i] * v[j];
  }
  void clear()
  {
    m_count = 0;
    for (int i = 0; i < 3; ++i)
    {
      m_pointSum[i] = m_normalSum[i] = 0.0;
      for (int j = 0; j < 3; ++j)
        m_scatter[i][j] = 0.0;
    }
  }

  std::uint64_t m_count = 0;
  double m_pointSum[3] = {0.0, 0.0, 0.0};
  double m_normalSum[3] = {0.0, 0.0, 0.0};
  double m_scatter[3][3] = {{0.0, 0.0, 0.0}, {0.0, 0.0, 0.0}, {0.0, 0.0, 0.0}};
};

class CPlaneAppoximatorFree : public CPlaneAppoximatorCovMatrBase
{
};

// Range of p . dir over the points, (-1, 1) for none.
void tf_range(ICoord3DRefs const & refs, double const * dir, double * limits)
{
  double lo = TF_BIG, hi = -TF_BIG;
  int const n = refs.getPointsNumber();
  for (int i = 0; i < n; ++i)
  {
    float const * p = refs.getPointCoords(i);
    double const v = p[0] * dir[0] + p[1] * dir[1] + p[2] * dir[2];
    if (v < lo)
      lo = v;
    if (v > hi)
      hi = v;
  }
  if (lo > TF_EMPTY_TEST)
  {
    lo = -1.0;
    hi = 1.0;
  }
  limits[0] = lo;
  limits[1] = hi;
}

// The plane energy of constraint 5 as a function of the angle psi of the
// normal about the fixed direction, from the scatter in the frame
// (U, V, W = fixed direction).
struct TF_AngleEnergy
{
  double s, k; // sin and cos of the fixed angle
  double aa, ab, bb, ah, bh, hh;

  double energy(double psi) const
  {
    double const c = std::cos(psi), n = std::sin(psi);
    return s * s * (aa * c * c + 2.0 * ab * c * n + bb * n * n) + 2.0 * s * k * (ah * c + bh * n) +
           k * k * hh;
  }
  double derivative(double psi) const
  {
    return s * s * ((bb - aa) * std::sin(2.0 * psi) + 2.0 * ab * std::cos(2.0 * psi)) +
           2.0 * s * k * (bh * std::cos(psi) - ah * std::sin(psi));
  }
  static double derivativeFn(double psi, void * self)
  {
    return static_cast<TF_AngleEnergy *>(self)->derivative(psi);
  }
};

bool tf_normalAtAngle(std::vector<Point3D> const & points, double const * c, double angle, double const * w,
                      double * normal)
{
  double u[3], v[3];
  BuildUCSbyVector(w, u, v);
  TF_AngleEnergy f{};
  double const alpha = angle * TF_PI / 180.0;
  f.s = std::sin(alpha);
  f.k = std::cos(alpha);
  for (Point3D const & p : points)
  {
    double const q[3] = {p.x() - c[0], p.y() - c[1], p.z() - c[2]};
    double const a = dt::dot3(q, u), b = dt::dot3(q, v), h = dt::dot3(q, w);
    f.aa += a * a;
    f.ab += a * b;
    f.bb += b * b;
    f.ah += a * h;
    f.bh += b * h;
    f.hh += h * h;
  }
  constexpr double step = 0.06283185307179587;
  double best = 1e100, bestPsi = 0.0;
  double prevPsi = 0.0, prev = f.derivative(0.0);
  for (int i = 1; i <= 100; ++i)
  {
    double const psi = i * step;
    double const cur = f.derivative(psi);
    if (prev * cur <= 0.0)
    {
      int iterations = 100, status = 0;
      double root = psi;
      BrentZeroFun(&TF_AngleEnergy::derivativeFn, prevPsi, psi, 0.0, 12, iterations, root, status, &f);
      double const e = f.energy(root);
      if (e < best)
      {
        best = e;
        bestPsi = root;
      }
    }
    prevPsi = psi;
    prev = cur;
  }
  if (!(best <= 1e99))
    return false;
  double const cp = std::cos(bestPsi), sp = std::sin(bestPsi);
  for (int k = 0; k < 3; ++k)
    normal[k] = f.s * (u[k] * cp + v[k] * sp) + f.k * w[k];
  return true;
}

bool tf_centroid(std::vector<Point3D> const & points, double * c)
{
  return !points.empty() && dt::weightedMean(points, nullptr, c);
}
} // namespace

namespace REmath
{
void CPlaneLimits::Clear()
{
  for (int i = 0; i < 2; ++i)
  {
    for (int k = 0; k < DIM; ++k)
      m_basis[i][k] = 0.0;
    m_limits[i][0] = m_limits[i][1] = 0.0;
  }
}

void CPlaneLimits::DefineAuto(const ICoord3DRefs & refs, const CPlaneEquation & plane)
{
  DefinePointsLimitsBasis(refs, plane.NormalDir(), m_basis[0], m_basis[1], TF_RECT_STEPS);
  GetSelectionLinearLimits(refs, m_basis[0], m_limits[0]);
  GetSelectionLinearLimits(refs, m_basis[1], m_limits[1]);
}

IPlaneAppoximator * IPlaneAppoximator::CreateByConstraint(PlaneFitConstraintType type)
{
  if (type != PlaneFitFree)
    throw VsUt::CTextException("bad allocation");
  return new CPlaneAppoximatorFree();
}

void DefinePointsLimitsBasis(const ICoord3DRefs & refs, const double * normal, double * e1, double * e2,
                             int steps)
{
  BuildUCSbyVector(normal, e1, e2);
  double bestArea = 1e30, bestTheta = 0.0;
  for (int i = 0; i < steps; ++i)
  {
    double const theta = i * TF_PI / steps;
    double const c = std::cos(theta), s = std::sin(theta);
    double const a[3] = {e1[0] * c + e2[0] * s, e1[1] * c + e2[1] * s, e1[2] * c + e2[2] * s};
    double b[3], ra[2], rb[2];
    dt::cross3(normal, a, b);
    tf_range(refs, a, ra);
    tf_range(refs, b, rb);
    double const area = (ra[1] - ra[0]) * (rb[1] - rb[0]);
    if (area < bestArea)
    {
      bestArea = area;
      bestTheta = theta;
    }
  }
  double const c = std::cos(bestTheta), s = std::sin(bestTheta);
  for (int k = 0; k < 3; ++k)
    e1[k] = e1[k] * c + e2[k] * s;
}

void GetSelectionLinearLimits(const ICoord3DRefs & refs, double * direction, double * limits)
{
  tf_range(refs, direction, limits);
}
} // namespace REmath

bool FitPlaneToPointSet(const std::vector<Point3D> & points, double * coefficients, double * centroid)
{
  return tf_fitPlane(points, coefficients, centroid);
}

bool FitPlaneToPointSet(const std::vector<Point3D_d> & points, double * coefficients, double * centroid)
{
  return tf_fitPlane(points, coefficients, centroid);
}

bool FitPlaneToPointSetRobust(const std::vector<Point3D> & points, double * coefficients, double * centroid,
                              CRobustFitInfo * info)
{
  return tf_fitPlaneRobust(points, coefficients, centroid, info);
}

bool FitPlaneToPointSetRobust(const std::vector<Point3D_d> & points, double * coefficients, double * centroid,
                              CRobustFitInfo * info)
{
  return tf_fitPlaneRobust(points, coefficients, centroid, info);
}

bool RecognizePlaneSelectionFree(const std::vector<Point3D> & points, const Point3D & viewDir,
                                 Point3D_d & center, Point3D_d & normal)
{
  if (points.size() < 3)
    return false;
  double c[3], n[3];
  if (!dt::weightedMean(points, nullptr, c) || !tf_planeNormal(points, nullptr, c, 1e100, n))
    return false;
  tf_orientToView(n, viewDir);
  NormalizeVector(n);
  tf_setPoint(center, c);
  tf_setPoint(normal, n);
  return true;
}

bool RecognizePlaneSelectionConstrained(const std::vector<Point3D> & points, const Point3D & viewDir,
                                        int constraint, double angle, bool useDistance, double distance,
                                        const Point3D_d & fixedPoint, const Point3D_d & fixedDir,
                                        Point3D_d & center, Point3D_d & normal, double & maxError,
                                        double & meanError, Point3D_d & basisU, Point3D_d & basisV,
                                        double * limitsU, double * limitsV)
{
  if (constraint < REmath::PlaneFitFree || constraint > REmath::PlaneFitAngleToAxis)
    return false;
  double c[3], n[3], fp[3], fd[3];
  tf_getPoint(fixedPoint, fp);
  tf_getPoint(fixedDir, fd);
  double bu[3];
  tf_getPoint(basisU, bu);
  switch (constraint)
  {
  case REmath::PlaneFitFree:
    if (!RecognizePlaneSelectionFree(points, viewDir, center, normal))
      return false;
    tf_getPoint(center, c);
    tf_getPoint(normal, n);
    break;
  case REmath::PlaneFitNormalAndDist:
  case REmath::PlaneFitNormal:
    if (!tf_centroid(points, c))
      return false;
    for (int k = 0; k < 3; ++k)
      n[k] = fd[k];
    tf_orientToView(n, viewDir);
    if (constraint == REmath::PlaneFitNormalAndDist && useDistance)
    {
      // On the centroid's side of the fixed point, `distance` away from it.
      double const rel[3] = {c[0] - fp[0], c[1] - fp[1], c[2] - fp[2]};
      double const h = dt::dot3(rel, n);
      double const t = h >= 0.0 ? distance : -distance;
      for (int k = 0; k < 3; ++k)
        c[k] += (t - h) * n[k];
    }
    break;
  case REmath::PlaneFitThroughPoint:
    for (int k = 0; k < 3; ++k)
      c[k] = fp[k];
    if (!tf_planeNormal(points, nullptr, c, 1e100, n))
      return false;
    tf_orientToView(n, viewDir);
    NormalizeVector(n);
    break;
  case REmath::PlaneFitThroughLine:
  {
    for (int k = 0; k < 3; ++k)
      c[k] = fp[k];
    double u[3], v[3];
    BuildUCSbyVector(fd, u, v);
    double A = 0.0, B = 0.0, C = 0.0;
    for (Point3D const & p : points)
    {
      double const q[3] = {p.x() - c[0], p.y() - c[1], p.z() - c[2]};
      double const a = dt::dot3(q, u), b = dt::dot3(q, v);
      A += a * a;
      B += a * b;
      C += b * b;
    }
    // The two stationary angles of the in-plane energy; the smaller wins,
    // the first on a tie.
    double const theta = std::atan2(2.0 * B, A - C) / 2.0;
    auto energy = [&](double phi)
    {
      double const cp = std::cos(phi), sp = std::sin(phi);
      return (A * cp + 2.0 * B * sp) * cp + C * sp * sp;
    };
    double const other = theta + 1.5707963267948966;
    double const phi = energy(other) < energy(theta) ? other : theta;
    for (int k = 0; k < 3; ++k)
      n[k] = u[k] * std::cos(phi) + v[k] * std::sin(phi);
    tf_orientToView(n, viewDir);
    break;
  }
  default: // PlaneFitAngleToAxis
  {
    if (!tf_centroid(points, c) || !tf_normalAtAngle(points, c, angle, fd, n))
      return false;
    tf_orientToView(n, viewDir);
    double axis[3];
    dt::cross3(fd, n, axis);
    if (NormalizeVector(axis) > 0.0)
      for (int k = 0; k < 3; ++k)
        bu[k] = axis[k];
    break;
  }
  }
  for (int k = 0; k < 3; ++k)
    if (!std::isfinite(c[k]) || !std::isfinite(n[k]))
      return false;
  tf_setPoint(center, c);
  tf_setPoint(normal, n);
  CalcPlaneFitError(points, center, normal, maxError, meanError);
  CPtVecAdapder<std::vector<Point3D>> const refs(points);
  if (dt::dot3(bu, bu) < 0.5)
  {
    double unused[3];
    REmath::DefinePointsLimitsBasis(refs, n, bu, unused, TF_RECT_STEPS);
  }
  double bv[3];
  dt::cross3(n, bu, bv);
  tf_setPoint(basisU, bu);
  tf_setPoint(basisV, bv);
  tf_range(refs, bu, limitsU);
  tf_range(refs, bv, limitsV);
  return true;
}

void CalcPlaneFitError(const std::vector<Point3D> & points, const Point3D_d & center,
                       const Point3D_d & normal, double & maxError, double & meanError)
{
  maxError = 0.0;
  meanError = 0.0;
  if (points.empty())
    return;
  double c[3], n[3];
  tf_getPoint(center, c);
  tf_getPoint(normal, n);
  double sum = 0.0;
  for (Point3D const & p : points)
  {
    double const d[3] = {c[0] - p.x(), c[1] - p.y(), c[2] - p.z()};
    double const e = std::fabs(dt::dot3(d, n));
    sum += e;
    if (e > maxError)
      maxError = e;
  }
  meanError = sum / static_cast<double>(points.size());
}
