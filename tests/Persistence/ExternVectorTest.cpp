#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <dirent.h>
#include <unistd.h>

#include "QZmath/Persistence/ExternVector.h"
#include "tests/Common/Checks.h"

using namespace VescaExtVec;

namespace
{
typedef std::unique_ptr<ExternVectorVoidInterface> VecPtr;

VecPtr makeVector(std::size_t elementSize) { return VecPtr(CreateExternVectorVoid(elementSize)); }

/// The descriptors of this process whose target names the external vector's
/// temporary files.
std::vector<int> vectorFiles()
{
  std::vector<int> fds;
  DIR * dir = ::opendir("/proc/self/fd");
  if (!dir)
    return fds;
  while (dirent * e = ::readdir(dir))
  {
    char target[512] = {};
    std::string const path = std::string("/proc/self/fd/") + e->d_name;
    ssize_t const n = ::readlink(path.c_str(), target, sizeof target - 1);
    if (n > 0 && std::strstr(target, "Vesca_FileVectorVoid"))
    {
      EXPECT_NE(std::strstr(target, "(deleted)"), nullptr) << target; // never a named file
      fds.push_back(std::atoi(e->d_name));
    }
  }
  ::closedir(dir);
  return fds;
}

/// The raw bytes of the only vector file open, read beside the vector.
std::vector<unsigned char> fileBytes(std::size_t offset, std::size_t count)
{
  std::vector<int> fds = vectorFiles();
  EXPECT_EQ(fds.size(), 1u);
  std::vector<unsigned char> bytes(count);
  if (fds.size() == 1)
  {
    EXPECT_EQ(::pread(fds[0], bytes.data(), count, static_cast<off_t>(offset)), static_cast<ssize_t>(count));
  }
  return bytes;
}

std::int32_t readInt(ExternVectorVoidInterface & v, std::size_t i)
{
  ElementHandle h = nullptr;
  std::int32_t value;
  std::memcpy(&value, v.lockElement(i, &h), 4);
  v.releaseElement(false, &h);
  return value;
}

template <class F> void expectBadAllocation(F && f)
{
  EXPECT_EQ(QZTest::whatOf<std::bad_alloc>(f), "bad allocation");
}
} // namespace

TEST(ExternVector, FileLivesFromFirstGrowthToClearOrDestruction)
{
  ASSERT_TRUE(vectorFiles().empty());
  expectBadAllocation([] { makeVector(0); });
  {
    VecPtr v = makeVector(8);
    v->reserve(0);
    EXPECT_TRUE(vectorFiles().empty());
    v->reserve(10);
    v->clear();
    EXPECT_TRUE(vectorFiles().empty());
    v->resize(3, nullptr);
    EXPECT_EQ(vectorFiles().size(), 1u);
  }
  EXPECT_TRUE(vectorFiles().empty());
}

TEST(ExternVector, SlotsAreReusedAndDroppedHoldsGoStale)
{
  VecPtr v = makeVector(16);
  v->resize(10, nullptr);
  ElementHandle a = nullptr, b = nullptr, c = nullptr, d = nullptr;
  void * pa = v->lockElement(0, &a);
  void * pb = v->lockElement(1, &b);
  EXPECT_NE(pa, pb);
  v->releaseElement(false, &a);
  v->releaseElement(false, &b);
  void * pc = v->lockElement(7, &c); // a free slot, not a new one
  EXPECT_TRUE(pc == pa || pc == pb);

  // Shrinking frees the held element without writing it back. The stale
  // handle's release does nothing, even once its slot serves another element.
  std::memset(pc, 0x5A, 16);
  v->resize(5, nullptr);
  unsigned char * pd = static_cast<unsigned char *>(v->lockElement(3, &d));
  v->releaseElement(true, &c);
  v->addElementRef(&c);
  v->releaseElement(false, &c);
  std::memset(pd, 0x33, 16);
  v->releaseElement(true, &d); // still the only hold: written back
  v->resize(10, nullptr);
  EXPECT_EQ(fileBytes(7 * 16, 16), std::vector<unsigned char>(16, 0));
  EXPECT_EQ(fileBytes(3 * 16, 16), std::vector<unsigned char>(16, 0x33));

  v->lockElement(1, &a);
  v->clear();
  v->releaseElement(true, &a); // dropped by clear: stale too
}

TEST(ExternVector, FailuresAreBadAllocationsAndLeaveTheVectorUsable)
{
  VecPtr v = makeVector(4);
  ElementHandle h = nullptr;
  expectBadAllocation([&] { v->lockElement(0, &h); }); // no file yet
  expectBadAllocation([&] { v->resize(std::size_t(0x80000000u), nullptr); });
  char const * old = std::getenv("TMPDIR");
  std::string const saved = old ? old : "";
  ::setenv("TMPDIR", "/nonexistent/qz-extvec", 1);
  expectBadAllocation([&] { v->reserve(4); });
  old ? ::setenv("TMPDIR", saved.c_str(), 1) : ::unsetenv("TMPDIR");
  EXPECT_EQ(v->capacity(), 0u);

  v->resize(2, nullptr);
  expectBadAllocation([&] { v->lockElement(1000, &h); }); // beyond the file's end
  expectBadAllocation([&] { v->lockElement(~std::size_t(0), &h); });
  std::memset(v->lockElement(1, &h), 9, 4);
  v->releaseElement(true, &h);
  EXPECT_EQ(readInt(*v, 1), 0x09090909);

  VecPtr huge = makeVector(std::size_t(1) << 40);
  expectBadAllocation([&] { huge->reserve(std::size_t(1) << 30); }); // beyond any offset
  EXPECT_EQ(huge->capacity(), 0u);
}

// Random locks, changes and releases in any order against a plain array.
TEST(ExternVector, AgreesWithAnArrayUnderRandomAccess)
{
  std::size_t const es = 12;
  VecPtr v = makeVector(es);
  std::vector<unsigned char> ref;
  std::mt19937 rng(99);
  struct Hold
  {
    std::size_t index;
    ElementHandle h;
    unsigned char * p;
  };
  std::vector<Hold> holds;
  for (int step = 0; step < 4000; ++step)
  {
    int const op = static_cast<int>(rng() % 10);
    std::size_t const n = v->size();
    if (op == 0)
    {
      // Grow (with or without fill) or shrink, with nothing held.
      for (Hold & h : holds)
        v->releaseElement(true, &h.h);
      holds.clear();
      std::size_t const m = rng() % 300;
      unsigned char fill[es];
      for (unsigned char & c : fill)
        c = static_cast<unsigned char>(rng());
      bool const withFill = rng() % 2;
      v->resize(m, withFill ? fill : nullptr);
      if (m > n)
      {
        // Without fill, old bytes stay and the last byte of the range is 0;
        // bytes never written are 0 too.
        ref.resize(std::max(ref.size(), m * es), 0);
        if (withFill)
          for (std::size_t i = n; i < m; ++i)
            std::memcpy(&ref[i * es], fill, es);
        else
          ref[m * es - 1] = 0;
      }
      // Shrinking keeps the bytes in the file for a later growth.
    }
    else if (n > 0 && op < 6)
    {
      std::size_t const i = rng() % n;
      ElementHandle h = nullptr;
      unsigned char * p = static_cast<unsigned char *>(v->lockElement(i, &h));
      ASSERT_EQ(std::memcmp(p, &ref[i * es], es), 0) << "element " << i;
      holds.push_back({i, h, p});
    }
    else if (!holds.empty())
    {
      std::size_t const k = rng() % holds.size();
      Hold hold = holds[k];
      holds.erase(holds.begin() + static_cast<long>(k));
      bool const change = rng() % 2;
      if (change)
        for (std::size_t b = 0; b < es; ++b)
        {
          hold.p[b] = static_cast<unsigned char>(rng());
          ref[hold.index * es + b] = hold.p[b];
        }
      // A change made while others still hold the element is in the shared
      // copy at once, and reaches the file when the last holder lets go.
      v->releaseElement(change, &hold.h);
    }
  }
  for (Hold & h : holds)
    v->releaseElement(true, &h.h);
  for (std::size_t i = 0; i < v->size(); ++i)
    ASSERT_EQ(std::memcmp(fileBytes(i * es, es).data(), &ref[i * es], es), 0) << i;
}
