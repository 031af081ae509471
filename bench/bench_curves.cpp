// Curve chains and contour corners at work sizes.
//
// BM_ChainFit: a smooth open chain of 5 lines and 5 arcs (turning 60 degrees
// each, radius 10), 1000 points a segment with 0.002 noise, in a tilted
// plane: the whole first fit (plane, types, joint fit, results), under the
// specified damping (arg 0) and the adaptive one (arg 1). Counters: the
// segments typed as lines and arcs, to show that the chain was recognised.
//
// BM_ContourCorners: the corner marks of a closed noisy hexagon of 100k and 1M
// points with a chord of about 5 point spacings; the time per point shows that
// the marking is linear.
//
// Reported medians of 5 repetitions.

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "QZmath/Fitting/ContourCorners.h"
#include "QZmath/Fitting/PolylineFitCurve.h"

using REmath::Point3D_d;

namespace
{
double const PI = 3.14159265358979323846;

/// (x, y) of the plane into space: a tilted frame away from the origin.
Point3D_d inSpace(double x, double y)
{
  double const c = std::cos(0.4), s = std::sin(0.4);
  return Point3D_d(3.0 + x, -2.0 + c * y, 1.0 + s * y);
}

std::vector<std::vector<Point3D_d>> makeChain(int perSegment, double sigma)
{
  std::mt19937 rng(5);
  std::normal_distribution<double> noise(0.0, sigma);
  std::vector<std::vector<Point3D_d>> segs;
  double x = 0.0, y = 0.0, heading = 0.0;
  double const length = 20.0, radius = 10.0, turn = PI / 3;
  for (int k = 0; k < 10; ++k)
  {
    std::vector<Point3D_d> pts;
    double const side = (k / 2) % 2 == 0 ? 1.0 : -1.0; // left and right turns in turn
    double const cx = x - side * radius * std::sin(heading), cy = y + side * radius * std::cos(heading);
    for (int i = 0; i < perSegment; ++i)
    {
      double const t = static_cast<double>(i) / (perSegment - 1);
      double px, py;
      if (k % 2 == 0)
        px = x + t * length * std::cos(heading), py = y + t * length * std::sin(heading);
      else
      {
        double const a = heading - side * PI / 2 + side * t * turn;
        px = cx + radius * std::cos(a), py = cy + radius * std::sin(a);
      }
      Point3D_d p = inSpace(px, py);
      p += Point3D_d(noise(rng), noise(rng), noise(rng));
      pts.push_back(p);
    }
    if (k % 2 == 0)
      x += length * std::cos(heading), y += length * std::sin(heading);
    else
    {
      double const a = heading - side * PI / 2 + side * turn;
      x = cx + radius * std::cos(a), y = cy + radius * std::sin(a);
      heading += side * turn;
    }
    segs.push_back(std::move(pts));
  }
  return segs;
}

void BM_ChainFit(benchmark::State & state)
{
  auto const segs = makeChain(1000, 0.002);
  std::vector<double> crv, bnd;
  int lines = 0, arcs = 0;
  for (auto _ : state)
  {
    CPolylineFitCurve fit;
    fit.setAdaptiveDamping(state.range(0) != 0);
    benchmark::DoNotOptimize(fit.fitPolyline(segs, crv, bnd));
    lines = arcs = 0;
    for (int k = 0; k < 10; ++k)
      (fit.getCurveType(k) == PolylineCurveLine ? lines : arcs) += fit.getCurveType(k) != PolylineCurveNurbs;
  }
  state.counters["lines"] = lines;
  state.counters["arcs"] = arcs;
}

std::vector<Point3D_d> makePolygon(int n)
{
  std::mt19937 rng(6);
  std::normal_distribution<double> noise(0.0, 0.01);
  std::vector<Point3D_d> pts;
  int const sides = 6;
  for (int i = 0; i < n; ++i)
  {
    double const t = static_cast<double>(i) * sides / n;
    int const side = static_cast<int>(t);
    double const f = t - side;
    double const a0 = 2 * PI * side / sides, a1 = 2 * PI * (side + 1) / sides;
    double const r = n / 20.0; // a spacing of about 0.3
    pts.emplace_back(r * ((1 - f) * std::cos(a0) + f * std::cos(a1)) + noise(rng),
                     r * ((1 - f) * std::sin(a0) + f * std::sin(a1)) + noise(rng), noise(rng));
  }
  return pts;
}

void BM_ContourCorners(benchmark::State & state)
{
  auto const pts = makePolygon(static_cast<int>(state.range(0)));
  std::vector<int> marks;
  for (auto _ : state)
    benchmark::DoNotOptimize(GetContourCornerMarks(pts, 1.5 * 1.5, true, marks));
  int corners = 0;
  for (int m : marks)
    corners += m;
  state.counters["corners"] = corners;
  state.counters["ns_per_point"] =
      benchmark::Counter(static_cast<double>(state.range(0)),
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
} // namespace

BENCHMARK(BM_ChainFit)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_ContourCorners)
    ->Arg(100000)
    ->Arg(1000000)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

BENCHMARK_MAIN();
