// Thread times from /proc/self/task/<tid>/stat (clock ticks since boot, user and system time).
#include "platform/threadtimes.h"

#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/clock.h"

namespace zr::os {

bool GetThreadTimesById(DWORD threadId, ThreadTimes* times) {
  if (!times) return false;
  char path[64];
  std::snprintf(path, sizeof path, "/proc/self/task/%u/stat", static_cast<unsigned>(threadId));
  FILE* file = std::fopen(path, "r");
  if (!file) return false;
  char buffer[1024] = {};
  const size_t got = std::fread(buffer, 1, sizeof buffer - 1, file);
  std::fclose(file);
  buffer[got] = 0;
  // The command name may hold anything; fields resume after its last ')'.
  const char* rest = std::strrchr(buffer, ')');
  if (!rest) return false;
  unsigned long long utime = 0, stime = 0, start = 0;
  // Fields 3..22: state, then 10 numbers, utime(14), stime(15), 6 numbers, starttime(22).
  if (std::sscanf(rest + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu %*d %*d %*d %*d %*d %*d %llu",
                  &utime, &stime, &start) != 3)
    return false;
  const long hz = sysconf(_SC_CLK_TCK);
  if (hz <= 0) return false;
  const std::uint64_t per_tick = 10000000ull / static_cast<std::uint64_t>(hz);
  timespec boot{};
  clock_gettime(CLOCK_BOOTTIME, &boot);
  const std::uint64_t since_boot = static_cast<std::uint64_t>(boot.tv_sec) * 10000000ull + boot.tv_nsec / 100;
  const std::uint64_t started = start * per_tick;
  const std::uint64_t now = GetSystemTimeAsFileTime();
  const std::uint64_t age = since_boot > started ? since_boot - started : 0;
  times->creation = now > age ? now - age : 0;
  times->kernel = stime * per_tick;
  times->user = utime * per_tick;
  return true;
}

}  // namespace zr::os
