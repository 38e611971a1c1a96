// Change notification: registrations kept in a list under one process-wide critical section,
// notified from a snapshot so that callbacks run without the lock.
#include "zrobj/cpchangenotify.h"

#include <cstddef>
#include <cstring>
#include <vector>

#include "platform/dlgsvc.h"
#include "zrobj/zrcrash.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrhash.h"

COSCriticalSection CPChangeNotify::CS;

namespace zr {
namespace {

constexpr DWORD kItemSize = sizeof(tagNOTIFYSTRUC);
constexpr DWORD kGrowth = 2;

// Items are copied in and out: the list packs them behind its header word, so they need not be
// aligned for their pointers.
tagNOTIFYSTRUC ReadItem(const void* slot) {
  tagNOTIFYSTRUC item;
  std::memcpy(&item, slot, sizeof item);
  return item;
}

void WriteContexts(void* slot, std::uintptr_t context1, std::uintptr_t context2) {
  auto* bytes = static_cast<unsigned char*>(slot);
  std::memcpy(bytes + offsetof(tagNOTIFYSTRUC, dwContext1), &context1, sizeof context1);
  std::memcpy(bytes + offsetof(tagNOTIFYSTRUC, dwContext2), &context2, sizeof context2);
}

// The hash of the file name of the module loaded at `module` now; false when none is. The name comes
// from the module lookup that registration used, so both hash the loader's spelling of it, which
// (unlike a relative name made absolute) does not change with the working directory.
bool ModuleNameHash(HMODULE module, DWORD* hash) {
  WCHAR name[ZR_MAX_PATH];
  if (!module || CUnhandledException::GetModuleFilenameFromAddress(module, name) != module) return false;
  *hash = GetHashIDTi(name);
  return true;
}

bool IsCallable(const tagNOTIFYSTRUC& item) {
  DWORD hash = 0;
  return ModuleNameHash(item.hModule, &hash) && hash == item.dwModuleHash;
}

}  // namespace
}  // namespace zr

CPChangeNotify::CPChangeNotify() : CPvList(zr::kItemSize, zr::kGrowth) {}

CPChangeNotify::CPChangeNotify(const CPChangeNotify& other) : CPvList(zr::kItemSize, zr::kGrowth) {
  COSAutoLock lock(&CS);
  CPvList::operator=(other);
}

CPChangeNotify::~CPChangeNotify() {
  COSAutoLock lock(&CS);
  if (GetHeader()) Free();
}

DWORD CPChangeNotify::Add(PFNCHANGENOTIFY callback, std::uintptr_t context1, std::uintptr_t context2) {
  WCHAR name[ZR_MAX_PATH];
  const HMODULE module =
      CUnhandledException::GetModuleFilenameFromAddress(reinterpret_cast<const void*>(callback), name);
  if (!module) return ZR_INVALID_INDEX;
  tagNOTIFYSTRUC item{};
  item.dwModuleHash = GetHashIDTi(name);
  item.pfnNotify = callback;
  item.dwContext1 = context1;
  item.dwContext2 = context2;
  item.hModule = module;
  COSAutoLock lock(&CS);
  return CPvList::Add(&item);
}

int CPChangeNotify::Delete(DWORD identity, PFNCHANGENOTIFY callback) {
  COSAutoLock lock(&CS);
  if (!GetHeader()) return 0;
  CSearchID search(identity, ZR_INVALID_INDEX);
  const DWORD index = IndexFromSearchID(search);
  if (index == ZR_INVALID_INDEX) return 0;
  if (zr::ReadItem(GetCItem(index, 1)).pfnNotify != callback) {
    if (IsDebugOn()) zr::os::wPrintf(0, 0, u"\r>>>>>CPChangeNotify::Delete: ID does not match notify proc<<<<<\r\n");
    return 0;
  }
  return CPvList::Delete(index, 1, 0);
}

int CPChangeNotify::Notify(void* object, DWORD event, DWORD value) {
  std::vector<tagNOTIFYSTRUC> snapshot;
  {
    COSAutoLock lock(&CS);
    const DWORD count = GetNItems();
    snapshot.reserve(count);
    for (DWORD i = 0; i < count; ++i) snapshot.push_back(zr::ReadItem(GetCItem(i, 1)));
  }
  for (tagNOTIFYSTRUC& item : snapshot) {
    const std::uintptr_t context1 = item.dwContext1;
    const std::uintptr_t context2 = item.dwContext2;
    int result = 0;
    if (zr::IsCallable(item)) {
      result = item.pfnNotify(object, event, item.dwContext1, item.dwContext2, value);
    } else if (IsDebugOn()) {
      zr::os::wPrintf(0, 0, u"\r>>>>>CPChangeNotify::Notify: Invalid notify address<<<<<\r\n");
    }
    if (result == 0) {
      Delete(item.dwID, item.pfnNotify);
      continue;
    }
    if (item.dwContext1 == context1 && item.dwContext2 == context2) continue;
    // The registry keeps the contexts it was given: a callback's changes are undone.
    COSAutoLock lock(&CS);
    void* live = GetItem(item.dwID, 0);
    if (live && zr::ReadItem(live).pfnNotify == item.pfnNotify) zr::WriteContexts(live, context1, context2);
  }
  return 1;
}
