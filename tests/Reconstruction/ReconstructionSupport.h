#pragma once
// Running a reconstruction in a test: a target that collects the mesh, a
// helper that runs the triangulator on a cloud with given parameters, and
// the observers and scopes that the runs share.

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "QZmath/VolTriang/VolumetricTriangulator.h"
#include "QZsys/DebugLog.h"
#include "QZsys/Progress.h"
#include "QZsys/Threading.h"
#include "tests/Common/MeshChecks.h"
#include "tests/Common/SampleClouds.h"

namespace qztest
{
class CMeshTarget : public VolTr::ITriangulationTarget
{
public:
  Mesh mesh;

private:
  void onAddNewVertex(int, double const * p, double const * n) override
  {
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

inline VolTr::CVolTriangulationParams makeParams(int depth, bool multilevel = false)
{
  VolTr::CVolTriangulationParams p;
  p.setOctreeDepth(depth);
  p.setMultilevelSolver(multilevel);
  return p;
}

struct RunResult
{
  Mesh mesh;
  std::vector<std::string> log;
};

inline RunResult reconstruct(VolTr::IInputSamples const & cloud, VolTr::CVolTriangulationParams params,
                             CProgressCounter * progress = nullptr)
{
  VsUt::CMemoryDebugLog log;
  params.setDebugLog(&log);
  CMeshTarget target;
  VolTr::CVolumetricTriangulator t(&target, &cloud, &params, progress);
  t.run();
  return RunResult{target.mesh, log.lines()};
}

/// The largest and the mean distance of the vertices from the sphere of
/// radius r about the origin.
inline std::array<double, 2> surfaceError(Mesh const & m, double r)
{
  double e = 0, sum = 0;
  for (auto const & v : m.vertices)
  {
    double const d = std::fabs(std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]) - r);
    e = std::max(e, d);
    sum += d;
  }
  return {e, m.vertices.empty() ? 1.0 : sum / m.vertices.size()};
}

/// The value of a log line with this label, or "" when absent.
inline std::string logValue(std::vector<std::string> const & log, std::string const & label)
{
  for (auto const & l : log)
    if (l.compare(0, label.size() + 2, label + ": ") == 0)
      return l.substr(label.size() + 2);
  return "";
}

/// Overrides the counted number of cores while it lives.
struct ThreadCount
{
  explicit ThreadCount(int n) { CVescaThreadingTasksHelper::setNumOfPhisicalThread(n); }
  ~ThreadCount() { CVescaThreadingTasksHelper::setNumOfPhisicalThread(0); }
};

/// Records the positions a counter reports and the phases it passes, and
/// requests an interruption as soon as it enters a given phase ("" for none).
struct PhaseObserver : IProgressObserver
{
  CProgressCounter * counter;
  std::string phase;
  double interruptedAt = -1.0;
  std::vector<double> positions;
  std::vector<std::string> names;
  explicit PhaseObserver(CProgressCounter * c, std::string p = "") : counter(c), phase(std::move(p))
  {
    counter->AddObserver(this);
  }
  void onProgress(double pos, std::string const & name) override
  {
    positions.push_back(pos);
    if (!name.empty() && (names.empty() || names.back() != name))
      names.push_back(name);
    if (!phase.empty() && name == phase && interruptedAt < 0)
    {
      interruptedAt = pos;
      counter->RequestInterrupt();
    }
  }
};
} // namespace qztest
