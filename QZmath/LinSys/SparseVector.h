#pragma once
// A sparse vector: parallel vectors of positions, strictly ascending, and of
// the values at them. It is the row of one kind of row storage and is usable
// by itself, with a simple file form.
//
// File form, in the machine's byte order and with no header:
//   4 bytes            int count
//   4 x count bytes    int positions
//   sizeof(T) x count  values
//
// A file may come from anywhere, so loading trusts nothing: a count whose
// data is not there fails cleanly, without first allocating room for it.
//
// Exists for float and double (instantiated in the .cpp).

#include <cstdio>
#include <vector>

namespace REmath
{
template <class T>
class CSparseVectorTmpl
{
public:
  CSparseVectorTmpl() = default;
  /// The elements of `array` that are not exactly 0, as by AssignByVector.
  CSparseVectorTmpl(int size, T const * array);
  CSparseVectorTmpl(CSparseVectorTmpl const &) = default;
  CSparseVectorTmpl & operator=(CSparseVectorTmpl const &) = default;
  virtual ~CSparseVectorTmpl() = default;

  /// The value at `position`, 0 when none is stored (binary search).
  T operator[](int position) const { return GetElement(position); }
  T GetElement(int position) const;

  int GetNOfNonZeroElements() const { return static_cast<int>(m_positions.size()); }
  /// Position of pair k; k must be below GetNOfNonZeroElements().
  int GetNonZeroPos(int k) const { return m_positions[k]; }
  void GetNonZeroElementAndPos(int k, T & value, int & position) const
  {
    value = m_values[k];
    position = m_positions[k];
  }
  /// First position; 0x7FFFFFFF when empty.
  int GetMinNonZeroIdx() const;
  /// Last position; -1 when empty.
  int GetMaxNonZeroIdx() const;

  void ReserveNonZeroElem(int count);
  /// Appends a pair with no search and no test: the caller keeps the
  /// positions ascending.
  void SetElementNoIdxSearch(int position, T value)
  {
    m_positions.push_back(position);
    m_values.push_back(value);
  }
  /// Replaces the contents by the elements of `array` that differ from
  /// exactly 0 (NaN counts as non-zero), in ascending order.
  void AssignByVector(int size, T const * array);
  void Reset() { Clear(); }
  void Clear();

  /// False when the two vectors differ in length or a write fails. With no
  /// pairs only the count is written.
  bool SaveToFile(std::FILE * file) const;
  /// Empties the vector and reads one in the file form. True for a count
  /// below 1 (nothing else is read). False when the file ends before the
  /// data or a read fails; the vector is then empty. Positions are not
  /// validated.
  bool LoadFromFile(std::FILE * file);

protected:
  /// Index of `position` in the two vectors, or -1.
  int GetCompactIdx(int position) const;
  /// True when the value equals exactly 0; a float is widened first.
  bool IsElementZero(double value) const { return value == 0.0; }

private:
  std::vector<int> m_positions;
  std::vector<T> m_values;
};

extern template class CSparseVectorTmpl<float>;
extern template class CSparseVectorTmpl<double>;
} // namespace REmath
