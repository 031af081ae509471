// The tools on clouds without normals, run as a user runs them: a file of
// three columns in, a mesh (qzrecon) or an oriented cloud (qznormals) out.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "CloudIO.h"
#include "ShapeCloud.h"
#include "tests/Common/MeshChecks.h"

using namespace qzrecon;

namespace
{
std::string tempPath(std::string const & name) { return testing::TempDir() + "qzrecon_unoriented_" + name; }

// Writes "x y z" lines only.
void writeThreeColumns(std::string const & path, OrientedCloud const & cloud)
{
  std::FILE * f = std::fopen(path.c_str(), "w");
  ASSERT_NE(f, nullptr);
  for (std::size_t i = 0; i < cloud.size(); ++i)
    std::fprintf(f, "%.9g %.9g %.9g\n", cloud.points[3 * i], cloud.points[3 * i + 1], cloud.points[3 * i + 2]);
  std::fclose(f);
}

int run(std::string const & command) { return WEXITSTATUS(std::system((command + " >/dev/null 2>&1").c_str())); }

// The binary little-endian mesh PLY that qzrecon writes.
qztest::Mesh readMesh(std::string const & path)
{
  std::ifstream in(path, std::ios::binary);
  std::string line;
  std::size_t vertices = 0, faces = 0;
  while (std::getline(in, line) && line != "end_header")
  {
    std::sscanf(line.c_str(), "element vertex %zu", &vertices);
    std::sscanf(line.c_str(), "element face %zu", &faces);
  }
  qztest::Mesh m;
  for (std::size_t v = 0; v < vertices; ++v)
  {
    float p[3];
    in.read(reinterpret_cast<char *>(p), sizeof p);
    m.vertices.push_back({p[0], p[1], p[2]});
  }
  for (std::size_t f = 0; f < faces; ++f)
  {
    unsigned char n = 0;
    std::int32_t t[3];
    in.read(reinterpret_cast<char *>(&n), 1);
    in.read(reinterpret_cast<char *>(t), sizeof t);
    EXPECT_EQ(n, 3);
    m.triangles.push_back({t[0], t[1], t[2]});
  }
  EXPECT_TRUE(in.good()) << path;
  return m;
}
} // namespace

TEST(UnorientedCloud, QzreconMakesWatertightMeshesOfTheRightGenus)
{
  struct Case
  {
    Shape shape;
    char const * name;
    int components, euler;
  };
  for (Case const & c : {Case{Shape::Torus, "torus", 1, 0}, Case{Shape::Sphere, "sphere", 1, 2}})
  {
    SCOPED_TRACE(c.name);
    std::string const in = tempPath(std::string(c.name) + ".xyz"), out = tempPath(std::string(c.name) + ".ply");
    writeThreeColumns(in, makeShapeCloud(c.shape, 30000, 5));
    ASSERT_EQ(run(std::string(QZRECON_EXE) + " --depth 6 --quiet " + in + " " + out), 0);
    qztest::Mesh const mesh = readMesh(out);
    qztest::MeshTopology const t = qztest::analyse(mesh);
    EXPECT_TRUE(t.closedManifold());
    EXPECT_EQ(t.components, c.components);
    EXPECT_EQ(t.eulerCharacteristic, c.euler);
    // Outward normals: the triangles turn outward and enclose the volume.
    double const expected =
        c.shape == Shape::Torus ? 2 * 3.14159265 * 3.14159265 * 0.35 * 0.35 : 4.0 / 3.0 * 3.14159265;
    EXPECT_NEAR(qztest::signedVolume(mesh), expected, 0.05 * expected);
  }
}

TEST(UnorientedCloud, QznormalsWritesTheOrientedCloud)
{
  // Two nested spheres: the inner one must face its cavity.
  OrientedCloud const truth = makeShapeCloud(Shape::NestedSpheres, 20000, 6);
  std::string const in = tempPath("q.xyz"), out = tempPath("q.ply");
  writeThreeColumns(in, truth);
  ASSERT_EQ(run(std::string(QZNORMALS_EXE) + " --neighbours 15 " + in + " " + out), 0);
  OrientedCloud const c = readCloud(out);
  ASSERT_EQ(c.size(), truth.size());
  ASSERT_TRUE(c.hasNormals());
  int agree = 0;
  for (std::size_t i = 0; i < c.size(); ++i)
  {
    float const * a = &c.normals[3 * i];
    float const * b = &truth.normals[3 * i];
    agree += a[0] * b[0] + a[1] * b[1] + a[2] * b[2] > 0.9f ? 1 : 0;
  }
  EXPECT_GE(agree, static_cast<int>(0.999 * c.size()));
}
