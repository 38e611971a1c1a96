// The heaps' light lock: one 32-bit word; spins briefly, then sleeps on the word.
#pragma once

#include <atomic>
#include <cstdint>

#include "zrobj/export.h"

namespace zr {

namespace detail {
// Non-zero while the process has a single thread; null where the C library does not say.
ZROBJ_API extern const char* const g_single_thread_flag;
}  // namespace detail

#if defined(ZROBJ_BUILDING_LIBRARY)
// The C library's own indicator (glibc 2.32 and later), read directly inside the library.
extern "C" __attribute__((weak)) char __libc_single_threaded;
#endif

// True while the process has a single thread (never true again once a second thread was created).
inline bool ProcessIsSingleThreaded() {
#if defined(ZROBJ_BUILDING_LIBRARY)
  return &__libc_single_threaded != nullptr && __libc_single_threaded;
#else
  return detail::g_single_thread_flag && *detail::g_single_thread_flag;
#endif
}

// Moves a 32-bit atomic word (std::atomic or std::atomic_ref) from `from` to `to` if it holds `from`;
// while the process has a single thread, without an atomic read-modify-write.
template <class AtomicWord>
bool ReplaceIfEqual(AtomicWord& word, std::uint32_t from, std::uint32_t to) {
  if (ProcessIsSingleThreaded()) {
    if (word.load(std::memory_order_relaxed) != from) return false;
    word.store(to, std::memory_order_release);
    return true;
  }
  return word.compare_exchange_strong(from, to, std::memory_order_acq_rel, std::memory_order_relaxed);
}

// For short critical sections (pool and private-heap bookkeeping): one atomic exchange to enter and
// one to leave; a contended entry spins a while, then sleeps until the holder leaves. While the
// process has a single thread it takes no atomic read-modify-write at all, which keeps the
// uncontended heaps as cheap as the C library's malloc.
class ZROBJ_API LightLock {
 public:
  void lock() {
    if (SingleThreaded()) {
      state_.store(kLocked, std::memory_order_relaxed);
      return;
    }
    std::uint32_t expected = kFree;
    if (!state_.compare_exchange_strong(expected, kLocked, std::memory_order_acquire, std::memory_order_relaxed))
      LockContended();
  }
  bool try_lock() { return ReplaceIfEqual(state_, kFree, kLocked); }
  void unlock() {
    if (SingleThreaded()) {  // nobody else can be waiting
      state_.store(kFree, std::memory_order_release);
      return;
    }
    if (state_.exchange(kFree, std::memory_order_release) == kWaiters) WakeOne();
  }

 private:
  static constexpr std::uint32_t kFree = 0, kLocked = 1, kWaiters = 2;
  static bool SingleThreaded() { return ProcessIsSingleThreaded(); }
  void LockContended();
  void WakeOne();
  std::atomic<std::uint32_t> state_{kFree};
};

// A LightLock its holder may enter again, like a critical section. The debug heap's watch list is
// held while a dump prints, and printing may allocate from the heap being dumped.
class ZROBJ_API RecursiveLightLock {
 public:
  void lock() {
    const std::uintptr_t self = ThreadToken();
    if (owner_.load(std::memory_order_relaxed) == self) {  // only this thread stores its own token
      ++depth_;
      return;
    }
    lock_.lock();
    owner_.store(self, std::memory_order_relaxed);
    depth_ = 1;
  }
  void unlock() {
    if (--depth_ != 0) return;
    owner_.store(0, std::memory_order_relaxed);
    lock_.unlock();
  }

 private:
  static std::uintptr_t ThreadToken();  // distinct for every live thread, never 0
  LightLock lock_;
  std::atomic<std::uintptr_t> owner_{0};
  std::uint32_t depth_ = 0;
};

// Holds a LightLock for a scope that starts no thread. While the process has a single thread nobody
// else can enter, and since the scope starts none, the guard leaves the lock's word alone.
class LightGuard {
 public:
  explicit LightGuard(LightLock& lock) : lock_(ProcessIsSingleThreaded() ? nullptr : &lock) {
    if (lock_) lock_->lock();
  }
  ~LightGuard() {
    if (lock_) lock_->unlock();
  }
  LightGuard(const LightGuard&) = delete;
  LightGuard& operator=(const LightGuard&) = delete;

 private:
  LightLock* lock_;
};

}  // namespace zr
