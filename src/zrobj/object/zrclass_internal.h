// The class registry's shared state (zrclass.cpp, zrclass_driver.cpp) and its start-up and
// shut-down steps for the entry point.
#pragma once

#include "zrobj/coslock.h"
#include "zrobj/zrclass.h"

namespace zr::classreg {

struct Registry {
  CZRRuntimeClass* buckets[CZRRuntimeClass::kBuckets];
  DWORD registered;                 // registered-class count, also the source of the order
  WCHAR work_path[ZR_MAX_PATH];     // szWorkPath: directory of the library, with its separator
  BYTE* load_fail_list;             // pLoadFailList: base of the reserved region
  DWORD size_commit;                // dwSizeCommit
  DWORD tail;                       // dwTail
};
extern Registry g_registry;

// The registry lock (recursive; never destroyed, usable from attach to detach).
COSCriticalSection& Lock();

DWORD Bucket(DWORD hashId);
bool IsVisible(const CZRRuntimeClass* record);
// The entry that `hashId`/`guid` would follow in its bucket (null: the head); `match` gets the entry
// with the same hash-id high half and GUID, or null.
CZRRuntimeClass* ClosestMatch(DWORD hashId, const GUID& guid, CZRRuntimeClass** match);

// Calls visit(record) for every record of the directory, bucket 0 to 1023, until it returns false.
template <class Visit>
void ForEachRecord(Visit&& visit) {
  for (CZRRuntimeClass* head : g_registry.buckets)
    for (CZRRuntimeClass* record = head; record;) {
      CZRRuntimeClass* next = record->pNext;  // visit may unlink the record
      if (!visit(record)) return;
      record = next;
    }
}

void SetStateOfModule(HMODULE module, LONG state);
// Sets ZRCLASS_DIRECT on every record of the module; false when it has none.
bool FlagModuleDirect(HMODULE module);

}  // namespace zr::classreg

namespace zr::steps {
BOOL InitClassRegistry();   // CZRRuntimeClass::Init; FALSE fails process attach
void ExitClassRegistry();   // CZRRuntimeClass::Exit
void SanitizeClassLoads();  // CZRRuntimeClass::SanitizeLoads
void UnloadClassLibs();     // CZRRuntimeClass::UnloadClassLibs
}  // namespace zr::steps
