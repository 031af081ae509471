#include "CloudNormals.h"

#include <chrono>

namespace qzrecon
{
REmath::CNormalEstimationParams NormalOptions::params() const
{
  REmath::CNormalEstimationParams p;
  p.setNeighbours(neighbours);
  p.setMaxRadius(radius);
  if (viewpoint.size() == 3)
    p.setViewpoint(REmath::Point3D_d(viewpoint[0], viewpoint[1], viewpoint[2]));
  p.setPhaseNameShown(true);
  return p;
}

void addNormalOptions(CLI::App & app, NormalOptions & options)
{
  app.add_option("--neighbours", options.neighbours, "neighbours per point for the normals (k)")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  app.add_option("--radius", options.radius, "leave out neighbours farther than this (0: no limit)")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1e30));
  app.add_option("--viewpoint", options.viewpoint,
                 "scanner position X,Y,Z: normals face it (else up from the top of each part)")
      ->delimiter(',')
      ->expected(3);
}

NormalsSummary estimateNormals(OrientedCloud & cloud, NormalOptions const & options, CProgressCounter * progress)
{
  auto const start = std::chrono::steady_clock::now();
  REmath::CNormalEstimationParams const params = options.params();
  int const count = static_cast<int>(cloud.size());
  REmath::CEstimatedNormals result;
  REmath::CNormalEstimator(params).run(cloud.points.data(), count, result, progress);
  cloud.normals = result.getNormals();

  NormalsSummary s;
  s.estimated = true;
  s.neighbours = params.getNeighbours();
  s.radius = params.getMaxRadius();
  s.viewpoint = options.viewpoint;
  s.degenerate = result.getDegenerateCount();
  s.duplicates = result.getDuplicateCount();
  s.components = result.getComponentCount();
  s.inward = result.getInwardComponentCount();
  s.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return s;
}

nlohmann::ordered_json toJson(NormalsSummary const & s)
{
  nlohmann::ordered_json j;
  j["estimated"] = s.estimated;
  if (!s.estimated)
    return j;
  j["neighbours"] = s.neighbours;
  j["radius"] = s.radius;
  j["viewpoint"] = s.viewpoint.size() == 3 ? nlohmann::ordered_json(s.viewpoint) : nlohmann::ordered_json();
  j["degenerate_neighbourhoods"] = s.degenerate;
  j["duplicate_points"] = s.duplicates;
  j["components"] = s.components;
  j["inward_components"] = s.inward;
  j["seconds"] = s.seconds;
  return j;
}
} // namespace qzrecon
