#pragma once
// Trace lines of the block engine hold pointers whose values change from run
// to run; the checks match them against patterns with a placeholder.

#include <cctype>
#include <string>

namespace
{
// Matches a trace line against a pattern in which "%p" stands for any pointer
// the C library prints (0x and hex digits); the rest must match literally.
// The first pointer on the line is returned through `pointer`.
// Written out rather than with std::regex, whose code draws a false
// uninitialised-use warning from GCC 12 in the sanitizer build.
bool matchTrace(std::string const & line, std::string const & pattern, std::string * pointer)
{
  std::size_t i = 0;
  for (std::size_t k = 0; k < pattern.size(); ++k)
  {
    if (pattern.compare(k, 2, "%p") == 0)
    {
      if (line.compare(i, 2, "0x") != 0)
        return false;
      std::size_t e = i + 2;
      while (e < line.size() && std::isxdigit(static_cast<unsigned char>(line[e])) &&
             !std::isupper(static_cast<unsigned char>(line[e])))
        ++e;
      if (e == i + 2)
        return false;
      if (pointer->empty())
        *pointer = line.substr(i, e - i);
      i = e;
      ++k;
      continue;
    }
    if (i >= line.size() || line[i] != pattern[k])
      return false;
    ++i;
  }
  return i == line.size();
}
} // namespace
