// Private heaps (the HeapCreate family) over memory taken from malloc, and the address map that
// tells which 64 KiB region of memory belongs to which heap or pool.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zrobj/export.h"
#include "zrobj/heaplock.h"
#include "zrobj/zrtypes.h"

using SIZE_T = std::size_t;

// Flags of HeapCreate, HeapAlloc, HeapReAlloc and HeapFree (Windows values).
inline constexpr DWORD HEAP_NO_SERIALIZE = 0x00000001u;         // accepted; every heap locks anyway
inline constexpr DWORD HEAP_GENERATE_EXCEPTIONS = 0x00000004u;  // failures are reported by HeapFailureRaises
inline constexpr DWORD HEAP_ZERO_MEMORY = 0x00000008u;
inline constexpr DWORD HEAP_REALLOC_IN_PLACE_ONLY = 0x00000010u;

// A heap of blocks. `maximumSize` 0 makes it growable; otherwise the blocks in use may not exceed it.
// `initialSize` is accepted and ignored (memory is taken on demand).
ZROBJ_API HANDLE HeapCreate(DWORD options, SIZE_T initialSize, SIZE_T maximumSize);
// Frees every block of the heap and the heap itself. The process heap is never destroyed (FALSE).
ZROBJ_API BOOL HeapDestroy(HANDLE heap);
// Blocks are aligned to 16 bytes; null on failure (no exception is ever raised).
ZROBJ_API void* HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes);
// Grows or shrinks in place while the new size fits the block's capacity; otherwise moves the block
// unless HEAP_REALLOC_IN_PLACE_ONLY is given. Null when the block is not a live block of the heap.
ZROBJ_API void* HeapReAlloc(HANDLE heap, DWORD flags, void* block, SIZE_T bytes);
// FALSE (and nothing changes) when the block is not a live block of the heap.
ZROBJ_API BOOL HeapFree(HANDLE heap, DWORD flags, void* block);
// The size the block was last allocated or reallocated with; (SIZE_T)-1 for anything else.
ZROBJ_API SIZE_T HeapSize(HANDLE heap, DWORD flags, const void* block);
// The heap of the process: created on first use, never destroyed.
ZROBJ_API HANDLE GetProcessHeap();

namespace zr {

// True when an allocation of `flags` on `heap` that failed would have raised on Windows
// (HEAP_GENERATE_EXCEPTIONS in the call's flags or in the heap's options).
ZROBJ_API bool HeapFailureRaises(HANDLE heap, DWORD flags);

// When `block` is a live block of `heap`, stores the bytes that may be read directly around it:
// [begin, end) covers the block's data and its whole capacity. Reads nothing at `block` itself
// before it is known to be the heap's, so any pointer may be asked about.
struct HeapBlockSpan {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
  void* home = nullptr;          // where the block was found (null for a large block)
  std::uint32_t generation = 0;  // that place's generation when it was found
};
ZROBJ_API bool HeapBlockOwned(HANDLE heap, const void* block, HeapBlockSpan* span);
// Frees a block that HeapBlockOwned just confirmed into `span`, without looking for it again; under
// the heap's lock it makes sure the block is still where it was found and still live.
ZROBJ_API BOOL HeapFreeChecked(HANDLE heap, DWORD flags, void* block, const HeapBlockSpan& span);

// What the heap holds: live blocks, bytes they use (block capacities), regions taken from malloc.
struct HeapUsage {
  std::size_t blocks = 0;
  std::size_t bytes_in_use = 0;
  std::size_t bytes_reserved = 0;
};
ZROBJ_API bool GetHeapUsage(HANDLE heap, HeapUsage* usage);

// Regions: 64 KiB aligned memory from the C++ allocator, sizes rounded up to 64 KiB.
inline constexpr std::size_t kRegionGranularity = 0x10000;
ZROBJ_API void* AllocateRegion(std::size_t bytes);  // null on failure or absurd sizes
ZROBJ_API void FreeRegion(void* base);

// The address map: every 64 KiB unit of a mapped region names its owner (a heap or pool) and the
// region's start. Lookups take no lock and read nothing but the map itself.
struct RegionEntry {
  const void* owner = nullptr;
  void* object = nullptr;  // the start of the region
};
// `base` must be 64 KiB aligned and the region at most 4 GiB.
ZROBJ_API void MapRegion(const void* base, std::size_t bytes, const void* owner);
ZROBJ_API void UnmapRegion(const void* base, std::size_t bytes);

namespace detail {
// A two-level radix tree over the 64 KiB units of the 47-bit user address space, inside the library
// only. Each unit has one word: its owner's address in the low 48 bits, and in the high 16 bits how
// many units lie between the region's start and this unit.
inline constexpr int kRegionShift = 16;
inline constexpr int kLeafBits = 16;
inline constexpr int kRootBits = 47 - kRegionShift - kLeafBits;
inline constexpr std::uintptr_t kMappableLimit = std::uintptr_t{1} << 47;
inline constexpr int kDeltaShift = 48;
inline constexpr std::uintptr_t kOwnerMask = (std::uintptr_t{1} << kDeltaShift) - 1;
extern std::uintptr_t* g_map_root[1 << kRootBits];  // leaves of 2^16 words, never freed

inline std::uintptr_t LoadMapWord(std::uintptr_t address) {
  if (address >= kMappableLimit) return 0;
  const std::uintptr_t unit = address >> kRegionShift;
  std::uintptr_t* leaf = std::atomic_ref<std::uintptr_t*>(g_map_root[unit >> kLeafBits]).load(std::memory_order_acquire);
  if (!leaf) return 0;
  return std::atomic_ref<std::uintptr_t>(leaf[unit & ((1u << kLeafBits) - 1)]).load(std::memory_order_acquire);
}
}  // namespace detail

// Inside the library only (the map is not exported).
inline RegionEntry LookupRegion(const void* address) {
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  const std::uintptr_t word = detail::LoadMapWord(at);
  if (!word) return {};
  RegionEntry entry;
  entry.owner = reinterpret_cast<const void*>(word & detail::kOwnerMask);
  entry.object = reinterpret_cast<void*>((at & ~(kRegionGranularity - 1)) - (word >> detail::kDeltaShift) * kRegionGranularity);
  return entry;
}

}  // namespace zr
