// The fixed-block heap CFHeap: pools of equal slots in 64 KiB-rounded blocks, most useful block
// first, delayed release of idle blocks, dumps, the registry of pools and the library's pools.
//
// A pointer handed to Free is checked against the address map first; only a slot inside one of this
// pool's own blocks is read directly, anything else through a probed read that cannot fault.
#include "zrobj/cfheap.h"

#include <cstring>
#include <mutex>
#include <new>

#include "base/compiler.h"
#include "platform/clock.h"
#include "platform/dlgsvc.h"
#include "platform/fault.h"
#include "memory/heap/privheap_internal.h"
#include "memory/heap/regionmap_internal.h"
#include "platform/regions.h"
#include "platform/wformat.h"
#include "memory/heap/cheap_internal.h"
#include "zrobj/cheap.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;

namespace zr {
namespace {

constexpr std::size_t kBlockHeader = sizeof(tagFHEAPBLOCK);
constexpr std::size_t kSlotHeader = 8;  // offset word, next word
constexpr std::uint64_t kCountedHeader = 24;  // the block header as the slot count reckons it

HeapRegistry<CFHeap>& Pools() {
  static auto* registry = new HeapRegistry<CFHeap>;  // never destroyed: pools go during unload
  return *registry;
}

std::uintptr_t Addr(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }
void* Ptr(std::uintptr_t a) { return reinterpret_cast<void*>(a); }

DWORD SlotWord(std::uintptr_t slot, int index) {
  DWORD value;
  std::memcpy(&value, Ptr(slot + 4 * index), sizeof value);
  return value;
}
void SetSlotWord(std::uintptr_t slot, int index, DWORD value) { std::memcpy(Ptr(slot + 4 * index), &value, sizeof value); }

struct LibraryPools {
  CFHeap pools[14] = {
      {"LocFileHeap", 6008, 16, 2},  {"LocFileBufferHeap", 16384, 16, 2}, {"PropHeap64", 64, 64, 8},
      {"PropHeap128", 128, 64, 8},   {"PropHeap256", 256, 64, 8},         {"PropHeap512", 512, 32, 4},
      {"PropHeap1024", 1024, 64, 4}, {"PropHeap1536", 1536, 64, 4},       {"PropHeap2048", 2048, 64, 2},
      {"CPVItemPool0", 76, 16, 2},   {"CPVItemPool1", 80, 16, 2},         {"CPVItemPool2", 84, 16, 2},
      {"CPVItemPool3", 88, 16, 2},   {"CPVItemPool4", 92, 16, 2},
  };
};

LibraryPools& Library() {
  static LibraryPools pools;  // destroyed at unload, with the leak reports
  return pools;
}

[[maybe_unused]] const bool g_library_pools_created = (Library(), true);

}  // namespace

CFHeap* GetLibraryPool(const char* name) {
  for (CFHeap& pool : Library().pools)
    if (EqualNoCase(pool.GetName(), name)) return &pool;
  return nullptr;
}

}  // namespace zr

using zr::Addr;
using zr::Ptr;

CFHeap::CFHeap(const char* name, unsigned int itemSize, unsigned int itemsPerBlock, unsigned int minFreeBlocks) {
  if (name) zr::CopyHeapName(name_, name);
  else zr::CopyHeapName(name_, os::FormatNarrow("Heap %08x", Addr(this)).c_str());
  slot_size_ = std::uint64_t{itemSize} + zr::kSlotHeader;
  // The product rounded down to 64 KiB, plus 64 KiB: an exact multiple still gains 64 KiB.
  block_size_ = static_cast<std::size_t>(((slot_size_ * itemsPerBlock) & ~std::uint64_t{0xFFFF}) + 0x10000);
  const std::uint64_t slots = (block_size_ - zr::kCountedHeader) / slot_size_;
  slots_per_block_ = slots > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<unsigned int>(slots);
  stride_ = static_cast<std::size_t>((slot_size_ + 7) & ~std::uint64_t{7});
  region_bytes_ = zr::kBlockHeader + std::size_t{slots_per_block_} * stride_;
  min_free_ = minFreeBlocks ? minFreeBlocks : 2;
  zr::Pools().Add(this);
}

CFHeap::~CFHeap() {
  std::uint64_t allocated = 0;
  for (tagFHEAPBLOCK* block = first_; block;) {
    tagFHEAPBLOCK* next = block->pNext;
    allocated += slots_per_block_ - block->dwFree;
    ReleaseBlock(block);
    block = next;
  }
  first_ = last_ = nullptr;
  if (allocated) {
    os::wPrintf(0, 9, u"CFHeap(%hs)::~CFHeap: %i items (%u bytes) not freed\r\n", name_, static_cast<int>(allocated),
            static_cast<std::uint32_t>(allocated * slot_size_));
    DetailedMessageBeep(static_cast<UINT>(-1), "src/zrobj/cosobj", 1411);
  }
  zr::Pools().Remove(this);
}

unsigned int CFHeap::GetItemSize() { return static_cast<unsigned int>(slot_size_); }

// ---- the block list (caller holds the lock) ------------------------------------------------------

void CFHeap::Unlink(tagFHEAPBLOCK* block) {
  if (block->pPrev) block->pPrev->pNext = block->pNext;
  else first_ = block->pNext;
  if (block->pNext) block->pNext->pPrev = block->pPrev;
  else last_ = block->pPrev;
  block->pPrev = block->pNext = nullptr;
}

void CFHeap::PushFront(tagFHEAPBLOCK* block) {
  block->pPrev = nullptr;
  block->pNext = first_;
  if (first_) first_->pPrev = block;
  else last_ = block;
  first_ = block;
}

// A new block with every slot free, threaded in address order, at the front of the list.
tagFHEAPBLOCK* CFHeap::NewBlock() {
  if (slots_per_block_ == 0) return nullptr;
  void* base = os::AllocateRegion(region_bytes_);
  if (!base) return nullptr;
  auto* block = new (base) tagFHEAPBLOCK{this, slots_per_block_, os::GetTickCount(), static_cast<DWORD>(zr::kBlockHeader), 0, nullptr, nullptr};
  for (unsigned int i = 0; i < slots_per_block_; ++i) {
    const std::size_t offset = zr::kBlockHeader + i * stride_;
    const std::uintptr_t slot = Addr(base) + offset;
    zr::SetSlotWord(slot, 0, static_cast<DWORD>(offset));
    zr::SetSlotWord(slot, 1, i + 1 < slots_per_block_ ? static_cast<DWORD>(offset + stride_) : 0);
  }
  zr::MapRegion(base, region_bytes_, this);
  PushFront(block);
  oldest_free_ = block->dwTick;
  ++free_blocks_;
  ++block_count_;
  return block;
}

void CFHeap::ReleaseBlock(tagFHEAPBLOCK* block) {
  zr::UnmapRegion(block, region_bytes_);
  os::FreeRegion(block);
}

void CFHeap::RecomputeOldestFree() {
  oldest_free_ = 0xFFFFFFFF;
  for (tagFHEAPBLOCK* block = first_; block; block = block->pNext)
    if (block->dwFree == slots_per_block_ && block->dwTick < oldest_free_) oldest_free_ = block->dwTick;
}

// Releases, from the front, wholly free blocks idle for longer than the delay, down to the minimum.
void CFHeap::ReleaseIdleBlocks(DWORD now) {
  for (tagFHEAPBLOCK* block = first_; block && free_blocks_ > min_free_;) {
    tagFHEAPBLOCK* next = block->pNext;
    if (block->dwFree == slots_per_block_ && now - block->dwTick > CFHEAP_RELEASE_DELAY) {
      Unlink(block);
      ReleaseBlock(block);
      --free_blocks_;
      --block_count_;
    }
    block = next;
  }
  RecomputeOldestFree();
}

// ---- allocation --------------------------------------------------------------------------------

// Takes the first free slot of a block that has one.
ZR_ALWAYS_INLINE void* CFHeap::PopSlot(tagFHEAPBLOCK* block) {
  const std::uintptr_t slot = Addr(block) + block->dwFreeList;
  block->dwFreeList = zr::SlotWord(slot, 1);
  zr::SetSlotWord(slot, 1, CFHEAP_ALLOCATED);
  --block->dwFree;
  return Ptr(slot + zr::kSlotHeader);
}

// Puts an allocated slot back on its block's free list.
ZR_ALWAYS_INLINE void CFHeap::PushSlot(tagFHEAPBLOCK* block, std::uintptr_t slot) {
  zr::SetSlotWord(slot, 1, block->dwFreeList);
  block->dwFreeList = static_cast<DWORD>(slot - Addr(block));
  ++block->dwFree;
}

// The common case, while the process has one thread: the front block has a free slot and is not
// wholly free, so neither the list nor the counters change. Everything else takes the lock.
void* CFHeap::Alloc() {
  zr::CountHeapEvent(zr::HeapCounter::kFAlloc);
  if (zr::ProcessIsSingleThreaded()) {
    tagFHEAPBLOCK* front = first_;
    if (front && front->dwFree != 0 && front->dwFree != slots_per_block_) return PopSlot(front);
  }
  return AllocLocked();
}

ZR_NOINLINE void* CFHeap::AllocLocked() {
  zr::LightGuard guard(lock_);
  tagFHEAPBLOCK* block = first_;
  while (block && block->dwFree == 0) block = block->pNext;
  if (!block) {
    block = NewBlock();
    if (!block) {
      if (IsDebugOn()) os::wPrintf(3, 5, u"\rCFHeap(%hs)::Alloc: Unable to allocate another block\r\n", name_);
      return nullptr;
    }
  } else if (block != first_ && block->dwFree >= 2) {
    Unlink(block);
    PushFront(block);
  }
  const bool wasFree = block->dwFree == slots_per_block_;
  void* item = PopSlot(block);
  if (wasFree) {
    --free_blocks_;
    if (block->dwTick == oldest_free_) RecomputeOldestFree();
  }
  return item;
}

// The block of an allocated slot inside one of this pool's own blocks, read directly; null for
// anything else (CheckSlot then looks again and says why).
ZR_ALWAYS_INLINE tagFHEAPBLOCK* CFHeap::OwnSlot(std::uintptr_t slot) {
  const zr::RegionEntry entry = zr::LookupRegion(Ptr(slot));
  if (entry.owner != this) return nullptr;
  auto* block = static_cast<tagFHEAPBLOCK*>(entry.object);
  return SlotIsAllocatedIn(block, slot) ? block : nullptr;
}

// True if a slot's two words at `slot` lie inside the slot area of `block` (any address may be asked).
ZR_ALWAYS_INLINE bool CFHeap::SlotInBlock(tagFHEAPBLOCK* block, std::uintptr_t slot) const {
  const std::uintptr_t offset = slot - Addr(block);  // wraps above the region when below the block
  return offset >= zr::kBlockHeader && offset <= region_bytes_ - zr::kSlotHeader;
}

// True if `slot` lies inside `block`, one of this pool's own blocks, and is marked allocated there.
ZR_ALWAYS_INLINE bool CFHeap::SlotIsAllocatedIn(tagFHEAPBLOCK* block, std::uintptr_t slot) {
  if (!SlotInBlock(block, slot)) return false;
  // Word by word: Alloc has just stored the next word alone, and a wider read could not take it from
  // the store buffer.
  return zr::SlotWord(slot, 1) == CFHEAP_ALLOCATED && slot - zr::SlotWord(slot, 0) == Addr(block) && block->pHeap == this;
}

// The block of an allocated slot of this pool, or null after reporting why not (debug output on).
ZR_NOINLINE ZR_COLD tagFHEAPBLOCK* CFHeap::CheckSlot(std::uintptr_t slot) {
  DWORD words[2] = {0, 0};
  tagFHEAPBLOCK* mine = nullptr;
  const zr::RegionEntry entry = zr::LookupRegion(Ptr(slot));
  if (entry.owner == this) {
    auto* block = static_cast<tagFHEAPBLOCK*>(entry.object);
    if (SlotInBlock(block, slot)) {
      std::memcpy(words, Ptr(slot), sizeof words);
      mine = block;
    }
  }
  if ((!mine && !os::ProbeRead(Ptr(slot), words, sizeof words)) || words[1] != CFHEAP_ALLOCATED) {
    if (IsDebugOn()) os::wPrintf(3, 5, u"\rCFHeap(%hs)::Free: Attempt to free unallocated pointer\r\n", name_);
    return nullptr;
  }
  if (!mine || slot - words[0] != Addr(mine) || mine->pHeap != this) {
    if (IsDebugOn())
      os::wPrintf(3, 5, u"\rCFHeap(%hs)::Free: Pointer not marked to belong to this heap (potential overwrite)\r\n", name_);
    return nullptr;
  }
  return mine;
}

// The common case, while the process has one thread: an allocated slot of the front block that
// does not leave the block wholly free. The front block is this pool's own, so its slots are read
// directly; anything else is checked against the address map first.
void CFHeap::Free(void* item) {
  zr::CountHeapEvent(zr::HeapCounter::kFFree);
  const std::uintptr_t slot = Addr(item) - zr::kSlotHeader;
  if (zr::ProcessIsSingleThreaded()) {
    tagFHEAPBLOCK* front = first_;
    if (front && SlotIsAllocatedIn(front, slot) && front->dwFree + 1 != slots_per_block_) return PushSlot(front, slot);
  }
  FreeLocked(slot);
}

ZR_NOINLINE void CFHeap::FreeLocked(std::uintptr_t slot) {
  tagFHEAPBLOCK* block = OwnSlot(slot);
  if (!block && !(block = CheckSlot(slot))) return;
  zr::LightGuard guard(lock_);
  if (zr::SlotWord(slot, 1) != CFHEAP_ALLOCATED) {  // freed by another thread since the check
    if (IsDebugOn()) os::wPrintf(3, 5, u"\rCFHeap(%hs)::Free: Attempt to free unallocated pointer\r\n", name_);
    return;
  }
  PushSlot(block, slot);
  if (first_ != block && first_->dwFree == 0) {  // (the block itself has a free slot now)
    Unlink(block);
    PushFront(block);
  }
  if (block->dwFree != slots_per_block_) return;
  ++free_blocks_;
  const DWORD now = os::GetTickCount();
  block->dwTick = now;
  if (now < oldest_free_) oldest_free_ = now;
  if (free_blocks_ > min_free_ && now - oldest_free_ > CFHEAP_RELEASE_DELAY) ReleaseIdleBlocks(now);
}

// ---- dumps and state ---------------------------------------------------------------------------

void CFHeap::GetState(State* state) {
  if (!state) return;
  zr::LightGuard guard(lock_);
  State s;
  for (tagFHEAPBLOCK* block = first_; block; block = block->pNext) {
    s.items += slots_per_block_ - block->dwFree;
    s.freeItems += block->dwFree;
  }
  s.blocks = block_count_;
  s.freeBlocks = free_blocks_;
  s.blockSize = block_size_;
  s.slotsPerBlock = slots_per_block_;
  s.oldestFree = oldest_free_;
  *state = s;
}

void CFHeap::Dump() {
  State s;
  GetState(&s);
  const auto kb = [](std::uint64_t bytes) { return static_cast<std::uint32_t>(bytes / 1024); };
  os::wPrintf(0, 0, u"\rCFHeap [%hs] Dump: %u items(%ukB), %u items free (%ukB), Total %u kB allocated\r\n", name_, s.items,
          kb(s.items * slot_size_), s.freeItems, kb(s.freeItems * slot_size_), kb(std::uint64_t{s.blocks} * s.blockSize));
}

void CFHeap::DumpHeaps(const char* name) {
  zr::Pools().ForEach([name](CFHeap* pool) {
    pool->Dump();
    return !(name && zr::EqualNoCase(pool->name_, name));  // pools before the match are dumped too
  });
}

int CFHeap::GetHeapList(CFHeap** list, int max) { return zr::Pools().Copy(list, max); }
