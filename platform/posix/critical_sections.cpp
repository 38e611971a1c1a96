// Critical sections: recursive process-local locks on one futex word.
#include "platform/posix/waitable_internal.h"
#include "base/compiler.h"

namespace zr::os {

using namespace posix;

namespace {

inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
}

ZR_NOINLINE void LockSlow(CRITICAL_SECTION* cs) {
  for (std::uint32_t spin = cs->spin_count; spin != 0; --spin) {
    std::uint32_t expected = 0;
    if (cs->lock_word.load(std::memory_order_relaxed) == 0 &&
        cs->lock_word.compare_exchange_weak(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
      return;
    CpuRelax();
  }
  // 2 = held with sleepers: whoever releases it must wake one.
  const Deadline forever(INFINITE);
  while (cs->lock_word.exchange(2, std::memory_order_acquire) != 0) FutexWaitUntil(&cs->lock_word, 2, false, forever);
}

}  // namespace

void InitializeCriticalSection(CRITICAL_SECTION* section) { InitializeCriticalSectionAndSpinCount(section, 0); }

BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION* section, DWORD spinCount) {
  section->lock_word.store(0, std::memory_order_relaxed);
  section->owner.store(0, std::memory_order_relaxed);
  section->recursion = 0;
  section->spin_count = spinCount & 0x00FFFFFFu;  // the high byte holds flags on the system
  return TRUE;
}

namespace lib {

DWORD CurrentThreadId() { return CurrentTid(); }

void EnterSection(CRITICAL_SECTION* section) {
  const DWORD me = CurrentTid();
  if (section->owner.load(std::memory_order_relaxed) == me) {
    ++section->recursion;
    return;
  }
  std::uint32_t expected = 0;
  if (!section->lock_word.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
    LockSlow(section);
  section->owner.store(me, std::memory_order_relaxed);
  section->recursion = 1;
}

BOOL TryEnterSection(CRITICAL_SECTION* section) {
  const DWORD me = CurrentTid();
  if (section->owner.load(std::memory_order_relaxed) == me) {
    ++section->recursion;
    return TRUE;
  }
  std::uint32_t expected = 0;
  if (!section->lock_word.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
    return FALSE;
  section->owner.store(me, std::memory_order_relaxed);
  section->recursion = 1;
  return TRUE;
}

void LeaveSection(CRITICAL_SECTION* section) {
  if (section->owner.load(std::memory_order_relaxed) != CurrentTid()) return;  // not ours: nothing to leave
  if (--section->recursion != 0) return;
  section->owner.store(0, std::memory_order_relaxed);
  if (section->lock_word.exchange(0, std::memory_order_release) == 2) FutexWake(&section->lock_word, false, 1);
}

}  // namespace lib

void EnterCriticalSection(CRITICAL_SECTION* section) { lib::EnterSection(section); }
BOOL TryEnterCriticalSection(CRITICAL_SECTION* section) { return lib::TryEnterSection(section); }
void LeaveCriticalSection(CRITICAL_SECTION* section) { lib::LeaveSection(section); }

void DeleteCriticalSection(CRITICAL_SECTION* section) { section->spin_count = 0; }

}  // namespace zr::os
