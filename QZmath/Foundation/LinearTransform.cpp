#include "QZmath/Foundation/LinearTransform.h"

#include <algorithm>
#include <cmath>

using REmath::Point3D_d;

namespace
{
// |a - b| within the float epsilon, relative to |a| + |b| but never tighter
// than absolute: the entries compared against 0 need the floor of 1.
bool tf_mixedEqual(double a, double b)
{
  return std::fabs(a - b) <= std::max(std::fabs(a) + std::fabs(b), 1.0) * 1.1920928955078125e-07;
}

// out = -(m^T t), formed as 0.0 minus the three products in turn.
void tf_negTransposedProduct(const double (&m)[3][3], const double * t, double * out)
{
  double r[3];
  for (int i = 0; i < 3; ++i)
    r[i] = 0.0 - m[0][i] * t[0] - m[1][i] * t[1] - m[2][i] * t[2];
  out[0] = r[0], out[1] = r[1], out[2] = r[2];
}
} // namespace

RElinearTransform::RElinearTransform()
    : matrix{{1.0, 0.0, 0.0}, {0.0, 1.0, 0.0}, {0.0, 0.0, 1.0}}, shift{0.0, 0.0, 0.0}
{
}

RElinearTransform::RElinearTransform(const double (&m)[3][3], const double * t)
{
  for (int i = 0; i < 3; ++i)
  {
    for (int j = 0; j < 3; ++j)
      matrix[i][j] = m[i][j];
    shift[i] = t[i];
  }
}

RElinearTransform::RElinearTransform(const CRotationMatrix & m, const Point3D_d & t)
    : RElinearTransform(m.m, t.asArray())
{
}

Point3D_d RElinearTransform::transformPoint(const Point3D_d & p) const
{
  double r[3];
  for (int i = 0; i < 3; ++i)
    r[i] = p.x() * matrix[i][0] + shift[i] + p.y() * matrix[i][1] + p.z() * matrix[i][2];
  return Point3D_d(r[0], r[1], r[2]);
}

RElinearTransform RElinearTransform::operator*(const RElinearTransform & inner) const
{
  RElinearTransform r;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      r.matrix[i][j] = matrix[i][0] * inner.matrix[0][j] + matrix[i][1] * inner.matrix[1][j] +
                       matrix[i][2] * inner.matrix[2][j];
  transformPoint(Point3D_d(inner.shift)).toArray(r.shift);
  return r;
}

bool RElinearTransform::isOrtho() const
{
  RElinearTransform const product = *this * getInvertedOrtho();
  RElinearTransform const & id = Identity();
  for (int i = 0; i < 3; ++i)
  {
    for (int j = 0; j < 3; ++j)
      if (!tf_mixedEqual(product.matrix[i][j], id.matrix[i][j]))
        return false;
    if (!tf_mixedEqual(product.shift[i], id.shift[i]))
      return false;
  }
  return true;
}

void RElinearTransform::invertOrtho()
{
  double t[3];
  tf_negTransposedProduct(matrix, shift, t);
  std::swap(matrix[0][1], matrix[1][0]);
  std::swap(matrix[0][2], matrix[2][0]);
  std::swap(matrix[1][2], matrix[2][1]);
  shift[0] = t[0], shift[1] = t[1], shift[2] = t[2];
}

RElinearTransform RElinearTransform::getInvertedOrtho() const
{
  RElinearTransform r(*this);
  r.invertOrtho();
  return r;
}

const RElinearTransform & RElinearTransform::Identity()
{
  static const RElinearTransform identity;
  return identity;
}

const RElinearTransform & RElinearTransform::Zero()
{
  static const double m[3][3] = {}, t[3] = {};
  static const RElinearTransform zero(m, t);
  return zero;
}

bool invertTransform(const RElinearTransform & a, RElinearTransform & out)
{
  CRotationMatrix inverse;
  if (!invertMatrix(CRotationMatrix(a.matrix), inverse))
    return false;
  // -(M^-1 t), as the transpose of (M^-1)^T.
  double t[3];
  tf_negTransposedProduct(inverse.getTransposed().m, a.shift, t);
  out = RElinearTransform(inverse.m, t);
  return true;
}

void setAxisRotationTransform(RElinearTransform & out, const Point3D_d & point, const Point3D_d & axis,
                              double angle)
{
  double const c = std::cos(angle), s = std::sin(angle), u = 1.0 - c;
  double const a0 = axis.x(), a1 = axis.y(), a2 = axis.z();
  double const p0 = point.x(), p1 = point.y(), p2 = point.z();
  double(&m)[3][3] = out.matrix;
  m[0][0] = a0 * a0 * u + c;
  m[1][1] = a1 * a1 * u + c;
  m[2][2] = a2 * a2 * u + c;
  m[0][1] = a0 * a1 * u - a2 * s;
  m[1][0] = a1 * a0 * u + a2 * s;
  m[0][2] = a0 * a2 * u + a1 * s;
  m[2][0] = a2 * a0 * u - a1 * s;
  m[1][2] = a1 * a2 * u - a0 * s;
  m[2][1] = a2 * a1 * u + a0 * s;
  // The point is fixed: t = (p - a (p . a)) u - (a x p) s.
  double const d = p0 * a0 + p1 * a1 + p2 * a2;
  out.shift[0] = (p0 - a0 * d) * u - (p2 * a1 - p1 * a2) * s;
  out.shift[1] = (p1 - a1 * d) * u - (a2 * p0 - p2 * a0) * s;
  out.shift[2] = (p2 - a2 * d) * u - (p1 * a0 - p0 * a1) * s;
}
