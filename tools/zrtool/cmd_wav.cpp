// zrtool wav: what the library's WAV memory makes of a WAVE file, and its spectrogram drawn through
// the library's FFT.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
#include "zrobj/byteorder.h"
#include "zrobj/cfft.h"
#include "zrobj/cptcdib.h"
#include "zrobj/cpwavmem.h"

namespace zrtool {
namespace {

int RunWav(const Args& args);

const Command kWav = {
    "wav", "show how the library loads a WAVE file; draw its spectrogram",
    "usage: zrtool wav info FILE.wav\n"
    "       zrtool wav spectrum FILE.wav OUT.bmp [--window N] [--width N]\n\n"
    "info      reads FILE.wav as the library's WAV memory does (PCM, 8 or 16 bits, the \"data\"\n"
    "          chunk right behind \"fmt \") and prints the format, the sample count, the duration\n"
    "          and the size of the loaded block.\n"
    "spectrum  draws the spectrogram of FILE.wav (channels mixed) into a 24-bit bitmap: time from\n"
    "          left to right in --width columns (default 1024), frequency from 0 at the bottom to\n"
    "          half the sample rate at the top in window/2 rows, brightness the level in dB over\n"
    "          96 dB below the loudest bin. Each column is the FFT of --window samples (default\n"
    "          1024) under a Hann window. Both sizes are powers of two (window 16..32768, width\n"
    "          2..16384).\n"
    "Exit status 1 when the library refuses the file.\n",
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

// The loaded samples mixed to one channel in -1..1. The load puts the data bytes at the start of
// the block.
std::vector<double> MonoSamples(const CPWavMemory& wav, const ZRWavFileFormat& f) {
  const BYTE* data = static_cast<const BYTE*>(wav.GetCDataPtr());
  std::vector<double> mono(f.sampleCount);
  const unsigned bytes = f.bitsPerSample / 8;
  for (DWORD i = 0; i < f.sampleCount; ++i) {
    double sum = 0;
    for (DWORD c = 0; c < f.channels; ++c) {
      const BYTE* at = data + std::size_t{i} * f.blockAlign + c * bytes;
      sum += bytes == 2 ? static_cast<std::int16_t>(zr::LoadLE16(at)) / 32768.0 : (at[0] - 128) / 128.0;
    }
    mono[i] = sum / f.channels;
  }
  return mono;
}

bool PowerOfTwo(const std::string& text, unsigned long low, unsigned long high, unsigned long* value) {
  char* end = nullptr;
  *value = std::strtoul(text.c_str(), &end, 10);
  return !text.empty() && *end == 0 && *value >= low && *value <= high && (*value & (*value - 1)) == 0;
}

struct SpectrumOptions {
  unsigned long window = 1024;
  unsigned long width = 1024;
};

int ParseSpectrumOptions(const Args& args, SpectrumOptions* options) {
  for (size_t i = 3; i < args.size(); i += 2) {
    if (i + 1 >= args.size()) return UsageError(kWav, args[i] + " needs a value");
    if (args[i] == "--window") {
      if (!PowerOfTwo(args[i + 1], 16, 32768, &options->window)) return UsageError(kWav, "--window: a power of two, 16..32768");
    } else if (args[i] == "--width") {
      if (!PowerOfTwo(args[i + 1], 2, 16384, &options->width)) return UsageError(kWav, "--width: a power of two, 2..16384");
    } else {
      return UsageError(kWav, "unknown option: " + args[i]);
    }
  }
  return 0;
}

// Column `frame` of the grid: the magnitudes of the lower half of the windowed frame's spectrum.
void TransformFrame(const std::vector<double>& mono, std::size_t start, CFFT_1Dd& fft, CFFT_2Dd& grid, UINT frame) {
  const UINT window = fft.uNFFT();
  const double pi = std::acos(-1.0);
  for (UINT i = 0; i < window; ++i) {
    const double hann = 0.5 - 0.5 * std::cos(2 * pi * i / window);
    fft.ARe()[i] = start + i < mono.size() ? mono[start + i] * hann : 0;
    fft.AIm()[i] = 0;
  }
  fft.FFT(1, 1);
  for (UINT k = 0; k < window / 2; ++k) {
    *grid.Re(frame, k) = std::hypot(fft.ARe()[k], fft.AIm()[k]);
    *grid.Im(frame, k) = 0;
  }
}

int Spectrum(const Args& args) {
  if (args.size() < 3) return UsageError(kWav, "expected: wav spectrum FILE.wav OUT.bmp [--window N] [--width N]");
  SpectrumOptions options;
  if (const int status = ParseSpectrumOptions(args, &options)) return status;
  const std::u16string wide = ToWide(args[1]);
  ZRWavFileFormat format;
  CPWavMemory wav;
  if (!CPWavMemory::ReadFileFormat(wide.c_str(), &format) || !wav.LoadFromFile(wide.c_str()) ||
      format.channels == 0) {
    return Fail(args[1] + ": not a PCM WAVE file (8 or 16 bits) the library loads");
  }
  const std::vector<double> mono = MonoSamples(wav, format);
  CFFT_1Dd fft;
  CFFT_2Dd grid;
  const UINT columns = static_cast<UINT>(options.width), window = static_cast<UINT>(options.window);
  if (!fft.Open(window) || !grid.Open(columns, window / 2)) return Fail("out of memory for the transforms");
  // Frames spread evenly: the first starts at sample 0, the last ends at the last sample.
  const std::size_t span = mono.size() > window ? mono.size() - window : 0;
  Progress progress("spectrum", columns + 1ull);
  for (UINT x = 0; x < columns; ++x) {
    TransformFrame(mono, span * x / (columns - 1), fft, grid, x);
    progress.Update(x + 1ull);
  }
  const CPTCDib image = grid.GetShowData(FFTSHOW_LOG_MAGNITUDE, FFTSHOW_AS_STORED);
  if (image.GetSize() == 0) return Fail("out of memory for the " + args[2] + " image");
  if (!image.SaveToFile(ToWide(args[2]).c_str())) return Fail(args[2] + ": cannot be written");
  progress.Finish();
  std::printf("spectrogram:    %u x %u pixels, %.1f Hz per row, %.4f s per column\n", columns, window / 2,
              static_cast<double>(format.samplesPerSec) / window,
              format.samplesPerSec ? static_cast<double>(span) / (columns - 1) / format.samplesPerSec : 0.0);
  return 0;
}

int RunWav(const Args& args) {
  if (args.size() == 2 && args[0] == "info") return Info(args[1]);
  if (!args.empty() && args[0] == "spectrum") return Spectrum(args);
  return UsageError(kWav, "expected: wav info FILE.wav, or wav spectrum FILE.wav OUT.bmp");
}

}  // namespace
}  // namespace zrtool
