// Lists of fixed-size items in one reference-counted block: CPvList (items with list-assigned
// identities and per-item hooks), CPvListS (kept sorted) and the CSearchID cursor.
#pragma once

#include "zrobj/cpmem.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"
#include "zrobj/zrutil.h"

class CZRArchive;

// The word in front of a list's items: the item size while the list is saved, otherwise unused.
struct tagCPVLIST_HEADER {
  DWORD dwItemSize;
};
static_assert(sizeof(tagCPVLIST_HEADER) == 4, "list header layout");

// A cursor on a list item: identity in the high half, last known index in the low half; 0xFFFF in
// a half means none (values above 65534 are stored as none).
class ZROBJ_API CSearchID {
 public:
  static constexpr DWORD kNone = 0xFFFF;

  CSearchID() = default;
  CSearchID(DWORD uID, DWORD uIndex) { Assign(uID, uIndex); }

  void Assign(DWORD uID, DWORD uIndex) { value_ = (Half(uID) << 16) | Half(uIndex); }
  void AssignIndex(DWORD uIndex) { value_ = (value_ & 0xFFFF0000u) | Half(uIndex); }
  // 0xFFFFFFFF for none.
  DWORD uIndex() const { return Widen(value_ & 0xFFFF); }
  DWORD uID() const { return Widen(value_ >> 16); }

  // Cursors are equal when their identity halves are; against an integer, the identity half is
  // compared with the whole integer.
  bool operator==(const CSearchID& other) const { return (value_ >> 16) == (other.value_ >> 16); }
  bool operator!=(const CSearchID& other) const { return !(*this == other); }
  bool operator==(DWORD id) const { return (value_ >> 16) == id; }
  bool operator!=(DWORD id) const { return !(*this == id); }
  operator DWORD() const { return value_; }

 private:
  static DWORD Half(DWORD v) { return v < kNone ? v : kNone; }
  static DWORD Widen(DWORD half) { return half < kNone ? half : ZR_INVALID_INDEX; }

  DWORD value_ = 0xFFFFFFFFu;
};
static_assert(sizeof(CSearchID) == 4, "search id layout");

// An ordered list of items of a fixed size (at least 4). The first word of every item is its
// identity, given by the list on insertion (0, 1, 2, ... whatever the position) and renumbered
// 0..n-1 by a load. The block holds a 4-byte header and the items back to back, so items are only
// 4-byte aligned. Copies share the block (CPMemory rules); Realloc() makes it private.
//
// Derived classes with their own GetClassID or release hooks call Free() in their destructor (the
// base destructors no longer see them), and copy with CPvList(item size, growth) followed by
// CPvList::operator= in their own constructor's body.
class ZROBJ_API CPvList : public CPMemory {
 public:
  static constexpr DWORD kDefaultGrowth = 5;
  static constexpr DWORD kMinItemSize = 4;

  explicit CPvList(DWORD itemSize, DWORD growth = kDefaultGrowth);
  CPvList(const CPvList& other);
  CPvList& operator=(const CPvList& other);
  ~CPvList() override;
  const char* GetClassID() const override { return "CPvList"; }

  DWORD GetItemSize() const { return itemSize_; }
  DWORD GetNGrowth() const { return growth_; }
  DWORD GetNextID() const { return nextID_; }
  DWORD GetNItems() const;
  DWORD GetNAllocItems() const;

  // The first item, or null when nothing is allocated. GetList is a write access (refused for a
  // READONLY handle, as CPMemory's write casts are).
  void* GetList();
  const void* GetCList() const;
  operator void*() { return GetList(); }
  operator const void*() const { return GetCList(); }

  // bByIndex non-zero: item `key`; zero: the first item whose identity is `key`. Null if none.
  void* GetItem(DWORD key, int bByIndex);
  const void* GetCItem(DWORD key, int bByIndex) const;

  int SetNGrowth(DWORD growth);  // 0 leaves it unchanged and returns 0
  int Realloc();                 // a private block (CPMemory::Realloc with 0xFFFFFFFF)
  // Room for `count` more items without a reallocation; an unallocated list gets a header-only
  // block. 0 when the allocation fails.
  int Prealloc(DWORD count);

  // Inserts a copy of the item-size record `item` (its first word is ignored) before `index`
  // (any index at or past the end appends). The new identity, or 0xFFFFFFFF.
  DWORD Add(const void* item) { return Insert(item, ZR_INVALID_INDEX); }
  DWORD Insert(const void* item, DWORD index);
  // 1 also when the key is absent; 0 when DeleteItem refuses. The last item frees the block.
  int Delete(DWORD key, int bByIndex, DWORD flags);
  // Overwrites the item found by key, which keeps its identity. 0 when empty, absent or refused.
  int Replace(const void* item, DWORD key, int bByIndex, DWORD flags);
  int Move(DWORD from, DWORD to);
  // Deletes every item that DeleteItem lets go; 0 when some refused (they stay, in order).
  int Clear(DWORD flags);
  // Drops the items from `count` on without DeleteItem calls.
  int Truncate(DWORD count);

  // The item's index (repairing a stale index half from the identity), or 0xFFFFFFFF; a cursor
  // whose identity is not found becomes (none, none).
  DWORD IndexFromSearchID(CSearchID& id) const;

  // Identities 0..n-1, next identity n, LoadInitItem on each item; nothing for an empty list.
  void LoadInit();

  // The block as one entry `name`, its header holding the item size.
  int DynaSave(char* name, CZRArchive& archive);
  // Gives up the current items, then loads. Items saved with another size are converted when
  // bConvert is set (cut, or zero-filled at their end), else the load fails. A failed load leaves
  // the list empty.
  int DynaLoad(char* name, CZRArchive& archive, int mode, int bConvert);

 protected:
  void RelocateMemory(void* oldData, unsigned long oldSize, void* newData, unsigned long newSize,
                      int mode) override;
  int ClearForRelease() override;  // ReleaseItem on every item

  // Per-item hooks, in this order after CPMemory's.
  virtual void InitItem(void* item);
  virtual void InsertItem(void* item, const void* source);
  virtual void InstantiateItem(void* item, const void* source);
  virtual int DeleteItem(void* item, DWORD flags);  // 0 refuses the deletion
  virtual void LoadInitItem(void* item);
  virtual void ReleaseItem(void* item);

  // DeleteItem on every item; nothing removed. The item count.
  DWORD FreeListItems(DWORD flags);

  BYTE* ItemAt(DWORD index) const { return Items() + static_cast<std::size_t>(index) * itemSize_; }

 private:
  BYTE* Items() const;  // the first item (the block behind the header), or null
  int SetCount(DWORD count);
  DWORD IndexOf(DWORD key, int bByIndex) const;  // 0xFFFFFFFF when absent
  void RemoveAt(DWORD index);
  void DropRawBlock();  // frees a block whose items were never initialised
  int ConvertItems(DWORD storedSize);

  DWORD itemSize_;
  DWORD growth_;
  DWORD nextID_ = 0;
  bool rawRelocation_ = false;  // set while a load converts items still in the stored layout
};

// A CPvList kept in the order of `compare(key, item)` (< 0, 0, > 0 as the key sorts before, with
// or after the item).
class ZROBJ_API CPvListS : public CPvList {
 public:
  CPvListS(DWORD itemSize, DWORD growth, ZRCOMPAREPROC compare);
  CPvListS(const CPvListS& other);
  CPvListS& operator=(const CPvListS& other);

  ZRCOMPAREPROC GetCompare() const { return compare_; }

  // The index of the inserted (or, with bReplace, overwritten) item, or 0xFFFFFFFF. Without
  // bReplace an item equal to others goes in front of them; with it, the first equal item is
  // overwritten whole (identity word included, no DeleteItem call).
  DWORD Add(const void* item, int bReplace);
  // Lower bound: the first index whose item compares >= key, the count when none.
  DWORD LocateEntry(const void* key) const;
  // The lower bound when that item compares equal to the key, else 0xFFFFFFFF.
  DWORD LocateIndex(const void* key) const;
  int ReSort();  // 0 when unallocated

 private:
  ZRCOMPAREPROC compare_;
};
