// Run-length codec for strided 8- and 16-bit elements: the compressor with its one-literal
// fallback, the unchecked expander, and the checked expander for blocks from outside.
#include "zrobj/zrrle.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "zrobj/byteorder.h"
#include "base/compiler.h"
#include "platform/dlgsvc.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;

namespace {

// Runs shorter than this many equal elements stay inside literals.
constexpr DWORD kRunThreshold = 11;

// ---- Compression ------------------------------------------------------------------------------

template <class T>
class Compressor {
 public:
  static constexpr std::size_t kElement = sizeof(T);
  static constexpr std::size_t kMinTag = 4 + kElement;  // a tag word and at least one element

  Compressor(BYTE* out, DWORD out_size, const T* source, DWORD count, DWORD stride)
      : out_(out), out_size_(out_size), source_(source), count_(count), stride_(stride) {}

  int Run() {
    if (!out_ || out_size_ < RLE_HEADER_SIZE + kMinTag) return 0;
    if (count_ > RLE_MAX_TAG_ELEMENTS || (count_ && !source_)) return 0;
    zr::StoreLE32(out_, count_);
    zr::StoreLE32(out_ + 8, 0);
    std::size_t cursor = RLE_HEADER_SIZE;
    DWORD tags = 0;
    DWORD pos = 0;
    while (pos < count_) {
      if (out_size_ - cursor < kMinTag) return Fallback();
      ++tags;
      const DWORD run = FindRun(pos);
      if (run > pos) {  // the elements before the run (or all the rest) as one literal
        if (!FitsLiteral(cursor, run - pos)) return Fallback();
        cursor = WriteLiteral(cursor, pos, run - pos);
        pos = run;
        continue;
      }
      DWORD end = pos + 1;
      while (end < count_ && At(end) == At(pos)) ++end;
      zr::StoreLE32(out_ + cursor, end - pos);
      zr::StoreLE<T>(out_ + cursor + 4, At(pos));
      cursor += kMinTag;
      pos = end;
    }
    zr::StoreLE32(out_ + 4, static_cast<DWORD>(cursor));
    zr::StoreLE32(out_ + 8, tags);
    return 1;
  }

 private:
  T At(DWORD k) const { return source_[static_cast<std::size_t>(k) * stride_]; }

  // Start of the first run of at least kRunThreshold equal elements at or after `pos`; count_ when
  // there is none.
  DWORD FindRun(DWORD pos) const {
    DWORD stretch = pos;
    for (DWORD k = pos + 1; k < count_; ++k) {
      if (At(k) != At(stretch)) {
        stretch = k;
      } else if (k - stretch >= kRunThreshold - 1) {
        return stretch;
      }
    }
    return count_;
  }

  bool FitsLiteral(std::size_t cursor, DWORD n) const { return cursor + 4 + n * kElement <= out_size_; }

  std::size_t WriteLiteral(std::size_t cursor, DWORD first, DWORD n) {
    zr::StoreLE32(out_ + cursor, RLE_LITERAL_FLAG | n);
    cursor += 4;
    for (DWORD k = first; k < first + n; ++k, cursor += kElement) zr::StoreLE<T>(out_ + cursor, At(k));
    return cursor;
  }

  // The whole input as one literal, when the destination holds it.
  int Fallback() {
    const std::size_t total = RLE_HEADER_SIZE + 4 + std::size_t{count_} * kElement;
    if (total > out_size_) return 0;
    zr::StoreLE32(out_, count_);
    zr::StoreLE32(out_ + 4, static_cast<DWORD>(total));
    zr::StoreLE32(out_ + 8, 1);
    WriteLiteral(RLE_HEADER_SIZE, 0, count_);
    return 1;
  }

  BYTE* out_;
  std::size_t out_size_;
  const T* source_;
  DWORD count_;
  DWORD stride_;
};

// ---- Expansion --------------------------------------------------------------------------------

struct CheckError {
  char text[192] = {};
  bool failed = false;

  ZR_PRINTF_FORMAT(2, 3) bool Set(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    failed = true;
    return false;
  }
};

// Expands the tags of a block. Unchecked, it trusts the block entirely; checked, `limit` bytes of
// block and `count` elements bound every tag, and any overrun stops the expansion with a reason.
template <class T, bool kChecked>
bool ExpandTags(T* destination, const BYTE* block, std::size_t limit, DWORD count, DWORD stride, CheckError* error) {
  constexpr std::size_t kElement = sizeof(T);
  const DWORD tags = zr::LoadLE32(block + 8);
  std::size_t cursor = RLE_HEADER_SIZE;
  std::size_t written = 0;
  std::size_t out = 0;  // index into destination of the next element
  for (DWORD t = 0; t < tags; ++t) {
    if (kChecked && limit - cursor < 4)
      return error->Set("tag %u at offset %zu runs past the end of the block (%zu bytes)", t, cursor, limit);
    const DWORD word = zr::LoadLE32(block + cursor);
    const DWORD n = word & RLE_MAX_TAG_ELEMENTS;
    const bool literal = (word & RLE_LITERAL_FLAG) != 0;
    const std::size_t payload = literal ? n * kElement : kElement;
    if (kChecked && limit - cursor - 4 < payload)
      return error->Set("tag %u at offset %zu needs %zu bytes but the block ends after %zu", t, cursor, payload,
                        limit - cursor - 4);
    if (kChecked && count - written < n)
      return error->Set("tag %u at offset %zu expands past the %u elements the block holds", t, cursor, count);
    cursor += 4;
    if (literal) {
      for (DWORD i = 0; i < n; ++i, cursor += kElement, out += stride)
        destination[out] = zr::LoadLE<T>(block + cursor);
    } else {
      const T value = zr::LoadLE<T>(block + cursor);
      cursor += kElement;
      for (DWORD i = 0; i < n; ++i, out += stride) destination[out] = value;
    }
    written += n;
  }
  if (kChecked && written != count)
    return error->Set("the tags expand to %zu elements but the block holds %u", written, count);
  if (kChecked && cursor != limit)
    return error->Set("unused bytes after the last tag: %zu", limit - cursor);
  return true;
}

// Header and destination checks, then the checked expansion.
template <class T>
int ExpandChecked(const char* function, T* destination, DWORD destination_units, const void* block_ptr,
                  DWORD block_size, DWORD stride, char* error_out, DWORD error_size) {
  const auto* block = static_cast<const BYTE*>(block_ptr);
  CheckError error;
  if (!block || block_size < RLE_HEADER_SIZE) {
    error.Set("a block of %u bytes is shorter than its %u-byte header", block ? block_size : 0, RLE_HEADER_SIZE);
  } else {
    const DWORD count = zr::LoadLE32(block);
    const DWORD stated = zr::LoadLE32(block + 4);
    // Element k lands at unit k * stride, so count elements need (count - 1) * stride + 1 units.
    const std::size_t needed = count ? (std::size_t{count} - 1) * stride + 1 : 0;
    if (stated < RLE_HEADER_SIZE || stated > block_size) {
      error.Set("the block states %u bytes but %u are available", stated, block_size);
    } else if (needed > destination_units || (needed && !destination)) {
      error.Set("%u elements at stride %u need %zu %s but the destination holds %u", count, stride, needed,
                sizeof(T) == 1 ? "bytes" : "16-bit units", destination ? destination_units : 0);
    } else {
      ExpandTags<T, true>(destination, block, stated, count, stride, &error);
    }
  }
  if (!error.failed) return 1;
  if (error_out && error_size) std::snprintf(error_out, error_size, "%s", error.text);
  if (IsDebugOn()) os::wPrintf(3, 3, u"\r%hs: %hs\r\n", function, error.text);
  return 0;
}

}  // namespace

int RLECompress(void* destination, DWORD destinationSize, const void* source, DWORD count, DWORD stride) {
  return Compressor<BYTE>(static_cast<BYTE*>(destination), destinationSize, static_cast<const BYTE*>(source), count,
                          stride)
      .Run();
}

int RLE16Compress(void* destination, DWORD destinationSize, const WORD* source, DWORD count, DWORD stride) {
  return Compressor<WORD>(static_cast<BYTE*>(destination), destinationSize, source, count, stride).Run();
}

int RLEDecompress(void* destination, const void* block, DWORD stride) {
  ExpandTags<BYTE, false>(static_cast<BYTE*>(destination), static_cast<const BYTE*>(block), 0, 0, stride, nullptr);
  return 1;
}

int RLE16Decompress(WORD* destination, const void* block, DWORD stride) {
  ExpandTags<WORD, false>(destination, static_cast<const BYTE*>(block), 0, 0, stride, nullptr);
  return 1;
}

int RLEDecompressChecked(void* destination, DWORD destinationSize, const void* block, DWORD blockSize, DWORD stride,
                         char* error, DWORD errorSize) {
  return ExpandChecked("RLEDecompressChecked", static_cast<BYTE*>(destination), destinationSize, block, blockSize,
                       stride, error, errorSize);
}

int RLE16DecompressChecked(WORD* destination, DWORD destinationSize, const void* block, DWORD blockSize, DWORD stride,
                           char* error, DWORD errorSize) {
  return ExpandChecked("RLE16DecompressChecked", destination, destinationSize, block, blockSize, stride, error,
                       errorSize);
}
