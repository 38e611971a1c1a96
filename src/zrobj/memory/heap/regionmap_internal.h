// The address map of the library's regions: every 64 KiB unit of a mapped region names its owner
// (a heap or pool) and the region's start; lookups take no lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace zr {

// What the map says of an address (all null for an address of no region).
struct RegionEntry {
  const void* owner = nullptr;
  void* object = nullptr;  // the start of the region
};
// `base` must be 64 KiB aligned and the region at most 4 GiB.
void MapRegion(const void* base, std::size_t bytes, const void* owner);
void UnmapRegion(const void* base, std::size_t bytes);

namespace detail {
// A two-level radix tree over the 64 KiB units of the 47-bit user address space, inside the library
// only. Each unit has one word: its owner's address in the low 48 bits, and in the high 16 bits how
// many units lie between the region's start and this unit.
inline constexpr int kRegionShift = 16;
inline constexpr std::uintptr_t kUnitBytes = std::uintptr_t{1} << kRegionShift;
inline constexpr int kLeafBits = 16;
inline constexpr int kRootBits = 47 - kRegionShift - kLeafBits;
inline constexpr std::uintptr_t kMappableLimit = std::uintptr_t{1} << 47;
inline constexpr int kDeltaShift = 48;
inline constexpr std::uintptr_t kOwnerMask = (std::uintptr_t{1} << kDeltaShift) - 1;
extern std::uintptr_t* g_map_root[1 << kRootBits];  // leaves of 2^16 words, never freed

inline std::uintptr_t LoadMapWord(std::uintptr_t address) {
  if (address >= kMappableLimit) return 0;
  const std::uintptr_t unit = address >> kRegionShift;
  std::uintptr_t* leaf = std::atomic_ref<std::uintptr_t*>(g_map_root[unit >> kLeafBits]).load(std::memory_order_acquire);
  if (!leaf) return 0;
  return std::atomic_ref<std::uintptr_t>(leaf[unit & ((1u << kLeafBits) - 1)]).load(std::memory_order_acquire);
}
}  // namespace detail

// Takes no lock and reads nothing but the map itself.
inline RegionEntry LookupRegion(const void* address) {
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  const std::uintptr_t word = detail::LoadMapWord(at);
  if (!word) return {};
  RegionEntry entry;
  entry.owner = reinterpret_cast<const void*>(word & detail::kOwnerMask);
  entry.object = reinterpret_cast<void*>((at & ~(detail::kUnitBytes - 1)) - (word >> detail::kDeltaShift) * detail::kUnitBytes);
  return entry;
}

}  // namespace zr
