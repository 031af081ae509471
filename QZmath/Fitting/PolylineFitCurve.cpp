#include "QZmath/Fitting/PolylineFitCurve.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "QZmath/Fitting/FitCircle.h"
#include "QZmath/Fitting/FitLine.h"
#include "QZmath/Fitting/PlaneEq.h"
#include "QZmath/Foundation/Matrix.h"
#include "QZmath/Foundation/VectorGeometry.h"

using REmath::Point3D_d;

/// The plane frame of the polyline. A new frame is the plane z = 0 itself,
/// which is what stays when the plane fit fails.
class TF_CBuilderUCS
{
public:
  TF_CBuilderUCS() : m_U(1.0, 0.0, 0.0), m_V(0.0, 1.0, 0.0), m_O(0.0, 0.0, 0.0), m_N(0.0, 0.0, 1.0) {}
  virtual ~TF_CBuilderUCS() = default;

  Point3D_d toPlane(Point3D_d const & p) const
  {
    double const d[3] = {p.x() - m_O.x(), p.y() - m_O.y(), p.z() - m_O.z()};
    return Point3D_d(d[0] * m_U.x() + d[1] * m_U.y() + d[2] * m_U.z(),
                     d[0] * m_V.x() + d[1] * m_V.y() + d[2] * m_V.z(), 0.0);
  }
  /// A direction's part in the plane: dots with the axes, no origin.
  void directionToPlane(Point3D_d const & d, double * out) const
  {
    out[0] = d.x() * m_U.x() + d.y() * m_U.y() + d.z() * m_U.z();
    out[1] = d.x() * m_V.x() + d.y() * m_V.y() + d.z() * m_V.z();
  }
  void pointToSpace(double x, double y, double * out) const
  {
    out[0] = m_O.x() + x * m_U.x() + y * m_V.x();
    out[1] = m_O.y() + x * m_U.y() + y * m_V.y();
    out[2] = m_O.z() + x * m_U.z() + y * m_V.z();
  }
  void directionToSpace(double x, double y, double * out) const
  {
    out[0] = x * m_U.x() + y * m_V.x();
    out[1] = x * m_U.y() + y * m_V.y();
    out[2] = x * m_U.z() + y * m_V.z();
  }

  Point3D_d m_U;
  Point3D_d m_V;
  Point3D_d m_O;
  Point3D_d m_N;
};

namespace
{
/// The float machine epsilon: the zero length of the curve code.
constexpr double tf_eps = 1.1920928955078125e-7;
constexpr int tf_maxOuterIterations = 20;
constexpr int tf_maxInnerIterations = 3;
// The adaptive damping tries harder within an iteration, since it also lowers
// the damping again after a success.
constexpr int tf_maxAdaptiveInnerIterations = 10;
constexpr double tf_minAdaptiveDamping = 1e-12;

/// BuildDefPerpendicular of the in-plane vector (x, y, 0), taken of its unit
/// vector so that a short vector gives its in-plane perpendicular too; a zero
/// vector gives zero.
void tf_perp2D(double x, double y, double * out)
{
  double const l = std::sqrt(x * x + y * y);
  out[0] = out[1] = 0.0;
  if (!(l > 0.0))
    return;
  double const v[3] = {x / l, y / l, 0.0};
  double p[3];
  BuildDefPerpendicular(v, p);
  out[0] = p[0];
  out[1] = p[1];
}

double tf_len2D(double x, double y) { return std::sqrt(x * x + y * y); }

bool tf_finite(Point3D_d const & p)
{
  return std::isfinite(p.x()) && std::isfinite(p.y()) && std::isfinite(p.z());
}

/// The normal of a fitted curve at (x, y): (B, C) for a line, the radial
/// direction (p - centre) for a circle.
void tf_curveNormal(double const * prm, double x, double y, double * n)
{
  if (std::fabs(prm[0]) < tf_eps)
  {
    n[0] = prm[1];
    n[1] = prm[2];
    return;
  }
  double const h = 0.5 / prm[0];
  double const r[2] = {x + prm[1] * h, y + prm[2] * h};
  double const l = tf_len2D(r[0], r[1]);
  n[0] = n[1] = 0.0;
  if (l > 0.0)
    n[0] = r[0] / l, n[1] = r[1] / l;
}

/// The normal of a free segment: the mean of the perpendiculars of up to 4
/// chords at its end (walking backwards) or at its start, chords shorter than
/// the zero length skipped, divided by their count and not normalised.
void tf_chordNormal(std::vector<Point3D_d> const & pts, bool atEnd, double * n)
{
  n[0] = n[1] = 0.0;
  int count = 0;
  std::size_t const size = pts.size();
  for (std::size_t s = 1; s < size && count < 4; ++s)
  {
    std::size_t const i = atEnd ? size - s : s; // the chord from point i - 1 to point i
    double const dx = pts[i].x() - pts[i - 1].x();
    double const dy = pts[i].y() - pts[i - 1].y();
    if (tf_len2D(dx, dy) < tf_eps)
      continue;
    double p[2];
    tf_perp2D(dx, dy, p);
    n[0] += p[0];
    n[1] += p[1];
    ++count;
  }
  if (count > 0)
    n[0] /= count, n[1] /= count;
}

/// The point of the curve nearest (x, y): the foot on a line; on a circle the
/// point at the signed radius 0.5 / A along the ray from the centre, so a
/// negative A lands on the far side.
void tf_projectToCurve(double const * prm, int type, double x, double y, double * out)
{
  out[0] = x;
  out[1] = y;
  if (type == PolylineCurveArc && std::fabs(prm[0]) >= tf_eps)
  {
    double const c[2] = {-prm[1] / (2.0 * prm[0]), -prm[2] / (2.0 * prm[0])};
    double const d[2] = {x - c[0], y - c[1]};
    double const l = tf_len2D(d[0], d[1]);
    if (!(l > 0.0))
      return;
    double const r = 0.5 / prm[0];
    out[0] = c[0] + d[0] / l * r;
    out[1] = c[1] + d[1] / l * r;
    return;
  }
  if (type == PolylineCurveNurbs)
    return;
  double const f = prm[1] * x + prm[2] * y + prm[3];
  out[0] = x - f * prm[1];
  out[1] = y - f * prm[2];
}

Point3D_d tf_firstPoint(std::vector<Point3D_d> const & s) { return s.empty() ? Point3D_d() : s.front(); }
Point3D_d tf_lastPoint(std::vector<Point3D_d> const & s) { return s.empty() ? Point3D_d() : s.back(); }

/// Row-major dense helpers of the joint fit.
struct TF_Dense
{
  int rows = 0;
  int cols = 0;
  std::vector<double> a;
  void resize(int r, int c)
  {
    rows = r, cols = c;
    a.assign(static_cast<std::size_t>(r) * c, 0.0);
  }
  double & operator()(int r, int c) { return a[static_cast<std::size_t>(r) * cols + c]; }
  double operator()(int r, int c) const { return a[static_cast<std::size_t>(r) * cols + c]; }
};
} // namespace

CPolylineFitCurve::CPolylineFitCurve()
    : m_ucs(new TF_CBuilderUCS), m_closed(false), m_fitTolerance(0.01), m_adaptiveDamping(false)
{
}

CPolylineFitCurve::~CPolylineFitCurve() { delete m_ucs; }

bool CPolylineFitCurve::isNurbs(int segment) const
{
  return segment < 0 || segment >= static_cast<int>(m_curveTypes.size()) ||
         m_curveTypes[segment] == PolylineCurveNurbs;
}

Point3D_d CPolylineFitCurve::toPlane(Point3D_d const & p) const { return m_ucs->toPlane(p); }

int CPolylineFitCurve::getCurveType(int segment)
{
  return segment >= 0 && segment < static_cast<int>(m_curveTypes.size()) ? m_curveTypes[segment] : -1;
}

int CPolylineFitCurve::getBndCondType(int boundary)
{
  return boundary >= 0 && boundary < boundaryCount() ? m_bndCondTypes[boundary] : -1;
}

bool CPolylineFitCurve::setCurveType(int segment, int type)
{
  if (segment < 0 || segment >= static_cast<int>(m_curveTypes.size()) || type < PolylineCurveLine ||
      type > PolylineCurveNurbs || m_curveTypes[segment] == type)
    return false;
  m_curveTypes[segment] = type;
  return true;
}

bool CPolylineFitCurve::setBndCondType(int boundary, int type)
{
  if (boundary < 0 || boundary >= boundaryCount() || type < BndCondFree || type > BndCondPointDir ||
      m_bndCondTypes[boundary] == type)
    return false;
  m_bndCondTypes[boundary] = type;
  return true;
}

void CPolylineFitCurve::setBndCond(int boundary, const Point3D_d & point, const Point3D_d & dir)
{
  if (boundary < 0 || boundary >= boundaryCount())
    return;
  Point3D_d const q = toPlane(point);
  double * b = &m_bndParams[4 * static_cast<std::size_t>(boundary)];
  b[0] = q.x();
  b[1] = q.y();
  double d[2];
  m_ucs->directionToPlane(dir, d);
  if (tf_len2D(d[0], d[1]) > tf_eps)
    tf_perp2D(d[0], d[1], b + 2);
}

// ---------------------------------------------------------------------------
// Plane and results

void CPolylineFitCurve::prepare2Dpoints(const std::vector<std::vector<Point3D_d>> & segments)
{
  std::vector<Point3D_d> all;
  for (auto const & s : segments)
    all.insert(all.end(), s.begin(), s.end());
  double coef[4], centroid[3];
  if (FitPlaneToPointSet(all, coef, centroid))
  {
    Point3D_d const n(coef[0], coef[1], coef[2]);
    Point3D_d const o(centroid[0], centroid[1], centroid[2]);
    double u[3], v[3];
    BuildUCSbyVector(coef, u, v);
    Point3D_d const U(u[0], u[1], u[2]), V(v[0], v[1], v[2]);
    if (tf_finite(n) && tf_finite(o) && tf_finite(U) && tf_finite(V))
      m_ucs->m_N = n, m_ucs->m_O = o, m_ucs->m_U = U, m_ucs->m_V = V;
  }
  m_segments.assign(segments.size(), std::vector<Point3D_d>());
  for (std::size_t k = 0; k < segments.size(); ++k)
  {
    m_segments[k].reserve(segments[k].size());
    for (Point3D_d const & p : segments[k])
      m_segments[k].push_back(toPlane(p));
  }
  m_closed = false;
  if (!segments.empty() && !segments.front().empty() && !segments.back().empty())
  {
    Point3D_d d = segments.front().front();
    d -= segments.back().back();
    m_closed = d.length() < tf_eps;
  }
}

void CPolylineFitCurve::prepare3DcrvParams(std::vector<double> & curveParams)
{
  int const ns = segmentCount();
  curveParams.resize(7 * static_cast<std::size_t>(ns), 0.0);
  for (int k = 0; k < ns; ++k)
  {
    double * prm = &m_curveParams[4 * static_cast<std::size_t>(k)];
    double * out = &curveParams[7 * static_cast<std::size_t>(k)];
    if (m_curveTypes[k] == PolylineCurveLine)
    {
      double d[2];
      tf_perp2D(prm[1], prm[2], d);
      m_ucs->pointToSpace(-prm[1] * prm[3], -prm[2] * prm[3], out);
      m_ucs->directionToSpace(d[0], d[1], out + 3);
      out[6] = -1.0;
      prm[3] = 0.0; // the stored line keeps D = 0 from here on
    }
    else if (m_curveTypes[k] == PolylineCurveArc)
    {
      m_ucs->pointToSpace(-prm[1] / (2.0 * prm[0]), -prm[2] / (2.0 * prm[0]), out);
      out[3] = m_ucs->m_N.x();
      out[4] = m_ucs->m_N.y();
      out[5] = m_ucs->m_N.z();
      out[6] = 0.5 / prm[0];
    }
  }
}

void CPolylineFitCurve::prepare3DbndCond(std::vector<double> & bndParams)
{
  int const nb = boundaryCount();
  bndParams.resize(6 * static_cast<std::size_t>(nb), 0.0);
  for (int k = 0; k < nb; ++k)
  {
    int const type = m_bndCondTypes[k];
    if (type != BndCondPoint && type != BndCondPointDir)
      continue;
    double const * b = &m_bndParams[4 * static_cast<std::size_t>(k)];
    double * out = &bndParams[6 * static_cast<std::size_t>(k)];
    m_ucs->pointToSpace(b[0], b[1], out);
    if (type == BndCondPointDir && tf_len2D(b[2], b[3]) > tf_eps)
    {
      double d[2];
      tf_perp2D(b[2], b[3], d);
      m_ucs->directionToSpace(d[0], d[1], out + 3);
    }
  }
}

// ---------------------------------------------------------------------------
// First approximations

bool CPolylineFitCurve::getFixedConditions(int segment, std::vector<Point3D_d> & points,
                                           std::vector<Point3D_d> & dirs)
{
  points.clear();
  dirs.clear();
  if (m_closed)
    return false;
  int const nb = boundaryCount();
  for (int b = segment; b <= segment + 1; ++b)
  {
    if (b < 0 || b >= nb || (b != 0 && b != nb - 1) || m_bndCondTypes[b] == BndCondFree)
      continue;
    double const * prm = &m_bndParams[4 * static_cast<std::size_t>(b)];
    points.emplace_back(prm[0], prm[1], 0.0);
    double d[2] = {0.0, 0.0};
    if (m_bndCondTypes[b] == BndCondPointDir && tf_len2D(prm[2], prm[3]) > tf_eps)
      tf_perp2D(prm[2], prm[3], d);
    dirs.emplace_back(d[0], d[1], 0.0);
  }
  return !points.empty();
}

double CPolylineFitCurve::ApproximateSegmentByLine(int segment, double * params)
{
  std::vector<Point3D_d> const & pts = m_segments[segment];
  if (pts.empty())
    return -1.0;
  std::vector<Point3D_d> fixedPoints, dirs;
  getFixedConditions(segment, fixedPoints, dirs);
  Point3D_d q, d;
  if (fixedPoints.empty())
  {
    if (!FitLineToPointSetRobust(pts, q, d))
      return -1.0;
  }
  else if (fixedPoints.size() == 1)
  {
    q = fixedPoints[0];
    if (dirs[0].length() >= tf_eps)
      d = dirs[0];
    else if (!FitLineToPointSetThroughPointRobust(pts, q, d))
      return -1.0;
  }
  else
  {
    q = fixedPoints[0];
    d = fixedPoints[1];
    d -= q;
  }
  double const dl = tf_len2D(d.x(), d.y());
  if (!(dl >= tf_eps) || !std::isfinite(dl) || !tf_finite(q))
    return -1.0;
  double const ux = d.x() / dl, uy = d.y() / dl;
  double n[2];
  tf_perp2D(ux, uy, n);
  params[0] = 0.0;
  params[1] = n[0];
  params[2] = n[1];
  params[3] = -n[0] * q.x() - n[1] * q.y();
  double sum = 0.0;
  for (Point3D_d const & p : pts)
  {
    double const wx = p.x() - q.x(), wy = p.y() - q.y();
    double const along = wx * ux + wy * uy;
    sum += std::sqrt(std::max(0.0, wx * wx + wy * wy - along * along));
  }
  return sum / static_cast<double>(pts.size());
}

double CPolylineFitCurve::ApproximateSegmentByArc(int segment, double * params)
{
  std::vector<Point3D_d> const & pts = m_segments[segment];
  if (pts.empty())
    return -1.0;
  std::vector<Point3D_d> fixedPoints, dirs;
  Point3D_d c, normal;
  double r = 0.0;
  bool ok;
  if (!getFixedConditions(segment, fixedPoints, dirs))
    ok = FitCircleToPointSet(pts, c, normal, r);
  else if (std::all_of(dirs.begin(), dirs.end(), [](Point3D_d const & d) { return !(d.length() > tf_eps); }))
    ok = FitCircleToPointSetWithFixedPointsRobust(pts, fixedPoints, c, normal, r);
  else
    ok = FitCircleByPointsWithDirs(pts, fixedPoints, dirs, c, normal, r);
  if (!ok || !(r > 0.0) || !std::isfinite(r) || !tf_finite(c))
    return -1.0;
  double const a = c.x(), b = c.y();
  double const A = 0.5 / r;
  params[0] = A;
  params[1] = -2.0 * a * A;
  params[2] = -2.0 * b * A;
  params[3] = (a * a + b * b - r * r) * 0.5 / r;
  double sum = 0.0;
  for (Point3D_d const & p : pts)
    sum += std::fabs(tf_len2D(p.x() - a, p.y() - b) - r);
  return sum / static_cast<double>(pts.size());
}

bool CPolylineFitCurve::defineCurveTypes()
{
  int const ns = segmentCount();
  m_curveTypes.resize(ns, PolylineCurveLine);
  m_curveParams.resize(4 * static_cast<std::size_t>(ns), 0.0);
  return defineCurveTypes(0, ns - 1);
}

bool CPolylineFitCurve::defineCurveTypes(int first, int last)
{
  int const ns = segmentCount();
  if (ns == 0 || static_cast<int>(m_curveTypes.size()) != ns)
    return true;
  for (int i = first; i <= last; ++i)
  {
    int const k = ((i % ns) + ns) % ns;
    double line[4], arc[4];
    double const eL = ApproximateSegmentByLine(k, line);
    double const eA = ApproximateSegmentByArc(k, arc);
    double * prm = &m_curveParams[4 * static_cast<std::size_t>(k)];
    // A failed model (negative error) is never taken.
    if (eL >= 0.0 && (eA > eL || eA < 0.0) && m_fitTolerance > eL)
    {
      m_curveTypes[k] = PolylineCurveLine;
      std::copy(line, line + 4, prm);
    }
    else if (eA >= 0.0 && (eL > eA || eL < 0.0) && m_fitTolerance > eA)
    {
      m_curveTypes[k] = PolylineCurveArc;
      std::copy(arc, arc + 4, prm);
    }
    else
    {
      m_curveTypes[k] = PolylineCurveNurbs;
      std::fill(prm, prm + 4, 0.0);
    }
  }
  return true;
}

void CPolylineFitCurve::curveNormalAt(int segment, int chordSegment, bool atEnd, double x, double y,
                                      double * normal)
{
  if (!isNurbs(segment))
    tf_curveNormal(&m_curveParams[4 * static_cast<std::size_t>(segment)], x, y, normal);
  else
    tf_chordNormal(m_segments[chordSegment], atEnd, normal);
}

void CPolylineFitCurve::joinParams(int first, int second, int & type, double * params)
{
  std::vector<Point3D_d> const & s1 = m_segments[first];
  std::vector<Point3D_d> const & s2 = m_segments[second];
  Point3D_d const p = s1.empty() ? tf_firstPoint(s2) : s1.back();
  Point3D_d const q = s2.empty() ? p : s2.front();
  // The point comes from the first curve of the join that is not free.
  int const from = !isNurbs(first) ? first : second;
  tf_projectToCurve(&m_curveParams[4 * static_cast<std::size_t>(from)], m_curveTypes[from], p.x(), p.y(),
                    params);
  double n1[2], n2[2];
  curveNormalAt(first, first, true, p.x(), p.y(), n1);
  // A free segment after the join is read through the chords at the start of
  // the segment before it, as the near segment in both cases.
  curveNormalAt(second, first, false, q.x(), q.y(), n2);
  double const dot = n1[0] * n2[0] + n1[1] * n2[1];
  if (std::fabs(std::fabs(dot) - 1.0) < m_fitTolerance)
  {
    type = BndCondPointDir;
    params[2] = n1[0];
    params[3] = n1[1];
  }
  else
  {
    type = BndCondPoint;
    params[2] = params[3] = 0.0;
  }
}

void CPolylineFitCurve::defineBndParamsBetweenSegments(int first, int second)
{
  int const ns = segmentCount();
  int const nb = boundaryCount();
  if (ns == 0 || first < 0 || first >= ns || second < 0 || second >= ns || second >= nb)
    return;
  joinParams(first, second, m_bndCondTypes[second], &m_bndParams[4 * static_cast<std::size_t>(second)]);
}

void CPolylineFitCurve::defineNurbsBndCondParams(int first, int second)
{
  defineBndParamsBetweenSegments(first, second);
}

bool CPolylineFitCurve::defineBndCurveTypes()
{
  int const ns = segmentCount();
  if (ns == 0)
    return false;
  if (!m_closed && ns == 1)
  {
    m_bndCondTypes.assign(2, BndCondFree);
    m_bndParams.assign(8, 0.0);
    return true;
  }
  int const joins = m_closed ? ns : ns - 1;
  std::vector<int> types(joins, BndCondFree);
  std::vector<double> params(4 * static_cast<std::size_t>(joins), 0.0);
  for (int k = 0; k < joins; ++k)
    joinParams(k, (k + 1) % ns, types[k], &params[4 * static_cast<std::size_t>(k)]);
  if (m_closed)
  {
    // Join k lies before segment k + 1: the last join becomes boundary 0.
    std::rotate(types.begin(), types.end() - 1, types.end());
    std::rotate(params.begin(), params.end() - 4, params.end());
  }
  else
  {
    types.insert(types.begin(), BndCondFree);
    types.push_back(BndCondFree);
    params.insert(params.begin(), 4, 0.0);
    params.insert(params.end(), 4, 0.0);
  }
  m_bndCondTypes.swap(types);
  m_bndParams.swap(params);
  return boundaryCount() == ns + (m_closed ? 0 : 1);
}

void CPolylineFitCurve::makeInitialApproxForSegment(int segment, int type)
{
  double * prm = &m_curveParams[4 * static_cast<std::size_t>(segment)];
  double fresh[4];
  if (type == PolylineCurveLine)
  {
    if (ApproximateSegmentByLine(segment, fresh) >= 0.0)
      std::copy(fresh, fresh + 4, prm);
  }
  else if (type == PolylineCurveArc)
  {
    if (ApproximateSegmentByArc(segment, fresh) >= 0.0)
      std::copy(fresh, fresh + 4, prm);
  }
  else
    std::fill(prm, prm + 4, 0.0);
}

void CPolylineFitCurve::makeInitialApproxFotBndCond(int boundary, int type)
{
  int const ns = segmentCount();
  if (ns == 0 || boundary < 0 || boundary >= boundaryCount() || isBndCondFixed(boundary))
    return;
  int const next = boundary % ns;
  int const prev = boundary == 0 ? ns - 1 : boundary - 1;
  Point3D_d const q = m_segments[next].empty() ? tf_lastPoint(m_segments[prev]) : m_segments[next].front();
  double * b = &m_bndParams[4 * static_cast<std::size_t>(boundary)];
  int const from = !isNurbs(prev) ? prev : next;
  tf_projectToCurve(&m_curveParams[4 * static_cast<std::size_t>(from)], m_curveTypes[from], q.x(), q.y(), b);
  b[2] = b[3] = 0.0;
  if (type != BndCondPointDir)
    return;
  double n1[2], n2[2];
  curveNormalAt(prev, prev, true, b[0], b[1], n1);
  curveNormalAt(next, next, false, b[0], b[1], n2);
  double const dot = n1[0] * n2[0] + n1[1] * n2[1];
  double u = n1[0], v = n1[1];
  if (std::fabs(std::fabs(dot) - 1.0) > tf_eps)
  {
    double const s = dot < 0.0 ? -1.0 : 1.0;
    u = 0.5 * (n1[0] + s * n2[0]);
    v = 0.5 * (n1[1] + s * n2[1]);
    double const l = tf_len2D(u, v);
    if (l > 0.0)
      u /= l, v /= l;
  }
  b[2] = u;
  b[3] = v;
}

// ---------------------------------------------------------------------------
// The joint fit

bool CPolylineFitCurve::isBndCondFree(int boundary)
{
  if (m_bndCondTypes[boundary] == BndCondFree)
    return true;
  int const ns = segmentCount();
  if (m_closed)
    return isNurbs(boundary == 0 ? ns - 1 : boundary - 1) || isNurbs(boundary % ns);
  return (boundary > 0 && isNurbs(boundary - 1)) || (boundary < ns && isNurbs(boundary));
}

bool CPolylineFitCurve::isBndCondFixed(int boundary)
{
  return boundaryCount() > 0 && !m_closed && (boundary == 0 || boundary == boundaryCount() - 1);
}

int CPolylineFitCurve::getParamIndexBySegmentNumber(int segment)
{
  int index = 0;
  for (int k = 0; k < segment; ++k)
    index += isNurbs(k) ? 0 : 4;
  return index;
}

int CPolylineFitCurve::boundaryParamIndex(int boundary, int bndStart)
{
  int index = bndStart;
  for (int b = 0; b < boundary; ++b)
    if (!isBndCondFree(b))
      index += m_bndCondTypes[b] == BndCondPointDir ? 4 : 2;
  return index;
}

namespace
{
/// The segments a boundary ties: the one before (index clamped at 0) and the
/// one after (skipped past the last). In a closed polyline boundary 0 is thus
/// tied to segment 0 twice and never to the last segment.
void tf_boundarySegments(int boundary, int ns, int * segs, int & count)
{
  count = 0;
  int const before = std::max(boundary - 1, 0);
  if (before < ns)
    segs[count++] = before;
  if (boundary < ns)
    segs[count++] = boundary;
}
} // namespace

double CPolylineFitCurve::getResiduals(std::vector<double> const & p, int bndStart)
{
  int const ns = segmentCount();
  double sum = 0.0;
  std::size_t count = 0;
  for (int k = 0; k < ns; ++k)
  {
    if (isNurbs(k))
      continue;
    double const * prm = &p[getParamIndexBySegmentNumber(k)];
    for (Point3D_d const & q : m_segments[k])
    {
      double const s = q.x() * q.x() + q.y() * q.y() + q.z() * q.z();
      double const f = prm[0] * s + prm[1] * q.x() + prm[2] * q.y() + prm[3];
      sum += f * f;
    }
    count += m_segments[k].size();
  }
  double E = count > 0 ? sum / static_cast<double>(count) : 0.0;
  int const nb = boundaryCount();
  for (int b = 0; b < nb; ++b)
  {
    if (isBndCondFree(b))
      continue;
    double const * bp = &p[boundaryParamIndex(b, bndStart)];
    double const x = bp[0], y = bp[1];
    int segs[2], nsegs;
    tf_boundarySegments(b, ns, segs, nsegs);
    for (int i = 0; i < nsegs; ++i)
    {
      if (isNurbs(segs[i]))
        continue;
      double const * prm = &p[getParamIndexBySegmentNumber(segs[i])];
      double const f = prm[0] * (x * x + y * y) + prm[1] * x + prm[2] * y + prm[3];
      E += f * f;
      if (m_bndCondTypes[b] == BndCondPointDir)
      {
        double const t = (2.0 * prm[0] * x + prm[1]) * bp[3] - (2.0 * prm[0] * y + prm[2]) * bp[2];
        E += t * t;
      }
    }
  }
  return std::sqrt(E);
}

void CPolylineFitCurve::MakePointsMatrix(std::vector<double> & M, int order)
{
  M.assign(static_cast<std::size_t>(order) * order, 0.0);
  int const ns = segmentCount();
  for (int k = 0; k < ns; ++k)
  {
    if (isNurbs(k) || m_segments[k].empty())
      continue;
    int const i0 = getParamIndexBySegmentNumber(k);
    double block[4][4] = {};
    for (Point3D_d const & q : m_segments[k])
    {
      double const w[4] = {q.x() * q.x() + q.y() * q.y() + q.z() * q.z(), q.x(), q.y(), 1.0};
      for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c)
          block[r][c] += w[r] * w[c];
    }
    double const n = static_cast<double>(m_segments[k].size());
    for (int r = 0; r < 4; ++r)
      for (int c = 0; c < 4; ++c)
        M[static_cast<std::size_t>(i0 + r) * order + i0 + c] = block[r][c] / n;
  }
}

void CPolylineFitCurve::MakeConstrMatrix(std::vector<double> const & p, std::vector<double> & rows,
                                         int & rowCount)
{
  int const width = static_cast<int>(p.size()) + 1;
  int const last = width - 1;
  rows.clear();
  rowCount = 0;
  auto newRow = [&]()
  {
    rows.resize(rows.size() + width, 0.0);
    ++rowCount;
    return &rows[rows.size() - width];
  };
  int const ns = segmentCount();
  for (int k = 0; k < ns; ++k)
  {
    if (isNurbs(k))
      continue;
    int const i = getParamIndexBySegmentNumber(k);
    double const A = p[i], B = p[i + 1], C = p[i + 2], D = p[i + 3];
    double * row = newRow();
    row[i] = -4.0 * D;
    row[i + 1] = 2.0 * B;
    row[i + 2] = 2.0 * C;
    row[i + 3] = -4.0 * A;
    row[last] = B * B - 1.0 + C * C - 4.0 * A * D;
    if (std::fabs(A) < tf_eps)
      newRow()[i] = 1.0; // holds a line straight
  }
  int const bndStart = getParamIndexBySegmentNumber(ns);
  int const nb = boundaryCount();
  for (int b = 0; b < nb; ++b)
  {
    if (isBndCondFree(b))
      continue;
    bool const withDir = m_bndCondTypes[b] == BndCondPointDir;
    int const j = boundaryParamIndex(b, bndStart);
    if (isBndCondFixed(b))
    {
      for (int c = 0; c < (withDir ? 4 : 2); ++c)
        newRow()[j + c] = 1.0; // the caller's end stays where it is
    }
    double const x = p[j], y = p[j + 1];
    double const u = withDir ? p[j + 2] : 0.0, v = withDir ? p[j + 3] : 0.0;
    int segs[2], nsegs;
    tf_boundarySegments(b, ns, segs, nsegs);
    for (int s = 0; s < nsegs; ++s)
    {
      if (isNurbs(segs[s]))
        continue;
      int const i = getParamIndexBySegmentNumber(segs[s]);
      double const A = p[i], B = p[i + 1], C = p[i + 2], D = p[i + 3];
      double * row = newRow();
      row[i] = x * x + y * y;
      row[i + 1] = x;
      row[i + 2] = y;
      row[i + 3] = 1.0;
      row[j] = 2.0 * A * x + B;
      row[j + 1] = 2.0 * A * y + C;
      row[last] = A * (x * x + y * y) + B * x + C * y + D;
      if (!withDir)
        continue;
      row = newRow();
      row[i] = 2.0 * x * v - 2.0 * y * u;
      row[i + 1] = v;
      row[i + 2] = -u;
      row[j] = 2.0 * A * v;
      row[j + 1] = -2.0 * A * u;
      row[j + 2] = -(2.0 * A * y + C);
      row[j + 3] = 2.0 * A * x + B;
      row[last] = (2.0 * A * x + B) * v - (2.0 * A * y + C) * u;
      row = newRow();
      row[j + 2] = 2.0 * u;
      row[j + 3] = 2.0 * v;
      row[last] = u * u + v * v - 1.0;
    }
  }
}

int CPolylineFitCurve::formMatrix(int /*bndStart*/, std::vector<double> const & p, std::vector<double> & M,
                                  std::vector<double> & Z, std::vector<double> & N, std::vector<double> & r)
{
  int const width = static_cast<int>(p.size()) + 1;
  std::vector<double> rowsFlat;
  int rowCount = 0;
  MakeConstrMatrix(p, rowsFlat, rowCount);
  // Columns of the constraint matrix and of Z, so that a column can go.
  std::vector<std::vector<double>> con(width, std::vector<double>(rowCount));
  std::vector<std::vector<double>> z(width, std::vector<double>(width, 0.0));
  for (int c = 0; c < width; ++c)
  {
    z[c][c] = 1.0;
    for (int i = 0; i < rowCount; ++i)
      con[c][i] = rowsFlat[static_cast<std::size_t>(i) * width + c];
  }
  // Each constraint, linearised, removes one unknown: the one of its largest
  // coefficient is written through the others and the constant, column j of
  // the identity being replaced by -c_i / c_j and then dropped.
  for (int i = 0; i < rowCount; ++i)
  {
    int const cols = static_cast<int>(con.size());
    int j = -1;
    double best = tf_eps;
    for (int c = 0; c + 1 < cols; ++c)
      if (std::fabs(con[c][i]) > best)
        best = std::fabs(con[c][i]), j = c;
    if (j < 0)
      continue;
    double const cj = con[j][i];
    for (int c = 0; c < cols; ++c)
    {
      if (c == j)
        continue;
      double const f = -con[c][i] / cj;
      if (f == 0.0)
        continue;
      for (int rr = 0; rr < rowCount; ++rr)
        con[c][rr] += con[j][rr] * f;
      for (int rr = 0; rr < width; ++rr)
        z[c][rr] += z[j][rr] * f;
    }
    con.erase(con.begin() + j);
    z.erase(z.begin() + j);
  }
  int const cols = static_cast<int>(z.size());
  if (cols == 1)
    return 0;
  // M p in the last row and column of M (0 in the corner), H = Z^T M Z.
  std::vector<double> Mp(width, 0.0);
  for (int a = 0; a + 1 < width; ++a)
    for (int b = 0; b + 1 < width; ++b)
      Mp[a] += M[static_cast<std::size_t>(a) * width + b] * p[b];
  for (int a = 0; a + 1 < width; ++a)
    M[static_cast<std::size_t>(a) * width + width - 1] = M[static_cast<std::size_t>(width - 1) * width + a] =
        Mp[a];
  TF_Dense MZ;
  MZ.resize(width, cols);
  for (int c = 0; c < cols; ++c)
    for (int b = 0; b < width; ++b)
    {
      double const zb = z[c][b];
      if (zb == 0.0)
        continue;
      for (int a = 0; a < width; ++a)
        MZ(a, c) += M[static_cast<std::size_t>(a) * width + b] * zb;
    }
  for (int a = 0; a < width; ++a)
    M[static_cast<std::size_t>(a) * width + width - 1] = M[static_cast<std::size_t>(width - 1) * width + a] =
        0.0;
  TF_Dense H;
  H.resize(cols, cols);
  for (int a = 0; a < cols; ++a)
    for (int c = 0; c < cols; ++c)
    {
      double s = 0.0;
      for (int b = 0; b < width; ++b)
        s += z[a][b] * MZ(b, c);
      H(a, c) = s;
    }
  int const m = cols - 1;
  std::vector<double> g(m);
  for (int a = 0; a < m; ++a)
    g[a] = -H(a, m);
  N.assign(static_cast<std::size_t>(m) * m, 0.0);
  r.assign(m, 0.0);
  for (int a = 0; a < m; ++a)
  {
    for (int c = 0; c < m; ++c)
    {
      double s = 0.0;
      for (int b = 0; b < m; ++b)
        s += H(b, a) * H(b, c);
      N[static_cast<std::size_t>(a) * m + c] = s;
    }
    double s = 0.0;
    for (int b = 0; b < m; ++b)
      s += H(b, a) * g[b];
    r[a] = s;
  }
  Z.assign(static_cast<std::size_t>(width) * cols, 0.0);
  for (int c = 0; c < cols; ++c)
    for (int a = 0; a < width; ++a)
      Z[static_cast<std::size_t>(a) * cols + c] = z[c][a];
  return m;
}

void CPolylineFitCurve::fitPolylineSegments()
{
  int const ns = segmentCount();
  int const nb = boundaryCount();
  std::vector<double> p;
  for (int k = 0; k < ns; ++k)
    if (!isNurbs(k))
      p.insert(p.end(), m_curveParams.begin() + 4 * k, m_curveParams.begin() + 4 * k + 4);
  int const bndStart = static_cast<int>(p.size());
  for (int b = 0; b < nb; ++b)
    if (!isBndCondFree(b))
      p.insert(p.end(), m_bndParams.begin() + 4 * b,
               m_bndParams.begin() + 4 * b + (m_bndCondTypes[b] == BndCondPointDir ? 4 : 2));
  if (p.empty())
    return;
  int const width = static_cast<int>(p.size()) + 1;
  // The points enter only through their moments, which the iteration does not change.
  std::vector<double> M, Z, N, r;
  MakePointsMatrix(M, width);

  double const E0 = getResiduals(p, bndStart);
  double L = 0.0001;
  std::vector<double> trial(p.size());
  bool done = false;
  bool const adaptive = m_adaptiveDamping;
  int const innerCap = adaptive ? tf_maxAdaptiveInnerIterations : tf_maxInnerIterations;
  for (int outer = 0; outer < tf_maxOuterIterations && !done; ++outer)
  {
    if (!adaptive)
      L += 0.04;
    double const Ecur = getResiduals(p, bndStart);
    int const m = formMatrix(bndStart, p, M, Z, N, r);
    if (m == 0)
      break;
    int const cols = m + 1;
    double Etrial = Ecur;
    for (int inner = 0; inner < innerCap; ++inner)
    {
      if (!adaptive || inner > 0)
        L *= 10.0;
      REmath::Matrix<double> a(m, m), rhs(m, 1), y(m, 1);
      for (int i = 0; i < m; ++i)
      {
        rhs(i, 0) = r[i];
        for (int c = 0; c < m; ++c)
          a(i, c) = N[static_cast<std::size_t>(i) * m + c];
        a(i, i) += (N[static_cast<std::size_t>(i) * m + i] + 1.0) * L;
      }
      std::vector<double> step(cols, 0.0);
      if (solveMat(a, rhs, y)) // a singular system leaves the step at zero
        for (int i = 0; i < m; ++i)
          step[i] = y(i, 0);
      step[m] = 1.0;
      for (int i = 0; i + 1 < width; ++i)
      {
        double s = 0.0;
        for (int c = 0; c < cols; ++c)
          s += Z[static_cast<std::size_t>(i) * cols + c] * step[c];
        trial[i] = p[i] + s;
      }
      double rr = 0.0;
      for (double v : r)
        rr += v * v;
      if (std::sqrt(std::fabs(rr)) < m_fitTolerance)
      {
        p = trial;
        done = true;
        break;
      }
      Etrial = getResiduals(trial, bndStart);
      if (Ecur > Etrial)
        break;
    }
    if (!done && Ecur > Etrial)
    {
      p = trial;
      if (adaptive)
        L = std::max(L * 0.1, tf_minAdaptiveDamping);
    }
    else if (adaptive && !done)
      break; // no damping improves on the current chain: it is the minimum
  }
  if (!(E0 > getResiduals(p, bndStart)))
    return; // the first approximation stays
  std::size_t idx = 0;
  for (int k = 0; k < ns; ++k)
    if (!isNurbs(k))
      for (int c = 0; c < 4; ++c)
        m_curveParams[4 * static_cast<std::size_t>(k) + c] = p[idx++];
  for (int b = 0; b < nb; ++b)
    if (!isBndCondFree(b))
      for (int c = 0; c < (m_bndCondTypes[b] == BndCondPointDir ? 4 : 2); ++c)
        m_bndParams[4 * static_cast<std::size_t>(b) + c] = p[idx++];
}

// ---------------------------------------------------------------------------
// Public operations

int CPolylineFitCurve::fitPolyline(const std::vector<std::vector<Point3D_d>> & segments,
                                   std::vector<double> & curveParams, std::vector<double> & bndParams)
{
  if (segments.empty())
    return 9;
  // A new polyline starts without conditions of its own.
  m_bndCondTypes.clear();
  m_bndParams.clear();
  prepare2Dpoints(segments);
  int const ns = segmentCount();
  m_curveTypes.resize(ns, PolylineCurveLine);
  m_curveParams.resize(4 * static_cast<std::size_t>(ns), 0.0);
  if (!defineCurveTypes(0, ns - 1) || !defineBndCurveTypes())
    return 0;
  fitPolylineSegments();
  int const joins = m_closed ? ns : ns - 1;
  for (int k = 0; k < joins; ++k)
  {
    int const next = (k + 1) % ns;
    if (isNurbs(k) || isNurbs(next))
      defineNurbsBndCondParams(k, next);
  }
  prepare3DcrvParams(curveParams);
  prepare3DbndCond(bndParams);
  return 0;
}

int CPolylineFitCurve::fitPolyline(std::vector<double> & curveParams, std::vector<double> & bndParams)
{
  if (m_segments.empty() || m_curveTypes.empty() || m_bndCondTypes.empty())
    return 9;
  int const ns = segmentCount();
  for (int k = 0; k < ns; ++k)
    makeInitialApproxForSegment(k, m_curveTypes[k]);
  for (int b = 0; b < boundaryCount(); ++b)
    if (!isBndCondFixed(b))
      makeInitialApproxFotBndCond(b, m_bndCondTypes[b]);
  fitPolylineSegments();
  prepare3DcrvParams(curveParams);
  prepare3DbndCond(bndParams);
  return 0;
}

void CPolylineFitCurve::addSegment(const std::vector<std::vector<Point3D_d>> & segments, int k,
                                   std::vector<double> & curveParams, std::vector<double> & bndParams)
{
  int const nsOld = segmentCount();
  if (nsOld == 0 || k < 0 || k >= nsOld || static_cast<int>(segments.size()) != nsOld + 1)
    return;
  m_segments.insert(m_segments.begin() + k, std::vector<Point3D_d>());
  m_curveTypes.insert(m_curveTypes.begin() + k, PolylineCurveNurbs);
  m_curveParams.insert(m_curveParams.begin() + 4 * k, 4, 0.0);
  int const ns = nsOld + 1;
  auto takePoints = [&](int s)
  {
    m_segments[s].clear();
    for (Point3D_d const & p : segments[s])
      m_segments[s].push_back(toPlane(p));
  };
  takePoints(k);
  takePoints((k + 1) % ns);
  defineCurveTypes(k, k + 1);
  if (m_closed && k == 0)
  {
    takePoints(ns - 1);
    defineCurveTypes(ns - 1, ns - 1);
  }
  int const at = (k + 1) % ns;
  m_bndCondTypes.insert(m_bndCondTypes.begin() + at, BndCondFree);
  m_bndParams.insert(m_bndParams.begin() + 4 * at, 4, 0.0);
  defineBndParamsBetweenSegments(k, at);
  if (m_closed && boundaryCount() == 2)
    defineBndParamsBetweenSegments(at, k);
  prepare3DcrvParams(curveParams);
  prepare3DbndCond(bndParams);
}

void CPolylineFitCurve::deleteSegment(int k, std::vector<double> & curveParams,
                                      std::vector<double> & bndParams)
{
  int const ns = segmentCount();
  if (ns < 2 || k < 0 || k >= ns || (k == 0 && !m_closed) || k >= boundaryCount())
    return;
  int const prev = k == 0 ? ns - 1 : k - 1;
  m_segments[prev].insert(m_segments[prev].end(), m_segments[k].begin(), m_segments[k].end());
  m_segments.erase(m_segments.begin() + k);
  m_curveParams.erase(m_curveParams.begin() + 4 * k, m_curveParams.begin() + 4 * k + 4);
  m_curveTypes.erase(m_curveTypes.begin() + k);
  m_bndCondTypes.erase(m_bndCondTypes.begin() + k);
  m_bndParams.erase(m_bndParams.begin() + 4 * k, m_bndParams.begin() + 4 * k + 4);
  int const merged = prev > k ? prev - 1 : prev;
  defineCurveTypes(merged, merged);
  prepare3DcrvParams(curveParams);
  prepare3DbndCond(bndParams);
}

bool CPolylineFitCurve::moveBnd(const std::vector<std::vector<Point3D_d>> & segments, int boundary)
{
  int const ns = segmentCount();
  int const nb = boundaryCount();
  if (ns == 0 || boundary < 0 || boundary >= nb || isBndCondFixed(boundary) ||
      static_cast<int>(segments.size()) != ns)
    return false;
  int const next = boundary % ns;
  int const prev = boundary == 0 ? ns - 1 : boundary - 1;
  for (int s : {prev, next})
  {
    m_segments[s].clear();
    for (Point3D_d const & p : segments[s])
      m_segments[s].push_back(toPlane(p));
  }
  return true;
}

namespace
{
template <class T> void tf_rotateLeft(std::vector<T> & v, std::size_t stride)
{
  if (!v.empty())
    std::rotate(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(stride % v.size()), v.end());
}
template <class T> void tf_rotateRight(std::vector<T> & v, std::size_t stride)
{
  if (!v.empty())
    std::rotate(v.begin(), v.end() - static_cast<std::ptrdiff_t>(stride % v.size()), v.end());
}
} // namespace

bool CPolylineFitCurve::moveSegmentsCyclically(int boundary)
{
  int const nb = boundaryCount();
  // The strides are those of the result arrays (7 and 6), not of the stored
  // ones (4): callers depend on exactly this movement.
  if (boundary == 0)
  {
    tf_rotateLeft(m_curveParams, 7);
    tf_rotateLeft(m_curveTypes, 1);
    tf_rotateLeft(m_bndParams, 6);
    tf_rotateLeft(m_bndCondTypes, 1);
    tf_rotateLeft(m_segments, 1);
    return true;
  }
  if (nb > 0 && boundary == nb - 1)
  {
    tf_rotateRight(m_curveParams, 7);
    tf_rotateRight(m_curveTypes, 1);
    tf_rotateRight(m_bndParams, 6);
    tf_rotateRight(m_bndCondTypes, 1);
    tf_rotateRight(m_segments, 1);
    return true;
  }
  return false;
}
