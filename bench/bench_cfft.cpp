// FFT throughput: 1-D forward+inverse pairs of 1024 and 32768 points (the largest 1-D size) and a
// 256 x 256 grid (65536 points), both precisions, against a table-driven naive DFT at 1024 points.
#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <type_traits>
#include <vector>

#include "zrobj/cfft.h"

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

// One forward and one scaled inverse transform per iteration, so the data stays bounded.
// Forward then inverse transform of `points` filled values, once per iteration.
template <class Fft>
void RoundTrips(benchmark::State& state, Fft& fft, unsigned points) {
  Fill(fft.ARe(), fft.AIm(), points);
  for (auto _ : state) {
    fft.FFT(1, 1);
    fft.FFT(-1, 1);
    benchmark::DoNotOptimize(fft.ARe()[1]);
  }
  state.SetItemsProcessed(state.iterations() * 2);
}

template <class T>
void BM_FFT1D(benchmark::State& state) {
  const unsigned n = static_cast<unsigned>(state.range(0));
  OneD<T> fft;
  if (!fft.Open(n)) return state.SkipWithError("open failed");
  RoundTrips(state, fft, n);
}

template <class T>
void BM_FFT2D(benchmark::State& state) {
  const unsigned n = static_cast<unsigned>(state.range(0));
  TwoD<T> fft;
  if (!fft.Open(n, n)) return state.SkipWithError("open failed");
  RoundTrips(state, fft, n * n);
}

// The O(n^2) definition with a precomputed twiddle table, forward then inverse.
template <class T>
void NaiveDft(const std::vector<T>& cs, const std::vector<T>& sn, const T* re, const T* im, T* out_re,
              T* out_im, unsigned n, int sign) {
  for (unsigned k = 0; k < n; ++k) {
    T sr = 0, si = 0;
    for (unsigned j = 0; j < n; ++j) {
      const unsigned t = (j * k) & (n - 1);
      const T c = cs[t], s = sign >= 0 ? -sn[t] : sn[t];
      sr += re[j] * c - im[j] * s;
      si += re[j] * s + im[j] * c;
    }
    out_re[k] = sign >= 0 ? sr : sr / n;
    out_im[k] = sign >= 0 ? si : si / n;
  }
}

template <class T>
void BM_NaiveDFT(benchmark::State& state) {
  const unsigned n = static_cast<unsigned>(state.range(0));
  std::vector<T> cs(n), sn(n), re(n), im(n), xr(n), xi(n);
  for (unsigned k = 0; k < n; ++k) cs[k] = std::cos(2 * M_PI * k / n), sn[k] = std::sin(2 * M_PI * k / n);
  Fill(re.data(), im.data(), n);
  for (auto _ : state) {
    NaiveDft(cs, sn, re.data(), im.data(), xr.data(), xi.data(), n, 1);
    NaiveDft(cs, sn, xr.data(), xi.data(), re.data(), im.data(), n, -1);
    benchmark::DoNotOptimize(re[1]);
  }
  state.SetItemsProcessed(state.iterations() * 2);
}

BENCHMARK(BM_FFT1D<float>)->Arg(1024)->Arg(32768);
BENCHMARK(BM_FFT1D<double>)->Arg(1024)->Arg(32768);
BENCHMARK(BM_FFT2D<float>)->Arg(256);
BENCHMARK(BM_FFT2D<double>)->Arg(256);
BENCHMARK(BM_NaiveDFT<float>)->Arg(1024);
BENCHMARK(BM_NaiveDFT<double>)->Arg(1024);

}  // namespace
