#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "QZmath/Persistence/BinaryStream.h"
#include "QZmath/Persistence/ComponentFilters.h"
#include "QZmath/Persistence/GraphObjectSelector.h"
#include "QZsys/TempFile.h"

using namespace VsF;

namespace
{
typedef std::vector<unsigned char> Bytes;

/// A file with its stream, and helpers to see and replace its bytes.
struct TempStream
{
  VsUt::CTemporaryFile file{"QZtest_cmp_"};
  CFileBinaryStream stream{file.get()};

  Bytes contents()
  {
    std::fflush(file.get());
    long const end = (std::fseek(file.get(), 0, SEEK_END), std::ftell(file.get()));
    Bytes bytes(static_cast<std::size_t>(end));
    std::rewind(file.get());
    if (end > 0)
    {
      EXPECT_EQ(std::fread(bytes.data(), 1, bytes.size(), file.get()), bytes.size());
    }
    std::rewind(file.get());
    return bytes;
  }
  void assign(Bytes const & bytes, std::size_t length)
  {
    std::rewind(file.get());
    EXPECT_EQ(::ftruncate(::fileno(file.get()), 0), 0);
    if (length > 0)
    {
      EXPECT_EQ(std::fwrite(bytes.data(), 1, length, file.get()), length);
    }
    std::fflush(file.get());
    std::rewind(file.get());
  }
};

struct RecordingLog : ISaveLoadLog
{
  std::vector<std::pair<std::wstring, LogLevel>> lines;

private:
  void OnWriteLogMess(const IVescaWarning & w, LogLevel level) override
  {
    lines.emplace_back(w.getMessage(), level);
  }
};

struct Logger : IDeltaStateLogger
{
  int finalized = 0;

private:
  DocumentNewObjectProcessStatus OnProcessNewObject(INewObjEvent &) override { return DocNewObj_Processed; }
  void OnFinalizeLoading() override { ++finalized; }
};

/// A component of fixed bytes. Load reads `readCount` bytes (all by default).
class PayloadFilter : public IComponentFilter
{
public:
  PayloadFilter(IVescaBinaryStream & s, std::string mark, int version, Bytes payload)
      : m_stream(s), m_mark(std::move(mark)), m_version(version), m_payload(std::move(payload))
  {
    readCount = m_payload.size();
  }
  Bytes loaded;
  std::size_t readCount = 0;

private:
  __int64 OnSave() override
  {
    m_stream.writeData(m_payload.size(), m_payload.data());
    return static_cast<__int64>(m_payload.size());
  }
  __int64 OnLoad(IDeltaStateLogger &) override
  {
    loaded.assign(readCount, 0);
    m_stream.readData(readCount, loaded.data());
    return static_cast<__int64>(readCount);
  }
  std::wstring OnGetComponentName() const override
  {
    return L"payload " + std::wstring(m_mark.begin(), m_mark.end());
  }
  std::string OnGetBlockMark() const override { return m_mark; }
  int OnGetVersion() const override { return m_version; }
  IVescaBinaryStream & OnGetStream() override { return m_stream; }

  IVescaBinaryStream & m_stream;
  std::string m_mark;
  int m_version;
  Bytes m_payload;
};

/// A component whose data are further components, each behind a wrapper.
class NestingFilter : public IComponentFilter
{
public:
  NestingFilter(IVescaBinaryStream & s, std::string mark) : m_stream(s), m_mark(std::move(mark)) {}
  std::vector<std::unique_ptr<CInnerHeaderWrapper>> children;

private:
  __int64 OnSave() override
  {
    __int64 n = 0;
    for (auto & c : children)
      n += c->Save();
    return n;
  }
  __int64 OnLoad(IDeltaStateLogger & logger) override
  {
    __int64 n = 0;
    for (auto & c : children)
      n += c->Load(logger);
    return n;
  }
  std::wstring OnGetComponentName() const override { return L"nest"; }
  std::string OnGetBlockMark() const override { return m_mark; }
  int OnGetVersion() const override { return 1; }
  IVescaBinaryStream & OnGetStream() override { return m_stream; }

  IVescaBinaryStream & m_stream;
  std::string m_mark;
};

Bytes bytesOf(char const * text) { return Bytes(text, text + std::strlen(text)); }

std::uint64_t readLE(Bytes const & b, std::size_t at, int n)
{
  std::uint64_t v = 0;
  for (int i = 0; i < n; ++i)
    v |= std::uint64_t(b[at + i]) << (8 * i);
  return v;
}

template <class E, class F> void expectThrowText(F && f, char const * text)
{
  try
  {
    f();
    ADD_FAILURE() << "no exception; expected: " << text;
  }
  catch (E const & e)
  {
    EXPECT_STREQ(e.what(), text);
  }
}
} // namespace

TEST(ComponentHeader, SaveWritesTheExactLayoutAndPatchesTheSize)
{
  TempStream t;
  CInnerHeaderWrapper w(new PayloadFilter(t.stream, "Points", 3, bytesOf("twelve bytes")), nullptr, L"");
  EXPECT_EQ(w.Save(), 140);
  EXPECT_EQ(t.stream.getPosition(), 140); // at the end of the data
  Bytes const b = t.contents();
  ASSERT_EQ(b.size(), 140u);
  EXPECT_EQ(std::memcmp(b.data(), "VsCmpWrp\0\0", 10), 0);
  EXPECT_EQ(readLE(b, 10, 8), 12u);
  EXPECT_EQ(readLE(b, 18, 4), 3u);
  EXPECT_EQ(std::memcmp(&b[22], "Points", 7), 0);
  for (std::size_t i = 29; i < 128; ++i)
    EXPECT_EQ(b[i], 0) << "byte " << i;
  EXPECT_EQ(std::memcmp(&b[128], "twelve bytes", 12), 0);

  EXPECT_EQ(CInnerHeaderWrapper::getWrapHeaderSize(), 128);
  EXPECT_EQ(w.GetBlockMark(), "Wrap");
  EXPECT_EQ(w.GetVersion(), 1);
  EXPECT_EQ(w.GetComponentName(), L"payload Points");
  EXPECT_EQ(&w.GetStream(), &t.stream);
  EXPECT_TRUE(w.IsTryLoad());
}

TEST(ComponentHeader, EncodeAndDecodeAreInverse)
{
  CInnerHeaderWrapper::SWrapData h;
  std::memset(&h, 0, sizeof h);
  std::memcpy(h.mark, "VsCmpWrp", 8);
  h.size = 0x0102030405060708LL;
  h.version = -2;
  std::memcpy(h.blockMark, "abcdefghijklmnopqrstuvwxyz012", 29);
  h.reserved[75] = 0xEE;
  unsigned char bytes[128];
  CInnerHeaderWrapper::EncodeHeader(h, bytes);
  EXPECT_EQ(bytes[10], 0x08);
  EXPECT_EQ(bytes[17], 0x01);
  EXPECT_EQ(bytes[18], 0xFE);
  EXPECT_EQ(bytes[21], 0xFF);
  EXPECT_EQ(bytes[127], 0xEE);
  CInnerHeaderWrapper::SWrapData back;
  CInnerHeaderWrapper::DecodeHeader(bytes, back);
  EXPECT_EQ(std::memcmp(&back.mark, &h.mark, 10), 0);
  EXPECT_EQ(back.size, h.size);
  EXPECT_EQ(back.version, -2);
  EXPECT_EQ(std::memcmp(back.blockMark, h.blockMark, 30), 0);
  EXPECT_EQ(std::memcmp(back.reserved, h.reserved, 76), 0);

  EXPECT_TRUE(CInnerHeaderWrapper::RecognizeCompHeader(back));
  back.mark[9] = 'x'; // behind the terminating NUL: not compared
  EXPECT_TRUE(CInnerHeaderWrapper::RecognizeCompHeader(back));
  back.mark[8] = 'x';
  EXPECT_FALSE(CInnerHeaderWrapper::RecognizeCompHeader(back));
  back.mark[8] = 0;
  back.size = -1;
  EXPECT_FALSE(CInnerHeaderWrapper::RecognizeCompHeader(back));
}

TEST(ComponentHeader, RoundTripOfNestedComponents)
{
  TempStream t;
  {
    auto doc = new NestingFilter(t.stream, "Doc");
    doc->children.emplace_back(
        new CInnerHeaderWrapper(new PayloadFilter(t.stream, "A", 1, bytesOf("alpha")), nullptr, L""));
    doc->children.emplace_back(
        new CInnerHeaderWrapper(new PayloadFilter(t.stream, "B", 1, bytesOf("be")), nullptr, L""));
    CInnerHeaderWrapper outer(doc, nullptr, L"");
    EXPECT_EQ(outer.Save(), 128 + 133 + 130);
  }
  Bytes const b = t.contents();
  EXPECT_EQ(readLE(b, 10, 8), 263u); // the outer size covers the inner headers
  EXPECT_EQ(readLE(b, 128 + 10, 8), 5u);

  auto doc = new NestingFilter(t.stream, "Doc");
  auto a = new PayloadFilter(t.stream, "A", 1, {});
  auto bf = new PayloadFilter(t.stream, "B", 1, {});
  a->readCount = 5;
  bf->readCount = 2;
  doc->children.emplace_back(new CInnerHeaderWrapper(a, nullptr, L""));
  doc->children.emplace_back(new CInnerHeaderWrapper(bf, nullptr, L""));
  CInnerHeaderWrapper outer(doc, nullptr, L"");
  Logger logger;
  EXPECT_EQ(outer.Load(logger), 391);
  EXPECT_EQ(a->loaded, bytesOf("alpha"));
  EXPECT_EQ(bf->loaded, bytesOf("be"));
  EXPECT_EQ(t.stream.getPosition(), 391);
}

TEST(ComponentHeader, UnknownVersionsAndMarksAreSkippedWithAWarning)
{
  TempStream t;
  CInnerHeaderWrapper(new PayloadFilter(t.stream, "Points", 3, bytesOf("abc")), nullptr, L"").Save();
  CInnerHeaderWrapper(new PayloadFilter(t.stream, "Tail", 1, bytesOf("xy")), nullptr, L"").Save();

  struct Reader
  {
    std::string mark;
    int version;
    bool withLog;
    std::wstring text;
    bool loads;
    std::size_t logged;
  };
  Reader const cases[] = {
      {"Points", 3, true, L"skipped", true, 0},   // known: loaded
      {"Points", 2, true, L"skipped", false, 1},  // older reader
      {"Points", 4, true, L"skipped", false, 1},  // newer reader
      {"Point", 3, true, L"skipped", false, 1},   // a prefix is another mark
      {"PointsX", 3, true, L"skipped", false, 1}, // and so is a longer one
      {"Points", 2, false, L"skipped", false, 0}, // no log
      {"Points", 2, true, L"", false, 0},         // no text
  };
  for (Reader const & r : cases)
  {
    SCOPED_TRACE(r.mark + " v" + std::to_string(r.version));
    std::rewind(t.file.get());
    RecordingLog log;
    auto p = new PayloadFilter(t.stream, r.mark, r.version, {});
    p->readCount = 3;
    CInnerHeaderWrapper w(p, r.withLog ? &log : nullptr, r.text);
    Logger logger;
    EXPECT_EQ(w.Load(logger), 131);
    EXPECT_EQ(p->loaded, r.loads ? bytesOf("abc") : Bytes());
    ASSERT_EQ(log.lines.size(), r.logged);
    if (r.logged)
    {
      EXPECT_EQ(log.lines[0].first, L"skipped");
      EXPECT_EQ(log.lines[0].second, 2);
    }
    // The next component is read right behind.
    auto tail = new PayloadFilter(t.stream, "Tail", 1, {});
    tail->readCount = 2;
    CInnerHeaderWrapper tailWrapper(tail, nullptr, L"");
    EXPECT_EQ(tailWrapper.Load(logger), 130);
    EXPECT_EQ(tail->loaded, bytesOf("xy"));
  }

  // A wrapper of a stream alone skips everything.
  std::rewind(t.file.get());
  RecordingLog log;
  CInnerHeaderWrapper skipper(t.stream, &log, L"unknown component");
  EXPECT_FALSE(skipper.IsTryLoad());
  EXPECT_EQ(skipper.GetComponentName(), L"");
  Logger logger;
  EXPECT_EQ(skipper.Load(logger), 131);
  EXPECT_EQ(skipper.Load(logger), 130);
  EXPECT_EQ(log.lines.size(), 2u);
}

TEST(ComponentHeader, BadHeadersAndMiscountingFiltersFail)
{
  expectThrowText<std::logic_error>([] { CInnerHeaderWrapper(nullptr, nullptr, L"x"); },
                                    "Error: attempt to CInnerHeaderWrapper wraps empty sub-filter.");
  {
    TempStream t;
    CInnerHeaderWrapper skipper(t.stream, nullptr, L"");
    expectThrowText<std::exception>([&] { skipper.Save(); }, "Internal logic error CInnerHeaderWrapper");
    EXPECT_TRUE(t.contents().empty());
  }
  {
    // Marks of 29 characters fit; of 30, the header refuses them and nothing is written.
    TempStream t;
    std::string const fits(29, 'm');
    CInnerHeaderWrapper(new PayloadFilter(t.stream, fits, 1, bytesOf("d")), nullptr, L"").Save();
    EXPECT_EQ(t.contents().size(), 129u);
    std::rewind(t.file.get());
    auto p = new PayloadFilter(t.stream, fits, 1, {});
    p->readCount = 1;
    Logger logger;
    CInnerHeaderWrapper w(p, nullptr, L"");
    EXPECT_EQ(w.Load(logger), 129);
    EXPECT_EQ(p->loaded, bytesOf("d"));

    TempStream u;
    CInnerHeaderWrapper tooLong(new PayloadFilter(u.stream, fits + "m", 1, bytesOf("d")), nullptr, L"");
    EXPECT_THROW(tooLong.Save(), std::length_error);
    EXPECT_TRUE(u.contents().empty());
  }

  TempStream t;
  CInnerHeaderWrapper(new PayloadFilter(t.stream, "Points", 1, bytesOf("twelve bytes")), nullptr, L"").Save();
  Bytes good = t.contents();
  Logger logger;
  auto loadPoints = [&](std::size_t readCount)
  {
    auto p = new PayloadFilter(t.stream, "Points", 1, {});
    p->readCount = readCount;
    return CInnerHeaderWrapper(p, nullptr, L"").Load(logger);
  };
  EXPECT_THROW(loadPoints(10), CUnknownFormatError); // reads 10 of 12
  t.assign(good, good.size());
  EXPECT_THROW(loadPoints(13), CVescaException); // reads beyond: the stream's end, or the count

  Bytes broken = good;
  std::memset(&broken[10], 0xFF, 8); // -1: a save that broke off
  t.assign(broken, broken.size());
  EXPECT_THROW(loadPoints(12), CUnknownFormatError);
  EXPECT_EQ(t.stream.getPosition(), 128); // where the check found it
  broken = good;
  broken[3] = 'X';
  t.assign(broken, broken.size());
  EXPECT_THROW(loadPoints(12), CUnknownFormatError);
}

// A document of nested, skipped and known components is cut at every length
// and damaged at every byte: a cut never loads, damage never crashes, and a
// damaged mark or size never loads.
TEST(ComponentHeader, TruncatedAndCorruptedFilesFailCleanly)
{
  TempStream t;
  {
    auto doc = new NestingFilter(t.stream, "Doc");
    doc->children.emplace_back(new CInnerHeaderWrapper(
        new PayloadFilter(t.stream, "Points", 2, bytesOf("0123456789ab")), nullptr, L""));
    doc->children.emplace_back(
        new CInnerHeaderWrapper(new PayloadFilter(t.stream, "Normals", 3, bytesOf("nnnnnnn")), nullptr, L""));
    CInnerHeaderWrapper(doc, nullptr, L"").Save();
    CInnerHeaderWrapper(new PayloadFilter(t.stream, "Tail", 1, bytesOf("tail!")), nullptr, L"").Save();
  }
  Bytes const good = t.contents();
  std::size_t const docEnd = 128 + 140 + 135;
  ASSERT_EQ(good.size(), docEnd + 133);

  // The reader knows Points v2 and Tail, and Normals only in version 2.
  auto load = [&](RecordingLog & log)
  {
    auto doc = new NestingFilter(t.stream, "Doc");
    auto points = new PayloadFilter(t.stream, "Points", 2, {});
    points->readCount = 12;
    auto normals = new PayloadFilter(t.stream, "Normals", 2, {});
    doc->children.emplace_back(new CInnerHeaderWrapper(points, &log, L"points skipped"));
    doc->children.emplace_back(new CInnerHeaderWrapper(normals, &log, L"normals skipped"));
    Logger logger;
    __int64 n = CInnerHeaderWrapper(doc, &log, L"doc skipped").Load(logger);
    auto tail = new PayloadFilter(t.stream, "Tail", 1, {});
    tail->readCount = 5;
    n += CInnerHeaderWrapper(tail, &log, L"tail skipped").Load(logger);
    return n;
  };
  {
    RecordingLog log;
    EXPECT_EQ(load(log), static_cast<__int64>(good.size()));
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].first, L"normals skipped");
  }

  for (std::size_t cut = 0; cut < good.size(); ++cut)
  {
    t.assign(good, cut);
    RecordingLog log;
    EXPECT_THROW(load(log), CVescaException) << "cut at " << cut;
  }

  // A damaged mark (its first nine bytes) or size must fail; a damaged
  // version or block mark makes the component unknown, which is skipped.
  std::size_t const headers[] = {0, 128, 128 + 140, docEnd};
  for (std::size_t at = 0; at < good.size(); ++at)
  {
    Bytes bad = good;
    bad[at] ^= 0xA5;
    t.assign(bad, bad.size());
    bool mustFail = false;
    for (std::size_t h : headers)
      mustFail = mustFail || (at >= h && at < h + 18 && at != h + 9);
    RecordingLog log;
    try
    {
      load(log);
      EXPECT_FALSE(mustFail) << "damage at " << at << " loaded";
    }
    catch (CVescaException const &)
    {
      EXPECT_TRUE(mustFail) << "damage at " << at << " failed";
    }
  }
}

TEST(FileBinaryStream, ReadsWritesSkipsAndFailsWithItsTexts)
{
  TempStream t;
  t.stream.writeData(5, "hello");
  t.stream.writeData(0, nullptr);
  EXPECT_EQ(t.stream.getPosition(), 5);
  std::rewind(t.file.get());
  char buf[5] = {};
  t.stream.skipReadData(2);
  t.stream.readData(3, buf);
  EXPECT_EQ(std::string(buf, 3), "llo");
  t.stream.readData(0, buf); // at the end: nothing to do
  t.stream.skipReadData(-4);
  t.stream.readData(1, buf);
  EXPECT_EQ(buf[0], 'e');
  EXPECT_EQ(t.stream.Deprecated_GetFilePtr(), t.file.get());

  char const * readError = "Unexpected end of file. Probably corrupted data.";
  expectThrowText<CVescaException>([&] { t.stream.readData(5, buf); }, readError);
  std::rewind(t.file.get());
  expectThrowText<CVescaException>([&] { t.stream.skipReadData(-1); }, readError);
  expectThrowText<CVescaException>([&] { t.stream.skipReadData(6); }, readError);
  EXPECT_EQ(t.stream.getPosition(), 0); // a refused skip stays where it was
  t.stream.skipReadData(5);             // up to the end is fine

  std::FILE * ro = ::fdopen(::dup(::fileno(t.file.get())), "rb");
  ASSERT_NE(ro, nullptr);
  CFileWrapClose guard(ro);
  CFileBinaryStream roStream(guard.FilePtr());
  expectThrowText<CVescaException>(
      [&] { roStream.writeData(3, "abc"); },
      "Impossible write to file. Probably not enough free disk space or unexpected internal error.");
}

TEST(FileBinaryStream, WrapCloseClosesOnceAndIgnoresNull)
{
  VsUt::CTemporaryFile tmp("QZtest_cmp_");
  int const fd = ::dup(::fileno(tmp.get()));
  std::FILE * f = ::fdopen(fd, "rb");
  ASSERT_NE(f, nullptr);
  {
    CFileWrapClose guard(f);
    EXPECT_EQ(guard.FilePtr(), f);
    EXPECT_NE(::fcntl(fd, F_GETFD), -1);
    guard.release();
    EXPECT_EQ(guard.FilePtr(), nullptr);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
    guard.release();
  }
  CFileWrapClose none;
  none.release();

  int const fd2 = ::dup(::fileno(tmp.get()));
  {
    CFileWrapClose guard(::fdopen(fd2, "rb"));
  }
  EXPECT_EQ(::fcntl(fd2, F_GETFD), -1);
}

TEST(ComponentFilters, PlaceholderFiltersAndLoggers)
{
  TempStream t;
  t.stream.writeData(7, "1234567");
  std::rewind(t.file.get());
  RecordingLog log;
  Logger logger;
  CSkipTillTheEnd skip(t.stream, &log, L"rest", L"rest skipped");
  EXPECT_EQ(skip.Load(logger), 7);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].first, L"rest skipped");
  EXPECT_EQ(log.lines[0].second, LogLevel_Warning);
  EXPECT_EQ(skip.Save(), 0);
  EXPECT_EQ(skip.GetVersion(), 0);
  EXPECT_EQ(skip.GetBlockMark(), "SkipTillEnd");
  EXPECT_EQ(skip.GetComponentName(), L"rest");
  EXPECT_EQ(CSkipTillTheEnd(t.stream, nullptr, L"", L"x").Load(logger), 0); // already at the end

  CComponentFilterStub stub(L"stub name", t.stream);
  EXPECT_EQ(stub.Save(), 0);
  EXPECT_EQ(stub.Load(logger), 0);
  EXPECT_EQ(stub.GetVersion(), 0);
  EXPECT_EQ(stub.GetBlockMark(), "STUB");
  EXPECT_EQ(stub.GetComponentName(), L"stub name");
  EXPECT_EQ(&stub.GetStream(), &t.stream);

  EXPECT_FALSE(logger.IsFinalized());
  logger.FinalizeLoading();
  logger.FinalizeLoading();
  EXPECT_EQ(logger.finalized, 1);
  EXPECT_TRUE(logger.IsFinalized());

  EXPECT_STREQ(CFileReadError().what(), "Vesca exception");
  EXPECT_STREQ(CFileWriteError().what(), "Vesca exception");
  EXPECT_STREQ(CUnknownFormatError().what(), "Vesca exception");
  EXPECT_EQ(CStringWarning(L"w").getMessage(), L"w");
}

TEST(ComponentFilters, TotalSelectorTakesActiveObjects)
{
  std::unique_ptr<IGraphObjectSelector> total(IGraphObjectSelector::CreateTotal());
  CGraphObject o;
  EXPECT_TRUE((*total)(&o)); // active, though not selected
  EXPECT_FALSE((*total)(nullptr));
  o.setActive(false);
  o.setSelected(true);
  EXPECT_FALSE((*total)(&o));
  std::unique_ptr<IGraphObjectSelector> copy(total->Copy());
  ASSERT_NE(copy.get(), total.get());
  o.setActive(true);
  EXPECT_TRUE(copy->IsActiveAndSelected(o));
}
