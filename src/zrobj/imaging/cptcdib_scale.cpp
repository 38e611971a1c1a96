// CPTCDib's scalers: nearest sample through integer offset tables, and bilinear with 11-bit weights.
// Both step with exact integer remainders, so the first and last target pixels of every row and
// column land on the first and last source pixels.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "imaging/dib_header_internal.h"
#include "platform/dlgsvc.h"
#include "zrobj/cptcdib.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;

namespace {

// The scalers' failures print on channel (category) 4 at level 3, only while debugging.
void Say(const char16_t* text) {
  if (IsDebugOn()) os::wPrintf(4, 3, text);
}

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};

inline std::uint32_t Load32(const BYTE* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

inline void Store32(BYTE* p, std::uint32_t v) { std::memcpy(p, &v, 4); }

// The geometry of a scaling: source and target sizes, depths and strides.
struct ScaleJob {
  const BYTE* src;
  std::uint64_t srcBytes;  // stride x height of the source: no read goes past it
  long sw, sh;
  unsigned sbpp;
  std::size_t sstride;
  BYTE* dst;
  long tw, th;
  unsigned tbpp;
  std::size_t tstride;
};

// Checks the arguments, and reallocates the image to the target. The source may lie in the image's
// own block: then the image takes a new block and `keep` holds the old one until the work is done.
bool Prepare(CPTCDib& image, CPTCDib& keep, const BITMAPINFOHEADER* src, const void* pixels, long w, long h,
             unsigned long& bits, const char16_t* allocFailure, ScaleJob* job) {
  if (src == nullptr || pixels == nullptr || !zr::dib::IsTrueColourFormat(*src) || w <= 0 || h <= 0) return false;
  if (bits == 0) bits = src->biBitCount;
  if (bits != 24 && bits != 32) return false;
  const std::uint64_t srcBytes = zr::dib::PixelBytes(src->biWidth, src->biHeight, src->biBitCount);
  if (srcBytes == 0) return false;
  const BITMAPINFOHEADER header = *src;  // read before the block may change
  const auto* own = static_cast<const BYTE*>(image.GetCDataPtr());
  const auto* from = static_cast<const BYTE*>(pixels);
  const auto* info = reinterpret_cast<const BYTE*>(src);
  const bool inOwn = own != nullptr && ((from >= own && from < own + image.GetSize()) ||
                                        (info >= own && info < own + image.GetSize()));
  if (inOwn) {
    keep = image;
    image.Free();
  }
  if (!image.Realloc(w, h, bits, 0)) {
    Say(allocFailure);
    return false;
  }
  image.GetInfoHeader()->bmi.biCompression = header.biCompression;
  job->src = from;
  job->srcBytes = srcBytes;
  job->sw = header.biWidth;
  job->sh = header.biHeight;
  job->sbpp = header.biBitCount / 8u;
  job->sstride = CPTCDib::GetStride(header.biWidth, header.biBitCount);
  job->dst = image.GetBits();
  job->tw = w;
  job->th = h;
  job->tbpp = static_cast<unsigned>(bits / 8);
  job->tstride = CPTCDib::GetStride(w, bits);
  return true;
}

// Walks the n target positions over a source extent s: the offset advances by (s-1)/(n-1) steps and
// by one more whenever the running remainder (adding (s-1) mod (n-1) each time) passes the carry
// limit, the remainder then dropping by n-1. `emit(k, offset, remainder, n-1)` receives each position
// from k = 1; position 0 is offset 0. Exact integers: position n-1 lands on source index s-1.
template <class Emit>
void WalkPositions(long n, long s, std::uint32_t step, bool carryAtHalf, Emit emit) {
  if (n < 2) return;
  const long span = n - 1;
  const long whole = (s - 1) / span;
  const long rest = (s - 1) % span;
  std::uint32_t offset = 0;
  long remainder = 0;
  for (long k = 1; k < n; ++k) {
    offset += static_cast<std::uint32_t>(whole) * step;
    remainder += rest;
    if (carryAtHalf ? remainder > span / 2 : remainder >= span) {
      offset += step;
      remainder -= span;
    }
    emit(k, offset, remainder, span);
  }
}

// Nearest sample: the carry when the remainder exceeds (n-1)/2, so positions round to the nearer pixel.
void FillFastTable(std::uint32_t* table, long n, long s, std::uint32_t step) {
  table[0] = 0;
  WalkPositions(n, s, step, true, [table](long k, std::uint32_t offset, long, long) { table[k] = offset; });
}

struct BilinearEntry {
  std::uint32_t offset;
  std::uint32_t fraction;  // 0..2047: weight of the next sample
};

// Bilinear: the carry when the remainder reaches n-1, and the remainder as an 11-bit fraction.
void FillBilinearTable(BilinearEntry* table, long n, long s, std::uint32_t step) {
  table[0] = {0, 0};
  WalkPositions(n, s, step, false, [table](long k, std::uint32_t offset, long remainder, long span) {
    table[k] = {offset, static_cast<std::uint32_t>((static_cast<std::uint64_t>(remainder) * 2048) / span)};
  });
}

// The 32-bit word at a source pixel; bytes past the source image read as 0.
std::uint32_t SourceWord(const ScaleJob& job, std::uint64_t at) {
  if (at + 4 <= job.srcBytes) return Load32(job.src + at);
  std::uint32_t word = 0;
  for (std::uint64_t i = 0; at + i < job.srcBytes && i < 4; ++i) word |= std::uint32_t{job.src[at + i]} << (8 * i);
  return word;
}

void RunFast(const ScaleJob& job, const std::uint32_t* cols, const std::uint32_t* rows, std::uint32_t alpha) {
  BYTE* line = job.dst;
  for (long y = 0; y < job.th; ++y, line += job.tstride) {
    const BYTE* srow = job.src + rows[y];
    BYTE* out = line;
    if (rows[y] + std::uint64_t{cols[job.tw - 1]} + 4 <= job.srcBytes) {
      for (long x = 0; x < job.tw; ++x, out += job.tbpp) Store32(out, Load32(srow + cols[x]) | alpha);
    } else {
      for (long x = 0; x < job.tw; ++x, out += job.tbpp) Store32(out, SourceWord(job, rows[y] + cols[x]) | alpha);
    }
  }
}

// ---- bilinear ----

// One output pixel from up to four samples and the weights; C channels, the word starting opaque.
template <int C>
inline std::uint32_t Blend4(const BYTE* p, const BYTE* nx, const BYTE* nd, const BYTE* nxd, std::uint32_t fx,
                            std::uint32_t fy) {
  std::uint32_t word = 0xFFFFFFFFu;
  for (int c = 0; c < C; ++c) {
    const std::uint32_t top = nx[c] * fx + p[c] * (2048 - fx);
    const std::uint32_t bottom = nxd[c] * fx + nd[c] * (2048 - fx);
    const std::uint32_t v = (bottom * fy + top * (2048 - fy)) >> 22;
    word = (word & ~(0xFFu << (8 * c))) | (v << (8 * c));
  }
  return word;
}

template <int C>
inline std::uint32_t Blend2(const BYTE* p, const BYTE* n, std::uint32_t f) {
  std::uint32_t word = 0xFFFFFFFFu;
  for (int c = 0; c < C; ++c) {
    const std::uint32_t v = (n[c] * f + p[c] * (2048 - f)) >> 11;
    word = (word & ~(0xFFu << (8 * c))) | (v << (8 * c));
  }
  return word;
}

template <int C>
inline std::uint32_t Copy(const BYTE* p) {
  std::uint32_t word = 0xFFFFFFFFu;
  for (int c = 0; c < C; ++c) word = (word & ~(0xFFu << (8 * c))) | (std::uint32_t{p[c]} << (8 * c));
  return word;
}

// The source column offset of the right neighbour: none for a 1-pixel-wide source or the last column.
inline std::uint32_t RightStep(const ScaleJob& job, std::uint32_t offset) {
  return offset + job.sbpp < static_cast<std::uint64_t>(job.sw) * job.sbpp ? job.sbpp : 0;
}

inline std::size_t DownStep(const ScaleJob& job, std::uint32_t rowOffset) {
  return rowOffset + job.sstride < static_cast<std::uint64_t>(job.sh) * job.sstride ? job.sstride : 0;
}

// First and last target rows: the first pixel copied, the rest blended horizontally.
template <int C>
void EdgeRow(const ScaleJob& job, const BilinearEntry* cols, const BYTE* srow, BYTE* out) {
  Store32(out, Copy<C>(srow));
  for (long x = 1; x < job.tw; ++x) {
    const BYTE* p = srow + cols[x].offset;
    Store32(out + std::size_t(x) * job.tbpp, Blend2<C>(p, p + RightStep(job, cols[x].offset), cols[x].fraction));
  }
}

// Interior rows: the first and last columns blended vertically, the rest from four samples.
template <int C>
void InteriorRow(const ScaleJob& job, const BilinearEntry* cols, const BYTE* srow, std::size_t down,
                 std::uint32_t fy, BYTE* out) {
  Store32(out, Blend2<C>(srow, srow + down, fy));
  const long last = job.tw - 1;
  for (long x = 1; x < last; ++x) {
    const BYTE* p = srow + cols[x].offset;
    const BYTE* nx = p + RightStep(job, cols[x].offset);
    Store32(out + std::size_t(x) * job.tbpp, Blend4<C>(p, nx, p + down, nx + down, cols[x].fraction, fy));
  }
  if (last > 0) {
    const BYTE* p = srow + cols[last].offset;
    Store32(out + std::size_t(last) * job.tbpp, Blend2<C>(p, p + down, fy));
  }
}

template <int C>
void RunBilinear(const ScaleJob& job, const BilinearEntry* cols, const BilinearEntry* rows) {
  BYTE* line = job.dst;
  for (long y = 0; y < job.th; ++y, line += job.tstride) {
    const BYTE* srow = job.src + rows[y].offset;
    if (y == 0 || y == job.th - 1) {
      EdgeRow<C>(job, cols, srow, line);
    } else {
      InteriorRow<C>(job, cols, srow, DownStep(job, rows[y].offset), rows[y].fraction, line);
    }
  }
}

}  // namespace

int CPTCDib::ScaleDIBFast(const BITMAPINFOHEADER* src, const void* pixels, long w, long h, unsigned long bits) {
  CPTCDib keep;
  ScaleJob job;
  if (!Prepare(*this, keep, src, pixels, w, h, bits,
               u"\rCPTCDib::ScaleDIBFast: Unable to alloc resized DIB memory\r\n", &job)) {
    return 0;
  }
  const std::uint32_t alpha = job.sbpp < job.tbpp ? 0xFF000000u : 0;
  const std::size_t tableBytes = (static_cast<std::size_t>(w) + static_cast<std::size_t>(h)) * 4 + 8;
  std::unique_ptr<std::uint32_t, FreeDeleter> tables(static_cast<std::uint32_t*>(std::malloc(tableBytes)));
  if (!tables) {
    Say(u"\rCPTCDib::ScaleDIBFast: Unable to alloc scaler memory\r\n");
    return 0;
  }
  std::uint32_t* cols = tables.get();
  std::uint32_t* rows = cols + w + 1;
  FillFastTable(cols, w, job.sw, job.sbpp);
  cols[w] = cols[w - 1];
  FillFastTable(rows, h, job.sh, static_cast<std::uint32_t>(job.sstride));
  RunFast(job, cols, rows, alpha);
  return 1;
}

int CPTCDib::ScaleDIBBilinear(const BITMAPINFOHEADER* src, const void* pixels, long w, long h,
                              unsigned long bits) {
  CPTCDib keep;
  ScaleJob job;
  if (!Prepare(*this, keep, src, pixels, w, h, bits,
               u"\rCPTCDib::ScaleDIBBilinear: Unable to alloc resized DIB memory\r\n", &job)) {
    return 0;
  }
  const std::size_t tableBytes = (static_cast<std::size_t>(w) + static_cast<std::size_t>(h)) * 8 + 16;
  std::unique_ptr<BilinearEntry, FreeDeleter> tables(static_cast<BilinearEntry*>(std::malloc(tableBytes)));
  if (!tables) {
    Say(u"\rCPTCDib::ScalDIBBilinear: Unable to alloc scaler memory\r\n");
    return 0;
  }
  BilinearEntry* cols = tables.get();
  BilinearEntry* rows = cols + w + 1;
  FillBilinearTable(cols, w, job.sw, job.sbpp);
  cols[w] = cols[w - 1];
  FillBilinearTable(rows, h, job.sh, static_cast<std::uint32_t>(job.sstride));
  if (job.sbpp == 4 && job.tbpp == 4) {
    RunBilinear<4>(job, cols, rows);
  } else {
    RunBilinear<3>(job, cols, rows);
  }
  return 1;
}
