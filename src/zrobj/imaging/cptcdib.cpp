// CPTCDib: true-colour images on the "DIBPool" heap, their header, video frame sizes, setting from
// other bitmaps, and bitmap and ".bsi" files. Every file is read as hostile: sizes are checked
// against the file before anything is allocated and no read passes a buffer.
#include "zrobj/cptcdib.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "imaging/dib_header_internal.h"
#include "platform/dlgsvc.h"
#include "platform/fault.h"
#include "platform/files.h"
#include "platform/fileutil.h"
#include "platform/timecode.h"
#include "zrobj/cheap.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;
namespace dib = zr::dib;

namespace {

constexpr const char* kSourceFile = "src/zrobj/cptcdib";
// Largest used size: with the spare bytes, the memory header and the allocator's rounding the
// request still fits 32 bits.
constexpr std::uint64_t kMaxUsedSize = 0xFFFFFFFFull - 128;

CHeap* DibPool() {
  static CHeap* const heap = zr::GetLibraryHeap("DIBPool");
  return heap;
}

unsigned long RoundUp32(unsigned long size) { return (size + 31ul) & ~31ul; }

// Messages print on a channel (category) and a level, only while debugging.
void Say(unsigned channel, unsigned level, const char16_t* text) {
  if (IsDebugOn()) os::wPrintf(channel, level, text);
}

// Under AddressSanitizer every block carries 32 poisoned bytes behind what the allocator grants, so
// that a write past an image's block is reported even though the private heap is not instrumented.
#if defined(__SANITIZE_ADDRESS__)
#define ZR_DIB_REDZONE 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZR_DIB_REDZONE 1
#endif
#endif

#ifdef ZR_DIB_REDZONE
extern "C" void __asan_poison_memory_region(void const volatile* addr, std::size_t size);
extern "C" void __asan_unpoison_memory_region(void const volatile* addr, std::size_t size);
constexpr unsigned long kRedZone = 32;
void Poison(void* block, unsigned long granted) {
  if (block) __asan_poison_memory_region(static_cast<char*>(block) + granted, kRedZone);
}
// What the allocator granted a block: the memory header in front of the data says so.
unsigned long Granted(void* block) {
  return static_cast<const tagMEMHEADER*>(block)->dwAllocSize + sizeof(tagMEMHEADER);
}
void Unpoison(void* block) {
  if (block) __asan_unpoison_memory_region(static_cast<char*>(block) + Granted(block), kRedZone);
}
#else
constexpr unsigned long kRedZone = 0;
unsigned long Granted(void*) { return 0; }
void Poison(void*, unsigned long) {}
void Unpoison(void*) {}
#endif

// The images' allocator: sizes rounded to 32 bytes, growth in place only, on "DIBPool".
class DibMallocator final : public IMallocator {
 public:
  void* Alloc(unsigned long* size, unsigned long heapFlags) override {
    *size = RoundUp32(*size);
    void* block = DibPool()->Alloc(*size + kRedZone, heapFlags, kSourceFile, __LINE__, ZR_CALLER_ADDRESS());
    Poison(block, *size);
    return block;
  }
  int Realloc(void* block, unsigned long* size, unsigned long heapFlags) override {
    *size = RoundUp32(*size);
    const unsigned long old = Granted(block);
    Unpoison(block);
    const bool ok = DibPool()->Realloc(block, *size + kRedZone, heapFlags | CPMEM_HEAP_REALLOC_IN_PLACE_ONLY,
                                       kSourceFile, __LINE__, ZR_CALLER_ADDRESS()) != nullptr;
    Poison(block, ok ? *size : old);
    return ok;
  }
  int Free(void* block, unsigned long heapFlags) override {
    Unpoison(block);
    return DibPool()->Free(block, heapFlags);
  }
  int Verify(void* block) override {
    const int ok = DibPool()->Verify(block);
    if (!ok) Say(3, 0, u"\rCPDibMallocator::Verify failed\r\n");
    return ok;
  }
};

DibMallocator g_dib_mallocator;

// Video systems 1..8: frame size, horizontal aspect, field mode, frame mode.
struct VideoSystem {
  long width;
  long height;
  DWORD aspectX;
  DWORD fieldMode;
  DWORD frameMode;
};
constexpr VideoSystem kVideoSystems[8] = {
    {720, 576, 69905, 0, 0},        {720, 486, 58254, 32, 0}, {768, 576, 0x10000, 0, 0},
    {640, 486, 0x10000, 32, 0},     {1920, 1080, 0x10000, 0, 1}, {360, 288, 69905, 0, 1},
    {360, 243, 58254, 0, 1},        {768, 576, 69905, 0, 1},
};

// n = 0 asks the default timecode system; the result is 1..8, or 0 for none.
int ResolveVideoSystem(int n) {
  if (n == 0) n = CPTCDib::VideoSystemOfTimecode(os::GetDefTimecodeSystem());
  return n >= 1 && n <= 8 ? n : 0;
}

bool ValidDepth(unsigned long bits) { return bits == 24 || bits == 32; }

bool IsBsiPath(const WCHAR* path) {
  const WCHAR* ext = os::FU_FindExtension(path);
  if (ext == nullptr) return false;
  static constexpr char16_t kBsi[] = u".bsi";
  for (int i = 0; i < 4; ++i) {
    char16_t c = ext[i];
    if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c - u'A' + u'a');
    if (c != kBsi[i]) return false;
  }
  return ext[4] == 0;
}

// ---- load sources: a file or bytes in memory ----

class DibInput {
 public:
  virtual ~DibInput() = default;
  virtual std::uint64_t Size() = 0;
  // Reads exactly n bytes at the current position; false when fewer are there.
  virtual bool Read(void* out, std::uint64_t n) = 0;
};

class FileInput final : public DibInput {
 public:
  explicit FileInput(const WCHAR* path)
      : file_(os::CreateFileW(path, os::kGenericRead, os::kFileShareRead, os::kOpenExisting,
                              os::kFileFlagSequentialScan)) {}
  ~FileInput() override {
    if (file_ != os::kInvalidFile) os::CloseFile(file_);
  }
  bool IsOpen() const { return file_ != os::kInvalidFile; }
  std::uint64_t Size() override {
    UINT64 size = 0;
    return os::GetFileSize(file_, &size) ? size : 0;
  }
  bool Read(void* out, std::uint64_t n) override {
    auto* bytes = static_cast<BYTE*>(out);
    while (n > 0) {
      const DWORD chunk = n > 0x40000000u ? 0x40000000u : static_cast<DWORD>(n);
      DWORD done = 0;
      if (!os::ReadFile(file_, bytes, chunk, &done) || done != chunk) return false;
      bytes += chunk;
      n -= chunk;
    }
    return true;
  }

 private:
  os::FileHandle file_;
};

class MemoryInput final : public DibInput {
 public:
  MemoryInput(const void* data, std::uint64_t size) : data_(static_cast<const BYTE*>(data)), size_(data ? size : 0) {}
  std::uint64_t Size() override { return size_; }
  bool Read(void* out, std::uint64_t n) override {
    if (n > size_ - position_) return false;
    if (n != 0) std::memcpy(out, data_ + position_, n);
    position_ += n;
    return true;
  }

 private:
  const BYTE* data_;
  std::uint64_t size_;
  std::uint64_t position_ = 0;
};

// The header of a file: the standard form ("BM", file header and info header, pixels read from
// offset 54) or the ".bsi" form (the 160-byte extended info header, pixels behind it).
struct LoadedHeader {
  dib::InfoFields info;
  std::uint64_t headerBytes = 0;  // bytes in front of the pixels, as the header states them
  bool extendedForm = false;
  BYTE extended[DIB_INFO_SIZE] = {};
};

// Both forms start with the two bytes already read into `bytes`.
bool ReadStandardHeader(DibInput& in, BYTE bytes[dib::kStandardHeaderSize], LoadedHeader* out) {
  if (!in.Read(bytes + 2, dib::kStandardHeaderSize - 2)) return false;
  out->info = dib::ReadInfoFields(bytes + dib::kFileHeaderSize);
  out->headerBytes = std::uint64_t{out->info.size} + dib::kFileHeaderSize;
  return dib::IsTrueColourFormat(out->info);
}

bool ReadBsiHeader(DibInput& in, LoadedHeader* out) {
  if (!in.Read(out->extended + 2, DIB_INFO_SIZE - 2)) return false;
  out->info = dib::ReadInfoFields(out->extended);
  out->headerBytes = DIB_INFO_SIZE;
  out->extendedForm = true;
  return out->info.size == DIB_INFO_SIZE && std::memcmp(out->extended + 44, "VORN", 4) == 0 &&
         dib::IsTrueColourFormat(out->info);
}

// A file that starts with "BM" is a standard bitmap whatever its name; a ".bsi" name admits the
// extended form otherwise.
bool ReadHeader(DibInput& in, bool bsiName, LoadedHeader* out) {
  BYTE bytes[dib::kStandardHeaderSize];
  if (!in.Read(bytes, 2)) return false;
  if (bytes[0] == 'B' && bytes[1] == 'M') return ReadStandardHeader(in, bytes, out);
  if (!bsiName) return false;
  std::memcpy(out->extended, bytes, 2);
  return ReadBsiHeader(in, out);
}

}  // namespace

// ---- sizes ----

unsigned long CPTCDib::GetStride(long w, unsigned long bits) {
  return static_cast<unsigned long>(dib::PixelBytes(w, 1, static_cast<unsigned>(std::min(bits, 64ul))));
}

unsigned long CPTCDib::GetMemSizeDib(long w, long h, unsigned long bits) {
  if (w == 0 && h == 0) return 0;
  if (bits > 64) return 0;
  if (h == 0) return DIB_HEADER_SIZE;
  const std::uint64_t pixels = dib::PixelBytes(w, h, static_cast<unsigned>(bits));
  if (pixels == 0 && w != 0 && bits >= 8) return 0;
  const std::uint64_t used = pixels + DIB_HEADER_SIZE;
  return used > kMaxUsedSize ? 0 : static_cast<unsigned long>(used);
}

unsigned long CPTCDib::GetAllocSizeDib(long w, long h, unsigned long bits) {
  const unsigned long used = GetMemSizeDib(w, h, bits);
  return used == 0 ? 0 : used + DIB_SPARE_SIZE;
}

unsigned long CPTCDib::GetDIBSize() const {
  const tagDIBINFO* header = GetDIBInfo();
  if (header == nullptr || GetSize() < DIB_HEADER_SIZE) return 0;
  const DWORD used = header->bmf.bfSize;
  return used > DIB_HEADER_SIZE ? used - DIB_HEADER_SIZE : 0;
}

unsigned long CPTCDib::GetDataSize() const {
  const long w = GetWidth();
  const long h = GetHeight();
  const std::uint64_t aw = w < 0 ? 0 - static_cast<std::uint64_t>(w) : static_cast<std::uint64_t>(w);
  const std::uint64_t ah = h < 0 ? 0 - static_cast<std::uint64_t>(h) : static_cast<std::uint64_t>(h);
  return static_cast<unsigned long>(aw * GetStride(w, GetBitCount()) * ah);
}

// ---- allocation ----

int CPTCDib::Alloc(long w, long h, unsigned long bits, unsigned long flags) {
  if (w == 0 || h == 0 || !ValidDepth(bits)) return 0;
  const unsigned long size = GetAllocSizeDib(w, h, bits);
  if (size == 0 || !CPMemory::Alloc(size, flags)) return 0;
  SetBMI(GetDIBInfo(), w, h, bits);
  return 1;
}

int CPTCDib::Realloc(long w, long h, unsigned long bits, unsigned long flags) {
  if (w == 0 && h == 0) return CPMemory::Realloc(CPMEM_PRIVATE_COPY, flags, 0);
  if (w == 0 || h == 0 || !ValidDepth(bits)) return 0;
  const unsigned long size = GetAllocSizeDib(w, h, bits);
  if (size == 0 || !CPMemory::Realloc(size, flags, 0)) return 0;
  SetBMI(GetDIBInfo(), w, h, bits);
  return 1;
}

int CPTCDib::AllocYUV(long w, long h, unsigned long bits, unsigned long flags) {
  return Alloc(w, h, bits, flags) && SetYUV(1);
}

int CPTCDib::ReallocYUV(long w, long h, unsigned long bits, unsigned long flags) {
  return Realloc(w, h, bits, flags) && SetYUV(1);
}

int CPTCDib::AllocVideo(int n) {
  const int system = ResolveVideoSystem(n);
  if (system == 0) return 0;
  const VideoSystem& v = kVideoSystems[system - 1];
  return Alloc(v.width, v.height, 24, 0) && SetVideoSystem(system);
}

int CPTCDib::AllocVideoYUV(int n) { return AllocVideo(n) && SetYUV(1); }

int CPTCDib::CopyAlloc(const CPTCDib& other) {
  Free();
  const unsigned long size = other.GetSize();
  if (size == 0) return 1;
  if (!CPMemory::Alloc(size, 0)) return 0;
  std::memcpy(GetDataPtr(), other.GetCDataPtr(), std::min<unsigned long>(size, DIB_HEADER_SIZE));
  return 1;
}

// ---- header ----

void CPTCDib::SetBMI(tagDIBINFO* header, long w, long h, unsigned long bits) {
  if (header == nullptr) return;
  dib::FillHeader(header, w, h, static_cast<unsigned>(bits), static_cast<DWORD>(GetMemSizeDib(w, h, bits)));
}

int CPTCDib::SetBMI(long w, long h, unsigned long bits) {
  if (GetSize() < DIB_HEADER_SIZE) return 0;
  SetBMI(GetDIBInfo(), w, h, bits);
  return 1;
}

int CPTCDib::VideoSystemOfTimecode(int timecodeSystem) {
  switch (timecodeSystem) {
    case 0: return 1;
    case 1: case 2: return 2;
    case 3: case 4: case 5: case 6: case 7: case 8: case 12: return 5;
    case 9: return 6;
    case 10: return 7;
    case 11: return 8;
    default: return 0;
  }
}

int CPTCDib::SetVideoSystem(int n) {
  const int system = ResolveVideoSystem(n);
  tagZRBMINFOHEADER* info = GetInfoHeader();
  if (system == 0 || info == nullptr) return 0;
  const VideoSystem& v = kVideoSystems[system - 1];
  info->dwAspectX = v.aspectX;
  info->dwAspectY = DIB_ASPECT_ONE;
  info->dwFieldMode = v.fieldMode;
  info->dwFrameMode = v.frameMode;
  return 1;
}

int CPTCDib::SetYUV(int yuv) {
  tagZRBMINFOHEADER* info = GetInfoHeader();
  if (info == nullptr) return 0;
  info->bmi.biCompression = yuv ? DIB_COMPRESSION_YUV : DIB_COMPRESSION_RGB;
  return 1;
}

int CPTCDib::IsYUV() const {
  const tagZRBMINFOHEADER* info = GetInfoHeader();
  return info != nullptr && info->bmi.biCompression == DIB_COMPRESSION_YUV;
}

long CPTCDib::GetWidth() const {
  const tagZRBMINFOHEADER* info = GetInfoHeader();
  return info ? info->bmi.biWidth : 0;
}

long CPTCDib::GetHeight() const {
  const tagZRBMINFOHEADER* info = GetInfoHeader();
  return info ? info->bmi.biHeight : 0;
}

unsigned long CPTCDib::GetBitCount() const {
  const tagZRBMINFOHEADER* info = GetInfoHeader();
  return info ? info->bmi.biBitCount : 0;
}

void CPTCDib::GetIncrements(long& pixelIncrement, long& rowIncrement) const {
  pixelIncrement = static_cast<long>(GetBitCount() / 8);
  rowIncrement = static_cast<long>(GetStride(GetWidth(), GetBitCount()));
}

// ---- views ----

tagZRBMINFOHEADER* CPTCDib::GetInfoHeader() {
  if (GetSize() < DIB_HEADER_SIZE) return nullptr;
  tagDIBINFO* header = GetDIBInfo();
  return header ? &header->bmi : nullptr;
}

const tagZRBMINFOHEADER* CPTCDib::GetInfoHeader() const {
  if (GetSize() < DIB_HEADER_SIZE) return nullptr;
  const tagDIBINFO* header = GetDIBInfo();
  return header ? &header->bmi : nullptr;
}

BYTE* CPTCDib::GetBits() {
  if (GetSize() < DIB_HEADER_SIZE) return nullptr;
  auto* data = static_cast<BYTE*>(GetDataPtr());
  return data ? data + DIB_HEADER_SIZE : nullptr;
}

const BYTE* CPTCDib::GetBits() const {
  if (GetSize() < DIB_HEADER_SIZE) return nullptr;
  const auto* data = static_cast<const BYTE*>(GetCDataPtr());
  return data ? data + DIB_HEADER_SIZE : nullptr;
}

CPTCDib::operator BITMAPINFOHEADER*() {
  tagZRBMINFOHEADER* info = GetInfoHeader();
  return info ? &info->bmi : nullptr;
}

CPTCDib::operator const BITMAPINFOHEADER*() const {
  const tagZRBMINFOHEADER* info = GetInfoHeader();
  return info ? &info->bmi : nullptr;
}

CPTCDib* CPTCDib::Construct(void* place) { return new (place) CPTCDib; }

IMallocator* CPTCDib::GetMallocator() { return &g_dib_mallocator; }

// ---- setting from other bitmaps ----

int CPTCDib::SetDIB(const tagDIBINFO* src, long w, long h, unsigned long bits, unsigned long flags) {
  if (bits != 0 && !ValidDepth(bits)) {
    Say(3, 3, u"\rCPTCDib::SetDib: Only 24/32 bitmaps\r\n");
    return 0;
  }
  if (src == nullptr || src->bmf.bfType != DIB_SIGNATURE) {
    Say(3, 3, u"\rCPTCDib::SetDib: No BM signature\r\n");
    return 0;
  }
  if (src->bmi.bmi.biCompression == DIB_COMPRESSION_YUV && src->bmi.dwChromaCode != DIB_CHROMA_444) {
    Say(3, 3, u"\rCPTCDib::SetDib: No YUV444 image\r\n");
    return 0;
  }
  if (src == GetCDataPtr() && GetRefCnt() < 2) return 1;
  return SetDIB(&src->bmi.bmi, reinterpret_cast<const BYTE*>(src) + src->bmf.bfOffBits, w, h, bits, flags);
}

int CPTCDib::SetDIB(const BITMAPINFOHEADER* src, const void* pixels, long w, long h, unsigned long bits,
                    unsigned long flags) {
  if (bits != 0 && !ValidDepth(bits)) {
    Say(3, 3, u"\rCPTCDib::SetDib: Only 24/32 bitmaps\r\n");
    return 0;
  }
  if (src == nullptr || pixels == nullptr || !dib::IsTrueColourFormat(*src)) {
    Say(3, 3, u"\rCPTCDib::SetDib: Invalid bitcount or no RGB\r\n");
    return 0;
  }
  if (w == 0) w = src->biWidth;
  if (h == 0) h = src->biHeight;
  if (bits == 0) bits = src->biBitCount;
  if (w != src->biWidth || h != src->biHeight || bits != src->biBitCount) {
    return (flags & DIB_SCALE_BILINEAR) ? ScaleDIBBilinear(src, pixels, w, h, bits)
                                        : ScaleDIBFast(src, pixels, w, h, bits);
  }
  // The source may lie in this image's own block: a second handle keeps it alive meanwhile.
  const CPTCDib keep(*this);
  if (!Realloc(w, h, bits, flags)) {
    Say(4, 3, u"\rCPTCDib::SetDib: Could not allocate memory\r\n");
    return 0;
  }
  std::memmove(&GetInfoHeader()->bmi, src, sizeof(BITMAPINFOHEADER));
  const unsigned long imageSize = GetDIBSize();
  BYTE* target = GetBits();
  if (src->biSizeImage >= imageSize) {
    std::memmove(target, pixels, imageSize);
    return 1;
  }
  // A source that states less than the image holds is copied as far as its memory can be read.
  return os::ReadUntilFault(pixels, target, imageSize) != 0 ? 1 : 0;
}

// ---- files ----

namespace {

// The two refusals of a load, named after the member that loads.
struct LoadMessages {
  const char16_t* format;
  const char16_t* size;
};
constexpr LoadMessages kFileMessages = {
    u"\rCPTCDib::LoadFromFile: Invalid format (24/32 bit RGB required)\r\n",
    u"\rCPTCDib::LoadFromFile: Inconsistent indirect size definition\r\n"};
constexpr LoadMessages kResourceMessages = {
    u"\rCPTCDib::LoadFromResource: Invalid format (24/32 bit RGB required)\r\n",
    u"\rCPTCDib::LoadFromResource: Inconsistent indirect size definition\r\n"};

// Steps shared by the file and the resource load. `bsi`: the name admits the extended form.
int LoadImage(CPTCDib& image, DibInput& in, bool bsi, const LoadMessages& say, long w, long h, unsigned long bits,
              unsigned long flags) {
  LoadedHeader header;
  if (!ReadHeader(in, bsi, &header)) {
    Say(3, 3, say.format);
    return 0;
  }
  const dib::InfoFields& info = header.info;
  const unsigned long used = CPTCDib::GetMemSizeDib(info.width, info.height, info.bits);
  const std::uint64_t needed = used == 0 ? ~std::uint64_t{0} : used - DIB_HEADER_SIZE;
  const std::uint64_t size = in.Size();
  if (size < header.headerBytes || size - header.headerBytes < needed) {
    Say(5, 3, say.size);
    return 0;
  }
  const bool direct = w == 0 && h == 0 && (bits == 0 || bits == info.bits);
  CPTCDib temporary;
  CPTCDib& target = direct ? image : temporary;
  if (!target.Alloc(info.width, info.height, info.bits, 0)) return 0;
  tagZRBMINFOHEADER* targetInfo = target.GetInfoHeader();
  if (header.extendedForm) {
    // The extension (video system, chroma) travels with the ".bsi" form.
    std::memcpy(reinterpret_cast<BYTE*>(targetInfo) + dib::kStandardInfoSize,
                header.extended + dib::kStandardInfoSize, DIB_INFO_SIZE - dib::kStandardInfoSize);
  }
  targetInfo->bmi.biCompression = info.compression;
  if (!in.Read(target.GetBits(), target.GetDIBSize())) {
    target.Free();
    return 0;
  }
  if (direct) return 1;
  return image.SetDIB(temporary.GetDIBInfo(), w, h, bits, flags);
}

}  // namespace

int CPTCDib::LoadFromFile(const WCHAR* path, long w, long h, unsigned long bits, unsigned long flags) {
  Free();
  if (path == nullptr || (bits != 0 && !ValidDepth(bits))) return 0;
  FileInput in(path);
  if (!in.IsOpen()) return 0;
  const int ok = LoadImage(*this, in, IsBsiPath(path), kFileMessages, w, h, bits, flags);
  if (!ok) Free();
  return ok;
}

int CPTCDib::LoadFromResource(const void* data, unsigned long size, long w, long h, unsigned long bits,
                              unsigned long flags) {
  Free();
  if (data == nullptr || (bits != 0 && !ValidDepth(bits))) return 0;
  MemoryInput in(data, size);
  const int ok = LoadImage(*this, in, false, kResourceMessages, w, h, bits, flags);
  if (!ok) Free();
  return ok;
}

namespace {

os::FileHandle CreateForSave(const WCHAR* path) {
  const auto create = [path] {
    return os::CreateFileW(path, os::kGenericWrite, 0, os::kCreateAlways,
                           os::kFileAttributeNormal | os::kFileFlagWriteThrough | os::kFileFlagSequentialScan);
  };
  os::FileHandle file = create();
  if (file != os::kInvalidFile) return file;
  os::FU_CreatePath(path);
  return create();
}

bool WriteAll(os::FileHandle file, const void* data, DWORD count) {
  DWORD done = 0;
  return os::WriteFile(file, data, count, &done) && done == count;
}

}  // namespace

int CPTCDib::SaveToFile(const WCHAR* path) const {
  const tagDIBINFO* header = GetDIBInfo();
  const unsigned long used = GetDIBSize();
  if (header == nullptr || used == 0 || path == nullptr || path[0] == 0) return 0;
  // The stated image size; never more than the block holds, which is all there is to write.
  const unsigned long room = GetSize() - DIB_HEADER_SIZE;
  const DWORD imageBytes = static_cast<DWORD>(std::min<unsigned long>(header->bmi.bmi.biSizeImage, room));
  const os::FileHandle file = CreateForSave(path);
  if (file == os::kInvalidFile) return 0;
  bool ok;
  if (IsBsiPath(path)) {
    ok = WriteAll(file, &header->bmi, DIB_INFO_SIZE);
  } else {
    BYTE standard[dib::kStandardHeaderSize];
    dib::MakeStandardHeader(header, standard);
    ok = WriteAll(file, standard, sizeof standard);
  }
  ok = ok && WriteAll(file, GetBits(), imageBytes);
  os::CloseFile(file);
  if (!ok) os::DeleteFileW(path);
  return ok ? 1 : 0;
}
