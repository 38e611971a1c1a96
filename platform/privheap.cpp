// Private heaps over malloc'ed 64 KiB spans cut into size-class slots, the lock-free address map of
// the library's regions, and the light lock. Portable C++: no system headers.
//
// A heap owns its spans (linked per heap, freed with the heap) and its large blocks (allocated one by
// one, kept in a set). Every small block is a slot of a span; the address map finds the span of any
// address without touching the address, so a pointer can be checked before anything is read at it.
#include "platform/privheap.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>

// The C library's own single-thread indicator (glibc 2.32 and later); absent elsewhere.
extern "C" __attribute__((weak)) char __libc_single_threaded;

namespace zr {
namespace detail {
const char* const g_single_thread_flag = &__libc_single_threaded;
std::uintptr_t* g_map_root[1 << kRootBits];  // zero at load
}  // namespace detail

namespace {

// ---- regions and the address map -------------------------------------------------------------

constexpr std::size_t kMaxRegionBytes = std::size_t{1} << 30;

std::mutex& MapMutex() {
  static std::mutex* mutex = new std::mutex;  // never destroyed: regions may be unmapped at unload
  return *mutex;
}

// The unit's word, creating its leaf (caller holds the map mutex); null when it cannot be mapped.
std::uintptr_t* MapSlot(std::uintptr_t address, bool create) {
  if (address >= detail::kMappableLimit) return nullptr;
  const std::uintptr_t unit = address >> detail::kRegionShift;
  std::uintptr_t*& root = detail::g_map_root[unit >> detail::kLeafBits];
  std::uintptr_t* leaf = std::atomic_ref<std::uintptr_t*>(root).load(std::memory_order_acquire);
  if (!leaf && create) {
    // calloc: the leaf's pages stay untouched (and cost nothing) until a unit in them is mapped.
    leaf = static_cast<std::uintptr_t*>(std::calloc(std::size_t{1} << detail::kLeafBits, sizeof(std::uintptr_t)));
    if (leaf) std::atomic_ref<std::uintptr_t*>(root).store(leaf, std::memory_order_release);
  }
  return leaf ? &leaf[unit & ((1u << detail::kLeafBits) - 1)] : nullptr;
}

// ---- heaps -------------------------------------------------------------------------------------

constexpr std::uint32_t kHeapMagic = 0x50487A72;  // "rzHP"
constexpr std::uint32_t kSlotLive = 0x4556494C;   // "LIVE"
constexpr std::uint32_t kSlotFree = 0x45455246;   // "FREE"
constexpr std::uint32_t kLargeClass = 0xFFFFFFFF;
constexpr std::size_t kMaxBlockBytes = 0xFFFFFFFFu;  // blocks keep 32-bit sizes, as on Windows

constexpr std::size_t kSpanBytes = kRegionGranularity;
constexpr std::size_t kSpanHeaderBytes = 128;

// Directly in front of every block's data.
struct SlotHeader {
  std::uint32_t state;  // kSlotLive / kSlotFree (read lock-free: atomic_ref)
  std::uint32_t cls;    // size class, kLargeClass for a large block
  std::uint64_t size;   // requested size while live; next free slot while free
};
static_assert(sizeof(SlotHeader) == 16);

// Slot sizes (header included): 32..1024 in steps of 16, then four per doubling up to 8192.
constexpr std::uint32_t kFineLimit = 1024;
constexpr std::uint32_t kCoarseSizes[] = {1280, 1536, 1792, 2048, 2560, 3072, 3584, 4096, 5120, 6144, 7168, 8192};
constexpr int kFineClasses = kFineLimit / 16 - 1;  // 32, 48, ..., 1024
constexpr int kClasses = kFineClasses + static_cast<int>(std::size(kCoarseSizes));
constexpr std::uint32_t kMaxSlotBytes = 8192;

constexpr std::uint32_t ClassSize(int cls) {
  return cls < kFineClasses ? static_cast<std::uint32_t>(cls + 2) * 16 : kCoarseSizes[cls - kFineClasses];
}

int ClassOf(std::size_t slot_bytes) {
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
  LightLock lock;
  Span* partial[kClasses] = {};
  Span* empty = nullptr;
  Span* all = nullptr;
  std::unordered_set<std::uintptr_t> large;  // data addresses of the large blocks
  HeapUsage usage;
};

std::uint32_t LoadState(SlotHeader* h) {
  return std::atomic_ref<std::uint32_t>(h->state).load(std::memory_order_acquire);
}
void StoreState(SlotHeader* h, std::uint32_t state) {
  std::atomic_ref<std::uint32_t>(h->state).store(state, std::memory_order_release);
}

std::uintptr_t Addr(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }

PrivHeap* AsHeap(HANDLE handle) {
  auto* heap = static_cast<PrivHeap*>(handle);
  if (!heap || (reinterpret_cast<std::uintptr_t>(heap) % alignof(PrivHeap)) != 0 || heap->magic != kHeapMagic)
    return nullptr;
  return heap;
}

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
    void* base = AllocateRegion(kSpanBytes);
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

void* AllocSmall(PrivHeap* heap, int cls) {
  const std::uint32_t size = ClassSize(cls);
  std::lock_guard guard(heap->lock);
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
  h->size = 0;
  StoreState(h, kSlotLive);
  heap->usage.bytes_in_use += size;
  ++heap->usage.blocks;
  return h + 1;
}

void* AllocLarge(PrivHeap* heap, std::size_t bytes) {
  const std::size_t capacity = (bytes + 15) & ~std::size_t{15};
  std::lock_guard guard(heap->lock);
  if (heap->maximum && heap->usage.bytes_in_use + capacity > heap->maximum) return nullptr;
  void* raw = ::operator new(sizeof(LargeHeader) + capacity, std::align_val_t{16}, std::nothrow);
  if (!raw) return nullptr;
  auto* large = new (raw) LargeHeader{};
  large->heap = heap;
  large->capacity = capacity;
  large->slot.cls = kLargeClass;
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

SlotHeader* HeaderOf(const void* block) {
  return reinterpret_cast<SlotHeader*>(reinterpret_cast<std::uintptr_t>(block) - sizeof(SlotHeader));
}
LargeHeader* LargeOf(const void* block) {
  return reinterpret_cast<LargeHeader*>(reinterpret_cast<std::uintptr_t>(block) - sizeof(LargeHeader));
}

// Checks a small block against the address map without the heap lock: spans live as long as their
// heap, so once the map names `heap` the span header may be read.
bool OwnedSmall(PrivHeap* heap, std::uintptr_t p, HeapBlockSpan* span) {
  // A span is one aligned unit: its header's address follows from `p` and may be loaded while the
  // map is still being consulted; it is only used once the map names this heap.
  auto* s = reinterpret_cast<Span*>(p & ~(kSpanBytes - 1));
  if ((detail::LoadMapWord(p) & detail::kOwnerMask) != Addr(heap)) return false;
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

bool OwnedLarge(PrivHeap* heap, std::uintptr_t p, HeapBlockSpan* span) {
  std::lock_guard guard(heap->lock);
  if (heap->large.count(p) == 0) return false;
  if (span) *span = {p, p + LargeOf(reinterpret_cast<void*>(p))->capacity, nullptr, 0};
  return true;
}

bool Owned(PrivHeap* heap, const void* block, HeapBlockSpan* span) {
  const auto p = reinterpret_cast<std::uintptr_t>(block);
  if (p == 0 || (p & 15) != 0) return false;
  return OwnedSmall(heap, p, span) || OwnedLarge(heap, p, span);
}

// Frees a block already known to be the heap's (caller holds the lock); false if it was freed
// meanwhile. `s` is the block's span, null for a large block.
bool FreeLocked(PrivHeap* heap, void* block, Span* s) {
  SlotHeader* h = HeaderOf(block);
  if (LoadState(h) != kSlotLive) return false;
  if (!s) {
    if (heap->large.erase(reinterpret_cast<std::uintptr_t>(block)) == 0) return false;
    LargeHeader* large = LargeOf(block);
    heap->usage.bytes_in_use -= large->capacity;
    heap->usage.bytes_reserved -= sizeof(LargeHeader) + large->capacity;
    --heap->usage.blocks;
    large->slot.state = kSlotFree;
    ::operator delete(large, std::align_val_t{16});
    return true;
  }
  const int cls = static_cast<int>(s->cls);
  StoreState(h, kSlotFree);
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
  return true;
}

PrivHeap* NewHeap(DWORD options, SIZE_T maximum) {
  auto* heap = new (std::nothrow) PrivHeap;
  if (!heap) return nullptr;
  heap->options = options;
  heap->maximum = maximum;
  return heap;
}

}  // namespace

// ---- regions -----------------------------------------------------------------------------------

void* AllocateRegion(std::size_t bytes) {
  if (bytes == 0 || bytes > kMaxRegionBytes) return nullptr;
  bytes = (bytes + kRegionGranularity - 1) & ~(kRegionGranularity - 1);
  return ::operator new(bytes, std::align_val_t{kRegionGranularity}, std::nothrow);
}

void FreeRegion(void* base) {
  if (base) ::operator delete(base, std::align_val_t{kRegionGranularity});
}

void MapRegion(const void* base, std::size_t bytes, const void* owner) {
  const auto start = reinterpret_cast<std::uintptr_t>(base);
  std::lock_guard guard(MapMutex());
  for (std::uintptr_t at = start, delta = 0; at < start + bytes; at += kRegionGranularity, ++delta) {
    std::uintptr_t* slot = MapSlot(at, true);
    if (!slot) continue;  // unmappable: lookups simply fail and callers take the careful path
    const std::uintptr_t word = (reinterpret_cast<std::uintptr_t>(owner) & detail::kOwnerMask) | (delta << detail::kDeltaShift);
    std::atomic_ref<std::uintptr_t>(*slot).store(word, std::memory_order_release);
  }
}

void UnmapRegion(const void* base, std::size_t bytes) {
  const auto start = reinterpret_cast<std::uintptr_t>(base);
  std::lock_guard guard(MapMutex());
  for (std::uintptr_t at = start; at < start + bytes; at += kRegionGranularity)
    if (std::uintptr_t* slot = MapSlot(at, false)) std::atomic_ref<std::uintptr_t>(*slot).store(0, std::memory_order_release);
}

// ---- the light lock ----------------------------------------------------------------------------

// Spins up to 4000 times while the holder is likely to leave soon, then marks the word as having
// waiters and sleeps on it (the holder's unlock wakes one).
void LightLock::LockContended() {
  for (int spin = 0; spin < 4000; ++spin) {
    std::uint32_t expected = kFree;
    if (state_.load(std::memory_order_relaxed) == kFree &&
        state_.compare_exchange_weak(expected, kLocked, std::memory_order_acquire, std::memory_order_relaxed))
      return;
#if defined(__x86_64__) || defined(__i386__)
    if ((spin & 15) == 15) __builtin_ia32_pause();
#endif
  }
  while (state_.exchange(kWaiters, std::memory_order_acquire) != kFree) state_.wait(kWaiters, std::memory_order_relaxed);
}

void LightLock::WakeOne() { state_.notify_one(); }

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
  std::lock_guard guard(heap->lock);
  if (s && s->generation.load(std::memory_order_relaxed) != span.generation) return FALSE;  // reused since
  return FreeLocked(heap, block, s) ? TRUE : FALSE;
}

bool GetHeapUsage(HANDLE handle, HeapUsage* usage) {
  PrivHeap* heap = AsHeap(handle);
  if (!heap || !usage) return false;
  std::lock_guard guard(heap->lock);
  *usage = heap->usage;
  return true;
}

}  // namespace zr

// ---- the HeapCreate family ---------------------------------------------------------------------

using zr::PrivHeap;

HANDLE HeapCreate(DWORD options, SIZE_T initialSize, SIZE_T maximumSize) {
  return zr::NewHeap(options, maximumSize);
}

HANDLE GetProcessHeap() {
  static PrivHeap* heap = zr::NewHeap(0, 0);  // never destroyed
  return heap;
}

BOOL HeapDestroy(HANDLE handle) {
  PrivHeap* heap = zr::AsHeap(handle);
  if (!heap || heap == GetProcessHeap()) return FALSE;
  for (zr::Span* s = heap->all; s;) {
    zr::Span* next = s->all_next;
    zr::UnmapRegion(s, zr::kSpanBytes);
    zr::FreeRegion(s);
    s = next;
  }
  for (std::uintptr_t data : heap->large)
    ::operator delete(zr::LargeOf(reinterpret_cast<void*>(data)), std::align_val_t{16});
  heap->magic = 0;
  delete heap;
  return TRUE;
}

void* HeapAlloc(HANDLE handle, DWORD flags, SIZE_T bytes) {
  PrivHeap* heap = zr::AsHeap(handle);
  if (!heap || bytes > zr::kMaxBlockBytes) return nullptr;
  const std::size_t slot = bytes + sizeof(zr::SlotHeader);
  void* block = slot <= zr::kMaxSlotBytes ? zr::AllocSmall(heap, zr::ClassOf(slot)) : zr::AllocLarge(heap, bytes);
  if (!block) return nullptr;
  zr::HeaderOf(block)->size = bytes;
  if (flags & HEAP_ZERO_MEMORY) std::memset(block, 0, bytes);
  return block;
}

BOOL HeapFree(HANDLE handle, DWORD flags, void* block) {
  zr::HeapBlockSpan span;
  return zr::HeapBlockOwned(handle, block, &span) ? zr::HeapFreeChecked(handle, flags, block, span) : FALSE;
}

SIZE_T HeapSize(HANDLE handle, DWORD flags, const void* block) {
  PrivHeap* heap = zr::AsHeap(handle);
  if (!heap || !zr::Owned(heap, block, nullptr)) return static_cast<SIZE_T>(-1);
  std::lock_guard guard(heap->lock);
  const zr::SlotHeader* h = zr::HeaderOf(block);
  return h->state == zr::kSlotLive ? static_cast<SIZE_T>(h->size) : static_cast<SIZE_T>(-1);
}

void* HeapReAlloc(HANDLE handle, DWORD flags, void* block, SIZE_T bytes) {
  PrivHeap* heap = zr::AsHeap(handle);
  zr::HeapBlockSpan span;
  if (!heap || bytes > zr::kMaxBlockBytes || !zr::Owned(heap, block, &span)) return nullptr;
  std::size_t old_size = 0;
  {
    std::lock_guard guard(heap->lock);
    zr::SlotHeader* h = zr::HeaderOf(block);
    if (h->state != zr::kSlotLive) return nullptr;
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
