#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "QZmath/Foundation/Vector.h"
#include "tests/Common/Checks.h"

using namespace REmath;
using QZTest::thrownWord;

namespace
{
Vector<int> iota(int n, int from = 1)
{
  Vector<int> v(n);
  for (int i = 0; i < n; ++i)
    v[i] = from + i;
  return v;
}
} // namespace

TEST(VectorStorage, TrimResizeAndExposedZeros)
{
  Vector<int> v = iota(4);
  v.trim(v.size() + 1); // no spare room: nothing happens
  v.trim(-1);
  EXPECT_EQ(v.size(), 4);
  v.trim(2);
  v.untrim();
  EXPECT_EQ(v.size(), 4);
  EXPECT_EQ(v[3], 4);

  v.trim(1);
  EXPECT_EQ(v.resize(3), 3); // inside the allocation: exposed elements are zero
  EXPECT_EQ(v[1] + v[2], 0);
  v = iota(3, 5);
  EXPECT_EQ(v.resize(6), 6); // past it: contents kept, the rest zero
  EXPECT_EQ(v[2], 7);
  EXPECT_EQ(v[5], 0);
  EXPECT_EQ(v.resize(-1), -1); // refused, unchanged
  EXPECT_EQ(v.size(), 6);
}

TEST(VectorStorage, ExternalMemoryIsLeftToTheCaller)
{
  double memory[3] = {1, 2, 3};
  {
    Vector<double> v(memory, 3);
    v = Vector<double>(3); // same size: written in place
    EXPECT_EQ(memory[0], 0.0);
  } // not freed: the sanitizer would see it
  memory[0] = 1, memory[1] = 2, memory[2] = 3;
  Vector<double> v(memory, 3);
  v.trim(2);
  EXPECT_EQ(v.resize(3), 3);
  EXPECT_EQ(v.memory(), memory); // within the caller's room
  EXPECT_EQ(v.resize(5), 5);
  v[0] = 9;
  EXPECT_EQ(memory[0], 1.0); // past it: an owned copy
  EXPECT_EQ(v[1], 2.0);
  EXPECT_EQ(v[2], 0.0); // exposed again by the first resize, hence zero
}

TEST(VectorArithmetic, SumsWindowsAndTheirWords)
{
  Vector<int> const a = iota(3), b = iota(3, 10);
  EXPECT_TRUE((a + b) - b == a);
  EXPECT_EQ((b - a)[2], 9);
  Vector<int> acc(a);
  Vector<int> const wrong(4);
  EXPECT_EQ(thrownWord([&] { acc += wrong; }), "NURBSsize");
  EXPECT_EQ(thrownWord([&] { return a == wrong; }), "NURBSsize");

  Vector<int> v(6);
  v.as(3, a);
  EXPECT_TRUE(v.get(3, 3) == a);
  EXPECT_EQ(v[2], 0);
  EXPECT_EQ(thrownWord([&] { v.as(4, a); }), "NURBSmatrix_err");
  EXPECT_EQ(thrownWord([&] { v.as(-1, a); }), "NURBSmatrix_err");
  EXPECT_EQ(thrownWord([&] { v.get(1, std::numeric_limits<int>::max()); }), "NURBSmatrix_err");

  Vector<unsigned> u(1), one(1);
  one[0] = 1;
  u -= one; // unsigned elements wrap
  EXPECT_EQ(u[0], std::numeric_limits<unsigned>::max());
}

TEST(VectorArithmetic, MinimumOfNumbersOnly)
{
  Vector<double> v(5);
  double const values[5] = {3, -1, 4, -1, 5};
  for (int i = 0; i < 5; ++i)
    v[i] = values[i];
  EXPECT_EQ(v.minIndex(), 1); // the first of equal ones
  EXPECT_EQ(v.minimum(), -1.0);
  EXPECT_EQ(Vector<char>(0).minIndex(), -1);
}

TEST(VectorArithmetic, PointElementsActOnEveryCoordinate)
{
  Vector<HPoint3D> h(2);
  h[0] = HPoint3D(1, 2, 3, 4);
  EXPECT_EQ((h + h)[0], HPoint3D(2, 4, 6, 8)); // w takes part
  Vector<Point3D> p(1);
  p[0] = Point3D(1.f, 2.f, 3.f);
  Vector<Point3D> q(p);
  q[0].z() = -3.f;
  EXPECT_FALSE(p == q);
  EXPECT_EQ((p - q)[0].z(), 6.f);
}
