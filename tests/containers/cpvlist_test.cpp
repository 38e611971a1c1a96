// Pointer lists: identities, insertion, deletion, moves, the item hooks and their order, relocation,
// save and load with item-size conversion and damaged entries, sorted lists and search cursors.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "zrobj/byteorder.h"
#include "zrobj/chunkarc.h"
#include "zrobj/cpvlist.h"
#include "zrobj/zrhash.h"

namespace {

char* N(const char* name) { return const_cast<char*>(name); }

// An 8-byte item: identity, payload.
struct Item {
  DWORD id;
  DWORD value;
};

Item Make(DWORD value) { return Item{0xDEADBEEF, value}; }

DWORD ValueAt(const CPvList& list, DWORD index) {
  Item item;
  std::memcpy(&item, list.GetCItem(index, 1), sizeof item);
  return item.value;
}

DWORD IdAt(const CPvList& list, DWORD index) {
  DWORD id;
  std::memcpy(&id, list.GetCItem(index, 1), sizeof id);
  return id;
}

std::vector<DWORD> Values(const CPvList& list) {
  std::vector<DWORD> out;
  for (DWORD i = 0; i < list.GetNItems(); ++i) out.push_back(ValueAt(list, i));
  return out;
}

std::vector<DWORD> Ids(const CPvList& list) {
  std::vector<DWORD> out;
  for (DWORD i = 0; i < list.GetNItems(); ++i) out.push_back(IdAt(list, i));
  return out;
}

// The content of a memory archive holding what `save` wrote.
template <class Save>
CPMemoryFile Saved(Save save) {
  CMemChunkArchive archive;
  archive.Open(CHNK_ACCESS_WRITE);
  save(archive);
  archive.Close();
  return archive.GetContent();
}

// A memory archive open for reading over `content`.
void OpenReading(CMemChunkArchive& archive, CPMemoryFile content) {
  archive.SetContent(content);
  ASSERT_TRUE(archive.Open(CHNK_ACCESS_READ));
}

CPMemoryFile RawContent(const std::string& bytes) {
  CPMemoryFile file;
  file.Open(CHNK_ACCESS_WRITE);
  file.Write(bytes.data(), static_cast<DWORD>(bytes.size()));
  return file;
}

std::string LE32(DWORD v) {
  std::string out(4, '\0');
  zr::StoreLE32(out.data(), v);
  return out;
}

std::string Chunk(const char* name, const std::string& data, DWORD claimed) {
  return LE32(GetHashID(name)) + LE32(claimed) + data;
}

// Records every hook call; DeleteItem refuses items whose value is in `keep`.
class Probe : public CPvList {
 public:
  Probe() : CPvList(sizeof(Item), 3) {}
  Probe(const Probe& other) : CPvList(sizeof(Item), 3) { CPvList::operator=(other); }
  ~Probe() override { Free(); }

  std::string calls;
  std::vector<DWORD> keep;
  int relocations_shared = 0;

  using CPvList::FreeListItems;

  // Slot numbers of the hooks (Itanium: a virtual member pointer holds 1 + the vtable offset).
  template <class F>
  static std::ptrdiff_t Slot(F f) {
    static_assert(sizeof(F) == 2 * sizeof(std::uintptr_t));
    std::uintptr_t rep[2];
    std::memcpy(rep, &f, sizeof rep);
    return static_cast<std::ptrdiff_t>((rep[0] - 1) / sizeof(void*));
  }
  static std::vector<std::ptrdiff_t> HookSlots() {
    return {Slot(&Probe::GetClassID),   Slot(&Probe::RelocateMemory), Slot(&Probe::ClearForRelease),
            Slot(&Probe::InitItem),     Slot(&Probe::InsertItem),     Slot(&Probe::InstantiateItem),
            Slot(&Probe::DeleteItem),   Slot(&Probe::LoadInitItem),   Slot(&Probe::ReleaseItem)};
  }

 protected:
  void InitItem(void* item) override {
    calls += 'I';
    CPvList::InitItem(item);
  }
  void InsertItem(void* item, const void* source) override {
    calls += 'S';
    CPvList::InsertItem(item, source);
  }
  void InstantiateItem(void* item, const void* source) override {
    calls += 'N';
    CPvList::InstantiateItem(item, source);
  }
  int DeleteItem(void* item, DWORD) override {
    calls += 'D';
    Item it;
    std::memcpy(&it, item, sizeof it);
    for (DWORD v : keep)
      if (v == it.value) return 0;
    return 1;
  }
  void LoadInitItem(void*) override { calls += 'L'; }
  void ReleaseItem(void*) override { calls += 'R'; }
};

TEST(CPvList, ConstructionAndCapacity) {
  CPvList small(1, 0);
  EXPECT_EQ(small.GetItemSize(), 4u);  // raised to 4
  EXPECT_EQ(small.GetNGrowth(), 5u);   // 0 means 5
  EXPECT_EQ(small.GetNItems(), 0u);
  EXPECT_EQ(small.GetList(), nullptr);
  EXPECT_EQ(small.GetCList(), nullptr);
  EXPECT_STREQ(small.GetClassID(), "CPvList");
  EXPECT_EQ(small.SetNGrowth(0), 0);
  EXPECT_EQ(small.GetNGrowth(), 5u);
  EXPECT_EQ(small.SetNGrowth(7), 1);

  // Growth 5 of 8-byte items asks for 44 bytes; the 32-byte header rule grants 64: 7 items.
  CPvList list(sizeof(Item));
  const Item a = Make(10);
  EXPECT_EQ(list.Add(&a), 0u);
  EXPECT_EQ(list.GetSize(), 12u);
  EXPECT_EQ(list.GetNAllocItems(), 7u);
  EXPECT_EQ(static_cast<const BYTE*>(list.GetCList()) - static_cast<const BYTE*>(list.GetCDataPtr()), 4);
  const CPvList& view = list;
  EXPECT_EQ(static_cast<const void*>(view), list.GetCList());
}

TEST(CPvList, IdentitiesFollowInsertionNotPosition) {
  CPvList list(sizeof(Item), 2);
  const Item a = Make(1), b = Make(2), c = Make(3), d = Make(4);
  EXPECT_EQ(list.Add(&a), 0u);
  EXPECT_EQ(list.Insert(&b, 0), 1u);
  EXPECT_EQ(list.Insert(&c, 1), 2u);
  EXPECT_EQ(list.Insert(&d, 1000), 3u);  // past the end appends
  EXPECT_EQ(Values(list), (std::vector<DWORD>{2, 3, 1, 4}));
  EXPECT_EQ(Ids(list), (std::vector<DWORD>{1, 2, 0, 3}));
  EXPECT_EQ(list.GetNextID(), 4u);
  Item found;
  std::memcpy(&found, list.GetCItem(2, 0), sizeof found);  // by identity
  EXPECT_EQ(found.value, 3u);
  EXPECT_EQ(list.GetItem(9, 0), nullptr);
  EXPECT_EQ(list.GetItem(4, 1), nullptr);
  // Identities only grow: deleting does not give one back.
  EXPECT_EQ(list.Delete(3, 0, 0), 1);
  EXPECT_EQ(list.Add(&d), 4u);
}

TEST(CPvList, AddOfItsOwnItemSurvivesTheReallocation) {
  CPvList list(sizeof(Item), 1);
  const Item a = Make(77);
  list.Add(&a);
  for (int i = 0; i < 20; ++i) ASSERT_NE(list.Insert(list.GetItem(0, 1), 0), ZR_INVALID_INDEX);
  for (DWORD v : Values(list)) EXPECT_EQ(v, 77u);
}

TEST(CPvList, DeleteReplaceAndTheLastItem) {
  CPvList list(sizeof(Item));
  const Item a = Make(1), b = Make(2), c = Make(3);
  list.Add(&a);
  list.Add(&b);
  list.Add(&c);
  EXPECT_EQ(list.Delete(42, 0, 0), 1);  // absent
  EXPECT_EQ(list.Delete(7, 1, 0), 1);
  const Item r = Make(20);
  EXPECT_EQ(list.Replace(&r, 42, 0, 0), 0);  // absent
  EXPECT_EQ(list.Replace(nullptr, 1, 0, 0), 0);
  EXPECT_EQ(list.Replace(&r, 1, 0, 0), 1);
  EXPECT_EQ(ValueAt(list, 1), 20u);
  EXPECT_EQ(IdAt(list, 1), 1u);  // kept its identity
  EXPECT_EQ(list.Delete(0, 1, 0), 1);
  EXPECT_EQ(Values(list), (std::vector<DWORD>{20, 3}));
  EXPECT_EQ(list.Delete(2, 0, 0), 1);
  EXPECT_NE(list.GetList(), nullptr);
  EXPECT_EQ(list.Delete(0, 1, 0), 1);
  EXPECT_EQ(list.GetList(), nullptr);  // the last item frees the block
  EXPECT_EQ(list.GetHeader(), nullptr);
  EXPECT_EQ(list.Replace(&r, 0, 1, 0), 0);  // empty
}

TEST(CPvList, MoveClampsAndCarriesIdentities) {
  CPvList list(sizeof(Item));
  for (DWORD v = 0; v < 5; ++v) {
    const Item item = Make(v);
    list.Add(&item);
  }
  EXPECT_EQ(list.Move(3, 99), 1);
  EXPECT_EQ(Values(list), (std::vector<DWORD>{0, 1, 2, 4, 3}));
  EXPECT_EQ(IdAt(list, 4), 3u);
  EXPECT_EQ(list.Move(4, 0), 1);
  EXPECT_EQ(Values(list), (std::vector<DWORD>{3, 0, 1, 2, 4}));
  EXPECT_EQ(IdAt(list, 0), 3u);
  EXPECT_EQ(list.Move(1, 1), 1);
  EXPECT_EQ(list.Move(5, 0), 0);
  EXPECT_EQ(list.Move(0, 2), 1);
  EXPECT_EQ(Values(list), (std::vector<DWORD>{0, 1, 3, 2, 4}));
}

TEST(CPvList, TruncateAndPrealloc) {
  CPvList list(sizeof(Item));
  EXPECT_EQ(list.Truncate(0), 1);
  EXPECT_EQ(list.Truncate(1), 0);
  EXPECT_EQ(list.Prealloc(20), 1);
  EXPECT_EQ(list.GetSize(), 4u);  // header only
  EXPECT_EQ(list.GetNItems(), 0u);
  EXPECT_GE(list.GetNAllocItems(), 20u);
  const void* block = list.GetCList();
  for (DWORD v = 0; v < 20; ++v) {
    const Item item = Make(v);
    list.Add(&item);
  }
  EXPECT_EQ(list.GetCList(), block);  // no reallocation
  EXPECT_EQ(list.Truncate(21), 0);
  EXPECT_EQ(list.Truncate(3), 1);
  EXPECT_EQ(Values(list), (std::vector<DWORD>{0, 1, 2}));
  EXPECT_EQ(list.Prealloc(0), 1);
  EXPECT_EQ(list.GetNItems(), 3u);
}

TEST(CPvList, HooksInSlotOrder) {
  const std::vector<std::ptrdiff_t> slots = Probe::HookSlots();
  EXPECT_EQ(slots[0], 0);  // GetClassID first, then the two destructor entries and GetMallocator
  for (std::size_t i = 1; i < slots.size(); ++i) EXPECT_EQ(slots[i], slots[1] + static_cast<std::ptrdiff_t>(i) - 1) << i;
  EXPECT_EQ(slots[1], 4);
}

TEST(CPvList, HookCallsOfEachOperation) {
  Probe list;
  const Item a = Make(1), b = Make(2), c = Make(3);
  list.Add(&a);
  EXPECT_EQ(list.calls, "IS");
  list.Add(&b);
  list.Add(&c);
  list.calls.clear();
  const Item r = Make(9);
  list.Replace(&r, 0, 1, 0);
  EXPECT_EQ(list.calls, "DIS");
  list.calls.clear();
  EXPECT_EQ(list.FreeListItems(0), 3u);
  EXPECT_EQ(list.calls, "DDD");
  EXPECT_EQ(list.GetNItems(), 3u);
  list.calls.clear();
  list.Truncate(2);
  EXPECT_EQ(list.calls, "");  // dropped without DeleteItem
  list.keep = {9};
  EXPECT_EQ(list.Delete(0, 1, 0), 0);  // refused
  EXPECT_EQ(list.GetNItems(), 2u);
}

TEST(CPvList, ClearKeepsRefusedItemsInOrder) {
  Probe list;
  for (DWORD v = 0; v < 6; ++v) {
    const Item item = Make(v);
    list.Add(&item);
  }
  list.keep = {1, 4};
  list.calls.clear();
  EXPECT_EQ(list.Clear(0), 0);
  EXPECT_EQ(list.calls, "DDDDDD");
  EXPECT_EQ(Values(list), (std::vector<DWORD>{1, 4}));
  list.keep.clear();
  EXPECT_EQ(list.Clear(0), 1);
  EXPECT_EQ(list.GetHeader(), nullptr);
  EXPECT_EQ(list.Clear(0), 1);
}

TEST(CPvList, RelocationMovesOrInstantiates) {
  Probe list;  // growth 3
  for (DWORD v = 0; v < 3; ++v) {
    const Item item = Make(v);
    list.Add(&item);
  }
  // A forced move of an unshared block: bytes moved, the old slots re-initialised.
  list.calls.clear();
  ASSERT_EQ(list.CPMemory::Realloc(list.GetSize(), 0, 1), 1);
  EXPECT_EQ(list.calls, "IIIRRR");  // the old block is released with its (emptied) items
  EXPECT_EQ(Values(list), (std::vector<DWORD>{0, 1, 2}));
  // A private copy of a shared block: each item instantiated into the new block.
  Probe other(list);
  EXPECT_EQ(list.GetRefCnt(), 2);
  list.calls.clear();
  ASSERT_EQ(list.Realloc(), 1);
  EXPECT_EQ(list.calls, "INSINSINS");
  EXPECT_NE(list.GetCList(), other.GetCList());
  EXPECT_EQ(Values(list), Values(other));
  EXPECT_EQ(Ids(list), Ids(other));
  list.calls.clear();
  ASSERT_EQ(list.Realloc(), 1);  // unshared now: kept
  EXPECT_EQ(list.calls, "");
}

TEST(CPvList, CopiesShareTheBlock) {
  CPvList list(sizeof(Item));
  const Item a = Make(5);
  list.Add(&a);
  CPvList copy(list);
  EXPECT_EQ(copy.GetCList(), list.GetCList());
  EXPECT_EQ(copy.GetNextID(), 1u);
  EXPECT_EQ(copy.GetItemSize(), sizeof(Item));
  CPvList other(16);
  other = list;
  EXPECT_EQ(other.GetItemSize(), sizeof(Item));
  EXPECT_EQ(list.GetRefCnt(), 3);
  other = other;
  EXPECT_EQ(list.GetRefCnt(), 3);
}

TEST(CPvList, SaveAndLoadRenumbersIdentities) {
  Probe list;
  for (DWORD v = 0; v < 5; ++v) {
    const Item item = Make(v * 10);
    list.Add(&item);
  }
  list.Delete(0, 1, 0);
  list.Delete(2, 1, 0);  // identities left: 1, 2, 4
  CPMemoryFile content = Saved([&](CZRArchive& archive) { EXPECT_EQ(list.DynaSave(N("L"), archive), 1); });
  // The entry: the item size in the header word, then the items.
  const auto* bytes = static_cast<const BYTE*>(content.GetCDataPtr());
  ASSERT_EQ(content.GetSize(), 8u + 4 + 3 * sizeof(Item));
  EXPECT_EQ(zr::LoadLE32(bytes), GetHashID("L"));
  EXPECT_EQ(zr::LoadLE32(bytes + 8), sizeof(Item));

  Probe loaded;
  const Item stale = Make(99);
  loaded.Add(&stale);
  loaded.Add(&stale);
  loaded.calls.clear();
  CMemChunkArchive archive;
  OpenReading(archive, content);
  EXPECT_EQ(loaded.DynaLoad(N("L"), archive, 0, 0), 1);
  EXPECT_EQ(loaded.calls, "RRLLL");  // the old items released, the loaded ones initialised
  EXPECT_EQ(Values(loaded), (std::vector<DWORD>{10, 20, 40}));
  EXPECT_EQ(Ids(loaded), (std::vector<DWORD>{0, 1, 2}));
  EXPECT_EQ(loaded.GetNextID(), 3u);
  const Item next = Make(1);
  EXPECT_EQ(loaded.Add(&next), 3u);
}

TEST(CPvList, EmptyListsSaveAndLoad) {
  CPvList empty(sizeof(Item));
  CPMemoryFile content = Saved([&](CZRArchive& archive) { EXPECT_EQ(empty.DynaSave(N("E"), archive), 1); });
  CPvList loaded(sizeof(Item));
  const Item a = Make(1);
  loaded.Add(&a);
  CMemChunkArchive archive;
  OpenReading(archive, content);
  EXPECT_EQ(loaded.DynaLoad(N("E"), archive, 0, 0), 1);
  EXPECT_EQ(loaded.GetHeader(), nullptr);
  EXPECT_EQ(loaded.GetNextID(), 1u);  // nothing renumbered
  CMemChunkArchive missing;
  OpenReading(missing, content);
  EXPECT_EQ(loaded.DynaLoad(N("other"), missing, 0, 1), 0);
}

// 12-byte items saved, then loaded into lists of 16 and of 8 bytes.
TEST(CPvList, LoadConvertsBetweenItemSizes) {
  CPvList list(12);
  for (DWORD v = 1; v <= 4; ++v) {
    const DWORD item[3] = {0, v, v * 100};
    list.Add(item);
  }
  CPMemoryFile content = Saved([&](CZRArchive& archive) { list.DynaSave(N("C"), archive); });

  CPvList wider(16);
  CMemChunkArchive a1;
  OpenReading(a1, content);
  ASSERT_EQ(wider.DynaLoad(N("C"), a1, 0, 1), 1);
  ASSERT_EQ(wider.GetNItems(), 4u);
  for (DWORD i = 0; i < 4; ++i) {
    DWORD item[4];
    std::memcpy(item, wider.GetCItem(i, 1), sizeof item);
    EXPECT_EQ(item[0], i);
    EXPECT_EQ(item[1], i + 1);
    EXPECT_EQ(item[2], (i + 1) * 100);
    EXPECT_EQ(item[3], 0u);  // the new tail is zero
  }
  EXPECT_EQ(wider.GetNextID(), 4u);

  CPvList narrower(8);
  CMemChunkArchive a2;
  OpenReading(a2, content);
  ASSERT_EQ(narrower.DynaLoad(N("C"), a2, 0, 1), 1);
  EXPECT_EQ(Values(narrower), (std::vector<DWORD>{1, 2, 3, 4}));
  EXPECT_EQ(narrower.GetSize(), 4u + 4 * 8);

  // Without conversion the load fails and the list is left empty.
  CPvList refused(16);
  const DWORD old[4] = {};
  refused.Add(old);
  CMemChunkArchive a3;
  OpenReading(a3, content);
  EXPECT_EQ(refused.DynaLoad(N("C"), a3, 0, 0), 0);
  EXPECT_EQ(refused.GetNItems(), 0u);
  EXPECT_EQ(refused.GetHeader(), nullptr);

  // Four-byte items widen to 64 bytes.
  CPvList tiny(4);
  const DWORD one = 0;
  tiny.Add(&one);
  CPMemoryFile one_item = Saved([&](CZRArchive& archive) { tiny.DynaSave(N("T"), archive); });
  CPvList big(64);
  CMemChunkArchive a4;
  OpenReading(a4, one_item);
  EXPECT_EQ(big.DynaLoad(N("T"), a4, 0, 1), 1);
  ASSERT_EQ(big.GetNItems(), 1u);
  const std::string zeros(64, '\0');
  EXPECT_EQ(std::memcmp(big.GetCList(), zeros.data(), 64), 0);
}

TEST(CPvList, DamagedEntriesAreRefused) {
  struct Case {
    const char* what;
    std::string content;
    int result;
  };
  const std::string items(16, 'x');
  const std::vector<Case> cases = {
      {"item size 0", Chunk("D", LE32(0) + items, 20), 0},
      {"item size 3", Chunk("D", LE32(3) + items, 20), 0},
      {"shorter than the header", Chunk("D", "ab", 2), 0},
      {"size past the data", Chunk("D", LE32(8) + items, 0xFFFFFFF0u), 0},
      {"size past the data by one", Chunk("D", LE32(8) + items, 21), 0},
      {"no item fits", Chunk("D", LE32(4000) + items, 20), 1},
      {"huge stored size", Chunk("D", LE32(0xFFFFFFFFu) + items, 20), 1},
  };
  for (const Case& c : cases) {
    CPvList list(8);
    CMemChunkArchive archive;
    OpenReading(archive, RawContent(c.content));
    EXPECT_EQ(list.DynaLoad(N("D"), archive, 0, 1), c.result) << c.what;
    EXPECT_EQ(list.GetNItems(), 0u) << c.what;
  }
}

// ---- CPvListS ----

int CompareValue(const void* key, const void* item) {
  Item a, b;
  std::memcpy(&a, key, sizeof a);
  std::memcpy(&b, item, sizeof b);
  return a.value < b.value ? -1 : a.value > b.value ? 1 : 0;
}

TEST(CPvListS, LocateAndSortedInsertion) {
  CPvListS list(sizeof(Item), 4, CompareValue);
  EXPECT_EQ(list.LocateEntry(nullptr), 0u);  // unallocated
  EXPECT_EQ(list.ReSort(), 0);
  for (DWORD v : {30u, 10u, 20u}) {
    const Item item = Make(v);
    list.Add(&item, 0);
  }
  EXPECT_EQ(Values(list), (std::vector<DWORD>{10, 20, 30}));
  // LocateEntry is the lower bound; LocateIndex finds only an equal item.
  for (auto [value, entry, index] : {std::tuple<DWORD, DWORD, DWORD>{5, 0, ZR_INVALID_INDEX}, {20, 1, 1},
                                     {25, 2, ZR_INVALID_INDEX}, {35, 3, ZR_INVALID_INDEX}}) {
    const Item key = Make(value);
    EXPECT_EQ(list.LocateEntry(&key), entry) << value;
    EXPECT_EQ(list.LocateIndex(&key), index) << value;
  }
}

TEST(CPvListS, DuplicatesGoInFrontOrReplace) {
  CPvListS list(sizeof(Item), 4, CompareValue);
  for (DWORD v : {10u, 20u, 30u}) {
    const Item item = Make(v);
    list.Add(&item, 0);
  }
  const Item dup = Make(20);
  EXPECT_EQ(list.Add(&dup, 0), 1u);  // in front of its equal
  EXPECT_EQ(IdAt(list, 1), 3u);
  EXPECT_EQ(IdAt(list, 2), 1u);
  EXPECT_EQ(list.Add(&dup, 0), 1u);
  EXPECT_EQ(IdAt(list, 1), 4u);
  // With replacement the first equal item is overwritten whole, identity word included.
  Item replacement{777, 20};
  EXPECT_EQ(list.Add(&replacement, 1), 1u);
  EXPECT_EQ(list.GetNItems(), 5u);
  EXPECT_EQ(IdAt(list, 1), 777u);
  const Item fresh = Make(25);
  EXPECT_EQ(list.Add(&fresh, 1), 4u);  // nothing equal: inserted
  EXPECT_EQ(Values(list), (std::vector<DWORD>{10, 20, 20, 20, 25, 30}));
}

TEST(CPvListS, ReSortAndCopies) {
  CPvListS list(sizeof(Item), 4, CompareValue);
  for (DWORD v : {3u, 1u, 2u}) {
    const Item item = Make(v);
    list.Insert(&item, 0xFFFFFFFF);  // unsorted on purpose
  }
  EXPECT_EQ(list.ReSort(), 1);
  EXPECT_EQ(Values(list), (std::vector<DWORD>{1, 2, 3}));
  EXPECT_EQ(IdAt(list, 0), 1u);  // identities travel with their items
  CPvListS copy(list);
  EXPECT_EQ(copy.GetCompare(), &CompareValue);
  EXPECT_EQ(copy.GetCList(), list.GetCList());
  CPvListS other(4, 1, nullptr);
  other = list;
  EXPECT_EQ(other.GetCompare(), &CompareValue);
  EXPECT_EQ(other.GetItemSize(), sizeof(Item));
  CPvList plain(list);  // the same class id: the block is shared
  EXPECT_EQ(plain.GetCList(), list.GetCList());
  EXPECT_STREQ(list.GetClassID(), "CPvList");
}

// ---- CSearchID ----

TEST(CSearchID, HalvesAndComparisons) {
  CSearchID none;
  EXPECT_EQ(none.uIndex(), 0xFFFFFFFFu);
  EXPECT_EQ(none.uID(), 0xFFFFFFFFu);
  EXPECT_EQ(static_cast<DWORD>(none), 0xFFFFFFFFu);
  CSearchID id(7, 3);
  EXPECT_EQ(id.uID(), 7u);
  EXPECT_EQ(id.uIndex(), 3u);
  EXPECT_EQ(static_cast<DWORD>(id), 0x00070003u);
  id.AssignIndex(9);
  EXPECT_EQ(static_cast<DWORD>(id), 0x00070009u);
  EXPECT_TRUE(id == CSearchID(7, 1));  // identity halves only
  EXPECT_TRUE(id != CSearchID(8, 9));
  EXPECT_TRUE(id == 7u);
  EXPECT_TRUE(none == 0xFFFFu);
  id.Assign(65534, 65535);
  EXPECT_EQ(id.uID(), 65534u);
  EXPECT_EQ(id.uIndex(), 0xFFFFFFFFu);
  id.Assign(70000, 2);  // too large to be searched for
  EXPECT_EQ(id.uID(), 0xFFFFFFFFu);
  EXPECT_EQ(id.uIndex(), 2u);
}

TEST(CSearchID, IndexFromSearchIDRepairsStaleCursors) {
  CPvList list(sizeof(Item));
  CSearchID cursor(0, 0);
  EXPECT_EQ(list.IndexFromSearchID(cursor), ZR_INVALID_INDEX);  // unallocated
  for (DWORD v = 0; v < 5; ++v) {
    const Item item = Make(v);
    list.Add(&item);
  }
  cursor.Assign(3, 3);
  EXPECT_EQ(list.IndexFromSearchID(cursor), 3u);  // fast path
  list.Move(3, 0);
  EXPECT_EQ(list.IndexFromSearchID(cursor), 0u);  // stale index repaired
  EXPECT_EQ(cursor.uIndex(), 0u);
  EXPECT_EQ(cursor.uID(), 3u);
  cursor.Assign(4, 99);
  EXPECT_EQ(list.IndexFromSearchID(cursor), 4u);
  EXPECT_EQ(cursor.uIndex(), 4u);
  cursor.Assign(42, 1);  // no such identity
  EXPECT_EQ(list.IndexFromSearchID(cursor), ZR_INVALID_INDEX);
  EXPECT_EQ(static_cast<DWORD>(cursor), 0xFFFFFFFFu);
  cursor.Assign(CSearchID::kNone, 2);  // index only
  EXPECT_EQ(list.IndexFromSearchID(cursor), 2u);
  cursor.Assign(CSearchID::kNone, 5);
  EXPECT_EQ(list.IndexFromSearchID(cursor), ZR_INVALID_INDEX);
}

}  // namespace
