// zrtool rle: run-length compression of whole files into a small self-describing container, each
// of `stride` interleaved channels compressed on its own, and the checked way back.
//
// Container (little-endian):
//   0  4  magic "ZRLE"
//   4  4  version, 1
//   8  8  original size in bytes
//  16  4  stride: the number of interleaved channels (1..65536)
//  20  4  chunk size in bytes: a multiple of the stride, at most 64 MiB
//  24     for each chunk of the original (the last one may be shorter):
//           for each channel c: u32 block length, then an RLE block holding bytes c, c + stride, ...
//           of the chunk;
//           u32 GetCRC1615 of the chunk's original bytes
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "zrobj/byteorder.h"
#include "tools/zrtool/command.h"
#include "zrobj/zrhash.h"
#include "zrobj/zrrle.h"

namespace zrtool {
namespace {

int RunRle(const Args& args);

const Command kRle = {
    "rle", "run-length compress or expand a file",
    "usage: zrtool rle compress [--stride N] IN OUT\n"
    "       zrtool rle decompress IN OUT\n\n"
    "compress    treats IN as N interleaved byte channels (default 1, e.g. 3 for 24-bit pixels)\n"
    "            and writes each channel's run-length blocks into the container OUT\n"
    "decompress  checks and expands a container back into the original bytes; a damaged\n"
    "            container is reported and nothing is left at OUT\n",
    RunRle};

ZRTOOL_COMMAND(kRle);

constexpr char kMagic[4] = {'Z', 'R', 'L', 'E'};
constexpr DWORD kVersion = 1;
constexpr std::size_t kHeaderSize = 24;
constexpr DWORD kMaxStride = 65536;
constexpr DWORD kTargetChunk = 4u << 20;
constexpr DWORD kMaxChunk = 64u << 20;

struct Header {
  std::uint64_t original_size = 0;
  DWORD stride = 1;
  DWORD chunk_size = 0;
};

// Elements of channel c in a chunk of `length` bytes.
DWORD ChannelCount(DWORD length, DWORD stride, DWORD c) { return length > c ? (length - c + stride - 1) / stride : 0; }

// An open file that closes itself.
class File {
 public:
  File(const std::string& path, const char* mode) : f_(std::fopen(path.c_str(), mode)) {}
  ~File() {
    if (f_) std::fclose(f_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  std::FILE* get() const { return f_; }
  bool ReadExactly(void* data, std::size_t n) { return std::fread(data, 1, n, f_) == n; }
  bool Write(const void* data, std::size_t n) { return std::fwrite(data, 1, n, f_) == n; }
  bool AtEnd() { return std::fgetc(f_) == EOF && !std::ferror(f_); }
  bool Close() {  // flushes; true when everything reached the file
    const bool ok = std::fclose(f_) == 0;
    f_ = nullptr;
    return ok;
  }

 private:
  std::FILE* f_;
};

// The output is written beside OUT and renamed over it only when complete, so a failure never
// leaves a partial file or destroys an existing OUT.
class Output {
 public:
  explicit Output(std::string path) : path_(std::move(path)), temp_(path_ + ".zrtool-partial"), file_(temp_, "wb") {}
  ~Output() {
    if (!committed_) std::remove(temp_.c_str());
  }
  File& file() { return file_; }
  bool ok() const { return file_.get() != nullptr; }
  bool Commit() {
    if (!file_.Close() || std::rename(temp_.c_str(), path_.c_str()) != 0) return false;
    committed_ = true;
    return true;
  }

 private:
  std::string path_;
  std::string temp_;
  File file_;
  bool committed_ = false;
};

std::string Errno() { return std::strerror(errno); }

bool Reject(std::string* error, std::string reason) {
  *error = std::move(reason);
  return false;
}

bool ParseStride(const std::string& text, DWORD* stride) {
  if (text.empty() || text.size() > 6 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  const unsigned long value = std::stoul(text);
  if (value < 1 || value > kMaxStride) return false;
  *stride = static_cast<DWORD>(value);
  return true;
}

int Compress(const std::string& in_path, const std::string& out_path, DWORD stride) {
  std::error_code ec;
  const std::uint64_t size = std::filesystem::file_size(in_path, ec);
  if (ec) return Fail("cannot read " + in_path + ": " + ec.message());
  File in(in_path, "rb");
  if (!in.get()) return Fail("cannot open " + in_path + ": " + Errno());
  Output output(out_path);
  if (!output.ok()) return Fail("cannot create " + out_path + ": " + Errno());
  File& out = output.file();

  Header header{size, stride, std::max<DWORD>(1, kTargetChunk / stride) * stride};
  BYTE head[kHeaderSize];
  std::memcpy(head, kMagic, 4);
  zr::StoreLE32(head + 4, kVersion);
  zr::StoreLE32(head + 8, static_cast<DWORD>(size));
  zr::StoreLE32(head + 12, static_cast<DWORD>(size >> 32));
  zr::StoreLE32(head + 16, header.stride);
  zr::StoreLE32(head + 20, header.chunk_size);
  if (!out.Write(head, sizeof(head))) return Fail("cannot write " + out_path + ": " + Errno());

  std::vector<BYTE> chunk(header.chunk_size);
  std::vector<BYTE> block(header.chunk_size / stride + 1 + 16 + 4);  // length word, then count + 16 at most
  Progress progress("compressing", size);
  for (std::uint64_t done = 0; done < size;) {
    const auto length = static_cast<DWORD>(std::min<std::uint64_t>(header.chunk_size, size - done));
    if (!in.ReadExactly(chunk.data(), length)) return Fail("cannot read " + in_path + " (did it change?)");
    for (DWORD c = 0; c < stride; ++c) {
      const DWORD count = ChannelCount(length, stride, c);
      const DWORD capacity = count + 16;  // always enough: incompressible data is stored as one literal
      if (!RLECompress(block.data() + 4, std::max<DWORD>(capacity, 17), chunk.data() + c, count, stride))
        return Fail("compression failed");
      const DWORD block_size = zr::LoadLE32(block.data() + 8);
      zr::StoreLE32(block.data(), block_size);
      if (!out.Write(block.data(), 4 + std::size_t{block_size})) return Fail("cannot write " + out_path + ": " + Errno());
    }
    BYTE crc[4];
    zr::StoreLE32(crc, GetCRC1615(chunk.data(), length));
    if (!out.Write(crc, sizeof(crc))) return Fail("cannot write " + out_path + ": " + Errno());
    done += length;
    progress.Update(done);
  }
  progress.Finish();
  if (!in.AtEnd()) return Fail(in_path + " grew while it was read");
  if (!output.Commit()) return Fail("cannot write " + out_path + ": " + Errno());
  return 0;
}

// Reads and checks the container header.
bool ReadHeader(File& in, Header* header, std::string* error) {
  BYTE head[kHeaderSize];
  if (!in.ReadExactly(head, sizeof(head))) return Reject(error, "too short for a container header");
  if (std::memcmp(head, kMagic, 4) != 0) return Reject(error, "not an RLE container (bad magic)");
  if (zr::LoadLE32(head + 4) != kVersion)
    return Reject(error, "unsupported container version " + std::to_string(zr::LoadLE32(head + 4)));
  header->original_size = zr::LoadLE32(head + 8) | std::uint64_t{zr::LoadLE32(head + 12)} << 32;
  header->stride = zr::LoadLE32(head + 16);
  header->chunk_size = zr::LoadLE32(head + 20);
  if (header->stride < 1 || header->stride > kMaxStride)
    return Reject(error, "stride " + std::to_string(header->stride) + " is out of range");
  if (header->chunk_size == 0 || header->chunk_size > kMaxChunk || header->chunk_size % header->stride != 0)
    return Reject(error, "chunk size " + std::to_string(header->chunk_size) + " is invalid");
  return true;
}

// Reads one channel block of a chunk and expands it in place with the checked expander.
bool ExpandChannel(File& in, BYTE* chunk, DWORD length, DWORD stride, DWORD c, std::vector<BYTE>& block,
                   std::string* error) {
  const DWORD count = ChannelCount(length, stride, c);
  BYTE word[4];
  if (!in.ReadExactly(word, 4)) return Reject(error, "truncated");
  const DWORD block_size = zr::LoadLE32(word);
  // A block never exceeds count + 16: incompressible data is stored as one literal.
  if (block_size < RLE_HEADER_SIZE || block_size > std::uint64_t{count} + 16)
    return Reject(error, "block length " + std::to_string(block_size) + " is impossible for " + std::to_string(count) +
                    " elements");
  if (!in.ReadExactly(block.data(), block_size)) return Reject(error, "truncated");
  if (zr::LoadLE32(block.data()) != count)
    return Reject(error, "the block holds " + std::to_string(zr::LoadLE32(block.data())) + " elements instead of " +
                    std::to_string(count));
  char reason[256] = "";
  if (!RLEDecompressChecked(chunk + c, c < length ? length - c : 0, block.data(), block_size, stride, reason, sizeof(reason)))
    return Reject(error, reason);
  return true;
}

// Compares the chunk's stored checksum with the expanded bytes.
bool VerifyChunk(File& in, const BYTE* chunk, DWORD length, std::string* error) {
  BYTE word[4];
  if (!in.ReadExactly(word, 4)) return Reject(error, "truncated");
  const DWORD stored = zr::LoadLE32(word);
  const DWORD actual = GetCRC1615(chunk, length);
  if (stored == actual) return true;
  char text[96];
  std::snprintf(text, sizeof(text), "checksum %08X does not match the expanded data (%08X)", stored, actual);
  return Reject(error, text);
}

int Decompress(const std::string& in_path, const std::string& out_path) {
  File in(in_path, "rb");
  if (!in.get()) return Fail("cannot open " + in_path + ": " + Errno());
  Header header;
  std::string error;
  if (!ReadHeader(in, &header, &error)) return Fail(in_path + ": damaged RLE file: " + error);
  Output output(out_path);
  if (!output.ok()) return Fail("cannot create " + out_path + ": " + Errno());
  File& out = output.file();

  std::vector<BYTE> chunk(header.chunk_size);
  std::vector<BYTE> block(header.chunk_size / header.stride + 1 + 16);
  Progress progress("expanding", header.original_size);
  std::uint64_t chunk_index = 0;
  for (std::uint64_t done = 0; done < header.original_size; done += chunk.size(), ++chunk_index) {
    const auto length = static_cast<DWORD>(std::min<std::uint64_t>(header.chunk_size, header.original_size - done));
    for (DWORD c = 0; c < header.stride; ++c) {
      if (!ExpandChannel(in, chunk.data(), length, header.stride, c, block, &error))
        return Fail(in_path + ": damaged RLE file: chunk " + std::to_string(chunk_index) + ", channel " +
                    std::to_string(c) + ": " + error);
    }
    if (!VerifyChunk(in, chunk.data(), length, &error))
      return Fail(in_path + ": damaged RLE file: chunk " + std::to_string(chunk_index) + ": " + error);
    if (!out.Write(chunk.data(), length)) return Fail("cannot write " + out_path + ": " + Errno());
    progress.Update(done + length);
  }
  progress.Finish();
  if (!in.AtEnd()) return Fail(in_path + ": damaged RLE file: data after the last block");
  if (!output.Commit()) return Fail("cannot write " + out_path + ": " + Errno());
  return 0;
}

int RunRle(const Args& args) {
  if (args.empty()) return UsageError(kRle, "missing compress or decompress");
  const std::string& mode = args[0];
  if (mode != "compress" && mode != "decompress") return UsageError(kRle, "unknown mode '" + mode + "'");
  DWORD stride = 1;
  std::vector<std::string> paths;
  for (std::size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "--stride") {
      if (mode != "compress") return UsageError(kRle, "--stride applies to compress only (the container records it)");
      if (i + 1 == args.size() || !ParseStride(args[++i], &stride))
        return UsageError(kRle, "--stride needs a number from 1 to " + std::to_string(kMaxStride));
    } else {
      paths.push_back(args[i]);
    }
  }
  if (paths.size() != 2) return UsageError(kRle, "expected IN and OUT");
  return mode == "compress" ? Compress(paths[0], paths[1], stride) : Decompress(paths[0], paths[1]);
}

}  // namespace
}  // namespace zrtool
