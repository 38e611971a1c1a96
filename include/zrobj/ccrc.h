// Table-driven CRC engines of configurable width and polynomial: CMonoCRC (one CRC) and CDualCRC
// (two CRCs of different widths over the same bytes, packed into one 32-bit word).
#pragma once

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

namespace zr::crc_detail {

// Low `width` bits set (width 1..32).
constexpr DWORD WidthMask(unsigned width) { return width >= 32 ? 0xFFFFFFFFu : (DWORD{1} << width) - 1; }

// Most-significant-bit-first table: entry i is i << (width - 8) stepped through 8 polynomial
// divisions, then masked. Entry 0 is 0.
constexpr void BuildTable(unsigned width, DWORD polynomial, DWORD* table) {
  const DWORD top = DWORD{1} << (width - 1);
  table[0] = 0;
  for (DWORD i = 1; i < 256; ++i) {
    DWORD v = i << (width - 8);
    for (int step = 0; step < 8; ++step) v = (v & top) ? (v << 1) ^ polynomial : v << 1;
    table[i] = v & WidthMask(width);
  }
}

constexpr bool ValidWidth(unsigned width) { return width >= 8 && width <= 32; }

}  // namespace zr::crc_detail

// One CRC. Invalid widths (outside 8..32) leave every field zero: the engine is inert and
// every evaluation returns 0. A plain value: copies carry the whole table.
class ZROBJ_API CMonoCRC {
 public:
  constexpr CMonoCRC(unsigned int width, DWORD polynomial) {
    if (!zr::crc_detail::ValidWidth(width)) return;
    shift_ = width - 8;
    mask_ = zr::crc_detail::WidthMask(width);
    zr::crc_detail::BuildTable(width, polynomial, table_);
  }

  DWORD Eval(const void* data, unsigned int length) const;
  DWORD Eval(const char* text) const;      // bytes up to the terminating NUL
  DWORD Evali(const char* text) const;     // 0x61..0x7B lowered by 0x20 before feeding
  DWORD Eval(const WCHAR* text) const;     // each unit low byte first, up to the NUL unit
  DWORD Evali(const WCHAR* text) const;    // folds units whose high byte is zero

  // Continues a CRC: EvalMore(Eval(a), b) == Eval(a followed by b). The masked result is the
  // engine's whole state, so large inputs can be checksummed piece by piece.
  DWORD EvalMore(DWORD previous, const void* data, unsigned int length) const;

  bool IsValid() const { return mask_ != 0; }

 private:
  template <class Feed>
  DWORD Run(DWORD previous, Feed&& feed) const;

  DWORD shift_ = 0;
  DWORD mask_ = 0;
  DWORD table_[256] = {};
};

// Two CRCs over the same bytes; the result holds the secondary CRC in the top bits and the main
// CRC in the low bits. Widths must each lie in 8..32 and add up to at most 32; otherwise every
// field stays zero and every evaluation returns 0xFFFFFFFF.
class ZROBJ_API CDualCRC {
 public:
  constexpr CDualCRC(unsigned int mainWidth, DWORD mainPolynomial, unsigned int secondaryWidth,
                     DWORD secondaryPolynomial) {
    using namespace zr::crc_detail;
    if (!ValidWidth(mainWidth) || !ValidWidth(secondaryWidth) || mainWidth + secondaryWidth > 32) return;
    main_shift_ = mainWidth - 8;
    secondary_shift_ = secondaryWidth - 8;
    main_mask_ = WidthMask(mainWidth);
    secondary_mask_ = WidthMask(secondaryWidth);
    BuildTable(mainWidth, mainPolynomial, main_table_);
    BuildTable(secondaryWidth, secondaryPolynomial, secondary_table_);
  }

  DWORD Eval(const void* data, unsigned int length) const;
  DWORD Eval(const char* text) const;
  DWORD Evali(const char* text) const;
  DWORD Eval(const WCHAR* text) const;
  DWORD Evali(const WCHAR* text) const;

  // Continues from a packed result: EvalMore(Eval(a), b) == Eval(a followed by b).
  DWORD EvalMore(DWORD previous, const void* data, unsigned int length) const;

  DWORD MainCRC(DWORD packed) const { return packed & main_mask_; }
  // Shifted right by 32 - secondary width; 0 for an inert engine.
  DWORD SecondaryCRC(DWORD packed) const { return IsValid() ? packed >> (24 - secondary_shift_) : 0; }

  bool IsValid() const { return main_mask_ != 0; }

 private:
  template <class Feed>
  DWORD Run(DWORD previous, Feed&& feed) const;

  DWORD main_shift_ = 0;
  DWORD secondary_shift_ = 0;
  DWORD main_mask_ = 0;
  DWORD secondary_mask_ = 0;
  DWORD main_table_[256] = {};
  DWORD secondary_table_[256] = {};
};
