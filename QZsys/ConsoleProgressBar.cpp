#include "QZsys/ConsoleProgressBar.h"

#include <algorithm>
#include <cmath>

CConsoleProgressBar::CConsoleProgressBar(std::FILE * out, int width, int minIntervalMs)
    : m_out(out), m_width(std::max(width, 1)), m_minInterval(std::max(minIntervalMs, 0))
{
}

CConsoleProgressBar::~CConsoleProgressBar()
{
  if (m_lineOpen && m_out)
  {
    std::fputc('\n', m_out);
    std::fflush(m_out);
  }
}

std::string CConsoleProgressBar::formatLine(double pos, std::string const & phaseName, int width)
{
  if (!(pos > 0.0))
    pos = 0.0;
  if (pos > 1.0)
    pos = 1.0;
  width = std::max(width, 1);
  int const filled = static_cast<int>(std::floor(pos * width + 1e-9));
  std::string line = "[";
  line.append(static_cast<std::size_t>(filled), '#');
  line.append(static_cast<std::size_t>(width - filled), ' ');
  char percent[16];
  std::snprintf(percent, sizeof percent, "] %5.1f%%", pos * 100.0);
  line += percent;
  if (!phaseName.empty())
  {
    line += "  ";
    line += phaseName;
  }
  return line;
}

void CConsoleProgressBar::onProgress(double globalPos, std::string const & phaseName)
{
  auto const now = std::chrono::steady_clock::now();
  bool const phaseChanged = phaseName != m_lastPhase;
  bool const complete = globalPos >= 1.0 && m_lastPos < 1.0;
  if (!phaseChanged && !complete && m_lineOpen && now - m_lastDraw < m_minInterval)
    return;
  m_lastDraw = now;
  draw(globalPos, phaseName);
}

void CConsoleProgressBar::draw(double pos, std::string const & phaseName)
{
  if (!m_out)
    return;
  std::string const line = formatLine(pos, phaseName, m_width);
  std::fputc('\r', m_out);
  std::fputs(line.c_str(), m_out);
  // Blank out the rest of a longer previous line (a longer phase name).
  for (std::size_t i = line.size(); i < m_lastLength; ++i)
    std::fputc(' ', m_out);
  std::fflush(m_out);
  m_lastLength = line.size();
  m_lastPhase = phaseName;
  m_lastPos = pos;
  m_lineOpen = true;
}

void CConsoleProgressBar::finish()
{
  if (!m_lineOpen)
    return;
  draw(m_lastPos, m_lastPhase);
  std::fputc('\n', m_out);
  std::fflush(m_out);
  m_lineOpen = false;
  m_lastLength = 0;
}
