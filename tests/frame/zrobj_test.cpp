// Library lifecycle and settings: profile integers, current settings, concurrent writers, the entry
// point, thread attach and detach, application init/exit, root directory, product name, file types.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "frame_home.h"
#include "platform/clock.h"
#include "platform/diag_capture.h"
#include "platform/module.h"
#include "platform/profile.h"
#include "platform/registry.h"
#include "platform/text.h"
#include "platform/waitable.h"
#include "platform/wformat.h"
#include "test_support.h"
#include "frame/frame_internal.h"
#include "frame/startup/lifecycle_internal.h"
#include "object/czrobj_internal.h"
#include "persistence/locator_internal.h"
#include "os/threads/costhread_internal.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrobj.h"

namespace os = zr::os;

namespace {

using zrtest::ScopedHome;

std::string Profile(const char* section, const char* key) {
  char text[64];
  os::GetPrivateProfileStringA(section, key, "<none>", text, sizeof text, "ZRO.INI");
  return text;
}

std::string Utf8(const char16_t* s) { return os::Utf16ToUtf8(s); }

// A check inside a forked child: reports the line and fails the child's exit status.
#define CHILD_CHECK(cond)                                                              \
  do {                                                                                 \
    if (!(cond)) {                                                                     \
      std::fprintf(stderr, "child check failed at line %d: %s\n", __LINE__, #cond);    \
      return 1;                                                                        \
    }                                                                                  \
  } while (0)

TEST(ZrobjProfile, IntegersWithWriteDefault) {
  ScopedHome home;
  EXPECT_EQ(ZROBJ_GetProfileInt("Heaps", "NoWrite", 7, 0), 7);
  EXPECT_EQ(Profile("Heaps", "NoWrite"), "<none>");
  EXPECT_EQ(ZROBJ_GetProfileInt("Heaps", "Missing", -42, 1), -42);
  EXPECT_EQ(Profile("Heaps", "Missing"), "-42");  // the default appears, in decimal
  EXPECT_EQ(ZROBJ_GetProfileInt("HEAPS", "missing", 0, 1), -42);  // names are case-insensitive

  ASSERT_TRUE(os::WritePrivateProfileStringA("Heaps", "Text", "abc", "ZRO.INI"));
  EXPECT_EQ(ZROBJ_GetProfileInt("Heaps", "Text", 5, 1), 0);  // non-numeric text is 0, not the default
  EXPECT_EQ(Profile("Heaps", "Text"), "abc");
  os::WritePrivateProfileStringA("Heaps", "Mixed", " 17xyz", "ZRO.INI");
  EXPECT_EQ(ZROBJ_GetProfileInt("Heaps", "Mixed", 0, 0), 17);
  os::WritePrivateProfileStringA("Heaps", "Huge", "99999999999", "ZRO.INI");
  EXPECT_EQ(ZROBJ_GetProfileInt("Heaps", "Huge", 0, 0), INT_MAX);

  EXPECT_NE(ZROBJ_WriteProfileInt("Network", "Port", 4711), 0);
  EXPECT_EQ(Profile("Network", "Port"), "4711");
  EXPECT_EQ(ZROBJ_GetProfileInt(nullptr, "Port", 3, 1), 3);
  EXPECT_EQ(ZROBJ_GetProfileInt("Network", nullptr, 3, 1), 3);
  EXPECT_EQ(Profile("Network", "Port"), "4711");  // null names never list or delete anything
  EXPECT_EQ(ZROBJ_WriteProfileInt(nullptr, "Port", 1), 0);
}

TEST(ZrobjSettings, StringsIntegersBooleans) {
  ScopedHome home;
  WCHAR buffer[5];
  EXPECT_EQ(ZROBJ_GetCurrentSettingStr("Paths", "Long", u"abcdefgh", buffer, 5, 1), 4u);
  EXPECT_EQ(Utf8(buffer), "abcd");  // the default cut to length-1 characters
  WCHAR big[64];
  EXPECT_EQ(ZROBJ_GetCurrentSettingStr("Paths", "Long", u"x", big, 64, 0), 8u);  // written in full
  EXPECT_EQ(Utf8(big), "abcdefgh");
  EXPECT_EQ(ZROBJ_GetCurrentSettingStr("Paths", "Long", u"x", buffer, 5, 0), 4u);  // stored value cut too
  EXPECT_EQ(ZROBJ_GetCurrentSettingStr("Paths", "None", nullptr, big, 64, 0), 0u);
  EXPECT_EQ(ZROBJ_GetCurrentSettingStr("Paths", "None", u"d", nullptr, 64, 0), 0u);

  EXPECT_NE(ZROBJ_WriteCurrentSettingStr("Paths", "Keep", u"kept"), 0);
  EXPECT_EQ(ZROBJ_WriteCurrentSettingStr("Paths", "Keep", u""), 0);  // empty is refused
  ZROBJ_GetCurrentSettingStr("Paths", "Keep", u"", big, 64, 0);
  EXPECT_EQ(Utf8(big), "kept");

  // Any text survives the line-based file: blanks at the ends, quotes, backslashes, line breaks,
  // characters beyond the basic plane.
  const char16_t tricky[] = u"  \"quoted\\path\"\r\nnext\t\xD83D\xDE00 ";
  EXPECT_NE(ZROBJ_WriteCurrentSettingStr("Paths", "Tricky", tricky), 0);
  os::IniDropCache();
  ZROBJ_GetCurrentSettingStr("Paths", "tricky", u"", big, 64, 0);
  EXPECT_EQ(std::u16string(big), std::u16string(tricky));

  EXPECT_EQ(ZROBJ_GetCurrentSettingInt("Nums", "A", 12, 0), 12);
  EXPECT_EQ(ZROBJ_GetCurrentSettingInt("Nums", "A", 12, 1), 12);
  EXPECT_EQ(ZROBJ_GetCurrentSettingInt("Nums", "A", 99, 0), 12);  // the default was written
  EXPECT_NE(ZROBJ_WriteCurrentSettingInt("Nums", "B", -2147483647 - 1), 0);
  EXPECT_EQ(ZROBJ_GetCurrentSettingInt("Nums", "B", 0, 0), INT_MIN);
  ZROBJ_WriteCurrentSettingStr("Nums", "C", u"12abc");
  EXPECT_EQ(ZROBJ_GetCurrentSettingInt("Nums", "C", 5, 0), 5);  // not an integer: the default

  EXPECT_EQ(ZROBJ_GetCurrentSettingBool("Flags", "On", 1, 1), 1);
  EXPECT_NE(ZROBJ_WriteCurrentSettingBool("Flags", "Off", 0), 0);
  EXPECT_EQ(ZROBJ_GetCurrentSettingBool("Flags", "Off", 1, 0), 0);
  ZROBJ_WriteCurrentSettingStr("Flags", "Word", u"Yes");
  EXPECT_EQ(ZROBJ_GetCurrentSettingBool("Flags", "Word", 0, 0), 1);
}

TEST(ZrobjSettings, UnreadableOrCorruptFileGivesDefaults) {
  ScopedHome home;
  const std::string vst = home.File("ZRO.VST");
  // A file that exists but cannot be read: defaults, no writes, and a new attempt on every use.
  std::filesystem::create_directories(vst);
  WCHAR buffer[16];
  EXPECT_EQ(ZROBJ_GetCurrentSettingStr("S", "K", u"dflt", buffer, 16, 1), 4u);
  EXPECT_EQ(Utf8(buffer), "dflt");
  EXPECT_EQ(ZROBJ_GetCurrentSettingInt("S", "K", 3, 1), 3);
  EXPECT_EQ(ZROBJ_WriteCurrentSettingInt("S", "K", 4), 0);
  EXPECT_TRUE(std::filesystem::is_directory(vst));
  std::filesystem::remove(vst);
  EXPECT_NE(ZROBJ_WriteCurrentSettingInt("S", "K", 4), 0);  // the retry succeeds
  EXPECT_EQ(ZROBJ_GetCurrentSettingInt("S", "K", 3, 0), 4);

  // Garbage, NUL bytes and broken lines: whatever cannot be read is simply not there.
  std::string junk = "[S\n=K\nK=\xff\xfe\n[";
  junk += std::string("\0\0[T]\nX=1\n", 11);
  for (int i = 0; i < 4000; ++i) junk.push_back(static_cast<char>((i * 7919) % 256));
  ASSERT_TRUE(zrtest::WriteFile(vst, junk));
  os::IniDropCache();
  EXPECT_EQ(ZROBJ_GetCurrentSettingInt("S", "Missing", 9, 0), 9);
  EXPECT_EQ(ZROBJ_GetCurrentSettingInt("T", "X", 0, 0), 1);  // what follows a NUL still reads
  EXPECT_NE(ZROBJ_WriteCurrentSettingInt("S", "New", 8), 0);
  EXPECT_EQ(ZROBJ_GetCurrentSettingInt("S", "New", 0, 0), 8);
}

TEST(ZrobjSettings, ReadingWithoutDefaultTellsMissingFromUnreadable) {
  ScopedHome home;
  char text[8];
  EXPECT_EQ(ZROBJ_ReadProfileString("Tool", "Name", text, sizeof text), 0);
  EXPECT_STREQ(text, "");
  EXPECT_NE(ZROBJ_WriteProfileString("Tool", "Name", "long value"), 0);
  EXPECT_EQ(ZROBJ_ReadProfileString("TOOL", "name", text, sizeof text), 1);
  EXPECT_STREQ(text, "long va");  // cut to the buffer
  EXPECT_EQ(ZROBJ_WriteProfileString("Tool", "Bad=Key", "x"), 0);
  EXPECT_EQ(ZROBJ_WriteProfileString("Tool", "Name", nullptr), 0);  // never a deletion
  EXPECT_EQ(ZROBJ_ReadProfileString("Tool", "Name", text, sizeof text), 1);

  WCHAR wide[16];
  EXPECT_EQ(ZROBJ_ReadCurrentSettingStr("Tool", "Title", wide, 16), 0);
  ZROBJ_WriteCurrentSettingStr("Tool", "Title", u"night");
  EXPECT_EQ(ZROBJ_ReadCurrentSettingStr("Tool", "Title", wide, 16), 1);
  EXPECT_EQ(Utf8(wide), "night");

  WCHAR path[ZR_MAX_PATH];
  const UINT n = ZROBJ_GetSettingsFilePath("ZRO.INI", path, ZR_MAX_PATH);
  EXPECT_EQ(Utf8(path), home.File("ZRO.INI"));
  EXPECT_EQ(n, zr::os::WStrLen(path));
  EXPECT_EQ(ZROBJ_GetSettingsFilePath("ZRO.INI", path, n), 0u);  // no room for the terminator

  std::filesystem::remove(home.File("ZRO.INI"));
  std::filesystem::create_directories(home.File("ZRO.INI"));  // exists, cannot be read
  zr::os::IniDropCache();
  EXPECT_EQ(ZROBJ_ReadProfileString("Tool", "Name", text, sizeof text), -1);
}

TEST(ZrobjSettings, ConcurrentProcessesLoseNoKey) {
  ScopedHome home;
  constexpr int kChildren = 4;
  constexpr int kKeys = 25;
  int gate[2];
  ASSERT_EQ(::pipe(gate), 0);
  pid_t children[kChildren];
  for (int c = 0; c < kChildren; ++c) {
    children[c] = ::fork();
    ASSERT_GE(children[c], 0);
    if (children[c] == 0) {
      ::close(gate[1]);
      char byte;
      (void)::read(gate[0], &byte, 1);  // all children start together when the gate closes
      int failures = 0;
      for (int k = 0; k < kKeys; ++k) {
        const std::string key = "K" + std::to_string(c) + "_" + std::to_string(k);
        failures += ZROBJ_WriteCurrentSettingInt("Race", key.c_str(), c * 1000 + k) == 0;
        failures += ZROBJ_WriteProfileInt("Race", key.c_str(), c * 1000 + k) == 0;
      }
      ::_exit(failures == 0 ? 0 : 1);
    }
  }
  ::close(gate[0]);
  ::close(gate[1]);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  for (pid_t pid : children) {
    int status = -1;
    while (::waitpid(pid, &status, WNOHANG) == 0 && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  os::IniDropCache();
  int found = 0;
  for (int c = 0; c < kChildren; ++c)
    for (int k = 0; k < kKeys; ++k) {
      const std::string key = "K" + std::to_string(c) + "_" + std::to_string(k);
      found += ZROBJ_GetCurrentSettingInt("Race", key.c_str(), -1, 0) == c * 1000 + k;
      found += ZROBJ_GetProfileInt("Race", key.c_str(), -1, 0) == c * 1000 + k;
    }
  EXPECT_EQ(found, 2 * kChildren * kKeys);
}

TEST(ZrobjLifecycle, AppInitializeAndExitCountAndWatchRanges) {
  ScopedHome home;
  const DWORD start = ZROBJ_GetInitCount();
  ASSERT_EQ(start, 0u);
  ZROBJ_WriteProfileInt("CZRObject", "MinFreeWatch", 3);
  ZROBJ_AppInitialize();
  ZROBJ_AppInitialize();
  EXPECT_EQ(ZROBJ_GetInitCount(), 2u);
  EXPECT_EQ(Profile("CZRObject", "MaxFreeWatch"), "0");  // read with write-default on
  EXPECT_EQ(Profile("Locator", "MinFreeWatch"), "0");
  int min = 0, max = 0, trace = 0;
  zr::steps::GetObjectFreeWatchRange(&min, &max, &trace);
  EXPECT_EQ(min, 3);

  zr::steps::SetObjectFreeWatchRange(10, 20, 1);
  int lmin = 5, lmax = 6;
  zr::steps::SetLocatorWatchRange(lmin, lmax);
  ZROBJ_AppExit();  // not the last: nothing written yet
  EXPECT_EQ(Profile("CZRObject", "MinFreeWatch"), "3");
  ZROBJ_AppExit();  // the last one writes the ranges back
  EXPECT_EQ(ZROBJ_GetInitCount(), 0u);
  EXPECT_EQ(Profile("CZRObject", "MinFreeWatch"), "10");
  EXPECT_EQ(Profile("CZRObject", "MaxFreeWatch"), "20");
  EXPECT_EQ(Profile("CZRObject", "TraceVirtual"), "1");
  EXPECT_EQ(Profile("Locator", "MinFreeWatch"), "5");
  EXPECT_EQ(Profile("Locator", "MaxFreeWatch"), "6");
  ZROBJ_WriteProfileInt("CZRObject", "MinFreeWatch", 77);
  ZROBJ_AppExit();  // a third exit does nothing
  EXPECT_EQ(ZROBJ_GetInitCount(), 0u);
  EXPECT_EQ(Profile("CZRObject", "MinFreeWatch"), "77");
  zr::steps::SetObjectFreeWatchRange(0, 0, 0);
}

int g_callback_calls = 0;
int CallbackA() { return ++g_callback_calls, 7; }
int CallbackB() { return ++g_callback_calls, 9; }

TEST(ZrobjLifecycle, InitCallbackChain) {
  ZROBJ_INITCALLBACK previous_a = &CallbackB, previous_b = nullptr;
  EXPECT_EQ(ZROBJ_RegisterInitCallback(&CallbackA, &previous_a), 1);
  EXPECT_EQ(previous_a, nullptr);
  EXPECT_EQ(ZROBJ_RegisterInitCallback(&CallbackB, &previous_b), 1);
  EXPECT_EQ(previous_b, &CallbackA);  // B must call A itself: a hook chain
  EXPECT_EQ(g_callback_calls, 0);
  EXPECT_EQ(ZROBJ_UnregisterInitCallback(previous_b), 7);  // calls the previous one
  EXPECT_EQ(g_callback_calls, 1);
  EXPECT_EQ(ZROBJ_UnregisterInitCallback(nullptr), 1);  // clears the head
}

TEST(ZrobjLifecycle, EntryPointInChildProcess) {
  const auto result = zrtest::RunChild([] {
    ScopedHome home;
    SetDebugMode(1);
    CHILD_CHECK(ZROBJ_DllMain(ZROBJ_GetModuleHandle(), 4, nullptr) == 1);
    CHILD_CHECK(ZROBJ_DllMain(ZROBJ_GetModuleHandle(), 0xFFFF, nullptr) == 1);
    {
      os::ScopedDiagCapture capture;
      ZROBJ_AppInitialize();
      CHILD_CHECK(ZROBJ_DllMain(ZROBJ_GetModuleHandle(), DLL_PROCESS_DETACH, nullptr) == 1);
      const auto e = capture.Entries();
      CHILD_CHECK(e.size() == 4);
      CHILD_CHECK(e[0].text == u"ZROBJ: Process detaching...\n" && e[0].channel == 3 && e[0].level == 9);
      CHILD_CHECK(e[1].text == u"\rClasses were not unregistered, dwInitCnt = 1\r\n");
      // The register's shut-down names the threads still registered: here the forking thread,
      // which keeps its name in the child.
      CHILD_CHECK(e[2].text == os::FormatWide(u"\rCOSThreadRegister::AppExit: %08X <<Main>>", os::GetCurrentThreadId()));
      CHILD_CHECK(e[2].channel == 0 && e[2].level == 0);
      CHILD_CHECK(e[3].text == u"ZROBJ: detached\n");
      ZROBJ_AppExit();
    }
    // With an init callback set before attach, its result is attach's and no file type appears.
    ZROBJ_INITCALLBACK previous = nullptr;
    ZROBJ_RegisterInitCallback([] { return 5; }, &previous);
    {
      os::ScopedDiagCapture capture;
      CHILD_CHECK(ZROBJ_DllMain(ZROBJ_GetModuleHandle(), DLL_PROCESS_ATTACH, nullptr) == 5);
      CHILD_CHECK(capture.Entries().empty());
    }
    os::HKEY key = nullptr;
    CHILD_CHECK(os::RegOpenKeyExW(HKEY_CLASSES_ROOT, u".zro", 0, os::KEY_READ, &key) == ERROR_FILE_NOT_FOUND);
    WCHAR name[64];
    CHILD_CHECK(zr::steps::GetCurrentThreadName(name, 64) && std::u16string(name) == u"<<Main>>");
    ZROBJ_UnregisterInitCallback(nullptr);
    ZROBJ_DllMain(ZROBJ_GetModuleHandle(), DLL_PROCESS_DETACH, nullptr);
    os::ScopedDiagCapture capture;
    CHILD_CHECK(ZROBJ_DllMain(ZROBJ_GetModuleHandle(), DLL_PROCESS_ATTACH, nullptr) == 1);
    CHILD_CHECK(capture.Entries().size() == 1);
    CHILD_CHECK(capture.Entries()[0].text == u"ZROBJ: Process attached successfully\r\n");
    for (const char16_t* ext : {u".zro", u".zrs", u".ids"}) {
      CHILD_CHECK(os::RegOpenKeyExW(HKEY_CLASSES_ROOT, ext, 0, os::KEY_READ, &key) == ERROR_SUCCESS);
      os::RegCloseKey(key);
    }
    return 0;
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.exit_code, 0);
}

std::uint32_t g_fake_now = 0;
std::uint32_t FakeTicks() { return g_fake_now; }

std::u16string CurrentName() {
  WCHAR name[256];
  return zr::steps::GetCurrentThreadName(name, 256) ? std::u16string(name) : u"<none>";
}

// A load whose process attach fails does not leave the library loaded: in a process with every
// thread key taken, the slot manager cannot start, and loading the library ends the process as a
// failed load does, after saying why.
TEST(ZrobjLifecycle, FailedAttachFailsTheLoad) {
  zrtest::TempDir dir;
  const std::string errors = dir.File("stderr.txt");
  const auto result = zrtest::RunChild([&] {
    const int fd = ::open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || ::dup2(fd, 2) < 0) return 2;
    // The library keeps its thread-local state in the static block, which a late load must be
    // given room for.
    char tunables[] = "GLIBC_TUNABLES=glibc.rtld.optional_static_tls=65536";
    char* environment[] = {tunables, nullptr};
    ::execle(ZROBJ_LOAD_PROBE, ZROBJ_LOAD_PROBE, ZROBJ_PRODUCT_LIBRARY, static_cast<char*>(nullptr), environment);
    return 5;
  });
  ASSERT_TRUE(result.exited) << "signal " << result.signal;
  EXPECT_EQ(result.exit_code, 127);
  const std::string text = zrtest::ReadFile(errors);
  EXPECT_NE(text.find("ZROBJ: Process attach failed, the library cannot be loaded"), std::string::npos) << text;
}

TEST(ZrobjLifecycle, ThreadAttachAndDetach) {
  EXPECT_EQ(CurrentName(), u"<<Main>>");  // the thread that loaded the library
  g_fake_now = ZROBJ_GetStartTick() + 2500;
  os::SetTickSource(&FakeTicks);
  const DWORD detaches = zr::testing::ThreadExitDetachCount();
  std::u16string unknown, known, again;
  std::thread([&] {
    zr::EnsureThreadAttached();
    unknown = CurrentName();
    zr::steps::UnregisterCurrentThread();
    zr::EnsureThreadAttached();  // attach runs only once per thread
    again = CurrentName();
  }).join();
  std::thread([&] {
    zr::steps::RegisterCurrentThread(u"Worker");  // named before it first used the library
    zr::EnsureThreadAttached();
    known = CurrentName();
    ZROBJ_DllMain(ZROBJ_GetModuleHandle(), DLL_THREAD_DETACH, nullptr);
    again += u"|" + CurrentName();
  }).join();
  os::SetTickSource(nullptr);
  EXPECT_EQ(unknown, u"Unknown, created 2.500000 s after startup");
  EXPECT_EQ(known, u"Worker");
  EXPECT_EQ(again, u"<none>|<none>");
  EXPECT_EQ(zr::testing::ThreadExitDetachCount(), detaches + 2);  // both ends ran thread detach
}

TEST(ZrobjLifecycle, ModuleSystemInfoAndRootDirectory) {
  EXPECT_EQ(ZROBJ_GetModuleHandle(), os::LibraryModule());
  EXPECT_EQ(ZROBJ_GetModuleHandle(), os::ModuleFromAddress(reinterpret_cast<const void*>(&ZROBJ_AppInitialize)));
  const SYSTEM_INFO* info = ZROBJ_GetSystemInfo();
  EXPECT_EQ(info->dwAllocationGranularity, 65536u);
  EXPECT_EQ(info->dwPageSize, static_cast<DWORD>(::sysconf(_SC_PAGESIZE)));
  EXPECT_GE(info->dwNumberOfProcessors, 1u);

  WCHAR path[ZR_MAX_PATH];
  ASSERT_GT(os::GetModuleFileNameW(ZROBJ_GetModuleHandle(), path, ZR_MAX_PATH), 0u);
  const std::filesystem::path library = Utf8(path);
  EXPECT_NE(library.filename().string().find("libzrobju.so"), std::string::npos);
  EXPECT_EQ(os::GetModuleFileNameW(ZROBJ_GetModuleHandle(), path, 5), 5u);  // cut and terminated
  EXPECT_EQ(std::u16string(path).size(), 4u);
  ASSERT_GT(os::GetModuleFileNameW(nullptr, path, ZR_MAX_PATH), 0u);
  EXPECT_EQ(std::filesystem::path(Utf8(path)).filename(), "frame_tests");

  WCHAR root[ZR_MAX_PATH];
  ASSERT_EQ(ZROBJ_GetAppRootDir(root), 1);
  EXPECT_EQ(Utf8(root), library.parent_path().parent_path().string() + "/");
  zr::testing::SetLibraryFileNameOverride(u"/opt/Suite/bin/libzrobju.so");
  ZROBJ_GetAppRootDir(root);
  EXPECT_EQ(Utf8(root), "/opt/Suite/");
  const std::u16string too_long = u"/" + std::u16string(300, u'x') + u"/lib.so";
  zr::testing::SetLibraryFileNameOverride(too_long.c_str());
  EXPECT_EQ(ZROBJ_GetAppRootDir(root), 0);
  EXPECT_EQ(root[0], 0);
  zr::testing::SetLibraryFileNameOverride(nullptr);
}

TEST(ZrobjLifecycle, ProductNameFromResourceFolder) {
  zrtest::TempDir dir;
  const std::u16string library = os::Utf8ToUtf16(dir.File("bin/libzrobju.so"));
  zr::testing::SetLibraryFileNameOverride(library.c_str());
  zr::testing::ResetProductName();
  EXPECT_EQ(Utf8(ZROBJ_GetProductName()), "");  // no resource folder: empty, searched again later
  std::filesystem::create_directories(dir.File("bin/resource"));
  zrtest::WriteFile(dir.File("bin/resource/notes.txt"), "");
  zrtest::WriteFile(dir.File("bin/resource/Studio.Pro.SC"), "");
  zrtest::WriteFile(dir.File("bin/resource/Zeta.sc"), "");
  EXPECT_EQ(Utf8(ZROBJ_GetProductName()), "Studio.Pro");
  std::filesystem::remove(dir.File("bin/resource/Studio.Pro.SC"));
  EXPECT_EQ(Utf8(ZROBJ_GetProductName()), "Studio.Pro");  // cached
  zr::testing::ResetProductName();
  EXPECT_EQ(Utf8(ZROBJ_GetProductName()), "Zeta");
  zr::testing::SetLibraryFileNameOverride(nullptr);
  zr::testing::ResetProductName();
}

// The default value as stored: the length passed is characters + 1, taken as bytes.
std::string StoredDefault(const char16_t* keyPath) {
  os::HKEY key = nullptr;
  if (os::RegOpenKeyExW(HKEY_CLASSES_ROOT, keyPath, 0, os::KEY_READ, &key) != ERROR_SUCCESS) return "<no key>";
  BYTE data[256];
  DWORD size = sizeof data, type = 0;
  const LONG rc = os::RegQueryValueExW(key, nullptr, nullptr, &type, data, &size);
  os::RegCloseKey(key);
  if (rc != ERROR_SUCCESS) return "<no value>";
  return std::string(reinterpret_cast<const char*>(data), size);
}

std::string Utf16Bytes(std::u16string_view text, std::size_t bytes) {
  return std::string(reinterpret_cast<const char*>(text.data()), bytes);
}

TEST(ZrobjFileTypes, RegistrationKeepsHalfLengthsAndNeverOverwrites) {
  EXPECT_EQ(StoredDefault(u".zro"), Utf16Bytes(u"vorn.ObjectFile", 16));  // registered at load
  ScopedHome home;
  EXPECT_EQ(RegisterFileType(nullptr, u"T", nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(RegisterFileType(u".x", u"", nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(RegisterFileType(u".tst", u"Test.Type", u"Test description", u"icon.ico", u"edit %1"), 1);
  EXPECT_EQ(StoredDefault(u".tst"), Utf16Bytes(u"Test.Type", 10));
  EXPECT_EQ(StoredDefault(u"Test.Type"), Utf16Bytes(u"Test description", 17));
  EXPECT_EQ(StoredDefault(u"test.type\\DefaultIcon"), Utf16Bytes(u"icon.ico", 9));
  EXPECT_EQ(StoredDefault(u"Test.Type\\shell\\open\\command"), Utf16Bytes(u"edit %1", 8));
  EXPECT_EQ(StoredDefault(u"Test.Type\\shell"), "<no value>");

  EXPECT_EQ(RegisterFileType(u".TST", u"Other.Type", u"other", nullptr, nullptr), 1);
  EXPECT_EQ(StoredDefault(u".tst"), Utf16Bytes(u"Test.Type", 10));  // untouched
  EXPECT_EQ(StoredDefault(u"Other.Type"), "<no key>");

  std::filesystem::remove(home.File("HKCR.INI"));
  std::filesystem::create_directories(home.File("HKCR.INI"));  // the key store cannot be written
  EXPECT_EQ(RegisterFileType(u".new", u"New.Type", nullptr, nullptr, nullptr), 0);
}

}  // namespace
