// Diagnostics modes and reports: debug mode, debug keys, the exception table that steers traps,
// warnings with stack traces, stub messages, logged message beeps and the dialog hex helpers.
#pragma once

#include <cstdint>
#include <string_view>

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// One entry of the exception table (shared with the crash handler).
struct tagZREXCENTRY {
  DWORD dwCode;            // exception code; 0 for the two steering entries
  WCHAR szName[32];
  DWORD dwTrapMode;        // bit 0 break, 1 suppress, 2 one frame, 3 module filter
  char szFilter[16];       // module filter text
  std::uintptr_t lower;    // caller address bounds [lower, upper); widened from 32 bits
  std::uintptr_t upper;
};

inline constexpr int ZR_EXCEPTION_TABLE_SIZE = 23;
inline constexpr int ZR_EXC_WARNINGS = 21;          // "Warnings (Debug)"
inline constexpr int ZR_EXC_EXPECTED = 22;          // "Expected exceptions"

// The 23 entries, in the crash handler's order; trap modes are read from "ZRO.INI" section
// "ZROUtil" ("TRAPALL", "TRAP_EXC%d") at load. Filter and bounds are for a developer to change.
ZROBJ_API tagZREXCENTRY* ZROBJ_GetExceptionTable();  // 23 entries

// Debug mode: when zero the library prints no debug or information messages. Starts as
// Is_wPrintf_Active(0); SetDebugMode only stores.
ZROBJ_EXTERN_C ZROBJ_API void SetDebugMode(DWORD mode);
ZROBJ_EXTERN_C ZROBJ_API DWORD IsDebugOn();
// Debug-keys mode ("ZROUtil" / "DEBUGKEYS"): SetDebugKeyMode stores it and writes it to "ZRO.INI".
ZROBJ_EXTERN_C ZROBJ_API int SetDebugKeyMode(int mode);
ZROBJ_EXTERN_C ZROBJ_API DWORD IsDebugKeysOn();
// 1 when debug keys are on and the key is down now, else 0.
ZROBJ_EXTERN_C ZROBJ_API int IsAsyncKeyPressed(int virtualKey);
// "\r\nWarning: <text>\r\n" on channel 0 level 3 with a stack trace, as entry 21 of the exception
// table ("Warnings (Debug)") allows; only while the debug mode is on.
ZROBJ_EXTERN_C ZROBJ_API void WarningMsg(const WCHAR* text, std::uintptr_t callerAddress, std::uintptr_t callerFrame);
// Exception filter for expected exceptions: breaks when entry 22 says so; always 1 ("handle").
ZROBJ_EXTERN_C ZROBJ_API int DebugException();
// Message box "<name> called by <module> no longer supported", caption "STUB MESSAGE".
ZROBJ_EXTERN_C ZROBJ_API int StubMsg(const WCHAR* functionName, std::uintptr_t callerAddress);
// "\rMessage Beep: <file>, line <line>\r\n" on channel 0 level 9, then MessageBeep(type).
ZROBJ_EXTERN_C ZROBJ_API int DetailedMessageBeep(UINT type, const char* file, int line);
// A dialog control's text as "%08X" / parsed back from at most 10 characters (0 if not hex).
ZROBJ_EXTERN_C ZROBJ_API int _SetDlgItemHex(HWND dialog, int controlId, int value);
ZROBJ_EXTERN_C ZROBJ_API int _GetDlgItemHex(HWND dialog, int controlId);

// The names of the tests of a run-time object's assertion, by code: the object's class query
// faults, its class is the given one, it is of the given kind, its own consistency check.
inline constexpr const WCHAR* ZR_ASSERT_TEST_NAMES[4] = {u"BAD ACCESS", u"TYPE", u"KIND", u"OBJECT"};

// Prints the report of a failed assertion, "\r\nAssertion [%s] failed! Line: %d File:%hs\r\n" on
// channel 3 level 0 whatever the debug mode, then the whole call stack from the caller's address
// and frame. Returns 0, the result of a failed assertion.
ZROBJ_API int ZROBJ_ReportAssertionFailure(const WCHAR* testName, DWORD line, const char* file,
                                           std::uintptr_t callerAddress, std::uintptr_t callerFrame);

// The caller's return address and frame, for WarningMsg and the assertion reports.
#define ZR_CALLER_ADDRESS() reinterpret_cast<std::uintptr_t>(__builtin_return_address(0))
#define ZR_CURRENT_FRAME() reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0))

namespace zr {

// Receives the diagnostics messages redirected to it by a ScopedDiagRedirect, one call per
// message, under the output lock (messages never interleave).
class ZROBJ_API DiagListener {
 public:
  virtual ~DiagListener();
  virtual void OnMessage(unsigned channel, unsigned level, std::u16string_view text) = 0;
};

// While it lives, every diagnostics message of the process, of any channel and level, goes to the
// listener instead of the configured output. Redirections nest; each restores the previous one.
class ZROBJ_API ScopedDiagRedirect {
 public:
  explicit ScopedDiagRedirect(DiagListener* listener);
  ~ScopedDiagRedirect();
  ScopedDiagRedirect(const ScopedDiagRedirect&) = delete;
  ScopedDiagRedirect& operator=(const ScopedDiagRedirect&) = delete;

 private:
  struct State;
  State* state_;
};

// Switches the diagnostics listener on or off, as ZROBJ_DIAG_ACTIVE does at load: while on, every
// message that passes the channel and level filter is written, not only the alarms (see
// docs/architecture.md, "Diagnostics output"). The debug mode follows.
ZROBJ_API void SetDiagnosticsActive(bool active);

}  // namespace zr
