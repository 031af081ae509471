// The persistence helpers at work sizes.
//
// Heap: a priority queue of 100k elements whose keys change all the time (an
// update of a random element, then an extraction and a re-insertion), and a
// full sort; all must stay logarithmic per operation.
// External vector: sequential and random read-modify-write passes over 1M
// elements of 16 bytes in its temporary file, and a growth by one element at
// a time.
//
// Reported medians, time per operation or per element.

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "QZmath/Persistence/ExternVector.h"
#include "QZmath/Persistence/Heap.h"

namespace
{
struct Item : CfpHeapMem
{
};

void BM_HeapUpdateExtractInsert(benchmark::State & state)
{
  std::size_t const n = static_cast<std::size_t>(state.range(0));
  std::vector<Item> items(n);
  std::mt19937 rng(1);
  std::uniform_real_distribution<double> key(0, 1);
  CfpHeap heap;
  heap.reserve(n);
  for (Item & it : items)
    heap.insert(&it, key(rng));
  for (auto _ : state)
  {
    heap.update(&items[rng() % n], key(rng));
    CfpHeapMem * top = heap.extract();
    heap.insert(top, key(rng));
  }
  state.SetItemsProcessed(state.iterations() * 3);
}
BENCHMARK(BM_HeapUpdateExtractInsert)->Arg(100000)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_HeapSort(benchmark::State & state)
{
  std::size_t const n = static_cast<std::size_t>(state.range(0));
  std::vector<Item> items(n);
  std::mt19937 rng(2);
  std::uniform_real_distribution<double> key(0, 1);
  for (auto _ : state)
  {
    state.PauseTiming();
    CfpHeap heap;
    heap.reserve(n);
    for (Item & it : items)
      heap.insert(&it, key(rng));
    state.ResumeTiming();
    heap.sort();
    benchmark::DoNotOptimize(heap.front());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long>(n));
}
BENCHMARK(BM_HeapSort)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

constexpr std::size_t kElem = 16;
constexpr std::size_t kCount = 1 << 20;

std::unique_ptr<VescaExtVec::ExternVectorVoidInterface> filledVector()
{
  std::unique_ptr<VescaExtVec::ExternVectorVoidInterface> v(VescaExtVec::CreateExternVectorVoid(kElem));
  unsigned char fill[kElem] = {1};
  v->resize(kCount, fill);
  return v;
}

void readModifyWrite(VescaExtVec::ExternVectorVoidInterface & v, std::size_t i)
{
  VescaExtVec::ElementHandle h = nullptr;
  unsigned char * p = static_cast<unsigned char *>(v.lockElement(i, &h));
  ++p[0];
  v.releaseElement(true, &h);
}

void BM_ExtVecSequentialPass(benchmark::State & state)
{
  auto v = filledVector();
  for (auto _ : state)
    for (std::size_t i = 0; i < kCount; ++i)
      readModifyWrite(*v, i);
  state.SetItemsProcessed(state.iterations() * static_cast<long>(kCount));
}
BENCHMARK(BM_ExtVecSequentialPass)->Unit(benchmark::kMillisecond)->Repetitions(3)->ReportAggregatesOnly(true);

void BM_ExtVecRandomAccess(benchmark::State & state)
{
  auto v = filledVector();
  std::mt19937 rng(3);
  for (auto _ : state)
    readModifyWrite(*v, rng() % kCount);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ExtVecRandomAccess)->Repetitions(3)->ReportAggregatesOnly(true);

void BM_ExtVecGrowByOne(benchmark::State & state)
{
  std::size_t const n = static_cast<std::size_t>(state.range(0));
  unsigned char fill[kElem] = {7};
  for (auto _ : state)
  {
    std::unique_ptr<VescaExtVec::ExternVectorVoidInterface> v(VescaExtVec::CreateExternVectorVoid(kElem));
    for (std::size_t i = 1; i <= n; ++i)
      v->resize(i, fill);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long>(n));
}
BENCHMARK(BM_ExtVecGrowByOne)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);
} // namespace

BENCHMARK_MAIN();
