#pragma once
// A global allocator for this test executable alone that can be told to fail:
// after `n` more allocations through operator new (on any thread) the next
// one throws std::bad_alloc (the nothrow forms return null), and so does every
// one after it until disarmed. Unarmed, it is plain malloc and free.

#include <cstddef>

namespace qzfi
{
/// The next `n` allocations succeed, the ones after fail.
void failAfter(long n);
void disarm();
/// Allocations counted since the last failAfter or resetCount.
long allocationsCounted();
void resetCount();
/// Whether an allocation was refused since the last failAfter.
bool failed();
/// Blocks from operator new not yet deleted: equal before and after a piece
/// of work that keeps nothing, whatever the build (LeakSanitizer only runs in
/// the sanitizer build, and only at exit).
long liveAllocations();

/// Arms the allocator for a scope, and disarms it however the scope ends.
class ScopedFailure
{
public:
  explicit ScopedFailure(long n) { failAfter(n); }
  ~ScopedFailure() { disarm(); }
  ScopedFailure(ScopedFailure const &) = delete;
  ScopedFailure & operator=(ScopedFailure const &) = delete;
};
} // namespace qzfi
