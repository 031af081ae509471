#pragma once
// Shared steps of the line and plane fits: weighted means and scatter
// matrices of point sets in double, their eigen-decomposition through
// tred2_d/tqli_d, and the running comparisons that pick an eigenvector so
// that ties go to the lower index. Internal to the fitting code.

#include <cstddef>
#include <vector>

#include "QZmath/Foundation/NumericRoutines.h"
#include "QZmath/Foundation/Point3D.h"

namespace REmath
{
namespace detail
{
/// Coordinates of any point type (the point types, raw float triples) as
/// double.
inline void coords(Point3D const & p, double * out)
{
  out[0] = p.x();
  out[1] = p.y();
  out[2] = p.z();
}
inline void coords(Point3D_d const & p, double * out)
{
  out[0] = p.x();
  out[1] = p.y();
  out[2] = p.z();
}

/// Weighted mean of the points; false when the weight sum is not above 0
/// (no weights means all weights 1).
template <class P> bool weightedMean(std::vector<P> const & points, double const * weights, double * mean)
{
  double s[3] = {0.0, 0.0, 0.0};
  double wsum = 0.0;
  std::size_t const n = points.size();
  for (std::size_t i = 0; i < n; ++i)
  {
    double const w = weights ? weights[i] : 1.0;
    double p[3];
    coords(points[i], p);
    s[0] += w * p[0];
    s[1] += w * p[1];
    s[2] += w * p[2];
    wsum += w;
  }
  if (!(wsum > 0.0))
    return false;
  for (int k = 0; k < 3; ++k)
    mean[k] = s[k] / wsum;
  return true;
}

/// The weighted scatter matrix of (p - origin), full and symmetric.
template <class P>
void weightedScatter(std::vector<P> const & points, double const * weights, double const * origin,
                     double m[3][3])
{
  double xx = 0.0, xy = 0.0, xz = 0.0, yy = 0.0, yz = 0.0, zz = 0.0;
  std::size_t const n = points.size();
  for (std::size_t i = 0; i < n; ++i)
  {
    double const w = weights ? weights[i] : 1.0;
    double p[3];
    coords(points[i], p);
    double const x = p[0] - origin[0], y = p[1] - origin[1], z = p[2] - origin[2];
    xx += w * x * x;
    xy += w * x * y;
    xz += w * x * z;
    yy += w * y * y;
    yz += w * y * z;
    zz += w * z * z;
  }
  m[0][0] = xx;
  m[0][1] = m[1][0] = xy;
  m[0][2] = m[2][0] = xz;
  m[1][1] = yy;
  m[1][2] = m[2][1] = yz;
  m[2][2] = zz;
}

/// Eigenvalues and eigenvectors of a symmetric 3 x 3 matrix through tred2_d
/// and tqli_d: vector k is the column k of `m` on return. False when tqli_d
/// does not converge (NaN entries end there too).
inline bool symmetricEigen3(double m[3][3], double * values)
{
  double * rows[3] = {m[0], m[1], m[2]};
  double e[3];
  tred2_d(rows, 3, values, e);
  return tqli_d(values, e, 3, rows) != 0;
}

inline void eigenvector(double const m[3][3], int k, double * out)
{
  out[0] = m[0][k];
  out[1] = m[1][k];
  out[2] = m[2][k];
}

/// The index of the largest eigenvalue as the line fits choose it: with
/// m = max(d0, 0), the third if d2 exceeds max(d1, m), else the second if
/// m < d1, else the first. Ties go to the lower index.
inline int largestEigenIndex(double const * d)
{
  double const m = d[0] > 0.0 ? d[0] : 0.0;
  double const top = d[1] > m ? d[1] : m;
  if (d[2] > top)
    return 2;
  return m < d[1] ? 1 : 0;
}

/// The index of the smallest eigenvalue by a running minimum from `start`: a
/// later value wins only when strictly smaller. -1 when none is below
/// `start` (NaN values never are).
inline int smallestEigenIndex(double const * d, double start)
{
  int index = -1;
  double best = start;
  for (int k = 0; k < 3; ++k)
    if (d[k] < best)
    {
      best = d[k];
      index = k;
    }
  return index;
}

inline double dot3(double const * a, double const * b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
inline void cross3(double const * a, double const * b, double * out)
{
  out[0] = a[1] * b[2] - a[2] * b[1];
  out[1] = a[2] * b[0] - a[0] * b[2];
  out[2] = a[0] * b[1] - a[1] * b[0];
}
} // namespace detail
} // namespace REmath
