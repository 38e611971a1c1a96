// CPMemoryList: the item hooks of a list of CPMemory handles.
#include "zrobj/cpmemlist.h"

#include <cstddef>

namespace {

tagCPMEMLIST* Record(void* item) { return static_cast<tagCPMEMLIST*>(item); }
const tagCPMEMLIST* Record(const void* item) { return static_cast<const tagCPMEMLIST*>(item); }

}  // namespace

CPMemoryList::CPMemoryList() : CPvList(sizeof(tagCPMEMLIST), kGrowth) {}

// Sharing checks the block's class id, so it runs here, where GetClassID is this class's.
CPMemoryList::CPMemoryList(const CPMemoryList& other) : CPvList(sizeof(tagCPMEMLIST), kGrowth) {
  CPvList::operator=(other);
}

CPMemoryList& CPMemoryList::operator=(const CPMemoryList& other) {
  CPvList::operator=(other);
  return *this;
}

CPMemoryList::~CPMemoryList() { Free(); }

CPMemory* CPMemoryList::GetItem(DWORD key, int bByIndex) {
  void* item = CPvList::GetItem(key, bByIndex);
  return item == nullptr ? nullptr : &Record(item)->Memory();
}

CPMemory CPMemoryList::GetCItem(DWORD key, int bByIndex) const {
  CPMemory copy;
  if (const void* item = CPvList::GetCItem(key, bByIndex)) {
    copy = Record(item)->Memory();
    copy.SetFlags(CPMemory::READONLY);
  }
  return copy;
}

DWORD CPMemoryList::Insert(CPMemory& memory, DWORD position) {
  // A record around a handle sharing `memory`, placed as the list places its items.
  alignas(16) BYTE storage[sizeof(tagCPVLIST_HEADER) + sizeof(tagCPMEMLIST)];
  auto* record = reinterpret_cast<tagCPMEMLIST*>(storage + sizeof(tagCPVLIST_HEADER));
  CPMemory* handle = new (record->memory) CPMemory(memory);
  const DWORD id = CPvList::Insert(record, position);
  handle->~CPMemory();
  return id;
}

void CPMemoryList::InitItem(void* item) { CPMemory::Construct(Record(item)->memory); }

void CPMemoryList::InsertItem(void* item, const void* source) { Record(item)->Memory() = Record(source)->Memory(); }

int CPMemoryList::DeleteItem(void* item, DWORD) {
  Record(item)->Memory().Free();
  return 1;
}

void CPMemoryList::LoadInitItem(void* item) { InitItem(item); }

void CPMemoryList::ReleaseItem(void* item) { Record(item)->Memory().Free(); }
