// The library's wide formatter against the C library's snprintf on a typical diagnostics message.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "platform/wformat.h"

namespace {

constexpr char16_t kWideFormat[] = u"\rCHeap::Free: %hs bad block 0x%08X, size %u\r\n";
constexpr char kNarrowFormat[] = "\rCHeap::Free: %s bad block 0x%08X, size %u\r\n";

void BM_AppendFormatWide(benchmark::State& state) {
  std::u16string out;
  out.reserve(128);
  unsigned block = 0xBEEF0000u;
  for (auto _ : state) {
    out.clear();
    const zr::os::FormatArg args[] = {zr::os::MakeFormatArg("MainHeap"), zr::os::MakeFormatArg(block++), zr::os::MakeFormatArg(48u)};
    zr::os::AppendFormatWide(out, kWideFormat, args, 3);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_AppendFormatWide);

void BM_FormatWideNewString(benchmark::State& state) {
  unsigned block = 0xBEEF0000u;
  for (auto _ : state) {
    std::u16string out = zr::os::FormatWide(kWideFormat, "MainHeap", block++, 48u);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_FormatWideNewString);

void BM_Snprintf(benchmark::State& state) {
  char out[128];
  unsigned block = 0xBEEF0000u;
  for (auto _ : state) {
    const int n = std::snprintf(out, sizeof out, kNarrowFormat, "MainHeap", block++, 48u);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(BM_Snprintf);

}  // namespace
