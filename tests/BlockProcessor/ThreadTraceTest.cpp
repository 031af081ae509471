// The trace lines of the block-processing engine: prefixes, formats, limits.

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "QZmath/BlockProcessor/ThreadTrace.h"
#include "QZsys/DebugLog.h"
#include "TracePattern.h"

using BlockProc::DebugThreadMessage;
using BlockProc::DebugThreadMgrMessage;

TEST(ThreadTrace, WorkerAndManagerLines)
{
  VsUt::CMemoryDebugLog log;
  int object = 0;
  DebugThreadMessage(&log, 10002, "Blocks over");
  DebugThreadMessage(&log, 10003, "Locking mutex number %d", 4);
  DebugThreadMessage(&log, -5, "Processing block %p", static_cast<void *>(&object));
  DebugThreadMessage(&log, 7, "Extracting block %p", static_cast<void const *>(&object));
  DebugThreadMgrMessage(&log, "Thread stuff finished");
  DebugThreadMgrMessage(&log, "Worker ID=%d worker released", 10001);
  DebugThreadMgrMessage(&log, "Mutex %p", static_cast<void *>(&object));
  DebugThreadMgrMessage(&log, "Mutex %p", static_cast<void const *>(&object));
  // A text without an argument is not a format.
  DebugThreadMgrMessage(&log, "100% done %d");

  std::string const W = "[DEBUG_THREADS] Worker ", M = "[DEBUG_THREADS] Manager: ";
  std::vector<std::string> const expected{W + "10002: Blocks over",
                                          W + "10003: Locking mutex number 4",
                                          W + "-5: Processing block %p",
                                          W + "7: Extracting block %p",
                                          M + "Thread stuff finished",
                                          M + "Worker ID=10001 worker released",
                                          M + "Mutex %p",
                                          M + "Mutex %p",
                                          "[DEBUG_THREADS] Manager: 100% done %d"};
  std::vector<std::string> const lines = log.lines();
  ASSERT_EQ(lines.size(), expected.size());
  std::set<std::string> pointers; // one object, printed alike from const and non-const pointers
  for (std::size_t i = 0; i < lines.size(); ++i)
  {
    std::string pointer;
    EXPECT_TRUE(matchTrace(lines[i], expected[i], &pointer)) << lines[i];
    if (!pointer.empty())
      pointers.insert(pointer);
  }
  EXPECT_EQ(pointers.size(), 1u);
}

TEST(ThreadTrace, FormattedTextsAreCutAt255Characters)
{
  VsUt::CMemoryDebugLog log;
  std::string const longText(300, 'x');
  DebugThreadMessage(&log, 1, (longText + "%d").c_str(), 5);
  DebugThreadMgrMessage(&log, (longText + "%d").c_str(), 5);
  DebugThreadMessage(&log, 1, longText.c_str());
  DebugThreadMgrMessage(&log, longText.c_str());
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"[DEBUG_THREADS] Worker 1: " + std::string(255, 'x'),
                                                   "[DEBUG_THREADS] Manager: " + std::string(255, 'x'),
                                                   "[DEBUG_THREADS] Worker 1: " + longText,
                                                   "[DEBUG_THREADS] Manager: " + longText}));
}

TEST(ThreadTrace, NullLogAndNullTexts)
{
  EXPECT_TRUE(b_DEBUG_THREADS_On);
  // Nothing to write to: no line, and no formatting of the text either.
  DebugThreadMessage(nullptr, 1, "%d", 1);
  DebugThreadMgrMessage(nullptr, "Mutex %p", static_cast<void *>(nullptr));
  VsUt::CMemoryDebugLog log;
  DebugThreadMessage(&log, 2, nullptr);
  DebugThreadMgrMessage(&log, nullptr, 3);
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{"[DEBUG_THREADS] Worker 2: ", "[DEBUG_THREADS] Manager: "}));
}
