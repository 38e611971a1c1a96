// Events and semaphores: the operations on their futex-word cores and their handle functions.
#include "platform/posix/waitable_internal.h"

namespace zr::os {

using namespace posix;

void WaitCore::InitEvent(bool manual, bool initial, bool is_shared) {
  word.store(initial ? kSignalled : 0u, std::memory_order_relaxed);
  waiters.store(0, std::memory_order_relaxed);
  type = kEvent;
  manual_reset = manual ? 1u : 0u;
  max_count = 0;
  shared = is_shared ? 1u : 0u;
}

void WaitCore::InitSemaphore(std::int32_t initial, std::int32_t maximum, bool is_shared) {
  word.store(static_cast<std::uint32_t>(initial), std::memory_order_relaxed);
  waiters.store(0, std::memory_order_relaxed);
  type = kSemaphore;
  manual_reset = 0;
  max_count = maximum;
  shared = is_shared ? 1u : 0u;
}

void CoreSetEvent(WaitCore* core) {
  const std::uint32_t previous = core->word.fetch_or(kSignalled, std::memory_order_seq_cst);
  if (!(previous & kSignalled)) WakeSleepers(core);
}

void CoreResetEvent(WaitCore* core) { core->word.fetch_and(~(kSignalled | kPulseToken), std::memory_order_seq_cst); }

void CorePulseEvent(WaitCore* core) {
  // A new generation releases whoever waited before it; an auto-reset event leaves one token.
  std::uint32_t w = core->word.load(std::memory_order_relaxed);
  std::uint32_t next;
  do {
    next = (Generation(w) + 1) << 2;
    if (!core->manual_reset && core->waiters.load(std::memory_order_seq_cst) != 0) next |= kPulseToken;
  } while (!core->word.compare_exchange_weak(w, next, std::memory_order_seq_cst));
  WakeSleepers(core);
}

bool CoreReleaseSemaphore(WaitCore* core, std::int32_t count, std::int32_t* previous) {
  if (count <= 0) return false;
  std::uint32_t w = core->word.load(std::memory_order_relaxed);
  do {
    if (static_cast<std::int64_t>(w) + count > core->max_count) return false;
  } while (!core->word.compare_exchange_weak(w, w + static_cast<std::uint32_t>(count), std::memory_order_seq_cst));
  if (previous) *previous = static_cast<std::int32_t>(w);
  WakeSleepers(core);
  return true;
}

HANDLE CreateEventW(SECURITY_ATTRIBUTES*, BOOL manualReset, BOOL initialState, const WCHAR* name) {
  const CreateParams params{kHandleEvent, manualReset != 0, initialState != 0, 0, 0};
  return CreateObject(name, params, EVENT_ALL_ACCESS);
}

HANDLE OpenEventW(DWORD desiredAccess, BOOL, const WCHAR* name) {
  return OpenObject(name, kHandleEvent, desiredAccess);
}

namespace {
template <class Fn>
BOOL OnEvent(HANDLE event, Fn fn) {
  ObjectRef object(event, EVENT_MODIFY_STATE, kHandleEvent);
  if (!object) return FALSE;
  fn(object->core);
  return TRUE;
}
}  // namespace

BOOL SetEvent(HANDLE event) { return OnEvent(event, CoreSetEvent); }
// Under the wait-all lock, so that a wait for all objects that took this event and gives it back
// cannot undo the reset.
BOOL ResetEvent(HANDLE event) {
  return OnEvent(event, [](WaitCore* core) {
    const WaitAllLock lock(core->shared != 0);
    CoreResetEvent(core);
  });
}
BOOL PulseEvent(HANDLE event) { return OnEvent(event, CorePulseEvent); }

HANDLE CreateSemaphoreW(SECURITY_ATTRIBUTES*, LONG initialCount, LONG maximumCount, const WCHAR* name) {
  if (maximumCount <= 0 || initialCount < 0 || initialCount > maximumCount)
    return FailNull(ERROR_INVALID_PARAMETER);
  const CreateParams params{kHandleSemaphore, false, false, initialCount, maximumCount};
  return CreateObject(name, params, SEMAPHORE_ALL_ACCESS);
}

HANDLE OpenSemaphoreW(DWORD desiredAccess, BOOL, const WCHAR* name) {
  return OpenObject(name, kHandleSemaphore, desiredAccess);
}

BOOL ReleaseSemaphore(HANDLE semaphore, LONG releaseCount, LONG* previousCount) {
  ObjectRef object(semaphore, SEMAPHORE_MODIFY_STATE, kHandleSemaphore);
  if (!object) return FALSE;
  if (releaseCount <= 0) return Fail(ERROR_INVALID_PARAMETER, FALSE);
  std::int32_t previous = 0;
  if (!CoreReleaseSemaphore(object->core, releaseCount, &previous)) return Fail(ERROR_TOO_MANY_POSTS, FALSE);
  if (previousCount) *previousCount = previous;
  return TRUE;
}

}  // namespace zr::os
