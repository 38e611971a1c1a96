// The 174-byte bitmap header: filling, reading and checking its fields, and the standard file form.
#include "imaging/dib_header_internal.h"

#include <cstring>

#include "zrobj/byteorder.h"

namespace zr::dib {

void FillHeader(tagDIBINFO* header, long width, long height, unsigned bits, DWORD used) {
  std::memset(header, 0, sizeof *header);
  header->bmf.bfType = DIB_SIGNATURE;
  header->bmf.bfSize = used;
  header->bmf.bfOffBits = DIB_HEADER_SIZE;
  BITMAPINFOHEADER& bmi = header->bmi.bmi;
  bmi.biSize = DIB_INFO_SIZE;
  bmi.biWidth = static_cast<LONG>(width);
  bmi.biHeight = static_cast<LONG>(height);
  bmi.biPlanes = 1;
  bmi.biBitCount = static_cast<WORD>(bits);
  bmi.biCompression = DIB_COMPRESSION_RGB;
  bmi.biSizeImage = used >= DIB_HEADER_SIZE ? used - DIB_HEADER_SIZE : 0;
  header->bmi.dwExtSize = DIB_EXT_SIZE;
  std::memcpy(header->bmi.magic, "VORN", 4);
  header->bmi.dwFrameMode = 1;
  header->bmi.dwAspectX = DIB_ASPECT_ONE;
  header->bmi.dwAspectY = DIB_ASPECT_ONE;
  header->bmi.dwChromaCode = DIB_CHROMA_444;
}

InfoFields ReadInfoFields(const BYTE* info) {
  InfoFields f;
  f.size = LoadLE32(info);
  f.width = static_cast<LONG>(LoadLE32(info + 4));
  f.height = static_cast<LONG>(LoadLE32(info + 8));
  f.planes = LoadLE16(info + 12);
  f.bits = LoadLE16(info + 14);
  f.compression = LoadLE32(info + 16);
  f.imageSize = LoadLE32(info + 20);
  return f;
}

namespace {
bool IsTrueColour(DWORD compression, unsigned bits, LONG width, LONG height) {
  return (compression == DIB_COMPRESSION_RGB || compression == DIB_COMPRESSION_YUV) && (bits == 24 || bits == 32) &&
         width > 0 && height > 0;
}
}  // namespace

bool IsTrueColourFormat(const InfoFields& info) {
  return IsTrueColour(info.compression, info.bits, info.width, info.height);
}

bool IsTrueColourFormat(const BITMAPINFOHEADER& info) {
  return IsTrueColour(info.biCompression, info.biBitCount, info.biWidth, info.biHeight);
}

void MakeStandardHeader(const tagDIBINFO* header, BYTE out[kStandardHeaderSize]) {
  std::memcpy(out, header, kStandardHeaderSize);
  StoreLE32(out + 10, kStandardHeaderSize);
  StoreLE32(out + kFileHeaderSize, kStandardInfoSize);
}

std::uint64_t PixelBytes(long width, long height, unsigned bits) {
  const std::uint64_t w = width < 0 ? 0 - static_cast<std::uint64_t>(width) : static_cast<std::uint64_t>(width);
  const std::uint64_t h = height < 0 ? 0 - static_cast<std::uint64_t>(height) : static_cast<std::uint64_t>(height);
  if (w > 0xFFFFFFFFull || h > 0xFFFFFFFFull || bits > 64) return 0;
  const std::uint64_t stride = (w * (bits / 8) + 3) & ~std::uint64_t{3};
  if (h != 0 && stride > 0xFFFFFFFFull / h) return 0;
  return stride * h;
}

}  // namespace zr::dib
