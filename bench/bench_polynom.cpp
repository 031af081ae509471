// Products and integrals of placed kernels, as the scalar-product cache
// computes them on a miss: two one-variable factors of the quadratic B-spline
// kernel (three pieces of degree 2, or its first or second derivative),
// scaled to a node's cell and shifted to its centre, multiplied and
// integrated. Also the whole 3D summand product, the allocating product of
// two placed kernels, and the same product in the general 27-box form.
//
// Every benchmark reports the heap allocations per iteration ("allocs"): the
// buffer-taking forms must show 0 once their buffers have grown.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>
#include <vector>

#include "QZmath/VolTriang/PiecewisePolynom.h"
#include "QZmath/VolTriang/ProductPolynom.h"
#include "QZmath/VolTriang/SingleVarPolynom.h"

namespace
{
std::atomic<long long> g_allocs{0};
}

// Counting replacements of the global allocation functions. GCC pairs the
// replaced `operator new` with `free` and warns; the pairing is correct here.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void * operator new(std::size_t n)
{
  g_allocs.fetch_add(1, std::memory_order_relaxed);
  if (void * p = std::malloc(n ? n : 1))
    return p;
  throw std::bad_alloc();
}
void operator delete(void * p) noexcept { std::free(p); }
void operator delete(void * p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace
{
using namespace VolTr;

// k, k' or k'' of the quadratic B-spline on the knots -1.5 .. 1.5.
CSingleVarLimitedPolynom kernelFactor(int derivative)
{
  double const a[3] = {1.125, 1.5, 0.5}, b[3] = {0.75, 0.0, -1.0}, c[3] = {1.125, -1.5, 0.5};
  CSingleVarPolynom const p[3] = {{3, a}, {3, b}, {3, c}};
  double const knots[4] = {-1.5, -0.5, 0.5, 1.5};
  CSingleVarLimitedPolynom f(0.0, 3, p, 4, knots);
  for (int i = 0; i < derivative; ++i)
    f.makeDerivative(&f);
  return f;
}

// The factor at a node: k(s (x - c)) * cbrt(N), N = s^3 as for level 0.
CSingleVarLimitedPolynom placed(CSingleVarLimitedPolynom const & k, double s, double c)
{
  CSingleVarLimitedPolynom f(k);
  f.scaleArgument(s);
  f.substituteArgPlusConst(0.0 - c);
  f *= std::cbrt(s * s * s);
  return f;
}

struct Pair
{
  CSingleVarLimitedPolynom left, right;
};

// Left factors at the origin of a cell of size 1, right factors of the same
// or the next coarser depth at every offset whose supports overlap: the
// pairs one table of the cache holds.
std::vector<Pair> overlappingPairs(int rightDerivative)
{
  CSingleVarLimitedPolynom const k = kernelFactor(0), r = kernelFactor(rightDerivative);
  std::vector<Pair> pairs;
  for (double s : {1.0, 0.5})
    for (int o = -3; o <= 3; ++o)
    {
      Pair p{placed(k, 1.0, 0.0), placed(r, s, 0.5 * o)};
      if (p.left.getRightBound() > p.right.getLeftBound() && p.right.getRightBound() > p.left.getLeftBound())
        pairs.push_back(p);
    }
  return pairs;
}

void reportAllocs(benchmark::State & state, long long before)
{
  state.counters["allocs"] =
      benchmark::Counter(static_cast<double>(g_allocs.load() - before), benchmark::Counter::kAvgIterations);
}

// multiplyWithBuffer + integrateWithBuffer over all overlapping pairs.
void BM_FactorProductIntegral_Buffered(benchmark::State & state)
{
  std::vector<Pair> const pairs = overlappingPairs(static_cast<int>(state.range(0)));
  CSingleVarLimitedPolynom product, shiftBuffer;
  CSingleVarPolynom primitive;
  for (Pair const & p : pairs) // warm-up: the buffers reach their sizes
    p.left.multiplyWithBuffer(&product, p.right, &shiftBuffer);
  long long const before = g_allocs.load();
  for (auto _ : state)
  {
    double sum = 0.0;
    for (Pair const & p : pairs)
    {
      p.left.multiplyWithBuffer(&product, p.right, &shiftBuffer);
      sum += product.integrateWithBuffer(&primitive);
    }
    benchmark::DoNotOptimize(sum);
  }
  reportAllocs(state, before);
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(pairs.size()));
}

// The plain `multiply`, which copies the operand it moves to the other shift.
void BM_FactorProductIntegral_Plain(benchmark::State & state)
{
  std::vector<Pair> const pairs = overlappingPairs(static_cast<int>(state.range(0)));
  CSingleVarLimitedPolynom product;
  CSingleVarPolynom primitive;
  long long const before = g_allocs.load();
  for (auto _ : state)
  {
    double sum = 0.0;
    for (Pair const & p : pairs)
    {
      p.left.multiply(&product, p.right);
      sum += product.integrateWithBuffer(&primitive);
    }
    benchmark::DoNotOptimize(sum);
  }
  reportAllocs(state, before);
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(pairs.size()));
}

// The whole one-variable miss: both factors placed into reused temporaries
// (copy, scale, shift, normalise), then multiplied and integrated.
void BM_FactorMissPath(benchmark::State & state)
{
  CSingleVarLimitedPolynom const k = kernelFactor(0), r = kernelFactor(static_cast<int>(state.range(0)));
  CSingleVarLimitedPolynom leftTemp, rightTemp, product, shiftBuffer;
  CSingleVarPolynom primitive;
  auto miss = [&](int o) {
    leftTemp = k;
    leftTemp.scaleArgument(2.0);
    leftTemp.substituteArgPlusConst(0.0 - 0.0);
    leftTemp *= 2.0;
    rightTemp = r;
    rightTemp.scaleArgument(2.0);
    rightTemp.substituteArgPlusConst(0.0 - 0.25 * o);
    rightTemp *= 2.0;
    leftTemp.multiplyWithBuffer(&product, rightTemp, &shiftBuffer);
    return product.integrateWithBuffer(&primitive);
  };
  benchmark::DoNotOptimize(miss(1)); // warm-up: the temporaries reach their sizes
  long long const before = g_allocs.load();
  for (auto _ : state)
  {
    double sum = 0.0;
    for (int o = -2; o <= 2; ++o)
      sum += miss(o);
    benchmark::DoNotOptimize(sum);
  }
  reportAllocs(state, before);
  state.SetItemsProcessed(state.iterations() * 5);
}

CProductPolynom placedSummand(double s, double const * c, int derivativeAxis)
{
  CSingleVarLimitedPolynom const k = kernelFactor(0), d = kernelFactor(1);
  return CProductPolynom(placed(derivativeAxis == 0 ? d : k, s, c[0]), placed(derivativeAxis == 1 ? d : k, s, c[1]),
                         placed(derivativeAxis == 2 ? d : k, s, c[2]));
}

// One 3D summand pair: three one-variable products and the integral.
void BM_SummandProductIntegral_Buffered(benchmark::State & state)
{
  double const c0[3] = {0.0, 0.0, 0.0}, c1[3] = {0.5, -1.0, 1.5};
  CProductPolynom const a = placedSummand(1.0, c0, -1), b = placedSummand(1.0, c1, 0);
  CProductPolynom product;
  CSingleVarLimitedPolynom shiftBuffer;
  CSingleVarPolynom primitive;
  a.multiplyWithBuffer(&product, b, &shiftBuffer);
  long long const before = g_allocs.load();
  for (auto _ : state)
  {
    a.multiplyWithBuffer(&product, b, &shiftBuffer);
    benchmark::DoNotOptimize(product.integrateOnSupportWithBuffer(&primitive));
  }
  reportAllocs(state, before);
}

// A placed kernel K(p - c) in the separable form, built as the kernels are:
// one summand about the origin, then shifted lazily.
CProductPiecewisePolynom separableKernelAt(double const * c)
{
  CSingleVarLimitedPolynom const k = kernelFactor(0);
  CProductPolynom const s(k, k, k);
  CProductPiecewisePolynom K(1, &s);
  double const minusC[3] = {-c[0], -c[1], -c[2]};
  K.substituteArgPlusConst(minusC);
  return K;
}

// The allocating product of two placed kernels and its integral.
void BM_KernelProduct3D_Separable(benchmark::State & state)
{
  double const c0[3] = {0.0, 0.0, 0.0}, c1[3] = {0.5, -1.0, 1.5};
  CProductPiecewisePolynom const a = separableKernelAt(c0), b = separableKernelAt(c1);
  long long const before = g_allocs.load();
  for (auto _ : state)
  {
    CProductPiecewisePolynom const ab = a * b;
    benchmark::DoNotOptimize(ab.integrateOnSupport());
  }
  reportAllocs(state, before);
}

// The general form: the kernel as 27 boxes, two placed copies multiplied.
CPiecewisePolynom generalKernel()
{
  double const w[3][3] = {{1.125, 1.5, 0.5}, {0.75, 0.0, -1.0}, {1.125, -1.5, 0.5}};
  double const knots[4] = {-1.5, -0.5, 0.5, 1.5};
  CPiecewisePolynom r;
  for (int axis = 0; axis < 3; ++axis)
  {
    CPiecewisePolynom k;
    for (int i = 0; i < 3; ++i)
    {
      CPolynom p;
      for (int e = 0; e < 3; ++e)
        p.insertWeightedMonom(CWeightedMonom(w[i][e], CMonom::x_i_pow_d(axis, e)));
      CParallelepiped box(CInterval::all(), CInterval::all(), CInterval::all());
      box.setDimension(axis, CInterval(knots[i], knots[i + 1]));
      k.addTerm(CLimitedPolynom(p, box, nullptr));
    }
    r = axis == 0 ? k : r * k;
  }
  return r;
}

void BM_KernelProduct3D_General(benchmark::State & state)
{
  CPiecewisePolynom const a = generalKernel();
  CPiecewisePolynom b = a;
  double const minusC1[3] = {-0.5, 1.0, -1.5};
  b.substituteArgPlusConst(minusC1);
  long long const before = g_allocs.load();
  for (auto _ : state)
  {
    CPiecewisePolynom const ab = a * b;
    benchmark::DoNotOptimize(ab.integrateOnSupport());
  }
  reportAllocs(state, before);
}
} // namespace

// Argument: the derivative order of the right factor (0: k k, 1: k k', 2: k k'').
BENCHMARK(BM_FactorProductIntegral_Buffered)->DenseRange(0, 2)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_FactorProductIntegral_Plain)->DenseRange(0, 2)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_FactorMissPath)->DenseRange(0, 2)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_SummandProductIntegral_Buffered)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_KernelProduct3D_Separable)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_KernelProduct3D_General)->Repetitions(5)->ReportAggregatesOnly(true);

BENCHMARK_MAIN();
