// The debug heap: named heaps whose blocks carry a size word and an end signature, with counts,
// leak reports at destruction and, in watch mode, a record with a call-site trace per block.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zrobj/export.h"
#include "zrobj/heaplock.h"
#include "zrobj/zrtypes.h"

namespace zr {
struct HeapBlockSpan;
}  // namespace zr

// Flag bits of a heap (only the low four are stored).
inline constexpr unsigned long CHEAP_LOG = 0x1;          // a line per Alloc, Realloc and Free (debug output on)
inline constexpr unsigned long CHEAP_WATCH = 0x2;        // blocks carry a tagWATCHINFO record and a trace
inline constexpr unsigned long CHEAP_WATCH_NEXT = 0x4;   // watch at next start (StoreWatchConfig)
inline constexpr unsigned long CHEAP_FREE_TRACE = 0x8;   // every Free prints a line and the caller's stack

inline constexpr DWORD CHEAP_BLOCK_END = 0x43484F57;        // bytes "WOHC" behind every block
inline constexpr DWORD CHEAP_WATCH_SIGNATURE = 0x63685774;  // bytes "tWhc" at the start of a record

// Bytes in front of the caller's data: plain blocks have 12 bytes of padding and the size word,
// watch blocks the record (136 bytes), 4 bytes of padding and the size word. The end signature
// follows the data directly in both layouts; the data is aligned to 16 bytes.
inline constexpr std::size_t CHEAP_PLAIN_LEAD = 16;
inline constexpr std::size_t CHEAP_WATCH_LEAD = 144;

// The record in front of a watched block (pointers widened to 64 bits, order kept).
struct tagWATCHINFO {
  DWORD dwSignature;          // CHEAP_WATCH_SIGNATURE
  tagWATCHINFO* pNewer;       // newer neighbour in the heap's watch list (null for the head)
  tagWATCHINFO* pOlder;       // older neighbour (null for the tail)
  HANDLE hHeap;               // the owning private heap
  DWORD dwSize;               // the block's size word (requested size + 8)
  const char* pModule[7];     // interned module or source-file name per trace segment
  const char* pTrace;         // the trace text, kept in the watch heap
  LONG lValue[7];             // displacement, offset, line number or raw address per segment
};
static_assert(offsetof(tagWATCHINFO, pNewer) == 8 && offsetof(tagWATCHINFO, hHeap) == 24 &&
                  offsetof(tagWATCHINFO, dwSize) == 32 && offsetof(tagWATCHINFO, pModule) == 40 &&
                  offsetof(tagWATCHINFO, pTrace) == 96 && offsetof(tagWATCHINFO, lValue) == 104 &&
                  sizeof(tagWATCHINFO) == 136,
              "watch record layout");

class ZROBJ_API CHeap {
 public:
  // A name beginning (after an optional "@") with "PROC" uses the process heap; "@" turns logging on.
  // The private heap is created now when any of the three numbers is non-zero, else by SizeHeap.
  CHeap(const char* name, unsigned long maximumSize, unsigned long initialSize, unsigned long options, int createNow);
  ~CHeap();
  CHeap(const CHeap&) = delete;
  CHeap& operator=(const CHeap&) = delete;

  // 0 when the heap already had a private heap or creating it succeeded, 1 when creating it failed.
  int SizeHeap(unsigned long maximumSize, unsigned long initialSize, unsigned long options);

  void* Alloc(unsigned long size, unsigned long heapFlags, const char* sourceFile, int line, unsigned long callerAddress);
  void* Realloc(void* block, unsigned long size, unsigned long heapFlags, const char* sourceFile, int line,
                unsigned long callerAddress);
  int Free(void* block, unsigned long heapFlags);
  int Verify(void* block);
  unsigned long AllocSize(const void* block);
  void Dump(int full);

  int GetHeapName(char* buffer, int length);
  unsigned long GetHeapFlags();
  int SetHeapFlags(unsigned long flags);
  unsigned long GetHeapState(unsigned int& items);

  static int GetHeapList(CHeap** list, int max);
  static int StoreWatchConfig();

 private:
  using Lock = zr::RecursiveLightLock;  // guards the watch list

  struct Caller {
    std::uintptr_t address;  // return address into the caller
    std::uintptr_t frame;    // the member's frame
  };
  void* AllocNoted(HANDLE heap, unsigned long size, unsigned long heapFlags, const char* sourceFile, int line,
                   unsigned long callerAddress);
  void* AllocPlain(HANDLE heap, unsigned long size, unsigned long heapFlags);
  void* AllocFailed(HANDLE heap);
  void* PlaceGuards(void* block, std::size_t lead, unsigned long size);
  int FreeNoted(HANDLE heap, void* block, unsigned long heapFlags, Caller caller);
  int Release(HANDLE heap, unsigned long heapFlags, std::uintptr_t data, std::size_t lead, DWORD sizeWord,
              const zr::HeapBlockSpan& span);
  void RegisterWatch(tagWATCHINFO* record, DWORD sizeWord, const char* sourceFile, std::uintptr_t location,
                     std::uintptr_t frame = 0);
  bool UnlinkWatch(tagWATCHINFO* record);
  void DumpList(long options);
  void DumpEntry(const tagWATCHINFO& record, std::uintptr_t address, bool withTrace);

  std::atomic<HANDLE> hHeap{nullptr};
  // The counts change with every block; on a line of their own they do not slow down the readers of
  // the handle and flags on other processors.
  alignas(64) std::atomic<std::uint64_t> counts_{0};  // items (high half) and bytes, changed together
  alignas(64) std::atomic<std::uint32_t> flags_{0};
  char name_[32] = {};
  std::atomic<tagWATCHINFO*> watch_head_{nullptr};
  Lock lock_;
};

namespace zr {

// Where the heaps read and write their integer settings ("Heaps"/<heap name>, keys "Watch" and
// "HeapFlags"): ZROBJ_GetProfileInt and ZROBJ_WriteProfileInt unless replaced (tests, tools).
struct HeapSettings {
  int (*get_int)(const char* section, const char* key, int defaultValue, int writeDefault) = nullptr;
  int (*write_int)(const char* section, const char* key, int value) = nullptr;
};
// Null members restore the defaults; returns the previous hooks.
ZROBJ_API HeapSettings SetHeapSettings(const HeapSettings& settings);

// The library's own heaps, created at load ("CSHeap", "ThreadHeap", "MailMessage", "MailItemQueue",
// "MemPool", "CPVItemPool", "CPHItemPool", "PropertyPool", "DIBPool", "CZRRTObjectHeap",
// "PrjHeap"); the name compares case-insensitively. Null for any other name.
ZROBJ_API CHeap* GetLibraryHeap(const char* name);

// The shared watch heap that holds trace texts and interned names; null until a heap wants watch mode.
ZROBJ_API HANDLE GetWatchHeap();

// The five heap performance counters (each thread counts its own; a read sums them).
enum class HeapCounter : int { kAlloc, kRealloc, kFree, kFAlloc, kFFree };
inline constexpr int kHeapCounterCount = 5;
ZROBJ_API const char* HeapCounterName(HeapCounter counter);  // "Alloc", "Realloc", "Free", "FAlloc", "FFree"
ZROBJ_API std::uint32_t GetHeapCounter(HeapCounter counter);

}  // namespace zr
