// CZRFile throughput: many small sequential writes with and without the write-behind cache, and
// reading a file through Read against reading it through a mapped view.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/files.h"
#include "platform/text.h"
#include "zrobj/czrfile.h"

namespace {

std::u16string BenchPath(const char* name) {
  return zr::os::Utf8ToUtf16(std::string("/tmp/zrobj-bench-") + name);
}

// 10,000 writes of 10 bytes, then the close that writes everything out.
void SmallWrites(benchmark::State& state, DWORD cache_size) {
  const std::u16string path = BenchPath(cache_size ? "cached" : "direct");
  const char record[10] = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'};
  for (auto _ : state) {
    CZRFile file(path.c_str());
    if (file.Open(zr::os::kGenericWrite, 0, zr::os::kCreateAlways, 0, cache_size) != 0) {
      state.SkipWithError("open failed");
      break;
    }
    for (int i = 0; i < 10000; ++i) file.Write(record, sizeof record);
    file.Close();
  }
  state.SetBytesProcessed(state.iterations() * 100000);
  zr::os::DeleteFileW(path.c_str());
}
void BM_SmallWritesCached(benchmark::State& state) { SmallWrites(state, 65536); }
void BM_SmallWritesDirect(benchmark::State& state) { SmallWrites(state, 0); }
BENCHMARK(BM_SmallWritesCached)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SmallWritesDirect)->Unit(benchmark::kMillisecond);

constexpr DWORD kReadSize = 8u << 20;

std::u16string PrepareReadFile() {
  const std::u16string path = BenchPath("read");
  CZRFile file(path.c_str());
  std::vector<char> data(kReadSize, 'r');
  file.Open(zr::os::kGenericWrite, 0, zr::os::kCreateAlways, 0, 0);
  file.Write(data.data(), kReadSize);
  file.Close();
  return path;
}

void BM_ReadWhole(benchmark::State& state) {
  const std::u16string path = PrepareReadFile();
  std::vector<char> buffer(kReadSize);
  for (auto _ : state) {
    CZRFile file(path.c_str());
    file.Open(zr::os::kGenericRead, zr::os::kFileShareRead, zr::os::kOpenExisting, 0, 0);
    benchmark::DoNotOptimize(file.Read(buffer.data(), kReadSize));
    file.Close();
  }
  state.SetBytesProcessed(state.iterations() * kReadSize);
  zr::os::DeleteFileW(path.c_str());
}
BENCHMARK(BM_ReadWhole)->Unit(benchmark::kMillisecond);

void BM_MapWhole(benchmark::State& state) {
  const std::u16string path = PrepareReadFile();
  for (auto _ : state) {
    CZRFile file(path.c_str());
    const auto* view = static_cast<const unsigned char*>(file.MapFileR(0, 0));
    unsigned sum = 0;
    for (DWORD i = 0; view && i < kReadSize; i += 4096) sum += view[i];
    benchmark::DoNotOptimize(sum);
    file.UnmapFile();
  }
  state.SetBytesProcessed(state.iterations() * kReadSize);
  zr::os::DeleteFileW(path.c_str());
}
BENCHMARK(BM_MapWhole)->Unit(benchmark::kMillisecond);

}  // namespace
