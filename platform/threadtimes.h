// CPU and creation times of a thread of this process (the GetThreadTimes facility), by thread id.
#pragma once

#include <cstdint>

#include "zrobj/zrtypes.h"

namespace zr::os {

// All in 100 ns units: `creation` as a file time, `kernel` and `user` as durations.
struct ThreadTimes {
  std::uint64_t creation = 0;
  std::uint64_t kernel = 0;
  std::uint64_t user = 0;
};
// False when the thread is not (or no longer) a thread of this process.
bool GetThreadTimesById(DWORD threadId, ThreadTimes* times);

}  // namespace zr::os
