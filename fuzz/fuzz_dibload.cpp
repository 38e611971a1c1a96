// Fuzzes CPTCDib::LoadFromFile on standard bitmap files (pixels read from offset 54).
#include "fuzz/dibload_common.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return dibfuzz::LoadOne(data, size, ".bmp", 14, 54);
}
