#include "QZmath/SurfaceAnalysis/Distances.h"

#include <cfloat>
#include <cmath>

namespace
{
struct TF_V
{
  double x, y, z;
};
template <class T> TF_V tf_v(const T * p) { return {double(p[0]), double(p[1]), double(p[2])}; }
TF_V operator-(TF_V a, TF_V b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
TF_V operator+(TF_V a, TF_V b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
TF_V operator*(double s, TF_V a) { return {s * a.x, s * a.y, s * a.z}; }
double tf_dot(TF_V a, TF_V b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
TF_V tf_cross(TF_V a, TF_V b)
{
  return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
template <class T> void tf_store(TF_V v, T * out)
{
  out[0] = static_cast<T>(v.x), out[1] = static_cast<T>(v.y), out[2] = static_cast<T>(v.z);
}

// The segment distance that every form shares, in `dim` coordinates (2 or
// 3): squared distance, parameter, nearest point and where it lies.
struct TF_SegResult
{
  double dist2, t;
  TF_V foot;
  int where;
};

TF_SegResult tf_segment(TF_V p, TF_V a, TF_V b)
{
  TF_V const e = b - a, r = p - a;
  double const e2 = tf_dot(e, e);
  if (e2 == 0.0)
    return {tf_dot(r, r), 0.0, a, 0};
  double const t = tf_dot(e, r) / e2;
  if (t > 0.0 && t < 1.0)
  {
    TF_V const foot = a + t * e;
    TF_V const d = p - foot;
    return {tf_dot(d, d), t, foot, -1};
  }
  TF_V const pb = p - b;
  double const da = tf_dot(r, r), db = tf_dot(pb, pb);
  if (db <= da)
    return {db, 1.0, b, 1};
  return {da, 0.0, a, 0};
}

template <class P, class S> TF_SegResult tf_segment3(const P * p, const S * a, const S * b)
{
  return tf_segment(tf_v(p), tf_v(a), tf_v(b));
}

template <class T> TF_V tf_v2(const T * p) { return {double(p[0]), double(p[1]), 0.0}; }
} // namespace

float DistancePoint2Line(const float * p, const float * q, const float * dir)
{
  TF_V const d = tf_v(dir), r = tf_v(p) - tf_v(q);
  double s = tf_dot(d, r);
  double const d2 = tf_dot(d, d);
  if (d2 > 0.0)
    s /= d2;
  TF_V const res = r - s * d;
  return static_cast<float>(tf_dot(res, res));
}

float DistancePoint2Segment(const float * p, const float * a, const float * b)
{
  return static_cast<float>(tf_segment3(p, a, b).dist2);
}
double DistancePoint2Segment(const double * p, const double * a, const double * b)
{
  return tf_segment3(p, a, b).dist2;
}
double DistancePoint2Segment(const float * p, const double * a, const double * b)
{
  return tf_segment3(p, a, b).dist2;
}

float DistancePoint2Segment(const float * p, const float * a, const float * b, float & t)
{
  TF_SegResult const r = tf_segment3(p, a, b);
  t = static_cast<float>(r.t);
  return static_cast<float>(r.dist2);
}
double DistancePoint2Segment(const double * p, const double * a, const double * b, double & t)
{
  TF_SegResult const r = tf_segment3(p, a, b);
  t = r.t;
  return r.dist2;
}
double DistancePoint2Segment(const float * p, const double * a, const double * b, double & t)
{
  TF_SegResult const r = tf_segment3(p, a, b);
  t = r.t;
  return r.dist2;
}

float DistancePoint2Segment(const float * p, const float * a, const float * b, float * foot)
{
  TF_SegResult const r = tf_segment3(p, a, b);
  tf_store(r.foot, foot);
  return static_cast<float>(r.dist2);
}
double DistancePoint2Segment(const double * p, const double * a, const double * b, double * foot)
{
  TF_SegResult const r = tf_segment3(p, a, b);
  tf_store(r.foot, foot);
  return r.dist2;
}
double DistancePoint2Segment(const float * p, const double * a, const double * b, double * foot)
{
  TF_SegResult const r = tf_segment3(p, a, b);
  tf_store(r.foot, foot);
  return r.dist2;
}

float DistancePoint2Segment(const float * p, const float * a, const float * b, float * foot, int & where)
{
  where = 0;
  TF_SegResult const r = tf_segment3(p, a, b);
  tf_store(r.foot, foot);
  where = r.where;
  return static_cast<float>(r.dist2);
}

template <class T>
T DistancePoint2Segment2D(const T * p, const T * a, const T * b, T & t, int * where, T * foot)
{
  TF_SegResult const r = tf_segment(tf_v2(p), tf_v2(a), tf_v2(b));
  t = static_cast<T>(r.t);
  if (where)
    *where = r.where;
  if (foot)
    foot[0] = static_cast<T>(r.foot.x), foot[1] = static_cast<T>(r.foot.y);
  return static_cast<T>(r.dist2);
}

template <class T> bool MakeMinDist2Lines(const T * p1, const T * d1, const T * p2, const T * d2, T * params)
{
  TF_V const u = tf_v(d1), v = tf_v(d2), w = tf_v(p2) - tf_v(p1);
  double const a = tf_dot(u, u), b = tf_dot(v, v), c = tf_dot(u, v);
  double const D = a * b - c * c;
  if (!(1e-6 * a * b < std::fabs(D)))
    return false;
  double const uw = tf_dot(u, w), vw = tf_dot(v, w);
  params[0] = static_cast<T>((b * uw - c * vw) / D);
  params[1] = static_cast<T>((c * uw - a * vw) / D);
  return true;
}

template <class T> bool meetTwoVectors(const T * d1, const T * d2, T * delta, T * params, T tolerance2)
{
  TF_V const u = tf_v(d1), v = tf_v(d2), w = tf_v(delta);
  double const a = tf_dot(u, u), b = tf_dot(v, v), c = tf_dot(u, v);
  double const D = a * b - c * c;
  if (!(0.0076 * a * b < D))
    return false;
  double const uw = tf_dot(u, w), vw = tf_dot(v, w);
  double const t1 = (b * uw - c * vw) / D, t2 = (c * uw - a * vw) / D;
  params[0] = static_cast<T>(t1);
  params[1] = static_cast<T>(t2);
  TF_V const left = w + t2 * v - t1 * u;
  tf_store(left, delta);
  return tf_dot(left, left) < double(tolerance2);
}

template <class T>
void makeTwoVectorsMediumPoint(const T * p1, const T * p2, const T * d1, const T * d2, const T * params,
                               T * result)
{
  TF_V const m = 0.5 * (tf_v(p1) + tf_v(p2) + double(params[0]) * tf_v(d1) + double(params[1]) * tf_v(d2));
  tf_store(m, result);
}

namespace
{
// The hit of the line with the triangle's plane; false when the line is
// parallel to it (or the triangle degenerate).
bool tf_planeHit(TF_V a, TF_V b, TF_V c, TF_V origin, TF_V dir, TF_V & hit)
{
  TF_V const n = tf_cross(b - a, c - a);
  double const dn = tf_dot(dir, n);
  if (dn == 0.0 || !std::isfinite(dn))
    return false;
  hit = origin + (tf_dot(n, a - origin) / dn) * dir;
  return true;
}

// hit on the side of edge (a, b) where c lies, without division:
// (u x v) . (u x w) >= 0 expanded.
bool tf_sameSide(TF_V a, TF_V b, TF_V c, TF_V hit)
{
  TF_V const u = b - a, v = c - a, w = hit - a;
  return tf_dot(u, u) * tf_dot(v, w) - tf_dot(u, w) * tf_dot(u, v) >= 0.0;
}
} // namespace

bool IntersectTriangLine(const float * a, const float * b, const float * c, const float * origin,
                         const float * dir, float * hit)
{
  TF_V const va = tf_v(a), vb = tf_v(b), vc = tf_v(c);
  TF_V h;
  if (!tf_planeHit(va, vb, vc, tf_v(origin), tf_v(dir), h))
    return false;
  tf_store(h, hit);
  return tf_sameSide(va, vb, vc, h) && tf_sameSide(va, vc, vb, h) && tf_sameSide(vb, vc, va, h);
}

bool IntersectTriangLineFree(const float * a, const float * b, const float * c, const float * origin,
                             const float * dir, float * hit, float margin, bool & inside, float * overshoot,
                             float * dist2)
{
  TF_V const v[3] = {tf_v(a), tf_v(b), tf_v(c)};
  TF_V h;
  if (!tf_planeHit(v[0], v[1], v[2], tf_v(origin), tf_v(dir), h))
    return false;
  tf_store(h, hit);
  // Barycentric (s, t) with hit = a + s u + t v, by the normal equations.
  TF_V const u = v[1] - v[0], w = v[2] - v[0], r = h - v[0];
  double const uu = tf_dot(u, u), uw = tf_dot(u, w), ww = tf_dot(w, w);
  double const det = uu * ww - uw * uw;
  if (det == 0.0)
    return false;
  double const ur = tf_dot(u, r), wr = tf_dot(w, r);
  double const s = (ww * ur - uw * wr) / det, t = (uu * wr - uw * ur) / det;
  double const coords[3] = {s, t, s + t};

  double over = 0.0;
  for (double x : coords)
  {
    double const out = x < 0.0 ? -x : (x > 1.0 ? x - 1.0 : 0.0);
    if (out > over)
      over = out;
  }
  inside = over == 0.0;
  if (overshoot)
    *overshoot = static_cast<float>(over);
  if (dist2)
  {
    double best = 0.0;
    if (!inside)
    {
      best = 3.4028235e38;
      for (int i = 0; i < 3; ++i)
      {
        TF_V const d = h - v[i];
        best = std::fmin(best, tf_dot(d, d));
        TF_V const e = v[(i + 1) % 3] - v[i];
        double const e2 = tf_dot(e, e);
        double const k = e2 > 0.0 ? tf_dot(d, e) / e2 : -1.0;
        if (k >= 0.0 && k <= 1.0)
        {
          TF_V const perp = d - k * e;
          best = std::fmin(best, tf_dot(perp, perp));
        }
      }
    }
    *dist2 = static_cast<float>(best);
  }
  double const lo = -double(margin), hi = 1.0 + double(margin);
  for (double x : coords)
    if (!(x >= lo && x <= hi))
      return false;
  return true;
}

namespace
{
// The nearest feature of a triangle with area, told by the signs of dot
// products with the edges (the Voronoi regions of vertices and edges), which
// costs far less than three triple products and three segment distances.
// The distance itself is then measured as the feature's own formula gives it.
inline int tf_nearestFeature(TF_V p, const TF_V * v)
{
  TF_V const ab = v[1] - v[0], ac = v[2] - v[0], ap = p - v[0];
  double const d1 = tf_dot(ab, ap), d2 = tf_dot(ac, ap);
  if (d1 <= 0.0 && d2 <= 0.0)
    return 0;
  TF_V const bp = p - v[1];
  double const d3 = tf_dot(ab, bp), d4 = tf_dot(ac, bp);
  if (d3 >= 0.0 && d4 <= d3)
    return 1;
  double const vc = d1 * d4 - d3 * d2;
  if (vc <= 0.0 && d1 >= 0.0 && d3 <= 0.0)
    return TRIANGLE_EDGE01;
  TF_V const cp = p - v[2];
  double const d5 = tf_dot(ab, cp), d6 = tf_dot(ac, cp);
  if (d6 >= 0.0 && d5 <= d6)
    return 2;
  double const vb = d5 * d2 - d1 * d6;
  if (vb <= 0.0 && d2 >= 0.0 && d6 <= 0.0)
    return TRIANGLE_EDGE20;
  double const va = d3 * d6 - d5 * d4;
  if (va <= 0.0 && d4 - d3 >= 0.0 && d5 - d6 >= 0.0)
    return TRIANGLE_EDGE12;
  return TRIANGLE_FACE;
}

// Over the face: the squared height, (offset)^2 |n|^2. Off it: the least
// segment distance over the edges (the first on a tie), which for a triangle
// with area is that of the edge the nearest feature lies on.
inline float tf_pointTriangle(TF_V p, const TF_V * v, int & where, TF_V & foot)
{
  where = 0;
  foot = v[0];
  TF_V const n = tf_cross(v[1] - v[0], v[2] - v[0]);
  double const n2 = tf_dot(n, n);
  int feature = -2; // no area: every edge
  if (n2 > 0.0 && std::isfinite(n2))
  {
    feature = tf_nearestFeature(p, v);
    if (feature == TRIANGLE_FACE)
    {
      double const offset = tf_dot(p - v[0], n) / n2;
      where = TRIANGLE_FACE;
      foot = p - offset * n;
      return static_cast<float>(offset * offset * n2);
    }
  }
  // The edges to measure: both of a vertex (the earlier one wins a tie, as
  // over all three), the edge itself, or all three.
  bool measure[3] = {true, true, true};
  if (feature >= 0 && feature <= 2)
    measure[(feature + 1) % 3] = false;
  else if (feature >= TRIANGLE_EDGE01)
    for (int i = 0; i < 3; ++i)
      measure[i] = i == feature - TRIANGLE_EDGE01;
  double best = 0.0;
  bool first = true;
  for (int i = 0; i < 3; ++i)
  {
    if (!measure[i])
      continue;
    int const j = i == 2 ? 0 : i + 1;
    TF_SegResult const s = tf_segment(p, v[i], v[j]);
    if (first || s.dist2 < best)
    {
      first = false;
      best = s.dist2;
      foot = s.foot;
      where = s.where < 0 ? TRIANGLE_EDGE01 + i : (s.where == 0 ? i : j);
    }
  }
  return static_cast<float>(best);
}
} // namespace

float distancePointTriangle2(const float * p, const REmath::Point3D * vertices)
{
  TF_V const v[3] = {tf_v(vertices[0].asArray()), tf_v(vertices[1].asArray()), tf_v(vertices[2].asArray())};
  int where = 0;
  TF_V foot;
  return tf_pointTriangle(tf_v(p), v, where, foot);
}

float distancePointTriangle2(const float * p, const float * const * vertices, int & where, float * foot)
{
  TF_V const v[3] = {tf_v(vertices[0]), tf_v(vertices[1]), tf_v(vertices[2])};
  TF_V f;
  float const d = tf_pointTriangle(tf_v(p), v, where, f);
  if (foot)
    tf_store(f, foot);
  return d;
}

template float DistancePoint2Segment2D<float>(const float *, const float *, const float *, float &, int *,
                                              float *);
template double DistancePoint2Segment2D<double>(const double *, const double *, const double *, double &,
                                                int *, double *);
template bool MakeMinDist2Lines<float>(const float *, const float *, const float *, const float *, float *);
template bool MakeMinDist2Lines<double>(const double *, const double *, const double *, const double *,
                                        double *);
template bool meetTwoVectors<float>(const float *, const float *, float *, float *, float);
template bool meetTwoVectors<double>(const double *, const double *, double *, double *, double);
template void makeTwoVectorsMediumPoint<float>(const float *, const float *, const float *, const float *,
                                               const float *, float *);
template void makeTwoVectorsMediumPoint<double>(const double *, const double *, const double *,
                                                const double *, const double *, double *);
