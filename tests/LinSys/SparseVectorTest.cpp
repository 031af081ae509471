#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include "QZmath/LinSys/SparseVector.h"
#include "QZsys/TempFile.h"

using namespace REmath;

namespace
{
template <class T> std::vector<T> randomSparseArray(int size, double density, std::mt19937 & rng)
{
  std::uniform_real_distribution<double> u(0, 1), v(-5, 5);
  std::vector<T> a(static_cast<std::size_t>(size), T(0));
  for (T & x : a)
    if (u(rng) < density)
      x = static_cast<T>(v(rng));
  return a;
}

template <class T> std::vector<unsigned char> fileBytes(CSparseVectorTmpl<T> const & v)
{
  VsUt::CTemporaryFile tmp("QZtest_sparse_");
  EXPECT_TRUE(v.SaveToFile(tmp.get()));
  long const size = std::ftell(tmp.get());
  std::rewind(tmp.get());
  std::vector<unsigned char> bytes(static_cast<std::size_t>(size));
  EXPECT_EQ(std::fread(bytes.data(), 1, bytes.size(), tmp.get()), bytes.size());
  return bytes;
}

/// Loads from a fresh file holding exactly `bytes`.
template <class T> bool loadBytes(CSparseVectorTmpl<T> & v, unsigned char const * bytes, std::size_t n)
{
  VsUt::CTemporaryFile tmp("QZtest_sparse_");
  if (n)
  {
    EXPECT_EQ(std::fwrite(bytes, 1, n, tmp.get()), n);
  }
  std::rewind(tmp.get());
  return v.LoadFromFile(tmp.get());
}

template <class T> void expectSamePairs(CSparseVectorTmpl<T> const & a, CSparseVectorTmpl<T> const & b)
{
  ASSERT_EQ(a.GetNOfNonZeroElements(), b.GetNOfNonZeroElements());
  for (int k = 0; k < a.GetNOfNonZeroElements(); ++k)
  {
    T va, vb;
    int pa, pb;
    a.GetNonZeroElementAndPos(k, va, pa);
    b.GetNonZeroElementAndPos(k, vb, pb);
    EXPECT_EQ(pa, pb);
    EXPECT_EQ(std::memcmp(&va, &vb, sizeof(T)), 0); // bit for bit, NaN included
  }
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
  std::mt19937 rng(11);
  for (int trial = 0; trial < 30; ++trial)
  {
    int const size = trial * 7 % 50;
    std::vector<T> a = randomSparseArray<T>(size, trial % 3 == 0 ? 0.9 : 0.2, rng);
    if (size > 2)
      a[1] = -0.0, a[2] = std::numeric_limits<T>::quiet_NaN(); // -0 is zero, NaN is not
    CSparseVectorTmpl<T> const s(size, a.data());
    int stored = 0;
    for (int i = -1; i <= size; ++i)
    {
      T const expect = i >= 0 && i < size ? a[i] : T(0);
      EXPECT_TRUE(s[i] == expect || (std::isnan(s[i]) && std::isnan(expect))) << i;
      stored += expect != T(0);
    }
    EXPECT_EQ(s.GetNOfNonZeroElements(), stored);
    for (int k = 1; k < stored; ++k)
      EXPECT_LT(s.GetNonZeroPos(k - 1), s.GetNonZeroPos(k));
    EXPECT_EQ(s.GetMinNonZeroIdx(), stored ? s.GetNonZeroPos(0) : 0x7FFFFFFF);
    EXPECT_EQ(s.GetMaxNonZeroIdx(), stored ? s.GetNonZeroPos(stored - 1) : -1);
  }
  EXPECT_EQ(CSparseVectorTmpl<T>(4, nullptr).GetNOfNonZeroElements(), 0); // no array: empty
  CSparseVectorTmpl<T> one;
  one.SetElementNoIdxSearch(7, T(3));
  EXPECT_EQ(one[7] + one[6] + one[8], T(3));
}

TYPED_TEST(SparseVector, FileLayoutIsCountPositionsValues)
{
  using T = TypeParam;
  CSparseVectorTmpl<T> v;
  v.SetElementNoIdxSearch(2, T(1.5));
  v.SetElementNoIdxSearch(9, T(-4));
  std::vector<unsigned char> const bytes = fileBytes(v);
  ASSERT_EQ(bytes.size(), 4 + 2 * 4 + 2 * sizeof(T));
  int const ints[3] = {2, 2, 9};
  T const values[2] = {T(1.5), T(-4)};
  EXPECT_EQ(std::memcmp(bytes.data(), ints, sizeof ints), 0);
  EXPECT_EQ(std::memcmp(bytes.data() + sizeof ints, values, sizeof values), 0);

  EXPECT_EQ(fileBytes(CSparseVectorTmpl<T>()).size(), 4u); // an empty vector: the count alone
}

TYPED_TEST(SparseVector, SaveLoadRoundTripsBackToBack)
{
  using T = TypeParam;
  std::mt19937 rng(12);
  std::vector<CSparseVectorTmpl<T>> saved;
  for (int trial = 0; trial < 10; ++trial)
  {
    std::vector<T> const a = randomSparseArray<T>(40 * trial, 0.3, rng);
    saved.emplace_back(static_cast<int>(a.size()), a.data());
  }
  VsUt::CTemporaryFile tmp("QZtest_sparse_");
  for (auto const & v : saved)
    ASSERT_TRUE(v.SaveToFile(tmp.get()));
  std::rewind(tmp.get());
  for (auto const & v : saved)
  {
    CSparseVectorTmpl<T> back;
    back.SetElementNoIdxSearch(1, T(1)); // loading replaces what was there
    ASSERT_TRUE(back.LoadFromFile(tmp.get()));
    expectSamePairs(back, v);
  }
  CSparseVectorTmpl<T> past;
  EXPECT_FALSE(past.LoadFromFile(tmp.get())); // at the end: no count to read
}

TYPED_TEST(SparseVector, EveryTruncationFailsCleanly)
{
  using T = TypeParam;
  T const a[9] = {0, 1, 0, 2, 3, 0, 0, 4, 5};
  CSparseVectorTmpl<T> const v(9, a);
  std::vector<unsigned char> const bytes = fileBytes(v);
  for (std::size_t cut = 0; cut < bytes.size(); ++cut)
  {
    CSparseVectorTmpl<T> back(9, a);
    EXPECT_FALSE(loadBytes(back, bytes.data(), cut)) << "cut at " << cut;
    EXPECT_EQ(back.GetNOfNonZeroElements(), 0) << "cut at " << cut;
  }
  CSparseVectorTmpl<T> back;
  EXPECT_TRUE(loadBytes(back, bytes.data(), bytes.size()));
  expectSamePairs(back, v);
}

TYPED_TEST(SparseVector, ForgedCountsInTheFile)
{
  using T = TypeParam;
  // A count below 1 reads as an empty vector; what follows is not read.
  for (int count : {0, -1, -2147483647 - 1})
  {
    unsigned char bytes[12] = {};
    std::memcpy(bytes, &count, 4);
    CSparseVectorTmpl<T> v;
    v.SetElementNoIdxSearch(0, T(1));
    EXPECT_TRUE(loadBytes(v, bytes, sizeof bytes));
    EXPECT_EQ(v.GetNOfNonZeroElements(), 0);
  }
  // A huge count over a few bytes of data.
  for (int count : {2147483647, 1 << 24, 3})
  {
    unsigned char bytes[4 + 2 * 4 + 2 * sizeof(T)] = {};
    std::memcpy(bytes, &count, 4);
    CSparseVectorTmpl<T> v;
    EXPECT_FALSE(loadBytes(v, bytes, sizeof bytes)) << count;
    EXPECT_EQ(v.GetNOfNonZeroElements(), 0);
  }
  // Positions out of order are loaded as they are; searching them stays
  // inside what was loaded.
  int const ints[4] = {3, 9, 1, 5};
  T const values[3] = {1, 2, 3};
  unsigned char bytes[sizeof ints + sizeof values];
  std::memcpy(bytes, ints, sizeof ints);
  std::memcpy(bytes + sizeof ints, values, sizeof values);
  CSparseVectorTmpl<T> v;
  ASSERT_TRUE(loadBytes(v, bytes, sizeof bytes));
  EXPECT_TRUE(v.GetNOfNonZeroElements() == 3 && v.GetNonZeroPos(0) == 9 && v.GetNonZeroPos(2) == 5);
  for (int p = -2; p < 12; ++p)
    EXPECT_TRUE(v[p] == T(0) || v[p] == values[0] || v[p] == values[1] || v[p] == values[2]);

  EXPECT_FALSE(v.SaveToFile(nullptr));
  EXPECT_FALSE(v.LoadFromFile(nullptr));
  std::FILE * ro = std::fopen("/dev/null", "rb");
  ASSERT_NE(ro, nullptr);
  EXPECT_FALSE(v.SaveToFile(ro)); // the write fails
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
