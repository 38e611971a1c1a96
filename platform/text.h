// UTF-16 <-> UTF-8 conversion and wide-string helpers (narrow text is UTF-8 everywhere).
#pragma once

#include <string>
#include <string_view>

#include "zrobj/export.h"

namespace zr::os {

// Invalid sequences become U+FFFD; a lone surrogate never produces invalid UTF-8.
std::u16string Utf8ToUtf16(std::string_view text);
std::string Utf16ToUtf8(std::u16string_view text);

// Appends the conversion to `out` (no temporary for the formatter's hot path).
void AppendUtf8AsUtf16(std::u16string& out, std::string_view text);
void AppendUtf16AsUtf8(std::string& out, std::u16string_view text);

// Length of a null-terminated UTF-16 string; 0 for null.
inline std::size_t WStrLen(const char16_t* s) {
  return s ? std::char_traits<char16_t>::length(s) : 0;
}

// Copies at most `capacity`-1 units and always terminates (when capacity > 0); returns units copied.
std::size_t WStrCopy(char16_t* dst, std::size_t capacity, std::u16string_view src);

}  // namespace zr::os
