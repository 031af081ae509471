#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include "QZsys/TempFile.h"

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
  char target[512] = {};
  EXPECT_GT(::readlink(("/proc/self/fd/" + std::to_string(::fileno(f))).c_str(), target, sizeof target - 1),
            0);
  EXPECT_NE(std::strstr(target, "/QZtest_"), nullptr) << target; // named by its prefix
}
