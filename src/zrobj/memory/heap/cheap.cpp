// The debug heap CHeap: guarded blocks on private heaps, counts, watch records with call-site
// traces, dumps, leak reports, the registry of heaps, the shared watch heap and the library's heaps.
//
// Every read of a block the caller hands in goes through BlockReader: directly when the private heap
// confirms the block is one of its live blocks, otherwise through a probed read that cannot fault.
#include "zrobj/cheap.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "base/compiler.h"
#include "platform/dlgsvc.h"
#include "platform/fault.h"
#include "platform/platdiag.h"
#include "memory/heap/privheap_internal.h"
#include "memory/heap/privheap_layout_internal.h"
#include "platform/text.h"
#include "platform/wformat.h"
#include "memory/heap/cheap_internal.h"
#include "zrobj/heaplock.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrobj.h"

namespace os = zr::os;

// Raises a warning naming the member's caller (expanded inside the member itself).
#define CHEAP_WARNING(text) WarningMsg(text, ZR_CALLER_ADDRESS(), ZR_CURRENT_FRAME())

namespace zr {
namespace {

constexpr std::size_t kPlainLead = CHEAP_PLAIN_LEAD;
constexpr std::size_t kWatchLead = CHEAP_WATCH_LEAD;
constexpr std::size_t kEndBytes = 4;
constexpr std::size_t kPlainOverhead = kPlainLead + kEndBytes;  // a plain block of n bytes holds n + 20
constexpr std::size_t kWatchOverhead = kWatchLead + kEndBytes;  // a watch block of n bytes holds n + 148
constexpr unsigned long kMaxRequest = 0xFFFFFFFFul - kWatchOverhead;  // size words stay 32-bit
constexpr std::size_t kTraceBytes = 1024;
constexpr int kTraceFrames = 6;
constexpr int kTraceSlots = 7;

// ---- process-wide state ------------------------------------------------------------------------

struct HeapWorld {
  HeapRegistry<CHeap> registry;          // its mutex also guards the interned names
  std::atomic<HANDLE> watch_heap{nullptr};
  char* interned = nullptr;              // newest node: [next node pointer][NUL-terminated name]
};

HeapWorld& World() {
  static HeapWorld* world = new HeapWorld;  // never destroyed: heaps are destroyed during unload
  return *world;
}

std::atomic<decltype(HeapSettings::get_int)> g_get_int{nullptr};
std::atomic<decltype(HeapSettings::write_int)> g_write_int{nullptr};

int ReadSetting(const char* section, const char* key) {
  const auto get = g_get_int.load(std::memory_order_acquire);
  return get ? get(section, key, 0, 0) : ZROBJ_GetProfileInt(section, key, 0, 0);
}

int WriteSetting(const char* section, const char* key, int value) {
  const auto write = g_write_int.load(std::memory_order_acquire);
  return write ? write(section, key, value) : ZROBJ_WriteProfileInt(section, key, value);
}

std::uintptr_t Addr(const void* p) { return reinterpret_cast<std::uintptr_t>(p); }
void* Ptr(std::uintptr_t a) { return reinterpret_cast<void*>(a); }

bool IsWatching(const std::atomic<std::uint32_t>& flags) {
  return (flags.load(std::memory_order_relaxed) & CHEAP_WATCH) && World().watch_heap.load(std::memory_order_relaxed);
}

// The item count (high half, signed) and the byte count (low half) of a heap, in one word so that
// both change with one store, or one compare-exchange once the process has a second thread.
std::int32_t ItemsOf(std::uint64_t counts) { return static_cast<std::int32_t>(counts >> 32); }
std::uint32_t BytesOf(std::uint64_t counts) { return static_cast<std::uint32_t>(counts); }

std::uint64_t ChangedCounts(std::uint64_t counts, std::int32_t itemDelta, std::int64_t byteDelta) {
  const auto items = static_cast<std::uint32_t>(counts >> 32) + static_cast<std::uint32_t>(itemDelta);
  const auto bytes = static_cast<std::uint32_t>(counts) + static_cast<std::uint32_t>(byteDelta);
  return (std::uint64_t{items} << 32) | bytes;
}

inline void AddCounts(std::atomic<std::uint64_t>& counts, std::int32_t itemDelta, std::int64_t byteDelta) {
  std::uint64_t old = counts.load(std::memory_order_relaxed);
  if (ProcessIsSingleThreaded()) {
    counts.store(ChangedCounts(old, itemDelta, byteDelta), std::memory_order_relaxed);
    return;
  }
  while (!counts.compare_exchange_weak(old, ChangedCounts(old, itemDelta, byteDelta), std::memory_order_relaxed)) {
  }
}

// The private heap never faults; a failure where Windows would have raised (HEAP_GENERATE_EXCEPTIONS)
// gets the report of the structured-exception guard.
ZR_NOINLINE ZR_COLD void ReportFailedAlloc(HANDLE heap, unsigned long heapFlags, std::size_t bytes) {
  if (HeapFailureRaises(heap, static_cast<DWORD>(heapFlags)))
    os::wPrintf(0, 0, u"\rHeapAlloc(%08X,%08X,%u) failed \r\n", Addr(heap), heapFlags, bytes);
}

ZR_ALWAYS_INLINE void* GuardedAlloc(HANDLE heap, unsigned long heapFlags, std::size_t bytes) {
  void* block = heapimpl::AllocBlock(heap, static_cast<DWORD>(heapFlags), bytes);
  if (ZR_UNLIKELY(!block)) ReportFailedAlloc(heap, heapFlags, bytes);
  return block;
}

// ---- reading blocks that may be damaged ----------------------------------------------------------

class BlockReader {
 public:
  ZR_ALWAYS_INLINE BlockReader(HANDLE heap, std::uintptr_t heapBlock) {
    owned_ = heapimpl::BlockOwned(heap, Ptr(heapBlock), &span_);
  }
  bool owned() const { return owned_; }
  const HeapBlockSpan& span() const { return span_; }
  bool Read(std::uintptr_t at, void* out, std::size_t n) const {
    if (owned_ && at >= span_.begin && at <= span_.end && n <= span_.end - at) {
      std::memcpy(out, Ptr(at), n);
      return true;
    }
    return os::ProbeRead(Ptr(at), out, n);
  }

 private:
  bool owned_ = false;
  HeapBlockSpan span_;
};

enum class Guards { kIntact, kEndBroken, kUnreadable };

// The size word in front of the data and the end signature it points at.
inline Guards CheckGuards(const BlockReader& reader, std::uintptr_t data, DWORD* sizeWord) {
  DWORD size = 0;
  if (!reader.Read(data - 4, &size, sizeof size)) return Guards::kUnreadable;
  *sizeWord = size;
  if (size < 8) return Guards::kEndBroken;
  DWORD end = 0;
  if (!reader.Read(data - 4 + size - 4, &end, sizeof end)) return Guards::kUnreadable;
  return end == CHEAP_BLOCK_END ? Guards::kIntact : Guards::kEndBroken;
}

// A plain block that is a live small block of the heap, with both guards intact: read directly.
inline bool IntactPlainBlock(HANDLE heap, std::uintptr_t data, HeapBlockSpan* span, DWORD* sizeWord) {
  if (!heapimpl::SmallBlockOwned(heap, Ptr(data - kPlainLead), span)) return false;
  DWORD size = 0, end = 0;
  std::memcpy(&size, Ptr(data - 4), sizeof size);  // inside the block's span
  if (size < 8 || size - 4 > span->end - data) return false;
  std::memcpy(&end, Ptr(data - 4 + size - 4), sizeof end);
  *sizeWord = size;
  return end == CHEAP_BLOCK_END;
}

void WriteGuards(std::uintptr_t data, DWORD sizeWord, DWORD end) {
  std::memcpy(Ptr(data - 4), &sizeWord, sizeof sizeWord);
  std::memcpy(Ptr(data - 4 + sizeWord - 4), &end, sizeof end);
}

// Zeroes the end signature and the size word of a block of `sizeWord`.
void ClearGuards(std::uintptr_t data, DWORD sizeWord) {
  const DWORD zero = 0;
  std::memcpy(Ptr(data - 4 + sizeWord - 4), &zero, sizeof zero);
  std::memcpy(Ptr(data - 4), &zero, sizeof zero);
}

// Text kept in the watch heap: read directly when its block is confirmed, else byte by byte probed.
std::string ReadWatchText(const char* text, std::size_t max, std::size_t offsetInBlock) {
  std::string out;
  if (!text) return out;
  const std::uintptr_t p = Addr(text);
  HeapBlockSpan span;
  const HANDLE watch = World().watch_heap.load(std::memory_order_acquire);
  if (watch && HeapBlockOwned(watch, Ptr(p - offsetInBlock), &span) && p <= span.end) {
    const std::size_t limit = std::min<std::size_t>(max, span.end - p);
    for (std::size_t i = 0; i < limit && text[i]; ++i) out.push_back(text[i]);
    return out;
  }
  for (std::size_t i = 0; i < max; ++i) {
    char c = 0;
    if (!os::ProbeRead(text + i, &c, 1) || c == 0) break;
    out.push_back(c);
  }
  return out;
}

// ---- interned names and traces -----------------------------------------------------------------

constexpr std::size_t kNodeText = sizeof(char*);  // a name node: next pointer, then the text

char* NextNode(const char* node) {
  char* next = nullptr;
  std::memcpy(&next, node, sizeof next);
  return next;
}

void ReportWatchHeapFailure(HANDLE watch) {
  os::wPrintf(0, 0, u"\rFAILED: HeapAlloc(hWatchHeap=%08X)\r\n", Addr(watch));
}

// The name's text in the interned list (case-insensitive), added on first use; null on failure.
// (The failure is reported outside the registry lock, which a diagnostics sink may need.)
const char* Intern(const std::string& name) {
  HeapWorld& world = World();
  const HANDLE watch = world.watch_heap.load(std::memory_order_acquire);
  if (!watch) return nullptr;
  {
    std::lock_guard guard(world.registry.mutex());
    for (char* node = world.interned; node; node = NextNode(node))
      if (EqualNoCase(node + kNodeText, name.c_str())) return node + kNodeText;
    if (auto* node = static_cast<char*>(HeapAlloc(watch, 0, kNodeText + name.size() + 1))) {
      std::memcpy(node, &world.interned, sizeof world.interned);
      std::memcpy(node + kNodeText, name.c_str(), name.size() + 1);
      world.interned = node;
      return node + kNodeText;
    }
  }
  ReportWatchHeapFailure(watch);
  return nullptr;
}

void FreeTraceText(const char* text) {
  const HANDLE watch = World().watch_heap.load(std::memory_order_acquire);
  if (watch && text) HeapFree(watch, 0, const_cast<char*>(text));
}

std::string BaseName(const std::string& path) {
  const std::size_t cut = path.find_last_of("\\/");
  return cut == std::string::npos ? path : path.substr(cut + 1);
}

// A symbol as the trace shows it: without a leading return type or calling convention (the part up
// to a blank before the first ':'), cut at the first '('. The name becomes part of a format, so '%'
// is doubled and '{' (the segment separator) becomes '['.
std::string TraceSymbol(std::string symbol) {
  const std::size_t colon = symbol.find(':');
  const std::size_t limit = colon != std::string::npos ? colon : symbol.find('(');
  const std::size_t blank = symbol.rfind(' ', limit);
  if (blank != std::string::npos && (limit == std::string::npos || blank < limit)) symbol.erase(0, blank + 1);
  const std::size_t paren = symbol.find('(');
  if (paren != std::string::npos) symbol.resize(paren);
  if (symbol.size() > 160) symbol.resize(160);
  std::string out;
  for (char c : symbol) {
    if (c == '%') out += "%%";
    else out.push_back(c == '{' ? '[' : c);
  }
  return out;
}

// One trace segment for a code address: the fragment, its module and its value.
struct Segment {
  std::string fragment;
  const char* module = nullptr;
  LONG value = 0;
};

Segment ResolveSegment(std::uintptr_t address) {
  os::ZrAddressInfo info;
  if (!os::GetAddressInfo(address, &info)) return {"%hs%08x{", nullptr, static_cast<LONG>(static_cast<DWORD>(address))};
  const char* module = Intern(BaseName(info.module_path));
  if (!info.symbol.empty())
    return {"%hs|" + TraceSymbol(info.symbol) + "%+d{", module, static_cast<LONG>(info.symbol_offset)};
  return {"%hs|+%u{", module, static_cast<LONG>(address - info.module_base)};
}

// Resolved segments by address: symbol look-ups are the bulk of a watched allocation's cost, and
// call sites repeat. Cleared with the interned names they point at.
struct SegmentCache {
  static constexpr std::size_t kLimit = 4096;
  std::mutex mutex;
  std::unordered_map<std::uintptr_t, Segment> segments;
};

SegmentCache& Segments() {
  static auto* cache = new SegmentCache;  // never destroyed, like the interned names' world
  return *cache;
}

Segment SegmentOf(std::uintptr_t address) {
  SegmentCache& cache = Segments();
  {
    std::lock_guard guard(cache.mutex);
    const auto it = cache.segments.find(address);
    if (it != cache.segments.end()) return it->second;
  }
  Segment segment = ResolveSegment(address);
  if (segment.module || !segment.fragment.starts_with("%hs|")) {  // a failed intern is not remembered
    std::lock_guard guard(cache.mutex);
    if (cache.segments.size() >= SegmentCache::kLimit) cache.segments.clear();
    cache.segments.emplace(address, segment);
  }
  return segment;
}

// Frees every interned name and the watch heap (the last heap is gone).
void ReleaseWatchHeap() {
  HeapWorld& world = World();
  const HANDLE watch = world.watch_heap.exchange(nullptr);
  for (char* node = world.interned; node;) {
    char* next = NextNode(node);
    if (watch) HeapFree(watch, 0, node);
    node = next;
  }
  world.interned = nullptr;
  if (watch) HeapDestroy(watch);
  std::lock_guard guard(Segments().mutex);
  Segments().segments.clear();
}

// Collects the trace text and fills the record's slots from slot 6 downward.
class TraceBuilder {
 public:
  explicit TraceBuilder(tagWATCHINFO* record) : record_(record) {}

  void AddAddress(std::uintptr_t address) {
    const Segment segment = SegmentOf(address);
    Add(segment.fragment, segment.module, segment.value);
  }
  void AddLine(const char* sourceFile, int line) { Add("%hs|line %d{", Intern(BaseName(sourceFile)), line); }

  const char* text() const { return text_; }
  std::size_t size() const { return size_; }

 private:
  void Add(const std::string& fragment, const char* module, LONG value) {
    if (slot_ < 0 || size_ + fragment.size() >= sizeof text_) return;
    std::memcpy(text_ + size_, fragment.data(), fragment.size());
    size_ += fragment.size();
    text_[size_] = 0;
    record_->pModule[slot_] = module;
    record_->lValue[slot_] = value;
    --slot_;
  }

  tagWATCHINFO* record_;
  char text_[kTraceBytes] = {};
  std::size_t size_ = 0;
  int slot_ = kTraceSlots - 1;
};

// Follows saved frame pointers ([frame] = the caller's frame, [frame + 8] = the return address) while
// the links increase. Runs under one fault guard: a damaged or foreign chain ends the walk.
struct FrameWalk {
  std::uintptr_t frame;
  std::uintptr_t returns[kTraceFrames];
};

ZR_NO_SANITIZE("address", "thread") void WalkFrames(void* context) {
  auto* walk = static_cast<FrameWalk*>(context);
  std::uintptr_t frame = walk->frame;
  for (int n = 0; n < kTraceFrames && frame && (frame & 7) == 0; ++n) {
    const auto* link = reinterpret_cast<const std::uintptr_t*>(frame);
    const std::uintptr_t next = link[0];
    walk->returns[n] = link[1];
    std::atomic_signal_fence(std::memory_order_seq_cst);  // stored before the next read may fault
    if (!walk->returns[n] || next <= frame) break;
    frame = next;
  }
}

// The frames above `frame` (outermost first), then the call site; the text goes to the watch heap.
void BuildTrace(tagWATCHINFO* record, const char* sourceFile, std::uintptr_t location, std::uintptr_t frame) {
  TraceBuilder trace(record);
  FrameWalk walk{frame, {}};
  os::GuardedCall(&WalkFrames, &walk);
  int n = 0;
  while (n < kTraceFrames && walk.returns[n]) ++n;
  for (int i = n - 1; i >= 0; --i) trace.AddAddress(walk.returns[i]);
  if (sourceFile) trace.AddLine(sourceFile, static_cast<int>(location));
  else trace.AddAddress(location);
  const HANDLE watch = World().watch_heap.load(std::memory_order_acquire);
  auto* copy = static_cast<char*>(watch ? HeapAlloc(watch, 0, trace.size() + 1) : nullptr);
  if (!copy) {
    ReportWatchHeapFailure(watch);
    return;
  }
  std::memcpy(copy, trace.text(), trace.size() + 1);
  record->pTrace = copy;
}

// ---- the library's heaps -----------------------------------------------------------------------

struct LibraryHeaps {
  CHeap heaps[11] = {
      {"CSHeap", 0, 0, 0, 1},           {"ThreadHeap", 0, 0, 0, 1},       {"MailMessage", 0, 0, 0, 1},
      {"MailItemQueue", 0, 0, 0, 1},    {"MemPool", 0, 0x10000, 0, 0},    {"CPVItemPool", 0, 0x10000, 0, 0},
      {"CPHItemPool", 0, 0x10000, 0, 0}, {"PropertyPool", 0, 0x10000, 0, 0}, {"DIBPool", 0, 0x10000, 0, 0},
      {"CZRRTObjectHeap", 0, 0x80000, 0, 0}, {"PrjHeap", 0, 32768, 0, 0},
  };
  // The counters are always dumped; only their heading depends on debug output.
  ~LibraryHeaps() {
    if (IsDebugOn()) os::wPrintf(3, 9, u"\rHeap::Performance\r\n");
    for (int c = 0; c < kHeapCounterCount; ++c) {
      const auto counter = static_cast<HeapCounter>(c);
      os::wPrintf(3, 9, u"\r%hs: %u\r\n", HeapCounterName(counter), GetHeapCounter(counter));
    }
  }
};

LibraryHeaps& Library() {
  static LibraryHeaps heaps;  // destroyed at unload, with the leak reports
  return heaps;
}

[[maybe_unused]] const bool g_library_heaps_created = (Library(), true);

}  // namespace

HeapSettings SetHeapSettings(const HeapSettings& settings) {
  HeapSettings previous;
  previous.get_int = g_get_int.exchange(settings.get_int);
  previous.write_int = g_write_int.exchange(settings.write_int);
  return previous;
}

CHeap* GetLibraryHeap(const char* name) {
  for (CHeap& heap : Library().heaps) {
    char own[32] = {};
    heap.GetHeapName(own, sizeof own - 1);
    if (EqualNoCase(own, name)) return &heap;
  }
  return nullptr;
}

HANDLE GetWatchHeap() { return World().watch_heap.load(std::memory_order_acquire); }

const char* HeapCounterName(HeapCounter counter) {
  static const char* const kNames[kHeapCounterCount] = {"Alloc", "Realloc", "Free", "FAlloc", "FFree"};
  const int index = static_cast<int>(counter);
  return index >= 0 && index < kHeapCounterCount ? kNames[index] : "";
}

std::uint32_t GetHeapCounter(HeapCounter counter) {
  const int index = static_cast<int>(counter);
  if (index < 0 || index >= kHeapCounterCount) return 0;
  return heapimpl::SumCounter(index);
}

}  // namespace zr

using zr::Addr;
using zr::BlockReader;
using zr::Guards;
using zr::Ptr;

// ---- construction and destruction --------------------------------------------------------------

CHeap::CHeap(const char* name, unsigned long maximumSize, unsigned long initialSize, unsigned long options,
             int createNow) {
  const char* bare = name && name[0] == '@' ? name + 1 : name;
  HANDLE heap = nullptr;
  if (bare && zr::EqualNoCase(bare, "PROC", 4)) heap = zr::GetProcessHeap();
  else if (maximumSize || initialSize || createNow) heap = zr::HeapCreate(options, initialSize, maximumSize);
  hHeap.store(heap, std::memory_order_release);

  std::uint32_t flags = 0;
  if (name && *name) {
    if (name[0] == '@') flags |= CHEAP_LOG;
    zr::CopyHeapName(name_, bare);
  } else {
    zr::CopyHeapName(name_, os::FormatNarrow("%08X", Addr(heap)).c_str());
  }

  zr::HeapWorld& world = zr::World();
  bool watch = zr::ReadSetting("Heaps", "Watch") != 0 || zr::ReadSetting(name_, "Watch") != 0;
  world.registry.Add(this);
  bool madeWatchHeap = false;
  if (watch) {
    std::lock_guard guard(world.registry.mutex());
    if (!world.watch_heap.load(std::memory_order_relaxed)) {
      const HANDLE created = zr::HeapCreate(0, 0x10000, 0);
      world.watch_heap.store(created, std::memory_order_release);
      watch = madeWatchHeap = created != nullptr;
    }
  }
  // Printed outside the registry lock: a diagnostics sink may allocate from a watched heap, which
  // takes that lock to intern names.
  if (madeWatchHeap && IsDebugOn()) os::wPrintf(3, 5, u"\rCHeap %hs: hWatchHeap = hWatchHeap\r\n", name_);
  if (watch) flags |= CHEAP_WATCH;
  flags |= static_cast<std::uint32_t>(zr::ReadSetting("Heaps", "HeapFlags") | zr::ReadSetting(name_, "HeapFlags"));
  flags_.store(flags & 15, std::memory_order_relaxed);
  if (IsDebugOn()) os::wPrintf(3, 5, u"\rCHeap(%hs), Handle=%08X\r\n", name_, Addr(heap));
}

CHeap::~CHeap() {
  if (const HANDLE heap = hHeap.load(std::memory_order_acquire)) {
    const std::uint64_t counts = counts_.load(std::memory_order_relaxed);
    if (zr::ItemsOf(counts) != 0) {
      os::wPrintf(0, 9, u"Heap %hs: %i items (%u bytes) not freed\r\n", name_, zr::ItemsOf(counts), zr::BytesOf(counts));
      DetailedMessageBeep(static_cast<UINT>(-1), "src/zrobj/cosobj", 543);
    }
    if (zr::IsWatching(flags_)) DumpList(-1);
    if (heap != zr::GetProcessHeap()) zr::HeapDestroy(heap);
    hHeap.store(nullptr, std::memory_order_release);
  }
  if (zr::World().registry.Remove(this)) zr::ReleaseWatchHeap();
}

int CHeap::SizeHeap(unsigned long maximumSize, unsigned long initialSize, unsigned long options) {
  if (hHeap.load(std::memory_order_acquire)) return 0;
  const HANDLE created = zr::HeapCreate(options, initialSize, maximumSize);
  if (!created) return 1;
  HANDLE expected = nullptr;
  if (!hHeap.compare_exchange_strong(expected, created)) zr::HeapDestroy(created);  // another thread won
  return 0;
}

// ---- allocation --------------------------------------------------------------------------------

// Writes the size word and the end signature of a new block and counts it; returns the data.
ZR_ALWAYS_INLINE void* CHeap::PlaceGuards(void* block, std::size_t lead, unsigned long size) {
  const auto sizeWord = static_cast<DWORD>(size + 8);
  const std::uintptr_t data = Addr(block) + lead;
  zr::WriteGuards(data, sizeWord, CHEAP_BLOCK_END);
  zr::AddCounts(counts_, 1, sizeWord);
  return Ptr(data);
}

// The plain path (no watch record, no log line) is the common one and stays short.
void* CHeap::Alloc(unsigned long size, unsigned long heapFlags, const char* sourceFile, int line,
                   unsigned long callerAddress) {
  const HANDLE heap = hHeap.load(std::memory_order_acquire);
  if (!heap) return nullptr;
  zr::CountHeapEvent(zr::HeapCounter::kAlloc);
  if (flags_.load(std::memory_order_relaxed) & (CHEAP_WATCH | CHEAP_LOG)) {
    void* data = AllocNoted(heap, size, heapFlags, sourceFile, line, callerAddress);
    if (data && (flags_.load(std::memory_order_relaxed) & CHEAP_LOG) && IsDebugOn())
      os::wPrintf(3, 8, u"Heap %hs: Alloc %08X\r\n", name_, Addr(data));
    return data;
  }
  if (size <= zr::kMaxRequest) {
    if (void* block = zr::heapimpl::TakeCached(heap, static_cast<DWORD>(heapFlags), size + zr::kPlainOverhead))
      return PlaceGuards(block, zr::kPlainLead, size);
  }
  return AllocPlain(heap, size, heapFlags);
}

// Alloc of a plain block that the thread's cache does not have.
ZR_NOINLINE void* CHeap::AllocPlain(HANDLE heap, unsigned long size, unsigned long heapFlags) {
  void* block = size <= zr::kMaxRequest ? zr::GuardedAlloc(heap, heapFlags, size + zr::kPlainOverhead) : nullptr;
  if (!block) return AllocFailed(heap);
  return PlaceGuards(block, zr::kPlainLead, size);
}

// Alloc of a block in watch mode (or in plain mode when no watch heap exists).
ZR_NOINLINE void* CHeap::AllocNoted(HANDLE heap, unsigned long size, unsigned long heapFlags,
                                    const char* sourceFile, int line, unsigned long callerAddress) {
  const bool watch = zr::IsWatching(flags_);
  const std::size_t lead = watch ? zr::kWatchLead : zr::kPlainLead;
  void* block = size <= zr::kMaxRequest ? zr::GuardedAlloc(heap, heapFlags, size + lead + zr::kEndBytes) : nullptr;
  if (!block) return AllocFailed(heap);
  if (watch) {
    const std::uintptr_t location = sourceFile ? static_cast<std::uintptr_t>(line) : callerAddress;
    // The trace starts in Alloc (which does not tail-call this member), as if this were part of it.
    RegisterWatch(static_cast<tagWATCHINFO*>(block), static_cast<DWORD>(size + 8), sourceFile, location,
                  ZR_CURRENT_FRAME());
  }
  return PlaceGuards(block, lead, size);
}

ZR_NOINLINE ZR_COLD void* CHeap::AllocFailed(HANDLE heap) {
  os::wPrintf(0, 0, u"\rFAILED: HeapAlloc(%hs,hHeap=%08X)\r\n", name_, Addr(heap));
  return nullptr;
}

// Not inlined, so that the trace starts at a frame of its own: by default the frame of this member,
// whose first return address is in its caller; `frame` starts it further out.
ZR_NOINLINE void CHeap::RegisterWatch(tagWATCHINFO* record, DWORD sizeWord, const char* sourceFile,
                                      std::uintptr_t location, std::uintptr_t frame) {
  std::memset(static_cast<void*>(record), 0, sizeof *record);
  record->dwSignature = CHEAP_WATCH_SIGNATURE;
  record->hHeap = hHeap.load(std::memory_order_relaxed);
  record->dwSize = sizeWord;
  // The trace is complete before the record is listed, so a concurrent dump never sees half of it.
  zr::BuildTrace(record, sourceFile, location, frame ? frame : Addr(__builtin_frame_address(0)));
  std::lock_guard guard(lock_);
  tagWATCHINFO* head = watch_head_.load(std::memory_order_relaxed);
  record->pOlder = head;
  record->pNewer = nullptr;
  if (head) head->pNewer = record;
  watch_head_.store(record, std::memory_order_release);
}

// Takes a record out of the watch list; refuses (false) when its neighbours do not point back at it,
// so that a record of another list is never spliced out of this one.
bool CHeap::UnlinkWatch(tagWATCHINFO* record) {
  const HANDLE heap = hHeap.load(std::memory_order_relaxed);
  std::lock_guard guard(lock_);
  tagWATCHINFO* newer = record->pNewer;
  tagWATCHINFO* older = record->pOlder;
  if (newer && !zr::HeapBlockOwned(heap, newer, nullptr)) return false;
  if (older && !zr::HeapBlockOwned(heap, older, nullptr)) return false;
  if (newer ? newer->pOlder != record : watch_head_.load(std::memory_order_relaxed) != record) return false;
  if (older && older->pNewer != record) return false;
  if (newer) newer->pOlder = older;
  else watch_head_.store(older, std::memory_order_release);
  if (older) older->pNewer = newer;
  record->pNewer = record->pOlder = nullptr;
  return true;
}

void* CHeap::Realloc(void* block, unsigned long size, unsigned long heapFlags, const char* sourceFile, int line,
                     unsigned long callerAddress) {
  const HANDLE heap = hHeap.load(std::memory_order_acquire);
  if (!heap) return nullptr;
  if (!block) return Alloc(size, heapFlags & ~static_cast<unsigned long>(zr::HEAP_REALLOC_IN_PLACE_ONLY), sourceFile, line, callerAddress);
  zr::CountHeapEvent(zr::HeapCounter::kRealloc);
  const bool watch = zr::IsWatching(flags_);
  const std::size_t lead = watch ? zr::kWatchLead : zr::kPlainLead;
  const std::uintptr_t data = Addr(block);
  const std::uintptr_t start = data - lead;
  const BlockReader reader(heap, start);
  DWORD oldWord = 0;
  bool bad = false;
  switch (zr::CheckGuards(reader, data, &oldWord)) {
    case Guards::kIntact:
      break;
    case Guards::kEndBroken:
      bad = true;
      if (IsDebugOn()) os::wPrintf(0, 3, u"\rHeap %hs: Realloc: BlockEnd overwritten.\r\n", name_);
      if (!watch) CHEAP_WARNING(u"Heap corruption!");
      break;
    case Guards::kUnreadable:
      bad = true;
      if (IsDebugOn()) os::wPrintf(0, 3, u"\rHeap %hs: Realloc: BlockStart overwritten.\r\n", name_);
      break;
  }

  void* moved = nullptr;
  if (!watch) {
    if (bad || size > zr::kMaxRequest) return nullptr;
    moved = zr::HeapReAlloc(heap, static_cast<DWORD>(heapFlags), Ptr(start), size + zr::kPlainOverhead);
    if (!moved) return nullptr;
  } else {
    // In watch mode only the record's signature decides; a record of another heap is warned about
    // and reallocated all the same (Free refuses it).
    tagWATCHINFO record;
    bad = !reader.Read(start, &record, sizeof record) || record.dwSignature != CHEAP_WATCH_SIGNATURE;
    if (!bad && record.hHeap != heap) CHEAP_WARNING(u"WRONG HEAP HANDLE");
    if (bad) {
      if (IsDebugOn()) os::wPrintf(0, 3, u"Heap %hs: Realloc invalid watch signature\r\n", name_);
      return nullptr;
    }
    // A block that is not a live block of this heap cannot be reallocated here: that fails like the
    // private heap would, leaving the record where it is.
    auto* listed = static_cast<tagWATCHINFO*>(Ptr(start));
    if (!reader.owned() || size > zr::kMaxRequest || !UnlinkWatch(listed)) return nullptr;
    zr::FreeTraceText(listed->pTrace);
    listed->pTrace = nullptr;
    const std::uintptr_t location = sourceFile ? static_cast<std::uintptr_t>(line) : callerAddress;
    moved = zr::HeapReAlloc(heap, static_cast<DWORD>(heapFlags), listed, size + zr::kWatchOverhead);
    if (!moved) {
      RegisterWatch(listed, record.dwSize, sourceFile, location);
      return nullptr;
    }
    RegisterWatch(static_cast<tagWATCHINFO*>(moved), static_cast<DWORD>(size + 8), sourceFile, location);
  }
  const std::uintptr_t newData = Addr(moved) + lead;
  const auto newWord = static_cast<DWORD>(size + 8);
  zr::WriteGuards(newData, newWord, CHEAP_BLOCK_END);
  zr::AddCounts(counts_, 0, static_cast<std::int64_t>(newWord) - static_cast<std::int64_t>(oldWord));
  if ((flags_.load(std::memory_order_relaxed) & CHEAP_LOG) && IsDebugOn())
    os::wPrintf(3, 8, u"Heap %hs: Realloc %08X\r\n", name_, newData);
  return Ptr(newData);
}

// Clears the guards of a good block (so that a second Free finds neither a size word nor an end
// signature) and gives it back to the private heap.
ZR_ALWAYS_INLINE int CHeap::Release(HANDLE heap, unsigned long heapFlags, std::uintptr_t data,
                                    std::size_t lead, DWORD sizeWord, const zr::HeapBlockSpan& span) {
  zr::ClearGuards(data, sizeWord);
  return zr::heapimpl::FreeBlock(heap, static_cast<DWORD>(heapFlags), Ptr(data - lead), span);
}

// The common case, a plain block with intact guards and nothing to print, takes the short path; any
// other goes through FreeNoted, which checks and reports everything.
ZR_NOINLINE int CHeap::Free(void* block, unsigned long heapFlags) {
  const HANDLE heap = hHeap.load(std::memory_order_acquire);
  if (!heap) return 0;
  zr::CountHeapEvent(zr::HeapCounter::kFree);
  if (!(flags_.load(std::memory_order_relaxed) & (CHEAP_WATCH | CHEAP_FREE_TRACE | CHEAP_LOG))) {
    const std::uintptr_t data = Addr(block);
    zr::HeapBlockSpan span;
    DWORD sizeWord = 0;
    if (zr::IntactPlainBlock(heap, data, &span, &sizeWord)) {
      zr::AddCounts(counts_, -1, -static_cast<std::int64_t>(sizeWord));
      return Release(heap, heapFlags, data, zr::kPlainLead, sizeWord, span);
    }
  }
  return FreeNoted(heap, block, heapFlags, {ZR_CALLER_ADDRESS(), ZR_CURRENT_FRAME()});
}

// Free with every check and report; the warnings and the free trace name Free's caller.
ZR_NOINLINE int CHeap::FreeNoted(HANDLE heap, void* block, unsigned long heapFlags, Caller caller) {
  const bool watch = zr::IsWatching(flags_);
  const std::uintptr_t data = Addr(block);
  const std::uintptr_t start = data - (watch ? zr::kWatchLead : zr::kPlainLead);
  const BlockReader reader(heap, start);
  DWORD sizeWord = 0;
  bool bad = false;
  const Guards guards = zr::CheckGuards(reader, data, &sizeWord);
  if (guards == Guards::kEndBroken) {
    bad = true;
    os::wPrintf(0, 3, u"\rHeap %hs: Free: BlockEnd overwritten or already freed.\r\n", name_);
    if (!watch) WarningMsg(u"Heap corruption!", caller.address, caller.frame);
  } else if (guards == Guards::kUnreadable) {
    bad = true;
    os::wPrintf(0, 3, u"\rHeap %hs: Free: BlockStart overwritten.\r\n", name_);
  }

  auto* listed = static_cast<tagWATCHINFO*>(Ptr(start));
  if (watch) {
    tagWATCHINFO record;
    if (!reader.Read(start, &record, sizeof record) || record.dwSignature != CHEAP_WATCH_SIGNATURE) {
      bad = true;
      os::wPrintf(0, 1, u"\rHeap %hs::Free: Invalid signature\r\n", name_);
    } else if (record.hHeap != heap) {
      bad = true;
      os::wPrintf(0, 1, u"\rHeap %hs::Free: WATCHINFO bad\r\n", name_);
      WarningMsg(u"WRONG HEAP HANDLE", caller.address, caller.frame);
    } else if (guards == Guards::kEndBroken) {
      DumpEntry(record, start, true);
    }
    // Only a live block of this heap is taken out of this heap's list.
    if (!bad && reader.owned()) {
      if (UnlinkWatch(listed)) {
        zr::FreeTraceText(record.pTrace);
        listed->pTrace = nullptr;
      } else {
        bad = true;
        os::wPrintf(0, 1, u"\rHeap %hs::Free: WATCHINFO bad\r\n", name_);
        WarningMsg(u"WRONG HEAP HANDLE", caller.address, caller.frame);
      }
    }
  }

  if ((flags_.load(std::memory_order_relaxed) & CHEAP_FREE_TRACE) && IsDebugOn()) {
    os::wPrintf(3, 8, u"Heap(%hs)::Free Trace %08X\r\n", name_, data);
    os::WalkCallStack(0, caller.frame, 10, nullptr);
  }
  zr::AddCounts(counts_, -1, -static_cast<std::int64_t>(sizeWord));
  if ((flags_.load(std::memory_order_relaxed) & CHEAP_LOG) && IsDebugOn())
    os::wPrintf(3, 8, u"Heap %hs: Free %08X\r\n", name_, data);
  // A bad block stays allocated (and listed): it is evidence, and releasing it could spread damage.
  if (bad || !reader.owned()) return 0;
  return Release(heap, heapFlags, data, watch ? zr::kWatchLead : zr::kPlainLead, sizeWord, reader.span());
}

int CHeap::Verify(void* block) {
  if (!block) return 1;
  const HANDLE heap = hHeap.load(std::memory_order_acquire);
  const std::uintptr_t data = Addr(block);
  const BlockReader reader(heap, data - (zr::IsWatching(flags_) ? zr::kWatchLead : zr::kPlainLead));
  DWORD sizeWord = 0;
  if (zr::CheckGuards(reader, data, &sizeWord) == Guards::kIntact) return 1;
  const std::u16string text = os::FormatWide(u"\rCHeap %hs:Verify failed (block start or end overwritten)\r\n", name_);
  CHEAP_WARNING(text.c_str());
  return 0;
}

unsigned long CHeap::AllocSize(const void* block) {
  const HANDLE heap = hHeap.load(std::memory_order_acquire);
  if (!heap) return 0;
  const bool watch = zr::IsWatching(flags_);
  const SIZE_T size = zr::HeapSize(heap, 0, Ptr(Addr(block) - (watch ? zr::kWatchLead : zr::kPlainLead)));
  if (size == static_cast<SIZE_T>(-1) || size == 0) return 0;
  // In watch mode a heap block of exactly the plain overhead is an empty plain block.
  const std::size_t overhead = watch && size != zr::kPlainOverhead ? zr::kWatchOverhead : zr::kPlainOverhead;
  return size < overhead ? 0 : static_cast<unsigned long>(size - overhead);
}

// ---- dumps -------------------------------------------------------------------------------------

void CHeap::Dump(int full) { DumpList(full ? 0 : 1); }

// Options: bit 0 the summary line only, bit 1 no traces; negative: the heap is being destroyed
// (traces are freed as they are passed and the list is emptied).
void CHeap::DumpList(long options) {
  const bool destroying = options < 0;
  if (destroying) options = 0;
  const std::uint64_t counts = counts_.load(std::memory_order_relaxed);
  const std::int32_t items = zr::ItemsOf(counts);
  const std::uint32_t kilobytes = zr::BytesOf(counts) / 1024;
  if (!watch_head_.load(std::memory_order_acquire)) {
    os::wPrintf(0, 0, u"\rDump [%hs]: %d items, %u kB", name_, items, kilobytes);
    return;
  }
  const HANDLE heap = hHeap.load(std::memory_order_relaxed);
  std::lock_guard guard(lock_);
  os::wPrintf(0, 0, u"\rDump [%hs]: %d items not freed, %u kB", name_, items, kilobytes);
  if (!(options & 1)) {
    // Brent's cycle check: a damaged list that loops back ends the walk instead of printing forever.
    std::uintptr_t at = Addr(watch_head_.load(std::memory_order_relaxed));
    std::uintptr_t mark = 0;
    std::size_t steps = 0, limit = 1;
    while (at) {
      tagWATCHINFO record;
      if (!BlockReader(heap, at).Read(at, &record, sizeof record)) {
        if (IsDebugOn()) os::wPrintf(0, 0, u"\rHeap %hs: Heap corrupted...", name_);
        break;
      }
      if (record.dwSignature != CHEAP_WATCH_SIGNATURE) {
        os::wPrintf(0, 0, u"\rHeap %hs: Block damaged (overwrite)", name_);
        break;
      }
      DumpEntry(record, at, !(options & 2));
      if (destroying && record.pTrace && zr::HeapBlockOwned(heap, Ptr(at), nullptr)) {
        zr::FreeTraceText(record.pTrace);
        static_cast<tagWATCHINFO*>(Ptr(at))->pTrace = nullptr;
      }
      at = Addr(record.pOlder);
      if (at == mark) {
        if (IsDebugOn()) os::wPrintf(0, 0, u"\rHeap %hs: Heap corrupted...", name_);
        break;
      }
      if (++steps == limit) {
        mark = at;
        steps = 0;
        limit *= 2;
      }
    }
  }
  os::wPrintf(0, 0, u"\r\n");
  if (destroying) watch_head_.store(nullptr, std::memory_order_release);
}

void CHeap::DumpEntry(const tagWATCHINFO& record, std::uintptr_t address, bool withTrace) {
  const std::uintptr_t data = address + zr::kWatchLead;
  os::wPrintf(0, 0, u"\r");
  if (!record.pTrace) {
    os::wPrintf(0, 0, u"\r<no trace>{%u bytes @ %08x}\r\n", record.dwSize, data);
    return;
  }
  if (withTrace) {
    const std::u16string text = os::Utf8ToUtf16(zr::ReadWatchText(record.pTrace, zr::kTraceBytes, 0)).substr(0, zr::kTraceBytes);
    std::size_t from = 0;
    for (int piece = 0; piece < zr::kTraceSlots && from < text.size(); ++piece) {
      std::size_t brace = text.find(u'{', from);
      if (brace == std::u16string::npos) brace = text.size();
      std::u16string format = piece ? u"\r" + std::u16string(2 * piece, u' ') : std::u16string();
      format.append(text, from, brace - from);
      const int slot = zr::kTraceSlots - 1 - piece;
      const std::string module = zr::ReadWatchText(record.pModule[slot], 260, zr::kNodeText);
      os::wPrintf(0, 0, format.c_str(), module, record.lValue[slot]);
      from = brace + 1;
    }
  }
  os::wPrintf(0, 0, u"{%u bytes @ %08x}\r\n", record.dwSize, data);
}

// ---- names, flags, state and the registry ------------------------------------------------------

int CHeap::GetHeapName(char* buffer, int length) {
  if (!buffer || length <= 0) return 1;
  // The "@" test looks at the caller's buffer, not at the name.
  const char* from = buffer[0] == '@' ? name_ + 1 : name_;
  std::strncpy(buffer, from, static_cast<std::size_t>(length));
  return 1;
}

unsigned long CHeap::GetHeapFlags() { return flags_.load(std::memory_order_relaxed); }

int CHeap::SetHeapFlags(unsigned long flags) {
  flags_.store(static_cast<std::uint32_t>(flags & 15), std::memory_order_relaxed);
  return 1;
}

unsigned long CHeap::GetHeapState(unsigned int& items) {
  const std::uint64_t counts = counts_.load(std::memory_order_relaxed);
  items = static_cast<unsigned int>(zr::ItemsOf(counts));
  return zr::BytesOf(counts);
}

int CHeap::GetHeapList(CHeap** list, int max) { return zr::World().registry.Copy(list, max); }

// The settings are copied under the registry lock and written outside it: a settings hook or sink
// may allocate from a watched heap, which takes that lock to intern names.
int CHeap::StoreWatchConfig() {
  struct WatchSetting {
    char name[sizeof(CHeap::name_)];
    bool next;
  };
  static constexpr int kMax = zr::HeapRegistry<CHeap>::kCapacity;
  auto settings = std::make_unique<WatchSetting[]>(kMax);
  int count = 0;
  zr::World().registry.ForEach([&](CHeap* heap) {
    WatchSetting& setting = settings[count++];
    std::memcpy(setting.name, heap->name_, sizeof setting.name);
    setting.next = (heap->flags_.load(std::memory_order_relaxed) & CHEAP_WATCH_NEXT) != 0;
    return count < kMax;
  });
  bool any = false;
  for (int i = 0; i < count; ++i) {
    zr::WriteSetting(settings[i].name, "Watch", settings[i].next ? 1 : 0);
    any = any || settings[i].next;
  }
  if (!any) zr::WriteSetting("Heaps", "Watch", 0);
  return 1;
}
