#pragma once
// Oriented point clouds sampled on simple shapes: the bundled demo input, and
// the inputs of the reconstruction tests and benchmarks.

#include <cstdint>
#include <string>
#include <vector>

#include "CloudIO.h"

namespace qzrecon
{
enum class Shape
{
  Sphere,       // radius 1 at the origin
  Torus,        // radii 1 and 0.35 around the z axis
  NestedSpheres, // radii 1 and 0.5, the inner one with inward normals
  NoisySphere,  // radius 1, positions and normals jittered
  HalfSphere    // the upper half of the unit sphere: an open surface
};

/// Parses "sphere", "torus", "nested", "noisy", "half"; false when unknown.
bool shapeFromName(std::string const & name, Shape & shape);
std::vector<std::string> shapeNames();

/// `count` points sampled uniformly by area, with outward unit normals (the
/// inner sphere of NestedSpheres faces its cavity). Deterministic for a seed.
OrientedCloud makeShapeCloud(Shape shape, std::size_t count, std::uint32_t seed = 1);

/// Writes "x y z nx ny nz" lines, or "x y z" for a cloud without normals.
void writeText(std::string const & path, OrientedCloud const & cloud);
} // namespace qzrecon
