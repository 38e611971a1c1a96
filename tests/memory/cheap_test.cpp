// The private heaps and the debug heap CHeap: layouts, settings, corruption reports, watch traces,
// dumps, leak reports, the registry and two threads on one heap.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/diag_capture.h"
#include "test_support.h"
#include "memory/heap/privheap_internal.h"
#include "platform/wformat.h"
#include "zrobj/cheap.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrobj.h"

namespace {

using zrtest::DebugMode;

// Stands in for the settings store, so the tests pass with or without a real "ZRO.INI".
struct FakeSettings {
  FakeSettings() {
    values.clear();
    reads.clear();
    writes.clear();
    previous = zr::SetHeapSettings({&Get, &Write});
  }
  ~FakeSettings() { zr::SetHeapSettings(previous); }
  static int Get(const char* section, const char* key, int value, int writeDefault) {
    reads.push_back(std::string(section) + "/" + key + " " + std::to_string(value) + " " + std::to_string(writeDefault));
    const auto it = values.find(std::string(section) + "/" + key);
    return it == values.end() ? value : it->second;
  }
  static int Write(const char* section, const char* key, int value) {
    writes.push_back(std::string(section) + "/" + key + "=" + std::to_string(value));
    return 1;
  }
  static inline std::map<std::string, int> values;
  static inline std::vector<std::string> reads, writes;
  zr::HeapSettings previous;
};

std::string Hex8(const void* p) { return zr::os::FormatNarrow("%08X", reinterpret_cast<std::uintptr_t>(p)); }
std::string hex8(const void* p) { return zr::os::FormatNarrow("%08x", reinterpret_cast<std::uintptr_t>(p)); }

bool Has(const zr::os::ScopedDiagCapture& capture, unsigned channel, unsigned level, const std::string& text) {
  for (const auto& e : capture.Entries())
    if (e.channel == channel && e.level == level && zr::os::Utf16ToUtf8(e.text) == text) return true;
  return false;
}

DWORD Word(const void* at) {
  DWORD v;
  std::memcpy(&v, at, sizeof v);
  return v;
}
void SetWord(void* at, DWORD v) { std::memcpy(at, &v, sizeof v); }

#define HERE __FILE__, __LINE__, 0

TEST(PrivateHeap, BlocksSizesReallocationAndOwnership) {
  HANDLE heap = zr::HeapCreate(0, 0, 0);
  ASSERT_NE(heap, nullptr);
  auto* a = static_cast<unsigned char*>(zr::HeapAlloc(heap, zr::HEAP_ZERO_MEMORY, 40));
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(a) % 16, 0u);
  EXPECT_EQ(zr::HeapSize(heap, 0, a), 40u);
  for (int i = 0; i < 40; ++i) EXPECT_EQ(a[i], 0);
  std::memset(a, 0x5A, 40);
  // In place within the slot's capacity, moved (content kept) beyond it unless in place only.
  EXPECT_EQ(zr::HeapReAlloc(heap, 0, a, 44), a);
  EXPECT_EQ(zr::HeapReAlloc(heap, zr::HEAP_REALLOC_IN_PLACE_ONLY, a, 5000), nullptr);
  auto* b = static_cast<unsigned char*>(zr::HeapReAlloc(heap, 0, a, 20000));  // a large block
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b[39], 0x5A);
  EXPECT_EQ(zr::HeapSize(heap, 0, a), static_cast<SIZE_T>(-1));
  EXPECT_EQ(zr::HeapSize(heap, 0, b), 20000u);
  // Foreign, interior, freed and null pointers are refused without being touched.
  char local[64] = {};
  HANDLE other = zr::HeapCreate(0, 0, 0);
  void* theirs = zr::HeapAlloc(other, 0, 16);
  EXPECT_FALSE(zr::HeapBlockOwned(heap, local + 16, nullptr));
  EXPECT_FALSE(zr::HeapBlockOwned(heap, theirs, nullptr));
  EXPECT_FALSE(zr::HeapBlockOwned(heap, b + 16, nullptr));
  EXPECT_FALSE(zr::HeapFree(heap, 0, nullptr));
  EXPECT_FALSE(zr::HeapFree(heap, 0, theirs));
  EXPECT_TRUE(zr::HeapFree(heap, 0, b));
  EXPECT_FALSE(zr::HeapFree(heap, 0, b));
  // Destroying frees whatever is left (the leak checker of the sanitizer build would see it).
  for (int i = 0; i < 1000; ++i) ASSERT_NE(zr::HeapAlloc(heap, 0, 16 + i % 3000), nullptr);
  zr::HeapUsage usage;
  ASSERT_TRUE(zr::GetHeapUsage(heap, &usage));
  EXPECT_EQ(usage.blocks, 1000u);
  EXPECT_TRUE(zr::HeapDestroy(heap));
  EXPECT_TRUE(zr::HeapDestroy(other));
  EXPECT_FALSE(zr::HeapDestroy(zr::GetProcessHeap()));
  // A heap with a maximum refuses what does not fit.
  HANDLE fixed = zr::HeapCreate(0, 0, 0x1000);
  EXPECT_EQ(zr::HeapAlloc(fixed, 0, 0x2000), nullptr);
  EXPECT_NE(zr::HeapAlloc(fixed, 0, 0x100), nullptr);
  zr::HeapDestroy(fixed);
}

TEST(PrivateHeap, FreedBlocksWaitInThreadCachesAndUsageStaysExact) {
  HANDLE heap = zr::HeapCreate(0, 0, 0);
  ASSERT_NE(heap, nullptr);
  std::vector<void*> blocks;
  for (int i = 0; i < 100; ++i) blocks.push_back(zr::HeapAlloc(heap, 0, 16 + 8 * i));
  zr::HeapUsage usage;
  ASSERT_TRUE(zr::GetHeapUsage(heap, &usage));
  EXPECT_EQ(usage.blocks, 100u);
  const std::size_t all_bytes = usage.bytes_in_use;
  // Half are freed by another thread, which counts them out at once and gives them back as it ends.
  std::thread([&] {
    for (int i = 0; i < 50; ++i) EXPECT_TRUE(zr::HeapFree(heap, 0, blocks[i]));
    zr::HeapUsage inside;
    ASSERT_TRUE(zr::GetHeapUsage(heap, &inside));
    EXPECT_EQ(inside.blocks, 50u);
  }).join();
  ASSERT_TRUE(zr::GetHeapUsage(heap, &usage));
  EXPECT_EQ(usage.blocks, 50u);
  EXPECT_LT(usage.bytes_in_use, all_bytes);
  // A freed block is no block of the heap any more, wherever it waits for reuse.
  EXPECT_EQ(zr::HeapSize(heap, 0, blocks[0]), static_cast<SIZE_T>(-1));
  EXPECT_FALSE(zr::HeapBlockOwned(heap, blocks[0], nullptr));
  EXPECT_FALSE(zr::HeapFree(heap, 0, blocks[0]));
  for (int i = 50; i < 100; ++i) EXPECT_TRUE(zr::HeapFree(heap, 0, blocks[i]));  // into this thread's cache
  EXPECT_FALSE(zr::HeapFree(heap, 0, blocks[99]));
  EXPECT_EQ(zr::HeapSize(heap, 0, blocks[99]), static_cast<SIZE_T>(-1));
  ASSERT_TRUE(zr::GetHeapUsage(heap, &usage));
  EXPECT_EQ(usage.blocks, 0u);
  EXPECT_EQ(usage.bytes_in_use, 0u);
  // The block freed last comes back first, live again.
  void* again = zr::HeapAlloc(heap, 0, 16 + 8 * 99);
  EXPECT_EQ(again, blocks[99]);
  EXPECT_EQ(zr::HeapSize(heap, 0, again), 16u + 8 * 99);
  ASSERT_TRUE(zr::GetHeapUsage(heap, &usage));
  EXPECT_EQ(usage.blocks, 1u);
  EXPECT_TRUE(zr::HeapDestroy(heap));
}

TEST(PrivateHeap, DestroyedWhileAnotherThreadHoldsItsBlocks) {
  HANDLE heap = zr::HeapCreate(0, 0, 0);
  std::vector<void*> blocks;
  for (int i = 0; i < 40; ++i) blocks.push_back(zr::HeapAlloc(heap, 0, 24 + 40 * (i % 4)));
  std::promise<void> freed, destroyed;
  std::thread holder([&] {
    for (void* p : blocks) EXPECT_TRUE(zr::HeapFree(heap, 0, p));  // kept in this thread's cache
    freed.set_value();
    destroyed.get_future().wait();
    // The destroyed heap's blocks are forgotten, never handed out or given back; a new heap starts clean.
    for (int round = 0; round < 20; ++round) {
      HANDLE next = zr::HeapCreate(0, 0, 0);
      void* p = zr::HeapAlloc(next, 0, 24);
      EXPECT_NE(p, nullptr);
      zr::HeapUsage usage;
      ASSERT_TRUE(zr::GetHeapUsage(next, &usage));
      EXPECT_EQ(usage.blocks, 1u);
      EXPECT_TRUE(zr::HeapFree(next, 0, p));
      EXPECT_TRUE(zr::HeapDestroy(next));
    }
  });
  freed.get_future().wait();
  EXPECT_TRUE(zr::HeapDestroy(heap));
  destroyed.set_value();
  holder.join();  // ending the thread gives back nothing of the destroyed heap
}

TEST(CHeap, ConstructionNamesAndLazyCreation) {
  FakeSettings settings;
  DebugMode debug(1);
  zr::os::ScopedDiagCapture capture;
  {
    CHeap proc("@proc-logged", 0, 0, 0, 0);  // "@" and "PROC": the process heap, logging on
    EXPECT_EQ(proc.GetHeapFlags(), CHEAP_LOG);
    EXPECT_TRUE(Has(capture, 3, 5, "\rCHeap(proc-logged), Handle=" + Hex8(zr::GetProcessHeap()) + "\r\n"));
    void* p = proc.Alloc(10, 0, HERE);
    EXPECT_TRUE(Has(capture, 3, 8, "Heap proc-logged: Alloc " + Hex8(p) + "\r\n"));
    EXPECT_NE(proc.Free(p, 0), 0);
    EXPECT_TRUE(Has(capture, 3, 8, "Heap proc-logged: Free " + Hex8(p) + "\r\n"));
  }
  void* survivor = zr::HeapAlloc(zr::GetProcessHeap(), 0, 8);  // the process heap outlives its CHeaps
  EXPECT_NE(survivor, nullptr);
  zr::HeapFree(zr::GetProcessHeap(), 0, survivor);

  CHeap unnamed(nullptr, 0, 0, 0, 0);
  char name[40] = {};
  unnamed.GetHeapName(name, sizeof name);
  EXPECT_STREQ(name, "00000000");
  EXPECT_EQ(unnamed.Alloc(8, 0, HERE), nullptr);  // no private heap yet
  EXPECT_EQ(unnamed.SizeHeap(0, 0, 0), 0);
  void* p = unnamed.Alloc(8, 0, HERE);
  EXPECT_NE(p, nullptr);
  EXPECT_EQ(unnamed.SizeHeap(0, 0, 0), 0);
  unnamed.Free(p, 0);

  CHeap longer("A-name-that-is-longer-than-thirty-one-characters", 0, 0, 0, 1);
  std::memset(name, 'x', sizeof name);
  longer.GetHeapName(name, sizeof name);
  EXPECT_STREQ(name, "A-name-that-is-longer-than-thir");
  std::memset(name, 'x', sizeof name);
  longer.GetHeapName(name, 6);  // fills the six characters, adds no terminator
  EXPECT_EQ(std::string(name, 7), "A-namex");
  name[0] = '@';  // the "@" test looks at the caller's buffer
  longer.GetHeapName(name, 32);
  EXPECT_STREQ(name, "-name-that-is-longer-than-thir");
  EXPECT_EQ(longer.SetHeapFlags(0xFF), 1);
  EXPECT_EQ(longer.GetHeapFlags(), 15u);
}

TEST(CHeap, SettingsAreReadForHeapsAndForEachHeap) {
  FakeSettings settings;
  FakeSettings::values = {{"Heaps/HeapFlags", 8}, {"Configured/HeapFlags", 0x11}, {"Configured/Watch", 1}};
  CHeap heap("Configured", 0, 0, 0, 1);
  EXPECT_EQ(heap.GetHeapFlags(), (8u | 0x11u | CHEAP_WATCH) & 15u);
  EXPECT_EQ(FakeSettings::reads, (std::vector<std::string>{"Heaps/Watch 0 0", "Configured/Watch 0 0",
                                                            "Heaps/HeapFlags 0 0", "Configured/HeapFlags 0 0"}));
  FakeSettings::values = {{"Heaps/Watch", 1}};
  FakeSettings::reads.clear();
  CHeap all("Everyone", 0, 0, 0, 1);
  EXPECT_EQ(all.GetHeapFlags(), CHEAP_WATCH);
  EXPECT_EQ(FakeSettings::reads.size(), 3u);  // "Heaps" said yes: the heap's own section is not asked
}

TEST(CHeap, SettingsFromTheProfileFile) {
  ZROBJ_WriteProfileInt("ProfileWatched", "Watch", 1);
  ASSERT_EQ(ZROBJ_GetProfileInt("ProfileWatched", "Watch", 0, 0), 1);
  CHeap heap("ProfileWatched", 0, 0, 0, 1);
  EXPECT_TRUE(heap.GetHeapFlags() & CHEAP_WATCH);
  ZROBJ_WriteProfileInt("ProfileWatched", "Watch", 0);
}

TEST(CHeap, PlainBlocksCountsAndReallocation) {
  FakeSettings settings;
  CHeap heap("Plain", 0, 0, 0, 1);
  unsigned int items = 99;
  std::vector<unsigned char*> blocks;
  unsigned long expected_bytes = 0;
  for (unsigned long n : {0ul, 1ul, 16ul, 100ul, 4096ul, 70000ul}) {
    auto* p = static_cast<unsigned char*>(heap.Alloc(n, 0, HERE));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);
    EXPECT_EQ(Word(p - 4), n + 8);                   // size word
    EXPECT_EQ(Word(p + n), CHEAP_BLOCK_END);         // end signature right behind the data
    EXPECT_EQ(heap.AllocSize(p), n);
    EXPECT_EQ(heap.Verify(p), 1);
    expected_bytes += n + 8;
    blocks.push_back(p);
  }
  EXPECT_EQ(heap.GetHeapState(items), expected_bytes);
  EXPECT_EQ(items, 6u);
  EXPECT_EQ(heap.Verify(nullptr), 1);

  std::memcpy(blocks[3], "0123456789", 10);
  auto* grown = static_cast<unsigned char*>(heap.Realloc(blocks[3], 9000, 0, HERE));
  ASSERT_NE(grown, nullptr);
  EXPECT_EQ(std::memcmp(grown, "0123456789", 10), 0);
  EXPECT_EQ(heap.AllocSize(grown), 9000u);
  EXPECT_EQ(Word(grown + 9000), CHEAP_BLOCK_END);
  EXPECT_EQ(heap.Realloc(grown, 200000, zr::HEAP_REALLOC_IN_PLACE_ONLY, HERE), nullptr);  // cannot grow in place
  EXPECT_EQ(heap.Verify(grown), 1);
  blocks[3] = grown;
  heap.GetHeapState(items);
  EXPECT_EQ(items, 6u);
  void* fresh = heap.Realloc(nullptr, 24, zr::HEAP_REALLOC_IN_PLACE_ONLY, HERE);  // null: a new block
  ASSERT_NE(fresh, nullptr);
  blocks.push_back(static_cast<unsigned char*>(fresh));
  for (auto* p : blocks) EXPECT_NE(heap.Free(p, 0), 0);
  EXPECT_EQ(heap.GetHeapState(items), 0u);
  EXPECT_EQ(items, 0u);
}

TEST(CHeap, CorruptionIsReportedAndNeverReleased) {
  FakeSettings settings;
  DebugMode debug(1);
  auto heap = std::make_unique<CHeap>("Damaged", 0, 0, 0, 1);
  CHeap other("Elsewhere", 0, 0, 0, 1);
  zr::os::ScopedDiagCapture capture;
  const std::string end_broken = "\rHeap Damaged: Free: BlockEnd overwritten or already freed.\r\n";
  const std::string corruption = "\r\nWarning: Heap corruption!\r\n";

  // Freeing twice: the second Free finds the guards cleared, returns 0 and still counts.
  void* twice = heap->Alloc(32, 0, HERE);
  EXPECT_NE(heap->Free(twice, 0), 0);
  EXPECT_EQ(heap->Free(twice, 0), 0);
  EXPECT_TRUE(Has(capture, 0, 3, end_broken));
  EXPECT_TRUE(Has(capture, 0, 3, corruption));
  unsigned int items = 0;
  heap->GetHeapState(items);
  EXPECT_EQ(static_cast<int>(items), -1);

  capture.Clear();
  EXPECT_EQ(heap->Free(nullptr, 0), 0);
  EXPECT_TRUE(Has(capture, 0, 3, "\rHeap Damaged: Free: BlockStart overwritten.\r\n"));
  EXPECT_EQ(heap->Free(reinterpret_cast<void*>(0x10), 0), 0);

  // An overwritten end: reported by Verify, Realloc and Free, and the block stays allocated.
  capture.Clear();
  auto* over = static_cast<unsigned char*>(heap->Alloc(24, 0, HERE));
  over[24] = 0;
  EXPECT_EQ(heap->Verify(over), 0);
  EXPECT_TRUE(Has(capture, 0, 3, "\r\nWarning: \rCHeap Damaged:Verify failed (block start or end overwritten)\r\n\r\n"));
  EXPECT_EQ(heap->Realloc(over, 100, 0, HERE), nullptr);
  EXPECT_TRUE(Has(capture, 0, 3, "\rHeap Damaged: Realloc: BlockEnd overwritten.\r\n"));
  EXPECT_EQ(heap->Free(over, 0), 0);
  EXPECT_TRUE(Has(capture, 0, 3, end_broken));
  EXPECT_EQ(heap->AllocSize(over), 24u);  // still a live block of the private heap

  // An overwritten size word.
  auto* start = static_cast<unsigned char*>(heap->Alloc(24, 0, HERE));
  SetWord(start - 4, 3);
  capture.Clear();
  EXPECT_EQ(heap->Free(start, 0), 0);
  EXPECT_TRUE(Has(capture, 0, 3, end_broken));

  // A foreign block with intact-looking guards is not released and not written to.
  alignas(16) unsigned char foreign[64] = {};
  SetWord(foreign + 12, 8 + 16);
  SetWord(foreign + 32, CHEAP_BLOCK_END);
  capture.Clear();
  EXPECT_EQ(heap->Free(foreign + 16, 0), 0);
  EXPECT_EQ(Word(foreign + 12), 24u);
  EXPECT_EQ(Word(foreign + 32), CHEAP_BLOCK_END);
  EXPECT_TRUE(capture.Entries().empty());
  void* theirs = other.Alloc(16, 0, HERE);
  EXPECT_EQ(heap->Free(theirs, 0), 0);
  EXPECT_EQ(other.Verify(theirs), 1);
  EXPECT_NE(other.Free(theirs, 0), 0);

  // Destruction reports what is left (counts include the blocks that could not be released).
  capture.Clear();
  const unsigned long bytes = heap->GetHeapState(items);
  heap.reset();
  EXPECT_TRUE(Has(capture, 0, 9, zr::os::FormatNarrow("Heap Damaged: %i items (%u bytes) not freed\r\n", items, bytes)));
  EXPECT_TRUE(Has(capture, 0, 9, "\rMessage Beep: src/zrobj/cosobj, line 543\r\n"));
}

TEST(CHeap, AllocationFailures) {
  FakeSettings settings;
  zr::os::ScopedDiagCapture capture;
  CHeap raising("Raising", 0x1000, 0, zr::HEAP_GENERATE_EXCEPTIONS, 0);
  EXPECT_EQ(raising.Alloc(0x2000, 0, HERE), nullptr);
  const std::string handle = capture.Text().substr(capture.Text().find("hHeap=") + 6, 8);
  EXPECT_TRUE(Has(capture, 0, 0, "\rHeapAlloc(" + handle + ",00000000,8212) failed \r\n"));
  EXPECT_TRUE(Has(capture, 0, 0, "\rFAILED: HeapAlloc(Raising,hHeap=" + handle + ")\r\n"));
  capture.Clear();
  CHeap quiet("Quiet", 0x1000, 0, 0, 0);
  EXPECT_EQ(quiet.Alloc(0x2000, 0, HERE), nullptr);
  ASSERT_EQ(capture.Entries().size(), 1u);
  EXPECT_EQ(capture.Text().rfind("\rFAILED: HeapAlloc(Quiet,hHeap=", 0), 0u);
  EXPECT_EQ(quiet.Alloc(0xFFFFFFF0ul, 0, HERE), nullptr);  // size words stay 32-bit
}

TEST(CHeap, WatchModeRecordsTracesAndDumps) {
  zrtest::ScopedQuietBeep quiet_beep;
  FakeSettings settings;
  FakeSettings::values = {{"Watched/Watch", 1}, {"Neighbour/Watch", 1}};
  DebugMode debug(1);
  zr::os::ScopedDiagCapture capture;
  const bool first_watch_heap = zr::GetWatchHeap() == nullptr;
  auto heap = std::make_unique<CHeap>("Watched", 0, 0, 0, 1);
  EXPECT_EQ(Has(capture, 3, 5, "\rCHeap Watched: hWatchHeap = hWatchHeap\r\n"), first_watch_heap);
  ASSERT_NE(zr::GetWatchHeap(), nullptr);
  ASSERT_EQ(heap->GetHeapFlags(), CHEAP_WATCH);

  const int line = __LINE__ + 1;
  auto* p = static_cast<unsigned char*>(heap->Alloc(16, 0, __FILE__, line, 0));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 16, 0u);
  const auto* record = reinterpret_cast<const tagWATCHINFO*>(p - CHEAP_WATCH_LEAD);
  EXPECT_EQ(record->dwSignature, CHEAP_WATCH_SIGNATURE);
  EXPECT_EQ(record->dwSize, 24u);
  EXPECT_EQ(Word(p + 16), CHEAP_BLOCK_END);
  void* empty = heap->Alloc(0, 0, nullptr, 0, reinterpret_cast<unsigned long>(&Word));
  EXPECT_EQ(heap->AllocSize(empty), 0u);
  EXPECT_EQ(heap->AllocSize(p), 16u);

  capture.Clear();
  heap->Dump(0);  // the summary line only
  EXPECT_EQ(capture.Text(), "\rDump [Watched]: 2 items not freed, 0 kB\r\n");
  capture.Clear();
  heap->Dump(1);
  const std::string dump = capture.Text();
  // Newest first; the call site is the trace's last segment, indented two blanks per segment.
  EXPECT_EQ(dump.rfind("\rDump [Watched]: 2 items not freed, 0 kB\r", 0), 0u);
  const std::string site = "cheap_test.cpp|line " + std::to_string(line);
  const std::size_t at = dump.find(site + "{24 bytes @ " + hex8(p) + "}\r\n");
  ASSERT_NE(at, std::string::npos) << dump;
  // The segment before it is the frame in CHeap::Alloc, indented one step less.
  const std::size_t site_start = dump.rfind('\r', at);
  const std::size_t indent = at - site_start - 1;
  EXPECT_TRUE(indent >= 2 && indent % 2 == 0) << dump;
  const std::string alloc_frame = "\r" + std::string(indent - 2, ' ') + "libzrobju.so.1|CHeap::Alloc+";
  EXPECT_EQ(dump.rfind(alloc_frame, site_start), dump.rfind('\r', site_start - 1)) << dump;
  EXPECT_LT(dump.find("{8 bytes @ " + hex8(static_cast<char*>(empty)) + "}"), at);
  EXPECT_EQ(dump.substr(dump.size() - 2), "\r\n");

  // A reallocation moves the record and traces the new call site.
  const int realloc_line = __LINE__ + 1;
  auto* moved = static_cast<unsigned char*>(heap->Realloc(p, 5000, 0, __FILE__, realloc_line, 0));
  ASSERT_NE(moved, nullptr);
  capture.Clear();
  heap->Dump(1);
  EXPECT_NE(capture.Text().find("line " + std::to_string(realloc_line) + "{5008 bytes @ " + hex8(moved)), std::string::npos);
  EXPECT_EQ(capture.Text().find(site), std::string::npos);
  EXPECT_NE(heap->Free(empty, 0), 0);

  // A broken end with a good record: reported, its entry dumped, not released, still listed.
  moved[5000] = 'X';
  capture.Clear();
  EXPECT_EQ(heap->Free(moved, 0), 0);
  EXPECT_TRUE(Has(capture, 0, 3, "\rHeap Watched: Free: BlockEnd overwritten or already freed.\r\n"));
  EXPECT_FALSE(Has(capture, 0, 3, "\r\nWarning: Heap corruption!\r\n"));  // no warning in watch mode
  EXPECT_NE(capture.Text().find("{5008 bytes @ " + hex8(moved) + "}\r\n"), std::string::npos);
  // ... yet Realloc goes by the record's signature alone and reallocates it.
  moved = static_cast<unsigned char*>(heap->Realloc(moved, 64, 0, HERE));
  ASSERT_NE(moved, nullptr);
  EXPECT_EQ(heap->Verify(moved), 1);

  // A wrong signature.
  auto* unsigned_block = static_cast<unsigned char*>(heap->Alloc(8, 0, HERE));
  unsigned_block[-static_cast<int>(CHEAP_WATCH_LEAD)] ^= 0xFF;
  capture.Clear();
  EXPECT_EQ(heap->Realloc(unsigned_block, 16, 0, HERE), nullptr);
  EXPECT_TRUE(Has(capture, 0, 3, "Heap Watched: Realloc invalid watch signature\r\n"));
  EXPECT_EQ(heap->Free(unsigned_block, 0), 0);
  EXPECT_TRUE(Has(capture, 0, 1, "\rHeap Watched::Free: Invalid signature\r\n"));
  capture.Clear();
  heap->Dump(1);  // the newest record is damaged: the walk ends there
  EXPECT_NE(capture.Text().find("\rHeap Watched: Block damaged (overwrite)\r\n"), std::string::npos);
  unsigned_block[-static_cast<int>(CHEAP_WATCH_LEAD)] ^= 0xFF;

  // A record of another heap: Free refuses it, Realloc warns and (here) cannot move it.
  CHeap neighbour("Neighbour", 0, 0, 0, 1);
  void* theirs = neighbour.Alloc(8, 0, HERE);
  capture.Clear();
  EXPECT_EQ(heap->Free(theirs, 0), 0);
  EXPECT_TRUE(Has(capture, 0, 1, "\rHeap Watched::Free: WATCHINFO bad\r\n"));
  EXPECT_TRUE(Has(capture, 0, 3, "\r\nWarning: WRONG HEAP HANDLE\r\n"));
  capture.Clear();
  EXPECT_EQ(heap->Realloc(theirs, 16, 0, HERE), nullptr);
  EXPECT_TRUE(Has(capture, 0, 3, "\r\nWarning: WRONG HEAP HANDLE\r\n"));
  EXPECT_FALSE(Has(capture, 0, 3, "Heap Watched: Realloc invalid watch signature\r\n"));
  EXPECT_NE(neighbour.Free(theirs, 0), 0);

  // Destruction: the leak line, the beep, then the dump of what is still listed.
  capture.Clear();
  heap.reset();
  const std::string text = capture.Text();
  EXPECT_EQ(text.find("Heap Watched: "), 0u) << text;
  EXPECT_NE(text.find("\rMessage Beep: src/zrobj/cosobj, line 543\r\n\rDump [Watched]: "), std::string::npos) << text;
  EXPECT_NE(text.find("{16 bytes @ " + hex8(unsigned_block) + "}\r\n"), std::string::npos);
  EXPECT_NE(text.find("{72 bytes @ " + hex8(moved) + "}\r\n"), std::string::npos);
}

TEST(CHeap, DamagedWatchListEndsTheDump) {
  FakeSettings settings;
  FakeSettings::values = {{"Looped/Watch", 1}};
  DebugMode debug(1);
  CHeap heap("Looped", 0, 0, 0, 1);
  auto* older = static_cast<unsigned char*>(heap.Alloc(8, 0, HERE));
  auto* newer = static_cast<unsigned char*>(heap.Alloc(8, 0, HERE));
  auto* record = reinterpret_cast<tagWATCHINFO*>(older - CHEAP_WATCH_LEAD);
  ASSERT_EQ(record->pNewer, reinterpret_cast<tagWATCHINFO*>(newer - CHEAP_WATCH_LEAD));
  record->pOlder = record->pNewer;  // the list now loops
  zr::os::ScopedDiagCapture capture;
  heap.Dump(1);
  const std::string text = capture.Text();
  EXPECT_NE(text.find("\rHeap Looped: Heap corrupted...\r\n"), std::string::npos) << text;
  record->pOlder = nullptr;
  EXPECT_NE(heap.Free(newer, 0), 0);
  EXPECT_NE(heap.Free(older, 0), 0);
}

TEST(CHeap, FreeTraceAndLoggingNeedDebugOutput) {
  FakeSettings settings;
  CHeap heap("@Traced", 0, 0, 0, 1);
  heap.SetHeapFlags(CHEAP_LOG | CHEAP_FREE_TRACE);
  zr::os::ScopedDiagCapture capture;
  {
    DebugMode off(0);
    heap.Free(heap.Alloc(4, 0, HERE), 0);
    EXPECT_EQ(capture.Text().find("Heap"), std::string::npos);
  }
  DebugMode on(1);
  void* p = heap.Alloc(4, 0, HERE);
  capture.Clear();
  heap.Free(p, 0);
  EXPECT_TRUE(Has(capture, 3, 8, "Heap(Traced)::Free Trace " + Hex8(p) + "\r\n"));
  EXPECT_NE(capture.Text().find("  [0] "), std::string::npos);  // the caller's stack
}

TEST(CHeap, RegistryListsUpTo256AndStoresWatchConfig) {
  FakeSettings settings;
  EXPECT_EQ(CHeap::GetHeapList(nullptr, 10), 0);
  CHeap* library = zr::GetLibraryHeap("mempool");
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(library, zr::GetLibraryHeap("MemPool"));
  EXPECT_EQ(zr::GetLibraryHeap("NoSuchHeap"), nullptr);
  for (const char* name : {"CSHeap", "ThreadHeap", "MailMessage", "MailItemQueue", "CPVItemPool", "CPHItemPool",
                           "PropertyPool", "DIBPool", "CZRRTObjectHeap", "PrjHeap"})
    EXPECT_NE(zr::GetLibraryHeap(name), nullptr) << name;

  std::vector<CHeap*> list(300);
  const int before = CHeap::GetHeapList(list.data(), 300);
  std::vector<std::unique_ptr<CHeap>> heaps;
  for (int i = before; i < 256; ++i) heaps.push_back(std::make_unique<CHeap>(("R" + std::to_string(i)).c_str(), 0, 0, 0, 0));
  CHeap extra("Unlisted", 0, 0, 0, 0);
  EXPECT_EQ(CHeap::GetHeapList(list.data(), 300), 256);
  EXPECT_EQ(list[255], heaps.back().get());
  for (int i = 0; i < 256; ++i) EXPECT_NE(list[i], &extra);
  EXPECT_EQ(extra.SizeHeap(0, 0, 0), 0);  // the 257th heap works all the same
  EXPECT_NE(extra.Free(extra.Alloc(8, 0, HERE), 0), 0);

  heaps[0]->SetHeapFlags(CHEAP_WATCH_NEXT);
  EXPECT_EQ(CHeap::StoreWatchConfig(), 1);
  EXPECT_EQ(FakeSettings::writes.size(), 256u);  // one per listed heap, none for "Heaps"
  EXPECT_EQ(FakeSettings::writes[before], "R" + std::to_string(before) + "/Watch=1");
  EXPECT_EQ(FakeSettings::writes[before + 1], "R" + std::to_string(before + 1) + "/Watch=0");
  for (const auto& w : FakeSettings::writes) EXPECT_EQ(w.find("Unlisted"), std::string::npos);
  heaps[0]->SetHeapFlags(0);
  FakeSettings::writes.clear();
  CHeap::StoreWatchConfig();
  EXPECT_EQ(FakeSettings::writes.back(), "Heaps/Watch=0");

  // Removing one keeps the order of the others.
  CHeap* third = heaps[2].get();
  heaps.erase(heaps.begin() + 1);
  CHeap::GetHeapList(list.data(), 300);
  EXPECT_EQ(list[before + 1], third);
}

// Storing the watch configuration writes each setting outside the registry lock: a settings writer
// that allocates from a watched heap (which interns names under that lock) goes through.
CHeap* g_watched = nullptr;
int AllocatingWrite(const char* section, const char* key, int value) {
  g_watched->Free(g_watched->Alloc(16, 0, HERE), 0);
  return FakeSettings::Write(section, key, value);
}

TEST(CHeap, StoreWatchConfigWritesOutsideTheRegistryLock) {
  FakeSettings settings;
  FakeSettings::values = {{"WatchedWriter/Watch", 1}};
  CHeap watched("WatchedWriter", 0, 0, 0, 1);
  ASSERT_TRUE(watched.GetHeapFlags() & CHEAP_WATCH);
  g_watched = &watched;
  zr::SetHeapSettings({&FakeSettings::Get, &AllocatingWrite});
  auto stored = std::async(std::launch::async, [] { return CHeap::StoreWatchConfig(); });
  if (stored.wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    std::fprintf(stderr, "CHeap::StoreWatchConfig deadlocked\n");
    std::_Exit(1);  // the stuck thread holds the registry lock: nothing after this could run
  }
  EXPECT_EQ(stored.get(), 1);
  EXPECT_NE(std::find(FakeSettings::writes.begin(), FakeSettings::writes.end(), "WatchedWriter/Watch=0"),
            FakeSettings::writes.end());
  unsigned int items = 99;
  watched.GetHeapState(items);
  EXPECT_EQ(items, 0u);
}

TEST(CHeap, CountsStayExactWhenOtherThreadsFree) {
  FakeSettings settings;
  zrtest::ScopedQuietBeep quiet_beep;
  zr::os::ScopedDiagCapture capture;
  const std::uint32_t allocs = zr::GetHeapCounter(zr::HeapCounter::kAlloc);
  const std::uint32_t frees = zr::GetHeapCounter(zr::HeapCounter::kFree);
  {
    CHeap heap("Handed", 0, 0, 0, 1);
    std::vector<void*> blocks;
    for (int i = 0; i < 300; ++i) blocks.push_back(heap.Alloc(static_cast<unsigned long>(8 + i % 200), 0, HERE));
    unsigned int items = 0;
    EXPECT_GT(heap.GetHeapState(items), 300u * 8);
    EXPECT_EQ(items, 300u);
    // Blocks allocated here are freed by a thread that ends before the counts are read, and one
    // thread frees what the other allocated while both run.
    std::thread([&] {
      for (int i = 0; i < 150; ++i) EXPECT_NE(heap.Free(blocks[i], 0), 0);
    }).join();
    heap.GetHeapState(items);
    EXPECT_EQ(items, 150u);
    std::promise<std::vector<void*>> handed;
    std::thread taker([&] {
      for (void* p : handed.get_future().get()) EXPECT_NE(heap.Free(p, 0), 0);
    });
    std::vector<void*> rest;
    for (int i = 150; i < 300; ++i) rest.push_back(blocks[i]);
    for (int i = 0; i < 100; ++i) rest.push_back(heap.Alloc(64, 0, HERE));
    handed.set_value(rest);
    taker.join();
    EXPECT_EQ(heap.GetHeapState(items), 0u);
    EXPECT_EQ(items, 0u);
  }
  EXPECT_EQ(capture.Text().find("not freed"), std::string::npos);  // no leak report either
  EXPECT_GE(zr::GetHeapCounter(zr::HeapCounter::kAlloc) - allocs, 400u);
  EXPECT_GE(zr::GetHeapCounter(zr::HeapCounter::kFree) - frees, 400u);
}

// Prints through a sink that allocates from the heap being dumped, as a sink may.
class AllocatingSink : public zr::os::DiagSink {
 public:
  explicit AllocatingSink(CHeap& heap) : heap_(heap), previous_(zr::os::SetDiagSink(this)) {}
  ~AllocatingSink() override { zr::os::SetDiagSink(previous_); }
  void Write(unsigned, unsigned, std::u16string_view text) override {
    void* note = heap_.Alloc(static_cast<unsigned long>(text.size()), 0, HERE);
    if (note) heap_.Free(note, 0);
    ++writes;
  }
  int writes = 0;

 private:
  CHeap& heap_;
  zr::os::DiagSink* previous_;
};

TEST(CHeap, DumpOutputMayUseTheHeapBeingDumped) {
  FakeSettings settings;
  FakeSettings::values = {{"Reentered/Watch", 1}};
  zrtest::ScopedQuietBeep quiet_beep;
  CHeap heap("Reentered", 0, 0, 0, 1);
  ASSERT_EQ(heap.GetHeapFlags(), CHEAP_WATCH);
  void* kept = heap.Alloc(40, 0, HERE);
  {
    AllocatingSink sink(heap);
    heap.Dump(1);  // the watch list's lock is held while the sink allocates and frees
    EXPECT_GT(sink.writes, 2);
  }
  unsigned int items = 0;
  EXPECT_EQ(heap.GetHeapState(items), 48u);
  EXPECT_EQ(items, 1u);
  EXPECT_NE(heap.Free(kept, 0), 0);
}

TEST(CHeap, TwoThreadsOnOneHeap) {
  FakeSettings settings;
  CHeap heap("Shared", 0, 0, 0, 1);
  auto work = [&heap](int seed) {
    std::vector<unsigned char*> live;
    for (int i = 0; i < 20000; ++i) {
      const unsigned long n = static_cast<unsigned long>((seed * 7919 + i * 31) % 600);
      auto* p = static_cast<unsigned char*>(heap.Alloc(n, 0, HERE));
      if (!p) return false;
      std::memset(p, seed, n);
      live.push_back(p);
      if (live.size() > 64) {
        if (heap.Verify(live.front()) != 1 || heap.Free(live.front(), 0) == 0) return false;
        live.erase(live.begin());
      }
    }
    for (auto* p : live)
      if (heap.Free(p, 0) == 0) return false;
    return true;
  };
  bool ok_a = false, ok_b = false;
  std::thread a([&] { ok_a = work(1); });
  std::thread b([&] { ok_b = work(2); });
  a.join();
  b.join();
  EXPECT_TRUE(ok_a);
  EXPECT_TRUE(ok_b);
  unsigned int items = 1;
  EXPECT_EQ(heap.GetHeapState(items), 0u);
  EXPECT_EQ(items, 0u);
}

// A sink that appends every message to a file as it comes, for output written while the process
// ends (static destructors run after every scoped capture is gone).
class FileSink : public zr::os::DiagSink {
 public:
  explicit FileSink(const std::string& path) : file_(std::fopen(path.c_str(), "wb")) {}
  void Write(unsigned, unsigned, std::u16string_view text) override {
    if (!file_) return;
    const std::string utf8 = zr::os::Utf16ToUtf8(std::u16string(text));
    std::fwrite(utf8.data(), 1, utf8.size(), file_);
    std::fflush(file_);
  }

 private:
  std::FILE* file_;
};

// What the library prints while a process with `debug` output ends normally.
std::string OutputAtExit(DWORD debug, const std::string& path) {
  const auto result = zrtest::RunChild([&] {
    alignas(FileSink) static unsigned char storage[sizeof(FileSink)];  // outlives every destructor
    zr::os::DiagFilter all = zr::os::GetDiagFilter();
    all.channel_mask = 0xFFFFFFFFu;
    all.max_level = 0xFFFFFFFFu;
    zr::os::SetDiagFilter(all);
    zr::os::SetDiagSink(new (storage) FileSink(path));
    SetDebugMode(debug);
    std::exit(0);
    return 0;
  });
  EXPECT_TRUE(result.exited && result.exit_code == 0) << result.exit_code << " " << result.signal;
  return zrtest::ReadFile(path);
}

// The performance counters are dumped when the library unloads; only their heading needs debug output.
TEST(CHeap, PerformanceCountersAtUnload) {
  zrtest::TempDir dir;
  for (const DWORD debug : {DWORD{0}, DWORD{1}}) {
    SCOPED_TRACE(debug);
    const std::string text = OutputAtExit(debug, dir.File("exit" + std::to_string(debug) + ".txt"));
    EXPECT_EQ(text.find("\rHeap::Performance\r\n") != std::string::npos, debug != 0);
    std::size_t at = 0;
    for (const char* name : {"Alloc", "Realloc", "Free", "FAlloc", "FFree"}) {
      at = text.find("\r" + std::string(name) + ": ", at);
      ASSERT_NE(at, std::string::npos) << name;
    }
  }
}

}  // namespace
