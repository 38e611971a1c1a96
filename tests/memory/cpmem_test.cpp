// Reference-counted memory: sharing, private copies, growth, READONLY, damaged headers, CPMemoryCS.
#include <atomic>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/diag_capture.h"
#include "test_support.h"
#include "zrobj/coslock.h"
#include "zrobj/cpmem.h"
#include "zrobj/zrdiag.h"

namespace {

using zrtest::DebugMode;

class OtherMemory : public CPMemory {
 public:
  const char* GetClassID() const override { return "OtherMemory"; }
};

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(CPMemory, AllocShareAndPrivateCopy) {
  CPMemory a;
  EXPECT_EQ(a.Alloc(0, 0), 0);
  ASSERT_EQ(a.Alloc(40, 0), 1);
  EXPECT_EQ(a.GetSize(), 40u);
  EXPECT_EQ(a.GetAllocSize(), 64u);  // 40 + 32-byte header rounds to 96
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(a.GetDataPtr()) % 16, 0u);
  std::memset(a.GetDataPtr(), 'x', 40);
  CPMemory b(a);
  EXPECT_EQ(a.GetRefCnt(), 2);
  EXPECT_EQ(a.GetCDataPtr(), b.GetCDataPtr());
  EXPECT_EQ(a.cmpMEMHEADER(b, 1), 1);
  EXPECT_TRUE(a == b);
  ASSERT_EQ(b.Realloc(CPMEM_PRIVATE_COPY, 0, 0), 1);
  EXPECT_NE(a.GetCDataPtr(), b.GetCDataPtr());
  EXPECT_EQ(a.GetRefCnt(), 1);
  EXPECT_EQ(b.GetRefCnt(), 1);
  EXPECT_TRUE(a == b);
  static_cast<char*>(b.GetDataPtr())[0] = 'y';
  EXPECT_EQ(static_cast<const char*>(a.GetCDataPtr())[0], 'x');
  EXPECT_TRUE(a != b);
  const void* own = b.GetCDataPtr();
  EXPECT_EQ(b.Realloc(CPMEM_PRIVATE_COPY, 0, 0), 1);  // unshared: kept
  EXPECT_EQ(b.GetCDataPtr(), own);
  CPMemory empty1, empty2;
  EXPECT_TRUE(empty1 == empty2);
  EXPECT_FALSE(empty1 == a);
  EXPECT_EQ(empty1.Realloc(CPMEM_PRIVATE_COPY, 0, 0), 1);
  EXPECT_EQ(empty1.Realloc(10, CPMEM_HEAP_REALLOC_IN_PLACE_ONLY, 0), 0);
  b = b;
  EXPECT_EQ(b.GetRefCnt(), 1);
}

TEST(CPMemory, GrowthInPlaceAndRelocation) {
  CPMemory a;
  ASSERT_EQ(a.Alloc(10, 0), 1);
  std::memcpy(a.GetDataPtr(), "0123456789", 10);
  const void* before = a.GetCDataPtr();
  ASSERT_EQ(a.Realloc(20, 0, 0), 1);  // within the rounded allocation
  EXPECT_EQ(a.GetCDataPtr(), before);
  EXPECT_EQ(a.GetSize(), 20u);
  ASSERT_EQ(a.Realloc(30, 0, 1), 1);  // forced move
  EXPECT_NE(a.GetCDataPtr(), before);
  EXPECT_EQ(std::memcmp(a.GetCDataPtr(), "0123456789", 10), 0);
  CPMemory blocker;
  ASSERT_EQ(blocker.Alloc(16, 0), 1);
  ASSERT_EQ(a.Realloc(100000, 0, 0), 1);
  EXPECT_EQ(a.GetSize(), 100000u);
  EXPECT_EQ(std::memcmp(a.GetCDataPtr(), "0123456789", 10), 0);
  EXPECT_EQ(a.SetSize(5), 1);
  EXPECT_EQ(a.GetSize(), 5u);
  EXPECT_EQ(a.SetSize(a.GetAllocSize() + 1), 0);
  EXPECT_EQ(a.Realloc(0, 0, 0), 1);
  EXPECT_EQ(a.GetHeader(), nullptr);
}

TEST(CPMemory, LoadReallocCopiesSharedBlocks) {
  CPMemory a;
  ASSERT_EQ(a.LoadRealloc(8), 1);
  std::memcpy(a.GetDataPtr(), "abcdefgh", 8);
  CPMemory b(a);
  ASSERT_EQ(b.LoadRealloc(16), 1);  // shared: b moves to a block of its own
  EXPECT_NE(b.GetCDataPtr(), a.GetCDataPtr());
  EXPECT_EQ(std::memcmp(b.GetCDataPtr(), "abcdefgh", 8), 0);
  EXPECT_EQ(a.GetSize(), 8u);
  EXPECT_EQ(b.GetSize(), 16u);
}

TEST(CPMemory, ReadOnlyAndWriteCasts) {
  DebugMode debug(1);
  zr::os::ScopedDiagCapture capture;
  CPMemory a;
  ASSERT_EQ(a.Alloc(8, 0), 1);
  CPMemory ro(a);
  ro.SetFlags(CPMemory::READONLY | 0x10);
  EXPECT_EQ(ro.GetFlags(), 1u);
  EXPECT_EQ(ro.SetSize(4), 0);
  EXPECT_EQ(ro.GetCDataPtr(), a.GetCDataPtr());
  EXPECT_EQ(ro.GetDataPtr(), nullptr);
  EXPECT_TRUE(Has(capture.Text(), "CPMemory::operator PVOID: Attempt to write-access cast READONLY memory."));
  ro.Free();
  EXPECT_EQ(ro.GetFlags(), 0u);
  ASSERT_EQ(a.SetSize(0), 1);
  capture.Clear();
  EXPECT_EQ(a.GetDataPtr(), nullptr);
  EXPECT_EQ(capture.Text(), "");
}

TEST(CPMemory, AssignmentBetweenClassesAndDamage) {
  DebugMode debug(1);
  zr::os::ScopedDiagCapture capture;
  CPMemory a;
  ASSERT_EQ(a.Alloc(8, 0), 1);
  OtherMemory other;
  static_cast<CPMemory&>(other) = a;
  EXPECT_EQ(other.GetHeader(), nullptr);
  EXPECT_EQ(a.GetRefCnt(), 1);
  EXPECT_TRUE(Has(capture.Text(), "CPMemory::CopyCPMemory: Invalid assignment (bad pointer or different classes)!"));

  // A damaged signature is reported, not trusted.
  capture.Clear();
  tagMEMHEADER* header = a.GetHeader();
  header->dwSignature = 0;
  EXPECT_EQ(a.AssertMem(), 0);
  EXPECT_EQ(capture.Text(), "\rCPMemory::AssertMem: Accessible, but invalid pMH\r\n");
  header->dwSignature = CPMEM_SIGNATURE;
  EXPECT_NE(a.AssertMem(), 0);

  // A reference count of zero on a shared block is an iRef confusion.
  capture.Clear();
  header->iRef = -1;
  CPMemory c;
  c = a;
  EXPECT_EQ(c.GetHeader(), nullptr);
  EXPECT_TRUE(Has(capture.Text(), "CPMemory::CopyCPMemory: iRef confusion!"));
  header->iRef = 1;
}

// A handle damaged to point at unreadable memory is reported, never followed, whether debug output
// is on or off.
TEST(CPMemory, UnreadableHeaderReported) {
  for (const DWORD mode : {DWORD{1}, DWORD{0}}) {
    SCOPED_TRACE(mode);
    DebugMode debug(mode);
    zr::os::ScopedDiagCapture capture;
    alignas(16) static unsigned char storage[sizeof(CPMemory)];
    CPMemory* m = CPMemory::Construct(storage);
    ASSERT_EQ(m->Alloc(8, 0), 1);
    tagMEMHEADER* real = m->GetHeader();
    // Point the handle at an unmapped address through a copy of its bytes.
    tagMEMHEADER* bad = reinterpret_cast<tagMEMHEADER*>(std::uintptr_t{16});
    std::memcpy(storage + sizeof(void*), &bad, sizeof bad);
    EXPECT_EQ(m->AssertMem(), 0);
    EXPECT_TRUE(Has(capture.Text(), "\rCPMemory::AssertMem: pMH != NULL, but bad access\r\n"));
    capture.Clear();
    CPMemory copy;
    copy = *m;  // a bad source is refused (the warning is a debug-mode one)
    EXPECT_EQ(copy.GetHeader(), nullptr);
    capture.Clear();
    EXPECT_EQ(m->Free(), 1);
    EXPECT_TRUE(Has(capture.Text(), "\rCPMemory::Free exception\r\n"));
    EXPECT_EQ(m->GetHeader(), nullptr);
    std::memcpy(storage + sizeof(void*), &real, sizeof real);
    m->~CPMemory();
  }
}

TEST(CPMemory, ThreadsCopyAndDrop) {
  CPMemory shared;
  ASSERT_EQ(shared.Alloc(64, 0), 1);
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        CPMemory copy(shared);
        if (copy.GetCDataPtr() != shared.GetCDataPtr()) mismatches.fetch_add(1);
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(shared.GetRefCnt(), 1);
}

TEST(CPMemoryCS, SectionTravelsWithBlock) {
  CPMemoryCS a;
  ASSERT_EQ(a.Alloc(16, 0), 1);
  ASSERT_NE(a.GetSection(), nullptr);
  EXPECT_EQ(a.GetSection()->GetRefCount(), 1u);
  {
    CPMemoryCS b;
    b = a;
    EXPECT_EQ(b.GetSection(), a.GetSection());
    EXPECT_EQ(a.GetSection()->GetRefCount(), 2u);
    b.Enter();
    b.Leave();
  }
  EXPECT_EQ(a.GetSection()->GetRefCount(), 1u);
  {
    const CPMemoryCS c(a);  // copy construction shares like assignment
    EXPECT_EQ(c.GetHeader(), a.GetHeader());
    EXPECT_EQ(c.GetSection(), a.GetSection());
    EXPECT_EQ(a.GetRefCnt(), 2);
  }
  EXPECT_EQ(a.GetRefCnt(), 1);
  EXPECT_EQ(a.Realloc(32, 0, 0), 1);
  EXPECT_NE(a.GetSection(), nullptr);
  a.Free();
  EXPECT_EQ(a.GetSection(), nullptr);
  EXPECT_EQ(a.Realloc(32, 0, 0), 0);
}

}  // namespace
