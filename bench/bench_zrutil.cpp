// zrqsort against std::sort and the C library's qsort on one million random 4- and 12-byte records,
// and zrqsearch against std::lower_bound.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

#include "zrobj/zrutil.h"

namespace {

constexpr std::size_t kRecords = 1'000'000;

struct Record12 {
  std::uint32_t key;
  std::uint32_t a;
  std::uint32_t b;
};
static_assert(sizeof(Record12) == 12);

template <class T>
int CompareKeys(const void* x, const void* y) {
  std::uint32_t kx, ky;
  if constexpr (sizeof(T) == 4) {
    kx = *static_cast<const std::uint32_t*>(x);
    ky = *static_cast<const std::uint32_t*>(y);
  } else {
    kx = static_cast<const T*>(x)->key;
    ky = static_cast<const T*>(y)->key;
  }
  return kx < ky ? -1 : kx > ky ? 1 : 0;
}

std::uint32_t KeyOf(std::uint32_t v) { return v; }
std::uint32_t KeyOf(const Record12& r) { return r.key; }

template <class T>
const std::vector<T>& Input() {
  static const std::vector<T> data = [] {
    std::vector<T> out(kRecords);
    std::mt19937 rng(4);
    for (std::size_t i = 0; i < kRecords; ++i) {
      if constexpr (sizeof(T) == 4) {
        out[i] = static_cast<std::uint32_t>(rng());
      } else {
        out[i] = T{static_cast<std::uint32_t>(rng()), static_cast<std::uint32_t>(i), 0};
      }
    }
    return out;
  }();
  return data;
}

// Times `sort` on a fresh copy of the input each iteration (the copy is not timed).
template <class T, class Sort>
void TimeSort(benchmark::State& state, Sort sort) {
  std::vector<T> work;
  for (auto _ : state) {
    state.PauseTiming();
    work = Input<T>();
    state.ResumeTiming();
    sort(work);
    benchmark::ClobberMemory();
  }
  if (!std::is_sorted(work.begin(), work.end(), [](const T& a, const T& b) { return KeyOf(a) < KeyOf(b); }))
    state.SkipWithError("not sorted");
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kRecords);
}

template <class T>
void BM_Zrqsort(benchmark::State& state) {
  TimeSort<T>(state, [](std::vector<T>& v) { zrqsort(v.data(), kRecords, sizeof(T), CompareKeys<T>); });
}
template <class T>
void BM_Qsort(benchmark::State& state) {
  TimeSort<T>(state, [](std::vector<T>& v) { std::qsort(v.data(), kRecords, sizeof(T), CompareKeys<T>); });
}
template <class T>
void BM_StdSort(benchmark::State& state) {
  TimeSort<T>(state, [](std::vector<T>& v) {
    std::sort(v.begin(), v.end(), [](const T& a, const T& b) { return KeyOf(a) < KeyOf(b); });
  });
}

BENCHMARK(BM_Zrqsort<std::uint32_t>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Qsort<std::uint32_t>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StdSort<std::uint32_t>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Zrqsort<Record12>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Qsort<Record12>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StdSort<Record12>)->Unit(benchmark::kMillisecond);

const std::vector<std::uint32_t>& Sorted() {
  static const std::vector<std::uint32_t> sorted = [] {
    auto v = Input<std::uint32_t>();
    std::sort(v.begin(), v.end());
    return v;
  }();
  return sorted;
}

void BM_Zrqsearch(benchmark::State& state) {
  const auto& v = Sorted();
  std::uint32_t key = 12345;
  for (auto _ : state) {
    benchmark::DoNotOptimize(zrqsearch(&key, v.data(), kRecords, 4, CompareKeys<std::uint32_t>));
    key = key * 1664525u + 1013904223u;
  }
}
void BM_LowerBound(benchmark::State& state) {
  const auto& v = Sorted();
  std::uint32_t key = 12345;
  for (auto _ : state) {
    benchmark::DoNotOptimize(std::lower_bound(v.begin(), v.end(), key));
    key = key * 1664525u + 1013904223u;
  }
}
BENCHMARK(BM_Zrqsearch);
BENCHMARK(BM_LowerBound);

}  // namespace
