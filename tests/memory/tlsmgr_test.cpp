// Thread-local slots: allocation to exhaustion, per-thread values, flag words, reserved indices and
// the manager's messages.
#include "zrobj/tlsmgr.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "platform/diag_capture.h"
#include "sync_test_util.h"

namespace {

// The manager, initialised whether or not the library's attach already did it.
void EnsureInit() {
  synctest::DebugOn quiet_off;
  zr::os::ScopedDiagCapture capture;
  TlsManager::Init();
}

std::u16string Only(const zr::os::ScopedDiagCapture& capture) {
  const auto entries = capture.Entries();
  return entries.size() == 1 ? entries[0].text : u"<" + std::u16string(entries.size() ? u"many" : u"none") + u">";
}

TEST(TlsManager, SlotsAllocateToExhaustionAndFree) {
  EnsureInit();
  synctest::DebugOn debug;
  std::vector<unsigned long> slots;
  for (unsigned long i = 0; i < TlsManager::kSlotCount; ++i) {
    const unsigned long slot = TlsManager::ThreadSlotAlloc();
    ASSERT_NE(slot, TlsManager::kInvalidSlot);
    slots.push_back(slot);
  }
  {
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(TlsManager::ThreadSlotAlloc(), TlsManager::kInvalidSlot);
    EXPECT_EQ(Only(capture), u"ThreadSlotAlloc failed!");
    EXPECT_EQ(capture.Entries()[0].level, 4u);
  }
  // The lowest free number comes back first.
  ASSERT_EQ(TlsManager::ThreadSlotFree(7), 1);
  ASSERT_EQ(TlsManager::ThreadSlotFree(3), 1);
  EXPECT_EQ(TlsManager::ThreadSlotAlloc(), 3ul);
  EXPECT_EQ(TlsManager::ThreadSlotAlloc(), 7ul);
  for (unsigned long slot = 0; slot < TlsManager::kSlotCount; ++slot) EXPECT_EQ(TlsManager::ThreadSlotFree(slot), 1);
  {
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(TlsManager::ThreadSlotFree(5), 0);
    EXPECT_EQ(Only(capture), u"ThreadSlotFree: Attempt to free slot never allocated");
  }
  {
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(TlsManager::ThreadSlotFree(30), 0);
    EXPECT_EQ(Only(capture), u"ThreadSlotFree: Invalid index");
  }
}

// Threads that use nothing but slots still give their shadow back when they end: a thousand of
// them, one after another, never exhaust the shadows' bounded heap.
TEST(TlsManager, ShortLivedSlotOnlyThreadsReleaseTheirShadows) {
  EnsureInit();
  const unsigned long slot = TlsManager::ThreadSlotAlloc();
  ASSERT_NE(slot, TlsManager::kInvalidSlot);
  int failures = 0;
  for (int i = 0; i < 1000 && failures == 0; ++i) {
    std::thread worker([&] {
      if (TlsManager::SetThreadValue(slot, static_cast<unsigned long>(i) + 1) != 1 ||
          TlsManager::GetThreadValue(slot) != static_cast<unsigned long>(i) + 1)
        ++failures;
    });
    worker.join();
  }
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(TlsManager::ThreadSlotFree(slot), 1);
}

TEST(TlsManager, ValuesArePerThreadAndFlagsCombine) {
  EnsureInit();
  const unsigned long slot = TlsManager::ThreadSlotAlloc();
  ASSERT_NE(slot, TlsManager::kInvalidSlot);
  EXPECT_EQ(TlsManager::SetThreadValue(slot, 0x1234), 1);
  unsigned long other_before = 99, other_after = 99;
  std::thread other([&] {
    other_before = TlsManager::GetThreadValue(slot);  // a new shadow reads 0
    TlsManager::SetThreadValue(slot, 0x55);
    other_after = TlsManager::GetThreadValue(slot);
    TlsManager::ExitThread();
  });
  other.join();
  EXPECT_EQ(other_before, 0ul);
  EXPECT_EQ(other_after, 0x55ul);
  EXPECT_EQ(TlsManager::GetThreadValue(slot), 0x1234ul);

  ASSERT_EQ(TlsManager::SetThreadValue(slot, 0x1), 1);
  EXPECT_EQ(TlsManager::SetThreadFlags(slot, 0x1, 0x1), 1);  // a bit in both masks ends clear
  EXPECT_EQ(TlsManager::GetThreadValue(slot), 0ul);
  EXPECT_EQ(TlsManager::SetThreadFlags(slot, 0x0, 0xF0), 1);
  EXPECT_EQ(TlsManager::ORThreadFlags(slot, 0x3), 1);
  EXPECT_EQ(TlsManager::GetThreadValue(slot), 0xF3ul);
  EXPECT_EQ(TlsManager::ANDThreadFlags(slot, 0x31), 1);
  EXPECT_EQ(TlsManager::GetThreadValue(slot), 0x31ul);
  EXPECT_EQ(TlsManager::XORThreadFlags(slot, 0x11), 1);
  EXPECT_EQ(TlsManager::GetThreadValue(slot), 0x20ul);
  // Freeing the slot leaves the thread's value alone.
  ASSERT_EQ(TlsManager::ThreadSlotFree(slot), 1);
  EXPECT_EQ(TlsManager::GetThreadValue(slot), 0x20ul);
  TlsManager::SetThreadValue(slot, 0);
}

TEST(TlsManager, ReservedIndicesAndMessages) {
  EnsureInit();
  synctest::DebugOn debug;
  EXPECT_EQ(TlsManager::GetThreadValue(0xFFFFFF00ul), TlsManager::kSignature);  // word 0
  EXPECT_EQ(TlsManager::SetThreadValue(0xFFFFFF01ul, 0xABCD), 1);              // the reserved word
  EXPECT_EQ(TlsManager::GetThreadValue(0xFFFFFF01ul), 0xABCDul);
  TlsManager::SetThreadValue(0xFFFFFF01ul, 0);
  {
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(TlsManager::GetThreadValue(30), 0ul);
    EXPECT_EQ(Only(capture), u"GetThreadValPtr: Invalid reserved index");
    EXPECT_EQ(capture.Entries()[0].level, 3u);
  }
  {
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(TlsManager::Init(), 0);
    EXPECT_EQ(Only(capture), u"TlsManager can be initialized only once");
    EXPECT_EQ(capture.Entries()[0].level, 5u);
  }
  {
    synctest::DebugOn unused;
    SetDebugMode(0);
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(TlsManager::ThreadSlotFree(40), 0);
    EXPECT_TRUE(capture.Entries().empty());  // messages only while debug output is on
  }
  // A thread's end clears its signature: the next access makes a fresh shadow.
  TlsManager::ExitThread();
  EXPECT_EQ(TlsManager::GetThreadValue(0xFFFFFF00ul), TlsManager::kSignature);
  // After Exit nothing is addressable until Init.
  ASSERT_EQ(TlsManager::Exit(), 1);
  {
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(TlsManager::SetThreadValue(0, 1), 0);
    EXPECT_EQ(Only(capture), u"GetThreadValPtr: Not initialized");
  }
  ASSERT_EQ(TlsManager::Init(), 1);
  EXPECT_EQ(TlsManager::GetThreadValue(0), 0ul);
}

}  // namespace
