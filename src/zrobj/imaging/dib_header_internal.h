// The 174-byte bitmap header shared by the true-colour and palette images: filling it, and reading,
// checking and writing the header forms that files hold.
#pragma once

#include <cstdint>

#include "zrobj/cptcdib.h"

namespace zr::dib {

inline constexpr DWORD kFileHeaderSize = sizeof(BITMAPFILEHEADER);                    // 14
inline constexpr DWORD kStandardHeaderSize = kFileHeaderSize + sizeof(BITMAPINFOHEADER);  // 54
inline constexpr DWORD kStandardInfoSize = sizeof(BITMAPINFOHEADER);                  // 40

// Zeroes the 174 bytes and writes the fields every image of the library carries: "BM", the file size
// `used` (block bytes in use), the data offset 174, the info size 160, the dimensions and depth, the
// image size `used` - 174, and the extension ("VORN", aspect 1:1, frame mode 1, chroma 4:4:4).
void FillHeader(tagDIBINFO* header, long width, long height, unsigned bits, DWORD used);

// The fields of an info header that a load checks, read byte by byte from outside data.
struct InfoFields {
  DWORD size = 0;
  LONG width = 0;
  LONG height = 0;
  WORD planes = 0;
  WORD bits = 0;
  DWORD compression = 0;
  DWORD imageSize = 0;
};
InfoFields ReadInfoFields(const BYTE* info);

// True for what the true-colour image takes: RGB or "@YUV", 24 or 32 bits, positive dimensions.
bool IsTrueColourFormat(const InfoFields& info);
bool IsTrueColourFormat(const BITMAPINFOHEADER& info);

// The standard file header of an image: the block's first 54 bytes with the data offset 54 and the
// info size 40; every other field, the file size and image size included, as the block holds it.
void MakeStandardHeader(const tagDIBINFO* header, BYTE out[kStandardHeaderSize]);

// The pixel bytes an image of the header's size and depth holds: stride x |height|; 0 when that does
// not fit 32 bits.
std::uint64_t PixelBytes(long width, long height, unsigned bits);

}  // namespace zr::dib
