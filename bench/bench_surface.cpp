// Local surface analysis: normal and curvature estimation per neighbourhood
// (they run once per point of a cloud), and the distance and projector calls
// that mesh and curve tools make per point.

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "QZmath/Foundation/NumericRoutines.h"
#include "QZmath/SurfaceAnalysis/GetNormal.h"
#include "QZmath/SurfaceAnalysis/Projectors.h"
#include "tests/SurfaceAnalysis/SurfaceSamples.h"

using REmath::Point3D;
using REmath::Point3D_d;

namespace
{
constexpr int NEIGHBOURS = 30;
constexpr int BATCH = 64;

// A batch of different neighbourhoods, so that one input does not sit in the
// branch predictor.
std::vector<SurfTest::CNeighbourhood> neighbourhoods(bool curved)
{
  std::vector<SurfTest::CNeighbourhood> out;
  for (int i = 0; i < BATCH; ++i)
    out.push_back(curved ? SurfTest::sampleSurface(i % 2 ? SurfTest::saddle(0.5) : SurfTest::cylinder(2.0),
                                                   NEIGHBOURS, 0.5, 1000 + i, 1e-4)
                         : SurfTest::sampleSurface(SurfTest::plane(), NEIGHBOURS, 1.0, 2000 + i, 1e-5));
  return out;
}

void BM_GetNormal(benchmark::State & state)
{
  auto const nbs = neighbourhoods(true);
  double m[3][3], normal[3];
  double * rows[3] = {m[0], m[1], m[2]};
  int k = 0;
  for (auto _ : state)
  {
    benchmark::DoNotOptimize(GetNormal(NEIGHBOURS, nbs[k].points.data(), rows, normal));
    benchmark::DoNotOptimize(normal);
    k = (k + 1) % BATCH;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GetNormal)->Repetitions(5)->ReportAggregatesOnly(true);

// Flat neighbourhoods stop after the first-order plane; curved ones solve the
// generalised eigenproblem of the quadric, by LAPACK's general solver
// (reduced:0, the default) or through its 3 x 3 reduction (reduced:1).
void BM_GetNormal2(benchmark::State & state)
{
  auto const nbs = neighbourhoods(state.range(0) != 0);
  CGetNormal2Prms prm;
  prm.ReducedEigenProblem() = state.range(1) != 0;
  double normal[3], scale = 0.0;
  float dist[NEIGHBOURS];
  CQuadraticForm form;
  int k = 0;
  for (auto _ : state)
  {
    benchmark::DoNotOptimize(GetNormal2(NEIGHBOURS, nbs[k].points.data(), &prm, &form, normal, dist, &scale));
    benchmark::DoNotOptimize(normal);
    k = (k + 1) % BATCH;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GetNormal2)
    ->ArgNames({"curved", "reduced"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// The generalised eigenproblem alone, on the weighted monomial moments of the
// same curved neighbourhoods (scaled as GetNormal2 scales them): the floor
// under the default path of GetNormal2.
void BM_QuadricPencilEigen(benchmark::State & state)
{
  struct Pencil
  {
    double a[9][9] = {};
  };
  std::vector<Pencil> pencils;
  for (auto const & nb : neighbourhoods(true))
  {
    Pencil p;
    double sum = 0.0;
    for (int i = 1; i < NEIGHBOURS; ++i)
      for (int k = 0; k < 3; ++k)
        sum += std::pow(double(nb.points[i].asArray()[k]) - nb.points[0].asArray()[k], 2);
    double const s = std::sqrt(sum / (NEIGHBOURS - 1));
    for (int i = 1; i < NEIGHBOURS; ++i)
    {
      double v[3];
      for (int k = 0; k < 3; ++k)
        v[k] = (double(nb.points[i].asArray()[k]) - nb.points[0].asArray()[k]) / s;
      double const m[9] = {v[0] * v[0], v[0] * v[1], v[0] * v[2], v[1] * v[1], v[1] * v[2],
                           v[2] * v[2], v[0],        v[1],        v[2]};
      double const w = 0.1 / (v[0] * v[0] + v[1] * v[1] + v[2] * v[2] + 0.1);
      for (int r = 0; r < 9; ++r)
        for (int c = 0; c < 9; ++c)
          p.a[r][c] += w * m[r] * m[c];
    }
    pencils.push_back(p);
  }
  double b[9][9] = {};
  b[6][6] = b[7][7] = b[8][8] = 1.0;
  double const * bRows[9];
  double vec[9][9], lambda[9];
  double * vecRows[9];
  for (int i = 0; i < 9; ++i)
    bRows[i] = b[i], vecRows[i] = vec[i];
  int k = 0;
  for (auto _ : state)
  {
    double const * aRows[9];
    for (int i = 0; i < 9; ++i)
      aRows[i] = pencils[k].a[i];
    int count = 0;
    benchmark::DoNotOptimize(gen_right_eigen(9, aRows, bRows, count, vecRows, lambda));
    benchmark::DoNotOptimize(lambda);
    k = (k + 1) % BATCH;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_QuadricPencilEigen)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_EstimateCurvature(benchmark::State & state)
{
  auto const nbs = neighbourhoods(true);
  REmath::Matrix<double> tensor;
  double normal[3];
  int k = 0;
  for (auto _ : state)
  {
    benchmark::DoNotOptimize(EstimateCurvature(nbs[k].points, true, normal, tensor));
    k = (k + 1) % BATCH;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EstimateCurvature)->Repetitions(5)->ReportAggregatesOnly(true);

// Random points against random triangles: the three outcomes (over the face,
// by an edge, by a vertex) all occur.
struct TriangleCases
{
  std::vector<float> points, vertices;
  TriangleCases()
  {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    for (int i = 0; i < 3 * BATCH; ++i)
      points.push_back(2.0f * u(rng));
    for (int i = 0; i < 9 * BATCH; ++i)
      vertices.push_back(u(rng));
  }
};

void BM_DistancePointTriangle(benchmark::State & state)
{
  TriangleCases const c;
  std::vector<Point3D> tri;
  for (int i = 0; i < 3 * BATCH; ++i)
    tri.emplace_back(&c.vertices[3 * i]);
  int k = 0;
  for (auto _ : state)
  {
    benchmark::DoNotOptimize(distancePointTriangle2(&c.points[3 * k], &tri[3 * k]));
    k = (k + 1) % BATCH;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DistancePointTriangle)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_ProjectorTrianglePrecalced(benchmark::State & state)
{
  TriangleCases const c;
  std::vector<REmath::CProjectorTriangle> tri;
  for (int i = 0; i < BATCH; ++i)
    tri.emplace_back(&c.vertices[9 * i], &c.vertices[9 * i + 3], &c.vertices[9 * i + 6]);
  int k = 0;
  for (auto _ : state)
  {
    benchmark::DoNotOptimize(tri[k].DistToTriangle2Precalced(&c.points[3 * k]));
    k = (k + 1) % BATCH;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ProjectorTrianglePrecalced)->Repetitions(5)->ReportAggregatesOnly(true);

// A projector call on a polyline of range(0) points, and on a join of two.
void BM_PolylineProjector(benchmark::State & state)
{
  int const n = static_cast<int>(state.range(0));
  std::vector<Point3D_d> line;
  for (int i = 0; i < n; ++i)
    line.emplace_back(0.1 * i, std::sin(0.1 * i), 0.0);
  CProjectorsJoin join;
  join.AddProjectorWithOwnerShip(new CProjectorToPolyline(line));
  for (Point3D_d & p : line)
    p.z() = 1.0;
  join.AddProjectorWithOwnerShip(new CProjectorToPolyline(line));
  IPointToGeomObjProjector & projector = join;
  Point3D_d r;
  double x = 0.0;
  for (auto _ : state)
  {
    benchmark::DoNotOptimize(projector.projectPoint(Point3D_d(x, 0.5, 0.4), r));
    x = x > 0.1 * n ? 0.0 : x + 0.37;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PolylineProjector)->Arg(16)->Arg(256)->Repetitions(5)->ReportAggregatesOnly(true);
} // namespace

BENCHMARK_MAIN();
