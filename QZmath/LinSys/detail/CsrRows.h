#pragma once
// Reading rows of a compressed-row matrix that may be unfinished.
//
// A filler leaves -1 in the row index behind the last row it filled, and a
// preallocated matrix starts with -1 everywhere. Every reader of this library
// goes through csrRowRange, so such rows read as empty instead of sending a
// walk to position -2.

namespace REmath
{
namespace detail
{
/// Positions [begin, end) of the stored elements of `row`, without the index
/// base, from the row beginnings and ends. False, with an empty range, when
/// they do not describe a row inside the `stored` elements (a row never
/// filled, or a row outside the matrix).
inline bool csrRowRange(int const * pointerB, int const * pointerE, int matrixSize, int stored, int base,
                        int row, int & begin, int & end)
{
  begin = 0;
  end = 0;
  if (pointerB == nullptr || pointerE == nullptr || row < 0 || row >= matrixSize)
    return false;
  long long const b = static_cast<long long>(pointerB[row]) - base;
  long long const e = static_cast<long long>(pointerE[row]) - base;
  if (b < 0 || e < b || e > stored)
    return false;
  begin = static_cast<int>(b);
  end = static_cast<int>(e);
  return true;
}
} // namespace detail
} // namespace REmath
