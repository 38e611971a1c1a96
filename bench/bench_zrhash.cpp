// Hash-id engine throughput on 16-byte names and 1 MiB buffers, against a plain byte-wise
// CRC-16/XMODEM and zlib's crc32.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "zrobj/zrhash.h"

#if ZROBJ_BENCH_HAVE_ZLIB
#include <zlib.h>
#endif

namespace {

constexpr std::size_t kMiB = 1 << 20;

// Sixteen names of 16 characters each, like class names.
const std::vector<std::string>& Names() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> out;
    std::mt19937 rng(1);
    for (int i = 0; i < 16; ++i) {
      std::string s = "C";
      while (s.size() < 16) s += static_cast<char>('A' + rng() % 26 + (rng() % 2 ? 32 : 0));
      out.push_back(s);
    }
    return out;
  }();
  return names;
}

const std::vector<std::uint8_t>& Buffer() {
  static const std::vector<std::uint8_t> data = [] {
    std::vector<std::uint8_t> out(kMiB);
    std::mt19937 rng(2);
    for (auto& b : out) b = static_cast<std::uint8_t>(rng());
    return out;
  }();
  return data;
}

// The textbook byte-at-a-time CRC-16/XMODEM: one 256-entry table, one lookup per byte.
struct Crc16Xmodem {
  std::array<std::uint16_t, 256> table{};
  Crc16Xmodem() {
    for (unsigned i = 0; i < 256; ++i) {
      std::uint16_t v = static_cast<std::uint16_t>(i << 8);
      for (int k = 0; k < 8; ++k) v = static_cast<std::uint16_t>(v & 0x8000 ? (v << 1) ^ 0x1021 : v << 1);
      table[i] = v;
    }
  }
  std::uint16_t operator()(const void* data, std::size_t n) const {
    const auto* p = static_cast<const std::uint8_t*>(data);
    std::uint16_t crc = 0;
    for (std::size_t i = 0; i < n; ++i) crc = static_cast<std::uint16_t>((crc << 8) ^ table[(crc >> 8) ^ p[i]]);
    return crc;
  }
};
const Crc16Xmodem kXmodem;

template <class Fn>
void OverNames(benchmark::State& state, Fn fn) {
  const auto& names = Names();
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(fn(names[i & 15]));
    ++i;
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 16);
}

template <class Fn>
void OverBuffer(benchmark::State& state, Fn fn) {
  const auto& data = Buffer();
  for (auto _ : state) benchmark::DoNotOptimize(fn(data.data(), data.size()));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(kMiB));
}

void BM_HashId_Name16(benchmark::State& state) {
  OverNames(state, [](const std::string& s) { return GetHashID(s.c_str()); });
}
void BM_HashIdFolded_Name16(benchmark::State& state) {
  OverNames(state, [](const std::string& s) { return GetHashIDi(s.c_str()); });
}
void BM_Xmodem_Name16(benchmark::State& state) {
  OverNames(state, [](const std::string& s) { return kXmodem(s.data(), 16); });
}
void BM_HashIdEngine_1MiB(benchmark::State& state) {
  OverBuffer(state, [](const void* p, std::size_t n) { return zr::HashIdEngine().Eval(p, static_cast<unsigned>(n)); });
}
void BM_Crc1615_1MiB(benchmark::State& state) {
  OverBuffer(state, [](const void* p, std::size_t n) { return GetCRC1615(p, static_cast<DWORD>(n)); });
}
void BM_Xmodem_1MiB(benchmark::State& state) {
  OverBuffer(state, [](const void* p, std::size_t n) { return kXmodem(p, n); });
}
BENCHMARK(BM_HashId_Name16);
BENCHMARK(BM_HashIdFolded_Name16);
BENCHMARK(BM_Xmodem_Name16);
BENCHMARK(BM_HashIdEngine_1MiB);
BENCHMARK(BM_Crc1615_1MiB);
BENCHMARK(BM_Xmodem_1MiB);

#if ZROBJ_BENCH_HAVE_ZLIB
void BM_ZlibCrc32_Name16(benchmark::State& state) {
  OverNames(state, [](const std::string& s) {
    return crc32(0, reinterpret_cast<const Bytef*>(s.data()), 16);
  });
}
void BM_ZlibCrc32_1MiB(benchmark::State& state) {
  OverBuffer(state, [](const void* p, std::size_t n) {
    return crc32(0, static_cast<const Bytef*>(p), static_cast<uInt>(n));
  });
}
BENCHMARK(BM_ZlibCrc32_Name16);
BENCHMARK(BM_ZlibCrc32_1MiB);
#endif

}  // namespace
