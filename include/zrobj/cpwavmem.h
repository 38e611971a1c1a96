// PCM audio in one reference-counted block: a 76-byte format header followed by the samples, with
// loading from and saving to RIFF WAVE files.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "zrobj/cpmem.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// The block's header: the layout of the system's WAVEFORMATEX, then the library's own fields. It is
// stored byte for byte as it lies in memory, so the host must be little-endian.
struct tagZRWAVFORMAT {
  std::uint16_t wFormatTag;       // 1: PCM
  std::uint16_t nChannels;
  std::uint32_t nSamplesPerSec;
  std::uint32_t nAvgBytesPerSec;  // block align x samples per second
  std::uint16_t nBlockAlign;      // bits x channels / 8
  std::uint16_t wBitsPerSample;   // 8 or 16
  std::uint16_t cbSize;           // 58: the bytes behind the first 18
  std::uint16_t wReserved1;
  std::uint32_t dwHeaderSize;     // 76
  char magic[4];                  // "VORN"
  std::uint32_t dwStreams;
  std::uint32_t dwReserved2;      // 0xFFFFFFFF
  std::uint32_t dwReserved3;      // 0
  std::uint32_t dwSamples;        // per stream
  std::uint32_t dwReserved4;
  std::uint8_t reserved5[28];     // 0
};
static_assert(sizeof(tagZRWAVFORMAT) == 76 && offsetof(tagZRWAVFORMAT, dwSamples) == 40, "wav header layout");
static_assert(std::endian::native == std::endian::little, "the wav header is stored as it lies in memory");

// The format a WAVE file declares and the size of its "data" chunk, as LoadFromFile reads them.
struct ZRWavFileFormat {
  DWORD channels = 0;
  DWORD samplesPerSec = 0;
  DWORD avgBytesPerSec = 0;
  DWORD blockAlign = 0;
  DWORD bitsPerSample = 0;
  DWORD dataSize = 0;     // bytes of the "data" chunk
  DWORD sampleCount = 0;  // dataSize / blockAlign
};

class ZROBJ_API CPWavMemory : public CPMemory {
 public:
  static constexpr DWORD kHeaderSize = sizeof(tagZRWAVFORMAT);

  CPWavMemory() = default;
  // Sharing and releasing happen here, where the handle's class id is already (still) its own.
  CPWavMemory(const CPWavMemory& other) : CPMemory() { CPMemory::operator=(other); }
  CPWavMemory& operator=(const CPWavMemory& other) = default;
  ~CPWavMemory() override { Free(); }
  const char* GetClassID() const override { return "CPWavMemory"; }

  // Block bytes for a format: block align x samples x streams + the header (0 when it does not fit
  // a 32-bit size).
  static unsigned long GetMemSizeWav(unsigned long samples, unsigned long bits, unsigned long channels,
                                     unsigned long streams);

  // Samples, channels and streams non-zero and bits 8 or 16, else 0. Allocates and writes the header.
  int Alloc(unsigned long samples, unsigned long rate, unsigned long bits, unsigned long channels,
            unsigned long streams, unsigned long flags = 0);

  // Reads a PCM WAVE file: "fmt " first, "data" right behind it. The data bytes land at the start of
  // the block, over the header, which then reads back the first sample bytes. 1 or 0.
  int LoadFromFile(const WCHAR* path);
  // Writes the block as a WAVE file; the last check always fails, so the file is deleted and the
  // result is 0 (see the source).
  int SaveToFile(const WCHAR* path);

  // Steps 1 to 3 of a load: checks the RIFF, "fmt " and "data" headers of `path`. 1 or 0.
  static int ReadFileFormat(const WCHAR* path, ZRWavFileFormat* format);

  unsigned long GetWavSize() const;   // block size - 76, 0 when empty
  unsigned long GetNSamples() const;  // the header's sample count, 0 when empty

  operator tagZRWAVFORMAT*() { return static_cast<tagZRWAVFORMAT*>(GetDataPtr()); }
  operator const tagZRWAVFORMAT*() const { return static_cast<const tagZRWAVFORMAT*>(GetCDataPtr()); }
  operator short*();
  operator const short*() const;

  static CPWavMemory* Construct(void* place);
};
