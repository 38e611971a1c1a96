// Little-endian 32-bit words of the files and dumps zrtool reads and writes. The library keeps its own
// in an internal header; the tool includes only installed headers, so it has this one small copy.
#pragma once

#include <cstdint>

namespace zrtool {

inline std::uint32_t LoadLE32(const void* p) {
  const auto* b = static_cast<const unsigned char*>(p);
  return std::uint32_t{b[0]} | std::uint32_t{b[1]} << 8 | std::uint32_t{b[2]} << 16 | std::uint32_t{b[3]} << 24;
}

inline void StoreLE32(void* p, std::uint32_t v) {
  auto* b = static_cast<unsigned char*>(p);
  for (int i = 0; i < 4; ++i) b[i] = static_cast<unsigned char>(v >> (8 * i));
}

}  // namespace zrtool
