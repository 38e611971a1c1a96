// Diagnostics modes and reports: trap modes from the profile, warnings and their trap bits,
// expected exceptions, stub messages, logged beeps, dialog hex helpers, assertion reports and the
// desktop handlers they go through.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "frame_home.h"
#include "platform/desktop.h"
#include "platform/dlgsvc.h"
#include "platform/diag_capture.h"
#include "platform/module.h"
#include "platform/profile.h"
#include "platform/text.h"
#include "frame/frame_internal.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrobj.h"

namespace os = zr::os;

namespace {

using zrtest::ScopedHome;

// Restores the debug mode and the exception table after a test changed them.
class DiagState {
 public:
  DiagState() : mode_(IsDebugOn()) { std::memcpy(saved_, ZROBJ_GetExceptionTable(), sizeof saved_); }
  ~DiagState() {
    SetDebugMode(mode_);
    std::memcpy(ZROBJ_GetExceptionTable(), saved_, sizeof saved_);
  }

 private:
  DWORD mode_;
  tagZREXCENTRY saved_[ZR_EXCEPTION_TABLE_SIZE];
};

// Counts debugger breaks and records message boxes while installed.
struct Observed {
  int breaks = 0;
  int beeps = 0;
  UINT beep_type = 0;
  std::u16string box_text, box_caption;
  UINT box_style = 0;
  short key_state = 0;
};

class ScopedObserver {
 public:
  explicit ScopedObserver(Observed* o) {
    os::DesktopHandlers h;
    h.debug_break = [o] { ++o->breaks; };
    h.message_beep = [o](UINT type) { ++o->beeps, o->beep_type = type; return TRUE; };
    h.message_box = [o](HWND, std::u16string_view text, std::u16string_view caption, UINT style) {
      o->box_text = text, o->box_caption = caption, o->box_style = style;
      return 6;
    };
    h.async_key_state = [o](int) { return o->key_state; };
    previous_ = os::SetDesktopHandlers(std::move(h));
  }
  ~ScopedObserver() { os::SetDesktopHandlers(std::move(previous_)); }

 private:
  os::DesktopHandlers previous_;
};

DWORD TrapMode(int n) { return ZROBJ_GetExceptionTable()[n].dwTrapMode; }

TEST(ZrdiagTable, CodesNamesAndLayout) {
  const tagZREXCENTRY* t = ZROBJ_GetExceptionTable();
  EXPECT_EQ(t[0].dwCode, 0xC0000005u);
  EXPECT_EQ(os::Utf16ToUtf8(t[0].szName), "ACCESS_VIOLATION");
  EXPECT_EQ(t[12].dwCode, 0xC0000094u);
  EXPECT_EQ(os::Utf16ToUtf8(t[12].szName), "INT_DIVIDE_BY_ZERO");
  EXPECT_EQ(t[18].dwCode, 0xC00000FDu);
  EXPECT_EQ(t[20].dwCode, 0x80000001u);
  EXPECT_EQ(os::Utf16ToUtf8(t[20].szName), "GUARD_PAGE");
  EXPECT_EQ(t[ZR_EXC_WARNINGS].dwCode, 0u);
  EXPECT_EQ(os::Utf16ToUtf8(t[ZR_EXC_WARNINGS].szName), "Warnings (Debug)");
  EXPECT_EQ(os::Utf16ToUtf8(t[ZR_EXC_EXPECTED].szName), "Expected exceptions");
  EXPECT_EQ(offsetof(tagZREXCENTRY, dwTrapMode), 68u);
  EXPECT_EQ(offsetof(tagZREXCENTRY, szFilter), 72u);
  EXPECT_EQ(offsetof(tagZREXCENTRY, lower), 88u);
  EXPECT_EQ(sizeof(tagZREXCENTRY), 104u);
}

TEST(ZrdiagTable, TrapModesFromProfile) {
  DiagState state;
  {
    ScopedHome home;
    zr::InitDiagnostics();
    for (int n = 0; n < ZR_EXCEPTION_TABLE_SIZE; ++n) EXPECT_EQ(TrapMode(n), 0u) << n;
    char text[16];
    os::GetPrivateProfileStringA("ZROUtil", "TRAPALL", "", text, sizeof text, "ZRO.INI");
    EXPECT_STREQ(text, "0");  // written with its default
    os::GetPrivateProfileStringA("ZROUtil", "TRAP_EXC3", "none", text, sizeof text, "ZRO.INI");
    EXPECT_STREQ(text, "none");  // per-entry keys are read without write-default
  }
  {
    ScopedHome home;
    ZROBJ_WriteProfileInt("ZROUtil", "TRAPALL", 5);  // the default is clipped to 2: mode 16
    ZROBJ_WriteProfileInt("ZROUtil", "TRAP_EXC3", 7);
    ZROBJ_WriteProfileInt("ZROUtil", "TRAP_EXC4", 1);
    zr::InitDiagnostics();
    EXPECT_EQ(TrapMode(0), 0x10u);
    EXPECT_EQ(TrapMode(22), 0x10u);
    EXPECT_EQ(TrapMode(3), 0u);
    EXPECT_EQ(TrapMode(4), 1u);
  }
  {
    ScopedHome home;
    ZROBJ_WriteProfileInt("ZROUtil", "TRAPALL", 1);
    ZROBJ_WriteProfileInt("ZROUtil", "DEBUGKEYS", 1);
    zr::InitDiagnostics();
    for (int n = 0; n < ZR_EXCEPTION_TABLE_SIZE; ++n) EXPECT_EQ(TrapMode(n), 1u) << n;
    EXPECT_EQ(IsDebugKeysOn(), 1u);
  }
  ScopedHome home;
  zr::InitDiagnostics();
  EXPECT_EQ(IsDebugKeysOn(), 0u);
}

TEST(ZrdiagModes, DebugKeysAndKeyState) {
  ScopedHome home;
  Observed seen;
  ScopedObserver observer(&seen);
  seen.key_state = static_cast<short>(0x8000);
  EXPECT_EQ(SetDebugKeyMode(0), 0);
  EXPECT_EQ(IsAsyncKeyPressed(0x10), 0);  // held down, but debug keys are off
  EXPECT_EQ(SetDebugKeyMode(1), 1);
  EXPECT_EQ(ZROBJ_GetProfileInt("ZROUtil", "DEBUGKEYS", 0, 0), 1);
  EXPECT_EQ(IsAsyncKeyPressed(0x10), 1);
  seen.key_state = 1;  // pressed since the last call, but not down now
  EXPECT_EQ(IsAsyncKeyPressed(0x10), 0);
  SetDebugKeyMode(0);
  SetDebugMode(7);
  EXPECT_EQ(IsDebugOn(), 7u);
  SetDebugMode(0);
}

void WarnHere(const char16_t* text) { WarningMsg(text, ZR_CALLER_ADDRESS(), ZR_CURRENT_FRAME()); }

TEST(ZrdiagWarning, TrapBitsSteerTheReport) {
  DiagState state;
  Observed seen;
  ScopedObserver observer(&seen);
  tagZREXCENTRY& w = ZROBJ_GetExceptionTable()[ZR_EXC_WARNINGS];
  w.dwTrapMode = 0;
  os::ScopedDiagCapture capture;
  SetDebugMode(0);
  WarnHere(u"silent");
  EXPECT_TRUE(capture.Entries().empty());

  SetDebugMode(1);
  WarnHere(u"CHeap::Free: odd block");
  auto e = capture.Entries();
  ASSERT_GE(e.size(), 3u);  // the warning, two or more frames, the closing line break
  EXPECT_EQ(e[0].text, u"\r\nWarning: CHeap::Free: odd block\r\n");
  EXPECT_EQ(e[0].channel, 0u);
  EXPECT_EQ(e[0].level, 3u);
  EXPECT_NE(os::Utf16ToUtf8(e[1].text).find("frame_tests"), std::string::npos);
  EXPECT_EQ(seen.breaks, 0);

  capture.Clear();
  w.dwTrapMode = 4 | 1;  // one frame, then break
  WarnHere(u"one");
  e = capture.Entries();
  ASSERT_EQ(e.size(), 3u);
  EXPECT_EQ(e[2].text, u"\r\n");
  EXPECT_EQ(seen.breaks, 1);

  capture.Clear();
  w.dwTrapMode = 2;  // suppressed
  WarnHere(u"none");
  const std::uintptr_t here = ZR_CALLER_ADDRESS();
  w.dwTrapMode = 0;
  w.lower = here + 0x100000;  // the caller lies outside [lower, upper)
  w.upper = here + 0x200000;
  WarningMsg(u"outside", here, ZR_CURRENT_FRAME());
  EXPECT_TRUE(capture.Entries().empty());
  w.lower = here - 1;
  w.upper = here + 1;
  WarningMsg(u"inside", here, 0);
  ASSERT_FALSE(capture.Entries().empty());
  EXPECT_EQ(capture.Entries()[0].text, u"\r\nWarning: inside\r\n");
  w.lower = w.upper = 0;

  capture.Clear();
  w.dwTrapMode = 8;  // module filter: only callers whose stack passes through a matching module
  std::memcpy(w.szFilter, "no-such-module!!", 16);  // all 16 bytes used, no terminator
  WarnHere(u"filtered");
  EXPECT_TRUE(capture.Entries().empty());
  std::strcpy(w.szFilter, "frame_tests");
  WarnHere(u"accepted");
  ASSERT_FALSE(capture.Entries().empty());
  EXPECT_EQ(capture.Entries()[0].text, u"\r\nWarning: accepted\r\n");
}

TEST(ZrdiagReports, ExpectedExceptionsStubsBeepsAndAssertions) {
  DiagState state;
  Observed seen;
  ScopedObserver observer(&seen);
  ZROBJ_GetExceptionTable()[ZR_EXC_EXPECTED].dwTrapMode = 0x10;
  EXPECT_EQ(DebugException(), 1);
  EXPECT_EQ(seen.breaks, 0);
  ZROBJ_GetExceptionTable()[ZR_EXC_EXPECTED].dwTrapMode = 1;
  EXPECT_EQ(DebugException(), 1);
  EXPECT_EQ(seen.breaks, 1);

  EXPECT_EQ(StubMsg(u"OldEntry", reinterpret_cast<std::uintptr_t>(&ZROBJ_AppInitialize)), 6);
  WCHAR library[ZR_MAX_PATH];
  os::GetModuleFileNameW(ZROBJ_GetModuleHandle(), library, ZR_MAX_PATH);
  EXPECT_EQ(seen.box_text, u"OldEntry called by " + std::u16string(library) + u" no longer supported");
  EXPECT_EQ(seen.box_caption, u"STUB MESSAGE");
  EXPECT_EQ(seen.box_style, 16u);
  const std::u16string long_name(400, u'n');
  StubMsg(long_name.c_str(), 0);
  EXPECT_EQ(seen.box_text.size(), 259u);  // at most 260 characters with the terminator

  os::ScopedDiagCapture capture;
  SetDebugMode(0);
  EXPECT_EQ(DetailedMessageBeep(0x30, "cheap.cpp", 812), TRUE);
  ASSERT_EQ(capture.Entries().size(), 1u);
  EXPECT_EQ(capture.Entries()[0].text, u"\rMessage Beep: cheap.cpp, line 812\r\n");
  EXPECT_EQ(capture.Entries()[0].level, 9u);
  EXPECT_EQ(seen.beeps, 1);
  EXPECT_EQ(seen.beep_type, 0x30u);

  capture.Clear();
  EXPECT_EQ(ZROBJ_ReportAssertionFailure(ZR_ASSERT_TEST_NAMES[2], 42, "czrobj.cpp", ZR_CALLER_ADDRESS(),
                                         ZR_CURRENT_FRAME()),
            0);
  const auto e = capture.Entries();
  ASSERT_GE(e.size(), 2u);  // printed although the debug mode is off, with the stack
  EXPECT_EQ(e[0].text, u"\r\nAssertion [KIND] failed! Line: 42 File:czrobj.cpp\r\n");
  EXPECT_EQ(e[0].channel, 3u);
  EXPECT_EQ(e[0].level, 0u);
  EXPECT_TRUE(zr::FaultsOnCall([] { *reinterpret_cast<volatile int*>(std::uintptr_t{16}) = 1; }));
  EXPECT_FALSE(zr::FaultsOnCall([] {}));
}

TEST(ZrdiagDialog, HexFieldsAndDefaultHandlers) {
  HWND dialog = reinterpret_cast<HWND>(0x1234);
  EXPECT_TRUE(_SetDlgItemHex(dialog, 7, 26));
  WCHAR text[16];
  EXPECT_EQ(os::GetDlgItemTextW(dialog, 7, text, 16), 8u);
  EXPECT_EQ(os::Utf16ToUtf8(text), "0000001A");
  EXPECT_EQ(_GetDlgItemHex(dialog, 7), 26);
  _SetDlgItemHex(dialog, 7, -1);
  EXPECT_EQ(_GetDlgItemHex(dialog, 7), -1);
  const std::pair<const char16_t*, int> cases[] = {
      {u"zz", 0}, {u"1A", 26}, {u"  1a", 26}, {u"0x1F", 31}, {u"123456789", 0x12345678},
      {u"-2", -2}, {u"7fffffffff", 0x7FFFFFFF}, {u"", 0}, {u"0xg", 0}, {u"12zz", 0x12}};
  for (const auto& [input, value] : cases) {
    os::SetDlgItemTextW(dialog, 8, input);
    EXPECT_EQ(_GetDlgItemHex(dialog, 8), value) << os::Utf16ToUtf8(input);
  }
  EXPECT_EQ(_GetDlgItemHex(dialog, 99), 0);  // no such control

  os::ScopedDiagCapture capture;
  EXPECT_EQ(os::MessageBoxW(nullptr, u"text", u"Caption", os::MB_OK), os::IDOK);
  EXPECT_TRUE(os::MessageBeep(0x10));
  EXPECT_EQ(os::GetAsyncKeyState(0x41), 0);
  os::DebugBreak();  // no debugger attached under ctest: a line instead of a trap
  const auto e = capture.Entries();
  ASSERT_EQ(e.size(), 3u);
  EXPECT_EQ(e[0].text, u"\rMessageBox [Caption]: text\r\n");
  EXPECT_EQ(e[1].text, u"\rMessageBeep 0x00000010\r\n");
  EXPECT_EQ(e[2].text, u"\rDebugBreak: no debugger attached, continuing\r\n");
  EXPECT_FALSE(os::IsDebuggerAttached());
}

TEST(ZrdiagOutput, FilterAndFileFromProfileThenEnvironment) {
  ScopedHome home;
  const os::DiagFilter saved = os::GetDiagFilter();
  for (const char* name : {"ZROBJ_DIAG_ACTIVE", "ZROBJ_DIAG_CHANNELS", "ZROBJ_DIAG_LEVEL", "ZROBJ_DIAG_FILE"})
    ::unsetenv(name);
  os::WritePrivateProfileStringA("Diagnostics", "Active", "1", "ZRO.INI");
  os::WritePrivateProfileStringA("Diagnostics", "Channels", "0x9", "ZRO.INI");
  os::WritePrivateProfileStringA("Diagnostics", "MaxLevel", "4", "ZRO.INI");
  os::WritePrivateProfileStringA("Diagnostics", "File", "diag.log", "ZRO.INI");
  ::setenv("ZROBJ_DIAG_LEVEL", "3", 1);  // the environment has the last word
  os::ConfigureDiag();
  ::unsetenv("ZROBJ_DIAG_LEVEL");
  const os::DiagFilter f = os::GetDiagFilter();
  EXPECT_TRUE(f.active);
  EXPECT_EQ(f.channel_mask, 0x9u);
  EXPECT_EQ(f.max_level, 3u);
  EXPECT_EQ(os::Is_wPrintf_Active(3), 1);
  EXPECT_EQ(os::Is_wPrintf_Active(1), 0);
  os::wPrintf(3, 3, u"\rto the file %d\r\n", 1);
  os::wPrintf(3, 4, u"\rfiltered by level\r\n");
  os::wPrintf(1, 0, u"\rfiltered by channel\r\n");
  os::SetDiagOutputFile("");
  os::SetDiagFilter(saved);
  EXPECT_EQ(zrtest::ReadFile(home.File("diag.log")), "zrobj[3:3] to the file 1\n");
}

// A listener gets every channel and level while the redirection lives; redirections nest and the
// filter comes back afterwards.
TEST(ZrdiagRedirect, ListenerHearsEverythingWhileRedirected) {
  struct Recorder : zr::DiagListener {
    void OnMessage(unsigned channel, unsigned level, std::u16string_view text) override {
      lines.push_back(std::to_string(channel) + ":" + std::to_string(level) + " " + zr::os::Utf16ToUtf8(text));
    }
    std::vector<std::string> lines;
  };
  const zr::os::DiagFilter saved = zr::os::GetDiagFilter();
  zr::os::DiagFilter narrow = saved;
  narrow.channel_mask = 1u;
  narrow.max_level = 0;
  zr::os::SetDiagFilter(narrow);
  Recorder outer, inner;
  {
    zr::ScopedDiagRedirect to_outer(&outer);
    os::wPrintf(5, 12, u"deep %d", 1);
    {
      zr::ScopedDiagRedirect to_inner(&inner);
      os::wPrintf(0, 9, u"inner");
    }
    os::wPrintf(3, 0, u"outer again");
  }
  EXPECT_EQ(outer.lines, (std::vector<std::string>{"5:12 deep 1", "3:0 outer again"}));
  EXPECT_EQ(inner.lines, (std::vector<std::string>{"0:9 inner"}));
  EXPECT_EQ(zr::os::GetDiagFilter().channel_mask, 1u);
  EXPECT_EQ(zr::os::GetDiagFilter().max_level, 0u);
  zr::os::SetDiagFilter(saved);
}

TEST(ZrdiagRedirect, SetDiagnosticsActiveSwitchesTheListenerAndDebugMode) {
  const zr::os::DiagFilter saved = zr::os::GetDiagFilter();
  const DWORD mode = IsDebugOn();
  zr::SetDiagnosticsActive(true);
  EXPECT_EQ(os::Is_wPrintf_Active(0), 1);
  EXPECT_NE(IsDebugOn(), 0u);
  zr::SetDiagnosticsActive(false);
  EXPECT_EQ(os::Is_wPrintf_Active(0), 0);
  EXPECT_EQ(IsDebugOn(), 0u);
  zr::os::SetDiagFilter(saved);
  SetDebugMode(mode);
}

}  // namespace
