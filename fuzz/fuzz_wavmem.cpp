// Fuzzes CPWavMemory::LoadFromFile on arbitrary files. An accepted file must agree with the format
// reader: the block holds the samples the format gives, and starts with the file's data bytes.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "zrobj/byteorder.h"
#include "zrobj/cpwavmem.h"

namespace {

const std::string& ScratchPath() {
  static const std::string path = "/tmp/fuzz_wavmem." + std::to_string(::getpid()) + ".wav";
  return path;
}

bool WriteWhole(const std::string& path, const std::uint8_t* data, std::size_t size) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(data, 1, size, f) == size;
  return std::fclose(f) == 0 && ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string& path = ScratchPath();
  if (!WriteWhole(path, data, size)) std::abort();
  const std::u16string wide(path.begin(), path.end());
  CPWavMemory wav;
  const int loaded = wav.LoadFromFile(wide.c_str());
  ZRWavFileFormat format;
  const int readable = CPWavMemory::ReadFileFormat(wide.c_str(), &format);
  if (!loaded) {
    if (wav.GetSize() != 0) std::abort();  // a failed load leaves the handle empty
    return 0;
  }
  if (!readable) std::abort();
  const unsigned long align = format.bitsPerSample * format.channels / 8;
  if (wav.GetWavSize() != align * format.sampleCount) std::abort();
  if (format.dataSize > wav.GetSize()) std::abort();
  // The data chunk starts behind the RIFF header, the format chunk and its own header.
  const std::uint64_t at = 28ull + zr::LoadLE32(data + 16);
  if (at + format.dataSize > size) std::abort();
  if (std::memcmp(wav.GetCDataPtr(), data + at, format.dataSize) != 0) std::abort();
  return 0;
}
