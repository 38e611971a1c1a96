// Faults and the one owner of the fault signal handlers: probed reads, guarded calls (a fault inside
// jumps back to the guard), and the crash hook that receives every fault no guard takes.
#pragma once

#include <cstddef>
#include <cstdint>


namespace zr::os {

// Copies n bytes from `address` into `out`; false when any of it cannot be read (no signal raised).
bool ProbeRead(const void* address, void* out, std::size_t n);
// Copies bytes from `address` into `out` up to n or up to the first page that cannot be read, and
// returns how many it copied (the readable part of the region, as a region query would give it).
std::size_t ReadUntilFault(const void* address, void* out, std::size_t n);
// True when n bytes at `address` can be written (probed with process_vm_writev of the same bytes).
bool ProbeWritable(void* address, std::size_t n);

// The x86-64 register state of a faulting context.
struct FaultRegisters {
  std::uint64_t rax, rbx, rcx, rdx, rsi, rdi, rbp, rsp;
  std::uint64_t r8, r9, r10, r11, r12, r13, r14, r15;
  std::uint64_t rip, eflags;
  std::uint16_t cs, ds, es, fs, gs, ss;
  std::uint32_t mxcsr;
  bool has_fxsave;
  alignas(16) std::uint8_t fxsave[512];  // FXSAVE image of the x87/SSE state
};

// One fault as the signal handler saw it.
struct FaultRecord {
  std::uint32_t code;           // exception code (0xC0000005 access violation, ...)
  int signal;                   // the POSIX signal
  int signal_code;              // its si_code
  std::uint32_t thread_id;      // OS thread id of the faulting thread
  std::uintptr_t address;       // instruction address
  std::uintptr_t data_address;  // the address the signal names (si_addr)
  std::uint64_t fault_flags;    // x86 page-fault error code: bit 1 write, bit 4 instruction fetch
  bool has_registers;
  FaultRegisters registers;
  // The return addresses of the faulting stack, taken before a guard unwinds it (first: `address`).
  static constexpr int kMaxFrames = 64;
  int frame_count;
  std::uintptr_t frames[kMaxFrames];
};

// The POSIX signal that raises an exception code (SIGSEGV for 0xC0000005, ...); 0 for codes no signal
// raises.
int SignalOfExceptionCode(std::uint32_t code);

// Runs fn(context) under a fault guard. Returns 0 when it completed, else the exception code of the
// fault it took (0xC0000005 access violation, 0xC0000094 divide by zero, ...). Nestable, per thread.
// The body is left by siglongjmp: it must not own objects with destructors.
using GuardedFn = void (*)(void* context);
std::uint32_t GuardedCall(GuardedFn fn, void* context);

template <class F>
std::uint32_t Guarded(F&& f) {
  return GuardedCall([](void* c) { (*static_cast<F*>(c))(); }, &f);
}

// The last fault a guard of the calling thread caught (with its registers); null before the first.
const FaultRecord* LastGuardedFault();

// The crash hook receives every fault that no guard takes, on the faulting thread and on its alternate
// signal stack. If it returns, the signal gets the system's default action (the process dies by it).
// Without a hook, a fault goes to the handler that was installed before the library's (for example a
// sanitizer's), else to the default action.
using CrashHook = void (*)(const FaultRecord& record);
// Installs `hook` (null removes it) and returns the previous one. Installs the signal handlers if needed.
CrashHook SetCrashHook(CrashHook hook);
CrashHook GetCrashHook();

// Makes sure the library's handlers own SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP and SIGABRT (the last
// only for the crash hook). Returns the address of a foreign handler that had replaced one of them since
// the library installed its own (it becomes the handler faults are passed to without a hook), else 0.
std::uintptr_t InstallFaultHandlers();

// Gives the calling thread an alternate signal stack big enough for the crash handler, once per thread
// (a smaller one already installed is replaced). The stack is released when the thread ends. Threads
// call it on their first use of the library; the thread that loads the library gets one at load.
bool PrepareSignalStack();

// Ends the process at once with `status` (no exit handlers, no flushing).
[[noreturn]] void TerminateProcessNow(int status);

// Ends the process by SIGALRM after `seconds` unless called again (0 cancels): bounds a crash handler
// that hangs on a lock its crashed owner still holds.
void ArmCrashWatchdog(unsigned seconds);

// Runs `fn(context)` for at most `seconds`: when the time runs out, SIGALRM leaves `fn` where it is
// and this returns false. For a phase of the crash handler that may take too long (a full-memory
// dump) but must not keep the next phase from running; `fn` must leave nothing half-held that the
// rest of the handler needs.
bool RunWithinBudget(void (*fn)(void*), void* context, unsigned seconds);

// Raises a breakpoint inside a guard, so that LastGuardedFault() holds the calling thread's context.
void CaptureCurrentContext();

// Raises a breakpoint only when a debugger is attached to the process.
void BreakIntoDebugger();

}  // namespace zr::os
