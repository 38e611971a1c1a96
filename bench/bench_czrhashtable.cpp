// CZRHashTable lookups of 100,000 entries keyed by name hash ids, against std::unordered_map.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "zrobj/czrhashtable.h"
#include "zrobj/zrhash.h"

namespace {

constexpr int kEntries = 100000;

struct Named {
  tagHASHENTRY head;
  char name[16];
};

class NameTable : public CZRHashTable {
 public:
  int Compare(tagHASHENTRY* key, tagHASHENTRY* entry) override {
    return std::strcmp(reinterpret_cast<Named*>(key)->name, reinterpret_cast<Named*>(entry)->name);
  }
};

std::vector<Named>& Entries() {
  static std::vector<Named> entries = [] {
    std::vector<Named> v(kEntries);
    for (int i = 0; i < kEntries; ++i) {
      std::snprintf(v[i].name, sizeof v[i].name, "object%d", i);
      v[i].head = {GetHashID(v[i].name), nullptr};
    }
    return v;
  }();
  return entries;
}

void BM_CZRHashTableFind(benchmark::State& state) {
  NameTable table;
  for (Named& e : Entries()) table.Add(&e.head);
  for (auto _ : state)
    for (Named& e : Entries()) benchmark::DoNotOptimize(table.FindEntry(e.head.dwHashID, &e.head));
  state.SetItemsProcessed(state.iterations() * kEntries);
  table.ClearTable();
}

void BM_UnorderedMapFind(benchmark::State& state) {
  std::unordered_multimap<DWORD, Named*> map;
  for (Named& e : Entries()) map.emplace(e.head.dwHashID, &e);
  for (auto _ : state)
    for (Named& e : Entries()) {
      auto [it, end] = map.equal_range(e.head.dwHashID);
      while (it != end && std::strcmp(it->second->name, e.name) != 0) ++it;
      benchmark::DoNotOptimize(it);
    }
  state.SetItemsProcessed(state.iterations() * kEntries);
}

}  // namespace

BENCHMARK(BM_CZRHashTableFind)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UnorderedMapFind)->Unit(benchmark::kMillisecond);
