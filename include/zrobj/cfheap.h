// The fixed-block heap: a pool of items of one size, cut from blocks taken from the system in
// 64 KiB multiples, most useful block first; a block that stays wholly free is released later.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zrobj/export.h"
#include "zrobj/heaplock.h"
#include "zrobj/zrtypes.h"

class CFHeap;

// The header at the start of every pool block (pointers widened to 64 bits, order kept; the free
// list is an offset from the block). Slots follow at offset 40, each starting with two 32-bit words:
// the slot's offset from its block, then the next free slot's offset (0 ends the list) or
// CFHEAP_ALLOCATED; the item follows at offset 8.
struct tagFHEAPBLOCK {
  CFHeap* pHeap;            // owning pool
  DWORD dwFree;             // free slot count
  DWORD dwTick;             // GetTickCount() when created or when it last became wholly free
  DWORD dwFreeList;         // offset of the first free slot, 0 when none
  DWORD dwReserved;
  tagFHEAPBLOCK* pPrev;     // neighbours in the pool's list (most useful first)
  tagFHEAPBLOCK* pNext;
};
static_assert(sizeof(tagFHEAPBLOCK) == 40, "pool block header layout");

inline constexpr DWORD CFHEAP_ALLOCATED = 0xFFFFFFFF;
inline constexpr DWORD CFHEAP_RELEASE_DELAY = 120000;  // ms a wholly free block is kept at least

class ZROBJ_API CFHeap {
 public:
  // A null name becomes "Heap %08x" with the object's address; minFreeBlocks 0 means 2.
  CFHeap(const char* name, unsigned int itemSize, unsigned int itemsPerBlock, unsigned int minFreeBlocks);
  ~CFHeap();
  CFHeap(const CFHeap&) = delete;
  CFHeap& operator=(const CFHeap&) = delete;

  void* Alloc();
  void Free(void* item);
  unsigned int GetItemSize();  // item size + 8
  void Dump();
  // Dumps the registered pools in order; with a name, stops after the first that matches.
  static void DumpHeaps(const char* name);

  // For tools: the pool's name, its counts, and the registered pools.
  struct State {
    unsigned int items = 0;          // allocated items
    unsigned int freeItems = 0;      // free slots in the pool's blocks
    unsigned int blocks = 0;
    unsigned int freeBlocks = 0;     // blocks whose slots are all free
    std::size_t blockSize = 0;       // bytes per block as the pool counts them
    unsigned int slotsPerBlock = 0;
    DWORD oldestFree = 0;            // GetTickCount() stamp of the oldest wholly free block, or 0xFFFFFFFF
  };
  const char* GetName() const { return name_; }
  void GetState(State* state);
  static int GetHeapList(CFHeap** list, int max);

 private:
  using Lock = zr::LightLock;  // the pool's lock (a spinning critical section)

  tagFHEAPBLOCK* NewBlock();
  void* AllocLocked();
  void FreeLocked(std::uintptr_t slot);
  void* PopSlot(tagFHEAPBLOCK* block);
  void PushSlot(tagFHEAPBLOCK* block, std::uintptr_t slot);
  bool SlotInBlock(tagFHEAPBLOCK* block, std::uintptr_t slot) const;
  bool SlotIsAllocatedIn(tagFHEAPBLOCK* block, std::uintptr_t slot);
  tagFHEAPBLOCK* OwnSlot(std::uintptr_t slot);
  tagFHEAPBLOCK* CheckSlot(std::uintptr_t slot);
  void ReleaseBlock(tagFHEAPBLOCK* block);
  void ReleaseIdleBlocks(DWORD now);
  void RecomputeOldestFree();
  void Unlink(tagFHEAPBLOCK* block);
  void PushFront(tagFHEAPBLOCK* block);

  char name_[32] = {};
  Lock lock_;
  tagFHEAPBLOCK* first_ = nullptr;
  tagFHEAPBLOCK* last_ = nullptr;
  std::uint64_t slot_size_ = 0;      // item size + 8
  std::size_t block_size_ = 0;       // as counted: the product rounded down to 64 KiB, plus 64 KiB
  unsigned int slots_per_block_ = 0;
  unsigned int free_blocks_ = 0;
  unsigned int block_count_ = 0;
  unsigned int min_free_ = 0;
  DWORD oldest_free_ = 0xFFFFFFFF;
  // The layout in memory: slots keep their items 8-byte aligned, so a block may take more bytes
  // than it counts.
  std::size_t stride_ = 0;
  std::size_t region_bytes_ = 0;
};

namespace zr {
// The library's own pools, created at load ("LocFileHeap", "LocFileBufferHeap", "PropHeap64" ...
// "PropHeap2048", "CPVItemPool0" ... "CPVItemPool4"); case-insensitive; null for any other name.
ZROBJ_API CFHeap* GetLibraryPool(const char* name);
}  // namespace zr
