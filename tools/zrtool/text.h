// zrtool's conversions between its UTF-8 command line and the library's UTF-16 text.
#pragma once

#include <string>
#include <string_view>

#include "zrobj/cpstr.h"

namespace zrtool {

// Text stops at an embedded 0, as the library's 0-terminated strings do.
inline std::u16string ToWide(const std::string& text) {
  std::u16string wide(DF_WideLen(text.c_str()) + 1, u'\0');
  DF_ToWideBuffer(wide.data(), text.c_str(), static_cast<UINT>(wide.size()));
  wide.pop_back();
  return wide;
}

inline std::string ToNarrow(std::u16string_view text) {
  const std::u16string terminated(text);
  std::string narrow(DF_ANSILen(terminated.c_str()) + 1, '\0');
  DF_ToANSIBuffer(narrow.data(), terminated.c_str(), static_cast<UINT>(narrow.size()));
  narrow.pop_back();
  return narrow;
}

}  // namespace zrtool
