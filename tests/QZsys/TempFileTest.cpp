#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/stat.h>

#include "QZsys/TempFile.h"

using namespace VsUt;

namespace
{
/// Sets TMPDIR for one scope and restores what was there.
class ScopedTmpDir
{
public:
  explicit ScopedTmpDir(char const * dir)
  {
    char const * old = std::getenv("TMPDIR");
    m_had = old != nullptr;
    if (m_had)
      m_old = old;
    ::setenv("TMPDIR", dir, 1);
  }
  ~ScopedTmpDir()
  {
    if (m_had)
      ::setenv("TMPDIR", m_old.c_str(), 1);
    else
      ::unsetenv("TMPDIR");
  }

private:
  bool m_had = false;
  std::string m_old;
};
} // namespace

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
  ScopedTmpDir dir("/nonexistent/qz-temp-dir");
  try
  {
    std::FILE * f = OpenTemporaryFile("QZtest_");
    std::fclose(f);
    FAIL() << "a temporary file in a missing directory";
  }
  catch (std::bad_alloc const & e)
  {
    EXPECT_STREQ(e.what(), "bad allocation");
  }
}
