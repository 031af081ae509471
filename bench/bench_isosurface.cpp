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

#include <algorithm>
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

// Bisection points as the polygoniser asks for them: edges of its lattice
// (start at the origin, cube edge of the finest node spacing) in the seven
// directions of its tetrahedra around samples, ten midpoints each.
struct tf_Edges
{
  double size = 0.0;
  int bound = 0;
  std::vector<int> from, to;       // three lattice indices per edge
  std::vector<double> p1, p2;      // and their points
  std::vector<double> value1;      // X - level at the first end
};

tf_Edges const & edges()
{
  static tf_Edges const e = [] {
    tf_Fixture const & f = fixture();
    tf_Edges r;
    r.size = f.tree->getCellSize(tf_Fixture::DEPTH - 1);
    r.bound = static_cast<int>(2.0 / r.size) + 2;
    int const directions[7][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {1, 1, 0}, {0, 1, 1}, {1, 0, 1}, {1, 1, 1}};
    // Samples in the order of blocks of four edges, as a walk meets them.
    std::vector<int> order;
    for (int i = 0; i < f.cloud.pointsNumber(); i += 5)
      order.push_back(i);
    auto key = [&](int i, int a) { return std::floor(f.cloud.getSampleCoords3(i)[a] / (4.0 * r.size)); };
    std::sort(order.begin(), order.end(), [&](int i, int j) {
      for (int a = 0; a < 3; ++a)
        if (key(i, a) != key(j, a))
          return key(i, a) < key(j, a);
      return i < j;
    });
    for (int i : order)
    {
      if (r.from.size() >= 3 * 20000)
        break;
      float const * s = f.cloud.getSampleCoords3(i);
      for (auto const & d : directions)
      {
        double q1[3];
        for (int a = 0; a < 3; ++a)
        {
          int const from = static_cast<int>(std::floor(-s[a] / r.size + 0.5));
          r.from.push_back(from);
          r.to.push_back(from + d[a]);
          q1[a] = 0.0 - (from - 0.5) * r.size;
          r.p1.push_back(q1[a]);
          r.p2.push_back(0.0 - (from + d[a] - 0.5) * r.size);
        }
        r.value1.push_back(f.x->eval(q1, nullptr) - f.isoValue);
      }
    }
    return r;
  }();
  return e;
}

void BM_Evaluation(benchmark::State & state)
{
  tf_Fixture const & f = fixture();
  tf_Edges const & e = edges();
  std::size_t const n = e.from.size() / 3;
  int const kind = static_cast<int>(state.range(0));
  double sum = 0.0;
  // One evaluator for all iterations, as the polygoniser keeps one per
  // thread: its tables and blocks are made once.
  COctreeFuncEvalHelper helper(8, 4.0 * e.size);
  COctreeFuncBlockEvaluator fast(*f.x, 8.0 * e.size);
  double const origin[3] = {0.0, 0.0, 0.0};
  fast.setLattice(origin, e.size, e.bound);
  for (auto _ : state)
  {
    for (std::size_t i = 0; i < n; ++i)
    {
      double const * p1 = &e.p1[3 * i];
      double const * p2 = &e.p2[3 * i];
      if (kind == 3)
      {
        double end[3];
        fast.convergeOnLatticeEdge(&e.from[3 * i], &e.to[3 * i], e.value1[i], f.isoValue, end);
        sum += end[0];
        continue;
      }
      for (int k = 1; k <= 10; ++k)
      {
        double q[3];
        double const t = (2 * k - 1) / 20.0;
        for (int a = 0; a < 3; ++a)
          q[a] = p1[a] + t * (p2[a] - p1[a]);
        double bound;
        sum += kind == 0 ? f.x->eval(q, &helper) : kind == 1 ? fast.eval(q) : fast.evalWithBound(q, &bound);
      }
    }
  }
  benchmark::DoNotOptimize(sum);
  state.counters["ns per evaluation"] = benchmark::Counter(static_cast<double>(n) * 10 * state.iterations() * 1e-9,
                                                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  char const * labels[] = {"combination's eval", "block evaluator, exact", "block evaluator, bounded",
                           "whole bisections on the lattice, per midpoint"};
  state.SetLabel(labels[kind]);
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
  params.setVertexInterpolation(static_cast<int>(state.range(2)));
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

BENCHMARK(BM_Evaluation)->ArgName("kind")->DenseRange(0, 3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IsoValue)
    ->ArgNames({"fast", "threads"})
    ->Args({0, 1})
    ->Args({0, 2})
    ->Args({1, 1})
    ->Args({1, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_IsoSurface)
    ->ArgNames({"fast", "threads", "parts"})
    ->Args({1, 1, 0})
    ->Args({1, 2, 0})
    ->Args({1, 1, 2})
    ->Args({1, 2, 2})
    ->Args({1, 1, 3})
    ->Args({1, 2, 3})
    ->Args({0, 1, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(1);

BENCHMARK_MAIN();
