#pragma once
// Time and peak memory of each phase of a run, taken from the phase names that
// a progress counter announces.

#include <chrono>
#include <string>
#include <vector>

#include "QZsys/Progress.h"

namespace qzrecon
{
struct PhaseRecord
{
  std::string name;
  double seconds = 0;
  double peakMiB = 0; // peak resident memory of the process during the phase
};

class CPhaseMeter : public IProgressObserver
{
public:
  CPhaseMeter();
  void onProgress(double pos, std::string const & phaseName) override;
  /// Closes the running phase; call once at the end of the run.
  void finish();

  std::vector<PhaseRecord> const & phases() const { return m_phases; }
  double totalSeconds() const;
  double totalPeakMiB() const { return m_totalPeakMiB; }

  /// Resident memory now and its peak since the last reset, in MiB (0 where
  /// the system does not tell).
  static double residentMiB();
  static double peakResidentMiB();
  /// Starts a new peak measurement (Linux: /proc/self/clear_refs).
  static void resetPeak();

private:
  void close();
  std::chrono::steady_clock::time_point m_start, m_phaseStart;
  std::string m_current;
  bool m_open = false;
  double m_totalPeakMiB = 0;
  std::vector<PhaseRecord> m_phases;
};
} // namespace qzrecon
