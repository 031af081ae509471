#include "ShapeCloud.h"

#include <cmath>
#include <cstdio>
#include <random>
#include <stdexcept>

namespace qzrecon
{
namespace
{
// A small explicit generator: its sequence is the same with every standard
// library, unlike the distributions of <random>.
class tf_Rng
{
public:
  explicit tf_Rng(std::uint32_t seed) : m_state(seed * 2654435761u + 1u) {}
  double uniform() // [0, 1)
  {
    m_state = m_state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<double>(m_state >> 11) * (1.0 / 9007199254740992.0);
  }
  double gauss()
  {
    double const u = 1.0 - uniform(), v = uniform();
    return std::sqrt(-2.0 * std::log(u)) * std::cos(6.283185307179586 * v);
  }

private:
  std::uint64_t m_state;
};

void push(OrientedCloud & c, double x, double y, double z, double nx, double ny, double nz)
{
  c.points.push_back(static_cast<float>(x));
  c.points.push_back(static_cast<float>(y));
  c.points.push_back(static_cast<float>(z));
  c.normals.push_back(static_cast<float>(nx));
  c.normals.push_back(static_cast<float>(ny));
  c.normals.push_back(static_cast<float>(nz));
}

void sphereDirection(tf_Rng & rng, double & x, double & y, double & z)
{
  double const u = 2.0 * rng.uniform() - 1.0, phi = 6.283185307179586 * rng.uniform();
  double const s = std::sqrt(1.0 - u * u);
  x = s * std::cos(phi), y = s * std::sin(phi), z = u;
}
} // namespace

bool shapeFromName(std::string const & name, Shape & shape)
{
  if (name == "sphere")
    shape = Shape::Sphere;
  else if (name == "torus")
    shape = Shape::Torus;
  else if (name == "nested")
    shape = Shape::NestedSpheres;
  else if (name == "noisy")
    shape = Shape::NoisySphere;
  else if (name == "half")
    shape = Shape::HalfSphere;
  else
    return false;
  return true;
}

std::vector<std::string> shapeNames() { return {"sphere", "torus", "nested", "noisy", "half"}; }

OrientedCloud makeShapeCloud(Shape shape, std::size_t count, std::uint32_t seed)
{
  tf_Rng rng(seed);
  OrientedCloud c;
  c.points.reserve(3 * count);
  c.normals.reserve(3 * count);
  for (std::size_t i = 0; i < count; ++i)
  {
    double x, y, z;
    switch (shape)
    {
    case Shape::Sphere:
      sphereDirection(rng, x, y, z);
      push(c, x, y, z, x, y, z);
      break;
    case Shape::HalfSphere:
      sphereDirection(rng, x, y, z);
      z = std::fabs(z);
      push(c, x, y, z, x, y, z);
      break;
    case Shape::NoisySphere:
    {
      sphereDirection(rng, x, y, z);
      double const r = 1.0 + 0.005 * rng.gauss();
      double nx = x + 0.05 * rng.gauss(), ny = y + 0.05 * rng.gauss(), nz = z + 0.05 * rng.gauss();
      double const l = std::sqrt(nx * nx + ny * ny + nz * nz);
      push(c, r * x, r * y, r * z, nx / l, ny / l, nz / l);
      break;
    }
    case Shape::NestedSpheres:
    {
      // Areas 4 pi and pi: a fifth of the points on the inner sphere.
      sphereDirection(rng, x, y, z);
      if (rng.uniform() < 0.2)
        push(c, 0.5 * x, 0.5 * y, 0.5 * z, -x, -y, -z);
      else
        push(c, x, y, z, x, y, z);
      break;
    }
    case Shape::Torus:
    {
      // Rejection on the tube angle gives uniform density by area.
      double const R = 1.0, r = 0.35;
      double theta, phi;
      do
      {
        theta = 6.283185307179586 * rng.uniform();
        phi = 6.283185307179586 * rng.uniform();
      } while (rng.uniform() * (R + r) > R + r * std::cos(phi));
      double const nx = std::cos(phi) * std::cos(theta), ny = std::cos(phi) * std::sin(theta), nz = std::sin(phi);
      push(c, (R + r * std::cos(phi)) * std::cos(theta), (R + r * std::cos(phi)) * std::sin(theta), r * nz, nx, ny,
           nz);
      break;
    }
    }
  }
  return c;
}

void writeText(std::string const & path, OrientedCloud const & cloud)
{
  std::FILE * f = std::fopen(path.c_str(), "w");
  if (!f)
    throw std::runtime_error(path + ": cannot write the file");
  // A cloud without normals has none to write: three columns, as the reader
  // takes them.
  bool const withNormals = cloud.hasNormals();
  for (std::size_t i = 0; i < cloud.size(); ++i)
  {
    if (withNormals)
      std::fprintf(f, "%.9g %.9g %.9g %.7g %.7g %.7g\n", cloud.points[3 * i], cloud.points[3 * i + 1],
                   cloud.points[3 * i + 2], cloud.normals[3 * i], cloud.normals[3 * i + 1], cloud.normals[3 * i + 2]);
    else
      std::fprintf(f, "%.9g %.9g %.9g\n", cloud.points[3 * i], cloud.points[3 * i + 1], cloud.points[3 * i + 2]);
  }
  bool const ok = std::ferror(f) == 0;
  if (std::fclose(f) != 0 || !ok)
    throw std::runtime_error(path + ": write failed");
}
} // namespace qzrecon
