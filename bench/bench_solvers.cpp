// The sparse solvers on 3D Laplacian-like systems: the 27-point stencil of a
// side^3 lattice (26 on the diagonal, -1 to each neighbour inside the
// lattice), symmetric positive definite, filled through the compressed-row
// storage's bulk path as the surface reconstruction fills it, its right part
// carried by one fixed vertex of position 1.
//
// Cases, for 100k and 400k unknowns, three times each, and 1M once with
// --with_1m (its direct solve takes about 10.5 GB and two minutes):
//   BM_Solve/<solver>/<side>   one solve: seconds, iterations, peak memory
//   BM_DssOverhead/<side>      CSparseStoreSparseLinSysSolver against MKL's
//                              direct solver called on the same arrays, both
//                              timed in the same repetition; overhead in %.
// The system is built before the timed part; "system_MiB" is the resident
// size before the solve, "peak_MiB" the peak during it.
//
// On a machine shared with other work, run with OMP_WAIT_POLICY=passive:
// MKL's OpenMP threads otherwise spin at every barrier while their partner
// waits for a core, and the iterative cases slow down thirtyfold.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <mkl_dss.h>

#include "QZmath/LinSys/LinSysSolverCompose.h"
#include "QZmath/LinSys/LinSysSolverDecomposed.h"
#include "bench/common/BenchSupport.h"

using namespace REmath;

namespace
{
bool g_with1M = false;

// The source of the right part: smooth, never zero.
double source(int i) { return 0.5 + 0.25 * std::sin(0.001 * i); }

void fillStencilSystem(CCSRSstorage<double> & storage, int side)
{
  int const n = side * side * side;
  storage.setSymmetric(true);
  storage.setPositiveDefinite(true);
  for (int v = 0; v < n; ++v)
    storage.DefineFreeVertex(v);
  storage.DefineFixedVertex(n);
  storage.reserveMatrixMemory(n * 14);
  std::vector<double> values;
  std::vector<int> columns;
  for (int z = 0; z < side; ++z)
    for (int y = 0; y < side; ++y)
      for (int x = 0; x < side; ++x)
      {
        values.clear();
        columns.clear();
        for (int dz = -1; dz <= 1; ++dz)
          for (int dy = -1; dy <= 1; ++dy)
            for (int dx = -1; dx <= 1; ++dx)
            {
              int const cx = x + dx, cy = y + dy, cz = z + dz;
              if (cx < 0 || cy < 0 || cz < 0 || cx >= side || cy >= side || cz >= side)
                continue;
              columns.push_back((cz * side + cy) * side + cx);
              values.push_back(dx == 0 && dy == 0 && dz == 0 ? 26.0 : -1.0);
            }
        int const row = (z * side + y) * side + x;
        storage.addEquationFreePartNoAliases(row, static_cast<int>(values.size()), values.data(),
                                             columns.data());
        storage.SetFixedVertCoeff(row, 0, -source(row));
      }
}

class CUnitInformer : public IVertexPosInformer<double>
{
public:
  double GetVertexPosition(int) const override { return 1.0; }
};

class CSinkReciever : public IEqSysResultReciever<double>
{
public:
  explicit CSinkReciever(int n) : values(static_cast<std::size_t>(n)) {}
  void SetVertexPosition(int vertex, double position) override
  {
    values[static_cast<std::size_t>(vertex)] = position;
  }
  std::vector<double> values;
};

enum ESolver
{
  eDirect,
  eIterative,
  eDecomposer,
};

template <class TSolver> bool solveOnce(TSolver & solver, int n)
{
  CUnitInformer informer;
  CSinkReciever reciever(n);
  IVertexPosInformer<double> const * in[] = {&informer};
  IEqSysResultReciever<double> * out[] = {&reciever};
  return solver.SolveSystem(1, in, out, nullptr);
}

void setMemoryCounters(benchmark::State & state, std::size_t before)
{
  state.counters["system_MiB"] = static_cast<double>(before) / QZBench::MiB;
  state.counters["peak_MiB"] = static_cast<double>(QZBench::peakRssBytes()) / QZBench::MiB;
}

void BM_Solve(benchmark::State & state)
{
  auto const kind = static_cast<ESolver>(state.range(0));
  int const side = static_cast<int>(state.range(1));
  int const n = side * side * side;
  if (n >= 1000000 && !g_with1M)
  {
    state.SkipWithError("1M unknowns: run with --with_1m");
    return;
  }
  QZBench::resetPeakRss();
  std::unique_ptr<CSparseStoreSparseLinSysSolver<double>> direct;
  std::unique_ptr<CSparseStoreBicgstabLinSysSolver<double>> iterative;
  std::unique_ptr<CLinSysSolverSpaceDecomposer<double>> decomposer;
  if (kind == eDirect)
  {
    direct.reset(new CSparseStoreSparseLinSysSolver<double>(0));
    fillStencilSystem(direct->getStorageRefMod(), side);
  }
  else if (kind == eIterative)
  {
    iterative.reset(new CSparseStoreBicgstabLinSysSolver<double>(-1, 1e-6, 3000));
    fillStencilSystem(iterative->getStorageRefMod(), side);
  }
  else
  {
    decomposer.reset(new CLinSysSolverSpaceDecomposer<double>({n / 4, 2 * n / 4, 3 * n / 4}, 1e-6, 10000));
    fillStencilSystem(decomposer->getStorageRefMod(), side);
  }
  std::size_t const before = QZBench::currentRssBytes();
  QZBench::resetPeakRss();

  int iterations = 0;
  for (auto _ : state)
  {
    bool solved = false;
    if (kind == eDirect)
      solved = solveOnce(*direct, n);
    else if (kind == eIterative)
    {
      solved = solveOnce(*iterative, n);
      iterations = iterative->getIterationsUsed();
    }
    else
    {
      solved = solveOnce(*decomposer, n);
      iterations = decomposer->getIterationsUsed();
    }
    if (!solved)
      state.SkipWithError("the solver failed");
  }
  state.counters["unknowns"] = n;
  state.counters["iterations"] = iterations;
  setMemoryCounters(state, before);
}

// MKL's direct solver called by hand on the storage's own arrays, with the
// options the wrapper uses: what the wrapper's overhead is measured against.
bool directDss(CCSRSstorage<double> const & storage, std::vector<double> const & b, std::vector<double> & x)
{
  ICsrMatrix<double> const & m = storage;
  _MKL_DSS_HANDLE_t handle = nullptr;
  MKL_INT quiet = MKL_DSS_MSG_LVL_FATAL;
  MKL_INT structure = MKL_DSS_SYMMETRIC + quiet;
  MKL_INT order = MKL_DSS_METIS_OPENMP_ORDER + quiet;
  MKL_INT kind = MKL_DSS_POSITIVE_DEFINITE + quiet;
  MKL_INT n = m.getMatrixSize();
  MKL_INT nonZeros = m.getNonZeroValuesNumber();
  MKL_INT nRhs = 1;
  bool ok = dss_create(handle, quiet) == MKL_DSS_SUCCESS &&
            dss_define_structure(handle, structure, m.getCsrPointerB(), n, n, m.getCsrColumns(), nonZeros) ==
                MKL_DSS_SUCCESS &&
            dss_reorder(handle, order, nullptr) == MKL_DSS_SUCCESS &&
            dss_factor_real(handle, kind, m.getCsrValues()) == MKL_DSS_SUCCESS &&
            dss_solve_real(handle, quiet, b.data(), nRhs, x.data()) == MKL_DSS_SUCCESS;
  if (handle != nullptr)
    dss_delete(handle, quiet);
  return ok;
}

void BM_DssOverhead(benchmark::State & state)
{
  int const side = static_cast<int>(state.range(0));
  int const n = side * side * side;
  if (n >= 1000000 && !g_with1M)
  {
    state.SkipWithError("1M unknowns: run with --with_1m");
    return;
  }
  CSparseStoreSparseLinSysSolver<double> solver(0);
  fillStencilSystem(solver.getStorageRefMod(), side);
  CCSRSstorage<double> const & storage = solver.getStorageRef();
  std::vector<double> b(static_cast<std::size_t>(n));
  CUnitInformer informer;
  storage.SetSingleRightPart(b.data(), informer);
  std::vector<double> x(static_cast<std::size_t>(n), 0.0);

  using Clock = std::chrono::steady_clock;
  double wrapperSeconds = 0;
  double directSeconds = 0;
  static int round = 0;
  for (auto _ : state)
  {
    // The two take turns at going first, so that neither always meets a
    // cold cache or the other's freed memory.
    bool const wrapperFirst = round++ % 2 == 0;
    bool ok = true;
    for (int pass = 0; pass < 2; ++pass)
    {
      auto const t0 = Clock::now();
      bool const viaWrapper = (pass == 0) == wrapperFirst;
      ok = (viaWrapper ? solveOnce(solver, n) : directDss(storage, b, x)) && ok;
      (viaWrapper ? wrapperSeconds : directSeconds) =
          std::chrono::duration<double>(Clock::now() - t0).count();
    }
    if (!ok)
      state.SkipWithError("a solve failed");
  }
  state.counters["wrapper_s"] = wrapperSeconds;
  state.counters["direct_s"] = directSeconds;
  state.counters["overhead_pct"] = 100.0 * (wrapperSeconds - directSeconds) / directSeconds;
}

void solveArgs(benchmark::internal::Benchmark * b, std::vector<int> const & sides)
{
  for (int kind : {eDirect, eIterative, eDecomposer})
    for (int side : sides)
      b->Args({kind, side});
  b->ArgNames({"solver", "side"})
      ->Iterations(1)
      ->ReportAggregatesOnly(true)
      ->Unit(benchmark::kSecond)
      ->UseRealTime();
}
} // namespace

// Sides 47 and 74 (103,823 and 405,224 unknowns) three times each, side 100
// (1,000,000) once. Solver 0 is CSparseStoreSparseLinSysSolver, 1
// CSparseStoreBicgstabLinSysSolver, 2 CLinSysSolverSpaceDecomposer.
BENCHMARK(BM_Solve)
    ->Apply(
        [](benchmark::internal::Benchmark * b) {
          solveArgs(b, {47, 74});
        })
    ->Repetitions(3);
BENCHMARK(BM_Solve)->Apply([](benchmark::internal::Benchmark * b) { solveArgs(b, {100}); })->Repetitions(1);
BENCHMARK(BM_DssOverhead)
    ->ArgName("side")
    ->Arg(47)
    ->Arg(74)
    ->Iterations(1)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();
BENCHMARK(BM_DssOverhead)
    ->ArgName("side")
    ->Arg(100)
    ->Iterations(1)
    ->Repetitions(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();

int main(int argc, char ** argv)
{
  std::vector<char *> args;
  for (int i = 0; i < argc; ++i)
  {
    if (std::strcmp(argv[i], "--with_1m") == 0)
      g_with1M = true;
    else
      args.push_back(argv[i]);
  }
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
