// Indexed-colour images (up to 65535 palette entries, 8- or 16-bit indices) behind the 174-byte
// bitmap header, and the colour trees that quantise a true-colour image into one.
#pragma once

#include <cstdint>

#include "zrobj/cpmem.h"
#include "zrobj/cptcdib.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

inline constexpr DWORD PALDIB_COMPRESSION = 0x50616C41;  // "AlaP", 'A' at the lowest offset
inline constexpr unsigned long PALDIB_MAX_COLOURS = 65535;

// Block: the 174-byte header (data offset 174 + 4 x colours, planes = bytes per index, bit count =
// the source depth, compression "AlaP", colours used, image size w x h x bytes per index), the
// palette (B, G, R, alpha per entry), then the index rows, w x bytes per index each, unpadded.
class ZROBJ_API CPPalDib : public CPMemory {
 public:
  CPPalDib() = default;
  CPPalDib(const CPPalDib& other) : CPMemory() { CPMemory::operator=(other); }
  CPPalDib& operator=(const CPPalDib& other) = default;
  ~CPPalDib() override { Free(); }
  const char* GetClassID() const override { return "CPPalDib"; }

  // (colours > 256 ? 2 : 1) x |w| x |h| + 4 x colours + 174; 0 when it does not fit 32 bits.
  static unsigned long GetMemSizeDIB(long w, long h, unsigned long colours);
  // w, h non-zero and colours 1..65535, else 0. The palette and the indices are zero.
  int Alloc(long w, long h, unsigned long colours, unsigned long depth, unsigned long flags = 0);

  long GetWidth() const;
  long GetHeight() const;
  unsigned long GetBitCount() const;   // the depth of the source
  unsigned long GetColours() const;    // palette entries
  unsigned long GetIndexBytes() const;  // 1 or 2 (the planes field); 0 when empty

  tagDIBINFO* GetDIBInfo() { return static_cast<tagDIBINFO*>(GetDataPtr()); }
  const tagDIBINFO* GetDIBInfo() const { return static_cast<const tagDIBINFO*>(GetCDataPtr()); }
  RGBQUAD* GetPalette();
  const RGBQUAD* GetPalette() const;
  BYTE* GetBits();  // the index rows
  const BYTE* GetBits() const;
  // The index at column x of row y (rows as stored); 0xFFFFFFFF outside the image.
  DWORD GetIndex(long x, long y) const;

 protected:
  IMallocator* GetMallocator() override;  // the bitmaps' pool, as for CPTCDib
};

namespace zr::palette_detail {

template <unsigned kChannels>
struct TreeState;

// A colour tree over kChannels channels (3: R, G, B; 4: with alpha): colours are added down eight
// levels of one bit each, the deepest and newest inner nodes are reduced while too many leaves
// exist, single-child chains are collapsed, and the leaves become the palette. One owner.
template <unsigned kChannels>
class ZROBJ_API ColourTree {
 public:
  static constexpr unsigned kLevels = 8;
  static constexpr DWORD kInner = 0xFFFFFFFF;   // node count of an inner node
  static constexpr DWORD kMerged = 0xFFFFFFFE;  // leaf count after Palettize merged it away
  static constexpr DWORD kNoIndex = 0xFFFFFFFF;

  ColourTree();
  ~ColourTree();
  ColourTree(const ColourTree&) = delete;
  ColourTree& operator=(const ColourTree&) = delete;

  // Quantises a 24- or 32-bit image to at most `colours` entries (2..65535, else 0); the result is
  // GetDIB(). 0 also for an empty source or when memory runs out.
  int SetDIB(const CPTCDib& source, unsigned long colours);
  // Maps the image onto a given palette of 1..65535 entries: each pixel takes the nearest entry
  // (squared distance over the channels; the lowest index among equals).
  int SetDIB(const CPTCDib& source, unsigned long colours, const RGBQUAD* palette);
  CPPalDib GetDIB() const;
  // Deletes the tree, the leaf list, the palette and the produced image.
  void Free();

  // The steps of SetDIB, for callers that build a tree themselves. channels: R, G, B[, alpha].
  int AddColorChannels(const BYTE* channels);
  void Reduce();
  void Optimize();
  // Collects the leaves in tree order, merges the smallest while more than `colours` remain and
  // builds the palette. 0 when there are no leaves.
  int Palettize(unsigned long colours);
  // The palette index of a colour after Palettize: the leaf its bits lead to, kNoIndex if the path ends.
  DWORD Lookup(const BYTE* channels) const;

  unsigned long GetLeafCount() const;
  unsigned long GetPaletteSize() const;
  const RGBQUAD* GetPalette() const;  // null before Palettize

 private:
  TreeState<kChannels>* state_;
};

extern template class ColourTree<3>;
extern template class ColourTree<4>;

}  // namespace zr::palette_detail

class COctTree : public zr::palette_detail::ColourTree<3> {
 public:
  int AddColor(BYTE r, BYTE g, BYTE b) {
    const BYTE channels[3] = {r, g, b};
    return AddColorChannels(channels);
  }
};

class CHexTree : public zr::palette_detail::ColourTree<4> {
 public:
  int AddColor(BYTE r, BYTE g, BYTE b, BYTE a) {
    const BYTE channels[4] = {r, g, b, a};
    return AddColorChannels(channels);
  }
};
