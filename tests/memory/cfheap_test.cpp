// The fixed-block heap CFHeap: sizing, slot reuse, the block order, the delayed release (with an
// injected clock), misuse reports, dumps, the registry, leak reports and two threads on one pool.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/diag_capture.h"
#include "test_support.h"
#include "platform/wformat.h"
#include "zrobj/cfheap.h"
#include "zrobj/zrdiag.h"

namespace {

using zrtest::DebugMode;

// Time that moves only when the test says so.
struct FakeClock {
  FakeClock() { previous = zr::os::SetTickSource(&Now); }
  ~FakeClock() { zr::os::SetTickSource(previous); }
  static std::uint32_t Now() { return now; }
  static inline std::uint32_t now = 1000;
  zr::os::TickSource previous;
};

CFHeap::State StateOf(CFHeap& pool) {
  CFHeap::State s;
  pool.GetState(&s);
  return s;
}

TEST(CFHeap, SizingFollowsTheBlockRule) {
  CFHeap* library = zr::GetLibraryPool("PropHeap64");
  ASSERT_NE(library, nullptr);
  EXPECT_EQ(library->GetItemSize(), 72u);
  EXPECT_EQ(zr::GetLibraryPool("cpvitempool0"), zr::GetLibraryPool("CPVItemPool0"));
  EXPECT_EQ(zr::GetLibraryPool("NoSuchPool"), nullptr);
  EXPECT_EQ(StateOf(*library).blockSize, 0x10000u);
  EXPECT_EQ(StateOf(*library).slotsPerBlock, (0x10000u - 24) / 72);

  // 64-byte slots, 1024 per block: exactly 64 KiB, so the block is 128 KiB.
  CFHeap exact("Exact", 56, 1024, 0);
  EXPECT_EQ(StateOf(exact).blockSize, 0x20000u);
  EXPECT_EQ(StateOf(exact).slotsPerBlock, (0x20000u - 24) / 64);
  zr::os::ScopedDiagCapture capture;
  void* item = exact.Alloc();
  exact.Dump();
  EXPECT_EQ(capture.Text(), "\rCFHeap [Exact] Dump: 1 items(0kB), 2046 items free (127kB), Total 128 kB allocated\r\n");
  exact.Free(item);

  CFHeap unnamed(nullptr, 8, 1, 0);
  EXPECT_EQ(std::string(unnamed.GetName()), zr::os::FormatNarrow("Heap %08x", reinterpret_cast<std::uintptr_t>(&unnamed)));
}

TEST(CFHeap, SlotsAreReusedMostUsefulBlockFirst) {
  CFHeap pool("Reuse", 76, 16, 0);  // 84-byte slots: items still 8-byte aligned
  const unsigned int per_block = StateOf(pool).slotsPerBlock;
  std::vector<void*> a;  // fills the first block
  for (unsigned int i = 0; i < per_block; ++i) {
    auto* p = static_cast<unsigned char*>(pool.Alloc());
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 8, 0u);
    std::memset(p, 0xA5, 76);
    a.push_back(p);
  }
  EXPECT_EQ(StateOf(pool).blocks, 1u);
  std::vector<void*> b = {pool.Alloc()};  // a second block, now in front
  EXPECT_EQ(StateOf(pool).blocks, 2u);
  pool.Free(a[5]);                        // the front block has room: the first block stays behind
  b.push_back(pool.Alloc());
  EXPECT_NE(b.back(), a[5]);
  while (b.size() < per_block) b.push_back(pool.Alloc());
  EXPECT_EQ(pool.Alloc(), a[5]);          // found further down with one free slot: reused, not moved
  pool.Free(a[6]);                        // the front block is full: this one moves to the front
  pool.Free(a[7]);
  EXPECT_EQ(pool.Alloc(), a[7]);          // last freed, first reused
  EXPECT_EQ(pool.Alloc(), a[6]);
  EXPECT_EQ(StateOf(pool).blocks, 2u);
  for (void* p : a) pool.Free(p);
  for (void* p : b) pool.Free(p);
  EXPECT_EQ(StateOf(pool).items, 0u);
  EXPECT_EQ(StateOf(pool).freeBlocks, 2u);
}

TEST(CFHeap, MisuseIsReportedAndChangesNothing) {
  DebugMode debug(1);
  CFHeap pool("Misused", 64, 64, 0);
  CFHeap other("Other", 64, 64, 0);
  zr::os::ScopedDiagCapture capture;
  const std::string unallocated = "\rCFHeap(Misused)::Free: Attempt to free unallocated pointer\r\n";
  const std::string not_ours = "\rCFHeap(Misused)::Free: Pointer not marked to belong to this heap (potential overwrite)\r\n";
  auto has = [&](const std::string& text) {
    for (const auto& e : capture.Entries())
      if (e.channel == 3 && e.level == 5 && zr::os::Utf16ToUtf8(e.text) == text) return true;
    return false;
  };
  void* kept = pool.Alloc();
  void* item = pool.Alloc();
  pool.Free(item);
  const CFHeap::State before = StateOf(pool);
  pool.Free(item);  // twice
  EXPECT_TRUE(has(unallocated));
  EXPECT_EQ(StateOf(pool).items, before.items);
  EXPECT_EQ(StateOf(pool).freeItems, before.freeItems);
  EXPECT_EQ(pool.Alloc(), item);  // the free list is intact
  void* another = pool.Alloc();
  EXPECT_NE(another, item);
  pool.Free(item);
  pool.Free(another);

  capture.Clear();
  pool.Free(nullptr);
  EXPECT_TRUE(has(unallocated));
  void* theirs = other.Alloc();
  pool.Free(theirs);
  EXPECT_TRUE(has(not_ours));
  EXPECT_EQ(StateOf(other).items, 1u);
  other.Free(theirs);
  EXPECT_EQ(StateOf(other).items, 0u);

  // An overwritten slot header, and a look-alike outside any pool.
  capture.Clear();
  auto* words = static_cast<DWORD*>(kept) - 2;
  const DWORD offset = words[0];
  words[0] = 0x12345;
  pool.Free(kept);
  EXPECT_TRUE(has(not_ours));
  words[0] = offset;
  alignas(8) DWORD fake[6] = {0, CFHEAP_ALLOCATED, 0, 0, 0, 0};
  capture.Clear();
  pool.Free(&fake[2]);
  EXPECT_TRUE(has(not_ours));

  // Inside the front block but not a slot (its header), and a block header naming another pool.
  auto* block = reinterpret_cast<tagFHEAPBLOCK*>(reinterpret_cast<char*>(words) - sizeof(tagFHEAPBLOCK));
  ASSERT_EQ(block->pHeap, &pool);
  capture.Clear();
  pool.Free(reinterpret_cast<char*>(block) + 8);
  EXPECT_TRUE(has(unallocated));
  capture.Clear();
  block->pHeap = &other;
  pool.Free(kept);
  EXPECT_TRUE(has(not_ours));
  block->pHeap = &pool;
  EXPECT_EQ(StateOf(pool).items, 1u);
  pool.Free(kept);
  {
    DebugMode off(0);
    capture.Clear();
    pool.Free(kept);
    EXPECT_TRUE(capture.Entries().empty());
  }
}

TEST(CFHeap, WhollyFreeBlocksAreReleasedOnlyAfterTwoMinutes) {
  FakeClock clock;
  FakeClock::now = 1000;
  CFHeap pool("Idle", 1000, 16, 1);  // keeps one free block
  const unsigned int per_block = StateOf(pool).slotsPerBlock;
  std::vector<void*> items;
  for (unsigned int i = 0; i < 3 * per_block; ++i) items.push_back(pool.Alloc());
  ASSERT_EQ(StateOf(pool).blocks, 3u);
  auto free_block = [&](int k) {
    for (unsigned int i = 0; i < per_block; ++i) pool.Free(items[k * per_block + i]);
  };
  free_block(0);
  EXPECT_EQ(StateOf(pool).freeBlocks, 1u);
  EXPECT_EQ(StateOf(pool).oldestFree, 1000u);
  FakeClock::now = 121000;  // exactly two minutes: not yet
  free_block(1);
  EXPECT_EQ(StateOf(pool).blocks, 3u);
  EXPECT_EQ(StateOf(pool).freeBlocks, 2u);
  FakeClock::now = 121001;  // the first block has waited long enough; the others have not
  free_block(2);
  EXPECT_EQ(StateOf(pool).blocks, 2u);
  EXPECT_EQ(StateOf(pool).freeBlocks, 2u);
  EXPECT_EQ(StateOf(pool).oldestFree, 121000u);
  FakeClock::now = 241001;  // the next wholly free block releases one more, down to the minimum
  pool.Free(pool.Alloc());
  EXPECT_EQ(StateOf(pool).blocks, 1u);
  EXPECT_EQ(StateOf(pool).freeBlocks, 1u);
  EXPECT_EQ(StateOf(pool).oldestFree, 241001u);
  FakeClock::now = 10000000;
  pool.Free(pool.Alloc());
  EXPECT_EQ(StateOf(pool).blocks, 1u);  // never below the minimum
}

TEST(CFHeap, DestructionReportsItemsNotFreed) {
  zrtest::ScopedQuietBeep quiet_beep;
  zr::os::ScopedDiagCapture capture;
  {
    CFHeap clean("Clean", 64, 64, 0);
    clean.Free(clean.Alloc());
  }
  EXPECT_TRUE(capture.Entries().empty());
  {
    CFHeap pool("Leaky", 64, 64, 0);
    pool.Alloc();
    pool.Alloc();
    pool.Free(pool.Alloc());
  }
  const auto entries = capture.Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(zr::os::Utf16ToUtf8(entries[0].text), "CFHeap(Leaky)::~CFHeap: 2 items (144 bytes) not freed\r\n");
  EXPECT_EQ(entries[0].channel * 10 + entries[0].level, 9u);
  EXPECT_EQ(zr::os::Utf16ToUtf8(entries[1].text), "\rMessage Beep: src/zrobj/cosobj, line 1411\r\n");
}

TEST(CFHeap, DumpHeapsStopsAtTheFirstMatch) {
  CFHeap first("DumpFirst", 8, 1, 0), second("DumpSecond", 8, 1, 0), third("DumpThird", 8, 1, 0);
  std::vector<CFHeap*> list(256);
  const int n = CFHeap::GetHeapList(list.data(), 256);
  ASSERT_GE(n, 17);
  EXPECT_EQ(list[n - 3], &first);
  EXPECT_EQ(list[n - 1], &third);
  zr::os::ScopedDiagCapture capture;
  CFHeap::DumpHeaps("dumpsecond");  // the pools before the match are dumped too
  std::string text = capture.Text();
  EXPECT_NE(text.find("\rCFHeap [PropHeap64] Dump: "), std::string::npos);
  EXPECT_NE(text.find("\rCFHeap [DumpFirst] Dump: "), std::string::npos);
  const std::string last = "\rCFHeap [DumpSecond] Dump: 0 items(0kB), 0 items free (0kB), Total 0 kB allocated\r\n";
  EXPECT_EQ(text.rfind(last), text.size() - last.size());
  EXPECT_EQ(text.find("DumpThird"), std::string::npos);
  EXPECT_EQ(capture.Entries().size(), static_cast<std::size_t>(n - 1));
  for (const char* name : {static_cast<const char*>(nullptr), "NoSuchPool"}) {
    capture.Clear();
    CFHeap::DumpHeaps(name);
    EXPECT_EQ(capture.Entries().size(), static_cast<std::size_t>(n));
  }
}

TEST(CFHeap, UnableToAllocateAnotherBlock) {
  DebugMode debug(1);
  CFHeap huge("Huge", 0x7FFFFFF0, 16, 0);
  zr::os::ScopedDiagCapture capture;
  EXPECT_EQ(huge.Alloc(), nullptr);
  EXPECT_EQ(capture.Text(), "\rCFHeap(Huge)::Alloc: Unable to allocate another block\r\n");
  EXPECT_EQ(capture.Entries().at(0).channel * 10 + capture.Entries().at(0).level, 35u);
}

TEST(CFHeap, TwoThreadsOnOnePool) {
  CFHeap pool("Threads", 64, 64, 0);
  auto work = [&pool](unsigned char seed) {
    std::vector<unsigned char*> live;
    for (int i = 0; i < 50000; ++i) {
      auto* p = static_cast<unsigned char*>(pool.Alloc());
      if (!p) return false;
      std::memset(p, seed, 64);
      live.push_back(p);
      if (live.size() > 100 || (i % 7) == 0) {
        unsigned char* q = live.front();
        for (int k = 0; k < 64; ++k)
          if (q[k] != seed) return false;
        pool.Free(q);
        live.erase(live.begin());
      }
    }
    for (auto* p : live) pool.Free(p);
    return true;
  };
  bool ok_a = false, ok_b = false;
  std::thread a([&] { ok_a = work(0x11); });
  std::thread b([&] { ok_b = work(0x22); });
  a.join();
  b.join();
  EXPECT_TRUE(ok_a);
  EXPECT_TRUE(ok_b);
  EXPECT_EQ(StateOf(pool).items, 0u);
}

}  // namespace
