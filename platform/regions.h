// Regions: 64 KiB aligned blocks of memory, the unit in which the library's heaps and pools take
// memory from the system.
#pragma once

#include <cstddef>

#include "zrobj/export.h"

namespace zr::os {

inline constexpr std::size_t kRegionGranularity = 0x10000;
// `bytes` rounded up to the granularity; null on failure or for 0 or more than 1 GiB.
void* AllocateRegion(std::size_t bytes);
void FreeRegion(void* base);

}  // namespace zr::os
