#include "QZmath/SurfaceAnalysis/ProjectorTriangle.h"

#include <algorithm>
#include <cmath>

#include "QZmath/Foundation/VectorGeometry.h"

namespace REmath
{
CProjectorTriangle::CProjectorTriangle() : m_vertices{}, m_mark(0) { PreCalc(); }

CProjectorTriangle::CProjectorTriangle(const float * v0, const float * v1, const float * v2, int mark)
    : m_mark(mark)
{
  SetVertices(v0, v1, v2);
  PreCalc();
}

void CProjectorTriangle::SetVertices(const float * v0, const float * v1, const float * v2)
{
  const float * v[3] = {v0, v1, v2};
  for (int i = 0; i < 3; ++i)
    for (int k = 0; k < 3; ++k)
      m_vertices[3 * i + k] = v[i][k];
}

void CProjectorTriangle::PreCalc()
{
  double o[3], e1[3], e2[3], e3[3];
  for (int k = 0; k < 3; ++k)
  {
    o[k] = m_vertices[k];
    e1[k] = double(m_vertices[3 + k]) - o[k];
    e2[k] = double(m_vertices[6 + k]) - o[k];
  }
  if (NormalizeVector(e1) == 0.0)
    e1[0] = 1.0, e1[1] = e1[2] = 0.0;
  double const along = e1[0] * e2[0] + e1[1] * e2[1] + e1[2] * e2[2];
  for (int k = 0; k < 3; ++k)
    e2[k] -= along * e1[k];
  if (NormalizeVector(e2) == 0.0)
    BuildDefPerpendicular(e1, e2);
  e3[0] = e1[1] * e2[2] - e1[2] * e2[1];
  e3[1] = e1[2] * e2[0] - e1[0] * e2[2];
  e3[2] = e1[0] * e2[1] - e1[1] * e2[0];

  double m[3][3];
  double shift[3];
  for (int k = 0; k < 3; ++k)
    m[0][k] = e1[k], m[1][k] = e2[k], m[2][k] = e3[k];
  for (int r = 0; r < 3; ++r)
    shift[r] = -(m[r][0] * o[0] + m[r][1] * o[1] + m[r][2] * o[2]);
  m_toLocal = RElinearTransform(m, shift);

  double pts[3][2] = {{0.0, 0.0}};
  for (int i = 1; i < 3; ++i)
  {
    double d[3];
    for (int k = 0; k < 3; ++k)
      d[k] = double(m_vertices[3 * i + k]) - o[k];
    pts[i][0] = m[0][0] * d[0] + m[0][1] * d[1] + m[0][2] * d[2];
    pts[i][1] = m[1][0] * d[0] + m[1][1] * d[1] + m[1][2] * d[2];
    m_local[i - 1][0] = pts[i][0], m_local[i - 1][1] = pts[i][1];
  }
  for (int i = 0; i < 3; ++i)
  {
    double const dx = pts[(i + 1) % 3][0] - pts[i][0], dy = pts[(i + 1) % 3][1] - pts[i][1];
    m_sideLen2[i] = dx * dx + dy * dy;
    double const len = std::sqrt(m_sideLen2[i]);
    m_edgeDir[i][0] = len > 0.0 ? dx / len : 0.0;
    m_edgeDir[i][1] = len > 0.0 ? dy / len : 0.0;
    // The third vertex has y >= 0: the triangle runs counter-clockwise, and
    // the inward side of each edge is its left.
    m_edgeNorm[i][0] = -m_edgeDir[i][1];
    m_edgeNorm[i][1] = m_edgeDir[i][0];
  }
}

double CProjectorTriangle::DistToTriangle2Precalced(const float * p) const
{
  Point3D_d const local = m_toLocal.transformPoint(Point3D_d(p));
  float const qf[3] = {static_cast<float>(local.x()), static_cast<float>(local.y()),
                       static_cast<float>(local.z())};
  double const q[2] = {qf[0], qf[1]}, z = qf[2];
  double const pts[3][2] = {{0.0, 0.0}, {m_local[0][0], m_local[0][1]}, {m_local[1][0], m_local[1][1]}};
  // A triangle without area has no inside: its sides alone measure it.
  bool inside = m_local[1][1] != 0.0;
  for (int i = 0; i < 3 && inside; ++i)
    inside = (pts[i][0] - q[0]) * m_edgeNorm[i][0] + (pts[i][1] - q[1]) * m_edgeNorm[i][1] <= 0.0;
  if (inside)
    return z * z;
  double best = 0.0;
  for (int i = 0; i < 3; ++i)
  {
    double const rx = q[0] - pts[i][0], ry = q[1] - pts[i][1];
    double d2;
    if (m_sideLen2[i] == 0.0)
      d2 = rx * rx + ry * ry;
    else
    {
      double const len = std::sqrt(m_sideLen2[i]);
      double const t = std::min(len, std::max(0.0, rx * m_edgeDir[i][0] + ry * m_edgeDir[i][1]));
      double const fx = rx - t * m_edgeDir[i][0], fy = ry - t * m_edgeDir[i][1];
      d2 = fx * fx + fy * fy;
    }
    if (i == 0 || d2 < best)
      best = d2;
  }
  return best + z * z;
}

double CProjectorTriangle::DistToTriangle2(const float * p) const
{
  CProjectorTriangle fresh(*this);
  fresh.PreCalc();
  return fresh.DistToTriangle2Precalced(p);
}

double CProjectorTriangle::GetMaxSideLen2() const
{
  return std::max(m_sideLen2[0], std::max(m_sideLen2[1], m_sideLen2[2]));
}
} // namespace REmath
