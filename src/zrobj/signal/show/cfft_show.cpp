// GetShowData of the FFT grids: the arrays drawn as a 24-bit grey CPTCDib. It sits above both the
// transforms and the bitmaps, so neither of them depends on the other.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "zrobj/cfft.h"
#include "zrobj/cptcdib.h"

namespace zr::fft_detail {
namespace {

// The value an element contributes, before scaling: a magnitude, or a signed part.
template <class T>
double Quantity(int quantity, T re, T im) {
  switch (quantity) {
    case FFTSHOW_REAL:
      return re;
    case FFTSHOW_IMAGINARY:
      return im;
    default:
      return std::hypot(static_cast<double>(re), static_cast<double>(im));
  }
}

// Brightness 0..255 of `value` given the largest absolute value of the grid (> 0).
BYTE Brightness(int quantity, double value, double largest) {
  switch (quantity) {
    case FFTSHOW_MAGNITUDE:
      return static_cast<BYTE>(std::lround(255 * value / largest));
    case FFTSHOW_LOG_MAGNITUDE: {
      if (value <= 0) return 0;
      const double db = 20 * std::log10(value / largest);  // <= 0
      const double level = std::clamp(1 + db / FFTSHOW_LOG_RANGE_DB, 0.0, 1.0);
      return static_cast<BYTE>(std::lround(255 * level));
    }
    default:
      return static_cast<BYTE>(std::lround(128 + 127 * value / largest));
  }
}

bool KnownQuantity(int quantity) {
  return quantity == FFTSHOW_MAGNITUDE || quantity == FFTSHOW_LOG_MAGNITUDE || quantity == FFTSHOW_REAL ||
         quantity == FFTSHOW_IMAGINARY;
}

}  // namespace

template <class T>
CPTCDib Engine<T>::ShowData(int quantity, int arrangement) const {
  CPTCDib image;
  if (!block_ || !KnownQuantity(quantity) || !image.Alloc(n_, m_, 24)) return image;
  double largest = 0;
  for (UINT i = 0; i < Count(); ++i) largest = std::max(largest, std::fabs(Quantity(quantity, re_[i], im_[i])));
  const bool signed_part = quantity == FFTSHOW_REAL || quantity == FFTSHOW_IMAGINARY;
  const UINT shift_x = arrangement == FFTSHOW_CENTRED ? n_ / 2 : 0;
  const UINT shift_y = arrangement == FFTSHOW_CENTRED ? m_ / 2 : 0;
  const unsigned long stride = CPTCDib::GetStride(n_, 24);
  BYTE* rows = image.GetBits();
  std::memset(rows, 0, image.GetDIBSize());  // row padding included
  for (UINT y = 0; y < m_; ++y) {
    BYTE* pixel = rows + std::size_t{y} * stride;
    const UINT source_row = ((y + shift_y) & (m_ - 1)) << log2n_;
    for (UINT x = 0; x < n_; ++x, pixel += 3) {
      const UINT i = source_row + ((x + shift_x) & (n_ - 1));
      BYTE grey = signed_part ? 128 : 0;
      if (largest > 0) grey = Brightness(quantity, Quantity(quantity, re_[i], im_[i]), largest);
      pixel[0] = pixel[1] = pixel[2] = grey;
    }
  }
  return image;
}

template CPTCDib Engine<float>::ShowData(int, int) const;
template CPTCDib Engine<double>::ShowData(int, int) const;

}  // namespace zr::fft_detail
