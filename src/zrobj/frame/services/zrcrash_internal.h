// What the crash handler and its minidump writer share inside the library.
#pragma once

#include "platform/fault.h"
#include "zrobj/zrcrash.h"

namespace zr {

struct MinidumpRequest {
  const char* path = nullptr;
  const EXCEPTION_POINTERS* pointers = nullptr;  // with a context; required
  const os::FaultRecord* fault = nullptr;            // the signal behind the exception, when known
  DWORD thread_id = 0;                           // the crashing thread
  int level = 1;                                 // 1 normal, 2 with data segments, 3+ full memory
  const void* user_block = nullptr;              // the thread register's dump
  unsigned long user_size = 0;
};

// Writes the MDMP file (always overwritten); false when it could not be written completely.
// Allocates nothing: it runs inside the crash handler.
bool WriteMinidump(const MinidumpRequest& request);

// Builds the exception information of a fault; the context is filled only when the fault has one.
bool ExceptionFromFault(const os::FaultRecord& fault, EXCEPTION_RECORD* record, CONTEXT* context);

// True once a thread has started writing the crash record: readers of shared state then must not
// wait for locks whose holder may have crashed.
bool CrashRecordInProgress();

// Whether one of the frames lies in a function of the allocator (malloc, free, operator new, ...).
bool StackInsideAllocator(const std::uintptr_t* frames, int count);

namespace testing {
// The phases of the crash handler, for a hook that tests use to stall one of them.
enum class CrashPhase { kDump, kRecord };
using CrashPhaseHook = void (*)(CrashPhase phase);
void SetCrashPhaseHook(CrashPhaseHook hook);
// The time the minidump and the record each get (60 s and 30 s unless a test says otherwise).
void SetCrashBudgets(unsigned dump_seconds, unsigned record_seconds);
}  // namespace testing

}  // namespace zr
