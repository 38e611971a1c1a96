// Properties: the PUID, CPProperty with its allocator over the "PropHeap" pools and the
// "PropertyPool" heap, the process-wide converter list, and CPPropertyList.
#include "zrobj/cpprop.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <vector>

#include "memory/heap/regionmap_internal.h"
#include "platform/dlgsvc.h"
#include "platform/fault.h"
#include "zrobj/byteorder.h"
#include "zrobj/cfheap.h"
#include "zrobj/cheap.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrhash.h"

namespace os = zr::os;

const tagPUID puidUnassigned = {ZR_NO_ID, 0, 0};

// ---- tagPUID -------------------------------------------------------------------------------------

bool tagPUID::operator==(const tagPUID& other) const {
  return this == &other ||
         (dwProject == other.dwProject && dwObject == other.dwObject && dwCustom == other.dwCustom);
}

bool tagPUID::operator!() const { return *this == puidUnassigned; }

void tagPUID::Unassign() { *this = puidUnassigned; }

void tagPUID::CreatePUID() {
  static std::atomic<DWORD> counter{0};
  *this = {ZR_NO_ID, counter.fetch_add(1, std::memory_order_relaxed) + 1, 0};
}

DWORD tagPUID::GetCRC() const {
  BYTE bytes[12];
  zr::StoreLE32(bytes, dwProject);
  zr::StoreLE32(bytes + 4, dwObject);
  zr::StoreLE32(bytes + 8, dwCustom);
  return GetCRC1615(bytes, sizeof bytes);
}

// ---- the property allocator ------------------------------------------------------------------------
//
// Blocks up to the largest pool's item come from the smallest "PropHeap" pool that holds them, larger
// ones from the "PropertyPool" heap. Pool items are only 8-byte aligned, so an item that is not on a
// 16-byte boundary hands out its address + 8: a pool grants its item size - 8 in every slot. The word
// just in front of a block tells the two apart: the pool's "allocated" mark in front of an item, the
// zero the allocator writes into a shifted item's second word otherwise.

namespace {

constexpr const char* kSourceFile = "src/zrobj/cpprop";
constexpr unsigned long kAlignShift = 8;

struct PoolSpec {
  const char* name;
  unsigned long itemSize;
};
constexpr PoolSpec kPools[] = {{"PropHeap64", 64},     {"PropHeap128", 128},   {"PropHeap256", 256},
                               {"PropHeap512", 512},   {"PropHeap1024", 1024}, {"PropHeap1536", 1536},
                               {"PropHeap2048", 2048}};
constexpr int kPoolCount = static_cast<int>(sizeof kPools / sizeof kPools[0]);
constexpr const char* kHeapName = "PropertyPool";

unsigned long RoundUp32(unsigned long size) { return (size + 31ul) & ~31ul; }
unsigned long PoolGrant(int pool) { return kPools[pool].itemSize - kAlignShift; }

CFHeap* Pool(int index) {
  static CFHeap* const pools[kPoolCount] = {
      zr::GetLibraryPool(kPools[0].name), zr::GetLibraryPool(kPools[1].name), zr::GetLibraryPool(kPools[2].name),
      zr::GetLibraryPool(kPools[3].name), zr::GetLibraryPool(kPools[4].name), zr::GetLibraryPool(kPools[5].name),
      zr::GetLibraryPool(kPools[6].name)};
  return pools[index];
}

CHeap* PropertyHeap() {
  static CHeap* const heap = zr::GetLibraryHeap(kHeapName);
  return heap;
}

// The pool that serves `bytes`, or -1 for the heap.
int PoolFor(unsigned long bytes) {
  for (int i = 0; i < kPoolCount; ++i)
    if (bytes <= PoolGrant(i)) return i;
  return -1;
}

// The pool whose memory holds `block`, or -1.
int PoolOf(const void* block) {
  const void* owner = zr::LookupRegion(block).owner;
  if (owner == nullptr) return -1;
  for (int i = 0; i < kPoolCount; ++i)
    if (owner == Pool(i)) return i;
  return -1;
}

DWORD WordBefore(const BYTE* at) {
  DWORD word;
  std::memcpy(&word, at - 4, sizeof word);
  return word;
}

// The pool item a block handed out lies in.
BYTE* ItemOf(void* block) {
  auto* bytes = static_cast<BYTE*>(block);
  return WordBefore(bytes) == CFHEAP_ALLOCATED ? bytes : bytes - kAlignShift;
}

void* FromPool(int index) {
  auto* item = static_cast<BYTE*>(Pool(index)->Alloc());
  if (item == nullptr || reinterpret_cast<std::uintptr_t>(item) % 16 == 0) return item;
  const DWORD shifted = 0;
  std::memcpy(item + 4, &shifted, sizeof shifted);
  return item + kAlignShift;
}

class PropertyMallocator final : public IMallocator {
 public:
  void* Alloc(unsigned long* size, unsigned long heapFlags) override {
    const int pool = PoolFor(*size);
    if (pool >= 0) {
      *size = PoolGrant(pool);
      return FromPool(pool);
    }
    *size = RoundUp32(*size);
    return PropertyHeap()->Alloc(*size, heapFlags, kSourceFile, 61, ZR_CALLER_ADDRESS());
  }
  // In place only: a pool block within its pool's grant, a heap block as the heap manages.
  int Realloc(void* block, unsigned long* size, unsigned long heapFlags) override {
    const int pool = PoolOf(block);
    if (pool >= 0) {
      if (*size > PoolGrant(pool)) return 0;
      *size = PoolGrant(pool);
      return 1;
    }
    *size = RoundUp32(*size);
    return PropertyHeap()->Realloc(block, *size, heapFlags | CPMEM_HEAP_REALLOC_IN_PLACE_ONLY, kSourceFile, 74,
                                   ZR_CALLER_ADDRESS()) != nullptr;
  }
  int Free(void* block, unsigned long heapFlags) override {
    const int pool = PoolOf(block);
    if (pool < 0) return PropertyHeap()->Free(block, heapFlags);
    Pool(pool)->Free(ItemOf(block));
    return 1;
  }
  int Verify(void* block) override {
    if (block == nullptr) return 1;
    const int pool = PoolOf(block);
    if (pool < 0) return PropertyHeap()->Verify(block);
    return WordBefore(ItemOf(block)) == CFHEAP_ALLOCATED ? 1 : 0;
  }
};

PropertyMallocator g_property_mallocator;

}  // namespace

namespace zr {

PropertyBlockChoice ChoosePropertyBlock(unsigned long bytes) {
  const int pool = PoolFor(bytes);
  if (pool >= 0) return {kPools[pool].name, PoolGrant(pool)};
  return {kHeapName, RoundUp32(bytes)};
}

}  // namespace zr

// ---- the converter list ----------------------------------------------------------------------------

namespace {

// Items: identity (4), converter (8), context (8), spare (4); the list puts item k at data + 4 + 24k,
// so the two pointers lie on 8-byte boundaries.
constexpr DWORD kConverterItemSize = 24;
constexpr std::size_t kConverterAt = 4;
constexpr std::size_t kContextAt = 12;

class ConverterList final : public CPvList {
 public:
  ConverterList() : CPvList(kConverterItemSize, 2) {}
  ~ConverterList() override { Free(); }
  const char* GetClassID() const override { return "CPPropConvert"; }
};

struct Converter {
  PROPCONVERTER fn;
  void* context;
};

struct Converters {
  std::mutex mutex;
  ConverterList list;
};

Converters& TheConverters() {
  static auto* converters = new Converters;  // never destroyed: properties may convert during unload
  return *converters;
}

std::vector<Converter> SnapshotConverters() {
  Converters& all = TheConverters();
  std::lock_guard lock(all.mutex);
  std::vector<Converter> out;
  const DWORD n = all.list.GetNItems();
  out.reserve(n);
  for (DWORD i = 0; i < n; ++i) {
    const auto* item = static_cast<const BYTE*>(all.list.GetCItem(i, 1));
    Converter c;
    std::memcpy(&c.fn, item + kConverterAt, sizeof c.fn);
    std::memcpy(&c.context, item + kContextAt, sizeof c.context);
    out.push_back(c);
  }
  return out;
}

}  // namespace

DWORD CPProperty::RegisterPropertyConverter(PROPCONVERTER converter, void* context) {
  BYTE item[kConverterItemSize] = {};
  std::memcpy(item + kConverterAt, &converter, sizeof converter);
  std::memcpy(item + kContextAt, &context, sizeof context);
  Converters& all = TheConverters();
  std::lock_guard lock(all.mutex);
  return all.list.Add(item);
}

void CPProperty::UnregisterPropertyConverter(DWORD id) {
  Converters& all = TheConverters();
  std::lock_guard lock(all.mutex);
  all.list.Delete(id, 0, 0);
}

// The converters run outside the list's lock (on a copy), so one may register or unregister others.
int CPProperty::Convert() {
  const std::vector<Converter> converters = SnapshotConverters();
  if (converters.empty()) return 1;
  for (const Converter& c : converters) {
    int result = 0;
    const std::uint32_t fault = os::Guarded([&] { result = c.fn(*this, c.context); });
    if (fault != 0) {
      if (IsDebugOn()) os::wPrintf(3, 3, u"\rCPProperty::Convert: converter raised exception %08X\r\n", fault);
      continue;
    }
    if (result != 0) return result;
  }
  return 0;
}

// ---- CPProperty ------------------------------------------------------------------------------------

CPProperty::CPProperty() = default;

CPProperty::CPProperty(DWORD type, const GUID& id) { SetPropertyID(type, id); }

// Sharing checks the block's class id and allocator, so it runs here, where both are this class's.
CPProperty::CPProperty(const CPProperty& other) : CPMemory() {
  CPMemory::operator=(other);
  CopyFields(other);
}

CPProperty& CPProperty::operator=(const CPProperty& other) {
  if (this == &other) return *this;
  if (GetHeader() != other.GetHeader()) Free();
  CPMemory::operator=(other);
  CopyFields(other);
  return *this;
}

CPProperty::~CPProperty() { Free(); }

void CPProperty::CopyFields(const CPProperty& other) {
  type_ = other.type_;
  id_ = other.id_;
  puid_ = other.puid_;
  crc_ = other.crc_;
  freeHandler_ = other.freeHandler_;
}

IMallocator* CPProperty::GetMallocator() { return &g_property_mallocator; }

const GUID& CPProperty::GetPropertyID() const {
  static constexpr GUID kZero{};
  return type_ == 0 ? kZero : id_;
}

void CPProperty::SetPropertyID(DWORD type, const GUID& id) {
  type_ = type;
  id_ = id;
  crc_ = CPPROP_CRC_NONE;
}

int CPProperty::Free() {
  if (PROPFREEHANDLER handler = freeHandler_) {
    const std::uint32_t fault = os::Guarded([&] {
      if (GetHeader() != nullptr && GetRefCnt() == 1) handler(*this);
    });
    if (fault != 0) os::wPrintf(3, 0, u"\rCPProperty::Free exception\r\n");
    freeHandler_ = nullptr;
  }
  return CPMemory::Free();
}

void CPProperty::Reset() {
  Free();
  type_ = 0;
  crc_ = CPPROP_CRC_NONE;
  id_ = GUID{};
  puid_ = {0, 0, 0};
}

void CPProperty::Construct() { new (this) CPProperty(); }

CPProperty* CPProperty::Construct(void* place) { return new (place) CPProperty(); }

// ---- CPPropertyList --------------------------------------------------------------------------------

namespace {

tagPROPLISTITEM* Record(void* item) { return static_cast<tagPROPLISTITEM*>(item); }
const tagPROPLISTITEM* Record(const void* item) { return static_cast<const tagPROPLISTITEM*>(item); }

}  // namespace

CPPropertyList::CPPropertyList() : CPvList(sizeof(tagPROPLISTITEM), kGrowth) {}

CPPropertyList::CPPropertyList(const CPPropertyList& other) : CPvList(sizeof(tagPROPLISTITEM), kGrowth) {
  CPvList::operator=(other);
}

CPPropertyList& CPPropertyList::operator=(const CPPropertyList& other) {
  CPvList::operator=(other);
  return *this;
}

CPPropertyList::~CPPropertyList() { Free(); }

CPProperty* CPPropertyList::GetItem(DWORD key, int bByIndex) {
  void* item = CPvList::GetItem(key, bByIndex);
  return item == nullptr ? nullptr : &Record(item)->Property();
}

DWORD CPPropertyList::Insert(CPProperty& property, DWORD index) {
  // A record around a private copy of `property`, placed as the list places its items.
  alignas(16) BYTE storage[sizeof(tagCPVLIST_HEADER) + sizeof(tagPROPLISTITEM)];
  auto* record = reinterpret_cast<tagPROPLISTITEM*>(storage + sizeof(tagCPVLIST_HEADER));
  CPProperty* copy = new (record->property) CPProperty(property);
  copy->Realloc(CPMEM_PRIVATE_COPY, 0, 0);
  const DWORD id = CPvList::Insert(record, index);
  copy->SetFreeHandler(nullptr);  // the item has it now; a failed insertion is no last release
  copy->~CPProperty();
  return id;
}

DWORD CPPropertyList::AddExclusive(CPProperty& property) {
  const DWORD n = GetNItems();
  tagPROPLISTITEM* items = n ? GetList() : nullptr;
  for (DWORD i = 0; items && i < n; ++i) {
    CPProperty& item = items[i].Property();
    if (item.GetPUID() != property.GetPUID()) continue;
    if (std::memcmp(&item.GetPropertyID(), &property.GetPropertyID(), sizeof(GUID)) != 0) continue;
    item = property;
    item.Realloc(CPMEM_PRIVATE_COPY, 0, 0);
    return i;
  }
  return Insert(property, ZR_INVALID_INDEX);
}

void CPPropertyList::InitItem(void* item) { CPProperty::Construct(Record(item)->property); }

void CPPropertyList::InsertItem(void* item, const void* source) { Record(item)->Property() = Record(source)->Property(); }

int CPPropertyList::DeleteItem(void* item, DWORD) {
  Record(item)->Property().Free();
  return 1;
}

void CPPropertyList::LoadInitItem(void* item) { InitItem(item); }

void CPPropertyList::ReleaseItem(void* item) { Record(item)->Property().Free(); }
