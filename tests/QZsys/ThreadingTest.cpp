#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

#include "QZsys/CpuConf.h"
#include "QZsys/Threading.h"
#include "tests/Common/Checks.h"

using namespace std::chrono_literals;

namespace
{
struct FnTask : IVescaInvokeProc
{
  std::function<void()> fn;
  explicit FnTask(std::function<void()> f) : fn(std::move(f)) {}
  void run() override { fn(); }
};

struct CountingObserver : IVescaThreadOnTimerObserver
{
  std::atomic<int> events{0};
  std::thread::id seenOn;
  int throwAfter = -1;

private:
  unsigned onGetMillisecondsTimeOut() override { return 5; }
  void onProcessTimerEvent() override
  {
    seenOn = std::this_thread::get_id();
    if (++events == throwAfter)
      throw std::runtime_error("observer");
  }
};
} // namespace

// Whether the tasks overlap is a matter of speed, not of results; here
// only the calls with nothing to run.
TEST(PerformInParallel, NothingToRunIsNoError)
{
  IVescaInvokeProc * none[] = {nullptr};
  EXPECT_NO_THROW(CVescaThreadingTasksHelper::performInParallel(nullptr, 3, nullptr));
  EXPECT_NO_THROW(CVescaThreadingTasksHelper::performInParallel(none, 1, nullptr));
  EXPECT_NO_THROW(CVescaThreadingTasksHelper::performInParallel(none, 0, nullptr));
}

// A task's exception and the observer's both wait until every task ended; the
// observer is pumped on the calling thread meanwhile.
TEST(PerformInParallel, ExceptionsComeAfterAllTasksJoined)
{
  std::atomic<int> finished{0};
  FnTask slow(
      [&]
      {
        std::this_thread::sleep_for(100ms);
        ++finished;
      });
  FnTask bad([] { throw std::out_of_range("task failed"); });
  IVescaInvokeProc * tasks[] = {&bad, &slow};
  CountingObserver obs;
  EXPECT_EQ(QZTest::whatOf<std::out_of_range>(
                [&] { CVescaThreadingTasksHelper::performInParallel(tasks, 2, &obs); }),
            "task failed");
  EXPECT_EQ(finished.load(), 1);

  CountingObserver failing;
  failing.throwAfter = 2;
  EXPECT_THROW(CVescaThreadingTasksHelper::performInParallel(tasks + 1, 1, &failing), std::runtime_error);
  EXPECT_EQ(finished.load(), 2);
  EXPECT_EQ(failing.events.load(), 2); // pumping stopped at the exception
  EXPECT_EQ(failing.seenOn, std::this_thread::get_id());
}

TEST(PhysicalThreads, CountedAtLeastOneAndSettable)
{
  int const counted = CVescaThreadingTasksHelper::getNumOfPhisicalThread();
  EXPECT_GE(counted, 1);
  EXPECT_LE(counted, static_cast<int>(std::max(1u, std::thread::hardware_concurrency())));
  CVescaThreadingTasksHelper::setNumOfPhisicalThread(7);
  EXPECT_EQ(CVescaThreadingTasksHelper::getNumOfPhisicalThread(), 7);
  CVescaThreadingTasksHelper::setNumOfPhisicalThread(0);
  EXPECT_EQ(CVescaThreadingTasksHelper::getNumOfPhisicalThread(), counted);
  InitCPUconf();
  EXPECT_TRUE(IsCPUconfSettled());
}

TEST(ThreadingFactory, AutoResetEventWithTimeoutsAndARecursiveMutex)
{
  auto & f = CVescaSingletonT<IVescaThreadingFactory>::instance();
  std::unique_ptr<IVescaBlockingEvent> e(f.createBlockingEvent());
  EXPECT_FALSE(e->wait(0)); // poll
  e->set();
  e->set(); // setting twice is still one event
  EXPECT_TRUE(e->wait(0));
  EXPECT_FALSE(e->wait(0)); // consumed
  auto const t0 = std::chrono::steady_clock::now();
  EXPECT_FALSE(e->wait(30));
  EXPECT_GE(std::chrono::steady_clock::now() - t0, 25ms);
  std::thread setter(
      [&]
      {
        std::this_thread::sleep_for(20ms);
        e->set();
      });
  EXPECT_TRUE(e->wait(5000));
  setter.join();
  std::thread setter2([&] { e->set(); });
  EXPECT_TRUE(e->wait(VESCA_INFINITE));
  setter2.join();
  // The block engine takes its mutexes once each; callers may nest them.
  IVescaMutexPtr m(f.createMutex());
  CVescaMutexLock outer(m);
  CVescaMutexLock inner(m.get()); // a plain mutex would hang here
  CVescaMutexLock none(nullptr);  // a null mutex is accepted
}

// Starting, waiting and deleting a thread are what every parallel block run
// does; a task that throws is what no run of the block processor meets.
TEST(ThreadingFactory, ThreadSwallowsTheExceptionOfItsTask)
{
  auto & f = CVescaSingletonT<IVescaThreadingFactory>::instance();
  FnTask bad([] { throw 42; });
  std::unique_ptr<IVescaThread> t2(f.createThread());
  EXPECT_TRUE(t2->wait(0)); // never started
  t2->setProc(&bad);
  t2->start();
  EXPECT_TRUE(t2->wait(VESCA_INFINITE));
  EXPECT_TRUE(t2->hasFailed());
}
