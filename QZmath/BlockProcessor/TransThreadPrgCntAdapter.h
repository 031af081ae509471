#pragma once
// Carries progress from worker threads to a progress counter that belongs to
// another thread. Workers only count; the counter's own thread passes the count
// on, either from the timer of the parallel run or when it counts itself.

#include <memory>

#include "QZsys/Progress.h"
#include "QZsys/Threading.h"

class CTransThreadPrgCntAdapter : public IVescaThreadOnTimerObserver
{
public:
  /// Must be made on the thread that owns the counters it will be given: that
  /// thread is the one allowed to move them.
  CTransThreadPrgCntAdapter();
  ~CTransThreadPrgCntAdapter() override;
  CTransThreadPrgCntAdapter(CTransThreadPrgCntAdapter const &) = delete;
  CTransThreadPrgCntAdapter & operator=(CTransThreadPrgCntAdapter const &) = delete;

  /// Binds a counter (may be null) and a total of steps (negative counts as 0);
  /// the current step goes back to 0.
  void refresh(CProgressCounter * progress, int total);
  /// One step done; callable from any thread. On the owning thread the pending
  /// steps are passed on at once, elsewhere they wait for the timer.
  void increment();

  int getTotal() const;
  int getCurrent() const;

private:
  unsigned onGetMillisecondsTimeOut() override { return 100; }
  void onProcessTimerEvent() override;
  void processIncrementCore();

  std::unique_ptr<IVescaMutex> m_mutex;
  int m_pending = 0;
  CPrgCntIntegerScope m_scope;
  std::unique_ptr<IVescaTimer> m_timer;
};
