#pragma once
// Threads, events, mutexes, timers and parallel tasks.

#include <memory>

/// A task: one invocable procedure.
class IVescaInvokeProc
{
public:
  virtual ~IVescaInvokeProc() = default;
  virtual void run() = 0;
};

/// Observes the passage of time while a thread waits for its workers.
class IVescaThreadOnTimerObserver
{
public:
  virtual ~IVescaThreadOnTimerObserver() = default;
  /// Period of the timer events, in milliseconds.
  virtual unsigned getMillisecondsTimeOut() { return onGetMillisecondsTimeOut(); }
  /// Called on the waiting thread once per period.
  virtual void processTimerEvent() { onProcessTimerEvent(); }

private:
  virtual unsigned onGetMillisecondsTimeOut() = 0;
  virtual void onProcessTimerEvent() = 0;
};

/// Infinite time-out for the waits below.
constexpr unsigned VESCA_INFINITE = 0xFFFFFFFFu;

/// A thread that runs one task. Deleting it waits for the task's end.
class IVescaThread
{
public:
  virtual ~IVescaThread() = default;
  /// The task to run; not owned. Must be set before `start`.
  virtual void setProc(IVescaInvokeProc * proc) = 0;
  /// Starts the thread; a second start does nothing.
  virtual void start() = 0;
  /// Waits up to `ms` milliseconds (0 polls); true when the task has ended
  /// (or never started).
  virtual bool wait(unsigned ms) = 0;
  /// True when the task ended with an exception (which the thread swallowed).
  virtual bool hasFailed() const = 0;
};

/// Auto-reset event: a successful wait consumes it.
class IVescaBlockingEvent
{
public:
  virtual ~IVescaBlockingEvent() = default;
  virtual void set() = 0;
  /// Waits up to `ms` milliseconds, 0 polls; true when the event was set.
  virtual bool wait(unsigned ms) = 0;
};

/// Recursive mutex.
class IVescaMutex
{
public:
  virtual ~IVescaMutex() = default;
  virtual void lock() = 0;
  virtual void unlock() = 0;
};

/// Owns a mutex.
using IVescaMutexPtr = std::unique_ptr<IVescaMutex>;

/// Holds a mutex locked for its lifetime. A null mutex is accepted.
class CVescaMutexLock
{
public:
  explicit CVescaMutexLock(IVescaMutex * mutex) : m_mutex(mutex)
  {
    if (m_mutex)
      m_mutex->lock();
  }
  explicit CVescaMutexLock(IVescaMutexPtr const & mutex) : CVescaMutexLock(mutex.get()) {}
  ~CVescaMutexLock()
  {
    if (m_mutex)
      m_mutex->unlock();
  }
  CVescaMutexLock(CVescaMutexLock const &) = delete;
  CVescaMutexLock & operator=(CVescaMutexLock const &) = delete;

private:
  IVescaMutex * m_mutex;
};

/// A timer bound to the thread that created it and to one observer.
class IVescaTimer
{
public:
  virtual ~IVescaTimer() = default;
  /// True when the calling thread is the one that created the timer: only that
  /// thread may act on the observer's behalf.
  virtual bool isCallingThreadOwner() const = 0;
  virtual IVescaThreadOnTimerObserver * getObserver() const = 0;
};

class IVescaSleeper
{
public:
  virtual ~IVescaSleeper() = default;
  virtual void sleep(unsigned ms) = 0;
};

/// Makes the threading objects. All results are owned by the caller.
class IVescaThreadingFactory
{
public:
  virtual ~IVescaThreadingFactory() = default;
  virtual IVescaThread * createThread() = 0;
  virtual IVescaBlockingEvent * createBlockingEvent() = 0;
  virtual IVescaMutex * createMutex() = 0;
  virtual IVescaTimer * createTimer(IVescaThreadOnTimerObserver * observer) = 0;
  virtual IVescaSleeper * createSleeper() = 0;
};

/// Process-wide single instances, made on first use.
template <class T> class CVescaSingletonT
{
public:
  static T & instance();
  static T * get() { return &instance(); }
};

template <> IVescaThreadingFactory & CVescaSingletonT<IVescaThreadingFactory>::instance();

class CVescaThreadingTasksHelper
{
public:
  /// Physical cores of the machine, counted once; at least 1.
  static int getNumOfPhisicalThread();
  /// Overrides the count (tests, callers that want fewer threads); 0 or less
  /// returns to the counted value.
  static void setNumOfPhisicalThread(int count);

  /// Runs every task on a thread of its own and returns when all have ended.
  /// While waiting, calls `observer->processTimerEvent()` on this thread every
  /// `observer->getMillisecondsTimeOut()` ms (null observer: none). After all
  /// tasks have joined, rethrows the first exception a task raised, else the
  /// one the observer raised. Null task pointers are skipped.
  static void performInParallel(IVescaInvokeProc ** tasks, int count, IVescaThreadOnTimerObserver * observer);
};
