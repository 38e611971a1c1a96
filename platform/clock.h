// Millisecond tick count and sleeping, with a replaceable tick source so tests can move time.
#pragma once

#include <cstdint>


namespace zr::os {

// Milliseconds of CLOCK_MONOTONIC, truncated to 32 bits (wraps like the Windows counter).
std::uint32_t GetTickCount();
void Sleep(std::uint32_t milliseconds);

using TickSource = std::uint32_t (*)();
// Replaces the tick source (null restores the monotonic clock); returns the previous one.
TickSource SetTickSource(TickSource source);

// Wall-clock time as a file time: 100 ns units since 1601-01-01 UTC.
std::uint64_t GetSystemTimeAsFileTime();

}  // namespace zr::os
