// Identities: thread ids (the kernel's, cached per thread), the process id and the current process.
#include "platform/posix/waitable_internal.h"
#include "base/compiler.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

namespace zr::os {

namespace posix {

ZR_TLS_INITIAL_EXEC thread_local DWORD t_thread_id = 0;

ZR_NOINLINE ZR_COLD DWORD FetchTid() { return t_thread_id = static_cast<DWORD>(::gettid()); }

}  // namespace posix

namespace {

// The child of a fork runs on a thread of its own, with an id of its own.
void ForgetThreadIdInChild() { posix::t_thread_id = 0; }

[[maybe_unused]] const bool g_fork_handler = [] {
  ::pthread_atfork(nullptr, nullptr, ForgetThreadIdInChild);
  return true;
}();

}  // namespace

DWORD GetCurrentThreadId() { return posix::CurrentTid(); }
DWORD GetCurrentProcessId() { return static_cast<DWORD>(::getpid()); }
HANDLE GetCurrentProcess() { return reinterpret_cast<HANDLE>(~std::uintptr_t{0}); }
BOOL SwitchToThread() {
  ::sched_yield();
  return TRUE;
}

}  // namespace zr::os
