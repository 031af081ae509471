#include "QZmath/Foundation/VectorGeometry.h"

#include <algorithm>
#include <cmath>

#include "QZmath/Foundation/Matrix.h"

using REmath::NO_VALUE_MARK;
using REmath::Point3D;
using REmath::Point3D_d;

namespace
{
// Triples in the precision R that a function computes in.
template <class R, class T> void tf_load(R * out, T const * in)
{
  out[0] = static_cast<R>(in[0]), out[1] = static_cast<R>(in[1]), out[2] = static_cast<R>(in[2]);
}
template <class R, class T> void tf_store(T * out, R const * in)
{
  out[0] = static_cast<T>(in[0]), out[1] = static_cast<T>(in[1]), out[2] = static_cast<T>(in[2]);
}
template <class R> R tf_dot(R const * a, R const * b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
template <class R> void tf_sub(R const * a, R const * b, R * out)
{
  out[0] = a[0] - b[0], out[1] = a[1] - b[1], out[2] = a[2] - b[2];
}
template <class R> void tf_cross(R const * a, R const * b, R * out)
{
  out[0] = a[1] * b[2] - a[2] * b[1];
  out[1] = a[2] * b[0] - a[0] * b[2];
  out[2] = a[0] * b[1] - a[1] * b[0];
}
// w minus its part along d: w - d ((d . w) / (d . d)).
template <class R> void tf_across(R const * w, R const * d, R * out)
{
  R const k = tf_dot(d, w) / tf_dot(d, d);
  out[0] = w[0] - d[0] * k, out[1] = w[1] - d[1] * k, out[2] = w[2] - d[2] * k;
}

template <class T> void tf_line2Point(T const * a, T const * b, T const * p, T * out)
{
  double pa[3], pb[3], pp[3], w[3], d[3], r[3];
  tf_load(pa, a), tf_load(pb, b), tf_load(pp, p);
  tf_sub(pp, pa, w);
  tf_sub(pb, pa, d);
  tf_across(w, d, r);
  tf_store(out, r);
}

template <class T> void tf_defPerpendicular(T const * v, T * out)
{
  double const x = v[0], y = v[1], z = v[2];
  double r[3];
  // 0.1 keeps the choice stable for unit vectors: near the z axis (or for a
  // short vector) the second form is taken.
  double const xy = x * x + y * y;
  if (xy > 0.1)
  {
    double const len = std::sqrt(xy);
    r[0] = -y / len, r[1] = x / len, r[2] = 0.0;
  }
  else
  {
    double const len = std::sqrt(y * y + z * z);
    r[0] = 0.0, r[1] = -z / len, r[2] = y / len;
  }
  tf_store(out, r);
}

template <class T> void tf_ucsByVector(T const * v, T * p, T * q)
{
  tf_defPerpendicular(v, p);
  double dv[3], dp[3], dq[3];
  tf_load(dv, v), tf_load(dp, p);
  tf_cross(dv, dp, dq);
  tf_store(q, dq);
}

// What a rotation about an axis needs of the vector: axis x v and the part of
// v across the axis.
struct TF_RotationParts
{
  double c[3];
  double perp[3];
  double perp2;
};

TF_RotationParts tf_rotationParts(double const * axis, double const * v)
{
  TF_RotationParts r;
  tf_cross(axis, v, r.c);
  tf_across(v, axis, r.perp);
  r.perp2 = tf_dot(r.perp, r.perp);
  return r;
}

// v cos + turned sin, where turned is v after a quarter turn with its axial
// part kept: the axial part thus ends up scaled by cos + sin. That is the
// rotation our callers were built on.
void tf_turn(double const * v, TF_RotationParts const & r, double angle, double * out)
{
  double const k = std::sqrt(r.perp2 / tf_dot(r.c, r.c));
  double const co = std::cos(angle), si = std::sin(angle);
  for (int i = 0; i < 3; ++i)
  {
    double const turned = r.c[i] * k + (v[i] - r.perp[i]);
    out[i] = v[i] * co + turned * si;
  }
}

// The float value of 1e-4, widened.
constexpr double TF_ALONG_AXIS = 9.999999747378752e-05;

// The parts of c - a and d - a across the line (a, b), zero for a line whose
// ends coincide within float precision. Returns false for that line.
bool tf_semiPlanarParts(Point3D const & a, Point3D const & b, Point3D const & c, Point3D const & d,
                        double * pc, double * pd)
{
  double da[3], db[3], dc[3], dd[3];
  tf_load(da, a.asArray()), tf_load(db, b.asArray()), tf_load(dc, c.asArray()), tf_load(dd, d.asArray());
  bool degenerate = true;
  for (int i = 0; i < 3; ++i)
    degenerate = degenerate &&
                 std::fabs(da[i] - db[i]) <= (std::fabs(da[i]) + std::fabs(db[i])) * 1.1920928955078125e-7;
  if (degenerate)
  {
    pc[0] = pc[1] = pc[2] = pd[0] = pd[1] = pd[2] = 0.0;
    return false;
  }
  double u[3], wc[3], wd[3];
  tf_sub(db, da, u);
  tf_sub(dc, da, wc);
  tf_sub(dd, da, wd);
  tf_across(wc, u, pc);
  tf_across(wd, u, pd);
  return true;
}

// The circumcentre by barycentric weights, in precision R. Fails for nearly
// collinear (or coincident) points; writes nothing then.
template <class R> bool tf_circumscribe(R const * a, R const * b, R const * c, R tol, R * centre, R & radius2)
{
  R ba[3], ca[3], cb[3];
  tf_sub(b, a, ba);
  tf_sub(c, a, ca);
  tf_sub(c, b, cb);
  R const wA = tf_dot(cb, cb) * tf_dot(ba, ca);
  R const wB = tf_dot(ca, ca) * -tf_dot(ba, cb);
  R const wC = tf_dot(ba, ba) * tf_dot(ca, cb);
  R const s = wA + wB + wC;
  R const as = std::fabs(s);
  if (std::fabs(tol * wA) >= as || std::fabs(tol * wB) >= as || std::fabs(tol * wC) >= as)
    return false;
  R o[3], d[3];
  for (int i = 0; i < 3; ++i)
    o[i] = (a[i] * wA + b[i] * wB + c[i] * wC) / s;
  tf_sub(a, o, d);
  radius2 = tf_dot(d, d);
  centre[0] = o[0], centre[1] = o[1], centre[2] = o[2];
  return true;
}

template <class R, class T, class C>
bool tf_circumscribeAs(T const * a, T const * b, T const * c, R tol, C * centre, R & radius2)
{
  R ra[3], rb[3], rc[3], o[3];
  tf_load(ra, a), tf_load(rb, b), tf_load(rc, c);
  if (!tf_circumscribe(ra, rb, rc, tol, o, radius2))
    return false;
  tf_store(centre, o);
  return true;
}

template <class R> float tf_bulge(R const * u, R const * w, int dim)
{
  R uu = 0, wu = 0;
  for (int i = 0; i < dim; ++i)
  {
    uu += u[i] * u[i];
    wu += w[i] * u[i];
  }
  R const k = wu / uu;
  R hh = 0;
  for (int i = 0; i < dim; ++i)
  {
    R const h = w[i] - u[i] * k;
    hh += h * h;
  }
  return static_cast<float>(hh / uu);
}
} // namespace

void Vector_Line2Point(float const * a, float const * b, float const * p, float * out)
{
  tf_line2Point(a, b, p, out);
}
void Vector_Line2Point(double const * a, double const * b, double const * p, double * out)
{
  tf_line2Point(a, b, p, out);
}

void BuildDefPerpendicular(float const * v, float * out) { tf_defPerpendicular(v, out); }
void BuildDefPerpendicular(double const * v, double * out) { tf_defPerpendicular(v, out); }

void BuildUCSbyVector(float const * v, float * p, float * q) { tf_ucsByVector(v, p, q); }
void BuildUCSbyVector(double const * v, double * p, double * q) { tf_ucsByVector(v, p, q); }

void RotateVector(double * out, double const * axis, double const * v, double angle)
{
  double r[3];
  TF_RotationParts const parts = tf_rotationParts(axis, v);
  if (parts.perp2 <= tf_dot(v, v) * TF_ALONG_AXIS)
    r[0] = v[0], r[1] = v[1], r[2] = v[2]; // along the axis, or zero
  else
    tf_turn(v, parts, angle, r);
  out[0] = r[0], out[1] = r[1], out[2] = r[2];
}

void MakeRotationMatrix(REmath::Matrix<double> & m, double const * axis, double angle)
{
  m.resize(3, 3);
  for (int i = 0; i < 3; ++i)
  {
    double e[3] = {0.0, 0.0, 0.0};
    e[i] = 1.0;
    double row[3] = {e[0], e[1], e[2]};
    TF_RotationParts const parts = tf_rotationParts(axis, e);
    // Written as "turn when above", so a NaN (a zero axis) keeps the row.
    if (TF_ALONG_AXIS < parts.perp2)
      tf_turn(e, parts, angle, row);
    for (int j = 0; j < 3; ++j)
      m(i, j) = row[j];
  }
}

bool PointInPlane(Point3D_d const & p, Point3D_d const & origin, Point3D_d const & normal, double tol)
{
  Point3D_d d(p);
  d -= origin;
  if (tol * tol > tf_dot(d.asArray(), d.asArray()))
    return true;
  d.normalize();
  double c[3];
  tf_cross(d.asArray(), normal.asArray(), c);
  return std::fabs(tf_dot(c, c) - 1.0) < tol;
}

bool VectorsAreParallel(Point3D_d const & a, Point3D_d const & b, double tol)
{
  double c[3];
  tf_cross(a.asArray(), b.asArray(), c);
  return tf_dot(c, c) < tol * tf_dot(a.asArray(), a.asArray()) * tf_dot(b.asArray(), b.asArray());
}

float cos_ABC(Point3D const & a, Point3D const & b, Point3D const & c)
{
  double da[3], db[3], dc[3], u[3], w[3];
  tf_load(da, a.asArray()), tf_load(db, b.asArray()), tf_load(dc, c.asArray());
  tf_sub(da, db, u);
  tf_sub(dc, db, w);
  double const l2 = tf_dot(u, u) * tf_dot(w, w);
  if (!(l2 > 0.0))
    return NO_VALUE_MARK;
  return static_cast<float>(tf_dot(u, w) / std::sqrt(l2));
}

float SemiPlanarScalarProd(Point3D const & a, Point3D const & b, Point3D const & c, Point3D const & d)
{
  double pc[3], pd[3];
  if (!tf_semiPlanarParts(a, b, c, d, pc, pd))
    return 0.0f;
  return static_cast<float>(tf_dot(pc, pd));
}

float SemiPlanarCos2(Point3D const & a, Point3D const & b, Point3D const & c, Point3D const & d)
{
  double pc[3], pd[3];
  tf_semiPlanarParts(a, b, c, d, pc, pd);
  double const lc = tf_dot(pc, pc), ld = tf_dot(pd, pd);
  double const t = 9.999999960041972e-13; // the float value of 1e-12
  if (t * ld >= lc || t * lc >= ld)
    return NO_VALUE_MARK;
  double const s = tf_dot(pc, pd);
  return static_cast<float>(s * std::fabs(s) / lc / ld);
}

bool CircumscribeCircle(Point3D const points[3], Point3D & centre, float & radius)
{
  float o[3];
  if (!tf_circumscribe(points[0].asArray(), points[1].asArray(), points[2].asArray(), 0.001f, o, radius))
  {
    radius = NO_VALUE_MARK;
    return false;
  }
  centre.fromArray(o);
  return true;
}

bool CircumscribeCircle(Point3D_d const points[3], Point3D_d & centre, double & radius)
{
  double o[3];
  if (!tf_circumscribe(points[0].asArray(), points[1].asArray(), points[2].asArray(), 1e-9, o, radius))
  {
    radius = NO_VALUE_MARK;
    return false;
  }
  centre.fromArray(o);
  return true;
}

bool CircumscribeCircle(double const * a, double const * b, double const * c, double * centre,
                        double & radius)
{
  return tf_circumscribeAs<double>(a, b, c, 1e-9, centre, radius);
}

bool CircumscribeCircle(float const * a, float const * b, float const * c, double * centre, double & radius)
{
  return tf_circumscribeAs<double>(a, b, c, 1e-9, centre, radius);
}

bool CircumscribeCircle(float const * a, float const * b, float const * c, float * centre, float & radius)
{
  return tf_circumscribeAs<float>(a, b, c, 0.001f, centre, radius);
}

bool CoordinateRelativeForPlaneReperDbl(double const * p, double const * e1, double const * e2, double & u,
                                        double & v, double tol)
{
  double const g11 = tf_dot(e1, e1), g22 = tf_dot(e2, e2), g12 = tf_dot(e1, e2);
  double const det = g11 * g22 - g12 * g12;
  if (std::min(g11 * g11, g22 * g22) * tol >= std::fabs(det))
    return false;
  double const a = tf_dot(e1, p), b = tf_dot(e2, p);
  u = (g22 * a - g12 * b) / det;
  v = (g11 * b - g12 * a) / det;
  return true;
}

float GetTriangleBulge(float const * a, float const * b, float const * c)
{
  double da[3], db[3], dc[3], u[3], w[3];
  tf_load(da, a), tf_load(db, b), tf_load(dc, c);
  tf_sub(dc, db, u);
  tf_sub(da, db, w);
  return tf_bulge(u, w, 3);
}

float GetTriangleBulge2(float const * xs, float const * ys, int i)
{
  double const u[2] = {static_cast<double>(xs[i + 1]) - xs[i - 1],
                       static_cast<double>(ys[i + 1]) - ys[i - 1]};
  double const w[2] = {static_cast<double>(xs[i]) - xs[i - 1], static_cast<double>(ys[i]) - ys[i - 1]};
  return tf_bulge(u, w, 2);
}
