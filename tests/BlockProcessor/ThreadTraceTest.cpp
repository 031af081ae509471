// The limits of the block engine's trace lines; their prefixes and formats
// show in the exact trace of one block in BlockWorkerTest.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QZmath/BlockProcessor/ThreadTrace.h"
#include "QZsys/DebugLog.h"

using BlockProc::DebugThreadMessage;
using BlockProc::DebugThreadMgrMessage;

TEST(ThreadTrace, FormattedTextsAreCutAt255Characters)
{
  VsUt::CMemoryDebugLog log;
  std::string const longText(300, 'x');
  DebugThreadMessage(&log, 1, (longText + "%d").c_str(), 5);
  DebugThreadMgrMessage(&log, (longText + "%d").c_str(), 5);
  DebugThreadMessage(&log, 1, longText.c_str());
  DebugThreadMgrMessage(&log, longText.c_str());
  DebugThreadMgrMessage(&log, "100% done %d"); // a text without arguments is not a format
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"[DEBUG_THREADS] Worker 1: " + std::string(255, 'x'),
                                                   "[DEBUG_THREADS] Manager: " + std::string(255, 'x'),
                                                   "[DEBUG_THREADS] Worker 1: " + longText,
                                                   "[DEBUG_THREADS] Manager: " + longText,
                                                   "[DEBUG_THREADS] Manager: 100% done %d"}));
}

TEST(ThreadTrace, NullLogAndNullTexts)
{
  EXPECT_TRUE(b_DEBUG_THREADS_On); // exported, initially on
  // Nothing to write to: no line, and no formatting of the text either.
  DebugThreadMessage(nullptr, 1, "%d", 1);
  DebugThreadMgrMessage(nullptr, "Mutex %p", static_cast<void *>(nullptr));
  VsUt::CMemoryDebugLog log;
  DebugThreadMessage(&log, 2, nullptr);
  DebugThreadMgrMessage(&log, nullptr, 3);
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{"[DEBUG_THREADS] Worker 2: ", "[DEBUG_THREADS] Manager: "}));
}
