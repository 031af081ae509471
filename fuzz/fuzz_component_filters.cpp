// The component loader on any bytes: a document of wrapped, nested and
// skipped components, then the rest of the stream consumed to its end. A load
// may only fail with the stream's or the format's exceptions (CVescaException
// and its VsF kinds); every count a load returns is the distance the stream
// moved, and the skipping reader ends exactly at the end of the bytes.

#include "ComponentDocument.h"
#include "FuzzSupport.h"
#include "QZmath/Persistence/BinaryStream.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
  static qzfuzz::MemFile file("components");
  file.assign(data, size);
  CFileBinaryStream stream(file.file());
  qzfuzz::CountingLog log;
  qzfuzz::NullLogger logger;

  __int64 const start = stream.getPosition();
  __int64 docBytes = -1;
  try
  {
    VsF::CInnerHeaderWrapper doc(new qzfuzz::DocFilter(stream, &log), &log, L"document skipped");
    docBytes = doc.Load(logger);
  }
  catch (CVescaException const &)
  {
    return 0; // a damaged document: the failure the format documents
  }
  qzfuzz::check(docBytes >= 128 && stream.getPosition() - start == docBytes,
                "the document's count differs from the bytes it moved over");

  VsF::CSkipTillTheEnd rest(stream, &log, L"rest", L"rest skipped");
  __int64 const before = stream.getPosition();
  __int64 const restBytes = rest.Load(logger);
  qzfuzz::check(restBytes == stream.getPosition() - before, "the skipped count differs from the bytes skipped");
  qzfuzz::check(static_cast<std::size_t>(docBytes + restBytes) == size, "the reader did not end at the end");
  return 0;
}
