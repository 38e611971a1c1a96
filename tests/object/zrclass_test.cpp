// The class registry: registration errors and their order, the two unregistration branches,
// lookups, hidden classes, checks and the dump; driver libraries, their search order, the
// load-failure list and the ordered shutdown. Tests that change the registry run in a child.
#include <dlfcn.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/diag_capture.h"
#include "platform/text.h"
#include "test_support.h"
#include "zrobj/zrclass.h"
#include "zrobj/zrhash.h"
#include "zrobj/zrobj.h"

namespace os = zr::os;
namespace fs = std::filesystem;

namespace {

// Checks inside a child: a failure names its line and ends the child with 1.
int Failed(bool ok, int line, const char* what) {
  if (!ok) std::fprintf(stderr, "check failed at line %d: %s\n", line, what);
  return ok ? 0 : 1;
}
#define REQUIRE(cond) \
  if (Failed(static_cast<bool>(cond), __LINE__, #cond)) return 1

void ExpectChildPasses(const std::function<int()>& body) {
  const zrtest::ChildResult result = zrtest::RunChild(body);
  ASSERT_TRUE(result.exited) << "signal " << result.signal;
  EXPECT_EQ(result.exit_code, 0);
}

GUID Guid(DWORD n, BYTE last = 0) { return GUID{n, 0x1234, 0x5678, {0x90, 0xAB, 0xCD, 0xEF, 0, 0, 0, last}}; }

HMODULE ExeModule() { return CZRRuntimeClass::ModuleOf(reinterpret_cast<const void*>(&ExeModule)); }

CZRRTObject* NoObject() { return nullptr; }

// A record on the heap (not in the executable's image); children leak it with the process.
CZRRuntimeClass* NewRecord(const char* name, GUID guid, DWORD flags = 0, ZR_CLASSCTRLPROC ctrl = nullptr,
                           DWORD objectSize = 16) {
  return new CZRRuntimeClass(ZRClassRecord(name, objectSize, guid, flags, nullptr, ctrl, 1));
}

std::vector<std::string> g_log;

template <int N>
unsigned long LoggingControl(unsigned long command, unsigned long) {
  g_log.push_back("C" + std::to_string(N) + " command " + std::to_string(command));
  return command == ZRCLASS_CMD_VALUE ? 100 + N : 0;
}

std::string Utf8(std::u16string_view text) { return os::Utf16ToUtf8(text); }

std::string DriverPath(const char* file) { return Utf8(CZRRuntimeClass::GetWorkingDir()) + "driver/" + file; }

bool IsMapped(const std::string& path) {
  void* handle = ::dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle) ::dlclose(handle);
  return handle != nullptr;
}

// Hands the log to a loaded test driver.
bool ConnectDriverLog(const char* file) {
  void* handle = ::dlopen(DriverPath(file).c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (!handle) return false;
  auto set_log = reinterpret_cast<void (*)(std::vector<std::string>*)>(::dlsym(handle, "ZrTestDriverSetLog"));
  if (set_log) set_log(&g_log);
  ::dlclose(handle);
  return set_log != nullptr;
}

std::vector<std::u16string> Texts(const os::ScopedDiagCapture& capture) {
  std::vector<std::u16string> texts;
  for (const auto& e : capture.Entries()) texts.push_back(e.text);
  return texts;
}

TEST(ZrClass, RecordLayoutAndInitialValues) {
  EXPECT_EQ(sizeof(CZRRuntimeClass), 936u);
  constexpr CZRRuntimeClass r =
      ZRClassRecord("CAVeryLongClassNameThatGoesOnAndOn", 40, GUID{7, 0, 0, {}}, 0xFFFF, nullptr, nullptr, 3, 40001);
  EXPECT_EQ(r.dwRecordSize, ZRCLASS_RECORD_SIZE);
  EXPECT_EQ(std::string(r.szClassName), "CAVeryLongClassNameThatGoesOnAn");  // cut to 31
  EXPECT_EQ(r.lState, ZRCLASS_STATE_NEW);
  EXPECT_EQ(r.pNext, nullptr);
}

TEST(ZrClass, RegistrationErrorsInTheirOrder) {
  ExpectChildPasses([] {
    zrtest::DebugMode debug(1);
    const DWORD start = CZRRuntimeClass::GetRegisteredCount();
    os::ScopedDiagCapture capture;
    // 14: no module; also before a bad record size.
    CZRRuntimeClass* r = NewRecord("CNoModule", Guid(1));
    r->dwRecordSize = 912;
    REQUIRE(r->RegisterClass(nullptr, nullptr, 0) == ZRCLASS_ERR_NO_MODULE && r->lState == 14);
    REQUIRE(capture.Entries().size() == 1 && capture.Entries()[0].text == u"RegisterClass for CNoModule returned 14\r\n");
    REQUIRE(capture.Entries()[0].channel == 3 && capture.Entries()[0].level == 4);
    // 14: a handle where nothing is mapped.
    void* hole = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    REQUIRE(hole != MAP_FAILED);
    REQUIRE(NewRecord("CHole", Guid(2))->RegisterClass(hole, nullptr, 0) == ZRCLASS_ERR_NO_MODULE);
    // 6: the record's own size, then the base's object size.
    REQUIRE(r->RegisterClass(ExeModule(), nullptr, 0) == ZRCLASS_ERR_LAYOUT && r->lState == 6);
    CZRRuntimeClass* base = NewRecord("CBase", Guid(3), 0, nullptr, 24);
    REQUIRE(base->RegisterClass(ExeModule(), nullptr, 0) == 0);
    REQUIRE(NewRecord("CDerivedWrong", Guid(4))->RegisterClass(ExeModule(), base, 12) == ZRCLASS_ERR_LAYOUT);
    // 2: the base was refused (checked before the base's size).
    REQUIRE(NewRecord("COnRefused", Guid(5))->RegisterClass(ExeModule(), r, 999) == ZRCLASS_ERR_BASE_FAILED);
    // 11: creatable without a creation function; a base that is not creatable clears the flag first.
    CZRRuntimeClass* creatable = NewRecord("CCreatable", Guid(6), ZRCLASS_CREATABLE);
    REQUIRE(creatable->RegisterClass(ExeModule(), nullptr, 0) == ZRCLASS_ERR_NO_CREATOR);
    CZRRuntimeClass* derived = NewRecord("CCreatableOnBase", Guid(7), ZRCLASS_CREATABLE);
    REQUIRE(derived->RegisterClass(ExeModule(), base, 24) == 0 && !(derived->dwFlags & ZRCLASS_CREATABLE));
    // 4: the same name and GUID again; another GUID or another name is a class of its own.
    REQUIRE(NewRecord("CBase", Guid(3))->RegisterClass(ExeModule(), nullptr, 0) == ZRCLASS_ERR_DUPLICATE);
    REQUIRE(NewRecord("CBase", Guid(30))->RegisterClass(ExeModule(), nullptr, 0) == 0);
    REQUIRE(NewRecord("CBaseTwin", Guid(3))->RegisterClass(ExeModule(), nullptr, 0) == 0);
    REQUIRE(CZRRuntimeClass::GetRegisteredCount() == start + 4);
    // Only failures print, and only in debug mode.
    REQUIRE(capture.Entries().size() == 7);
    zrtest::DebugMode quiet(0);
    capture.Clear();
    REQUIRE(NewRecord("CBase", Guid(3))->RegisterClass(ExeModule(), nullptr, 0) == ZRCLASS_ERR_DUPLICATE);
    REQUIRE(capture.Entries().empty());
    return 0;
  });
}

TEST(ZrClass, RegistrationComputesTheRecord) {
  ExpectChildPasses([] {
    static CZRRuntimeClass in_image = ZRClassRecord("CInImage", 16, Guid(10), 0xFFFF, &NoObject, &LoggingControl<1>, 1);
    const DWORD order = CZRRuntimeClass::GetRegisteredCount();
    REQUIRE(in_image.RegisterClass(ExeModule(), nullptr, 0) == 0);
    REQUIRE(in_image.dwHashID == GetHashID("CInImage") && in_image.hModule == ExeModule());
    REQUIRE(in_image.dwOrder == order && in_image.lState == 0 && in_image.pBaseClass == nullptr);
    // Declared bits 0, 6, 7 survive; new and in-the-executable are computed; command 3 answered 0.
    REQUIRE(in_image.dwFlags == (ZRCLASS_CREATABLE | ZRCLASS_USER6 | ZRCLASS_USER7 | ZRCLASS_NEW | ZRCLASS_APP));
    REQUIRE(in_image.dwClassValue == 101);
    REQUIRE(fs::path(Utf8(in_image.szModulePath)) == fs::canonical("/proc/self/exe"));
    // Not in the image, command 3 answered; class value 0 takes the base's.
    CZRRuntimeClass* child = NewRecord("CChild", Guid(11), 0, [](unsigned long c, unsigned long) {
      return c == ZRCLASS_CMD_QUERY3 ? 1ul : 0ul;
    });
    REQUIRE(child->RegisterClass(ExeModule(), &in_image, 16) == 0);
    REQUIRE(child->dwFlags == (ZRCLASS_NEW | ZRCLASS_CMD3) && child->dwClassValue == 101);
    REQUIRE(child->dwOrder == order + 1 && child->pBaseClass == &in_image);
    return 0;
  });
}

TEST(ZrClass, UnregistrationHasTwoBranches) {
  ExpectChildPasses([] {
    zrtest::DebugMode debug(1);
    // One name, two GUIDs: one bucket, the smaller GUID at its head.
    CZRRuntimeClass* head = NewRecord("CPair", Guid(20, 1));
    CZRRuntimeClass* second = NewRecord("CPair", Guid(20, 2));
    REQUIRE(second->RegisterClass(ExeModule(), nullptr, 0) == 0);
    REQUIRE(head->RegisterClass(ExeModule(), nullptr, 0) == 0);
    REQUIRE(head->pNext == second);
    const DWORD count = CZRRuntimeClass::GetRegisteredCount();
    // Further down: unlinked and marked unregistered.
    REQUIRE(second->UnRegisterClass() == 0 && second->lState == ZRCLASS_STATE_UNREGISTERED);
    REQUIRE(CZRRuntimeClass::GetClassPtr(&second->guid, second->dwHashID) == nullptr);
    REQUIRE(CZRRuntimeClass::GetRegisteredCount() == count - 1);
    // Already unregistered: left alone, yet counted down again.
    REQUIRE(second->UnRegisterClass() == 0 && CZRRuntimeClass::GetRegisteredCount() == count - 2);
    // The head: the bucket moves on, the state stays registered.
    REQUIRE(head->UnRegisterClass() == 0 && head->lState == ZRCLASS_STATE_REGISTERED);
    REQUIRE(CZRRuntimeClass::GetClassPtr(&head->guid, head->dwHashID) == nullptr);
    // Now the bucket is empty.
    os::ScopedDiagCapture capture;
    REQUIRE(head->UnRegisterClass() == ZRCLASS_ERR_NOT_FOUND);
    REQUIRE(Texts(capture) == std::vector<std::u16string>{u"UnRegisterClass for CPair returned 9\r\n"});
    return 0;
  });
}

TEST(ZrClass, LookupsAndHiddenClasses) {
  ExpectChildPasses([] {
    CZRRuntimeClass* seen = NewRecord("CSeen", Guid(40));
    CZRRuntimeClass* hidden = NewRecord("CHidden", Guid(41));
    REQUIRE(seen->RegisterClass(ExeModule(), nullptr, 0) == 0);
    REQUIRE(hidden->RegisterClass(ExeModule(), nullptr, 0) == 0);
    hidden->dwFlags |= ZRCLASS_HIDDEN;  // hidden after registration: flag 3 is not kept from the declaration
    REQUIRE(CZRRuntimeClass::GetClassPtr(nullptr, seen->dwHashID) == nullptr);
    REQUIRE(CZRRuntimeClass::GetClassPtr(&seen->guid, seen->dwHashID) == seen);
    REQUIRE(CZRRuntimeClass::GetClassPtr(&seen->guid, GetHashID("COther")) == nullptr);
    // Any of bits 10-15 set: the hash is not trusted and the GUID alone is sought.
    REQUIRE(CZRRuntimeClass::GetClassPtr(&seen->guid, GetHashID("COther") | 0x400) == seen);
    REQUIRE(CZRRuntimeClass::GetClassPtr(&seen->guid, 0xFC00) == seen);
    const GUID unknown = Guid(49);
    REQUIRE(CZRRuntimeClass::GetClassPtr(&unknown, 0x400) == nullptr);
    REQUIRE(CZRRuntimeClass::IsUnique(seen->dwHashID) == seen);
    // The hidden class is found by nothing.
    REQUIRE(CZRRuntimeClass::GetClassPtr(&hidden->guid, hidden->dwHashID) == nullptr);
    REQUIRE(CZRRuntimeClass::GetClassPtr(&hidden->guid, 0x400) == nullptr);
    REQUIRE(CZRRuntimeClass::IsUnique(hidden->dwHashID) == nullptr);
    std::vector<CZRRuntimeClass*> walked;
    CZRRuntimeClass::EnumClasses(
        [](CZRRuntimeClass* r, void* out) { return static_cast<std::vector<CZRRuntimeClass*>*>(out)->push_back(r), 1; },
        &walked);
    REQUIRE(std::count(walked.begin(), walked.end(), seen) == 1);
    REQUIRE(std::count(walked.begin(), walked.end(), hidden) == 0);
    CPMemory list = CZRRuntimeClass::GetClassList();
    const auto* records = static_cast<CZRRuntimeClass* const*>(list.GetCDataPtr());
    const std::vector<CZRRuntimeClass*> listed(records, records + list.GetSize() / sizeof(CZRRuntimeClass*));
    REQUIRE(listed == walked);
    os::ScopedDiagCapture capture;
    CZRRuntimeClass::DumpClasses();
    REQUIRE(capture.Text().find("CSeen") != std::string::npos);
    REQUIRE(capture.Text().find("CHidden") == std::string::npos);
    // A second class of the same hash id: no longer unique.
    REQUIRE(NewRecord("CSeen", Guid(42))->RegisterClass(ExeModule(), nullptr, 0) == 0);
    REQUIRE(CZRRuntimeClass::IsUnique(seen->dwHashID) == nullptr);
    return 0;
  });
}

TEST(ZrClass, DumpClassesPrintsFourLinesPerClass) {
  ExpectChildPasses([] {
    CZRRuntimeClass* r = NewRecord("CDumped", GUID{0x0123ABCD, 0x00EF, 0x4A5B, {1, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}});
    REQUIRE(r->RegisterClass(ExeModule(), nullptr, 0) == 0);
    os::ScopedDiagCapture capture;
    CZRRuntimeClass::DumpClasses();
    const auto entries = capture.Entries();
    std::size_t at = 0;
    while (at < entries.size() && entries[at].text != u"\rClass CDumped []") ++at;
    REQUIRE(at + 3 < entries.size());
    char hash[16];
    std::snprintf(hash, sizeof hash, "%08X", GetHashID("CDumped"));
    REQUIRE(entries[at + 1].text == u"\r  DLL   : " + std::u16string(r->szModulePath));
    REQUIRE(Utf8(entries[at + 2].text) == std::string("\r  HashID: ") + hash);
    REQUIRE(entries[at + 3].text == u"\r  GUID  : 0123ABCD-00EF-4A5B-0123456789ABCDEF");
    for (std::size_t i = at; i < at + 4; ++i) REQUIRE(entries[i].channel == 3 && entries[i].level == 9);
    return 0;
  });
}

TEST(ZrClass, KinshipEnumerationsAndTags) {
  ExpectChildPasses([] {
    CZRRuntimeClass* a = NewRecord("CKinA", Guid(50));
    CZRRuntimeClass* b = NewRecord("CKinB", Guid(51));
    CZRRuntimeClass* c = NewRecord("CKinC", Guid(52));
    CZRRuntimeClass* other = NewRecord("CKinOther", Guid(53));
    REQUIRE(a->RegisterClass(ExeModule(), nullptr, 0) == 0 && b->RegisterClass(ExeModule(), a, 16) == 0);
    REQUIRE(c->RegisterClass(ExeModule(), b, 16) == 0 && other->RegisterClass(ExeModule(), nullptr, 0) == 0);
    REQUIRE(c->IsKindOf(a) && c->IsKindOf(c) && !a->IsKindOf(c) && !c->IsKindOf(other) && !c->IsKindOf(nullptr));
    CZRRuntimeClass* family[] = {other, b, a};
    REQUIRE(c->GetClassFamily(family, 3) == 1 && a->GetClassFamily(family, 3) == 2);
    REQUIRE(other->GetClassFamily(family + 1, 2) == -1);
    const auto collect = [](CZRRuntimeClass* r, void* out) {
      static_cast<std::vector<CZRRuntimeClass*>*>(out)->push_back(r);
      return 1;
    };
    std::vector<CZRRuntimeClass*> kind, children;
    REQUIRE(b->EnumKindClasses(collect, &kind) == 0 && b->EnumChildClasses(collect, &children) == 0);
    std::sort(kind.begin(), kind.end());
    std::vector<CZRRuntimeClass*> expected{b, c};
    std::sort(expected.begin(), expected.end());
    REQUIRE(kind == expected && children == std::vector<CZRRuntimeClass*>{c});
    int calls = 0;
    REQUIRE(CZRRuntimeClass::EnumClasses([](CZRRuntimeClass*, void* n) { return ++*static_cast<int*>(n), 0; }, &calls) == 1);
    REQUIRE(calls == 1);
    // Tags run up the bases to the first one already tagged.
    b->dwFlags |= ZRCLASS_TAGGED;
    a->dwFlags &= ~ZRCLASS_TAGGED;
    REQUIRE(c->TagClass() == 1 && (c->dwFlags & ZRCLASS_TAGGED) && !(a->dwFlags & ZRCLASS_TAGGED));
    b->dwFlags &= ~ZRCLASS_TAGGED;
    c->dwFlags &= ~ZRCLASS_TAGGED;
    REQUIRE(c->TagClass() == 1 && (a->dwFlags & ZRCLASS_TAGGED) && (b->dwFlags & ZRCLASS_TAGGED));
    other->dwFlags |= ZRCLASS_TAGGED | ZRCLASS_HIDDEN;
    REQUIRE(CZRRuntimeClass::UntagClasses() == 1);
    REQUIRE(!(a->dwFlags & ZRCLASS_TAGGED) && !(c->dwFlags & ZRCLASS_TAGGED) && (other->dwFlags & ZRCLASS_TAGGED));
    return 0;
  });
}

TEST(ZrClass, VersionChecks) {
  CZRRuntimeClass base = ZRClassRecord("CCheckBase", 40, Guid(60), 0, nullptr, nullptr, 7);
  CZRRuntimeClass derived = ZRClassRecord("CCheckDerived", 48, Guid(61), 0, nullptr, nullptr, 2);
  os::ScopedDiagCapture capture;
  EXPECT_EQ(base.CheckVTblVersion(7, &derived), 1);
  EXPECT_EQ(base.CheckRTClass(40, 7), 1);
  EXPECT_EQ(base.CheckRTClass(0xFFFFFFFF, 0xFFFFFFFF), 1);
  EXPECT_TRUE(capture.Entries().empty());
  EXPECT_EQ(base.CheckVTblVersion(8, &derived), 0);
  EXPECT_EQ(base.CheckRTClass(44, 7), 0);
  EXPECT_EQ(base.CheckRTClass(0xFFFFFFFF, 6), 0);
  EXPECT_EQ(Texts(capture), (std::vector<std::u16string>{
                                u"CZRRuntimeClass::CheckVTblVersion of baseclass (CCheckBase:CCheckDerived): Expected 8, found 7\r\n",
                                u"CZRRuntimeClass::CheckRTClass of class (CCheckBase): Expected size 44, found 40\r\n",
                                u"CZRRuntimeClass::CheckRTClass of class (CCheckBase): Expected VTbl version 6, found 7\r\n"}));
  // A record in memory that cannot be read.
  void* page = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  const auto* wild = static_cast<const CZRRuntimeClass*>(page);
  capture.Clear();
  EXPECT_EQ(wild->CheckRTClass(1, 1), 0);
  EXPECT_EQ(base.CheckVTblVersion(7, wild), 0);
  EXPECT_EQ(Texts(capture), (std::vector<std::u16string>{u"CZRRuntimeClass::CheckRTClass failed with access exception",
                                                         u"CZRRuntimeClass::CheckVTblVersion failed with access exception"}));
  ::munmap(page, 4096);
}

TEST(ZrClass, WorkingDirectory) {
  ExpectChildPasses([] {
    const std::string library = Utf8(CZRRuntimeClass::GetWorkingDir());
    REQUIRE(library.ends_with("/testing/") && fs::exists(library + "libzrobju.so.1"));
    REQUIRE(CZRRuntimeClass::SetWorkingDir(u"/tmp\\a//b") == 1);
    REQUIRE(std::u16string(CZRRuntimeClass::GetWorkingDir()) == u"/tmp/a/b/");
    REQUIRE(CZRRuntimeClass::SetWorkingDir(u"") == 1 && CZRRuntimeClass::GetWorkingDir()[0] == 0);
    return 0;
  });
}

TEST(ZrClass, OrderedListFollowsRegistration) {
  ExpectChildPasses([] {
    CZRRuntimeClass* first = NewRecord("CZuerst", Guid(70));
    CZRRuntimeClass* second = NewRecord("CAlpha", Guid(71));
    REQUIRE(first->RegisterClass(ExeModule(), nullptr, 0) == 0 && second->RegisterClass(ExeModule(), nullptr, 0) == 0);
    DWORD count = 0;
    CZRRuntimeClass** list = CZRRuntimeClass::GetOrderedClassList(&count);
    REQUIRE(list && count >= 2 && list[count] == nullptr);
    for (DWORD i = 1; i < count; ++i) REQUIRE(list[i - 1]->dwOrder < list[i]->dwOrder);
    REQUIRE(list[count - 2] == first && list[count - 1] == second);
    CZRRuntimeClass::FreeOrderedClassList(list);
    return 0;
  });
}

// Command 1 goes once to each new class in registration order; command 2 to every class in reverse
// order; then the libraries the registry loaded are freed, the last loaded first.
TEST(ZrClass, SanitizeAndOrderedShutdown) {
  ExpectChildPasses([] {
    static CZRRuntimeClass a = ZRClassRecord("CShutA", 16, Guid(80), 0, nullptr, &LoggingControl<1>, 1);
    static CZRRuntimeClass b = ZRClassRecord("CShutB", 16, Guid(81), 0, nullptr, &LoggingControl<2>, 1);
    static CZRRuntimeClass c = ZRClassRecord("CShutC", 16, Guid(82), 0, nullptr, &LoggingControl<3>, 1);
    REQUIRE(a.RegisterClass(ExeModule(), nullptr, 0) == 0);
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(u"zrdrv_test_a.so", 0) == 1 && ConnectDriverLog("zrdrv_test_a.so"));
    REQUIRE(b.RegisterClass(ExeModule(), nullptr, 0) == 0);
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(u"zrdrv_test_b.so", 0) == 1 && ConnectDriverLog("zrdrv_test_b.so"));
    REQUIRE(c.RegisterClass(ExeModule(), nullptr, 0) == 0);
    g_log.clear();
    CZRRuntimeClass::SanitizeLoads();
    CZRRuntimeClass::SanitizeLoads();  // nothing new any more
    REQUIRE(g_log == (std::vector<std::string>{"C1 command 1", "CTestDriverA command 1", "C2 command 1",
                                               "CTestDriverB command 1", "C3 command 1"}));
    REQUIRE(!(a.dwFlags & ZRCLASS_NEW) && !(c.dwFlags & ZRCLASS_NEW));
    g_log.clear();
    DWORD count = 0;
    CZRRuntimeClass** before = CZRRuntimeClass::GetOrderedClassList(&count);
    REQUIRE(before && count >= 5);
    std::vector<std::u16string> expected{u"\rCZRRuntimeClass: Begin Shutdown\r\n"};
    for (DWORD i = count; i-- > 0;)
      expected.push_back(u"\rShutdown [" + os::Utf8ToUtf16(std::to_string(i)) + u"] " +
                         os::Utf8ToUtf16(before[i]->szClassName) + u"...\r\n");
    expected.push_back(u"\rCZRRuntimeClass: Shutdown complete\r\n");
    CZRRuntimeClass::FreeOrderedClassList(before);
    os::ScopedDiagCapture capture;
    CZRRuntimeClass::UnloadClassLibs();
    REQUIRE(g_log == (std::vector<std::string>{"C3 command 2", "CTestDriverB command 2", "C2 command 2",
                                               "CTestDriverA command 2", "C1 command 2", "unload B", "unload A"}));
    const auto texts = Texts(capture);
    REQUIRE(texts.size() >= expected.size());
    REQUIRE(std::vector<std::u16string>(texts.begin(), texts.begin() + expected.size()) == expected);
    REQUIRE(!IsMapped(DriverPath("zrdrv_test_a.so")) && !IsMapped(DriverPath("zrdrv_test_b.so")));
    REQUIRE(a.lState == 0 && c.lState == 0);  // classes of the program stay
    REQUIRE(CZRRuntimeClass::IsClassLibraryLoaded(u"zrdrv_test_a.so") == nullptr);
    return 0;
  });
}

TEST(ZrClass, DemoDriverLoadsOnDemand) {
  ExpectChildPasses([] {
    const DWORD start = CZRRuntimeClass::GetRegisteredCount();
    os::ScopedDiagCapture capture;
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(u"zrdrv_demo.so", 1) == 1);
    REQUIRE(capture.Entries().size() == 1 && capture.Entries()[0].text == u"\rCZRRuntimeClass::LoadLibrary(zrdrv_demo.so): Loaded\r\n");
    REQUIRE(CZRRuntimeClass::GetRegisteredCount() == start + 2);
    CZRRuntimeClass* record = CZRRuntimeClass::IsClassLibraryLoaded(u"/elsewhere/ZRDRV_DEMO.SO");
    REQUIRE(record != nullptr);
    REQUIRE(Utf8(record->szModulePath) == DriverPath("zrdrv_demo.so"));
    const GUID circle_guid = {0x6A1C0F11, 0x2B7E, 0x4C11, {0x9A, 0x51, 0x00, 0x3E, 0x1D, 0x52, 0x80, 0x01}};
    CZRRuntimeClass* circle = CZRRuntimeClass::GetClassPtr(&circle_guid, GetHashID("CZRDemoCircle"));
    REQUIRE(circle && std::string(circle->szClassName) == "CZRDemoCircle" && circle->pBaseClass);
    REQUIRE(std::string(circle->pBaseClass->szClassName) == "CZRDemoShape" && circle->dwClassValue == 0x5A);
    // Loaded directly, told that it is loaded (sanitise), command 3 answered.
    REQUIRE(circle->dwFlags == (ZRCLASS_DIRECT | ZRCLASS_CMD3));
    // Already there: no second load.
    capture.Clear();
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(u"zrdrv_demo.so", 0) == 1 && capture.Entries().empty());
    REQUIRE(CZRRuntimeClass::GetRegisteredCount() == start + 2);
    return 0;
  });
}

// A library that the program loaded itself: the registry takes a reference of its own, marks the
// classes as loaded directly, and the shutdown drops only that reference.
TEST(ZrClass, LibraryLoadedElsewhereGetsAReferenceOfTheRegistry) {
  ExpectChildPasses([] {
    const std::string path = DriverPath("zrdrv_demo.so");
    void* own = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    REQUIRE(own != nullptr);
    CZRRuntimeClass* record = CZRRuntimeClass::IsClassLibraryLoaded(u"zrdrv_demo.so");
    REQUIRE(record && !(record->dwFlags & ZRCLASS_DIRECT));
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(u"zrdrv_demo.so", 0) == 1 && (record->dwFlags & ZRCLASS_DIRECT));
    CZRRuntimeClass::UnloadClassLibs();
    REQUIRE(IsMapped(path) && record->lState == ZRCLASS_STATE_FREED);
    ::dlclose(own);
    REQUIRE(!IsMapped(path) && CZRRuntimeClass::IsClassLibraryLoaded(u"zrdrv_demo.so") == nullptr);
    return 0;
  });
}

// The application's start-up tells the loaded classes, its last exit frees the drivers.
TEST(ZrClass, ApplicationInitialiseAndExitDriveTheRegistry) {
  ExpectChildPasses([] {
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(u"zrdrv_test_a.so", 0) == 1 && ConnectDriverLog("zrdrv_test_a.so"));
    g_log.clear();
    ZROBJ_AppInitialize();
    REQUIRE(g_log == std::vector<std::string>{"CTestDriverA command 1"});
    ZROBJ_AppInitialize();
    ZROBJ_AppExit();
    REQUIRE(IsMapped(DriverPath("zrdrv_test_a.so")));
    ZROBJ_AppExit();
    REQUIRE(g_log == (std::vector<std::string>{"CTestDriverA command 1", "CTestDriverA command 2", "unload A"}));
    REQUIRE(!IsMapped(DriverPath("zrdrv_test_a.so")));
    return 0;
  });
}

// Where a driver is found: the driver folder of the working directory, the working directory,
// the path as given (the system's search comes last).
std::string LoadedFrom(bool in_driver_folder, bool in_work_dir) {
  zrtest::TempDir work, caller;
  const fs::path built = DriverPath("zrdrv_demo.so");
  fs::create_directories(work.path() + "/driver");
  if (in_driver_folder) fs::copy_file(built, work.File("driver/zrdrv_demo.so"));
  if (in_work_dir) fs::copy_file(built, work.File("zrdrv_demo.so"));
  fs::copy_file(built, caller.File("zrdrv_demo.so"));
  const std::string marker = caller.File("result.txt");
  const zrtest::ChildResult result = zrtest::RunChild([&] {
    CZRRuntimeClass::SetWorkingDir(os::Utf8ToUtf16(work.path()).c_str());
    if (!CZRRuntimeClass::LoadClassLibrary(os::Utf8ToUtf16(caller.File("zrdrv_demo.so")).c_str(), 0)) return 1;
    CZRRuntimeClass* record = CZRRuntimeClass::IsClassLibraryLoaded(u"zrdrv_demo.so");
    return record && zrtest::WriteFile(marker, Utf8(record->szModulePath)) ? 0 : 1;
  });
  if (!result.exited || result.exit_code != 0) return "(failed)";
  const std::string path = zrtest::ReadFile(marker);
  if (path.starts_with(work.path() + "/driver/")) return "driver folder";
  if (path.starts_with(work.path() + "/")) return "working directory";
  if (path.starts_with(caller.path() + "/")) return "given path";
  return path;
}

TEST(ZrClass, DriverSearchOrder) {
  EXPECT_EQ(LoadedFrom(true, true), "driver folder");
  EXPECT_EQ(LoadedFrom(false, true), "working directory");
  EXPECT_EQ(LoadedFrom(false, false), "given path");
}

TEST(ZrClass, MissingDriverFailsSilentlyTheSecondTime) {
  ExpectChildPasses([] {
    os::ScopedDiagCapture capture;
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(u"/nowhere/zrdrv_missing.so", 0) == 0);
    REQUIRE(Texts(capture) == std::vector<std::u16string>{
                                  u"\rCZRRuntimeClass::LoadLibrary(/nowhere/zrdrv_missing.so): Failure to load, no instance\r\n"});
    REQUIRE(capture.Entries()[0].channel == 3 && capture.Entries()[0].level == 4);
    capture.Clear();
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(u"ZRDRV_Missing.so", 0) == 0);
    REQUIRE(capture.Entries().empty());
    // Paths without a file name.
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(u"", 0) == 0);
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(u"/some/dir/", 0) == 0);
    REQUIRE(Texts(capture) == (std::vector<std::u16string>{u"\rCZRRuntimeClass::LoadLibrary: No path\r\n",
                                                            u"\rCZRRuntimeClass::LoadLibrary(/some/dir/): No filename\r\n"}));
    return 0;
  });
}

TEST(ZrClass, DriverWithoutClassesIsRefusedAndFreed) {
  ExpectChildPasses([] {
    const std::string path = DriverPath("zrdrv_empty.so");
    REQUIRE(fs::exists(path) && !IsMapped(path));
    os::ScopedDiagCapture capture;
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(u"zrdrv_empty.so", 0) == 0);
    REQUIRE(Texts(capture) == std::vector<std::u16string>{
                                  u"\rCZRRuntimeClass::LoadLibrary(zrdrv_empty.so) loaded, but no classes registered\r\n"});
    REQUIRE(!IsMapped(path));
    capture.Clear();
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(u"zrdrv_empty.so", 0) == 0 && capture.Entries().empty());
    return 0;
  });
}

// Entries of 2 + 2 x 200 + 2 bytes: 324 of them and the closing zero fit the 128 KiB region, the
// 325th does not and is dropped, so that library is tried (and reported) again.
TEST(ZrClass, LoadFailureListIsBoundedByItsRegion) {
  ExpectChildPasses([] {
    const auto name = [](int i) {
      std::string n = "zrdrv_" + std::to_string(i) + "_";
      n.resize(197, 'x');
      return os::Utf8ToUtf16(n + ".so");
    };
    for (int i = 0; i < 325; ++i) REQUIRE(CZRRuntimeClass::LoadClassLibrary(name(i).c_str(), 0) == 0);
    os::ScopedDiagCapture capture;
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(name(0).c_str(), 0) == 0);
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(name(323).c_str(), 0) == 0);
    REQUIRE(capture.Entries().empty());
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(name(324).c_str(), 0) == 0);
    REQUIRE(capture.Entries().size() == 1);
    REQUIRE(capture.Text().find("Failure to load, no instance") != std::string::npos);
    return 0;
  });
}

// A file name too long for an entry's 16-bit length is not listed, and the list stays readable.
TEST(ZrClass, LoadFailureListSkipsNamesTooLongForAnEntry) {
  ExpectChildPasses([] {
    const std::u16string longName = std::u16string(32800, u'x') + u".so";
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(longName.c_str(), 0) == 0);
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(u"zrdrv_after_long.so", 0) == 0);
    os::ScopedDiagCapture capture;
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(u"zrdrv_after_long.so", 0) == 0);
    REQUIRE(capture.Entries().empty());
    REQUIRE(CZRRuntimeClass::LoadClassLibrary(longName.c_str(), 0) == 0);
    REQUIRE(capture.Entries().size() == 1);
    return 0;
  });
}

}  // namespace
