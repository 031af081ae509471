// Whole runs of the block processor through a client: the hooks and their
// order, passes, statuses, and parallel runs against the serial reference.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "GridClient.h"
#include "QZsys/DebugLog.h"
#include "QZsys/Progress.h"

using namespace BlockTest;

namespace
{
std::vector<std::string> WithoutWorkerOps(std::vector<std::string> const & events)
{
  std::vector<std::string> kept;
  for (std::string const & e : events)
    if (e.rfind("reset", 0) == 0 || e.rfind("global", 0) == 0 || e.rfind("pass", 0) == 0 ||
        e.rfind("new-pass", 0) == 0 || e.rfind("not-extracted", 0) == 0)
      kept.push_back(e);
  return kept;
}

// Leaks of workers and fragments show here even without a sanitizer.
void ExpectNothingLeft()
{
  EXPECT_EQ(GridWorker::s_live.load(), 0);
  EXPECT_EQ(GridFragment::s_live.load(), 0);
}
} // namespace

// ---------------------------------------------------------------- configuration

TEST(BlockProcessorSetup, ThreadCountAndParallelFlagFollowEachOther)
{
  GridStructure grid(2, 2, 1);
  GridProcessor p(grid);
  EXPECT_TRUE(p.GetNParralelThreads() == 0 && !p.IsUseParallelThreads() && p.GetNPasses() == 1 &&
              p.CurrentPassNo() == -1 && !p.DoModifyImmediately() && !p.DoBlockExtract());
  p.SetNParralelThreads(4);
  EXPECT_TRUE(p.IsUseParallelThreads());
  p.SetUseParallelThreads(false); // drops the count to 1
  EXPECT_TRUE(!p.IsUseParallelThreads() && p.GetNParralelThreads() == 1);
  p.SetNParralelThreads(3);
  p.SetNParralelThreads(1); // one thread is serial
  EXPECT_FALSE(p.IsUseParallelThreads());
}

TEST(BlockProcessorSetup, BadConfigurationsFailBeforeAnyHook)
{
  // No structure; extraction without immediate modification; parallel work
  // without a thread count.
  for (int c = 0; c < 3; ++c)
  {
    GridStructure grid(2, 2, 1);
    GridProcessor p(grid);
    if (c == 0)
      p.SetBlockStructure(nullptr);
    p.SetExtractBlock(c == 1);
    p.SetUseParallelThreads(c == 2);
    EXPECT_EQ(p.Run(), c == 0 ? QZ_STATUS_UNEXPECTED_ERR : 9) << c;
    EXPECT_TRUE(p.Events().empty());
    EXPECT_EQ(p.creations.load() + grid.NewPassCalls(), 0);
  }
}

// ---------------------------------------------------------------- serial runs

TEST(BlockProcessorSerial, HooksComeInTheirOrderAndProgressRises)
{
  struct Recorder : IProgressObserver
  {
    std::vector<double> positions;
    void onProgress(double pos, std::string const &) override { positions.push_back(pos); }
  };
  // Without immediate modification the blocks are applied after the pass
  // (not extracted); with it each block is extracted and applied at once.
  for (bool immediate : {false, true})
  {
    GridStructure grid(3, 1, 1);
    GridProcessor p(grid);
    Recorder recorder;
    CProgressCounter progress;
    progress.AddObserver(&recorder);
    p.SetProgressCounter(&progress);
    p.SetNPasses(2);
    p.SetImmediateBlockModify(immediate);
    p.SetExtractBlock(immediate);
    p.recordWorkerOps = true;
    EXPECT_EQ(p.Run(), 0);

    std::vector<std::string> expected{"reset", "global-start"};
    for (int pass = 0; pass < 2; ++pass)
    {
      expected.push_back("pass-start " + std::to_string(pass));
      expected.push_back("new-pass-calls " + std::to_string(pass));
      for (int b = 0; b < 3; ++b)
        for (std::string op : {"create", "init", "extract ", "block-init ", "block-init-unshared ",
                               "process ", "finalize ", "apply "})
          if (immediate || (op != "extract " && op != "apply "))
            expected.push_back(op.back() == ' ' ? op + std::to_string(b) : op);
      for (int b = 0; b < 3 && !immediate; ++b)
        expected.push_back("not-extracted " + std::to_string(b));
      expected.push_back("pass-end " + std::to_string(pass));
    }
    expected.push_back("global-end");
    EXPECT_EQ(p.Events(), expected) << "immediate " << immediate;
    EXPECT_EQ(grid.NewPassCalls(), 2);
    EXPECT_EQ(p.CurrentPassNo(), 2);
    EXPECT_EQ(p.cells, ReferenceCells(3, 1, 2, p.rounds));
    ExpectNothingLeft();
    EXPECT_DOUBLE_EQ(progress.GetPosFloat(), 1.0);
    EXPECT_EQ(progress.GetRangeDepth(), 0);
    EXPECT_TRUE(std::is_sorted(recorder.positions.begin(), recorder.positions.end()));
    // The passes share 5 % to 95 % equally, the global actions have the rest.
    ASSERT_EQ(p.positions.size(), 3u);
    EXPECT_NEAR(p.positions[0], 0.05, 1e-12);
    EXPECT_NEAR(p.positions[1], 0.05 + 0.9 / 2, 1e-12);
    EXPECT_NEAR(p.positions[2], 0.95, 1e-12);
    // The first pass's blocks lie inside its share: 5 % + 90 % * (5 % + 90 % / 2).
    EXPECT_TRUE(std::any_of(recorder.positions.begin(), recorder.positions.end(),
                            [](double v) { return v > 0.05 && v < 0.05 + 0.9 * (0.05 + 0.9 / 2); }));
  }
}

TEST(BlockProcessorSerial, PassesEndEarlyOrNotAtAll)
{
  {
    GridStructure grid(2, 2, 1);
    GridProcessor p(grid);
    p.SetNPasses(0);
    EXPECT_EQ(p.Run(), 0);
    EXPECT_EQ(p.Events(), (std::vector<std::string>{"reset", "global-start", "global-end"}));
    EXPECT_EQ(grid.NewPassCalls(), 0);
  }
  {
    GridStructure grid(2, 2, 1);
    GridProcessor p(grid);
    p.SetNPasses(5);
    p.lastPass = 1;
    EXPECT_EQ(p.Run(), 0);
    std::vector<std::string> expected{"reset", "global-start"};
    for (int pass = 0; pass < 2; ++pass)
    {
      expected.push_back("pass-start " + std::to_string(pass));
      expected.push_back("new-pass-calls " + std::to_string(pass));
      for (int b = 0; b < 4; ++b)
        expected.push_back("not-extracted " + std::to_string(b));
      expected.push_back("pass-end " + std::to_string(pass));
    }
    expected.push_back("global-end");
    EXPECT_EQ(WithoutWorkerOps(p.Events()), expected);
    EXPECT_EQ(p.cells, ReferenceCells(2, 2, 2, p.rounds));
    EXPECT_EQ(p.CurrentPassNo(), 5);
  }
  GridStructure grid(0, 0, 1);
  GridProcessor p(grid);
  p.wholeResult = 42;
  EXPECT_EQ(p.Run(), 42);
  EXPECT_EQ(p.Events(), (std::vector<std::string>{"reset", "global-start", "pass-start 0", "new-pass-calls 0",
                                                  "pass-end 0", "global-end"}));
}

// ---------------------------------------------------------------- parallel runs

struct ParallelCase
{
  int threads;
  bool modify;
  bool extract;
  bool unshared;
};

class BlockProcessorParallel : public ::testing::TestWithParam<ParallelCase>
{
};

TEST_P(BlockProcessorParallel, MatchesTheSerialReference)
{
  ParallelCase const c = GetParam();
  int const width = 6, height = 5, passes = 3;
  GridStructure grid(width, height, 2);
  GridProcessor p(grid);
  VsUt::CMemoryDebugLog log;
  CProgressCounter progress;
  p.SetProgressCounter(&progress);
  p.SetDebugLog(&log);
  p.SetNPasses(passes);
  p.SetImmediateBlockModify(c.modify);
  p.SetExtractBlock(c.extract);
  p.unshared = c.unshared;
  p.SetNParralelThreads(c.threads);
  ASSERT_EQ(RunWithDeadline(p), 0);

  EXPECT_EQ(p.cells, ReferenceCells(width, height, passes, p.rounds));
  EXPECT_EQ(p.processed, std::vector<int>(static_cast<std::size_t>(grid.Count()), passes));
  EXPECT_FALSE(p.conflictSeen.load());
  EXPECT_FALSE(p.lockViolation.load());
  EXPECT_EQ(p.starts.load(), grid.Count() * passes);
  EXPECT_EQ(p.finishes.load(), grid.Count() * passes);
  EXPECT_EQ(p.finalizes.load(), c.modify ? grid.Count() * passes : 0);
  EXPECT_EQ(static_cast<int>(p.applied.size()), c.modify ? grid.Count() * passes : 0);
  EXPECT_DOUBLE_EQ(progress.GetPosFloat(), 1.0);
  std::vector<std::string> const lines = log.lines();
  EXPECT_EQ(Count(lines, "Thread stuff finished"), passes);
  EXPECT_EQ(Count(lines, "Initializing ..."), c.threads * passes);
  EXPECT_EQ(Count(lines, "Work finished. Sending release signal."), c.threads * passes);
  EXPECT_EQ(Count(lines, "worker released"), c.threads * passes);
  EXPECT_EQ(Count(lines, "Processing block"), grid.Count() * passes);
  EXPECT_EQ(Count(lines, "Entering write mutex"), c.unshared ? grid.Count() * passes : 0);
  EXPECT_EQ(Count(lines, "Going to lock " + std::to_string(c.threads) + " mutexes"),
            ((c.modify ? 1 : 0) + (c.unshared ? 1 : 0)) * grid.Count() * passes);
  EXPECT_EQ(Count(lines, "ERROR"), 0);
  ExpectNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(
    WorkersAndModes, BlockProcessorParallel,
    ::testing::Values(ParallelCase{2, true, true, false}, ParallelCase{3, true, true, true},
                      ParallelCase{4, true, true, false}, ParallelCase{2, false, false, false},
                      ParallelCase{4, false, false, true}, ParallelCase{3, true, false, false}),
    [](::testing::TestParamInfo<ParallelCase> const & info)
    {
      ParallelCase const & c = info.param;
      return std::to_string(c.threads) + "workers" + (c.modify ? "_modify" : "") +
             (c.extract ? "_extract" : "") + (c.unshared ? "_unshared" : "");
    });

TEST(BlockProcessorParallelRun, ConflictingBlocksRunOneAtATime)
{
  // Every block conflicts with every other: one worker works, the others
  // sleep until a block finishes and the manager wakes them.
  GridStructure grid(5, 1, -1);
  GridProcessor p(grid);
  VsUt::CMemoryDebugLog log;
  p.SetDebugLog(&log);
  p.SetImmediateBlockModify(true);
  p.SetExtractBlock(true);
  p.SetNParralelThreads(3);
  // The first block waits until both other workers went to sleep, so that
  // the sleeping and waking surely happen.
  p.onProcess = [&](int b)
  {
    if (b != 0)
      return;
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (Count(log.lines(), "No free blocks, going to sleep...") < 2 &&
           std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  };
  ASSERT_EQ(RunWithDeadline(p), 0);
  EXPECT_EQ(p.maxInWork.load(), 1);
  EXPECT_FALSE(p.conflictSeen.load());
  EXPECT_EQ(p.cells, ReferenceCells(5, 1, 1, p.rounds));
  std::vector<std::string> const lines = log.lines();
  EXPECT_GE(Count(lines, "No free blocks, going to sleep..."), 2);
  EXPECT_GE(Count(lines, "Waking up idle worker ID = "), 1);
  EXPECT_GE(Count(lines, "Waked up after sleep"), 1);
  EXPECT_EQ(Count(lines, "Waking up idles..."), Count(lines, "Waking up idles done."));
  ExpectNothingLeft();
}

TEST(BlockProcessorParallelRun, EmptyStructureEndsEveryWorker)
{
  GridStructure grid(0, 0, 1);
  GridProcessor p(grid);
  VsUt::CMemoryDebugLog log;
  p.SetDebugLog(&log);
  p.SetNParralelThreads(3);
  p.wholeResult = 5;
  EXPECT_EQ(RunWithDeadline(p), 5);
  std::vector<std::string> const lines = log.lines();
  EXPECT_EQ(Count(lines, "Blocks over"), 3);
  for (int id = 10000; id < 10003; ++id)
    EXPECT_EQ(Count(lines, "[DEBUG_THREADS] Worker " + std::to_string(id) + ": Blocks over"), 1);
  EXPECT_EQ(Count(lines, "[DEBUG_THREADS] Manager: Thread stuff finished"), 1);
  EXPECT_EQ(Count(p.Events(), "pass-end 0"), 1);
}

// Serially (no thread count) and on workers.
TEST(BlockProcessorRun, EmptyAndSkippedBlocksGetNoWorkButFinish)
{
  for (int threads : {0, 2})
  {
    GridStructure grid(4, 2, 1);
    GridProcessor p(grid);
    VsUt::CMemoryDebugLog log;
    p.SetDebugLog(&log);
    p.SetImmediateBlockModify(true);
    p.SetExtractBlock(true);
    p.emptyBlock = 3;
    p.skipBlock = 6;
    p.recordWorkerOps = threads == 0;
    p.SetNParralelThreads(threads);
    ASSERT_EQ(RunWithDeadline(p), 0);
    std::vector<int> expected(8, 1);
    expected[3] = expected[6] = 0;
    EXPECT_EQ(p.processed, expected);
    EXPECT_EQ(p.finishes.load(), threads ? 8 : 0); // the schedule's hooks serve the workers only
    std::vector<std::string> const events = p.Events(), lines = log.lines();
    EXPECT_EQ(Count(events, "global-end"), 1);
    if (threads == 0)
    {
      EXPECT_EQ(Count(events, "block-init 3"), 0);
      EXPECT_EQ(Count(events, "block-init 6"), 1);
      EXPECT_EQ(Count(events, "block-init-unshared 6"), 0);
      EXPECT_EQ(Count(events, "apply"), 6);
    }
    else
    {
      EXPECT_EQ(Count(lines, "Empty block "), 1);
      EXPECT_EQ(Count(lines, "!Worker.BlockInit()"), 1);
      EXPECT_EQ(Count(lines, "Updating huge model block"), 6);
    }
    ExpectNothingLeft();
  }
}

// A failing block ends the run with its status: serially the worker's code
// itself, on workers what the manager's abort makes of it. Blocks after it
// never start, and the failed block is given back.
TEST(BlockProcessorRun, StatusesOfFailingBlocks)
{
  struct Case
  {
    EFail fail;
    int code;
    int serial, parallel;
    char const * raised; // the manager's last words, when it is the one that ends the run
  };
  char const * const unexpected = "Raising EBlockAlgError( QZ_STATUS_UNEXPECTED_ERR )";
  char const * const user = "Raising EBlockAlgError( QZ_STATUS_USER_INTR )";
  for (Case const c :
       {Case{EFail::Code, 7, 7, -1, unexpected}, Case{EFail::Code, 10, 10, 10, user},
        Case{EFail::Code, -1, -1, -1, unexpected}, Case{EFail::Throw, 0, -1, -1, unexpected},
        Case{EFail::BadAlloc, 0, 1, -1, unexpected}, Case{EFail::Interrupt, 0, 10, 10, nullptr},
        Case{EFail::UserBreak, 0, 10, 10, user}, Case{EFail::Abort, 0, -1, -1, unexpected}})
    for (int threads : {0, 3})
    {
      SCOPED_TRACE(std::to_string(static_cast<int>(c.fail)) + " " + std::to_string(c.code) + " threads " +
                   std::to_string(threads));
      GridStructure grid(4, 4, 1);
      GridProcessor p(grid);
      VsUt::CMemoryDebugLog log;
      CProgressCounter progress;
      p.SetDebugLog(&log);
      p.SetProgressCounter(&progress);
      p.interruptTarget = &progress;
      p.SetImmediateBlockModify(true);
      p.SetExtractBlock(true);
      p.SetNParralelThreads(threads);
      p.fail = c.fail;
      p.failCode = c.code;
      p.failBlock = 5;
      EXPECT_EQ(RunWithDeadline(p), threads ? c.parallel : c.serial);
      std::vector<std::string> const lines = log.lines();
      if (threads == 0)
      {
        EXPECT_EQ(p.processed[6], 0);
      }
      else if (c.raised)
      {
        EXPECT_EQ(Count(lines, "[DEBUG_THREADS] Manager: AbortEvent caught"), 1);
        EXPECT_EQ(Count(lines, c.raised), 1);
        EXPECT_EQ(Count(lines, "successfully aborted"), Count(lines, "Sending aborting signal to worker"));
      }
      bool const error =
          c.fail == EFail::Throw || c.fail == EFail::BadAlloc || (c.fail == EFail::Code && c.code != 10);
      if (threads && error)
      {
        EXPECT_EQ(Count(lines, "ERROR during BlockProcessCore"), 1);
        EXPECT_EQ(Count(lines, "Unexpected error in BlockProc::CBlockWorker::Work()"), 1);
      }
      EXPECT_EQ(p.starts.load(), p.finishes.load());
      EXPECT_EQ(Count(p.Events(), "pass-end") + Count(p.Events(), "global-end"), 0);
      EXPECT_EQ(Count(lines, "Thread stuff finished"), 0);
      ExpectNothingLeft();
    }
}

TEST(BlockProcessorParallelRun, FailuresOfTheManagersOwnSteps)
{
  // Memory runs out while the third worker is made (the first two are freed);
  // a worker that is not made; workers that cannot even start must not let
  // the pass end as done.
  for (int c = 0; c < 3; ++c)
  {
    GridStructure grid(3, 3, 1);
    GridProcessor p(grid);
    VsUt::CMemoryDebugLog log;
    p.SetDebugLog(&log);
    p.SetNParralelThreads(c == 0 ? 4 : 2);
    p.failCreateAt = c == 0 ? 2 : -1;
    p.nullCreateAt = c == 1 ? 1 : -1;
    p.initThrows = c == 2;
    EXPECT_EQ(RunWithDeadline(p), c == 0 ? 1 : QZ_STATUS_UNEXPECTED_ERR) << c;
    if (c == 0)
    {
      EXPECT_EQ(p.creations.load(), 3);
    }
    if (c == 2)
    {
      EXPECT_GE(Count(log.lines(), "An ERROR occurred. Sending release signal."), 1);
    }
    EXPECT_EQ(Count(p.Events(), "pass-end"), 0);
    ExpectNothingLeft();
  }
}

TEST(BlockProcessorParallelRun, ARunAfterAFailureStartsClean)
{
  GridStructure grid(4, 3, 2);
  GridProcessor p(grid);
  p.SetImmediateBlockModify(true);
  p.SetExtractBlock(true);
  p.SetNParralelThreads(3);
  p.fail = EFail::UserBreak;
  p.failBlock = 4;
  ASSERT_EQ(RunWithDeadline(p), QZ_STATUS_USER_INTR);
  EXPECT_TRUE(p.IsUserBreak());

  // A fresh model: neither the user break nor an abort left over may end the
  // second run.
  p.cells = InitialCells(grid.Count());
  p.fail = EFail::None;
  p.SetAbortEvent();
  p.SetNPasses(2);
  std::fill(p.processed.begin(), p.processed.end(), 0);
  ASSERT_EQ(RunWithDeadline(p), 0);
  EXPECT_FALSE(p.IsUserBreak());
  EXPECT_EQ(p.cells, ReferenceCells(4, 3, 2, p.rounds));
  EXPECT_EQ(p.processed, std::vector<int>(12, 2));
}
