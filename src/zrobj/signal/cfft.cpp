// The FFT engine behind CFFT_1Dd/1Df/2Dd/2Df: one block of tables and arrays, bit-reversal
// reordering, radix-2 butterflies along rows and columns, unpacking and correlation.
#include "zrobj/cfft.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/fileutil.h"

namespace zr::fft_detail {
namespace {

// Products and sums are formed in double for both element types and rounded on store.
using Wide = double;

struct Complex {
  Wide re, im;
};

bool ValidSize(UINT size) { return size >= 2 && size < 65536 && (size & (size - 1)) == 0; }

UINT Log2(UINT size) {
  UINT log2 = 0;
  while ((UINT{1} << log2) < size) ++log2;
  return log2;
}

UINT ReverseBits(UINT value, UINT bits) {
  UINT out = 0;
  for (UINT b = 0; b < bits; ++b) out |= ((value >> b) & 1u) << (bits - 1 - b);
  return out;
}

// Hands out consecutive, aligned pieces of a block; with a null base it only measures.
class Carver {
 public:
  explicit Carver(std::byte* base) : base_(base) {}
  template <class U>
  U* Take(std::size_t count) {
    offset_ = (offset_ + alignof(U) - 1) & ~(alignof(U) - 1);
    U* piece = base_ ? reinterpret_cast<U*>(base_ + offset_) : nullptr;
    offset_ += count * sizeof(U);
    return piece;
  }
  std::size_t size() const { return offset_; }

 private:
  std::byte* base_;
  std::size_t offset_ = 0;
};

// The cosine table of size + size/4 entries and the quarter-shifted -sin table into it. Size 2
// has no whole quarter, so its -sin table is a separate one of `size` entries.
template <class T>
void CarveTables(Carver& carver, UINT size, T*& cosines, T*& sines) {
  cosines = carver.Take<T>(size + size / 4);
  sines = size / 4 ? cosines + size / 4 : carver.Take<T>(size);
}

// Angles are k times 2pi/size, formed in the element type.
template <class T>
void FillTables(UINT size, T* cosines, T* sines) {
  const T step = T{8} * std::atan(T{1}) / static_cast<T>(size);
  for (UINT k = 0; k < size + size / 4; ++k) cosines[k] = std::cos(static_cast<T>(k) * step);
  if (size / 4 == 0) {
    for (UINT k = 0; k < size; ++k) sines[k] = -std::sin(static_cast<T>(k) * step);
  }
}

template <class T, class Index>
void Permute(const Index* table, UINT count, T* re, T* im) {
  for (UINT i = 1; i < count; ++i) {
    const UINT j = table[i];
    if (i >= j) continue;
    std::swap(re[i], re[j]);
    std::swap(im[i], im[j]);
  }
}

// Decimation-in-time stages over `size` elements `stride` apart; input in bit-reversed order.
template <class T>
void Butterflies(T* re, T* im, UINT stride, UINT size, UINT log2, const T* c_table, const T* s_table,
                 int sign) {
  for (UINT stage = 0; stage < log2; ++stage) {
    const UINT half = UINT{1} << stage, span = 2 * half, step = size / span;
    for (UINT j = 0; j < half; ++j) {
      const Wide c = c_table[j * step], d = s_table[j * step];
      for (UINT i = j; i < size; i += span) {
        T& ri = re[i * stride];
        T& ii = im[i * stride];
        T& rk = re[(i + half) * stride];
        T& ik = im[(i + half) * stride];
        const Wide tr = sign >= 0 ? c * rk - d * ik : c * rk + d * ik;
        const Wide ti = sign >= 0 ? c * ik + d * rk : c * ik - d * rk;
        rk = static_cast<T>(ri - tr);
        ri = static_cast<T>(ri + tr);
        ik = static_cast<T>(ii - ti);
        ii = static_cast<T>(ii + ti);
      }
    }
  }
}

// Bin k of signal a (in the real array) or b (in the imaginary one) from the joint spectrum X,
// with `mirror` the bin of frequency -k.
template <class T>
Complex Split(const T* re, const T* im, UINT k, UINT mirror, bool imag) {
  if (k == 0) return {imag ? Wide{im[0]} : Wide{re[0]}, 0};
  if (imag) return {(Wide{im[k]} + im[mirror]) / 2, (Wide{re[mirror]} - re[k]) / 2};
  return {(Wide{re[k]} + re[mirror]) / 2, (Wide{im[k]} - im[mirror]) / 2};
}

Wide NormOf(Norm norm, Complex a, Complex b) {
  const Wide aa = a.re * a.re + a.im * a.im, bb = b.re * b.re + b.im * b.im;
  return norm == Norm::kPhase ? std::sqrt(aa * bb) : std::sqrt(aa) * std::sqrt(bb);
}

}  // namespace

template <class T>
Engine<T>::~Engine() {
  Close();
}

template <class T>
BOOL Engine<T>::Close() {
  if (block_) os::FU_AllocVirtual(block_, 0);
  n_ = m_ = log2n_ = log2m_ = 0;
  block_ = nullptr;
  rev_ = nullptr;
  perm_ = nullptr;
  cos_n_ = sin_n_ = cos_m_ = sin_m_ = re_ = im_ = nullptr;
  return 1;
}

template <class T>
template <class C>
void Engine<T>::Carve(C& carver) {
  if (m_ == 1) {
    rev_ = carver.template Take<WORD>(n_);
  } else {
    perm_ = carver.template Take<DWORD>(std::size_t{n_} * m_);
  }
  CarveTables(carver, n_, cos_n_, sin_n_);
  if (m_ > 1) CarveTables(carver, m_, cos_m_, sin_m_);
  re_ = carver.template Take<T>(std::size_t{n_} * m_);
  im_ = carver.template Take<T>(std::size_t{n_} * m_);
}

template <class T>
BOOL Engine<T>::OpenGrid(UINT n, UINT m, bool two_dims) {
  Close();
  if (!ValidSize(n) || (two_dims && !ValidSize(m))) return 0;
  n_ = n, m_ = two_dims ? m : 1;
  log2n_ = Log2(n_), log2m_ = Log2(m_);
  Carver measure(nullptr);
  Carve(measure);
  block_ = os::FU_AllocVirtual(nullptr, measure.size());
  if (!block_) {
    Close();
    return 0;
  }
  Carver carver(static_cast<std::byte*>(block_));
  Carve(carver);
  FillTables();
  return 1;
}

template <class T>
void Engine<T>::FillTables() {
  if (rev_) {
    for (UINT i = 0; i < n_; ++i) rev_[i] = static_cast<WORD>(ReverseBits(i, log2n_));
  } else {
    for (UINT y = 0; y < m_; ++y) {
      const UINT row = ReverseBits(y, log2m_) << log2n_;
      for (UINT x = 0; x < n_; ++x) perm_[(y << log2n_) + x] = row + ReverseBits(x, log2n_);
    }
  }
  fft_detail::FillTables(n_, cos_n_, sin_n_);
  if (m_ > 1) fft_detail::FillTables(m_, cos_m_, sin_m_);
}

template <class T>
BOOL Engine<T>::FFT(int sign, BOOL reorder) {
  if (!block_) return 0;
  if (reorder) {
    if (rev_) {
      Permute(rev_, n_, re_, im_);
    } else {
      Permute(perm_, Count(), re_, im_);
    }
  }
  for (UINT y = 0; y < m_; ++y) {
    Butterflies(re_ + (y << log2n_), im_ + (y << log2n_), 1, n_, log2n_, cos_n_, sin_n_, sign);
  }
  if (m_ > 1) {
    for (UINT x = 0; x < n_; ++x) Butterflies(re_ + x, im_ + x, n_, m_, log2m_, cos_m_, sin_m_, sign);
  }
  if (sign == -1) {
    const T scale = static_cast<T>(Count());
    for (UINT i = 0; i < Count(); ++i) {
      re_[i] /= scale;
      im_[i] /= scale;
    }
  }
  return 1;
}

template <class T>
UINT Engine<T>::Mirror(UINT k) const {
  const UINT x = k & (n_ - 1), y = k >> log2n_;
  return (((m_ - y) & (m_ - 1)) << log2n_) + ((n_ - x) & (n_ - 1));
}

template <class T>
BOOL Engine<T>::Unpack(bool imag, T* re, T* im, UINT count) const {
  if (!block_ || count == 0 || !re || !im) return 0;
  const UINT limit = count < Count() ? count : Count();
  for (UINT k = 0; k < limit; ++k) {
    const Complex bin = Split(re_, im_, k, Mirror(k), imag);
    re[k] = static_cast<T>(bin.re);
    im[k] = static_cast<T>(bin.im);
  }
  return 1;
}

template <class T>
BOOL Engine<T>::Correlate(Norm norm) {
  if (!block_) return 0;
  FFT(1, 1);
  // Bin 0 and each pair (k, -k) once; the stored cross-spectrum is Hermitian.
  re_[0] = static_cast<T>(norm == Norm::kNone ? Wide{re_[0]} * im_[0] : 1.0);
  im_[0] = 0;
  for (UINT k = 1; k < Count(); ++k) {
    const UINT mirror = Mirror(k);
    if (mirror < k) continue;
    const Complex a = Split(re_, im_, k, mirror, false), b = Split(re_, im_, k, mirror, true);
    Complex p{a.re * b.re + a.im * b.im, a.im * b.re - a.re * b.im};
    if (norm != Norm::kNone) {
      const Wide magnitude = NormOf(norm, a, b);
      p = {p.re / magnitude, p.im / magnitude};
    }
    re_[k] = re_[mirror] = static_cast<T>(p.re);
    im_[k] = static_cast<T>(p.im);
    im_[mirror] = static_cast<T>(-p.im);
  }
  FFT(-1, 1);
  return 1;
}

template class Engine<float>;
template class Engine<double>;

}  // namespace zr::fft_detail
