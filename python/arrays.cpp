#include "arrays.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>

namespace qzpy
{
namespace
{
std::string str(py::handle h) { return py::str(h).cast<std::string>(); }

// A value is NaN or infinite exactly when its exponent bits are all set. The
// test on the bits vectorises, so that the scan runs at memory speed; the
// exact row is looked for only in a block that holds such a value.
template <typename T> struct tf_Bits;
template <> struct tf_Bits<float>
{
  using U = std::uint32_t;
  static constexpr U exponent = 0x7f800000u;
};
template <> struct tf_Bits<double>
{
  using U = std::uint64_t;
  static constexpr U exponent = 0x7ff0000000000000ull;
};

template <typename T> std::size_t firstNonFinite(T const * p, std::size_t n)
{
  using U = typename tf_Bits<T>::U;
  constexpr U mask = tf_Bits<T>::exponent;
  constexpr std::size_t block = 4096;
  for (std::size_t b = 0; b < n; b += block)
  {
    std::size_t const e = std::min(n, b + block);
    unsigned bad = 0;
    for (std::size_t i = b; i < e; ++i)
    {
      U u;
      std::memcpy(&u, p + i, sizeof u);
      bad |= (u & mask) == mask;
    }
    if (bad)
      for (std::size_t i = b; i < e; ++i)
        if (!std::isfinite(p[i]))
          return i;
  }
  return n;
}

// Arrays this large are scanned without the GIL, so that other Python
// threads run meanwhile.
constexpr std::size_t kReleaseGilAbove = std::size_t(1) << 20;

py::array asArray(py::handle obj, char const * name, char const * expected)
{
  py::array a = py::array::ensure(obj);
  if (!a)
    throw py::type_error(std::string(name) + " must be " + expected + ", got " +
                         str(py::type::handle_of(obj).attr("__name__")));
  return a;
}
} // namespace

template <typename T> Rows3<T> rows3(py::handle obj, char const * name, bool allowEmpty)
{
  py::array a = asArray(obj, name, "a float32 or float64 array of shape (N, 3)");
  py::dtype const dt = a.dtype();
  if (dt.kind() != 'f' || (dt.itemsize() != 4 && dt.itemsize() != 8))
    throw py::type_error(std::string(name) + " must be a float32 or float64 array, got " + str(dt));
  if (a.ndim() != 2 || a.shape(1) != 3)
    throw py::value_error(std::string(name) + " must have shape (N, 3), got " + str(a.attr("shape")));
  auto const rows = static_cast<std::size_t>(a.shape(0));
  if (rows == 0 && !allowEmpty)
    throw py::value_error(std::string(name) + " is empty");
  if (rows > static_cast<std::size_t>(INT_MAX))
    throw py::value_error(std::string(name) + " has " + std::to_string(rows) +
                          " rows, more than the limit of " + std::to_string(INT_MAX));

  // Returns the caller's own object when it already has this layout and type;
  // otherwise a C-contiguous, aligned, native copy in T.
  constexpr int flags = py::array::c_style | py::array::forcecast | py::detail::npy_api::NPY_ARRAY_ALIGNED_;
  auto c = py::array_t<T, flags>::ensure(a);
  if (!c)
    throw py::error_already_set();
  Rows3<T> r;
  r.copied = c.ptr() != a.ptr();
  r.data = c.data();
  r.rows = rows;
  r.array = std::move(c);

  std::size_t const n = 3 * rows;
  std::size_t bad;
  if (n > kReleaseGilAbove)
  {
    py::gil_scoped_release release;
    bad = firstNonFinite(r.data, n);
  }
  else
    bad = firstNonFinite(r.data, n);
  if (bad != n)
    throw py::value_error(std::string(name) + " has a non-finite value in row " + std::to_string(bad / 3) +
                          (dt.itemsize() > static_cast<py::ssize_t>(sizeof(T))
                               ? " (NaN, infinity, or beyond the float32 range)"
                               : " (NaN or infinity)"));
  return r;
}

template Rows3<float> rows3<float>(py::handle, char const *, bool);
template Rows3<double> rows3<double>(py::handle, char const *, bool);

std::vector<std::int32_t> triangles(py::handle obj, std::size_t vertexCount)
{
  py::array a = asArray(obj, "triangles", "an integer array of shape (K, 3)");
  char const kind = a.dtype().kind();
  if (kind != 'i' && kind != 'u')
    throw py::type_error("triangles must be an integer array, got " + str(a.dtype()));
  if (a.ndim() != 2 || a.shape(1) != 3)
    throw py::value_error("triangles must have shape (K, 3), got " + str(a.attr("shape")));
  // Every integer type fits int64 except the top half of uint64, which is out
  // of range anyway: it wraps negative and is refused below.
  auto c = py::array_t<std::int64_t, py::array::c_style | py::array::forcecast>::ensure(a);
  if (!c)
    throw py::error_already_set();
  std::size_t const n = static_cast<std::size_t>(c.size());
  std::int64_t const * p = c.data();
  std::vector<std::int32_t> out(n);
  for (std::size_t i = 0; i < n; ++i)
  {
    if (p[i] < 0 || static_cast<std::uint64_t>(p[i]) >= vertexCount)
      throw py::value_error("triangles row " + std::to_string(i / 3) + " refers to vertex " +
                            std::to_string(p[i]) + ", but there are " + std::to_string(vertexCount) +
                            " vertices");
    out[i] = static_cast<std::int32_t>(p[i]);
  }
  return out;
}

template <typename T> py::array_t<T> toNumpy(std::vector<T> && v, std::size_t columns)
{
  std::vector<py::ssize_t> shape;
  if (columns == 0)
    shape = {static_cast<py::ssize_t>(v.size())};
  else
    shape = {static_cast<py::ssize_t>(v.size() / columns), static_cast<py::ssize_t>(columns)};
  if (v.empty())
    return py::array_t<T>(shape);
  auto owned = std::make_unique<std::vector<T>>(std::move(v));
  py::capsule base(owned.get(), [](void * p) { delete static_cast<std::vector<T> *>(p); });
  T * data = owned.release()->data(); // the capsule owns it now
  return py::array_t<T>(shape, data, base);
}

template py::array_t<float> toNumpy<float>(std::vector<float> &&, std::size_t);
template py::array_t<double> toNumpy<double>(std::vector<double> &&, std::size_t);
template py::array_t<std::int32_t> toNumpy<std::int32_t>(std::vector<std::int32_t> &&, std::size_t);
} // namespace qzpy
