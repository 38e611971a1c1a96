// Millisecond tick count and sleeping, with a replaceable tick source so tests can move time.
#pragma once

#include <cstdint>

#include "zrobj/export.h"

namespace zr::os {

// Milliseconds of CLOCK_MONOTONIC, truncated to 32 bits (wraps like the Windows counter).
ZROBJ_API std::uint32_t GetTickCount();
ZROBJ_API void Sleep(std::uint32_t milliseconds);

using TickSource = std::uint32_t (*)();
// Replaces the tick source (null restores the monotonic clock); returns the previous one.
ZROBJ_API TickSource SetTickSource(TickSource source);

// Wall-clock time as a file time: 100 ns units since 1601-01-01 UTC.
ZROBJ_API std::uint64_t GetSystemTimeAsFileTime();

}  // namespace zr::os
