// Pieces shared by the debug heap and the fixed-block heap: names, and the registry of up to 256
// heaps in construction order that the debug monitor and the dump functions walk.
#pragma once

#include <cstddef>
#include <mutex>

#include "memory/heap/privheap_layout_internal.h"
#include "zrobj/cheap.h"

namespace zr {

// One event for the heap performance counters, in the calling thread's own counters.
inline void CountHeapEvent(HeapCounter counter) { heapimpl::CountEvent(static_cast<int>(counter)); }

inline char AsciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Case-insensitive comparison of at most `n` characters (ASCII letters fold; NUL ends both).
inline bool EqualNoCase(const char* a, const char* b, std::size_t n = static_cast<std::size_t>(-1)) {
  if (!a || !b) return a == b;
  for (std::size_t i = 0; i < n; ++i) {
    if (AsciiLower(a[i]) != AsciiLower(b[i])) return false;
    if (a[i] == 0) return true;
  }
  return true;
}

// Copies at most 31 characters and terminates: the heaps' 32-character names.
inline void CopyHeapName(char (&out)[32], const char* name) {
  std::size_t n = 0;
  for (; name && name[n] && n < sizeof out - 1; ++n) out[n] = name[n];
  out[n] = 0;
}

// Up to 256 heaps in construction order. A heap constructed while 256 are listed still counts as a
// user (so the last one to go can release what all of them shared) but is not listed.
template <class Heap>
class HeapRegistry {
 public:
  static constexpr int kCapacity = 256;

  // Registers a new heap; returns true when it is the first user.
  bool Add(Heap* heap) {
    std::lock_guard guard(mutex_);
    if (count_ < kCapacity) items_[count_++] = heap;
    return users_++ == 0;
  }
  // Unregisters a heap (keeping the order of the others); returns true when it was the last user.
  bool Remove(Heap* heap) {
    std::lock_guard guard(mutex_);
    for (int i = 0; i < count_; ++i) {
      if (items_[i] != heap) continue;
      for (int k = i + 1; k < count_; ++k) items_[k - 1] = items_[k];
      --count_;
      break;
    }
    return --users_ == 0;
  }
  int Copy(Heap** list, int max) {
    if (!list || max <= 0) return 0;
    std::lock_guard guard(mutex_);
    const int n = count_ < max ? count_ : max;
    for (int i = 0; i < n; ++i) list[i] = items_[i];
    return n;
  }
  // Calls fn(heap) for each listed heap under the registry lock while it returns true.
  template <class Fn>
  void ForEach(Fn&& fn) {
    std::lock_guard guard(mutex_);
    for (int i = 0; i < count_; ++i)
      if (!fn(items_[i])) break;
  }
  std::mutex& mutex() { return mutex_; }

 private:
  std::mutex mutex_;
  Heap* items_[kCapacity] = {};
  int count_ = 0;
  int users_ = 0;
};

}  // namespace zr
