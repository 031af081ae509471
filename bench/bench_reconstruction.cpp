// Whole reconstructions of synthetic clouds (sphere, torus, two nested spheres,
// a noisy sphere) with 100k to 1M points at octree depths 7 to 10, on one or
// two physical threads, with the specified parameters (mode 0: the classic
// solver choice, nothing extended) or the recommended ones (mode 1: the
// multilevel solve, screening, the coarser splat). Each case reports the
// seconds and the peak resident memory of every phase, and the mesh's mean
// distance to the true surface and its Euler characteristic (V - F / 2 for a
// closed mesh) as counters; with repetitions the medians are printed.
//
// The full matrix takes hours; pick cases with a filter, for example
//   bench_reconstruction --benchmark_filter='sphere/points:100000/depth:9/threads:2/mode:1'
// The benchmark name is BM_Reconstruct/<shape>/points/depth/threads/mode.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "CloudSamples.h"
#include "PhaseMeter.h"
#include "QZmath/VolTriang/VolumetricTriangulator.h"
#include "QZsys/Progress.h"
#include "QZsys/Threading.h"
#include "ShapeCloud.h"

namespace
{
// Keeps the vertices' distances to the true surface, and counts.
class tf_CountingTarget : public VolTr::ITriangulationTarget
{
public:
  explicit tf_CountingTarget(qzrecon::Shape shape) : m_shape(shape) {}
  long long vertices = 0;
  long long triangles = 0;
  double distanceSum = 0.0;

private:
  double distance(double const * p) const
  {
    double const r = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
    switch (m_shape)
    {
    case qzrecon::Shape::Torus:
    {
      double const q = std::sqrt(p[0] * p[0] + p[1] * p[1]) - 1.0;
      return std::fabs(std::sqrt(q * q + p[2] * p[2]) - 0.35);
    }
    case qzrecon::Shape::NestedSpheres:
      return std::min(std::fabs(r - 1.0), std::fabs(r - 0.5));
    default:
      return std::fabs(r - 1.0);
    }
  }
  void onAddNewVertex(int, double const * p, double const *) override
  {
    ++vertices;
    distanceSum += distance(p);
  }
  void onAddNewVertex(int, float const * p, float const *) override
  {
    double const d[3] = {p[0], p[1], p[2]};
    ++vertices;
    distanceSum += distance(d);
  }
  void onAddNewTriangle(int, int, int) override { ++triangles; }
  qzrecon::Shape m_shape;
};

qzrecon::OrientedCloud const & cloud(qzrecon::Shape shape, int points)
{
  static std::map<std::pair<int, int>, std::unique_ptr<qzrecon::OrientedCloud>> clouds;
  auto & c = clouds[{static_cast<int>(shape), points}];
  if (!c)
    c.reset(new qzrecon::OrientedCloud(qzrecon::makeShapeCloud(shape, static_cast<std::size_t>(points), 2024)));
  return *c;
}

void BM_Reconstruct(benchmark::State & state, qzrecon::Shape shape)
{
  int const points = static_cast<int>(state.range(0));
  int const depth = static_cast<int>(state.range(1));
  int const threads = static_cast<int>(state.range(2));
  bool const recommended = state.range(3) != 0;
  CVescaThreadingTasksHelper::setNumOfPhisicalThread(threads);
  qzrecon::CCloudSamples const samples(cloud(shape, points));
  std::map<std::string, double> seconds, peak;
  double totalPeak = 0;
  long long triangles = 0, vertices = 0;
  double meanDistance = 0.0;
  for (auto _ : state)
  {
    CProgressCounter progress;
    qzrecon::CPhaseMeter meter;
    progress.AddObserver(&meter);
    VolTr::CVolTriangulationParams params =
        recommended ? VolTr::CVolTriangulationParams::makeRecommended(depth) : VolTr::CVolTriangulationParams();
    params.setOctreeDepth(depth);
    params.setPhaseNameShown(true);
    tf_CountingTarget target(shape);
    VolTr::CVolumetricTriangulator triangulator(&target, &samples, &params, &progress);
    triangulator.run();
    meter.finish();
    for (auto const & p : meter.phases())
    {
      seconds[p.name] = p.seconds;
      peak[p.name] = p.peakMiB;
    }
    totalPeak = meter.totalPeakMiB();
    triangles = target.triangles;
    vertices = target.vertices;
    meanDistance = vertices > 0 ? target.distanceSum / static_cast<double>(vertices) : 0.0;
  }
  CVescaThreadingTasksHelper::setNumOfPhisicalThread(0);
  for (auto const & s : seconds)
  {
    state.counters[s.first + " s"] = s.second;
    state.counters[s.first + " MiB"] = peak[s.first];
  }
  state.counters["peak MiB"] = totalPeak;
  state.counters["triangles"] = static_cast<double>(triangles);
  state.counters["mean distance"] = meanDistance;
  state.counters["euler"] = static_cast<double>(vertices) - static_cast<double>(triangles) / 2.0;
}

void registerAll()
{
  std::vector<std::pair<char const *, qzrecon::Shape>> const shapes = {{"sphere", qzrecon::Shape::Sphere},
                                                                       {"torus", qzrecon::Shape::Torus},
                                                                       {"nested", qzrecon::Shape::NestedSpheres},
                                                                       {"noisy", qzrecon::Shape::NoisySphere}};
  for (auto const & s : shapes)
  {
    auto * b = benchmark::RegisterBenchmark((std::string("BM_Reconstruct/") + s.first).c_str(), BM_Reconstruct,
                                            s.second);
    b->ArgNames({"points", "depth", "threads", "mode"});
    for (int points : {100000, 500000, 1000000})
      for (int depth : {7, 8, 9, 10})
        for (int threads : {1, 2})
          for (int mode : {0, 1})
            b->Args({points, depth, threads, mode});
    b->Unit(benchmark::kSecond)->Iterations(1)->Repetitions(3)->ReportAggregatesOnly(true)->UseRealTime();
  }
}
} // namespace

int main(int argc, char ** argv)
{
  registerAll();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
