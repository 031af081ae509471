// The trace lines of the block-processing engine: prefixes, formats, limits.

#include <gtest/gtest.h>

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

  std::vector<std::string> const lines = log.lines();
  ASSERT_EQ(lines.size(), 9u);
  std::string pointer;
  EXPECT_EQ(lines[0], "[DEBUG_THREADS] Worker 10002: Blocks over");
  EXPECT_EQ(lines[1], "[DEBUG_THREADS] Worker 10003: Locking mutex number 4");
  EXPECT_TRUE(matchTrace(lines[2], R"([DEBUG_THREADS] Worker -5: Processing block %p)", &pointer))
      << lines[2];
  EXPECT_TRUE(matchTrace(lines[3], R"([DEBUG_THREADS] Worker 7: Extracting block %p)", &pointer)) << lines[3];
  EXPECT_EQ(lines[4], "[DEBUG_THREADS] Manager: Thread stuff finished");
  EXPECT_EQ(lines[5], "[DEBUG_THREADS] Manager: Worker ID=10001 worker released");
  EXPECT_TRUE(matchTrace(lines[6], R"([DEBUG_THREADS] Manager: Mutex %p)", &pointer)) << lines[6];
  EXPECT_EQ(lines[6], lines[7]);
  EXPECT_EQ(lines[8], "[DEBUG_THREADS] Manager: 100% done %d");
}

TEST(ThreadTrace, FormattedTextsAreCutAt255Characters)
{
  VsUt::CMemoryDebugLog log;
  std::string const longText(300, 'x');
  DebugThreadMessage(&log, 1, (longText + "%d").c_str(), 5);
  DebugThreadMgrMessage(&log, (longText + "%d").c_str(), 5);
  DebugThreadMessage(&log, 1, longText.c_str());
  DebugThreadMgrMessage(&log, longText.c_str());
  std::vector<std::string> const lines = log.lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "[DEBUG_THREADS] Worker 1: " + std::string(255, 'x'));
  EXPECT_EQ(lines[1], "[DEBUG_THREADS] Manager: " + std::string(255, 'x'));
  EXPECT_EQ(lines[2], "[DEBUG_THREADS] Worker 1: " + longText);
  EXPECT_EQ(lines[3], "[DEBUG_THREADS] Manager: " + longText);
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
