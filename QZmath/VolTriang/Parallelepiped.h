#pragma once
// Intervals and axis-aligned boxes of the reconstruction: the supports of
// polynomial pieces and the query boxes of the octree.

#include <cfloat>

namespace VolTr
{
class CInterval
{
public:
  CInterval() : m_left(0.0), m_right(0.0) {}
  CInterval(double left, double right) : m_left(left), m_right(right) {}

  double getLeft() const { return m_left; }
  double getRight() const { return m_right; }
  void setLeft(double v) { m_left = v; }
  void setRight(double v) { m_right = v; }

  /// From minus to plus the greatest finite double.
  static CInterval all() { return CInterval(-DBL_MAX, DBL_MAX); }
  static CInterval lessX(double x) { return CInterval(-DBL_MAX, x); }
  static CInterval greaterX(double x) { return CInterval(x, DBL_MAX); }

private:
  double m_left;
  double m_right;
};

/// Axis-aligned box: min[3] then max[3].
class CParallelepiped
{
public:
  static constexpr int DIM = 3;

  CParallelepiped() : m_min{0.0, 0.0, 0.0}, m_max{0.0, 0.0, 0.0} {}
  CParallelepiped(double xmin, double xmax, double ymin, double ymax, double zmin, double zmax)
      : m_min{xmin, ymin, zmin}, m_max{xmax, ymax, zmax}
  {
  }
  CParallelepiped(double const * min, double const * max)
      : m_min{min[0], min[1], min[2]}, m_max{max[0], max[1], max[2]}
  {
  }
  CParallelepiped(CInterval const & x, CInterval const & y, CInterval const & z)
      : m_min{x.getLeft(), y.getLeft(), z.getLeft()}, m_max{x.getRight(), y.getRight(), z.getRight()}
  {
  }

  double const * getMin() const { return m_min; }
  double const * getMax() const { return m_max; }
  double * getMinMod() { return m_min; }
  double * getMaxMod() { return m_max; }

  CInterval getDimension(int axis) const { return CInterval(m_min[axis], m_max[axis]); }
  void setDimension(int axis, CInterval const & i)
  {
    m_min[axis] = i.getLeft();
    m_max[axis] = i.getRight();
  }

  /// True when `p` lies within `tol` of the box on all axes and within `tol`
  /// of at least one of its six faces.
  bool isBoundaryPoint(double const * p, double tol) const
  {
    bool nearFace = false;
    for (int a = 0; a < DIM; ++a)
    {
      if (p[a] < m_min[a] - tol || p[a] > m_max[a] + tol)
        return false;
      if (p[a] - m_min[a] <= tol && m_min[a] - p[a] <= tol)
        nearFace = true;
      if (p[a] - m_max[a] <= tol && m_max[a] - p[a] <= tol)
        nearFace = true;
    }
    return nearFace;
  }

private:
  double m_min[DIM];
  double m_max[DIM];
};
} // namespace VolTr
