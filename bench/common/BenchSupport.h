#pragma once
// Shared pieces of the benchmark programs: the process's memory figures and
// the synthetic clouds of the tests.

#include <cstddef>

#include "tests/Common/SampleClouds.h"

namespace QZBench
{
/// Resident set size now, in bytes (VmRSS); 0 where the figure is unavailable.
std::size_t currentRssBytes();
/// Peak resident set size since the start or the last reset, in bytes (VmHWM).
std::size_t peakRssBytes();
/// Starts a new peak from the present resident size, so that a case measures
/// its own peak and not that of an earlier one. False where the kernel refuses.
bool resetPeakRss();

constexpr double MiB = 1024.0 * 1024.0;

using QZTest::CSampleCloud;
using QZTest::makeBoxCloud;
using QZTest::makePlaneCloud;
using QZTest::makeSphereCloud;
using QZTest::makeTorusCloud;
} // namespace QZBench
