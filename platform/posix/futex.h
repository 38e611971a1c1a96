// The futex calls of the POSIX platform layer: wake, and wait with an absolute monotonic deadline.
#pragma once

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include "zrobj/zrtypes.h"

namespace zr::os {

namespace posix {

static_assert(sizeof(std::atomic<std::uint32_t>) == 4 && std::atomic<std::uint32_t>::is_always_lock_free,
              "futex words must be plain 32-bit words");

inline std::uint32_t* WordAddress(std::atomic<std::uint32_t>* word) { return reinterpret_cast<std::uint32_t*>(word); }

inline int PrivateFlag(bool shared) { return shared ? 0 : FUTEX_PRIVATE_FLAG; }

inline void FutexWake(std::atomic<std::uint32_t>* word, bool shared, int count) {
  ::syscall(SYS_futex, WordAddress(word), FUTEX_WAKE | PrivateFlag(shared), count, nullptr, nullptr, 0);
}

// An absolute CLOCK_MONOTONIC deadline; `infinite` when the wait has no time-out.
struct Deadline {
  bool infinite = true;
  timespec at{};

  explicit Deadline(DWORD milliseconds) {
    if (milliseconds == INFINITE) return;
    infinite = false;
    clock_gettime(CLOCK_MONOTONIC, &at);
    at.tv_sec += milliseconds / 1000;
    at.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
    if (at.tv_nsec >= 1000000000L) {
      at.tv_sec += 1;
      at.tv_nsec -= 1000000000L;
    }
  }
  bool Passed() const {
    if (infinite) return false;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec > at.tv_sec || (now.tv_sec == at.tv_sec && now.tv_nsec >= at.tv_nsec);
  }
  const timespec* Absolute() const { return infinite ? nullptr : &at; }
};

// Sleeps while *word == expected; false when the deadline passed.
inline bool FutexWaitUntil(std::atomic<std::uint32_t>* word, std::uint32_t expected, bool shared,
                           const Deadline& deadline) {
  const long r = ::syscall(SYS_futex, WordAddress(word), FUTEX_WAIT_BITSET | PrivateFlag(shared), expected,
                           deadline.Absolute(), nullptr, FUTEX_BITSET_MATCH_ANY);
  return !(r == -1 && errno == ETIMEDOUT);
}

}  // namespace posix

}  // namespace zr::os
