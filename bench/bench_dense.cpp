// Dense algebra and row storages: the matrix product, the LU solve, building a
// banded system in each kind of row, and the sparse vector's file form.

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "QZmath/Foundation/Matrix.h"
#include "QZmath/LinSys/VPLSstorage.h"
#include "QZsys/TempFile.h"

using namespace REmath;

namespace
{
Matrix<double> randomMatrix(int n, unsigned seed)
{
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> u(-1, 1);
  Matrix<double> m(n, n);
  for (int c = 0; c < n; ++c)
    for (int r = 0; r < n; ++r)
      m(r, c) = u(rng) + (r == c ? n : 0);
  return m;
}

void BM_MatrixProduct(benchmark::State & state)
{
  int const n = static_cast<int>(state.range(0));
  Matrix<double> const a = randomMatrix(n, 1), b = randomMatrix(n, 2);
  for (auto _ : state)
    benchmark::DoNotOptimize(a * b);
  state.SetComplexityN(n);
}
BENCHMARK(BM_MatrixProduct)->Arg(32)->Arg(128)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_SolveMat(benchmark::State & state)
{
  int const n = static_cast<int>(state.range(0));
  Matrix<double> const a = randomMatrix(n, 3), b = randomMatrix(n, 4).get(0, 0, n, 3);
  Matrix<double> lu, x;
  for (auto _ : state)
  {
    lu = a;
    benchmark::DoNotOptimize(solveMat(lu, b, x));
  }
}
BENCHMARK(BM_SolveMat)->Arg(32)->Arg(256)->Repetitions(5)->ReportAggregatesOnly(true);

/// A polyline-like banded system: equation k ties vertex k to its neighbours.
/// Each equation goes through a dense scratch row, so the cost per equation
/// grows with n whatever the row form.
template <class Row> void BM_BandedSystem(benchmark::State & state)
{
  int const n = static_cast<int>(state.range(0));
  std::vector<CVertexLinearCombination<double>> equations(static_cast<std::size_t>(n));
  for (int k = 0; k < n; ++k)
  {
    equations[k].AddVertex(k, 2.0);
    if (k > 0)
      equations[k].AddVertex(k - 1, -1.0);
    if (k + 1 < n)
      equations[k].AddVertex(k + 1, -1.0);
  }
  std::vector<double> x(static_cast<std::size_t>(n), 1.0);
  for (auto _ : state)
  {
    CVPLSstorage<double, Row> s;
    for (int k = 0; k < n; ++k)
      s.DefineFreeVertex(k);
    for (auto const & e : equations)
      s.AddEquation(e);
    double sum = 0;
    for (int k = 0; k < n; ++k)
      sum += s.ScalarProductByMatrixRow(k, n, x.data());
    benchmark::DoNotOptimize(sum);
  }
}
BENCHMARK_TEMPLATE(BM_BandedSystem, CStdVectorAsVPLSstorageRow<double>)
    ->Arg(500)
    ->Arg(2000)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_BandedSystem, CShiftedVectorAsVPLstorageRow<double>)
    ->Arg(500)
    ->Arg(2000)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK_TEMPLATE(BM_BandedSystem, CSparseVectorAsVPLSstorageRow<double>)
    ->Arg(500)
    ->Arg(2000)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void BM_SparseVectorFileRoundTrip(benchmark::State & state)
{
  int const n = static_cast<int>(state.range(0));
  std::vector<double> dense(static_cast<std::size_t>(n) * 4, 0.0);
  for (int i = 0; i < n; ++i)
    dense[static_cast<std::size_t>(i) * 4] = i + 1;
  CSparseVectorTmpl<double> const v(static_cast<int>(dense.size()), dense.data());
  VsUt::CTemporaryFile tmp("QZbench_sparse_");
  CSparseVectorTmpl<double> back;
  for (auto _ : state)
  {
    std::rewind(tmp.get());
    v.SaveToFile(tmp.get());
    std::rewind(tmp.get());
    benchmark::DoNotOptimize(back.LoadFromFile(tmp.get()));
  }
  state.SetBytesProcessed(state.iterations() * n * static_cast<int64_t>(2 * (4 + sizeof(double))));
}
BENCHMARK(BM_SparseVectorFileRoundTrip)->Arg(100000)->Repetitions(5)->ReportAggregatesOnly(true);
} // namespace

BENCHMARK_MAIN();
