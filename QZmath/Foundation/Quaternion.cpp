#include "QZmath/Foundation/Quaternion.h"

#include <cmath>

Quaternion::Quaternion() : m_scalar(1.0), m_x(0.0), m_y(0.0), m_z(0.0) {}

Quaternion::Quaternion(double scalar, double x, double y, double z) : m_scalar(scalar), m_x(x), m_y(y), m_z(z)
{
}

Quaternion::Quaternion(double a0, double a1, double a2) : Quaternion()
{
  double const angles[3] = {a0, a1, a2};
  CRotationMatrix m;
  makeEulerMatrix(m, angles);
  getQuaternionFromMatrix(m, *this);
  normalize();
}

void Quaternion::setIdentity() { *this = Quaternion(); }

void Quaternion::setToRotateAboutX(double angle)
{
  *this = Quaternion(std::cos(angle / 2), std::sin(angle / 2), 0.0, 0.0);
  normalize();
}

void Quaternion::setToRotateAboutY(double angle)
{
  *this = Quaternion(std::cos(angle / 2), 0.0, std::sin(angle / 2), 0.0);
}

void Quaternion::setToRotateAboutZ(double angle)
{
  *this = Quaternion(std::cos(angle / 2), 0.0, 0.0, std::sin(angle / 2));
}

void Quaternion::normalize()
{
  double const l = length();
  if (!(l > 0.0))
  {
    setIdentity();
    return;
  }
  double const inv = 1.0 / l;
  m_scalar *= inv;
  m_x *= inv;
  m_y *= inv;
  m_z *= inv;
}

double Quaternion::length() const { return std::sqrt(dotProduct(*this, *this)); }

void Quaternion::getRotationMatrix(CRotationMatrix & out) const
{
  double const w = m_scalar, x = m_x, y = m_y, z = m_z;
  double(&m)[3][3] = out.m;
  m[0][0] = 1.0 - 2.0 * (y * y + z * z);
  m[1][1] = 1.0 - 2.0 * (z * z + x * x);
  m[2][2] = 1.0 - 2.0 * (y * y + x * x);
  m[0][1] = 2.0 * (x * y + z * w);
  m[1][0] = 2.0 * (x * y - z * w);
  m[2][0] = 2.0 * (x * z + y * w);
  m[0][2] = 2.0 * (x * z - y * w);
  m[2][1] = 2.0 * (y * z - x * w);
  m[1][2] = 2.0 * (x * w + y * z);
}

void Quaternion::getEulerAngle(double & a0, double & a1, double & a2) const
{
  CRotationMatrix m;
  getRotationMatrix(m);
  getEulerAnglesFromMatrix(m, a0, a1, a2);
}

Quaternion Quaternion::slerp(const Quaternion & a, const Quaternion & b, double t)
{
  if (t <= 0.0)
    return a;
  if (t >= 1.0)
    return b;
  Quaternion to = b;
  double c = dotProduct(a, b);
  if (c < 0.0)
  {
    // The shorter arc: q and -q are the same rotation.
    to = Quaternion(-b.m_scalar, -b.m_x, -b.m_y, -b.m_z);
    c = -c;
  }
  double k0 = 1.0 - t, k1 = t;
  if (!(c > 0.9998999834060669))
  {
    double const s = std::sqrt(1.0 - c * c);
    double const o = std::atan2(s, c);
    double const inv = 1.0 / s;
    k0 = std::sin(k0 * o) * inv;
    k1 = std::sin(o * t) * inv;
  }
  return Quaternion(k0 * a.m_scalar + k1 * to.m_scalar, k0 * a.m_x + k1 * to.m_x, k0 * a.m_y + k1 * to.m_y,
                    k0 * a.m_z + k1 * to.m_z);
}

double Quaternion::dotProduct(const Quaternion & a, const Quaternion & b)
{
  return a.m_scalar * b.m_scalar + a.m_x * b.m_x + a.m_y * b.m_y + a.m_z * b.m_z;
}

bool Quaternion::areEqualTo(const Quaternion & q, double eps) const
{
  return std::fabs(m_scalar - q.m_scalar) <= eps && std::fabs(m_x - q.m_x) <= eps &&
         std::fabs(m_y - q.m_y) <= eps && std::fabs(m_z - q.m_z) <= eps;
}

Quaternion Quaternion::operator*(const Quaternion & b) const
{
  Quaternion const & a = *this;
  return Quaternion(a.m_scalar * b.m_scalar - a.m_y * b.m_y - a.m_z * b.m_z - a.m_x * b.m_x,
                    a.m_z * b.m_y - a.m_y * b.m_z + a.m_x * b.m_scalar + a.m_scalar * b.m_x,
                    a.m_y * b.m_scalar + a.m_scalar * b.m_y - a.m_z * b.m_x + a.m_x * b.m_z,
                    a.m_y * b.m_x - a.m_x * b.m_y + a.m_z * b.m_scalar + a.m_scalar * b.m_z);
}

bool Quaternion::operator==(const Quaternion & q) const
{
  return m_scalar == q.m_scalar && m_x == q.m_x && m_y == q.m_y && m_z == q.m_z;
}

void getQuaternionFromMatrix(const CRotationMatrix & matrix, Quaternion & q)
{
  double const(&m)[3][3] = matrix.m;
  double const t[4] = {m[0][0] + m[1][1] + m[2][2], m[0][0] - m[1][1] - m[2][2], m[1][1] - m[0][0] - m[2][2],
                       m[2][2] - m[0][0] - m[1][1]};
  int best = 0;
  for (int i = 1; i < 4; ++i)
    if (t[i] > t[best])
      best = i;
  double const r = std::sqrt(t[best] + 1.0) * 0.5;
  double const f = 0.25 / r;
  switch (best)
  {
  case 0:
    q = Quaternion(r, f * (m[1][2] - m[2][1]), f * (m[2][0] - m[0][2]), f * (m[0][1] - m[1][0]));
    break;
  case 1:
    q = Quaternion(f * (m[1][2] - m[2][1]), r, f * (m[0][1] + m[1][0]), f * (m[0][2] + m[2][0]));
    break;
  case 2:
    q = Quaternion(f * (m[2][0] - m[0][2]), f * (m[0][1] + m[1][0]), r, f * (m[1][2] + m[2][1]));
    break;
  default:
    q = Quaternion(f * (m[0][1] - m[1][0]), f * (m[0][2] + m[2][0]), f * (m[1][2] + m[2][1]), r);
    break;
  }
}
