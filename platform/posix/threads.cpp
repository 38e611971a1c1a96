// Threads on pthreads: a control block per thread behind a waitable handle, a start gate for
// suspended creation, and one real-time signal whose handler parks a thread (suspend) or stops it
// for good (terminate). Priorities are per-thread nice values.
#include "platform/threads.h"

#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <mutex>
#include <new>

#include "platform/posix/futex.h"
#include "platform/threadexit.h"
#include "platform/waitable.h"

namespace zr::os {

namespace {

constexpr DWORD kAckTimeoutMs = 10000;  // a thread that keeps the control signal blocked this long
constexpr DWORD kErrorTimeout = 1460;

using Word = std::atomic<std::uint32_t>;

void FutexWake(Word& word) { posix::FutexWake(&word, false, INT_MAX); }

// Sleeps while `word` holds `expected`, at most `ms` milliseconds (INFINITE: no limit).
void FutexWait(Word& word, std::uint32_t expected, DWORD ms) {
  posix::FutexWaitUntil(&word, expected, false, posix::Deadline(ms));
}

// Waits until done() holds, sleeping on `word` between looks; false when `ms` ran out first.
template <class Done>
bool WaitUntil(Word& word, Done done, DWORD ms) {
  const posix::Deadline deadline(ms);
  for (;;) {
    const std::uint32_t seen = word.load(std::memory_order_acquire);
    if (done()) return true;
    if (deadline.Passed()) return false;
    posix::FutexWaitUntil(&word, seen, false, deadline);
  }
}

struct ThreadControl {
  LPTHREAD_START_ROUTINE fn = nullptr;
  void* parameter = nullptr;
  std::atomic<HANDLE> own_handle{nullptr};  // the thread's own reference, released exactly once
  pthread_t pthread{};
  Word tid{0};                   // published by the thread before CreateThread returns
  Word suspend_count{0};         // the start gate and the park both sleep on this word
  Word park_generation{0};       // counts entries into the park, so a suspender sees its own
  Word ended{0};
  std::atomic<bool> running{false};      // past the start gate (signals reach it from now on)
  std::atomic<bool> terminate{false};
  std::atomic<bool> stopped{false};      // ended by a termination: parked for good, it never releases itself
  std::atomic<DWORD> exit_code{STILL_ACTIVE};
  DWORD terminate_code = 0;
  std::mutex mutex;  // orders signals against the thread's end; the thread holds it only with the signal blocked
};

thread_local ThreadControl* t_control = nullptr;
Word g_parked_forever{0};  // terminated threads sleep here, never woken

int ControlSignal() { return SIGRTMIN + 4; }

void SetControlSignalBlocked(bool blocked) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, ControlSignal());
  pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
}

// A terminated thread reports itself ended (with every signal blocked) and then never runs again.
void MarkStopped(ThreadControl* c) {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  c->exit_code.store(c->terminate_code, std::memory_order_release);
  c->stopped.store(true, std::memory_order_release);
  c->ended.store(1, std::memory_order_release);
  FutexWake(c->ended);
}

[[noreturn]] void ParkForever() {
  for (;;) FutexWait(g_parked_forever, 0, INFINITE);
}

[[noreturn]] void StopForGood(ThreadControl* c) {
  MarkStopped(c);
  ParkForever();
}

// Sleeps while the thread is suspended; stops for good on a terminate request.
void Park(ThreadControl* c) {
  c->park_generation.fetch_add(1, std::memory_order_acq_rel);
  FutexWake(c->park_generation);
  for (;;) {
    if (c->terminate.load(std::memory_order_acquire)) StopForGood(c);
    const std::uint32_t count = c->suspend_count.load(std::memory_order_acquire);
    if (count == 0) return;
    FutexWait(c->suspend_count, count, INFINITE);
  }
}

void OnControlSignal(int) {
  const int saved_errno = errno;
  if (ThreadControl* c = t_control) Park(c);
  errno = saved_errno;
}

void InstallControlHandler() {
  static const bool installed = [] {
    struct sigaction action{};
    action.sa_handler = OnControlSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    return ::sigaction(ControlSignal(), &action, nullptr) == 0;
  }();
  (void)installed;
}

// The start gate: false when the thread was terminated before it ever ran.
bool PassStartGate(ThreadControl* c) {
  for (;;) {
    if (c->terminate.load(std::memory_order_acquire)) return false;
    {
      std::lock_guard lock(c->mutex);
      if (c->suspend_count.load(std::memory_order_acquire) == 0) {
        c->running.store(true, std::memory_order_release);
        return true;
      }
    }
    const std::uint32_t count = c->suspend_count.load(std::memory_order_acquire);
    if (count != 0) FutexWait(c->suspend_count, count, INFINITE);
  }
}

// Signals the thread's handle and drops its own reference (which may free the control block).
// A thread that ends by itself releases it; one stopped by a termination never runs again, so the
// terminating caller releases it for it. The exchange makes sure it is released once.
void ReleaseOwnHandle(ThreadControl* c) {
  const HANDLE own = c->own_handle.exchange(nullptr, std::memory_order_acq_rel);
  if (!own) return;
  SetSignalHandle(own);
  CloseHandle(own);
}

void EndNormally(ThreadControl* c, DWORD code) {
  RunThreadExitNow();  // the library's detach comes before the handle is signalled
  SetControlSignalBlocked(true);
  {
    std::lock_guard lock(c->mutex);
    c->exit_code.store(code, std::memory_order_release);
    c->ended.store(1, std::memory_order_release);
  }
  FutexWake(c->ended);
  FutexWake(c->park_generation);
  t_control = nullptr;
  ReleaseOwnHandle(c);
}

void* ThreadMain(void* argument) {
  auto* c = static_cast<ThreadControl*>(argument);
  t_control = c;
  SetControlSignalBlocked(false);
  c->tid.store(GetCurrentThreadId(), std::memory_order_release);
  FutexWake(c->tid);
  if (!PassStartGate(c)) {
    // Terminated at the gate: the terminating thread finishes the handle.
    t_control = nullptr;
    MarkStopped(c);
    return nullptr;
  }
  EndNormally(c, c->fn(c->parameter));
  return nullptr;
}

void DestroyControl(void* context) { delete static_cast<ThreadControl*>(context); }

ThreadControl* ControlOf(HANDLE thread) {
  auto* c = static_cast<ThreadControl*>(GetSignalHandleContext(thread, kHandleThread));
  if (!c) SetLastError(ERROR_INVALID_HANDLE);
  return c;
}

bool IsSelf(const ThreadControl* c) { return t_control == c; }

bool StartPthread(ThreadControl* c, std::size_t stack_size) {
  pthread_attr_t attr;
  if (pthread_attr_init(&attr) != 0) return false;
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  if (stack_size) {
    const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t minimum = static_cast<std::size_t>(PTHREAD_STACK_MIN);
    std::size_t size = stack_size < minimum ? minimum : stack_size;
    size = (size + page - 1) / page * page;
    pthread_attr_setstacksize(&attr, size);
  }
  const bool started = pthread_create(&c->pthread, &attr, ThreadMain, c) == 0;
  pthread_attr_destroy(&attr);
  return started;
}

// Nice values for the Windows priorities, and back by ranges.
int NiceOfPriority(int priority, bool* valid) {
  *valid = true;
  switch (priority) {
    case THREAD_PRIORITY_IDLE: return 19;
    case THREAD_PRIORITY_LOWEST: return 10;
    case THREAD_PRIORITY_BELOW_NORMAL: return 5;
    case THREAD_PRIORITY_NORMAL: return 0;
    case THREAD_PRIORITY_ABOVE_NORMAL: return -5;
    case THREAD_PRIORITY_HIGHEST: return -10;
    case THREAD_PRIORITY_TIME_CRITICAL: return -20;
    default: *valid = false; return 0;
  }
}

int PriorityOfNice(int nice) {
  if (nice >= 15) return THREAD_PRIORITY_IDLE;
  if (nice >= 8) return THREAD_PRIORITY_LOWEST;
  if (nice >= 3) return THREAD_PRIORITY_BELOW_NORMAL;
  if (nice > -3) return THREAD_PRIORITY_NORMAL;
  if (nice > -8) return THREAD_PRIORITY_ABOVE_NORMAL;
  if (nice > -15) return THREAD_PRIORITY_HIGHEST;
  return THREAD_PRIORITY_TIME_CRITICAL;
}

}  // namespace

HANDLE CreateThread(SECURITY_ATTRIBUTES*, std::size_t stackSize, LPTHREAD_START_ROUTINE fn, void* parameter,
                    DWORD creationFlags, DWORD* threadId) {
  if (!fn) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  InstallControlHandler();
  auto* c = new (std::nothrow) ThreadControl;
  if (!c) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  c->fn = fn;
  c->parameter = parameter;
  c->suspend_count.store((creationFlags & CREATE_SUSPENDED) ? 1 : 0, std::memory_order_relaxed);
  const HANDLE handle = CreateSignalHandle(kHandleThread, c, DestroyControl);
  if (!handle) {
    delete c;
    return nullptr;
  }
  HANDLE own = nullptr;
  const bool duplicated =
      DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &own, 0, FALSE, DUPLICATE_SAME_ACCESS);
  c->own_handle.store(own, std::memory_order_release);
  if (!duplicated || !StartPthread(c, stackSize)) {
    if (own) CloseHandle(own);
    CloseHandle(handle);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  while (c->tid.load(std::memory_order_acquire) == 0) FutexWait(c->tid, 0, INFINITE);
  if (threadId) *threadId = c->tid.load(std::memory_order_acquire);
  return handle;
}

DWORD ResumeThread(HANDLE thread) {
  ThreadControl* c = ControlOf(thread);
  if (!c) return 0xFFFFFFFFu;
  std::lock_guard lock(c->mutex);
  if (c->ended.load(std::memory_order_acquire)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return 0xFFFFFFFFu;
  }
  const std::uint32_t previous = c->suspend_count.load(std::memory_order_acquire);
  if (previous == 1) {
    c->suspend_count.store(0, std::memory_order_release);
    FutexWake(c->suspend_count);
  } else if (previous > 1) {
    c->suspend_count.store(previous - 1, std::memory_order_release);
  }
  return previous;
}

DWORD SuspendThread(HANDLE thread) {
  ThreadControl* c = ControlOf(thread);
  if (!c) return 0xFFFFFFFFu;
  std::unique_lock lock(c->mutex);
  if (c->ended.load(std::memory_order_acquire)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return 0xFFFFFFFFu;
  }
  const std::uint32_t previous = c->suspend_count.fetch_add(1, std::memory_order_acq_rel);
  if (previous != 0 || !c->running.load(std::memory_order_acquire)) return previous;
  const std::uint32_t generation = c->park_generation.load(std::memory_order_acquire);
  if (IsSelf(c)) {
    lock.unlock();
    pthread_kill(c->pthread, ControlSignal());  // the handler runs before this returns
    return previous;
  }
  pthread_kill(c->pthread, ControlSignal());
  lock.unlock();
  WaitUntil(
      c->park_generation,
      [&] {
        return c->park_generation.load(std::memory_order_acquire) != generation ||
               c->ended.load(std::memory_order_acquire) != 0;
      },
      kAckTimeoutMs);
  return previous;
}

BOOL TerminateThread(HANDLE thread, DWORD exitCode) {
  ThreadControl* c = ControlOf(thread);
  if (!c) return FALSE;
  std::unique_lock lock(c->mutex);
  if (c->ended.load(std::memory_order_acquire) || c->terminate.load(std::memory_order_acquire)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  c->terminate_code = exitCode;
  c->terminate.store(true, std::memory_order_release);
  if (IsSelf(c)) {
    lock.unlock();
    MarkStopped(c);
    ReleaseOwnHandle(c);  // nobody else finishes a thread that ends itself
    ParkForever();
  }
  FutexWake(c->suspend_count);  // a thread at the gate or parked looks at the request
  if (c->running.load(std::memory_order_acquire)) pthread_kill(c->pthread, ControlSignal());
  lock.unlock();
  const bool stopped =
      WaitUntil(c->ended, [&] { return c->ended.load(std::memory_order_acquire) != 0; }, kAckTimeoutMs);
  if (!stopped) {
    // The thread kept the signal blocked: withdraw the request rather than leave it half done.
    lock.lock();
    if (!c->ended.load(std::memory_order_acquire)) {
      c->terminate.store(false, std::memory_order_release);
      SetLastError(kErrorTimeout);
      return FALSE;
    }
    lock.unlock();
  }
  // A thread that reached its own end meanwhile releases its reference itself (and may still be
  // about to): only a stopped one is released here.
  if (c->stopped.load(std::memory_order_acquire)) ReleaseOwnHandle(c);
  return TRUE;
}

BOOL GetExitCodeThread(HANDLE thread, DWORD* exitCode) {
  ThreadControl* c = ControlOf(thread);
  if (!c || !exitCode) return FALSE;
  *exitCode = c->ended.load(std::memory_order_acquire) ? c->exit_code.load(std::memory_order_acquire) : STILL_ACTIVE;
  return TRUE;
}

DWORD GetThreadId(HANDLE thread) {
  ThreadControl* c = ControlOf(thread);
  return c ? c->tid.load(std::memory_order_acquire) : 0;
}

int GetThreadPriority(HANDLE thread) {
  ThreadControl* c = ControlOf(thread);
  if (!c || c->ended.load(std::memory_order_acquire)) return THREAD_PRIORITY_ERROR_RETURN;
  errno = 0;
  const int nice = ::getpriority(PRIO_PROCESS, static_cast<id_t>(c->tid.load()));
  if (nice == -1 && errno != 0) return THREAD_PRIORITY_ERROR_RETURN;
  return PriorityOfNice(nice);
}

BOOL SetThreadPriority(HANDLE thread, int priority) {
  ThreadControl* c = ControlOf(thread);
  if (!c) return FALSE;
  bool valid = false;
  const int nice = NiceOfPriority(priority, &valid);
  if (!valid) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (c->ended.load(std::memory_order_acquire) ||
      ::setpriority(PRIO_PROCESS, static_cast<id_t>(c->tid.load()), nice) != 0) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  return TRUE;
}

namespace {

struct ForkHandlers {
  ForkFn prepare;
  ForkFn parent;
  ForkChildFn child;
};
constexpr int kMaxForkHandlers = 8;
ForkHandlers g_fork_handlers[kMaxForkHandlers];
std::atomic<int> g_fork_handler_count{0};
DWORD g_forking_thread = 0;

void BeforeFork() {
  g_forking_thread = GetCurrentThreadId();
  for (int i = g_fork_handler_count.load() - 1; i >= 0; --i)
    if (g_fork_handlers[i].prepare) g_fork_handlers[i].prepare();
}
void AfterForkInParent() {
  for (int i = 0; i < g_fork_handler_count.load(); ++i)
    if (g_fork_handlers[i].parent) g_fork_handlers[i].parent();
}
void AfterForkInChild() {
  for (int i = 0; i < g_fork_handler_count.load(); ++i)
    if (g_fork_handlers[i].child) g_fork_handlers[i].child(g_forking_thread);
}

}  // namespace

bool AddForkHandlers(ForkFn prepare, ForkFn parent, ForkChildFn child) {
  static std::mutex mutex;
  static const bool registered = ::pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild) == 0;
  std::lock_guard lock(mutex);
  const int n = g_fork_handler_count.load();
  if (!registered || n == kMaxForkHandlers) return false;
  g_fork_handlers[n] = ForkHandlers{prepare, parent, child};
  g_fork_handler_count.store(n + 1);
  return true;
}

}  // namespace zr::os
