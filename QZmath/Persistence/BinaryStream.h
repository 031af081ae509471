#pragma once
// Raw binary streams. IVescaBinaryStream is what component filters read and
// write through; CFileBinaryStream puts one over a C file the caller opened.
// Failures are CVescaException with a fixed text:
//   a short read or a skip beyond the data: "Unexpected end of file. Probably corrupted data."
//   a short write, also one that fails when a skip writes out what was buffered: "Impossible write to
//   file. Probably not enough free disk space or unexpected internal error."
// Positions and offsets are 64-bit.

#include <cstdint>
#include <cstdio>

#include "QZsys/Compat.h"

class IVescaBinaryStream
{
public:
  /// Reads exactly `size` bytes; 0 bytes is always possible, also at the end.
  virtual void readData(std::uint64_t size, void * buffer) = 0;
  /// Moves the position by `offset` bytes from where it is; may go back.
  virtual void skipReadData(long offset) = 0;
  /// Writes exactly `size` bytes.
  virtual void writeData(std::uint64_t size, const void * buffer) = 0;
  virtual __int64 getPosition() = 0;
  virtual ~IVescaBinaryStream() = default;
};

/// A stream over a FILE* that stays the caller's: nothing here closes it.
/// Copies share the file and its position.
class CFileBinaryStream : public IVescaBinaryStream
{
public:
  explicit CFileBinaryStream(std::FILE * file) : m_pFile(file) {}

  void readData(std::uint64_t size, void * buffer) override;
  /// A skip that would leave the data of a regular file fails, and the
  /// position stays: skipping is how a reader passes over a component, and a
  /// component that reaches beyond the end was cut off.
  void skipReadData(long offset) override;
  void writeData(std::uint64_t size, const void * buffer) override;
  /// The byte offset in the file; -1 when the file cannot tell.
  __int64 getPosition() override;

  std::FILE * Deprecated_GetFilePtr() const { return m_pFile; }

private:
  std::FILE * m_pFile;
};

/// Closes a FILE* at the end of a scope, or at release(). Null is harmless. A
/// copy holds the same pointer, and only one of the two may close it.
class CFileWrapClose
{
public:
  explicit CFileWrapClose(std::FILE * file = nullptr) : m_pFile(file) {}
  virtual ~CFileWrapClose() { release(); }
  CFileWrapClose(CFileWrapClose const &) = default;
  CFileWrapClose & operator=(CFileWrapClose const &) = default;

  std::FILE * FilePtr() const { return m_pFile; }
  /// Closes the file now and forgets it.
  void release()
  {
    if (m_pFile)
      std::fclose(m_pFile);
    m_pFile = nullptr;
  }

private:
  std::FILE * m_pFile;
};
