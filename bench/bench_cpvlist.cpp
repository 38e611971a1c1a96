// Building lists of 100,000 8-byte items: CPvList::Insert at the end (default growth and with
// Prealloc) against std::vector::push_back, and CPvListS::Add of random keys against a sorted
// std::vector insert at the lower bound.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "zrobj/cpvlist.h"

namespace {

constexpr DWORD kItems = 100'000;

struct Item {
  DWORD id;
  DWORD key;
};

std::vector<DWORD> RandomKeys() {
  std::mt19937 random(42);
  std::vector<DWORD> keys(kItems);
  for (DWORD& key : keys) key = static_cast<DWORD>(random());
  return keys;
}

int CompareKey(const void* key, const void* item) {
  const DWORD a = static_cast<const Item*>(key)->key;
  const DWORD b = static_cast<const Item*>(item)->key;
  return a < b ? -1 : a > b ? 1 : 0;
}

void BM_CPvListInsertAtEnd(benchmark::State& state) {
  for (auto _ : state) {
    CPvList list(sizeof(Item));
    for (DWORD i = 0; i < kItems; ++i) {
      const Item item{0, i};
      list.Insert(&item, ZR_INVALID_INDEX);
    }
    benchmark::DoNotOptimize(list.GetCList());
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_CPvListInsertAtEnd)->Unit(benchmark::kMillisecond);

void BM_CPvListInsertAtEndPrealloc(benchmark::State& state) {
  for (auto _ : state) {
    CPvList list(sizeof(Item));
    list.Prealloc(kItems);
    for (DWORD i = 0; i < kItems; ++i) {
      const Item item{0, i};
      list.Insert(&item, ZR_INVALID_INDEX);
    }
    benchmark::DoNotOptimize(list.GetCList());
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_CPvListInsertAtEndPrealloc)->Unit(benchmark::kMillisecond);

void BM_VectorPushBack(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<Item> list;
    for (DWORD i = 0; i < kItems; ++i) list.push_back(Item{i, i});
    benchmark::DoNotOptimize(list.data());
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_VectorPushBack)->Unit(benchmark::kMillisecond);

void BM_CPvListSAdd(benchmark::State& state) {
  const std::vector<DWORD> keys = RandomKeys();
  for (auto _ : state) {
    CPvListS list(sizeof(Item), 5, CompareKey);
    for (DWORD key : keys) {
      const Item item{0, key};
      list.Add(&item, 0);
    }
    benchmark::DoNotOptimize(list.GetCList());
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_CPvListSAdd)->Unit(benchmark::kMillisecond);

void BM_VectorSortedInsert(benchmark::State& state) {
  const std::vector<DWORD> keys = RandomKeys();
  for (auto _ : state) {
    std::vector<Item> list;
    DWORD next_id = 0;
    for (DWORD key : keys) {
      const Item item{next_id++, key};
      auto at = std::lower_bound(list.begin(), list.end(), item,
                                 [](const Item& a, const Item& b) { return a.key < b.key; });
      list.insert(at, item);
    }
    benchmark::DoNotOptimize(list.data());
  }
  state.SetItemsProcessed(state.iterations() * kItems);
}
BENCHMARK(BM_VectorSortedInsert)->Unit(benchmark::kMillisecond);

}  // namespace
