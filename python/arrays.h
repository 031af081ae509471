#pragma once
// NumPy arrays across the boundary: rows of three coordinates in, read in
// place where the caller's layout allows, and vectors out, handed to NumPy
// without a copy.

#include <cstddef>
#include <cstdint>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

namespace qzpy
{
namespace py = pybind11;

/// An (N, 3) array as the library reads it: C-contiguous, aligned, native
/// byte order, element type T. `array` is the caller's own object when it
/// already had that layout and type, else a converted copy; either way it
/// keeps `data` alive.
template <typename T> struct Rows3
{
  py::array_t<T> array;
  T const * data = nullptr;
  std::size_t rows = 0;
  bool copied = false;
};

/// Takes `obj` (an ndarray or anything np.asarray accepts) as rows of three
/// finite coordinates. `name` is the argument's name in the messages.
/// TypeError: not convertible to an array, or not float32/float64.
/// ValueError: not of shape (N, 3), empty (unless `allowEmpty`), more rows
/// than the library's int counts, or a NaN or infinite value.
/// The finiteness scan runs without the GIL on large arrays.
template <typename T> Rows3<T> rows3(py::handle obj, char const * name, bool allowEmpty = false);

/// Triangle indices: (K, 3) of any integer type, each in [0, vertexCount).
/// TypeError for a non-integer array, ValueError for a bad shape or index.
std::vector<std::int32_t> triangles(py::handle obj, std::size_t vertexCount);

/// Hands a vector to NumPy without copying its elements: the array owns the
/// moved vector and frees it with itself. `columns` 0 gives shape (N,),
/// otherwise (N / columns, columns).
template <typename T> py::array_t<T> toNumpy(std::vector<T> && v, std::size_t columns);
} // namespace qzpy
