// Allocation costs of the debug heap (plain and watch mode) and the fixed-block heap against malloc,
// as single Alloc/Free pairs and as batches of 256 live blocks, on one thread and on two, and on one
// thread of a process that has had a second one (the heaps then take atomic operations).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "zrobj/cfheap.h"
#include "zrobj/cheap.h"

namespace {

constexpr int kBatch = 256;

int WatchEverything(const char*, const char* key, int value, int) { return std::strcmp(key, "Watch") == 0 ? 1 : value; }

CHeap& PlainHeap() {
  static CHeap heap("BenchPlain", 0, 0, 0, 1);
  return heap;
}

CHeap& WatchHeap() {
  static CHeap* heap = [] {
    const zr::HeapSettings previous = zr::SetHeapSettings({&WatchEverything, nullptr});
    auto* made = new CHeap("BenchWatch", 0, 0, 0, 1);
    zr::SetHeapSettings(previous);
    return made;
  }();
  return *heap;
}

// One item stays allocated, as in a pool in use: a pair then never empties the block. (A pair on an
// empty pool stamps the block with the time on every Free, which BM_CFHeapPairEmptyPool shows.)
CFHeap& Pool64() {
  static CFHeap pool("Bench64", 64, 64, 0);
  [[maybe_unused]] static void* resident = pool.Alloc();
  return pool;
}

CFHeap& EmptyPool64() {
  static CFHeap pool("Bench64Empty", 64, 64, 0);
  return pool;
}

void BM_MallocPair(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  for (auto _ : state) {
    void* p = std::malloc(n);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
}

void BM_CHeapPair(benchmark::State& state) {
  const auto n = static_cast<unsigned long>(state.range(0));
  CHeap& heap = PlainHeap();
  for (auto _ : state) {
    void* p = heap.Alloc(n, 0, __FILE__, __LINE__, 0);
    benchmark::DoNotOptimize(p);
    heap.Free(p, 0);
  }
}

void BM_MallocBatch(benchmark::State& state) {
  const auto n = static_cast<std::size_t>(state.range(0));
  void* blocks[kBatch];
  for (auto _ : state) {
    for (auto& p : blocks) p = std::malloc(n);
    benchmark::DoNotOptimize(blocks);
    for (auto* p : blocks) std::free(p);
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_CHeapBatch(benchmark::State& state) {
  const auto n = static_cast<unsigned long>(state.range(0));
  CHeap& heap = PlainHeap();
  void* blocks[kBatch];
  for (auto _ : state) {
    for (auto& p : blocks) p = heap.Alloc(n, 0, __FILE__, __LINE__, 0);
    benchmark::DoNotOptimize(blocks);
    for (auto* p : blocks) heap.Free(p, 0);
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_CHeapWatchPair(benchmark::State& state) {
  CHeap& heap = WatchHeap();
  for (auto _ : state) {
    void* p = heap.Alloc(64, 0, __FILE__, __LINE__, 0);
    benchmark::DoNotOptimize(p);
    heap.Free(p, 0);
  }
}

void BM_CFHeapPair(benchmark::State& state) {
  CFHeap& pool = Pool64();
  for (auto _ : state) {
    void* p = pool.Alloc();
    benchmark::DoNotOptimize(p);
    pool.Free(p);
  }
}

void BM_CFHeapPairEmptyPool(benchmark::State& state) {
  CFHeap& pool = EmptyPool64();
  for (auto _ : state) {
    void* p = pool.Alloc();
    benchmark::DoNotOptimize(p);
    pool.Free(p);
  }
}

void BM_CFHeapBatch(benchmark::State& state) {
  CFHeap& pool = Pool64();
  void* items[kBatch];
  for (auto _ : state) {
    for (auto& p : items) p = pool.Alloc();
    benchmark::DoNotOptimize(items);
    for (auto* p : items) pool.Free(p);
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

// Single-threaded runs first: once a second thread exists the process never counts as single-threaded again.
BENCHMARK(BM_MallocPair)->RangeMultiplier(4)->Range(16, 4096);
BENCHMARK(BM_CHeapPair)->RangeMultiplier(4)->Range(16, 4096);
BENCHMARK(BM_MallocBatch)->Arg(64)->Arg(1024);
BENCHMARK(BM_CHeapBatch)->Arg(64)->Arg(1024);
BENCHMARK(BM_CHeapWatchPair);
BENCHMARK(BM_MallocPair)->Name("BM_MallocPair64")->Arg(64);
BENCHMARK(BM_CFHeapPair);
BENCHMARK(BM_CFHeapPairEmptyPool);
BENCHMARK(BM_MallocBatch)->Name("BM_MallocBatch64")->Arg(64);
BENCHMARK(BM_CFHeapBatch);
BENCHMARK(BM_MallocPair)->Name("BM_MallocPair64/threads")->Arg(64)->Threads(2);
BENCHMARK(BM_CHeapPair)->Name("BM_CHeapPair64/threads")->Arg(64)->Threads(2);
BENCHMARK(BM_CFHeapPair)->Name("BM_CFHeapPair/threads")->Threads(2);
BENCHMARK(BM_MallocBatch)->Name("BM_MallocBatch64/threads")->Arg(64)->Threads(2);
BENCHMARK(BM_CFHeapBatch)->Name("BM_CFHeapBatch/threads")->Threads(2);
BENCHMARK(BM_MallocPair)->Name("BM_MallocPair64/multithreaded")->Arg(64);
BENCHMARK(BM_CHeapPair)->Name("BM_CHeapPair64/multithreaded")->Arg(64);
BENCHMARK(BM_CFHeapPair)->Name("BM_CFHeapPair/multithreaded");

}  // namespace
