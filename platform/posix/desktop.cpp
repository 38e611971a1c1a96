// Replaceable desktop handlers with diagnostics-line defaults, and the debugger check.
#include "platform/desktop.h"

#include <signal.h>

#include <fstream>
#include <map>
#include <mutex>
#include <utility>

#include "platform/dlgsvc.h"
#include "platform/text.h"

namespace zr::os {

namespace {

struct DesktopState {
  std::mutex mutex;
  DesktopHandlers handlers;
  std::map<std::pair<HWND, int>, std::u16string> dialog_items;  // default dialog item store
};

DesktopState& State() {
  static DesktopState* state = new DesktopState;  // never destroyed: used during unload
  return *state;
}

DesktopHandlers Current() {
  DesktopState& s = State();
  std::lock_guard lock(s.mutex);
  return s.handlers;
}

}  // namespace

DesktopHandlers SetDesktopHandlers(DesktopHandlers handlers) {
  DesktopState& s = State();
  std::lock_guard lock(s.mutex);
  return std::exchange(s.handlers, std::move(handlers));
}

bool IsDebuggerAttached() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("TracerPid:", 0) == 0) return std::strtol(line.c_str() + 10, nullptr, 10) != 0;
  return false;
}

int MessageBoxW(HWND owner, const WCHAR* text, const WCHAR* caption, UINT style) {
  const std::u16string_view t = text ? text : u"";
  const std::u16string_view c = caption ? caption : u"";
  if (const auto h = Current().message_box) return h(owner, t, c, style);
  wPrintf(0, 0, u"\rMessageBox [%s]: %s\r\n", std::u16string(c), std::u16string(t));
  return IDOK;
}

BOOL MessageBeep(UINT type) {
  if (const auto h = Current().message_beep) return h(type);
  wPrintf(0, 9, u"\rMessageBeep 0x%08X\r\n", type);
  return TRUE;
}

short GetAsyncKeyState(int virtualKey) {
  if (const auto h = Current().async_key_state) return h(virtualKey);
  return 0;
}

BOOL SetDlgItemTextW(HWND dialog, int controlId, const WCHAR* text) {
  const std::u16string_view t = text ? text : u"";
  if (const auto h = Current().set_dlg_item_text) return h(dialog, controlId, t);
  DesktopState& s = State();
  std::lock_guard lock(s.mutex);
  s.dialog_items[{dialog, controlId}] = std::u16string(t);
  return TRUE;
}

UINT GetDlgItemTextW(HWND dialog, int controlId, WCHAR* buffer, int max) {
  if (!buffer || max <= 0) return 0;
  buffer[0] = 0;
  std::optional<std::u16string> text;
  if (const auto h = Current().get_dlg_item_text) {
    text = h(dialog, controlId);
  } else {
    DesktopState& s = State();
    std::lock_guard lock(s.mutex);
    const auto it = s.dialog_items.find({dialog, controlId});
    if (it != s.dialog_items.end()) text = it->second;
  }
  return text ? static_cast<UINT>(WStrCopy(buffer, static_cast<std::size_t>(max), *text)) : 0;
}

void DebugBreak() {
  if (const auto h = Current().debug_break) return h();
  if (IsDebuggerAttached()) {
    ::raise(SIGTRAP);
    return;
  }
  wPrintf(0, 3, u"\rDebugBreak: no debugger attached, continuing\r\n");
}

void InitCommonControls() {}

}  // namespace zr::os
