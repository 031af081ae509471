// The umbrella header must name every public header, so that a user who
// includes it alone gets the whole library. The list of public headers is
// taken from the source tree when the suite is configured.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "QZmath/QZmath.h"

TEST(UmbrellaHeader, IncludesEveryPublicHeader)
{
  std::ifstream in(QZ_UMBRELLA_PATH);
  ASSERT_TRUE(in) << QZ_UMBRELLA_PATH;
  std::string const umbrella((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::istringstream list(QZ_PUBLIC_HEADERS);
  int count = 0;
  for (std::string header; std::getline(list, header, ';');)
  {
    if (header.empty() || header == "QZmath/QZmath.h")
      continue;
    ++count;
    EXPECT_NE(umbrella.find("#include \"" + header + "\""), std::string::npos) << header << " is missing";
  }
  EXPECT_GT(count, 20);
}
