// Diagnostics modes, the exception table and its trap modes, warnings, stub messages, logged
// beeps, assertion reports and the dialog hex helpers.
#include "zrobj/zrdiag.h"

#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/desktop.h"
#include "platform/dlgsvc.h"
#include "platform/module.h"
#include "platform/platdiag.h"
#include "platform/text.h"
#include "frame/frame_internal.h"
#include "zrobj/zrobj.h"

namespace os = zr::os;

namespace {

DWORD g_debug_mode = 0;
DWORD g_debug_keys = 0;

constexpr tagZREXCENTRY Entry(DWORD code, std::u16string_view name) {
  tagZREXCENTRY e{};
  e.dwCode = code;
  for (std::size_t i = 0; i < name.size() && i < 31; ++i) e.szName[i] = name[i];
  return e;
}

// Entries 0..20 are matched against exception codes; 21 and 22 steer warnings and expected ones.
// The defaults stay constant (the crash handler reads codes and names from them); the live table
// starts as their copy, made at compile time, so it is ready before any code of the library runs.
constexpr std::array<tagZREXCENTRY, ZR_EXCEPTION_TABLE_SIZE> kDefaultExceptions = {
    Entry(0xC0000005u, u"ACCESS_VIOLATION"),         Entry(0x80000002u, u"DATATYPE_MISALIGNMENT"),
    Entry(0x80000003u, u"BREAKPOINT"),               Entry(0x80000004u, u"SINGLE_STEP"),
    Entry(0xC000008Cu, u"ARRAY_BOUNDS_EXCEEDED"),    Entry(0xC000008Du, u"FLT_DENORMAL_OPERAND"),
    Entry(0xC000008Eu, u"FLT_DIVIDE_BY_ZERO"),       Entry(0xC000008Fu, u"FLT_INEXACT_RESULT"),
    Entry(0xC0000090u, u"FLT_INVALID_OPERATION"),    Entry(0xC0000091u, u"FLT_OVERFLOW"),
    Entry(0xC0000092u, u"FLT_STACK_CHECK"),          Entry(0xC0000093u, u"FLT_UNDERFLOW"),
    Entry(0xC0000094u, u"INT_DIVIDE_BY_ZERO"),       Entry(0xC0000095u, u"INT_OVERFLOW"),
    Entry(0xC0000096u, u"PRIV_INSTRUCTION"),         Entry(0xC0000006u, u"IN_PAGE_ERROR"),
    Entry(0xC000001Du, u"ILLEGAL_INSTRUCTION"),      Entry(0xC0000025u, u"NONCONTINUABLE_EXCEPTION"),
    Entry(0xC00000FDu, u"STACK_OVERFLOW"),           Entry(0xC0000026u, u"INVALID_DISPOSITION"),
    Entry(0x80000001u, u"GUARD_PAGE"),               Entry(0, u"Warnings (Debug)"),
    Entry(0, u"Expected exceptions"),
};
constinit std::array<tagZREXCENTRY, ZR_EXCEPTION_TABLE_SIZE> g_exceptions = kDefaultExceptions;

// Trap mode of a "TRAP_EXC%d" value: 1 breaks, 2 means mode 16 (hexadecimal 10), anything else 0.
DWORD TrapModeOf(int value) {
  if (value == 1) return 1;
  if (value == 2) return 0x10;
  return 0;
}

// The entry's filter text, terminated even when a debugger filled all 16 bytes.
std::string FilterText(const tagZREXCENTRY& entry) {
  return std::string(entry.szFilter, strnlen(entry.szFilter, sizeof entry.szFilter));
}

int HexValue(char16_t c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

// What "%08X" of the C library's scanf reads: blanks skipped, then at most 8 characters of an
// optional sign, an optional 0x prefix and hex digits. 0 when no digit was read.
int ScanHex8(const char16_t* text) {
  while (*text == u' ' || (*text >= u'\t' && *text <= u'\r')) ++text;
  int width = 8;
  bool negative = false;
  if (*text == u'+' || *text == u'-') {
    negative = *text == u'-';
    ++text;
    --width;
  }
  if (width >= 3 && text[0] == u'0' && (text[1] == u'x' || text[1] == u'X') && HexValue(text[2]) >= 0) {
    text += 2;
    width -= 2;
  }
  std::uint32_t value = 0;
  for (; width > 0 && HexValue(*text) >= 0; --width, ++text) value = value * 16 + static_cast<std::uint32_t>(HexValue(*text));
  if (negative) value = 0u - value;
  return static_cast<int>(value);
}

}  // namespace

namespace zr {

void InitDiagnostics() {
  g_debug_mode = static_cast<DWORD>(os::Is_wPrintf_Active(0));
  g_debug_keys = static_cast<DWORD>(ZROBJ_GetProfileInt("ZROUtil", "DEBUGKEYS", 0, 1));
  const int trap_all = ZROBJ_GetProfileInt("ZROUtil", "TRAPALL", 0, 1);
  const int fallback = trap_all < 2 ? trap_all : 2;
  for (int n = 0; n < ZR_EXCEPTION_TABLE_SIZE; ++n) {
    const std::string key = "TRAP_EXC" + std::to_string(n);
    g_exceptions[n].dwTrapMode = TrapModeOf(ZROBJ_GetProfileInt("ZROUtil", key.c_str(), fallback, 0));
  }
}

}  // namespace zr

tagZREXCENTRY* ZROBJ_GetExceptionTable() { return g_exceptions.data(); }

void SetDebugMode(DWORD mode) { g_debug_mode = mode; }

DWORD IsDebugOn() { return g_debug_mode; }

int SetDebugKeyMode(int mode) {
  g_debug_keys = static_cast<DWORD>(mode);
  ZROBJ_WriteProfileInt("ZROUtil", "DEBUGKEYS", mode);
  return mode;
}

DWORD IsDebugKeysOn() { return g_debug_keys; }

int IsAsyncKeyPressed(int virtualKey) {
  if (!g_debug_keys) return 0;
  return (static_cast<unsigned short>(os::GetAsyncKeyState(virtualKey)) & 0x8000u) ? 1 : 0;
}

void WarningMsg(const WCHAR* text, std::uintptr_t callerAddress, std::uintptr_t callerFrame) {
  const tagZREXCENTRY& entry = g_exceptions[ZR_EXC_WARNINGS];
  const DWORD mode = entry.dwTrapMode;
  if (!g_debug_mode || (mode & 2)) return;
  if (entry.lower < entry.upper && (callerAddress < entry.lower || callerAddress >= entry.upper)) return;
  if ((mode & 8) && !os::WalkCallStack(callerAddress, callerFrame, -1, FilterText(entry).c_str())) return;
  os::wPrintf(0, 3, u"\r\nWarning: %s\r\n", text);
  os::WalkCallStack(callerAddress, callerFrame, (mode & 4) ? 1 : -1, nullptr);
  if (mode & 1) os::DebugBreak();
}

int DebugException() {
  if (g_exceptions[ZR_EXC_EXPECTED].dwTrapMode & 1) os::DebugBreak();
  return 1;
}

int StubMsg(const WCHAR* functionName, std::uintptr_t callerAddress) {
  const std::u16string module = os::Utf8ToUtf16(os::ModuleFileNameFromAddress(callerAddress));
  std::u16string text = os::FormatWide(u"%s called by %s no longer supported", functionName, module);
  if (text.size() > ZR_MAX_PATH - 1) text.resize(ZR_MAX_PATH - 1);
  return os::MessageBoxW(nullptr, text.c_str(), u"STUB MESSAGE", os::MB_ICONSTOP);
}

int DetailedMessageBeep(UINT type, const char* file, int line) {
  os::wPrintf(0, 9, u"\rMessage Beep: %hs, line %d\r\n", file, line);
  return os::MessageBeep(type);
}

int _SetDlgItemHex(HWND dialog, int controlId, int value) {
  return os::SetDlgItemTextW(dialog, controlId, os::FormatWide(u"%08X", value).c_str());
}

int _GetDlgItemHex(HWND dialog, int controlId) {
  WCHAR text[11];
  os::GetDlgItemTextW(dialog, controlId, text, 11);
  return ScanHex8(text);
}

int ZROBJ_ReportAssertionFailure(const WCHAR* testName, DWORD line, const char* file, std::uintptr_t callerAddress,
                                 std::uintptr_t callerFrame) {
  os::wPrintf(3, 0, u"\r\nAssertion [%s] failed! Line: %d File:%hs\r\n", testName, line, file);
  os::WalkCallStack(callerAddress, callerFrame, -1, nullptr);
  return 0;
}

// --- redirecting the output ---------------------------------------------------------------------

namespace zr {

DiagListener::~DiagListener() = default;

struct ScopedDiagRedirect::State final : os::DiagSink {
  explicit State(DiagListener* l) : listener(l), previous_filter(os::GetDiagFilter()) {}
  void Write(unsigned channel, unsigned level, std::u16string_view text) override {
    listener->OnMessage(channel, level, text);
  }
  DiagListener* listener;
  os::DiagFilter previous_filter;
  os::DiagSink* previous_sink = nullptr;
};

ScopedDiagRedirect::ScopedDiagRedirect(DiagListener* listener) : state_(new State(listener)) {
  os::DiagFilter all = state_->previous_filter;
  all.channel_mask = 0xFFFFFFFFu;
  all.max_level = 0xFFFFFFFFu;
  os::SetDiagFilter(all);
  state_->previous_sink = os::SetDiagSink(state_);
}

ScopedDiagRedirect::~ScopedDiagRedirect() {
  os::SetDiagSink(state_->previous_sink);
  os::SetDiagFilter(state_->previous_filter);
  delete state_;
}

void SetDiagnosticsActive(bool active) {
  os::DiagFilter filter = os::GetDiagFilter();
  filter.active = active;
  os::SetDiagFilter(filter);
  SetDebugMode(active ? 1 : 0);
}

}  // namespace zr

const tagZREXCENTRY* zr::DefaultExceptionTable() { return kDefaultExceptions.data(); }
