#pragma once
// Seeded samples of known geometry for the fitting tests: points on lines,
// circles and planes with Gaussian noise, and gross outliers replacing a share
// of them; the vector algebra comes from the common tests.

#include <cmath>
#include <random>
#include <vector>

#include "QZmath/Foundation/Point3D.h"
#include "tests/Common/Checks.h"

namespace QZFitTest
{
using namespace QZTest;
using REmath::Point3D_d;

/// A unit frame (u, v) of the plane with normal n.
inline void planeAxes(Point3D_d const & n, Point3D_d & u, Point3D_d & v)
{
  u = unit(cross(n, std::fabs(n.x()) < 0.9 ? Point3D_d(1.0, 0.0, 0.0) : Point3D_d(0.0, 1.0, 0.0)));
  v = cross(unit(n), u);
}

class CSampler
{
public:
  explicit CSampler(unsigned seed) : m_rng(seed) {}
  double gauss(double sigma) { return std::normal_distribution<double>(0.0, sigma)(m_rng); }
  double uniform(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(m_rng); }
  Point3D_d noise(double sigma) { return Point3D_d(gauss(sigma), gauss(sigma), gauss(sigma)); }

  std::vector<Point3D_d> line(Point3D_d const & origin, Point3D_d const & dir, int n, double halfLength,
                              double sigma)
  {
    std::vector<Point3D_d> pts;
    for (int i = 0; i < n; ++i)
      pts.push_back(origin + unit(dir) * uniform(-halfLength, halfLength) + noise(sigma));
    return pts;
  }
  /// Points on the arc [a0, a1] (radians) of a circle in the plane of `normal`.
  std::vector<Point3D_d> circle(Point3D_d const & center, Point3D_d const & normal, double radius, int n,
                                double a0, double a1, double sigma)
  {
    Point3D_d u, v;
    planeAxes(normal, u, v);
    std::vector<Point3D_d> pts;
    for (int i = 0; i < n; ++i)
    {
      double const t = uniform(a0, a1);
      pts.push_back(center + u * (radius * std::cos(t)) + v * (radius * std::sin(t)) + noise(sigma));
    }
    return pts;
  }
  std::vector<Point3D_d> plane(Point3D_d const & center, Point3D_d const & normal, int n, double half,
                               double sigma)
  {
    Point3D_d u, v;
    planeAxes(normal, u, v);
    std::vector<Point3D_d> pts;
    for (int i = 0; i < n; ++i)
      pts.push_back(center + u * uniform(-half, half) + v * uniform(-half, half) +
                    unit(normal) * gauss(sigma));
    return pts;
  }
  /// Replaces every k-th point by one uniform in a box of `half` about
  /// `around + shift`, so that the plain fits are pulled to one side.
  void spoil(std::vector<Point3D_d> & pts, int every, Point3D_d const & around, double half,
             Point3D_d const & shift)
  {
    for (std::size_t i = 0; i < pts.size(); i += static_cast<std::size_t>(every))
      pts[i] = around + shift + Point3D_d(uniform(-half, half), uniform(-half, half), uniform(-half, half));
  }

private:
  std::mt19937 m_rng;
};

inline std::vector<REmath::Point3D> toFloat(std::vector<Point3D_d> const & pts)
{
  std::vector<REmath::Point3D> out;
  for (Point3D_d const & p : pts)
    out.emplace_back(p.x(), p.y(), p.z());
  return out;
}
} // namespace QZFitTest
