#include "QZmath/Foundation/OrthoNormBasis.h"

#include <algorithm>
#include <cmath>

using REmath::Point3D_d;

namespace
{
bool tf_mixedEqual(double a, double b)
{
  return std::fabs(a - b) <= std::max(std::fabs(a) + std::fabs(b), 1.0) * 1.1920928955078125e-07;
}

Point3D_d tf_cross(const Point3D_d & a, const Point3D_d & b)
{
  return Point3D_d(a.y() * b.z() - a.z() * b.y(), a.z() * b.x() - a.x() * b.z(),
                   a.x() * b.y() - a.y() * b.x());
}

double tf_dot(const Point3D_d & a, const Point3D_d & b)
{
  return a.x() * b.x() + a.y() * b.y() + a.z() * b.z();
}

// Unguarded on purpose: a zero vector gives non-finite components.
Point3D_d tf_normalised(Point3D_d v) { return v.normalize(); }
} // namespace

COrthoNormBasis::COrthoNormBasis() = default;

Point3D_d COrthoNormBasis::getOrigin() const { return Point3D_d(m_back.shift); }

Point3D_d COrthoNormBasis::getE(int i) const { return Point3D_d(m_forth.matrix[i]); }

void COrthoNormBasis::setOrigin(const Point3D_d & origin)
{
  origin.toArray(m_back.shift);
  // forth's shift is -(M^T o) with M back's matrix, whatever forth's matrix is.
  RElinearTransform const moved(m_back.matrix, m_back.shift);
  RElinearTransform const inverse = moved.getInvertedOrtho();
  std::copy(inverse.shift, inverse.shift + 3, m_forth.shift);
}

COrthoNormBasis COrthoNormBasis::getMovedTo(const Point3D_d & origin) const
{
  COrthoNormBasis r(*this);
  r.setOrigin(origin);
  return r;
}

bool COrthoNormBasis::isOrthoNorm() const
{
  RElinearTransform const product = m_forth * m_back;
  RElinearTransform const & id = RElinearTransform::Identity();
  for (int i = 0; i < 3; ++i)
  {
    for (int j = 0; j < 3; ++j)
      if (!tf_mixedEqual(product.matrix[i][j], id.matrix[i][j]))
        return false;
    if (!tf_mixedEqual(product.shift[i], id.shift[i]))
      return false;
  }
  return getE0().isUnitLength() && getE1().isUnitLength() && getE2().isUnitLength();
}

bool COrthoNormBasis::isOrthoNormRightHand() const
{
  return isOrthoNorm() && tf_dot(getE0(), tf_cross(getE1(), getE2())) > 0.0;
}

COrthoNormBasis COrthoNormBasis::getWorldBasisInLocalCoords() const
{
  COrthoNormBasis r;
  r.m_back = m_forth;
  r.m_forth = m_back;
  return r;
}

Point3D_d COrthoNormBasis::transformCoordsToBasis(const Point3D_d & p) const
{
  return m_forth.transformPoint(p);
}

Point3D_d COrthoNormBasis::transformCoordsFromBasis(const Point3D_d & p) const
{
  return m_back.transformPoint(p);
}

Point3D_d COrthoNormBasis::projectPointToXYPlane(const Point3D_d & p) const
{
  Point3D_d local = m_forth.transformPoint(p);
  local.z() = 0.0;
  return m_back.transformPoint(local);
}

const COrthoNormBasis & COrthoNormBasis::Identity()
{
  static const COrthoNormBasis identity;
  return identity;
}

const Point3D_d & COrthoNormBasis::IdentityE0()
{
  static const Point3D_d e(1.0, 0.0, 0.0);
  return e;
}

const Point3D_d & COrthoNormBasis::IdentityE1()
{
  static const Point3D_d e(0.0, 1.0, 0.0);
  return e;
}

const Point3D_d & COrthoNormBasis::IdentityE2()
{
  static const Point3D_d e(0.0, 0.0, 1.0);
  return e;
}

COrthoNormBasis COrthoNormBasis::buildByOrthsAndOrigin(const Point3D_d & e0, const Point3D_d & e1,
                                                       const Point3D_d & e2, const Point3D_d & origin)
{
  COrthoNormBasis r;
  r.m_back = RElinearTransform(CRotationMatrix::buildFromColumns(e0, e1, e2), origin);
  r.m_forth = r.m_back.getInvertedOrtho();
  // The transpose is the inverse only for an orthonormal set; any other set
  // gets a true inverse (a singular one keeps the transpose).
  if (!r.isOrthoNorm())
    invertTransform(r.m_back, r.m_forth);
  return r;
}

COrthoNormBasis COrthoNormBasis::buildRightHandByE0E1AndOrigin(const Point3D_d & e0, const Point3D_d & e1,
                                                               const Point3D_d & origin)
{
  return buildByOrthsAndOrigin(e0, e1, tf_normalised(tf_cross(e0, e1)), origin);
}

COrthoNormBasis COrthoNormBasis::buildRightHandByV0V1AndOrigin(const Point3D_d & v0, const Point3D_d & v1,
                                                               const Point3D_d & origin)
{
  Point3D_d const e0 = tf_normalised(v0);
  Point3D_d const e2 = tf_normalised(tf_cross(e0, v1));
  Point3D_d const e1 = tf_normalised(tf_cross(e2, e0));
  return buildByOrthsAndOrigin(e0, e1, e2, origin);
}

COrthoNormBasis COrthoNormBasis::buildRightHandByV2V0AndOrigin(const Point3D_d & v2, const Point3D_d & v0,
                                                               const Point3D_d & origin)
{
  Point3D_d const e2 = tf_normalised(v2);
  Point3D_d const e1 = tf_normalised(tf_cross(e2, v0));
  Point3D_d const e0 = tf_normalised(tf_cross(e1, e2));
  return buildByOrthsAndOrigin(e0, e1, e2, origin);
}

COrthoNormBasis COrthoNormBasis::buildAnyRightHandByV2AndOrigin(const Point3D_d & v2,
                                                                const Point3D_d & origin)
{
  Point3D_d const e2 = tf_normalised(v2);
  Point3D_d helper = IdentityE0();
  if (std::fabs(tf_dot(helper, e2)) > 0.9)
    helper = IdentityE1();
  Point3D_d const e0 = tf_normalised(tf_cross(helper, e2));
  Point3D_d const e1 = tf_normalised(tf_cross(e2, e0));
  return buildByOrthsAndOrigin(e0, e1, e2, origin);
}
