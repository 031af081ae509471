#pragma once
// Time and peak memory of each phase of a run, taken from the phase names that
// a progress counter announces.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "QZsys/Progress.h"

namespace qzrecon
{
struct PhaseRecord
{
  std::string name;
  double seconds = 0;
  double peakMiB = 0; // peak resident memory of the process during the phase (sampled)
};

class CPhaseMeter : public IProgressObserver
{
public:
  /// Samples the resident size every few milliseconds on a thread of its own:
  /// the process's high-water mark is never reset, so outside tools see the
  /// true peak too.
  CPhaseMeter();
  ~CPhaseMeter() override;
  CPhaseMeter(CPhaseMeter const &) = delete;
  CPhaseMeter & operator=(CPhaseMeter const &) = delete;
  void onProgress(double pos, std::string const & phaseName) override;
  /// Closes the running phase; call once at the end of the run.
  void finish();

  std::vector<PhaseRecord> const & phases() const { return m_phases; }
  double totalSeconds() const;
  double totalPeakMiB() const { return m_totalPeakMiB; }

  /// Resident memory now and the process's peak, in MiB (0 where the system
  /// does not tell).
  static double residentMiB();
  static double peakResidentMiB();

private:
  void close();
  void sample();
  std::chrono::steady_clock::time_point m_start, m_phaseStart;
  std::string m_current;
  bool m_open = false;
  double m_totalPeakMiB = 0;
  std::vector<PhaseRecord> m_phases;
  /// The largest resident size seen since the running phase began, in KiB.
  std::atomic<long long> m_phasePeakKiB{0};
  std::mutex m_mutex;
  std::condition_variable m_wake;
  bool m_stop = false;
  std::thread m_sampler;
};
} // namespace qzrecon
