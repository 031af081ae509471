// qzrecon: reconstructs a watertight triangle mesh from a point cloud; a cloud
// without normals gets them estimated and oriented first.
//
//   qzrecon [options] INPUT OUTPUT.ply
//
// Exit status: 0 on success, 1 when the reconstruction fails, 2 for bad usage,
// an unreadable input, a cloud that cannot have normals or an unwritable
// output (found before any work).

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <malloc.h>
#include <memory>
#include <mutex>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "CloudIO.h"
#include "CloudNormals.h"
#include "CloudSamples.h"
#include "PhaseMeter.h"
#include "QZmath/QZmath.h"

namespace
{
char const * const kVersion = "qzrecon 0.1.0";

class tf_MeshTarget : public VolTr::ITriangulationTarget
{
public:
  explicit tf_MeshTarget(qzrecon::MeshData & m) : m_mesh(m) {}

private:
  void onAddNewVertex(int, double const * p, double const * n) override
  {
    for (int k = 0; k < 3; ++k)
    {
      m_mesh.vertices.push_back(static_cast<float>(p[k]));
      m_mesh.normals.push_back(static_cast<float>(n[k]));
    }
  }
  void onAddNewVertex(int, float const * p, float const * n) override
  {
    m_mesh.vertices.insert(m_mesh.vertices.end(), p, p + 3);
    m_mesh.normals.insert(m_mesh.normals.end(), n, n + 3);
  }
  void onAddNewTriangle(int a, int b, int c) override
  {
    m_mesh.triangles.push_back(a);
    m_mesh.triangles.push_back(b);
    m_mesh.triangles.push_back(c);
  }
  qzrecon::MeshData & m_mesh;
};

// Passes lines on to the user's log, if any, and keeps the iso-value line.
class tf_TeeLog : public VsUt::IDebugLog
{
public:
  explicit tf_TeeLog(VsUt::IDebugLog * next) : m_next(next) {}
  bool hasIsoValue() const { return m_haveIso; }
  double isoValue() const { return m_iso; }

private:
  void onGetMessage(char const * line) override
  {
    static char const kIso[] = "Surface iso-value: ";
    if (std::strncmp(line, kIso, sizeof kIso - 1) == 0)
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_iso = std::atof(line + sizeof kIso - 1);
      m_haveIso = true;
    }
    if (m_next)
      m_next->getMessage(line);
  }
  VsUt::IDebugLog * m_next;
  std::mutex m_mutex;
  bool m_haveIso = false;
  double m_iso = 0;
};

int solverCode(std::string const & s)
{
  if (s == "auto")
    return 0;
  if (s == "direct")
    return 1;
  if (s == "iterative")
    return 3;
  if (s == "decomposing")
    return 4;
  return 0; // multilevel: the solver code is not used
}
} // namespace

// A run touches a few hundred megabytes, and the first touch of each 4 KiB
// page is a fault of microseconds (ten or more on virtual machines): a
// fifth of a run. The tool's heap therefore
// - keeps what a phase frees for the next phase instead of returning it to
//   the system and faulting it in again;
// - is one heap for all threads, reserved up front (address space only) and
//   advised to the system for transparent huge pages, where the system
//   leaves them to advice: one fault per 2 MiB.
// The peak stays within a few megabytes. A library must leave its host's
// allocator alone; the tool owns its process.
namespace
{
void tf_tuneHeap()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return; // the sanitizers' allocators ignore the options and would poison the whole reservation
#endif
  mallopt(M_MMAP_MAX, 0);
  mallopt(M_TRIM_THRESHOLD, 0x7fffffff);
  mallopt(M_ARENA_MAX, 1);
  // Below the trim threshold, so that the reservation stays after the free.
  if (void * p = std::malloc(std::size_t(1900) << 20))
    std::free(p);
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line))
    if (line.find("[heap]") != std::string::npos)
    {
      unsigned long low = 0, high = 0;
      if (std::sscanf(line.c_str(), "%lx-%lx", &low, &high) == 2 && high > low)
        madvise(reinterpret_cast<void *>(low), high - low, MADV_HUGEPAGE); // advice: failure changes nothing
    }
}
} // namespace

int main(int argc, char ** argv)
{
  tf_tuneHeap();
  CLI::App app("Reconstructs a watertight triangle mesh from an oriented point cloud.\n"
               "INPUT: PLY (ascii or binary, vertex x y z [nx ny nz]) or text with x y z [nx ny nz] per line;\n"
               "a cloud without normals gets them estimated and oriented first.\n"
               "OUTPUT: binary little-endian PLY.");
  std::string input, output, solver = "multilevel", logPath, jsonPath;
  int depth = 8, detail = -1;
  float subdivision = 1.0f, kernelScale = 0.95f;
  // The tool's defaults are the library's recommended parameters.
  VolTr::CVolTriangulationParams const recommended = VolTr::CVolTriangulationParams::makeRecommended(8);
  double screening = recommended.getScreeningWeight(), splatSamples = recommended.getSplatSamplesPerCell();
  bool screeningFixed = false;
  int vertexParts = recommended.getVertexInterpolation();
  bool noDensity = false, open = false, normals = false, corner = false, quiet = false;
  app.set_version_flag("--version", kVersion);
  app.add_option("INPUT", input, "oriented point cloud")->required();
  app.add_option("OUTPUT", output, "output mesh (.ply)")->required();
  app.add_option("--depth", depth, "octree depth")->capture_default_str()->check(CLI::Range(1, 16));
  app.add_option("--solver", solver,
                 "multilevel (by depths, no stored matrix), or the classic auto, direct, iterative, decomposing")
      ->capture_default_str()
      ->check(CLI::IsMember({"multilevel", "auto", "direct", "iterative", "decomposing"}));
  app.add_option("--screening", screening,
                 "multilevel only: pull of the level set toward the samples (0: none), lowered for noisy clouds")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1e6));
  app.add_flag("--screening-fixed", screeningFixed, "keep the screening weight as given, even for noisy clouds");
  app.add_option("--splat-samples", splatSamples,
                 "splat normals on the deepest depth with this many samples per cell (0: always the deepest)")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1e6));
  app.add_option(
         "--vertex-parts", vertexParts,
         "vertices at the zero of X interpolated through this many parts of their edge (0: bisection)")
      ->capture_default_str()
      ->check(CLI::IsMember({0, 2, 3, 4, 5, 6, 7, 8}));
  app.add_flag("--no-density", noDensity, "no density estimation: every sample weighs the same");
  app.add_flag("--open", open, "the surface is open: stop far from the samples");
  app.add_flag("--normals", normals, "vertex normals from the gradient of the implicit function");
  app.add_option("--subdivision", subdivision, "polygoniser cubes per finest octree cell (reconstruct factor)")
      ->capture_default_str()
      ->check(CLI::Range(0.01f, 64.0f));
  app.add_option("--kernel-scale", kernelScale, "kernel width factor")->capture_default_str();
  app.add_option("--detail", detail, "depths above the deepest that carry nodes (negative: all)")->capture_default_str();
  app.add_flag("--corner", corner, "nodes on cell corners instead of cell centres");
  app.add_option("--log", logPath, "debug log file, '-' for standard error");
  app.add_flag("--quiet", quiet, "no progress bar");
  app.add_option("--json", jsonPath, "summary as JSON to a file, '-' for standard output");
  bool estimate = false;
  qzrecon::NormalOptions normalOptions;
  app.add_flag("--estimate-normals", estimate, "estimate and orient normals even when the input has them");
  qzrecon::addNormalOptions(app, normalOptions);
  try
  {
    app.parse(argc, argv);
  }
  catch (CLI::ParseError const & e)
  {
    int const rc = app.exit(e);
    return rc == 0 ? 0 : 2;
  }

  // An output that cannot be written is found now, not after the work.
  try
  {
    qzrecon::checkWritable(output);
    if (!jsonPath.empty() && jsonPath != "-")
      qzrecon::checkWritable(jsonPath);
  }
  catch (std::exception const & e)
  {
    std::fprintf(stderr, "qzrecon: %s\n", e.what());
    return 2;
  }

  qzrecon::OrientedCloud cloud;
  try
  {
    cloud = qzrecon::readCloud(input);
  }
  catch (qzrecon::CloudReadError const & e)
  {
    std::fprintf(stderr, "qzrecon: %s\n", e.what());
    return 2;
  }
  catch (std::exception const & e)
  {
    std::fprintf(stderr, "qzrecon: %s: %s\n", input.c_str(), e.what());
    return 2;
  }

  std::unique_ptr<VsUt::IDebugLog> userLog;
  if (logPath == "-")
    userLog.reset(new VsUt::CStreamDebugLog(std::cerr));
  else if (!logPath.empty())
  {
    auto * f = new VsUt::CFileDebugLog(logPath);
    userLog.reset(f);
    if (!f->isOpen())
    {
      std::fprintf(stderr, "qzrecon: %s: cannot write the log file\n", logPath.c_str());
      return 2;
    }
  }
  tf_TeeLog log(userLog.get());

  VolTr::CVolTriangulationParams params = VolTr::CVolTriangulationParams::makeRecommended(depth);
  params.setPrefferedSolver(solverCode(solver));
  params.setMultilevelSolver(solver == "multilevel");
  params.setScreeningWeight(solver == "multilevel" ? screening : 0.0);
  params.setScreeningAdaptive(!screeningFixed);
  params.setSplatSamplesPerCell(splatSamples);
  params.setVertexInterpolation(vertexParts);
  params.setVariableDensity(!noDensity);
  params.setClosed(!open);
  params.setEstimateResultNormals(normals);
  params.setReconstructFactor(subdivision);
  params.setKernelScaleFactor(kernelScale);
  params.setDetalizationLevel(detail);
  params.setUseCenter(!corner);
  params.setPhaseNameShown(true);
  params.setDebugLog(&log);

  CProgressCounter progress;
  qzrecon::CPhaseMeter meter;
  progress.AddObserver(&meter);
  std::unique_ptr<CConsoleProgressBar> bar;
  if (!quiet && isatty(fileno(stderr)))
  {
    bar.reset(new CConsoleProgressBar(stderr, 40, 100));
    progress.AddObserver(bar.get());
  }

  // Normals first where the cloud has none (or they are not to be trusted):
  // a quarter of the bar.
  qzrecon::NormalsSummary normalsSummary;
  bool const estimating = estimate || !cloud.hasNormals();
  if (estimating)
  {
    if (!quiet)
      std::fprintf(stderr, "qzrecon: estimating normals from %d neighbours per point\n", normalOptions.neighbours);
    try
    {
      CPrgCntSubPhase normalsPhase(&progress, 0.0, 0.25);
      normalsSummary = qzrecon::estimateNormals(cloud, normalOptions, &progress);
    }
    catch (std::exception const & e)
    {
      if (bar)
        bar->finish();
      std::fprintf(stderr, "qzrecon: %s: %s\n", input.c_str(), e.what());
      return 2;
    }
  }

  qzrecon::MeshData mesh;
  {
    // Room for the triangles of a closed surface as large as the box's
    // (a surface crosses fewer cubes): only the pages written become
    // memory, and the arrays are never copied to larger ones as they fill.
    std::size_t const faces = 2 * static_cast<std::size_t>(std::max(params.estimateTrianglesNumber(), 0));
    if (faces <= (std::size_t(1) << 26))
      try
      {
        mesh.triangles.reserve(3 * faces);
        mesh.vertices.reserve(3 * faces / 2);
        mesh.normals.reserve(3 * faces / 2);
      }
      catch (std::bad_alloc const &)
      {
        // no room reserved: the arrays grow as they fill
      }
  }
  qzrecon::CCloudSamples samples(cloud);
  tf_MeshTarget target(mesh);
  try
  {
    CPrgCntSubPhase reconstruction(&progress, estimating ? 0.25 : 0.0, estimating ? 0.75 : 1.0);
    VolTr::CVolumetricTriangulator triangulator(&target, &samples, &params, &progress);
    triangulator.run();
  }
  catch (std::bad_alloc const &)
  {
    if (bar)
      bar->finish();
    std::fprintf(stderr, "qzrecon: reconstruction failed: out of memory\n");
    return 1;
  }
  catch (std::exception const & e)
  {
    if (bar)
      bar->finish();
    std::fprintf(stderr, "qzrecon: reconstruction failed: %s\n", e.what());
    return 1;
  }
  meter.finish();
  if (bar)
    bar->finish();

  try
  {
    qzrecon::writePly(output, mesh, normals);
  }
  catch (std::exception const & e)
  {
    std::fprintf(stderr, "qzrecon: %s\n", e.what());
    return 1;
  }

  std::printf("qzrecon: %zu points -> %zu vertices, %zu triangles; iso-value %.9g; %.2f s, peak %.0f MiB\n",
              cloud.size(), mesh.vertexCount(), mesh.triangleCount(), log.isoValue(), meter.totalSeconds(),
              meter.totalPeakMiB());
  if (!quiet)
  {
    if (estimating)
      std::printf("  normals estimated from %d neighbours: %d degenerate neighbourhoods, %d components, %d inward\n",
                  normalsSummary.neighbours, normalsSummary.degenerate, normalsSummary.components,
                  normalsSummary.inward);
    std::printf("  %-20s %9s %10s\n", "phase", "seconds", "peak MiB");
    for (auto const & p : meter.phases())
      std::printf("  %-20s %9.3f %10.1f\n", p.name.c_str(), p.seconds, p.peakMiB);
    std::printf("  mesh written to %s\n", output.c_str());
  }

  if (!jsonPath.empty())
  {
    nlohmann::ordered_json j;
    j["input"] = input;
    j["output"] = output;
    j["input_points"] = cloud.size();
    j["output_vertices"] = mesh.vertexCount();
    j["output_triangles"] = mesh.triangleCount();
    j["iso_value"] = log.isoValue();
    j["depth"] = depth;
    j["solver"] = solver;
    j["seconds"] = meter.totalSeconds();
    j["peak_memory_mib"] = meter.totalPeakMiB();
    nlohmann::ordered_json phases = nlohmann::ordered_json::array();
    for (auto const & p : meter.phases())
      phases.push_back({{"name", p.name}, {"seconds", p.seconds}, {"peak_memory_mib", p.peakMiB}});
    j["phases"] = phases;
    j["normals"] = qzrecon::toJson(normalsSummary);
    std::string const text = j.dump(2) + "\n";
    if (jsonPath == "-")
      std::fputs(text.c_str(), stdout);
    else
    {
      std::ofstream out(jsonPath);
      out << text;
      if (!out)
      {
        std::fprintf(stderr, "qzrecon: %s: cannot write the summary\n", jsonPath.c_str());
        return 1;
      }
    }
  }
  return 0;
}
