// zrtool demo: a guided run through the library, section by section (start-up, settings,
// diagnostics here; other subsystems add their own sections with ZRTOOL_DEMO_SECTION).
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "tools/zrtool/demo.h"
#include "tools/zrtool/text.h"
#include "zrobj/costhread.h"
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
  for (char c : ToNarrow(text)) {
    if (c == '\r') out += "\\r";
    else if (c == '\n') out += "\\n";
    else out.push_back(c);
  }
  return out;
}

std::string Utf8(const WCHAR* text) { return ToNarrow(text); }

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

void DemoContext::ShowDiagnostics(const DiagCapture& capture) const {
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
  ZROBJ_GetModuleFileName(ZROBJ_GetModuleHandle(), path, ZR_MAX_PATH);
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
  COSThreadRegister::GetCurrentName(name, 256);
  demo.Say("this thread:       " + Utf8(name));
  std::u16string worker = u"?";
  std::thread([&] {
    WCHAR n[256];  // a thread that asks for its name first is attached and named
    if (COSThreadRegister::GetCurrentName(n, 256)) worker = n;
  }).join();
  demo.Say("a new thread:      " + ToNarrow(worker));

  ZROBJ_AppInitialize();
  ZROBJ_AppInitialize();
  demo.Say("after two ZROBJ_AppInitialize calls the init count is " + std::to_string(ZROBJ_GetInitCount()));
  ZROBJ_AppExit();
  demo.Say("after one ZROBJ_AppExit: " + std::to_string(ZROBJ_GetInitCount()) + " (watch ranges not yet saved)");
  ZROBJ_AppExit();
  demo.Say("after the last one: " + std::to_string(ZROBJ_GetInitCount()) + "; watch ranges saved to ZRO.INI:");
  demo.ShowFile(SettingsFilePath("ZRO.INI"));

  RegisterFileType(u".zrs", u"vorn.Shortcut", u"vorn. shortcut", nullptr, u"notepad.exe %1");
  demo.Say("file type .zrs registered in the class-key store (each default value keeps half its text:");
  demo.Say("the length is passed as characters + 1, in bytes):");
  demo.ShowFile(SettingsFilePath("HKCR.INI"));
  return ZROBJ_GetInitCount() == 0 ? 0 : 1;
}

// --- settings ---------------------------------------------------------------------------------

int DemoSettings(DemoContext& demo) {
  demo.Say("Windows directory: " + demo.home());
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
  demo.ShowFile(SettingsFilePath("ZRO.VST"));
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
    DiagCapture capture;
    warnings.dwTrapMode = 4;  // trace one frame only
    WarnFromHere(u"CHeap::Free: block freed twice (demo)");
    demo.Say("a warning with a one-frame trace (trap mode 4 of \"Warnings (Debug)\"):");
    demo.ShowDiagnostics(capture);
  }
  {
    DiagCapture capture;
    DetailedMessageBeep(0x30, __FILE__, __LINE__);
    demo.Say("a logged message beep:");
    demo.ShowDiagnostics(capture);
  }
  {
    DiagCapture capture;
    StubMsg(u"ZROBJ_OldEntry", ZR_CALLER_ADDRESS());
    demo.Say("an entry point that is no longer supported:");
    demo.ShowDiagnostics(capture);
  }
  HWND dialog = reinterpret_cast<HWND>(0x1);
  _SetDlgItemHex(dialog, 100, 48879);
  demo.Say("dialog hex field: 48879 written as eight hex digits reads back as " +
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

// Marks the run of the demo that the demo started on its temporary settings directory.
constexpr const char* kChildMark = "ZRTOOL_DEMO_CHILD";

std::string ShellQuoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// The library reads its settings directory once it is loaded, so the demo runs itself again with
// ZROBJ_HOME set to the temporary directory (and the listener switched on when it is on here).
int RunInHome(const std::string& home, const std::vector<std::string>& only) {
  std::error_code ec;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (ec) return Fail("cannot find the zrtool program to run the demo");
  std::string command = std::string(kChildMark) + "=1 ZROBJ_HOME=" + ShellQuoted(home);
  if (IsDebugOn()) command += " ZROBJ_DIAG_ACTIVE=1";
  command += " " + ShellQuoted(self.string()) + " demo";
  for (const std::string& name : only) command += " " + ShellQuoted(name);
  std::fflush(stdout);
  const int status = std::system(command.c_str());
  if (status == -1 || (status & 0x7F) != 0) return Fail("the demo could not run or was killed");
  return (status >> 8) & 0xFF;  // the exit status, as the wait status encodes it
}

int RunSections(const std::vector<std::string>& only, bool user_home) {
  DemoContext context(std::filesystem::path(SettingsFilePath("ZRO.INI")).parent_path().string());
  std::printf("zrobju demo (settings in %s%s)\n", context.home().c_str(), user_home ? ", the user's own" : "");
  int failed = 0;
  for (const DemoSection& s : DemoSections()) {
    if (!only.empty() && std::find(only.begin(), only.end(), s.name) == only.end()) continue;
    std::printf("\n== %s ==\n", s.title);
    const int rc = s.run(context);
    if (rc != 0) {
      std::printf("  !! section %s failed\n", s.name);
      ++failed;
    }
  }
  std::printf("\n%s\n", failed ? "demo finished with failures" : "demo finished");
  return failed ? 1 : 0;
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

  if (user_home || std::getenv(kChildMark)) return RunSections(only, user_home);
  const std::string temp = MakeTempHome();
  if (temp.empty()) return Fail("cannot create a temporary directory for the demo's settings");
  const int status = RunInHome(temp, only);
  if (!keep) {
    std::error_code ec;
    std::filesystem::remove_all(temp, ec);
  }
  return status;
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
