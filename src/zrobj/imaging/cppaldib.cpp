// CPPalDib: indexed-colour images on the bitmaps' pool, their header and palette.
#include "zrobj/cppaldib.h"

#include <cstdint>
#include <cstring>

#include "imaging/dib_header_internal.h"
#include "zrobj/byteorder.h"

namespace {

// The bitmaps' allocator is CPTCDib's; a palette image draws on the same pool.
struct DibPoolAccess : CPTCDib {
  static IMallocator* Get() {
    DibPoolAccess probe;
    return probe.CPTCDib::GetMallocator();
  }
};

std::uint64_t Magnitude(long v) {
  return v < 0 ? 0 - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
}

unsigned long IndexBytesFor(unsigned long colours) { return colours > 256 ? 2 : 1; }

// The used size as a 64-bit value, so that overflow is seen.
std::uint64_t UsedSize(long w, long h, unsigned long colours) {
  return IndexBytesFor(colours) * Magnitude(w) * Magnitude(h) + 4ull * colours + DIB_HEADER_SIZE;
}

}  // namespace

IMallocator* CPPalDib::GetMallocator() {
  static IMallocator* const pool = DibPoolAccess::Get();
  return pool;
}

unsigned long CPPalDib::GetMemSizeDIB(long w, long h, unsigned long colours) {
  if (Magnitude(w) > 0xFFFFFFFFull || Magnitude(h) > 0xFFFFFFFFull || colours > PALDIB_MAX_COLOURS) return 0;
  const std::uint64_t used = UsedSize(w, h, colours);
  return used > 0xFFFFFFFFull - 256 ? 0 : static_cast<unsigned long>(used);
}

int CPPalDib::Alloc(long w, long h, unsigned long colours, unsigned long depth, unsigned long flags) {
  if (w == 0 || h == 0 || colours == 0 || colours > PALDIB_MAX_COLOURS) return 0;
  const unsigned long used = GetMemSizeDIB(w, h, colours);
  if (used == 0 || !CPMemory::Alloc(used, flags)) return 0;
  std::memset(GetDataPtr(), 0, used);
  tagDIBINFO* header = GetDIBInfo();
  zr::dib::FillHeader(header, w, h, static_cast<unsigned>(depth), static_cast<DWORD>(used));
  header->bmf.bfOffBits = DIB_HEADER_SIZE + 4 * colours;
  header->bmi.bmi.biPlanes = static_cast<WORD>(IndexBytesFor(colours));
  header->bmi.bmi.biCompression = PALDIB_COMPRESSION;
  header->bmi.bmi.biClrUsed = colours;
  header->bmi.bmi.biSizeImage = static_cast<DWORD>(IndexBytesFor(colours) * Magnitude(w) * Magnitude(h));
  return 1;
}

long CPPalDib::GetWidth() const {
  const tagDIBINFO* header = GetDIBInfo();
  return header ? header->bmi.bmi.biWidth : 0;
}

long CPPalDib::GetHeight() const {
  const tagDIBINFO* header = GetDIBInfo();
  return header ? header->bmi.bmi.biHeight : 0;
}

unsigned long CPPalDib::GetBitCount() const {
  const tagDIBINFO* header = GetDIBInfo();
  return header ? header->bmi.bmi.biBitCount : 0;
}

unsigned long CPPalDib::GetColours() const {
  const tagDIBINFO* header = GetDIBInfo();
  return header ? header->bmi.bmi.biClrUsed : 0;
}

unsigned long CPPalDib::GetIndexBytes() const {
  const tagDIBINFO* header = GetDIBInfo();
  return header ? header->bmi.bmi.biPlanes : 0;
}

RGBQUAD* CPPalDib::GetPalette() {
  BYTE* data = static_cast<BYTE*>(GetDataPtr());
  return data ? reinterpret_cast<RGBQUAD*>(data + DIB_HEADER_SIZE) : nullptr;
}

const RGBQUAD* CPPalDib::GetPalette() const {
  const BYTE* data = static_cast<const BYTE*>(GetCDataPtr());
  return data ? reinterpret_cast<const RGBQUAD*>(data + DIB_HEADER_SIZE) : nullptr;
}

BYTE* CPPalDib::GetBits() {
  BYTE* data = static_cast<BYTE*>(GetDataPtr());
  return data ? data + DIB_HEADER_SIZE + 4 * GetColours() : nullptr;
}

const BYTE* CPPalDib::GetBits() const {
  const BYTE* data = static_cast<const BYTE*>(GetCDataPtr());
  return data ? data + DIB_HEADER_SIZE + 4 * GetColours() : nullptr;
}

DWORD CPPalDib::GetIndex(long x, long y) const {
  const BYTE* bits = GetBits();
  const std::uint64_t w = Magnitude(GetWidth()), h = Magnitude(GetHeight());
  if (bits == nullptr || x < 0 || y < 0 || static_cast<std::uint64_t>(x) >= w || static_cast<std::uint64_t>(y) >= h) {
    return 0xFFFFFFFF;
  }
  const std::uint64_t at = static_cast<std::uint64_t>(y) * w + static_cast<std::uint64_t>(x);
  return GetIndexBytes() == 2 ? zr::LoadLE16(bits + 2 * at) : bits[at];
}
