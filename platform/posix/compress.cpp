// Page-granular memory blocks and the compressor of the file utilities (zstd), for project archives.
#include <sys/mman.h>
#include <unistd.h>
#include <zstd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/fileutil.h"

namespace zr::os {
namespace {

// A block starts with one page that records its length, so that freeing needs only the pointer.
std::size_t PageSize() {
  static const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  return page;
}

constexpr int kCompressionLevel = 3;

}  // namespace

std::size_t FU_VirtualSize(std::size_t size) {
  const std::size_t page = PageSize();
  return (size + page - 1) / page * page;
}

void* FU_AllocVirtual(void* block, std::size_t size) {
  const std::size_t page = PageSize();
  if (block) {
    auto* base = static_cast<unsigned char*>(block) - page;
    std::size_t length = 0;
    std::memcpy(&length, base, sizeof length);
    ::munmap(base, length);
  }
  if (size == 0) return nullptr;
  const std::size_t length = page + FU_VirtualSize(size);
  if (length < size) return nullptr;  // wrapped
  void* base = ::mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (base == MAP_FAILED) return nullptr;
  std::memcpy(base, &length, sizeof length);
  return static_cast<unsigned char*>(base) + page;
}

void* FU_ZIPMem(const void* data, DWORD size, DWORD* out_size, FU_Allocator allocate) {
  if (!data || !out_size || !allocate) return nullptr;
  const std::size_t bound = ZSTD_compressBound(size);
  void* block = allocate(nullptr, bound);
  if (!block) return nullptr;
  const std::size_t n = ZSTD_compress(block, bound, data, size, kCompressionLevel);
  if (ZSTD_isError(n) || n > 0xFFFFFFFFu) {
    allocate(block, 0);
    return nullptr;
  }
  *out_size = static_cast<DWORD>(n);
  return block;
}

void* FU_UnZIPMem(const void* data, DWORD size, DWORD expected, FU_Allocator allocate) {
  if (!data || !allocate || expected == 0) return nullptr;
  // The frame says how much it holds; anything but the expected size is damage.
  if (ZSTD_getFrameContentSize(data, size) != expected) return nullptr;
  void* block = allocate(nullptr, expected);
  if (!block) return nullptr;
  const std::size_t n = ZSTD_decompress(block, expected, data, size);
  if (ZSTD_isError(n) || n != expected) {
    allocate(block, 0);
    return nullptr;
  }
  return block;
}

}  // namespace zr::os
