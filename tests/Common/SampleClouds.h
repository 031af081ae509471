#pragma once
// Synthetic oriented point clouds for tests and benchmarks: a cloud class over
// plain arrays, and generators of spheres, tori, planes and random boxes.
// Deterministic: a given seed gives the same cloud on every machine.
//
// Header-only so that the benchmarks can share it without linking the test
// helpers.

#include <cmath>
#include <cstdint>
#include <vector>

#include "QZmath/VolTriang/VolumetricTriangulator.h"

namespace QZTest
{
/// A small deterministic generator (splitmix64).
class CCloudRandom
{
public:
  explicit CCloudRandom(std::uint64_t seed) : m_state(seed) {}
  std::uint64_t nextBits()
  {
    std::uint64_t z = (m_state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  /// Uniform in [0, 1).
  double uniform() { return static_cast<double>(nextBits() >> 11) * (1.0 / 9007199254740992.0); }
  double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
  int below(int n) { return static_cast<int>(uniform() * n); }

private:
  std::uint64_t m_state;
};

/// An oriented cloud held in arrays.
class CSampleCloud : public VolTr::IInputSamples
{
public:
  /// Coordinates and normal are rounded to float here, once.
  void add(double x, double y, double z, double nx = 0.0, double ny = 0.0, double nz = 1.0,
           bool boundary = false)
  {
    // push_back, not insert of a list: g++ 12 warns falsely about the latter.
    for (double c : {x, y, z})
      m_coords.push_back(static_cast<float>(c));
    for (double c : {nx, ny, nz})
      m_normals.push_back(static_cast<float>(c));
    m_boundary.push_back(boundary ? 1 : 0);
  }
  void reserve(std::size_t n)
  {
    m_coords.reserve(3 * n);
    m_normals.reserve(3 * n);
    m_boundary.reserve(n);
  }
  int size() const { return static_cast<int>(m_boundary.size()); }
  float * coordsMod(int i) { return &m_coords[3 * static_cast<std::size_t>(i)]; }

private:
  int onPointsNumber() const override { return size(); }
  float const * onGetSampleCoords3(int i) const override
  {
    return &m_coords[3 * static_cast<std::size_t>(i)];
  }
  float const * onGetSampleNormal3(int i) const override
  {
    return &m_normals[3 * static_cast<std::size_t>(i)];
  }
  bool onIsBoundaryVertex(int i) const override { return m_boundary[static_cast<std::size_t>(i)] != 0; }

  std::vector<float> m_coords;
  std::vector<float> m_normals;
  std::vector<char> m_boundary;
};

/// Points on a sphere, outward unit normals.
inline CSampleCloud makeSphereCloud(int n, double radius = 1.0, std::uint64_t seed = 1, double cx = 0.0,
                                    double cy = 0.0, double cz = 0.0)
{
  CCloudRandom rnd(seed);
  CSampleCloud cloud;
  cloud.reserve(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i)
  {
    double const z = rnd.uniform(-1.0, 1.0);
    double const phi = rnd.uniform(0.0, 6.283185307179586);
    double const r = std::sqrt(1.0 - z * z);
    double const nx = r * std::cos(phi), ny = r * std::sin(phi);
    cloud.add(cx + radius * nx, cy + radius * ny, cz + radius * z, nx, ny, z);
  }
  return cloud;
}

/// Points on a torus around the z axis (tube centre radius R, tube radius r).
inline CSampleCloud makeTorusCloud(int n, double R = 1.0, double r = 0.3, std::uint64_t seed = 2)
{
  CCloudRandom rnd(seed);
  CSampleCloud cloud;
  cloud.reserve(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i)
  {
    double const u = rnd.uniform(0.0, 6.283185307179586);
    double const v = rnd.uniform(0.0, 6.283185307179586);
    double const nx = std::cos(v) * std::cos(u), ny = std::cos(v) * std::sin(u), nz = std::sin(v);
    cloud.add((R + r * std::cos(v)) * std::cos(u), (R + r * std::cos(v)) * std::sin(u), r * nz, nx, ny, nz);
  }
  return cloud;
}

/// A flat square patch at height z, normals +z; the samples within `edge` of
/// the border are marked as boundary samples.
inline CSampleCloud makePlaneCloud(int n, double halfSize = 1.0, double z = 0.0, std::uint64_t seed = 3,
                                   double edge = 0.05)
{
  CCloudRandom rnd(seed);
  CSampleCloud cloud;
  cloud.reserve(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i)
  {
    double const x = rnd.uniform(-halfSize, halfSize), y = rnd.uniform(-halfSize, halfSize);
    bool const boundary = halfSize - std::fabs(x) < edge || halfSize - std::fabs(y) < edge;
    cloud.add(x, y, z, 0.0, 0.0, 1.0, boundary);
  }
  return cloud;
}

/// Points uniformly in an axis-aligned box, random unit normals.
inline CSampleCloud makeBoxCloud(int n, double lo, double hi, std::uint64_t seed = 4)
{
  CCloudRandom rnd(seed);
  CSampleCloud cloud;
  cloud.reserve(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i)
  {
    double const x = rnd.uniform(lo, hi), y = rnd.uniform(lo, hi), z = rnd.uniform(lo, hi);
    double const nz = rnd.uniform(-1.0, 1.0), phi = rnd.uniform(0.0, 6.283185307179586);
    double const r = std::sqrt(1.0 - nz * nz);
    cloud.add(x, y, z, r * std::cos(phi), r * std::sin(phi), nz);
  }
  return cloud;
}
} // namespace QZTest
