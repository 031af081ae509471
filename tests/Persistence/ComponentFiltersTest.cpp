#include <gtest/gtest.h>

#include <cstdint>
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
#include "tests/Common/Checks.h"

using namespace VsF;

namespace
{
/// A file with its stream; its bytes can be read and replaced beside it.
struct TempStream
{
  VsUt::CTemporaryFile file{"QZtest_cmp_"};
  CFileBinaryStream stream{file.get()};

  std::string contents()
  {
    std::fseek(file.get(), 0, SEEK_END);
    std::string bytes(static_cast<std::size_t>(std::ftell(file.get())), '\0');
    std::rewind(file.get());
    EXPECT_EQ(std::fread(&bytes[0], 1, bytes.size(), file.get()), bytes.size());
    std::rewind(file.get());
    return bytes;
  }
  void assign(std::string const & bytes)
  {
    EXPECT_EQ(::ftruncate(::fileno(file.get()), 0), 0);
    std::rewind(file.get());
    EXPECT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), file.get()), bytes.size());
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

/// A component of fixed bytes, of which Load reads `readCount`, followed by
/// further components, each behind a wrapper.
struct PayloadFilter : IComponentFilter
{
  explicit PayloadFilter(IVescaBinaryStream & s, std::string mark = "Doc", int version = 1,
                         std::string payload = "")
      : stream(s), mark(std::move(mark)), version(version), payload(std::move(payload)),
        readCount(this->payload.size())
  {
  }
  IVescaBinaryStream & stream;
  std::string mark;
  int version;
  std::string payload, loaded;
  std::size_t readCount;
  std::vector<std::unique_ptr<CInnerHeaderWrapper>> children;

  PayloadFilter * add(std::string mark, int version, std::string payload, ISaveLoadLog * log = nullptr,
                      std::wstring warning = L"")
  {
    auto p = new PayloadFilter(stream, std::move(mark), version, std::move(payload));
    children.emplace_back(new CInnerHeaderWrapper(p, log, std::move(warning)));
    return p;
  }

private:
  __int64 OnSave() override
  {
    stream.writeData(payload.size(), payload.data());
    __int64 n = static_cast<__int64>(payload.size());
    for (auto & c : children)
      n += c->Save();
    return n;
  }
  __int64 OnLoad(IDeltaStateLogger & logger) override
  {
    loaded.assign(readCount, '\0');
    stream.readData(readCount, &loaded[0]);
    __int64 n = static_cast<__int64>(readCount);
    for (auto & c : children)
      n += c->Load(logger);
    return n;
  }
  std::wstring OnGetComponentName() const override { return L"payload"; }
  std::string OnGetBlockMark() const override { return mark; }
  int OnGetVersion() const override { return version; }
  IVescaBinaryStream & OnGetStream() override { return stream; }
};

__int64 save(IVescaBinaryStream & s, std::string mark, int version, std::string payload)
{
  return CInnerHeaderWrapper(new PayloadFilter(s, std::move(mark), version, std::move(payload)), nullptr, L"")
      .Save();
}

/// `n` bytes of `v`, least significant first.
std::string le(std::uint64_t v, int n)
{
  std::string bytes;
  for (int i = 0; i < n; ++i)
    bytes += static_cast<char>(v >> (8 * i));
  return bytes;
}

} // namespace

TEST(ComponentHeader, SaveWritesTheExactLayoutAndPatchesTheSize)
{
  TempStream t;
  CInnerHeaderWrapper w(new PayloadFilter(t.stream, "Points", 0x7A000003, "twelve bytes"), nullptr, L"");
  EXPECT_EQ(w.Save(), 140);
  EXPECT_EQ(t.stream.getPosition(), 140); // at the end of the data
  // Mark, data size, all four bytes of the version, the block mark padded
  // with zeros, the data.
  EXPECT_EQ(t.contents(), std::string("VsCmpWrp\0\0", 10) + le(12, 8) + le(0x7A000003, 4) + "Points" +
                              std::string(100, '\0') + "twelve bytes");
  EXPECT_EQ(CInnerHeaderWrapper::getWrapHeaderSize(), 128);
}

TEST(ComponentHeader, UnknownVersionsAndMarksAreSkippedWithAWarning)
{
  TempStream t;
  save(t.stream, "Points", 3, "abc");
  save(t.stream, "Tail", 1, "xy");
  struct Reader
  {
    char const * mark;
    int version;
    bool withLog;
    wchar_t const * text;
    bool loads;
    std::size_t logged;
  } const cases[] = {
      {"Points", 3, true, L"skipped", true, 0},   {"Points", 2, true, L"skipped", false, 1},  // older reader
      {"Points", 4, true, L"skipped", false, 1},  {"Point", 3, true, L"skipped", false, 1},   // marks in full
      {"PointsX", 3, true, L"skipped", false, 1}, {"Points", 2, false, L"skipped", false, 0}, // no log
      {"Points", 2, true, L"", false, 0},                                                     // no text
  };
  Logger logger;
  for (Reader const & r : cases)
  {
    std::rewind(t.file.get());
    SCOPED_TRACE(std::string(r.mark) + " v" + std::to_string(r.version));
    RecordingLog log;
    PayloadFilter doc(t.stream); // only to hold the two readers
    PayloadFilter * p = doc.add(r.mark, r.version, "___", r.withLog ? &log : nullptr, r.text);
    PayloadFilter * tail = doc.add("Tail", 1, "__");
    EXPECT_EQ(doc.Load(logger), 131 + 130);
    EXPECT_EQ(p->loaded, r.loads ? "abc" : "");
    EXPECT_EQ(tail->loaded, "xy"); // the next component right behind
    ASSERT_EQ(log.lines.size(), r.logged);
    EXPECT_TRUE(!r.logged || (log.lines[0].first == L"skipped" && log.lines[0].second == 2));
  }
  std::rewind(t.file.get());

  // A wrapper of a stream alone skips everything, and cannot save.
  RecordingLog log;
  CInnerHeaderWrapper skipper(t.stream, &log, L"unknown component");
  EXPECT_FALSE(skipper.IsTryLoad());
  EXPECT_EQ(skipper.Load(logger), 131);
  EXPECT_EQ(skipper.Load(logger), 130);
  EXPECT_EQ(log.lines.size(), 2u);
  EXPECT_EQ(QZTest::whatOf<std::exception>([&] { skipper.Save(); }),
            "Internal logic error CInnerHeaderWrapper");
  EXPECT_EQ(t.contents().size(), 261u);
}

TEST(ComponentHeader, BadHeadersMarksAndMiscountingFiltersFail)
{
  EXPECT_EQ(QZTest::whatOf<std::logic_error>([] { CInnerHeaderWrapper(nullptr, nullptr, L"x"); }),
            "Error: attempt to CInnerHeaderWrapper wraps empty sub-filter.");
  TempStream t;
  // Marks of 29 characters fit; of 30, the header refuses them and nothing is written.
  std::string const fits(29, 'm');
  save(t.stream, fits, 1, "d");
  EXPECT_THROW(save(t.stream, fits + "m", 1, "d"), std::length_error);
  EXPECT_EQ(t.contents().size(), 129u);
  PayloadFilter reader(t.stream);
  reader.add(fits, 1, "_");
  Logger logger;
  EXPECT_EQ(reader.Load(logger), 129);

  t.assign("");
  save(t.stream, "Points", 1, "twelve bytes");
  std::string const good = t.contents();
  auto loadPoints = [&](std::string const & bytes, std::size_t readCount)
  {
    t.assign(bytes);
    PayloadFilter r(t.stream);
    r.add("Points", 1, "")->readCount = readCount;
    return r.Load(logger);
  };
  EXPECT_EQ(loadPoints(good, 12), 140);
  EXPECT_THROW(loadPoints(good, 10), CUnknownFormatError); // reads 10 of 12
  EXPECT_THROW(loadPoints(good + "more", 14), CUnknownFormatError);
  // A size of -1, left by a save that broke off, is FullDisk's case.
}

// A document of nested, skipped and known components is cut at every length
// and damaged at every byte: a cut never loads, and a damaged mark (its first
// nine bytes) or size never loads, while damage elsewhere loads or fails
// cleanly. A damaged version or block mark makes a component unknown, so it
// is skipped.
TEST(ComponentHeader, TruncatedAndCorruptedFilesFailCleanly)
{
  TempStream t;
  {
    auto doc = new PayloadFilter(t.stream);
    doc->add("Points", 2, "0123456789ab");
    doc->add("Normals", 3, "nnnnnnn");
    CInnerHeaderWrapper(doc, nullptr, L"").Save();
    save(t.stream, "Tail", 1, "tail!");
  }
  std::string const good = t.contents();
  std::size_t const headers[] = {0, 128, 128 + 140, 128 + 140 + 135};
  ASSERT_EQ(good.size(), headers[3] + 133);

  // The reader knows Points v2 and Tail, and Normals only in version 2.
  std::string points, tail;
  RecordingLog log;
  auto load = [&](std::string const & bytes)
  {
    t.assign(bytes);
    log.lines.clear();
    auto doc = new PayloadFilter(t.stream);
    PayloadFilter * p = doc->add("Points", 2, std::string(12, '_'), &log, L"points skipped");
    doc->add("Normals", 2, "", &log, L"normals skipped");
    PayloadFilter all(t.stream);
    all.children.emplace_back(new CInnerHeaderWrapper(doc, &log, L"doc skipped"));
    PayloadFilter * q = all.add("Tail", 1, "_____", &log, L"tail skipped");
    Logger logger;
    __int64 const n = all.Load(logger);
    points = p->loaded;
    tail = q->loaded;
    return n;
  };
  EXPECT_EQ(load(good), static_cast<__int64>(good.size()));
  EXPECT_EQ(points + tail, "0123456789abtail!");
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_EQ(log.lines[0].first, L"normals skipped");
  EXPECT_EQ(good.substr(10, 8), le(140 + 135, 8)); // the outer size covers the inner headers

  for (std::size_t cut = 0; cut < good.size(); ++cut)
    EXPECT_THROW(load(good.substr(0, cut)), CVescaException) << "cut at " << cut;

  for (std::size_t at = 0; at < good.size(); ++at)
  {
    std::string bad = good;
    bad[at] = static_cast<char>(bad[at] ^ 0xA5);
    bool mustFail = false;
    for (std::size_t h : headers)
      mustFail = mustFail || (at >= h && at < h + 18 && at != h + 9);
    try
    {
      load(bad);
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
  std::rewind(t.file.get());
  char buf[5] = {};
  t.stream.skipReadData(2);
  t.stream.readData(3, buf);
  EXPECT_EQ(std::string(buf, 3), "llo");
  t.stream.readData(0, buf); // at the end: nothing to do
  t.stream.skipReadData(-4);
  EXPECT_EQ(t.stream.getPosition(), 1);

  char const * readError = "Unexpected end of file. Probably corrupted data.";
  EXPECT_EQ(QZTest::whatOf<CVescaException>([&] { t.stream.readData(5, buf); }), readError);
  std::rewind(t.file.get());
  EXPECT_EQ(QZTest::whatOf<CVescaException>([&] { t.stream.skipReadData(-1); }), readError);
  EXPECT_EQ(QZTest::whatOf<CVescaException>([&] { t.stream.skipReadData(6); }), readError);
  EXPECT_EQ(t.stream.getPosition(), 0); // a refused skip stays where it was
  t.stream.skipReadData(5);             // up to the end is fine

  int const fd = ::dup(::fileno(t.file.get()));
  CFileWrapClose guard(::fdopen(fd, "rb"));
  CFileBinaryStream readOnly(guard.FilePtr());
  EXPECT_EQ(QZTest::whatOf<CVescaException>([&] { readOnly.writeData(3, "abc"); }),
            "Impossible write to file. Probably not enough free disk space or unexpected internal error.");
  guard.release();
  EXPECT_EQ(guard.FilePtr(), nullptr);
  EXPECT_EQ(::fcntl(fd, F_GETFD), -1); // closed
  guard.release();                     // null is harmless
}

TEST(ComponentFilters, PlaceholdersLoggersErrorsAndSelectors)
{
  TempStream t;
  t.stream.writeData(7, "1234567");
  std::rewind(t.file.get());
  RecordingLog log;
  Logger logger;
  CSkipTillTheEnd skip(t.stream, &log, L"rest", L"rest skipped");
  EXPECT_EQ(skip.Load(logger), 7);
  ASSERT_EQ(log.lines.size(), 1u);
  EXPECT_TRUE(log.lines[0].first == L"rest skipped" && log.lines[0].second == LogLevel_Warning);
  EXPECT_EQ(skip.Load(logger), 0); // already at the end
  EXPECT_TRUE(skip.Save() == 0 && skip.GetBlockMark() == "SkipTillEnd");

  CComponentFilterStub stub(L"stub name", t.stream);
  EXPECT_TRUE(stub.Save() == 0 && stub.Load(logger) == 0 && stub.GetBlockMark() == "STUB");

  logger.FinalizeLoading();
  logger.FinalizeLoading();
  EXPECT_EQ(logger.finalized, 1);

  std::unique_ptr<IGraphObjectSelector> total(IGraphObjectSelector::CreateTotal());
  std::unique_ptr<IGraphObjectSelector> copy(total->Copy());
  CGraphObject o;
  EXPECT_TRUE((*total)(&o)); // active, though not selected
  EXPECT_FALSE((*copy)(nullptr));
  o.setActive(false);
  o.setSelected(true);
  EXPECT_FALSE((*copy)(&o));
}
