// The compressed-row storage at the size of a large reconstruction: 1M rows of
// about 240 elements (a 5 x 7 x 7 neighbourhood on a 100^3 lattice), of which
// the symmetric storage keeps the upper half, filled row by row through the
// bulk path, then multiplied through MKL straight from the storage's arrays.
//
// Reported medians: fill time (vertex definitions, reservation, all rows),
// bytes per stored element (arrays, and resident memory growth), and the
// time of one symmetric product for index bases 0 and 1.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

#include <unistd.h>

#include "QZmath/LinSys/CSRSstorage.h"

using REmath::CCSRSstorage;

namespace
{
constexpr int kSide = 100; // 100^3 = 1M unknowns

// Linear offsets of the neighbourhood, ascending, and the lattice steps.
struct Stencil
{
  std::vector<int> dx, dy, dz;
};

Stencil const & stencil()
{
  static Stencil const s = []
  {
    Stencil t;
    for (int z = -3; z <= 3; ++z)
      for (int y = -3; y <= 3; ++y)
        for (int x = -2; x <= 2; ++x)
        {
          t.dx.push_back(x);
          t.dy.push_back(y);
          t.dz.push_back(z);
        }
    return t;
  }();
  return s;
}

long residentBytes()
{
  long pages = 0;
  long resident = 0;
  if (FILE * f = std::fopen("/proc/self/statm", "r"))
  {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2)
      resident = 0;
    std::fclose(f);
  }
  return resident * sysconf(_SC_PAGESIZE);
}

// Builds the symmetric system the way the reconstruction does: free vertices
// 0..n-1, the fixed vertex n, rows of ascending columns at or above the
// diagonal handed over in order.
std::unique_ptr<CCSRSstorage<double>> fill(int base)
{
  int const n = kSide * kSide * kSide;
  auto s = std::make_unique<CCSRSstorage<double>>();
  s->setIndexBase(base);
  s->setSymmetric(true);
  s->setPositiveDefinite(true);
  for (int v = 0; v < n; ++v)
    s->DefineFreeVertex(v);
  s->DefineFixedVertex(n);
  // An upper half of a 245-element neighbourhood is at most 123 elements.
  s->reserveMatrixMemory(n * 123);

  Stencil const & st = stencil();
  std::vector<double> values;
  std::vector<int> columns;
  values.reserve(st.dx.size());
  columns.reserve(st.dx.size());
  for (int r = 0; r < n; ++r)
  {
    int const x = r % kSide;
    int const y = (r / kSide) % kSide;
    int const z = r / (kSide * kSide);
    values.clear();
    columns.clear();
    for (size_t k = 0; k < st.dx.size(); ++k)
    {
      int const nx = x + st.dx[k];
      int const ny = y + st.dy[k];
      int const nz = z + st.dz[k];
      if (nx < 0 || ny < 0 || nz < 0 || nx >= kSide || ny >= kSide || nz >= kSide)
        continue;
      int const c = (nz * kSide + ny) * kSide + nx;
      if (c < r)
        continue;
      columns.push_back(c);
      values.push_back(c == r ? 300.0 : -1.0 / (1 + (c - r) % 7));
    }
    s->addEquationFreePartNoAliases(r, static_cast<int>(columns.size()), values.data(), columns.data());
  }
  for (int r = 0; r < n; ++r)
    s->SetFixedVertCoeff(r, 0, 1.0);
  return s;
}

void BM_CsrFillSymmetric1M(benchmark::State & state)
{
  double bytesPerElement = 0;
  double residentPerElement = 0;
  double elementsPerRow = 0;
  for (auto _ : state)
  {
    long const before = residentBytes();
    auto s = fill(1);
    long const after = residentBytes();
    if (!s->IsCorrectlyDefinedSystem())
      state.SkipWithError("system not correctly defined");
    double const nnz = s->getNonZeroValuesNumber();
    bytesPerElement = (nnz * (sizeof(double) + sizeof(int)) + (s->getMatrixSize() + 1.0) * sizeof(int)) / nnz;
    residentPerElement = static_cast<double>(after - before) / nnz;
    elementsPerRow = nnz / s->getMatrixSize();
    state.PauseTiming();
    s.reset();
    state.ResumeTiming();
  }
  state.counters["stored_per_row"] = elementsPerRow;
  state.counters["array_bytes_per_elem"] = bytesPerElement;
  state.counters["rss_bytes_per_elem"] = residentPerElement;
}
BENCHMARK(BM_CsrFillSymmetric1M)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

void BM_CsrSymmetricProduct1M(benchmark::State & state)
{
  int const base = static_cast<int>(state.range(0));
  static std::unique_ptr<CCSRSstorage<double>> system;
  static int builtBase = -1;
  if (builtBase != base)
  {
    system.reset();
    system = fill(base);
    builtBase = base;
  }
  int const n = system->getMatrixSize();
  std::vector<double> x(static_cast<size_t>(n)), y(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i)
    x[i] = 1.0 + (i % 13) * 0.01;
  for (auto _ : state)
  {
    REmath::MatrixMultVector(n, y.data(), *system, x.data());
    benchmark::DoNotOptimize(y.data());
    benchmark::ClobberMemory();
  }
  state.counters["elements"] = system->getNonZeroValuesNumber();
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(system->getNonZeroValuesNumber()));
}
BENCHMARK(BM_CsrSymmetricProduct1M)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
} // namespace

BENCHMARK_MAIN();
