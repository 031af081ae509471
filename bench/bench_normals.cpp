// Normals for clouds without them: neighbours, normals and orientation of
// synthetic clouds (sphere, torus, two nested spheres) with 0.5 % Gaussian
// position noise on every coordinate, on one or two physical threads, with
// noise-dominated neighbourhoods widened (the default) or not. Each case
// reports the seconds of every step, and as "correct %" the share of points
// whose oriented normal agrees in sign with the true one (the inner sphere
// of the nested pair faces its cavity), and how many points were widened.
//
// The benchmark name is BM_Normals/<shape>/<points>/<k>/<threads>/<widen>;
// pick cases with a filter, for example
//   bench_normals --benchmark_filter='sphere/points:1000000/k:30/threads:2/'

#include <benchmark/benchmark.h>

#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "PhaseMeter.h"
#include "QZmath/SurfaceAnalysis/NormalEstimation.h"
#include "QZsys/Progress.h"
#include "QZsys/Threading.h"
#include "ShapeCloud.h"

namespace
{
// The shape's cloud with noise of 0.005 (half a percent of the unit size)
// per coordinate; the true normals stay.
qzrecon::OrientedCloud const & noisyCloud(qzrecon::Shape shape, int points)
{
  static std::map<std::pair<int, int>, std::unique_ptr<qzrecon::OrientedCloud>> clouds;
  auto & c = clouds[{static_cast<int>(shape), points}];
  if (!c)
  {
    c.reset(new qzrecon::OrientedCloud(qzrecon::makeShapeCloud(shape, static_cast<std::size_t>(points), 2024)));
    std::uint64_t state = 88172645463325252ull;
    auto uniform = [&state]() {
      state ^= state << 13, state ^= state >> 7, state ^= state << 17;
      return static_cast<double>(state >> 11) * (1.0 / 9007199254740992.0);
    };
    for (float & v : c->points)
    {
      double const u = 1.0 - uniform(), w = uniform();
      v += static_cast<float>(0.005 * std::sqrt(-2.0 * std::log(u)) * std::cos(6.283185307179586 * w));
    }
  }
  return *c;
}

void BM_Normals(benchmark::State & state, qzrecon::Shape shape)
{
  int const points = static_cast<int>(state.range(0));
  int const k = static_cast<int>(state.range(1));
  int const threads = static_cast<int>(state.range(2));
  bool const widen = state.range(3) != 0;
  qzrecon::OrientedCloud const & cloud = noisyCloud(shape, points);
  CVescaThreadingTasksHelper::setNumOfPhisicalThread(threads);
  REmath::CNormalEstimationParams params;
  params.setNeighbours(k);
  params.setPhaseNameShown(true);
  if (!widen)
    params.setNoiseRatio(1.0);
  std::map<std::string, double> seconds;
  REmath::CEstimatedNormals result;
  for (auto _ : state)
  {
    CProgressCounter progress;
    qzrecon::CPhaseMeter meter;
    progress.AddObserver(&meter);
    REmath::CNormalEstimator(params).run(cloud.points.data(), points, result, &progress);
    meter.finish();
    for (auto const & p : meter.phases())
      seconds[p.name] = p.seconds;
  }
  CVescaThreadingTasksHelper::setNumOfPhisicalThread(0);
  int correct = 0;
  for (int i = 0; i < points; ++i)
  {
    float const * a = result.getNormal(i);
    float const * b = &cloud.normals[3 * static_cast<std::size_t>(i)];
    correct += a[0] * b[0] + a[1] * b[1] + a[2] * b[2] > 0.0f ? 1 : 0;
  }
  for (auto const & s : seconds)
    state.counters[s.first + " s"] = s.second;
  state.counters["correct %"] = 100.0 * correct / points;
  state.counters["degenerate"] = result.getDegenerateCount();
  state.counters["widened"] = result.getWidenedCount();
  state.counters["components"] = result.getComponentCount();
}

void registerAll()
{
  struct Case
  {
    char const * name;
    qzrecon::Shape shape;
    std::vector<std::vector<std::int64_t>> args; // points, k, threads (each widened and not)
  };
  std::vector<Case> const cases = {
      {"sphere", qzrecon::Shape::Sphere, {{1000000, 30, 1}, {1000000, 30, 2}, {500000, 30, 2}, {200000, 20, 2}}},
      {"torus", qzrecon::Shape::Torus, {{1000000, 30, 2}, {200000, 20, 2}}},
      {"nested", qzrecon::Shape::NestedSpheres, {{1000000, 30, 2}, {200000, 20, 2}}},
  };
  for (Case const & c : cases)
  {
    auto * b = benchmark::RegisterBenchmark((std::string("BM_Normals/") + c.name).c_str(), BM_Normals, c.shape);
    b->ArgNames({"points", "k", "threads", "widen"});
    for (auto const & a : c.args)
      for (std::int64_t widen : {1, 0})
        b->Args({a[0], a[1], a[2], widen});
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
