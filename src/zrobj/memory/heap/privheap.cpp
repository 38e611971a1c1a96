// Private heaps (the HeapCreate family) over 64 KiB spans, taken from the platform layer as regions
// and cut into size-class slots.
//
// A heap owns its spans (linked per heap, freed with the heap) and its large blocks (allocated one by
// one, kept in a set). Every small block is a slot of a span; the address map finds the span of any
// address without touching the address, so a pointer can be checked before anything is read at it.
// Freed small blocks wait in per-thread caches (privheap_layout_internal.h) for their next use.
#include "memory/heap/privheap_internal.h"

#include "base/compiler.h"
#include "memory/heap/privheap_layout_internal.h"
#include "memory/heap/regionmap_internal.h"
#include "platform/regions.h"
#include "zrobj/heaplock.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace zr {

namespace heapimpl {
constinit thread_local ThreadCache* t_cache ZR_TLS_INITIAL_EXEC = nullptr;
std::atomic<std::uint32_t> g_loose_counters[kThreadCounters];
}  // namespace heapimpl

namespace {

using namespace heapimpl;

thread_local bool t_cache_retired = false;  // set when the thread's cache was released at its end

// ---- heaps -------------------------------------------------------------------------------------

std::uintptr_t Addr(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }

void Unlink(Span*& head, Span* s) {
  if (s->prev) s->prev->next = s->next;
  else head = s->next;
  if (s->next) s->next->prev = s->prev;
  s->prev = s->next = nullptr;
  s->list = SpanList::kNone;
}

void PushFront(Span*& head, Span* s, SpanList list) {
  s->prev = nullptr;
  s->next = head;
  if (head) head->prev = s;
  head = s;
  s->list = list;
}

void AssignClass(Span* s, int cls) {
  const std::uint32_t size = ClassSize(cls);
  s->cls = static_cast<std::uint32_t>(cls);
  s->slot_size.store(size, std::memory_order_relaxed);
  s->slot_magic.store(0xFFFFFFFFu / size + 1, std::memory_order_relaxed);
  s->slot_count = static_cast<std::uint32_t>((kSpanBytes - kSpanHeaderBytes) / size);
  s->generation.store(s->generation.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  s->carved.store(0, std::memory_order_release);
  s->used = 0;
  s->free = nullptr;
}

// A span for `cls`: an empty one of the heap, else a new region (caller holds the heap lock).
Span* TakeSpan(PrivHeap* heap, int cls) {
  Span* s = heap->empty;
  if (s) {
    Unlink(heap->empty, s);
  } else {
    void* base = os::AllocateRegion(kSpanBytes);
    if (!base) return nullptr;
    s = new (base) Span{};
    s->heap = heap;
    s->all_next = heap->all;
    heap->all = s;
    heap->usage.bytes_reserved += kSpanBytes;
    MapRegion(base, kSpanBytes, heap);
  }
  AssignClass(s, cls);
  PushFront(heap->partial[cls], s, SpanList::kPartial);
  return s;
}

void* TakeSlot(PrivHeap* heap, int cls, std::size_t bytes) {
  const std::uint32_t size = ClassSize(cls);
  LightGuard guard(heap->lock);
  if (heap->maximum && heap->usage.bytes_in_use + size > heap->maximum) return nullptr;
  Span* s = heap->partial[cls];
  if (!s && !(s = TakeSpan(heap, cls))) return nullptr;
  SlotHeader* h = s->free;
  if (h) {
    s->free = reinterpret_cast<SlotHeader*>(static_cast<std::uintptr_t>(h->size));
  } else {
    const std::uint32_t index = s->carved.load(std::memory_order_relaxed);
    h = s->Slot(index);
    h->state = kSlotFree;
    s->carved.store(index + 1, std::memory_order_release);
  }
  if (++s->used == s->slot_count) Unlink(heap->partial[cls], s);
  h->cls = static_cast<std::uint32_t>(cls);
  h->size = bytes;
  StoreState(h, kSlotLive);
  heap->usage.bytes_in_use += size;
  ++heap->usage.blocks;
  return h + 1;
}

void* AllocLarge(PrivHeap* heap, std::size_t bytes) {
  const std::size_t capacity = (bytes + 15) & ~std::size_t{15};
  LightGuard guard(heap->lock);
  if (heap->maximum && heap->usage.bytes_in_use + capacity > heap->maximum) return nullptr;
  void* raw = ::operator new(sizeof(LargeHeader) + capacity, std::align_val_t{16}, std::nothrow);
  if (!raw) return nullptr;
  auto* large = new (raw) LargeHeader{};
  large->heap = heap;
  large->capacity = capacity;
  large->slot.cls = kLargeClass;
  large->slot.size = bytes;
  large->slot.state = kSlotLive;
  void* data = &large->slot + 1;
  try {
    heap->large.insert(reinterpret_cast<std::uintptr_t>(data));
  } catch (...) {
    ::operator delete(raw, std::align_val_t{16});
    return nullptr;
  }
  heap->usage.bytes_in_use += capacity;
  heap->usage.bytes_reserved += sizeof(LargeHeader) + capacity;
  ++heap->usage.blocks;
  return data;
}

LargeHeader* LargeOf(const void* block) {
  return reinterpret_cast<LargeHeader*>(reinterpret_cast<std::uintptr_t>(block) - sizeof(LargeHeader));
}

bool OwnedLarge(PrivHeap* heap, std::uintptr_t p, HeapBlockSpan* span) {
  LightGuard guard(heap->lock);
  if (heap->large.count(p) == 0) return false;
  if (span) *span = {p, p + LargeOf(reinterpret_cast<void*>(p))->capacity, nullptr, 0};
  return true;
}

bool Owned(PrivHeap* heap, const void* block, HeapBlockSpan* span) {
  const auto p = reinterpret_cast<std::uintptr_t>(block);
  if (p == 0 || (p & 15) != 0) return false;
  return OwnedSmall(heap, p, span) || OwnedLarge(heap, p, span);
}

// Puts a slot that is no longer live back on its span (caller holds the lock).
void ReturnSlot(PrivHeap* heap, SlotHeader* h) {
  Span* s = SpanOf(h);
  const int cls = static_cast<int>(s->cls);
  h->size = reinterpret_cast<std::uintptr_t>(s->free);
  s->free = h;
  const bool was_full = s->used == s->slot_count;
  --s->used;
  if (was_full) PushFront(heap->partial[cls], s, SpanList::kPartial);
  // An empty span goes to the heap's spare list unless it is the class's only span.
  if (s->used == 0 && !(heap->partial[cls] == s && s->next == nullptr)) {
    Unlink(heap->partial[cls], s);
    PushFront(heap->empty, s, SpanList::kEmpty);
  }
  heap->usage.bytes_in_use -= ClassSize(cls);
  --heap->usage.blocks;
}

// Frees a block already known to be the heap's (caller holds the lock); false if it was freed
// meanwhile. `s` is the block's span, null for a large block.
bool FreeLocked(PrivHeap* heap, void* block, Span* s) {
  SlotHeader* h = HeaderOf(block);
  if (!s) {
    if (LoadState(h) != kSlotLive || heap->large.erase(reinterpret_cast<std::uintptr_t>(block)) == 0) return false;
    LargeHeader* large = LargeOf(block);
    heap->usage.bytes_in_use -= large->capacity;
    heap->usage.bytes_reserved -= sizeof(LargeHeader) + large->capacity;
    --heap->usage.blocks;
    large->slot.state = kSlotFree;
    ::operator delete(large, std::align_val_t{16});
    return true;
  }
  if (!ClaimSlot(h)) return false;
  ReturnSlot(heap, h);
  return true;
}

// ---- per-thread caches -------------------------------------------------------------------------
//
// A thread keeps the small blocks it frees in bins per heap and size class and hands them out again
// without the heap lock. A cached block is not live (ownership checks and HeapSize refuse it) but
// its span still counts it as used, so the span never changes class under it; usage reports
// subtract what the caches hold. Bins go back to their heap when they overflow, when the thread
// ends and when another heap takes the thread's entry; a destroyed heap's entries are dropped.

// Its mutex orders everything that touches another thread's entries or moves an entry between
// heaps; it is taken before any heap lock.
struct CacheRegistry {
  std::mutex mutex;
  ThreadCache* all = nullptr;
  std::atomic<std::uint32_t> next_way{0};
};

CacheRegistry& Caches() {
  static auto* registry = new CacheRegistry;  // never destroyed: threads may end after unload
  return *registry;
}

void ReturnBin(PrivHeap* heap, CacheBin& bin, std::uint32_t keep) {
  while (CacheBin::Count(bin.Load()) > keep) ReturnSlot(heap, PopCached(bin));
}

// Gives the entry's blocks back to its heap, or forgets them when the heap is gone (caller holds
// the registry mutex).
void FlushEntry(CacheEntry& entry) {
  PrivHeap* heap = entry.heap.load(std::memory_order_relaxed);
  if (heap) {
    LightGuard guard(heap->lock);
    for (CacheBin& bin : entry.bins) ReturnBin(heap, bin, 0);
  }
  for (CacheBin& bin : entry.bins) bin.Store(0);
  entry.heap.store(nullptr, std::memory_order_relaxed);
}

void Link(CacheRegistry& caches, ThreadCache* cache) {
  cache->next = caches.all;
  if (caches.all) caches.all->prev = cache;
  caches.all = cache;
}

void Unlink(CacheRegistry& caches, ThreadCache* cache) {
  if (cache->prev) cache->prev->next = cache->next;
  else caches.all = cache->next;
  if (cache->next) cache->next->prev = cache->prev;
}

// Runs when the thread ends: its blocks go back, and it caches nothing any more.
void ReleaseThreadCache() {
  t_cache_retired = true;
  ThreadCache* cache = t_cache;
  if (!cache) return;
  CacheRegistry& caches = Caches();
  {
    std::lock_guard guard(caches.mutex);
    for (CacheEntry& entry : cache->entries) FlushEntry(entry);
    for (int i = 0; i < kThreadCounters; ++i)
      g_loose_counters[i].fetch_add(cache->counters[i].load(std::memory_order_relaxed), std::memory_order_relaxed);
    Unlink(caches, cache);
  }
  t_cache = nullptr;
  delete cache;
}

struct ThreadCacheRelease {
  ~ThreadCacheRelease() { ReleaseThreadCache(); }
};

// The thread's cache, made on first use; null once the thread is ending (caller holds the registry
// mutex).
ThreadCache* OwnCache(CacheRegistry& caches) {
  if (t_cache || t_cache_retired) return t_cache;
  auto* cache = new (std::nothrow) ThreadCache;
  if (!cache) return nullptr;
  static thread_local ThreadCacheRelease release;  // constructed here, destroyed when the thread ends
  (void)release;
  Link(caches, cache);
  t_cache = cache;
  return cache;
}

// Takes the heap's way in this thread's cache, flushing the heap that had it.
CacheEntry* Attach(PrivHeap* heap) {
  if (t_cache_retired) return nullptr;
  CacheRegistry& caches = Caches();
  std::lock_guard guard(caches.mutex);
  ThreadCache* cache = OwnCache(caches);
  if (!cache) return nullptr;
  CacheEntry& entry = cache->entries[heap->way];
  FlushEntry(entry);
  entry.heap.store(heap, std::memory_order_relaxed);
  return &entry;
}

// Takes out of `usage` what the threads' bins hold of the heap (caller holds the registry mutex).
void SubtractCached(const PrivHeap* heap, HeapUsage* usage) {
  for (ThreadCache* cache = Caches().all; cache; cache = cache->next) {
    for (CacheEntry& entry : cache->entries) {
      if (entry.heap.load(std::memory_order_relaxed) != heap) continue;
      for (int cls = 0; cls < kClasses; ++cls) {
        const std::uint32_t n = CacheBin::Count(entry.bins[cls].Load());
        usage->blocks -= n;
        usage->bytes_in_use -= std::size_t{n} * ClassSize(cls);
      }
    }
  }
}

// The heap is being destroyed: every thread forgets its blocks (caller holds the registry mutex).
void DropCachedEntries(const PrivHeap* heap) {
  for (ThreadCache* cache = Caches().all; cache; cache = cache->next)
    for (CacheEntry& entry : cache->entries)
      if (entry.heap.load(std::memory_order_relaxed) == heap) entry.heap.store(nullptr, std::memory_order_relaxed);
}

PrivHeap* NewHeap(DWORD options, SIZE_T maximum) {
  auto* heap = new (std::nothrow) PrivHeap;
  if (!heap) return nullptr;
  heap->options = options;
  heap->maximum = maximum;
  heap->cached = maximum == 0;
  heap->way = Caches().next_way.fetch_add(1, std::memory_order_relaxed) % kCacheWays;
  return heap;
}

}  // namespace

CacheEntry* heapimpl::AttachEntry(PrivHeap* heap) { return Attach(heap); }

BOOL heapimpl::SpillBin(PrivHeap* heap, CacheBin& bin) {
  LightGuard guard(heap->lock);
  ReturnBin(heap, bin, CacheBin::Count(bin.Load()) / 2);
  return TRUE;
}

BOOL heapimpl::FreeSlow(HANDLE handle, DWORD flags, void* block, void* home, std::uint32_t generation) {
  PrivHeap* heap = AsHeap(handle);
  auto* s = static_cast<Span*>(home);
  if (heap && s) {
    if (CacheEntry* entry = EntryFor(heap)) return FreeToCache(heap, *entry, s, generation, block);
  }
  HeapBlockSpan span;
  span.begin = Addr(block);
  span.home = home;
  span.generation = generation;
  return HeapFreeChecked(handle, flags, block, span);
}

void* heapimpl::AllocFromSpans(PrivHeap* heap, int cls, std::size_t bytes) { return TakeSlot(heap, cls, bytes); }

// A copy of the span keeps the caller's in registers.
bool heapimpl::OwnedElsewhere(HANDLE handle, const void* block, HeapBlockSpan* span) {
  HeapBlockSpan found;
  if (!HeapBlockOwned(handle, block, &found)) return false;
  if (span) *span = found;
  return true;
}

std::uint32_t heapimpl::SumCounter(int counter) {
  CacheRegistry& caches = Caches();
  std::lock_guard guard(caches.mutex);
  std::uint32_t sum = g_loose_counters[counter].load(std::memory_order_relaxed);
  for (ThreadCache* cache = caches.all; cache; cache = cache->next) sum += cache->counters[counter].load(std::memory_order_relaxed);
  return sum;
}

// ---- heap queries ------------------------------------------------------------------------------

bool HeapFailureRaises(HANDLE handle, DWORD flags) {
  PrivHeap* heap = AsHeap(handle);
  return ((flags | (heap ? heap->options : 0)) & HEAP_GENERATE_EXCEPTIONS) != 0;
}

bool HeapBlockOwned(HANDLE handle, const void* block, HeapBlockSpan* span) {
  PrivHeap* heap = AsHeap(handle);
  return heap && Owned(heap, block, span);
}

BOOL HeapFreeChecked(HANDLE handle, DWORD flags, void* block, const HeapBlockSpan& span) {
  PrivHeap* heap = AsHeap(handle);
  if (!heap || Addr(block) != span.begin) return FALSE;
  auto* s = static_cast<Span*>(span.home);
  if (s) {
    if (CacheEntry* entry = EntryFor(heap)) return FreeToCache(heap, *entry, s, span.generation, block);
  }
  LightGuard guard(heap->lock);
  if (s && s->generation.load(std::memory_order_relaxed) != span.generation) return FALSE;  // reused since
  return FreeLocked(heap, block, s) ? TRUE : FALSE;
}

bool GetHeapUsage(HANDLE handle, HeapUsage* usage) {
  PrivHeap* heap = AsHeap(handle);
  if (!heap || !usage) return false;
  std::lock_guard caches(Caches().mutex);
  LightGuard guard(heap->lock);
  *usage = heap->usage;
  SubtractCached(heap, usage);
  return true;
}

// ---- the HeapCreate family ---------------------------------------------------------------------

HANDLE HeapCreate(DWORD options, SIZE_T initialSize, SIZE_T maximumSize) {
  return NewHeap(options, maximumSize);
}

HANDLE GetProcessHeap() {
  static PrivHeap* heap = NewHeap(0, 0);  // never destroyed
  return heap;
}

BOOL HeapDestroy(HANDLE handle) {
  PrivHeap* heap = AsHeap(handle);
  if (!heap || heap == GetProcessHeap()) return FALSE;
  {
    std::lock_guard caches(Caches().mutex);
    DropCachedEntries(heap);
  }
  for (Span* s = heap->all; s;) {
    Span* next = s->all_next;
    UnmapRegion(s, kSpanBytes);
    os::FreeRegion(s);
    s = next;
  }
  for (std::uintptr_t data : heap->large)
    ::operator delete(LargeOf(reinterpret_cast<void*>(data)), std::align_val_t{16});
  heap->magic = 0;
  delete heap;
  return TRUE;
}

void* HeapAlloc(HANDLE handle, DWORD flags, SIZE_T bytes) {
  PrivHeap* heap = AsHeap(handle);
  if (!heap || bytes > kMaxBlockBytes) return nullptr;
  const std::size_t slot = bytes + sizeof(SlotHeader);
  void* block = slot <= kMaxSlotBytes ? AllocSmall(heap, ClassOf(slot), bytes) : AllocLarge(heap, bytes);
  if (!block) return nullptr;
  if (flags & HEAP_ZERO_MEMORY) std::memset(block, 0, bytes);
  return block;
}

BOOL HeapFree(HANDLE handle, DWORD flags, void* block) {
  HeapBlockSpan span;
  return HeapBlockOwned(handle, block, &span) ? HeapFreeChecked(handle, flags, block, span) : FALSE;
}

SIZE_T HeapSize(HANDLE handle, DWORD flags, const void* block) {
  PrivHeap* heap = AsHeap(handle);
  if (!heap || !Owned(heap, block, nullptr)) return static_cast<SIZE_T>(-1);
  LightGuard guard(heap->lock);
  SlotHeader* h = HeaderOf(block);
  return LoadState(h) == kSlotLive ? static_cast<SIZE_T>(h->size) : static_cast<SIZE_T>(-1);
}

void* HeapReAlloc(HANDLE handle, DWORD flags, void* block, SIZE_T bytes) {
  PrivHeap* heap = AsHeap(handle);
  HeapBlockSpan span;
  if (!heap || bytes > kMaxBlockBytes || !Owned(heap, block, &span)) return nullptr;
  std::size_t old_size = 0;
  {
    LightGuard guard(heap->lock);
    SlotHeader* h = HeaderOf(block);
    if (LoadState(h) != kSlotLive) return nullptr;
    old_size = h->size;
    if (bytes <= span.end - span.begin) {
      h->size = bytes;
      if ((flags & HEAP_ZERO_MEMORY) && bytes > old_size) std::memset(static_cast<char*>(block) + old_size, 0, bytes - old_size);
      return block;
    }
  }
  if (flags & HEAP_REALLOC_IN_PLACE_ONLY) return nullptr;
  void* moved = HeapAlloc(handle, flags, bytes);
  if (!moved) return nullptr;
  std::memcpy(moved, block, std::min<std::size_t>(old_size, bytes));
  HeapFree(handle, 0, block);
  return moved;
}

}  // namespace zr
