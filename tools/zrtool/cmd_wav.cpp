// zrtool wav: what the library's WAV memory makes of a WAVE file.
#include <cstdio>
#include <string>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
#include "zrobj/cpwavmem.h"

namespace zrtool {
namespace {

int RunWav(const Args& args);

const Command kWav = {
    "wav", "show how the library loads a WAVE file",
    "usage: zrtool wav info FILE.wav\n\n"
    "info  reads FILE.wav as the library's WAV memory does (PCM, 8 or 16 bits, the \"data\" chunk\n"
    "      right behind \"fmt \") and prints the format, the sample count, the duration and the\n"
    "      size of the loaded block. Exit status 1 when the library refuses the file.\n",
    RunWav};

ZRTOOL_COMMAND(kWav);

void PrintFormat(const std::string& path, const ZRWavFileFormat& f, const CPWavMemory& wav) {
  std::printf("file:           %s\n", path.c_str());
  std::printf("format:         PCM, %lu channel%s, %lu Hz, %lu bits\n", static_cast<unsigned long>(f.channels),
              f.channels == 1 ? "" : "s", static_cast<unsigned long>(f.samplesPerSec),
              static_cast<unsigned long>(f.bitsPerSample));
  std::printf("block align:    %lu bytes\n", static_cast<unsigned long>(f.blockAlign));
  std::printf("bytes/second:   %lu (as the file states)\n", static_cast<unsigned long>(f.avgBytesPerSec));
  std::printf("data:           %lu bytes\n", static_cast<unsigned long>(f.dataSize));
  std::printf("samples:        %lu per channel\n", static_cast<unsigned long>(f.sampleCount));
  if (f.samplesPerSec != 0) {
    std::printf("duration:       %.6f s\n", static_cast<double>(f.sampleCount) / f.samplesPerSec);
  } else {
    std::printf("duration:       unknown (0 Hz)\n");
  }
  std::printf("loaded block:   %lu bytes (%lu header + %lu samples; the data are read over the header)\n",
              wav.GetSize(), static_cast<unsigned long>(CPWavMemory::kHeaderSize), wav.GetWavSize());
}

int Info(const std::string& path) {
  const std::u16string wide = ToWide(path);
  ZRWavFileFormat format;
  if (!CPWavMemory::ReadFileFormat(wide.c_str(), &format)) {
    return Fail(path + ": not a PCM WAVE file with its \"data\" chunk right behind \"fmt \"");
  }
  CPWavMemory wav;
  if (!wav.LoadFromFile(wide.c_str())) {
    return Fail(path + ": cannot be loaded (8 or 16 bits and a block align of channels x bits / 8 are " +
                "needed, and the data must be complete)");
  }
  PrintFormat(path, format, wav);
  return 0;
}

int RunWav(const Args& args) {
  if (args.size() != 2 || args[0] != "info") return UsageError(kWav, "expected: wav info FILE.wav");
  return Info(args[1]);
}

}  // namespace
}  // namespace zrtool
