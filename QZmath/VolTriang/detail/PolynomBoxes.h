#pragma once
// Box arithmetic shared by the two polynomial forms: unions of supports, the
// strict overlap test that lets touching supports multiply to nothing, and
// the exact comparison of shifts.

#include "QZmath/VolTriang/Parallelepiped.h"

namespace VolTr
{
namespace detail
{
/// min of the minima, max of the maxima, axis by axis, into `acc`.
inline void uniteBoxInto(CParallelepiped & acc, CParallelepiped const & b)
{
  double * mn = acc.getMinMod();
  double * mx = acc.getMaxMod();
  for (int a = 0; a < CParallelepiped::DIM; ++a)
  {
    if (b.getMin()[a] < mn[a])
      mn[a] = b.getMin()[a];
    if (b.getMax()[a] > mx[a])
      mx[a] = b.getMax()[a];
  }
}

/// The larger of the minima and the smaller of the maxima, axis by axis.
inline CParallelepiped intersectBoxes(CParallelepiped const & a, CParallelepiped const & b)
{
  CParallelepiped r(a);
  for (int i = 0; i < CParallelepiped::DIM; ++i)
  {
    if (b.getMin()[i] > r.getMin()[i])
      r.getMinMod()[i] = b.getMin()[i];
    if (b.getMax()[i] < r.getMax()[i])
      r.getMaxMod()[i] = b.getMax()[i];
  }
  return r;
}

/// Overlap with positive extent on every axis: boxes that only touch, or
/// that hold a NaN, do not overlap.
inline bool boxesOverlapStrictly(CParallelepiped const & a, CParallelepiped const & b)
{
  for (int i = 0; i < CParallelepiped::DIM; ++i)
    if (!(a.getMin()[i] < b.getMax()[i] && b.getMin()[i] < a.getMax()[i]))
      return false;
  return true;
}

inline double squaredDistance3(double const * a, double const * b)
{
  double const dx = a[0] - b[0];
  double const dy = a[1] - b[1];
  double const dz = a[2] - b[2];
  return dx * dx + dy * dy + dz * dz;
}

/// Shifts are the same when their squared distance is exactly 0 (a NaN
/// makes them differ).
inline bool sameShift(double const * a, double const * b) { return squaredDistance3(a, b) == 0.0; }
} // namespace detail
} // namespace VolTr
