// Octree build and box queries on sphere clouds of 100k and 1M samples, at
// depths 8 and 10 (centre nodes, all depths carry nodes, as the pipeline's
// defaults). Prints medians; the build also reports the peak resident size of
// the process during the build and the part the tree added to it.

#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "QZmath/VolTriang/Octree.h"
#include "bench/common/BenchSupport.h"

namespace
{
using QZBench::CSampleCloud;

CSampleCloud const & sphere(int n)
{
  static std::map<int, std::unique_ptr<CSampleCloud>> clouds;
  auto & c = clouds[n];
  if (!c)
    c.reset(new CSampleCloud(QZBench::makeSphereCloud(n, 1.0, 2024)));
  return *c;
}

void BM_OctreeBuild(benchmark::State & state)
{
  int const n = static_cast<int>(state.range(0));
  int const depth = static_cast<int>(state.range(1));
  CSampleCloud const & cloud = sphere(n);
  double peak = 0.0, added = 0.0;
  int nodes = 0, cells = 0;
  for (auto _ : state)
  {
    QZBench::resetPeakRss();
    double const before = static_cast<double>(QZBench::currentRssBytes());
    VolTr::COctree const tree(&cloud, depth, nullptr, true, -1);
    double const high = static_cast<double>(QZBench::peakRssBytes());
    peak = std::max(peak, high);
    added = std::max(added, high - before);
    nodes = tree.getNodesNumber();
    cells = tree.getCellsNumberOnDeepestLevel();
    benchmark::DoNotOptimize(nodes);
  }
  state.counters["nodes"] = nodes;
  state.counters["cells"] = cells;
  state.counters["peak_MiB"] = peak / QZBench::MiB;
  state.counters["tree_peak_MiB"] = added / QZBench::MiB;
}

/// One tree per (samples, depth), built once for the query cases.
VolTr::COctree const & tree(int n, int depth)
{
  static std::map<std::pair<int, int>, std::unique_ptr<VolTr::COctree>> trees;
  auto & t = trees[{n, depth}];
  if (!t)
    t.reset(new VolTr::COctree(&sphere(n), depth, nullptr, true, -1));
  return *t;
}

/// Query boxes of the size of a kernel support at the deepest node depth
/// (three of its cells), centred on samples.
std::vector<VolTr::CParallelepiped> queryBoxes(VolTr::COctree const & t, CSampleCloud const & cloud,
                                               int count)
{
  QZTest::CCloudRandom rnd(7);
  double const half = 1.5 * t.getCellSize(t.getNodeDepthEnd() - 1);
  std::vector<VolTr::CParallelepiped> boxes;
  for (int k = 0; k < count; ++k)
  {
    float const * p = cloud.getSampleCoords3(rnd.below(cloud.size()));
    boxes.emplace_back(p[0] - half, p[0] + half, p[1] - half, p[1] + half, p[2] - half, p[2] + half);
  }
  return boxes;
}

/// The walk of an evaluation: the nodes in the box at every node depth.
void BM_OctreeNodeQuery(benchmark::State & state)
{
  int const n = static_cast<int>(state.range(0));
  int const depth = static_cast<int>(state.range(1));
  VolTr::COctree const & t = tree(n, depth);
  std::vector<VolTr::CParallelepiped> const boxes = queryBoxes(t, sphere(n), 1000);
  long visited = 0;
  for (auto _ : state)
    for (VolTr::CParallelepiped const & box : boxes)
      for (int d = t.getNodeDepthBegin(); d < t.getNodeDepthEnd(); ++d)
        for (VolTr::COctreeInBoxNodeIterator it(&t, box, d); !it.isFinished(); it.next())
          ++visited;
  benchmark::DoNotOptimize(visited);
  state.SetItemsProcessed(state.iterations() * static_cast<long>(boxes.size()));
  state.counters["nodes_per_query"] = static_cast<double>(visited) / (state.iterations() * boxes.size());
}

/// The walk of the density estimation: the samples of the cells in a box.
void BM_OctreeSampleQuery(benchmark::State & state)
{
  int const n = static_cast<int>(state.range(0));
  int const depth = static_cast<int>(state.range(1));
  VolTr::COctree const & t = tree(n, depth);
  CSampleCloud const & cloud = sphere(n);
  std::vector<VolTr::CParallelepiped> const boxes = queryBoxes(t, cloud, 1000);
  long visited = 0;
  for (auto _ : state)
    for (VolTr::CParallelepiped const & box : boxes)
      for (VolTr::CSamplePointsIteratorInBox it(cloud, t, box, -1); !it.isFinished(); it.next())
        ++visited;
  benchmark::DoNotOptimize(visited);
  state.SetItemsProcessed(state.iterations() * static_cast<long>(boxes.size()));
  state.counters["samples_per_query"] = static_cast<double>(visited) / (state.iterations() * boxes.size());
}

void sizes(benchmark::internal::Benchmark * b)
{
  for (int n : {100000, 1000000})
    for (int depth : {8, 10})
      b->Args({n, depth});
}
} // namespace

BENCHMARK(BM_OctreeBuild)
    ->Apply(sizes)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_OctreeNodeQuery)
    ->Apply(sizes)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_OctreeSampleQuery)
    ->Apply(sizes)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

BENCHMARK_MAIN();
