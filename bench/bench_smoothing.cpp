// Smoothing with fixed points on long polylines, where the impulse responses
// must stay local for the cost to be that of the passes over the points; and
// the min-max optimiser on a handful of criteria.
//
// Targets: 100 passes over 100k points with 100 fixed points within 0.1 s; the
// optimiser on 10 criteria within 10 ms.

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "QZmath/Fitting/MinMaxOptimizer.h"
#include "QZmath/Fitting/PolylineSmoothing.h"

using REmath::Point3D;
using REmath::Point3D_d;

namespace
{
template <class P> std::vector<P> noisyHelix(int n)
{
  std::mt19937 rng(17);
  std::normal_distribution<double> noise(0.0, 0.01);
  std::vector<P> pts;
  pts.reserve(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i)
  {
    double const t = 0.001 * i;
    pts.emplace_back(std::cos(t) + noise(rng), std::sin(t) + noise(rng), 0.01 * t + noise(rng));
  }
  return pts;
}

template <class P> void BM_SmoothWithFixedPoints(benchmark::State & state)
{
  int const n = static_cast<int>(state.range(0));
  int const nFixed = static_cast<int>(state.range(1));
  std::vector<P> const input = noisyHelix<P>(n);
  std::vector<int> fixed;
  for (int j = 0; j < nFixed; ++j)
    fixed.push_back(static_cast<int>((static_cast<long long>(j) * 2 + 1) * n / (2 * nFixed)));
  CPolylineSmoothParams const params(false, 0.4, 100, true, &fixed);
  for (auto _ : state)
  {
    state.PauseTiming();
    std::vector<P> pts = input;
    state.ResumeTiming();
    benchmark::DoNotOptimize(smoothPolylineWithFixedPoints(pts, params));
    benchmark::ClobberMemory();
  }
}
BENCHMARK_TEMPLATE(BM_SmoothWithFixedPoints, Point3D)
    ->Args({100000, 100})
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_SmoothWithFixedPoints, Point3D_d)
    ->Args({100000, 100})
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// Concave criteria: distances below a radius from centres spread in the box,
// with a little work each, as real criteria have.
class CConeCriterion : public REmath::CMinMaxTask::Criterion
{
public:
  CConeCriterion(Point3D_d c, double r) : m_c(c), m_r(r) {}
  double operator()(const Point3D_d & p) const override
  {
    double const dx = p.x() - m_c.x(), dy = p.y() - m_c.y(), dz = p.z() - m_c.z();
    return m_r - std::sqrt(dx * dx + dy * dy + dz * dz);
  }

private:
  Point3D_d m_c;
  double m_r;
};

void BM_MinMaxOptimizer(benchmark::State & state)
{
  int const count = static_cast<int>(state.range(0));
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> u(0.0, 10.0);
  std::vector<CConeCriterion> criteria;
  for (int i = 0; i < count; ++i)
    criteria.emplace_back(Point3D_d(u(rng), u(rng), u(rng)), 8.0);
  REmath::CMinMaxTask task;
  for (CConeCriterion const & c : criteria)
    task.AddCriterion(&c);
  task.SetInitApprox(Point3D_d(0.5, 0.5, 0.5));
  task.SetLimitMin(Point3D_d(0.0, 0.0, 0.0));
  task.SetLimitMax(Point3D_d(10.0, 10.0, 10.0));
  REmath::CMinMaxParams const params;
  REmath::CMinMaxOptimizer const optimizer(task, params);
  for (auto _ : state)
  {
    Point3D_d r;
    optimizer.Run(r);
    benchmark::DoNotOptimize(r);
  }
}
BENCHMARK(BM_MinMaxOptimizer)
    ->Arg(10)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
} // namespace
BENCHMARK_MAIN();
