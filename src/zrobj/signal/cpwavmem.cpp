// CPWavMemory: PCM audio blocks with a 76-byte format header, and their RIFF WAVE files. Every file
// is read as hostile: sizes are checked before anything is allocated and no read passes a buffer.
#include "zrobj/cpwavmem.h"

#include <cstring>
#include <new>

#include "platform/dlgsvc.h"
#include "platform/files.h"
#include "zrobj/byteorder.h"
#include "zrobj/zrdiag.h"

namespace {

namespace os = zr::os;

constexpr DWORD kFormatPcm = 1;
constexpr DWORD kExtraSize = CPWavMemory::kHeaderSize - 18;
constexpr std::uint64_t kMaxBlockSize = 0xFFFFFFFFull - 64;  // keeps the allocator's rounding in 32 bits
constexpr DWORD kRiffHeaderSize = 20;   // "RIFF", size, "WAVE", "fmt ", format chunk size
constexpr DWORD kFormatFull = 18;       // WAVEFORMATEX with its extra size
constexpr DWORD kFormatShort = 14;      // without bits per sample and extra size
constexpr DWORD kChunkHeaderSize = 8;
constexpr DWORD kSavedSampleBytes = 18;  // what the save writes of the samples

bool HasTag(const BYTE* p, const char (&tag)[5]) { return std::memcmp(p, tag, 4) == 0; }

bool ReadExactly(os::FileHandle file, void* buffer, DWORD count) {
  DWORD done = 0;
  return os::ReadFile(file, buffer, count, &done) && done == count;
}

bool Skip(os::FileHandle file, DWORD count) {
  return count == 0 || os::SetFilePointer(file, count, os::kFileCurrent, nullptr);
}

// Bytes between the file position and the end.
UINT64 Remaining(os::FileHandle file) {
  UINT64 size = 0;
  UINT64 position = 0;
  if (!os::GetFileSize(file, &size) || !os::SetFilePointer(file, 0, os::kFileCurrent, &position)) return 0;
  return position < size ? size - position : 0;
}

// The format chunk: 18 bytes when it is that long, else the 14-byte form whose bits per sample come
// from the block align. The rest of the chunk is skipped.
bool ReadFormatChunk(os::FileHandle file, DWORD chunk_size, ZRWavFileFormat* format) {
  if (chunk_size < kFormatShort) return false;
  const DWORD read = chunk_size >= kFormatFull ? kFormatFull : kFormatShort;
  BYTE chunk[kFormatFull] = {};
  if (!ReadExactly(file, chunk, read) || zr::LoadLE16(chunk) != kFormatPcm) return false;
  format->channels = zr::LoadLE16(chunk + 2);
  format->samplesPerSec = zr::LoadLE32(chunk + 4);
  format->avgBytesPerSec = zr::LoadLE32(chunk + 8);
  format->blockAlign = zr::LoadLE16(chunk + 12);
  if (read == kFormatFull) {
    format->bitsPerSample = zr::LoadLE16(chunk + 14);
  } else {
    if (format->channels == 0) return false;
    format->bitsPerSample = format->blockAlign * 8 / format->channels;
  }
  return Skip(file, chunk_size - read);
}

// RIFF header, format chunk and the "data" chunk header right behind it; leaves the file at the data.
bool ReadFormat(os::FileHandle file, ZRWavFileFormat* format) {
  BYTE riff[kRiffHeaderSize];
  if (!ReadExactly(file, riff, sizeof riff)) return false;
  if (!HasTag(riff, "RIFF") || !HasTag(riff + 8, "WAVE") || !HasTag(riff + 12, "fmt ")) return false;
  if (!ReadFormatChunk(file, zr::LoadLE32(riff + 16), format)) return false;
  BYTE data[kChunkHeaderSize];
  if (!ReadExactly(file, data, sizeof data) || !HasTag(data, "data")) return false;
  if (format->blockAlign == 0) return false;
  format->dataSize = zr::LoadLE32(data + 4);
  format->sampleCount = format->dataSize / format->blockAlign;
  return true;
}

os::FileHandle OpenForReading(const WCHAR* path) {
  return os::CreateFileW(path, os::kGenericRead, os::kFileShareRead, os::kOpenExisting,
                         os::kFileFlagSequentialScan);
}

}  // namespace

unsigned long CPWavMemory::GetMemSizeWav(unsigned long samples, unsigned long bits, unsigned long channels,
                                         unsigned long streams) {
  const std::uint64_t align = std::uint64_t{bits} * channels / 8;
  if (align > 0xFFFF || samples > 0xFFFFFFFFul || streams > 0xFFFFFFFFul) return 0;
  const std::uint64_t wave = align * samples;
  if (streams != 0 && wave > (kMaxBlockSize - kHeaderSize) / streams) return 0;
  return static_cast<unsigned long>(wave * streams + kHeaderSize);
}

int CPWavMemory::Alloc(unsigned long samples, unsigned long rate, unsigned long bits, unsigned long channels,
                       unsigned long streams, unsigned long flags) {
  if (samples == 0 || channels == 0 || streams == 0 || (bits != 8 && bits != 16)) return 0;
  const unsigned long size = GetMemSizeWav(samples, bits, channels, streams);
  if (size == 0 || !CPMemory::Alloc(size, flags)) return 0;
  auto* header = static_cast<tagZRWAVFORMAT*>(*this);
  std::memset(header, 0, kHeaderSize);
  header->wFormatTag = kFormatPcm;
  header->nChannels = static_cast<std::uint16_t>(channels);
  header->nSamplesPerSec = static_cast<std::uint32_t>(rate);
  header->nBlockAlign = static_cast<std::uint16_t>(bits * channels / 8);
  header->nAvgBytesPerSec = static_cast<std::uint32_t>(header->nBlockAlign * rate);
  header->wBitsPerSample = static_cast<std::uint16_t>(bits);
  header->cbSize = kExtraSize;
  header->dwHeaderSize = kHeaderSize;
  std::memcpy(header->magic, "VORN", 4);
  header->dwStreams = static_cast<std::uint32_t>(streams);
  header->dwReserved2 = 0xFFFFFFFFu;
  header->dwSamples = static_cast<std::uint32_t>(samples);
  return 1;
}

int CPWavMemory::ReadFileFormat(const WCHAR* path, ZRWavFileFormat* format) {
  const os::FileHandle file = OpenForReading(path);
  if (file == os::kInvalidFile) return 0;
  const bool ok = ReadFormat(file, format);
  os::CloseFile(file);
  return ok ? 1 : 0;
}

// The data bytes go to the start of the block, over the header: loaded blocks read back their first
// sample bytes as header fields. Data that the file does not hold, or that would not fit the block
// its format allocates (a block align that disagrees with channels and bits), fail the load.
int CPWavMemory::LoadFromFile(const WCHAR* path) {
  Free();
  const os::FileHandle file = OpenForReading(path);
  if (file == os::kInvalidFile) return 0;
  ZRWavFileFormat format;
  bool ok = ReadFormat(file, &format) && format.dataSize <= Remaining(file) &&
            Alloc(format.sampleCount, format.samplesPerSec, format.bitsPerSample, format.channels, 1, 0);
  if (ok) ok = format.dataSize <= GetSize() && ReadExactly(file, GetDataPtr(), format.dataSize);
  os::CloseFile(file);
  if (!ok) Free();
  return ok ? 1 : 0;
}

// Written: the RIFF header, the first 18 header bytes (extra size 0), the "data" header, then 18
// bytes of samples (zero behind a shorter wave). The closing check compares the count of the "data"
// header write with that of the sample write, so a save whose writes succeed deletes its file and
// returns 0. Callers rely on this behaviour; it is kept as it is.
int CPWavMemory::SaveToFile(const WCHAR* path) {
  const auto* header = static_cast<const tagZRWAVFORMAT*>(GetCDataPtr());
  if (header == nullptr || GetSize() == 0 || header->dwStreams >= 2) {
    if (IsDebugOn()) os::wPrintf(4, 3, u"\rCPWavMemory::SaveToFile: Empty wav or uStreams>1\r\n");
    return 0;
  }
  const os::FileHandle file = os::CreateFileW(path, os::kGenericWrite, 0, os::kCreateAlways,
                                              os::kFileAttributeNormal | os::kFileFlagSequentialScan);
  if (file == os::kInvalidFile) return 0;
  const DWORD wave = static_cast<DWORD>(GetWavSize());

  BYTE riff[kRiffHeaderSize];
  std::memcpy(riff, "RIFF", 4);
  zr::StoreLE32(riff + 4, wave + 46);
  std::memcpy(riff + 8, "WAVEfmt ", 8);
  zr::StoreLE32(riff + 16, kFormatFull);
  BYTE fmt[kFormatFull];
  std::memcpy(fmt, header, kFormatFull);
  zr::StoreLE16(fmt + 16, 0);
  BYTE data[kChunkHeaderSize];
  std::memcpy(data, "data", 4);
  zr::StoreLE32(data + 4, wave);
  BYTE samples[kSavedSampleBytes] = {};
  const DWORD staged = wave < sizeof samples ? wave : static_cast<DWORD>(sizeof samples);
  std::memcpy(samples, reinterpret_cast<const BYTE*>(header) + kHeaderSize, staged);

  DWORD riff_done = 0;
  DWORD fmt_done = 0;
  DWORD data_done = 0;
  DWORD samples_done = 0;
  bool ok = os::WriteFile(file, riff, sizeof riff, &riff_done) && riff_done == sizeof riff &&
            os::WriteFile(file, fmt, sizeof fmt, &fmt_done) && fmt_done == sizeof fmt &&
            os::WriteFile(file, data, sizeof data, &data_done) && data_done == sizeof data;
  if (ok) ok = os::WriteFile(file, samples, sizeof samples, &samples_done) && data_done == samples_done;
  os::CloseFile(file);
  if (!ok) os::DeleteFileW(path);
  return ok ? 1 : 0;
}

unsigned long CPWavMemory::GetWavSize() const {
  const unsigned long size = GetSize();
  return size > kHeaderSize ? size - kHeaderSize : 0;
}

unsigned long CPWavMemory::GetNSamples() const {
  const auto* header = static_cast<const tagZRWAVFORMAT*>(GetCDataPtr());
  return header ? header->dwSamples : 0;
}

CPWavMemory::operator short*() {
  auto* data = static_cast<BYTE*>(GetDataPtr());
  return data ? reinterpret_cast<short*>(data + kHeaderSize) : nullptr;
}

CPWavMemory::operator const short*() const {
  const auto* data = static_cast<const BYTE*>(GetCDataPtr());
  return data ? reinterpret_cast<const short*>(data + kHeaderSize) : nullptr;
}

CPWavMemory* CPWavMemory::Construct(void* place) { return new (place) CPWavMemory; }
