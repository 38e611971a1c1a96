// True-colour images (24- or 32-bit RGB, or YUV 4:4:4) in one reference-counted block whose first 174
// bytes are a complete bitmap file header; loading, saving, video frame sizes and two scalers.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "zrobj/cpmem.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// The bitmap structures are stored byte for byte as they lie in memory (little-endian host). They are
// packed to 2 bytes, as the system's bitmap headers are, because the info header starts at offset 14.
#pragma pack(push, 2)

struct BITMAPFILEHEADER {
  WORD bfType;  // 0x4D42, "BM"
  DWORD bfSize;
  WORD bfReserved1;
  WORD bfReserved2;
  DWORD bfOffBits;
};

struct BITMAPINFOHEADER {
  DWORD biSize;
  LONG biWidth;
  LONG biHeight;  // positive: rows bottom-up
  WORD biPlanes;
  WORD biBitCount;
  DWORD biCompression;
  DWORD biSizeImage;
  LONG biXPelsPerMeter;
  LONG biYPelsPerMeter;
  DWORD biClrUsed;
  DWORD biClrImportant;
};

struct RGBQUAD {
  BYTE rgbBlue;
  BYTE rgbGreen;
  BYTE rgbRed;
  BYTE rgbReserved;
};

// The extended info header (block offsets 14-173): the system's 40-byte info header, then the
// library's extension. Offsets in the comments are block offsets.
struct tagZRBMINFOHEADER {
  BITMAPINFOHEADER bmi;       // 14
  DWORD dwExtSize;            // 54: 144
  char magic[4];              // 58: "VORN"
  DWORD dwReserved1[2];       // 62
  DWORD dwFieldMode;          // 70: 0 or 32
  DWORD dwReserved2[6];       // 74
  DWORD dwFrameMode;          // 98: 1 or 0
  DWORD dwReserved3[3];       // 102
  DWORD dwAspectX;            // 114: 16.16 fixed point
  DWORD dwAspectY;            // 118: 16.16 fixed point
  DWORD dwReserved4[11];      // 122
  DWORD dwChromaCode;         // 166: 16 (4:4:4)
  DWORD dwReserved5;          // 170
};
// YUV images view the same bytes under this name.
using tagYUVBMINFOHEADER = tagZRBMINFOHEADER;

// The block: file header and extended info header, the pixel rows behind.
struct tagDIBINFO {
  BITMAPFILEHEADER bmf;       // 0
  tagZRBMINFOHEADER bmi;      // 14
};

#pragma pack(pop)

static_assert(sizeof(BITMAPFILEHEADER) == 14 && sizeof(BITMAPINFOHEADER) == 40, "bitmap header layout");
static_assert(sizeof(tagZRBMINFOHEADER) == 160 && sizeof(tagDIBINFO) == 174, "extended bitmap header layout");
static_assert(offsetof(tagDIBINFO, bmi.dwFieldMode) == 70 && offsetof(tagDIBINFO, bmi.dwFrameMode) == 98 &&
                  offsetof(tagDIBINFO, bmi.dwAspectX) == 114 && offsetof(tagDIBINFO, bmi.dwChromaCode) == 166,
              "extended bitmap header offsets");
static_assert(std::endian::native == std::endian::little, "bitmap headers are stored as they lie in memory");

inline constexpr WORD DIB_SIGNATURE = 0x4D42;            // "BM"
inline constexpr DWORD DIB_HEADER_SIZE = 174;            // block header, also the pixel data offset
inline constexpr DWORD DIB_INFO_SIZE = 160;              // extended info header
inline constexpr DWORD DIB_EXT_SIZE = 144;               // extension behind the 40-byte info header
inline constexpr DWORD DIB_SPARE_SIZE = 32;              // bytes allocated behind the used size
inline constexpr DWORD DIB_COMPRESSION_RGB = 0;
inline constexpr DWORD DIB_COMPRESSION_YUV = 0x56555940;  // "@YUV", '@' at the lowest offset
inline constexpr DWORD DIB_CHROMA_444 = 16;
inline constexpr DWORD DIB_ASPECT_ONE = 0x10000;         // 1.0 in 16.16
inline constexpr unsigned long DIB_SCALE_BILINEAR = 0x1;  // SetDIB/LoadFromFile flags bit 0

class ZROBJ_API CPTCDib : public CPMemory {
 public:
  CPTCDib() = default;
  // Sharing and releasing happen here, where the handle's class id is already (still) its own.
  CPTCDib(const CPTCDib& other) : CPMemory() { CPMemory::operator=(other); }
  CPTCDib& operator=(const CPTCDib& other) = default;
  ~CPTCDib() override { Free(); }
  const char* GetClassID() const override { return "CPTCDib"; }

  // ---- sizes ----
  // Row stride: |w| x bits / 8 rounded up to 4 bytes.
  static unsigned long GetStride(long w, unsigned long bits);
  // stride x |h| + 174 (0 when w and h are both 0, or when the size does not fit 32 bits).
  static unsigned long GetMemSizeDib(long w, long h, unsigned long bits);
  // GetMemSizeDib + 32 (0 when that is 0).
  static unsigned long GetAllocSizeDib(long w, long h, unsigned long bits);
  unsigned long GetDIBSize() const;   // used size (the file-size field) - 174; 0 when empty
  unsigned long GetDataSize() const;  // |w| x stride of |w| x |h|, as computed from the header

  // ---- allocation ----
  // w and h non-zero, bits 24 or 32, else 0. Allocates GetAllocSizeDib bytes and writes the header.
  int Alloc(long w, long h, unsigned long bits, unsigned long flags = 0);
  // w = h = 0: a private copy of the block (CPMemory::Realloc(0xFFFFFFFF)); else resizes the block
  // (pixels kept as bytes) and writes a fresh header.
  int Realloc(long w, long h, unsigned long bits, unsigned long flags = 0);
  int AllocYUV(long w, long h, unsigned long bits, unsigned long flags = 0);
  int ReallocYUV(long w, long h, unsigned long bits, unsigned long flags = 0);
  // A 24-bit image of video system n (1..8, 0 = the default timecode system), header set for it.
  int AllocVideo(int n);
  int AllocVideoYUV(int n);
  // Frees this; an empty source gives 1; else a block of the source's size with its 174-byte header
  // (pixels undefined).
  int CopyAlloc(const CPTCDib& other);

  // ---- header ----
  // Zeroes the 174 bytes and fills them for an image of w x h x bits.
  static void SetBMI(tagDIBINFO* header, long w, long h, unsigned long bits);
  int SetBMI(long w, long h, unsigned long bits);
  // Aspect, field and frame mode of video system n (0 = the default timecode system). 1 or 0.
  int SetVideoSystem(int n);
  // The video system a timecode system stands for (0 when none does).
  static int VideoSystemOfTimecode(int timecodeSystem);
  // Marks (compression "@YUV") or unmarks (RGB) the image. 1, or 0 for an empty image.
  int SetYUV(int yuv);
  int IsYUV() const;

  long GetWidth() const;
  long GetHeight() const;
  unsigned long GetBitCount() const;
  // Bytes per pixel and bytes per row (both 0 for an empty image).
  void GetIncrements(long& pixelIncrement, long& rowIncrement) const;

  // ---- setting from other bitmaps ----
  // A whole block of this layout (starting with "BM"); w, h, bits 0 keep the source's. Flags bit 0
  // chooses the bilinear scaler when the size or depth changes.
  int SetDIB(const tagDIBINFO* src, long w = 0, long h = 0, unsigned long bits = 0, unsigned long flags = 0);
  // An info header and its pixel rows.
  int SetDIB(const BITMAPINFOHEADER* src, const void* pixels, long w = 0, long h = 0, unsigned long bits = 0,
             unsigned long flags = 0);
  // Nearest-sample and bilinear scaling of a source into this image (w, h > 0; bits 0 = the
  // source's). The first and last target pixels of each row and column land on the first and last
  // source pixels.
  int ScaleDIBFast(const BITMAPINFOHEADER* src, const void* pixels, long w, long h, unsigned long bits);
  int ScaleDIBBilinear(const BITMAPINFOHEADER* src, const void* pixels, long w, long h, unsigned long bits);

  // ---- files ----
  // A bitmap file (24 or 32 bits, RGB or "@YUV"), or with the extension ".bsi" (any case) the
  // extended form that SaveToFile writes. w, h, bits 0 keep the file's; otherwise SetDIB converts.
  int LoadFromFile(const WCHAR* path, long w = 0, long h = 0, unsigned long bits = 0, unsigned long flags = 0);
  // The bytes of a bitmap file held in memory (an embedded resource).
  int LoadFromResource(const void* data, unsigned long size, long w = 0, long h = 0, unsigned long bits = 0,
                       unsigned long flags = 0);
  // ".bsi" (any case): the 160-byte extended info header and the pixels; otherwise a standard bitmap
  // file with a 40-byte info header. 1 or 0 (a failed save deletes its file).
  int SaveToFile(const WCHAR* path) const;

  // ---- views ----
  tagDIBINFO* GetDIBInfo() { return static_cast<tagDIBINFO*>(GetDataPtr()); }
  const tagDIBINFO* GetDIBInfo() const { return static_cast<const tagDIBINFO*>(GetCDataPtr()); }
  tagZRBMINFOHEADER* GetInfoHeader();
  const tagZRBMINFOHEADER* GetInfoHeader() const;
  // The pixel rows at offset 174: only 2-byte aligned, so pixel words are read and written with memcpy.
  BYTE* GetBits();
  const BYTE* GetBits() const;
  operator tagDIBINFO*() { return GetDIBInfo(); }
  operator const tagDIBINFO*() const { return GetDIBInfo(); }
  operator BITMAPINFOHEADER*();
  operator const BITMAPINFOHEADER*() const;

  static CPTCDib* Construct(void* place);

 protected:
  IMallocator* GetMallocator() override;
};
