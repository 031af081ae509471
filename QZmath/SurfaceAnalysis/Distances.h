#pragma once
// Small geometric primitives on raw coordinate triples: point to line,
// segment and triangle distances, the meeting of two lines, and the
// intersection of a line with a triangle.
//
// Every "distance" is the SQUARED distance. Float inputs are widened to double
// and computed there; a float result is rounded once at the end. Nothing
// throws; a missing answer is a false result. Pointers are not checked.

#include "QZmath/Foundation/Point3D.h"

/// Squared distance of p from the line q + t dir; a zero `dir` gives the
/// squared distance from q.
float DistancePoint2Line(const float * p, const float * q, const float * dir);

/// Squared distance of p from the segment (a, b). The nearest point is the
/// foot a + t (b - a) for 0 < t < 1, else the nearer end; on a tie the end b
/// (t = 1). A segment of zero length gives the distance from a, t = 0.
float DistancePoint2Segment(const float * p, const float * a, const float * b);
double DistancePoint2Segment(const double * p, const double * a, const double * b);
double DistancePoint2Segment(const float * p, const double * a, const double * b);
/// The same, and the parameter t in [0, 1] of the nearest point.
float DistancePoint2Segment(const float * p, const float * a, const float * b, float & t);
double DistancePoint2Segment(const double * p, const double * a, const double * b, double & t);
double DistancePoint2Segment(const float * p, const double * a, const double * b, double & t);
/// The same, and the nearest point.
float DistancePoint2Segment(const float * p, const float * a, const float * b, float * foot);
double DistancePoint2Segment(const double * p, const double * a, const double * b, double * foot);
double DistancePoint2Segment(const float * p, const double * a, const double * b, double * foot);
/// The same, and where the nearest point lies: -1 inside, 0 at a, 1 at b.
float DistancePoint2Segment(const float * p, const float * a, const float * b, float * foot, int & where);

/// As DistancePoint2Segment in x and y only (the points are read as pairs).
/// `where` and `foot` may be null. For float and double.
template <class T>
T DistancePoint2Segment2D(const T * p, const T * a, const T * b, T & t, int * where, T * foot);

/// The parameters of the nearest points p1 + params[0] d1 and
/// p2 + params[1] d2 of two lines. False for (nearly) parallel lines:
/// 1e-6 |d1|^2 |d2|^2 >= |D|, D the Gram determinant. For float and double.
template <class T> bool MakeMinDist2Lines(const T * p1, const T * d1, const T * p2, const T * d2, T * params);

/// Whether two lines p1 + t1 d1 and p2 + t2 d2 meet: `delta` comes in as
/// p2 - p1 and leaves as what lies between the nearest points; `params`
/// receives t1 and t2. False when the angle between d1 and d2 is about 5
/// degrees or less (0.0076 |d1|^2 |d2|^2 >= D), or when the nearest points are
/// tolerance2 or more apart (squared). For float and double.
template <class T> bool meetTwoVectors(const T * d1, const T * d2, T * delta, T * params, T tolerance2);
/// The midpoint of the two nearest points that meetTwoVectors found.
template <class T>
void makeTwoVectorsMediumPoint(const T * p1, const T * p2, const T * d1, const T * d2, const T * params,
                               T * result);

/// The point where the line origin + t dir meets the plane of (a, b, c),
/// written to `hit`; true when it lies in the triangle, edges included. False
/// (hit untouched) for a line parallel to the plane or a degenerate triangle.
bool IntersectTriangLine(const float * a, const float * b, const float * c, const float * origin,
                         const float * dir, float * hit);

/// As IntersectTriangLine over the triangle widened by `margin` in its
/// barycentric coordinates (s, t, s + t each within [-margin, 1 + margin]).
/// `inside` tells whether the hit lies in the triangle itself; `overshoot`
/// receives the greatest amount by which s, t or s + t leaves [0, 1], and
/// `dist2` 0 inside, else the least squared distance from the hit to the
/// vertices and to the edges it projects onto. The two may be null; all
/// outputs are written whenever a hit exists, also when the margin rejects it.
bool IntersectTriangLineFree(const float * a, const float * b, const float * c, const float * origin,
                             const float * dir, float * hit, float margin, bool & inside, float * overshoot,
                             float * dist2);

/// Features of a triangle, as distancePointTriangle2 reports them.
enum : int
{
  TRIANGLE_FACE = -1,   ///< the interior
  TRIANGLE_VERTEX0 = 0, ///< vertices 0, 1, 2 are 0, 1, 2
  TRIANGLE_EDGE01 = 3,  ///< edges (0, 1), (1, 2), (2, 0) are 3, 4, 5
  TRIANGLE_EDGE12 = 4,
  TRIANGLE_EDGE20 = 5,
};

/// Squared distance of p from the triangle of three vertices: the squared
/// height over the plane when p lies over the triangle, else the least
/// distance to its edges (the first edge wins a tie). A degenerate triangle
/// is measured by its edges.
float distancePointTriangle2(const float * p, const REmath::Point3D * vertices);
/// The same; `where` receives the feature (TRIANGLE_FACE, a vertex 0..2 or an
/// edge 3..5) and `foot` (may be null) the nearest point.
float distancePointTriangle2(const float * p, const float * const * vertices, int & where, float * foot);
