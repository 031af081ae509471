#include "QZmath/Persistence/OutputHooks.h"

// Constant-initialised: null before any constructor of the process runs.
QZmath_WriteCallback QZmath_CB_WriteOutput = nullptr;
QZmath_WriteCallback QZmath_CB_WriteLog = nullptr;

void QZmath_setCB_WriteOutput(QZmath_WriteCallback callback) { QZmath_CB_WriteOutput = callback; }

void QZmath_setCB_WriteLog(QZmath_WriteCallback callback) { QZmath_CB_WriteLog = callback; }
