#include "PhaseMeter.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

namespace qzrecon
{
namespace
{
double statusKiB(char const * key)
{
  std::ifstream in("/proc/self/status");
  std::string line;
  std::size_t const n = std::strlen(key);
  while (std::getline(in, line))
    if (line.compare(0, n, key) == 0)
      return std::atof(line.c_str() + n);
  return 0;
}
} // namespace

double CPhaseMeter::residentMiB() { return statusKiB("VmRSS:") / 1024.0; }
double CPhaseMeter::peakResidentMiB() { return statusKiB("VmHWM:") / 1024.0; }

void CPhaseMeter::resetPeak()
{
  // Writing 5 resets the peak resident size to the present one.
  if (std::FILE * f = std::fopen("/proc/self/clear_refs", "w"))
  {
    std::fputs("5", f);
    std::fclose(f);
  }
}

CPhaseMeter::CPhaseMeter() : m_start(std::chrono::steady_clock::now()), m_phaseStart(m_start) {}

void CPhaseMeter::onProgress(double, std::string const & phaseName)
{
  if (m_open && phaseName == m_current)
    return;
  if (phaseName.empty())
    return;
  close();
  m_current = phaseName;
  m_open = true;
  m_phaseStart = std::chrono::steady_clock::now();
  resetPeak();
}

void CPhaseMeter::close()
{
  if (!m_open)
    return;
  PhaseRecord r;
  r.name = m_current;
  r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_phaseStart).count();
  r.peakMiB = peakResidentMiB();
  m_totalPeakMiB = std::max(m_totalPeakMiB, r.peakMiB);
  m_phases.push_back(r);
  m_open = false;
}

void CPhaseMeter::finish()
{
  close();
  m_totalPeakMiB = std::max(m_totalPeakMiB, peakResidentMiB());
}

double CPhaseMeter::totalSeconds() const
{
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
}
} // namespace qzrecon
