// The private heaps' layouts and per-thread caches, inside the library only: the debug heap inlines
// the cached paths of allocation, ownership checks and release from here.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <unordered_set>

#include "base/compiler.h"
#include "memory/heap/privheap_internal.h"
#include "memory/heap/regionmap_internal.h"
#include "platform/regions.h"
#include "zrobj/heaplock.h"

namespace zr::heapimpl {

inline constexpr std::uint32_t kHeapMagic = 0x50487A72;  // "rzHP"
inline constexpr std::uint32_t kSlotLive = 0x4556494C;   // "LIVE"
inline constexpr std::uint32_t kSlotFree = 0x45455246;   // "FREE"
inline constexpr std::uint32_t kLargeClass = 0xFFFFFFFF;
inline constexpr std::size_t kMaxBlockBytes = 0xFFFFFFFFu;  // blocks keep 32-bit sizes, as on Windows

inline constexpr std::size_t kSpanBytes = os::kRegionGranularity;
inline constexpr std::size_t kSpanHeaderBytes = 128;

// Directly in front of every block's data.
struct SlotHeader {
  std::uint32_t state;  // kSlotLive / kSlotFree (read lock-free: atomic_ref)
  std::uint32_t cls;    // size class, kLargeClass for a large block
  std::uint64_t size;   // requested size while live; next free slot while free
};
static_assert(sizeof(SlotHeader) == 16);

// Slot sizes (header included): 32..1024 in steps of 16, then four per doubling up to 8192.
inline constexpr std::uint32_t kFineLimit = 1024;
inline constexpr std::uint32_t kCoarseSizes[] = {1280, 1536, 1792, 2048, 2560, 3072, 3584, 4096, 5120, 6144, 7168, 8192};
inline constexpr int kFineClasses = kFineLimit / 16 - 1;  // 32, 48, ..., 1024
inline constexpr int kClasses = kFineClasses + static_cast<int>(std::size(kCoarseSizes));
inline constexpr std::uint32_t kMaxSlotBytes = 8192;

constexpr std::uint32_t ClassSize(int cls) {
  return cls < kFineClasses ? static_cast<std::uint32_t>(cls + 2) * 16 : kCoarseSizes[cls - kFineClasses];
}

constexpr int ClassOf(std::size_t slot_bytes) {
  if (slot_bytes <= 32) return 0;
  if (slot_bytes <= kFineLimit) return static_cast<int>((slot_bytes + 15) / 16) - 2;
  for (int k = 0; k < static_cast<int>(std::size(kCoarseSizes)); ++k)
    if (slot_bytes <= kCoarseSizes[k]) return kFineClasses + k;
  return -1;
}

struct PrivHeap;

enum class SpanList : std::uint32_t { kNone, kPartial, kEmpty };

// At the base of every 64 KiB span. Spans stay with their heap until it is destroyed; an empty span
// is reused for any size class, so the fields the lock-free check reads are atomic.
struct Span {
  PrivHeap* heap;
  Span* prev;       // the class's list of spans with free slots, or the empty list
  Span* next;
  Span* all_next;   // every span of the heap
  std::atomic<std::uint32_t> slot_size;
  std::atomic<std::uint32_t> slot_magic;  // 2^32 / slot_size rounded up: offsets divide by multiplying
  std::atomic<std::uint32_t> carved;      // slots handed out at least once since the span took its class
  std::atomic<std::uint32_t> generation;  // counts the classes the span has taken
  std::uint32_t cls;
  std::uint32_t slot_count;
  std::uint32_t used;
  SpanList list;
  SlotHeader* free;

  std::uintptr_t FirstData() const { return reinterpret_cast<std::uintptr_t>(this) + kSpanHeaderBytes + sizeof(SlotHeader); }
  SlotHeader* Slot(std::uint32_t index) {
    return reinterpret_cast<SlotHeader*>(reinterpret_cast<std::uintptr_t>(this) + kSpanHeaderBytes +
                                         std::uintptr_t{index} * slot_size.load(std::memory_order_relaxed));
  }
};
static_assert(sizeof(Span) <= kSpanHeaderBytes);

// In front of a large block: its own allocation.
struct LargeHeader {
  PrivHeap* heap;
  std::size_t capacity;
  std::uint64_t reserved[2];
  SlotHeader slot;
};
static_assert(sizeof(LargeHeader) % 16 == 0);

struct PrivHeap {
  std::uint32_t magic = kHeapMagic;
  DWORD options = 0;
  std::size_t maximum = 0;
  std::uint32_t way = 0;  // its entry in every thread's cache
  bool cached = false;    // heaps with a maximum are not: their limit counts the slots in use
  LightLock lock;
  Span* partial[kClasses] = {};
  Span* empty = nullptr;
  Span* all = nullptr;
  std::unordered_set<std::uintptr_t> large;  // data addresses of the large blocks
  HeapUsage usage;
};

inline std::uint32_t LoadState(SlotHeader* h) {
  return std::atomic_ref<std::uint32_t>(h->state).load(std::memory_order_acquire);
}
inline void StoreState(SlotHeader* h, std::uint32_t state) {
  std::atomic_ref<std::uint32_t>(h->state).store(state, std::memory_order_release);
}

// Takes a live slot out of use; only one of two threads freeing the same block gets it.
ZR_ALWAYS_INLINE bool ClaimSlot(SlotHeader* h) {
  std::atomic_ref<std::uint32_t> state(h->state);
  return ReplaceIfEqual(state, kSlotLive, kSlotFree);
}

inline Span* SpanOf(const SlotHeader* h) { return reinterpret_cast<Span*>(reinterpret_cast<std::uintptr_t>(h) & ~(kSpanBytes - 1)); }

ZR_ALWAYS_INLINE PrivHeap* AsHeap(HANDLE handle) {
  auto* heap = static_cast<PrivHeap*>(handle);
  if (!heap || (reinterpret_cast<std::uintptr_t>(heap) % alignof(PrivHeap)) != 0 || heap->magic != kHeapMagic)
    return nullptr;
  return heap;
}

inline SlotHeader* HeaderOf(const void* block) {
  return reinterpret_cast<SlotHeader*>(reinterpret_cast<std::uintptr_t>(block) - sizeof(SlotHeader));
}
// Checks a small block against the address map without the heap lock: spans live as long as their
// heap, so once the map names `heap` the span header may be read.
ZR_ALWAYS_INLINE bool OwnedSmall(PrivHeap* heap, std::uintptr_t p, HeapBlockSpan* span) {
  // A span is one aligned unit: its header's address follows from `p` and may be loaded while the
  // map is still being consulted; it is only used once the map names this heap.
  auto* s = reinterpret_cast<Span*>(p & ~(kSpanBytes - 1));
  if ((detail::LoadMapWord(p) & detail::kOwnerMask) != reinterpret_cast<std::uintptr_t>(heap)) return false;
  const std::uintptr_t first = s->FirstData();
  if (p < first) return false;
  // The span is one 64 KiB unit, so the offset is below 2^16 and the multiplication divides exactly.
  const std::uint64_t offset = p - first;
  const std::uint32_t size = s->slot_size.load(std::memory_order_relaxed);
  const auto index = static_cast<std::uint32_t>((offset * s->slot_magic.load(std::memory_order_relaxed)) >> 32);
  if (std::uint64_t{index} * size != offset || index >= s->carved.load(std::memory_order_acquire)) return false;
  if (LoadState(HeaderOf(reinterpret_cast<void*>(p))) != kSlotLive) return false;
  if (span) *span = {p, p + size - sizeof(SlotHeader), s, s->generation.load(std::memory_order_relaxed)};
  return true;
}

// ---- per-thread caches -------------------------------------------------------------------------
//
// A thread keeps the small blocks it frees in bins per heap and size class and hands them out again
// without the heap lock. A cached block is not live (ownership checks and HeapSize refuse it) but
// its span still counts it as used, so the span never changes class under it; usage reports
// subtract what the caches hold. Bins go back to their heap when they overflow, when the thread
// ends and when another heap takes the thread's entry; a destroyed heap's entries are dropped.

inline constexpr int kCacheWays = 16;             // heaps a thread caches at once, by the heap's way
inline constexpr std::uint32_t kBinBytes = 16384;  // about this much per bin, 2 to 32 blocks

// Blocks a bin holds before it gives half back, per class (a table: no division on the free path).
struct BinLimits {
  std::uint8_t limit[kClasses];
  constexpr BinLimits() : limit() {
    for (int cls = 0; cls < kClasses; ++cls) {
      const std::uint32_t n = kBinBytes / ClassSize(cls);
      limit[cls] = static_cast<std::uint8_t>(n < 2 ? 2 : n > 32 ? 32 : n);
    }
  }
};
inline constexpr BinLimits kBinLimits;

// A bin is one word, written by the owning thread only: the newest block's header in the low 48
// bits (cached blocks lie below 2^47, where the address map reaches) and the bin's block count in
// the high 16. A cached block's size word holds the bin's word from before it was pushed, so a pop
// restores the count with the link.
struct CacheBin {
  std::atomic<std::uint64_t> word{0};

  static constexpr int kCountShift = 48;
  static SlotHeader* Head(std::uint64_t w) {
    return reinterpret_cast<SlotHeader*>(static_cast<std::uintptr_t>(w & ((std::uint64_t{1} << kCountShift) - 1)));
  }
  static std::uint32_t Count(std::uint64_t w) { return static_cast<std::uint32_t>(w >> kCountShift); }
  std::uint64_t Load() const { return word.load(std::memory_order_relaxed); }
  void Store(std::uint64_t w) { word.store(w, std::memory_order_relaxed); }
};

struct CacheEntry {
  std::atomic<PrivHeap*> heap{nullptr};  // null when unused or when the heap was destroyed
  CacheBin bins[kClasses];
};

// Event counters a thread keeps for the heaps (the performance counters of the debug heap and the
// pools): written by the owning thread only, summed by SumCounter.
inline constexpr int kThreadCounters = 8;

struct ThreadCache {
  CacheEntry entries[kCacheWays];
  std::atomic<std::uint32_t> counters[kThreadCounters] = {};
  ThreadCache* prev = nullptr;  // every thread's cache, in the registry
  ThreadCache* next = nullptr;
};

extern constinit thread_local ThreadCache* t_cache ZR_TLS_INITIAL_EXEC;

// Counts of threads without a cache record (not made yet, or gone at the thread's end).
extern std::atomic<std::uint32_t> g_loose_counters[kThreadCounters];

// Out of line (privheap.cpp): the locked paths. The cached paths only ever end in calls to them, so
// that they need no saved registers of their own.
CacheEntry* AttachEntry(PrivHeap* heap);       // takes the heap's way in this thread's cache
BOOL SpillBin(PrivHeap* heap, CacheBin& bin);  // gives half of an overflowing bin back; TRUE
void* AllocFromSpans(PrivHeap* heap, int cls, std::size_t bytes);
std::uint32_t SumCounter(int counter);         // over every thread, those that ended included
bool OwnedElsewhere(HANDLE handle, const void* block, HeapBlockSpan* span);  // large blocks
// zr::HeapFreeChecked through the thread's cache, attaching the heap to it first.
BOOL FreeSlow(HANDLE handle, DWORD flags, void* block, void* home, std::uint32_t generation);

ZR_ALWAYS_INLINE void CountEvent(int counter) {
  if (ThreadCache* cache = t_cache) {
    std::atomic<std::uint32_t>& value = cache->counters[counter];
    value.store(value.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return;
  }
  g_loose_counters[counter].fetch_add(1, std::memory_order_relaxed);
}

// This thread's cache entry for the heap if it has one already.
ZR_ALWAYS_INLINE CacheEntry* AttachedEntry(PrivHeap* heap) {
  ThreadCache* cache = t_cache;
  if (!cache) return nullptr;
  CacheEntry& entry = cache->entries[heap->way];
  return entry.heap.load(std::memory_order_relaxed) == heap ? &entry : nullptr;
}

// This thread's cache entry for the heap; null when the heap is not cached here.
ZR_ALWAYS_INLINE CacheEntry* EntryFor(PrivHeap* heap) {
  if (CacheEntry* entry = AttachedEntry(heap)) return entry;
  return heap->cached ? AttachEntry(heap) : nullptr;
}

ZR_ALWAYS_INLINE SlotHeader* PopCached(CacheBin& bin) {
  SlotHeader* h = CacheBin::Head(bin.Load());
  if (h) bin.Store(h->size);
  return h;
}

// Returns the bin's new count.
ZR_ALWAYS_INLINE std::uint32_t PushCached(CacheBin& bin, SlotHeader* h) {
  const std::uint64_t w = bin.Load();
  const std::uint32_t count = CacheBin::Count(w) + 1;
  h->size = w;
  bin.Store((std::uint64_t{count} << CacheBin::kCountShift) | reinterpret_cast<std::uintptr_t>(h));
  return count;
}

// Frees a small block of the heap into the thread's bin; the bin gives half back when it overflows.
ZR_ALWAYS_INLINE BOOL FreeToCache(PrivHeap* heap, CacheEntry& entry, Span* s, std::uint32_t generation, void* block) {
  if (s->generation.load(std::memory_order_relaxed) != generation) return FALSE;  // reused since
  SlotHeader* h = HeaderOf(block);
  if (!ClaimSlot(h)) return FALSE;
  const int cls = static_cast<int>(s->cls);
  CacheBin& bin = entry.bins[cls];
  if (PushCached(bin, h) > kBinLimits.limit[cls]) return SpillBin(heap, bin);
  return TRUE;
}

// A live block of `bytes` in class `cls`.
ZR_ALWAYS_INLINE void* AllocSmall(PrivHeap* heap, int cls, std::size_t bytes) {
  if (CacheEntry* entry = EntryFor(heap)) {
    if (SlotHeader* h = PopCached(entry->bins[cls])) {  // its span kept the class meanwhile
      h->size = bytes;
      StoreState(h, kSlotLive);
      return h + 1;
    }
  }
  return AllocFromSpans(heap, cls, bytes);
}

// ---- the entry points with the cached paths inlined ----------------------------------------------

// HeapAlloc.
ZR_ALWAYS_INLINE void* AllocBlock(HANDLE handle, DWORD flags, std::size_t bytes) {
  PrivHeap* heap = AsHeap(handle);
  const std::size_t slot = bytes + sizeof(SlotHeader);
  if (!heap || slot > kMaxSlotBytes || (flags & HEAP_ZERO_MEMORY)) return HeapAlloc(handle, flags, bytes);
  return AllocSmall(heap, ClassOf(slot), bytes);
}

// zr::HeapBlockOwned for the blocks of the size classes only (a large block gives false).
ZR_ALWAYS_INLINE bool SmallBlockOwned(HANDLE handle, const void* block, HeapBlockSpan* span) {
  PrivHeap* heap = AsHeap(handle);
  const auto p = reinterpret_cast<std::uintptr_t>(block);
  return heap && p != 0 && (p & 15) == 0 && OwnedSmall(heap, p, span);
}

// zr::HeapBlockOwned.
ZR_ALWAYS_INLINE bool BlockOwned(HANDLE handle, const void* block, HeapBlockSpan* span) {
  return SmallBlockOwned(handle, block, span) || OwnedElsewhere(handle, block, span);
}

// A block of the size classes taken from this thread's bin for the heap; null when the bin is empty
// or the thread has no entry for the heap yet (HeapAlloc then does the rest).
ZR_ALWAYS_INLINE void* TakeCached(HANDLE handle, DWORD flags, std::size_t bytes) {
  PrivHeap* heap = AsHeap(handle);
  const std::size_t slot = bytes + sizeof(SlotHeader);
  if (!heap || slot > kMaxSlotBytes || (flags & HEAP_ZERO_MEMORY)) return nullptr;
  CacheEntry* entry = AttachedEntry(heap);
  SlotHeader* h = entry ? PopCached(entry->bins[ClassOf(slot)]) : nullptr;
  if (!h) return nullptr;
  h->size = bytes;
  StoreState(h, kSlotLive);
  return h + 1;
}

// zr::HeapFreeChecked.
ZR_ALWAYS_INLINE BOOL FreeBlock(HANDLE handle, DWORD flags, void* block, const HeapBlockSpan& span) {
  PrivHeap* heap = AsHeap(handle);
  auto* s = static_cast<Span*>(span.home);
  if (heap && s && reinterpret_cast<std::uintptr_t>(block) == span.begin) {
    if (CacheEntry* entry = AttachedEntry(heap)) return FreeToCache(heap, *entry, s, span.generation, block);
  }
  return FreeSlow(handle, flags, block, span.home, span.generation);
}

}  // namespace zr::heapimpl
