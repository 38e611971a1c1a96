// Run-length codec: stated block layouts, the run threshold, the fallback boundary, strides, 16-bit
// elements, round trips, and a fuzz loop over the checked expander.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "zrobj/byteorder.h"
#include "platform/diag_capture.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrrle.h"

namespace {

using Bytes = std::vector<BYTE>;

DWORD Word(const Bytes& b, std::size_t at) { return zr::LoadLE32(b.data() + at); }

void PutWord(Bytes& b, DWORD v) {
  b.resize(b.size() + 4);
  zr::StoreLE32(b.data() + b.size() - 4, v);
}

// Compresses into a destination of `capacity` bytes; empty when RLECompress refuses.
Bytes Compress(const Bytes& source, DWORD count, DWORD stride, std::size_t capacity) {
  Bytes out(capacity, 0xEE);
  if (!RLECompress(out.data(), static_cast<DWORD>(capacity), source.data(), count, stride)) return {};
  out.resize(Word(out, 4));
  return out;
}

std::string Checked(Bytes& dest, const Bytes& block, DWORD stride) {
  char error[256] = "untouched";
  const int ok = RLEDecompressChecked(dest.data(), static_cast<DWORD>(dest.size()), block.data(),
                                      static_cast<DWORD>(block.size()), stride, error, sizeof(error));
  return ok ? "ok" : error;
}

// Data with long runs, short repetitions and noise mixed.
Bytes MixedData(std::mt19937& rng, std::size_t n) {
  Bytes out;
  while (out.size() < n) {
    const int kind = static_cast<int>(rng() % 3);
    const std::size_t len = kind == 0 ? 1 + rng() % 40 : 1 + rng() % 12;
    const BYTE value = static_cast<BYTE>(rng());
    for (std::size_t i = 0; i < len && out.size() < n; ++i) out.push_back(kind == 2 ? static_cast<BYTE>(rng()) : value);
  }
  return out;
}

TEST(ZrRle, StatedBlocks) {
  const Bytes twenty(20, 0x41);
  const Bytes block = Compress(twenty, 20, 1, 64);
  ASSERT_EQ(block.size(), 17u);
  EXPECT_EQ(Word(block, 0), 20u);
  EXPECT_EQ(Word(block, 4), 17u);
  EXPECT_EQ(Word(block, 8), 1u);
  EXPECT_EQ(Word(block, 12), 20u);
  EXPECT_EQ(block[16], 0x41);

  // Ten equal elements are not a run; eleven are.
  Bytes ten = Bytes(10, 7);
  for (BYTE b : {1, 2, 3, 4, 5}) ten.push_back(b);
  const Bytes lit = Compress(ten, 15, 1, 64);
  ASSERT_EQ(lit.size(), 12u + 4 + 15);
  EXPECT_EQ(Word(lit, 8), 1u);
  EXPECT_EQ(Word(lit, 12), RLE_LITERAL_FLAG | 15);
  Bytes eleven = Bytes(11, 7);
  eleven.push_back(9);
  const Bytes run = Compress(eleven, 12, 1, 64);
  ASSERT_EQ(run.size(), 12u + 5 + 5);
  EXPECT_EQ(Word(run, 8), 2u);
  EXPECT_EQ(Word(run, 12), 11u);
  EXPECT_EQ(Word(run, 17), RLE_LITERAL_FLAG | 1);

  // A literal before a run, then the run.
  Bytes lead = {1, 2, 3};
  lead.insert(lead.end(), 30, 0xAB);
  const Bytes two = Compress(lead, 33, 1, 64);
  ASSERT_EQ(two.size(), 12u + 7 + 5);
  EXPECT_EQ(Word(two, 12), RLE_LITERAL_FLAG | 3);
  EXPECT_EQ(Word(two, 19), 30u);
  EXPECT_EQ(two[23], 0xAB);

  // Empty input: header only.
  const Bytes empty = Compress({}, 0, 1, 17);
  ASSERT_EQ(empty.size(), 12u);
  EXPECT_EQ(Word(empty, 8), 0u);
}

TEST(ZrRle, FallbackBoundary) {
  Bytes src(100);
  for (std::size_t i = 0; i < src.size(); ++i) src[i] = static_cast<BYTE>(i * 7);
  EXPECT_TRUE(Compress(src, 100, 1, 16).empty());
  Bytes tiny(20, 1);
  EXPECT_TRUE(Compress(tiny, 20, 1, 16).empty());  // 16 bytes always fail, even for a run
  const Bytes exact = Compress(src, 100, 1, 116);  // exactly count + 16
  ASSERT_EQ(exact.size(), 116u);
  EXPECT_EQ(Word(exact, 8), 1u);
  EXPECT_EQ(Word(exact, 12), RLE_LITERAL_FLAG | 100);
  EXPECT_TRUE(Compress(src, 100, 1, 115).empty());

  // Compressible input that overflows a small destination falls back to one literal when it fits:
  // many short runs cost 5 bytes per 11 elements plus literals, more than the destination holds.
  Bytes runs;
  for (int r = 0; r < 10; ++r) {
    runs.insert(runs.end(), 11, static_cast<BYTE>(r));
    runs.push_back(0xFF);
  }
  const DWORD n = static_cast<DWORD>(runs.size());
  const Bytes full = Compress(runs, n, 1, 4096);
  ASSERT_FALSE(full.empty());
  ASSERT_LT(full.size(), n + 16u);
  const Bytes squeezed = Compress(runs, n, 1, full.size() - 1);
  EXPECT_TRUE(squeezed.empty());  // neither the tags nor n + 16 fit
  Bytes dest(n);
  EXPECT_EQ(Checked(dest, full, 1), "ok");
  EXPECT_EQ(dest, runs);
}

TEST(ZrRle, StridesAndRoundTrips) {
  // Stride 3 reads bytes 0, 3, 6, 9 and writes them back to the same places.
  Bytes rgb(12);
  for (std::size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<BYTE>(0x10 + i);
  const Bytes block = Compress(rgb, 4, 3, 64);
  ASSERT_EQ(block.size(), 12u + 4 + 4);
  EXPECT_EQ(Bytes(block.begin() + 16, block.end()), (Bytes{0x10, 0x13, 0x16, 0x19}));
  Bytes back(12, 0);
  EXPECT_EQ(RLEDecompress(back.data(), block.data(), 3), 1);
  EXPECT_EQ(back, (Bytes{0x10, 0, 0, 0x13, 0, 0, 0x16, 0, 0, 0x19, 0, 0}));

  std::mt19937 rng(42);
  for (DWORD stride = 1; stride <= 4; ++stride) {
    for (int round = 0; round < 40; ++round) {
      const DWORD count = rng() % 3000;
      Bytes src = MixedData(rng, std::size_t{count} * stride + 1);
      const Bytes blk = Compress(src, count, stride, count + 16);
      ASSERT_FALSE(blk.empty()) << "count + 16 always suffices";
      ASSERT_LE(blk.size(), count + 16u);
      Bytes plain(src.size(), 0x5A), checked(src.size(), 0x5A);
      RLEDecompress(plain.data(), blk.data(), stride);
      ASSERT_EQ(Checked(checked, blk, stride), "ok");
      ASSERT_EQ(plain, checked);
      for (std::size_t i = 0; i < src.size(); ++i)
        ASSERT_EQ(plain[i], i % stride == 0 && i / stride < count ? src[i] : 0x5A) << i;
    }
  }
}

TEST(ZrRle, SixteenBitElements) {
  std::vector<WORD> src(40);
  for (std::size_t i = 0; i < src.size(); ++i) src[i] = i < 30 ? 0x1234 : static_cast<WORD>(i);
  Bytes block(256);
  ASSERT_EQ(RLE16Compress(block.data(), 256, src.data(), 20, 2), 1);  // even indices: 15 x 0x1234, then 5 others
  EXPECT_EQ(Word(block, 4), 12u + 6 + 4 + 10);
  EXPECT_EQ(Word(block, 12), 15u);
  EXPECT_EQ(block[16], 0x34);
  EXPECT_EQ(block[17], 0x12);
  std::vector<WORD> back(40, 0);
  RLE16Decompress(back.data(), block.data(), 2);
  for (std::size_t i = 0; i < 40; i += 2) EXPECT_EQ(back[i], src[i]);
  std::vector<WORD> checked(39, 0);
  char error[128];
  EXPECT_EQ(RLE16DecompressChecked(checked.data(), 39, block.data(), Word(block, 4), 2, error, sizeof(error)), 1);
  EXPECT_EQ(RLE16DecompressChecked(checked.data(), 38, block.data(), Word(block, 4), 2, error, sizeof(error)), 0);

  Bytes small(17);
  EXPECT_EQ(RLE16Compress(small.data(), 17, src.data(), 20, 1), 0);  // below header + run tag
  std::vector<WORD> noise(50);
  for (std::size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<WORD>(i * 977);
  Bytes exact(50 * 2 + 16);
  ASSERT_EQ(RLE16Compress(exact.data(), static_cast<DWORD>(exact.size()), noise.data(), 50, 1), 1);
  EXPECT_EQ(Word(exact, 4), 116u);
  EXPECT_EQ(RLE16Compress(exact.data(), 115, noise.data(), 50, 1), 0);
}

TEST(ZrRle, CheckedExpanderRejectsDamage) {
  const Bytes good = Compress(Bytes(20, 0x41), 20, 1, 64);
  Bytes dest(20);
  EXPECT_EQ(Checked(dest, good, 1), "ok");
  EXPECT_EQ(Checked(dest, Bytes(good.begin(), good.begin() + 8), 1),
            "a block of 8 bytes is shorter than its 12-byte header");
  EXPECT_EQ(Checked(dest, Bytes(good.begin(), good.end() - 1), 1), "the block states 17 bytes but 16 are available");
  Bytes small(19);
  EXPECT_EQ(Checked(small, good, 1), "20 elements at stride 1 need 20 bytes but the destination holds 19");
  Bytes wide(20 * 3 - 2);
  EXPECT_EQ(Checked(wide, good, 3), "ok");  // the last element needs only its own byte

  Bytes overrun = good;  // a run tag claiming more elements than the header
  overrun[12] = 21;
  EXPECT_EQ(Checked(dest, overrun, 1), "tag 0 at offset 12 expands past the 20 elements the block holds");
  Bytes short_tags = good;
  short_tags[12] = 19;
  EXPECT_EQ(Checked(dest, short_tags, 1), "the tags expand to 19 elements but the block holds 20");
  Bytes literal;  // a literal of 20 elements with only 3 bytes behind it
  for (DWORD v : {20u, 19u, 1u, RLE_LITERAL_FLAG | 20}) PutWord(literal, v);
  literal.insert(literal.end(), {1, 2, 3});
  EXPECT_EQ(Checked(dest, literal, 1), "tag 0 at offset 12 needs 20 bytes but the block ends after 3");
  Bytes extra_tags = good;  // tag count 2, but the block ends after the first tag
  extra_tags[8] = 2;
  EXPECT_EQ(Checked(dest, extra_tags, 1), "tag 1 at offset 17 runs past the end of the block (17 bytes)");
  Bytes trailing = good;
  trailing.push_back(0);
  trailing[4] = 18;
  EXPECT_EQ(Checked(dest, trailing, 1), "unused bytes after the last tag: 1");

  // The reason also goes to the diagnostics output in debug mode.
  const DWORD previous = IsDebugOn();
  SetDebugMode(1);
  {
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(RLEDecompressChecked(dest.data(), 20, overrun.data(), 17, 1, nullptr, 0), 0);
    ASSERT_EQ(capture.Entries().size(), 1u);
    EXPECT_EQ(capture.Text(),
              "\rRLEDecompressChecked: tag 0 at offset 12 expands past the 20 elements the block holds\r\n");
  }
  SetDebugMode(previous);
}

TEST(ZrRle, FuzzCheckedExpander) {
  std::mt19937 rng(777);
  const Bytes seed_source = MixedData(rng, 600);
  const Bytes seed = Compress(seed_source, 600, 1, 616);
  int accepted = 0;
  for (int round = 0; round < 20000; ++round) {
    Bytes block;
    if (round % 2 == 0) {  // mutate a valid block
      block = seed;
      for (int m = 1 + static_cast<int>(rng() % 4); m > 0; --m) block[rng() % block.size()] = static_cast<BYTE>(rng());
      if (rng() % 4 == 0) block.resize(rng() % (block.size() + 1));
    } else {  // random bytes behind a plausible header
      block.resize(rng() % 64);
      for (auto& b : block) b = static_cast<BYTE>(rng() % 4 == 0 ? rng() : rng() % 24);
    }
    const DWORD stride = 1 + rng() % 4;
    Bytes dest(rng() % 2400);
    char error[256] = "";
    const int ok = RLEDecompressChecked(dest.data(), static_cast<DWORD>(dest.size()), block.data(),
                                        static_cast<DWORD>(block.size()), stride, error, sizeof(error));
    if (ok) {
      ++accepted;
      // Whatever is accepted is exactly what the unchecked expander makes of it.
      Bytes plain(dest.size(), 0);
      Bytes again(dest.size(), 0);
      RLEDecompress(plain.data(), block.data(), stride);
      RLEDecompressChecked(again.data(), static_cast<DWORD>(again.size()), block.data(),
                           static_cast<DWORD>(block.size()), stride, nullptr, 0);
      ASSERT_EQ(plain, again);
    } else {
      ASSERT_GT(std::string(error).size(), 10u);
    }
  }
  EXPECT_GT(accepted, 0);
}

}  // namespace
