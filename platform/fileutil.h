// Path helpers of the library's path form: UTF-16, '/' separators, directories ending in '/'.
#pragma once

#include <string_view>

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

}  // namespace zr::os
