#pragma once
// An array of fixed-size untyped elements that lives in an anonymous temporary
// file, for data too large for memory. Only the elements a caller holds at a
// moment are in memory: lockElement brings one in, releaseElement gives it up
// and writes it back when it was changed.
//
// The file appears with the first reserve (or growing resize) and disappears
// with clear() or the destructor; it never has a name in the file system, so
// nothing outlives the vector however the process ends. Every failure of the
// file (no temporary file, a seek, a read or a write that fails, a size the
// file cannot reach) is reported as running out of memory: std::bad_alloc
// whose what() is "bad allocation". An exception leaves the vector as the last
// completed step left it.
//
// Access is fastest in order: an element right after the last one transferred
// costs a relative seek only. Positions are 64-bit, so files beyond 2 GiB work.
//
// One vector belongs to one thread.

#include <cstddef>
#include <cstdint>

namespace VescaExtVec
{
/// The cell a lock hands out; its layout is private to the vector.
struct ElementCell;
/// Token of one hold on a locked element, kept by the caller between lock and
/// release. A hold dropped by a shrinking resize or by clear() goes stale: its
/// release does nothing. No handle survives the vector.
typedef ElementCell * ElementHandle;

class ExternVectorVoidInterface
{
public:
  virtual ~ExternVectorVoidInterface() = default;

  /// Grows the file to room for n elements; never shrinks.
  virtual void reserve(std::size_t n) = 0;
  /// Sets the number of elements in use. Growing without `fill` leaves the
  /// bytes the file already holds there (zeros where it never had any), but
  /// for the last byte of the new last element: one zero byte written there
  /// is how the file reaches the new end;
  /// growing with `fill` writes a copy of its element-size bytes to every new
  /// element. Shrinking drops the cached copies beyond the new end, held or
  /// not, without writing them back. Above 0x7fffffff elements it fails.
  virtual void resize(std::size_t n, const void * fill = nullptr) = 0;
  virtual std::size_t size() const = 0;
  virtual std::size_t capacity() const = 0;
  /// Closes (and so deletes) the file and drops every cached element.
  virtual void clear() = 0;

  /// The in-memory copy of element `index`, valid until the last hold on it
  /// is released. All holders of one element share one copy. `index` must be
  /// below size().
  virtual void * lockElement(std::size_t index, ElementHandle * handle) = 0;
  /// One more hold on an element already locked through `handle`.
  virtual void addElementRef(ElementHandle * handle) = 0;
  /// Gives up one hold. `modified` marks the copy as changed; when the last
  /// hold goes, a changed copy is written back to the file.
  virtual void releaseElement(bool modified, ElementHandle * handle) = 0;
};

/// A new external vector of elements of `elementSize` bytes, owned by the
/// caller (delete it through the interface). The size is an unsigned 64-bit
/// count of bytes. No file is made yet. A size of 0
/// throws std::bad_alloc.
ExternVectorVoidInterface * CreateExternVectorVoid(std::uint64_t elementSize);
} // namespace VescaExtVec
