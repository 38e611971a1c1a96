// Waitable kernel objects: handles, events, semaphores, waits on one or several objects, thread
// ids and critical sections, all built on 32-bit futex words. Named objects live in a
// shared-memory segment keyed by their name, so other processes open the same object.
#pragma once

#include <atomic>
#include <cstdint>

#include "base/compiler.h"
#include "platform/lasterror.h"
#include "zrobj/zrtypes.h"

namespace zr::os {

// Windows values, defined the way the system headers define them so that every family can share them.
#ifndef SYNCHRONIZE
#define SYNCHRONIZE 0x00100000u
#define EVENT_MODIFY_STATE 0x0002u
#define SEMAPHORE_MODIFY_STATE 0x0002u
#define EVENT_ALL_ACCESS 0x001F0003u
#define SEMAPHORE_ALL_ACCESS 0x001F0003u
#endif
#ifndef DUPLICATE_CLOSE_SOURCE
#define DUPLICATE_CLOSE_SOURCE 0x1u
#define DUPLICATE_SAME_ACCESS 0x2u
#endif
// ---- Identities ----

// Thread ids are the kernel's gettid() values (cached per thread, renewed in a forked child).
DWORD GetCurrentThreadId();
DWORD GetCurrentProcessId();
HANDLE GetCurrentProcess();  // the pseudo handle (HANDLE)-1
BOOL SwitchToThread();       // yields the processor; non-zero when another thread ran

// ---- Handles ----
// A handle is a small non-zero value naming an entry of the process's handle table; each entry holds
// a reference to an object and the access rights granted to that handle. Waiting needs SYNCHRONIZE,
// setting an event EVENT_MODIFY_STATE, releasing a semaphore SEMAPHORE_MODIFY_STATE (else error 5).

BOOL CloseHandle(HANDLE handle);
// Only the current process (GetCurrentProcess()) is supported as source and target.
BOOL DuplicateHandle(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, HANDLE* target,
                               DWORD desiredAccess, BOOL inheritHandle, DWORD options);

// ---- Events and semaphores ----
// A name makes the object visible to every process of the same scope: names starting "Global\" are
// per user, others per user and settings directory ($ZROBJ_HOME). Creating an existing name opens
// it and sets the last error to ERROR_ALREADY_EXISTS (another type: null, ERROR_INVALID_HANDLE).

HANDLE CreateEventW(SECURITY_ATTRIBUTES* security, BOOL manualReset, BOOL initialState, const WCHAR* name);
HANDLE OpenEventW(DWORD desiredAccess, BOOL inheritHandle, const WCHAR* name);
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);
// Releases the threads waiting now (manual reset: all; auto reset: one) and leaves the event reset.
BOOL PulseEvent(HANDLE event);

HANDLE CreateSemaphoreW(SECURITY_ATTRIBUTES* security, LONG initialCount, LONG maximumCount,
                                  const WCHAR* name);
HANDLE OpenSemaphoreW(DWORD desiredAccess, BOOL inheritHandle, const WCHAR* name);
BOOL ReleaseSemaphore(HANDLE semaphore, LONG releaseCount, LONG* previousCount);

// ---- Waits ----
// A wait that succeeds consumes what it waited for: an auto-reset event is reset, a semaphore count
// taken. Wait-any returns WAIT_OBJECT_0 + the lowest signalled index; wait-all consumes all objects
// at once (duplicated objects: ERROR_INVALID_PARAMETER). More than 64 handles: ERROR_INVALID_PARAMETER.

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);
DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds);
// There is no message queue: waits on the objects only (at most 63, as the message form allows).
DWORD MsgWaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds,
                                          DWORD wakeMask);

// ---- Critical sections ----
// A recursive process-local lock: one futex word (0 free, 1 held, 2 held with sleepers), the owner's
// thread id and the recursion depth. Leaving a section the caller does not own does nothing.
struct CRITICAL_SECTION {
  std::atomic<std::uint32_t> lock_word{0};
  std::atomic<std::uint32_t> owner{0};
  std::uint32_t recursion = 0;   // touched by the owner only
  std::uint32_t spin_count = 0;
};

void InitializeCriticalSection(CRITICAL_SECTION* section);
BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION* section, DWORD spinCount);
void EnterCriticalSection(CRITICAL_SECTION* section);
BOOL TryEnterCriticalSection(CRITICAL_SECTION* section);
void LeaveCriticalSection(CRITICAL_SECTION* section);
void DeleteCriticalSection(CRITICAL_SECTION* section);

// Direct (not interposable) entries for the library's own hot paths; the exported functions above
// are the same code. Not visible outside libzrobju.
namespace lib {
ZR_HIDDEN DWORD CurrentThreadId();
ZR_HIDDEN void EnterSection(CRITICAL_SECTION* section);
ZR_HIDDEN BOOL TryEnterSection(CRITICAL_SECTION* section);
ZR_HIDDEN void LeaveSection(CRITICAL_SECTION* section);
}  // namespace lib

// ---- The futex-word object behind every waitable object ----
// Events: bit 0 signalled, bit 1 a pulse that one waiter of an auto-reset event may take, bits 2-31
// a pulse generation. Semaphores: the count. `waiters` lets a signal skip the wake-up call when
// nobody sleeps. The same layout is placed in shared memory for named objects.
struct WaitCore {
  enum Type : std::uint32_t { kEvent = 1, kSemaphore = 2 };

  std::atomic<std::uint32_t> word{0};
  std::atomic<std::uint32_t> waiters{0};
  std::uint32_t type = kEvent;
  std::uint32_t manual_reset = 0;
  std::int32_t max_count = 0;
  std::uint32_t shared = 0;  // the word is in memory shared between processes

  void InitEvent(bool manual, bool initial, bool is_shared);
  void InitSemaphore(std::int32_t initial, std::int32_t maximum, bool is_shared);

  // Takes the object if it is signalled now (auto-reset events and semaphores are consumed).
  bool TryAcquire() {
    std::uint32_t w = word.load(std::memory_order_acquire);
    if (type == kSemaphore) {
      while (w != 0)
        if (word.compare_exchange_weak(w, w - 1, std::memory_order_acquire)) return true;
      return false;
    }
    if (manual_reset) return (w & 1u) != 0;
    while (w & 1u)
      if (word.compare_exchange_weak(w, w & ~3u, std::memory_order_acquire)) return true;
    return false;
  }
};

// Event and semaphore operations on a core (the handle functions above use these too).
void CoreSetEvent(WaitCore* core);
void CoreResetEvent(WaitCore* core);
void CorePulseEvent(WaitCore* core);
// False (and nothing released) when the count would pass the maximum.
bool CoreReleaseSemaphore(WaitCore* core, std::int32_t count, std::int32_t* previous);
// Waits for one core (WAIT_OBJECT_0 or WAIT_TIMEOUT).
DWORD CoreWait(WaitCore* core, DWORD milliseconds);
// Waits for several cores: any (lowest signalled index) or all; WAIT_FAILED with the last error set
// for bad arguments.
DWORD CoreWaitMultiple(DWORD count, WaitCore* const* cores, bool waitAll, DWORD milliseconds);

// A process-local event or semaphore without a handle, for locks built inside the library.
class LocalEvent {
 public:
  LocalEvent(bool manual_reset, bool initial_state) { core_.InitEvent(manual_reset, initial_state, false); }
  LocalEvent(const LocalEvent&) = delete;
  LocalEvent& operator=(const LocalEvent&) = delete;
  void Set() { CoreSetEvent(&core_); }
  void Reset() { CoreResetEvent(&core_); }
  DWORD Wait(DWORD milliseconds) { return core_.TryAcquire() ? WAIT_OBJECT_0 : CoreWait(&core_, milliseconds); }

 private:
  WaitCore core_;
};

class LocalSemaphore {
 public:
  LocalSemaphore(std::int32_t initial, std::int32_t maximum) { core_.InitSemaphore(initial, maximum, false); }
  LocalSemaphore(const LocalSemaphore&) = delete;
  LocalSemaphore& operator=(const LocalSemaphore&) = delete;
  bool Release(std::int32_t count = 1) { return CoreReleaseSemaphore(&core_, count, nullptr); }
  DWORD Wait(DWORD milliseconds) { return core_.TryAcquire() ? WAIT_OBJECT_0 : CoreWait(&core_, milliseconds); }
  std::uint32_t Count() const { return core_.word.load(std::memory_order_relaxed); }

 private:
  WaitCore core_;
};

// ---- Objects of other families in the handle table ----
// A signal handle behaves like a manual-reset event that its owner sets (a thread handle is
// signalled when the thread ends). `destroy(context)` runs when the last handle is closed.
enum HandleKind : DWORD { kHandleEvent = 1, kHandleSemaphore = 2, kHandleChangeNotification = 3,
                          kHandleThread = 4, kHandleCustom = 5 };
using HandleDestroyFn = void (*)(void* context);
HANDLE CreateSignalHandle(DWORD kind, void* context, HandleDestroyFn destroy);
BOOL SetSignalHandle(HANDLE handle);
BOOL ResetSignalHandle(HANDLE handle);
// The context of a signal handle of that kind; null (ERROR_INVALID_HANDLE) for anything else. The
// caller keeps the handle open while it uses the context.
void* GetSignalHandleContext(HANDLE handle, DWORD kind);
// The core that a signal handle's owner signals directly (valid until the last handle closes).
WaitCore* GetSignalHandleCore(HANDLE handle, DWORD kind);
// The handle's object kind, 0 for an invalid handle.
DWORD GetHandleKind(HANDLE handle);

// ---- The lock word shared between processes ----
// Wait-all on named objects consumes them under this robust process-shared lock; a holder that dies
// releases it. Exposed so that tests can prove that.
bool LockSharedWaitWord();
void UnlockSharedWaitWord();

}  // namespace zr::os
