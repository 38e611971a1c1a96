// The heaps' light lock: one 32-bit word, an atomic exchange to enter and a release store to leave.
#pragma once

#include <atomic>
#include <cstdint>

#include "zrobj/export.h"

namespace zr {

namespace detail {
// Non-zero while the process has a single thread; null where the C library does not say.
ZROBJ_API extern const char* const g_single_thread_flag;
}  // namespace detail

// True while the process has a single thread (never true again once a second thread was created).
inline bool ProcessIsSingleThreaded() { return detail::g_single_thread_flag && *detail::g_single_thread_flag; }

// For short critical sections (pool and private-heap bookkeeping): spins up to 4000 times before
// yielding the processor. While the process has a single thread it takes no atomic
// read-modify-write at all, which keeps the uncontended heaps as cheap as the C library's malloc.
class ZROBJ_API LightLock {
 public:
  void lock() {
    if (SingleThreaded()) {
      state_.store(1, std::memory_order_relaxed);
      return;
    }
    if (state_.exchange(1, std::memory_order_acquire) != 0) LockContended();
  }
  bool try_lock() {
    if (SingleThreaded()) {
      if (state_.load(std::memory_order_relaxed) != 0) return false;
      state_.store(1, std::memory_order_relaxed);
      return true;
    }
    return state_.load(std::memory_order_relaxed) == 0 && state_.exchange(1, std::memory_order_acquire) == 0;
  }
  void unlock() { state_.store(0, std::memory_order_release); }

 private:
  static bool SingleThreaded() { return ProcessIsSingleThreaded(); }
  void LockContended();
  std::atomic<std::uint32_t> state_{0};
};

}  // namespace zr
