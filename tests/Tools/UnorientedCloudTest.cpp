// qznormals on a cloud without normals, run as a user runs it: a file of
// three columns in, an oriented cloud out. (qzrecon on such a file is run by
// the command-line and the Python tests.)

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "CloudIO.h"
#include "ShapeCloud.h"

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
    std::fprintf(f, "%.9g %.9g %.9g\n", cloud.points[3 * i], cloud.points[3 * i + 1],
                 cloud.points[3 * i + 2]);
  std::fclose(f);
}

int run(std::string const & command)
{
  return WEXITSTATUS(std::system((command + " >/dev/null 2>&1").c_str()));
}
} // namespace

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
