// The heaps' light lock (zrobj/heaplock.h): the contended path and the thread token.
#include "zrobj/heaplock.h"

namespace zr {
namespace detail {
// The C library's own indicator (declared weak in the header); null where it is absent.
const char* const g_single_thread_flag = &__libc_single_threaded;
}  // namespace detail

// Spins up to 4000 times while the holder is likely to leave soon, then marks the word as having
// waiters and sleeps on it (the holder's unlock wakes one).
void LightLock::LockContended() {
  for (int spin = 0; spin < 4000; ++spin) {
    std::uint32_t expected = kFree;
    if (state_.load(std::memory_order_relaxed) == kFree &&
        state_.compare_exchange_weak(expected, kLocked, std::memory_order_acquire, std::memory_order_relaxed))
      return;
#if defined(__x86_64__) || defined(__i386__)
    if ((spin & 15) == 15) __builtin_ia32_pause();
#endif
  }
  while (state_.exchange(kWaiters, std::memory_order_acquire) != kFree) state_.wait(kWaiters, std::memory_order_relaxed);
}

void LightLock::WakeOne() { state_.notify_one(); }

std::uintptr_t RecursiveLightLock::ThreadToken() {
  static thread_local char token;
  return reinterpret_cast<std::uintptr_t>(&token);
}

}  // namespace zr
