// The FFT engine behind CFFT_1Dd/1Df/2Dd/2Df: one block of tables and arrays, bit-reversal
// reordering, radix-2 butterflies along rows and columns, unpacking and correlation.
#include "zrobj/cfft.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "base/compiler.h"
#include "platform/fileutil.h"

namespace zr::fft_detail {
namespace {

// Products and sums are formed in double for both element types and rounded on store.
using Wide = double;

// With GCC the stage loops are built twice, for the base instruction set and for AVX2 (four
// doubles a vector, no fused multiply-add), and the loader picks the one the processor runs.
// Clang cannot clone templates; its build (the fuzz targets) keeps the base set. The thread
// sanitizer's build does too: the loader runs the choosing function while relocating, before that
// sanitizer's runtime is up, and its instrumentation would fault there.
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && !defined(__SANITIZE_THREAD__)
#define ZR_FFT_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define ZR_FFT_CLONES
#endif

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

// The same permutation for a table that is its own inverse (bit reversal), as a gather through a
// scratch row: out[i] = in[table[i]] reads at random but writes in sequence, with no branch.
template <class T, class Index>
void Gather(const Index* table, UINT count, T* scratch, T* array) {
  for (UINT i = 0; i < count; ++i) scratch[i] = array[table[i]];
  std::memcpy(array, scratch, sizeof(T) * count);
}
// One butterfly as written: the twiddled lower element t, then upper - t and upper + t, formed in
// double and rounded to the element type on store.
template <bool kForward, class T>
ZR_ALWAYS_INLINE void Butterfly(T& ri, T& ii, T& rk, T& ik, Wide c, Wide d) {
  const Wide tr = kForward ? c * rk - d * ik : c * rk + d * ik;
  const Wide ti = kForward ? c * ik + d * rk : c * ik - d * rk;
  const Wide r = ri, i = ii;
  rk = static_cast<T>(r - tr);
  ri = static_cast<T>(r + tr);
  ik = static_cast<T>(i - ti);
  ii = static_cast<T>(i + ti);
}

// The butterflies of one stage between two runs of `count` elements: element l of the first run
// pairs with element l of the second, with twiddle l of the tables (kUniform: twiddle 0 for the
// whole run). The runs never overlap, so the loop has no dependence between elements.
template <bool kForward, bool kUniform, class T>
ZR_ALWAYS_INLINE void ButterflyRun(T* __restrict ri, T* __restrict ii, T* __restrict rk, T* __restrict ik, const T* c_table,
                  const T* s_table, UINT count) {
  for (UINT l = 0; l < count; ++l) {
    Butterfly<kForward>(ri[l], ii[l], rk[l], ik[l], c_table[kUniform ? 0 : l], s_table[kUniform ? 0 : l]);
  }
}

// Stages 0 and 1 (half 1 and 2) in one pass: each group of four elements gets its two stage-0
// butterflies, then its two stage-1 butterflies, while it is in registers.
template <bool kForward, class T>
ZR_ALWAYS_INLINE void FirstTwoStages(T* re, T* im, UINT size, const T* c_table, const T* s_table) {
  const Wide c0 = c_table[0], d0 = s_table[0], c1 = c_table[size / 4], d1 = s_table[size / 4];
  for (UINT b = 0; b < size; b += 4) {
    Butterfly<kForward>(re[b], im[b], re[b + 1], im[b + 1], c0, d0);
    Butterfly<kForward>(re[b + 2], im[b + 2], re[b + 3], im[b + 3], c0, d0);
    Butterfly<kForward>(re[b], im[b], re[b + 2], im[b + 2], c0, d0);
    Butterfly<kForward>(re[b + 1], im[b + 1], re[b + 3], im[b + 3], c1, d1);
  }
}

// Decimation-in-time stages over `size` contiguous elements; input in bit-reversed order. Each
// butterfly is the written one; only the order in which the independent butterflies of a stage run
// differs: the first two stages go group by group, the others block by block through memory with
// the stage's twiddles read in sequence.
template <bool kForward, class T>
ZR_FFT_CLONES void RowStages(T* re, T* im, UINT size, UINT log2, const T* c_table, const T* s_table, const T* stage_cos,
               const T* stage_sin) {
  if (size == 2) {
    Butterfly<kForward>(re[0], im[0], re[1], im[1], c_table[0], s_table[0]);
    return;
  }
  FirstTwoStages<kForward>(re, im, size, c_table, s_table);
  for (UINT stage = 2; stage < log2; ++stage) {
    const UINT half = UINT{1} << stage, span = 2 * half;
    for (UINT block = 0; block < size; block += span) {
      ButterflyRun<kForward, false>(re + block, im + block, re + block + half, im + block + half,
                                    stage_cos + half - 1, stage_sin + half - 1, half);
    }
  }
}

// The same stages down the columns of a grid of `rows` rows of `width` elements: every butterfly
// pairs two whole rows, so the inner loop runs along memory with one twiddle.
template <bool kForward, class T>
ZR_FFT_CLONES void ColumnStages(T* re, T* im, UINT width, UINT rows, UINT log2, const T* c_table, const T* s_table) {
  for (UINT stage = 0; stage < log2; ++stage) {
    const UINT half = UINT{1} << stage, span = 2 * half, step = rows / span;
    for (UINT j = 0; j < half; ++j) {
      for (UINT i = j; i < rows; i += span) {
        const std::size_t top = std::size_t{i} * width, bottom = std::size_t{i + half} * width;
        ButterflyRun<kForward, true>(re + top, im + top, re + bottom, im + bottom, c_table + j * step,
                                     s_table + j * step, width);
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
  cos_n_ = sin_n_ = cos_m_ = sin_m_ = stage_cos_ = stage_sin_ = scratch_ = re_ = im_ = nullptr;
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
  if (m_ == 1) scratch_ = carver.template Take<T>(n_);
  stage_cos_ = carver.template Take<T>(n_);
  stage_sin_ = carver.template Take<T>(n_);
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
  for (UINT half = 1; half < n_; half *= 2) {
    const UINT step = n_ / (2 * half);
    for (UINT j = 0; j < half; ++j) {
      stage_cos_[half - 1 + j] = cos_n_[j * step];
      stage_sin_[half - 1 + j] = sin_n_[j * step];
    }
  }
}

template <class T>
BOOL Engine<T>::FFT(int sign, BOOL reorder) {
  if (!block_) return 0;
  if (reorder) {
    if (rev_) {
      Gather(rev_, n_, scratch_, re_);
      Gather(rev_, n_, scratch_, im_);
    } else {
      Permute(perm_, Count(), re_, im_);
    }
  }
  if (sign >= 0) {
    GridStages<true>();
  } else {
    GridStages<false>();
  }
  if (sign == -1) {
    // The count is a power of two, so its reciprocal is exact and multiplying by it gives the
    // quotient bit for bit (subnormal results included).
    const T scale = T{1} / static_cast<T>(Count());
    for (UINT i = 0; i < Count(); ++i) {
      re_[i] *= scale;
      im_[i] *= scale;
    }
  }
  return 1;
}

template <class T>
template <bool kForward>
void Engine<T>::GridStages() {
  for (UINT y = 0; y < m_; ++y) {
    const std::size_t row = std::size_t{y} << log2n_;
    RowStages<kForward>(re_ + row, im_ + row, n_, log2n_, cos_n_, sin_n_, stage_cos_, stage_sin_);
  }
  if (m_ > 1) ColumnStages<kForward>(re_, im_, n_, m_, log2m_, cos_m_, sin_m_);
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
