#pragma once
// Normals for a cloud read without them (or with normals not to trust): the
// command-line options that set the estimation, the run on a cloud, and its
// summary. Shared by qzrecon and qznormals.

#include <array>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "CloudIO.h"
#include "QZmath/SurfaceAnalysis/NormalEstimation.h"
#include "QZsys/Progress.h"

namespace qzrecon
{
/// What the options say.
struct NormalOptions
{
  int neighbours = 20;
  double radius = 0.0;
  std::vector<double> viewpoint; // empty, or x y z
  REmath::CNormalEstimationParams params() const;
};

/// Adds --neighbours K, --radius R and --viewpoint X,Y,Z to a command line.
void addNormalOptions(CLI::App & app, NormalOptions & options);

/// What the estimation did.
struct NormalsSummary
{
  bool estimated = false;
  int neighbours = 0;
  double radius = 0.0;
  std::vector<double> viewpoint;
  int degenerate = 0;  // neighbourhoods that spanned no plane
  int duplicates = 0;  // points with a copy at the same position
  int components = 0;  // of the neighbour graph
  int inward = 0;      // components seeded inward (cavities)
  double seconds = 0.0;
};

/// Estimates and orients the normals of `cloud` in place (its old normals,
/// if any, are replaced). Throws REmath::CNormalEstimationError for a cloud
/// that cannot have normals, CUserIntrException on interruption.
NormalsSummary estimateNormals(OrientedCloud & cloud, NormalOptions const & options, CProgressCounter * progress);

/// {"estimated": false} or the whole summary.
nlohmann::ordered_json toJson(NormalsSummary const & summary);
} // namespace qzrecon
