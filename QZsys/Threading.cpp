#include "QZsys/Threading.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "QZsys/CpuConf.h"

namespace
{
// ---------------------------------------------------------------- threads

class tf_Thread : public IVescaThread
{
public:
  ~tf_Thread() override
  {
    if (m_thread.joinable())
      m_thread.join();
  }
  void setProc(IVescaInvokeProc * proc) override { m_proc = proc; }
  void start() override
  {
    if (m_started || !m_proc)
      return;
    m_started = true;
    m_thread = std::thread([this] {
      try
      {
        m_proc->run();
      }
      catch (...)
      {
        m_failed.store(true);
      }
      std::lock_guard<std::mutex> lock(m_mutex);
      m_done = true;
      m_cv.notify_all();
    });
  }
  bool wait(unsigned ms) override
  {
    if (!m_started)
      return true;
    std::unique_lock<std::mutex> lock(m_mutex);
    if (ms == VESCA_INFINITE)
      m_cv.wait(lock, [this] { return m_done; });
    else
      m_cv.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_done; });
    return m_done;
  }
  bool hasFailed() const override { return m_failed.load(); }

private:
  IVescaInvokeProc * m_proc = nullptr;
  std::thread m_thread;
  bool m_started = false;
  std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_done = false;
  std::atomic<bool> m_failed{false};
};

class tf_BlockingEvent : public IVescaBlockingEvent
{
public:
  void set() override
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_set = true;
    m_cv.notify_one();
  }
  bool wait(unsigned ms) override
  {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (ms == VESCA_INFINITE)
      m_cv.wait(lock, [this] { return m_set; });
    else if (ms > 0)
      m_cv.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_set; });
    if (!m_set)
      return false;
    m_set = false; // auto-reset: the wait consumes the event
    return true;
  }

private:
  std::mutex m_mutex;
  std::condition_variable m_cv;
  bool m_set = false;
};

class tf_Mutex : public IVescaMutex
{
public:
  void lock() override { m_mutex.lock(); }
  void unlock() override { m_mutex.unlock(); }

private:
  std::recursive_mutex m_mutex;
};

class tf_Timer : public IVescaTimer
{
public:
  explicit tf_Timer(IVescaThreadOnTimerObserver * observer)
      : m_observer(observer), m_owner(std::this_thread::get_id())
  {
  }
  bool isCallingThreadOwner() const override { return std::this_thread::get_id() == m_owner; }
  IVescaThreadOnTimerObserver * getObserver() const override { return m_observer; }

private:
  IVescaThreadOnTimerObserver * m_observer;
  std::thread::id m_owner;
};

class tf_Sleeper : public IVescaSleeper
{
public:
  void sleep(unsigned ms) override { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
};

class tf_ThreadingFactory : public IVescaThreadingFactory
{
public:
  IVescaThread * createThread() override { return new tf_Thread; }
  IVescaBlockingEvent * createBlockingEvent() override { return new tf_BlockingEvent; }
  IVescaMutex * createMutex() override { return new tf_Mutex; }
  IVescaTimer * createTimer(IVescaThreadOnTimerObserver * observer) override { return new tf_Timer(observer); }
  IVescaSleeper * createSleeper() override { return new tf_Sleeper; }
};

// ---------------------------------------------------------------- cores

// Physical cores: distinct (package, core) pairs in /proc/cpuinfo. Hyper-threads
// share a core and would only oversubscribe the floating-point units.
int countPhysicalCores()
{
  std::ifstream in("/proc/cpuinfo");
  std::set<std::pair<int, int>> cores;
  int physical = 0, core = -1;
  bool haveCore = false;
  std::string line;
  auto flush = [&] {
    if (haveCore)
      cores.insert({physical, core});
    physical = 0;
    core = -1;
    haveCore = false;
  };
  while (std::getline(in, line))
  {
    if (line.empty())
    {
      flush();
      continue;
    }
    auto const colon = line.find(':');
    if (colon == std::string::npos)
      continue;
    std::string key = line.substr(0, colon);
    while (!key.empty() && (key.back() == ' ' || key.back() == '\t'))
      key.pop_back();
    std::istringstream value(line.substr(colon + 1));
    if (key == "physical id")
      value >> physical;
    else if (key == "core id")
    {
      value >> core;
      haveCore = true;
    }
  }
  flush();
  int count = static_cast<int>(cores.size());
  unsigned const logical = std::thread::hardware_concurrency();
  if (count <= 0)
    count = static_cast<int>(logical);
  else if (logical > 0 && count > static_cast<int>(logical))
    count = static_cast<int>(logical); // a container limited to fewer CPUs
  return count < 1 ? 1 : count;
}

std::once_flag g_coresOnce;
std::atomic<int> g_coresCounted{1};
std::atomic<bool> g_coresSettled{false};
std::atomic<int> g_coresOverride{0};

} // namespace

void InitCPUconf()
{
  std::call_once(g_coresOnce, [] {
    g_coresCounted.store(countPhysicalCores());
    g_coresSettled.store(true);
  });
}

bool IsCPUconfSettled() { return g_coresSettled.load(); }

template <> IVescaThreadingFactory & CVescaSingletonT<IVescaThreadingFactory>::instance()
{
  static tf_ThreadingFactory factory;
  return factory;
}

int CVescaThreadingTasksHelper::getNumOfPhisicalThread()
{
  int const forced = g_coresOverride.load();
  if (forced > 0)
    return forced;
  InitCPUconf();
  return g_coresCounted.load();
}

void CVescaThreadingTasksHelper::setNumOfPhisicalThread(int count)
{
  g_coresOverride.store(count > 0 ? count : 0);
}

void CVescaThreadingTasksHelper::performInParallel(IVescaInvokeProc ** tasks, int count,
                                                   IVescaThreadOnTimerObserver * observer)
{
  if (!tasks || count <= 0)
    return;

  struct Shared
  {
    std::mutex mutex;
    std::condition_variable cv;
    int running = 0;
    std::exception_ptr firstError;
  } shared;

  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  std::exception_ptr launchError;
  try
  {
    for (int i = 0; i < count; ++i)
    {
      IVescaInvokeProc * task = tasks[i];
      if (!task)
        continue;
      {
        std::lock_guard<std::mutex> lock(shared.mutex);
        ++shared.running;
      }
      try
      {
        threads.emplace_back([task, &shared] {
          std::exception_ptr error;
          try
          {
            task->run();
          }
          catch (...)
          {
            error = std::current_exception();
          }
          std::lock_guard<std::mutex> lock(shared.mutex);
          if (error && !shared.firstError)
            shared.firstError = error;
          --shared.running;
          shared.cv.notify_all();
        });
      }
      catch (...)
      {
        std::lock_guard<std::mutex> lock(shared.mutex);
        --shared.running;
        throw;
      }
    }
  }
  catch (...)
  {
    launchError = std::current_exception();
  }

  // Wait for every task, pumping the observer on this thread. An exception of
  // the observer (an interruption) stops the pumping but not the waiting: no
  // thread may outlive this call.
  std::exception_ptr observerError;
  {
    std::unique_lock<std::mutex> lock(shared.mutex);
    while (shared.running > 0)
    {
      if (observer && !observerError && !launchError)
      {
        unsigned period = 100;
        try
        {
          period = observer->getMillisecondsTimeOut();
        }
        catch (...)
        {
          observerError = std::current_exception();
        }
        if (period == 0)
          period = 1;
        if (shared.cv.wait_for(lock, std::chrono::milliseconds(period), [&] { return shared.running == 0; }))
          break;
        lock.unlock();
        try
        {
          observer->processTimerEvent();
        }
        catch (...)
        {
          observerError = std::current_exception();
        }
        lock.lock();
      }
      else
        shared.cv.wait(lock, [&] { return shared.running == 0; });
    }
  }
  for (std::thread & t : threads)
    t.join();

  if (launchError)
    std::rethrow_exception(launchError);
  if (shared.firstError)
    std::rethrow_exception(shared.firstError);
  if (observerError)
    std::rethrow_exception(observerError);
}
