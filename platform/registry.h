// The HKEY_CLASSES_ROOT key store: keys with default and named values, kept in the INI file
// "HKCR.INI" of the Windows directory (one section per key path, one entry per value).
#pragma once

#include "platform/lasterror.h"
#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

namespace zr::os {

struct ZrRegKey;
using HKEY = ZrRegKey*;
using REGSAM = DWORD;

HKEY RegClassesRoot();
#define HKEY_CLASSES_ROOT (::zr::os::RegClassesRoot())

inline constexpr REGSAM KEY_READ = 0x20019;
inline constexpr REGSAM KEY_WRITE = 0x20006;
inline constexpr REGSAM KEY_ALL_ACCESS = 0xF003F;
inline constexpr DWORD REG_SZ = 1;
inline constexpr DWORD REG_BINARY = 3;
inline constexpr DWORD REG_DWORD = 4;

// Opens an existing key (subKey: '\\'-separated path, case-insensitive; null or "" = the key itself).
LONG RegOpenKeyExW(HKEY parent, const WCHAR* subKey, DWORD options, REGSAM access, HKEY* result);
// Opens or creates a key and every missing key above it.
LONG RegCreateKeyExW(HKEY parent, const WCHAR* subKey, REGSAM access, HKEY* result);
// Stores exactly `size` bytes of `data` (the caller's length is taken as given, in bytes).
// Null or empty `valueName` = the key's default value.
LONG RegSetValueExW(HKEY key, const WCHAR* valueName, DWORD reserved, DWORD type, const BYTE* data,
                              DWORD size);
// Reads a value: `*size` is the buffer size in, the stored size out; ERROR_MORE_DATA when too small.
LONG RegQueryValueExW(HKEY key, const WCHAR* valueName, DWORD* reserved, DWORD* type, BYTE* data,
                                DWORD* size);
LONG RegCloseKey(HKEY key);
// Deletes a key with all its subkeys and values.
LONG RegDeleteTreeW(HKEY parent, const WCHAR* subKey);

}  // namespace zr::os
