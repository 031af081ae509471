#include "QZmath/Persistence/ComponentFilters.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace VsF
{
namespace
{
char const tf_sMark[] = "VsCmpWrp";
constexpr int kHeaderSize = 128;
constexpr int kSizeOffset = 10;
constexpr int kVersionOffset = 18;
constexpr int kBlockMarkOffset = 22;
constexpr int kBlockMarkBytes = 30;
constexpr int kReservedOffset = 52;
/// From the end of the header back to its size field.
constexpr __int64 kBackToSize = kHeaderSize - kSizeOffset;
/// The largest data size whose component size still fits the counts.
constexpr __int64 kMaxDataSize = std::numeric_limits<__int64>::max() - kHeaderSize;

void tf_putLE(unsigned char * at, std::uint64_t value, int bytes)
{
  for (int i = 0; i < bytes; ++i)
    at[i] = static_cast<unsigned char>(value >> (8 * i));
}

std::uint64_t tf_getLE(unsigned char const * at, int bytes)
{
  std::uint64_t value = 0;
  for (int i = 0; i < bytes; ++i)
    value |= static_cast<std::uint64_t>(at[i]) << (8 * i);
  return value;
}
} // namespace

void IDeltaStateLogger::FinalizeLoading()
{
  if (m_bFinalized)
    return;
  OnFinalizeLoading();
  m_bFinalized = true;
}

CInnerHeaderWrapper::CInnerHeaderWrapper(IComponentFilter * subFilter, ISaveLoadLog * log,
                                         std::wstring skipWarning)
    : m_pSubFilter(subFilter), m_pStream(nullptr), m_pLog(log), m_sSkipWarning(std::move(skipWarning))
{
  if (!subFilter)
    throw std::logic_error("Error: attempt to CInnerHeaderWrapper wraps empty sub-filter.");
  m_pStream = &subFilter->GetStream();
}

CInnerHeaderWrapper::CInnerHeaderWrapper(IVescaBinaryStream & stream, ISaveLoadLog * log,
                                         std::wstring skipWarning)
    : m_pSubFilter(nullptr), m_pStream(&stream), m_pLog(log), m_sSkipWarning(std::move(skipWarning))
{
}

CInnerHeaderWrapper::~CInnerHeaderWrapper() { delete m_pSubFilter; }

bool CInnerHeaderWrapper::RecognizeCompHeader(SWrapData & header)
{
  // The mark compares as a NUL-terminated string: its tenth byte is not read.
  return std::memcmp(header.mark, tf_sMark, sizeof tf_sMark) == 0 && header.size >= 0;
}

void CInnerHeaderWrapper::EncodeHeader(SWrapData const & header, unsigned char * bytes)
{
  std::memset(bytes, 0, kHeaderSize);
  std::memcpy(bytes, header.mark, sizeof header.mark);
  tf_putLE(bytes + kSizeOffset, static_cast<std::uint64_t>(header.size), 8);
  tf_putLE(bytes + kVersionOffset, static_cast<std::uint32_t>(header.version), 4);
  std::memcpy(bytes + kBlockMarkOffset, header.blockMark, kBlockMarkBytes);
  std::memcpy(bytes + kReservedOffset, header.reserved, sizeof header.reserved);
}

void CInnerHeaderWrapper::DecodeHeader(unsigned char const * bytes, SWrapData & header)
{
  std::memcpy(header.mark, bytes, sizeof header.mark);
  header.size = static_cast<__int64>(tf_getLE(bytes + kSizeOffset, 8));
  header.version = static_cast<int>(static_cast<std::int32_t>(tf_getLE(bytes + kVersionOffset, 4)));
  std::memcpy(header.blockMark, bytes + kBlockMarkOffset, kBlockMarkBytes);
  std::memcpy(header.reserved, bytes + kReservedOffset, sizeof header.reserved);
}

std::wstring CInnerHeaderWrapper::OnGetComponentName() const
{
  return m_pSubFilter ? m_pSubFilter->GetComponentName() : std::wstring();
}

void CInnerHeaderWrapper::SaveComponentHeader()
{
  SWrapData header;
  std::memset(&header, 0, sizeof header);
  std::memcpy(header.mark, tf_sMark, sizeof tf_sMark);
  header.size = -1;
  header.version = m_pSubFilter->GetVersion();
  std::string const blockMark = m_pSubFilter->GetBlockMark();
  // Block marks compare in full on load, so one that does not fit whole (or
  // would be cut by a NUL inside it) is refused rather than shortened.
  if (blockMark.size() >= static_cast<std::size_t>(kBlockMarkBytes) ||
      blockMark.find('\0') != std::string::npos)
    throw std::length_error(
        "Error: block mark of a sub-filter of CInnerHeaderWrapper does not fit its header.");
  std::memcpy(header.blockMark, blockMark.data(), blockMark.size());

  unsigned char bytes[kHeaderSize];
  EncodeHeader(header, bytes);
  m_pStream->writeData(kHeaderSize, bytes);
}

void CInnerHeaderWrapper::FillSavedBytes(__int64 saved)
{
  unsigned char bytes[8];
  tf_putLE(bytes, static_cast<std::uint64_t>(saved), 8);
  m_pStream->skipReadData(static_cast<long>(-(saved + kBackToSize)));
  m_pStream->writeData(8, bytes);
  m_pStream->skipReadData(static_cast<long>(saved + kBackToSize - 8));
}

__int64 CInnerHeaderWrapper::OnSave()
{
  // The header needs the filter's version and block mark: a skip-only
  // wrapper has nothing to save, and writes nothing.
  if (!m_pSubFilter)
    throw VsUt::CTextException("Internal logic error CInnerHeaderWrapper");
  SaveComponentHeader();
  __int64 const saved = m_pSubFilter->Save();
  // A count no file can hold is the filter's mistake; patching by it would
  // seek anywhere.
  if (saved < 0 || saved > kMaxDataSize)
    throw VsUt::CTextException("Internal logic error CInnerHeaderWrapper");
  FillSavedBytes(saved);
  return saved + kHeaderSize;
}

__int64 CInnerHeaderWrapper::SkipData(__int64 size)
{
  m_pStream->skipReadData(static_cast<long>(size));
  if (m_pLog && !m_sSkipWarning.empty())
    m_pLog->WriteLogMess(CStringWarning(m_sSkipWarning), LogLevel_Warning);
  return size;
}

__int64 CInnerHeaderWrapper::OnLoad(IDeltaStateLogger & logger)
{
  unsigned char bytes[kHeaderSize];
  m_pStream->readData(kHeaderSize, bytes);
  SWrapData header;
  DecodeHeader(bytes, header);
  if (!RecognizeCompHeader(header))
    throw CUnknownFormatError();

  std::string const storedMark(header.blockMark, ::strnlen(header.blockMark, kBlockMarkBytes));
  // Another version, older or newer, is another format: skipped, not guessed at.
  bool const match = m_pSubFilter && storedMark == m_pSubFilter->GetBlockMark() &&
                     header.version == m_pSubFilter->GetVersion();
  __int64 const n = match ? m_pSubFilter->Load(logger) : SkipData(header.size);
  if (n != header.size || n > kMaxDataSize)
    throw CUnknownFormatError();
  return n + kHeaderSize;
}

void CSkipTillTheEnd::WriteLogSkipInfo()
{
  if (m_pLog && !m_sSkipWarning.empty())
    m_pLog->WriteLogMess(CStringWarning(m_sSkipWarning), LogLevel_Warning);
}

__int64 CSkipTillTheEnd::OnLoad(IDeltaStateLogger &)
{
  __int64 const kGiveUp = 5000000000LL;
  __int64 count = 0;
  unsigned char scratch;
  for (;;)
  {
    if (count >= kGiveUp)
      throw CFileReadError();
    try
    {
      m_pStream->readData(1, &scratch);
    }
    catch (CVescaException const &)
    {
      break; // the end of the stream: the normal way out
    }
    ++count;
  }
  WriteLogSkipInfo();
  return count;
}
} // namespace VsF
