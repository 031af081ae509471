#pragma once
// Umbrella header: every public header of the library.

#include "QZsys/ConsoleProgressBar.h"
#include "QZsys/CpuConf.h"
#include "QZsys/DebugLog.h"
#include "QZsys/Exceptions.h"
#include "QZsys/Fragments.h"
#include "QZsys/Progress.h"
#include "QZsys/Threading.h"

#include "QZmath/Foundation/Point3D.h"
