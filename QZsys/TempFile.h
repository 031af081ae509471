#pragma once
// Anonymous temporary files: data that must live on disk for a while but never
// outlive its user. The file is made with mkstemp in $TMPDIR (else /tmp), its
// name starting with a caller's prefix, and unlinked at once: it has no name
// from the start, so nothing is left behind however the process ends.
//
// A temporary file stands in for memory, so failing to make one is reported
// as running out of memory: std::bad_alloc whose what() is "bad allocation".

#include <cstdio>
#include <new>

namespace VsUt
{
/// std::bad_alloc with the text "bad allocation".
class CBadAllocation : public std::bad_alloc
{
public:
  const char * what() const noexcept override { return "bad allocation"; }
};

/// A new, empty, unnamed file opened "w+b" (read and write, binary). The
/// caller closes it with fclose. Throws CBadAllocation on any failure.
std::FILE * OpenTemporaryFile(char const * prefix);

/// Owns a temporary file for the lifetime of a scope.
class CTemporaryFile
{
public:
  explicit CTemporaryFile(char const * prefix) : m_file(OpenTemporaryFile(prefix)) {}
  ~CTemporaryFile()
  {
    if (m_file)
      std::fclose(m_file);
  }
  CTemporaryFile(CTemporaryFile const &) = delete;
  CTemporaryFile & operator=(CTemporaryFile const &) = delete;

  std::FILE * get() const { return m_file; }

private:
  std::FILE * m_file;
};
} // namespace VsUt
