#pragma once
// Seeded neighbourhoods on surfaces with known normals and curvatures: the
// point of interest first, at `origin`, the surface's local frame turned by a
// random rotation. Locally the surface is z = f(x, y) with the normal +z,
// which points to the concave side of a sphere or a cylinder.

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <vector>

#include "QZmath/Foundation/Point3D.h"
#include "QZmath/SurfaceAnalysis/QuadraticForm.h"

namespace SurfTest
{
using REmath::Point3D;

struct CNeighbourhood
{
  std::vector<Point3D> points;
  double normal[3]; ///< the true unit normal at points[0]
};

inline CNeighbourhood sampleSurface(const std::function<double(double, double)> & height, int n,
                                    double radius, unsigned seed, double noise = 0.0, double scale = 1.0)
{
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::normal_distribution<double> g(0.0, 1.0);
  CNeighbourhood nb;
  // A random rotation from a random unit quaternion.
  double q[4];
  double len = 0.0;
  for (double & c : q)
    c = g(rng), len += c * c;
  for (double & c : q)
    c /= std::sqrt(len);
  double const w = q[0], x = q[1], y = q[2], z = q[3];
  double const r[3][3] = {{1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y)},
                          {2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x)},
                          {2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)}};
  for (int k = 0; k < 3; ++k)
    nb.normal[k] = r[k][2];
  double const origin[3] = {10.0 * scale, -4.0 * scale, 7.0 * scale};
  for (int i = 0; i < n; ++i)
  {
    double lx = 0.0, ly = 0.0;
    if (i > 0)
      do
        lx = u(rng) * radius, ly = u(rng) * radius;
      while (lx * lx + ly * ly > radius * radius);
    double const lz = height(lx, ly) + (i > 0 ? noise * g(rng) : 0.0);
    double p[3];
    for (int k = 0; k < 3; ++k)
      p[k] = origin[k] + scale * (r[k][0] * lx + r[k][1] * ly + r[k][2] * lz);
    nb.points.emplace_back(p[0], p[1], p[2]);
  }
  return nb;
}

inline std::function<double(double, double)> plane()
{
  return [](double, double) { return 0.0; };
}
/// Centre at (0, 0, r): the lower cap.
inline std::function<double(double, double)> sphere(double r)
{
  return [r](double x, double y) { return r - std::sqrt(r * r - x * x - y * y); };
}
/// Axis along x through (0, 0, r).
inline std::function<double(double, double)> cylinder(double r)
{
  return [r](double, double y) { return r - std::sqrt(r * r - y * y); };
}
/// Principal curvatures +k (along x) and -k (along y).
inline std::function<double(double, double)> saddle(double k)
{
  return [k](double x, double y) { return 0.5 * k * (x * x - y * y); };
}

/// The ten coefficients of a form in the raw order.
inline std::vector<double> raw10(CQuadraticForm const & f)
{
  CQuadFormRaw10<double> r;
  f.ConvertToRawFormat(r);
  return {r, r + 10};
}

/// The angle between two lines (the sign of the vectors ignored), in degrees.
inline double lineAngleDeg(const double * a, const double * b)
{
  double const d = a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
  double const la = std::sqrt(a[0] * a[0] + a[1] * a[1] + a[2] * a[2]);
  double const lb = std::sqrt(b[0] * b[0] + b[1] * b[1] + b[2] * b[2]);
  return std::acos(std::min(1.0, std::fabs(d) / (la * lb))) * 180.0 / M_PI;
}
} // namespace SurfTest
