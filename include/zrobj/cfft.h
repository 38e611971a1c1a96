// In-place radix-2 complex FFTs of power-of-two sizes in one and two dimensions, single and double
// precision, with two-real-signal unpacking and circular cross-correlation.
#pragma once

#include "zrobj/cptcdib.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// What GetShowData draws from each element (its first argument) and where (its second).
inline constexpr int FFTSHOW_MAGNITUDE = 0;
inline constexpr int FFTSHOW_LOG_MAGNITUDE = 1;
inline constexpr int FFTSHOW_REAL = 2;
inline constexpr int FFTSHOW_IMAGINARY = 3;
inline constexpr int FFTSHOW_AS_STORED = 0;
inline constexpr int FFTSHOW_CENTRED = 1;         // quadrants swapped: element (0, 0) at the centre
inline constexpr double FFTSHOW_LOG_RANGE_DB = 96;  // below the largest magnitude: black

namespace zr::fft_detail {

// How a correlation normalises each cross-spectrum bin.
enum class Norm { kNone, kPhase, kMagnitude };

// An n x m grid of complex samples (m = 1 for one dimension) with its tables, all in one block of
// whole pages. One-dimensional grids reorder through a 16-bit bit-reversal table, two-dimensional
// ones through a 32-bit permutation of the whole grid. Copy assignment copies the members as they
// are, block included: the object is meant to have a single owner.
template <class T>
class ZROBJ_API Engine {
 public:
  Engine() = default;
  ~Engine();
  Engine& operator=(const Engine&) = default;

  BOOL Close();
  // Forward for sign >= 0 (unscaled), inverse kernel for sign < 0, scaled by 1/(n m) only for -1.
  BOOL FFT(int sign, BOOL reorder);
  // Splits the spectrum of two real signals (a in the real array, b in the imaginary one) and
  // writes bins 0 .. min(count, n m) - 1 of a's (imag false) or b's (imag true) spectrum.
  BOOL Unpack(bool imag, T* re, T* im, UINT count) const;
  // The real array becomes the circular cross-correlation of a with b.
  BOOL Correlate(Norm norm);
  // A 24-bit grey image of n x m pixels of the arrays in natural order (see FFT2D::GetShowData);
  // empty when closed, for an unknown quantity or when the image cannot be allocated. Defined
  // above the imaging target, which the transforms themselves do not use.
  CPTCDib ShowData(int quantity, int arrangement) const;

 protected:
  // Close first; sizes are powers of two, 2 <= size < 65536; 0 on an invalid size or when the
  // block cannot be allocated.
  BOOL Open1D(UINT n) { return OpenGrid(n, 1, false); }
  BOOL Open2D(UINT n, UINT m) { return OpenGrid(n, m, true); }
  UINT Count() const { return n_ * m_; }

  UINT n_ = 0, m_ = 0, log2n_ = 0, log2m_ = 0;
  void* block_ = nullptr;
  WORD* rev_ = nullptr;    // one dimension: bit reversal of log2 n bits
  DWORD* perm_ = nullptr;  // two dimensions: rev_m[y] * n + rev_n[x]
  T* cos_n_ = nullptr;
  T* sin_n_ = nullptr;     // -sin, the cosine table shifted by a quarter turn
  T* cos_m_ = nullptr;
  T* sin_m_ = nullptr;
  // The row twiddles in the order the stages use them: stage s (half = 2^s) reads entries
  // half - 1 .. 2 half - 2, copies of cos_n_/sin_n_ at j n / (2 half); n - 1 entries each.
  T* stage_cos_ = nullptr;
  T* stage_sin_ = nullptr;
  T* scratch_ = nullptr;   // one dimension: n elements for reordering
  T* re_ = nullptr;
  T* im_ = nullptr;

 private:
  BOOL OpenGrid(UINT n, UINT m, bool two_dims);
  template <class Carver>
  void Carve(Carver& carver);
  void FillTables();
  UINT Mirror(UINT k) const;  // the bin of frequency -k
  template <bool kForward>
  void GridStages();  // the butterflies of every row, then of every column
};

extern template class Engine<float>;
extern template class Engine<double>;

template <class T>
class FFT1D : public Engine<T> {
 public:
  // n a power of two, 2 <= n < 65536; closes first; 0 on an invalid size or a failed allocation.
  BOOL Open(UINT n) { return this->Open1D(n); }
  UINT uNFFT() const { return this->n_; }
  T* ARe() const { return this->re_; }
  T* AIm() const { return this->im_; }
  BOOL UnpackRe(T* re, T* im, UINT count) const { return this->Unpack(false, re, im, count); }
  BOOL UnpackIm(T* re, T* im, UINT count) const { return this->Unpack(true, re, im, count); }
  BOOL Correlate() { return Engine<T>::Correlate(Norm::kNone); }
  BOOL PhaseCorrelate() { return Engine<T>::Correlate(Norm::kPhase); }
  BOOL NormCorrelate() { return Engine<T>::Correlate(Norm::kMagnitude); }
};

template <class T>
class FFT2D : public Engine<T> {
 public:
  // n the row length, m the row count; each a power of two, 2 <= size < 65536.
  BOOL Open(UINT n, UINT m) { return this->Open2D(n, m); }
  UINT uNFFT() const { return this->n_; }
  UINT uMFFT() const { return this->m_; }
  T* ARe() const { return this->re_; }
  T* AIm() const { return this->im_; }
  // The element (x, y) of the arrays in natural order; null when closed or out of range.
  T* Re(UINT x, UINT y) const { return At(this->re_, x, y, false); }
  T* Im(UINT x, UINT y) const { return At(this->im_, x, y, false); }
  // Where input sample (x, y) goes to transform without reordering.
  T* ARe(UINT x, UINT y) const { return At(this->re_, x, y, true); }
  T* AIm(UINT x, UINT y) const { return At(this->im_, x, y, true); }
  void Clear() {
    for (UINT i = 0; i < this->Count(); ++i) this->re_[i] = this->im_[i] = 0;
  }
  BOOL UnpackRe(T* re, T* im, UINT count) const { return this->Unpack(false, re, im, count); }
  BOOL UnpackIm(T* re, T* im, UINT count) const { return this->Unpack(true, re, im, count); }
  BOOL Correlate() { return Engine<T>::Correlate(Norm::kNone); }
  BOOL PhaseCorrelate() { return Engine<T>::Correlate(Norm::kPhase); }
  BOOL NormCorrelate() { return Engine<T>::Correlate(Norm::kMagnitude); }
  // The grid as a picture: pixel (x, y) of the bitmap (rows bottom-up, so y = 0 is the bottom row)
  // shows element (x, y). quantity FFTSHOW_MAGNITUDE: the magnitude scaled so the largest is 255;
  // FFTSHOW_LOG_MAGNITUDE: its level in dB from FFTSHOW_LOG_RANGE_DB below the largest (0) to the
  // largest (255); FFTSHOW_REAL / FFTSHOW_IMAGINARY: the part with 0 at 128 and the largest absolute
  // value at 1 or 255. arrangement FFTSHOW_CENTRED swaps the quadrants so the zero frequency lies at
  // (n/2, m/2); FFTSHOW_AS_STORED draws the grid as it is. A zero grid is black (128 grey
  // for the parts).
  CPTCDib GetShowData(int quantity, int arrangement) const { return this->ShowData(quantity, arrangement); }

 private:
  T* At(T* array, UINT x, UINT y, bool permuted) const {
    if (!array || x >= this->n_ || y >= this->m_) return nullptr;
    const UINT index = (y << this->log2n_) + x;
    return array + (permuted ? this->perm_[index] : index);
  }
};

}  // namespace zr::fft_detail

class CFFT_1Dd : public zr::fft_detail::FFT1D<double> {};
class CFFT_1Df : public zr::fft_detail::FFT1D<float> {};
class CFFT_2Dd : public zr::fft_detail::FFT2D<double> {};
class CFFT_2Df : public zr::fft_detail::FFT2D<float> {};
