#include "QZmath/Fitting/FitCircle.h"

#include <cmath>
#include <cstddef>

#include <cminpack.h>
#include <mkl.h>

#include "QZmath/Fitting/PlaneEq.h"
#include "QZmath/Fitting/detail/ScatterEigen.h"
#include "QZmath/Foundation/Matrix.h"
#include "QZmath/Foundation/VectorGeometry.h"

using REmath::LmderFunctor;
using REmath::Matrix;
using REmath::Point3D_d;
namespace dt = REmath::detail;

namespace
{
enum TF_CircleMode
{
  CircleFree = 0,
  CircleThroughPoint = 1,
  CircleTangentAtPoint = 2,
  CircleThroughTwoPoints = 3
};

constexpr int TF_REFINE_ITERATIONS = 15;
constexpr double TF_REFINE_STOP = 0.0001;

bool tf_finite(double v) { return std::isfinite(v); }
bool tf_finite(Point3D_d const & p) { return tf_finite(p.x()) && tf_finite(p.y()) && tf_finite(p.z()); }

// Solves the small dense system a x = b in place (a column-major n x n, b
// overwritten with x) with the LU factors that solveMat uses, on pivots kept
// on the stack: the robust rounds must not allocate.
bool tf_solveSmall(MKL_INT n, double * a, double * b)
{
  MKL_INT ipiv[3];
  MKL_INT info = 0, nrhs = 1, lda = n;
  dgetrf(&n, &n, a, &lda, ipiv, &info);
  if (info == 0)
    dgetrs("N", &n, &nrhs, a, &lda, ipiv, b, &lda, &info);
  return info == 0;
}

// The circle through three points given by x and y: the barycentric formula
// of makeCircleByThreePoints in the plane.
bool tf_circleThrough3(Point3D_d const & p0, Point3D_d const & p1, Point3D_d const & p2, double & cx,
                       double & cy, double & r)
{
  double const ax = p1.x() - p0.x(), ay = p1.y() - p0.y();
  double const bx = p2.x() - p0.x(), by = p2.y() - p0.y();
  double const aa = ax * ax + ay * ay, bb = bx * bx + by * by, ab = ax * bx + ay * by;
  double const D = aa * bb - ab * ab;
  if (!(D > 0.0))
    return false;
  double const s = (bb / 2.0) * (aa - ab) / D;
  double const t = (aa / 2.0) * (bb - ab) / D;
  cx = p0.x() + s * ax + t * bx;
  cy = p0.y() + s * ay + t * by;
  double const dx = cx - p0.x(), dy = cy - p0.y();
  r = std::sqrt(dx * dx + dy * dy);
  return true;
}

// The frame of a plane: p -> ((p - O).U, (p - O).V, 0), and back.
class TF_CBuilderUCS
{
public:
  TF_CBuilderUCS(double const * normal, double const * origin)
  {
    BuildUCSbyVector(normal, m_u, m_v);
    for (int k = 0; k < 3; ++k)
      m_o[k] = origin[k];
  }
  Point3D_d operator()(Point3D_d const & p) const
  {
    double const d[3] = {p.x() - m_o[0], p.y() - m_o[1], p.z() - m_o[2]};
    return Point3D_d(dt::dot3(d, m_u), dt::dot3(d, m_v), 0.0);
  }
  void operator()(std::vector<Point3D_d> const & in, std::vector<Point3D_d> & out) const
  {
    out.resize(in.size());
    for (std::size_t i = 0; i < in.size(); ++i)
      out[i] = (*this)(in[i]);
  }
  /// A direction: dots with the axes alone, no origin.
  Point3D_d direction(Point3D_d const & d) const
  {
    double const v[3] = {d.x(), d.y(), d.z()};
    return Point3D_d(dt::dot3(v, m_u), dt::dot3(v, m_v), 0.0);
  }
  Point3D_d toSpace(double u, double v) const
  {
    return Point3D_d(m_o[0] + u * m_u[0] + v * m_v[0], m_o[1] + u * m_u[1] + v * m_v[1],
                     m_o[2] + u * m_u[2] + v * m_v[2]);
  }

private:
  double m_u[3], m_v[3], m_o[3];
};

// The plane of the samples and its frame; false when the plane fit fails.
bool tf_planeFrame(std::vector<Point3D_d> const & points, double * normal, double * origin)
{
  double coefficients[4];
  if (!FitPlaneToPointSet(points, coefficients, origin))
    return false;
  for (int k = 0; k < 3; ++k)
    normal[k] = coefficients[k];
  return true;
}

// Residuals x_i^2 + y_i^2 ... of the algebraic circle distance for lmder1.
class FitCircleFunctor : public LmderFunctor
{
public:
  explicit FitCircleFunctor(std::vector<Point3D_d> const & samples) : m_samples(&samples) {}
  int operator()(int m, int, const double * x, double * fvec, double * fjac, int ldfjac,
                 int iflag) const override
  {
    double const a = x[0], b = x[1], r = x[2];
    if (iflag == 1)
    {
      for (int i = 0; i < m; ++i)
      {
        Point3D_d const & p = (*m_samples)[static_cast<std::size_t>(i)];
        double const dx = p.x() - a, dy = p.y() - b;
        fvec[i] = dx * dx + dy * dy - r * r;
      }
    }
    else if (iflag == 2)
    {
      for (int i = 0; i < m; ++i)
      {
        Point3D_d const & p = (*m_samples)[static_cast<std::size_t>(i)];
        fjac[i] = 2.0 * (a - p.x());
        fjac[i + ldfjac] = 2.0 * (b - p.y());
        fjac[i + 2 * ldfjac] = -2.0 * r;
      }
    }
    return 1;
  }

private:
  std::vector<Point3D_d> const * m_samples;
};

int tf_lmderCallback(void * p, int m, int n, const double * x, double * fvec, double * fjac, int ldfjac,
                     int iflag)
{
  if (!p)
    return -1;
  return (*static_cast<LmderFunctor const *>(p))(m, n, x, fvec, fjac, ldfjac, iflag);
}

// Plain circle fit of samples in plane coordinates.
bool tf_fitCircle2D(std::vector<Point3D_d> const & s, double & cx, double & cy, double & r)
{
  std::size_t const n = s.size();
  if (n < 3)
    return false;
  if (n == 3)
    return tf_circleThrough3(s[0], s[1], s[2], cx, cy, r);
  // A well-spread start: the extremes along the longer extent, and the point
  // farthest from both.
  double minX = 1e100, maxX = -1e100, minY = 1e100, maxY = -1e100;
  std::size_t iMinX = 0, iMaxX = 0, iMinY = 0, iMaxY = 0;
  for (std::size_t i = 0; i < n; ++i)
  {
    double const x = s[i].x(), y = s[i].y();
    if (x < minX)
      minX = x, iMinX = i;
    if (x > maxX)
      maxX = x, iMaxX = i;
    if (y < minY)
      minY = y, iMinY = i;
    if (y > maxY)
      maxY = y, iMaxY = i;
  }
  std::size_t const i0 = maxY - minY > maxX - minX ? iMinY : iMinX;
  std::size_t const i1 = maxY - minY > maxX - minX ? iMaxY : iMaxX;
  std::size_t i2 = n;
  double far = -1.0;
  for (std::size_t i = 0; i < n; ++i)
  {
    if (i == i0 || i == i1)
      continue;
    double const d = std::hypot(s[i].x() - s[i0].x(), s[i].y() - s[i0].y()) +
                     std::hypot(s[i].x() - s[i1].x(), s[i].y() - s[i1].y());
    if (i2 == n || d > far)
      far = d, i2 = i;
  }
  if (i2 == n || !tf_circleThrough3(s[i0], s[i1], s[i2], cx, cy, r))
    return false;
  double x[3] = {cx, cy, r};
  std::vector<double> fvec(n);
  FitCircleFunctor const functor(s);
  int const code = REmath::lmder1_adapter(functor, static_cast<int>(n), 3, x, fvec.data(), 1e-12);
  if (code < 1 || code > 4)
    return false;
  cx = x[0];
  cy = x[1];
  // The algebraic residual holds r only squared; its sign carries nothing.
  r = std::fabs(x[2]);
  return tf_finite(cx) && tf_finite(cy) && tf_finite(r);
}

// The robust circle model in plane coordinates: three parameters (radius,
// centre x, y); the residual of a sample is sqrt(| |p - c|^2 - r^2 |).
class RobustCircleFit : public IRegressionAnalysisTask
{
public:
  RobustCircleFit(std::vector<Point3D_d> const & points, int mode)
      : m_points(&points), m_center(0.0, 0.0, 0.0), m_radius(0.0), m_tolerance(0.001), m_mode(mode),
        m_tangentDir(0.0, 0.0, 0.0)
  {
  }
  void setFixedPoints(std::vector<Point3D_d> fixedPoints) { m_fixedPoints = std::move(fixedPoints); }
  void setTangentDir(Point3D_d const & dir) { m_tangentDir = dir; }
  Point3D_d const & center() const { return m_center; }
  double radius() const { return m_radius; }

  int parameterCount() override { return 3; }
  unsigned int sampleCount() override { return static_cast<unsigned int>(m_points->size()); }
  int fitInitial(std::vector<double> & residuals) override
  {
    std::vector<double> const ones(m_points->size(), 1.0);
    return fitWeighted(ones, residuals);
  }
  void storeParameters(std::vector<double> & parameters) override
  {
    parameters.resize(3);
    parameters[0] = m_radius;
    parameters[1] = m_center.x();
    parameters[2] = m_center.y();
  }
  bool isConverged(std::vector<double> const & parameters) override
  {
    double const limit = m_tolerance * m_radius;
    if (std::fabs(m_radius - parameters[0]) > limit)
      return false;
    double const dx = m_center.x() - parameters[1], dy = m_center.y() - parameters[2];
    return !(std::sqrt(dx * dx + dy * dy) > limit);
  }
  int fitWeighted(std::vector<double> const & weights, std::vector<double> & residuals) override;

private:
  bool algebraicStart(double const * w);
  int refineFree(double const * w);
  int refineThroughPoint(double const * w);
  void refineTangent(double const * w, double startX, double startY);
  void refineThroughTwoPoints();

  std::vector<Point3D_d> const * m_points;
  Point3D_d m_center;
  double m_radius;
  double m_tolerance;
  int m_mode;
  std::vector<Point3D_d> m_fixedPoints;
  Point3D_d m_tangentDir;
};

int RobustCircleFit::fitWeighted(std::vector<double> const & weights, std::vector<double> & residuals)
{
  if (m_points->empty())
    return ROBUST_FIT_FAILED;
  double greatest = 0.0;
  for (double w : weights)
    if (w > greatest)
      greatest = w;
  // Nothing carries weight: keep the last circle and its residuals.
  if (greatest == 0.0)
    return 0;
  double const * w = weights.data();
  if (!algebraicStart(w))
    return ROBUST_FIT_FAILED;
  double const startX = m_center.x(), startY = m_center.y();
  switch (m_mode)
  {
  case CircleFree:
    if (refineFree(w) != 0)
      return ROBUST_FIT_FAILED;
    break;
  case CircleThroughPoint:
    if (refineThroughPoint(w) != 0)
      return ROBUST_FIT_FAILED;
    break;
  case CircleTangentAtPoint:
    refineTangent(w, startX, startY);
    break;
  case CircleThroughTwoPoints:
    refineThroughTwoPoints();
    break;
  default: // any other mode keeps the algebraic circle
    break;
  }
  double const cx = m_center.x(), cy = m_center.y(), r2 = m_radius * m_radius;
  std::size_t const n = m_points->size();
  for (std::size_t i = 0; i < n; ++i)
  {
    Point3D_d const & p = (*m_points)[i];
    double const dx = p.x() - cx, dy = p.y() - cy;
    // The root of the difference of squares, not | d - r |: it grows faster
    // away from the circle and keeps the scale of the first round honest.
    residuals[i] = std::sqrt(std::fabs(dx * dx + dy * dy - r2));
  }
  return 0;
}

// The circle x^2 + y^2 = 2a x + 2b y - c in weighted least squares.
bool RobustCircleFit::algebraicStart(double const * w)
{
  double m[9] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0}, rhs[3] = {0.0, 0.0, 0.0};
  std::size_t const n = m_points->size();
  for (std::size_t i = 0; i < n; ++i)
  {
    Point3D_d const & p = (*m_points)[i];
    double const x = p.x(), y = p.y(), s = x * x + y * y + p.z() * p.z(), wi = w[i];
    m[0] += wi * (4.0 * x * x);
    m[1] += wi * (4.0 * x * y);
    m[2] += wi * (-2.0 * x);
    m[4] += wi * (4.0 * y * y);
    m[5] += wi * (-2.0 * y);
    m[8] += wi * 1.0;
    rhs[0] += wi * (2.0 * s * x);
    rhs[1] += wi * (2.0 * s * y);
    rhs[2] += wi * (-s);
  }
  m[3] = m[1];
  m[6] = m[2];
  m[7] = m[5];
  double const f = 1.0 / static_cast<double>(n);
  for (double & v : m)
    v *= f;
  for (double & v : rhs)
    v *= f;
  if (!tf_solveSmall(3, m, rhs))
    return false;
  double const a = rhs[0], b = rhs[1], c = rhs[2];
  m_center = Point3D_d(a, b, 0.0);
  m_radius = std::sqrt(std::fabs(a * a + b * b - c));
  return true;
}

// Gauss-Newton on centre and radius.
int RobustCircleFit::refineFree(double const * w)
{
  double cx = m_center.x(), cy = m_center.y(), r = m_radius;
  std::size_t const n = m_points->size();
  double const f = 1.0 / static_cast<double>(n);
  for (int it = 0; it < TF_REFINE_ITERATIONS; ++it)
  {
    double m[9] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0}, g[3] = {0.0, 0.0, 0.0};
    for (std::size_t i = 0; i < n; ++i)
    {
      Point3D_d const & p = (*m_points)[i];
      double const dx = p.x() - cx, dy = p.y() - cy;
      double const d = std::sqrt(dx * dx + dy * dy);
      if (d == 0.0) // a sample at the centre has no direction
        continue;
      double const ux = dx / d, uy = dy / d, e = d - r, wi = w[i];
      m[0] += wi * ux * ux;
      m[1] += wi * ux * uy;
      m[2] += wi * ux;
      m[4] += wi * uy * uy;
      m[5] += wi * uy;
      m[8] += wi;
      g[0] += wi * e * ux;
      g[1] += wi * e * uy;
      g[2] += wi * e;
    }
    m[3] = m[1];
    m[6] = m[2];
    m[7] = m[5];
    for (double & v : m)
      v *= f;
    for (double & v : g)
      v *= f;
    double const gradient = std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]);
    if (!tf_solveSmall(3, m, g))
      return ROBUST_FIT_FAILED;
    cx += g[0];
    cy += g[1];
    r += g[2];
    if (gradient < TF_REFINE_STOP)
    {
      m_center = Point3D_d(cx, cy, 0.0);
      m_radius = r;
      break;
    }
  }
  return 0;
}

// Gauss-Newton on the centre of a circle through P, radius |P - c|; the first
// round measures from the algebraic radius.
int RobustCircleFit::refineThroughPoint(double const * w)
{
  Point3D_d const & P = m_fixedPoints[0];
  double cx = m_center.x(), cy = m_center.y(), r = m_radius;
  std::size_t const n = m_points->size();
  double const f = 1.0 / static_cast<double>(n);
  for (int it = 0; it < TF_REFINE_ITERATIONS; ++it)
  {
    double const px = P.x() - cx, py = P.y() - cy;
    double const R = std::sqrt(px * px + py * py);
    double m[4] = {0.0, 0.0, 0.0, 0.0}, g[2] = {0.0, 0.0};
    for (std::size_t i = 0; i < n; ++i)
    {
      Point3D_d const & p = (*m_points)[i];
      double const dx = p.x() - cx, dy = p.y() - cy;
      double const d = std::sqrt(dx * dx + dy * dy);
      if (d == 0.0)
        continue;
      double const gx = dx / d - px / R, gy = dy / d - py / R, e = d - r, wi = w[i];
      m[0] += wi * gx * gx;
      m[1] += wi * gx * gy;
      m[3] += wi * gy * gy;
      g[0] += wi * e * gx;
      g[1] += wi * e * gy;
    }
    m[2] = m[1];
    for (double & v : m)
      v *= f;
    for (double & v : g)
      v *= f;
    double const gradient = std::sqrt(g[0] * g[0] + g[1] * g[1]);
    if (!tf_solveSmall(2, m, g))
      return ROBUST_FIT_FAILED;
    cx += g[0];
    cy += g[1];
    double const qx = P.x() - cx, qy = P.y() - cy;
    r = std::sqrt(qx * qx + qy * qy);
    if (gradient < TF_REFINE_STOP)
    {
      m_center = Point3D_d(cx, cy, 0.0);
      m_radius = r;
      break;
    }
  }
  return 0;
}

// Newton on the centre's position along the normal of the tangent D through
// P: cy = k cx + b0. A tangent along the first axis (Dy = 0) is not guarded:
// the rounds then fail their stop test and the algebraic circle stays.
void RobustCircleFit::refineTangent(double const * w, double startX, double startY)
{
  Point3D_d const & P = m_fixedPoints[0];
  Point3D_d const & D = m_tangentDir;
  double const k = -D.x() / D.y();
  double const b0 = P.y() + P.x() * D.x() / D.y();
  double cx = m_center.x(), cy = k * cx + b0, r = m_radius;
  std::size_t const n = m_points->size();
  for (int it = 0; it < TF_REFINE_ITERATIONS; ++it)
  {
    double const R = std::sqrt((P.x() - cx) * (P.x() - cx) + (P.y() - cy) * (P.y() - cy));
    double const E = ((P.x() - cx) + k * (P.y() - b0 - k * cx)) / R;
    double S1 = 0.0, S2 = 0.0;
    for (std::size_t i = 0; i < n; ++i)
    {
      Point3D_d const & p = (*m_points)[i];
      double const dx = p.x() - cx, dy = p.y() - cy;
      double const d = std::sqrt(dx * dx + dy * dy);
      if (d == 0.0)
        continue;
      double const T = (p.x() - cx) + k * (p.y() - b0 - k * cx);
      // The weight multiplies g alone: squared in S2, once in S1.
      double const wg = w[i] * (-T / d + E);
      S1 += wg * (d - r);
      S2 += wg * wg;
    }
    if (!(S2 > 0.0))
      break;
    cx -= S1 / S2;
    cy = k * cx + b0;
    r = std::sqrt((P.x() - cx) * (P.x() - cx) + (P.y() - cy) * (P.y() - cy));
    // A centre that jumped across P is mirrored back in the tangent line.
    if ((P.x() - startX) * (P.x() - cx) + (P.y() - startY) * (P.y() - cy) < 0.0)
    {
      double const U = -((P.x() - cx) * D.x() + (P.y() - cy) * D.y());
      cx = 2.0 * (P.x() + U * D.x()) - cx;
      cy = 2.0 * (P.y() + U * D.y()) - cy;
    }
    if (std::fabs(S1 / static_cast<double>(n)) < TF_REFINE_STOP)
    {
      m_center = Point3D_d(cx, cy, 0.0);
      m_radius = r;
      break;
    }
  }
}

// Newton on the centre's position along the bisector of P and Q, on the plain
// sum: the weights have acted through the algebraic start.
void RobustCircleFit::refineThroughTwoPoints()
{
  Point3D_d const & P = m_fixedPoints[0];
  Point3D_d const & Q = m_fixedPoints[1];
  double const k = -(P.x() - Q.x()) / (P.y() - Q.y());
  double const pp = P.x() * P.x() + P.y() * P.y() + P.z() * P.z();
  double const qq = Q.x() * Q.x() + Q.y() * Q.y() + Q.z() * Q.z();
  double const b0 = ((pp - qq) / 2.0) / (P.y() - Q.y());
  double cx = m_center.x(), cy = k * cx + b0, r = m_radius;
  std::size_t const n = m_points->size();
  for (int it = 0; it < TF_REFINE_ITERATIONS; ++it)
  {
    double const R = std::sqrt((P.x() - cx) * (P.x() - cx) + (P.y() - cy) * (P.y() - cy));
    double const E = ((P.x() - cx) + k * (P.y() - b0 - k * cx)) / R;
    double S = 0.0, G = 0.0;
    for (std::size_t i = 0; i < n; ++i)
    {
      Point3D_d const & p = (*m_points)[i];
      double const dx = p.x() - cx, dy = p.y() - cy;
      double const d = std::sqrt(dx * dx + dy * dy);
      if (d == 0.0)
        continue;
      double const T = (p.x() - cx) + k * (p.y() - b0 - k * cx);
      S += d - r;
      G += -T / d + E;
    }
    if (G == 0.0)
      break;
    cx -= S / G;
    cy = k * cx + b0;
    r = std::sqrt((P.x() - cx) * (P.x() - cx) + (P.y() - cy) * (P.y() - cy));
    if (std::fabs(S / static_cast<double>(n)) < TF_REFINE_STOP)
    {
      m_center = Point3D_d(cx, cy, 0.0);
      m_radius = r;
      break;
    }
  }
}

// Runs a robust circle task in plane coordinates and moves the result back.
bool tf_solveCircleTask(RobustCircleFit & task, TF_CBuilderUCS const & frame, double const * n,
                        Point3D_d & center, Point3D_d & normal, double & radius, CRobustFitInfo * info)
{
  CRobustRegressionSolver solver(task);
  int const code = solver.solveRegression();
  if (info)
  {
    info->iterations = solver.iterationCount();
    info->supportCount = solver.suppCount();
  }
  if (code != 0)
    return false;
  center = frame.toSpace(task.center().x(), task.center().y());
  normal = Point3D_d(n[0], n[1], n[2]);
  radius = task.radius();
  return tf_finite(center) && tf_finite(radius);
}
} // namespace

namespace REmath
{
int lmder1_adapter(const LmderFunctor & functor, int m, int n, double * x, double * fvec, double tol)
{
  // lmder1's own answer to bad sizes, before anything is sized from them.
  if (n < 1 || m < n)
    return 0;
  std::size_t const mn = static_cast<std::size_t>(m) * static_cast<std::size_t>(n);
  std::size_t const lwa = mn + 5 * static_cast<std::size_t>(n) + static_cast<std::size_t>(m);
  if (lwa > 0x7fffffff)
    return 0;
  std::vector<int> ipvt(static_cast<std::size_t>(n));
  std::vector<double> fjac(mn);
  std::vector<double> wa(lwa);
  return lmder1(&tf_lmderCallback, const_cast<LmderFunctor *>(&functor), m, n, x, fvec, fjac.data(), m, tol,
                ipvt.data(), wa.data(), static_cast<int>(lwa));
}
} // namespace REmath

bool makeCircleByThreePoints(const Point3D_d * points, Point3D_d & center, Point3D_d & normal,
                             double & radius)
{
  double const p0[3] = {points[0].x(), points[0].y(), points[0].z()};
  double const a[3] = {points[1].x() - p0[0], points[1].y() - p0[1], points[1].z() - p0[2]};
  double const b[3] = {points[2].x() - p0[0], points[2].y() - p0[1], points[2].z() - p0[2]};
  double n[3];
  dt::cross3(a, b, n);
  if (!(dt::dot3(n, n) >= 1e-24))
    return false;
  NormalizeVector(n);
  double const aa = dt::dot3(a, a), bb = dt::dot3(b, b), ab = dt::dot3(a, b);
  double const D = aa * bb - ab * ab;
  if (!(std::fabs(D) >= 1e-12))
    return false;
  double const s = (bb / 2.0) * (aa - ab) / D;
  double const t = (aa / 2.0) * (bb - ab) / D;
  double c[3];
  for (int k = 0; k < 3; ++k)
    c[k] = p0[k] + s * a[k] + t * b[k];
  double const r[3] = {c[0] - p0[0], c[1] - p0[1], c[2] - p0[2]};
  center = Point3D_d(c[0], c[1], c[2]);
  normal = Point3D_d(n[0], n[1], n[2]);
  radius = std::sqrt(dt::dot3(r, r));
  return tf_finite(center) && tf_finite(radius);
}

bool FitCircleToPointSet(const std::vector<Point3D_d> & points, Point3D_d & center, Point3D_d & normal,
                         double & radius)
{
  if (points.size() == 3)
    return makeCircleByThreePoints(points.data(), center, normal, radius);
  double n[3], o[3];
  if (!tf_planeFrame(points, n, o))
    return false;
  TF_CBuilderUCS const frame(n, o);
  std::vector<Point3D_d> samples;
  frame(points, samples);
  double cx, cy, r;
  if (!tf_fitCircle2D(samples, cx, cy, r))
    return false;
  center = frame.toSpace(cx, cy);
  normal = Point3D_d(n[0], n[1], n[2]);
  radius = r;
  return tf_finite(center);
}

bool FitCircleToPointSetRobust(const std::vector<Point3D_d> & points, Point3D_d & center, Point3D_d & normal,
                               double & radius, CRobustFitInfo * info)
{
  if (points.size() == 3)
    return makeCircleByThreePoints(points.data(), center, normal, radius);
  double n[3], o[3];
  if (!tf_planeFrame(points, n, o))
    return false;
  TF_CBuilderUCS const frame(n, o);
  std::vector<Point3D_d> samples;
  frame(points, samples);
  RobustCircleFit task(samples, CircleFree);
  return tf_solveCircleTask(task, frame, n, center, normal, radius, info);
}

bool FitCircleToPointSetRobust(const std::vector<Point3D_d> & points, Point3D_d & center, Point3D_d & normal,
                               double & radius)
{
  return FitCircleToPointSetRobust(points, center, normal, radius, nullptr);
}

bool FitCircleToPointSetWithFixedPointsRobust(const std::vector<Point3D_d> & points,
                                              const std::vector<Point3D_d> & fixedPoints, Point3D_d & center,
                                              Point3D_d & normal, double & radius)
{
  if (fixedPoints.size() > 3 || fixedPoints.empty())
    return false;
  if (fixedPoints.size() == 3)
    return makeCircleByThreePoints(fixedPoints.data(), center, normal, radius);
  double n[3], o[3];
  if (!tf_planeFrame(points, n, o))
    return false;
  TF_CBuilderUCS const frame(n, o);
  std::vector<Point3D_d> samples, fixedInPlane;
  frame(points, samples);
  frame(fixedPoints, fixedInPlane);
  RobustCircleFit task(samples, fixedPoints.size() == 2 ? CircleThroughTwoPoints : CircleThroughPoint);
  task.setFixedPoints(std::move(fixedInPlane));
  return tf_solveCircleTask(task, frame, n, center, normal, radius, nullptr);
}

bool FitCircleByPointsWithDirs(const std::vector<Point3D_d> & points,
                               const std::vector<Point3D_d> & fixedPoints,
                               const std::vector<Point3D_d> & dirs, Point3D_d & center, Point3D_d & normal,
                               double & radius)
{
  if (fixedPoints.empty() || dirs.size() < (fixedPoints.size() == 2 ? 2u : 1u))
    return false;
  double n[3], o[3];
  if (!tf_planeFrame(points, n, o))
    return false;
  TF_CBuilderUCS const frame(n, o);
  std::vector<Point3D_d> fixedInPlane;
  frame(fixedPoints, fixedInPlane);
  if (fixedPoints.size() == 2)
  {
    // Four conditions on x^2 + y^2 - 2a x - 2b y + c = 0: through each point,
    // and the radius there across its direction.
    Matrix<double> A(4, 3), rhs(4, 1);
    for (int j = 0; j < 2; ++j)
    {
      Point3D_d const & P = fixedInPlane[static_cast<std::size_t>(j)];
      Point3D_d const d = frame.direction(dirs[static_cast<std::size_t>(j)]);
      A(2 * j, 0) = 2.0 * P.x();
      A(2 * j, 1) = 2.0 * P.y();
      A(2 * j, 2) = -1.0;
      rhs(2 * j, 0) = P.x() * P.x() + P.y() * P.y();
      A(2 * j + 1, 0) = d.x();
      A(2 * j + 1, 1) = d.y();
      A(2 * j + 1, 2) = 0.0;
      rhs(2 * j + 1, 0) = P.x() * d.x() + P.y() * d.y();
    }
    Matrix<double> const At = A.transpose();
    Matrix<double> N = At * A;
    Matrix<double> x = At * rhs;
    if (!REmath::solveMat(N, x, x))
      return false;
    double const a = x(0, 0), b = x(1, 0), c = x(2, 0);
    center = frame.toSpace(a, b);
    normal = Point3D_d(n[0], n[1], n[2]);
    radius = std::sqrt(std::fabs(a * a + b * b - c));
    return tf_finite(center) && tf_finite(radius);
  }
  std::vector<Point3D_d> samples;
  frame(points, samples);
  double t[3];
  Point3D_d const tangent = frame.direction(dirs[0]);
  t[0] = tangent.x();
  t[1] = tangent.y();
  t[2] = 0.0;
  NormalizeVector(t);
  RobustCircleFit task(samples, CircleTangentAtPoint);
  fixedInPlane.resize(1);
  task.setFixedPoints(std::move(fixedInPlane));
  task.setTangentDir(Point3D_d(t[0], t[1], t[2]));
  return tf_solveCircleTask(task, frame, n, center, normal, radius, nullptr);
}
