#pragma once
// A binary max-heap of pointers to elements that know their own place in it,
// so that an element can have its key changed, or be taken out, in
// logarithmic time without a search. Elements derive from CfpHeapMem; the
// heap never owns, copies or deletes them.
//
// Invariants: for every index i above 0 the key at i is not greater than the
// key at (i - 1) / 2, and the element at index i has heapPos i (unless a
// caller set it directly). Children of i stand at 2i + 1 and 2i + 2.
//
// Null entries, which only CfpHeap(n) makes, rank below every element. An
// element that claims a place in which the heap holds something else (a copy,
// or one of another heap) counts as outside: update and remove leave it and
// the heap alone.
//
// One heap and its elements belong to one thread.

#include <cstddef>

/// The part of an element that the heap manages: its key and its place.
class CfpHeapMem
{
public:
  CfpHeapMem() = default;
  /// A copy claims the place of the original: call setOutofHeap() on it.
  CfpHeapMem(CfpHeapMem const &) = default;
  CfpHeapMem & operator=(CfpHeapMem const &) = default;
  virtual ~CfpHeapMem() = default;

  double getHeapKey() const { return m_dHeapKey; }
  void setHeapKey(double key) { m_dHeapKey = key; }
  int getHeapPos() const { return m_iHeapPos; }
  void setHeapPos(int pos) { m_iHeapPos = pos; }
  bool inHeap() const { return m_iHeapPos != -1; }
  void setOutofHeap() { m_iHeapPos = -1; }

private:
  double m_dHeapKey = 0.0;
  int m_iHeapPos = -1;
};

class CfpHeap
{
public:
  CfpHeap();
  /// A heap of n null entries, so size() is n: not a reservation (see reserve).
  explicit CfpHeap(std::size_t n);
  ~CfpHeap();
  CfpHeap(CfpHeap const &) = delete;
  CfpHeap & operator=(CfpHeap const &) = delete;

  /// Appends m and sifts it up. Whether m is in the heap already is not
  /// checked. A null m is ignored.
  void insert(CfpHeapMem * m);
  /// Sets the key of m, then inserts it.
  void insert(CfpHeapMem * m, double key);
  /// Restores the order after m's key changed; nothing when m is outside.
  void update(CfpHeapMem * m);
  /// Sets m's key and restores the order; when m is outside, nothing happens
  /// and the key stays.
  void update(CfpHeapMem * m, double key);
  /// Takes out the element of greatest key; null when the heap is empty.
  CfpHeapMem * extract();
  /// Takes out m and returns it; null, with nothing changed, when m is outside.
  CfpHeapMem * remove(CfpHeapMem * m);
  /// Sorts the array by key, greatest first, and renumbers the places. The
  /// result is a valid heap. Elements of equal key come in no fixed order.
  void sort();
  void reserve(std::size_t n);

  /// The entry at index i; null beyond the end.
  CfpHeapMem * at(std::size_t i);
  CfpHeapMem const * at(std::size_t i) const;
  /// An element of greatest key; null when the heap is empty.
  CfpHeapMem * front();
  CfpHeapMem const * front() const;
  std::size_t size() const;
  bool empty() const;

private:
  struct CfpHeapBody;
  CfpHeapBody * m_pBody;
};
