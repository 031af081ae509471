#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>

#include "QZmath/Foundation/Vector.h"

using namespace REmath;

namespace
{
template <class F> std::string thrownWord(F f)
{
  try
  {
    f();
  }
  catch (char const * word)
  {
    return word;
  }
  return "<nothing thrown>";
}

template <class V, class = void> struct HasMinIndex : std::false_type
{
};
template <class V> struct HasMinIndex<V, std::void_t<decltype(std::declval<V const &>().minIndex())>> : std::true_type
{
};

Vector<int> iota(int n, int from = 1)
{
  Vector<int> v(n);
  for (int i = 0; i < n; ++i)
    v[i] = from + i;
  return v;
}
} // namespace

TEST(VectorStorage, ConstructionAndCopies)
{
  Vector<double> d;
  ASSERT_EQ(d.size(), 1);
  EXPECT_EQ(d[0], 0.0);
  Vector<float> z(4);
  EXPECT_EQ(z.n(), 4);
  EXPECT_EQ(z.rows(), 4);
  EXPECT_EQ(z[3], 0.f);
  EXPECT_EQ(Vector<int>(-3).size(), 0);

  Vector<int> const a = iota(5);
  Vector<int> b(a);
  b[0] = 100;
  EXPECT_EQ(a[0], 1); // deep copy
  b = a;
  EXPECT_TRUE(b == a);
  b = 7;
  EXPECT_EQ(b[4], 7);
  b.reset(-2);
  EXPECT_EQ(b[2], -2);
}

TEST(VectorStorage, TrimUntrimAndResize)
{
  Vector<int> v = iota(4);
  v.trim(v.size() + 1); // no spare room: nothing happens
  EXPECT_EQ(v.size(), 4);
  v.trim(-1);
  EXPECT_EQ(v.size(), 4);
  v.trim(2);
  EXPECT_EQ(v.size(), 2);
  v.untrim();
  EXPECT_EQ(v.size(), 4);
  EXPECT_EQ(v[3], 4);

  // Growing inside the allocation exposes zeros, not the old values.
  v.trim(1);
  EXPECT_EQ(v.resize(3), 3);
  EXPECT_EQ(v[0], 1);
  EXPECT_EQ(v[1], 0);
  EXPECT_EQ(v[2], 0);

  // Growing past it keeps the contents and zeros the rest.
  v = iota(3, 5);
  EXPECT_EQ(v.resize(6), 6);
  EXPECT_EQ(v[2], 7);
  EXPECT_EQ(v[5], 0);
  v.trim(6);
  EXPECT_EQ(v.size(), 6);

  EXPECT_EQ(v.resize(-1), -1); // refused, unchanged
  EXPECT_EQ(v.size(), 6);
  EXPECT_EQ(v.resize(Vector<int>(2)), 2);
}

TEST(VectorStorage, ExternalMemoryIsLeftToTheCaller)
{
  double memory[3] = {1, 2, 3};
  {
    Vector<double> v(memory, 3);
    v[1] = 20;
    EXPECT_EQ(memory[1], 20.0);
    v = Vector<double>(3); // same size: written in place
    EXPECT_EQ(memory[0], 0.0);
  } // not freed: the sanitizer would see it
  memory[0] = 1;
  Vector<double> v(memory, 3);
  v.trim(2);
  EXPECT_EQ(v.resize(3), 3); // within the external room
  EXPECT_EQ(v.memory(), memory);
  EXPECT_EQ(v.resize(5), 5); // past it: an owned copy
  EXPECT_NE(v.memory(), memory);
  EXPECT_EQ(v[0], 1.0);
  v[0] = 9;
  EXPECT_EQ(memory[0], 1.0);

  Vector<double> moved(std::move(v));
  EXPECT_EQ(moved.size(), 5);
  EXPECT_EQ(moved[0], 9.0);
}

TEST(VectorArithmetic, SumsComparisonAndSizeErrors)
{
  Vector<int> const a = iota(3), b = iota(3, 10);
  Vector<int> const s = a + b, d = b - a;
  for (int i = 0; i < 3; ++i)
  {
    EXPECT_EQ(s[i], a[i] + b[i]);
    EXPECT_EQ(d[i], 9);
  }
  EXPECT_TRUE(s - b == a);
  EXPECT_TRUE(a != b);

  Vector<int> acc(a);
  Vector<int> const wrong(4);
  EXPECT_EQ(thrownWord([&] { acc += wrong; }), "NURBSsize");
  EXPECT_EQ(thrownWord([&] { acc -= wrong; }), "NURBSsize");
  EXPECT_EQ(thrownWord([&] { return a + wrong; }), "NURBSsize");
  EXPECT_EQ(thrownWord([&] { return a - wrong; }), "NURBSsize");
  EXPECT_EQ(thrownWord([&] { return a == wrong; }), "NURBSsize");
  EXPECT_EQ(thrownWord([&] { return a != wrong; }), "NURBSsize");

  Vector<double> n(2);
  n[0] = std::nan("");
  EXPECT_FALSE(n == n);
  // unsigned elements wrap instead of overflowing
  Vector<unsigned> u(1), one(1);
  one[0] = 1;
  u -= one;
  EXPECT_EQ(u[0], std::numeric_limits<unsigned>::max());
}

TEST(VectorArithmetic, AsAndGetWindows)
{
  Vector<int> v(6);
  Vector<int> const w = iota(3, 7);
  v.as(3, w);
  EXPECT_TRUE(v.get(3, 3) == w);
  EXPECT_EQ(v[2], 0);
  EXPECT_EQ(v.get(6, 0).size(), 0);
  EXPECT_EQ(thrownWord([&] { v.as(4, w); }), "NURBSmatrix_err");
  EXPECT_EQ(thrownWord([&] { v.as(-1, w); }), "NURBSmatrix_err");
  EXPECT_EQ(thrownWord([&] { v.get(4, 3); }), "NURBSmatrix_err");
  EXPECT_EQ(thrownWord([&] { v.get(-1, 1); }), "NURBSmatrix_err");
  EXPECT_EQ(thrownWord([&] { v.get(1, -1); }), "NURBSmatrix_err");
  EXPECT_EQ(thrownWord([&] { v.get(1, std::numeric_limits<int>::max()); }), "NURBSmatrix_err");
}

TEST(VectorArithmetic, MinimumOfNumbersOnly)
{
  Vector<double> v(5);
  double const values[5] = {3, -1, 4, -1, 5};
  for (int i = 0; i < 5; ++i)
    v[i] = values[i];
  EXPECT_EQ(v.minIndex(), 1); // the first of equal ones
  EXPECT_EQ(v.minimum(), -1.0);
  Vector<unsigned char> e(0);
  EXPECT_EQ(e.minIndex(), -1);
  EXPECT_EQ(e.minimum(), 0);

  static_assert(HasMinIndex<Vector<char>>::value, "");
  static_assert(HasMinIndex<Vector<float>>::value, "");
  static_assert(!HasMinIndex<Vector<Point3D>>::value, "");
  static_assert(!HasMinIndex<Vector<HPoint3D_d>>::value, "");
}

TEST(VectorArithmetic, PointElements)
{
  Vector<HPoint3D> h(2);
  h[0] = HPoint3D(1, 2, 3, 4);
  Vector<HPoint3D> const s = h + h;
  EXPECT_EQ(s[0], HPoint3D(2, 4, 6, 8)); // w takes part in the sum
  EXPECT_EQ(s[1], HPoint3D(0.f));
  Vector<Point3D> p(1);
  p[0] = Point3D(1.f, 2.f, 3.f);
  Vector<Point3D> q(p);
  EXPECT_TRUE(p == q);
  q[0].z() = -3.f;
  EXPECT_FALSE(p == q);
  EXPECT_EQ((p - q)[0].z(), 6.f);
}
