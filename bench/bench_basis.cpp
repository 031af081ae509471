// The two costs that decide the assembly and the iso-value time of a
// reconstruction: a scalar product of two basis functions from a warm cache,
// and the value of a combination at a point (with and without the region
// cache). Sphere clouds of 100k samples at depths 7 to 9, centre nodes.

#include <benchmark/benchmark.h>

#include <array>
#include <cmath>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include "QZmath/VolTriang/CSFProductHelper.h"
#include "bench/common/BenchSupport.h"

namespace
{
using namespace VolTr;

struct Setup
{
  QZBench::CSampleCloud cloud;
  std::unique_ptr<COctree> tree;
  CProductPiecewisePolynom kernel, lapKernel;
  std::unique_ptr<COctreeFuncBasisTmpl<CProductPiecewisePolynom>> basis, lapBasis;
  explicit Setup(int depth) : cloud(QZBench::makeSphereCloud(100000, 1.0, 2024))
  {
    tree.reset(new COctree(&cloud, depth, nullptr, true, -1));
    kernel = makeApproxGaussian<CProductPiecewisePolynom>();
    double const s = 1.0 / 0.95;
    double const scale[3] = {s, s, s};
    kernel.scaleArgument(scale);
    kernel.makeLaplacian(&lapKernel);
    basis.reset(new COctreeFuncBasisTmpl<CProductPiecewisePolynom>(kernel, tree.get(), 0));
    lapBasis.reset(new COctreeFuncBasisTmpl<CProductPiecewisePolynom>(lapKernel, tree.get(), 2));
  }
};

Setup & setup(int depth)
{
  static std::map<int, std::unique_ptr<Setup>> all;
  auto & s = all[depth];
  if (!s)
    s.reset(new Setup(depth));
  return *s;
}

// The matrix rows of the assembly: for rows spread over the nodes, every pair
// (row, column >= row) whose supports meet, evaluated from a warm cache.
void BM_MatrixScalarProduct(benchmark::State & state)
{
  Setup & s = setup(static_cast<int>(state.range(0)));
  int const one[3] = {1, 1, 1};
  CCSFProductHelperTmpl<CProductPiecewisePolynom> helper(s.basis.get(), s.lapBasis.get(), eBasisSymmetric, 7, one);
  std::vector<std::pair<CCSFunc3Tmpl<CProductPiecewisePolynom>, CCSFunc3Tmpl<CProductPiecewisePolynom>>> pairs;
  int const n = s.basis->getFunctionsNumber();
  int rows = 0;
  for (int r = 0; r < n; r += std::max(1, n / 400), ++rows)
  {
    auto const f = s.basis->makeFunctionByIndex(r);
    for (CInterlacedSupportIteratorTmpl<CProductPiecewisePolynom> it(s.lapBasis.get(),
                                                                      getScaledFunctionCommonSupport(f));
         !it.isFinished(); it.next())
      if (it.functionIndex() >= r)
        pairs.push_back({f, *it});
  }
  double sink = 0;
  for (auto const & p : pairs) // warm the cache
    sink += helper.evalScalarProduct(p.first, p.second);
  for (auto _ : state)
  {
    for (auto const & p : pairs)
      sink += helper.evalScalarProduct(p.first, p.second);
    benchmark::DoNotOptimize(sink);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long>(pairs.size()));
  state.counters["pairs_per_row"] = static_cast<double>(pairs.size()) / rows;
  state.counters["cash_size"] = helper.cashSize();
  state.counters["cash_MiB"] = helper.cashSize() * 9.0 / QZBench::MiB;
  state.counters["nodes"] = n;
}

// The value of a combination at points along the surface, as the polygoniser
// and the iso-value ask for them: neighbouring points one after the other.
void BM_CombinationEval(benchmark::State & state)
{
  Setup & s = setup(static_cast<int>(state.range(0)));
  bool const cached = state.range(1) != 0;
  COctreeFuncLinCombTmpl<CProductPiecewisePolynom> x(s.basis.get());
  for (int i = 0; i < s.basis->getFunctionsNumber(); ++i)
    x.setBasisCoefficient(i, std::sin(0.37 * i));
  COctree const & t = *s.tree;
  double const edge = t.getCellSize(t.getLeafCellDepth() - 1);
  // Points a quarter of a polygoniser cube apart along a band of great
  // circles, as the surface walk and its bisections ask for them.
  std::vector<std::array<double, 3>> points;
  std::mt19937 rng(3);
  std::uniform_real_distribution<double> jitter(-0.25 * edge, 0.25 * edge);
  double phi = 0, theta = 0.3;
  for (int i = 0; i < 20000; ++i)
  {
    phi += 0.25 * edge;
    if (i % 400 == 399)
      theta += edge;
    points.push_back({std::sin(theta) * std::cos(phi) + jitter(rng), std::sin(theta) * std::sin(phi) + jitter(rng),
                      std::cos(theta) + jitter(rng)});
  }
  COctreeFuncEvalHelper helper(8, edge * 4.0);
  double sink = 0;
  for (auto _ : state)
  {
    for (auto const & p : points)
      sink += x.eval(p.data(), cached ? &helper : nullptr);
    benchmark::DoNotOptimize(sink);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long>(points.size()));
}
} // namespace

BENCHMARK(BM_MatrixScalarProduct)->Arg(7)->Arg(8)->Arg(9)->Unit(benchmark::kMillisecond)->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_CombinationEval)->Args({7, 0})->Args({7, 1})->Args({8, 0})->Args({8, 1})->Args({9, 1})
    ->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK_MAIN();
