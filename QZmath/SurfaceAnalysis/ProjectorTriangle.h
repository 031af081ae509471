#pragma once
// A triangle that measures squared distances from points many times over: its
// local frame (first vertex at the origin, x along the first side, z along the
// normal) and its in-plane edge data are computed once by PreCalc.

#include "QZmath/Foundation/LinearTransform.h"
#include "QZmath/Foundation/Point3D.h"

namespace REmath
{
class CProjectorTriangle
{
public:
  /// All three vertices at the origin; call SetVertices and PreCalc.
  CProjectorTriangle();
  /// Takes the vertices and runs PreCalc.
  CProjectorTriangle(const float * v0, const float * v1, const float * v2, int mark = 0);

  void SetVertices(const float * v0, const float * v1, const float * v2);
  const float * GetVertex(int i) const { return m_vertices + 3 * i; }
  int GetMark() const { return m_mark; }
  void SetMark(int mark) { m_mark = mark; }

  /// Builds the frame and the edge data from the vertices. A first side of
  /// zero length takes the x axis, a third vertex on the first side the
  /// default perpendicular of it.
  void PreCalc();
  /// Squared distance of p from the triangle, from the data of the last
  /// PreCalc: the squared height when p lies over the triangle, else the
  /// squared height plus the squared in-plane distance to the nearest side
  /// (always so for a triangle without area).
  double DistToTriangle2Precalced(const float * p) const;
  /// The same from the vertices, without the cached data.
  double DistToTriangle2(const float * p) const;
  /// The greatest squared side length.
  double GetMaxSideLen2() const;
  const RElinearTransform & GetLocalTransform() const { return m_toLocal; }

private:
  float m_vertices[9];
  int m_mark;
  RElinearTransform m_toLocal;
  double m_local[2][2];    ///< local (x, y) of vertices 1 and 2
  double m_edgeDir[3][2];  ///< unit in-plane directions of the sides 0-1, 1-2, 2-0
  double m_edgeNorm[3][2]; ///< their inward normals
  double m_sideLen2[3];    ///< their squared lengths
};
} // namespace REmath
