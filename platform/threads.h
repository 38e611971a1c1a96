// Threads as kernel objects (the CreateThread family): suspended creation through a start gate,
// suspension that really parks the thread, termination, priorities, exit codes, and fork hooks.
#pragma once

#include "zrobj/zrtypes.h"

namespace zr::os {

#ifndef CREATE_SUSPENDED
#define CREATE_SUSPENDED 0x4u
#endif
#ifndef STILL_ACTIVE
#define STILL_ACTIVE 259u
#endif

using LPTHREAD_START_ROUTINE = DWORD (*)(void* parameter);

// Starts a thread running fn(parameter); its handle is signalled when the thread ends. With
// CREATE_SUSPENDED the thread waits at a start gate (suspend count 1) until resumed. A stack size of
// 0 takes the default. Null on failure (last error set).
HANDLE CreateThread(SECURITY_ATTRIBUTES* security, std::size_t stackSize, LPTHREAD_START_ROUTINE fn,
                              void* parameter, DWORD creationFlags, DWORD* threadId);
// Both return the previous suspend count, 0xFFFFFFFF on failure (an ended thread, a bad handle).
// Suspending a running thread parks it in a signal handler and returns once it is parked.
DWORD SuspendThread(HANDLE thread);
DWORD ResumeThread(HANDLE thread);
// Ends the thread where it stands, with `exitCode`: nothing of its own runs any more (no unwinding,
// no thread-exit callbacks), its stack stays reserved until the process ends. Returns once the thread
// has stopped; FALSE for a thread that had ended already.
BOOL TerminateThread(HANDLE thread, DWORD exitCode);
// STILL_ACTIVE while the thread runs.
BOOL GetExitCodeThread(HANDLE thread, DWORD* exitCode);
DWORD GetThreadId(HANDLE thread);
// Windows priorities mapped to the thread's nice value and back (see docs/architecture.md).
int GetThreadPriority(HANDLE thread);
BOOL SetThreadPriority(HANDLE thread, int priority);

// Process forks: `prepare` runs in the forking thread before the fork, `parent` after it in the
// parent, `child` in the (single-threaded) child with the thread id the forking thread had.
using ForkFn = void (*)();
using ForkChildFn = void (*)(DWORD parent_thread_id);
bool AddForkHandlers(ForkFn prepare, ForkFn parent, ForkChildFn child);

}  // namespace zr::os
