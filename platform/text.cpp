// UTF-8 / UTF-16 conversions with replacement of malformed input.
#include "platform/text.h"

#include <algorithm>

namespace zr::os {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendCodePointUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

void AppendCodePointUtf16(std::u16string& out, char32_t cp) {
  if (cp < 0x10000) {
    out.push_back(static_cast<char16_t>(cp));
    return;
  }
  cp -= 0x10000;
  out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
  out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
}

// Decodes one UTF-8 sequence at text[i]; advances i past what was consumed.
char32_t DecodeUtf8(std::string_view text, std::size_t& i) {
  const auto lead = static_cast<unsigned char>(text[i++]);
  if (lead < 0x80) return lead;
  int extra;
  char32_t cp;
  char32_t min;
  if ((lead & 0xE0) == 0xC0) {
    extra = 1; cp = lead & 0x1F; min = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    extra = 2; cp = lead & 0x0F; min = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    extra = 3; cp = lead & 0x07; min = 0x10000;
  } else {
    return kReplacement;
  }
  for (int k = 0; k < extra; ++k) {
    if (i >= text.size()) return kReplacement;
    const auto c = static_cast<unsigned char>(text[i]);
    if ((c & 0xC0) != 0x80) return kReplacement;
    cp = (cp << 6) | (c & 0x3F);
    ++i;
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return kReplacement;
  return cp;
}

}  // namespace

void AppendUtf8AsUtf16(std::u16string& out, std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {  // fast path for ASCII
      out.push_back(c);
      ++i;
      continue;
    }
    AppendCodePointUtf16(out, DecodeUtf8(text, i));
  }
}

void AppendUtf16AsUtf8(std::string& out, std::u16string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t cp = text[i];
    if (cp < 0x80) {
      out.push_back(static_cast<char>(cp));
      continue;
    }
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
        text[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = kReplacement;
    }
    AppendCodePointUtf8(out, cp);
  }
}

std::u16string Utf8ToUtf16(std::string_view text) {
  std::u16string out;
  out.reserve(text.size());
  AppendUtf8AsUtf16(out, text);
  return out;
}

std::string Utf16ToUtf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  AppendUtf16AsUtf8(out, text);
  return out;
}

std::size_t WStrCopy(char16_t* dst, std::size_t capacity, std::u16string_view src) {
  if (!dst || capacity == 0) return 0;
  const std::size_t n = std::min(capacity - 1, src.size());
  std::copy_n(src.data(), n, dst);
  dst[n] = 0;
  return n;
}

}  // namespace zr::os
