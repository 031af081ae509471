#pragma once
// Two process-wide output hooks, one for log text and one for output meant
// for the user. The library only stores them: they are there for the
// caller's own use and for code that reads the pointers later. Both are null
// when the library is loaded. They are plain pointers without a lock: set them
// before other threads read them.

/// A sink of a line of text.
typedef void (*QZmath_WriteCallback)(char const *);

/// The stored hooks, null until set.
extern QZmath_WriteCallback QZmath_CB_WriteOutput;
extern QZmath_WriteCallback QZmath_CB_WriteLog;

void QZmath_setCB_WriteOutput(QZmath_WriteCallback callback);
void QZmath_setCB_WriteLog(QZmath_WriteCallback callback);
