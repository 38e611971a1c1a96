// Helpers of the lock and kernel-object tests: debug mode, an injected tick count, bounded polling
// and whether a thread sleeps in the kernel (so tests know a waiter really waits).
#pragma once

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "platform/clock.h"
#include "zrobj/zrdiag.h"

namespace synctest {

// Debug output on for the scope.
class DebugOn {
 public:
  DebugOn() : previous_(IsDebugOn()) { SetDebugMode(1); }
  ~DebugOn() { SetDebugMode(previous_); }

 private:
  DWORD previous_;
};

// A tick count the test moves by hand.
class FakeTicks {
 public:
  explicit FakeTicks(std::uint32_t start) {
    now_.store(start);
    previous_ = zr::os::SetTickSource(&Read);
  }
  ~FakeTicks() { zr::os::SetTickSource(previous_); }
  static void Advance(std::uint32_t ms) { now_.fetch_add(ms); }

 private:
  static std::uint32_t Read() { return now_.load(); }
  static inline std::atomic<std::uint32_t> now_{0};
  zr::os::TickSource previous_;
};

// Polls `done` until it holds or `timeout_ms` passes; the poll interval is not a synchronisation.
inline bool WaitFor(const std::function<bool()>& done, int timeout_ms = 10000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

inline std::uint32_t CurrentTid() { return static_cast<std::uint32_t>(::syscall(SYS_gettid)); }

// True while thread `tid` of this process sleeps in the kernel (state S or D). Plain read(): the
// file of an exiting thread fails to read, which a stream would turn into an exception.
inline bool Sleeping(std::uint32_t tid) {
  const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buffer[512];
  const ssize_t n = ::read(fd, buffer, sizeof buffer);
  ::close(fd);
  if (n <= 0) return false;
  const std::string text(buffer, static_cast<std::size_t>(n));
  const std::size_t paren = text.rfind(')');
  return paren != std::string::npos && paren + 2 < text.size() &&
         (text[paren + 2] == 'S' || text[paren + 2] == 'D');
}

// Waits until thread `tid` has gone to sleep (bounded).
inline bool WaitUntilSleeping(std::uint32_t tid) {
  return WaitFor([tid] { return Sleeping(tid); });
}

}  // namespace synctest
