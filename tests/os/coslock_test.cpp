// Critical sections and the reader/writer interlock: recursion, misuse reports, the contention report,
// writer preference, upgrades, reader slots and a stress run of readers and writers.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/diag_capture.h"
#include "platform/platdiag.h"
#include "platform/text.h"
#include "platform/waitable.h"
#include "sync_test_util.h"
#include "zrobj/cheap.h"
#include "zrobj/coslock.h"

namespace os = zr::os;

namespace {

using synctest::DebugOn;
using synctest::WaitFor;
using synctest::WaitUntilSleeping;
using Capture = os::ScopedDiagCapture;

std::u16string U(const std::string& text) { return os::Utf8ToUtf16(text); }

bool Contains(const Capture& capture, const std::string& text) { return capture.Text().find(text) != std::string::npos; }

// Code addresses that name this program, as callers pass them.
__attribute__((noinline)) void OwnerSite() { asm volatile(""); }
__attribute__((noinline)) void WaiterSite() { asm volatile(""); }
std::uintptr_t Site(void (*fn)()) { return reinterpret_cast<std::uintptr_t>(fn); }

TEST(COSCriticalSection, RecursionOwnerAndTryEnter) {
  COSCriticalSection cs;
  cs.Enter(0);
  cs.Enter(0);
  EXPECT_TRUE(cs.TryEnter());
  EXPECT_EQ(cs.GetLockCnt(), 3u);
  int other_try = -1;
  std::thread([&] { other_try = cs.TryEnter(); }).join();
  EXPECT_EQ(other_try, 0);
  cs.Leave();
  cs.Leave();
  cs.Leave();
  EXPECT_EQ(cs.GetLockCnt(), 0u);

  // With debug output off only TryEnter records the owner, and Leave never clears it.
  SetDebugMode(0);
  DWORD other_id = 0;
  std::thread([&] {
    other_id = os::GetCurrentThreadId();
    EXPECT_TRUE(cs.TryEnter());
    cs.Leave();
  }).join();
  EXPECT_EQ(cs.GetOwningThread(), other_id);
  cs.Enter(0);
  EXPECT_EQ(cs.GetOwningThread(), other_id);
  cs.Leave();
  {
    DebugOn debug;
    cs.Enter(0);
    EXPECT_EQ(cs.GetOwningThread(), os::GetCurrentThreadId());
    cs.Leave();
  }
  EXPECT_EQ(cs.GetOwningThread(), os::GetCurrentThreadId());

  // Spin counts as the 32-bit word or as unsigned long (more than 32 bits clamped); the int form
  // is the "no init" switch.
  COSCriticalSection spinning(DWORD{4000});
  COSCriticalSection wide(0x1FFFFFFFFul);
  COSCriticalSection later(1);
  later.Init();
  for (COSCriticalSection* s : {&spinning, &wide, &later}) {
    s->Enter();
    EXPECT_TRUE(s->TryEnter());
    EXPECT_EQ(s->GetLockCnt(), 2u);
    s->Leave();
    s->Leave();
  }
}

TEST(COSCriticalSection, MisuseMessages) {
  DebugOn debug;
  Capture capture;
  COSCriticalSection cs;
  cs.Leave();  // not held: reported, and the system section is still left (harmlessly)
  ASSERT_EQ(capture.Entries().size(), 1u);
  EXPECT_EQ(capture.Entries()[0].channel, 3u);
  EXPECT_EQ(capture.Entries()[0].level, 1u);
  EXPECT_EQ(capture.Entries()[0].text, u"\r\nCOSCriticalSection::Leave: LockCnt==0 on leave, possible deadlock");
  EXPECT_EQ(cs.GetLockCnt(), 0u);
  cs.Enter(0);  // still usable
  cs.Leave();

  capture.Clear();
  auto* held = new COSCriticalSection;
  held->Enter(0);
  delete held;
  ASSERT_EQ(capture.Entries().size(), 1u);
  EXPECT_EQ(capture.Entries()[0].text, u"\r\nCOSCriticalSection::~COSCriticalSection: LockCnt!=0, possible deadlock");
  EXPECT_EQ(capture.Entries()[0].level, 1u);

  capture.Clear();
  SetDebugMode(0);
  cs.Leave();
  EXPECT_TRUE(capture.Entries().empty());
}

TEST(COSCriticalSection, ContentionReportNamesBothThreads) {
  DebugOn debug;
  synctest::FakeTicks ticks(5000);
  Capture capture;
  COSCriticalSection cs;
  std::atomic<bool> entered{false}, release{false};
  std::atomic<DWORD> owner_id{0}, waiter_id{0};
  std::thread owner([&] {
    owner_id = os::GetCurrentThreadId();
    cs.Enter(Site(OwnerSite));
    cs.Enter(Site(WaiterSite));  // recursion keeps the outermost call site
    entered = true;
    while (!release) std::this_thread::yield();
    cs.Leave();
    cs.Leave();
  });
  ASSERT_TRUE(WaitFor([&] { return entered.load(); }));
  std::thread waiter([&] {
    waiter_id = os::GetCurrentThreadId();
    cs.Enter(Site(WaiterSite));
    cs.Leave();
  });
  ASSERT_TRUE(WaitFor([&] { return Contains(capture, "is blocking thread"); }));
  ASSERT_TRUE(WaitUntilSleeping(waiter_id.load()));
  synctest::FakeTicks::Advance(25);
  release = true;
  owner.join();
  waiter.join();

  const auto entries = capture.Entries();
  ASSERT_EQ(entries.size(), 5u);
  for (const auto& e : entries) {
    EXPECT_EQ(e.channel, 3u);
    EXPECT_EQ(e.level, 5u);
  }
  EXPECT_EQ(entries[0].text, os::FormatWide(u"\rCS [LockCnt=2] owned by %08X ", owner_id.load()));
  EXPECT_EQ(entries[1].text, u"<< " + U(os::GetAddressInfoString(Site(OwnerSite))) + u" >>\r\n");
  EXPECT_EQ(entries[2].text, os::FormatWide(u"is blocking thread %08X ", waiter_id.load()));
  EXPECT_EQ(entries[3].text, u"<< " + U(os::GetAddressInfoString(Site(WaiterSite))) + u" >>\r\n");
  EXPECT_EQ(entries[4].text, os::FormatWide(u"\r%08X entered CS previously blocked by %08X after %u ms",
                                            waiter_id.load(), owner_id.load(), 25u));
  EXPECT_NE(entries[1].text.find(u"os_tests"), std::u16string::npos);
}

TEST(COSCriticalSection, ContentionWithUnresolvedSites) {
  DebugOn debug;
  Capture capture;
  COSCriticalSection cs;
  cs.Enter(0);  // an entry address that resolves to nothing
  std::thread waiter([&] {
    cs.Enter(0x10);
    cs.Leave();
  });
  ASSERT_TRUE(WaitFor([&] { return capture.Entries().size() >= 3; }));
  cs.Leave();
  waiter.join();
  const auto entries = capture.Entries();
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries[0].text.substr(0, 20), u"\rCS [LockCnt=1] owne");
  EXPECT_EQ(entries[1].text.substr(0, 19), u"is blocking thread ");
  EXPECT_EQ(entries[2].text, u"\r");
  EXPECT_EQ(entries[3].text.substr(0, 1), u"\r");
}

TEST(COSAutoLock, GuardsAndIdentifiesItself) {
  COSCriticalSection cs;
  {
    COSAutoLock lock(&cs);
    EXPECT_EQ(cs.GetLockCnt(), 1u);
    COSAutoLock nested(&cs);
    EXPECT_EQ(cs.GetLockCnt(), 2u);
  }
  EXPECT_EQ(cs.GetLockCnt(), 0u);
  { COSAutoLock nothing(nullptr); }

  DebugOn debug;
  Capture capture;
  std::atomic<bool> held{false}, release{false};
  std::thread owner([&] {
    COSAutoLock lock(&cs);
    held = true;
    while (!release) std::this_thread::yield();
  });
  ASSERT_TRUE(WaitFor([&] { return held.load(); }));
  std::thread waiter([&] { COSAutoLock lock(&cs); });
  ASSERT_TRUE(WaitFor([&] { return capture.Entries().size() >= 4; }));
  release = true;
  owner.join();
  waiter.join();
  // Both sites are addresses inside the guard's own constructor.
  EXPECT_NE(capture.Entries()[1].text.find(u"COSAutoLock::COSAutoLock"), std::u16string::npos);
  EXPECT_NE(capture.Entries()[3].text.find(u"COSAutoLock::COSAutoLock"), std::u16string::npos);
}

TEST(CSharedCriticalSection, ReferenceCounting) {
  CHeap* cs_heap = zr::GetLibraryHeap("CSHeap");
  ASSERT_NE(cs_heap, nullptr);
  unsigned int items_before = 0;
  cs_heap->GetHeapState(items_before);
  CSharedCriticalSection* cs = CSharedCriticalSection::Create();
  ASSERT_NE(cs, nullptr);
  unsigned int items = 0;
  cs_heap->GetHeapState(items);
  EXPECT_EQ(items, items_before + 1);  // sections made with new live in "CSHeap"
  EXPECT_EQ(cs->GetRefCount(), 1u);
  EXPECT_EQ(cs->Lock(), 1);
  EXPECT_EQ(cs->GetRefCount(), 2u);
  cs->Enter(0);  // the section itself is entered with the inherited Enter
  EXPECT_EQ(cs->GetLockCnt(), 1u);
  cs->Leave();
  cs->Destroy();
  EXPECT_EQ(cs->GetRefCount(), 1u);
  cs->Destroy();  // the last reference frees it (AddressSanitizer checks the rest)
  cs_heap->GetHeapState(items);
  EXPECT_EQ(items, items_before);
}

// ---- COSRWInterlock, one thread ----

TEST(COSRWInterlock, ReadsInsideWriteAndUpgrade) {
  COSRWInterlock rw;
  rw.EnterWrite();
  rw.EnterWrite();
  for (int i = 0; i < 3; ++i) rw.EnterRead();
  EXPECT_EQ(rw.GetWriteReadRecursion(), 3u);
  for (int i = 0; i < 3; ++i) rw.LeaveRead();
  EXPECT_EQ(rw.GetWriteReadRecursion(), 0u);
  EXPECT_EQ(rw.GetWriteCount(), 2u);
  EXPECT_EQ(rw.GetWriteOwner(), os::GetCurrentThreadId());
  rw.LeaveWrite();
  rw.LeaveWrite();
  EXPECT_EQ(rw.GetWriteOwner(), 0u);

  // A lone reader that asks for write access is upgraded at once and keeps its read lock.
  rw.EnterRead();
  rw.EnterRead();
  EXPECT_EQ(rw.GetReadCount(), 2u);
  rw.EnterWrite();
  EXPECT_EQ(rw.GetWriteCount(), 1u);
  EXPECT_EQ(rw.GetWaitingWriters(), 1u);  // stays raised until LeaveWrite
  rw.LeaveWrite();
  EXPECT_EQ(rw.GetWaitingWriters(), 0u);
  EXPECT_EQ(rw.GetReadCount(), 2u);
  std::atomic<bool> wrote{false};
  std::atomic<DWORD> writer_tid{0};
  std::thread writer([&] {
    writer_tid = os::GetCurrentThreadId();
    COSRWWAutoLock lock(rw);
    wrote = true;
  });
  ASSERT_TRUE(WaitFor([&] { return rw.GetWaitingWriters() == 1; }));
  EXPECT_FALSE(wrote.load());
  rw.LeaveRead();
  EXPECT_FALSE(wrote.load());
  rw.LeaveRead();
  writer.join();
  EXPECT_TRUE(wrote.load());
  EXPECT_EQ(rw.GetReadCount(), 0u);
}

TEST(COSRWInterlock, MisuseMessages) {
  DebugOn debug;
  Capture capture;
  {
    COSRWInterlock rw;
    rw.LeaveWrite();
    rw.LeaveRead();
    rw.EnterWrite();
    rw.LeaveRead();  // the writer has no read to leave
    rw.EnterRead();
    rw.LeaveWrite();  // forgets the pending read
    EXPECT_EQ(rw.GetWriteReadRecursion(), 0u);
    EXPECT_EQ(rw.GetWriteCount(), 0u);
    COSRWRAutoLock read(rw);  // the lock is free again
  }
  // The beeps in between are the frame's own lines; the messages come in this order.
  std::vector<std::u16string> texts;
  for (const auto& e : capture.Entries())
    if (e.text.find(u"COSRWInterlock") != std::u16string::npos) {
      texts.push_back(e.text);
      EXPECT_EQ(e.channel, 0u);
      EXPECT_EQ(e.level, 1u);
    }
  const std::vector<std::u16string> expected = {
      u"\rCOSRWInterlock::LeaveWrite: Called without according lock\r\n",
      u"\rCOSRWInterlock::LeaveRead: Leave called for unregistered ThreadID\r\n",
      u"\rCOSRWInterlock::LeaveRead (write-recursive): Called without according lock\r\n",
      u"\rCOSRWInterlock::LeaveWrite: Called while recursive reads pending\r\n"};
  EXPECT_EQ(texts, expected);
  EXPECT_NE(capture.Text().find("3080"), std::string::npos);
  EXPECT_NE(capture.Text().find("3027"), std::string::npos);

  capture.Clear();
  {
    auto written = std::make_unique<COSRWInterlock>();
    written->EnterWrite();
    written->EnterRead();
    auto read = std::make_unique<COSRWInterlock>();
    read->EnterRead();
    written.reset();
    read.reset();
  }
  const auto left = capture.Entries();
  ASSERT_EQ(left.size(), 3u);
  EXPECT_EQ(left[0].text, u"\rCOSRWInterlock::~COSRWInterlock: uWrite != 0\r\n");
  EXPECT_EQ(left[1].text, u"\rCOSRWInterlock::~COSRWInterlock: WriteReadRecursion != 0\r\n");
  EXPECT_EQ(left[2].text, u"\rCOSRWInterlock::~COSRWInterlock: uRead != 0\r\n");
  for (const auto& e : left) EXPECT_EQ(e.level, 4u);
}

// ---- COSRWInterlock, several threads ----

TEST(COSRWInterlock, WaitingWriterBlocksNewReaders) {
  COSRWInterlock rw;
  std::atomic<int> order{0};
  std::atomic<int> writer_turn{0}, reader_turn{0};
  std::atomic<DWORD> reader_tid{0};
  rw.EnterRead();
  std::thread writer([&] {
    rw.EnterWrite();
    writer_turn = ++order;
    rw.LeaveWrite();
  });
  ASSERT_TRUE(WaitFor([&] { return rw.GetWaitingWriters() == 1; }));
  std::thread reader([&] {
    reader_tid = os::GetCurrentThreadId();
    rw.EnterRead();
    reader_turn = ++order;
    rw.LeaveRead();
  });
  ASSERT_TRUE(WaitFor([&] { return reader_tid.load() != 0; }));
  ASSERT_TRUE(WaitUntilSleeping(reader_tid));  // the new reader waits at the gate

  // The first reader may still read recursively while the writer waits.
  rw.EnterRead();
  EXPECT_EQ(rw.GetReadCount(), 2u);
  rw.LeaveRead();
  EXPECT_EQ(order.load(), 0);
  rw.LeaveRead();
  writer.join();
  reader.join();
  EXPECT_EQ(writer_turn.load(), 1);
  EXPECT_EQ(reader_turn.load(), 2);
}

TEST(COSRWInterlock, ThirtyThirdReaderWaitsForASlot) {
  COSRWInterlock rw;
  constexpr int kHolders = COSRWInterlock::kReaderSlots;
  std::atomic<int> holding{0};
  std::atomic<bool> release{false}, last_in{false};
  std::atomic<DWORD> last_tid{0};
  std::vector<std::thread> holders;
  for (int i = 0; i < kHolders; ++i)
    holders.emplace_back([&] {
      rw.EnterRead();
      ++holding;
      while (!release) std::this_thread::yield();
      rw.LeaveRead();
    });
  ASSERT_TRUE(WaitFor([&] { return holding.load() == kHolders; }));
  std::thread last([&] {
    last_tid = os::GetCurrentThreadId();
    rw.EnterRead();
    last_in = true;
    rw.LeaveRead();
  });
  ASSERT_TRUE(WaitFor([&] { return last_tid.load() != 0; }));
  ASSERT_TRUE(WaitUntilSleeping(last_tid));
  EXPECT_FALSE(last_in.load());
  EXPECT_EQ(rw.GetReadCount(), static_cast<DWORD>(kHolders));
  release = true;
  for (auto& t : holders) t.join();
  last.join();
  EXPECT_TRUE(last_in.load());
  EXPECT_EQ(rw.GetReadCount(), 0u);
}

TEST(COSRWInterlock, TwoUpgradesSerialise) {
  COSRWInterlock rw;
  std::atomic<int> reading{0}, writers_inside{0}, upgrades{0};
  std::atomic<bool> overlap{false};
  auto upgrader = [&] {
    rw.EnterRead();
    ++reading;
    while (reading.load() < 2) std::this_thread::yield();  // both hold a read lock first
    rw.EnterWrite();
    if (++writers_inside != 1) overlap = true;
    ++upgrades;
    --writers_inside;
    rw.LeaveWrite();
    rw.LeaveRead();
  };
  std::thread a(upgrader), b(upgrader);
  a.join();
  b.join();
  EXPECT_FALSE(overlap.load());
  EXPECT_EQ(upgrades.load(), 2);
  EXPECT_EQ(rw.GetReadCount(), 0u);
  EXPECT_EQ(rw.GetWaitingWriters(), 0u);
}

TEST(COSRWInterlock, StressReadersWritersAndUpgrades) {
  COSRWInterlock rw;
  constexpr int kRounds = 6000;
  std::atomic<int> readers_inside{0}, writers_inside{0};
  std::atomic<bool> broken{false};
  long long plain_total = 0;  // guarded by the interlock only: ThreadSanitizer checks the ordering
  std::vector<int> plain_log;

  auto reader = [&] {
    for (int i = 0; i < kRounds; ++i) {
      COSRWRAutoLock lock(rw);
      ++readers_inside;
      if (writers_inside.load() != 0) broken = true;
      if (i % 7 == 0) {  // recursive read
        COSRWRAutoLock again(rw);
        if (static_cast<long long>(plain_log.size()) != plain_total) broken = true;
      }
      --readers_inside;
    }
  };
  auto writer = [&] {
    for (int i = 0; i < kRounds / 3; ++i) {
      COSRWWAutoLock lock(rw);
      if (++writers_inside != 1 || readers_inside.load() != 0) broken = true;
      {
        COSRWRAutoLock read_inside(rw);  // a read inside the write
        ++plain_total;
        plain_log.push_back(i);
      }
      --writers_inside;
    }
  };
  auto upgrader = [&] {
    for (int i = 0; i < kRounds / 3; ++i) {
      COSRWRAutoLock read(rw);
      COSRWWAutoLock write(rw);
      if (++writers_inside != 1) broken = true;
      ++plain_total;
      plain_log.push_back(-i);
      --writers_inside;
    }
  };
  std::vector<std::thread> threads;
  threads.emplace_back(reader);
  threads.emplace_back(reader);
  threads.emplace_back(writer);
  threads.emplace_back(writer);
  threads.emplace_back(upgrader);
  for (auto& t : threads) t.join();
  EXPECT_FALSE(broken.load());
  EXPECT_EQ(plain_total, 3LL * (kRounds / 3));
  EXPECT_EQ(plain_log.size(), static_cast<std::size_t>(plain_total));
  EXPECT_EQ(rw.GetReadCount(), 0u);
  EXPECT_EQ(rw.GetWriteCount(), 0u);
  EXPECT_EQ(rw.GetWaitingWriters(), 0u);
}

TEST(COSCriticalSection, ExcludesUnderStress) {
  COSCriticalSection cs;
  long long plain = 0;
  constexpr int kRounds = 20000;
  auto worker = [&] {
    for (int i = 0; i < kRounds; ++i) {
      COSAutoLock lock(&cs);
      cs.Enter(0);
      ++plain;
      cs.Leave();
    }
  };
  std::thread a(worker), b(worker);
  a.join();
  b.join();
  EXPECT_EQ(plain, 2LL * kRounds);
  EXPECT_EQ(cs.GetLockCnt(), 0u);
}

}  // namespace
