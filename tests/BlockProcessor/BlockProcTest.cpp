// Whole runs of the block processor through a client: the hooks and their
// order, passes, statuses, and parallel runs against the serial reference.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "GridClient.h"
#include "QZsys/DebugLog.h"
#include "QZsys/Progress.h"

using namespace BlockTest;

namespace
{
/// A grid and its processor, logging to memory, with the progress counted
/// when asked for (a run without a counter takes other paths).
struct Rig
{
  GridStructure grid;
  GridProcessor p;
  VsUt::CMemoryDebugLog log;
  CProgressCounter progress;
  Rig(int width, int height, int radius, int threads, bool modifyAndExtract, bool counted = false)
      : grid(width, height, radius), p(grid)
  {
    p.SetDebugLog(&log);
    if (counted)
      p.SetProgressCounter(&progress);
    p.SetImmediateBlockModify(modifyAndExtract);
    p.SetExtractBlock(modifyAndExtract);
    p.SetNParralelThreads(threads);
  }
  int Run() { return RunWithDeadline(p); }
  /// How many log lines hold each needle.
  std::vector<int> Lines(std::vector<std::string> const & needles) const
  {
    std::vector<int> counts;
    for (std::string const & n : needles)
      counts.push_back(Count(log.lines(), n));
    return counts;
  }
};

/// The processor's own hooks of a run with `passes` passes: `perBlock` adds
/// each block's events of a pass, and without extraction the blocks are
/// applied at its end.
std::vector<std::string> PassEvents(int passes, int blocks, bool notExtracted,
                                    std::function<void(std::vector<std::string> &, int)> perBlock = {})
{
  std::vector<std::string> events{"reset", "global-start"};
  for (int pass = 0; pass < passes; ++pass)
  {
    events.push_back("pass-start " + std::to_string(pass));
    events.push_back("new-pass-calls " + std::to_string(pass));
    for (int b = 0; b < blocks && perBlock; ++b)
      perBlock(events, b);
    for (int b = 0; b < blocks && notExtracted; ++b)
      events.push_back("not-extracted " + std::to_string(b));
    events.push_back("pass-end " + std::to_string(pass));
  }
  events.push_back("global-end");
  return events;
}

// Leaks of workers and fragments show here even without a sanitizer.
void ExpectNothingLeft() { EXPECT_EQ(GridWorker::s_live.load() + GridFragment::s_live.load(), 0); }
} // namespace

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

TEST(BlockProcessorSerial, HooksComeInTheirOrderAndProgressRises)
{
  // Without immediate modification the blocks are applied after the pass
  // (not extracted); with it each block is extracted and applied at once.
  for (bool immediate : {false, true})
  {
    Rig r(3, 1, 1, 0, immediate, true);
    ProgressRecorder recorder;
    r.progress.AddObserver(&recorder);
    r.p.SetNPasses(2);
    r.p.recordWorkerOps = true;
    EXPECT_EQ(r.Run(), 0);

    std::vector<std::string> const expected =
        PassEvents(2, 3, !immediate,
                   [&](std::vector<std::string> & events, int b)
                   {
                     for (std::string op : {"create", "init", "extract ", "block-init ",
                                            "block-init-unshared ", "process ", "finalize ", "apply "})
                       if (immediate || (op != "extract " && op != "apply "))
                         events.push_back(op.back() == ' ' ? op + std::to_string(b) : op);
                   });
    EXPECT_EQ(r.p.Events(), expected) << "immediate " << immediate;
    EXPECT_EQ(r.grid.NewPassCalls(), 2);
    EXPECT_EQ(r.p.cells, ReferenceCells(3, 2));
    ExpectNothingLeft();
    EXPECT_DOUBLE_EQ(r.progress.GetPosFloat(), 1.0);
    EXPECT_EQ(r.progress.GetRangeDepth(), 0);
    EXPECT_TRUE(recorder.Rising());
    // The passes share 5 % to 95 % equally, the global actions have the rest.
    double const starts[] = {0.05, 0.05 + 0.9 / 2, 0.95};
    ASSERT_EQ(r.p.positions.size(), 3u);
    for (int i = 0; i < 3; ++i)
      EXPECT_NEAR(r.p.positions[i], starts[i], 1e-12);
    // The first pass's blocks lie inside its share: 5 % + 90 % * (5 % + 90 % / 2).
    EXPECT_TRUE(std::any_of(recorder.positions.begin(), recorder.positions.end(),
                            [](double v) { return v > 0.05 && v < 0.05 + 0.9 * (0.05 + 0.9 / 2); }));
  }
}

TEST(BlockProcessorSerial, PassesEndEarlyOrNotAtAll)
{
  Rig zero(2, 2, 1, 0, false);
  zero.p.SetNPasses(0);
  EXPECT_EQ(zero.Run(), 0);
  EXPECT_EQ(zero.p.Events(), PassEvents(0, 4, true));
  EXPECT_EQ(zero.grid.NewPassCalls(), 0);

  Rig early(2, 2, 1, 0, false);
  early.p.SetNPasses(5);
  early.p.lastPass = 1;
  EXPECT_EQ(early.Run(), 0);
  EXPECT_EQ(early.p.Events(), PassEvents(2, 4, true));
  EXPECT_EQ(early.p.cells, ReferenceCells(4, 2));
  EXPECT_EQ(early.p.CurrentPassNo(), 5);

  Rig empty(0, 0, 1, 0, false);
  empty.p.wholeResult = 42;
  EXPECT_EQ(empty.Run(), 42);
  EXPECT_EQ(empty.p.Events(), PassEvents(1, 0, true));
}

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
  int const passes = 3, n = 6 * 5 * passes;
  Rig r(6, 5, 2, c.threads, c.modify, true);
  r.p.SetExtractBlock(c.extract);
  r.p.SetNPasses(passes);
  r.p.unshared = c.unshared;
  ASSERT_EQ(r.Run(), 0);

  EXPECT_EQ(r.p.cells, ReferenceCells(30, passes));
  EXPECT_EQ(r.p.processed, std::vector<int>(static_cast<std::size_t>(r.grid.Count()), passes));
  EXPECT_EQ((std::vector<int>{r.p.starts, r.p.finishes, r.p.finalizes, static_cast<int>(r.p.applied.size())}),
            (std::vector<int>{n, n, c.modify ? n : 0, c.modify ? n : 0}));
  EXPECT_DOUBLE_EQ(r.progress.GetPosFloat(), 1.0);
  EXPECT_EQ(r.Lines({"Thread stuff finished", "Initializing ...", "Work finished. Sending release signal.",
                     "worker released", "Processing block", "Entering write mutex",
                     "Going to lock " + std::to_string(c.threads) + " mutexes", "ERROR"}),
            (std::vector<int>{passes, c.threads * passes, c.threads * passes, c.threads * passes, n,
                              c.unshared ? n : 0, ((c.modify ? 1 : 0) + (c.unshared ? 1 : 0)) * n, 0}));
  ExpectNothingLeft();
}

INSTANTIATE_TEST_SUITE_P(WorkersAndModes, BlockProcessorParallel,
                         ::testing::Values(ParallelCase{2, true, true, false},
                                           ParallelCase{3, true, true, true},
                                           ParallelCase{4, false, false, true},
                                           ParallelCase{3, true, false, false}),
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
  Rig r(5, 1, -1, 3, true);
  // The first block waits until both other workers went to sleep, so that
  // the sleeping and waking surely happen.
  r.p.onProcess = [&](int b)
  {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (b == 0 && Count(r.log.lines(), "No free blocks, going to sleep...") < 2 &&
           std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  };
  ASSERT_EQ(r.Run(), 0);
  EXPECT_EQ(r.p.cells, ReferenceCells(5, 1));
  std::vector<int> const seen =
      r.Lines({"No free blocks, going to sleep...", "Waking up idle worker ID = ", "Waked up after sleep"});
  EXPECT_TRUE(seen[0] >= 2 && seen[1] >= 1 && seen[2] >= 1) << seen[0] << " " << seen[1] << " " << seen[2];
  EXPECT_EQ(Count(r.log.lines(), "Waking up idles..."), Count(r.log.lines(), "Waking up idles done."));
  ExpectNothingLeft();
}

// Serially (no thread count) and on workers.
TEST(BlockProcessorRun, EmptyAndSkippedBlocksGetNoWorkButFinish)
{
  for (int threads : {0, 2})
  {
    Rig r(4, 2, 1, threads, true);
    r.p.emptyBlock = 3;
    r.p.skipBlock = 6;
    r.p.recordWorkerOps = threads == 0;
    ASSERT_EQ(r.Run(), 0);
    EXPECT_EQ(r.p.processed, (std::vector<int>{1, 1, 1, 0, 1, 1, 0, 1}));
    EXPECT_EQ(r.p.finishes.load(), threads ? 8 : 0); // the schedule's hooks serve the workers only
    std::vector<std::string> const events = r.p.Events();
    EXPECT_EQ(Count(events, "global-end"), 1);
    if (threads == 0)
      EXPECT_EQ((std::vector<int>{Count(events, "block-init 3"), Count(events, "block-init 6"),
                                  Count(events, "block-init-unshared 6"), Count(events, "apply")}),
                (std::vector<int>{0, 1, 0, 6}));
    else
      EXPECT_EQ(r.Lines({"Empty block ", "!Worker.BlockInit()", "Updating huge model block"}),
                (std::vector<int>{1, 1, 6}));
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
      Rig r(4, 4, 1, threads, true, true);
      r.p.fail = c.fail;
      r.p.failCode = c.code;
      r.p.failBlock = 5;
      EXPECT_EQ(r.Run(), threads ? c.parallel : c.serial);
      if (threads == 0)
        EXPECT_EQ(r.p.processed[6], 0);
      else if (c.raised)
      {
        EXPECT_EQ(r.Lines({"[DEBUG_THREADS] Manager: AbortEvent caught", c.raised}),
                  (std::vector<int>{1, 1}));
        EXPECT_EQ(Count(r.log.lines(), "successfully aborted"),
                  Count(r.log.lines(), "Sending aborting signal to worker"));
      }
      bool const error =
          c.fail == EFail::Throw || c.fail == EFail::BadAlloc || (c.fail == EFail::Code && c.code != 10);
      if (threads && error)
      {
        EXPECT_EQ(
            r.Lines({"ERROR during BlockProcessCore", "Unexpected error in BlockProc::CBlockWorker::Work()"}),
            (std::vector<int>{1, 1}));
      }
      EXPECT_EQ(r.p.starts.load(), r.p.finishes.load());
      EXPECT_EQ(Count(r.p.Events(), "pass-end") + Count(r.p.Events(), "global-end"), 0);
      EXPECT_EQ(Count(r.log.lines(), "Thread stuff finished"), 0);
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
    Rig r(3, 3, 1, c == 0 ? 4 : 2, false);
    r.p.failCreateAt = c == 0 ? 2 : -1;
    r.p.nullCreateAt = c == 1 ? 1 : -1;
    r.p.initThrows = c == 2;
    EXPECT_EQ(r.Run(), c == 0 ? 1 : QZ_STATUS_UNEXPECTED_ERR) << c;
    EXPECT_TRUE(c != 0 || r.p.creations.load() == 3) << "the third worker failed, no fourth was made";
    EXPECT_TRUE(c != 2 || Count(r.log.lines(), "An ERROR occurred. Sending release signal.") >= 1);
    EXPECT_EQ(Count(r.p.Events(), "pass-end"), 0);
    ExpectNothingLeft();
  }
}

TEST(BlockProcessorParallelRun, ARunAfterAFailureStartsClean)
{
  Rig r(4, 3, 2, 3, true);
  r.p.fail = EFail::UserBreak;
  r.p.failBlock = 4;
  ASSERT_EQ(r.Run(), QZ_STATUS_USER_INTR);

  // A fresh model: neither the user break nor an abort left over may end the
  // second run.
  r.p.cells = InitialCells(r.grid.Count());
  r.p.fail = EFail::None;
  r.p.SetAbortEvent();
  r.p.SetNPasses(2);
  std::fill(r.p.processed.begin(), r.p.processed.end(), 0);
  ASSERT_EQ(r.Run(), 0);
  EXPECT_EQ(r.p.cells, ReferenceCells(12, 2));
  EXPECT_EQ(r.p.processed, std::vector<int>(12, 2));
}
