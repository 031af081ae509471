#pragma once
// Dense vector of the library: a run of elements with an allocated size and a
// current size that may be trimmed below it. It can wrap memory it does not
// own; the first growth past that memory moves it into an owned array.
//
// Exists for char, unsigned char, int, unsigned int, float, double and the
// four point types; the bodies are instantiated in Vector.cpp for exactly
// those. Size mismatches throw plain `char const *` words ("NURBSsize",
// "NURBSmatrix_err"), which callers catch as `char const *` or with `...`.

#include <type_traits>

#include "QZmath/Foundation/Point3D.h"

namespace REmath
{
template <class T> class Vector
{
public:
  /// Size 1, holding 0.
  Vector();
  /// `n` zeros; a size below 1 gives an empty vector.
  explicit Vector(int n);
  Vector(Vector const & v);
  /// Takes the array over and leaves `v` empty.
  Vector(Vector && v) noexcept;
  /// Over `n` elements of external memory, which stays the caller's.
  Vector(T * memory, int n);
  virtual ~Vector();

  /// Copies the elements of `v`, resizing first when the sizes differ: a
  /// vector over external memory of the right size is written in place.
  Vector & operator=(Vector const & v);
  /// Fills the current size with `value`.
  Vector & operator=(T value);

  /// Returns `n`, or -1 when the array cannot be allocated (or `n` is
  /// negative); the vector is then unchanged. Growing past the allocated size
  /// moves to a new owned array keeping the contents; otherwise only the
  /// current size changes. Newly exposed elements are zero in both cases.
  int resize(int n);
  int resize(Vector const & v) { return resize(v.size()); }
  /// Sets the current size to `n` when 0 <= n <= allocated size, else nothing.
  void trim(int n);
  /// Current size := allocated size.
  void untrim() { m_size = m_allocated; }

  virtual void reset(T value);

  int n() const { return m_size; }
  int size() const { return m_size; }
  int rows() const { return m_size; }
  T * memory() { return m_memory; }
  T const * memory() const { return m_memory; }

  // Hot path: no check.
  T & operator[](int i) { return m_memory[i]; }
  T const & operator[](int i) const { return m_memory[i]; }

  /// Element-wise; "NURBSsize" when the sizes differ.
  Vector & operator+=(Vector const & v);
  Vector & operator-=(Vector const & v);

  /// Writes `v` from position `i` on; "NURBSmatrix_err" when it does not fit.
  void as(int i, Vector const & v);
  /// The `n` elements from position `i`; "NURBSmatrix_err" when they leave
  /// the vector.
  Vector get(int i, int n) const;

  /// Position of the smallest element (the first of equal ones); -1 for an
  /// empty vector. Plain numbers only: the points have no order of values.
  template <class U = T, class = std::enable_if_t<std::is_arithmetic<U>::value>> int minIndex() const
  {
    if (m_size < 1)
      return -1;
    int best = 0;
    for (int i = 1; i < m_size; ++i)
      if (m_memory[i] < m_memory[best])
        best = i;
    return best;
  }
  /// The smallest element; 0 for an empty vector.
  template <class U = T, class = std::enable_if_t<std::is_arithmetic<U>::value>> T minimum() const
  {
    int const i = minIndex();
    return i < 0 ? T() : m_memory[i];
  }

private:
  int m_allocated;
  int m_owns;
  int m_size;
  T * m_memory;
};

/// Element-wise; "NURBSsize" when the sizes differ.
template <class T> Vector<T> operator+(Vector<T> const & a, Vector<T> const & b);
template <class T> Vector<T> operator-(Vector<T> const & a, Vector<T> const & b);
/// Exact comparison of every element; "NURBSsize" when the sizes differ.
template <class T> bool operator==(Vector<T> const & a, Vector<T> const & b);
template <class T> bool operator!=(Vector<T> const & a, Vector<T> const & b);
} // namespace REmath
