#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "QZsys/DebugLog.h"
#include "QZsys/Exceptions.h"
#include "QZsys/Fragments.h"

TEST(DebugLog, MemoryLogKeepsWholeLinesFromManyThreads)
{
  VsUt::CMemoryDebugLog log;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&log, t] {
      for (int i = 0; i < 500; ++i)
        log.getMessage(("thread " + std::to_string(t) + " line " + std::to_string(i)).c_str());
    });
  for (auto & th : threads)
    th.join();
  auto const lines = log.lines();
  ASSERT_EQ(lines.size(), 2000u);
  std::set<std::string> unique(lines.begin(), lines.end());
  EXPECT_EQ(unique.size(), 2000u);
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
  EXPECT_STREQ(CVescaException().what(), "Vesca exception");
  EXPECT_STREQ(CVescaException("Unexpected end of file. Probably corrupted data.").what(),
               "Unexpected end of file. Probably corrupted data.");
  EXPECT_STREQ(VsUt::CTextException("Incorrect tree depth").what(), "Incorrect tree depth");
  std::exception const & base = VsUt::CTextException("x");
  EXPECT_STREQ(base.what(), "x");
  EXPECT_EQ(QZ_STATUS_USER_INTR, 10);
  EXPECT_EQ(QZ_STATUS_UNEXPECTED_ERR, -1);
  try
  {
    throw CUserIntrException();
  }
  catch (std::exception const & e)
  {
    EXPECT_NE(dynamic_cast<CUserIntrException const *>(&e), nullptr);
  }
}

namespace
{
struct Warning : IVescaWarning
{
  std::wstring getMessage() const override { return L"skipped"; }
};
struct Worker : IVescaFragmentParallelWorker_Old
{
  int ProcessFragment(IVescaFragmentDescriptor_Old &, IVescaFragment_Old * f) override { return f ? 0 : 10; }
};
} // namespace

TEST(Interfaces, WarningsAndFragments)
{
  Warning w;
  IVescaWarning const & iw = w;
  EXPECT_EQ(iw.getMessage(), L"skipped");
  Worker worker;
  IVescaFragmentDescriptor_Old d;
  IVescaFragment_Old frag;
  EXPECT_EQ(worker.ProcessFragment(d, &frag), 0);
  EXPECT_EQ(worker.ProcessFragment(d, nullptr), QZ_STATUS_USER_INTR);
}

TEST(Exceptions, InterruptionCarriesAGivenText)
{
  EXPECT_STREQ(CUserIntrException().what(), "User interruption");
  EXPECT_STREQ(CUserIntrException("user interruption").what(), "user interruption");
  EXPECT_STREQ(CUserIntrException(nullptr).what(), "User interruption");
  CUserIntrException const original("stopped");
  CUserIntrException copy(original);
  EXPECT_STREQ(copy.what(), "stopped");
}
