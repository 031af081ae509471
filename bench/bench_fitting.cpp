// Robust fits at work sizes: planes, lines and circles of 1k, 100k and 1M
// points, 15 % of them gross outliers, with the plain fits beside them.
//
// Counters: `rounds`, the weighted fits the reweighting made; `allocs`, the
// operator-new calls of one whole fit (the process's operator new is counted
// here). The buffers of the reweighting are made in its first round and
// reused, so `allocs` stays the same however many rounds a fit takes.
//
// Reported medians of 5 repetitions.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <map>
#include <new>
#include <random>
#include <vector>

#include "QZmath/Fitting/FitCircle.h"
#include "QZmath/Fitting/FitLine.h"
#include "QZmath/Fitting/PlaneEq.h"

namespace
{
std::atomic<long> g_allocations{0};
}

// Out of line, so that g++ does not pair an inlined free with the library's
// new and warn about a mismatch that is not there.
[[gnu::noinline]] void * operator new(std::size_t size)
{
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  if (void * p = std::malloc(size ? size : 1))
    return p;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void * p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void * p, std::size_t) noexcept { std::free(p); }

using REmath::Point3D_d;

namespace
{
enum TF_Shape
{
  Plane,
  Line,
  Circle
};

// Points on a plane (6 x 6), a line (length 10) or a circle (radius 5, in a
// tilted plane) with noise 0.01; every 7th point (about 15 %) is replaced by
// one uniform in a box of 8 about the shape.
std::vector<Point3D_d> const & cloud(TF_Shape shape, int n)
{
  static std::map<std::pair<int, int>, std::vector<Point3D_d>> cache;
  std::vector<Point3D_d> & pts = cache[{shape, n}];
  if (!pts.empty())
    return pts;
  std::mt19937 rng(17);
  std::normal_distribution<double> noise(0.0, 0.01);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  double const s = 1.0 / std::sqrt(1.0 + 0.09 + 0.16);
  Point3D_d const n0(0.3 * s, -0.4 * s, s), e1(s, 0.0, -0.3 * s);
  Point3D_d const e2(n0.y() * e1.z() - n0.z() * e1.y(), n0.z() * e1.x() - n0.x() * e1.z(),
                     n0.x() * e1.y() - n0.y() * e1.x());
  pts.reserve(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i)
  {
    double a = 0.0, b = 0.0, h = 0.0;
    if (i % 7 == 0)
    {
      a = 4.0 * u(rng) + 1.0;
      b = 4.0 * u(rng) + 1.0;
      h = 4.0 * u(rng);
    }
    else if (shape == Plane)
    {
      a = 3.0 * u(rng);
      b = 3.0 * u(rng);
      h = noise(rng);
    }
    else if (shape == Line)
    {
      a = 5.0 * u(rng) + noise(rng);
      b = noise(rng);
      h = noise(rng);
    }
    else
    {
      double const t = 3.141592653589793 * u(rng);
      a = 5.0 * std::cos(t) + noise(rng);
      b = 5.0 * std::sin(t) + noise(rng);
      h = noise(rng);
    }
    pts.emplace_back(1.0 + a * e1.x() + b * e2.x() + h * n0.x(), -2.0 + a * e1.y() + b * e2.y() + h * n0.y(),
                     3.0 + a * e1.z() + b * e2.z() + h * n0.z());
  }
  return pts;
}

template <class Fit> void runFit(benchmark::State & state, TF_Shape shape, Fit fit)
{
  std::vector<Point3D_d> const & pts = cloud(shape, static_cast<int>(state.range(0)));
  CRobustFitInfo info;
  long allocs = 0;
  for (auto _ : state)
  {
    long const before = g_allocations.load();
    bool const ok = fit(pts, info);
    allocs = g_allocations.load() - before;
    if (!ok)
      state.SkipWithError("fit failed");
    benchmark::ClobberMemory();
  }
  state.counters["rounds"] = info.iterations;
  state.counters["allocs"] = static_cast<double>(allocs);
  state.counters["points"] = static_cast<double>(pts.size());
}

void BM_RobustPlane(benchmark::State & state)
{
  runFit(state, Plane,
         [](std::vector<Point3D_d> const & p, CRobustFitInfo & info)
         {
           double coefficients[4], centroid[3];
           return FitPlaneToPointSetRobust(p, coefficients, centroid, &info);
         });
}

void BM_PlainPlane(benchmark::State & state)
{
  runFit(state, Plane,
         [](std::vector<Point3D_d> const & p, CRobustFitInfo &)
         {
           double coefficients[4], centroid[3];
           return FitPlaneToPointSet(p, coefficients, centroid);
         });
}

void BM_RobustLine(benchmark::State & state)
{
  runFit(state, Line,
         [](std::vector<Point3D_d> const & p, CRobustFitInfo & info)
         {
           Point3D_d origin, direction;
           return FitLineToPointSetRobust(p, origin, direction, &info);
         });
}

void BM_RobustCircle(benchmark::State & state)
{
  runFit(state, Circle,
         [](std::vector<Point3D_d> const & p, CRobustFitInfo & info)
         {
           Point3D_d center, normal;
           double radius;
           return FitCircleToPointSetRobust(p, center, normal, radius, &info);
         });
}

void BM_PlainCircle(benchmark::State & state)
{
  runFit(state, Circle,
         [](std::vector<Point3D_d> const & p, CRobustFitInfo &)
         {
           Point3D_d center, normal;
           double radius;
           return FitCircleToPointSet(p, center, normal, radius);
         });
}

#define QZ_FIT_SIZES                                                                                         \
  ->Arg(1000)                                                                                                \
      ->Arg(100000)                                                                                          \
      ->Arg(1000000)                                                                                         \
      ->Unit(benchmark::kMillisecond)                                                                        \
      ->Repetitions(5)                                                                                       \
      ->ReportAggregatesOnly(true)
BENCHMARK(BM_RobustPlane) QZ_FIT_SIZES;
BENCHMARK(BM_PlainPlane) QZ_FIT_SIZES;
BENCHMARK(BM_RobustLine) QZ_FIT_SIZES;
BENCHMARK(BM_RobustCircle) QZ_FIT_SIZES;
BENCHMARK(BM_PlainCircle) QZ_FIT_SIZES;
} // namespace

BENCHMARK_MAIN();
