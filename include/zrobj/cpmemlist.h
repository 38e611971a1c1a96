// CPMemoryList: a CPvList whose items are CPMemory handles, shared with the blocks they hold.
#pragma once

#include <new>

#include "zrobj/cpmem.h"
#include "zrobj/cpvlist.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// One item: the list's identity word, then a CPMemory handle built in place. The handle's pointers
// are 8 bytes wide, so it starts right behind the identity (the list places items 4 bytes behind a
// 16-byte boundary, which puts the handle on an 8-byte one) and 4 spare bytes round the item to 32.
struct tagCPMEMLIST {
  DWORD dwID;
  BYTE memory[sizeof(CPMemory)];
  BYTE spare[4];

  CPMemory& Memory() { return *std::launder(reinterpret_cast<CPMemory*>(memory)); }
  const CPMemory& Memory() const { return *std::launder(reinterpret_cast<const CPMemory*>(memory)); }
};
static_assert(sizeof(tagCPMEMLIST) == 32 && sizeof(CPMemory) == 24, "memory list item layout");

class ZROBJ_API CPMemoryList : public CPvList {
 public:
  static constexpr DWORD kGrowth = 5;

  CPMemoryList();
  CPMemoryList(const CPMemoryList& other);
  CPMemoryList& operator=(const CPMemoryList& other);
  ~CPMemoryList() override;
  const char* GetClassID() const override { return "CPMemoryList"; }

  // The handle of the item found by key (see CPvList::GetItem), or null.
  CPMemory* GetItem(DWORD key, int bByIndex);
  // A copy of the handle, sharing its block but marked READONLY; empty when there is no such item.
  CPMemory GetCItem(DWORD key, int bByIndex) const;
  // Insert a handle sharing `memory`'s block; the new identity or 0xFFFFFFFF.
  DWORD Add(CPMemory& memory) { return Insert(memory, ZR_INVALID_INDEX); }
  DWORD Insert(CPMemory& memory, DWORD position);
  tagCPMEMLIST* GetList() { return static_cast<tagCPMEMLIST*>(CPvList::GetList()); }
  const tagCPMEMLIST* GetCList() const { return static_cast<const tagCPMEMLIST*>(CPvList::GetCList()); }

 protected:
  void InitItem(void* item) override;
  void InsertItem(void* item, const void* source) override;
  int DeleteItem(void* item, DWORD flags) override;
  // Handles cannot be stored: a loaded item's bytes are replaced by an empty handle.
  void LoadInitItem(void* item) override;
  void ReleaseItem(void* item) override;
};
