#include "QZmath/Fitting/Arc2D.h"

#include <cmath>

bool CArc2D::m_bArcApprox = false;

namespace
{
float tf_dot(float const * a, float const * b) { return a[0] * b[0] + a[1] * b[1]; }
float tf_dist2(float const * a, float const * b)
{
  float const d[2] = {a[0] - b[0], a[1] - b[1]};
  return tf_dot(d, d);
}

/// The centre of the circle through three points; false when they are
/// collinear to within the determinant threshold (or not finite).
bool tf_circumCenter(float x0, float y0, float x1, float y1, float x2, float y2, float * center)
{
  float const det = x0 * (y1 - y2) + x1 * (y2 - y0) + x2 * (y0 - y1);
  if (!(std::fabs(det) >= 1e-10f))
    return false;
  float const s0 = x0 * x0 + y0 * y0;
  float const s1 = x1 * x1 + y1 * y1;
  float const s2 = x2 * x2 + y2 * y2;
  float const d2 = 2.0f * det;
  center[0] = (s0 * (y1 - y2) + s1 * (y2 - y0) + s2 * (y0 - y1)) / d2;
  center[1] = (s0 * (x2 - x1) + s1 * (x0 - x2) + s2 * (x1 - x0)) / d2;
  return true;
}

/// The point of the other element that tells on which side of this one the
/// fillet lies: the far end of a segment (the start of the first element, the
/// end of the second), or a circle's centre.
float const * tf_reference(CArc2D const * arcs, int self)
{
  CArc2D const & other = arcs[1 - self];
  if (!other.m_straight)
    return other.m_center;
  return self == 0 ? other.m_end : other.m_start;
}

/// One element turned into a linear condition on the fillet's centre c with
/// its radius r as parameter: e . c = alpha + beta r. A segment keeps c at
/// height r on the side of `point`; a circle keeps |c - C| = R + sigma r
/// (sigma +1 touching from outside, -1 from inside), less the circle of
/// radius r through `point`, which takes the squares away.
struct TF_FilletCondition
{
  float e[2];
  float alpha;
  float beta;
  float sigma; // circles only
};

bool tf_filletCondition(CArc2D const * arcs, int self, float const * point, TF_FilletCondition & cond)
{
  CArc2D const & a = arcs[self];
  float const * ref = tf_reference(arcs, self);
  if (a.m_straight)
  {
    float const n[2] = {-(a.m_end[1] - a.m_start[1]), a.m_end[0] - a.m_start[0]};
    float const hRef = n[0] * (ref[0] - a.m_start[0]) + n[1] * (ref[1] - a.m_start[1]);
    float const hPoint = n[0] * (point[0] - a.m_start[0]) + n[1] * (point[1] - a.m_start[1]);
    if (!(hRef * hPoint > 0.0f))
      return false;
    float const side = hPoint > 0.0f ? 1.0f : -1.0f;
    cond.e[0] = n[0];
    cond.e[1] = n[1];
    cond.alpha = tf_dot(n, a.m_start);
    cond.beta = side * std::sqrt(tf_dot(n, n));
    cond.sigma = 0.0f;
    return true;
  }
  float const r2 = a.m_radius * a.m_radius;
  cond.sigma = tf_dist2(ref, a.m_center) > r2 ? 1.0f : -1.0f;
  if ((tf_dist2(point, a.m_center) - r2) * cond.sigma < 0.0f)
    return false;
  cond.e[0] = 2.0f * (point[0] - a.m_center[0]);
  cond.e[1] = 2.0f * (point[1] - a.m_center[1]);
  cond.alpha = r2 - tf_dot(a.m_center, a.m_center) + tf_dot(point, point);
  cond.beta = 2.0f * cond.sigma * a.m_radius;
  return true;
}

/// Where the fillet (centre c, radius r) touches the element.
void tf_touchPoint(CArc2D const & a, TF_FilletCondition const & cond, float const * c, float r, float * out)
{
  if (a.m_straight)
  {
    float const d[2] = {a.m_end[0] - a.m_start[0], a.m_end[1] - a.m_start[1]};
    float const w[2] = {c[0] - a.m_start[0], c[1] - a.m_start[1]};
    float const t = tf_dot(w, d) / tf_dot(d, d);
    out[0] = a.m_start[0] + t * d[0];
    out[1] = a.m_start[1] + t * d[1];
    return;
  }
  float const f = a.m_radius / (a.m_radius + cond.sigma * r);
  out[0] = a.m_center[0] + (c[0] - a.m_center[0]) * f;
  out[1] = a.m_center[1] + (c[1] - a.m_center[1]) * f;
}

bool tf_segmentCircle(CArc2D const & line, CArc2D const & circle, float * point)
{
  float const * p = line.m_start;
  float const d[2] = {line.m_end[0] - p[0], line.m_end[1] - p[1]};
  float const f[2] = {circle.m_center[0] - p[0], circle.m_center[1] - p[1]};
  float const A = tf_dot(d, d);
  float const B = tf_dot(d, f);
  float const C = tf_dot(f, f) - circle.m_radius * circle.m_radius;
  float const D = B * B - C * A;
  if (!(D >= 0.0f) || !(A > 0.0f))
    return false;
  float const s = std::sqrt(D);
  float const t1 = (B - s) / A;
  float const t2 = (B + s) / A;
  float const q1[2] = {p[0] + t1 * d[0], p[1] + t1 * d[1]};
  float const q2[2] = {p[0] + t2 * d[0], p[1] + t2 * d[1]};
  float const * q = tf_dot(q2, q2) < tf_dot(q1, q1) ? q2 : q1;
  point[0] = q[0];
  point[1] = q[1];
  return true;
}

bool tf_twoCircles(CArc2D const & a, CArc2D const & b, float * point)
{
  float const w[2] = {b.m_center[0] - a.m_center[0], b.m_center[1] - a.m_center[1]};
  float const L2 = tf_dot(w, w);
  float const L = std::sqrt(L2);
  if (!(L > 0.0f))
    return false;
  float const k = (a.m_radius * a.m_radius - b.m_radius * b.m_radius + L2) / (2.0f * L);
  float const h2 = a.m_radius * a.m_radius - k * k;
  if (!(h2 >= 0.0f))
    return false;
  float const h = std::sqrt(h2);
  float const m[2] = {a.m_center[0] + k * w[0] / L, a.m_center[1] + k * w[1] / L};
  float const plus[2] = {m[0] + h * w[1] / L, m[1] - h * w[0] / L};
  float const minus[2] = {m[0] - h * w[1] / L, m[1] + h * w[0] / L};
  float const * q = tf_dot(minus, minus) < tf_dot(plus, plus) ? minus : plus;
  point[0] = q[0];
  point[1] = q[1];
  return true;
}
} // namespace

bool Get2ArcsIntersect(const CArc2D * arcs, float * point)
{
  CArc2D const & a = arcs[0];
  CArc2D const & b = arcs[1];
  if (a.m_straight && b.m_straight)
  {
    float const * p = a.m_start;
    float const * q = b.m_start;
    float const d[2] = {a.m_end[0] - p[0], a.m_end[1] - p[1]};
    float const e[2] = {b.m_end[0] - q[0], b.m_end[1] - q[1]};
    float const t = ((q[1] - p[1]) * e[0] - (q[0] - p[0]) * e[1]) / (d[1] * e[0] - e[1] * d[0]);
    point[0] = p[0] + t * d[0];
    point[1] = p[1] + t * d[1];
    return true;
  }
  if (a.m_straight)
    return tf_segmentCircle(a, b, point);
  if (b.m_straight)
    return tf_segmentCircle(b, a, point);
  return tf_twoCircles(a, b, point);
}

bool CArc2D::Make2ArcsFillet(const CArc2D * arcs, const float * point)
{
  TF_FilletCondition c0, c1;
  if (!tf_filletCondition(arcs, 0, point, c0) || !tf_filletCondition(arcs, 1, point, c1))
    return false;
  // The centre as c = base + r g from the two linear conditions.
  float const det = c0.e[0] * c1.e[1] - c0.e[1] * c1.e[0];
  if (det == 0.0f || !std::isfinite(det))
    return false;
  float const base[2] = {(c0.alpha * c1.e[1] - c1.alpha * c0.e[1]) / det,
                         (c0.e[0] * c1.alpha - c1.e[0] * c0.alpha) / det};
  float const g[2] = {(c0.beta * c1.e[1] - c1.beta * c0.e[1]) / det,
                      (c0.e[0] * c1.beta - c1.e[0] * c0.beta) / det};
  // |c - point| = r: (g.g - 1) r^2 + 2 g.(base - point) r + |base - point|^2 = 0.
  float const w[2] = {base[0] - point[0], base[1] - point[1]};
  float const A = tf_dot(g, g) - 1.0f;
  float const B = tf_dot(g, w);
  float const C = tf_dot(w, w);
  float r;
  if (A == 0.0f)
  {
    // The quadratic has lost its square: its one root is that of the linear rest.
    if (B == 0.0f)
      return false;
    r = -C / (2.0f * B);
  }
  else
  {
    float const D = B * B - A * C;
    if (!(D >= 0.0f))
      return false;
    r = (std::sqrt(D) - B) / A;
  }
  if (!std::isfinite(r))
    return false;
  float const center[2] = {base[0] + r * g[0], base[1] + r * g[1]};
  float start[2], end[2];
  tf_touchPoint(arcs[0], c0, center, r, start);
  tf_touchPoint(arcs[1], c1, center, r, end);
  m_center[0] = center[0];
  m_center[1] = center[1];
  m_radius = r;
  m_start[0] = start[0];
  m_start[1] = start[1];
  m_end[0] = end[0];
  m_end[1] = end[1];
  return true;
}

void CArc2D::MakeBy3Points(const float * xs, const float * ys)
{
  m_start[0] = xs[0];
  m_start[1] = ys[0];
  m_end[0] = xs[2];
  m_end[1] = ys[2];
  float c[2];
  if (m_bArcApprox && tf_circumCenter(xs[0], ys[0], xs[1], ys[1], xs[2], ys[2], c))
  {
    m_center[0] = c[0];
    m_center[1] = c[1];
    m_radius = std::sqrt(tf_dist2(c, m_start));
    m_straight = 0;
    return;
  }
  m_straight = 1;
}

float Arc4pointsError(const float * xs, const float * ys)
{
  float const p0[2] = {xs[0], ys[0]};
  float const p2[2] = {xs[2], ys[2]};
  float c[2];
  if (tf_circumCenter(xs[0], ys[0], xs[1], ys[1], xs[3], ys[3], c))
    return std::sqrt(tf_dist2(p2, c)) - std::sqrt(tf_dist2(p0, c));
  float const d[2] = {xs[1] - xs[0], ys[1] - ys[0]};
  float const w[2] = {p2[0] - p0[0], p2[1] - p0[1]};
  float const len = std::sqrt(tf_dot(d, d));
  if (!(len > 0.0f))
    return std::sqrt(tf_dot(w, w));
  return std::fabs(d[0] * w[1] - d[1] * w[0]) / len;
}
