#pragma once
// Compatibility names for code written against a 64-bit integer type of the
// original platform.

#include <cstdint>

#ifndef __int64
#define __int64 std::int64_t
#endif
