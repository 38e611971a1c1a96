// zrtool demo: a guided run through the library, section by section (start-up, settings,
// diagnostics here; other subsystems add their own sections with ZRTOOL_DEMO_SECTION).
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "platform/desktop.h"
#include "platform/module.h"
#include "platform/profile.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "tools/zrtool/demo.h"
#include "frame/frame_internal.h"
#include "os/threads/costhread_internal.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrobj.h"

namespace zrtool {

namespace {

std::vector<DemoSection>& MutableSections() {
  static std::vector<DemoSection> sections;
  return sections;
}

std::string Visible(const std::u16string& text) {
  std::string out;
  for (char c : zr::os::Utf16ToUtf8(text)) {
    if (c == '\r') out += "\\r";
    else if (c == '\n') out += "\\n";
    else out.push_back(c);
  }
  return out;
}

std::string Utf8(const WCHAR* text) { return zr::os::Utf16ToUtf8(text); }

}  // namespace

bool RegisterDemoSection(const DemoSection& section) {
  MutableSections().push_back(section);
  return true;
}

const std::vector<DemoSection>& DemoSections() {
  auto& sections = MutableSections();
  std::stable_sort(sections.begin(), sections.end(),
                   [](const DemoSection& a, const DemoSection& b) { return a.order < b.order; });
  return sections;
}

void DemoContext::Say(const std::string& text) const { std::printf("  %s\n", text.c_str()); }

void DemoContext::ShowDiagnostics(const zr::os::ScopedDiagCapture& capture) const {
  for (const auto& e : capture.Entries())
    std::printf("    [%u:%u] %s\n", e.channel, e.level, Visible(e.text).c_str());
}

void DemoContext::ShowFile(const std::string& path) const {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line))
    if (!line.empty()) std::printf("    | %s\n", line.c_str());
}

namespace {

// --- start-up and shut-down -------------------------------------------------------------------

int DemoStartup(DemoContext& demo) {
  WCHAR path[ZR_MAX_PATH];
  zr::os::GetModuleFileNameW(ZROBJ_GetModuleHandle(), path, ZR_MAX_PATH);
  demo.Say("library file:      " + Utf8(path));
  ZROBJ_GetAppRootDir(path);
  demo.Say("application root:  " + Utf8(path));
  const std::string product = Utf8(ZROBJ_GetProductName());
  demo.Say("product name:      " + (product.empty() ? "(none: no resource/*.sc beside the library)" : product));
  const SYSTEM_INFO* info = ZROBJ_GetSystemInfo();
  demo.Say("system:            " + std::to_string(info->dwNumberOfProcessors) + " processors, page " +
           std::to_string(info->dwPageSize) + " bytes, allocation granularity " +
           std::to_string(info->dwAllocationGranularity));

  WCHAR name[256] = u"?";
  zr::steps::GetCurrentThreadName(name, 256);
  demo.Say("this thread:       " + Utf8(name));
  std::u16string worker = u"?";
  std::thread([&] {
    zr::EnsureThreadAttached();  // a thread is attached on its first use of the library
    WCHAR n[256];
    if (zr::steps::GetCurrentThreadName(n, 256)) worker = n;
  }).join();
  demo.Say("a new thread:      " + zr::os::Utf16ToUtf8(worker));

  ZROBJ_AppInitialize();
  ZROBJ_AppInitialize();
  demo.Say("after two ZROBJ_AppInitialize calls the init count is " + std::to_string(ZROBJ_GetInitCount()));
  ZROBJ_AppExit();
  demo.Say("after one ZROBJ_AppExit: " + std::to_string(ZROBJ_GetInitCount()) + " (watch ranges not yet saved)");
  ZROBJ_AppExit();
  demo.Say("after the last one: " + std::to_string(ZROBJ_GetInitCount()) + "; watch ranges saved to ZRO.INI:");
  demo.ShowFile(zr::os::ProfileFilePath("ZRO.INI"));

  RegisterFileType(u".zrs", u"vorn.Shortcut", u"vorn. shortcut", nullptr, u"notepad.exe %1");
  zr::os::HKEY key = nullptr;
  BYTE data[64] = {};
  DWORD size = sizeof data;
  if (zr::os::RegOpenKeyExW(HKEY_CLASSES_ROOT, u".zrs", 0, zr::os::KEY_READ, &key) == ERROR_SUCCESS) {
    zr::os::RegQueryValueExW(key, nullptr, nullptr, nullptr, data, &size);
    zr::os::RegCloseKey(key);
  }
  std::u16string stored(reinterpret_cast<const char16_t*>(data), size / 2);
  demo.Say("file type .zrs registered; its key keeps \"" + zr::os::Utf16ToUtf8(stored) + "\" (" +
           std::to_string(size) + " bytes: the length is passed as characters + 1)");
  return ZROBJ_GetInitCount() == 0 ? 0 : 1;
}

// --- settings ---------------------------------------------------------------------------------

int DemoSettings(DemoContext& demo) {
  demo.Say("Windows directory: " + zr::os::WindowsDirectory());
  const int answer = ZROBJ_GetProfileInt("Demo", "Answer", 42, 1);
  demo.Say("ZRO.INI [Demo] Answer, missing, read with write-default: " + std::to_string(answer));
  ZROBJ_WriteProfileInt("Demo", "Count", 7);
  demo.Say("ZRO.INI [Demo] Count written as 7, read back: " +
           std::to_string(ZROBJ_GetProfileInt("Demo", "Count", 0, 0)));

  int failures = 0;
  failures += !ZROBJ_WriteCurrentSettingStr("Demo", "Title", u"Caf\u00e9 \"night\" edit");
  failures += !ZROBJ_WriteCurrentSettingInt("Demo", "Width", 1920);
  failures += !ZROBJ_WriteCurrentSettingBool("Demo", "Preview", 1);
  WCHAR title[64];
  ZROBJ_GetCurrentSettingStr("Demo", "Title", u"", title, 64, 0);
  demo.Say("ZRO.VST [Demo] Title read back: " + Utf8(title));
  demo.Say("ZRO.VST [Demo] Width, Preview read back: " +
           std::to_string(ZROBJ_GetCurrentSettingInt("Demo", "Width", 0, 0)) + ", " +
           std::to_string(ZROBJ_GetCurrentSettingBool("Demo", "Preview", 0, 0)));
  demo.Say(std::string("writing an empty Title is refused: ") +
           (ZROBJ_WriteCurrentSettingStr("Demo", "Title", u"") ? "stored (unexpected)" : "yes"));
  WCHAR shortbuf[5];
  ZROBJ_GetCurrentSettingStr("Demo", "Codec", u"h264-high", shortbuf, 5, 1);
  demo.Say("a default longer than the buffer (5) comes back cut: " + Utf8(shortbuf));
  demo.Say("ZRO.VST now holds:");
  demo.ShowFile(zr::os::ProfileFilePath("ZRO.VST"));
  return failures == 0 ? 0 : 1;
}

// --- diagnostics ------------------------------------------------------------------------------

void WarnFromHere(const char16_t* text) { WarningMsg(text, ZR_CALLER_ADDRESS(), ZR_CURRENT_FRAME()); }

int DemoDiagnostics(DemoContext& demo) {
  const DWORD old_mode = IsDebugOn();
  tagZREXCENTRY& warnings = ZROBJ_GetExceptionTable()[ZR_EXC_WARNINGS];
  const DWORD old_trap = warnings.dwTrapMode;
  SetDebugMode(1);
  {
    zr::os::ScopedDiagCapture capture;
    warnings.dwTrapMode = 4;  // trace one frame only
    WarnFromHere(u"CHeap::Free: block freed twice (demo)");
    demo.Say("a warning with a one-frame trace (trap mode 4 of \"Warnings (Debug)\"):");
    demo.ShowDiagnostics(capture);
  }
  {
    zr::os::ScopedDiagCapture capture;
    DetailedMessageBeep(0x30, __FILE__, __LINE__);
    demo.Say("a logged message beep:");
    demo.ShowDiagnostics(capture);
  }
  {
    zr::os::ScopedDiagCapture capture;
    StubMsg(u"ZROBJ_OldEntry", ZR_CALLER_ADDRESS());
    demo.Say("an entry point that is no longer supported:");
    demo.ShowDiagnostics(capture);
  }
  HWND dialog = reinterpret_cast<HWND>(0x1);
  _SetDlgItemHex(dialog, 100, 48879);
  WCHAR text[16];
  zr::os::GetDlgItemTextW(dialog, 100, text, 16);
  demo.Say("dialog hex field: 48879 shows as " + Utf8(text) + ", reads back as " +
           std::to_string(_GetDlgItemHex(dialog, 100)));
  const tagZREXCENTRY* table = ZROBJ_GetExceptionTable();
  char line[128];
  std::snprintf(line, sizeof line, "exception table: %d entries, e.g. 0x%08X %s, trap modes from [ZROUtil] TRAPALL",
                ZR_EXCEPTION_TABLE_SIZE, table[0].dwCode, Utf8(table[0].szName).c_str());
  demo.Say(line);
  warnings.dwTrapMode = old_trap;
  SetDebugMode(old_mode);
  return 0;
}

ZRTOOL_DEMO_SECTION("startup", 10, "Start-up and shut-down", DemoStartup);
ZRTOOL_DEMO_SECTION("settings", 20, "Settings: ZRO.INI and ZRO.VST", DemoSettings);
ZRTOOL_DEMO_SECTION("diagnostics", 30, "Diagnostics output", DemoDiagnostics);

// --- the command ------------------------------------------------------------------------------

std::string MakeTempHome() {
  std::random_device random;
  const auto base = std::filesystem::temp_directory_path();
  for (int attempt = 0; attempt < 16; ++attempt) {
    std::ostringstream name;
    name << "zrtool-demo-" << std::hex << random();
    std::error_code ec;
    if (std::filesystem::create_directory(base / name.str(), ec)) return (base / name.str()).string();
  }
  return {};
}

extern const Command kDemoCommand;

int RunDemo(const Args& args) {
  bool user_home = false, keep = false, list = false;
  std::vector<std::string> only;
  for (const std::string& a : args) {
    if (a == "--user-home") user_home = true;
    else if (a == "--keep") keep = true;
    else if (a == "--list") list = true;
    else if (!a.empty() && a[0] == '-') return UsageError(kDemoCommand, "unknown option " + a);
    else only.push_back(a);
  }
  const auto& sections = DemoSections();
  if (list) {
    for (const DemoSection& s : sections) std::printf("%-14s %s\n", s.name, s.title);
    return 0;
  }
  for (const std::string& name : only)
    if (std::none_of(sections.begin(), sections.end(), [&](const DemoSection& s) { return name == s.name; }))
      return UsageError(kDemoCommand, "no demo section named " + name);

  std::string temp;
  if (!user_home) {
    temp = MakeTempHome();
    if (temp.empty()) return Fail("cannot create a temporary directory for the demo's settings");
    zr::os::SetWindowsDirectoryForProcess(temp);
    zr::testing::ResetSettingsFile();  // the settings file follows the new directory
  }
  DemoContext context(zr::os::WindowsDirectory());
  std::printf("zrobju demo (settings in %s%s)\n", context.home().c_str(), user_home ? ", the user's own" : "");
  int failed = 0;
  for (const DemoSection& s : sections) {
    if (!only.empty() && std::find(only.begin(), only.end(), s.name) == only.end()) continue;
    std::printf("\n== %s ==\n", s.title);
    const int rc = s.run(context);
    if (rc != 0) {
      std::printf("  !! section %s failed\n", s.name);
      ++failed;
    }
  }
  if (!temp.empty() && !keep) {
    std::error_code ec;
    std::filesystem::remove_all(temp, ec);
  }
  std::printf("\n%s\n", failed ? "demo finished with failures" : "demo finished");
  return failed ? 1 : 0;
}

const Command kDemoCommand{
    "demo", "a guided run through the library's subsystems",
    "usage: zrtool demo [--list] [--user-home] [--keep] [SECTION...]\n\n"
    "Runs each demo section (all, or those named) and prints what happens.\n"
    "  --list       list the sections\n"
    "  --user-home  use the real settings directory instead of a temporary one\n"
    "  --keep       keep the temporary settings directory\n",
    RunDemo};

}  // namespace

ZRTOOL_COMMAND(kDemoCommand);

}  // namespace zrtool
