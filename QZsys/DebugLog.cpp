#include "QZsys/DebugLog.h"

namespace VsUt
{
void CStreamDebugLog::onGetMessage(char const * line)
{
  std::lock_guard<std::mutex> lock(m_mutex);
  m_out << line << '\n';
  m_out.flush();
}

CFileDebugLog::CFileDebugLog(std::string const & path) : m_file(std::fopen(path.c_str(), "w")) {}

CFileDebugLog::~CFileDebugLog()
{
  if (m_file)
    std::fclose(m_file);
}

void CFileDebugLog::onGetMessage(char const * line)
{
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!m_file)
    return;
  std::fputs(line, m_file);
  std::fputc('\n', m_file);
  std::fflush(m_file);
}

std::vector<std::string> CMemoryDebugLog::lines() const
{
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lines;
}

void CMemoryDebugLog::clear()
{
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lines.clear();
}

void CMemoryDebugLog::onGetMessage(char const * line)
{
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lines.emplace_back(line);
}
} // namespace VsUt
