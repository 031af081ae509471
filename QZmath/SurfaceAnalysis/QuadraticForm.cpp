#include "QZmath/SurfaceAnalysis/QuadraticForm.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "QZsys/Exceptions.h"

using REmath::Point3D_d;

const double CQuadraticForm::m_sEvalError = 2.220446049250313e-16;

namespace
{
bool tf_isZero(double v) { return std::fabs(v - 0.0) <= std::fabs(v) * CQuadraticForm::m_sEvalError; }
} // namespace

CQuadraticForm::CQuadraticForm() : m_Q(CRotationMatrix::Identity()), m_L(), m_K(0.0) {}

double CQuadraticForm::eval(const Point3D_d & p) const
{
  double const * x = p.asArray();
  double sum = 0.0;
  for (int i = 0; i < 3; ++i)
    sum += (m_Q.m[i][0] * x[0] + m_Q.m[i][1] * x[1] + m_Q.m[i][2] * x[2] + m_L.asArray()[i]) * x[i];
  return sum + m_K;
}

Point3D_d CQuadraticForm::evalGradient(const Point3D_d & p) const
{
  double const * x = p.asArray();
  double g[3];
  for (int i = 0; i < 3; ++i)
    g[i] = 2.0 * (m_Q.m[i][0] * x[0] + m_Q.m[i][1] * x[1] + m_Q.m[i][2] * x[2]) + m_L.asArray()[i];
  return Point3D_d(g);
}

CQuadraticForm::CalcZResult CQuadraticForm::calculateZByXY(double x, double y, double & z1, double & z2) const
{
  double const a = m_Q.m[2][2];
  double const b = (m_Q.m[0][2] + m_Q.m[2][0]) * x + (m_Q.m[1][2] + m_Q.m[2][1]) * y + m_L.z();
  double const c = eval(Point3D_d(x, y, 0.0));
  if (tf_isZero(a))
  {
    if (!tf_isZero(b))
    {
      z1 = -c / b;
      return CalcZOne;
    }
    return tf_isZero(c) ? CalcZAny : CalcZNone;
  }
  double const d = b * b - 4.0 * a * c;
  if (d < 0.0)
    return CalcZNone;
  double const root = std::sqrt(d);
  z1 = (root - b) / (2.0 * a);
  z2 = -(b + root) / (2.0 * a);
  // When both outputs are one variable it keeps the second root as written.
  if (&z1 != &z2 && std::fabs(z1) > std::fabs(z2))
    std::swap(z1, z2);
  return CalcZTwo;
}

CQuadraticForm::CalcZResult CQuadraticForm::calculateZByXYSortedByGrad(double x, double y, double & z1,
                                                                       double & z2,
                                                                       const Point3D_d & dir) const
{
  CalcZResult const result = calculateZByXY(x, y, z1, z2);
  if (result != CalcZTwo)
    return result;
  Point3D_d const d = dir.unitLength();
  auto along = [&](double z)
  {
    Point3D_d const g = evalGradient(Point3D_d(x, y, z));
    return (g.x() * d.x() + g.y() * d.y() + g.z() * d.z()) / g.length();
  };
  if (&z1 != &z2 && along(z1) < along(z2))
    std::swap(z1, z2);
  return result;
}

CQuadraticForm CQuadraticForm::buildFromCoefficients(double kxx, double kyy, double kzz, double kxy,
                                                     double kxz, double kyz, double kx, double ky, double kz,
                                                     double k)
{
  CQuadraticForm f;
  CRotationMatrix & q = f.m_Q;
  q.m[0][0] = kxx, q.m[1][1] = kyy, q.m[2][2] = kzz;
  q.m[0][1] = q.m[1][0] = 0.5 * kxy;
  q.m[0][2] = q.m[2][0] = 0.5 * kxz;
  q.m[1][2] = q.m[2][1] = 0.5 * kyz;
  f.m_L = Point3D_d(kx, ky, kz);
  f.m_K = k;
  return f;
}

template <class T> CQuadraticForm CQuadraticForm::buildFromCoeffArray(int count, const T * coeffs)
{
  double c[10] = {};
  int const used = std::min(count, 10);
  for (int i = 0; i < used; ++i)
    c[i] = coeffs[i];
  return buildFromCoefficients(c[0], c[3], c[5], c[1], c[2], c[4], c[6], c[7], c[8], c[9]);
}

template <class T> void CQuadraticForm::convertToRaw(int n, T * raw) const
{
  if (n != 6 && n != 9 && n < 10)
    throw CVescaException("Wrong quadric form coefficinets array size.");
  for (int i = 0; i < n; ++i)
    raw[i] = T(0);
  raw[0] = static_cast<T>(m_Q.m[0][0]);
  raw[1] = static_cast<T>(m_Q.m[0][1] + m_Q.m[1][0]);
  raw[2] = static_cast<T>(m_Q.m[0][2] + m_Q.m[2][0]);
  raw[3] = static_cast<T>(m_Q.m[1][1]);
  raw[4] = static_cast<T>(m_Q.m[1][2] + m_Q.m[2][1]);
  raw[5] = static_cast<T>(m_Q.m[2][2]);
  if (n >= 9)
    for (int i = 0; i < 3; ++i)
      raw[6 + i] = static_cast<T>(m_L.asArray()[i]);
  if (n >= 10)
    raw[9] = static_cast<T>(m_K);
}

template <class T> void CQuadraticForm::ConvertToRawFormat(CQuadFormRaw9<T> & raw) const
{
  convertToRaw(9, raw);
}
template <class T> void CQuadraticForm::ConvertToRawFormat(CQuadFormRaw10<T> & raw) const
{
  convertToRaw(10, raw);
}

void CQuadraticForm::transformToBasis(const COrthoNormBasis & basis)
{
  RElinearTransform const & back = basis.getBackCoordTransform();
  double const(&a)[3][3] = back.matrix;
  double const * t = back.shift;

  double const k = eval(Point3D_d(t));

  // A^T Q, then its product with t and with A.
  double atq[3][3];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      atq[i][j] = a[0][i] * m_Q.m[0][j] + a[1][i] * m_Q.m[1][j] + a[2][i] * m_Q.m[2][j];
  double l[3];
  for (int i = 0; i < 3; ++i)
    l[i] = (a[0][i] * m_L.x() + a[1][i] * m_L.y() + a[2][i] * m_L.z()) +
           2.0 * (atq[i][0] * t[0] + atq[i][1] * t[1] + atq[i][2] * t[2]);
  double q[3][3];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      q[i][j] = atq[i][0] * a[0][j] + atq[i][1] * a[1][j] + atq[i][2] * a[2][j];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      m_Q.m[i][j] = 0.5 * (q[i][j] + q[j][i]);
  m_L = Point3D_d(l);
  m_K = k;
}

CQuadraticForm CQuadraticForm::getTransformedToBasis(const COrthoNormBasis & basis) const
{
  CQuadraticForm f(*this);
  f.transformToBasis(basis);
  return f;
}

template CQuadraticForm CQuadraticForm::buildFromCoeffArray<float>(int, const float *);
template CQuadraticForm CQuadraticForm::buildFromCoeffArray<double>(int, const double *);
template void CQuadraticForm::ConvertToRawFormat<float>(CQuadFormRaw9<float> &) const;
template void CQuadraticForm::ConvertToRawFormat<double>(CQuadFormRaw9<double> &) const;
template void CQuadraticForm::ConvertToRawFormat<float>(CQuadFormRaw10<float> &) const;
template void CQuadraticForm::ConvertToRawFormat<double>(CQuadFormRaw10<double> &) const;
