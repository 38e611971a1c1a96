// libFuzzer target: arbitrary bytes expanded as run-length blocks by the checked expanders, round
// trips through the compressors, and `zrtool rle decompress` on arbitrary containers.
//
// Input: byte 0 selects the use. Low two bits 3: the rest is a container file for the tool
// (run with -close_fd_mask=2, the tool reports every damaged container on stderr). Otherwise bit 2
// picks 16-bit elements, byte 1 is the expansion stride, bytes 2-4 the destination size (at most
// 4 MiB), byte 5 the compression stride and byte 6 shortens the compressor's destination; the rest
// is the block, and the source of the round trip. Checked: an accepted block writes only its
// strided elements, as the unchecked expander does, and what it gave survives a round trip; a
// compressed block is accepted and gives back the source's elements, and a destination of the
// elements' bytes + 16 always suffices; a container the tool refuses leaves nothing, one it accepts
// expands to the size it states. Containers are tried only with chunks of at most 1 MiB, since the
// tool allocates the stated chunk size.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "zrobj/byteorder.h"
#include "fuzz/tool_command.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrrle.h"

namespace {

constexpr std::size_t kParams = 7;
constexpr DWORD kMaxDestinationBytes = 4u << 20;
constexpr DWORD kMaxContainerChunk = 1u << 20;  // the tool allocates what a container states

void Check(bool condition) {
  if (!condition) __builtin_trap();
}

struct Params {
  DWORD stride;              // of the expansion
  DWORD destination_bytes;   // of the expansion
  DWORD source_stride;       // of the round trip, 1..8
  DWORD capacity_cut;        // bytes taken from the compressor's sufficient destination
  const std::uint8_t* block;
  DWORD block_size;
};

// The two element widths behind one interface.
template <class T>
struct Codec;

template <>
struct Codec<BYTE> {
  static int Compress(void* d, DWORD size, const BYTE* s, DWORD count, DWORD stride) {
    return RLECompress(d, size, s, count, stride);
  }
  static int Expand(BYTE* d, const void* b, DWORD stride) { return RLEDecompress(d, b, stride); }
  static int Checked(BYTE* d, DWORD units, const void* b, DWORD size, DWORD stride) {
    return RLEDecompressChecked(d, units, b, size, stride, nullptr, 0);
  }
};

template <>
struct Codec<WORD> {
  static int Compress(void* d, DWORD size, const WORD* s, DWORD count, DWORD stride) {
    return RLE16Compress(d, size, s, count, stride);
  }
  static int Expand(WORD* d, const void* b, DWORD stride) { return RLE16Decompress(d, b, stride); }
  static int Checked(WORD* d, DWORD units, const void* b, DWORD size, DWORD stride) {
    return RLE16DecompressChecked(d, units, b, size, stride, nullptr, 0);
  }
};

// Compresses `count` elements `stride` apart, expands the block densely and compares. The
// compressor's destination is the sufficient size less `cut` bytes; only the full size must work.
template <class T>
void CheckRoundTrip(const T* source, DWORD count, DWORD stride, DWORD cut) {
  const DWORD sufficient = std::max<DWORD>(count * sizeof(T) + 16, sizeof(T) == 1 ? 17 : 18);
  const DWORD capacity = sufficient - std::min(cut, sufficient);
  std::vector<std::uint8_t> block(sufficient);
  const int compressed = Codec<T>::Compress(block.data(), capacity, source, count, stride);
  Check(compressed == 1 || capacity < sufficient);
  if (!compressed) return;
  const DWORD used = zr::LoadLE32(block.data() + 4);
  Check(used <= capacity);
  std::vector<T> out(count);
  Check(Codec<T>::Checked(out.data(), count, block.data(), used, 1) == 1);
  for (DWORD k = 0; k < count; ++k) Check(out[k] == source[std::size_t{k} * stride]);
}

// Whether the expansion of `count` elements at `stride` may write unit `i`.
bool Written(std::size_t i, DWORD count, DWORD stride) {
  if (count == 0) return false;
  if (stride == 0) return i == 0;
  return i % stride == 0 && i / stride < count;
}

// The block as given, into a destination of the chosen size. An accepted block must leave every
// other unit alone, expand the same way unchecked, and survive a round trip of what it gave.
template <class T>
void ExpandArbitrary(const Params& p) {
  const DWORD units = p.destination_bytes / sizeof(T);
  const auto fill = static_cast<T>(0xA5A5);
  std::vector<T> checked(units, fill);
  if (!Codec<T>::Checked(checked.data(), units, p.block, p.block_size, p.stride)) return;
  const DWORD count = zr::LoadLE32(p.block);
  for (std::size_t i = 0; i < units; ++i)
    if (!Written(i, count, p.stride)) Check(checked[i] == fill);
  std::vector<T> unchecked(units, fill);
  Codec<T>::Expand(unchecked.data(), p.block, p.stride);
  Check(checked == unchecked);
  if (count && p.stride) CheckRoundTrip(checked.data(), count, p.stride, p.capacity_cut);
}

// The rest of the input as elements `source_stride` apart.
template <class T>
void RoundTrip(const Params& p) {
  const std::size_t available = p.block_size / sizeof(T);
  if (available == 0) return;
  std::vector<T> source(available);
  std::memcpy(source.data(), p.block, available * sizeof(T));
  const auto count = static_cast<DWORD>((available - 1) / p.source_stride + 1);
  CheckRoundTrip(source.data(), count, p.source_stride, 0);
  CheckRoundTrip(source.data(), count, p.source_stride, p.capacity_cut);
}

template <class T>
void RunBlock(const Params& p) {
  ExpandArbitrary<T>(p);
  RoundTrip<T>(p);
}

Params ParseParams(const std::uint8_t* data, std::size_t size) {
  Params p{};
  p.stride = data[1];
  p.destination_bytes = (zr::LoadLE32(data + 2) & 0xFFFFFFu) % (kMaxDestinationBytes + 1);  // 24 bits
  p.source_stride = data[5] % 8 + 1;
  p.capacity_cut = data[6];
  p.block = data + kParams;
  p.block_size = static_cast<DWORD>(size - kParams);
  return p;
}

// The container through the tool, as `zrtool rle decompress IN OUT` runs it.
void RunContainer(const std::uint8_t* data, std::size_t size) {
  if (size >= 24 && zr::LoadLE32(data + 20) > kMaxContainerChunk) return;
  static const zrtool::Command& rle = fuzz_tool::FindCommand("rle");
  static const std::string in = fuzz_tool::TempPath("rle", "in");
  static const std::string out = fuzz_tool::TempPath("rle", "out");
  if (!fuzz_tool::WriteFile(in, data, size)) return;
  std::filesystem::remove(out);
  if (rle.run({"decompress", in, out}) != 0) {
    Check(!std::filesystem::exists(out));  // a damaged container leaves nothing
    return;
  }
  const std::uint64_t stated = zr::LoadLE64(data + 8);
  Check(std::filesystem::file_size(out) == stated);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  SetDebugMode(0);  // rejected blocks would be reported on the diagnostics output
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > 1u << 20) return 0;
  if ((data[0] & 3) == 3) {
    RunContainer(data + 1, size - 1);
    return 0;
  }
  if (size < kParams) return 0;
  const Params p = ParseParams(data, size);
  if (data[0] & 4) {
    RunBlock<WORD>(p);
  } else {
    RunBlock<BYTE>(p);
  }
  return 0;
}
