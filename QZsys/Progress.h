#pragma once
// Progress counters: a stack of nested ranges over the global interval [0, 1],
// scoped sub-phases, weighted phase managers, and the interruption protocol.
//
// Ownership and threads. A counter belongs to the thread that drives the work:
// only that thread moves its position or opens ranges. Any thread may read the
// global position and may request an interruption; the owning thread then gets
// `CUserIntrException` from its next progress call.

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "QZsys/Exceptions.h"

/// Sees the global position of a counter after each advance, on the owning thread.
class IProgressObserver
{
public:
  virtual ~IProgressObserver() = default;
  virtual void onProgress(double globalPos, std::string const & phaseName) = 0;
};

class CProgressCounter
{
public:
  CProgressCounter();
  virtual ~CProgressCounter();
  CProgressCounter(CProgressCounter const &) = delete;
  CProgressCounter & operator=(CProgressCounter const &) = delete;

  /// Sets the position inside the innermost open range. The value is clamped to
  /// [0, 1] (NaN counts as 0); the global position never moves backwards.
  /// Throws `CUserIntrException` once an interruption has been requested.
  void SetPosFloat(double pos);
  /// Global position in [0, 1]; callable from any thread.
  double GetPosFloat() const { return m_global.load(std::memory_order_relaxed); }
  /// Position inside the innermost open range.
  double GetLocalPosFloat() const;

  /// Opens a sub-range [start, start + length] (fractions of the innermost range).
  void PushRange(double start, double length);
  /// Closes the innermost range; with `toEnd` the position moves to its end.
  /// Never throws; closing with no open range does nothing.
  void PopRange(bool toEnd) noexcept;
  /// Number of open ranges.
  int GetRangeDepth() const { return static_cast<int>(m_ranges.size()); }

  /// Back to position 0 with no open range; the interruption state stays.
  void Reset() noexcept;

  /// Requests an interruption; callable from any thread.
  void RequestInterrupt() noexcept { m_interrupt.store(true, std::memory_order_relaxed); }
  void ClearInterrupt() noexcept { m_interrupt.store(false, std::memory_order_relaxed); }
  /// True when an interruption was requested here, in the interrupt source, or
  /// by the overridable check.
  bool IsInterrupted() const;
  /// Throws `CUserIntrException` when `IsInterrupted()`.
  void CheckInterrupt() const;
  /// A counter whose interruption counts as this one's (a worker's counter
  /// follows the manager's). Not owned; null clears it.
  void SetInterruptSource(CProgressCounter const * source) noexcept { m_source.store(source); }

  void SetPhaseName(std::string const & name);
  std::string GetPhaseName() const;

  /// Observers are not owned and are called on the owning thread.
  void AddObserver(IProgressObserver * observer);
  void RemoveObserver(IProgressObserver * observer);

protected:
  /// Extra interruption check for subclasses (a cancel button, a deadline).
  /// Called from the owning thread; must be cheap.
  virtual bool OnCheckInterrupt() const { return false; }

private:
  struct Range
  {
    double start;  // global start
    double length; // global length
    double local;  // position inside, [0, 1]
  };
  void moveGlobal(double global) noexcept;
  void notify() noexcept;

  std::vector<Range> m_ranges;
  std::atomic<double> m_global{0.0};
  std::atomic<bool> m_interrupt{false};
  std::atomic<CProgressCounter const *> m_source{nullptr};
  mutable std::mutex m_nameMutex;
  std::string m_phaseName;
  std::vector<IProgressObserver *> m_observers;
};

/// A scoped sub-range of a counter. Accepts a null counter (then does nothing).
/// Checks for interruption on construction and in `Finish()`; never throws
/// from its destructor.
///
/// The `int` argument is a display level kept for source compatibility; it has
/// no effect. With `finishOnClose` the position moves to the end of the range
/// when the sub-phase closes, otherwise it stays where the work left it.
/// Note: mixing an `int` literal and a `double` in the first two arguments is
/// ambiguous between the two forms; write `0.0` for a fractional start.
class CPrgCntSubPhase
{
public:
  /// Fractions of the enclosing range.
  CPrgCntSubPhase(CProgressCounter * counter, double start, double length, int level = 0,
                  bool finishOnClose = true);
  /// Percent of the enclosing range.
  CPrgCntSubPhase(CProgressCounter * counter, int startPercent, int lengthPercent, int level = 0,
                  bool finishOnClose = true);
  ~CPrgCntSubPhase();
  CPrgCntSubPhase(CPrgCntSubPhase const &) = delete;
  CPrgCntSubPhase & operator=(CPrgCntSubPhase const &) = delete;

  /// Closes the range (position to its end) and checks for interruption.
  void Finish();
  CProgressCounter * GetCounter() const { return m_counter; }

private:
  void open(double start, double length);
  CProgressCounter * m_counter;
  bool m_finishOnClose;
  bool m_open = false;
};

/// A counter with a total and a current value, bound to a progress counter.
class CPrgCntIntegerScope
{
public:
  explicit CPrgCntIntegerScope(CProgressCounter * counter = nullptr, int total = 0, int current = 0)
      : m_counter(counter), m_total(total), m_current(current)
  {
  }
  CProgressCounter * GetCounter() const { return m_counter; }
  void SetCounter(CProgressCounter * counter) { m_counter = counter; }
  int GetTotal() const { return m_total; }
  void SetTotal(int total) { m_total = total; }
  int GetCurrent() const { return m_current; }
  void SetCurrent(int current) { m_current = current; }

private:
  CProgressCounter * m_counter;
  int m_total;
  int m_current;
};

/// Joins the progress of workers, one counter each, into a parent counter,
/// by blocks: a finished block counts 1, a block in work counts its worker's
/// position. Workers call the binding operations from their threads; only the
/// parent's thread calls `UpdateParentPrgCnt`.
class CPrgCntBlocksTreaded
{
public:
  explicit CPrgCntBlocksTreaded(CProgressCounter * parent);
  ~CPrgCntBlocksTreaded();
  CPrgCntBlocksTreaded(CPrgCntBlocksTreaded const &) = delete;
  CPrgCntBlocksTreaded & operator=(CPrgCntBlocksTreaded const &) = delete;

  /// Sizes the per-block table, all blocks unfinished.
  void SetBlocksNumber(int blocks);
  int GetBlocksNumber() const;

  /// The child's interruption follows the parent's from now on.
  void AddChildPrgCnt(CProgressCounter * child);
  void RemoveChildPrgCnt(CProgressCounter * child);
  /// The child starts work on a block: its position is reset and counts for it.
  void BindChildToBlock(int block, CProgressCounter * child);
  /// The block is done; the child is free.
  void OnOneBlockMoreFinished(int block, CProgressCounter * child);
  /// Passes the joint position to the parent (may throw `CUserIntrException`).
  void UpdateParentPrgCnt();
  /// Joint position in [0, 1].
  double GetJointPosition() const;

private:
  struct Child
  {
    CProgressCounter * counter;
    int block; // -1 when free
  };
  CProgressCounter * m_parent;
  mutable std::mutex m_mutex;
  std::vector<double> m_blocks; // finished share of each block
  std::vector<Child> m_children;
};

namespace VsPCnt
{
/// Maps a count against an expected count to a position that keeps rising
/// past the estimate: `x * (1 - a)` for `x = current / expected <= 1`, else
/// `1 - a / x`. A non-positive expectation counts as already passed.
double prgCntLongJobPosition(int current, int expected, double a);

/// Phases with weights on one counter: each phase gets weight / total of the
/// range, in registration order. Accepts a null counter.
class CMultiPhaseManager
{
public:
  explicit CMultiPhaseManager(CProgressCounter * counter);
  ~CMultiPhaseManager();
  CMultiPhaseManager(CMultiPhaseManager const &) = delete;
  CMultiPhaseManager & operator=(CMultiPhaseManager const &) = delete;

  /// Negative weights count as 0. Registering a name twice is a logic error.
  void RegisterPhase(std::string const & name, double weight);
  /// Finishes the open phase, if any, and opens `name`. An unregistered name
  /// throws `std::logic_error`; interruption throws `CUserIntrException`.
  void StartPhase(std::string const & name);
  /// Closes the open phase and checks for interruption; no phase open: nothing.
  void FinishCurrentPhase();
  /// From now on the counter's phase name follows the running phase.
  void showPhaseName() { m_showName = true; }

  std::string const & GetCurrentPhaseName() const { return m_currentName; }
  bool HasOpenPhase() const { return m_current != nullptr; }
  double GetTotalWeight() const { return m_total; }

private:
  friend class CMultiPhaseManagerSingleSubPhase;
  void abandonCurrentPhase() noexcept;

  struct Phase
  {
    std::string name;
    double weight;
    double before; // sum of the weights registered before it
  };
  CProgressCounter * m_counter;
  std::vector<Phase> m_phases;
  double m_total = 0;
  bool m_showName = false;
  std::unique_ptr<CPrgCntSubPhase> m_current;
  std::string m_currentName;
};

/// Holds one phase of a manager open for its lifetime.
class CMultiPhaseManagerSingleSubPhase
{
public:
  CMultiPhaseManagerSingleSubPhase(CMultiPhaseManager * manager, std::string const & name);
  ~CMultiPhaseManagerSingleSubPhase();
  CMultiPhaseManagerSingleSubPhase(CMultiPhaseManagerSingleSubPhase const &) = delete;
  CMultiPhaseManagerSingleSubPhase & operator=(CMultiPhaseManagerSingleSubPhase const &) = delete;

private:
  CMultiPhaseManager * m_manager;
  std::string m_name;
};
} // namespace VsPCnt
