// CPvList: items with identities in one CPMemory block (insertion, deletion, moves, relocation,
// archive load with item-size conversion) and CPvListS, its sorted form.
#include "zrobj/cpvlist.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "zrobj/byteorder.h"
#include "zrobj/chunkarc.h"

namespace {

constexpr DWORD kHeaderSize = sizeof(tagCPVLIST_HEADER);
constexpr UINT64 kMaxBlock = 0xFFFFFFFFull - 64;  // what CPMemory can still claim

DWORD IdentityOf(const BYTE* item) {
  DWORD id;
  std::memcpy(&id, item, sizeof id);
  return id;
}

void SetIdentity(BYTE* item, DWORD id) { std::memcpy(item, &id, sizeof id); }

// Block bytes for `count` items; 0 when it cannot be allocated.
UINT64 BlockBytes(UINT64 count, DWORD itemSize) {
  const UINT64 bytes = count * itemSize + kHeaderSize;
  return bytes <= kMaxBlock ? bytes : 0;
}

}  // namespace

CPvList::CPvList(DWORD itemSize, DWORD growth)
    : itemSize_(std::max(itemSize, kMinItemSize)), growth_(growth != 0 ? growth : kDefaultGrowth) {}

CPvList::CPvList(const CPvList& other)
    : CPMemory(), itemSize_(other.itemSize_), growth_(other.growth_), nextID_(other.nextID_) {
  CPMemory::operator=(other);
}

CPvList& CPvList::operator=(const CPvList& other) {
  if (this == &other) return *this;
  CPMemory::operator=(other);
  itemSize_ = other.itemSize_;
  growth_ = other.growth_;
  nextID_ = other.nextID_;
  return *this;
}

CPvList::~CPvList() { Free(); }

BYTE* CPvList::Items() const {
  auto* block = static_cast<BYTE*>(const_cast<void*>(GetCDataPtr()));
  return block != nullptr && GetSize() >= kHeaderSize ? block + kHeaderSize : nullptr;
}

DWORD CPvList::GetNItems() const {
  const unsigned long size = GetSize();
  return size < kHeaderSize ? 0 : static_cast<DWORD>((size - kHeaderSize) / itemSize_);
}

DWORD CPvList::GetNAllocItems() const {
  const unsigned long size = GetAllocSize();
  return size < kHeaderSize ? 0 : static_cast<DWORD>((size - kHeaderSize) / itemSize_);
}

int CPvList::SetCount(DWORD count) { return SetSize(static_cast<unsigned long>(BlockBytes(count, itemSize_))); }

void* CPvList::GetList() {
  auto* block = static_cast<BYTE*>(GetDataPtr());
  return block != nullptr && GetSize() >= kHeaderSize ? block + kHeaderSize : nullptr;
}

const void* CPvList::GetCList() const { return Items(); }

DWORD CPvList::IndexOf(DWORD key, int bByIndex) const {
  const DWORD count = GetNItems();
  if (bByIndex) return key < count ? key : ZR_INVALID_INDEX;
  for (DWORD i = 0; i < count; ++i)
    if (IdentityOf(ItemAt(i)) == key) return i;
  return ZR_INVALID_INDEX;
}

void* CPvList::GetItem(DWORD key, int bByIndex) {
  const DWORD index = IndexOf(key, bByIndex);
  return index == ZR_INVALID_INDEX ? nullptr : ItemAt(index);
}

const void* CPvList::GetCItem(DWORD key, int bByIndex) const {
  const DWORD index = IndexOf(key, bByIndex);
  return index == ZR_INVALID_INDEX ? nullptr : ItemAt(index);
}

int CPvList::SetNGrowth(DWORD growth) {
  if (growth == 0) return 0;
  growth_ = growth;
  return 1;
}

int CPvList::Realloc() { return CPMemory::Realloc(CPMEM_PRIVATE_COPY, 0, 0); }

int CPvList::Prealloc(DWORD count) {
  const DWORD have = GetNItems();
  if (UINT64{have} + count > GetNAllocItems()) {
    const UINT64 bytes = BlockBytes(UINT64{have} + count, itemSize_);
    if (bytes == 0 || !CPMemory::Realloc(static_cast<unsigned long>(bytes), 0, 0)) return 0;
  }
  if (GetHeader() != nullptr) SetCount(have);
  return 1;
}

DWORD CPvList::Insert(const void* item, DWORD index) {
  const DWORD count = GetNItems();
  const DWORD capacity = GetNAllocItems();
  const DWORD position = std::min(count, index);
  // A source inside this block would move with a reallocation or the shift: take a copy first,
  // placed as the list places items (4 bytes behind a 16-byte boundary).
  std::unique_ptr<BYTE[]> copy;
  const BYTE* block = Items();
  const auto* source = static_cast<const BYTE*>(item);
  if (block != nullptr && source >= block - kHeaderSize && source < block + GetAllocSize()) {
    copy.reset(new BYTE[itemSize_ + kHeaderSize]);
    std::memcpy(copy.get() + kHeaderSize, source, itemSize_);
    source = copy.get() + kHeaderSize;
  }
  if (UINT64{count} + 1 > capacity) {
    const UINT64 bytes = BlockBytes(UINT64{capacity} + growth_, itemSize_);
    if (bytes == 0 || !CPMemory::Realloc(static_cast<unsigned long>(bytes), 0, 0)) return ZR_INVALID_INDEX;
  }
  if (Items() == nullptr) return ZR_INVALID_INDEX;
  BYTE* slot = ItemAt(position);
  if (position < count) std::memmove(slot + itemSize_, slot, static_cast<std::size_t>(count - position) * itemSize_);
  InitItem(slot);
  InsertItem(slot, source);
  const DWORD id = nextID_++;
  SetIdentity(slot, id);
  SetCount(count + 1);
  return id;
}

void CPvList::RemoveAt(DWORD index) {
  const DWORD count = GetNItems();
  BYTE* slot = ItemAt(index);
  std::memmove(slot, slot + itemSize_, static_cast<std::size_t>(count - index - 1) * itemSize_);
  SetCount(count - 1);
}

int CPvList::Delete(DWORD key, int bByIndex, DWORD flags) {
  const DWORD index = IndexOf(key, bByIndex);
  if (index == ZR_INVALID_INDEX) return 1;
  if (!DeleteItem(ItemAt(index), flags)) return 0;
  if (GetNItems() < 2) {
    Free();
    return 1;
  }
  RemoveAt(index);
  return 1;
}

int CPvList::Replace(const void* item, DWORD key, int bByIndex, DWORD flags) {
  if (GetNItems() == 0 || item == nullptr) return 0;
  const DWORD index = IndexOf(key, bByIndex);
  if (index == ZR_INVALID_INDEX) return 0;
  BYTE* slot = ItemAt(index);
  if (!DeleteItem(slot, flags)) return 0;
  const DWORD id = IdentityOf(slot);
  InitItem(slot);
  InsertItem(slot, item);
  SetIdentity(slot, id);
  return 1;
}

int CPvList::Move(DWORD from, DWORD to) {
  if (from == to) return 1;
  const DWORD count = GetNItems();
  if (from >= count) return 0;
  to = std::min(to, count - 1);
  BYTE* first = ItemAt(std::min(from, to));
  BYTE* last = ItemAt(std::max(from, to)) + itemSize_;
  // One rotation by an item: the item travels to `to`, the others shift towards `from`.
  std::rotate(first, from < to ? first + itemSize_ : last - itemSize_, last);
  return 1;
}

int CPvList::Clear(DWORD flags) {
  if (GetNItems() == 0) return 1;
  for (DWORD i = 0; i < GetNItems();) {
    if (DeleteItem(ItemAt(i), flags)) {
      RemoveAt(i);
    } else {
      ++i;
    }
  }
  if (GetNItems() != 0) return 0;
  Free();
  return 1;
}

int CPvList::Truncate(DWORD count) {
  const DWORD have = GetNItems();
  if (have == 0) return count == 0 ? 1 : 0;
  if (count > have) return 0;
  return SetCount(count);
}

DWORD CPvList::FreeListItems(DWORD flags) {
  const DWORD count = GetNItems();
  for (DWORD i = 0; i < count; ++i) DeleteItem(ItemAt(i), flags);
  return count;
}

DWORD CPvList::IndexFromSearchID(CSearchID& id) const {
  const DWORD count = GetNItems();
  if (count == 0) return ZR_INVALID_INDEX;
  const DWORD index = id.uIndex();
  if (id.uID() == ZR_INVALID_INDEX) return index < count ? index : ZR_INVALID_INDEX;
  if (index < count && IdentityOf(ItemAt(index)) == id.uID()) return index;
  const DWORD found = IndexOf(id.uID(), 0);
  if (found == ZR_INVALID_INDEX) {
    id = CSearchID();
    return ZR_INVALID_INDEX;
  }
  id.AssignIndex(found);
  return found;
}

void CPvList::RelocateMemory(void* oldData, unsigned long oldSize, void* newData, unsigned long newSize, int mode) {
  if (rawRelocation_) {
    CPMemory::RelocateMemory(oldData, oldSize, newData, newSize, mode);
    return;
  }
  const unsigned long common = std::min(oldSize, newSize);
  if (common < kHeaderSize) return;
  std::memcpy(newData, oldData, kHeaderSize);
  // Only the items the old block holds (this handle still has it): slots past them hold nothing.
  const DWORD count = std::min(static_cast<DWORD>((common - kHeaderSize) / itemSize_), GetNItems());
  auto* from = static_cast<BYTE*>(oldData) + kHeaderSize;
  auto* to = static_cast<BYTE*>(newData) + kHeaderSize;
  if (mode < 2) {
    std::memcpy(to, from, static_cast<std::size_t>(count) * itemSize_);
    for (DWORD i = 0; i < count; ++i) InitItem(from + static_cast<std::size_t>(i) * itemSize_);
    return;
  }
  for (DWORD i = 0; i < count; ++i) {
    const std::size_t at = static_cast<std::size_t>(i) * itemSize_;
    InitItem(to + at);
    InstantiateItem(to + at, from + at);
  }
}

int CPvList::ClearForRelease() {
  if (rawRelocation_) return 1;  // a block being converted holds no initialised items
  const DWORD count = GetNItems();
  for (DWORD i = 0; i < count; ++i) ReleaseItem(ItemAt(i));
  return 1;
}

void CPvList::InitItem(void*) {}
void CPvList::InsertItem(void* item, const void* source) { std::memcpy(item, source, itemSize_); }
void CPvList::InstantiateItem(void* item, const void* source) { InsertItem(item, source); }
int CPvList::DeleteItem(void*, DWORD) { return 1; }
void CPvList::LoadInitItem(void*) {}
void CPvList::ReleaseItem(void*) {}

void CPvList::LoadInit() {
  const DWORD count = GetNItems();
  if (count == 0) return;
  nextID_ = count;
  for (DWORD i = 0; i < count; ++i) {
    SetIdentity(ItemAt(i), i);
    LoadInitItem(ItemAt(i));
  }
}

int CPvList::DynaSave(char* name, CZRArchive& archive) {
  if (BYTE* items = Items()) zr::StoreLE32(items - kHeaderSize, itemSize_);
  return CPMemory::DynaSave(name, archive);
}

void CPvList::DropRawBlock() {
  SetSize(0);  // no items for ClearForRelease to release
  Free();
}

int CPvList::DynaLoad(char* name, CZRArchive& archive, int mode, int bConvert) {
  Free();
  if (!CPMemory::DynaLoad(name, archive, mode)) {
    DropRawBlock();
    return 0;
  }
  if (GetHeader() == nullptr || GetSize() == 0) return 1;
  const DWORD stored = GetSize() >= kHeaderSize ? zr::LoadLE32(Items() - kHeaderSize) : 0;
  if (stored != itemSize_) {
    // A block too short for its header or an item size no list has is damage.
    if (!bConvert || stored < kMinItemSize) {
      DropRawBlock();
      return 0;
    }
    if (!ConvertItems(stored)) return 0;
  }
  LoadInit();
  return 1;
}

// Re-lays items saved with `stored` bytes each into items of this list's size; 0 and the block
// freed when it cannot be done. An empty result frees the block but succeeds.
int CPvList::ConvertItems(DWORD stored) {
  const DWORD count = static_cast<DWORD>((GetSize() - kHeaderSize) / stored);
  if (count == 0) {
    DropRawBlock();
    return 1;
  }
  const UINT64 bytes = BlockBytes(count, itemSize_);
  if (stored < itemSize_) {
    rawRelocation_ = true;
    const int grown = bytes != 0 && LoadRealloc(static_cast<unsigned long>(bytes));
    rawRelocation_ = false;
    if (!grown) {
      DropRawBlock();
      return 0;
    }
    BYTE* items = Items();
    for (DWORD i = count; i-- > 0;) {
      BYTE* item = items + static_cast<std::size_t>(i) * itemSize_;
      std::memmove(item, items + static_cast<std::size_t>(i) * stored, stored);
      std::memset(item + stored, 0, itemSize_ - stored);
    }
    return 1;
  }
  SetCount(count);
  BYTE* items = Items();
  for (DWORD i = 0; i < count; ++i)
    std::memmove(items + static_cast<std::size_t>(i) * itemSize_, items + static_cast<std::size_t>(i) * stored, itemSize_);
  return 1;
}

// ---- CPvListS ----

CPvListS::CPvListS(DWORD itemSize, DWORD growth, ZRCOMPAREPROC compare) : CPvList(itemSize, growth), compare_(compare) {}

CPvListS::CPvListS(const CPvListS& other) : CPvList(other), compare_(other.compare_) {}

CPvListS& CPvListS::operator=(const CPvListS& other) {
  if (this == &other) return *this;
  CPvList::operator=(other);
  compare_ = other.compare_;
  return *this;
}

DWORD CPvListS::LocateEntry(const void* key) const {
  const DWORD count = GetNItems();
  if (compare_ == nullptr) return count;
  return zrqsearch(key, GetCList(), count, GetItemSize(), compare_);
}

DWORD CPvListS::LocateIndex(const void* key) const {
  const DWORD index = LocateEntry(key);
  if (compare_ == nullptr || index >= GetNItems() || compare_(key, GetCItem(index, 1)) != 0) return ZR_INVALID_INDEX;
  return index;
}

DWORD CPvListS::Add(const void* item, int bReplace) {
  const DWORD index = LocateEntry(item);
  if (bReplace && compare_ != nullptr && index < GetNItems() && compare_(item, GetCItem(index, 1)) == 0) {
    InsertItem(ItemAt(index), item);
    return index;
  }
  return Insert(item, index) == ZR_INVALID_INDEX ? ZR_INVALID_INDEX : index;
}

int CPvListS::ReSort() {
  if (GetHeader() == nullptr || compare_ == nullptr) return 0;
  zrqsort(GetList(), GetNItems(), GetItemSize(), compare_);
  return 1;
}
