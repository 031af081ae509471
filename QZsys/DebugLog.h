#pragma once
// Debug logs: sinks of finished text lines, callable from any thread.

#include <cstdio>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace VsUt
{
/// A sink of finished lines. `getMessage` may be called from any thread;
/// implementations serialise the lines so that they never interleave.
class IDebugLog
{
public:
  virtual ~IDebugLog() = default;
  void getMessage(char const * line) { onGetMessage(line ? line : ""); }

protected:
  IDebugLog() = default;

private:
  virtual void onGetMessage(char const * line) = 0;
};

/// Writes each line, followed by a newline, to a stream.
class CStreamDebugLog : public IDebugLog
{
public:
  explicit CStreamDebugLog(std::ostream & out) : m_out(out) {}

private:
  void onGetMessage(char const * line) override;
  std::mutex m_mutex;
  std::ostream & m_out;
};

/// Appends each line to a file, flushed line by line so that a crash of the
/// caller keeps what was logged.
class CFileDebugLog : public IDebugLog
{
public:
  /// Opens (truncating) the file; `isOpen()` tells whether that worked.
  explicit CFileDebugLog(std::string const & path);
  ~CFileDebugLog() override;
  CFileDebugLog(CFileDebugLog const &) = delete;
  CFileDebugLog & operator=(CFileDebugLog const &) = delete;
  bool isOpen() const { return m_file != nullptr; }

private:
  void onGetMessage(char const * line) override;
  std::mutex m_mutex;
  std::FILE * m_file = nullptr;
};

/// Keeps the lines in memory, for tests and for callers that show them later.
class CMemoryDebugLog : public IDebugLog
{
public:
  std::vector<std::string> lines() const;
  void clear();

private:
  void onGetMessage(char const * line) override;
  mutable std::mutex m_mutex;
  std::vector<std::string> m_lines;
};
} // namespace VsUt
