// GetShowData: the grid drawn as a grey 24-bit bitmap; each quantity's scaling, the centred
// arrangement, and the spectrum of a plane wave showing its two frequencies.
#include <gtest/gtest.h>

#include <cmath>
#include <type_traits>

#include "zrobj/cfft.h"
#include "zrobj/cptcdib.h"

namespace {

// The grey of pixel (x, y), checking that the three channels agree.
int Grey(const CPTCDib& image, long x, long y) {
  const BYTE* p = image.GetBits() + y * CPTCDib::GetStride(image.GetWidth(), 24) + x * 3;
  EXPECT_EQ(p[0], p[1]);
  EXPECT_EQ(p[1], p[2]);
  return p[0];
}

template <class T>
class FftShowTest : public ::testing::Test {};
using Precisions = ::testing::Types<CFFT_2Dd, CFFT_2Df>;
TYPED_TEST_SUITE(FftShowTest, Precisions);

TYPED_TEST(FftShowTest, ClosedGridsAndUnknownQuantitiesGiveNoImage) {
  TypeParam fft;
  EXPECT_EQ(fft.GetShowData(FFTSHOW_MAGNITUDE, 0).GetSize(), 0u);
  ASSERT_EQ(fft.Open(4, 2), 1);
  EXPECT_EQ(fft.GetShowData(4, 0).GetSize(), 0u);
  EXPECT_EQ(fft.GetShowData(-1, 0).GetSize(), 0u);
  const CPTCDib image = fft.GetShowData(FFTSHOW_MAGNITUDE, FFTSHOW_AS_STORED);
  EXPECT_EQ(image.GetWidth(), 4);
  EXPECT_EQ(image.GetHeight(), 2);
  EXPECT_EQ(image.GetBitCount(), 24u);
  // A zero grid: black magnitudes, mid-grey parts; the row padding is zero too.
  EXPECT_EQ(Grey(image, 3, 1), 0);
  EXPECT_EQ(image.GetBits()[12], 0);
  EXPECT_EQ(Grey(fft.GetShowData(FFTSHOW_REAL, 0), 0, 0), 128);
  EXPECT_EQ(Grey(fft.GetShowData(FFTSHOW_LOG_MAGNITUDE, 0), 2, 0), 0);
}

TYPED_TEST(FftShowTest, MagnitudeAndLogarithmScaleToTheLargest) {
  TypeParam fft;
  ASSERT_EQ(fft.Open(8, 4), 1);
  *fft.Re(1, 0) = 3, *fft.Im(1, 0) = 4;  // magnitude 5, the largest
  *fft.Re(2, 3) = -2.5;                  // half of it, on the top row
  using T = std::remove_pointer_t<decltype(fft.ARe())>;
  const double minus47db = 5 * std::pow(10.0, -47.0 / 20);
  *fft.Im(5, 2) = static_cast<T>(minus47db);
  *fft.Re(6, 1) = static_cast<T>(5e-6);  // -120 dB

  const CPTCDib linear = fft.GetShowData(FFTSHOW_MAGNITUDE, FFTSHOW_AS_STORED);
  EXPECT_EQ(Grey(linear, 1, 0), 255);
  EXPECT_EQ(Grey(linear, 2, 3), 128);  // rows bottom-up: grid row 3 is the top image row
  EXPECT_EQ(Grey(linear, 0, 0), 0);
  EXPECT_EQ(Grey(linear, 6, 1), 0);

  const CPTCDib log = fft.GetShowData(FFTSHOW_LOG_MAGNITUDE, FFTSHOW_AS_STORED);
  EXPECT_EQ(Grey(log, 1, 0), 255);
  EXPECT_EQ(Grey(log, 5, 2), std::lround(255 * (1 - 47.0 / 96)));
  EXPECT_EQ(Grey(log, 2, 3), std::lround(255 * (1 + 20 * std::log10(0.5) / 96)));
  EXPECT_EQ(Grey(log, 6, 1), 0);    // below the range
  EXPECT_EQ(Grey(log, 7, 3), 0);    // zero

  const CPTCDib real = fft.GetShowData(FFTSHOW_REAL, FFTSHOW_AS_STORED);
  EXPECT_EQ(Grey(real, 1, 0), 255);  // +3, the largest real part
  EXPECT_EQ(Grey(real, 2, 3), std::lround(128 - 127 * 2.5 / 3));
  EXPECT_EQ(Grey(real, 0, 0), 128);
  const CPTCDib imag = fft.GetShowData(FFTSHOW_IMAGINARY, FFTSHOW_AS_STORED);
  EXPECT_EQ(Grey(imag, 1, 0), 255);
  EXPECT_EQ(Grey(imag, 5, 2), std::lround(128 + 127 * minus47db / 4));
}

TYPED_TEST(FftShowTest, PlaneWaveShowsItsTwoFrequenciesAroundTheCentre) {
  const unsigned n = 32, m = 16, fx = 3, fy = 2;
  TypeParam fft;
  ASSERT_EQ(fft.Open(n, m), 1);
  const double pi = std::acos(-1.0);
  for (unsigned y = 0; y < m; ++y) {
    for (unsigned x = 0; x < n; ++x) *fft.Re(x, y) = std::cos(2 * pi * (double(fx * x) / n + double(fy * y) / m));
  }
  fft.FFT(1, 1);
  const CPTCDib centred = fft.GetShowData(FFTSHOW_MAGNITUDE, FFTSHOW_CENTRED);
  int bright = 0;
  for (long y = 0; y < long(m); ++y) {
    for (long x = 0; x < long(n); ++x) bright += Grey(centred, x, y) > 200;
  }
  EXPECT_EQ(bright, 2);
  EXPECT_EQ(Grey(centred, n / 2 + fx, m / 2 + fy), 255);
  EXPECT_EQ(Grey(centred, n / 2 - fx, m / 2 - fy), 255);
  EXPECT_EQ(Grey(centred, n / 2, m / 2), 0);  // no constant part
  const CPTCDib stored = fft.GetShowData(FFTSHOW_MAGNITUDE, FFTSHOW_AS_STORED);
  EXPECT_EQ(Grey(stored, fx, fy), 255);
  EXPECT_EQ(Grey(stored, n - fx, m - fy), 255);
}

}  // namespace
