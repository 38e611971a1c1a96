// Waits for one or several cores (futex_waitv, or sliced waits where the kernel lacks it) and
// the handle wait functions.
#include "platform/posix/waitable_internal.h"

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <mutex>
#include <optional>

namespace zr::os {

using namespace posix;

namespace {

#ifndef SYS_futex_waitv
#define SYS_futex_waitv 449
#endif

std::atomic<bool> g_waitv_missing{false};

// Sleeps until one of the words differs from its expected value; false when the deadline passed.
bool FutexWaitAny(DWORD count, WaitCore* const* cores, const std::uint32_t* expected, const Deadline& deadline) {
  if (count == 1 || g_waitv_missing.load(std::memory_order_relaxed)) {
    // Without futex_waitv, sleep on the first word in short slices and rescan the others.
    if (count == 1) return FutexWaitUntil(&cores[0]->word, expected[0], cores[0]->shared, deadline);
    Deadline slice(1);
    if (!deadline.infinite && (deadline.at.tv_sec < slice.at.tv_sec ||
                               (deadline.at.tv_sec == slice.at.tv_sec && deadline.at.tv_nsec < slice.at.tv_nsec)))
      slice = deadline;
    FutexWaitUntil(&cores[0]->word, expected[0], cores[0]->shared, slice);
    return !deadline.Passed();
  }
  futex_waitv waiters[MAXIMUM_WAIT_OBJECTS];
  for (DWORD i = 0; i < count; ++i) {
    waiters[i] = {};
    waiters[i].val = expected[i];
    waiters[i].uaddr = reinterpret_cast<std::uintptr_t>(WordAddress(&cores[i]->word));
    waiters[i].flags = FUTEX_32 | static_cast<std::uint32_t>(PrivateFlag(cores[i]->shared));
  }
  const long r = ::syscall(SYS_futex_waitv, waiters, count, 0, deadline.Absolute(), CLOCK_MONOTONIC);
  if (r == -1 && errno == ENOSYS) {
    g_waitv_missing.store(true, std::memory_order_relaxed);
    return true;
  }
  return !(r == -1 && errno == ETIMEDOUT);
}

// Whether a waiter that began at `start` may return now, judging by the word value `w` alone.
bool IsReady(const WaitCore* core, std::uint32_t start, std::uint32_t w) {
  if (core->type == WaitCore::kSemaphore) return w != 0;
  if (w & kSignalled) return true;
  if (Generation(w) == Generation(start)) return false;
  return core->manual_reset || (w & kPulseToken);
}

// Takes the object for a waiter that began at `start`: signalled now, or pulsed while it waited.
bool Acquire(WaitCore* core, std::uint32_t start) {
  if (core->TryAcquire()) return true;
  if (core->type != WaitCore::kEvent) return false;
  std::uint32_t w = core->word.load(std::memory_order_acquire);
  if (Generation(w) == Generation(start)) return false;
  if (core->manual_reset) return true;
  while ((w & kPulseToken) && Generation(w) != Generation(start))
    if (core->word.compare_exchange_weak(w, w & ~kPulseToken, std::memory_order_acquire)) return true;
  return false;
}

}  // namespace

// A semaphore's unit goes back only up to the maximum: a release that came in between may have
// filled it. An event is signalled again; a reset in between cannot happen, since resets of handle
// events take the wait-all lock too.
void posix::GiveBack(WaitCore* core) {
  if (core->type == WaitCore::kSemaphore) {
    std::uint32_t w = core->word.load(std::memory_order_relaxed);
    do {
      if (static_cast<std::int64_t>(w) >= core->max_count) return;
    } while (!core->word.compare_exchange_weak(w, w + 1, std::memory_order_seq_cst));
    WakeSleepers(core);
  } else if (!core->manual_reset) {
    CoreSetEvent(core);
  }
}

namespace {

std::mutex g_local_wait_all;

// Consumes every core at once; false when one of them was taken in between (what was taken is
// given back).
bool AcquireAll(DWORD count, WaitCore* const* cores) {
  bool shared = false;
  for (DWORD i = 0; i < count; ++i) shared = shared || cores[i]->shared;
  WaitAllLock lock(shared);
  for (DWORD i = 0; i < count; ++i) {
    if (cores[i]->TryAcquire()) continue;
    while (i > 0) GiveBack(cores[--i]);
    return false;
  }
  return true;
}

}  // namespace

posix::WaitAllLock::WaitAllLock(bool shared) : shared_(shared), held_(shared ? LockControl() : true) {
  if (!shared_) g_local_wait_all.lock();
}

posix::WaitAllLock::~WaitAllLock() {
  if (!shared_) g_local_wait_all.unlock();
  else if (held_) UnlockControl();
}

namespace {

bool AllSignalled(DWORD count, WaitCore* const* cores, const std::uint32_t* words) {
  for (DWORD i = 0; i < count; ++i) {
    const bool on = cores[i]->type == WaitCore::kSemaphore ? words[i] != 0 : (words[i] & kSignalled) != 0;
    if (!on) return false;
  }
  return true;
}

DWORD WaitLoop(DWORD count, WaitCore* const* cores, bool wait_all, DWORD milliseconds) {
  std::uint32_t start[MAXIMUM_WAIT_OBJECTS];
  std::uint32_t now[MAXIMUM_WAIT_OBJECTS];
  for (DWORD i = 0; i < count; ++i) start[i] = now[i] = cores[i]->word.load(std::memory_order_acquire);
  const Deadline deadline(milliseconds);
  for (;;) {
    if (!wait_all) {
      for (DWORD i = 0; i < count; ++i)
        if (Acquire(cores[i], start[i])) return WAIT_OBJECT_0 + i;
    } else if (AllSignalled(count, cores, now) && AcquireAll(count, cores)) {
      return WAIT_OBJECT_0;
    }
    if (milliseconds == 0 || deadline.Passed()) return WAIT_TIMEOUT;

    // Announce the sleep before the last look at the words, so a signal either shows in the look or
    // finds a sleeper to wake.
    for (DWORD i = 0; i < count; ++i) cores[i]->waiters.fetch_add(1, std::memory_order_seq_cst);
    bool ready = false;
    for (DWORD i = 0; i < count; ++i) {
      now[i] = cores[i]->word.load(std::memory_order_seq_cst);
      if (!wait_all) ready = ready || IsReady(cores[i], start[i], now[i]);
    }
    if (wait_all) ready = AllSignalled(count, cores, now);
    if (!ready) FutexWaitAny(count, cores, now, deadline);
    for (DWORD i = 0; i < count; ++i) {
      cores[i]->waiters.fetch_sub(1, std::memory_order_relaxed);
      now[i] = cores[i]->word.load(std::memory_order_acquire);
    }
  }
}

DWORD WaitHandles(DWORD count, const HANDLE* handles, bool wait_all, DWORD milliseconds, DWORD limit) {
  if (count == 0 || count > limit || !handles) return Fail(ERROR_INVALID_PARAMETER);
  Object* objects[MAXIMUM_WAIT_OBJECTS];
  WaitCore* cores[MAXIMUM_WAIT_OBJECTS] = {};
  DWORD held = 0;
  DWORD error = ERROR_SUCCESS;
  for (; held < count && error == ERROR_SUCCESS; ++held) {
    DWORD access = 0;
    objects[held] = Table().Reference(handles[held], &access);
    if (!objects[held]) {
      error = ERROR_INVALID_HANDLE;
      break;
    }
    cores[held] = objects[held]->core;
    if (!(access & SYNCHRONIZE)) error = ERROR_ACCESS_DENIED;
  }
  const DWORD result =
      error == ERROR_SUCCESS ? CoreWaitMultiple(count, cores, wait_all, milliseconds) : Fail(error);
  for (DWORD i = 0; i < held; ++i) Release(objects[i]);
  return result;
}

}  // namespace

DWORD CoreWait(WaitCore* core, DWORD milliseconds) { return WaitLoop(1, &core, false, milliseconds); }

DWORD CoreWaitMultiple(DWORD count, WaitCore* const* cores, bool waitAll, DWORD milliseconds) {
  if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || !cores) return Fail(ERROR_INVALID_PARAMETER);
  if (waitAll)
    for (DWORD i = 0; i < count; ++i)
      for (DWORD j = i + 1; j < count; ++j)
        if (cores[i] == cores[j]) return Fail(ERROR_INVALID_PARAMETER);
  return WaitLoop(count, cores, waitAll, milliseconds);
}

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
  return WaitHandles(1, &handle, false, milliseconds, 1);
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds) {
  return WaitHandles(count, handles, waitAll != 0, milliseconds, MAXIMUM_WAIT_OBJECTS);
}

DWORD MsgWaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds, DWORD) {
  return WaitHandles(count, handles, waitAll != 0, milliseconds, MAXIMUM_WAIT_OBJECTS - 1);
}

}  // namespace zr::os
