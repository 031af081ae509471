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

// `align` 0 is the default alignment (plain malloc).
void * allocate(std::size_t size, bool nothrow, std::size_t align = 0)
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
  size = size ? size : 1;
  void * p = align ? std::aligned_alloc(align, (size + align - 1) / align * align) : std::malloc(size);
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
void * operator new(std::size_t size, std::align_val_t a) { return allocate(size, false, std::size_t(a)); }
void * operator new[](std::size_t size, std::align_val_t a) { return allocate(size, false, std::size_t(a)); }
void * operator new(std::size_t size, std::align_val_t a, std::nothrow_t const &) noexcept
{
  return allocate(size, true, std::size_t(a));
}
void * operator new[](std::size_t size, std::align_val_t a, std::nothrow_t const &) noexcept
{
  return allocate(size, true, std::size_t(a));
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
