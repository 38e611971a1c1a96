// Colour quantisation of a 1920 x 1080 photo-like image (gradients, noise and shapes, made the same
// way every run) to 256 colours: the octree in Mpx/s and PSNR, against libimagequant at its default
// and its fastest speed, both without dithering.
#include <benchmark/benchmark.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "zrobj/cppaldib.h"
#include "zrobj/cptcdib.h"

#ifdef ZROBJ_BENCH_HAVE_IMAGEQUANT
#include <libimagequant.h>
#endif

namespace {

constexpr long kWidth = 1920, kHeight = 1080;
constexpr unsigned kColours = 256;

BYTE Clamp(double v) { return static_cast<BYTE>(v < 0 ? 0 : v > 255 ? 255 : v); }

// Sky-like vertical gradient, a horizontal hue sweep, sensor-like noise, a few discs and boxes.
const CPTCDib& Photo() {
  static const CPTCDib image = [] {
    CPTCDib dib;
    dib.Alloc(kWidth, kHeight, 24);
    std::mt19937 rng(2024);
    std::normal_distribution<double> noise(0, 4);
    struct Disc {
      double x, y, r, red, green, blue;
    };
    std::vector<Disc> discs;
    std::uniform_real_distribution<double> u(0, 1);
    for (int i = 0; i < 12; ++i) {
      discs.push_back({u(rng) * kWidth, u(rng) * kHeight, 40 + u(rng) * 200, u(rng) * 255, u(rng) * 255, u(rng) * 255});
    }
    const unsigned long stride = CPTCDib::GetStride(kWidth, 24);
    for (long y = 0; y < kHeight; ++y) {
      BYTE* p = dib.GetBits() + y * stride;
      for (long x = 0; x < kWidth; ++x, p += 3) {
        const double fy = double(y) / kHeight, fx = double(x) / kWidth;
        double r = 60 + 150 * fy + 40 * std::sin(6.0 * fx), g = 90 + 120 * fy, b = 140 + 100 * fy - 30 * fx;
        if ((x / 240 + y / 180) % 5 == 0) r *= 0.6, g *= 0.7, b *= 0.5;  // boxes in shadow
        for (const Disc& d : discs) {
          const double dist = std::hypot(x - d.x, y - d.y);
          if (dist < d.r) {
            const double shade = 1 - 0.5 * dist / d.r;
            r = d.red * shade, g = d.green * shade, b = d.blue * shade;
          }
        }
        p[0] = Clamp(b + noise(rng)), p[1] = Clamp(g + noise(rng)), p[2] = Clamp(r + noise(rng));
      }
    }
    return dib;
  }();
  return image;
}

// PSNR over the three colour channels; colour(x, y) gives the quantised B, G, R.
template <class ColourAt>
double Psnr(ColourAt colour) {
  const CPTCDib& src = Photo();
  const unsigned long stride = CPTCDib::GetStride(kWidth, 24);
  double squared = 0;
  for (long y = 0; y < kHeight; ++y) {
    const BYTE* p = src.GetBits() + y * stride;
    for (long x = 0; x < kWidth; ++x, p += 3) {
      const auto q = colour(x, y);
      for (int c = 0; c < 3; ++c) squared += double(p[c] - q[c]) * (p[c] - q[c]);
    }
  }
  return 10 * std::log10(255.0 * 255.0 / (squared / (3.0 * kWidth * kHeight)));
}

void Report(benchmark::State& state, double psnr) {
  state.counters["Mpx/s"] =
      benchmark::Counter(1e-6 * kWidth * kHeight * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["PSNR_dB"] = psnr;
}

void BM_OctTree(benchmark::State& state) {
  const CPTCDib& src = Photo();
  COctTree tree;
  for (auto _ : state) {
    if (!tree.SetDIB(src, kColours)) return state.SkipWithError("quantisation failed");
  }
  const CPPalDib pal = tree.GetDIB();
  state.counters["colours"] = static_cast<double>(pal.GetColours());
  Report(state, Psnr([&](long x, long y) {
           const RGBQUAD& q = pal.GetPalette()[pal.GetIndex(x, y)];
           return std::array<BYTE, 3>{q.rgbBlue, q.rgbGreen, q.rgbRed};
         }));
}
BENCHMARK(BM_OctTree)->Unit(benchmark::kMillisecond);

#ifdef ZROBJ_BENCH_HAVE_IMAGEQUANT
void BM_ImageQuant(benchmark::State& state) {
  const CPTCDib& src = Photo();
  const unsigned long stride = CPTCDib::GetStride(kWidth, 24);
  std::vector<BYTE> rgba(4 * kWidth * kHeight), indices(kWidth * kHeight);
  for (long y = 0; y < kHeight; ++y) {
    for (long x = 0; x < kWidth; ++x) {
      const BYTE* p = src.GetBits() + y * stride + 3 * x;
      BYTE* q = &rgba[4 * (y * kWidth + x)];
      q[0] = p[2], q[1] = p[1], q[2] = p[0], q[3] = 255;
    }
  }
  liq_attr* attr = liq_attr_create();
  liq_set_max_colors(attr, kColours);
  liq_set_speed(attr, static_cast<int>(state.range(0)));
  liq_palette palette{};
  for (auto _ : state) {
    liq_image* image = liq_image_create_rgba(attr, rgba.data(), kWidth, kHeight, 0);
    liq_result* result = nullptr;
    if (liq_image_quantize(image, attr, &result) != LIQ_OK) return state.SkipWithError("quantisation failed");
    liq_set_dithering_level(result, 0);
    liq_write_remapped_image(result, image, indices.data(), indices.size());
    palette = *liq_get_palette(result);
    liq_result_destroy(result);
    liq_image_destroy(image);
  }
  liq_attr_destroy(attr);
  state.counters["colours"] = palette.count;
  Report(state, Psnr([&](long x, long y) {
           const liq_color& c = palette.entries[indices[y * kWidth + x]];
           return std::array<BYTE, 3>{c.b, c.g, c.r};
         }));
}
BENCHMARK(BM_ImageQuant)->Arg(4)->Arg(10)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
