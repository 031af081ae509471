// Writes that fail as on a full disk: /dev/full, and a file size limit below
// what the file needs (RLIMIT_FSIZE refuses writes past it with EFBIG, once
// SIGXFSZ no longer ends the process). The failure must be a clear one, and
// the caller's data must come through it unharmed.

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include <sys/resource.h>

#include "QZmath/Persistence/BinaryStream.h"
#include "QZmath/Persistence/ExternVector.h"
#include "QZsys/TempFile.h"
#include "fuzz/ComponentDocument.h"
#include "tests/Common/Checks.h"

namespace
{
char const * const kWriteError =
    "Impossible write to file. Probably not enough free disk space or unexpected internal error.";

/// Files of this process may not reach past `bytes` while it lives.
class FileSizeLimit
{
public:
  explicit FileSizeLimit(rlim_t bytes)
  {
    ::getrlimit(RLIMIT_FSIZE, &m_old);
    m_oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    set(bytes);
  }
  ~FileSizeLimit()
  {
    ::setrlimit(RLIMIT_FSIZE, &m_old);
    std::signal(SIGXFSZ, m_oldHandler);
  }
  void set(rlim_t bytes)
  {
    rlimit l = m_old;
    l.rlim_cur = bytes;
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &l), 0);
  }
  FileSizeLimit(FileSizeLimit const &) = delete;
  FileSizeLimit & operator=(FileSizeLimit const &) = delete;

private:
  rlimit m_old{};
  void (*m_oldHandler)(int) = SIG_DFL;
};

std::string saveError(std::FILE * file, std::string const & text)
{
  CFileBinaryStream stream(file);
  auto * t = new qzfuzz::TextFilter(stream);
  t->text = text;
  VsF::CInnerHeaderWrapper w(t, nullptr, L"");
  try
  {
    w.Save();
  }
  catch (CVescaException const & e)
  {
    EXPECT_EQ(t->text, text) << "the component's own data changed";
    return e.what();
  }
  return "";
}

std::string loadText(std::FILE * file)
{
  std::rewind(file);
  CFileBinaryStream stream(file);
  auto * t = new qzfuzz::TextFilter(stream);
  qzfuzz::NullLogger logger;
  VsF::CInnerHeaderWrapper w(t, nullptr, L""); // owns t: it must outlive the read of the text
  w.Load(logger);
  return t->text;
}
} // namespace

// The header and the data go into the stream's buffer; the disk says no when
// the wrapper seeks back to patch the size, and that is a write failure.
TEST(FullDisk, ComponentSaveFailsWithTheWriteErrorAndTheDataStay)
{
  std::string const text(300, 'q');
  std::FILE * full = std::fopen("/dev/full", "w+b");
  if (!full)
    GTEST_SKIP() << "no /dev/full";
  EXPECT_EQ(saveError(full, text), kWriteError);
  std::fclose(full);
  full = std::fopen("/dev/full", "w+b");
  std::setvbuf(full, nullptr, _IONBF, 0); // unbuffered: the header itself fails
  EXPECT_EQ(saveError(full, text), kWriteError);
  std::fclose(full);

  // Room for the header but not the data: what reached the file is a
  // component that broke off (size -1), which a reader refuses.
  VsUt::CTemporaryFile file("QZtest_full_");
  {
    FileSizeLimit limit(200);
    EXPECT_EQ(saveError(file.get(), text), kWriteError);
  }
  EXPECT_THROW(loadText(file.get()), VsF::CUnknownFormatError);

  // With room again, the same component saves and loads whole.
  VsUt::CTemporaryFile good("QZtest_full_");
  EXPECT_EQ(saveError(good.get(), text), "");
  EXPECT_EQ(loadText(good.get()), text);
}

// The external vector on a disk that fills: a growth that does not fit and a
// changed element that cannot be written back are bad allocations, and
// everything already in the vector, the unwritten change included, is kept.
TEST(FullDisk, ExternVectorKeepsItsElementsAndTheHeldChange)
{
  std::size_t const es = 64;
  std::unique_ptr<VescaExtVec::ExternVectorVoidInterface> v(VescaExtVec::CreateExternVectorVoid(es));
  unsigned char fill[es];
  std::memset(fill, 0xA5, es);
  v->resize(100, fill);
  auto element = [&](std::size_t i)
  {
    VescaExtVec::ElementHandle h = nullptr;
    std::string bytes(static_cast<char const *>(v->lockElement(i, &h)), es);
    v->releaseElement(false, &h);
    return bytes;
  };
  auto expectBadAllocation = [](auto && f)
  { EXPECT_EQ(QZTest::whatOf<std::bad_alloc>(f), "bad allocation"); };
  std::string const a(es, '\xA5');

  VescaExtVec::ElementHandle held = nullptr;
  {
    FileSizeLimit limit(100 * es); // what the file has now
    expectBadAllocation([&] { v->resize(1000, fill); });
    expectBadAllocation([&] { v->resize(1000, nullptr); });
    expectBadAllocation([&] { v->reserve(101); });
    EXPECT_EQ(v->size(), 100u);
    EXPECT_EQ(v->capacity(), 100u);

    limit.set(10 * es); // elements from 10 on can no longer be written
    std::memset(v->lockElement(50, &held), 0x11, es);
    expectBadAllocation([&] { v->releaseElement(true, &held); });
    VescaExtVec::ElementHandle low = nullptr;
    std::memset(v->lockElement(5, &low), 0x22, es);
    v->releaseElement(true, &low);                   // below the limit: written
    EXPECT_EQ(element(50), std::string(es, '\x11')); // still held: the changed copy
  }
  v->releaseElement(false, &held); // the hold stayed, and so did its change
  EXPECT_EQ(element(50), std::string(es, '\x11'));
  EXPECT_EQ(element(5), std::string(es, '\x22'));
  for (std::size_t i : {0u, 9u, 10u, 49u, 51u, 99u})
    EXPECT_EQ(element(i), a) << i;
  v->resize(1000, fill);
  EXPECT_EQ(element(999), a);
}
