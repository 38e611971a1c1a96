// Properties: PUIDs, the type-0 and checksum rules, Reset against construction, free handlers of
// shared blocks, the allocator's pools, converters, and property lists.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "zrobj/byteorder.h"
#include "zrobj/cfheap.h"
#include "zrobj/cheap.h"
#include "zrobj/cpprop.h"
#include "zrobj/zrhash.h"

namespace {

constexpr GUID kIdA = {0x11223344, 0x5566, 0x7788, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr GUID kIdB = {0x99AABBCC, 0xDDEE, 0xFF00, {8, 7, 6, 5, 4, 3, 2, 1}};
constexpr unsigned long kHeader = sizeof(tagMEMHEADER);

bool IsZero(const GUID& id) { return id == GUID{}; }

CPProperty Filled(DWORD type, const GUID& id, const char* text) {
  CPProperty p(type, id);
  p.Alloc(std::strlen(text) + 1, 0);
  std::memcpy(p.GetDataPtr(), text, std::strlen(text) + 1);
  return p;
}

std::string Text(const CPProperty& p) {
  return p.GetCDataPtr() ? static_cast<const char*>(p.GetCDataPtr()) : "";
}

int g_freed = 0;
const void* g_freed_data = nullptr;
void CountFree(CPProperty& p) {
  ++g_freed;
  g_freed_data = p.GetCDataPtr();
}

struct FreeCounter {
  FreeCounter() { g_freed = 0, g_freed_data = nullptr; }
};

TEST(tagPUID, AssignmentStates) {
  tagPUID puid = puidUnassigned;
  EXPECT_TRUE(!puid);
  EXPECT_FALSE(puid.IsAssigned());
  EXPECT_EQ(puid.dwProject, 0xFC00u);
  for (const tagPUID assigned : {tagPUID{0xFC00, 0, 1}, tagPUID{0xFC00, 1, 0}, tagPUID{0, 0, 0}}) {
    EXPECT_TRUE(assigned.IsAssigned());
    EXPECT_FALSE(!assigned);
    EXPECT_NE(assigned, puidUnassigned);
  }
  puid.CreatePUID();
  tagPUID next = puidUnassigned;
  next.CreatePUID();
  EXPECT_EQ(puid.dwProject, 0xFC00u);
  EXPECT_EQ(puid.dwCustom, 0u);
  EXPECT_NE(puid.dwObject, 0u);
  EXPECT_EQ(next.dwObject, puid.dwObject + 1);
  EXPECT_TRUE(puid.IsAssigned());
  puid.Unassign();
  EXPECT_EQ(puid, puidUnassigned);
}

TEST(tagPUID, ChecksumOfTheLittleEndianWords) {
  const tagPUID puid = {0x01020304, 0xA0B0C0D0, 7};
  const BYTE bytes[12] = {4, 3, 2, 1, 0xD0, 0xC0, 0xB0, 0xA0, 7, 0, 0, 0};
  EXPECT_EQ(puid.GetCRC(), GetCRC1615(bytes, 12));
  EXPECT_NE(puid.GetCRC(), (tagPUID{0x01020304, 0xA0B0C0D0, 8}).GetCRC());
  CPProperty p;
  p.SetPUID(puid);
  EXPECT_EQ(p.GetPUIDCRC(), puid.GetCRC());
}

TEST(CPProperty, TypeZeroHidesIdAndChecksum) {
  CPProperty none(0, kIdA);
  EXPECT_TRUE(IsZero(none.GetPropertyID()));
  EXPECT_EQ(none.GetCRC(), 0xFFFFFFFFu);
  none.SetCRC(0x1234);
  EXPECT_EQ(none.GetCRC(), 0xFFFFFFFFu);
  none.SetPropertyID(5, kIdA);  // the id given with type 0 was kept
  EXPECT_EQ(none.GetPropertyID(), kIdA);

  CPProperty typed(3, kIdB);
  EXPECT_EQ(typed.GetPropertyID(), kIdB);
  EXPECT_EQ(typed.GetCRC(), 0xFFFFFFFFu);
  typed.SetCRC(0x1234);
  EXPECT_EQ(typed.GetCRC(), 0x1234u);
  typed.SetPropertyID(3, kIdB);  // the same id again still invalidates
  EXPECT_EQ(typed.GetCRC(), 0xFFFFFFFFu);
}

TEST(CPProperty, FamiliesAndValidity) {
  CPProperty none;
  CPProperty typed(0x0000000Cu, kIdA);
  EXPECT_TRUE(none.IsFamilyMember(0));
  EXPECT_TRUE(typed.IsFamilyMember(0));
  EXPECT_TRUE(typed.IsFamilyMember(4));
  EXPECT_TRUE(typed.IsFamilyMember(0xC));
  EXPECT_FALSE(typed.IsFamilyMember(0x1C));
  EXPECT_FALSE(none.IsFamilyMember(4));
  EXPECT_FALSE(typed.IsValid());  // no block yet
  ASSERT_EQ(typed.Alloc(16, 0), 1);
  EXPECT_TRUE(typed.IsValid());
  ASSERT_EQ(none.Alloc(16, 0), 1);
  EXPECT_FALSE(none.IsValid());  // type 0
  EXPECT_STREQ(typed.GetClassID(), "CPProperty");
}

TEST(CPProperty, ResetDiffersFromConstruction) {
  CPProperty fresh;
  EXPECT_FALSE(fresh.GetPUID().IsAssigned());
  EXPECT_EQ(fresh.GetPUID(), puidUnassigned);

  CPProperty p = Filled(7, kIdA, "data");
  p.CreatePUID();
  p.SetCRC(9);
  p.Reset();
  EXPECT_EQ(p.GetHeader(), nullptr);
  EXPECT_EQ(p.GetPropertyType(), 0u);
  EXPECT_TRUE(IsZero(p.GetPropertyID()));
  p.SetPropertyID(1, kIdB);
  p.SetPropertyID(0, kIdB);
  EXPECT_EQ(p.GetCRC(), 0xFFFFFFFFu);
  const tagPUID zero = {0, 0, 0};
  EXPECT_EQ(p.GetPUID(), zero);
  EXPECT_TRUE(p.GetPUID().IsAssigned());  // {0,0,0} is not the unassigned id

  p.Construct();
  EXPECT_FALSE(p.GetPUID().IsAssigned());
}

TEST(CPProperty, CopiesShareTheBlockAndEveryField) {
  CPProperty a = Filled(2, kIdA, "shared");
  a.SetPUID(1, 2, 3);
  a.SetCRC(0xABCD);
  a.SetFreeHandler(CountFree);
  CPProperty b(a);
  EXPECT_EQ(b.GetHeader(), a.GetHeader());
  EXPECT_EQ(a.GetRefCnt(), 2);
  EXPECT_EQ(b.GetPropertyType(), 2u);
  EXPECT_EQ(b.GetPropertyID(), kIdA);
  EXPECT_EQ(b.GetPUID(), (tagPUID{1, 2, 3}));
  EXPECT_EQ(b.GetCRC(), 0xABCDu);
  EXPECT_EQ(b.GetFreeHandler(), &CountFree);
  CPProperty c;
  c = a;
  EXPECT_EQ(a.GetRefCnt(), 3);
  EXPECT_EQ(Text(c), "shared");
  b.SetFreeHandler(nullptr);
  c.SetFreeHandler(nullptr);
  a.SetFreeHandler(nullptr);
}

TEST(CPProperty, FreeHandlerOnlyForTheLastReference) {
  FreeCounter counter;
  CPProperty a = Filled(1, kIdA, "x");
  const void* data = a.GetCDataPtr();
  a.SetFreeHandler(CountFree);
  CPProperty b(a);  // shares the block and the handler
  EXPECT_EQ(a.Free(), 1);
  EXPECT_EQ(g_freed, 0);                     // b still holds the block
  EXPECT_EQ(a.GetFreeHandler(), nullptr);    // cleared all the same
  EXPECT_EQ(b.GetRefCnt(), 1);
  b.Free();
  EXPECT_EQ(g_freed, 1);
  EXPECT_EQ(g_freed_data, data);  // called before the block went
  b.Free();
  EXPECT_EQ(g_freed, 1);
}

TEST(CPProperty, DestructionAndAssignmentReleaseThroughTheHandler) {
  FreeCounter counter;
  {
    CPProperty a = Filled(1, kIdA, "scope");
    a.SetFreeHandler(CountFree);
  }
  EXPECT_EQ(g_freed, 1);
  CPProperty a = Filled(1, kIdA, "old");
  a.SetFreeHandler(CountFree);
  CPProperty other = Filled(1, kIdB, "new");
  a = other;  // gives up the last reference to "old"
  EXPECT_EQ(g_freed, 2);
  EXPECT_EQ(Text(a), "new");
  EXPECT_EQ(a.GetFreeHandler(), nullptr);  // the source's handler
  CPProperty empty;
  empty.SetFreeHandler(CountFree);
  empty.Free();  // no block: not called, but cleared
  EXPECT_EQ(g_freed, 2);
  EXPECT_EQ(empty.GetFreeHandler(), nullptr);
}

// ---- the allocator ----

unsigned PoolItems(const char* name) {
  CFHeap::State state;
  zr::GetLibraryPool(name)->GetState(&state);
  return state.items;
}

unsigned HeapItems() {
  unsigned items = 0;
  zr::GetLibraryHeap("PropertyPool")->GetHeapState(items);
  return items;
}

TEST(PropertyAllocator, PoolPerSize) {
  struct Case {
    unsigned long bytes;
    const char* pool;
    unsigned long granted;
  };
  const Case cases[] = {{33, "PropHeap64", 56},       {56, "PropHeap64", 56},       {57, "PropHeap128", 120},
                        {120, "PropHeap128", 120},     {121, "PropHeap256", 248},    {504, "PropHeap512", 504},
                        {505, "PropHeap1024", 1016},   {1017, "PropHeap1536", 1528}, {1528, "PropHeap1536", 1528},
                        {1529, "PropHeap2048", 2040},  {2040, "PropHeap2048", 2040}, {2041, "PropertyPool", 2048},
                        {2049, "PropertyPool", 2080},  {100000, "PropertyPool", 100000}};
  for (const Case& c : cases) {
    const zr::PropertyBlockChoice choice = zr::ChoosePropertyBlock(c.bytes);
    EXPECT_STREQ(choice.pool, c.pool) << c.bytes;
    EXPECT_EQ(choice.granted, c.granted) << c.bytes;
  }
}

TEST(PropertyAllocator, BlocksComeFromTheChosenPoolAlignedAndGoBack) {
  for (unsigned long data : {1ul, 24ul, 25ul, 500ul, 2008ul}) {
    const zr::PropertyBlockChoice choice = zr::ChoosePropertyBlock(data + kHeader);
    const unsigned before = PoolItems(choice.pool);
    {
      std::vector<CPProperty> props(5);  // both slot parities of the pool
      for (CPProperty& p : props) {
        ASSERT_EQ(p.Alloc(data, 0), 1) << data;
        EXPECT_EQ(p.GetAllocSize(), choice.granted - kHeader) << data;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p.GetCDataPtr()) % 16, 0u) << data;
        std::memset(p.GetDataPtr(), 0xA5, p.GetAllocSize());  // the whole grant is usable
        EXPECT_EQ(p.AssertMem(), 1);
      }
      EXPECT_EQ(PoolItems(choice.pool), before + 5) << choice.pool;
    }
    EXPECT_EQ(PoolItems(choice.pool), before) << choice.pool;
  }
}

TEST(PropertyAllocator, LargeBlocksUseTheHeap) {
  const unsigned before = HeapItems();
  const unsigned pool_before = PoolItems("PropHeap2048");
  CPProperty big(1, kIdA);
  ASSERT_EQ(big.Alloc(2009, 0), 1);  // 2041 bytes with the header
  EXPECT_EQ(HeapItems(), before + 1);
  EXPECT_EQ(PoolItems("PropHeap2048"), pool_before);
  EXPECT_EQ(big.GetAllocSize(), 2048u - kHeader);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(big.GetCDataPtr()) % 16, 0u);
  EXPECT_EQ(big.AssertMem(), 1);
  big.Free();
  EXPECT_EQ(HeapItems(), before);
}

TEST(PropertyAllocator, GrowthStaysInItsPoolThenMoves) {
  CPProperty p = Filled(1, kIdA, "grow");
  const void* data = p.GetCDataPtr();
  const unsigned small = PoolItems("PropHeap64");
  const unsigned medium = PoolItems("PropHeap128");
  ASSERT_EQ(p.Realloc(24, 0, 0), 1);  // the whole grant of PropHeap64
  EXPECT_EQ(p.GetCDataPtr(), data);
  ASSERT_EQ(p.Realloc(80, 0, 0), 1);
  EXPECT_NE(p.GetCDataPtr(), data);
  EXPECT_EQ(Text(p), "grow");
  EXPECT_EQ(PoolItems("PropHeap64"), small - 1);
  EXPECT_EQ(PoolItems("PropHeap128"), medium + 1);
  ASSERT_EQ(p.Realloc(5000, 0, 0), 1);  // on to the heap, contents kept
  EXPECT_EQ(Text(p), "grow");
  EXPECT_EQ(PoolItems("PropHeap128"), medium);
}

// ---- converters ----

struct ConvertLog {
  std::vector<int> calls;
};

template <int kName, int kResult>
int Converter(CPProperty& p, void* context) {
  static_cast<ConvertLog*>(context)->calls.push_back(kName);
  p.SetCRC(static_cast<DWORD>(kName));
  return kResult;
}

TEST(CPProperty, ConvertersRunInOrderUntilOneAnswers) {
  CPProperty p(1, kIdA);
  EXPECT_EQ(p.Convert(), 1);  // none registered

  ConvertLog log;
  const DWORD first = CPProperty::RegisterPropertyConverter(Converter<1, 0>, &log);
  const DWORD second = CPProperty::RegisterPropertyConverter(Converter<2, 0>, &log);
  const DWORD third = CPProperty::RegisterPropertyConverter(Converter<3, 0>, &log);
  ASSERT_NE(first, 0xFFFFFFFFu);
  EXPECT_NE(first, second);
  EXPECT_EQ(p.Convert(), 0);
  EXPECT_EQ(log.calls, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(p.GetCRC(), 3u);  // each saw the property itself

  CPProperty::UnregisterPropertyConverter(second);
  const DWORD stopper = CPProperty::RegisterPropertyConverter(Converter<4, 7>, &log);
  const DWORD late = CPProperty::RegisterPropertyConverter(Converter<5, 0>, &log);
  log.calls.clear();
  EXPECT_EQ(p.Convert(), 7);
  EXPECT_EQ(log.calls, (std::vector<int>{1, 3, 4}));  // 5 comes after the stop

  for (DWORD id : {first, third, stopper, late}) CPProperty::UnregisterPropertyConverter(id);
  EXPECT_EQ(p.Convert(), 1);
}

// ---- lists ----

TEST(CPPropertyList, LayoutAndPrivateCopies) {
  CPPropertyList list;
  EXPECT_STREQ(list.GetClassID(), "CPPropertyList");
  EXPECT_EQ(list.GetItemSize(), 80u);
  CPProperty a = Filled(1, kIdA, "alpha");
  a.SetPUID(1, 1, 0);
  EXPECT_EQ(list.Add(a), 0u);
  EXPECT_EQ(list.Add(a), 1u);
  EXPECT_EQ(list.Insert(a, 0), 2u);
  ASSERT_EQ(list.GetNItems(), 3u);
  for (DWORD i = 0; i < 3; ++i) {
    CPProperty* item = list.GetItem(i, 1);
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(item) % 8, 0u);
    EXPECT_NE(item->GetHeader(), a.GetHeader());  // a private copy each
    EXPECT_EQ(item->GetRefCnt(), 1);
    EXPECT_EQ(Text(*item), "alpha");
    EXPECT_EQ(item->GetPUID(), a.GetPUID());
  }
  EXPECT_EQ(a.GetRefCnt(), 1);
  EXPECT_EQ(list.GetList()[0].dwID, 2u);
  EXPECT_EQ(&list.GetList()[0].Property(), list.GetItem(0, 1));
}

TEST(CPPropertyList, AddExclusiveMatchesPUIDAndId) {
  CPPropertyList list;
  CPProperty a = Filled(1, kIdA, "first");
  a.SetPUID(5, 6, 7);
  EXPECT_EQ(list.AddExclusive(a), 0u);  // empty list: inserted
  CPProperty other = Filled(1, kIdA, "other");
  other.SetPUID(5, 6, 8);
  EXPECT_EQ(list.AddExclusive(other), 1u);  // new identity 1

  CPProperty sameId = Filled(1, kIdA, "second");
  sameId.SetPUID(5, 6, 7);
  EXPECT_EQ(list.AddExclusive(sameId), 0u);  // index of the match
  EXPECT_EQ(list.GetNItems(), 2u);
  EXPECT_EQ(Text(*list.GetItem(0, 1)), "second");
  EXPECT_NE(list.GetItem(0, 1)->GetHeader(), sameId.GetHeader());  // made private

  CPProperty differentId = Filled(1, kIdB, "third");
  differentId.SetPUID(5, 6, 7);
  EXPECT_EQ(list.AddExclusive(differentId), 2u);  // appended: identity 2
  EXPECT_EQ(list.GetNItems(), 3u);
  EXPECT_EQ(Text(*list.GetItem(2, 1)), "third");
  EXPECT_EQ(Text(*list.GetItem(0, 1)), "second");
}

TEST(CPPropertyList, DeletionAndReleaseRunTheHandlers) {
  FreeCounter counter;
  {
    CPPropertyList list;
    CPProperty a = Filled(1, kIdA, "a");
    a.SetFreeHandler(CountFree);
    list.Add(a);
    list.Add(a);
    list.Add(a);
    a.Free();
    EXPECT_EQ(g_freed, 1);
    EXPECT_EQ(list.Delete(1, 1, 0), 1);
    EXPECT_EQ(g_freed, 2);
    CPPropertyList shared(list);  // shares the list block: items stay
    list.Free();
    EXPECT_EQ(g_freed, 2);
    EXPECT_EQ(shared.GetNItems(), 2u);
  }
  EXPECT_EQ(g_freed, 4);
}

TEST(CPPropertyList, PrivateListCopyInstantiatesItems) {
  CPPropertyList list;
  CPProperty a = Filled(1, kIdA, "x");
  list.Add(a);
  CPPropertyList copy(list);
  ASSERT_EQ(copy.Realloc(), 1);  // a block of its own: items share the properties' blocks
  EXPECT_NE(copy.GetList(), list.GetList());
  EXPECT_EQ(copy.GetItem(0, 1)->GetHeader(), list.GetItem(0, 1)->GetHeader());
  EXPECT_EQ(list.GetItem(0, 1)->GetRefCnt(), 2);
  copy.Free();
  EXPECT_EQ(list.GetItem(0, 1)->GetRefCnt(), 1);
}

}  // namespace
