#pragma once
// Shared pieces of the fuzz targets: an in-memory file that the readers open
// like any other (a memfd, reachable by a FILE* and by a path), and a check
// that stops the run with a message when an invariant breaks.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace qzfuzz
{
/// Aborts with `what`, so that libFuzzer keeps the input as a crash.
[[noreturn]] inline void fail(char const * what)
{
  std::fprintf(stderr, "fuzz invariant broken: %s\n", what);
  std::abort();
}

inline void check(bool ok, char const * what)
{
  if (!ok)
    fail(what);
}

/// A file in memory that lives for the whole fuzzing run: rewriting it costs a
/// truncate and a write, no disk. Readers that take a path open `path()`;
/// those that take a FILE* get `file()`, rewound to the start.
class MemFile
{
public:
  explicit MemFile(char const * name)
  {
    m_fd = ::memfd_create(name, 0);
    check(m_fd >= 0, "memfd_create");
    m_file = ::fdopen(::dup(m_fd), "w+b");
    check(m_file != nullptr, "fdopen of the memfd");
    m_path = "/proc/self/fd/" + std::to_string(m_fd);
  }
  MemFile(MemFile const &) = delete;
  MemFile & operator=(MemFile const &) = delete;

  /// Replaces the contents with `size` bytes and gives a new FILE* at the
  /// start: the C library may serve a seek back from what it buffered before,
  /// which would be the old contents.
  void assign(std::uint8_t const * data, std::size_t size)
  {
    std::fclose(m_file);
    m_file = ::fdopen(::dup(m_fd), "w+b");
    check(m_file != nullptr, "fdopen of the memfd");
    check(::ftruncate(m_fd, 0) == 0, "truncate of the memfd");
    std::size_t done = 0;
    while (done < size)
    {
      ssize_t const n = ::pwrite(m_fd, data + done, size - done, static_cast<off_t>(done));
      check(n > 0, "write to the memfd");
      done += static_cast<std::size_t>(n);
    }
    check(std::fseek(m_file, 0, SEEK_SET) == 0, "rewind of the memfd");
    std::clearerr(m_file);
  }
  /// The whole contents, whatever the FILE* position.
  std::string contents() const
  {
    std::string bytes;
    char buf[4096];
    off_t at = 0;
    for (;;)
    {
      ssize_t const n = ::pread(m_fd, buf, sizeof buf, at);
      check(n >= 0, "read of the memfd");
      if (n == 0)
        return bytes;
      bytes.append(buf, static_cast<std::size_t>(n));
      at += n;
    }
  }

  std::FILE * file() const { return m_file; }
  std::string const & path() const { return m_path; }

private:
  int m_fd = -1;
  std::FILE * m_file = nullptr;
  std::string m_path;
};

/// Reads the fuzzer's bytes as a sequence of small numbers.
class ByteReader
{
public:
  ByteReader(std::uint8_t const * data, std::size_t size) : m_data(data), m_size(size) {}
  bool empty() const { return m_at >= m_size; }
  std::uint8_t byte() { return m_at < m_size ? m_data[m_at++] : 0; }
  std::uint16_t word() { return static_cast<std::uint16_t>(byte() | (byte() << 8)); }

private:
  std::uint8_t const * m_data;
  std::size_t m_size;
  std::size_t m_at = 0;
};
} // namespace qzfuzz
