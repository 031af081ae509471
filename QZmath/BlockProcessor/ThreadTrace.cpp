#include "QZmath/BlockProcessor/ThreadTrace.h"

#include <cstdio>
#include <string>
#include <type_traits>

bool b_DEBUG_THREADS_On = true;

namespace BlockProc
{
namespace
{
// Both the prefix and a formatted text live in buffers of this size; a longer
// formatted text is cut, never overrun.
constexpr std::size_t tf_BufferSize = 256;

void tf_emit(VsUt::IDebugLog * log, char const * prefix, char const * text)
{
  std::string line(prefix);
  line += text ? text : "";
  log->getMessage(line.c_str());
}

template <class A> void tf_format(char (&buffer)[tf_BufferSize], char const * format, A argument)
{
  static_assert(std::is_same<A, int>::value || std::is_same<A, void *>::value ||
                    std::is_same<A, void const *>::value,
                "trace arguments are int or pointers");
  std::snprintf(buffer, tf_BufferSize, format ? format : "", argument);
}

void tf_workerPrefix(char (&buffer)[tf_BufferSize], int workerId)
{
  std::snprintf(buffer, tf_BufferSize, "[DEBUG_THREADS] Worker %d: ", workerId);
}

char const tf_ManagerPrefix[] = "[DEBUG_THREADS] Manager: ";
} // namespace

void DebugThreadMessage(VsUt::IDebugLog * log, int workerId, char const * text)
{
  if (!log)
    return;
  char prefix[tf_BufferSize];
  tf_workerPrefix(prefix, workerId);
  tf_emit(log, prefix, text);
}

template <class A> void DebugThreadMessage(VsUt::IDebugLog * log, int workerId, char const * format, A argument)
{
  if (!log)
    return;
  char prefix[tf_BufferSize];
  tf_workerPrefix(prefix, workerId);
  char text[tf_BufferSize];
  tf_format(text, format, argument);
  tf_emit(log, prefix, text);
}

void DebugThreadMgrMessage(VsUt::IDebugLog * log, char const * text)
{
  if (!log)
    return;
  tf_emit(log, tf_ManagerPrefix, text);
}

template <class A> void DebugThreadMgrMessage(VsUt::IDebugLog * log, char const * format, A argument)
{
  if (!log)
    return;
  char text[tf_BufferSize];
  tf_format(text, format, argument);
  tf_emit(log, tf_ManagerPrefix, text);
}

template void DebugThreadMessage<void *>(VsUt::IDebugLog *, int, char const *, void *);
template void DebugThreadMessage<void const *>(VsUt::IDebugLog *, int, char const *, void const *);
template void DebugThreadMessage<int>(VsUt::IDebugLog *, int, char const *, int);
template void DebugThreadMgrMessage<void *>(VsUt::IDebugLog *, char const *, void *);
template void DebugThreadMgrMessage<void const *>(VsUt::IDebugLog *, char const *, void const *);
template void DebugThreadMgrMessage<int>(VsUt::IDebugLog *, char const *, int);
} // namespace BlockProc
