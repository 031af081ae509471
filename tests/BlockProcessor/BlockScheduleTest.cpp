// The schedule of the block processor, driven by hand on one thread: which
// block is handed out and what counts as processed. A random walk is checked
// against a plain reference scheduler.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <vector>

#include "GridClient.h"
#include "tests/Common/Checks.h"

using namespace BlockTest;

namespace
{
int IndexOf(GridStructure const & grid, Block_iter it)
{
  return it.GetDesc() ? Index(*it.GetDesc()) : grid.Count();
}
} // namespace

TEST(BlockSchedule, RandomHandOutsMatchAPlainScheduler)
{
  // The reference: the first block along the walk that is neither finished
  // nor in work and conflicts with no block in work.
  std::mt19937 random(20240611u);
  for (int round = 0; round < 40; ++round)
  {
    int const width = 2 + static_cast<int>(random() % 5), height = 1 + static_cast<int>(random() % 4);
    int const radius = static_cast<int>(random() % 3) - (round % 7 == 0 ? 2 : 0); // sometimes all conflict
    GridStructure grid(width, height, radius);
    ExposedProcessor p(grid);
    p.OnBlockStructureInit();
    ASSERT_EQ(p.GetPassBlockCount(), grid.Count());
    std::set<int> finished;
    std::vector<int> inWork;
    while (static_cast<int>(finished.size()) < grid.Count())
    {
      int expected = grid.Count();
      std::vector<bool> free(static_cast<std::size_t>(grid.Count()));
      for (int b = grid.Count() - 1; b >= 0; --b)
      {
        free[b] = !finished.count(b) && std::find(inWork.begin(), inWork.end(), b) == inWork.end();
        for (int w : inWork)
          free[b] = free[b] && !grid.Conflict(b, w);
        if (free[b])
          expected = b;
      }
      ASSERT_TRUE(p.HasPotentialJob());
      ASSERT_EQ(p.HasCurrentJob(), expected != grid.Count());
      for (int b = 0; b < grid.Count(); ++b)
      {
        ASSERT_EQ(p.IsBlockProcessed(grid.Block(b)), finished.count(b) == 1) << "block " << b;
        ASSERT_EQ(p.IsBlockReadyForProcess(grid.Block(b)), free[b]) << "block " << b;
      }

      // Take a block when one is free and the dice say so, else finish one.
      if (expected != grid.Count() && (inWork.empty() || random() % 3 != 0))
      {
        ASSERT_EQ(IndexOf(grid, p.LockNextBlock(nullptr)), expected);
        inWork.push_back(expected);
      }
      else
      {
        ASSERT_FALSE(inWork.empty());
        std::size_t const k = random() % inWork.size();
        p.UnLockBlock(grid.At(inWork[k]), nullptr);
        finished.insert(inWork[k]);
        inWork.erase(inWork.begin() + static_cast<std::ptrdiff_t>(k));
      }
    }
    EXPECT_FALSE(p.HasPotentialJob() || p.HasCurrentJob());
    EXPECT_EQ(p.LockNextBlock(nullptr), p.BlockEnd());
    EXPECT_EQ((std::vector<int>{p.GetFinishedBlockCount(), p.starts, p.finishes}),
              std::vector<int>(3, grid.Count()));
    // The next block now stands at the end, which holds no address at all.
    for (int b = 0; b < grid.Count(); ++b)
      EXPECT_TRUE(p.IsBlockProcessed(grid.Block(b))) << "block " << b;
    // A new pass starts from scratch.
    p.OnBlockStructureInit();
    EXPECT_FALSE(p.IsBlockProcessed(grid.Block(0)));
    EXPECT_EQ(p.GetFinishedBlockCount(), 0);
    EXPECT_EQ(IndexOf(grid, p.LockNextBlock(nullptr)), 0);
  }
}

// Other codes become EBlockAlgError with the code, which a serial run returns:
// BlockProcessorRun.StatusesOfFailingBlocks shows them.
TEST(BlockSchedule, UserInterruptionOfAWorkerKeepsItsText)
{
  GridStructure grid(1, 1, 0);
  GridProcessor p(grid);
  EXPECT_NO_THROW(p.CheckWorkerResult(0));
  EXPECT_EQ(QZTest::whatOf<CUserIntrException>([&] { p.CheckWorkerResult(QZ_STATUS_USER_INTR); }),
            "user interruption");
}
