#pragma once
// Trace lines of the block-processing engine. Every lock, wake-up and block
// hand-over of a parallel run can be followed in a debug log, one line each:
//   "[DEBUG_THREADS] Worker <id>: <text>"   from a worker thread,
//   "[DEBUG_THREADS] Manager: <text>"       from the manager.
// Tracing is switched by the log pointer alone: a null log costs one test and
// formats nothing.

#include "QZsys/DebugLog.h"

/// Exported switch kept for callers that test it; the library itself never
/// reads it (a null log is what silences the trace). Initially true.
extern bool b_DEBUG_THREADS_On;

namespace BlockProc
{
/// Logs `text` as it stands, after the worker prefix.
void DebugThreadMessage(VsUt::IDebugLog * log, int workerId, char const * text);

/// Logs `format` formatted with one argument (`void *`, `void const *` or
/// `int`), after the worker prefix. The formatted text is cut to 255 characters.
template <class A> void DebugThreadMessage(VsUt::IDebugLog * log, int workerId, char const * format, A argument);

/// Logs `text` as it stands, after the manager prefix.
void DebugThreadMgrMessage(VsUt::IDebugLog * log, char const * text);

/// Logs `format` formatted with one argument (`void *`, `void const *` or
/// `int`), after the manager prefix. The formatted text is cut to 255 characters.
template <class A> void DebugThreadMgrMessage(VsUt::IDebugLog * log, char const * format, A argument);

extern template void DebugThreadMessage<void *>(VsUt::IDebugLog *, int, char const *, void *);
extern template void DebugThreadMessage<void const *>(VsUt::IDebugLog *, int, char const *, void const *);
extern template void DebugThreadMessage<int>(VsUt::IDebugLog *, int, char const *, int);
extern template void DebugThreadMgrMessage<void *>(VsUt::IDebugLog *, char const *, void *);
extern template void DebugThreadMgrMessage<void const *>(VsUt::IDebugLog *, char const *, void const *);
extern template void DebugThreadMgrMessage<int>(VsUt::IDebugLog *, char const *, int);
} // namespace BlockProc
