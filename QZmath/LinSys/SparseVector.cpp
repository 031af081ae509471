#include "QZmath/LinSys/SparseVector.h"

#include <algorithm>
#include <climits>
#include <cstddef>

namespace REmath
{
namespace
{
static_assert(sizeof(int) == 4, "the file form has 4-byte counts and positions");

/// Reads `count` elements into `out`, growing it a bounded chunk at a time, so
/// that the room taken never runs far ahead of the data actually in the file:
/// a forged count in a short file fails at the end of the file instead of
/// allocating first.
template <class U>
bool tf_readGrowing(std::FILE * file, std::vector<U> & out, std::size_t count)
{
  constexpr std::size_t kChunk = std::size_t(1) << 16;
  std::size_t done = 0;
  while (done < count)
  {
    std::size_t const n = std::min(kChunk, count - done);
    out.resize(done + n);
    if (std::fread(out.data() + done, sizeof(U), n, file) != n)
      return false;
    done += n;
  }
  return true;
}
} // namespace

template <class T>
CSparseVectorTmpl<T>::CSparseVectorTmpl(int size, T const * array)
{
  AssignByVector(size, array);
}

template <class T>
int CSparseVectorTmpl<T>::GetCompactIdx(int position) const
{
  // A plain bisection: it stays within the vectors even when the positions
  // were loaded from a file and are not ascending.
  int lo = 0, hi = static_cast<int>(m_positions.size()) - 1;
  while (lo <= hi)
  {
    int const mid = lo + (hi - lo) / 2;
    int const p = m_positions[mid];
    if (p == position)
      return mid;
    if (p < position)
      lo = mid + 1;
    else
      hi = mid - 1;
  }
  return -1;
}

template <class T>
T CSparseVectorTmpl<T>::GetElement(int position) const
{
  int const k = GetCompactIdx(position);
  return k < 0 ? T(0) : m_values[k];
}

template <class T>
int CSparseVectorTmpl<T>::GetMinNonZeroIdx() const
{
  return m_positions.empty() ? 0x7FFFFFFF : m_positions.front();
}

template <class T>
int CSparseVectorTmpl<T>::GetMaxNonZeroIdx() const
{
  return m_positions.empty() ? -1 : m_positions.back();
}

template <class T>
void CSparseVectorTmpl<T>::ReserveNonZeroElem(int count)
{
  if (count <= 0)
    return;
  m_positions.reserve(static_cast<std::size_t>(count));
  m_values.reserve(static_cast<std::size_t>(count));
}

template <class T>
void CSparseVectorTmpl<T>::AssignByVector(int size, T const * array)
{
  Clear();
  if (size <= 0 || !array)
    return;
  int count = 0;
  for (int i = 0; i < size; ++i)
    if (!IsElementZero(array[i]))
      ++count;
  ReserveNonZeroElem(count);
  for (int i = 0; i < size; ++i)
    if (!IsElementZero(array[i]))
      SetElementNoIdxSearch(i, array[i]);
}

template <class T>
void CSparseVectorTmpl<T>::Clear()
{
  m_positions.clear();
  m_values.clear();
}

template <class T>
bool CSparseVectorTmpl<T>::SaveToFile(std::FILE * file) const
{
  if (!file || m_positions.size() != m_values.size() || m_positions.size() > static_cast<std::size_t>(INT_MAX))
    return false;
  int const count = static_cast<int>(m_positions.size());
  if (std::fwrite(&count, sizeof count, 1, file) != 1)
    return false;
  if (count < 1)
    return true;
  std::size_t const n = static_cast<std::size_t>(count);
  return std::fwrite(m_positions.data(), sizeof(int), n, file) == n &&
         std::fwrite(m_values.data(), sizeof(T), n, file) == n;
}

template <class T>
bool CSparseVectorTmpl<T>::LoadFromFile(std::FILE * file)
{
  Clear();
  if (!file)
    return false;
  int count = 0;
  if (std::fread(&count, sizeof count, 1, file) != 1)
    return false;
  if (count < 1)
    return true;
  std::size_t const n = static_cast<std::size_t>(count);
  if (tf_readGrowing(file, m_positions, n) && tf_readGrowing(file, m_values, n))
    return true;
  // Half a vector is worse than none: a failed load leaves no pairs behind,
  // and gives back the room the partial data took.
  std::vector<int>().swap(m_positions);
  std::vector<T>().swap(m_values);
  return false;
}

template class CSparseVectorTmpl<float>;
template class CSparseVectorTmpl<double>;
} // namespace REmath
