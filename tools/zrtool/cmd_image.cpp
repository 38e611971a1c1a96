// zrtool image: the library's true-colour images: header fields, scaling, and the bitmap <-> ".bsi"
// conversion. Each mode is one entry of kModes.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
#include "zrobj/cptcdib.h"

namespace zrtool {
namespace {

int RunImage(const Args& args);

const Command kImage = {
    "image", "show, scale and convert 24/32-bit bitmaps as the library's images",
    "usage: zrtool image info FILE\n"
    "       zrtool image scale IN OUT --fast|--bilinear WxH\n"
    "       zrtool image convert IN OUT\n\n"
    "FILE, IN and OUT are standard bitmap files (24 or 32 bits, uncompressed), or with the\n"
    "extension \".bsi\" (any case) the library's extended form; the output's extension picks\n"
    "the form written.\n\n"
    "info     loads FILE and prints its header fields (size, depth, compression, video fields).\n"
    "scale    loads IN, scales it to W x H with the nearest-sample (--fast) or the bilinear\n"
    "         scaler, keeping its depth, and writes OUT.\n"
    "convert  loads IN and writes it to OUT unchanged (bitmap <-> \".bsi\").\n"
    "Exit status 1 when the library refuses a file.\n",
    RunImage};

ZRTOOL_COMMAND(kImage);

int Load(const std::string& path, CPTCDib* image) {
  if (image->LoadFromFile(ToWide(path).c_str())) return 0;
  return Fail(path + ": not a loadable 24/32-bit bitmap (uncompressed RGB or \"@YUV\", complete pixel data)");
}

int Save(const CPTCDib& image, const std::string& path) {
  if (image.SaveToFile(ToWide(path).c_str())) return 0;
  return Fail(path + ": cannot be written");
}

std::string FourChars(DWORD value) {
  std::string text;
  for (int i = 0; i < 4; ++i) {
    const char c = static_cast<char>(value >> (8 * i));
    text += (c >= 32 && c < 127) ? c : '.';
  }
  return text;
}

int Info(const Args& args) {
  if (args.size() != 1) return UsageError(kImage, "expected: image info FILE");
  CPTCDib image;
  if (const int status = Load(args[0], &image)) return status;
  const tagZRBMINFOHEADER& h = *image.GetInfoHeader();
  const DWORD compression = h.bmi.biCompression;
  long pixel = 0, row = 0;
  image.GetIncrements(pixel, row);
  std::printf("file:           %s\n", args[0].c_str());
  std::printf("size:           %ld x %ld\n", image.GetWidth(), image.GetHeight());
  std::printf("bits:           %lu\n", image.GetBitCount());
  std::printf("compression:    %s\n", compression == 0 ? "RGB" : ("\"" + FourChars(compression) + "\"").c_str());
  std::printf("stride:         %ld bytes (%ld per pixel)\n", row, pixel);
  std::printf("image bytes:    %lu\n", image.GetDIBSize());
  std::printf("block bytes:    %lu (174 header + image + 32 spare)\n", image.GetSize());
  DWORD magic = 0;
  std::memcpy(&magic, h.magic, 4);
  std::printf("magic:          \"%s\"\n", FourChars(magic).c_str());
  std::printf("field mode:     %lu\n", static_cast<unsigned long>(DWORD{h.dwFieldMode}));
  std::printf("frame mode:     %lu\n", static_cast<unsigned long>(DWORD{h.dwFrameMode}));
  std::printf("pixel aspect:   %.6f : %.6f\n", DWORD{h.dwAspectX} / 65536.0, DWORD{h.dwAspectY} / 65536.0);
  std::printf("chroma code:    %lu\n", static_cast<unsigned long>(DWORD{h.dwChromaCode}));
  return 0;
}

bool ParseSize(const std::string& text, long* w, long* h) {
  const auto x = text.find('x');
  if (x == std::string::npos || x == 0 || x + 1 >= text.size()) return false;
  char* end = nullptr;
  *w = std::strtol(text.c_str(), &end, 10);
  if (end != text.c_str() + x) return false;
  *h = std::strtol(text.c_str() + x + 1, &end, 10);
  return *end == 0 && *w > 0 && *h > 0 && *w <= 65535 && *h <= 65535;
}

int Scale(const Args& args) {
  if (args.size() != 4) return UsageError(kImage, "expected: image scale IN OUT --fast|--bilinear WxH");
  const std::string& mode = args[2];
  if (mode != "--fast" && mode != "--bilinear") return UsageError(kImage, "expected --fast or --bilinear");
  long w = 0, h = 0;
  if (!ParseSize(args[3], &w, &h)) return UsageError(kImage, "size must be WxH, each 1..65535");
  Progress progress("scale", 3);
  CPTCDib source;
  if (const int status = Load(args[0], &source)) return status;
  progress.Update(1);
  CPTCDib target;
  const int ok = mode == "--bilinear"
                     ? target.ScaleDIBBilinear(source, source.GetBits(), w, h, source.GetBitCount())
                     : target.ScaleDIBFast(source, source.GetBits(), w, h, source.GetBitCount());
  if (!ok) return Fail("scaling to " + args[3] + " failed (out of memory?)");
  progress.Update(2);
  if (const int status = Save(target, args[1])) return status;
  progress.Finish();
  return 0;
}

int Convert(const Args& args) {
  if (args.size() != 2) return UsageError(kImage, "expected: image convert IN OUT");
  CPTCDib image;
  if (const int status = Load(args[0], &image)) return status;
  return Save(image, args[1]);
}

// The modes of `zrtool image`; a new mode is one more row (and a line of the usage text).
struct Mode {
  const char* name;
  int (*run)(const Args& rest);
};
const Mode kModes[] = {
    {"info", Info},
    {"scale", Scale},
    {"convert", Convert},
};

int RunImage(const Args& args) {
  if (args.empty()) return UsageError(kImage, "expected a mode: info, scale or convert");
  const Args rest(args.begin() + 1, args.end());
  for (const Mode& mode : kModes) {
    if (args[0] == mode.name) return mode.run(rest);
  }
  return UsageError(kImage, "unknown mode: " + args[0]);
}

}  // namespace
}  // namespace zrtool
