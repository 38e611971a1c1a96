// zrtool image: the library's true-colour images: header fields, scaling, and the bitmap <-> ".bsi"
// conversion. Each mode is one entry of kModes.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
#include "zrobj/cppaldib.h"
#include "zrobj/cptcdib.h"

namespace zrtool {
namespace {

int RunImage(const Args& args);

const Command kImage = {
    "image", "show, scale and convert 24/32-bit bitmaps as the library's images",
    "usage: zrtool image info FILE\n"
    "       zrtool image scale IN OUT --fast|--bilinear WxH\n"
    "       zrtool image convert IN OUT\n"
    "       zrtool image quantize IN OUT N [--alpha]\n\n"
    "FILE, IN and OUT are standard bitmap files (24 or 32 bits, uncompressed), or with the\n"
    "extension \".bsi\" (any case) the library's extended form; the output's extension picks\n"
    "the form written.\n\n"
    "info     loads FILE and prints its header fields (size, depth, compression, video fields).\n"
    "scale    loads IN, scales it to W x H with the nearest-sample (--fast) or the bilinear\n"
    "         scaler, keeping its depth, and writes OUT.\n"
    "convert  loads IN and writes it to OUT unchanged (bitmap <-> \".bsi\").\n"
    "quantize reduces IN to at most N colours (2..65535) with the library's colour tree (with\n"
    "         --alpha the tree that also separates by the fourth byte), writes the result drawn\n"
    "         in its palette colours to OUT at IN's depth and prints the colours and the PSNR.\n"
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

// The palette image drawn back in true colour at the source's depth, and the peak signal-to-noise
// ratio of its colour channels against the source (infinite when they are equal).
double Expand(const CPTCDib& source, const CPPalDib& palette, CPTCDib* out) {
  const unsigned long bits = source.GetBitCount();
  const long w = std::labs(source.GetWidth()), h = std::labs(source.GetHeight());
  if (!out->Alloc(source.GetWidth(), source.GetHeight(), bits)) return -1;
  const unsigned long stride = CPTCDib::GetStride(w, bits);
  const unsigned bytes = bits / 8;
  std::memset(out->GetBits(), 0, out->GetDIBSize());  // row padding included
  double squared = 0;
  for (long y = 0; y < h; ++y) {
    const BYTE* from = source.GetBits() + y * stride;
    BYTE* to = out->GetBits() + y * stride;
    for (long x = 0; x < w; ++x, from += bytes, to += bytes) {
      const DWORD index = palette.GetIndex(x, y);
      const RGBQUAD& q = palette.GetPalette()[index < palette.GetColours() ? index : 0];
      const BYTE colour[4] = {q.rgbBlue, q.rgbGreen, q.rgbRed, q.rgbReserved};
      std::memcpy(to, colour, bytes);
      for (int c = 0; c < 3; ++c) squared += (from[c] - to[c]) * double(from[c] - to[c]);
    }
  }
  const double mse = squared / (3.0 * w * h);
  return mse == 0 ? INFINITY : 10 * std::log10(255.0 * 255.0 / mse);
}

int Quantize(const Args& args) {
  if (args.size() != 3 && !(args.size() == 4 && args[3] == "--alpha")) {
    return UsageError(kImage, "expected: image quantize IN OUT N [--alpha]");
  }
  char* end = nullptr;
  const unsigned long colours = std::strtoul(args[2].c_str(), &end, 10);
  if (*end != 0 || args[2].empty() || colours < 2 || colours > PALDIB_MAX_COLOURS) {
    return UsageError(kImage, "N must be a number of colours from 2 to 65535");
  }
  Progress progress("quantize", 4);
  CPTCDib source;
  if (const int status = Load(args[0], &source)) return status;
  progress.Update(1);
  COctTree octree;
  CHexTree hextree;
  const bool alpha = args.size() == 4;
  if (!(alpha ? hextree.SetDIB(source, colours) : octree.SetDIB(source, colours))) {
    return Fail("quantizing " + args[0] + " failed (out of memory?)");
  }
  const CPPalDib palette = alpha ? hextree.GetDIB() : octree.GetDIB();
  progress.Update(2);
  CPTCDib result;
  const double psnr = Expand(source, palette, &result);
  if (psnr < 0) return Fail("out of memory for the " + args[1] + " image");
  progress.Update(3);
  if (const int status = Save(result, args[1])) return status;
  progress.Finish();
  std::printf("colours:        %lu of %lu asked (%lu-byte indices)\n", palette.GetColours(), colours,
              palette.GetIndexBytes());
  std::printf("psnr:           %.2f dB\n", psnr);
  return 0;
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
    {"quantize", Quantize},
};

int RunImage(const Args& args) {
  if (args.empty()) return UsageError(kImage, "expected a mode: info, scale, convert or quantize");
  const Args rest(args.begin() + 1, args.end());
  for (const Mode& mode : kModes) {
    if (args[0] == mode.name) return mode.run(rest);
  }
  return UsageError(kImage, "unknown mode: " + args[0]);
}

}  // namespace
}  // namespace zrtool
