#pragma once
// Small free functions of vector geometry: the vector from a line to a point,
// default perpendiculars and frames, rotation of a vector about an axis,
// circles through three points, coordinates in a plane frame.
//
// Points come as raw triples or as the point types. A float overload widens to
// double and computes there, unless its comment says otherwise. Where a
// function cannot give a result it reports it by its bool result or by the
// no-value mark REmath::NO_VALUE_MARK (6.66e19); nothing throws, and no
// pointer is checked.

#include "QZmath/Foundation/Point3D.h"

namespace REmath
{
template <class T> class Matrix;
}

/// The vector from the foot of `p` on the line (a, b) to `p`:
/// with w = p - a and d = b - a, out = w - d ((d . w) / (d . d)).
void Vector_Line2Point(float const * a, float const * b, float const * p, float * out);
void Vector_Line2Point(double const * a, double const * b, double const * p, double * out);

/// A unit vector perpendicular to `v`: (-v.y, v.x, 0) normalised when
/// v.x^2 + v.y^2 > 0.1, else (0, -v.z, v.y) normalised. A zero `v` gives 0/0.
void BuildDefPerpendicular(float const * v, float * out);
void BuildDefPerpendicular(double const * v, double * out);

/// p from BuildDefPerpendicular(v), q = v x p: for a unit `v` the triple
/// (p, q, v) is a right-handed orthonormal frame.
void BuildUCSbyVector(float const * v, float * p, float * q);
void BuildUCSbyVector(double const * v, double * p, double * q);

/// Turns `v` by `angle` about `axis` (any length). Exact for a `v` across the
/// axis; the axial part of `v` is scaled by cos(angle) + sin(angle), which
/// callers rely on. A `v` along the axis (or zero) comes back unchanged.
void RotateVector(double * out, double const * axis, double const * v, double angle);

/// `m` becomes 3 x 3 with row i the unit vector e_i turned as RotateVector
/// turns it.
void MakeRotationMatrix(REmath::Matrix<double> & m, double const * axis, double angle);

/// True when `p` lies within `tol` of `origin`, or when the direction from
/// `origin` to `p` is perpendicular to the unit `normal` within `tol`
/// (| |d x normal|^2 - 1 | < tol).
bool PointInPlane(REmath::Point3D_d const & p, REmath::Point3D_d const & origin,
                  REmath::Point3D_d const & normal, double tol);

/// |a x b|^2 < tol |a|^2 |b|^2: `tol` bounds the squared sine of the angle.
bool VectorsAreParallel(REmath::Point3D_d const & a, REmath::Point3D_d const & b, double tol);

/// The cosine of the angle at `b`; the no-value mark when a or c coincides
/// with b.
float cos_ABC(REmath::Point3D const & a, REmath::Point3D const & b, REmath::Point3D const & c);

/// The dot product of the parts of c - a and d - a across the line (a, b);
/// 0 when a and b coincide within float precision on every axis.
float SemiPlanarScalarProd(REmath::Point3D const & a, REmath::Point3D const & b, REmath::Point3D const & c,
                           REmath::Point3D const & d);

/// The squared cosine, with the sign of the cosine, of the angle between those
/// two parts; the no-value mark when either is negligible against the other.
float SemiPlanarCos2(REmath::Point3D const & a, REmath::Point3D const & b, REmath::Point3D const & c,
                     REmath::Point3D const & d);

/// The circle through three points in space, by barycentric weights. The
/// radius output receives the SQUARE of the radius. Nearly collinear points
/// fail: the point forms then store the no-value mark in the radius, the
/// raw forms leave their outputs untouched.
/// Tolerances: 1e-9 for the double forms and for float points with double
/// outputs (computed in double); 0.001 for the all-float forms, which compute
/// in float.
bool CircumscribeCircle(REmath::Point3D const points[3], REmath::Point3D & centre, float & radius);
bool CircumscribeCircle(REmath::Point3D_d const points[3], REmath::Point3D_d & centre, double & radius);
bool CircumscribeCircle(double const * a, double const * b, double const * c, double * centre,
                        double & radius);
bool CircumscribeCircle(float const * a, float const * b, float const * c, double * centre, double & radius);
bool CircumscribeCircle(float const * a, float const * b, float const * c, float * centre, float & radius);

/// Decomposes `p` along the non-orthogonal pair (e1, e2): p ~ u e1 + v e2,
/// the component out of their plane ignored. False, with u and v untouched,
/// when the pair is degenerate relative to `tol`.
bool CoordinateRelativeForPlaneReperDbl(double const * p, double const * e1, double const * e2, double & u,
                                        double & v, double tol);

/// (h . h) / (u . u) with u = c - b, w = a - b and h the part of w across u:
/// the squared ratio of the height of `a` over the base (b, c) to the base.
/// b == c divides by zero.
float GetTriangleBulge(float const * a, float const * b, float const * c);

/// The same in the plane for the point i over the base of its neighbours
/// i - 1 and i + 1; the caller keeps i inside.
float GetTriangleBulge2(float const * xs, float const * ys, int i);
