// Path helpers of the library's path form: UTF-16, '/' separators, directories ending in '/'.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform/files.h"
#include "zrobj/zrtypes.h"

namespace zr::os {

// Normalises `path` in place: '\' and '/' become `separator`, runs of separators collapse to one,
// and a non-empty path ends in a separator. FALSE (path unchanged) when the result would need more
// than `capacity` characters with the terminator, or on null arguments.
BOOL FU_FormatPath(WCHAR* path, UINT capacity, WCHAR separator);

// Like strchr, these take a const path and return a position inside it (null when absent).
// The file name: after the last '/', or the whole path.
WCHAR* FU_FindFilename(const WCHAR* path);
// The last '/'.
WCHAR* FU_FindLastSeparator(const WCHAR* path);
// The '.' that starts the file name's extension (the last '.' of the name, not its first character).
WCHAR* FU_FindExtension(const WCHAR* path);

// Looks in the directory of `pattern` for entries whose name matches its last component
// ('*' any run, '?' one character, ASCII case-insensitive) and copies the first name in byte order
// of the names (file name only) into `found`. FALSE when nothing matches or it does not fit.
BOOL FU_GetFirstMatch(const WCHAR* pattern, WCHAR* found, UINT capacity);

// The wildcard test of FU_GetFirstMatch, for one name.
bool WildcardMatch(std::u16string_view pattern, std::u16string_view name);

// ---- Directory trees (paths in the library's form) ----
// Whether `path` lies inside `directory` (both normalised first; a directory contains itself).
bool FU_IsPathContained(const WCHAR* path, const WCHAR* directory);
BOOL FU_TestDirExists(const WCHAR* path);
// Creates every missing directory of `path` up to its last separator.
BOOL FU_CreatePath(const WCHAR* path);
// Deletes a directory with everything in it; TRUE when nothing of it is left.
BOOL FU_DeleteDirectory(const WCHAR* path);
// Calls `visit` for every file and directory below `directory`, recursively: each directory before
// its contents, the entries of one directory in byte order of their names; symbolic links are not
// followed (nor reported). Stops and answers FALSE when `visit` does, or when a directory cannot
// be read.
using FU_EnumCallback = BOOL (*)(const WCHAR* path, const FileInfo& info, void* context);
BOOL FU_EnumDirectory(FU_EnumCallback visit, const WCHAR* directory, void* context);

// ---- Memory blocks and compression ----
// Whole pages of committed memory: FU_AllocVirtual(nullptr, n) gives a block of at least n bytes,
// FU_AllocVirtual(block, 0) frees it; FU_VirtualSize(n) is what such a block really holds.
void* FU_AllocVirtual(void* block, std::size_t size);
std::size_t FU_VirtualSize(std::size_t size);
using FU_Allocator = void* (*)(void* block, std::size_t size);
// Compresses `size` bytes into a block from `allocate` (*out_size its bytes); null on failure.
void* FU_ZIPMem(const void* data, DWORD size, DWORD* out_size, FU_Allocator allocate);
// Expands what FU_ZIPMem made into exactly `expected` bytes; null when the data are damaged or do
// not expand to that size.
void* FU_UnZIPMem(const void* data, DWORD size, DWORD expected, FU_Allocator allocate);

}  // namespace zr::os
