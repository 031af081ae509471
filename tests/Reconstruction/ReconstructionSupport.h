#pragma once
// Running a reconstruction in a test: a target that collects the mesh, and a
// helper that runs the triangulator on a cloud with given parameters.

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "QZmath/VolTriang/VolumetricTriangulator.h"
#include "QZsys/DebugLog.h"
#include "QZsys/Progress.h"
#include "tests/Common/MeshChecks.h"
#include "tests/Common/SampleClouds.h"

namespace qztest
{
class CMeshTarget : public VolTr::ITriangulationTarget
{
public:
  Mesh mesh;
  bool indicesInOrder = true;

private:
  void onAddNewVertex(int index, double const * p, double const * n) override
  {
    if (index != static_cast<int>(mesh.vertices.size()))
      indicesInOrder = false;
    mesh.vertices.push_back({p[0], p[1], p[2]});
    mesh.normals.push_back({n[0], n[1], n[2]});
  }
  void onAddNewVertex(int index, float const * p, float const * n) override
  {
    double const pd[3] = {p[0], p[1], p[2]}, nd[3] = {n[0], n[1], n[2]};
    onAddNewVertex(index, pd, nd);
  }
  void onAddNewTriangle(int a, int b, int c) override { mesh.triangles.push_back({a, b, c}); }
};

inline VolTr::CVolTriangulationParams makeParams(int depth)
{
  VolTr::CVolTriangulationParams p;
  p.setOctreeDepth(depth);
  return p;
}

struct RunResult
{
  Mesh mesh;
  std::vector<std::string> log;
  bool indicesInOrder = true;
};

inline RunResult reconstruct(VolTr::IInputSamples const & cloud, VolTr::CVolTriangulationParams params,
                             CProgressCounter * progress = nullptr)
{
  VsUt::CMemoryDebugLog log;
  params.setDebugLog(&log);
  CMeshTarget target;
  VolTr::CVolumetricTriangulator t(&target, &cloud, &params, progress);
  t.run();
  return RunResult{target.mesh, log.lines(), target.indicesInOrder};
}

/// Largest distance of a vertex from the sphere of radius r about the origin.
inline double sphereError(Mesh const & m, double r)
{
  double e = 0;
  for (auto const & v : m.vertices)
    e = std::max(e, std::fabs(std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]) - r));
  return e;
}

/// Largest distance of a vertex from the torus of radii R, r about the z axis.
inline double torusError(Mesh const & m, double R, double r)
{
  double e = 0;
  for (auto const & v : m.vertices)
  {
    double const q = std::sqrt(v[0] * v[0] + v[1] * v[1]) - R;
    e = std::max(e, std::fabs(std::sqrt(q * q + v[2] * v[2]) - r));
  }
  return e;
}

/// The value of a log line with this label, or "" when absent.
inline std::string logValue(std::vector<std::string> const & log, std::string const & label)
{
  for (auto const & l : log)
    if (l.compare(0, label.size() + 2, label + ": ") == 0)
      return l.substr(label.size() + 2);
  return "";
}
} // namespace qztest
