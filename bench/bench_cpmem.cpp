// Copying and dropping a CPMemory handle against std::shared_ptr, and growth of a block by small
// Realloc steps against std::vector<char>::resize.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "zrobj/cpmem.h"

namespace {

void BM_CPMemoryCopy(benchmark::State& state) {
  CPMemory block;
  block.Alloc(64, 0);
  for (auto _ : state) {
    CPMemory copy(block);
    benchmark::DoNotOptimize(copy.GetCDataPtr());
  }
}
BENCHMARK(BM_CPMemoryCopy);

void BM_SharedPtrCopy(benchmark::State& state) {
  auto block = std::make_shared<std::vector<char>>(64);
  for (auto _ : state) {
    std::shared_ptr<std::vector<char>> copy(block);
    benchmark::DoNotOptimize(copy.get());
  }
}
BENCHMARK(BM_SharedPtrCopy);

constexpr unsigned long kGrowTo = 64 * 1024;

void BM_CPMemoryGrow(benchmark::State& state) {
  for (auto _ : state) {
    CPMemory block;
    for (unsigned long size = 16; size <= kGrowTo; size += 16) block.Realloc(size, 0, 0);
    benchmark::DoNotOptimize(block.GetCDataPtr());
  }
}
BENCHMARK(BM_CPMemoryGrow);

void BM_VectorGrow(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<char> block;
    for (unsigned long size = 16; size <= kGrowTo; size += 16) block.resize(size);
    benchmark::DoNotOptimize(block.data());
  }
}
BENCHMARK(BM_VectorGrow);

}  // namespace
