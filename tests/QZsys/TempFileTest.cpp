#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include <sys/stat.h>

#include "QZsys/TempFile.h"
#include "tests/Common/Checks.h"

using namespace VsUt;

TEST(TempFile, ReadWriteAndNamelessFromTheStart)
{
  CTemporaryFile tmp("QZtest_");
  std::FILE * f = tmp.get();
  ASSERT_NE(f, nullptr);
  char const text[] = "round trip";
  ASSERT_EQ(std::fwrite(text, 1, sizeof text, f), sizeof text);
  std::rewind(f);
  char back[sizeof text] = {};
  ASSERT_EQ(std::fread(back, 1, sizeof back, f), sizeof back);
  EXPECT_STREQ(back, text);

  struct stat st;
  ASSERT_EQ(::fstat(::fileno(f), &st), 0);
  EXPECT_EQ(st.st_nlink, 0u); // unlinked: nothing survives the file's closing
  EXPECT_TRUE(S_ISREG(st.st_mode));
}

TEST(TempFile, FailureIsABadAllocation)
{
  char const * old = std::getenv("TMPDIR");
  std::string const saved = old ? old : "";
  ::setenv("TMPDIR", "/nonexistent/qz-temp-dir", 1);
  EXPECT_EQ(QZTest::whatOf<std::bad_alloc>([] { std::fclose(OpenTemporaryFile("QZtest_")); }),
            "bad allocation")
      << "a temporary file in a missing directory";
  old ? ::setenv("TMPDIR", saved.c_str(), 1) : ::unsetenv("TMPDIR");
}
