// Regions from the C++ allocator (aligned new), so that sanitizers see them as ordinary heap memory.
#include "platform/regions.h"

#include <new>

namespace zr::os {
namespace {
constexpr std::size_t kMaxRegionBytes = std::size_t{1} << 30;
}  // namespace

void* AllocateRegion(std::size_t bytes) {
  if (bytes == 0 || bytes > kMaxRegionBytes) return nullptr;
  bytes = (bytes + kRegionGranularity - 1) & ~(kRegionGranularity - 1);
  return ::operator new(bytes, std::align_val_t{kRegionGranularity}, std::nothrow);
}

void FreeRegion(void* base) {
  if (base) ::operator delete(base, std::align_val_t{kRegionGranularity});
}

}  // namespace zr::os
