// The class registry: 1024 buckets of class records sorted by hash id and GUID, registration and
// unregistration, lookups, enumerations, checks and tags, and the registration helper for modules.
#include "zrobj/zrclass.h"

#include <algorithm>
#include <cstring>

#include "memory/heap/privheap_internal.h"
#include "object/zrclass_internal.h"
#include "platform/dlgsvc.h"
#include "platform/fault.h"
#include "platform/module.h"
#include "zrobj/coslock.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrhash.h"

namespace os = zr::os;

namespace zr::classreg {

// Constant-initialised: attach and the modules' static initialisers may run before any dynamic
// initialiser of this file.
Registry g_registry{};

COSCriticalSection& Lock() {
  alignas(COSCriticalSection) static unsigned char storage[sizeof(COSCriticalSection)];
  static COSCriticalSection* const lock = new (storage) COSCriticalSection();  // never destroyed
  return *lock;
}

DWORD Bucket(DWORD hashId) { return hashId & (CZRRuntimeClass::kBuckets - 1); }

bool IsVisible(const CZRRuntimeClass* record) { return !(record->dwFlags & ZRCLASS_HIDDEN); }

int CompareGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)); }

// The entry that `hashId`/`guid` would follow in its bucket (null: the head), and in `match` the
// entry with the same high half and GUID, if there is one.
CZRRuntimeClass* ClosestMatch(DWORD hashId, const GUID& guid, CZRRuntimeClass** match) {
  CZRRuntimeClass* previous = nullptr;
  *match = nullptr;
  for (CZRRuntimeClass* entry = g_registry.buckets[Bucket(hashId)]; entry; entry = entry->pNext) {
    const DWORD high = hashId >> 16, entry_high = entry->dwHashID >> 16;
    if (high < entry_high) break;
    if (high == entry_high) {
      const int order = CompareGuid(guid, entry->guid);
      if (order == 0) *match = entry;
      if (order <= 0) break;
    }
    previous = entry;
  }
  return previous;
}

void SetStateOfModule(HMODULE module, LONG state) {
  ForEachRecord([&](CZRRuntimeClass* record) {
    if (record->hModule == module) record->lState = state;
    return true;
  });
}

bool FlagModuleDirect(HMODULE module) {
  bool any = false;
  ForEachRecord([&](CZRRuntimeClass* record) {
    if (record->hModule != module) return true;
    record->dwFlags |= ZRCLASS_DIRECT;
    any = true;
    return true;
  });
  return any;
}

}  // namespace zr::classreg

using namespace zr::classreg;

namespace {

// Walks every visible record that `filter` accepts; 1 when the callback stopped the walk.
template <class Filter>
int Enumerate(ZR_CLASSENUMPROC callback, void* argument, Filter filter) {
  if (!callback) return 0;
  COSAutoLock guard(&Lock());
  int stopped = 0;
  ForEachRecord([&](CZRRuntimeClass* record) {
    if (!IsVisible(record) || !filter(record)) return true;
    if (callback(record, argument)) return true;
    stopped = 1;
    return false;
  });
  return stopped;
}

bool BaseChainCreatable(const CZRRuntimeClass* base) {
  for (; base; base = base->pBaseClass)
    if (!(base->dwFlags & ZRCLASS_CREATABLE)) return false;
  return true;
}

}  // namespace

DWORD CZRRuntimeClass::GetRegisteredCount() { return g_registry.registered; }

HMODULE CZRRuntimeClass::ModuleOf(const void* address) { return os::ModuleFromAddress(address); }

// Fills the computed fields (hash id, module, display name, flags, class value) before the last two
// checks, as registration always did.
static void PrepareRecord(CZRRuntimeClass& record, HMODULE module) {
  record.dwHashID = GetHashID(record.szClassName);
  record.hModule = module;
  record.szDisplayName[0] = 0;  // no string resources on this platform (see architecture.md)
  record.dwFlags &= ZRCLASS_DECLARED_MASK;
  if (os::IsInMainExecutable(&record)) record.dwFlags |= ZRCLASS_APP;
  if (!BaseChainCreatable(record.pBaseClass)) record.dwFlags &= ~ZRCLASS_CREATABLE;
  record.dwClassValue = 0;
  if (record.pfnCtrlProc) {
    if (record.pfnCtrlProc(ZRCLASS_CMD_QUERY3, 0)) record.dwFlags |= ZRCLASS_CMD3;
    record.dwClassValue = static_cast<DWORD>(record.pfnCtrlProc(ZRCLASS_CMD_VALUE, 0));
  }
  if (record.dwClassValue == 0 && record.pBaseClass) record.dwClassValue = record.pBaseClass->dwClassValue;
}

static DWORD InsertRecord(CZRRuntimeClass& record, HMODULE module, CZRRuntimeClass* base, DWORD baseSize) {
  BYTE probe = 0;
  if (!module || !os::ProbeRead(module, &probe, 1)) return ZRCLASS_ERR_NO_MODULE;
  if (base && base->lState != ZRCLASS_STATE_REGISTERED) return ZRCLASS_ERR_BASE_FAILED;
  if ((base && base->dwObjectSize != baseSize) || record.dwRecordSize != ZRCLASS_RECORD_SIZE)
    return ZRCLASS_ERR_LAYOUT;
  PrepareRecord(record, module);
  if ((record.dwFlags & ZRCLASS_CREATABLE) && !record.pfnCreateObject) return ZRCLASS_ERR_NO_CREATOR;
  CZRRuntimeClass* match = nullptr;
  CZRRuntimeClass* previous = ClosestMatch(record.dwHashID, record.guid, &match);
  if (match) return ZRCLASS_ERR_DUPLICATE;
  CZRRuntimeClass*& link = previous ? previous->pNext : g_registry.buckets[Bucket(record.dwHashID)];
  record.pNext = link;
  link = &record;
  record.dwOrder = g_registry.registered;
  record.dwFlags |= ZRCLASS_NEW;
  return 0;
}

DWORD CZRRuntimeClass::RegisterClass(HMODULE module, CZRRuntimeClass* base, DWORD baseSize) {
  pBaseClass = base;
  DWORD result = ZRCLASS_ERR_NO_MODULE;
  if (os::GetModuleFileNameW(module, szModulePath, ZR_MAX_PATH) != 0) {
    COSAutoLock guard(&Lock());
    result = InsertRecord(*this, module, base, baseSize);
  }
  lState = static_cast<LONG>(result);
  if (result == 0) {
    ++g_registry.registered;
  } else if (IsDebugOn()) {
    os::wPrintf(3, 4, u"RegisterClass for %hs returned %u\r\n", szClassName, result);
  }
  return result;
}

// A record at the head of its bucket leaves it with its state unchanged; one further down is
// unlinked and marked unregistered. The two branches differ on purpose.
DWORD CZRRuntimeClass::UnRegisterClass() {
  DWORD result = 0;
  {
    COSAutoLock guard(&Lock());
    if (lState != ZRCLASS_STATE_UNREGISTERED) {
      CZRRuntimeClass*& head = g_registry.buckets[Bucket(dwHashID)];
      if (!head) {
        result = ZRCLASS_ERR_NOT_FOUND;
      } else if (head == this) {
        head = pNext;
      } else {
        CZRRuntimeClass* previous = head;
        while (previous->pNext && previous->pNext != this) previous = previous->pNext;
        previous->pNext = pNext;
        lState = ZRCLASS_STATE_UNREGISTERED;
      }
    }
    if (result == 0) --g_registry.registered;
  }
  if (result != 0 && IsDebugOn()) os::wPrintf(3, 4, u"UnRegisterClass for %hs returned %u\r\n", szClassName, result);
  return result;
}

int CZRRuntimeClass::IsKindOf(const CZRRuntimeClass* record) const {
  if (!record) return 0;
  for (const CZRRuntimeClass* c = this; c; c = c->pBaseClass)
    if (c == record) return 1;
  return 0;
}

unsigned long CZRRuntimeClass::CallClassCtrlProc(unsigned long command, unsigned long argument) {
  return pfnCtrlProc ? pfnCtrlProc(command, argument) : 0;
}

int CZRRuntimeClass::GetClassFamily(CZRRuntimeClass* const* records, int count) const {
  for (int i = 0; records && i < count; ++i)
    if (IsKindOf(records[i])) return i;
  return -1;
}

CZRRuntimeClass* CZRRuntimeClass::GetClassPtr(const GUID* guid, DWORD hashId) {
  if (!guid) return nullptr;
  COSAutoLock guard(&Lock());
  CZRRuntimeClass* found = nullptr;
  if (hashId & ZR_NO_ID) {  // bits 10-15: not a hash id of ours, search by the GUID alone
    ForEachRecord([&](CZRRuntimeClass* record) {
      if (!IsVisible(record) || record->guid != *guid) return true;
      found = record;
      return false;
    });
    return found;
  }
  ClosestMatch(hashId, *guid, &found);
  return found && IsVisible(found) ? found : nullptr;
}

CZRRuntimeClass* CZRRuntimeClass::IsUnique(DWORD hashId) {
  if (hashId & ZR_NO_ID) return nullptr;
  COSAutoLock guard(&Lock());
  CZRRuntimeClass* found = nullptr;
  int count = 0;
  for (CZRRuntimeClass* r = g_registry.buckets[Bucket(hashId)]; r; r = r->pNext) {
    if (r->dwHashID != hashId || !IsVisible(r)) continue;
    found = r;
    ++count;
  }
  return count == 1 ? found : nullptr;
}

void CZRRuntimeClass::KickAllClassesOf(HMODULE module) {
  COSAutoLock guard(&Lock());
  for (CZRRuntimeClass*& head : g_registry.buckets) {
    for (CZRRuntimeClass** link = &head; *link;) {
      CZRRuntimeClass* record = *link;
      if (record->hModule != module) {
        link = &record->pNext;
        continue;
      }
      *link = record->pNext;
      record->lState = ZRCLASS_STATE_UNREGISTERED;
      --g_registry.registered;
    }
  }
}

int CZRRuntimeClass::EnumClasses(ZR_CLASSENUMPROC callback, void* argument) {
  return Enumerate(callback, argument, [](CZRRuntimeClass*) { return true; });
}

int CZRRuntimeClass::EnumKindClasses(ZR_CLASSENUMPROC callback, void* argument) {
  return Enumerate(callback, argument, [this](CZRRuntimeClass* r) { return r->IsKindOf(this) != 0; });
}

int CZRRuntimeClass::EnumChildClasses(ZR_CLASSENUMPROC callback, void* argument) {
  return Enumerate(callback, argument, [this](CZRRuntimeClass* r) { return r != this && r->IsKindOf(this); });
}

// Sized by the records really in the directory: the count can drift through the kept
// unregistration branches, and the list must never overflow.
CZRRuntimeClass** CZRRuntimeClass::GetOrderedClassList(DWORD* count) {
  COSAutoLock guard(&Lock());
  DWORD n = 0;
  ForEachRecord([&](CZRRuntimeClass*) { return ++n, true; });
  auto** list = static_cast<CZRRuntimeClass**>(
      zr::HeapAlloc(zr::GetProcessHeap(), 0, (std::size_t{n} + 1) * sizeof(CZRRuntimeClass*)));
  if (count) *count = list ? n : 0;
  if (!list) return nullptr;
  DWORD i = 0;
  ForEachRecord([&](CZRRuntimeClass* record) { return list[i++] = record, true; });
  list[n] = nullptr;
  std::stable_sort(list, list + n, [](const CZRRuntimeClass* a, const CZRRuntimeClass* b) { return a->dwOrder < b->dwOrder; });
  return list;
}

void CZRRuntimeClass::FreeOrderedClassList(CZRRuntimeClass** list) {
  if (list) zr::HeapFree(zr::GetProcessHeap(), 0, list);
}

CPMemory CZRRuntimeClass::GetClassList() {
  COSAutoLock guard(&Lock());
  DWORD n = 0;
  ForEachRecord([&](CZRRuntimeClass* r) { return n += IsVisible(r) ? 1 : 0, true; });
  CPMemory memory;
  if (n == 0 || !memory.Alloc(n * sizeof(CZRRuntimeClass*))) return memory;
  auto* out = static_cast<CZRRuntimeClass**>(memory.GetDataPtr());
  ForEachRecord([&](CZRRuntimeClass* r) {
    if (IsVisible(r)) *out++ = r;
    return true;
  });
  return memory;
}

namespace {

struct RecordSnapshot {
  DWORD object_size;
  DWORD vtbl_version;
  char name[ZRCLASS_NAME_LENGTH];
};

// Copies what the checks print from a record that may be damaged; false on a fault.
bool Snapshot(const CZRRuntimeClass* record, RecordSnapshot* out) {
  return os::Guarded([&] {
           out->object_size = record->dwObjectSize;
           out->vtbl_version = record->dwVTblVersion;
           std::memcpy(out->name, record->szClassName, ZRCLASS_NAME_LENGTH);
           out->name[ZRCLASS_NAME_LENGTH - 1] = 0;
         }) == 0;
}

}  // namespace

int CZRRuntimeClass::CheckVTblVersion(DWORD expected, const CZRRuntimeClass* derived) const {
  RecordSnapshot self{}, other{};
  if (!Snapshot(this, &self) || (derived && !Snapshot(derived, &other))) {
    os::wPrintf(3, 4, u"CZRRuntimeClass::CheckVTblVersion failed with access exception");
    return 0;
  }
  if (self.vtbl_version == expected) return 1;
  os::wPrintf(3, 4, u"CZRRuntimeClass::CheckVTblVersion of baseclass (%hs:%hs): Expected %u, found %u\r\n", self.name,
              other.name, expected, self.vtbl_version);
  return 0;
}

int CZRRuntimeClass::CheckRTClass(DWORD objectSize, DWORD vtblVersion) const {
  RecordSnapshot self{};
  if (!Snapshot(this, &self)) {
    os::wPrintf(3, 4, u"CZRRuntimeClass::CheckRTClass failed with access exception");
    return 0;
  }
  if (objectSize != ZR_INVALID_INDEX && objectSize != self.object_size) {
    os::wPrintf(3, 4, u"CZRRuntimeClass::CheckRTClass of class (%hs): Expected size %u, found %u\r\n", self.name,
                objectSize, self.object_size);
    return 0;
  }
  if (vtblVersion != ZR_INVALID_INDEX && vtblVersion != self.vtbl_version) {
    os::wPrintf(3, 4, u"CZRRuntimeClass::CheckRTClass of class (%hs): Expected VTbl version %u, found %u\r\n",
                self.name, vtblVersion, self.vtbl_version);
    return 0;
  }
  return 1;
}

int CZRRuntimeClass::TagClass() {
  if (dwFlags & ZRCLASS_TAGGED) return 1;
  COSAutoLock guard(&Lock());
  for (CZRRuntimeClass* c = this; c && !(c->dwFlags & ZRCLASS_TAGGED); c = c->pBaseClass) c->dwFlags |= ZRCLASS_TAGGED;
  return 1;
}

int CZRRuntimeClass::UntagClasses() {
  COSAutoLock guard(&Lock());
  ForEachRecord([](CZRRuntimeClass* record) {
    if (IsVisible(record)) record->dwFlags &= ~ZRCLASS_TAGGED;
    return true;
  });
  return 1;
}

void CZRRuntimeClass::DumpClasses() {
  COSAutoLock guard(&Lock());
  ForEachRecord([](CZRRuntimeClass* r) {
    if (!IsVisible(r)) return true;
    const GUID& g = r->guid;
    os::wPrintf(3, 9, u"\rClass %hs [%s]", r->szClassName, r->szDisplayName);
    os::wPrintf(3, 9, u"\r  DLL   : %s", r->szModulePath);
    os::wPrintf(3, 9, u"\r  HashID: %08X", r->dwHashID);
    os::wPrintf(3, 9, u"\r  GUID  : %08X-%04X-%04X-%02X%02X%02X%02X%02X%02X%02X%02X", g.Data1, g.Data2, g.Data3,
                g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return true;
  });
}

CZRClassRegistration::CZRClassRegistration(CZRRuntimeClass& record, CZRRuntimeClass* base, DWORD baseSize)
    : record_(&record), result_(record.RegisterClass(CZRRuntimeClass::ModuleOf(&record), base, baseSize)) {}

CZRClassRegistration::~CZRClassRegistration() {
  if (result_ == 0) record_->UnRegisterClass();
}
