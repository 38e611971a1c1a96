// Crash handling: the top-level handler that writes "CrashRecord.txt" and "crashdump.dmp" when the
// process crashes, and the exception analysis that guarded code uses to report the faults it caught.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zrobj/export.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrtypes.h"

// ---- Exception information in the Windows x86-64 layout ----

struct alignas(16) M128A {
  UINT64 Low;
  INT64 High;
};

// The FXSAVE image of the x87/SSE state, 512 bytes.
struct XMM_SAVE_AREA32 {
  WORD ControlWord;
  WORD StatusWord;
  BYTE TagWord;
  BYTE Reserved1;
  WORD ErrorOpcode;
  DWORD ErrorOffset;
  WORD ErrorSelector;
  WORD Reserved2;
  DWORD DataOffset;
  WORD DataSelector;
  WORD Reserved3;
  DWORD MxCsr;
  DWORD MxCsr_Mask;
  M128A FloatRegisters[8];
  M128A XmmRegisters[16];
  BYTE Reserved4[96];
};

// The register context of a thread, 1232 bytes (the layout minidump readers expect).
struct alignas(16) CONTEXT {
  UINT64 P1Home, P2Home, P3Home, P4Home, P5Home, P6Home;
  DWORD ContextFlags;
  DWORD MxCsr;
  WORD SegCs, SegDs, SegEs, SegFs, SegGs, SegSs;
  DWORD EFlags;
  UINT64 Dr0, Dr1, Dr2, Dr3, Dr6, Dr7;
  UINT64 Rax, Rcx, Rdx, Rbx, Rsp, Rbp, Rsi, Rdi;
  UINT64 R8, R9, R10, R11, R12, R13, R14, R15;
  UINT64 Rip;
  XMM_SAVE_AREA32 FltSave;
  M128A VectorRegister[26];
  UINT64 VectorControl;
  UINT64 DebugControl, LastBranchToRip, LastBranchFromRip, LastExceptionToRip, LastExceptionFromRip;
};
static_assert(sizeof(CONTEXT) == 1232, "x86-64 CONTEXT layout");

inline constexpr DWORD CONTEXT_AMD64 = 0x00100000u;
inline constexpr DWORD CONTEXT_CONTROL = CONTEXT_AMD64 | 0x1u;
inline constexpr DWORD CONTEXT_INTEGER = CONTEXT_AMD64 | 0x2u;
inline constexpr DWORD CONTEXT_SEGMENTS = CONTEXT_AMD64 | 0x4u;
inline constexpr DWORD CONTEXT_FLOATING_POINT = CONTEXT_AMD64 | 0x8u;

inline constexpr DWORD EXCEPTION_MAXIMUM_PARAMETERS = 15;

struct EXCEPTION_RECORD {
  DWORD ExceptionCode;
  DWORD ExceptionFlags;
  EXCEPTION_RECORD* ExceptionRecord;
  void* ExceptionAddress;
  DWORD NumberParameters;
  std::uintptr_t ExceptionInformation[EXCEPTION_MAXIMUM_PARAMETERS];
};

struct EXCEPTION_POINTERS {
  EXCEPTION_RECORD* ExceptionRecord;
  CONTEXT* ContextRecord;
};

// Results of an exception filter.
inline constexpr long EXCEPTION_EXECUTE_HANDLER = 1;
inline constexpr long EXCEPTION_CONTINUE_SEARCH = 0;

namespace zr {
class CrashHandler;
}

// ---- The crash handler ----

class ZROBJ_API CUnhandledException {
 public:
  // Reads "Disable", "MiniDump" and "ShowStolen" (section "UnhandledException" of "ZRO.INI", default 0,
  // written when missing), installs the top-level handler and counts the object.
  CUnhandledException();
  // The last object removes the handler.
  ~CUnhandledException();
  CUnhandledException(const CUnhandledException&) = delete;
  CUnhandledException& operator=(const CUnhandledException&) = delete;

  // 0 when no object lives. Otherwise installs the handler again, reports "UHE reset ..." when another
  // module had taken it away, and returns 1.
  static int ReInit();
  // Names the application's state for the crash record ("Startup" at first); returns 1.
  static int SetState(const WCHAR* text);

  // Reports an exception through the dump output: flag 0 is the crash record's full analysis; a
  // non-zero flag is a fault caught by guarded code, which the trap mode of its table entry steers.
  static void AnalyseException(EXCEPTION_POINTERS* pointers, DWORD flag);
  // The exception that a guard of the calling thread caught last (for AnalyseException); null when none.
  static EXCEPTION_POINTERS* GetExceptionInfo();
  // The module (its load base) that contains `address`, with its file name copied into `buffer`
  // (ZR_MAX_PATH characters, terminated); null, with an empty buffer, when no module contains it.
  static HMODULE GetModuleFilenameFromAddress(const void* address, WCHAR* buffer);
  // Lists the loaded libraries through the dump output: flag 1 all of them, 0 only the application's
  // own (those outside the system's library directories).
  static void DumpAppDLLs(DWORD flag);

  static DWORD uLockCnt;      // live objects
  static BOOL bDisable;       // after the record, leave the crash to the system's default action
  static int iMiniDump;       // 0 no minidump; 1 normal, 2 with data segments, 3 and more full memory
  static BOOL bShowStolen;    // print the "UHE reset" report on channel 0x80000000
  static constexpr int kStateLength = 256;
  static WCHAR szState[kStateLength];

 private:
  friend class zr::CrashHandler;
  static long TopLevelExceptionFilter(EXCEPTION_POINTERS* pointers);
};

namespace zr {

// What the crash handler asks the thread register. The thread family installs its own; the default
// knows only the thread that loaded the library, as "<<Main>>".
struct ThreadInfoProvider {
  // Copies the registered name of `thread_id` into `buffer` (at most length-1 characters, terminated);
  // false when the thread is not registered.
  bool (*get_name)(DWORD thread_id, WCHAR* buffer, unsigned length);
  // Prints the register's dump through the dump output (dmp_output) into the crash record.
  void (*dump)();
  // A block that lists the registered threads, for the minidump's user stream; null when there is none.
  // The block must stay valid until the next call.
  const void* (*get_dump_block)(unsigned long* size);
};
// Installs `provider` (null restores the default) and returns the previous one. The provider object
// must outlive its installation.
ZROBJ_API const ThreadInfoProvider* SetThreadInfoProvider(const ThreadInfoProvider* provider);
// The name of a thread through the current provider; false (and an empty buffer) when unknown.
ZROBJ_API bool GetRegisteredThreadName(DWORD thread_id, WCHAR* buffer, unsigned length);

// Where the crash record and the minidump go: `directory` instead of the application root directory
// (null or empty restores the root). For tools and tests that must not write beside the library.
ZROBJ_API void SetCrashRecordDirectory(const WCHAR* directory);

// The exception table as the crash handler defines it: 23 entries with their codes and names and no
// trap modes (the diagnostics start-up copies it and sets the modes from "ZRO.INI").
ZROBJ_API const tagZREXCENTRY* GetDefaultExceptionTable();

// Threads that crashed while another one was writing the crash record and now wait for the process
// to end with it.
ZROBJ_API unsigned GetParkedCrashThreadCount();

// The user stream type of the minidump that holds the thread register's dump.
inline constexpr DWORD kMinidumpThreadDumpStream = 0x5A520001u;

}  // namespace zr
