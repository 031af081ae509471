#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>
#include <type_traits>
#include <vector>

#include "QZsys/DebugLog.h"
#include "QZsys/Exceptions.h"

TEST(DebugLog, MemoryLogKeepsWholeLinesFromManyThreads)
{
  VsUt::CMemoryDebugLog log;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back(
        [&log, t]
        {
          for (int i = 0; i < 500; ++i)
            log.getMessage(("thread " + std::to_string(t) + " line " + std::to_string(i)).c_str());
        });
  for (auto & th : threads)
    th.join();
  auto const lines = log.lines();
  ASSERT_EQ(lines.size(), 2000u);
  EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), 2000u);
  log.getMessage(nullptr);
  EXPECT_EQ(log.lines().back(), "");
  log.clear();
  EXPECT_TRUE(log.lines().empty());
}

TEST(DebugLog, StreamAndFileLogs)
{
  std::ostringstream out;
  VsUt::CStreamDebugLog s(out);
  s.getMessage("Octree depth: 8");
  s.getMessage("Closed: 1");
  EXPECT_EQ(out.str(), "Octree depth: 8\nClosed: 1\n");

  std::string const path = testing::TempDir() + "qzsys_log_test.txt";
  {
    VsUt::CFileDebugLog f(path);
    ASSERT_TRUE(f.isOpen());
    f.getMessage("first");
    f.getMessage("second");
  }
  std::ifstream in(path);
  std::stringstream buf;
  buf << in.rdbuf();
  EXPECT_EQ(buf.str(), "first\nsecond\n");
  std::remove(path.c_str());

  VsUt::CFileDebugLog bad("/nonexistent-dir/x/log.txt");
  EXPECT_FALSE(bad.isOpen());
  EXPECT_NO_THROW(bad.getMessage("dropped"));
}

TEST(Exceptions, TextsAndStatusCodes)
{
  static_assert(std::is_base_of<std::exception, CUserIntrException>::value, "caught as std::exception");
  CUserIntrException const original("stopped");
  std::pair<std::string, char const *> const cases[] = {
      {CVescaException().what(), "Vesca exception"},
      {VsUt::CTextException("Incorrect tree depth").what(), "Incorrect tree depth"},
      {CUserIntrException().what(), "User interruption"},
      {CUserIntrException(nullptr).what(), "User interruption"},
      {CUserIntrException(original).what(), "stopped"},
  };
  for (auto const & c : cases)
    EXPECT_EQ(c.first, c.second);
  EXPECT_EQ(QZ_STATUS_USER_INTR, 10);
  EXPECT_EQ(QZ_STATUS_UNEXPECTED_ERR, -1);
}
