#pragma once
// Component filters: how a document saves and loads its parts. Each part sits
// behind a fixed header of 128 bytes that carries its size, so that a reader
// that does not know a component, or knows another version of it, skips it
// and goes on, with a warning in the log.
//
// The header (little-endian, no padding):
//   offset  size  field
//        0    10  mark "VsCmpWrp", then two zero bytes
//       10     8  int64 size: bytes of data behind the header; -1 while written
//       18     4  int32 version of the wrapped filter
//       22    30  block mark of the wrapped filter, NUL-terminated (29 chars at most)
//       52    76  zero
// The data follow the header; the next component follows the data. The data
// of one component may hold further components.
//
// Failures: a header that is not one, or a component whose filter read other
// than the saved number of bytes, gives CUnknownFormatError; short reads and
// failed writes come from the stream (CVescaException). An exception of a
// wrapped filter passes through; nothing is restored.

#include <string>

#include "QZmath/Persistence/BinaryStream.h"
#include "QZsys/Compat.h"
#include "QZsys/Exceptions.h"

namespace VsF
{
class CFileReadError : public CVescaException
{
public:
  CFileReadError() = default;
};

class CFileWriteError : public CVescaException
{
public:
  CFileWriteError() = default;
};

/// The data are not what the reader expects: not a component header, or a
/// component whose filter consumed another size than was saved.
class CUnknownFormatError : public CVescaException
{
public:
  CUnknownFormatError() = default;
};

/// A warning that is a fixed text.
class CStringWarning : public IVescaWarning
{
public:
  explicit CStringWarning(std::wstring text) : m_sText(std::move(text)) {}
  std::wstring getMessage() const override { return m_sText; }

private:
  std::wstring m_sText;
};

/// Levels of the save-and-load log. Skipped components are reported at 2.
enum LogLevel : int
{
  LogLevel_Trace = 0,
  LogLevel_Info = 1,
  LogLevel_Warning = 2,
  LogLevel_Error = 3,
};

/// Where the filters report what they skipped.
class ISaveLoadLog
{
public:
  virtual ~ISaveLoadLog() = default;
  void WriteLogMess(const IVescaWarning & warning, LogLevel level) { OnWriteLogMess(warning, level); }

protected:
  ISaveLoadLog() = default;

private:
  virtual void OnWriteLogMess(const IVescaWarning & warning, LogLevel level) = 0;
};

/// An object that a load brought into the document.
class INewObjEvent
{
public:
  virtual ~INewObjEvent() = 0;
};
inline INewObjEvent::~INewObjEvent() = default;

/// What the document did with a new object.
enum DocumentNewObjectProcessStatus : int
{
  DocNewObj_Processed = 0,
  DocNewObj_Skipped = 1,
  DocNewObj_Cancelled = 2,
};

/// The document's side of a load: filters announce the objects they made.
class IDeltaStateLogger
{
public:
  virtual ~IDeltaStateLogger() = default;
  DocumentNewObjectProcessStatus ProcessNewObject(INewObjEvent & event) { return OnProcessNewObject(event); }
  /// Finalises once: later calls do nothing. A finalisation that throws may
  /// be tried again.
  void FinalizeLoading();
  bool IsFinalized() const { return m_bFinalized; }

protected:
  IDeltaStateLogger() = default;

private:
  virtual DocumentNewObjectProcessStatus OnProcessNewObject(INewObjEvent & event) = 0;
  virtual void OnFinalizeLoading() = 0;

  bool m_bFinalized = false;
};

/// A saver and loader of one component of a document.
class IComponentFilter
{
public:
  virtual ~IComponentFilter() = default;

  /// Writes the component; the number of bytes written.
  __int64 Save() { return OnSave(); }
  /// Reads the component; the number of bytes read.
  __int64 Load(IDeltaStateLogger & logger) { return OnLoad(logger); }
  /// The component's name for people.
  std::wstring GetComponentName() const { return OnGetComponentName(); }
  /// The component's name in its header.
  std::string GetBlockMark() const { return OnGetBlockMark(); }
  int GetVersion() const { return OnGetVersion(); }
  IVescaBinaryStream & GetStream() { return OnGetStream(); }

protected:
  IComponentFilter() = default;

private:
  virtual __int64 OnSave() = 0;
  virtual __int64 OnLoad(IDeltaStateLogger & logger) = 0;
  virtual std::wstring OnGetComponentName() const = 0;
  virtual std::string OnGetBlockMark() const = 0;
  virtual int OnGetVersion() const = 0;
  virtual IVescaBinaryStream & OnGetStream() = 0;
};

/// Puts one filter's component behind a header, and on load hands the data
/// to it only when the header names it and its version exactly; otherwise
/// skips the data with a warning. Made from a stream alone, it skips every
/// component.
class CInnerHeaderWrapper : public IComponentFilter
{
public:
  /// The header, decoded; the layout in the file is fixed as described above.
  struct SWrapData
  {
    char mark[10];
    __int64 size;
    int version;
    char blockMark[30];
    unsigned char reserved[76];
  };

  /// Takes `subFilter` (deleted with the wrapper) and its stream. A null
  /// subFilter throws std::logic_error. `log` stays the caller's and may be
  /// null; an empty `skipWarning` logs nothing.
  CInnerHeaderWrapper(IComponentFilter * subFilter, ISaveLoadLog * log, std::wstring skipWarning);
  /// A wrapper that can only skip components of `stream`.
  CInnerHeaderWrapper(IVescaBinaryStream & stream, ISaveLoadLog * log, std::wstring skipWarning);
  ~CInnerHeaderWrapper() override;
  CInnerHeaderWrapper(CInnerHeaderWrapper const &) = delete;
  CInnerHeaderWrapper & operator=(CInnerHeaderWrapper const &) = delete;

  /// Whether a load may hand data to a filter: false for the skip-only form.
  bool IsTryLoad() const { return m_pSubFilter != nullptr; }
  static int getWrapHeaderSize() { return 128; }
  /// Whether `header` is one: the mark, and a size that is not negative.
  static bool RecognizeCompHeader(SWrapData & header);
  /// The 128 bytes of `header` as they stand in a file, and back.
  static void EncodeHeader(SWrapData const & header, unsigned char * bytes);
  static void DecodeHeader(unsigned char const * bytes, SWrapData & header);

private:
  /// Writes the header with the size -1: std::length_error, with nothing
  /// written, when the block mark does not fit.
  __int64 OnSave() override;
  __int64 OnLoad(IDeltaStateLogger & logger) override;
  std::wstring OnGetComponentName() const override;
  std::string OnGetBlockMark() const override { return "Wrap"; }
  int OnGetVersion() const override { return 1; }
  IVescaBinaryStream & OnGetStream() override { return *m_pStream; }

  void SaveComponentHeader();
  /// From the end of `saved` bytes of data back to the header's size field,
  /// the size, and forward to the end again.
  void FillSavedBytes(__int64 saved);
  __int64 SkipData(__int64 size);

  IComponentFilter * m_pSubFilter;
  IVescaBinaryStream * m_pStream;
  ISaveLoadLog * m_pLog;
  std::wstring m_sSkipWarning;
};

/// Consumes the rest of the stream, one byte at a time since there is no
/// size to trust, and logs the skip.
class CSkipTillTheEnd : public IComponentFilter
{
public:
  CSkipTillTheEnd(IVescaBinaryStream & stream, ISaveLoadLog * log, const std::wstring & componentName,
                  const std::wstring & skipWarning)
      : m_pStream(&stream), m_pLog(log), m_sComponentName(componentName), m_sSkipWarning(skipWarning)
  {
  }

private:
  __int64 OnSave() override { return 0; }
  /// The number of bytes up to the end. After 5,000,000,000 bytes it gives
  /// up with CFileReadError.
  __int64 OnLoad(IDeltaStateLogger & logger) override;
  std::wstring OnGetComponentName() const override { return m_sComponentName; }
  std::string OnGetBlockMark() const override { return "SkipTillEnd"; }
  int OnGetVersion() const override { return 0; }
  IVescaBinaryStream & OnGetStream() override { return *m_pStream; }

  void WriteLogSkipInfo();

  IVescaBinaryStream * m_pStream;
  ISaveLoadLog * m_pLog;
  std::wstring m_sComponentName;
  std::wstring m_sSkipWarning;
};

/// A placeholder that saves and loads nothing.
class CComponentFilterStub : public IComponentFilter
{
public:
  CComponentFilterStub(const std::wstring & componentName, IVescaBinaryStream & stream)
      : m_sComponentName(componentName), m_pStream(&stream)
  {
  }

private:
  __int64 OnSave() override { return 0; }
  __int64 OnLoad(IDeltaStateLogger &) override { return 0; }
  std::wstring OnGetComponentName() const override { return m_sComponentName; }
  std::string OnGetBlockMark() const override { return "STUB"; }
  int OnGetVersion() const override { return 0; }
  IVescaBinaryStream & OnGetStream() override { return *m_pStream; }

  std::wstring m_sComponentName;
  IVescaBinaryStream * m_pStream;
};
} // namespace VsF
