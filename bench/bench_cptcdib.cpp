// CPTCDib scalers on a video frame: 1920x1080 -> 720x576, 32 bits. The bilinear scaler against the
// bilinear resizers of stb_image_resize and swscale (when present); the nearest-sample scaler against
// a memcpy of the same target bytes and of the source rows it must read. Items are source pixels (Mpx/s of source), bytes target bytes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "zrobj/cptcdib.h"

#ifdef ZROBJ_BENCH_HAVE_STB
#define STB_IMAGE_RESIZE_IMPLEMENTATION
#define STB_IMAGE_RESIZE_STATIC
#include <stb_image_resize.h>
#endif
#ifdef ZROBJ_BENCH_HAVE_SWSCALE
extern "C" {
#include <libswscale/swscale.h>
}
#endif

namespace {

constexpr long kSrcW = 1920, kSrcH = 1080, kDstW = 720, kDstH = 576;

const CPTCDib& Source() {
  static const CPTCDib source = [] {
    CPTCDib dib;
    dib.Alloc(kSrcW, kSrcH, 32);
    std::mt19937 rng(7);
    BYTE* p = dib.GetBits();
    for (unsigned long i = 0; i < dib.GetDIBSize(); ++i) p[i] = static_cast<BYTE>(rng());
    return dib;
  }();
  return source;
}

void Count(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * kSrcW * kSrcH);
  state.SetBytesProcessed(state.iterations() * kDstW * kDstH * 4);
}

void BM_CPTCDib_Bilinear(benchmark::State& state) {
  const CPTCDib& src = Source();
  CPTCDib dst;
  for (auto _ : state) {
    dst.ScaleDIBBilinear(src, src.GetBits(), kDstW, kDstH, 32);
    benchmark::DoNotOptimize(dst.GetBits());
  }
  Count(state);
}
BENCHMARK(BM_CPTCDib_Bilinear)->Unit(benchmark::kMillisecond);

void BM_CPTCDib_Fast(benchmark::State& state) {
  const CPTCDib& src = Source();
  CPTCDib dst;
  for (auto _ : state) {
    dst.ScaleDIBFast(src, src.GetBits(), kDstW, kDstH, 32);
    benchmark::DoNotOptimize(dst.GetBits());
  }
  Count(state);
}
BENCHMARK(BM_CPTCDib_Fast)->Unit(benchmark::kMillisecond);

// The bandwidth reference of the fast scaler: copying the target's bytes once.
void BM_Memcpy_TargetBytes(benchmark::State& state) {
  const std::vector<BYTE> from(kDstW * kDstH * 4, 1);
  std::vector<BYTE> to(from.size());
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), from.size());
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
  Count(state);
}
BENCHMARK(BM_Memcpy_TargetBytes)->Unit(benchmark::kMillisecond);

// What the nearest-sample scaler cannot avoid: its 576 target rows read 576 whole source rows (every
// cache line of them), 4.4 MB. Copying those rows once is the bandwidth floor of the source side.
void BM_Memcpy_SampledSourceRows(benchmark::State& state) {
  const CPTCDib& src = Source();
  const std::size_t row = kSrcW * 4;
  std::vector<BYTE> to(row * kDstH);
  for (auto _ : state) {
    for (long y = 0; y < kDstH; ++y) {
      const long from = y * (kSrcH - 1) / (kDstH - 1);
      std::memcpy(to.data() + y * row, src.GetBits() + from * row, row);
    }
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
  Count(state);
}
BENCHMARK(BM_Memcpy_SampledSourceRows)->Unit(benchmark::kMillisecond);

#ifdef ZROBJ_BENCH_HAVE_STB
void BM_Stb_Triangle(benchmark::State& state) {
  const CPTCDib& src = Source();
  std::vector<BYTE> out(kDstW * kDstH * 4);
  for (auto _ : state) {
    stbir_resize_uint8_generic(src.GetBits(), kSrcW, kSrcH, kSrcW * 4, out.data(), kDstW, kDstH, kDstW * 4, 4,
                               STBIR_ALPHA_CHANNEL_NONE, 0, STBIR_EDGE_CLAMP, STBIR_FILTER_TRIANGLE,
                               STBIR_COLORSPACE_LINEAR, nullptr);
    benchmark::DoNotOptimize(out.data());
  }
  Count(state);
}
BENCHMARK(BM_Stb_Triangle)->Unit(benchmark::kMillisecond);
#endif

#ifdef ZROBJ_BENCH_HAVE_SWSCALE
void BM_Swscale_Bilinear(benchmark::State& state) {
  const CPTCDib& src = Source();
  SwsContext* context = sws_getContext(kSrcW, kSrcH, AV_PIX_FMT_BGRA, kDstW, kDstH, AV_PIX_FMT_BGRA, SWS_BILINEAR,
                                       nullptr, nullptr, nullptr);
  if (context == nullptr) {
    state.SkipWithError("sws_getContext failed");
    return;
  }
  std::vector<BYTE> out(kDstW * kDstH * 4);
  const uint8_t* in_planes[1] = {src.GetBits()};
  const int in_strides[1] = {kSrcW * 4};
  uint8_t* out_planes[1] = {out.data()};
  const int out_strides[1] = {kDstW * 4};
  for (auto _ : state) {
    sws_scale(context, in_planes, in_strides, 0, kSrcH, out_planes, out_strides);
    benchmark::DoNotOptimize(out.data());
  }
  sws_freeContext(context);
  Count(state);
}
BENCHMARK(BM_Swscale_Bilinear)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
