// Geometry foundation: the 3 x 3 symmetric eigen solvers that every plane fit
// and normal estimate runs once per neighbourhood, the generalised solver of
// the quadric fits, and the per-point vector functions.

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "QZmath/Foundation/NumericRoutines.h"
#include "QZmath/Foundation/RotationMatrix.h"
#include "QZmath/Foundation/VectorGeometry.h"

using REmath::Point3D_d;

namespace
{
// A batch of scatter-like symmetric matrices, so that one input does not sit
// in the branch predictor.
template <class T> std::vector<T> scatterMatrices(int count)
{
  std::mt19937 rng(42);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<T> all(static_cast<std::size_t>(count) * 9);
  for (int k = 0; k < count; ++k)
  {
    T * m = all.data() + 9 * k;
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j <= i; ++j)
        m[3 * i + j] = m[3 * j + i] = static_cast<T>(u(rng) + (i == j ? 2.0 : 0.0));
  }
  return all;
}

constexpr int BATCH = 256;

void BM_Tred2Tqli_double(benchmark::State & state)
{
  std::vector<double> const input = scatterMatrices<double>(BATCH);
  int k = 0;
  for (auto _ : state)
  {
    double a[9], d[3], e[3];
    std::copy(input.begin() + 9 * k, input.begin() + 9 * k + 9, a);
    double * rows[3] = {a, a + 3, a + 6};
    tred2_d(rows, 3, d, e);
    benchmark::DoNotOptimize(tqli_d(d, e, 3, rows));
    benchmark::DoNotOptimize(d);
    k = (k + 1) % BATCH;
  }
}
BENCHMARK(BM_Tred2Tqli_double)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_Tred2Tqli_float(benchmark::State & state)
{
  std::vector<float> const input = scatterMatrices<float>(BATCH);
  int k = 0;
  for (auto _ : state)
  {
    float a[9], d[3], e[3];
    std::copy(input.begin() + 9 * k, input.begin() + 9 * k + 9, a);
    float * rows[3] = {a, a + 3, a + 6};
    tred2(rows, 3, d, e);
    benchmark::DoNotOptimize(tqli(d, e, 3, rows));
    benchmark::DoNotOptimize(d);
    k = (k + 1) % BATCH;
  }
}
BENCHMARK(BM_Tred2Tqli_float)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_GetEigenVectorsSA(benchmark::State & state)
{
  std::vector<double> const input = scatterMatrices<double>(BATCH);
  std::vector<CRotationMatrix> matrices(BATCH);
  for (int k = 0; k < BATCH; ++k)
    std::copy(input.begin() + 9 * k, input.begin() + 9 * k + 9, &matrices[k].m[0][0]);
  int k = 0;
  Point3D_d vectors[3];
  double values[3];
  for (auto _ : state)
  {
    GetEigenVectorsSA(matrices[k], vectors, values, true);
    benchmark::DoNotOptimize(values);
    k = (k + 1) % BATCH;
  }
}
BENCHMARK(BM_GetEigenVectorsSA)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_GenRightEigen(benchmark::State & state)
{
  int const n = static_cast<int>(state.range(0));
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> a(n * n), b(n * n, 0.0), vec(n * n), values(n);
  std::vector<double const *> ar(n), br(n);
  std::vector<double *> vr(n);
  for (int i = 0; i < n; ++i)
  {
    for (int j = 0; j <= i; ++j)
      a[i * n + j] = a[j * n + i] = u(rng);
    ar[i] = a.data() + i * n, br[i] = b.data() + i * n, vr[i] = vec.data() + i * n;
  }
  // As in the quadric fits: b is the identity on a few coordinates only.
  for (int i = n - 3; i < n; ++i)
    b[i * n + i] = 1.0;
  int count = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(gen_right_eigen(n, ar.data(), br.data(), count, vr.data(), values.data()));
}
BENCHMARK(BM_GenRightEigen)->Arg(10)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_RotateVector(benchmark::State & state)
{
  double const axis[3] = {0.3, -0.5, 0.8}, v[3] = {1.0, 2.0, 3.0};
  double out[3];
  double angle = 0.0;
  for (auto _ : state)
  {
    RotateVector(out, axis, v, angle);
    benchmark::DoNotOptimize(out);
    angle += 0.001;
  }
}
BENCHMARK(BM_RotateVector)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_CircumscribeCircle(benchmark::State & state)
{
  double const a[3] = {0.1, 0.0, 0.2}, b[3] = {2.0, 0.3, 0.0}, c[3] = {0.4, 2.0, 0.1};
  double centre[3], r2 = 0.0;
  for (auto _ : state)
  {
    benchmark::DoNotOptimize(CircumscribeCircle(a, b, c, centre, r2));
    benchmark::DoNotOptimize(centre);
  }
}
BENCHMARK(BM_CircumscribeCircle)->Repetitions(5)->ReportAggregatesOnly(true);
} // namespace

BENCHMARK_MAIN();
