// Whole reconstructions of synthetic clouds (sphere, torus, two nested spheres,
// a noisy sphere) with 100k to 1M points at octree depths 7 to 9, on one or two
// physical threads. Each case reports the seconds and the peak resident memory
// of every phase as counters; with repetitions the medians are printed.
//
// The full matrix takes hours; pick cases with a filter, for example
//   bench_reconstruction --benchmark_filter='sphere/100000/8/2'
// The benchmark name is BM_Reconstruct/<shape>/<points>/<depth>/<threads>.

#include <benchmark/benchmark.h>

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
class tf_CountingTarget : public VolTr::ITriangulationTarget
{
public:
  long long triangles = 0;

private:
  void onAddNewVertex(int, double const *, double const *) override {}
  void onAddNewVertex(int, float const *, float const *) override {}
  void onAddNewTriangle(int, int, int) override { ++triangles; }
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
  CVescaThreadingTasksHelper::setNumOfPhisicalThread(threads);
  qzrecon::CCloudSamples const samples(cloud(shape, points));
  std::map<std::string, double> seconds, peak;
  double totalPeak = 0;
  long long triangles = 0;
  for (auto _ : state)
  {
    CProgressCounter progress;
    qzrecon::CPhaseMeter meter;
    progress.AddObserver(&meter);
    VolTr::CVolTriangulationParams params;
    params.setOctreeDepth(depth);
    params.setPhaseNameShown(true);
    tf_CountingTarget target;
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
  }
  CVescaThreadingTasksHelper::setNumOfPhisicalThread(0);
  for (auto const & s : seconds)
  {
    state.counters[s.first + " s"] = s.second;
    state.counters[s.first + " MiB"] = peak[s.first];
  }
  state.counters["peak MiB"] = totalPeak;
  state.counters["triangles"] = static_cast<double>(triangles);
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
    b->ArgNames({"points", "depth", "threads"});
    for (int points : {100000, 500000, 1000000})
      for (int depth : {7, 8, 9})
        for (int threads : {1, 2})
          b->Args({points, depth, threads});
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
