// CPDynArray (records without hooks, gaps filled with zeros, archive load with item-size
// conversion) and CPObjRefList (sorted object references with use counts).
#include "zrobj/cpdynarray.h"

#include <algorithm>
#include <cstring>

#include "zrobj/byteorder.h"
#include "zrobj/chunkarc.h"
#include "zrobj/cpmemfile.h"
#include "zrobj/zrutil.h"

namespace {

constexpr UINT64 kMaxBlock = 0xFFFFFFFFull - 64;  // what CPMemory can still claim

BYTE* Bytes(CPMemory& block) { return static_cast<BYTE*>(const_cast<void*>(block.GetCDataPtr())); }

// Removes record `index` of `size` bytes from `block`; 1 also when there is no such record.
int RemoveRecord(CPMemory& block, DWORD size, DWORD index) {
  const DWORD count = size == 0 ? 0 : static_cast<DWORD>(block.GetSize() / size);
  if (index >= count) return 1;
  BYTE* at = Bytes(block) + static_cast<std::size_t>(index) * size;
  std::memmove(at, at + size, static_cast<std::size_t>(count - index - 1) * size);
  block.SetSize(static_cast<unsigned long>(count - 1) * size);
  return 1;
}

}  // namespace

CPDynArray::CPDynArray(DWORD itemSize, DWORD growth)
    : itemSize_(itemSize), growth_(growth != 0 ? growth : kDefaultGrowth) {}

CPDynArray::CPDynArray(const CPDynArray& other) : CPMemory(), itemSize_(other.itemSize_), growth_(other.growth_) {
  CPMemory::operator=(other);
}

CPDynArray& CPDynArray::operator=(const CPDynArray& other) {
  if (this == &other) return *this;
  CPMemory::operator=(other);
  itemSize_ = other.itemSize_;
  growth_ = other.growth_;
  return *this;
}

CPDynArray::~CPDynArray() { Free(); }

DWORD CPDynArray::GetCount() const { return itemSize_ == 0 ? 0 : static_cast<DWORD>(GetSize() / itemSize_); }

void* CPDynArray::GetArray(DWORD* count) {
  if (count != nullptr) *count = GetCount();
  return Bytes(*this);
}

int CPDynArray::Reserve(UINT64 items) {
  const UINT64 bytes = items * itemSize_;
  if (bytes == 0 || bytes > kMaxBlock) return 0;
  const unsigned long size = GetSize();
  if (!Realloc(static_cast<unsigned long>(bytes), 0, 0)) return 0;
  return SetSize(std::min<unsigned long>(size, static_cast<unsigned long>(bytes)));
}

int CPDynArray::AllocItems(DWORD count) {
  if (itemSize_ == 0) return 0;
  if (count == 0) return Free();
  const DWORD have = GetCount();
  if (!Reserve(count)) return 0;
  SetSize(static_cast<unsigned long>(count) * itemSize_);
  if (count > have)
    std::memset(Bytes(*this) + static_cast<std::size_t>(have) * itemSize_, 0, static_cast<std::size_t>(count - have) * itemSize_);
  return 1;
}

int CPDynArray::Add(const void* item) {
  if (itemSize_ == 0) return 0;
  const DWORD count = GetCount();
  const DWORD capacity = static_cast<DWORD>(GetAllocSize() / itemSize_);
  if (UINT64{count} + 1 > capacity && !Reserve(UINT64{growth_} + capacity)) return 0;
  SetSize(static_cast<unsigned long>(count + 1) * itemSize_);
  std::memcpy(Bytes(*this) + static_cast<std::size_t>(count) * itemSize_, item, itemSize_);
  return 1;
}

int CPDynArray::Insert(DWORD index, const void* item) {
  if (itemSize_ == 0) return 0;
  const DWORD count = GetCount();
  const DWORD capacity = static_cast<DWORD>(GetAllocSize() / itemSize_);
  const UINT64 wanted = index < count ? UINT64{count} + 1 : UINT64{index} + 1;
  // Greater or equal here, where Add asks for greater: the two differ on purpose.
  if (wanted >= capacity && !Reserve((wanted + growth_ - 1) / growth_ * growth_)) return 0;
  if (wanted * itemSize_ > GetAllocSize()) return 0;
  SetSize(static_cast<unsigned long>(wanted * itemSize_));
  BYTE* items = Bytes(*this);
  BYTE* slot = items + static_cast<std::size_t>(index) * itemSize_;
  if (index < count) {
    std::memmove(slot + itemSize_, slot, static_cast<std::size_t>(count - index) * itemSize_);
  } else {
    std::memset(items + static_cast<std::size_t>(count) * itemSize_, 0, static_cast<std::size_t>(index - count) * itemSize_);
  }
  std::memcpy(slot, item, itemSize_);
  return 1;
}

int CPDynArray::Delete(DWORD index) { return RemoveRecord(*this, itemSize_, index); }

int CPDynArray::DynaSave(char* name, CZRArchive& archive) {
  const unsigned int level = archive.Chnk_Open(name, CHNK_ACCESS_WRITE);
  if (level == CHNK_INVALID) return 0;
  BYTE size[4];
  zr::StoreLE32(size, itemSize_);
  const int saved = archive.Chnk_Write(size, sizeof size) == sizeof size && CPMemory::DynaSave(name, archive);
  archive.Chnk_Close(level);
  return saved;
}

// A file archive hands the whole rest of a chunk to its first read, so the item size cannot be
// read alone: the entry is loaded whole, and the block is taken from the inner entry behind the
// size word through a memory archive.
int CPDynArray::DynaLoad(char* name, CZRArchive& archive, int mode) {
  Free();
  CPMemory entry;
  if (!entry.DynaLoad(name, archive, mode) || entry.GetSize() < 4) return 0;
  const auto* body = static_cast<const BYTE*>(entry.GetCDataPtr());
  const DWORD stored = zr::LoadLE32(body);
  CPMemoryFile inner;
  if (!inner.Open(CHNK_ACCESS_WRITE)) return 0;
  const DWORD rest = static_cast<DWORD>(entry.GetSize() - 4);
  if (rest != 0 && inner.Write(body + 4, rest) != rest) return 0;
  entry.Free();
  CMemChunkArchive reader;
  reader.SetContent(inner);
  if (!reader.Open(CHNK_ACCESS_READ) || !CPMemory::DynaLoad(name, reader, mode)) {
    Free();
    return 0;
  }
  return CheckVersioning(stored);
}

int CPDynArray::CheckVersioning(DWORD storedSize) {
  if (storedSize == itemSize_ || GetHeader() == nullptr) return 1;
  if (storedSize == 0 || itemSize_ == 0) {  // damage: no array has items of 0 bytes
    Free();
    return 0;
  }
  const DWORD count = static_cast<DWORD>(GetSize() / storedSize);
  const UINT64 bytes = UINT64{count} * itemSize_;
  if (storedSize > itemSize_) {
    BYTE* items = Bytes(*this);
    for (DWORD i = 0; i < count; ++i)
      std::memmove(items + static_cast<std::size_t>(i) * itemSize_, items + static_cast<std::size_t>(i) * storedSize, itemSize_);
    SetSize(static_cast<unsigned long>(bytes));
    return 1;
  }
  if (bytes > kMaxBlock || !Realloc(static_cast<unsigned long>(bytes), 0, 0)) {
    Free();
    return 0;
  }
  BYTE* items = Bytes(*this);
  for (DWORD i = count; i-- > 0;) {
    BYTE* item = items + static_cast<std::size_t>(i) * itemSize_;
    std::memmove(item, items + static_cast<std::size_t>(i) * storedSize, storedSize);
    std::memset(item + storedSize, 0, itemSize_ - storedSize);
  }
  return 1;
}

// ---- CPObjRefList ----

namespace {

int CompareReferences(const void* key, const void* item) {
  const auto* a = static_cast<const tagOBJREFERENCE*>(key);
  const auto* b = static_cast<const tagOBJREFERENCE*>(item);
  if (a->dwObject != b->dwObject) return a->dwObject < b->dwObject ? -1 : 1;
  if (a->dwFolder != b->dwFolder) return a->dwFolder < b->dwFolder ? -1 : 1;
  return 0;
}

constexpr DWORD kRecordSize = sizeof(tagOBJREFERENCE);

}  // namespace

CPObjRefList::CPObjRefList(const CPObjRefList& other) : CPMemory() { CPMemory::operator=(other); }

CPObjRefList::~CPObjRefList() { Free(); }

DWORD CPObjRefList::Count() const { return static_cast<DWORD>(GetSize() / kRecordSize); }

tagOBJREFERENCE* CPObjRefList::GetArray(DWORD* count) {
  if (count != nullptr) *count = Count();
  return reinterpret_cast<tagOBJREFERENCE*>(Bytes(*this));
}

DWORD CPObjRefList::LowerBound(const tagOBJREFERENCE& key) const {
  return zrqsearch(&key, GetCDataPtr(), Count(), kRecordSize, CompareReferences);
}

int CPObjRefList::Add(DWORD object, DWORD folder) {
  const tagOBJREFERENCE record{folder, object, 0};
  const DWORD count = Count();
  const DWORD index = LowerBound(record);
  tagOBJREFERENCE* records = GetArray(nullptr);
  if (index < count && CompareReferences(&record, records + index) == 0) return 1;
  const DWORD capacity = static_cast<DWORD>(GetAllocSize() / kRecordSize);
  if (count + 1 > capacity) {
    const UINT64 bytes = (UINT64{capacity} + kGrowth) * kRecordSize;
    if (bytes > kMaxBlock || !Realloc(static_cast<unsigned long>(bytes), 0, 0)) return 0;
  }
  SetSize(static_cast<unsigned long>(count + 1) * kRecordSize);
  records = GetArray(nullptr);
  std::memmove(records + index + 1, records + index, static_cast<std::size_t>(count - index) * kRecordSize);
  records[index] = record;
  return 1;
}

int CPObjRefList::Tag(DWORD object, DWORD folder) {
  const tagOBJREFERENCE key{folder, object, 0};
  const DWORD index = LowerBound(key);
  tagOBJREFERENCE* records = GetArray(nullptr);
  if (index >= Count() || CompareReferences(&key, records + index) != 0) return 0;
  ++records[index].dwUseCount;
  return 1;
}

int CPObjRefList::Delete(DWORD index) { return RemoveRecord(*this, kRecordSize, index); }
