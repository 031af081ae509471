// A worker driven by hand: its counters and mutexes, and the exact trace of
// one block.

#include <gtest/gtest.h>

#include <cctype>
#include <map>
#include <string>
#include <vector>

#include "GridClient.h"
#include "QZsys/DebugLog.h"

using namespace BlockTest;

namespace
{
// Matches a trace line against a pattern in which "%p" stands for any pointer
// the C library prints (0x and hex digits); the rest must match literally.
// The first pointer on the line is returned through `pointer`.
// Written out rather than with std::regex, whose code draws a false
// uninitialised-use warning from GCC 12 in the sanitizer build.
bool matchTrace(std::string const & line, std::string const & pattern, std::string * pointer)
{
  std::size_t i = 0;
  for (std::size_t k = 0; k < pattern.size(); ++k)
  {
    if (pattern.compare(k, 2, "%p") == 0)
    {
      if (line.compare(i, 2, "0x") != 0)
        return false;
      std::size_t e = i + 2;
      while (e < line.size() && std::isxdigit(static_cast<unsigned char>(line[e])) &&
             !std::isupper(static_cast<unsigned char>(line[e])))
        ++e;
      if (e == i + 2)
        return false;
      if (pointer->empty())
        *pointer = line.substr(i, e - i);
      i = e;
      ++k;
      continue;
    }
    if (i >= line.size() || line[i] != pattern[k])
      return false;
    ++i;
  }
  return i == line.size();
}
} // namespace

TEST(BlockWorker, OwnOrSharedCountersAndAReadMutexEach)
{
  // Without a processor there is nothing to do, and no read mutex.
  GridWorker own(nullptr, true);
  EXPECT_TRUE(own.GetID() == 10000 && own.GetReadMutex() == nullptr && own.GetProgressCounter());
  own.Work();
  own.ReturnBlockToManager(Block_iter());

  GridStructure grid(2, 2, 1);
  ExposedProcessor p(grid);
  CProgressCounter progress;
  p.SetProgressCounter(&progress);
  GridWorker a(&p, false), b(&p, true);
  EXPECT_TRUE(a.GetReadMutex() && b.GetReadMutex() && a.GetReadMutex() != b.GetReadMutex());
  EXPECT_EQ(a.GetProgressCounter(), &progress); // shared
  EXPECT_NE(b.GetProgressCounter(), &progress); // its own
}

TEST(BlockWorker, TraceOfOneBlockFromTakingToGivingBack)
{
  GridStructure grid(1, 1, 0);
  ExposedProcessor p(grid);
  VsUt::CMemoryDebugLog log;
  p.SetDebugLog(&log);
  p.SetImmediateBlockModify(true);
  p.SetExtractBlock(true);
  p.OnBlockStructureInit();
  GridWorker worker(&p, true);
  worker.SetID(10001);
  worker.SetDebugLog(&log);
  worker.Work();

  std::string const W = "[DEBUG_THREADS] Worker 10001: ";
  std::string const M = "[DEBUG_THREADS] Manager: ";
  // Second column: what the pointer of the line is, for the check below.
  std::vector<std::pair<std::string, std::string>> const expected{
      {W + "Trying to lock manager before exclusive block locking/returning...", ""},
      {W + "Locking single mutex %p.", "block mutex"},
      {W + "Single mutex %p locked.", "block mutex"},
      {M + "Manager state before locking next block", ""},
      {W + "Unlocking single mutex %p", "block mutex"},
      {W + "Processing block %p", "block"},
      {W + "Locking single mutex %p.", "read mutex"},
      {W + "Single mutex %p locked.", "read mutex"},
      {W + "Entered read mutex %p for extracting from huge model", "read mutex"},
      {W + "Extracting block %p", "block"},
      {W + "Block extraction finished", ""},
      {W + "Leaving read mutex %p for extracting from huge model", "read mutex"},
      {W + "Unlocking single mutex %p", "read mutex"},
      {W + "Locking all mutexes due to updating block", ""},
      {W + "Going to lock 1 mutexes", ""},
      {W + "Locking mutex number 0", ""},
      {W + "Locking mutex %p", "read mutex"},
      {W + "Mutex %p locked", "read mutex"},
      {W + "All mutexes locked by locker %p", "locker"},
      {W + "All mutexes locked due to updating block", ""},
      {W + "Entered mutex for updating huge model", ""},
      {W + "Updating huge model block %p", "block"},
      {W + "Update completed", ""},
      {W + "Unlocking all mutexes caused by updating block", ""},
      {W + "Destructor of locker %p entered", "locker"},
      {W + "Unlock of locker %p entered", "locker"},
      {W + "Going to unlock 1 mutexes", ""},
      {W + "Going to unlock all mutexes", ""},
      {W + "Unlocking mutex number 0", ""},
      {W + "Unlocking mutex %p", "read mutex"},
      {W + "All mutexes unlocked by locker %p", "locker"},
      {W + "Locking single mutex %p.", "block mutex"},
      {W + "Single mutex %p locked.", "block mutex"},
      {W + "Enter mutex %p for unlock block", "block mutex"},
      {M + "Manager state before unblocking block", ""},
      {M + "Manager state after UnLocking block", ""},
      {W + "Leave mutex %p for unlock block", "block mutex"},
      {W + "Reporting that block finished, one can try to wake up idle workers...", ""},
      {W + "Unlocking single mutex %p", "block mutex"},
      {W + "Trying to lock manager before exclusive block locking/returning...", ""},
      {W + "Locking single mutex %p.", "block mutex"},
      {W + "Single mutex %p locked.", "block mutex"},
      {W + "Blocks over", ""},
      {W + "Unlocking single mutex %p", "block mutex"},
  };
  std::vector<std::string> const lines = log.lines();
  ASSERT_EQ(lines.size(), expected.size());
  std::map<std::string, std::string> pointers;
  for (std::size_t i = 0; i < lines.size(); ++i)
  {
    std::string pointer;
    ASSERT_TRUE(matchTrace(lines[i], expected[i].first, &pointer))
        << "line " << i << ": " << lines[i] << "\nexpected: " << expected[i].first;
    if (expected[i].second.empty())
      continue;
    auto const known = pointers.emplace(expected[i].second, pointer);
    EXPECT_EQ(known.first->second, pointer) << "line " << i << " names another " << expected[i].second;
  }
  EXPECT_EQ(pointers.size(), 4u);
  EXPECT_NE(pointers["block mutex"], pointers["read mutex"]);
  EXPECT_EQ((std::vector<int>{p.processed[0], p.finalizes, GridFragment::s_live}),
            (std::vector<int>{1, 1, 0}));
  EXPECT_EQ(p.applied, std::vector<int>{0});
  EXPECT_TRUE(p.IsBlockProcessed(grid.Block(0)));
}
