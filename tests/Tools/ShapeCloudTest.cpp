#include <gtest/gtest.h>

#include <cmath>

#include "CloudIO.h"
#include "ShapeCloud.h"

using namespace qzrecon;

TEST(ShapeCloud, PointsLieOnTheirShapeWithOutwardNormals)
{
  for (std::string const & name : shapeNames())
  {
    Shape s;
    ASSERT_TRUE(shapeFromName(name, s));
    OrientedCloud const c = makeShapeCloud(s, 2000, 3);
    ASSERT_EQ(c.size(), 2000u);
    int inner = 0;
    for (std::size_t i = 0; i < c.size(); ++i)
    {
      double const x = c.points[3 * i], y = c.points[3 * i + 1], z = c.points[3 * i + 2];
      double const nx = c.normals[3 * i], ny = c.normals[3 * i + 1], nz = c.normals[3 * i + 2];
      EXPECT_NEAR(nx * nx + ny * ny + nz * nz, 1.0, 1e-5);
      double const r = std::sqrt(x * x + y * y + z * z);
      double const dot = (x * nx + y * ny + z * nz) / r;
      if (s == Shape::Torus)
      {
        double const q = std::sqrt(x * x + y * y) - 1.0;
        EXPECT_NEAR(std::sqrt(q * q + z * z), 0.35, 1e-5);
        continue;
      }
      // The inner sphere of the nested pair faces its cavity.
      bool const in = s == Shape::NestedSpheres && r < 0.75;
      inner += in;
      bool const noisy = s == Shape::NoisySphere;
      EXPECT_NEAR(r, in ? 0.5 : 1.0, noisy ? 0.05 : 1e-6);
      EXPECT_GT(in ? -dot : dot, noisy ? 0.7 : 1.0 - 1e-5);
      EXPECT_TRUE(s != Shape::HalfSphere || z >= 0.0);
    }
    EXPECT_NEAR(inner, s == Shape::NestedSpheres ? 400 : 0, 80);
  }
  Shape s;
  EXPECT_FALSE(shapeFromName("cube", s));
}

TEST(ShapeCloud, DeterministicAndReadableBack)
{
  OrientedCloud const a = makeShapeCloud(Shape::Torus, 500, 9), b = makeShapeCloud(Shape::Torus, 500, 9);
  EXPECT_EQ(a.points, b.points);
  EXPECT_NE(a.points, makeShapeCloud(Shape::Torus, 500, 10).points);
  std::string const p = testing::TempDir() + "qzsample_test.xyzn";
  writeText(p, a);
  OrientedCloud const c = readCloud(p);
  ASSERT_EQ(c.size(), a.size());
  for (std::size_t i = 0; i < a.points.size(); ++i)
  {
    EXPECT_EQ(c.points[i], a.points[i]); // %.9g round-trips a float
    EXPECT_NEAR(c.normals[i], a.normals[i], 1e-6);
  }
}
