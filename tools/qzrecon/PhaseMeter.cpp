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

CPhaseMeter::CPhaseMeter() : m_start(std::chrono::steady_clock::now()), m_phaseStart(m_start)
{
  m_phasePeakKiB = static_cast<long long>(statusKiB("VmRSS:"));
  m_sampler = std::thread([this] {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop)
    {
      lock.unlock();
      sample();
      lock.lock();
      m_wake.wait_for(lock, std::chrono::milliseconds(5));
    }
  });
}

CPhaseMeter::~CPhaseMeter()
{
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stop = true;
  }
  m_wake.notify_all();
  m_sampler.join();
}

void CPhaseMeter::sample()
{
  long long const now = static_cast<long long>(statusKiB("VmRSS:"));
  long long seen = m_phasePeakKiB.load();
  while (now > seen && !m_phasePeakKiB.compare_exchange_weak(seen, now))
  {
  }
}

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
  m_phasePeakKiB = static_cast<long long>(statusKiB("VmRSS:"));
}

void CPhaseMeter::close()
{
  if (!m_open)
    return;
  PhaseRecord r;
  r.name = m_current;
  r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_phaseStart).count();
  sample();
  r.peakMiB = static_cast<double>(m_phasePeakKiB.load()) / 1024.0;
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
