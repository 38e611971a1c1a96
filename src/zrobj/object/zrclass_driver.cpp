// The class registry's driver libraries: start-up and shut-down, the working directory, loading on
// demand from the four locations, the load-failure list in its reserved region, the notification of
// loaded classes and the ordered shutdown that frees the libraries in reverse order.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "object/zrclass_internal.h"
#include "platform/dlgsvc.h"
#include "platform/fault.h"
#include "platform/fileutil.h"
#include "platform/module.h"
#include "platform/text.h"
#include "platform/vmem.h"
#include "zrobj/costhread.h"
#include "zrobj/zrcrash.h"

namespace os = zr::os;
using namespace zr::classreg;

namespace {

constexpr DWORD kPage = 4096;

WCHAR FoldAscii(WCHAR c) { return c >= u'A' && c <= u'Z' ? static_cast<WCHAR>(c + (u'a' - u'A')) : c; }

// Case-insensitive equality of two terminated wide strings (ASCII letters fold).
bool EqualNoCase(const WCHAR* a, const WCHAR* b) {
  for (; *a && FoldAscii(*a) == FoldAscii(*b); ++a, ++b) {
  }
  return FoldAscii(*a) == FoldAscii(*b);
}

const WCHAR* FileNameOf(const WCHAR* path) { return os::FU_FindFilename(path); }

// The records registered by modules whose file name is `fileName`: the first one, or null.
CZRRuntimeClass* FirstRecordOfFile(const WCHAR* fileName) {
  CZRRuntimeClass* found = nullptr;
  ForEachRecord([&](CZRRuntimeClass* record) {
    const WCHAR* name = FileNameOf(record->szModulePath);
    if (!name || !EqualNoCase(name, fileName)) return true;
    found = record;
    return false;
  });
  return found;
}

// Loads from the four places in order: the driver folder beside the library, the library's own
// folder, the path as given, the system's search by file name.
HMODULE LoadFromSearchOrder(const WCHAR* path, const WCHAR* fileName) {
  const std::u16string work = g_registry.work_path;
  const std::u16string candidates[] = {work + u"driver/" + fileName, work + fileName, path, fileName};
  for (const std::u16string& candidate : candidates)
    if (HMODULE module = os::LoadModule(candidate.c_str())) return module;
  return nullptr;
}

}  // namespace

int CZRRuntimeClass::Init() {
  for (CZRRuntimeClass*& head : g_registry.buckets) head = nullptr;
  g_registry.registered = 0;
  WCHAR path[ZR_MAX_PATH];
  const DWORD n = os::GetModuleFileNameW(os::LibraryModule(), path, ZR_MAX_PATH);
  WCHAR* name = n != 0 && n < ZR_MAX_PATH ? os::FU_FindFilename(path) : nullptr;
  if (!name || name == path) {
    os::wPrintf(3, 4, u"\rCZRRuntimeClass::Init: Unable to retrieve startup dir\r\n");
    return 0;
  }
  *name = 0;
  os::WStrCopy(g_registry.work_path, ZR_MAX_PATH, path);
  if (!g_registry.load_fail_list)
    g_registry.load_fail_list = static_cast<BYTE*>(os::ReserveAddressSpace(kLoadFailRegion));
  return 1;
}

int CZRRuntimeClass::Exit() {
  os::ReleaseAddressSpace(g_registry.load_fail_list, kLoadFailRegion);
  g_registry.load_fail_list = nullptr;
  g_registry.size_commit = 0;
  g_registry.tail = 0;
  return 1;
}

int CZRRuntimeClass::SetWorkingDir(const WCHAR* path) {
  if (!path) return 0;
  os::WStrCopy(g_registry.work_path, ZR_MAX_PATH, std::u16string_view(path).substr(0, ZR_MAX_PATH));
  if (g_registry.work_path[0]) os::FU_FormatPath(g_registry.work_path, ZR_MAX_PATH, u'/');
  return 1;
}

const WCHAR* CZRRuntimeClass::GetWorkingDir() { return g_registry.work_path; }

CZRRuntimeClass* CZRRuntimeClass::IsClassLibraryLoaded(const WCHAR* path) {
  const WCHAR* fileName = path ? FileNameOf(path) : nullptr;
  if (!fileName || !*fileName) return nullptr;
  COSAutoLock guard(&Lock());
  return FirstRecordOfFile(fileName);
}

HMODULE CZRRuntimeClass::LoadLibrary(const WCHAR* path, int sanitise) {
  if (!path || !*path) {
    os::wPrintf(3, 3, u"\rCZRRuntimeClass::LoadLibrary: No path\r\n");
    return nullptr;
  }
  COSAutoLock guard(&Lock());
  const WCHAR* fileName = FileNameOf(path);
  if (!fileName || !*fileName) {
    os::wPrintf(3, 3, u"\rCZRRuntimeClass::LoadLibrary(%s): No filename\r\n", path);
    return nullptr;
  }
  if (LoadFail_Check(fileName)) return nullptr;  // failed before: silently
  const DWORD before = g_registry.registered;
  HMODULE module = LoadFromSearchOrder(path, fileName);
  if (!module) {
    os::wPrintf(3, 4, u"\rCZRRuntimeClass::LoadLibrary(%s): Failure to load, no instance\r\n", path);
    LoadFail_Add(fileName);
    return nullptr;
  }
  // A library that brought no classes of its own is dropped and remembered.
  const auto refuse = [&] {
    os::FreeModule(module);
    LoadFail_Add(fileName);
    return nullptr;
  };
  if (g_registry.registered == before) {
    os::wPrintf(3, 4, u"\rCZRRuntimeClass::LoadLibrary(%s) loaded, but no classes registered\r\n", path);
    return refuse();
  }
  if (!FlagModuleDirect(module)) {
    os::wPrintf(3, 5, u"\rCZRRuntimeClass::LoadLibrary(%s): Loaded but no DIRECT classes registered\r\n", path);
    return refuse();
  }
  os::wPrintf(3, 9, u"\rCZRRuntimeClass::LoadLibrary(%s): Loaded\r\n", path);
  if (sanitise) SanitizeLoads();
  return module;
}

int CZRRuntimeClass::LoadClassLibrary(const WCHAR* path, int sanitise) {
  COSAutoLock guard(&Lock());
  CZRRuntimeClass* record = IsClassLibraryLoaded(path);
  if (!record) return LoadLibrary(path, sanitise) ? 1 : 0;
  if (record->dwFlags & ZRCLASS_DIRECT) return 1;
  // Loaded by someone else: take a reference of our own, so that shutdown may drop it.
  HMODULE module = os::LoadModule(record->szModulePath);
  if (!module) return 0;
  FlagModuleDirect(module);
  return 1;
}

void CZRRuntimeClass::LoadFail_Add(const WCHAR* fileName) {
  const std::size_t chars = os::WStrLen(fileName);
  if (!g_registry.load_fail_list || chars == 0) return;
  const std::size_t entry = 2 * chars + 4;
  if (entry > 0xFFFF) return;  // its length would not fit the entry's 16-bit field
  const std::size_t needed = g_registry.tail + entry + 2;
  if (needed > g_registry.size_commit) {
    const std::size_t commit = (needed + kPage - 1) / kPage * kPage;
    if (commit > kLoadFailRegion || !os::CommitAddressSpace(g_registry.load_fail_list, commit)) return;
    g_registry.size_commit = static_cast<DWORD>(commit);
  }
  BYTE* at = g_registry.load_fail_list + g_registry.tail;
  const WORD length = static_cast<WORD>(entry);
  const WORD zero = 0;
  std::memcpy(at, &length, 2);
  std::memcpy(at + 2, fileName, 2 * chars);
  std::memcpy(at + 2 + 2 * chars, &zero, 2);
  g_registry.tail += static_cast<DWORD>(entry);
  std::memcpy(g_registry.load_fail_list + g_registry.tail, &zero, 2);
}

// Walks the entries by their lengths inside the committed part; a fault is analysed and answers 0.
int CZRRuntimeClass::LoadFail_Check(const WCHAR* fileName) {
  const BYTE* list = g_registry.load_fail_list;
  const DWORD committed = g_registry.size_commit;
  if (!list || committed == 0 || !fileName) return 0;
  int listed = 0;
  const std::uint32_t fault = os::Guarded([&] {
    for (DWORD at = 0; at + 2 <= committed && !listed;) {
      WORD length = 0;
      std::memcpy(&length, list + at, 2);
      if (length < 4 || length % 2 != 0 || at + length > committed) return;
      const auto* name = reinterpret_cast<const WCHAR*>(list + at + 2);
      listed = name[length / 2 - 2] == 0 && EqualNoCase(name, fileName) ? 1 : 0;
      at += length;
    }
  });
  if (fault == 0) return listed;
  CUnhandledException::AnalyseException(CUnhandledException::GetExceptionInfo(), 1);
  return 0;
}

// The ordered list, or null after printing `failure`.
static CZRRuntimeClass** OrderedListFor(const char16_t* failure, DWORD* count) {
  CZRRuntimeClass** list = CZRRuntimeClass::GetOrderedClassList(count);
  if (!list) os::wPrintf(3, 4, failure);
  return list;
}

void CZRRuntimeClass::SanitizeLoads() {
  COSAutoLock guard(&Lock());
  DWORD count = 0;
  CZRRuntimeClass** list = OrderedListFor(u"SanitizeLoads: No ordered list available...", &count);
  if (!list) return;
  for (DWORD i = 0; i < count; ++i) {
    CZRRuntimeClass* record = list[i];
    if (!(record->dwFlags & ZRCLASS_NEW)) continue;
    record->dwFlags &= ~ZRCLASS_NEW;
    record->CallClassCtrlProc(ZRCLASS_CMD_LOADED, 0);
  }
  FreeOrderedClassList(list);
}

namespace {

bool IsUnloadCandidate(const CZRRuntimeClass* record) {
  return record->hModule != os::LibraryModule() && !(record->dwFlags & ZRCLASS_APP) &&
         (record->dwFlags & ZRCLASS_DIRECT) && record->lState != ZRCLASS_STATE_FREED;
}

// One entry per module (its first registration); the candidates among them, in registration order.
std::vector<HMODULE> CollectUnloadCandidates(CZRRuntimeClass* const* list, DWORD count) {
  std::vector<HMODULE> seen, candidates;
  for (DWORD i = 0; i < count; ++i) {
    if (std::find(seen.begin(), seen.end(), list[i]->hModule) != seen.end()) continue;
    seen.push_back(list[i]->hModule);
    if (IsUnloadCandidate(list[i])) candidates.push_back(list[i]->hModule);
  }
  return candidates;
}

}  // namespace

void CZRRuntimeClass::UnloadClassLibs() {
  if (g_registry.registered == 0) return;
  COSAutoLock guard(&Lock());
  DWORD count = 0;
  CZRRuntimeClass** list = OrderedListFor(u"NotifyUnloads: No ordered list available...", &count);
  if (!list) return;
  os::wPrintf(3, 9, u"\rCZRRuntimeClass: Begin Shutdown\r\n");
  for (DWORD i = count; i-- > 0;) {
    os::wPrintf(3, 9, u"\rShutdown [%d] %hs...\r\n", static_cast<int>(i), list[i]->szClassName);
    list[i]->CallClassCtrlProc(ZRCLASS_CMD_SHUTDOWN, 0);
  }
  os::wPrintf(3, 9, u"\rCZRRuntimeClass: Shutdown complete\r\n");
  COSThreadRegister::DumpRegistered();
  const std::vector<HMODULE> modules = CollectUnloadCandidates(list, count);
  FreeOrderedClassList(list);  // its records may go away with their libraries
  for (auto module = modules.rbegin(); module != modules.rend(); ++module) {
    SetStateOfModule(*module, ZRCLASS_STATE_FREED);
    os::FreeModule(*module);
  }
}

namespace zr::steps {
BOOL InitClassRegistry() { return CZRRuntimeClass::Init(); }
void ExitClassRegistry() { CZRRuntimeClass::Exit(); }
void SanitizeClassLoads() { CZRRuntimeClass::SanitizeLoads(); }
void UnloadClassLibs() { CZRRuntimeClass::UnloadClassLibs(); }
}  // namespace zr::steps
