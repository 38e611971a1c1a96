// The fixed-width vocabulary of the library's interface (32-bit words, flags, UTF-16 text), shared
// with the platform layer: system information, the vocabulary of waits and kernel objects, and how
// the words are stored in files (little-endian).
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

// A globally unique identifier in the Windows layout (16 bytes; the first three fields are stored
// little-endian in files).
struct GUID {
  DWORD Data1;
  WORD Data2;
  WORD Data3;
  BYTE Data4[8];
  friend constexpr bool operator==(const GUID&, const GUID&) = default;
};
static_assert(sizeof(GUID) == 16, "GUID layout");

// System information (filled at process attach) (page size, processors, allocation granularity).
struct SYSTEM_INFO {
  WORD wProcessorArchitecture;
  WORD wReserved;
  DWORD dwPageSize;
  void* lpMinimumApplicationAddress;
  void* lpMaximumApplicationAddress;
  std::uintptr_t dwActiveProcessorMask;
  DWORD dwNumberOfProcessors;
  DWORD dwProcessorType;
  DWORD dwAllocationGranularity;  // 65536
  WORD wProcessorLevel;
  WORD wProcessorRevision;
};

// ---- Waits and kernel objects: time-outs, wait results, change-notification filter bits,
// security attributes and find data.
#ifndef INFINITE
#define INFINITE 0xFFFFFFFFu
#endif
#ifndef WAIT_OBJECT_0
#define WAIT_OBJECT_0 0u
#define WAIT_ABANDONED_0 0x80u
#define WAIT_TIMEOUT 258u
#define WAIT_FAILED 0xFFFFFFFFu
#define MAXIMUM_WAIT_OBJECTS 64u
#endif

#ifndef FILE_NOTIFY_CHANGE_FILE_NAME
#define FILE_NOTIFY_CHANGE_FILE_NAME 0x001u
#define FILE_NOTIFY_CHANGE_DIR_NAME 0x002u
#define FILE_NOTIFY_CHANGE_ATTRIBUTES 0x004u
#define FILE_NOTIFY_CHANGE_SIZE 0x008u
#define FILE_NOTIFY_CHANGE_LAST_WRITE 0x010u
#define FILE_NOTIFY_CHANGE_LAST_ACCESS 0x020u
#define FILE_NOTIFY_CHANGE_CREATION 0x040u
#define FILE_NOTIFY_CHANGE_SECURITY 0x100u
#endif

// Accepted and ignored: objects carry no security descriptors here.
struct SECURITY_ATTRIBUTES {
  DWORD nLength;
  void* lpSecurityDescriptor;
  BOOL bInheritHandle;
};

// A file's directory entry, laid out as the system's find data (times are file times, low word
// first): what a file-change notification compares.
struct tagZRFINDDATA {
  DWORD dwFileAttributes;
  DWORD ftCreationTime[2];
  DWORD ftLastAccessTime[2];
  DWORD ftLastWriteTime[2];
  DWORD nFileSizeHigh;
  DWORD nFileSizeLow;
  DWORD dwReserved0;
  DWORD dwReserved1;
  WCHAR cFileName[ZR_MAX_PATH];
  WCHAR cAlternateFileName[14];
};

// Thread priorities (the Windows values), shared by the thread classes and the platform layer.
#ifndef THREAD_PRIORITY_NORMAL
#define THREAD_PRIORITY_IDLE (-15)
#define THREAD_PRIORITY_LOWEST (-2)
#define THREAD_PRIORITY_BELOW_NORMAL (-1)
#define THREAD_PRIORITY_NORMAL 0
#define THREAD_PRIORITY_ABOVE_NORMAL 1
#define THREAD_PRIORITY_HIGHEST 2
#define THREAD_PRIORITY_TIME_CRITICAL 15
#define THREAD_PRIORITY_ERROR_RETURN 0x7FFFFFFF
#endif
