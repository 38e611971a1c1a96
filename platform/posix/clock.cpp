// Tick count, sleep and file-time clock on POSIX clocks.
#include "platform/clock.h"

#include <time.h>

#include <atomic>

namespace zr::os {

namespace {

std::uint32_t MonotonicTicks() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const std::uint64_t ms = static_cast<std::uint64_t>(ts.tv_sec) * 1000u + static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
  return static_cast<std::uint32_t>(ms);
}

std::atomic<TickSource> g_tick_source{nullptr};

}  // namespace

TickSource SetTickSource(TickSource source) { return g_tick_source.exchange(source); }

std::uint64_t GetSystemTimeAsFileTime() {
  constexpr std::uint64_t kUnixEpochAsFileTime = 116444736000000000ull;
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return kUnixEpochAsFileTime + static_cast<std::uint64_t>(ts.tv_sec) * 10000000u +
         static_cast<std::uint64_t>(ts.tv_nsec) / 100u;
}

std::uint32_t GetTickCount() {
  const TickSource source = g_tick_source.load(std::memory_order_relaxed);
  return source ? source() : MonotonicTicks();
}

void Sleep(std::uint32_t milliseconds) {
  timespec ts{static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0) {
  }
}

}  // namespace zr::os
