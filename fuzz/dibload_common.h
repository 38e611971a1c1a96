// Shared body of the bitmap and ".bsi" load fuzzers: the input is the file; an accepted file must
// give an image of its stated size whose pixels are the file's bytes behind the header, and the image
// must scale with both scalers and save again.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zrobj/byteorder.h"
#include "zrobj/cptcdib.h"

namespace dibfuzz {

inline bool WriteWhole(const std::string& path, const std::uint8_t* data, std::size_t size) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(data, 1, size, f) == size;
  return std::fclose(f) == 0 && ok;
}

// `infoAt`: where the file's info header starts; `pixelsAt`: where the load reads the pixels.
inline int LoadOne(const std::uint8_t* data, std::size_t size, const char* extension, std::size_t infoAt,
                   std::size_t pixelsAt) {
  static const std::string path = "/tmp/fuzz_dibload." + std::to_string(::getpid()) + extension;
  static const std::string saved = "/tmp/fuzz_dibload_saved." + std::to_string(::getpid()) + extension;
  if (!WriteWhole(path, data, size)) std::abort();
  const std::u16string wide(path.begin(), path.end());
  CPTCDib image;
  if (!image.LoadFromFile(wide.c_str())) {
    if (image.GetSize() != 0) std::abort();  // a failed load leaves the image empty
    return 0;
  }
  if (size < pixelsAt) std::abort();
  const long w = static_cast<long>(zr::LoadLE32(data + infoAt + 4));
  const long h = static_cast<long>(zr::LoadLE32(data + infoAt + 8));
  const unsigned long bits = zr::LoadLE16(data + infoAt + 14);
  if (image.GetWidth() != w || image.GetHeight() != h || image.GetBitCount() != bits) std::abort();
  const unsigned long bytes = image.GetDIBSize();
  if (bytes != CPTCDib::GetMemSizeDib(w, h, bits) - DIB_HEADER_SIZE || pixelsAt + bytes > size) std::abort();
  if (std::memcmp(image.GetBits(), data + pixelsAt, bytes) != 0) std::abort();
  if (bytes > (1u << 22)) return 0;  // keep the runs fast
  // Both scalers to a small size derived from the input, and a save of the result.
  const long tw = 1 + static_cast<long>(size % 23);
  const long th = 1 + static_cast<long>((size / 23) % 19);
  CPTCDib fast, bilinear;
  if (!fast.ScaleDIBFast(image, image.GetBits(), tw, th, bits == 24 ? 32 : 24)) std::abort();
  if (!bilinear.SetDIB(image.GetDIBInfo(), tw, th, 0, DIB_SCALE_BILINEAR)) std::abort();
  if (fast.AssertMem() != 1 || bilinear.AssertMem() != 1) std::abort();
  const std::u16string wideSaved(saved.begin(), saved.end());
  CPTCDib back;
  if (!bilinear.SaveToFile(wideSaved.c_str()) || !back.LoadFromFile(wideSaved.c_str())) std::abort();
  if (back.GetDIBSize() != bilinear.GetDIBSize() ||
      std::memcmp(back.GetBits(), bilinear.GetBits(), back.GetDIBSize()) != 0) {
    std::abort();
  }
  return 0;
}

}  // namespace dibfuzz
