// CPTCDib: the header byte for byte, sizes and video systems, SetDIB, both scalers against
// independent references, bitmap and ".bsi" files (also made and read by real image tools), and
// hostile files.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/diag_capture.h"
#include "platform/timecode.h"
#include "tests/support/test_support.h"
#include "zrobj/byteorder.h"
#include "zrobj/cheap.h"
#include "zrobj/cptcdib.h"

namespace {

using zrtest::DebugMode;
using zrtest::TempDir;

std::u16string Wide(const std::string& text) { return std::u16string(text.begin(), text.end()); }

const BYTE* Bytes(const CPTCDib& dib) { return static_cast<const BYTE*>(dib.GetCDataPtr()); }

// The 174 header bytes an image must carry, built field by field from the layout.
std::array<BYTE, 174> ExpectedHeader(long w, long h, unsigned bits, DWORD aspectX = 0x10000, DWORD field = 0,
                                     DWORD frame = 1, bool yuv = false) {
  std::array<BYTE, 174> b{};
  const DWORD stride = ((static_cast<DWORD>(w) * (bits / 8)) + 3) / 4 * 4;
  const DWORD used = stride * static_cast<DWORD>(h) + 174;
  b[0] = 'B';
  b[1] = 'M';
  zr::StoreLE32(&b[2], used);
  zr::StoreLE32(&b[10], 174);
  zr::StoreLE32(&b[14], 160);
  zr::StoreLE32(&b[18], static_cast<DWORD>(w));
  zr::StoreLE32(&b[22], static_cast<DWORD>(h));
  zr::StoreLE16(&b[26], 1);
  zr::StoreLE16(&b[28], static_cast<WORD>(bits));
  if (yuv) std::memcpy(&b[30], "@YUV", 4);
  zr::StoreLE32(&b[34], used - 174);
  zr::StoreLE32(&b[54], 144);
  std::memcpy(&b[58], "VORN", 4);
  zr::StoreLE32(&b[70], field);
  zr::StoreLE32(&b[98], frame);
  zr::StoreLE32(&b[114], aspectX);
  zr::StoreLE32(&b[118], 0x10000);
  zr::StoreLE32(&b[166], 16);
  return b;
}

void ExpectHeader(const CPTCDib& dib, const std::array<BYTE, 174>& expected) {
  ASSERT_NE(Bytes(dib), nullptr);
  for (int i = 0; i < 174; ++i) EXPECT_EQ(Bytes(dib)[i], expected[i]) << "header byte " << i;
}

// An image whose pixels are a fixed pseudo-random pattern (so that every byte matters).
CPTCDib Pattern(long w, long h, unsigned bits, unsigned seed = 1) {
  CPTCDib dib;
  EXPECT_TRUE(dib.Alloc(w, h, bits));
  BYTE* p = dib.GetBits();
  std::uint32_t x = seed * 2654435761u + 12345;
  for (unsigned long i = 0; i < dib.GetDIBSize(); ++i) {
    x = x * 1103515245u + 12345u;
    p[i] = static_cast<BYTE>(x >> 16);
  }
  return dib;
}

const BYTE* Pixel(const CPTCDib& dib, long x, long y) {
  long pix = 0;
  long row = 0;
  dib.GetIncrements(pix, row);
  return dib.GetBits() + y * row + x * pix;
}

// ---- header, sizes, allocation ----

TEST(CPTCDibHeader, AllocWritesEveryHeaderByte) {
  CPTCDib dib;
  ASSERT_EQ(dib.Alloc(3, 2, 24), 1);
  EXPECT_EQ(CPTCDib::GetStride(3, 24), 12u);
  EXPECT_EQ(CPTCDib::GetMemSizeDib(3, 2, 24), 198u);
  EXPECT_EQ(CPTCDib::GetAllocSizeDib(3, 2, 24), 230u);
  EXPECT_EQ(dib.GetSize(), 230u);
  EXPECT_EQ(dib.GetDIBSize(), 24u);
  EXPECT_EQ(dib.GetDataSize(), 3u * 12u * 2u);  // |w| x stride x |h|, as computed
  ExpectHeader(dib, ExpectedHeader(3, 2, 24));
  EXPECT_EQ(dib.GetWidth(), 3);
  EXPECT_EQ(dib.GetHeight(), 2);
  EXPECT_EQ(dib.GetBitCount(), 24u);
  long pix = 0, row = 0;
  dib.GetIncrements(pix, row);
  EXPECT_EQ(pix, 3);
  EXPECT_EQ(row, 12);

  ASSERT_EQ(dib.Alloc(5, 3, 32), 1);
  ExpectHeader(dib, ExpectedHeader(5, 3, 32));
  ASSERT_EQ(dib.AllocYUV(4, 1, 32), 1);
  ExpectHeader(dib, ExpectedHeader(4, 1, 32, 0x10000, 0, 1, true));
  EXPECT_TRUE(dib.IsYUV());
  EXPECT_EQ(dib.SetYUV(0), 1);
  ExpectHeader(dib, ExpectedHeader(4, 1, 32));
}

TEST(CPTCDibHeader, RefusedAllocationsAndEmptyImages) {
  CPTCDib dib;
  EXPECT_EQ(dib.Alloc(3, 2, 16), 0);
  EXPECT_EQ(dib.Alloc(0, 2, 24), 0);
  EXPECT_EQ(dib.Alloc(3, 0, 32), 0);
  EXPECT_EQ(dib.Alloc(0x7FFFFFFF, 0x7FFFFFFF, 32), 0);  // does not fit 32 bits
  EXPECT_EQ(dib.GetSize(), 0u);
  EXPECT_EQ(dib.GetWidth(), 0);
  EXPECT_EQ(dib.GetHeight(), 0);
  EXPECT_EQ(dib.GetBitCount(), 0u);
  EXPECT_EQ(dib.GetDIBSize(), 0u);
  EXPECT_EQ(dib.SetYUV(1), 0);
  EXPECT_EQ(dib.SetVideoSystem(1), 0);
  EXPECT_EQ(CPTCDib::GetMemSizeDib(0, 0, 24), 0u);
  EXPECT_EQ(CPTCDib::GetAllocSizeDib(0, 0, 24), 0u);
}

TEST(CPTCDibHeader, NegativeHeightIsTopDownWithAbsoluteSizes) {
  CPTCDib dib;
  ASSERT_EQ(dib.Alloc(3, -2, 24), 1);
  EXPECT_EQ(dib.GetHeight(), -2);
  EXPECT_EQ(dib.GetDIBSize(), 24u);
  EXPECT_EQ(dib.GetDataSize(), 72u);
}

TEST(CPTCDibHeader, VideoSystemsEveryRow) {
  struct Row {
    long w, h;
    DWORD aspect, field, frame;
  };
  const Row rows[8] = {{720, 576, 69905, 0, 0},  {720, 486, 58254, 32, 0}, {768, 576, 0x10000, 0, 0},
                       {640, 486, 0x10000, 32, 0}, {1920, 1080, 0x10000, 0, 1}, {360, 288, 69905, 0, 1},
                       {360, 243, 58254, 0, 1},  {768, 576, 69905, 0, 1}};
  for (int n = 1; n <= 8; ++n) {
    SCOPED_TRACE(n);
    const Row& r = rows[n - 1];
    CPTCDib dib;
    ASSERT_EQ(dib.AllocVideo(n), 1);
    ExpectHeader(dib, ExpectedHeader(r.w, r.h, 24, r.aspect, r.field, r.frame));
    ASSERT_EQ(dib.AllocVideoYUV(n), 1);
    ExpectHeader(dib, ExpectedHeader(r.w, r.h, 24, r.aspect, r.field, r.frame, true));
  }
  CPTCDib dib;
  EXPECT_EQ(dib.AllocVideo(9), 0);
  EXPECT_EQ(dib.AllocVideo(-1), 0);
  ASSERT_EQ(dib.Alloc(2, 2, 32), 1);
  EXPECT_EQ(dib.SetVideoSystem(9), 0);
  ExpectHeader(dib, ExpectedHeader(2, 2, 32));  // unchanged by the refusal
}

TEST(CPTCDibHeader, DefaultTimecodeSystemChoosesTheVideoSystem) {
  const int expected[14] = {1, 2, 2, 5, 5, 5, 5, 5, 5, 6, 7, 8, 5, 0};
  const int saved = zr::os::GetDefTimecodeSystem();
  for (int tc = 0; tc < 14; ++tc) {
    SCOPED_TRACE(tc);
    EXPECT_EQ(CPTCDib::VideoSystemOfTimecode(tc), expected[tc]);
    zr::os::SetDefTimecodeSystem(tc);
    CPTCDib dib;
    EXPECT_EQ(dib.AllocVideo(0), expected[tc] != 0 ? 1 : 0);
    if (expected[tc] == 0) continue;
    CPTCDib direct;
    ASSERT_EQ(direct.AllocVideo(expected[tc]), 1);
    EXPECT_EQ(std::memcmp(Bytes(dib), Bytes(direct), 174), 0);
  }
  EXPECT_EQ(CPTCDib::VideoSystemOfTimecode(-1), 0);
  zr::os::SetDefTimecodeSystem(saved);
}

TEST(CPTCDibHeader, ReallocCopyAllocAndSharing) {
  CPTCDib a = Pattern(4, 3, 24);
  CPTCDib b(a);
  EXPECT_EQ(a.GetRefCnt(), 2);
  ASSERT_EQ(b.Realloc(0, 0, 0), 1);  // private copy, same bytes
  EXPECT_EQ(a.GetRefCnt(), 1);
  EXPECT_NE(Bytes(a), Bytes(b));
  EXPECT_EQ(std::memcmp(Bytes(a), Bytes(b), a.GetSize()), 0);

  ASSERT_EQ(b.Realloc(4, 3, 32), 1);  // fresh header, bytes kept where they were
  ExpectHeader(b, ExpectedHeader(4, 3, 32));
  EXPECT_EQ(std::memcmp(a.GetBits(), b.GetBits(), a.GetDIBSize()), 0);
  EXPECT_EQ(b.Realloc(4, 3, 8), 0);

  CPTCDib c;
  a.SetVideoSystem(2);
  ASSERT_EQ(c.CopyAlloc(a), 1);
  EXPECT_EQ(c.GetSize(), a.GetSize());
  EXPECT_EQ(std::memcmp(Bytes(a), Bytes(c), 174), 0);
  CPTCDib empty;
  EXPECT_EQ(c.CopyAlloc(empty), 1);
  EXPECT_EQ(c.GetSize(), 0u);
}

TEST(CPTCDibHeader, AllocatorIsTheDibPool) {
  CHeap* pool = zr::GetLibraryHeap("DIBPool");
  ASSERT_NE(pool, nullptr);
  unsigned items_before = 0;
  pool->GetHeapState(items_before);
  {
    CPTCDib dib;
    ASSERT_EQ(dib.Alloc(10, 10, 32), 1);
    unsigned items = 0;
    pool->GetHeapState(items);
    EXPECT_EQ(items, items_before + 1);
    EXPECT_EQ(dib.AssertMem(), 1);
  }
  unsigned items_after = 0;
  pool->GetHeapState(items_after);
  EXPECT_EQ(items_after, items_before);
}

#if defined(__SANITIZE_ADDRESS__)
// Blocks carry a poisoned zone behind them under AddressSanitizer: a write one byte past the block
// (its allocated size) is reported and the child dies; a write to its last byte is not. So the scaler
// tests below also prove that no store leaves the block.
int WriteAt(long offsetFromEnd) {
  CPTCDib dib;
  if (!dib.Alloc(8, 3, 24)) return 3;
  volatile BYTE* block = static_cast<BYTE*>(dib.GetDataPtr());
  block[static_cast<long>(dib.GetAllocSize()) + offsetFromEnd] = 1;
  return 0;
}

TEST(CPTCDibHeader, WritesPastTheBlockAreCaught) {
  const zrtest::ChildResult inside = zrtest::RunChild([] { return WriteAt(-1); });
  EXPECT_TRUE(inside.exited && inside.exit_code == 0);
  const zrtest::ChildResult past = zrtest::RunChild([] { return WriteAt(0); });
  EXPECT_FALSE(past.exited && past.exit_code == 0);
  CPTCDib grown;  // the zone moves with an in-place growth
  ASSERT_EQ(grown.Alloc(2, 2, 24), 1);
  ASSERT_EQ(grown.Realloc(8, 3, 24), 1);
  volatile BYTE* block = static_cast<BYTE*>(grown.GetDataPtr());
  block[grown.GetAllocSize() - 1] = 1;
}
#endif

// ---- fast scaler ----

// Which source index target k of n reads, from the closed form of the stepping (rounding halves down).
long NearestIndex(long k, long n, long s) {
  if (n < 2) return 0;
  const long span = n - 1;
  const long q = (s - 1) / span;
  const long r = (s - 1) % span;
  const long over = k * r - span / 2;
  const long carries = over > 0 ? (over + span - 1) / span : 0;
  return k * q + carries;
}

// A 32-bit source whose pixel words name their own coordinates.
CPTCDib CoordinateImage(long w, long h) {
  CPTCDib dib;
  EXPECT_TRUE(dib.Alloc(w, h, 32));
  for (long y = 0; y < h; ++y) {
    for (long x = 0; x < w; ++x) {
      const std::uint32_t word = static_cast<std::uint32_t>(x) | (static_cast<std::uint32_t>(y) << 16);
      std::memcpy(const_cast<BYTE*>(Pixel(dib, x, y)), &word, 4);
    }
  }
  return dib;
}

TEST(CPTCDibFast, SteppingLandsOnFirstAndLastSourcePixels) {
  const long pairs[][2] = {{2, 7}, {7, 2}, {3, 5}, {5, 3}, {1, 5}, {5, 1}, {13, 13}, {100, 9}, {9, 100},
                           {1920, 720}, {720, 1920}, {1080, 576}, {4, 4}, {2, 3}};
  for (const auto& pair : pairs) {
    const long s = pair[0];
    const long n = pair[1];
    SCOPED_TRACE(testing::Message() << "s=" << s << " n=" << n);
    const CPTCDib src = CoordinateImage(s, 2);
    CPTCDib dst;
    ASSERT_EQ(dst.ScaleDIBFast(src, src.GetBits(), n, 2, 32), 1);
    long previous = 0;
    for (long x = 0; x < n; ++x) {
      std::uint32_t word = 0;
      std::memcpy(&word, Pixel(dst, x, 0), 4);
      const long index = static_cast<long>(word & 0xFFFF);
      EXPECT_EQ(index, NearestIndex(x, n, s)) << "x=" << x;
      EXPECT_GE(index, previous);
      previous = index;
    }
    std::uint32_t first = 0, last = 0;
    std::memcpy(&first, Pixel(dst, 0, 0), 4);
    std::memcpy(&last, Pixel(dst, n - 1, 1), 4);
    EXPECT_EQ(first, 0u);
    EXPECT_EQ(last, n == 1 ? 1u << 16 : static_cast<std::uint32_t>(s - 1) | (1u << 16));
  }
  // s = 2, n = 7 worked by hand: the carry comes once the remainder passes 3.
  const CPTCDib src = CoordinateImage(2, 1);
  CPTCDib dst;
  ASSERT_EQ(dst.ScaleDIBFast(src, src.GetBits(), 7, 1, 32), 1);
  const long expected[7] = {0, 0, 0, 0, 1, 1, 1};
  for (long x = 0; x < 7; ++x) EXPECT_EQ(Pixel(dst, x, 0)[0], expected[x]) << x;
}

TEST(CPTCDibFast, RowsStepLikeColumns) {
  const CPTCDib src = CoordinateImage(3, 7);
  CPTCDib dst;
  ASSERT_EQ(dst.ScaleDIBFast(src, src.GetBits(), 3, 2, 32), 1);
  EXPECT_EQ(Pixel(dst, 0, 0)[2], 0);
  EXPECT_EQ(Pixel(dst, 0, 1)[2], 6);
  ASSERT_EQ(dst.ScaleDIBFast(src, src.GetBits(), 2, 5, 32), 1);
  for (long y = 0; y < 5; ++y) EXPECT_EQ(Pixel(dst, 1, y)[2], NearestIndex(y, 5, 7)) << y;
}

TEST(CPTCDibFast, OnePixelWideSourceRepeats) {
  const CPTCDib src = Pattern(1, 1, 24, 7);
  CPTCDib dst;
  ASSERT_EQ(dst.ScaleDIBFast(src, src.GetBits(), 5, 1, 24), 1);
  for (long x = 0; x < 5; ++x) EXPECT_EQ(std::memcmp(Pixel(dst, x, 0), src.GetBits(), 3), 0) << x;
}

TEST(CPTCDibFast, DepthChangesAndPadding) {
  const CPTCDib src24 = Pattern(5, 3, 24, 3);  // stride 16: one padding byte per row
  CPTCDib dst;
  ASSERT_EQ(dst.ScaleDIBFast(src24, src24.GetBits(), 7, 4, 32), 1);
  EXPECT_EQ(dst.GetBitCount(), 32u);
  for (long y = 0; y < 4; ++y) {
    for (long x = 0; x < 7; ++x) {
      const BYTE* t = Pixel(dst, x, y);
      const BYTE* s = Pixel(src24, NearestIndex(x, 7, 5), NearestIndex(y, 4, 3));
      EXPECT_EQ(std::memcmp(t, s, 3), 0);
      EXPECT_EQ(t[3], 0xFF) << "24 -> 32 pixels are opaque";
    }
  }
  const CPTCDib src32 = Pattern(6, 3, 32, 4);
  ASSERT_EQ(dst.ScaleDIBFast(src32, src32.GetBits(), 5, 3, 24), 1);  // stride 16, 15 bytes used
  EXPECT_EQ(dst.GetBitCount(), 24u);
  for (long y = 0; y < 3; ++y) {
    for (long x = 0; x < 5; ++x) {
      EXPECT_EQ(std::memcmp(Pixel(dst, x, y), Pixel(src32, NearestIndex(x, 5, 6), y), 3), 0);
    }
    // The last pixel's fourth byte lands in the row padding: the source's alpha byte.
    EXPECT_EQ(Pixel(dst, 4, y)[3], Pixel(src32, 5, y)[3]);
  }
  // 32 -> 32: alpha carried, no mask.
  ASSERT_EQ(dst.ScaleDIBFast(src32, src32.GetBits(), 3, 3, 32), 1);
  EXPECT_EQ(std::memcmp(Pixel(dst, 2, 2), Pixel(src32, 5, 2), 4), 0);
}

TEST(CPTCDibFast, CompressionCodeTravels) {
  CPTCDib src = Pattern(4, 4, 24);
  src.SetYUV(1);
  CPTCDib dst;
  ASSERT_EQ(dst.ScaleDIBFast(src, src.GetBits(), 2, 2, 24), 1);
  EXPECT_TRUE(dst.IsYUV());
}

// Writes stay inside the block: only the word of the last pixel may reach past the used size, and by
// one byte at most; the block's guards stay intact.
TEST(CPTCDibFast, LastStoreStaysInTheBlock) {
  for (int bilinear = 0; bilinear < 2; ++bilinear) {
    SCOPED_TRACE(bilinear);
    const CPTCDib src = Pattern(9, 5, 32, 11);
    CPTCDib dst;
    ASSERT_EQ(dst.Alloc(8, 3, 24), 1);  // stride 24: no padding
    std::memset(dst.GetDataPtr(), 0xCD, dst.GetSize());
    ASSERT_EQ(bilinear ? dst.ScaleDIBBilinear(src, src.GetBits(), 8, 3, 24)
                       : dst.ScaleDIBFast(src, src.GetBits(), 8, 3, 24),
              1);
    const BYTE* block = Bytes(dst);
    const unsigned long used = CPTCDib::GetMemSizeDib(8, 3, 24);
    EXPECT_EQ(dst.GetSize(), used + 32);
    for (unsigned long i = used + 1; i < dst.GetSize(); ++i) EXPECT_EQ(block[i], 0xCD) << i;
    EXPECT_EQ(dst.AssertMem(), 1);
  }
}

// ---- bilinear scaler ----

struct Step {
  long index;
  std::uint32_t fraction;
};

Step BilinearStep(long k, long n, long s) {
  if (n < 2) return {0, 0};
  const long pos = k * (s - 1);
  return {pos / (n - 1), static_cast<std::uint32_t>((pos % (n - 1)) * 2048 / (n - 1))};
}

// The bilinear result computed pixel by pixel from the closed-form steps and the border rules.
std::vector<std::uint32_t> ReferenceBilinear(const CPTCDib& src, long w, long h, unsigned bits) {
  const long sw = src.GetWidth();
  const long sh = src.GetHeight();
  const int channels = src.GetBitCount() == 32 && bits == 32 ? 4 : 3;
  std::vector<std::uint32_t> out;
  for (long y = 0; y < h; ++y) {
    const Step ry = BilinearStep(y, h, sh);
    const long below = ry.index + 1 < sh ? ry.index + 1 : ry.index;
    for (long x = 0; x < w; ++x) {
      const Step rx = BilinearStep(x, w, sw);
      const long right = rx.index + 1 < sw ? rx.index + 1 : rx.index;
      const BYTE* p = Pixel(src, rx.index, ry.index);
      const BYTE* nx = Pixel(src, right, ry.index);
      const BYTE* nd = Pixel(src, rx.index, below);
      const BYTE* nxd = Pixel(src, right, below);
      std::uint32_t word = 0xFFFFFFFFu;
      for (int c = 0; c < channels; ++c) {
        std::uint32_t v;
        const std::uint32_t fx = rx.fraction, fy = ry.fraction;
        if (y == 0 || y == h - 1) {
          v = x == 0 ? p[c] : (nx[c] * fx + p[c] * (2048 - fx)) >> 11;
        } else if (x == 0 || x == w - 1) {
          v = (nd[c] * fy + p[c] * (2048 - fy)) >> 11;
        } else {
          v = ((nxd[c] * fx + nd[c] * (2048 - fx)) * fy + (nx[c] * fx + p[c] * (2048 - fx)) * (2048 - fy)) >> 22;
        }
        word = (word & ~(0xFFu << (8 * c))) | (v << (8 * c));
      }
      out.push_back(word);
    }
  }
  return out;
}

void ExpectBilinear(const CPTCDib& src, long w, long h, unsigned bits) {
  SCOPED_TRACE(testing::Message() << src.GetWidth() << "x" << src.GetHeight() << "x" << src.GetBitCount() << " -> "
                                  << w << "x" << h << "x" << bits);
  CPTCDib dst;
  ASSERT_EQ(dst.ScaleDIBBilinear(src, src.GetBits(), w, h, bits), 1);
  ASSERT_EQ(dst.GetWidth(), w);
  ASSERT_EQ(dst.GetHeight(), h);
  const std::vector<std::uint32_t> expected = ReferenceBilinear(src, w, h, bits);
  const size_t bytes = bits / 8;
  int mismatches = 0;
  for (long y = 0; y < h; ++y) {
    for (long x = 0; x < w; ++x) {
      const std::uint32_t want = expected[static_cast<size_t>(y * w + x)];
      if (std::memcmp(Pixel(dst, x, y), &want, bytes) != 0 && ++mismatches < 5) {
        ADD_FAILURE() << "pixel " << x << "," << y;
      }
    }
  }
  EXPECT_EQ(mismatches, 0);
}

TEST(CPTCDibBilinear, HandWorkedTwoByTwoToThreeByThree) {
  CPTCDib src;
  ASSERT_EQ(src.Alloc(2, 2, 32), 1);
  const BYTE values[4][4] = {{0, 100, 200, 40}, {10, 110, 210, 60}, {20, 120, 220, 80}, {31, 131, 231, 101}};
  std::memcpy(const_cast<BYTE*>(Pixel(src, 0, 0)), values[0], 4);
  std::memcpy(const_cast<BYTE*>(Pixel(src, 1, 0)), values[1], 4);
  std::memcpy(const_cast<BYTE*>(Pixel(src, 0, 1)), values[2], 4);
  std::memcpy(const_cast<BYTE*>(Pixel(src, 1, 1)), values[3], 4);
  CPTCDib dst;
  ASSERT_EQ(dst.ScaleDIBBilinear(src, src.GetBits(), 3, 3, 32), 1);
  EXPECT_EQ(std::memcmp(Pixel(dst, 0, 0), values[0], 4), 0);  // copied
  const BYTE top_mid[4] = {5, 105, 205, 50};                    // (a + b) / 2
  EXPECT_EQ(std::memcmp(Pixel(dst, 1, 0), top_mid, 4), 0);
  EXPECT_EQ(std::memcmp(Pixel(dst, 2, 0), values[1], 4), 0);
  const BYTE left_mid[4] = {10, 110, 210, 60};  // (a + c) / 2
  EXPECT_EQ(std::memcmp(Pixel(dst, 0, 1), left_mid, 4), 0);
  const BYTE centre[4] = {15, 115, 215, 70};  // (a + b + c + d) / 4, rounded down
  EXPECT_EQ(std::memcmp(Pixel(dst, 1, 1), centre, 4), 0);
  const BYTE right_mid[4] = {20, 120, 220, 80};  // (b + d) / 2
  EXPECT_EQ(std::memcmp(Pixel(dst, 2, 1), right_mid, 4), 0);
  EXPECT_EQ(std::memcmp(Pixel(dst, 0, 2), values[2], 4), 0);
  EXPECT_EQ(std::memcmp(Pixel(dst, 2, 2), values[3], 4), 0);
}

TEST(CPTCDibBilinear, MatchesTheReferenceAcrossSizesAndDepths) {
  const long sizes[][4] = {{5, 4, 9, 7}, {9, 7, 5, 4}, {7, 2, 2, 7}, {1, 1, 4, 3}, {1, 6, 3, 3}, {6, 1, 3, 3},
                           {4, 4, 1, 1}, {4, 4, 1, 5}, {4, 4, 5, 1}, {13, 11, 13, 11}, {64, 36, 24, 20}};
  const unsigned depths[][2] = {{32, 32}, {24, 24}, {24, 32}, {32, 24}};
  unsigned seed = 1;
  for (const auto& s : sizes) {
    for (const auto& d : depths) {
      const CPTCDib src = Pattern(s[0], s[1], d[0], seed++);
      ExpectBilinear(src, s[2], s[3], d[1]);
    }
  }
}

TEST(CPTCDibBilinear, ThreeChannelResultsAreOpaqueInThirtyTwoBits) {
  const CPTCDib src = Pattern(6, 5, 24, 9);
  CPTCDib dst;
  ASSERT_EQ(dst.ScaleDIBBilinear(src, src.GetBits(), 11, 9, 32), 1);
  for (long y = 0; y < 9; ++y) {
    for (long x = 0; x < 11; ++x) EXPECT_EQ(Pixel(dst, x, y)[3], 0xFF);
  }
}

// The source is read through memory that ends exactly at its last byte (the next page is
// inaccessible): neither scaler reads past it.
TEST(CPTCDibScalers, ReadNothingPastTheSource) {
  const long page = sysconf(_SC_PAGESIZE);
  for (unsigned bits : {24u, 32u}) {
    const CPTCDib src = Pattern(7, 5, bits, 21);  // 24 bits: stride 24, no padding
    const size_t bytes = src.GetDIBSize();
    auto* area = static_cast<BYTE*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(area, MAP_FAILED);
    ASSERT_EQ(mprotect(area + page, page, PROT_NONE), 0);
    BYTE* pixels = area + page - bytes;
    std::memcpy(pixels, src.GetBits(), bytes);
    CPTCDib fast, bilinear, expected_fast;
    ASSERT_EQ(fast.ScaleDIBFast(src, pixels, 13, 9, 32), 1);
    ASSERT_EQ(expected_fast.ScaleDIBFast(src, src.GetBits(), 13, 9, 32), 1);
    ASSERT_EQ(bilinear.ScaleDIBBilinear(src, pixels, 13, 9, 24), 1);
    munmap(area, 2 * page);
    // The byte behind the source reads as 0 through the guarded page, the spare byte otherwise: only
    // the alpha of a 24-bit source's last pixel could differ, and the mask makes it opaque.
    EXPECT_EQ(std::memcmp(fast.GetBits(), expected_fast.GetBits(), fast.GetDIBSize()), 0);
    ExpectBilinear(src, 13, 9, 24);
  }
}

// ---- SetDIB ----

TEST(CPTCDibSetDIB, RefusalsWithTheirMessages) {
  DebugMode debug(1);
  const CPTCDib src = Pattern(4, 3, 24);
  CPTCDib dst;
  {
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(dst.SetDIB(src.GetDIBInfo(), 0, 0, 16), 0);
    EXPECT_EQ(capture.Text(), "\rCPTCDib::SetDib: Only 24/32 bitmaps\r\n");
    ASSERT_EQ(capture.Entries().size(), 1u);
    EXPECT_EQ(capture.Entries()[0].channel, 3u);
    EXPECT_EQ(capture.Entries()[0].level, 3u);
  }
  {
    CPTCDib bad(src);
    bad.Realloc(0, 0, 0);
    bad.GetDIBInfo()->bmf.bfType = 0x4D41;
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(dst.SetDIB(bad.GetDIBInfo()), 0);
    EXPECT_EQ(capture.Text(), "\rCPTCDib::SetDib: No BM signature\r\n");
  }
  {
    CPTCDib yuv(src);
    yuv.Realloc(0, 0, 0);
    yuv.SetYUV(1);
    yuv.GetInfoHeader()->dwChromaCode = 8;
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(dst.SetDIB(yuv.GetDIBInfo()), 0);
    EXPECT_EQ(capture.Text(), "\rCPTCDib::SetDib: No YUV444 image\r\n");
  }
  {
    BITMAPINFOHEADER info = src.GetInfoHeader()->bmi;
    info.biBitCount = 16;
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(dst.SetDIB(&info, src.GetBits()), 0);
    info.biBitCount = 24;
    info.biCompression = 3;
    EXPECT_EQ(dst.SetDIB(&info, src.GetBits()), 0);
    info.biCompression = 0;
    info.biHeight = -3;
    EXPECT_EQ(dst.SetDIB(&info, src.GetBits()), 0);
    EXPECT_EQ(capture.Text(), std::string(
                                  "\rCPTCDib::SetDib: Invalid bitcount or no RGB\r\n"
                                  "\rCPTCDib::SetDib: Invalid bitcount or no RGB\r\n"
                                  "\rCPTCDib::SetDib: Invalid bitcount or no RGB\r\n"));
  }
  {
    DebugMode quiet(0);
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(dst.SetDIB(src.GetDIBInfo(), 0, 0, 16), 0);
    EXPECT_EQ(capture.Text(), "");
  }
}

// Allocation failures print on channel (category) 4 at level 3. A size that cannot be allocated
// makes them happen: a source header stating it (its pixels are never read), or a scaler's target.
TEST(CPTCDibSetDIB, AllocationFailuresWithTheirMessages) {
  DebugMode debug(1);
  const CPTCDib small = Pattern(2, 2, 32);
  // [0] states the huge size, [1] is the small image's own header.
  BITMAPINFOHEADER headers[2] = {small.GetInfoHeader()->bmi, small.GetInfoHeader()->bmi};
  headers[0].biWidth = 100000;
  headers[0].biHeight = 100000;
  struct Case {
    const char* what;
    int (*run)(CPTCDib&, const BITMAPINFOHEADER*, const void*);
    const char* message;
  };
  const Case cases[] = {
      {"same size", [](CPTCDib& d, const BITMAPINFOHEADER* h, const void* p) { return d.SetDIB(h, p); },
       "\rCPTCDib::SetDib: Could not allocate memory\r\n"},
      {"fast", [](CPTCDib& d, const BITMAPINFOHEADER* h, const void* p) { return d.ScaleDIBFast(h + 1, p, 100000, 100000, 24); },
       "\rCPTCDib::ScaleDIBFast: Unable to alloc resized DIB memory\r\n"},
      {"bilinear",
       [](CPTCDib& d, const BITMAPINFOHEADER* h, const void* p) { return d.ScaleDIBBilinear(h + 1, p, 100000, 100000, 24); },
       "\rCPTCDib::ScaleDIBBilinear: Unable to alloc resized DIB memory\r\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    CPTCDib dst;
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(c.run(dst, headers, small.GetBits()), 0);
    EXPECT_EQ(capture.Text(), c.message);
    ASSERT_EQ(capture.Entries().size(), 1u);
    EXPECT_EQ(capture.Entries()[0].channel, 4u);
    EXPECT_EQ(capture.Entries()[0].level, 3u);
  }
}

TEST(CPTCDibSetDIB, SameFormatCopiesInfoHeaderAndPixels) {
  CPTCDib src = Pattern(5, 4, 32, 5);
  src.SetVideoSystem(2);
  CPTCDib dst;
  ASSERT_EQ(dst.SetDIB(src.GetDIBInfo()), 1);
  EXPECT_NE(Bytes(dst), Bytes(src));
  EXPECT_EQ(std::memcmp(dst.GetBits(), src.GetBits(), src.GetDIBSize()), 0);
  EXPECT_EQ(std::memcmp(Bytes(dst) + 14, Bytes(src) + 14, 40), 0);
  // The extension is the fresh one of the reallocation, not the source's.
  EXPECT_EQ(DWORD{dst.GetInfoHeader()->dwAspectX}, 0x10000u);

  // Own unshared block: nothing to do.
  const BYTE* before = Bytes(dst);
  EXPECT_EQ(dst.SetDIB(dst.GetDIBInfo(), 3, 3, 24), 1);
  EXPECT_EQ(Bytes(dst), before);
  EXPECT_EQ(dst.GetWidth(), 5);
}

TEST(CPTCDibSetDIB, DifferentSizeChoosesTheScaler) {
  const CPTCDib src = Pattern(9, 6, 32, 6);
  CPTCDib fast, bilinear, direct_fast, direct_bilinear;
  ASSERT_EQ(fast.SetDIB(src.GetDIBInfo(), 4, 5, 0, 0), 1);
  ASSERT_EQ(bilinear.SetDIB(src.GetDIBInfo(), 4, 5, 0, DIB_SCALE_BILINEAR), 1);
  ASSERT_EQ(direct_fast.ScaleDIBFast(src, src.GetBits(), 4, 5, 32), 1);
  ASSERT_EQ(direct_bilinear.ScaleDIBBilinear(src, src.GetBits(), 4, 5, 32), 1);
  EXPECT_EQ(std::memcmp(fast.GetBits(), direct_fast.GetBits(), fast.GetDIBSize()), 0);
  EXPECT_EQ(std::memcmp(bilinear.GetBits(), direct_bilinear.GetBits(), bilinear.GetDIBSize()), 0);
  EXPECT_NE(std::memcmp(fast.GetBits(), bilinear.GetBits(), fast.GetDIBSize()), 0);
  // Same size, another depth: scaled (converted) too.
  CPTCDib converted;
  ASSERT_EQ(converted.SetDIB(src.GetDIBInfo(), 0, 0, 24), 1);
  EXPECT_EQ(converted.GetBitCount(), 24u);
  EXPECT_EQ(std::memcmp(Pixel(converted, 8, 5), Pixel(src, 8, 5), 3), 0);
}

TEST(CPTCDibSetDIB, ScalingItsOwnSharedBlock) {
  CPTCDib image = Pattern(6, 6, 32, 8);
  const CPTCDib original(image);
  CPTCDib expected;
  ASSERT_EQ(expected.ScaleDIBBilinear(original, original.GetBits(), 12, 11, 32), 1);
  ASSERT_EQ(image.SetDIB(image.GetDIBInfo(), 12, 11, 32, DIB_SCALE_BILINEAR), 1);
  EXPECT_EQ(std::memcmp(image.GetBits(), expected.GetBits(), expected.GetDIBSize()), 0);
  EXPECT_EQ(original.GetWidth(), 6);
  // Unshared, scaled from its own pixels: works from a kept copy of the old block.
  CPTCDib alone = Pattern(6, 6, 32, 8);
  ASSERT_EQ(alone.ScaleDIBFast(alone, alone.GetBits(), 3, 3, 32), 1);
  CPTCDib check;
  ASSERT_EQ(check.ScaleDIBFast(original, original.GetBits(), 3, 3, 32), 1);
  EXPECT_EQ(std::memcmp(alone.GetBits(), check.GetBits(), check.GetDIBSize()), 0);
}

// A source that states a smaller image size than the image is copied as far as its memory reads;
// nothing readable at the pointer gives 0.
TEST(CPTCDibSetDIB, ShortStatedSizeCopiesReadableMemoryOnly) {
  const long page = sysconf(_SC_PAGESIZE);
  const CPTCDib src = Pattern(8, 4, 32, 12);  // 128 pixel bytes
  auto* area = static_cast<BYTE*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(area, MAP_FAILED);
  ASSERT_EQ(mprotect(area + page, page, PROT_NONE), 0);
  BYTE* pixels = area + page - 100;  // only 100 of the 128 bytes are readable
  std::memcpy(pixels, src.GetBits(), 100);
  BITMAPINFOHEADER info = src.GetInfoHeader()->bmi;
  info.biSizeImage = 0;
  CPTCDib dst;
  ASSERT_EQ(dst.Alloc(8, 4, 32), 1);
  std::memset(dst.GetBits(), 0xAB, dst.GetDIBSize());
  ASSERT_EQ(dst.SetDIB(&info, pixels), 1);
  EXPECT_EQ(std::memcmp(dst.GetBits(), src.GetBits(), 100), 0);
  EXPECT_EQ(DWORD{dst.GetInfoHeader()->bmi.biSizeImage}, 0u);  // the source's info header was copied
  EXPECT_EQ(dst.SetDIB(&info, area + page), 0);
  munmap(area, 2 * page);
}

// ---- files ----

std::string PixelBytesOf(const CPTCDib& dib) {
  return std::string(reinterpret_cast<const char*>(dib.GetBits()), dib.GetDIBSize());
}

TEST(CPTCDibFiles, StandardBitmapRoundTrip) {
  TempDir dir;
  for (unsigned bits : {24u, 32u}) {
    CPTCDib src = Pattern(7, 5, bits, bits);
    const std::string path = dir.File("a" + std::to_string(bits) + ".bmp");
    ASSERT_EQ(src.SaveToFile(Wide(path).c_str()), 1);
    const std::string file = zrtest::ReadFile(path);
    ASSERT_EQ(file.size(), 54 + src.GetDIBSize());
    const BYTE* f = reinterpret_cast<const BYTE*>(file.data());
    EXPECT_EQ(f[0], 'B');
    EXPECT_EQ(f[1], 'M');
    EXPECT_EQ(zr::LoadLE32(f + 2), zr::LoadLE32(Bytes(src) + 2));  // the block's own file-size field
    EXPECT_EQ(zr::LoadLE32(f + 10), 54u);
    EXPECT_EQ(zr::LoadLE32(f + 14), 40u);
    EXPECT_EQ(std::memcmp(f + 18, Bytes(src) + 18, 16), 0);  // dimensions, planes, depth, compression
    EXPECT_EQ(zr::LoadLE32(f + 34), src.GetDIBSize());
    EXPECT_EQ(file.substr(54), PixelBytesOf(src));

    CPTCDib back;
    ASSERT_EQ(back.LoadFromFile(Wide(path).c_str()), 1);
    ExpectHeader(back, ExpectedHeader(7, 5, bits));
    EXPECT_EQ(PixelBytesOf(back), PixelBytesOf(src));
  }
}

TEST(CPTCDibFiles, BsiRoundTripKeepsTheExtension) {
  TempDir dir;
  CPTCDib src = Pattern(6, 3, 24, 2);
  src.SetVideoSystem(2);
  src.SetYUV(1);
  for (const char* name : {"x.bsi", "X.BSI", "y.BsI"}) {
    SCOPED_TRACE(name);
    const std::string path = dir.File(name);
    ASSERT_EQ(src.SaveToFile(Wide(path).c_str()), 1);
    const std::string file = zrtest::ReadFile(path);
    ASSERT_EQ(file.size(), 160 + src.GetDIBSize());
    EXPECT_EQ(std::memcmp(file.data(), Bytes(src) + 14, 160), 0);
    EXPECT_EQ(file.substr(160), PixelBytesOf(src));
    CPTCDib back;
    ASSERT_EQ(back.LoadFromFile(Wide(path).c_str()), 1);
    EXPECT_EQ(std::memcmp(Bytes(back), Bytes(src), 174 + src.GetDIBSize()), 0);
  }
}

// A standard bitmap loads whatever its name: only a file that does not start with "BM" is read in the
// extended form.
TEST(CPTCDibFiles, StandardBitmapNamedBsiLoads) {
  TempDir dir;
  const CPTCDib src = Pattern(5, 4, 24, 22);
  const std::string standard = dir.File("s.bmp");
  ASSERT_EQ(src.SaveToFile(Wide(standard).c_str()), 1);
  const std::string renamed = dir.File("s.BSI");
  ASSERT_TRUE(zrtest::WriteFile(renamed, zrtest::ReadFile(standard)));
  CPTCDib back;
  ASSERT_EQ(back.LoadFromFile(Wide(renamed).c_str()), 1);
  ExpectHeader(back, ExpectedHeader(5, 4, 24));
  EXPECT_EQ(PixelBytesOf(back), PixelBytesOf(src));
}

TEST(CPTCDibFiles, SaveRefusalsAndFolderCreation) {
  TempDir dir;
  CPTCDib empty;
  EXPECT_EQ(empty.SaveToFile(Wide(dir.File("e.bmp")).c_str()), 0);
  const CPTCDib src = Pattern(2, 2, 24);
  EXPECT_EQ(src.GetRefCnt(), 1);
  CPTCDib copy(src);
  EXPECT_EQ(copy.SaveToFile(u""), 0);
  EXPECT_EQ(copy.SaveToFile(nullptr), 0);
  const std::string nested = dir.File("new/deeper/z.bmp");
  ASSERT_EQ(copy.SaveToFile(Wide(nested).c_str()), 1);
  CPTCDib back;
  ASSERT_EQ(back.LoadFromFile(Wide(nested).c_str()), 1);
  EXPECT_EQ(PixelBytesOf(back), PixelBytesOf(src));
}

TEST(CPTCDibFiles, LoadResizesAndConverts) {
  TempDir dir;
  const CPTCDib src = Pattern(9, 7, 32, 14);
  const std::string path = dir.File("s.bmp");
  ASSERT_EQ(src.SaveToFile(Wide(path).c_str()), 1);
  CPTCDib loaded, expected;
  ASSERT_EQ(loaded.LoadFromFile(Wide(path).c_str(), 4, 3, 24, DIB_SCALE_BILINEAR), 1);
  ASSERT_EQ(expected.ScaleDIBBilinear(src, src.GetBits(), 4, 3, 24), 1);
  EXPECT_EQ(PixelBytesOf(loaded), PixelBytesOf(expected));
  ASSERT_EQ(loaded.LoadFromFile(Wide(path).c_str(), 0, 0, 24), 1);  // depth only
  EXPECT_EQ(loaded.GetBitCount(), 24u);
  EXPECT_EQ(loaded.GetWidth(), 9);
  EXPECT_EQ(loaded.LoadFromFile(Wide(path).c_str(), 0, 0, 16), 0);
  EXPECT_EQ(loaded.GetSize(), 0u);
}

// A file whose header is edited after saving.
std::string EditedFile(const std::string& file, size_t offset, DWORD value, int width = 4) {
  std::string out = file;
  if (width == 2) {
    zr::StoreLE16(&out[offset], static_cast<WORD>(value));
  } else {
    zr::StoreLE32(&out[offset], value);
  }
  return out;
}

TEST(CPTCDibFiles, StatedImageSizeZeroIsTakenFromTheDimensions) {
  TempDir dir;
  const CPTCDib src = Pattern(5, 3, 24, 15);
  const std::string path = dir.File("z.bmp");
  ASSERT_EQ(src.SaveToFile(Wide(path).c_str()), 1);
  ASSERT_TRUE(zrtest::WriteFile(path, EditedFile(zrtest::ReadFile(path), 34, 0)));
  CPTCDib back;
  ASSERT_EQ(back.LoadFromFile(Wide(path).c_str()), 1);
  EXPECT_EQ(PixelBytesOf(back), PixelBytesOf(src));
}

TEST(CPTCDibFiles, HostileFilesAreRefusedWithTheirMessages) {
  DebugMode debug(1);
  TempDir dir;
  const CPTCDib src = Pattern(6, 4, 24, 16);
  const std::string good_path = dir.File("g.bmp");
  ASSERT_EQ(src.SaveToFile(Wide(good_path).c_str()), 1);
  const std::string good = zrtest::ReadFile(good_path);
  const std::string format = "\rCPTCDib::LoadFromFile: Invalid format (24/32 bit RGB required)\r\n";
  const std::string size = "\rCPTCDib::LoadFromFile: Inconsistent indirect size definition\r\n";
  struct Case {
    const char* what;
    std::string bytes;
    std::string message;
  };
  std::string not_bm = good;
  not_bm[0] = 'X';
  const Case cases[] = {
      {"empty", "", format},
      {"header cut", good.substr(0, 53), format},
      {"no BM", not_bm, format},
      {"16 bits", EditedFile(good, 28, 16, 2), format},
      {"compression 3", EditedFile(good, 30, 3), format},
      {"zero width", EditedFile(good, 18, 0), format},
      {"negative height", EditedFile(good, 22, 0xFFFFFFFCu), format},
      {"pixels cut", good.substr(0, good.size() - 1), size},
      {"lying width", EditedFile(good, 18, 0x7FFFFFFF), size},
      {"lying height", EditedFile(good, 22, 4000), size},
      {"huge info size", EditedFile(good, 14, 0xFFFFFFF0u), size},
      {"info size past pixels", EditedFile(good, 14, 41), size},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string path = dir.File("h.bmp");
    ASSERT_TRUE(zrtest::WriteFile(path, c.bytes));
    CPTCDib dib = Pattern(2, 2, 32);
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(dib.LoadFromFile(Wide(path).c_str()), 0);
    EXPECT_EQ(capture.Text(), c.message);
    EXPECT_EQ(dib.GetSize(), 0u) << "a failed load leaves the image empty";
    // Channel (category) 3 for the format, 5 for the size; level 3 both.
    ASSERT_EQ(capture.Entries().size(), 1u);
    EXPECT_EQ(capture.Entries()[0].channel, c.message == format ? 3u : 5u);
    EXPECT_EQ(capture.Entries()[0].level, 3u);
  }
  CPTCDib dib;
  EXPECT_EQ(dib.LoadFromFile(Wide(dir.File("missing.bmp")).c_str()), 0);
}

TEST(CPTCDibFiles, HostileBsiFiles) {
  TempDir dir;
  const CPTCDib src = Pattern(6, 4, 32, 17);
  const std::string path = dir.File("g.bsi");
  ASSERT_EQ(src.SaveToFile(Wide(path).c_str()), 1);
  const std::string good = zrtest::ReadFile(path);
  std::string no_magic = good;
  no_magic[44] = 'X';
  for (const std::string& bad : {good.substr(0, 159), good.substr(0, good.size() - 1), no_magic,
                                 EditedFile(good, 0, 40), EditedFile(good, 4, 0x10000), EditedFile(good, 14, 8, 2)}) {
    ASSERT_TRUE(zrtest::WriteFile(path, bad));
    CPTCDib dib;
    EXPECT_EQ(dib.LoadFromFile(Wide(path).c_str()), 0);
    EXPECT_EQ(dib.GetSize(), 0u);
  }
}

TEST(CPTCDibFiles, PixelsAreReadFromOffset54WhateverTheDataOffset) {
  TempDir dir;
  const CPTCDib src = Pattern(4, 2, 24, 18);
  const std::string path = dir.File("o.bmp");
  ASSERT_EQ(src.SaveToFile(Wide(path).c_str()), 1);
  std::string file = EditedFile(zrtest::ReadFile(path), 10, 60);
  file += std::string(6, '\x77');
  ASSERT_TRUE(zrtest::WriteFile(path, file));
  CPTCDib back;
  ASSERT_EQ(back.LoadFromFile(Wide(path).c_str()), 1);
  EXPECT_EQ(PixelBytesOf(back), PixelBytesOf(src));
}

TEST(CPTCDibFiles, ResourceBytesLoadLikeAFile) {
  DebugMode debug(1);
  const CPTCDib src = Pattern(3, 3, 32, 19);
  TempDir dir;
  const std::string path = dir.File("r.bmp");
  ASSERT_EQ(src.SaveToFile(Wide(path).c_str()), 1);
  const std::string file = zrtest::ReadFile(path);
  CPTCDib dib;
  ASSERT_EQ(dib.LoadFromResource(file.data(), static_cast<unsigned long>(file.size())), 1);
  EXPECT_EQ(PixelBytesOf(dib), PixelBytesOf(src));
  zr::os::ScopedDiagCapture capture;
  EXPECT_EQ(dib.LoadFromResource(file.data(), static_cast<unsigned long>(file.size() - 1)), 0);
  EXPECT_EQ(dib.LoadFromResource(file.data(), 20), 0);
  EXPECT_EQ(capture.Text(),
            "\rCPTCDib::LoadFromResource: Inconsistent indirect size definition\r\n"
            "\rCPTCDib::LoadFromResource: Invalid format (24/32 bit RGB required)\r\n");
}

// ---- real image tools ----

bool HaveTool(const char* name) {
  const std::string command = std::string("command -v ") + name + " >/dev/null 2>&1";
  return std::system(command.c_str()) == 0;
}

int Shell(const std::string& command) { return std::system(("{ " + command + "; } 2>/dev/null").c_str()); }

// A P6 image of w x h with varied colours, as bytes R, G, B per pixel, rows top-down.
std::string PpmPixels(long w, long h) {
  std::string rgb;
  for (long y = 0; y < h; ++y) {
    for (long x = 0; x < w; ++x) {
      rgb += static_cast<char>((x * 37 + y * 11) & 0xFF);
      rgb += static_cast<char>((x * 5 + y * 53 + 7) & 0xFF);
      rgb += static_cast<char>((x * y * 3 + 101) & 0xFF);
    }
  }
  return rgb;
}

std::string Ppm(long w, long h, const std::string& rgb) {
  return "P6\n" + std::to_string(w) + " " + std::to_string(h) + "\n255\n" + rgb;
}

// Our pixel (x, y) with y counted from the top, as R, G, B.
std::string RgbAt(const CPTCDib& dib, long x, long y) {
  const BYTE* p = Pixel(dib, x, dib.GetHeight() - 1 - y);
  return {static_cast<char>(p[2]), static_cast<char>(p[1]), static_cast<char>(p[0])};
}

void ExpectSamePixels(const CPTCDib& dib, long w, long h, const std::string& rgb) {
  ASSERT_EQ(dib.GetWidth(), w);
  ASSERT_EQ(dib.GetHeight(), h);
  int mismatches = 0;
  for (long y = 0; y < h; ++y) {
    for (long x = 0; x < w; ++x) {
      if (RgbAt(dib, x, y) != rgb.substr(static_cast<size_t>((y * w + x) * 3), 3) && ++mismatches < 5) {
        ADD_FAILURE() << "pixel " << x << "," << y;
      }
    }
  }
  EXPECT_EQ(mismatches, 0);
}

TEST(CPTCDibTools, BitmapsWrittenByImageToolsLoad) {
  const bool magick = HaveTool("convert");
  const bool netpbm = HaveTool("ppmtobmp");
  if (!magick && !netpbm) GTEST_SKIP() << "neither ImageMagick's convert nor netpbm's ppmtobmp is installed";
  TempDir dir;
  const long w = 37, h = 23;  // odd width: rows padded
  const std::string rgb = PpmPixels(w, h);
  const std::string ppm = dir.File("in.ppm");
  ASSERT_TRUE(zrtest::WriteFile(ppm, Ppm(w, h, rgb)));
  std::vector<std::string> files;
  if (magick) {
    ASSERT_EQ(Shell("convert " + ppm + " BMP3:" + dir.File("im.bmp")), 0);
    files.push_back(dir.File("im.bmp"));
  }
  if (netpbm) {
    ASSERT_EQ(Shell("ppmtobmp -bpp=24 " + ppm + " > " + dir.File("np.bmp")), 0);
    files.push_back(dir.File("np.bmp"));
  }
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    CPTCDib dib;
    ASSERT_EQ(dib.LoadFromFile(Wide(file).c_str()), 1);
    EXPECT_EQ(dib.GetBitCount(), 24u);
    ExpectSamePixels(dib, w, h, rgb);
  }
  if (!netpbm) GTEST_SKIP() << "netpbm's ppmtobmp is not installed; checked ImageMagick only";
  if (!magick) GTEST_SKIP() << "ImageMagick's convert is not installed; checked netpbm only";
}

TEST(CPTCDibTools, BitfieldBitmapsOfImageToolsAreRefused) {
  if (!HaveTool("convert")) GTEST_SKIP() << "ImageMagick's convert is not installed";
  TempDir dir;
  const std::string pam = dir.File("in.pam");
  std::string body = "P7\nWIDTH 4\nHEIGHT 3\nDEPTH 4\nMAXVAL 255\nTUPLTYPE RGB_ALPHA\nENDHDR\n";
  for (int i = 0; i < 48; ++i) body += static_cast<char>(i * 5);
  ASSERT_TRUE(zrtest::WriteFile(pam, body));
  ASSERT_EQ(Shell("convert " + pam + " " + dir.File("v5.bmp")), 0);
  CPTCDib dib;
  EXPECT_EQ(dib.LoadFromFile(Wide(dir.File("v5.bmp")).c_str()), 0);  // 32 bits as bit fields
}

// The saved file keeps the block's file-size field (the used size, more than the file holds):
// netpbm reads it; ImageMagick refuses such a field.
TEST(CPTCDibTools, OurBitmapsReadBackByImageTools) {
  if (!HaveTool("bmptopnm")) GTEST_SKIP() << "netpbm's bmptopnm is not installed";
  TempDir dir;
  for (unsigned bits : {24u, 32u}) {
    const long w = 29, h = 17;
    const CPTCDib src = Pattern(w, h, bits, 40 + bits);
    const std::string bmp = dir.File("ours" + std::to_string(bits) + ".bmp");
    ASSERT_EQ(src.SaveToFile(Wide(bmp).c_str()), 1);
    std::string expected;
    for (long y = 0; y < h; ++y) {
      for (long x = 0; x < w; ++x) expected += RgbAt(src, x, y);
    }
    ASSERT_EQ(Shell("bmptopnm " + bmp + " > " + dir.File("back.ppm")), 0);
    const std::string back = zrtest::ReadFile(dir.File("back.ppm"));
    const std::string header = "P6\n" + std::to_string(w) + " " + std::to_string(h) + "\n255\n";
    ASSERT_GE(back.size(), header.size());
    EXPECT_EQ(back.substr(0, header.size()), header);
    EXPECT_TRUE(back.substr(header.size()) == expected) << "pixels differ";
  }
}

}  // namespace
