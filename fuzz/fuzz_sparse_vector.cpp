// The file form of a sparse vector, read as float and as double: a load
// either fails and leaves an empty vector, or succeeds and saves back to the
// very bytes it read (the count and as many positions and values as it gave).

#include <cstring>

#include "FuzzSupport.h"
#include "QZmath/LinSys/SparseVector.h"

namespace
{
template <class T> void loadAndCompare(qzfuzz::MemFile & in, qzfuzz::MemFile & out, std::uint8_t const * data,
                                       std::size_t size)
{
  in.assign(data, size);
  REmath::CSparseVectorTmpl<T> v;
  bool const loaded = v.LoadFromFile(in.file());
  int const count = v.GetNOfNonZeroElements();
  if (!loaded)
  {
    qzfuzz::check(count == 0, "a failed load leaves pairs behind");
    return;
  }
  int stored = 0;
  std::memcpy(&stored, data, sizeof stored);
  qzfuzz::check(count == (stored < 1 ? 0 : stored), "the loaded count differs from the file's");
  qzfuzz::check(count == 0 || (v.GetMinNonZeroIdx() == v.GetNonZeroPos(0) &&
                               v.GetMaxNonZeroIdx() == v.GetNonZeroPos(count - 1)),
                "the first or last position disagrees with the pairs");
  // Positions come unchecked from the file, so lookups must stay in bounds
  // whatever their order.
  for (int k = 0; k < count && k < 64; ++k)
    (void)v[v.GetNonZeroPos(k)];
  (void)v.GetElement(-1);

  out.assign(nullptr, 0);
  qzfuzz::check(v.SaveToFile(out.file()), "saving a loaded vector failed");
  qzfuzz::check(std::fflush(out.file()) == 0, "flush");
  std::string const saved = out.contents();
  if (stored < 1)
  {
    qzfuzz::check(saved == std::string(4, '\0'), "an empty vector saves other than a zero count");
    return;
  }
  std::size_t const bytes = 4 + static_cast<std::size_t>(count) * (sizeof(int) + sizeof(T));
  qzfuzz::check(saved.size() == bytes && size >= bytes && std::memcmp(saved.data(), data, bytes) == 0,
                "a loaded vector does not save back to its bytes");
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
  static qzfuzz::MemFile in("sparse_in");
  static qzfuzz::MemFile out("sparse_out");
  loadAndCompare<float>(in, out, data, size);
  loadAndCompare<double>(in, out, data, size);
  return 0;
}
