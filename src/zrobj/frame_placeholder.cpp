// TEMPORARY: minimal bodies of the frame's interface so other families link while it is built.
// The lifecycle/diagnostics work replaces this file entirely.
#include <cstring>

#include "platform/dlgsvc.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrobj.h"

namespace {
DWORD g_debug = 0;
tagZREXCENTRY g_table[ZR_EXCEPTION_TABLE_SIZE];
}  // namespace

int ZROBJ_GetProfileInt(const char*, const char*, int defaultValue, int) { return defaultValue; }
int ZROBJ_WriteProfileInt(const char*, const char*, int) { return 1; }
UINT ZROBJ_GetCurrentSettingStr(const char*, const char*, const WCHAR* d, WCHAR* buffer, UINT length, int) {
  if (!buffer || !length) return 0;
  UINT n = 0;
  for (; d && d[n] && n + 1 < length; ++n) buffer[n] = d[n];
  buffer[n] = 0;
  return n;
}
int ZROBJ_GetCurrentSettingInt(const char*, const char*, int d, int) { return d; }
int ZROBJ_GetCurrentSettingBool(const char*, const char*, int d, int) { return d; }
void SetDebugMode(DWORD mode) { g_debug = mode; }
DWORD IsDebugOn() { return g_debug; }
tagZREXCENTRY* ZROBJ_GetExceptionTable() { return g_table; }
int DetailedMessageBeep(UINT, const char* file, int line) {
  wPrintf(0, 9, u"\rMessage Beep: %hs, line %d\r\n", file, line);
  return 1;
}
void WarningMsg(const WCHAR* text, std::uintptr_t, std::uintptr_t) {
  if (g_debug) wPrintf(0, 3, u"\r\nWarning: %s\r\n", text);
}
