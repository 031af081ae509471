#pragma once
// Element arithmetic shared by the bodies of Matrix<T> and Vector<T>.
//
// The containers hold plain numbers and the four point types, which do not
// offer the same operators: Point3D has no equality and no scalar addition,
// the homogeneous points have scalar arithmetic only and no sum or product of
// two points. Rather than widen the point classes, the containers go through
// these functions, and each reads the missing operation the smallest way that
// is faithful to the type:
//
// - zero is the default-constructed element (all coordinates 0), and "exactly
//   zero" means every coordinate compares equal to 0;
// - equality of points is exact equality of every coordinate (w included);
// - the sum and difference of two homogeneous points act on all four
//   coordinates, as their scalar operators do;
// - the product of two homogeneous points, which only the matrix product
//   needs, is the coordinate-wise product of all four coordinates, in the
//   precision of the type;
// - a double operand (scalar +, -, *, / of the containers) computes in double
//   and rounds once, as the points' own double operators do.
//
// Integer elements wrap modulo their width in sums and products instead of
// overflowing, and a double result converts by truncation toward zero,
// wrapped the same way, with NaN and infinities giving 0: an unlucky scale
// factor must not be undefined behaviour.

#include <cmath>
#include <cstdint>
#include <type_traits>

#include "QZmath/Foundation/Point3D.h"

namespace REmath
{
namespace detail
{
template <class T> inline T zeroElement() { return T(); }

/// Integer element from a double: truncation toward zero, modulo 2^32, which
/// covers every integer element type; non-finite values give 0.
template <class T> inline T integerFromDouble(double v)
{
  if (!std::isfinite(v))
    return T(0);
  constexpr double kWrap = 4294967296.0;
  double m = std::fmod(std::trunc(v), kWrap); // exact
  if (m < 0.0)
    m += kWrap;
  return static_cast<T>(static_cast<std::uint32_t>(m));
}

// ---- plain numbers -----------------------------------------------------------

template <class T, class = std::enable_if_t<std::is_arithmetic<T>::value>> inline bool isExactZero(T v)
{
  return v == T(0);
}
template <class T, class = std::enable_if_t<std::is_arithmetic<T>::value>> inline bool elementEqual(T a, T b)
{
  return a == b;
}

template <class T> inline void addTo(T & a, T b)
{
  static_assert(std::is_arithmetic<T>::value, "points have their own overloads");
  if constexpr (std::is_integral<T>::value)
    a = static_cast<T>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
  else
    a += b;
}
template <class T> inline void subFrom(T & a, T b)
{
  static_assert(std::is_arithmetic<T>::value, "points have their own overloads");
  if constexpr (std::is_integral<T>::value)
    a = static_cast<T>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
  else
    a -= b;
}
template <class T> inline T product(T a, T b)
{
  static_assert(std::is_arithmetic<T>::value, "points have their own overloads");
  if constexpr (std::is_integral<T>::value)
    return static_cast<T>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
  else
    return a * b;
}

/// `a = a op d`, computed in double and rounded once to the element type.
template <class T, class Op> inline void scalarOp(T & a, double d, Op op)
{
  static_assert(std::is_arithmetic<T>::value, "points have their own overloads");
  if constexpr (std::is_integral<T>::value)
    a = integerFromDouble<T>(op(static_cast<double>(a), d));
  else
    a = static_cast<T>(op(static_cast<double>(a), d));
}

// ---- points ------------------------------------------------------------------

inline bool isExactZero(Point3D const & p) { return p.x() == 0.0f && p.y() == 0.0f && p.z() == 0.0f; }
inline bool isExactZero(Point3D_d const & p) { return p.x() == 0.0 && p.y() == 0.0 && p.z() == 0.0; }
inline bool isExactZero(HPoint3D const & p)
{
  return p.x() == 0.0f && p.y() == 0.0f && p.z() == 0.0f && p.w() == 0.0f;
}
inline bool isExactZero(HPoint3D_d const & p) { return p.x() == 0.0 && p.y() == 0.0 && p.z() == 0.0 && p.w() == 0.0; }

inline bool elementEqual(Point3D const & a, Point3D const & b)
{
  return a.x() == b.x() && a.y() == b.y() && a.z() == b.z();
}
inline bool elementEqual(Point3D_d const & a, Point3D_d const & b)
{
  return a.x() == b.x() && a.y() == b.y() && a.z() == b.z();
}
inline bool elementEqual(HPoint3D const & a, HPoint3D const & b) { return a == b; }
inline bool elementEqual(HPoint3D_d const & a, HPoint3D_d const & b) { return a == b; }

inline void addTo(Point3D & a, Point3D const & b) { a += b; }
inline void addTo(Point3D_d & a, Point3D_d const & b) { a += b; }
inline void subFrom(Point3D & a, Point3D const & b) { a -= b; }
inline void subFrom(Point3D_d & a, Point3D_d const & b) { a -= b; }

template <class H> inline void addHomogeneous(H & a, H const & b)
{
  a.x() += b.x(), a.y() += b.y(), a.z() += b.z(), a.w() += b.w();
}
template <class H> inline void subHomogeneous(H & a, H const & b)
{
  a.x() -= b.x(), a.y() -= b.y(), a.z() -= b.z(), a.w() -= b.w();
}
inline void addTo(HPoint3D & a, HPoint3D const & b) { addHomogeneous(a, b); }
inline void addTo(HPoint3D_d & a, HPoint3D_d const & b) { addHomogeneous(a, b); }
inline void subFrom(HPoint3D & a, HPoint3D const & b) { subHomogeneous(a, b); }
inline void subFrom(HPoint3D_d & a, HPoint3D_d const & b) { subHomogeneous(a, b); }

inline HPoint3D product(HPoint3D const & a, HPoint3D const & b)
{
  return HPoint3D(a.x() * b.x(), a.y() * b.y(), a.z() * b.z(), a.w() * b.w());
}
inline HPoint3D_d product(HPoint3D_d const & a, HPoint3D_d const & b)
{
  return HPoint3D_d(a.x() * b.x(), a.y() * b.y(), a.z() * b.z(), a.w() * b.w());
}

/// Scalar operations on the coordinates of a point: each coordinate widened
/// to double, combined with `d`, rounded once. That is exactly what the
/// points' own `*=`/`/=` with a double do, and it extends that rule to `+`
/// and `-`, which Point3D lacks.
template <class Op> inline void scalarOp(Point3D & p, double d, Op op)
{
  float * c = p.asArray();
  for (int k = 0; k < 3; ++k)
    c[k] = static_cast<float>(op(static_cast<double>(c[k]), d));
}
template <class Op> inline void scalarOp(Point3D_d & p, double d, Op op)
{
  p.x() = op(p.x(), d), p.y() = op(p.y(), d), p.z() = op(p.z(), d);
}
template <class Op> inline void scalarOp(HPoint3D & p, double d, Op op)
{
  p.x() = static_cast<float>(op(static_cast<double>(p.x()), d));
  p.y() = static_cast<float>(op(static_cast<double>(p.y()), d));
  p.z() = static_cast<float>(op(static_cast<double>(p.z()), d));
  p.w() = static_cast<float>(op(static_cast<double>(p.w()), d));
}
template <class Op> inline void scalarOp(HPoint3D_d & p, double d, Op op)
{
  p.x() = op(p.x(), d), p.y() = op(p.y(), d), p.z() = op(p.z(), d), p.w() = op(p.w(), d);
}

struct Plus
{
  double operator()(double a, double b) const { return a + b; }
};
struct Minus
{
  double operator()(double a, double b) const { return a - b; }
};
struct Times
{
  double operator()(double a, double b) const { return a * b; }
};
struct Divide
{
  double operator()(double a, double b) const { return a / b; }
};
} // namespace detail
} // namespace REmath
