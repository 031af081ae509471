#pragma once
// The library's point types: plain 3-vectors of single and double precision,
// and their homogeneous forms. All four are element types of Matrix<T> and
// Vector<T>, so they stay plain values: no virtual functions, no bases.
//
// Coordinates are stored as an array so that `asArray()` may legally be read
// as three (or four) consecutive values.

#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace REmath
{
/// The no-value mark of the small geometry functions: the float 6.66e19
/// (bits 0x606710AF). Callers compare against it or treat it as very large.
constexpr float NO_VALUE_MARK = 6.66e19f;

/// True when `v` is exactly the no-value mark.
inline bool isNoValueMark(double v) { return static_cast<float>(v) == NO_VALUE_MARK; }

class Point3D;
class Point3D_d;

namespace detail
{
template <class... A> constexpr bool allArithmetic = (std::is_arithmetic<A>::value && ...);
}

class Point3D
{
public:
  Point3D() : m_v{0.0f, 0.0f, 0.0f} {}
  explicit Point3D(float a) : m_v{a, a, a} {}
  explicit Point3D(double a) : Point3D(static_cast<float>(a)) {}
  explicit Point3D(int a) : Point3D(static_cast<float>(a)) {}
  Point3D(float x, float y, float z) : m_v{x, y, z} {}
  Point3D(double x, double y, double z)
      : m_v{static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)}
  {
  }
  /// Mixed arithmetic triples (integers, a float among doubles): each value is
  /// converted to `float` on its own.
  template <class A, class B, class C, class = std::enable_if_t<detail::allArithmetic<A, B, C>>>
  Point3D(A x, B y, C z) : m_v{static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)}
  {
  }
  explicit Point3D(float const * p) { fromArray(p); }
  explicit Point3D(double const * p) { fromArray(p); }
  Point3D(Point3D const &) = default;
  Point3D & operator=(Point3D const &) = default;

  float x() const { return m_v[0]; }
  float y() const { return m_v[1]; }
  float z() const { return m_v[2]; }
  float & x() { return m_v[0]; }
  float & y() { return m_v[1]; }
  float & z() { return m_v[2]; }
  float const * asArray() const { return m_v; }
  float * asArray() { return m_v; }

  void toArray(float * p) const { p[0] = m_v[0], p[1] = m_v[1], p[2] = m_v[2]; }
  void toArray(double * p) const { p[0] = m_v[0], p[1] = m_v[1], p[2] = m_v[2]; }
  void fromArray(float const * p) { m_v[0] = p[0], m_v[1] = p[1], m_v[2] = p[2]; }
  void fromArray(double const * p)
  {
    m_v[0] = static_cast<float>(p[0]), m_v[1] = static_cast<float>(p[1]), m_v[2] = static_cast<float>(p[2]);
  }

  Point3D & operator+=(Point3D const & o)
  {
    m_v[0] += o.m_v[0], m_v[1] += o.m_v[1], m_v[2] += o.m_v[2];
    return *this;
  }
  Point3D & operator-=(Point3D const & o)
  {
    m_v[0] -= o.m_v[0], m_v[1] -= o.m_v[1], m_v[2] -= o.m_v[2];
    return *this;
  }
  Point3D & operator*=(float f)
  {
    m_v[0] *= f, m_v[1] *= f, m_v[2] *= f;
    return *this;
  }
  /// Computed in double precision, rounded to float once.
  Point3D & operator*=(double d)
  {
    for (float & c : m_v)
      c = static_cast<float>(static_cast<double>(c) * d);
    return *this;
  }
  /// A true division of each coordinate, not a multiplication by the inverse.
  Point3D & operator/=(float f)
  {
    m_v[0] /= f, m_v[1] /= f, m_v[2] /= f;
    return *this;
  }
  Point3D & operator/=(double d)
  {
    for (float & c : m_v)
      c = static_cast<float>(static_cast<double>(c) / d);
    return *this;
  }

  /// Scales to unit length: the squared length in float, its root and inverse
  /// in double, each coordinate multiplied in double and rounded. No guard: a
  /// zero vector gives NaN (NormalizeVector is the guarded form).
  Point3D & normalize()
  {
    float const n2 = m_v[0] * m_v[0] + m_v[1] * m_v[1] + m_v[2] * m_v[2];
    double const inv = 1.0 / std::sqrt(static_cast<double>(n2));
    for (float & c : m_v)
      c = static_cast<float>(static_cast<double>(c) * inv);
    return *this;
  }
  Point3D unitLength() const
  {
    Point3D r(*this);
    r.normalize();
    return r;
  }

private:
  float m_v[3];
};

class Point3D_d
{
public:
  Point3D_d() : m_v{0.0, 0.0, 0.0} {}
  explicit Point3D_d(float a) : Point3D_d(static_cast<double>(a)) {}
  explicit Point3D_d(double a) : m_v{a, a, a} {}
  explicit Point3D_d(int a) : Point3D_d(static_cast<double>(a)) {}
  Point3D_d(float x, float y, float z) : m_v{x, y, z} {}
  Point3D_d(double x, double y, double z) : m_v{x, y, z} {}
  template <class A, class B, class C, class = std::enable_if_t<detail::allArithmetic<A, B, C>>>
  Point3D_d(A x, B y, C z) : m_v{static_cast<double>(x), static_cast<double>(y), static_cast<double>(z)}
  {
  }
  explicit Point3D_d(float const * p) { fromArray(p); }
  explicit Point3D_d(double const * p) { fromArray(p); }
  Point3D_d(Point3D_d const &) = default;
  Point3D_d & operator=(Point3D_d const &) = default;

  double x() const { return m_v[0]; }
  double y() const { return m_v[1]; }
  double z() const { return m_v[2]; }
  double & x() { return m_v[0]; }
  double & y() { return m_v[1]; }
  double & z() { return m_v[2]; }
  double const * asArray() const { return m_v; }
  double * asArray() { return m_v; }

  void toArray(float * p) const
  {
    p[0] = static_cast<float>(m_v[0]), p[1] = static_cast<float>(m_v[1]), p[2] = static_cast<float>(m_v[2]);
  }
  void toArray(double * p) const { p[0] = m_v[0], p[1] = m_v[1], p[2] = m_v[2]; }
  void fromArray(float const * p) { m_v[0] = p[0], m_v[1] = p[1], m_v[2] = p[2]; }
  void fromArray(double const * p) { m_v[0] = p[0], m_v[1] = p[1], m_v[2] = p[2]; }

  Point3D_d & operator+=(Point3D_d const & o)
  {
    m_v[0] += o.m_v[0], m_v[1] += o.m_v[1], m_v[2] += o.m_v[2];
    return *this;
  }
  Point3D_d & operator-=(Point3D_d const & o)
  {
    m_v[0] -= o.m_v[0], m_v[1] -= o.m_v[1], m_v[2] -= o.m_v[2];
    return *this;
  }
  Point3D_d & operator*=(float f) { return *this *= static_cast<double>(f); }
  Point3D_d & operator*=(double d)
  {
    m_v[0] *= d, m_v[1] *= d, m_v[2] *= d;
    return *this;
  }
  Point3D_d & operator/=(float f) { return *this /= static_cast<double>(f); }
  Point3D_d & operator/=(double d)
  {
    m_v[0] /= d, m_v[1] /= d, m_v[2] /= d;
    return *this;
  }

  /// Unguarded: a zero vector gives NaN.
  Point3D_d & normalize()
  {
    double const inv = 1.0 / std::sqrt(m_v[0] * m_v[0] + m_v[1] * m_v[1] + m_v[2] * m_v[2]);
    m_v[0] *= inv, m_v[1] *= inv, m_v[2] *= inv;
    return *this;
  }
  Point3D_d unitLength() const
  {
    Point3D_d r(*this);
    r.normalize();
    return r;
  }
  double length() const { return std::sqrt(m_v[0] * m_v[0] + m_v[1] * m_v[1] + m_v[2] * m_v[2]); }
  /// |1 - l| within double epsilon relative to 1 + l.
  bool isUnitLength() const
  {
    double const l = length();
    return std::fabs(1.0 - l) <= (std::fabs(l) + 1.0) * 2.220446049250313e-16;
  }
  /// (a . b) / (|a| |b|): no guard against zero vectors, no clamping to [-1, 1].
  double angleCos(Point3D_d const & o)
  {
    double const dot = m_v[0] * o.m_v[0] + m_v[1] * o.m_v[1] + m_v[2] * o.m_v[2];
    return dot / (length() * o.length());
  }

private:
  double m_v[3];
};

class HPoint3D
{
public:
  HPoint3D() : m_v{0.0f, 0.0f, 0.0f, 0.0f} {}
  explicit HPoint3D(float a) : m_v{a, a, a, a} {}
  explicit HPoint3D(double a) : HPoint3D(static_cast<float>(a)) {}
  explicit HPoint3D(int a) : HPoint3D(static_cast<float>(a)) {}
  HPoint3D(float x, float y, float z, float w) : m_v{x, y, z, w} {}
  explicit HPoint3D(float const * p) : m_v{p[0], p[1], p[2], p[3]} {}
  /// From the 3-point; `w` becomes 1.
  HPoint3D(Point3D const & p) : m_v{p.x(), p.y(), p.z(), 1.0f} {}
  HPoint3D(HPoint3D const &) = default;

  HPoint3D & operator=(HPoint3D const &) = default;
  HPoint3D & operator=(Point3D const & p)
  {
    m_v[0] = p.x(), m_v[1] = p.y(), m_v[2] = p.z(), m_v[3] = 1.0f;
    return *this;
  }
  HPoint3D & operator=(float a)
  {
    m_v[0] = m_v[1] = m_v[2] = m_v[3] = a;
    return *this;
  }
  HPoint3D & operator=(double a) { return *this = static_cast<float>(a); }
  HPoint3D & operator=(int a) { return *this = static_cast<float>(a); }

  float x() const { return m_v[0]; }
  float y() const { return m_v[1]; }
  float z() const { return m_v[2]; }
  float w() const { return m_v[3]; }
  float & x() { return m_v[0]; }
  float & y() { return m_v[1]; }
  float & z() { return m_v[2]; }
  float & w() { return m_v[3]; }
  float const * asArray() const { return m_v; }

  // Scalar arithmetic on all four coordinates; a double operand computes in
  // double precision and rounds once, as Point3D does.
  HPoint3D & operator+=(float f) { return apply([f](float c) { return c + f; }); }
  HPoint3D & operator-=(float f) { return apply([f](float c) { return c - f; }); }
  HPoint3D & operator*=(float f) { return apply([f](float c) { return c * f; }); }
  HPoint3D & operator/=(float f) { return apply([f](float c) { return c / f; }); }
  HPoint3D & operator+=(double d) { return apply([d](float c) { return static_cast<float>(c + d); }); }
  HPoint3D & operator-=(double d) { return apply([d](float c) { return static_cast<float>(c - d); }); }
  HPoint3D & operator*=(double d) { return apply([d](float c) { return static_cast<float>(c * d); }); }
  HPoint3D & operator/=(double d) { return apply([d](float c) { return static_cast<float>(c / d); }); }

  /// x*x + y*y + z*z: squares in float, summed in double; `w` takes no part.
  double norm2() const
  {
    float const xx = m_v[0] * m_v[0], yy = m_v[1] * m_v[1], zz = m_v[2] * m_v[2];
    return static_cast<double>(xx) + static_cast<double>(yy) + static_cast<double>(zz);
  }
  double norm() const { return std::sqrt(norm2()); }

  bool operator==(HPoint3D const & o) const
  {
    return m_v[0] == o.m_v[0] && m_v[1] == o.m_v[1] && m_v[2] == o.m_v[2] && m_v[3] == o.m_v[3];
  }
  bool operator!=(HPoint3D const & o) const { return !(*this == o); }
  // The order compares norm2 alone: it ignores w and direction, so a <= b,
  // a >= b and a != b can all hold at once.
  bool operator<(HPoint3D const & o) const { return norm2() < o.norm2(); }
  bool operator>(HPoint3D const & o) const { return norm2() > o.norm2(); }
  bool operator<=(HPoint3D const & o) const { return norm2() <= o.norm2(); }
  bool operator>=(HPoint3D const & o) const { return norm2() >= o.norm2(); }

  /// (x, y, z) copied as they are: no division by w.
  Point3D projectW() { return Point3D(m_v[0], m_v[1], m_v[2]); }

private:
  template <class F> HPoint3D & apply(F f)
  {
    for (float & c : m_v)
      c = f(c);
    return *this;
  }
  float m_v[4];
};

class HPoint3D_d
{
public:
  HPoint3D_d() : m_v{0.0, 0.0, 0.0, 0.0} {}
  explicit HPoint3D_d(float a) : HPoint3D_d(static_cast<double>(a)) {}
  explicit HPoint3D_d(double a) : m_v{a, a, a, a} {}
  explicit HPoint3D_d(int a) : HPoint3D_d(static_cast<double>(a)) {}
  HPoint3D_d(double x, double y, double z, double w) : m_v{x, y, z, w} {}
  explicit HPoint3D_d(float const * p) : m_v{p[0], p[1], p[2], p[3]} {}
  explicit HPoint3D_d(double const * p) : m_v{p[0], p[1], p[2], p[3]} {}
  /// From the 3-point; `w` becomes 1.
  HPoint3D_d(Point3D_d const & p) : m_v{p.x(), p.y(), p.z(), 1.0} {}
  HPoint3D_d(HPoint3D_d const &) = default;

  HPoint3D_d & operator=(HPoint3D_d const &) = default;
  HPoint3D_d & operator=(Point3D_d const & p)
  {
    m_v[0] = p.x(), m_v[1] = p.y(), m_v[2] = p.z(), m_v[3] = 1.0;
    return *this;
  }
  HPoint3D_d & operator=(double a)
  {
    m_v[0] = m_v[1] = m_v[2] = m_v[3] = a;
    return *this;
  }
  HPoint3D_d & operator=(float a) { return *this = static_cast<double>(a); }
  HPoint3D_d & operator=(int a) { return *this = static_cast<double>(a); }

  double x() const { return m_v[0]; }
  double y() const { return m_v[1]; }
  double z() const { return m_v[2]; }
  double w() const { return m_v[3]; }
  double & x() { return m_v[0]; }
  double & y() { return m_v[1]; }
  double & z() { return m_v[2]; }
  double & w() { return m_v[3]; }
  double const * asArray() const { return m_v; }

  HPoint3D_d & operator+=(double d) { return apply([d](double c) { return c + d; }); }
  HPoint3D_d & operator-=(double d) { return apply([d](double c) { return c - d; }); }
  HPoint3D_d & operator*=(double d) { return apply([d](double c) { return c * d; }); }
  HPoint3D_d & operator/=(double d) { return apply([d](double c) { return c / d; }); }
  HPoint3D_d & operator+=(float f) { return *this += static_cast<double>(f); }
  HPoint3D_d & operator-=(float f) { return *this -= static_cast<double>(f); }
  HPoint3D_d & operator*=(float f) { return *this *= static_cast<double>(f); }
  HPoint3D_d & operator/=(float f) { return *this /= static_cast<double>(f); }

  double norm2() const { return m_v[0] * m_v[0] + m_v[1] * m_v[1] + m_v[2] * m_v[2]; }
  double norm() const { return std::sqrt(norm2()); }

  bool operator==(HPoint3D_d const & o) const
  {
    return m_v[0] == o.m_v[0] && m_v[1] == o.m_v[1] && m_v[2] == o.m_v[2] && m_v[3] == o.m_v[3];
  }
  bool operator!=(HPoint3D_d const & o) const { return !(*this == o); }
  bool operator<(HPoint3D_d const & o) const { return norm2() < o.norm2(); }
  bool operator>(HPoint3D_d const & o) const { return norm2() > o.norm2(); }
  bool operator<=(HPoint3D_d const & o) const { return norm2() <= o.norm2(); }
  bool operator>=(HPoint3D_d const & o) const { return norm2() >= o.norm2(); }

  /// (x, y, z) copied as they are: no division by w.
  Point3D_d projectW() const { return Point3D_d(m_v[0], m_v[1], m_v[2]); }

private:
  template <class F> HPoint3D_d & apply(F f)
  {
    for (double & c : m_v)
      c = f(c);
    return *this;
  }
  double m_v[4];
};

/// Abstract read-only view of a numbered set of points.
class ICoord3DRefs
{
public:
  static constexpr int DIM = 3;
  virtual ~ICoord3DRefs() = default;
  virtual int getPointsNumber() const = 0;
  /// Address of DIM coordinates of point `index`.
  virtual float const * getPointCoords(int index) const = 0;

protected:
  ICoord3DRefs() = default;
  ICoord3DRefs(ICoord3DRefs const &) = default;
  ICoord3DRefs & operator=(ICoord3DRefs const &) = default;
};

/// `ICoord3DRefs` over a vector of points it refers to and does not own.
/// No range check on the index.
template <class Container> class CPtVecAdapder : public ICoord3DRefs
{
public:
  explicit CPtVecAdapder(Container const & points) : m_points(&points) {}
  int getPointsNumber() const override { return static_cast<int>(m_points->size()); }
  float const * getPointCoords(int index) const override
  {
    return (*m_points)[static_cast<std::size_t>(index)].asArray();
  }

private:
  Container const * m_points;
};
} // namespace REmath

/// Scales `v` to unit length in place; a vector of length exactly 0 stays as it
/// is. Returns the length before scaling. The float form sums in double.
double NormalizeVector(float * v);
double NormalizeVector(double * v);
/// The same as NormalizeVector, the test for length 0 included.
double NormalizeVectorNoZeroCheck(float * v);
double NormalizeVectorNoZeroCheck(double * v);
