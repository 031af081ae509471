#include "bench/common/BenchSupport.h"

#include <cstdio>
#include <cstring>

#include <malloc.h>

namespace QZBench
{
namespace
{
/// A "Name:   1234 kB" line of /proc/self/status, in bytes.
std::size_t statusFieldBytes(char const * name)
{
  std::FILE * f = std::fopen("/proc/self/status", "r");
  if (!f)
    return 0;
  char line[256];
  std::size_t bytes = 0;
  std::size_t const nameLength = std::strlen(name);
  while (std::fgets(line, sizeof line, f))
    if (std::strncmp(line, name, nameLength) == 0 && line[nameLength] == ':')
    {
      unsigned long long kb = 0;
      if (std::sscanf(line + nameLength + 1, "%llu", &kb) == 1)
        bytes = static_cast<std::size_t>(kb) * 1024u;
      break;
    }
  std::fclose(f);
  return bytes;
}
} // namespace

std::size_t currentRssBytes() { return statusFieldBytes("VmRSS"); }
std::size_t peakRssBytes() { return statusFieldBytes("VmHWM"); }

bool resetPeakRss()
{
  // Freed heap memory stays resident; handing it back first lets the next
  // case's growth show in its own peak.
  malloc_trim(0);
  // Writing 5 to clear_refs resets the peak resident size (Linux 4.0 and later).
  std::FILE * f = std::fopen("/proc/self/clear_refs", "w");
  if (!f)
    return false;
  bool const ok = std::fputs("5", f) >= 0;
  return std::fclose(f) == 0 && ok;
}
} // namespace QZBench
