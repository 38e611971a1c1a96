// FFTs in one and two dimensions, both precisions: sizes, edge cases, naive-DFT comparisons,
// round trips, rows/columns decomposition, unpacking and correlations against direct sums.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "zrobj/cfft.h"

namespace {

using Cx = std::complex<long double>;
using Signal = std::vector<Cx>;

template <class T>
using OneD = std::conditional_t<std::is_same_v<T, double>, CFFT_1Dd, CFFT_1Df>;
template <class T>
using TwoD = std::conditional_t<std::is_same_v<T, double>, CFFT_2Dd, CFFT_2Df>;

// Allowed error of an FFT of `count` points of magnitude about 1, in the element type.
template <class T>
double Tolerance(unsigned count) {
  const double log2 = std::log2(static_cast<double>(count));
  return 16 * std::numeric_limits<T>::epsilon() * (log2 + 1) * std::sqrt(static_cast<double>(count));
}

Signal Random(std::mt19937& rng, unsigned count, bool real_only = false) {
  std::uniform_real_distribution<double> d(-1, 1);
  Signal s(count);
  for (Cx& v : s) v = Cx(d(rng), real_only ? 0 : d(rng));
  return s;
}

// Naive DFT along a grid of n x m (row length n); sign >= 0 forward, else inverse with 1/(n m).
Signal NaiveDft(const Signal& in, unsigned n, unsigned m, int sign) {
  const long double pi = std::acos(-1.0L);
  Signal out(in.size());
  for (unsigned v = 0; v < m; ++v) {
    for (unsigned u = 0; u < n; ++u) {
      Cx sum = 0;
      for (unsigned y = 0; y < m; ++y) {
        for (unsigned x = 0; x < n; ++x) {
          const long double turns = static_cast<long double>((u * x) % n) / n + static_cast<long double>((v * y) % m) / m;
          const long double angle = (sign >= 0 ? -2 : 2) * pi * turns;
          sum += in[y * n + x] * Cx(std::cos(angle), std::sin(angle));
        }
      }
      out[v * n + u] = sign >= 0 ? sum : sum / static_cast<long double>(n * m);
    }
  }
  return out;
}

template <class T>
void Load(T* re, T* im, const Signal& s) {
  for (size_t i = 0; i < s.size(); ++i) re[i] = static_cast<T>(s[i].real()), im[i] = static_cast<T>(s[i].imag());
}

template <class T>
Signal Read(const T* re, const T* im, unsigned count) {
  Signal s(count);
  for (unsigned i = 0; i < count; ++i) s[i] = Cx(re[i], im[i]);
  return s;
}

void ExpectNear(const Signal& got, const Signal& want, double tolerance) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i) {
    EXPECT_NEAR(static_cast<double>(got[i].real()), static_cast<double>(want[i].real()), tolerance) << "bin " << i;
    EXPECT_NEAR(static_cast<double>(got[i].imag()), static_cast<double>(want[i].imag()), tolerance) << "bin " << i;
  }
}

// Circular cross-correlation r[s] = sum over j of a[j + s] b[j], in a grid of n x m.
std::vector<long double> DirectCorrelation(const Signal& a, const Signal& b, unsigned n, unsigned m) {
  std::vector<long double> r(n * m);
  for (unsigned sy = 0; sy < m; ++sy) {
    for (unsigned sx = 0; sx < n; ++sx) {
      long double sum = 0;
      for (unsigned y = 0; y < m; ++y) {
        for (unsigned x = 0; x < n; ++x) sum += a[((y + sy) % m) * n + (x + sx) % n].real() * b[y * n + x].real();
      }
      r[sy * n + sx] = sum;
    }
  }
  return r;
}

// a in the real part, b in the imaginary part.
Signal Pack(const Signal& a, const Signal& b) {
  Signal s(a.size());
  for (size_t i = 0; i < a.size(); ++i) s[i] = Cx(a[i].real(), b[i].real());
  return s;
}

template <class T>
class FftTest : public ::testing::Test {};
using Precisions = ::testing::Types<float, double>;
TYPED_TEST_SUITE(FftTest, Precisions);

TYPED_TEST(FftTest, OneDimensionalSizes) {
  OneD<TypeParam> fft;
  EXPECT_EQ(fft.uNFFT(), 0u);
  EXPECT_EQ(fft.ARe(), nullptr);
  for (unsigned bad : {0u, 1u, 3u, 6u, 65536u, 65537u, 1u << 20}) {
    EXPECT_EQ(fft.Open(bad), 0) << bad;
    EXPECT_EQ(fft.uNFFT(), 0u);
    EXPECT_EQ(fft.ARe(), nullptr);
    EXPECT_EQ(fft.AIm(), nullptr);
  }
  for (unsigned good : {2u, 4u, 1024u, 32768u}) {
    ASSERT_EQ(fft.Open(good), 1) << good;
    EXPECT_EQ(fft.uNFFT(), good);
    ASSERT_NE(fft.ARe(), nullptr);
    ASSERT_NE(fft.AIm(), nullptr);
    EXPECT_EQ(fft.ARe()[good - 1], 0);  // zero-filled
  }
  // A failed open leaves the object closed.
  EXPECT_EQ(fft.Open(3), 0);
  EXPECT_EQ(fft.uNFFT(), 0u);
  ASSERT_EQ(fft.Open(8), 1);
  EXPECT_EQ(fft.Close(), 1);
  EXPECT_EQ(fft.ARe(), nullptr);
}

TYPED_TEST(FftTest, ClosedObjectsDoNothing) {
  OneD<TypeParam> one;
  TwoD<TypeParam> two;
  TypeParam re[2] = {5, 5}, im[2] = {5, 5};
  EXPECT_EQ(one.FFT(1, 1), 0);
  EXPECT_EQ(one.UnpackRe(re, im, 2), 0);
  EXPECT_EQ(one.UnpackIm(re, im, 2), 0);
  EXPECT_EQ(one.Correlate(), 0);
  EXPECT_EQ(one.PhaseCorrelate(), 0);
  EXPECT_EQ(one.NormCorrelate(), 0);
  EXPECT_EQ(two.FFT(-1, 1), 0);
  EXPECT_EQ(two.Correlate(), 0);
  EXPECT_EQ(two.Re(0, 0), nullptr);
  EXPECT_EQ(two.ARe(0, 0), nullptr);
  two.Clear();
  EXPECT_EQ(re[0], 5);
  EXPECT_EQ(im[1], 5);
}

TYPED_TEST(FftTest, TwoDimensionalSizes) {
  TwoD<TypeParam> fft;
  const unsigned bad[][2] = {{1, 4}, {4, 1}, {3, 4}, {4, 12}, {65536, 2}, {2, 65536}, {0, 0}};
  for (const auto& size : bad) {
    EXPECT_EQ(fft.Open(size[0], size[1]), 0) << size[0] << "x" << size[1];
    EXPECT_EQ(fft.uNFFT(), 0u);
    EXPECT_EQ(fft.uMFFT(), 0u);
  }
  ASSERT_EQ(fft.Open(32768, 2), 1);
  ASSERT_EQ(fft.Open(2, 32768), 1);
  EXPECT_EQ(fft.uNFFT(), 2u);
  EXPECT_EQ(fft.uMFFT(), 32768u);
  EXPECT_EQ(fft.Re(2, 0), nullptr);
  EXPECT_EQ(fft.Re(0, 32768), nullptr);
  EXPECT_EQ(fft.Re(1, 3), fft.ARe() + 7);
}

TYPED_TEST(FftTest, ImpulseGivesFlatSpectrumAndBack) {
  for (unsigned n = 2; n <= 1024; n *= 2) {
    OneD<TypeParam> fft;
    ASSERT_EQ(fft.Open(n), 1);
    fft.ARe()[0] = 1;
    fft.FFT(1, 1);
    for (unsigned k = 0; k < n; ++k) {
      ASSERT_EQ(fft.ARe()[k], 1) << n << " bin " << k;
      ASSERT_EQ(fft.AIm()[k], 0) << n << " bin " << k;
    }
    fft.FFT(-1, 1);
    Signal impulse(n);
    impulse[0] = 1;
    ExpectNear(Read(fft.ARe(), fft.AIm(), n), impulse, Tolerance<TypeParam>(n) / n);
  }
}

TYPED_TEST(FftTest, MatchesNaiveDftBothWays) {
  std::mt19937 rng(7);
  for (unsigned n : {2u, 4u, 8u, 16u, 64u, 256u, 1024u}) {
    SCOPED_TRACE(n);
    const Signal x = Random(rng, n);
    OneD<TypeParam> fft;
    ASSERT_EQ(fft.Open(n), 1);
    Load(fft.ARe(), fft.AIm(), x);
    EXPECT_EQ(fft.FFT(1, 1), 1);
    ExpectNear(Read(fft.ARe(), fft.AIm(), n), NaiveDft(x, n, 1, 1), Tolerance<TypeParam>(n));
    Load(fft.ARe(), fft.AIm(), x);
    fft.FFT(-1, 1);
    ExpectNear(Read(fft.ARe(), fft.AIm(), n), NaiveDft(x, n, 1, -1), Tolerance<TypeParam>(n) / n);
  }
}

TYPED_TEST(FftTest, RoundTripAndUnscaledInverse) {
  std::mt19937 rng(11);
  for (unsigned n : {2u, 8u, 512u, 4096u, 32768u}) {
    SCOPED_TRACE(n);
    const Signal x = Random(rng, n);
    OneD<TypeParam> fft;
    ASSERT_EQ(fft.Open(n), 1);
    Load(fft.ARe(), fft.AIm(), x);
    fft.FFT(1, 1);
    fft.FFT(-1, 1);
    ExpectNear(Read(fft.ARe(), fft.AIm(), n), x, Tolerance<TypeParam>(n));
    // Other negative signs keep the inverse kernel without the 1/n.
    Load(fft.ARe(), fft.AIm(), x);
    fft.FFT(1, 1);
    fft.FFT(-2, 1);
    Signal scaled = x;
    for (Cx& v : scaled) v *= static_cast<long double>(n);
    ExpectNear(Read(fft.ARe(), fft.AIm(), n), scaled, Tolerance<TypeParam>(n) * n);
  }
}

TYPED_TEST(FftTest, BitReversedInputNeedsNoReorder) {
  std::mt19937 rng(3);
  const unsigned n = 64;
  const Signal x = Random(rng, n);
  OneD<TypeParam> natural, reversed;
  ASSERT_EQ(natural.Open(n), 1);
  ASSERT_EQ(reversed.Open(n), 1);
  Load(natural.ARe(), natural.AIm(), x);
  natural.FFT(1, 1);
  for (unsigned i = 0; i < n; ++i) {
    unsigned r = 0;
    for (unsigned b = 0; b < 6; ++b) r |= ((i >> b) & 1) << (5 - b);
    reversed.ARe()[r] = static_cast<TypeParam>(x[i].real());
    reversed.AIm()[r] = static_cast<TypeParam>(x[i].imag());
  }
  reversed.FFT(1, 0);
  for (unsigned k = 0; k < n; ++k) {
    EXPECT_EQ(reversed.ARe()[k], natural.ARe()[k]);
    EXPECT_EQ(reversed.AIm()[k], natural.AIm()[k]);
  }
}

TYPED_TEST(FftTest, UnpackSplitsTwoRealSpectra) {
  std::mt19937 rng(5);
  for (unsigned n : {2u, 16u, 256u}) {
    SCOPED_TRACE(n);
    const Signal a = Random(rng, n, true), b = Random(rng, n, true);
    OneD<TypeParam> fft;
    ASSERT_EQ(fft.Open(n), 1);
    Load(fft.ARe(), fft.AIm(), Pack(a, b));
    fft.FFT(1, 1);
    std::vector<TypeParam> re(n + 2, 42), im(n + 2, 42);
    EXPECT_EQ(fft.UnpackRe(re.data(), im.data(), n + 2), 1);
    ExpectNear(Read(re.data(), im.data(), n), NaiveDft(a, n, 1, 1), Tolerance<TypeParam>(n));
    EXPECT_EQ(re[n], 42);  // count is clamped to n
    EXPECT_EQ(fft.UnpackIm(re.data(), im.data(), n), 1);
    ExpectNear(Read(re.data(), im.data(), n), NaiveDft(b, n, 1, 1), Tolerance<TypeParam>(n));
  }
}

TYPED_TEST(FftTest, UnpackCountOneWritesOnlyBinZero) {
  for (unsigned n : {2u, 4u}) {
    SCOPED_TRACE(n);
    OneD<TypeParam> fft;
    ASSERT_EQ(fft.Open(n), 1);
    Signal x(n);
    long double sum_re = 0, sum_im = 0;
    for (unsigned i = 0; i < n; ++i) {
      x[i] = Cx(2 * i + 1, 2 * i + 2);
      sum_re += x[i].real(), sum_im += x[i].imag();
    }
    Load(fft.ARe(), fft.AIm(), x);
    fft.FFT(1, 1);
    TypeParam re[4] = {9, 9, 9, 9}, im[4] = {9, 9, 9, 9};
    EXPECT_EQ(fft.UnpackRe(re, im, 0), 0);
    EXPECT_EQ(re[0], 9);
    // The quarter-shifted table's cos(pi/2) is not exactly 0 in either precision.
    EXPECT_EQ(fft.UnpackRe(re, im, 1), 1);
    EXPECT_NEAR(re[0], static_cast<double>(sum_re), 1e-5);
    EXPECT_EQ(im[0], 0);
    EXPECT_EQ(fft.UnpackIm(re, im, 1), 1);
    EXPECT_NEAR(re[0], static_cast<double>(sum_im), 1e-5);
    EXPECT_EQ(im[0], 0);
    for (int k = 1; k < 4; ++k) EXPECT_TRUE(re[k] == 9 && im[k] == 9) << k;
  }
}

TYPED_TEST(FftTest, CorrelateMatchesDirectSum) {
  std::mt19937 rng(13);
  for (unsigned n : {2u, 8u, 128u}) {
    SCOPED_TRACE(n);
    const Signal a = Random(rng, n, true), b = Random(rng, n, true);
    OneD<TypeParam> fft;
    ASSERT_EQ(fft.Open(n), 1);
    Load(fft.ARe(), fft.AIm(), Pack(a, b));
    EXPECT_EQ(fft.Correlate(), 1);
    const std::vector<long double> want = DirectCorrelation(a, b, n, 1);
    for (unsigned s = 0; s < n; ++s) EXPECT_NEAR(fft.ARe()[s], static_cast<double>(want[s]), Tolerance<TypeParam>(n) * 4) << s;
  }
}

TYPED_TEST(FftTest, CorrelationPeaksAtTheShift) {
  std::mt19937 rng(17);
  const unsigned shifts[][2] = {{2, 0}, {2, 1}, {256, 0}, {256, 1}, {256, 37}, {256, 255}};
  for (const auto& [n, shift] : shifts) {
    SCOPED_TRACE(testing::Message() << n << " shifted by " << shift);
    const Signal b = Random(rng, n, true);
    Signal a(n);
    for (unsigned j = 0; j < n; ++j) a[j] = b[(j + n - shift) % n];
    OneD<TypeParam> fft;
    ASSERT_EQ(fft.Open(n), 1);
    for (int kind = 0; kind < 3; ++kind) {
      Load(fft.ARe(), fft.AIm(), Pack(a, b));
      kind == 0 ? fft.Correlate() : kind == 1 ? fft.PhaseCorrelate() : fft.NormCorrelate();
      unsigned best = 0;
      for (unsigned s = 1; s < n; ++s) best = fft.ARe()[s] > fft.ARe()[best] ? s : best;
      EXPECT_EQ(best, shift) << "kind " << kind;
      if (kind > 0) {
        // A pure shift normalises to a unit impulse.
        EXPECT_NEAR(fft.ARe()[shift], 1.0, Tolerance<TypeParam>(n) * 4);
        EXPECT_NEAR(fft.ARe()[(shift + 1) % n], 0.0, Tolerance<TypeParam>(n) * 4);
      }
    }
  }
}

// Phase correlation of unrelated signals: the inverse DFT of the unit-magnitude cross-spectrum.
TYPED_TEST(FftTest, PhaseCorrelateMatchesNormalisedSpectrum) {
  std::mt19937 rng(19);
  const unsigned n = 64;
  const Signal a = Random(rng, n, true), b = Random(rng, n, true);
  const Signal sa = NaiveDft(a, n, 1, 1), sb = NaiveDft(b, n, 1, 1);
  Signal cross(n);
  cross[0] = 1;
  for (unsigned k = 1; k < n; ++k) cross[k] = sa[k] * std::conj(sb[k]) / (std::abs(sa[k]) * std::abs(sb[k]));
  const Signal want = NaiveDft(cross, n, 1, -1);
  for (int kind = 1; kind < 3; ++kind) {
    OneD<TypeParam> fft;
    ASSERT_EQ(fft.Open(n), 1);
    Load(fft.ARe(), fft.AIm(), Pack(a, b));
    EXPECT_EQ(kind == 1 ? fft.PhaseCorrelate() : fft.NormCorrelate(), 1);
    for (unsigned s = 0; s < n; ++s) EXPECT_NEAR(fft.ARe()[s], static_cast<double>(want[s].real()), Tolerance<TypeParam>(n)) << s;
  }
}

// Silent signals have exactly zero bins: 0/0 spreads through the inverse transform.
TYPED_TEST(FftTest, ZeroBinGivesNonFiniteNormalisedCorrelation) {
  const unsigned n = 16;
  OneD<TypeParam> fft;
  ASSERT_EQ(fft.Open(n), 1);
  EXPECT_EQ(fft.PhaseCorrelate(), 1);
  EXPECT_FALSE(std::isfinite(fft.ARe()[1]));
  EXPECT_EQ(fft.NormCorrelate(), 1);
  EXPECT_FALSE(std::isfinite(fft.ARe()[1]));
}

// Reference for the 2-D transform: 1-D transforms of every row, then of every column.
template <class T>
Signal RowsThenColumns(const Signal& x, unsigned n, unsigned m) {
  Signal out = x;
  OneD<T> row, column;
  EXPECT_EQ(row.Open(n), 1);
  EXPECT_EQ(column.Open(m), 1);
  for (unsigned y = 0; y < m; ++y) {
    Load(row.ARe(), row.AIm(), Signal(out.begin() + y * n, out.begin() + (y + 1) * n));
    row.FFT(1, 1);
    for (unsigned x0 = 0; x0 < n; ++x0) out[y * n + x0] = Cx(row.ARe()[x0], row.AIm()[x0]);
  }
  for (unsigned x0 = 0; x0 < n; ++x0) {
    for (unsigned y = 0; y < m; ++y) {
      column.ARe()[y] = static_cast<T>(out[y * n + x0].real());
      column.AIm()[y] = static_cast<T>(out[y * n + x0].imag());
    }
    column.FFT(1, 1);
    for (unsigned y = 0; y < m; ++y) out[y * n + x0] = Cx(column.ARe()[y], column.AIm()[y]);
  }
  return out;
}

const unsigned kGrids[][2] = {{2, 2}, {8, 4}, {2, 16}, {16, 2}, {32, 8}};

TYPED_TEST(FftTest, TwoDimensionalMatchesRowsAndColumnsAndNaive) {
  std::mt19937 rng(29);
  for (const auto& grid : kGrids) {
    const unsigned n = grid[0], m = grid[1];
    SCOPED_TRACE(testing::Message() << n << "x" << m);
    const Signal x = Random(rng, n * m);
    TwoD<TypeParam> fft;
    ASSERT_EQ(fft.Open(n, m), 1);
    Load(fft.ARe(), fft.AIm(), x);
    EXPECT_EQ(fft.FFT(1, 1), 1);
    const Signal got = Read(fft.ARe(), fft.AIm(), n * m);
    const Signal rows_columns = RowsThenColumns<TypeParam>(x, n, m);
    for (unsigned i = 0; i < n * m; ++i) ASSERT_EQ(got[i], rows_columns[i]) << i;  // the same operations
    ExpectNear(got, NaiveDft(x, n, m, 1), Tolerance<TypeParam>(n * m));
    fft.FFT(-1, 1);
    ExpectNear(Read(fft.ARe(), fft.AIm(), n * m), x, Tolerance<TypeParam>(n * m));
    fft.FFT(1, 1);
    fft.FFT(-2, 1);
    EXPECT_NEAR(*fft.Re(1, 1), static_cast<double>(x[n + 1].real()) * n * m, Tolerance<TypeParam>(n * m) * n * m);
    fft.Clear();
    EXPECT_EQ(*fft.Im(n - 1, m - 1), 0);
  }
}

TYPED_TEST(FftTest, TwoDimensionalPermutedPlacement) {
  std::mt19937 rng(31);
  const unsigned n = 8, m = 4;
  const Signal x = Random(rng, n * m);
  TwoD<TypeParam> natural, placed;
  ASSERT_EQ(natural.Open(n, m), 1);
  ASSERT_EQ(placed.Open(n, m), 1);
  Load(natural.ARe(), natural.AIm(), x);
  natural.FFT(1, 1);
  for (unsigned y = 0; y < m; ++y) {
    for (unsigned x0 = 0; x0 < n; ++x0) {
      *placed.ARe(x0, y) = static_cast<TypeParam>(x[y * n + x0].real());
      *placed.AIm(x0, y) = static_cast<TypeParam>(x[y * n + x0].imag());
    }
  }
  placed.FFT(1, 0);
  for (unsigned y = 0; y < m; ++y) {
    for (unsigned x0 = 0; x0 < n; ++x0) {
      EXPECT_EQ(*placed.Re(x0, y), *natural.Re(x0, y));
      EXPECT_EQ(*placed.Im(x0, y), *natural.Im(x0, y));
    }
  }
}

TYPED_TEST(FftTest, TwoDimensionalUnpackAndCorrelate) {
  std::mt19937 rng(37);
  for (const auto& grid : kGrids) {
    const unsigned n = grid[0], m = grid[1], count = n * m;
    SCOPED_TRACE(testing::Message() << n << "x" << m);
    const Signal a = Random(rng, count, true), b = Random(rng, count, true);
    TwoD<TypeParam> fft;
    ASSERT_EQ(fft.Open(n, m), 1);
    Load(fft.ARe(), fft.AIm(), Pack(a, b));
    fft.FFT(1, 1);
    std::vector<TypeParam> re(count), im(count);
    EXPECT_EQ(fft.UnpackRe(re.data(), im.data(), count), 1);
    ExpectNear(Read(re.data(), im.data(), count), NaiveDft(a, n, m, 1), Tolerance<TypeParam>(count));
    EXPECT_EQ(fft.UnpackIm(re.data(), im.data(), count), 1);
    ExpectNear(Read(re.data(), im.data(), count), NaiveDft(b, n, m, 1), Tolerance<TypeParam>(count));

    Load(fft.ARe(), fft.AIm(), Pack(a, b));
    EXPECT_EQ(fft.Correlate(), 1);
    const std::vector<long double> want = DirectCorrelation(a, b, n, m);
    for (unsigned i = 0; i < count; ++i) EXPECT_NEAR(fft.ARe()[i], static_cast<double>(want[i]), Tolerance<TypeParam>(count) * 4) << i;
  }
}

TYPED_TEST(FftTest, TwoDimensionalCorrelationPeaksAtTheShift) {
  std::mt19937 rng(41);
  const unsigned n = 16, m = 8, sx = 5, sy = 3;
  const Signal b = Random(rng, n * m, true);
  Signal a(n * m);
  for (unsigned y = 0; y < m; ++y) {
    for (unsigned x = 0; x < n; ++x) a[y * n + x] = b[((y + m - sy) % m) * n + (x + n - sx) % n];
  }
  TwoD<TypeParam> fft;
  ASSERT_EQ(fft.Open(n, m), 1);
  for (int kind = 0; kind < 3; ++kind) {
    Load(fft.ARe(), fft.AIm(), Pack(a, b));
    kind == 0 ? fft.Correlate() : kind == 1 ? fft.PhaseCorrelate() : fft.NormCorrelate();
    unsigned best = 0;
    for (unsigned i = 1; i < n * m; ++i) best = fft.ARe()[i] > fft.ARe()[best] ? i : best;
    EXPECT_EQ(best, sy * n + sx) << "kind " << kind;
    if (kind > 0) {
      EXPECT_NEAR(*fft.Re(sx, sy), 1.0, Tolerance<TypeParam>(n * m) * 4);
    }
  }
}

}  // namespace

namespace {

// The butterflies exactly as written: stage by stage, j outer, i inner, one row or column at a
// time, rows before columns, products in double rounded to the element type on store. The library
// may run the independent butterflies of a stage in another order, but every value must be the
// same bit for bit.
template <class T>
struct WrittenOrder {
  std::vector<T> cosines, sines;

  explicit WrittenOrder(unsigned size) : cosines(size), sines(size) {
    const T step = T{8} * std::atan(T{1}) / static_cast<T>(size);
    for (unsigned k = 0; k < size; ++k) {
      cosines[k] = std::cos(static_cast<T>(k) * step);
      // The table is the cosine shifted by a quarter turn: cos((k + size/4) step) = -sin(k step).
      sines[k] = size >= 4 ? std::cos(static_cast<T>(k + size / 4) * step) : -std::sin(static_cast<T>(k) * step);
    }
  }

  void Stages(T* re, T* im, unsigned stride, unsigned size, int sign) const {
    for (unsigned half = 1; half < size; half *= 2) {
      const unsigned span = 2 * half, step = size / span;
      for (unsigned j = 0; j < half; ++j) {
        const double c = cosines[j * step], d = sines[j * step];
        for (unsigned i = j; i < size; i += span) {
          T& ri = re[i * stride];
          T& ii = im[i * stride];
          T& rk = re[(i + half) * stride];
          T& ik = im[(i + half) * stride];
          const double tr = sign >= 0 ? c * rk - d * ik : c * rk + d * ik;
          const double ti = sign >= 0 ? c * ik + d * rk : c * ik - d * rk;
          rk = static_cast<T>(ri - tr);
          ri = static_cast<T>(ri + tr);
          ik = static_cast<T>(ii - ti);
          ii = static_cast<T>(ii + ti);
        }
      }
    }
  }
};

// Transforms in place without reordering, as the library does with bReorder 0.
template <class T>
void WrittenTransform(std::vector<T>& re, std::vector<T>& im, unsigned n, unsigned m, int sign) {
  const WrittenOrder<T> rows(n), columns(m);
  for (unsigned y = 0; y < m; ++y) rows.Stages(re.data() + y * n, im.data() + y * n, 1, n, sign);
  if (m > 1) {
    for (unsigned x = 0; x < n; ++x) columns.Stages(re.data() + x, im.data() + x, n, m, sign);
  }
  if (sign == -1) {
    for (unsigned i = 0; i < n * m; ++i) re[i] /= static_cast<T>(n * m), im[i] /= static_cast<T>(n * m);
  }
}

template <class T>
void ExpectBitwiseEqual(const T* got, const std::vector<T>& want) {
  for (size_t i = 0; i < want.size(); ++i) {
    ASSERT_EQ(std::memcmp(got + i, &want[i], sizeof(T)), 0) << "element " << i << ": " << got[i] << " vs " << want[i];
  }
}

template <class T, class Fft>
void CompareWithWrittenOrder(Fft& fft, unsigned n, unsigned m, std::mt19937& rng) {
  std::uniform_real_distribution<T> d(-1, 1);
  std::vector<T> re(n * m), im(n * m);
  for (unsigned i = 0; i < n * m; ++i) re[i] = d(rng), im[i] = d(rng);
  std::copy(re.begin(), re.end(), fft.ARe());
  std::copy(im.begin(), im.end(), fft.AIm());
  for (int sign : {1, -1, -2, 3}) {
    SCOPED_TRACE(sign);
    fft.FFT(sign, 0);
    WrittenTransform(re, im, n, m, sign);
    ExpectBitwiseEqual(fft.ARe(), re);
    ExpectBitwiseEqual(fft.AIm(), im);
  }
}

TYPED_TEST(FftTest, OneDimensionalValuesAreThoseOfTheWrittenOrder) {
  std::mt19937 rng(43);
  for (unsigned n = 2; n <= 32768; n *= 2) {
    SCOPED_TRACE(n);
    OneD<TypeParam> fft;
    ASSERT_EQ(fft.Open(n), 1);
    CompareWithWrittenOrder<TypeParam>(fft, n, 1, rng);
  }
}

TYPED_TEST(FftTest, TwoDimensionalValuesAreThoseOfTheWrittenOrder) {
  std::mt19937 rng(47);
  const unsigned sizes[][2] = {{2, 2}, {4, 2}, {2, 8}, {16, 4}, {8, 64}, {128, 32}, {256, 256}, {4, 2048}};
  for (const auto& size : sizes) {
    SCOPED_TRACE(std::to_string(size[0]) + "x" + std::to_string(size[1]));
    TwoD<TypeParam> fft;
    ASSERT_EQ(fft.Open(size[0], size[1]), 1);
    CompareWithWrittenOrder<TypeParam>(fft, size[0], size[1], rng);
  }
}

}  // namespace
