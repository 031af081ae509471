#pragma once
// Plain records for sorting by an indirect key: one or more int payloads
// (indices, usually) and a key as the last field. The order operators compare
// the key alone; == compares every field. CBackSortRef sorts descending.
//
// They are aggregates of 32-bit fields with no virtual operations, so arrays
// of them can be sorted, copied and stored as raw memory.

struct CSortRef
{
  int m_iIdx;
  float m_fKey;

  bool operator<(CSortRef const & o) const { return m_fKey < o.m_fKey; }
  bool operator>(CSortRef const & o) const { return m_fKey > o.m_fKey; }
  bool operator<=(CSortRef const & o) const { return m_fKey <= o.m_fKey; }
  bool operator>=(CSortRef const & o) const { return m_fKey >= o.m_fKey; }
  bool operator==(CSortRef const & o) const { return m_iIdx == o.m_iIdx && m_fKey == o.m_fKey; }
};

/// As CSortRef with the order reversed: a < b when a's key is the greater.
struct CBackSortRef
{
  int m_iIdx;
  float m_fKey;

  bool operator<(CBackSortRef const & o) const { return m_fKey > o.m_fKey; }
  bool operator>(CBackSortRef const & o) const { return m_fKey < o.m_fKey; }
  bool operator<=(CBackSortRef const & o) const { return m_fKey >= o.m_fKey; }
  bool operator>=(CBackSortRef const & o) const { return m_fKey <= o.m_fKey; }
  bool operator==(CBackSortRef const & o) const { return m_iIdx == o.m_iIdx && m_fKey == o.m_fKey; }
};

struct CSortRefInt
{
  int m_iIdx;
  int m_iKey;

  /// Leaves both fields as they are, like a plain record.
  CSortRefInt() {}
  CSortRefInt(int idx, int key) : m_iIdx(idx), m_iKey(key) {}

  bool operator<(CSortRefInt const & o) const { return m_iKey < o.m_iKey; }
  bool operator>(CSortRefInt const & o) const { return m_iKey > o.m_iKey; }
  bool operator<=(CSortRefInt const & o) const { return m_iKey <= o.m_iKey; }
  bool operator>=(CSortRefInt const & o) const { return m_iKey >= o.m_iKey; }
  bool operator==(CSortRefInt const & o) const { return m_iIdx == o.m_iIdx && m_iKey == o.m_iKey; }
};

struct CSortRef2
{
  int m_iIdx1;
  int m_iIdx2;
  float m_fKey;

  bool operator<(CSortRef2 const & o) const { return m_fKey < o.m_fKey; }
  bool operator>(CSortRef2 const & o) const { return m_fKey > o.m_fKey; }
  bool operator<=(CSortRef2 const & o) const { return m_fKey <= o.m_fKey; }
  bool operator>=(CSortRef2 const & o) const { return m_fKey >= o.m_fKey; }
  bool operator==(CSortRef2 const & o) const
  {
    return m_iIdx1 == o.m_iIdx1 && m_iIdx2 == o.m_iIdx2 && m_fKey == o.m_fKey;
  }
};

struct CSortRef2Int
{
  int m_iIdx1;
  int m_iIdx2;
  int m_iKey;

  bool operator<(CSortRef2Int const & o) const { return m_iKey < o.m_iKey; }
  bool operator>(CSortRef2Int const & o) const { return m_iKey > o.m_iKey; }
  bool operator<=(CSortRef2Int const & o) const { return m_iKey <= o.m_iKey; }
  bool operator>=(CSortRef2Int const & o) const { return m_iKey >= o.m_iKey; }
  bool operator==(CSortRef2Int const & o) const
  {
    return m_iIdx1 == o.m_iIdx1 && m_iIdx2 == o.m_iIdx2 && m_iKey == o.m_iKey;
  }
};

struct CSortRef3
{
  int m_iIdx1;
  int m_iIdx2;
  int m_iIdx3;
  float m_fKey;

  bool operator<(CSortRef3 const & o) const { return m_fKey < o.m_fKey; }
  bool operator>(CSortRef3 const & o) const { return m_fKey > o.m_fKey; }
  bool operator<=(CSortRef3 const & o) const { return m_fKey <= o.m_fKey; }
  bool operator>=(CSortRef3 const & o) const { return m_fKey >= o.m_fKey; }
  bool operator==(CSortRef3 const & o) const
  {
    return m_iIdx1 == o.m_iIdx1 && m_iIdx2 == o.m_iIdx2 && m_iIdx3 == o.m_iIdx3 && m_fKey == o.m_fKey;
  }
};

/// A pair of ints that is only ever compared for equality.
struct CSliceVertFlag
{
  int m_iFirst;
  int m_iSecond;

  bool operator==(CSliceVertFlag const & o) const
  {
    return m_iFirst == o.m_iFirst && m_iSecond == o.m_iSecond;
  }
};

static_assert(sizeof(CSortRef) == 8 && sizeof(CSortRef3) == 16 && sizeof(CSortRef2Int) == 12,
              "sort records are packed 32-bit fields");
