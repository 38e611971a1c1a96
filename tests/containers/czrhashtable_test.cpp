// The hash table: buckets in order of the ids' high halves and of Compare, duplicate refusal, the
// head deletion that empties a bucket, enumeration, a derived table's operations, two threads.
#include "zrobj/czrhashtable.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

namespace {

// Entries with a payload that Compare orders by.
struct Item {
  tagHASHENTRY head;
  int value;
};

Item* AsItem(tagHASHENTRY* e) { return reinterpret_cast<Item*>(e); }

class ValueTable : public CZRHashTable {
 public:
  int Compare(tagHASHENTRY* key, tagHASHENTRY* entry) override { return AsItem(key)->value - AsItem(entry)->value; }
  tagHASHENTRY* AllocEntry(DWORD size) override { return static_cast<tagHASHENTRY*>(::operator new(size)); }
  void DeleteEntry(tagHASHENTRY* entry) override {
    ++deleted;
    ::operator delete(entry);
  }
  int deleted = 0;
};

Item* Make(CZRHashTable& table, DWORD id, int value) {
  auto* item = AsItem(table.AllocEntry(sizeof(Item)));
  item->head = {id, nullptr};
  item->value = value;
  return item;
}

// The ids and values of one bucket, in list order.
std::vector<std::pair<DWORD, int>> BucketOf(CZRHashTable& table, DWORD bucket) {
  std::vector<std::pair<DWORD, int>> out;
  struct Walk {
    DWORD bucket;
    std::vector<std::pair<DWORD, int>>* out;
  } walk{bucket, &out};
  table.EnumTable([](tagHASHENTRY* e, void* w) {
    auto* walk = static_cast<Walk*>(w);
    if ((e->dwHashID & 0x3FF) == walk->bucket) walk->out->emplace_back(e->dwHashID, AsItem(e)->value);
    return 1;
  }, &walk);
  return out;
}

TEST(CZRHashTable, ForeignIdsAndDuplicatesWithTheBaseCompare) {
  CZRHashTable table;
  tagHASHENTRY foreign{0xFC00u, nullptr};
  EXPECT_EQ(table.Add(&foreign), nullptr);
  EXPECT_EQ(table.FindEntry(0xFC00u, nullptr), nullptr);
  EXPECT_EQ(table.AllocEntry(16), nullptr);
  tagHASHENTRY first{0x00050007u, nullptr}, second{0x00050007u, nullptr}, other{0x00040007u, nullptr};
  EXPECT_EQ(table.Add(&first), &first);
  EXPECT_EQ(table.Add(&second), &first);  // equal by the base Compare: not added
  EXPECT_EQ(table.Add(&other), &other);
  EXPECT_EQ(table.FindEntry(0x00050007u, nullptr), &first);
  EXPECT_EQ(table.FindEntry(0x00050007u, &second), &first);
  EXPECT_EQ(table.FindEntry(0x00060007u, nullptr), nullptr);
  EXPECT_EQ(table.FindEntry(0x00050008u, nullptr), nullptr);
  EXPECT_EQ(other.pNext, &first);  // sorted by the high half
  EXPECT_EQ(table.EnumTable(nullptr, nullptr), 0);
  int seen = 0;
  EXPECT_EQ(table.EnumTable([](tagHASHENTRY*, void* n) { return ++*static_cast<int*>(n) < 1 ? 1 : 0; }, &seen), 0);
  EXPECT_EQ(seen, 1);  // stopped at once
  EXPECT_EQ(table.LockTable(), 1);
  EXPECT_EQ(table.LockTable(), 1);  // recursive for its owner
  EXPECT_EQ(table.UnlockTable(), 1);
  EXPECT_EQ(table.UnlockTable(), 1);
}

TEST(CZRHashTable, BucketsStayInOrder) {
  ValueTable table;
  // Same id, values out of order; other ids below and above.
  for (const auto& [id, value] : std::vector<std::pair<DWORD, int>>{
           {0x00200011u, 5}, {0x00200011u, 2}, {0x00300011u, 1}, {0x00200011u, 9}, {0x00100011u, 7}, {0x00200011u, 4}}) {
    Item* item = Make(table, id, value);
    ASSERT_EQ(table.Add(&item->head), &item->head);
  }
  EXPECT_EQ(BucketOf(table, 0x11), (std::vector<std::pair<DWORD, int>>{
                                       {0x00100011u, 7}, {0x00200011u, 2}, {0x00200011u, 4}, {0x00200011u, 5},
                                       {0x00200011u, 9}, {0x00300011u, 1}}));
  // Equal by Compare: the existing entry comes back.
  Item probe{{0x00200011u, nullptr}, 4};
  tagHASHENTRY* existing = table.FindEntry(0x00200011u, &probe.head);
  ASSERT_NE(existing, nullptr);
  EXPECT_EQ(table.Add(&probe.head), existing);
  // A key that sorts after every entry of its id is not found, and one added goes after them all,
  // before the greater id.
  Item after{{0x00200011u, nullptr}, 12};
  EXPECT_EQ(table.FindEntry(0x00200011u, &after.head), nullptr);
  Item* last = Make(table, 0x00200011u, 12);
  ASSERT_EQ(table.Add(&last->head), &last->head);
  EXPECT_EQ(BucketOf(table, 0x11).at(5), (std::pair<DWORD, int>{0x00200011u, 12}));
  EXPECT_EQ(BucketOf(table, 0x11).at(6), (std::pair<DWORD, int>{0x00300011u, 1}));
  Item between{{0x00200011u, nullptr}, 3};
  EXPECT_EQ(table.FindEntry(0x00200011u, &between.head), nullptr);
  EXPECT_EQ(table.FindEntry(0x00200011u, nullptr)->dwHashID, 0x00200011u);
  table.ClearTable();  // with this table's DeleteEntry: the base destructor would use the base one
  EXPECT_EQ(table.deleted, 7);
}

TEST(CZRHashTable, DeletingTheHeadEmptiesItsBucket) {
  ValueTable table;
  for (int v = 1; v <= 3; ++v) table.Add(&Make(table, (static_cast<DWORD>(v) << 16) | 3u, v)->head);
  Item* a = Make(table, 0x00010009u, 1);
  Item* b = Make(table, 0x00020009u, 2);
  Item* c = Make(table, 0x00030009u, 3);
  for (Item* i : {a, b, c}) table.Add(&i->head);
  EXPECT_EQ(table.Delete(0x00020009u, &b->head), 1);  // in the middle: unlinked, handed over
  EXPECT_EQ(table.deleted, 1);
  EXPECT_EQ(a->head.pNext, &c->head);
  EXPECT_EQ(table.Delete(0x00070009u, nullptr), 1);  // not there
  EXPECT_EQ(table.deleted, 1);
  EXPECT_EQ(table.Delete(0x00010009u, nullptr), 1);  // the head: the bucket goes empty
  EXPECT_EQ(table.deleted, 2);
  EXPECT_EQ(table.FindEntry(0x00030009u, nullptr), nullptr);
  EXPECT_TRUE(BucketOf(table, 9).empty());
  ::operator delete(c);  // left the table with its bucket: the caller's again
  table.ClearTable();
  EXPECT_EQ(table.deleted, 5);  // the three entries of the other bucket
  EXPECT_EQ(table.EnumTable([](tagHASHENTRY*, void*) { return 0; }, nullptr), 1);  // empty: a full walk
}

TEST(CZRHashTable, TwoThreadsAddUnderTheLock) {
  ValueTable table;
  constexpr int kPerThread = 2000;
  const auto adder = [&](int base) {
    for (int i = 0; i < kPerThread; ++i) {
      const DWORD id = (static_cast<DWORD>(i % 50) << 16) | static_cast<DWORD>(i % 7);
      table.Add(&Make(table, id, base + i)->head);
    }
  };
  std::thread first(adder, 0), second(adder, kPerThread);
  first.join();
  second.join();
  int count = 0;
  bool ordered = true;
  struct State {
    int* count;
    bool* ordered;
    tagHASHENTRY* last = nullptr;
  } state{&count, &ordered};
  table.EnumTable([](tagHASHENTRY* e, void* s) {
    auto* st = static_cast<State*>(s);
    ++*st->count;
    if (st->last && (st->last->dwHashID & 0x3FF) == (e->dwHashID & 0x3FF)) {
      const DWORD a = st->last->dwHashID >> 16, b = e->dwHashID >> 16;
      if (a > b || (a == b && AsItem(st->last)->value >= AsItem(e)->value)) *st->ordered = false;
    }
    st->last = e;
    return 1;
  }, &state);
  EXPECT_EQ(count, 2 * kPerThread);
  EXPECT_TRUE(ordered);
  table.ClearTable();
}

}  // namespace
