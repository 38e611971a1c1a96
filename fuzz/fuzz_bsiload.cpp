// Fuzzes CPTCDib::LoadFromFile on ".bsi" files (the 160-byte extended info header, then the pixels).
#include "fuzz/dibload_common.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  return dibfuzz::LoadOne(data, size, ".bsi", 0, 160);
}
