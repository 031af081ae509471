#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "QZmath/Foundation/LinearTransform.h"
#include "QZmath/Foundation/VectorGeometry.h"
#include "tests/Common/Checks.h"

using REmath::Point3D_d;
using namespace QZTest;

namespace
{
struct Rng
{
  std::mt19937 gen{23};
  std::uniform_real_distribution<double> u{-5.0, 5.0};
  Point3D_d point() { return Point3D_d(u(gen), u(gen), u(gen)); }
};

RElinearTransform randomRotation(Rng & rng)
{
  double const angles[3] = {rng.u(rng.gen), rng.u(rng.gen), rng.u(rng.gen)};
  CRotationMatrix m;
  makeEulerMatrix(m, angles);
  return RElinearTransform(m, rng.point());
}
} // namespace

TEST(LinearTransform, ApplyComposeAndInvert)
{
  Rng rng;
  RElinearTransform const id;
  Point3D_d const p(1.5, -2, 3);
  EXPECT_EQ(id.transformPoint(p).y(), -2.0);
  EXPECT_EQ(RElinearTransform::Zero().transformPoint(p).x(), 0.0);
  EXPECT_EQ(RElinearTransform::Identity().matrix[1][1], 1.0);

  for (int rep = 0; rep < 100; ++rep)
  {
    RElinearTransform const a = randomRotation(rng), b = randomRotation(rng);
    Point3D_d const q = rng.point();
    // Composition is application after application.
    expectNear((a * b).transformPoint(q), a.transformPoint(b.transformPoint(q)), 1e-12);
    // The orthogonal inverse undoes a rigid map, both ways.
    RElinearTransform const inv = a.getInvertedOrtho();
    expectNear(inv.transformPoint(a.transformPoint(q)), q, 1e-12);
    expectNear(a.transformPoint(inv.transformPoint(q)), q, 1e-12);
    EXPECT_TRUE(a.isOrtho());
    RElinearTransform twice = a;
    twice.invertOrtho();
    twice.invertOrtho();
    expectNear(twice.transformPoint(q), a.transformPoint(q), 1e-12);

    // A general regular map needs invertTransform.
    RElinearTransform general = a;
    general.matrix[0][0] += 0.5;
    general.matrix[2][1] -= 0.25;
    EXPECT_FALSE(general.isOrtho());
    RElinearTransform ginv;
    ASSERT_TRUE(invertTransform(general, ginv));
    expectNear(ginv.transformPoint(general.transformPoint(q)), q, 1e-10);
  }
  RElinearTransform scaled;
  scaled.matrix[1][1] = 1.001;
  EXPECT_FALSE(scaled.isOrtho());
  RElinearTransform out = randomRotation(rng);
  RElinearTransform const before = out;
  EXPECT_FALSE(invertTransform(RElinearTransform::Zero(), out));
  EXPECT_EQ(out.shift[1], before.shift[1]) << "untouched on failure";
  EXPECT_EQ(out.matrix[2][0], before.matrix[2][0]);
}

TEST(LinearTransform, AxisRotation)
{
  // A quarter turn about the vertical line through (1, 2, *).
  RElinearTransform r;
  setAxisRotationTransform(r, Point3D_d(1, 2, 0), Point3D_d(0, 0, 1), M_PI / 2);
  expectNear(r.transformPoint(Point3D_d(2, 2, 5)), Point3D_d(1, 3, 5), 1e-15);
  EXPECT_TRUE(r.isOrtho());

  // Points of the line stay; others turn about it as RotateVector turns
  // their offset from it.
  Rng rng;
  for (int rep = 0; rep < 100; ++rep)
  {
    Point3D_d axis = rng.point();
    axis.normalize();
    Point3D_d const point = rng.point(), q = rng.point();
    double const angle = rng.u(rng.gen);
    setAxisRotationTransform(r, point, axis, angle);
    expectNear(r.transformPoint(point + axis * 2.5), point + axis * 2.5, 1e-12);
    Point3D_d const rel = q - point, axial = axis * dot(axis, rel), perp = rel - axial;
    double across[3];
    RotateVector(across, axis.asArray(), perp.asArray(), angle);
    expectNear(r.transformPoint(q), Point3D_d(across) + axial + point, 1e-11);
  }
}
