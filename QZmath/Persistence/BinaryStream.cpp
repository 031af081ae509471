#include "QZmath/Persistence/BinaryStream.h"

#include <sys/stat.h>
#include <sys/types.h>

#include "QZsys/Exceptions.h"

static_assert(sizeof(long) == 8, "stream offsets are 64-bit longs");

namespace
{
char const * const tf_sReadError = "Unexpected end of file. Probably corrupted data.";
char const * const tf_sWriteError =
    "Impossible write to file. Probably not enough free disk space or unexpected internal error.";
} // namespace

void CFileBinaryStream::readData(std::uint64_t size, void * buffer)
{
  if (size == 0)
    return;
  if (!m_pFile || std::fread(buffer, static_cast<std::size_t>(size), 1, m_pFile) != 1)
    throw CVescaException(tf_sReadError);
}

void CFileBinaryStream::skipReadData(long offset)
{
  if (offset == 0)
    return;
  if (!m_pFile)
    throw CVescaException(tf_sReadError);
  off_t const before = ::ftello(m_pFile);
  bool const hadError = std::ferror(m_pFile) != 0;
  if (::fseeko(m_pFile, static_cast<off_t>(offset), SEEK_CUR) != 0)
  {
    // A seek first writes out what the stream holds for writing; when that is
    // what failed (a full disk, say), the failure is a write's, not the end
    // of the data.
    bool const writeFailed = !hadError && std::ferror(m_pFile) != 0;
    throw CVescaException(writeFailed ? tf_sWriteError : tf_sReadError);
  }
  // The seek has flushed whatever was buffered for writing, so the file's
  // size is the whole of the data.
  struct stat st;
  int const fd = ::fileno(m_pFile);
  if (fd >= 0 && ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode))
  {
    off_t const after = ::ftello(m_pFile);
    if (after > st.st_size)
    {
      if (before >= 0)
        ::fseeko(m_pFile, before, SEEK_SET);
      throw CVescaException(tf_sReadError);
    }
  }
}

void CFileBinaryStream::writeData(std::uint64_t size, const void * buffer)
{
  if (size == 0)
    return;
  if (!m_pFile || std::fwrite(buffer, static_cast<std::size_t>(size), 1, m_pFile) != 1)
    throw CVescaException(tf_sWriteError);
}

__int64 CFileBinaryStream::getPosition() { return m_pFile ? static_cast<__int64>(::ftello(m_pFile)) : -1; }
