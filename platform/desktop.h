// The desktop calls of a system without a window system: message boxes, beeps, key states, dialog
// item texts and debugger breaks go to small replaceable handlers so that tests can observe them.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

namespace zr::os {

inline constexpr UINT MB_OK = 0x00;
inline constexpr UINT MB_ICONSTOP = 0x10;
inline constexpr int IDOK = 1;

// Default: prints "\rMessageBox [caption]: text\r\n" on channel 0 level 0 and answers IDOK.
int MessageBoxW(HWND owner, const WCHAR* text, const WCHAR* caption, UINT style);
// Default: prints "\rMessageBeep 0x%08X\r\n" on channel 0 level 9 and succeeds.
BOOL MessageBeep(UINT type);
// Default: no key is ever down (0).
short GetAsyncKeyState(int virtualKey);
// Default: the texts live in a process-wide table keyed by dialog and control id.
BOOL SetDlgItemTextW(HWND dialog, int controlId, const WCHAR* text);
// Copies at most `max`-1 characters and terminates; returns the characters copied (0 if unknown).
UINT GetDlgItemTextW(HWND dialog, int controlId, WCHAR* buffer, int max);
// Default: raises SIGTRAP when a debugger is attached, else prints "\rDebugBreak: no debugger
// attached, continuing\r\n" on channel 0 level 3 and returns.
void DebugBreak();
// No common controls exist: does nothing.
void InitCommonControls();

// Empty members use the defaults above.
struct DesktopHandlers {
  std::function<int(HWND owner, std::u16string_view text, std::u16string_view caption, UINT style)> message_box;
  std::function<BOOL(UINT type)> message_beep;
  std::function<short(int virtual_key)> async_key_state;
  std::function<BOOL(HWND dialog, int control_id, std::u16string_view text)> set_dlg_item_text;
  std::function<std::optional<std::u16string>(HWND dialog, int control_id)> get_dlg_item_text;
  std::function<void()> debug_break;
};

// Installs `handlers` and returns the previous set.
DesktopHandlers SetDesktopHandlers(DesktopHandlers handlers);

// True when a tracer (debugger) is attached to this process.
bool IsDebuggerAttached();

}  // namespace zr::os
