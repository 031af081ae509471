#pragma once
// Planar arcs and straight segments in float: a passive record of 32 bytes
// and the operations that work on pairs of them (passed as a pointer to two
// consecutive elements): the intersection of two elements, the fillet that
// touches both through a given point, and the element through three points.
//
// Of two solutions the functions take the one nearer to the coordinate
// origin: callers put the origin of their frame where they expect the
// answer. Everything is computed in float. Results are reported by the bool
// results alone; an element whose fields contradict each other is not
// detected.

/// A piece of a circle (centre, radius, start and end on the circle) or,
/// when `m_straight` is non-zero, the segment from start to end (centre and
/// radius then mean nothing).
class CArc2D
{
public:
  float m_center[2];
  float m_start[2];
  float m_end[2];
  float m_radius;
  int m_straight;

  /// While false (its initial value) MakeBy3Points makes straight segments
  /// only: a caller that wants arcs sets it first. One switch for the whole
  /// process; set it before threads use the class.
  static bool m_bArcApprox;

  /// Makes this element the arc through `point` (x, y) that touches both
  /// elements of `arcs`: centre and radius, start the touch point on the
  /// first element, end the touch point on the second. The straight flag is
  /// left as it is. False (and this element unchanged) when `point` lies on
  /// the wrong side of a segment or of a circle for the corner that the
  /// elements make, when the offset lines or circles do not meet in one
  /// centre, or when no real radius exists.
  bool Make2ArcsFillet(const CArc2D * arcs, const float * point);

  /// Start = (xs[0], ys[0]), end = (xs[2], ys[2]). With m_bArcApprox set and
  /// the three points not collinear (|determinant| >= 1e-10) the element is
  /// the arc through them (straight 0, radius the distance of the centre
  /// from point 0); otherwise it is the straight segment (straight 1) and
  /// centre and radius stay as they were.
  void MakeBy3Points(const float * xs, const float * ys);
};

static_assert(sizeof(CArc2D) == 32, "CArc2D is a record of eight 32-bit fields");

/// The intersection of the two elements of `arcs`, written to point[0..1].
/// Two segments: their infinite lines meet (parallel lines are not tested
/// and give a non-finite point). A segment's line and a circle, or two
/// circles: of two solutions the one nearer to the origin; false when they
/// do not meet (also for two circles with one centre).
bool Get2ArcsIntersect(const CArc2D * arcs, float * point);

/// How far point 2 of four lies from the element through points 0, 1 and 3:
/// for the circle through them |p2 - c| - |p0 - c| (signed, positive
/// outside), for collinear points (|determinant| < 1e-10) the distance of p2
/// from the line through p0 along p1 - p0 (|p2 - p0| when p1 = p0).
float Arc4pointsError(const float * xs, const float * ys);
