#include "FailingAllocator.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace
{
// Counts run on every thread: the library's tasks allocate too.
std::atomic<long> g_budget{-1}; // allocations left before failing; -1: unarmed
std::atomic<long> g_count{0};
std::atomic<bool> g_failed{false};
std::atomic<long> g_live{0};

void * allocate(std::size_t size, bool nothrow)
{
  g_count.fetch_add(1, std::memory_order_relaxed);
  if (g_budget.load(std::memory_order_relaxed) >= 0 && g_budget.fetch_sub(1, std::memory_order_relaxed) <= 0)
  {
    g_budget.store(0, std::memory_order_relaxed); // stays exhausted
    g_failed.store(true, std::memory_order_relaxed);
    if (nothrow)
      return nullptr;
    throw std::bad_alloc();
  }
  void * p = std::malloc(size ? size : 1);
  if (!p && !nothrow)
    throw std::bad_alloc();
  if (p)
    g_live.fetch_add(1, std::memory_order_relaxed);
  return p;
}

void release(void * p) noexcept
{
  if (!p)
    return;
  g_live.fetch_sub(1, std::memory_order_relaxed);
  std::free(p);
}

void * allocateAligned(std::size_t size, std::align_val_t align, bool nothrow)
{
  void * p = allocate(0, nothrow); // counted and failed like any other, then freed
  if (!p)
    return nullptr;
  release(p);
  std::size_t const a = static_cast<std::size_t>(align);
  p = std::aligned_alloc(a, (size + a - 1) / a * a);
  if (!p && !nothrow)
    throw std::bad_alloc();
  if (p)
    g_live.fetch_add(1, std::memory_order_relaxed);
  return p;
}
} // namespace

namespace qzfi
{
void failAfter(long n)
{
  g_failed = false;
  g_count = 0;
  g_budget = n < 0 ? 0 : n;
}
void disarm() { g_budget = -1; }
long allocationsCounted() { return g_count; }
void resetCount() { g_count = 0; }
bool failed() { return g_failed; }
long liveAllocations() { return g_live; }
} // namespace qzfi

void * operator new(std::size_t size) { return allocate(size, false); }
void * operator new[](std::size_t size) { return allocate(size, false); }
void * operator new(std::size_t size, std::nothrow_t const &) noexcept { return allocate(size, true); }
void * operator new[](std::size_t size, std::nothrow_t const &) noexcept { return allocate(size, true); }
void * operator new(std::size_t size, std::align_val_t a) { return allocateAligned(size, a, false); }
void * operator new[](std::size_t size, std::align_val_t a) { return allocateAligned(size, a, false); }
void * operator new(std::size_t size, std::align_val_t a, std::nothrow_t const &) noexcept
{
  return allocateAligned(size, a, true);
}
void * operator new[](std::size_t size, std::align_val_t a, std::nothrow_t const &) noexcept
{
  return allocateAligned(size, a, true);
}
void operator delete(void * p) noexcept { release(p); }
void operator delete[](void * p) noexcept { release(p); }
void operator delete(void * p, std::size_t) noexcept { release(p); }
void operator delete[](void * p, std::size_t) noexcept { release(p); }
void operator delete(void * p, std::nothrow_t const &) noexcept { release(p); }
void operator delete[](void * p, std::nothrow_t const &) noexcept { release(p); }
void operator delete(void * p, std::align_val_t) noexcept { release(p); }
void operator delete[](void * p, std::align_val_t) noexcept { release(p); }
void operator delete(void * p, std::size_t, std::align_val_t) noexcept { release(p); }
void operator delete[](void * p, std::size_t, std::align_val_t) noexcept { release(p); }
