#pragma once
// A small document in the component format, the way an application would
// lay one out: a "Doc" component holding a count and that many children,
// each a "Points" (v2), a "Text" (v1) or a component this reader does not
// know, which its wrapper skips. Behind the document the rest of the stream
// is consumed by CSkipTillTheEnd. The seed writer saves documents with these
// filters and the fuzz target loads whatever bytes it gets with them.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "QZmath/Persistence/ComponentFilters.h"

namespace qzfuzz
{
/// Points as int32 count and three floats each.
class PointsFilter : public VsF::IComponentFilter
{
public:
  explicit PointsFilter(IVescaBinaryStream & stream) : m_stream(stream) {}
  std::vector<float> coords;

private:
  __int64 OnSave() override
  {
    std::int32_t const count = static_cast<std::int32_t>(coords.size() / 3);
    m_stream.writeData(4, &count);
    m_stream.writeData(12 * static_cast<std::uint64_t>(count), coords.data());
    return 4 + 12 * static_cast<__int64>(count);
  }
  __int64 OnLoad(VsF::IDeltaStateLogger &) override
  {
    std::int32_t count = 0;
    m_stream.readData(4, &count);
    if (count < 0)
      throw VsF::CFileReadError();
    coords.clear();
    // One point at a time: a forged count ends at the end of the data.
    for (std::int32_t i = 0; i < count; ++i)
    {
      float p[3];
      m_stream.readData(sizeof p, p);
      coords.insert(coords.end(), p, p + 3);
    }
    return 4 + 12 * static_cast<__int64>(count);
  }
  std::wstring OnGetComponentName() const override { return L"points"; }
  std::string OnGetBlockMark() const override { return "Points"; }
  int OnGetVersion() const override { return 2; }
  IVescaBinaryStream & OnGetStream() override { return m_stream; }

  IVescaBinaryStream & m_stream;
};

/// A string as a byte count and the bytes.
class TextFilter : public VsF::IComponentFilter
{
public:
  explicit TextFilter(IVescaBinaryStream & stream) : m_stream(stream) {}
  std::string text;

private:
  __int64 OnSave() override
  {
    std::uint16_t const n = static_cast<std::uint16_t>(text.size());
    m_stream.writeData(2, &n);
    m_stream.writeData(n, text.data());
    return 2 + static_cast<__int64>(n);
  }
  __int64 OnLoad(VsF::IDeltaStateLogger &) override
  {
    std::uint16_t n = 0;
    m_stream.readData(2, &n);
    text.assign(n, '\0');
    m_stream.readData(n, &text[0]);
    return 2 + static_cast<__int64>(n);
  }
  std::wstring OnGetComponentName() const override { return L"text"; }
  std::string OnGetBlockMark() const override { return "Text"; }
  int OnGetVersion() const override { return 1; }
  IVescaBinaryStream & OnGetStream() override { return m_stream; }

  IVescaBinaryStream & m_stream;
};

/// Children behind a count. Child i is read by a wrapper of `kinds[i % 3]`:
/// points, text, or a skip-only wrapper.
class DocFilter : public VsF::IComponentFilter
{
public:
  DocFilter(IVescaBinaryStream & stream, VsF::ISaveLoadLog * log) : m_stream(stream), m_log(log) {}
  /// For saving: the children, each behind its wrapper.
  std::vector<std::unique_ptr<VsF::CInnerHeaderWrapper>> children;
  /// What a load brought in.
  std::vector<std::vector<float>> points;
  std::vector<std::string> texts;
  int skipped = 0;

  static int maxChildren() { return 64; }

private:
  __int64 OnSave() override
  {
    std::int32_t const count = static_cast<std::int32_t>(children.size());
    m_stream.writeData(4, &count);
    __int64 n = 4;
    for (auto & c : children)
      n += c->Save();
    return n;
  }
  // A wrapper owns its filter only once it is made: the warning text is made
  // first, so that running out of memory on it cannot leave a filter that
  // nobody deletes.
  __int64 OnLoad(VsF::IDeltaStateLogger & logger) override
  {
    std::int32_t count = 0;
    m_stream.readData(4, &count);
    if (count < 0 || count > maxChildren())
      throw VsF::CFileReadError();
    __int64 n = 4;
    for (std::int32_t i = 0; i < count; ++i)
    {
      switch (i % 3)
      {
      case 0:
      {
        std::wstring warning = L"points skipped";
        auto * p = new PointsFilter(m_stream);
        VsF::CInnerHeaderWrapper w(p, m_log, std::move(warning));
        n += w.Load(logger);
        points.push_back(p->coords);
        break;
      }
      case 1:
      {
        std::wstring warning = L"text skipped";
        auto * t = new TextFilter(m_stream);
        VsF::CInnerHeaderWrapper w(t, m_log, std::move(warning));
        n += w.Load(logger);
        texts.push_back(t->text);
        break;
      }
      default:
      {
        VsF::CInnerHeaderWrapper w(m_stream, m_log, L"unknown component skipped");
        n += w.Load(logger);
        ++skipped;
      }
      }
    }
    return n;
  }
  std::wstring OnGetComponentName() const override { return L"document"; }
  std::string OnGetBlockMark() const override { return "Doc"; }
  int OnGetVersion() const override { return 1; }
  IVescaBinaryStream & OnGetStream() override { return m_stream; }

  IVescaBinaryStream & m_stream;
  VsF::ISaveLoadLog * m_log;
};

class CountingLog : public VsF::ISaveLoadLog
{
public:
  int lines = 0;

private:
  void OnWriteLogMess(const IVescaWarning & w, VsF::LogLevel level) override
  {
    if (level == VsF::LogLevel_Warning && !w.getMessage().empty())
      ++lines;
  }
};

class NullLogger : public VsF::IDeltaStateLogger
{
  VsF::DocumentNewObjectProcessStatus OnProcessNewObject(VsF::INewObjEvent &) override
  {
    return VsF::DocNewObj_Processed;
  }
  void OnFinalizeLoading() override {}
};
} // namespace qzfuzz
