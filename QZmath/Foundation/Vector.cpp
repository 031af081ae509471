#include "QZmath/Foundation/Vector.h"

#include <algorithm>
#include <new>
#include <utility>

#include "QZmath/Foundation/detail/DenseElement.h"

namespace REmath
{
namespace
{
template <class T> T * tf_allocZeros(int n)
{
  T * p = new T[static_cast<std::size_t>(n)];
  std::fill(p, p + n, detail::zeroElement<T>());
  return p;
}
} // namespace

template <class T> Vector<T>::Vector() : m_allocated(1), m_owns(1), m_size(1), m_memory(tf_allocZeros<T>(1)) {}

template <class T>
Vector<T>::Vector(int n)
    : m_allocated(n > 0 ? n : 0), m_owns(1), m_size(n > 0 ? n : 0), m_memory(n > 0 ? tf_allocZeros<T>(n) : nullptr)
{
}

template <class T>
Vector<T>::Vector(Vector const & v)
    : m_allocated(v.m_size), m_owns(1), m_size(v.m_size), m_memory(v.m_size > 0 ? new T[v.m_size] : nullptr)
{
  std::copy(v.m_memory, v.m_memory + m_size, m_memory);
}

template <class T>
Vector<T>::Vector(Vector && v) noexcept
    : m_allocated(v.m_allocated), m_owns(v.m_owns), m_size(v.m_size), m_memory(v.m_memory)
{
  v.m_allocated = v.m_size = 0;
  v.m_owns = 1;
  v.m_memory = nullptr;
}

template <class T>
Vector<T>::Vector(T * memory, int n)
    : m_allocated(n > 0 ? n : 0), m_owns(0), m_size(n > 0 ? n : 0), m_memory(memory)
{
}

template <class T> Vector<T>::~Vector()
{
  if (m_owns)
    delete[] m_memory;
}

template <class T> Vector<T> & Vector<T>::operator=(Vector const & v)
{
  if (this == &v)
    return *this;
  if (m_size != v.m_size && resize(v.m_size) < 0)
    throw std::bad_alloc();
  std::copy(v.m_memory, v.m_memory + m_size, m_memory);
  return *this;
}

template <class T> Vector<T> & Vector<T>::operator=(T value)
{
  reset(value);
  return *this;
}

template <class T> int Vector<T>::resize(int n)
{
  if (n < 0)
    return -1;
  if (n > m_allocated)
  {
    T * p = new (std::nothrow) T[static_cast<std::size_t>(n)];
    if (!p)
      return -1;
    std::copy(m_memory, m_memory + m_size, p);
    std::fill(p + m_size, p + n, detail::zeroElement<T>());
    if (m_owns)
      delete[] m_memory;
    m_memory = p;
    m_owns = 1;
    m_allocated = n;
  }
  else if (n > m_size)
    std::fill(m_memory + m_size, m_memory + n, detail::zeroElement<T>());
  m_size = n;
  return n;
}

template <class T> void Vector<T>::trim(int n)
{
  if (n >= 0 && n <= m_allocated)
    m_size = n;
}

template <class T> void Vector<T>::reset(T value) { std::fill(m_memory, m_memory + m_size, value); }

template <class T> Vector<T> & Vector<T>::operator+=(Vector const & v)
{
  if (m_size != v.m_size)
    throw "NURBSsize";
  for (int i = 0; i < m_size; ++i)
    detail::addTo(m_memory[i], v.m_memory[i]);
  return *this;
}

template <class T> Vector<T> & Vector<T>::operator-=(Vector const & v)
{
  if (m_size != v.m_size)
    throw "NURBSsize";
  for (int i = 0; i < m_size; ++i)
    detail::subFrom(m_memory[i], v.m_memory[i]);
  return *this;
}

template <class T> void Vector<T>::as(int i, Vector const & v)
{
  // Negative positions are refused as well: the window must lie inside.
  if (i < 0 || static_cast<long long>(i) + v.m_size > m_size)
    throw "NURBSmatrix_err";
  std::copy(v.m_memory, v.m_memory + v.m_size, m_memory + i);
}

template <class T> Vector<T> Vector<T>::get(int i, int n) const
{
  if (i < 0 || n < 0 || static_cast<long long>(i) + n > m_size)
    throw "NURBSmatrix_err";
  Vector r(n);
  std::copy(m_memory + i, m_memory + i + n, r.m_memory);
  return r;
}

template <class T> Vector<T> operator+(Vector<T> const & a, Vector<T> const & b)
{
  if (a.size() != b.size())
    throw "NURBSsize";
  Vector<T> r(a);
  r += b;
  return r;
}

template <class T> Vector<T> operator-(Vector<T> const & a, Vector<T> const & b)
{
  if (a.size() != b.size())
    throw "NURBSsize";
  Vector<T> r(a);
  r -= b;
  return r;
}

template <class T> bool operator==(Vector<T> const & a, Vector<T> const & b)
{
  if (a.size() != b.size())
    throw "NURBSsize";
  for (int i = 0; i < a.size(); ++i)
    if (!detail::elementEqual(a[i], b[i]))
      return false;
  return true;
}

template <class T> bool operator!=(Vector<T> const & a, Vector<T> const & b) { return !(a == b); }

#define QZ_DENSE_INSTANTIATE_VECTOR(T)                                                                           \
  template class Vector<T>;                                                                                    \
  template Vector<T> operator+(Vector<T> const &, Vector<T> const &);                                          \
  template Vector<T> operator-(Vector<T> const &, Vector<T> const &);                                          \
  template bool operator==(Vector<T> const &, Vector<T> const &);                                              \
  template bool operator!=(Vector<T> const &, Vector<T> const &);

QZ_DENSE_INSTANTIATE_VECTOR(char)
QZ_DENSE_INSTANTIATE_VECTOR(unsigned char)
QZ_DENSE_INSTANTIATE_VECTOR(int)
QZ_DENSE_INSTANTIATE_VECTOR(unsigned int)
QZ_DENSE_INSTANTIATE_VECTOR(float)
QZ_DENSE_INSTANTIATE_VECTOR(double)
QZ_DENSE_INSTANTIATE_VECTOR(Point3D)
QZ_DENSE_INSTANTIATE_VECTOR(Point3D_d)
QZ_DENSE_INSTANTIATE_VECTOR(HPoint3D)
QZ_DENSE_INSTANTIATE_VECTOR(HPoint3D_d)
#undef QZ_DENSE_INSTANTIATE_VECTOR
} // namespace REmath
