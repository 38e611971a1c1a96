// Diagnostics modes and reports: debug mode, debug keys, the exception table that steers traps,
// warnings with stack traces, stub messages, logged message beeps and the dialog hex helpers.
#pragma once

#include <cstdint>

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

ZROBJ_API tagZREXCENTRY* ZROBJ_GetExceptionTable();  // 23 entries

ZROBJ_EXTERN_C ZROBJ_API void SetDebugMode(DWORD mode);
ZROBJ_EXTERN_C ZROBJ_API DWORD IsDebugOn();
ZROBJ_EXTERN_C ZROBJ_API int SetDebugKeyMode(int mode);
ZROBJ_EXTERN_C ZROBJ_API DWORD IsDebugKeysOn();
ZROBJ_EXTERN_C ZROBJ_API int IsAsyncKeyPressed(int virtualKey);
ZROBJ_EXTERN_C ZROBJ_API void WarningMsg(const WCHAR* text, std::uintptr_t callerAddress, std::uintptr_t callerFrame);
ZROBJ_EXTERN_C ZROBJ_API int DebugException();
ZROBJ_EXTERN_C ZROBJ_API int StubMsg(const WCHAR* functionName, std::uintptr_t callerAddress);
ZROBJ_EXTERN_C ZROBJ_API int DetailedMessageBeep(UINT type, const char* file, int line);
ZROBJ_EXTERN_C ZROBJ_API int _SetDlgItemHex(HWND dialog, int controlId, int value);
ZROBJ_EXTERN_C ZROBJ_API int _GetDlgItemHex(HWND dialog, int controlId);

// The caller's return address and frame, for WarningMsg and the assertion reports.
#define ZR_CALLER_ADDRESS() reinterpret_cast<std::uintptr_t>(__builtin_return_address(0))
#define ZR_CURRENT_FRAME() reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0))
