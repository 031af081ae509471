#include "QZmath/Fitting/ContourCorners.h"

#include <cmath>
#include <cstddef>

using REmath::Point3D;
using REmath::Point3D_d;

namespace
{
/// The float value -0.7 as the marking compares it, in double.
constexpr double tf_cornerCosine = static_cast<double>(-0.7f);
/// Corners closer than this many points compete in the thinning.
constexpr std::size_t tf_thinReach = 5;
/// Contours of no more points keep all their marks.
constexpr std::size_t tf_thinMinPoints = 10;

double tf_dist2(Point3D_d const & a, Point3D_d const & b)
{
  double const dx = a.x() - b.x(), dy = a.y() - b.y(), dz = a.z() - b.z();
  return dx * dx + dy * dy + dz * dz;
}

/// Walks from `i` in direction `step` (+1 or -1) to the first point farther
/// than the chord; false when the walk ends first (at an end of an open
/// contour, or after n - 1 steps round a closed one).
bool tf_arm(std::vector<Point3D_d> const & p, std::size_t i, int step, double radius2, bool closed,
            double * arm)
{
  std::size_t const n = p.size();
  std::size_t j = i;
  for (std::size_t s = 1; s < n; ++s)
  {
    if (step > 0)
    {
      if (++j == n)
      {
        if (!closed)
          return false;
        j = 0;
      }
    }
    else
    {
      if (j == 0)
      {
        if (!closed)
          return false;
        j = n;
      }
      --j;
    }
    if (tf_dist2(p[j], p[i]) > radius2)
    {
      arm[0] = p[j].x() - p[i].x();
      arm[1] = p[j].y() - p[i].y();
      arm[2] = p[j].z() - p[i].z();
      return true;
    }
  }
  return false;
}

void tf_normalize(double * v)
{
  double const l = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
  v[0] /= l, v[1] /= l, v[2] /= l;
}

/// The cosine of the opening angle at every point, -1 where an arm is
/// missing; false when a closed contour has a point with no arm.
bool tf_cornerMeasure(std::vector<Point3D_d> const & p, double radius2, bool closed, std::vector<double> & c)
{
  // A zero-length chord is never an arm, whatever the caller's radius.
  double const r2 = radius2 > 0.0 ? radius2 : 0.0;
  std::size_t const n = p.size();
  c.assign(n, -1.0);
  // A chord at least as long as the diagonal of the points' box has no arm
  // anywhere. Said at once, since every walk of an open contour would run
  // to its end: quadratic time on a long contour. NaN coordinates stay out
  // of the box, as they are never arms.
  double lo[3] = {HUGE_VAL, HUGE_VAL, HUGE_VAL}, hi[3] = {-HUGE_VAL, -HUGE_VAL, -HUGE_VAL};
  for (Point3D_d const & q : p)
    for (int k = 0; k < 3; ++k)
    {
      double const v = q.asArray()[k];
      lo[k] = v < lo[k] ? v : lo[k];
      hi[k] = v > hi[k] ? v : hi[k];
    }
  double extent2 = 0.0;
  for (int k = 0; k < 3; ++k)
    extent2 += hi[k] > lo[k] ? (hi[k] - lo[k]) * (hi[k] - lo[k]) : 0.0;
  if (!(extent2 > r2))
    return !closed || n == 0;
  for (std::size_t i = 0; i < n; ++i)
  {
    double a[3], b[3];
    bool const hasA = tf_arm(p, i, 1, r2, closed, a);
    if (!hasA && closed)
      return false; // the forward walk saw every other point: none is beyond the chord
    if (!hasA || !tf_arm(p, i, -1, r2, closed, b))
      continue;
    tf_normalize(a);
    tf_normalize(b);
    c[i] = a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
  }
  return true;
}

/// Of two marks fewer than 6 points apart the one with the greater cosine
/// stays (the later on a tie). Clearing only removes marks, so no position
/// already passed can gain a partner: one pass that re-examines the current
/// position after each clearing ends where rescanning from the start until
/// nothing changes would end, in linear time.
void tf_thinMarks(std::vector<double> const & c, bool closed, std::vector<int> & marks)
{
  std::size_t const n = marks.size();
  std::size_t const first = closed ? 0 : 1;
  std::size_t const last = closed ? n : n - 1; // exclusive
  std::size_t i = first;
  while (i < last)
  {
    if (marks[i] != 1)
    {
      ++i;
      continue;
    }
    std::size_t partner = n;
    for (std::size_t d = 1; d <= tf_thinReach; ++d)
    {
      std::size_t j = i + d;
      if (j >= n)
      {
        if (!closed)
          break;
        j -= n;
      }
      if (marks[j] == 1)
      {
        partner = j;
        break;
      }
    }
    if (partner == n)
    {
      ++i;
      continue;
    }
    if (c[i] > c[partner])
      marks[partner] = 0; // look again from i for its next partner
    else
    {
      marks[i] = 0;
      ++i;
    }
  }
}

bool tf_cornerMarks(std::vector<Point3D_d> const & p, double radius2, bool closed, std::vector<int> & marks)
{
  std::vector<double> c;
  if (!tf_cornerMeasure(p, radius2, closed, c))
    return false;
  std::size_t const n = p.size();
  marks.assign(n, 0);
  if (n == 0)
    return true;
  auto isPeak = [&](std::size_t i, std::size_t prev, std::size_t next)
  { return c[i] >= tf_cornerCosine && !(c[prev] > c[i]) && !(c[next] > c[i]); };
  if (closed)
  {
    for (std::size_t i = 0; i < n; ++i)
      if (isPeak(i, i == 0 ? n - 1 : i - 1, i + 1 == n ? 0 : i + 1))
        marks[i] = 1;
  }
  else
  {
    marks.front() = 1;
    marks.back() = 1;
    for (std::size_t i = 1; i + 1 < n; ++i)
      if (isPeak(i, i - 1, i + 1))
        marks[i] = 1;
  }
  if (n > tf_thinMinPoints)
    tf_thinMarks(c, closed, marks);
  return true;
}

template <class P>
bool SplitContourByCornersTmpl(std::vector<std::vector<P>> * segments, std::vector<P> const & contour,
                               double radius2, bool closed, int * cornerCount)
{
  if (!segments)
    return false;
  std::vector<int> marks;
  if (!GetContourCornerMarks(contour, radius2, closed, marks))
    return false;
  std::size_t const n = contour.size();
  int corners = 0;
  for (int m : marks)
    corners += m == 1 ? 1 : 0;
  if (cornerCount)
    *cornerCount = corners;
  if (corners == 0 || (corners == 1 && closed))
  {
    segments->push_back(contour);
    return true;
  }
  std::size_t s = 0;
  while (marks[s] != 1)
    ++s;
  int const pieces = closed ? corners : corners - 1;
  for (int piece = 0; piece < pieces; ++piece)
  {
    std::size_t const limit = closed ? n : n - s;
    std::size_t d = 1;
    while (d < limit && marks[(s + d) % n] != 1)
      ++d;
    if (!closed && d == limit)
      d = limit - 1; // no further mark: stop at the end rather than past it
    std::vector<P> seg;
    seg.reserve(d + 1);
    for (std::size_t k = 0; k <= d; ++k)
      seg.push_back(contour[(s + k) % n]);
    segments->push_back(std::move(seg));
    s += d;
    if (s >= n)
      s -= n;
  }
  return true;
}
} // namespace

bool GetContourCornerMarks(const std::vector<Point3D_d> & contour, double radius2, bool closed,
                           std::vector<int> & marks)
{
  return tf_cornerMarks(contour, radius2, closed, marks);
}

bool GetContourCornerMarks(const std::vector<Point3D> & contour, double radius2, bool closed,
                           std::vector<int> & marks)
{
  std::vector<Point3D_d> wide;
  wide.reserve(contour.size());
  for (Point3D const & p : contour)
    wide.emplace_back(p.x(), p.y(), p.z());
  return tf_cornerMarks(wide, radius2, closed, marks);
}

bool SplitContourByCorners(std::vector<std::vector<Point3D_d>> * segments,
                           const std::vector<Point3D_d> & contour, double radius2, bool closed,
                           int * cornerCount)
{
  return SplitContourByCornersTmpl(segments, contour, radius2, closed, cornerCount);
}

bool SplitContourByCorners(std::vector<std::vector<Point3D>> * segments, const std::vector<Point3D> & contour,
                           double radius2, bool closed, int * cornerCount)
{
  return SplitContourByCornersTmpl(segments, contour, radius2, closed, cornerCount);
}
