#pragma once
// Corners of a polyline or closed contour, and the contour cut at them into
// the segments that CPolylineFitCurve takes.
//
// A corner is a local maximum of the cosine of the opening angle at a point,
// measured on chords: the arms from point i run to the first point before and
// after it that lies farther than the chord length (its square is
// `radius2`), so wiggles shorter than the chord are not seen. A straight run
// gives -1, a spike +1; a point needs a cosine of at least -0.7 (float) to be
// a corner. Of two corners fewer than 6 points apart the sharper stays (the
// later one on a tie); contours of up to 10 points keep every mark.
//
// An open contour always marks its first point and, unless a corner lies
// within 5 points of it, its last. A closed contour marks corners only, and
// fails when some point has no other point beyond the chord length (a
// contour smaller than the chord, a single point). A negative or NaN
// `radius2` counts as 0, so a zero-length chord is never an arm.

#include <vector>

#include "QZmath/Foundation/Point3D.h"

/// `marks` receives one entry per point: 1 at a corner, 0 elsewhere. False
/// only for a closed contour inside the chord length.
bool GetContourCornerMarks(const std::vector<REmath::Point3D> & contour, double radius2, bool closed,
                           std::vector<int> & marks);
bool GetContourCornerMarks(const std::vector<REmath::Point3D_d> & contour, double radius2, bool closed,
                           std::vector<int> & marks);

/// Appends the pieces between corners to `*segments` (whatever it held);
/// neighbouring pieces share their corner point. Without corners, or with a
/// single corner of a closed contour, the whole contour is one piece as it
/// stands. An open contour yields (corners - 1) pieces from its first mark;
/// points past its last mark (where thinning cleared the end's mark) are in
/// none. `*cornerCount` (when not null) receives the number of corners.
/// False for a null `segments` or when the marking fails.
bool SplitContourByCorners(std::vector<std::vector<REmath::Point3D_d>> * segments,
                           const std::vector<REmath::Point3D_d> & contour, double radius2, bool closed,
                           int * cornerCount);
bool SplitContourByCorners(std::vector<std::vector<REmath::Point3D>> * segments,
                           const std::vector<REmath::Point3D> & contour, double radius2, bool closed,
                           int * cornerCount);
