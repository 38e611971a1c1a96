// Plain arrays of fixed-size records in one CPMemory block: CPDynArray (no hooks, no identities)
// and CPObjRefList, a sorted set of object references with use counts.
#pragma once

#include "zrobj/cpmem.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

class CZRArchive;

// Items back to back, no header; count = block size / item size (an item size of 0 holds nothing).
class ZROBJ_API CPDynArray : public CPMemory {
 public:
  static constexpr DWORD kDefaultGrowth = 8;

  explicit CPDynArray(DWORD itemSize, DWORD growth = kDefaultGrowth);
  CPDynArray(const CPDynArray& other);
  CPDynArray& operator=(const CPDynArray& other);
  ~CPDynArray() override;
  const char* GetClassID() const override { return "CPDynArray"; }

  void* GetArray(DWORD* count);  // the first item or null; count may be null
  DWORD GetItemSize() const { return itemSize_; }
  DWORD GetCount() const;
  // Exactly `count` items: the first ones kept, new ones zero bytes; 0 frees the block. 0 on failure.
  int AllocItems(DWORD count);
  // Appends; grows by `growth` items when full. 0 when the allocation fails.
  int Add(const void* item);
  // Inserts before `index`; an index past the end fills the gap with zero items. Grows to a
  // multiple of `growth` when the new count reaches the capacity. 0 when the allocation fails.
  int Insert(DWORD index, const void* item);
  int Delete(DWORD index);  // 1, also when there is no such item

  // One entry `name` holding the item size (4 bytes) and then the block as an entry `name`.
  int DynaSave(char* name, CZRArchive& archive);
  // Loads what DynaSave wrote; items saved with another size are converted (CheckVersioning).
  int DynaLoad(char* name, CZRArchive& archive, int mode);
  // Re-lays items stored with `storedSize` bytes into this array's size (cut, or zero-filled).
  int CheckVersioning(DWORD storedSize);

 private:
  int Reserve(UINT64 items);  // an allocation for `items` items, the count unchanged

  DWORD itemSize_;
  DWORD growth_;
};

// One object reference, 12 bytes.
struct tagOBJREFERENCE {
  DWORD dwFolder;
  DWORD dwObject;
  DWORD dwUseCount;
};
static_assert(sizeof(tagOBJREFERENCE) == 12, "object reference layout");

// Ordered by object number, then folder number.
class ZROBJ_API CPObjRefList : public CPMemory {
 public:
  static constexpr DWORD kGrowth = 256;

  CPObjRefList() = default;
  CPObjRefList(const CPObjRefList& other);
  CPObjRefList& operator=(const CPObjRefList& other) = default;
  ~CPObjRefList() override;
  const char* GetClassID() const override { return "CPObjRefList"; }

  tagOBJREFERENCE* GetArray(DWORD* count);
  // 1 (also when present already); 0 when the allocation fails.
  int Add(DWORD object, DWORD folder);
  int Delete(DWORD index);
  // Counts a use of the reference; 0 when it is absent.
  int Tag(DWORD object, DWORD folder);

 private:
  DWORD Count() const;
  DWORD LowerBound(const tagOBJREFERENCE& key) const;
};
