// The fixed-width vocabulary of the library's interface (32-bit words, flags, UTF-16 text), and how
// those words are stored in its files (little-endian).
#pragma once

#include <cstddef>
#include <cstdint>

#include "zrobj/byteorder.h"

using DWORD = std::uint32_t;   // 32-bit unsigned word
using UINT = unsigned int;
using BOOL = int;              // non-zero = success / true
using BYTE = std::uint8_t;
using WORD = std::uint16_t;
using LONG = std::int32_t;
using ULONG = std::uint32_t;
using INT64 = std::int64_t;
using UINT64 = std::uint64_t;
using WCHAR = char16_t;        // wide text is UTF-16
using LPWSTR = char16_t*;
using LPCWSTR = const char16_t*;
using LPSTR = char*;
using LPCSTR = const char*;
using HANDLE = void*;
using HMODULE = void*;         // load base of a shared object
using HWND = void*;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

inline constexpr DWORD ZR_INVALID_INDEX = 0xFFFFFFFFu;  // no index or identity
inline constexpr DWORD ZR_NO_ID = 0xFC00u;              // no 32-bit id (unnamed chunk, end of id list)
inline constexpr std::size_t ZR_MAX_PATH = 260;          // path buffers, in characters
