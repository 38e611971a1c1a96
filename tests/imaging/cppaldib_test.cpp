// CPPalDib and the colour trees: the header and sizes, quantisation of images with few, near-equal
// and many colours, reduction order and budget, the collapsed lookup, palette merges, the hex tree
// with alpha and the mapping onto a given palette.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <set>
#include <tuple>
#include <vector>

#include "zrobj/byteorder.h"
#include "zrobj/cppaldib.h"
#include "zrobj/cptcdib.h"

namespace {

struct Colour {
  BYTE r, g, b, a = 255;
  bool operator<(const Colour& o) const { return std::tie(r, g, b, a) < std::tie(o.r, o.g, o.b, o.a); }
  bool operator==(const Colour& o) const { return r == o.r && g == o.g && b == o.b && a == o.a; }
};

// A w x h image whose pixel i (row by row as stored) is colours[i % colours.size()].
CPTCDib MakeImage(long w, long h, unsigned bits, const std::vector<Colour>& colours) {
  CPTCDib dib;
  EXPECT_EQ(dib.Alloc(w, h, bits), 1);
  const unsigned long stride = CPTCDib::GetStride(w, bits);
  size_t i = 0;
  for (long y = 0; y < h; ++y) {
    BYTE* p = dib.GetBits() + y * stride;
    for (long x = 0; x < w; ++x, p += bits / 8, ++i) {
      const Colour& c = colours[i % colours.size()];
      p[0] = c.b, p[1] = c.g, p[2] = c.r;
      if (bits == 32) p[3] = c.a;
    }
  }
  return dib;
}

Colour PixelOf(const CPTCDib& dib, long x, long y) {
  const unsigned bytes = dib.GetBitCount() / 8;
  const BYTE* p = dib.GetBits() + y * CPTCDib::GetStride(dib.GetWidth(), dib.GetBitCount()) + x * bytes;
  return {p[2], p[1], p[0], bytes == 4 ? p[3] : BYTE{255}};
}

Colour EntryOf(const CPPalDib& pal, DWORD index) {
  const RGBQUAD& q = pal.GetPalette()[index];
  return {q.rgbRed, q.rgbGreen, q.rgbBlue, q.rgbReserved};
}

// Every index is inside the palette; returns the entry each source colour was given (and checks
// that a colour always gets the same one).
std::map<Colour, DWORD> IndexOfColours(const CPTCDib& src, const CPPalDib& pal) {
  std::map<Colour, DWORD> seen;
  for (long y = 0; y < src.GetHeight(); ++y) {
    for (long x = 0; x < src.GetWidth(); ++x) {
      const DWORD index = pal.GetIndex(x, y);
      EXPECT_LT(index, pal.GetColours()) << x << "," << y;
      const auto [it, fresh] = seen.emplace(PixelOf(src, x, y), index);
      EXPECT_EQ(it->second, index) << "one colour, two entries at " << x << "," << y;
    }
  }
  return seen;
}

const BYTE* Bytes(const CPPalDib& dib) { return static_cast<const BYTE*>(dib.GetCDataPtr()); }

TEST(CPPalDib, HeaderPaletteAndIndexLayout) {
  CPPalDib pal;
  EXPECT_EQ(pal.GetWidth(), 0);
  EXPECT_EQ(pal.GetColours(), 0u);
  EXPECT_EQ(pal.GetIndex(0, 0), 0xFFFFFFFFu);
  EXPECT_EQ(CPPalDib::GetMemSizeDIB(3, 2, 256), 6u + 1024 + 174);
  EXPECT_EQ(CPPalDib::GetMemSizeDIB(3, 2, 257), 12u + 1028 + 174);
  EXPECT_EQ(CPPalDib::GetMemSizeDIB(70000, 70000, 300), 0u);  // does not fit 32 bits

  ASSERT_EQ(pal.Alloc(3, 2, 300, 32), 1);
  const BYTE* b = Bytes(pal);
  EXPECT_EQ(pal.GetSize(), 12u + 1200 + 174);
  EXPECT_EQ(b[0], 'B');
  EXPECT_EQ(b[1], 'M');
  EXPECT_EQ(zr::LoadLE32(b + 2), 12u + 1200 + 174);
  EXPECT_EQ(zr::LoadLE32(b + 10), 174u + 1200);
  EXPECT_EQ(zr::LoadLE32(b + 14), 160u);
  EXPECT_EQ(zr::LoadLE32(b + 18), 3u);
  EXPECT_EQ(zr::LoadLE32(b + 22), 2u);
  EXPECT_EQ(zr::LoadLE16(b + 26), 2u);  // bytes per index
  EXPECT_EQ(zr::LoadLE16(b + 28), 32u);
  EXPECT_EQ(std::memcmp(b + 30, "AlaP", 4), 0);
  EXPECT_EQ(zr::LoadLE32(b + 34), 12u);
  EXPECT_EQ(zr::LoadLE32(b + 46), 300u);
  EXPECT_EQ(std::memcmp(b + 58, "VORN", 4), 0);
  EXPECT_EQ(zr::LoadLE32(b + 114), 0x10000u);
  EXPECT_EQ(zr::LoadLE32(b + 166), 16u);
  EXPECT_EQ(pal.GetIndexBytes(), 2u);
  EXPECT_EQ(pal.GetBitCount(), 32u);
  EXPECT_EQ(reinterpret_cast<const BYTE*>(pal.GetPalette()), b + 174);
  EXPECT_EQ(pal.GetBits(), b + 174 + 1200);
  zr::StoreLE16(pal.GetBits() + 2 * (1 * 3 + 2), 299);  // row 1, column 2
  EXPECT_EQ(pal.GetIndex(2, 1), 299u);
  EXPECT_EQ(pal.GetIndex(3, 1), 0xFFFFFFFFu);
  EXPECT_EQ(pal.GetIndex(-1, 0), 0xFFFFFFFFu);

  ASSERT_EQ(pal.Alloc(4, 1, 256, 24), 1);
  EXPECT_EQ(pal.GetIndexBytes(), 1u);
  EXPECT_EQ(zr::LoadLE32(Bytes(pal) + 34), 4u);
  for (unsigned long colours : {0ul, 65536ul}) EXPECT_EQ(pal.Alloc(2, 2, colours, 24), 0) << colours;
  EXPECT_EQ(pal.Alloc(0, 2, 4, 24), 0);
  EXPECT_EQ(pal.Alloc(1, 1, 65535, 24), 1);

  // Copies share the block.
  CPPalDib copy(pal);
  EXPECT_EQ(copy.GetCDataPtr(), pal.GetCDataPtr());
  EXPECT_EQ(pal.GetRefCnt(), 2);
}

TEST(COctTree, FewerColoursThanAskedGiveOneExactEntryEach) {
  const std::vector<Colour> colours = {{0, 0, 0}, {255, 255, 255}, {200, 10, 10}, {10, 200, 10}, {10, 10, 200}};
  const CPTCDib src = MakeImage(7, 5, 24, colours);
  COctTree tree;
  ASSERT_EQ(tree.SetDIB(src, 16), 1);
  const CPPalDib pal = tree.GetDIB();
  ASSERT_EQ(pal.GetColours(), colours.size());
  EXPECT_EQ(pal.GetIndexBytes(), 1u);
  EXPECT_EQ(pal.GetWidth(), 7);
  EXPECT_EQ(pal.GetHeight(), 5);
  EXPECT_EQ(pal.GetBitCount(), 24u);
  const auto indices = IndexOfColours(src, pal);
  std::set<DWORD> distinct;
  for (const auto& [colour, index] : indices) {
    EXPECT_TRUE(EntryOf(pal, index) == colour) << int(colour.r) << "," << int(colour.g) << "," << int(colour.b);
    distinct.insert(index);
  }
  EXPECT_EQ(distinct.size(), colours.size());
  EXPECT_EQ(tree.GetPaletteSize(), colours.size());
}

TEST(COctTree, NearDuplicatesShareAnEntryWhileDistantColoursStayExact) {
  // 100 and 101 differ in the last bit only; the two others are far away.
  const Colour a{100, 100, 100}, a2{101, 100, 100}, b{10, 200, 30}, c{240, 20, 200};
  const CPTCDib src = MakeImage(4, 4, 24, {a, a2, a, b, c, a2, a, a});
  COctTree tree;
  ASSERT_EQ(tree.SetDIB(src, 3), 1);
  const CPPalDib pal = tree.GetDIB();
  ASSERT_EQ(pal.GetColours(), 3u);
  const auto indices = IndexOfColours(src, pal);
  EXPECT_EQ(indices.at(a), indices.at(a2));
  EXPECT_TRUE(EntryOf(pal, indices.at(b)) == b);
  EXPECT_TRUE(EntryOf(pal, indices.at(c)) == c);
  // 10 pixels of a and 4 of a2: the entry is their weighted mean, truncated.
  const Colour mean = EntryOf(pal, indices.at(a));
  EXPECT_EQ(mean.r, (10 * 100 + 4 * 101) / 14);
  EXPECT_EQ(mean.g, 100);
  EXPECT_EQ(mean.a, 255);
}

TEST(COctTree, ColourCountsOutsideTwoTo65535Fail) {
  const CPTCDib src = MakeImage(2, 2, 24, {{1, 2, 3}, {4, 5, 6}});
  COctTree tree;
  EXPECT_EQ(tree.SetDIB(src, 1), 0);
  EXPECT_EQ(tree.SetDIB(src, 0), 0);
  EXPECT_EQ(tree.SetDIB(src, 65536), 0);
  EXPECT_EQ(tree.GetDIB().GetSize(), 0u);
  EXPECT_EQ(tree.SetDIB(src, 65535), 1);
  EXPECT_EQ(tree.GetDIB().GetColours(), 2u);
  EXPECT_EQ(tree.SetDIB(CPTCDib(), 16), 0);  // empty source
}

// A smooth image with many distinct colours and some noise.
CPTCDib Gradient(long w, long h, unsigned bits, unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<Colour> pixels;
  for (long y = 0; y < h; ++y) {
    for (long x = 0; x < w; ++x) {
      pixels.push_back({static_cast<BYTE>(x * 255 / (w - 1)), static_cast<BYTE>(y * 255 / (h - 1)),
                        static_cast<BYTE>((x + y + rng() % 9) * 255 / (w + h + 8)), static_cast<BYTE>(rng() % 256)});
    }
  }
  return MakeImage(w, h, bits, pixels);
}

TEST(COctTree, ThreeHundredColoursUseSixteenBitIndices) {
  const CPTCDib src = Gradient(64, 48, 32, 3);
  COctTree tree;
  ASSERT_EQ(tree.SetDIB(src, 300), 1);
  const CPPalDib pal = tree.GetDIB();
  EXPECT_GT(pal.GetColours(), 256u);
  EXPECT_LE(pal.GetColours(), 300u);
  EXPECT_EQ(pal.GetIndexBytes(), 2u);
  EXPECT_EQ(zr::LoadLE16(Bytes(pal) + 26), 2u);
  EXPECT_EQ(pal.GetBitCount(), 32u);
  EXPECT_EQ(pal.GetSize(), CPPalDib::GetMemSizeDIB(64, 48, pal.GetColours()));
  // Every pixel lands on an entry near it: a wrong index would cost thousands, not tens.
  IndexOfColours(src, pal);
  double error = 0;
  for (long y = 0; y < 48; ++y) {
    for (long x = 0; x < 64; ++x) {
      const Colour s = PixelOf(src, x, y), q = EntryOf(pal, pal.GetIndex(x, y));
      error += (s.r - q.r) * (s.r - q.r) + (s.g - q.g) * (s.g - q.g) + (s.b - q.b) * (s.b - q.b);
    }
  }
  EXPECT_LT(error / (64 * 48 * 3), 64.0);  // mean squared error per channel (RMS below 8 of 255)
}

TEST(COctTree, SmallPalettesKeepAtMostTheBudget) {
  const CPTCDib src = Gradient(40, 30, 24, 5);
  for (unsigned long colours : {2ul, 4ul, 8ul, 16ul, 255ul}) {
    COctTree tree;
    ASSERT_EQ(tree.SetDIB(src, colours), 1) << colours;
    const CPPalDib pal = tree.GetDIB();
    EXPECT_GE(pal.GetColours(), 1u);
    EXPECT_LE(pal.GetColours(), colours);
    EXPECT_EQ(pal.GetIndexBytes(), 1u);
    IndexOfColours(src, pal);
  }
}

TEST(COctTree, BuildingWithABudgetOfEightNeverHoldsMoreLeaves) {
  std::mt19937 rng(9);
  COctTree tree;
  unsigned long most = 0, reductions = 0;
  for (int i = 0; i < 5000; ++i) {
    const unsigned long before = tree.GetLeafCount();
    ASSERT_EQ(tree.AddColor(rng() & 255, rng() & 255, rng() & 255), 1);
    EXPECT_LE(tree.GetLeafCount(), before + 1);  // one colour adds at most one leaf
    while (tree.GetLeafCount() > 8) {
      const unsigned long count = tree.GetLeafCount();
      tree.Reduce();
      ++reductions;
      ASSERT_LE(tree.GetLeafCount(), count);  // a reduction never adds leaves
    }
    most = std::max(most, tree.GetLeafCount());
  }
  EXPECT_EQ(most, 8u);
  EXPECT_GT(reductions, 0u);
  tree.Optimize();
  ASSERT_EQ(tree.Palettize(8), 1);
  EXPECT_LE(tree.GetPaletteSize(), 8u);
}

TEST(COctTree, ReduceTakesTheNewestNodeOfTheDeepestLevel) {
  // Two colours on different branches; the second one's level-7 node is the newest.
  COctTree tree;
  ASSERT_EQ(tree.AddColor(0, 0, 0), 1);
  ASSERT_EQ(tree.AddColor(255, 255, 254), 1);
  EXPECT_EQ(tree.GetLeafCount(), 2u);
  tree.Reduce();  // the level-7 node above (255,255,254) becomes its leaf
  EXPECT_EQ(tree.GetLeafCount(), 2u);
  ASSERT_EQ(tree.Palettize(2), 1);
  const BYTE black[3] = {0, 0, 0}, black_odd[3] = {0, 0, 1}, white[3] = {255, 255, 255};
  EXPECT_EQ(tree.Lookup(black), 0u);
  EXPECT_EQ(tree.Lookup(black_odd), 0xFFFFFFFFu);  // black's path still ends at level 8
  EXPECT_EQ(tree.Lookup(white), 1u);               // the last bit no longer matters there
}

TEST(COctTree, LookupAfterCollapseFollowsTheLevelEachNodeStandsFor) {
  // Two colours differing only in the last bit of blue: the whole chain above them collapses into
  // the root, which then branches on bit 0.
  COctTree tree;
  ASSERT_EQ(tree.AddColor(10, 20, 30), 1);
  ASSERT_EQ(tree.AddColor(10, 20, 31), 1);
  tree.Optimize();
  ASSERT_EQ(tree.Palettize(2), 1);
  ASSERT_EQ(tree.GetPaletteSize(), 2u);
  const BYTE even[3] = {10, 20, 30}, odd[3] = {10, 20, 31}, far_even[3] = {250, 0, 128}, far_odd[3] = {0, 0, 255};
  const DWORD e = tree.Lookup(even), o = tree.Lookup(odd);
  EXPECT_NE(e, o);
  EXPECT_EQ(tree.GetPalette()[e].rgbBlue, 30);
  EXPECT_EQ(tree.GetPalette()[o].rgbBlue, 31);
  EXPECT_EQ(tree.Lookup(far_even), e);
  EXPECT_EQ(tree.Lookup(far_odd), o);

  // The same image quantised as a whole maps each pixel to its own colour.
  const Colour c30{10, 20, 30}, c31{10, 20, 31};
  const CPTCDib pair = MakeImage(5, 3, 24, {c30, c31, c31});
  COctTree whole;
  ASSERT_EQ(whole.SetDIB(pair, 4), 1);
  const auto indices = IndexOfColours(pair, whole.GetDIB());
  EXPECT_TRUE(EntryOf(whole.GetDIB(), indices.at(c30)) == c30);
  EXPECT_TRUE(EntryOf(whole.GetDIB(), indices.at(c31)) == c31);

  // A single colour collapses to a root leaf that every colour reaches.
  COctTree single;
  ASSERT_EQ(single.SetDIB(MakeImage(3, 3, 24, {{7, 8, 9}}), 4), 1);
  EXPECT_EQ(single.GetDIB().GetColours(), 1u);
  EXPECT_EQ(single.Lookup(far_odd), 0u);
}

// Blue, green and red differ in the top bit, so they sit under the root in that order (slots 1, 2, 4).
void AddPrimaries(COctTree& tree, int blue, int green, int red) {
  for (int i = 0; i < blue; ++i) tree.AddColor(0, 0, 255);
  for (int i = 0; i < green; ++i) tree.AddColor(0, 255, 0);
  for (int i = 0; i < red; ++i) tree.AddColor(255, 0, 0);
  tree.Optimize();
}

TEST(COctTree, PalettizeMergesTheSmallestIntoThePreviousSmallest) {
  COctTree tree;
  AddPrimaries(tree, 5, 2, 3);
  ASSERT_EQ(tree.Palettize(2), 1);
  ASSERT_EQ(tree.GetPaletteSize(), 2u);
  const RGBQUAD* p = tree.GetPalette();
  // Green (2 pixels) went into blue (5), the smallest before it in the scan.
  EXPECT_EQ(p[0].rgbBlue, 255 * 5 / 7);
  EXPECT_EQ(p[0].rgbGreen, 255 * 2 / 7);
  EXPECT_EQ(p[0].rgbRed, 0);
  EXPECT_EQ(p[1].rgbRed, 255);
  const BYTE green[3] = {0, 255, 0}, red[3] = {255, 0, 0};
  EXPECT_EQ(tree.Lookup(green), 0u);
  EXPECT_EQ(tree.Lookup(red), 1u);
}

TEST(COctTree, PalettizeMergesLeafZeroIntoItselfWhenItStaysTheSmallest) {
  COctTree tree;
  AddPrimaries(tree, 1, 5, 7);
  ASSERT_EQ(tree.Palettize(2), 1);
  ASSERT_EQ(tree.GetPaletteSize(), 2u);  // blue is gone, green and red remain
  EXPECT_EQ(tree.GetPalette()[0].rgbGreen, 255);
  EXPECT_EQ(tree.GetPalette()[1].rgbRed, 255);
  const BYTE blue[3] = {0, 0, 255};
  EXPECT_EQ(tree.Lookup(blue), 0u);  // it keeps its position as index
}

TEST(CHexTree, AlphaSeparatesEntriesAndIsAveraged) {
  const Colour clear{50, 60, 70, 0}, opaque{50, 60, 70, 255}, half{50, 60, 70, 128}, half2{50, 60, 70, 129};
  const CPTCDib src = MakeImage(4, 2, 32, {clear, opaque, half, half2});
  CHexTree tree;
  ASSERT_EQ(tree.SetDIB(src, 3), 1);
  const CPPalDib pal = tree.GetDIB();
  ASSERT_EQ(pal.GetColours(), 3u);
  const auto indices = IndexOfColours(src, pal);
  EXPECT_TRUE(EntryOf(pal, indices.at(clear)) == clear);
  EXPECT_TRUE(EntryOf(pal, indices.at(opaque)) == opaque);
  EXPECT_EQ(indices.at(half), indices.at(half2));
  EXPECT_EQ(EntryOf(pal, indices.at(half)).a, 128);  // (2 x 128 + 2 x 129) / 4

  // A 24-bit source is opaque to the hex tree; the octree ignores alpha.
  CHexTree opaque_tree;
  ASSERT_EQ(opaque_tree.SetDIB(MakeImage(2, 2, 24, {clear, {1, 2, 3}}), 4), 1);
  EXPECT_EQ(opaque_tree.GetDIB().GetPalette()[0].rgbReserved, 255);
  COctTree oct;
  ASSERT_EQ(oct.SetDIB(src, 3), 1);
  EXPECT_EQ(oct.GetDIB().GetColours(), 1u);
}

TEST(COctTree, GivenPaletteMapsEachPixelToTheNearestEntry) {
  std::vector<RGBQUAD> palette(300);
  for (size_t i = 0; i < palette.size(); ++i) {
    palette[i] = {static_cast<BYTE>(i * 7 % 256), static_cast<BYTE>(i * 13 % 256), static_cast<BYTE>(i * 29 % 256), 255};
  }
  const CPTCDib src = Gradient(32, 16, 24, 11);
  COctTree tree;
  EXPECT_EQ(tree.SetDIB(src, 0, palette.data()), 0);
  EXPECT_EQ(tree.SetDIB(src, 300, nullptr), 0);
  ASSERT_EQ(tree.SetDIB(src, 300, palette.data()), 1);
  const CPPalDib pal = tree.GetDIB();
  ASSERT_EQ(pal.GetColours(), 300u);
  EXPECT_EQ(pal.GetIndexBytes(), 2u);
  EXPECT_EQ(std::memcmp(pal.GetPalette(), palette.data(), 300 * 4), 0);
  for (long y = 0; y < 16; ++y) {
    for (long x = 0; x < 32; ++x) {
      const Colour s = PixelOf(src, x, y);
      const auto distance = [&](const RGBQUAD& q) {
        return (s.r - q.rgbRed) * (s.r - q.rgbRed) + (s.g - q.rgbGreen) * (s.g - q.rgbGreen) +
               (s.b - q.rgbBlue) * (s.b - q.rgbBlue);
      };
      DWORD best = 0;
      for (DWORD i = 1; i < 300; ++i) best = distance(palette[i]) < distance(palette[best]) ? i : best;
      ASSERT_EQ(pal.GetIndex(x, y), best) << x << "," << y;
    }
  }
}

TEST(COctTree, FreeDropsTheResultAndTheTree) {
  COctTree tree;
  ASSERT_EQ(tree.SetDIB(Gradient(8, 8, 24, 1), 16), 1);
  CPPalDib kept = tree.GetDIB();
  EXPECT_EQ(kept.GetRefCnt(), 2);
  tree.Free();
  EXPECT_EQ(tree.GetDIB().GetSize(), 0u);
  EXPECT_EQ(tree.GetLeafCount(), 0u);
  EXPECT_EQ(tree.GetPalette(), nullptr);
  EXPECT_EQ(kept.GetRefCnt(), 1);  // the caller's handle lives on
  const BYTE any[3] = {1, 2, 3};
  EXPECT_EQ(tree.Lookup(any), 0xFFFFFFFFu);
}

}  // namespace
