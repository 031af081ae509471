#include "QZmath/SurfaceAnalysis/Contour2D.h"

#include <cmath>
#include <cstddef>

namespace
{
bool tf_inOpenUnit(double s) { return s >= 1e-06 && s <= 0.999999; }

// Whether segments i and j of the polyline cross, or overlap when collinear.
bool tf_segmentsMeet(const double * p, std::size_t i, std::size_t j)
{
  double const ax = p[2 * i + 2] - p[2 * i], ay = p[2 * i + 3] - p[2 * i + 1];
  double const bx = p[2 * j + 2] - p[2 * j], by = p[2 * j + 3] - p[2 * j + 1];
  double const wx = p[2 * j] - p[2 * i], wy = p[2 * j + 1] - p[2 * i + 1];
  double const aa = ax * ax + ay * ay, bb = bx * bx + by * by, ab = ax * bx + ay * by;
  double const D = aa * bb - ab * ab;
  double const wa = wx * ax + wy * ay, wb = wx * bx + wy * by;
  if (std::fabs(D) > 1e-08 * (aa * bb + ab * ab))
  {
    // start_i + s a = start_j + t b
    double const s = (wa * bb - wb * ab) / D, t = (wa * ab - wb * aa) / D;
    return tf_inOpenUnit(s) && tf_inOpenUnit(t);
  }
  if (!(aa > 0.0))
    return false; // a point is no segment to overlap
  double const cross = ax * wy - ay * wx;
  if (std::fabs(cross) > 1e-08 * (aa + wx * wx + wy * wy))
    return false; // parallel, apart
  // Collinear: the start and end of the second segment against the first.
  double const s0 = wa / aa, s1 = (wa + ax * bx + ay * by) / aa;
  return tf_inOpenUnit(s0) || tf_inOpenUnit(s1);
}
} // namespace

bool Check2dContourSelfIntersections(const std::vector<double> & xy)
{
  std::size_t const n = xy.size() / 2;
  if (n < 5) // n - 1 <= 3 segments
    return true;
  std::size_t const segments = n - 1;
  for (std::size_t i = 0; i < segments; ++i)
    for (std::size_t j = i + 2; j < segments; ++j)
    {
      if (i == 0 && j == segments - 1)
        continue; // the closing joint
      if (tf_segmentsMeet(xy.data(), i, j))
        return false;
    }
  return true;
}

bool isPointInContour(double x, double y, const std::vector<double> & xy)
{
  std::size_t const n = xy.size() / 2;
  if (n < 2)
    return false;
  // A vertex straight below or above the query would be counted twice or
  // not at all: it is moved a little to the right.
  auto vx = [&](std::size_t i) { return xy[2 * i] == x ? xy[2 * i] + 1e-10 : xy[2 * i]; };
  bool inside = false;
  for (std::size_t i = 0; i + 1 < n; ++i)
  {
    double const x1 = vx(i), y1 = xy[2 * i + 1], x2 = vx(i + 1), y2 = xy[2 * i + 3];
    if (!((x1 < x && x < x2) || (x2 < x && x < x1)))
      continue;
    double const yAt = y1 + (x - x1) * (y2 - y1) / (x2 - x1);
    if (!(yAt < y))
      inside = !inside;
  }
  return inside;
}
