// FFT throughput in GFLOPS (5 n log2 n per transform): the library's transforms against FFTW, KissFFT
// (single precision only as packaged) and a textbook radix-2 written here, at 1024 and 32768 points
// (the largest 1-D size), 256 x 256 and 512 x 512 grids. Every round trip is a forward transform,
// an inverse one and the 1/n scaling, so the data stays bounded.
#include <benchmark/benchmark.h>

#include <cmath>
#include <complex>
#include <random>
#include <type_traits>
#include <vector>

#include "zrobj/cfft.h"

#ifdef ZROBJ_BENCH_HAVE_FFTW
#include <fftw3.h>
#endif
#ifdef ZROBJ_BENCH_HAVE_KISSFFT
#include <kiss_fft.h>
#include <kiss_fftnd.h>
#endif

namespace {

template <class T>
using OneD = std::conditional_t<std::is_same_v<T, double>, CFFT_1Dd, CFFT_1Df>;
template <class T>
using TwoD = std::conditional_t<std::is_same_v<T, double>, CFFT_2Dd, CFFT_2Df>;

template <class T>
void Fill(T* re, T* im, unsigned count) {
  std::mt19937 rng(1);
  std::uniform_real_distribution<T> d(-1, 1);
  for (unsigned i = 0; i < count; ++i) re[i] = d(rng), im[i] = d(rng);
}

template <class T>
void FillInterleaved(std::complex<T>* data, unsigned count) {
  std::vector<T> re(count), im(count);
  Fill(re.data(), im.data(), count);
  for (unsigned i = 0; i < count; ++i) data[i] = {re[i], im[i]};
}

// Runs `round_trip` once per iteration and reports GFLOPS for two transforms of `points`.
template <class RoundTrip>
void Measure(benchmark::State& state, unsigned points, RoundTrip round_trip) {
  for (auto _ : state) round_trip();
  const double flops = 2 * 5.0 * points * std::log2(static_cast<double>(points));
  state.counters["GFLOPS"] =
      benchmark::Counter(flops * 1e-9 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.SetItemsProcessed(state.iterations() * 2);
}

template <class Fft>
void LibraryRoundTrips(benchmark::State& state, Fft& fft, unsigned points) {
  Fill(fft.ARe(), fft.AIm(), points);
  Measure(state, points, [&] {
    fft.FFT(1, 1);
    fft.FFT(-1, 1);
    benchmark::DoNotOptimize(fft.ARe()[1]);
  });
}

template <class T>
void BM_Library1D(benchmark::State& state) {
  const unsigned n = static_cast<unsigned>(state.range(0));
  OneD<T> fft;
  if (!fft.Open(n)) return state.SkipWithError("open failed");
  LibraryRoundTrips(state, fft, n);
}

template <class T>
void BM_Library2D(benchmark::State& state) {
  const unsigned n = static_cast<unsigned>(state.range(0));
  TwoD<T> fft;
  if (!fft.Open(n, n)) return state.SkipWithError("open failed");
  LibraryRoundTrips(state, fft, n * n);
}

template <class T>
void Scale(std::complex<T>* data, unsigned count) {
  const T factor = T{1} / static_cast<T>(count);
  for (unsigned i = 0; i < count; ++i) data[i] *= factor;
}

// Iterative in-place radix-2 on interleaved complex values with a half-size twiddle table, as in
// the textbooks; a column pass for grids copies each column out and back.
template <class T>
class Textbook {
 public:
  explicit Textbook(unsigned n) : n_(n), rev_(n), twiddles_(n / 2) {
    unsigned bits = 0;
    while ((1u << bits) < n) ++bits;
    for (unsigned i = 0; i < n; ++i) {
      unsigned r = 0;
      for (unsigned b = 0; b < bits; ++b) r |= ((i >> b) & 1u) << (bits - 1 - b);
      rev_[i] = r;
    }
    for (unsigned k = 0; k < n / 2; ++k) twiddles_[k] = std::polar(T{1}, static_cast<T>(-2 * M_PI * k / n));
  }

  void Transform(std::complex<T>* x, bool inverse) const {
    for (unsigned i = 0; i < n_; ++i) {
      if (i < rev_[i]) std::swap(x[i], x[rev_[i]]);
    }
    for (unsigned half = 1; half < n_; half *= 2) {
      const unsigned step = n_ / (2 * half);
      for (unsigned block = 0; block < n_; block += 2 * half) {
        for (unsigned j = 0; j < half; ++j) {
          const std::complex<T> w = inverse ? std::conj(twiddles_[j * step]) : twiddles_[j * step];
          const std::complex<T> t = w * x[block + j + half];
          x[block + j + half] = x[block + j] - t;
          x[block + j] += t;
        }
      }
    }
  }

 private:
  unsigned n_;
  std::vector<unsigned> rev_;
  std::vector<std::complex<T>> twiddles_;
};

void BM_Textbook1D(benchmark::State& state) {
  const unsigned n = static_cast<unsigned>(state.range(0));
  const Textbook<double> fft(n);
  std::vector<std::complex<double>> data(n);
  FillInterleaved(data.data(), n);
  Measure(state, n, [&] {
    fft.Transform(data.data(), false);
    fft.Transform(data.data(), true);
    Scale(data.data(), n);
    benchmark::DoNotOptimize(data[1]);
  });
}

void BM_Textbook2D(benchmark::State& state) {
  const unsigned n = static_cast<unsigned>(state.range(0));
  const Textbook<double> fft(n);
  std::vector<std::complex<double>> data(n * n), column(n);
  FillInterleaved(data.data(), n * n);
  const auto pass = [&](bool inverse) {
    for (unsigned y = 0; y < n; ++y) fft.Transform(data.data() + y * n, inverse);
    for (unsigned x = 0; x < n; ++x) {
      for (unsigned y = 0; y < n; ++y) column[y] = data[y * n + x];
      fft.Transform(column.data(), inverse);
      for (unsigned y = 0; y < n; ++y) data[y * n + x] = column[y];
    }
  };
  Measure(state, n * n, [&] {
    pass(false);
    pass(true);
    Scale(data.data(), n * n);
    benchmark::DoNotOptimize(data[1]);
  });
}

#ifdef ZROBJ_BENCH_HAVE_FFTW
// In-place interleaved plans measured by FFTW itself, its fastest ordinary use; one text for both
// precisions, whose interfaces differ only in their prefix.
template <class T>
void FftwRoundTrips(benchmark::State& state, unsigned n, unsigned m);

#define ZR_FFTW_ROUND_TRIPS(T, P)                                                                       \
  template <>                                                                                           \
  void FftwRoundTrips<T>(benchmark::State & state, unsigned n, unsigned m) {                            \
    const unsigned points = n * m;                                                                      \
    auto* raw = static_cast<P##complex*>(P##malloc(sizeof(P##complex) * points));                     \
    const auto plan = [&](int sign) {                                                                   \
      return m == 1 ? P##plan_dft_1d(n, raw, raw, sign, FFTW_MEASURE)                                   \
                    : P##plan_dft_2d(m, n, raw, raw, sign, FFTW_MEASURE);                               \
    };                                                                                                  \
    P##plan forward = plan(FFTW_FORWARD), backward = plan(FFTW_BACKWARD);                              \
    auto* data = reinterpret_cast<std::complex<T>*>(raw);                                              \
    FillInterleaved(data, points); /* planning with FFTW_MEASURE overwrites the array */               \
    Measure(state, points, [&] {                                                                        \
      P##execute(forward);                                                                              \
      P##execute(backward);                                                                             \
      Scale(data, points);                                                                              \
      benchmark::DoNotOptimize(data[1]);                                                                \
    });                                                                                                 \
    P##destroy_plan(forward);                                                                           \
    P##destroy_plan(backward);                                                                          \
    P##free(raw);                                                                                       \
  }
ZR_FFTW_ROUND_TRIPS(double, fftw_)
ZR_FFTW_ROUND_TRIPS(float, fftwf_)
#undef ZR_FFTW_ROUND_TRIPS

template <class T>
void BM_Fftw1D(benchmark::State& state) {
  FftwRoundTrips<T>(state, static_cast<unsigned>(state.range(0)), 1);
}
template <class T>
void BM_Fftw2D(benchmark::State& state) {
  const unsigned n = static_cast<unsigned>(state.range(0));
  FftwRoundTrips<T>(state, n, n);
}
#endif

#ifdef ZROBJ_BENCH_HAVE_KISSFFT
// KissFFT as packaged is single precision; it transforms out of place, so each way writes to a
// second buffer and the inverse comes back.
template <class Cfg, class Transform>
void KissRoundTrips(benchmark::State& state, unsigned points, Cfg forward, Cfg backward, Transform transform) {
  std::vector<std::complex<float>> data(points), spectrum(points);
  FillInterleaved(data.data(), points);
  auto* in = reinterpret_cast<kiss_fft_cpx*>(data.data());
  auto* out = reinterpret_cast<kiss_fft_cpx*>(spectrum.data());
  Measure(state, points, [&] {
    transform(forward, in, out);
    transform(backward, out, in);
    Scale(data.data(), points);
    benchmark::DoNotOptimize(data[1]);
  });
  kiss_fft_free(forward);
  kiss_fft_free(backward);
}

void BM_Kiss1D(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  KissRoundTrips(state, n, kiss_fft_alloc(n, 0, nullptr, nullptr), kiss_fft_alloc(n, 1, nullptr, nullptr), kiss_fft);
}

void BM_Kiss2D(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const int dims[2] = {n, n};
  KissRoundTrips(state, n * n, kiss_fftnd_alloc(dims, 2, 0, nullptr, nullptr),
                 kiss_fftnd_alloc(dims, 2, 1, nullptr, nullptr), kiss_fftnd);
}
#endif

BENCHMARK(BM_Library1D<double>)->Arg(1024)->Arg(32768);
BENCHMARK(BM_Textbook1D)->Arg(1024)->Arg(32768);
BENCHMARK(BM_Library2D<double>)->Arg(256)->Arg(512);
BENCHMARK(BM_Textbook2D)->Arg(256)->Arg(512);
BENCHMARK(BM_Library1D<float>)->Arg(1024)->Arg(32768);
BENCHMARK(BM_Library2D<float>)->Arg(256)->Arg(512);
#ifdef ZROBJ_BENCH_HAVE_FFTW
BENCHMARK(BM_Fftw1D<double>)->Arg(1024)->Arg(32768);
BENCHMARK(BM_Fftw2D<double>)->Arg(256)->Arg(512);
BENCHMARK(BM_Fftw1D<float>)->Arg(1024)->Arg(32768);
BENCHMARK(BM_Fftw2D<float>)->Arg(256)->Arg(512);
#endif
#ifdef ZROBJ_BENCH_HAVE_KISSFFT
BENCHMARK(BM_Kiss1D)->Arg(1024)->Arg(32768);
BENCHMARK(BM_Kiss2D)->Arg(256)->Arg(512);
#endif

}  // namespace
