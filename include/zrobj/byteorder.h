// Little-endian loads and stores at any byte address, for the library's file formats and records
// and for the clients that read them.
// Byte by byte, so they hold on any host and for unaligned addresses; compilers fold them into one access.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace zr {

template <class T>
  requires std::is_unsigned_v<T>
T LoadLE(const void* p) {
  const auto* bytes = static_cast<const unsigned char*>(p);
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) value |= static_cast<T>(static_cast<T>(bytes[i]) << (8 * i));
  return value;
}

template <class T>
  requires std::is_unsigned_v<T>
void StoreLE(void* p, T value) {
  auto* bytes = static_cast<unsigned char*>(p);
  for (std::size_t i = 0; i < sizeof(T); ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
}

inline std::uint16_t LoadLE16(const void* p) { return LoadLE<std::uint16_t>(p); }
inline std::uint32_t LoadLE32(const void* p) { return LoadLE<std::uint32_t>(p); }
inline std::uint64_t LoadLE64(const void* p) { return LoadLE<std::uint64_t>(p); }

inline void StoreLE16(void* p, std::uint16_t value) { StoreLE(p, value); }
inline void StoreLE32(void* p, std::uint32_t value) { StoreLE(p, value); }
inline void StoreLE64(void* p, std::uint64_t value) { StoreLE(p, value); }

}  // namespace zr
