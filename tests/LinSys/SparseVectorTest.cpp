#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <tuple>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include "QZmath/LinSys/SparseVector.h"
#include "QZsys/TempFile.h"

using namespace REmath;

namespace
{
/// The raw bytes of some ints followed by some values.
template <class T>
std::vector<unsigned char> bytesOf(std::vector<int> const & ints, std::vector<T> const & values)
{
  std::vector<unsigned char> bytes(ints.size() * sizeof(int) + values.size() * sizeof(T));
  std::memcpy(bytes.data(), ints.data(), ints.size() * sizeof(int));
  if (!values.empty())
    std::memcpy(bytes.data() + ints.size() * sizeof(int), values.data(), values.size() * sizeof(T));
  return bytes;
}

/// What SaveToFile writes; equal bytes are equal pairs, bit for bit.
template <class T> std::vector<unsigned char> fileBytes(CSparseVectorTmpl<T> const & v)
{
  VsUt::CTemporaryFile tmp("QZtest_sparse_");
  EXPECT_TRUE(v.SaveToFile(tmp.get()));
  std::vector<unsigned char> bytes(static_cast<std::size_t>(std::ftell(tmp.get())));
  std::rewind(tmp.get());
  EXPECT_EQ(std::fread(bytes.data(), 1, bytes.size(), tmp.get()), bytes.size());
  return bytes;
}

/// Loads from a fresh file holding the first `n` of `bytes` (all by default).
template <class T>
bool loadBytes(CSparseVectorTmpl<T> & v, std::vector<unsigned char> const & bytes, std::size_t n = ~0ul)
{
  n = std::min(n, bytes.size());
  VsUt::CTemporaryFile tmp("QZtest_sparse_");
  EXPECT_EQ(std::fwrite(bytes.data(), 1, n, tmp.get()), n);
  std::rewind(tmp.get());
  return v.LoadFromFile(tmp.get());
}
} // namespace

template <class T> class SparseVector : public ::testing::Test
{
};
using SparseTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(SparseVector, SparseTypes);

TYPED_TEST(SparseVector, AssignByVectorMatchesTheDenseArray)
{
  using T = TypeParam;
  // -0 is zero, NaN is not.
  T const nan = std::numeric_limits<T>::quiet_NaN();
  std::vector<T> const a = {T(0), T(2.5), T(-0.0), nan, T(0), T(0), T(-1), T(0), T(4), T(0)};
  int const size = static_cast<int>(a.size());
  CSparseVectorTmpl<T> const s(size, a.data());
  std::vector<int> const positions = {1, 3, 6, 8};
  ASSERT_EQ(s.GetNOfNonZeroElements(), 4);
  for (int k = 0; k < 4; ++k)
  {
    T value;
    int position;
    s.GetNonZeroElementAndPos(k, value, position);
    EXPECT_EQ(position, positions[k]);
    EXPECT_EQ(std::memcmp(&value, &a[position], sizeof(T)), 0);
  }
  for (int i = -1; i <= size; ++i) // 0 outside the array
  {
    T const expect = i >= 0 && i < size ? a[i] : T(0);
    EXPECT_TRUE(s[i] == expect || (std::isnan(s[i]) && std::isnan(expect))) << i;
  }
  EXPECT_EQ(std::make_pair(s.GetMinNonZeroIdx(), s.GetMaxNonZeroIdx()), std::make_pair(1, 8));
  CSparseVectorTmpl<T> const none(4, nullptr); // no array: empty
  EXPECT_EQ(std::make_tuple(none.GetNOfNonZeroElements(), none.GetMinNonZeroIdx(), none.GetMaxNonZeroIdx()),
            std::make_tuple(0, 0x7FFFFFFF, -1));
}

TYPED_TEST(SparseVector, FileIsCountPositionsValuesAndTruncatedOrForgedFilesFailCleanly)
{
  using T = TypeParam;
  T const a[9] = {0, 1.5, 0, 0, 0, 0, 0, 0, -4};
  CSparseVectorTmpl<T> const v(9, a);
  std::vector<unsigned char> const bytes = fileBytes(v);
  EXPECT_EQ(bytes, bytesOf<T>({2, 1, 8}, {T(1.5), T(-4)}));
  EXPECT_EQ(fileBytes(CSparseVectorTmpl<T>()), bytesOf<T>({0}, {})); // an empty vector: the count alone
  for (std::size_t cut = 0; cut < bytes.size(); ++cut)
  {
    CSparseVectorTmpl<T> back(9, a);
    EXPECT_FALSE(loadBytes(back, bytes, cut)) << "cut at " << cut;
    EXPECT_EQ(back.GetNOfNonZeroElements(), 0) << "cut at " << cut;
  }
  CSparseVectorTmpl<T> back;
  EXPECT_TRUE(loadBytes(back, bytes));
  EXPECT_EQ(fileBytes(back), bytes);

  // A count below 1 reads as an empty vector; what follows is not read. A
  // huge count over a few bytes of data fails.
  for (int count : {0, -1, -2147483647 - 1, 2147483647, 1 << 24, 3})
  {
    CSparseVectorTmpl<T> forged;
    forged.SetElementNoIdxSearch(0, T(1));
    EXPECT_EQ(loadBytes(forged, bytesOf<T>({count, 1, 2}, {T(1), T(2)})), count < 1) << count;
    EXPECT_EQ(forged.GetNOfNonZeroElements(), 0) << count;
  }
  // Positions out of order are loaded as they are; searching them stays
  // inside what was loaded.
  T const values[3] = {1, 2, 3};
  CSparseVectorTmpl<T> u;
  ASSERT_TRUE(loadBytes(u, bytesOf<T>({3, 9, 1, 5}, {values, values + 3})));
  EXPECT_TRUE(u.GetNOfNonZeroElements() == 3 && u.GetNonZeroPos(0) == 9 && u.GetNonZeroPos(2) == 5);
  for (int p = -2; p < 12; ++p)
    EXPECT_TRUE(u[p] == T(0) || u[p] == values[0] || u[p] == values[1] || u[p] == values[2]);

  EXPECT_FALSE(u.SaveToFile(nullptr));
  EXPECT_FALSE(u.LoadFromFile(nullptr));
  std::FILE * ro = std::fopen("/dev/null", "rb");
  ASSERT_NE(ro, nullptr);
  EXPECT_FALSE(u.SaveToFile(ro)); // the write fails
  std::fclose(ro);
}

// A forged count must not make the loader claim room for it before the data
// is there: with the address space capped a little above what the process
// already maps, a load of a count of 2^31 - 1 over a short file still fails
// cleanly instead of dying of an allocation. The sanitizers map far more than
// any cap allows, so the check runs in plain builds only.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
namespace
{
/// Exit code 0 when the load fails cleanly under the cap, 1 when it
/// succeeds, 2 when the cap cannot be set.
[[noreturn]] void loadHugeCountUnderAddressCap()
{
  int const count = 2147483647;
  std::vector<unsigned char> bytes(4 + 64 * 1024, 0);
  std::memcpy(bytes.data(), &count, 4);
  VsUt::CTemporaryFile tmp("QZtest_sparse_");
  std::fwrite(bytes.data(), 1, bytes.size(), tmp.get());
  std::rewind(tmp.get());

  long pages = 0;
  if (std::FILE * statm = std::fopen("/proc/self/statm", "r"))
  {
    if (std::fscanf(statm, "%ld", &pages) != 1)
      pages = 0;
    std::fclose(statm);
  }
  rlimit limit;
  limit.rlim_cur = limit.rlim_max =
      static_cast<rlim_t>(pages) * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE)) + (rlim_t(256) << 20);
  if (pages <= 0 || ::setrlimit(RLIMIT_AS, &limit) != 0)
    std::_Exit(2);
  CSparseVectorTmpl<double> v;
  bool const loaded = v.LoadFromFile(tmp.get());
  std::_Exit(loaded ? 1 : 0);
}
} // namespace

TEST(SparseVectorFileDeathTest, HugeCountAllocatesNoRoomForIt)
{
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(loadHugeCountUnderAddressCap(), ::testing::ExitedWithCode(0), "");
}
#endif
