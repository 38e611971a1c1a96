// Hash identifiers and checksums: class, user, path and computer ids from the hash-id dual CRC
// (CRC-16 in bits 16-31, CRC-10 in bits 0-9), and the 16+15-bit checksum (CRC1615).
#pragma once

#include <string>

#include "zrobj/ccrc.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

// Bits 10-15 of a real hash id are always zero, so ZR_NO_ID (0xFC00) can never be one: it stands
// for "no name". The plain GetHashID family must not be given a null string.

ZROBJ_EXTERN_C ZROBJ_API DWORD GetHashID(const char* name);       // narrow, as is
ZROBJ_EXTERN_C ZROBJ_API DWORD GetHashIDi(const char* name);      // narrow, folded
ZROBJ_EXTERN_C ZROBJ_API DWORD GetHashIDT(const WCHAR* name);     // wide, as is
ZROBJ_EXTERN_C ZROBJ_API DWORD GetHashIDTi(const WCHAR* name);    // wide, folded
ZROBJ_EXTERN_C ZROBJ_API DWORD GetHashIDTW(const WCHAR* name);    // wide, as is
ZROBJ_EXTERN_C ZROBJ_API DWORD GetHashIDTWi(const WCHAR* name);   // wide, folded
ZROBJ_EXTERN_C ZROBJ_API DWORD GetHashIDW(const WCHAR* name);     // wide, as is
// Wide and NOT folded despite the name: stored user and computer ids were made with it.
ZROBJ_EXTERN_C ZROBJ_API DWORD GetHashIDWi(const WCHAR* name);

// ZR_NO_ID for a null or empty name; otherwise GetHashIDWi of the name (the narrow form is UTF-8,
// converted to at most 260 UTF-16 units first).
ZROBJ_EXTERN_C ZROBJ_API DWORD GetUserHashIDA(const char* userName);
ZROBJ_EXTERN_C ZROBJ_API DWORD GetUserHashIDW(const WCHAR* userName);

// ZR_NO_ID when the normalised path (at most 260 characters) is shorter than 2 characters;
// otherwise GetHashIDTW of the path exactly as given (two spellings of a path hash differently).
ZROBJ_EXTERN_C ZROBJ_API DWORD GetPathHash(const WCHAR* path);

// The checksum engine over `length` bytes, and over the 8 little-endian bytes of a then b.
ZROBJ_EXTERN_C ZROBJ_API DWORD GetCRC1615(const void* data, DWORD length);
ZROBJ_EXTERN_C ZROBJ_API DWORD AddCRC1615(DWORD a, DWORD b);

// GetHashIDWi of the computer name, computed once per process (ZR_NO_ID while no name is known).
ZROBJ_EXTERN_C ZROBJ_API DWORD GetComputerID();

// The computer's name, upper-cased, into `buffer` (`length` characters). A machine without a name
// gets a generated "VORNyymmddS" name (UTC date, seconds of the day) kept by the platform layer,
// provided the buffer holds at least 16 characters. 1 on success, 0 on failure.
ZROBJ_EXTERN_C ZROBJ_API int GetCreateComputerName(WCHAR* buffer, DWORD length);

namespace zr {

// The two process-wide engines, built with the library image (constant-initialised, so they are
// ready before any static initialiser of the library or its clients runs).
ZROBJ_API const CDualCRC& HashIdEngine();    // main 10/0x83, secondary 16/0x1021
ZROBJ_API const CDualCRC& ChecksumEngine();  // main 16/0x1021, secondary 15/0x8123

// The generated name for a machine without one: "VORN%02u%02u%02u%u" of year - 1996, month, day
// and seconds of the day (UTC) of `unix_seconds`, with `extra_seconds` added to the last field.
ZROBJ_API std::u16string GeneratedComputerName(long long unix_seconds, unsigned extra_seconds);

}  // namespace zr
