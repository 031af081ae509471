// The last two stages of a reconstruction, alone: the iso-value and the
// iso-surface of a 100k-point unit sphere at depth 9, with the combination's
// own evaluation ("specified") against the block evaluator with batched
// bisections ("fast"), on one or two physical threads; and the cost of one
// evaluation of the implicit function by each evaluator.
//
// The function is synthetic: a solve at depth 9 takes far longer than what is
// measured here. Every node of the depth-9 tree of the cloud gets the
// coefficient h^3 (|c| - 1) (h its cell, c its centre), which makes each
// depth's part a smooth function that is negative inside the unit sphere and
// positive outside, with every coefficient non-zero, as after a solve.
//
//   bench_isosurface --benchmark_filter='IsoSurface/fast' --benchmark_repetitions=3

#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "QZmath/VolTriang/LevelSetExtraction.h"
#include "QZmath/VolTriang/OctreeFuncBlockEval.h"
#include "QZsys/Threading.h"
#include "tests/Common/SampleClouds.h"

namespace
{
using namespace VolTr;

class tf_CountingTarget : public ITriangulationTarget
{
public:
  long long vertices = 0;
  long long triangles = 0;

private:
  void onAddNewVertex(int, double const *, double const *) override { ++vertices; }
  void onAddNewVertex(int, float const *, float const *) override { ++vertices; }
  void onAddNewTriangle(int, int, int) override { ++triangles; }
};

struct tf_Fixture
{
  static constexpr int DEPTH = 9;
  QZTest::CSampleCloud cloud;
  std::unique_ptr<COctree> tree;
  CProductPiecewisePolynom kernel;
  std::unique_ptr<CLevelSetExtraction::Basis> basis;
  std::unique_ptr<CLevelSetExtraction::LinComb> x;
  double isoValue = 0.0;

  tf_Fixture()
      : cloud(QZTest::makeSphereCloud(100000, 1.0, 2024)),
        kernel(makeApproxGaussian<CProductPiecewisePolynom>())
  {
    tree.reset(new COctree(&cloud, DEPTH, nullptr, true, -1));
    double const s = 1.0 / 0.95;
    double const scale[3] = {s, s, s};
    kernel.scaleArgument(scale);
    basis.reset(new CLevelSetExtraction::Basis(kernel, tree.get(), 0));
    x.reset(new CLevelSetExtraction::LinComb(basis.get()));
    for (int n = 0; n < basis->getFunctionsNumber(); ++n)
    {
      double c[3];
      tree->getNodePosition(n, c);
      double const h = tree->getCellSize(tree->getNodeDepth(n));
      x->setBasisCoefficient(n, h * h * h * (std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]) - 1.0));
    }
    isoValue = CLevelSetExtraction::meanValueAtSamples(*x, &cloud, nullptr, nullptr);
  }
};

tf_Fixture const & fixture()
{
  static tf_Fixture const f;
  return f;
}

// Points as the polygoniser asks for them: runs of neighbours around samples.
std::vector<double> nearbyPoints()
{
  tf_Fixture const & f = fixture();
  double const cell = f.tree->getUnit();
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> sample(0, f.cloud.pointsNumber() - 1);
  std::uniform_real_distribution<double> u(-2.0 * cell, 2.0 * cell);
  std::vector<double> p;
  for (int run = 0; run < 500; ++run)
  {
    float const * s = f.cloud.getSampleCoords3(sample(rng));
    for (int i = 0; i < 20; ++i)
      for (int a = 0; a < 3; ++a)
        p.push_back(s[a] + u(rng));
  }
  return p;
}

void BM_Evaluation(benchmark::State & state)
{
  tf_Fixture const & f = fixture();
  std::vector<double> const p = nearbyPoints();
  std::size_t const n = p.size() / 3;
  int const kind = static_cast<int>(state.range(0));
  double sum = 0.0;
  for (auto _ : state)
  {
    COctreeFuncEvalHelper helper(8, 4.0 * f.tree->getCellSize(tf_Fixture::DEPTH - 1));
    COctreeFuncBlockEvaluator fast(*f.x, 4.0 * f.tree->getCellSize(tf_Fixture::DEPTH - 1));
    for (std::size_t i = 0; i < n; ++i)
    {
      double bound;
      double const * q = &p[3 * i];
      sum += kind == 0 ? f.x->eval(q, &helper) : kind == 1 ? fast.eval(q) : fast.evalWithBound(q, &bound);
    }
  }
  benchmark::DoNotOptimize(sum);
  state.counters["ns per evaluation"] =
      benchmark::Counter(static_cast<double>(n) * state.iterations() * 1e-9,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.SetLabel(kind == 0   ? "combination's eval"
                 : kind == 1 ? "block evaluator"
                             : "block evaluator, bounded");
}

void BM_IsoValue(benchmark::State & state)
{
  tf_Fixture const & f = fixture();
  auto const mode = static_cast<CLevelSetExtraction::EEvaluation>(state.range(0));
  CVescaThreadingTasksHelper::setNumOfPhisicalThread(static_cast<int>(state.range(1)));
  double iso = 0.0;
  for (auto _ : state)
    iso = CLevelSetExtraction::meanValueAtSamples(*f.x, &f.cloud, nullptr, nullptr, mode);
  CVescaThreadingTasksHelper::setNumOfPhisicalThread(0);
  state.counters["iso-value"] = iso;
  state.counters["same as fixture"] = iso == f.isoValue ? 1 : 0;
}

void BM_IsoSurface(benchmark::State & state)
{
  tf_Fixture const & f = fixture();
  auto const mode = static_cast<CLevelSetExtraction::EEvaluation>(state.range(0));
  CVescaThreadingTasksHelper::setNumOfPhisicalThread(static_cast<int>(state.range(1)));
  CVolTriangulationParams params;
  params.setOctreeDepth(tf_Fixture::DEPTH);
  tf_CountingTarget target;
  for (auto _ : state)
  {
    target = tf_CountingTarget();
    CLevelSetExtraction::polygonise(*f.x, f.isoValue, nullptr, &f.cloud, params, &target, nullptr, nullptr,
                                    mode);
  }
  CVescaThreadingTasksHelper::setNumOfPhisicalThread(0);
  state.counters["vertices"] = static_cast<double>(target.vertices);
  state.counters["triangles"] = static_cast<double>(target.triangles);
}
} // namespace

BENCHMARK(BM_Evaluation)->ArgName("kind")->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IsoValue)
    ->ArgNames({"fast", "threads"})
    ->Args({0, 1})
    ->Args({0, 2})
    ->Args({1, 1})
    ->Args({1, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_IsoSurface)
    ->ArgNames({"fast", "threads"})
    ->Args({1, 1})
    ->Args({1, 2})
    ->Args({0, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);

BENCHMARK_MAIN();
