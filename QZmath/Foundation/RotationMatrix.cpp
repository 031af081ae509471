#include "QZmath/Foundation/RotationMatrix.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include <mkl.h>

#include "QZmath/Foundation/Matrix.h"
#include "QZmath/Foundation/NumericRoutines.h"

using REmath::Point3D_d;

namespace
{
constexpr double TF_EPS_DOUBLE = 2.220446049250313e-16;
constexpr double TF_EPS_FLOAT = 1.1920928955078125e-07;

bool tf_relativeEqual(double a, double b, double eps)
{
  return std::fabs(a - b) <= (std::fabs(a) + std::fabs(b)) * eps;
}

template <class Equal> bool tf_upperMatchesLower(const CRotationMatrix & r, Equal equal)
{
  for (int i = 0; i < 3; ++i)
    for (int j = i + 1; j < 3; ++j)
      if (!equal(r.m[i][j], r.m[j][i]))
        return false;
  return true;
}
} // namespace

CRotationMatrix::CRotationMatrix() : m{{1.0, 0.0, 0.0}, {0.0, 1.0, 0.0}, {0.0, 0.0, 1.0}} {}

CRotationMatrix::CRotationMatrix(const double (&rows)[3][3])
{
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      m[i][j] = rows[i][j];
}

Point3D_d CRotationMatrix::getRow(int i) const { return Point3D_d(m[i][0], m[i][1], m[i][2]); }

void CRotationMatrix::setRow(int i, const Point3D_d & row)
{
  m[i][0] = row.x(), m[i][1] = row.y(), m[i][2] = row.z();
}

Point3D_d CRotationMatrix::getColumn(int j) const { return Point3D_d(m[0][j], m[1][j], m[2][j]); }

void CRotationMatrix::setColumn(int j, const Point3D_d & column)
{
  m[0][j] = column.x(), m[1][j] = column.y(), m[2][j] = column.z();
}

void CRotationMatrix::transpose()
{
  std::swap(m[0][1], m[1][0]);
  std::swap(m[0][2], m[2][0]);
  std::swap(m[1][2], m[2][1]);
}

CRotationMatrix CRotationMatrix::getTransposed() const
{
  CRotationMatrix r(*this);
  r.transpose();
  return r;
}

CRotationMatrix & CRotationMatrix::operator+=(const CRotationMatrix & o)
{
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      m[i][j] += o.m[i][j];
  return *this;
}

CRotationMatrix CRotationMatrix::operator+(CRotationMatrix o) const
{
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      o.m[i][j] = m[i][j] + o.m[i][j];
  return o;
}

CRotationMatrix & CRotationMatrix::operator*=(double f)
{
  for (auto & row : m)
    for (double & v : row)
      v *= f;
  return *this;
}

CRotationMatrix CRotationMatrix::operator*(double f) const
{
  CRotationMatrix r(*this);
  r *= f;
  return r;
}

CRotationMatrix CRotationMatrix::operator/(double f) const
{
  CRotationMatrix r(*this);
  for (auto & row : r.m)
    for (double & v : row)
      v /= f;
  return r;
}

bool CRotationMatrix::isSelfAdjoint() const
{
  return tf_upperMatchesLower(*this,
                              [](double a, double b) { return tf_relativeEqual(a, b, TF_EPS_DOUBLE); });
}

bool CRotationMatrix::isSelfAdjointAsFloats() const
{
  return tf_upperMatchesLower(*this, [](double a, double b) { return tf_relativeEqual(a, b, TF_EPS_FLOAT); });
}

const CRotationMatrix & CRotationMatrix::Identity()
{
  static const CRotationMatrix identity;
  return identity;
}

const CRotationMatrix & CRotationMatrix::Zero()
{
  static const double entries[3][3] = {};
  static const CRotationMatrix zero(entries);
  return zero;
}

CRotationMatrix CRotationMatrix::buildFromRows(const Point3D_d & row0, const Point3D_d & row1,
                                               const Point3D_d & row2)
{
  CRotationMatrix r;
  r.setRow(0, row0);
  r.setRow(1, row1);
  r.setRow(2, row2);
  return r;
}

CRotationMatrix CRotationMatrix::buildFromColumns(const Point3D_d & col0, const Point3D_d & col1,
                                                  const Point3D_d & col2)
{
  CRotationMatrix r;
  r.setColumn(0, col0);
  r.setColumn(1, col1);
  r.setColumn(2, col2);
  return r;
}

bool invertMatrix(const CRotationMatrix & a, CRotationMatrix & out)
{
  // Column-major for LAPACK: element (r, c) of the matrix is a.m[r][c].
  REmath::Matrix<double> lu(3, 3);
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c)
      lu(r, c) = a.m[r][c];
  MKL_INT const n = 3, lwork = 192;
  MKL_INT pivots[3] = {0, 0, 0};
  MKL_INT info = 0;
  dgetrf(&n, &n, lu[0], &n, pivots, &info);
  if (info != 0)
    return false;
  double work[192];
  dgetri(&n, lu[0], &n, pivots, work, &lwork, &info);
  if (info != 0)
    return false;
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c)
      out.m[r][c] = lu(r, c);
  return true;
}

bool IsSelfAdjoint(const CRotationMatrix & m)
{
  return tf_upperMatchesLower(m, [](double a, double b) { return std::fabs(a - b) <= TF_EPS_FLOAT; });
}

void GetEigenVectorsSA(const CRotationMatrix & m, Point3D_d * const vectors, double * values, bool normalize)
{
  double a[3][3];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      a[i][j] = m.m[i][j];
  double * rows[3] = {a[0], a[1], a[2]};
  double d[3], e[3];
  tred2_d(rows, 3, d, e);
  if (tqli_d(d, e, 3, rows) == 0)
    throw std::runtime_error("GetEigenVectorsSA failed");
  for (int i = 0; i < 3; ++i)
  {
    values[i] = d[i];
    vectors[i] = Point3D_d(a[0][i], a[1][i], a[2][i]);
    if (normalize)
      NormalizeVector(vectors[i].asArray());
  }
}

void getEulerAnglesFromMatrix(const CRotationMatrix & m, double & a0, double & a1, double & a2)
{
  double const m22 = std::min(1.0, std::max(-1.0, m.m[2][2]));
  a1 = std::acos(m22);
  double const s = std::sqrt(1.0 - m22 * m22);
  if (s <= 1e-05)
  {
    // Gimbal lock: only the sum (or difference) of the outer angles is
    // defined; all of it goes to a0.
    a2 = 0.0;
    a0 = m22 > 0.0 ? std::atan2(m.m[1][0], m.m[0][0]) : std::atan2(-m.m[1][0], -m.m[0][0]);
  }
  else
  {
    a0 = std::atan2(m.m[1][2] / s, m.m[0][2] / s);
    a2 = std::atan2(m.m[2][1] / s, -m.m[2][0] / s);
  }
}

void makeEulerMatrix(CRotationMatrix & m, const double * angles)
{
  double const s1 = std::sin(angles[0]), c1 = std::cos(angles[0]);
  double const s2 = std::sin(angles[1]), c2 = std::cos(angles[1]);
  double const s3 = std::sin(angles[2]), c3 = std::cos(angles[2]);
  m.m[0][0] = c1 * c2 * c3 - s1 * s3;
  m.m[0][1] = -c1 * c2 * s3 - s1 * c3;
  m.m[0][2] = c1 * s2;
  m.m[1][0] = c2 * s1 * c3 + c1 * s3;
  m.m[1][1] = c1 * c3 - c2 * s1 * s3;
  m.m[1][2] = s1 * s2;
  m.m[2][0] = -c3 * s2;
  m.m[2][1] = s3 * s2;
  m.m[2][2] = c2;
}
