#pragma once
// Small helpers that the checks of several suites share: the vector algebra
// of the geometry checks on Point3D_d and the 3 x 3 matrices, and what a
// call throws.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <type_traits>

#include "QZmath/Foundation/Point3D.h"
#include "QZmath/Foundation/RotationMatrix.h"

namespace QZTest
{
using REmath::Point3D_d;

inline Point3D_d operator+(Point3D_d a, Point3D_d const & b) { return a += b; }
inline Point3D_d operator-(Point3D_d a, Point3D_d const & b) { return a -= b; }
inline Point3D_d operator*(Point3D_d a, double s) { return a *= s; }
inline bool same(Point3D_d const & a, Point3D_d const & b)
{
  return a.x() == b.x() && a.y() == b.y() && a.z() == b.z();
}
inline double dot(Point3D_d const & a, Point3D_d const & b)
{
  return a.x() * b.x() + a.y() * b.y() + a.z() * b.z();
}
inline Point3D_d cross(Point3D_d const & a, Point3D_d const & b)
{
  return Point3D_d(a.y() * b.z() - a.z() * b.y(), a.z() * b.x() - a.x() * b.z(),
                   a.x() * b.y() - a.y() * b.x());
}
inline double dist(Point3D_d const & a, Point3D_d const & b) { return (a - b).length(); }
inline Point3D_d unit(Point3D_d const & a) { return a * (1.0 / a.length()); }
/// |sin| of the angle between two directions, sign ignored.
inline double sinAngle(Point3D_d const & a, Point3D_d const & b) { return cross(unit(a), unit(b)).length(); }

inline void expectNear(Point3D_d const & a, Point3D_d const & b, double tol)
{
  EXPECT_NEAR(a.x(), b.x(), tol);
  EXPECT_NEAR(a.y(), b.y(), tol);
  EXPECT_NEAR(a.z(), b.z(), tol);
}

/// The plain triple loop.
inline CRotationMatrix product(CRotationMatrix const & a, CRotationMatrix const & b)
{
  CRotationMatrix r = CRotationMatrix::Zero();
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      for (int k = 0; k < 3; ++k)
        r.m[i][j] += a.m[i][k] * b.m[k][j];
  return r;
}

inline void expectNear(CRotationMatrix const & a, CRotationMatrix const & b, double tol)
{
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      EXPECT_NEAR(a.m[i][j], b.m[i][j], tol) << i << "," << j;
}

/// The what() of the E that a call throws (the word itself where E is a
/// `char const *`), or a marker when it throws none.
template <class E, class F> std::string whatOf(F && f)
{
  try
  {
    f();
  }
  catch (E const & e)
  {
    if constexpr (std::is_pointer<E>::value)
      return e;
    else
      return e.what();
  }
  return "<nothing thrown>";
}

/// The word a call throws as `char const *`, or a marker when it throws none.
template <class F> std::string thrownWord(F && f) { return whatOf<char const *>(f); }
} // namespace QZTest
