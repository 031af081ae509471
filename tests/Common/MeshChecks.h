#pragma once
// Topology and geometry checks of triangle meshes, shared by the polygoniser
// and reconstruction tests.

#include <array>
#include <cmath>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace qztest
{
struct Mesh
{
  std::vector<std::array<double, 3>> vertices;
  std::vector<std::array<double, 3>> normals;
  std::vector<std::array<int, 3>> triangles;
};

struct MeshTopology
{
  int boundaryEdges = 0;       // edges in one triangle
  int nonManifoldEdges = 0;    // edges in three or more triangles
  int inconsistentEdges = 0;   // edges used twice in the same direction
  int degenerateTriangles = 0; // repeated vertex indices
  int badIndices = 0;
  int unusedVertices = 0;
  int eulerCharacteristic = 0; // V - E + F over the used vertices
  int components = 0;          // connected components of triangles
  bool closedManifold() const
  {
    return boundaryEdges == 0 && nonManifoldEdges == 0 && inconsistentEdges == 0 &&
           degenerateTriangles == 0 && badIndices == 0;
  }
};

inline MeshTopology analyse(Mesh const & m)
{
  MeshTopology t;
  int const nv = static_cast<int>(m.vertices.size());
  std::map<std::pair<int, int>, int> directed;
  std::vector<char> used(m.vertices.size(), 0);
  std::vector<int> parent(m.triangles.size());
  for (std::size_t i = 0; i < parent.size(); ++i)
    parent[i] = static_cast<int>(i);
  std::function<int(int)> findRoot = [&](int x)
  {
    while (parent[x] != x)
      x = parent[x] = parent[parent[x]];
    return x;
  };
  std::map<std::pair<int, int>, std::vector<int>> edgeTriangles;
  for (std::size_t f = 0; f < m.triangles.size(); ++f)
  {
    auto const & tri = m.triangles[f];
    bool bad = false;
    for (int v : tri)
      if (v < 0 || v >= nv)
        bad = true;
    if (bad)
    {
      ++t.badIndices;
      continue;
    }
    if (tri[0] == tri[1] || tri[1] == tri[2] || tri[0] == tri[2])
      ++t.degenerateTriangles;
    for (int e = 0; e < 3; ++e)
    {
      int const a = tri[e], b = tri[(e + 1) % 3];
      used[a] = 1;
      if (++directed[{a, b}] > 1)
        ++t.inconsistentEdges;
      edgeTriangles[{std::min(a, b), std::max(a, b)}].push_back(static_cast<int>(f));
    }
  }
  for (auto const & e : edgeTriangles)
  {
    if (e.second.size() == 1)
      ++t.boundaryEdges;
    else if (e.second.size() > 2)
      ++t.nonManifoldEdges;
    for (std::size_t i = 1; i < e.second.size(); ++i)
      parent[findRoot(e.second[i])] = findRoot(e.second[0]);
  }
  int usedCount = 0;
  for (char u : used)
    usedCount += u;
  t.unusedVertices = nv - usedCount;
  t.eulerCharacteristic =
      usedCount - static_cast<int>(edgeTriangles.size()) + static_cast<int>(m.triangles.size());
  std::set<int> roots;
  for (std::size_t f = 0; f < m.triangles.size(); ++f)
    roots.insert(findRoot(static_cast<int>(f)));
  t.components = static_cast<int>(roots.size());
  return t;
}

/// Signed volume by the divergence theorem: positive when the triangles turn
/// counter-clockwise seen from outside (normals point outward).
inline double signedVolume(Mesh const & m)
{
  double v = 0;
  for (auto const & tri : m.triangles)
  {
    auto const & a = m.vertices[tri[0]];
    auto const & b = m.vertices[tri[1]];
    auto const & c = m.vertices[tri[2]];
    v += a[0] * (b[1] * c[2] - b[2] * c[1]) - a[1] * (b[0] * c[2] - b[2] * c[0]) +
         a[2] * (b[0] * c[1] - b[1] * c[0]);
  }
  return v / 6.0;
}
} // namespace qztest
