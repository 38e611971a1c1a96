// The address map of the library's regions: a two-level radix tree written under one mutex and
// read without a lock (regionmap_internal.h).
#include "memory/heap/regionmap_internal.h"

#include <cstdlib>
#include <mutex>

namespace zr {
namespace detail {
std::uintptr_t* g_map_root[1 << kRootBits];  // zero at load
}  // namespace detail

namespace {

std::mutex& MapMutex() {
  static std::mutex* mutex = new std::mutex;  // never destroyed: regions may be unmapped at unload
  return *mutex;
}

// The unit's word, creating its leaf (caller holds the map mutex); null when it cannot be mapped.
std::uintptr_t* MapSlot(std::uintptr_t address, bool create) {
  if (address >= detail::kMappableLimit) return nullptr;
  const std::uintptr_t unit = address >> detail::kRegionShift;
  std::uintptr_t*& root = detail::g_map_root[unit >> detail::kLeafBits];
  std::uintptr_t* leaf = std::atomic_ref<std::uintptr_t*>(root).load(std::memory_order_acquire);
  if (!leaf && create) {
    // calloc: the leaf's pages stay untouched (and cost nothing) until a unit in them is mapped.
    leaf = static_cast<std::uintptr_t*>(std::calloc(std::size_t{1} << detail::kLeafBits, sizeof(std::uintptr_t)));
    if (leaf) std::atomic_ref<std::uintptr_t*>(root).store(leaf, std::memory_order_release);
  }
  return leaf ? &leaf[unit & ((1u << detail::kLeafBits) - 1)] : nullptr;
}

}  // namespace

void MapRegion(const void* base, std::size_t bytes, const void* owner) {
  const auto start = reinterpret_cast<std::uintptr_t>(base);
  std::lock_guard guard(MapMutex());
  for (std::uintptr_t at = start, delta = 0; at < start + bytes; at += detail::kUnitBytes, ++delta) {
    std::uintptr_t* slot = MapSlot(at, true);
    if (!slot) continue;  // unmappable: lookups simply fail and callers take the careful path
    const std::uintptr_t word = (reinterpret_cast<std::uintptr_t>(owner) & detail::kOwnerMask) | (delta << detail::kDeltaShift);
    std::atomic_ref<std::uintptr_t>(*slot).store(word, std::memory_order_release);
  }
}

void UnmapRegion(const void* base, std::size_t bytes) {
  const auto start = reinterpret_cast<std::uintptr_t>(base);
  std::lock_guard guard(MapMutex());
  for (std::uintptr_t at = start; at < start + bytes; at += detail::kUnitBytes)
    if (std::uintptr_t* slot = MapSlot(at, false)) std::atomic_ref<std::uintptr_t>(*slot).store(0, std::memory_order_release);
}

}  // namespace zr
