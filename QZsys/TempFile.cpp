#include "QZsys/TempFile.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

namespace VsUt
{
std::FILE * OpenTemporaryFile(char const * prefix)
{
  char const * dir = std::getenv("TMPDIR");
  std::string path = (dir && *dir) ? dir : "/tmp";
  path += '/';
  path += prefix ? prefix : "";
  path += "XXXXXX";
  std::vector<char> name(path.begin(), path.end());
  name.push_back('\0');

  int const fd = ::mkstemp(name.data());
  if (fd < 0)
    throw CBadAllocation();
  // Nameless from here on: the data lives as long as the descriptor.
  ::unlink(name.data());
  std::FILE * file = ::fdopen(fd, "w+b");
  if (!file)
  {
    ::close(fd);
    throw CBadAllocation();
  }
  return file;
}
} // namespace VsUt
