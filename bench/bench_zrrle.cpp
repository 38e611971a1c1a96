// RLE throughput on one channel (stride 3) of a 1920x1080 24-bit frame: compression, plain and
// checked expansion, for a frame with flat areas, gradients and noise, and for pure noise.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "zrobj/byteorder.h"
#include "zrobj/zrrle.h"

namespace {

constexpr DWORD kWidth = 1920, kHeight = 1080, kStride = 3;
constexpr DWORD kCount = kWidth * kHeight;  // elements of one channel

// A frame like an edited video still: the top third flat title areas, the middle a horizontal
// gradient with short runs, the bottom camera-like noise.
std::vector<BYTE> MakeFrame(bool noise_only) {
  std::vector<BYTE> frame(std::size_t{kCount} * kStride);
  std::mt19937 rng(3);
  for (DWORD y = 0; y < kHeight; ++y) {
    for (DWORD x = 0; x < kWidth; ++x) {
      for (DWORD c = 0; c < kStride; ++c) {
        BYTE v;
        if (noise_only || y >= 2 * kHeight / 3) {
          v = static_cast<BYTE>(rng());
        } else if (y < kHeight / 3) {
          v = static_cast<BYTE>(((x / 320) * 40 + (y / 120) * 16 + c * 7) & 0xFF);
        } else {
          v = static_cast<BYTE>((x / 8 + c * 30) & 0xFF);
        }
        frame[(std::size_t{y} * kWidth + x) * kStride + c] = v;
      }
    }
  }
  return frame;
}

const std::vector<BYTE>& Frame(bool noise_only) {
  static const std::vector<BYTE> mixed = MakeFrame(false);
  static const std::vector<BYTE> noise = MakeFrame(true);
  return noise_only ? noise : mixed;
}

std::vector<BYTE> CompressChannel(const std::vector<BYTE>& frame) {
  std::vector<BYTE> block(kCount + 16);
  RLECompress(block.data(), static_cast<DWORD>(block.size()), frame.data(), kCount, kStride);
  return block;
}

void Finish(benchmark::State& state, const std::vector<BYTE>& block) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kCount);
  const DWORD size = zr::LoadLE32(block.data() + 4);
  state.counters["ratio"] = static_cast<double>(size) / kCount;  // compressed / original
}

void BM_RleCompress(benchmark::State& state) {
  const auto& frame = Frame(state.range(0) != 0);
  std::vector<BYTE> block(kCount + 16);
  for (auto _ : state) {
    benchmark::DoNotOptimize(RLECompress(block.data(), static_cast<DWORD>(block.size()), frame.data(), kCount, kStride));
    benchmark::ClobberMemory();
  }
  Finish(state, block);
}

void BM_RleDecompress(benchmark::State& state) {
  const auto block = CompressChannel(Frame(state.range(0) != 0));
  std::vector<BYTE> out(std::size_t{kCount} * kStride);
  for (auto _ : state) {
    RLEDecompress(out.data(), block.data(), kStride);
    benchmark::ClobberMemory();
  }
  Finish(state, block);
}

void BM_RleDecompressChecked(benchmark::State& state) {
  const auto block = CompressChannel(Frame(state.range(0) != 0));
  std::vector<BYTE> out(std::size_t{kCount} * kStride);
  for (auto _ : state) {
    benchmark::DoNotOptimize(RLEDecompressChecked(out.data(), static_cast<DWORD>(out.size()), block.data(),
                                                  static_cast<DWORD>(block.size()), kStride, nullptr, 0));
    benchmark::ClobberMemory();
  }
  Finish(state, block);
}

// Argument: 0 = mixed frame, 1 = pure noise.
BENCHMARK(BM_RleCompress)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RleDecompress)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RleDecompressChecked)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
