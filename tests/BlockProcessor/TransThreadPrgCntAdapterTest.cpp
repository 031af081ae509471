#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "GridClient.h"
#include "QZmath/BlockProcessor/TransThreadPrgCntAdapter.h"

using BlockTest::ProgressRecorder;

namespace
{
/// Counts 500 steps on the adapter, pausing now and then so that the timer
/// fires meanwhile.
struct Counting : IVescaInvokeProc
{
  CTransThreadPrgCntAdapter * adapter;
  explicit Counting(CTransThreadPrgCntAdapter * a) : adapter(a) {}
  void run() override
  {
    for (int i = 0; i < 500; ++i)
    {
      adapter->increment();
      if (i % 50 == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
};
} // namespace

TEST(TransThreadPrgCntAdapter, OwningThreadPassesStepsAtOnceAndStopsAtTheTotal)
{
  CProgressCounter c;
  CTransThreadPrgCntAdapter a;
  a.refresh(&c, 4);
  a.increment();
  EXPECT_DOUBLE_EQ(c.GetPosFloat(), 0.25);
  for (int i = 0; i < 4; ++i) // one past the total
    a.increment();
  EXPECT_EQ(a.getCurrent(), 4);
  EXPECT_DOUBLE_EQ(c.GetPosFloat(), 1.0);

  CProgressCounter d;
  a.refresh(&d, -5); // a negative total acts as 0
  EXPECT_EQ(a.getTotal(), 0);
  a.increment();
  EXPECT_DOUBLE_EQ(d.GetPosFloat(), 1.0);
  a.refresh(nullptr, 3); // no counter: only counts
  a.increment();
  EXPECT_EQ(a.getCurrent(), 1);
}

TEST(TransThreadPrgCntAdapter, WorkersCountAndTheTimerMovesTheCounter)
{
  CProgressCounter c;
  ProgressRecorder rec;
  c.AddObserver(&rec);
  CTransThreadPrgCntAdapter a;
  a.refresh(&c, 1000);
  Counting t1(&a), t2(&a);
  IVescaInvokeProc * tasks[] = {&t1, &t2};
  CVescaThreadingTasksHelper::performInParallel(tasks, 2, &a);
  // Workers never touch the counter; what remains is passed on here.
  EXPECT_FALSE(rec.otherThread);
  static_cast<IVescaThreadOnTimerObserver &>(a).processTimerEvent();
  EXPECT_EQ(a.getCurrent(), 1000);
  EXPECT_DOUBLE_EQ(c.GetPosFloat(), 1.0);
  EXPECT_TRUE(rec.Rising());
}
