#pragma once
// Tests on closed 2D polylines given as x, y pairs in one vector; a closed
// polyline repeats its first point at the end.

#include <vector>

/// True when no two non-adjacent segments cross (the first and the last
/// segment count as adjacent) and no collinear pair overlaps. Polylines of
/// three segments or fewer are true.
bool Check2dContourSelfIntersections(const std::vector<double> & xy);

/// Whether (x, y) lies inside, by a ray cast upward over the segments between
/// neighbouring points of `xy`; empty and one-point lists give false.
bool isPointInContour(double x, double y, const std::vector<double> & xy);
