// The bounded formatter of crash output: printf conversions into a fixed buffer, without allocating.
#include "platform/crashio.h"

#include <cstring>

namespace zr::os {

namespace {

struct Spec {
  bool left = false, zero = false, plus = false, space = false, alt = false;
  int width = 0;
  int precision = -1;
  int size_bits = 0;  // 0: the argument's own width; 8, 16, 32 or 64 forced by a prefix
};

// Parses a number or "*" (taken from the arguments) at `i`.
int ParseCount(std::string_view f, std::size_t& i, const FormatArg* args, std::size_t count, std::size_t& next) {
  if (i < f.size() && f[i] == '*') {
    ++i;
    if (next < count && args[next].kind == FormatArg::Kind::kInt) return static_cast<int>(args[next++].bits);
    ++next;
    return 0;
  }
  int n = 0;
  while (i < f.size() && f[i] >= '0' && f[i] <= '9') {
    if (n < 100000) n = n * 10 + (f[i] - '0');
    ++i;
  }
  return n;
}

std::uint64_t IntegerBits(const FormatArg& a, const Spec& s, bool is_signed, bool* negative) {
  std::uint64_t v = a.kind == FormatArg::Kind::kPointer ? reinterpret_cast<std::uintptr_t>(a.pointer) : a.bits;
  int bits = s.size_bits;
  if (bits == 0) bits = a.kind == FormatArg::Kind::kInt && a.bytes > 4 ? 64 : (a.kind == FormatArg::Kind::kPointer ? 64 : 32);
  if (bits < 64) v &= (std::uint64_t{1} << bits) - 1;
  *negative = false;
  if (is_signed && bits < 64 && (v >> (bits - 1)) & 1) {
    *negative = true;
    v = (~v + 1) & ((std::uint64_t{1} << bits) - 1);
  } else if (is_signed && bits == 64 && (v >> 63)) {
    *negative = true;
    v = ~v + 1;
  }
  return v;
}

}  // namespace

FixedText::FixedText(char* buffer, std::size_t capacity) : buffer_(buffer), capacity_(capacity) { Clear(); }

void FixedText::Clear() {
  size_ = 0;
  truncated_ = false;
  if (capacity_) buffer_[0] = 0;
}

void FixedText::Put(char c) {
  if (size_ + 1 >= capacity_) {
    truncated_ = true;
    return;
  }
  buffer_[size_++] = c;
  buffer_[size_] = 0;
}

void FixedText::PutRepeated(char c, std::size_t n) {
  for (std::size_t k = 0; k < n && !truncated_; ++k) Put(c);
}

void FixedText::Append(std::string_view text) {
  for (char c : text) Put(c);
}

void FixedText::PutCodePoint(char32_t c) {
  if (c < 0x80) {
    Put(static_cast<char>(c));
  } else if (c < 0x800) {
    Put(static_cast<char>(0xC0 | (c >> 6)));
    Put(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    Put(static_cast<char>(0xE0 | (c >> 12)));
    Put(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    Put(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    Put(static_cast<char>(0xF0 | (c >> 18)));
    Put(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    Put(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    Put(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

void FixedText::AppendWide(std::u16string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c < 0xE000) {
      c = 0xFFFD;  // lone surrogate
    }
    PutCodePoint(c);
  }
}

void FixedText::FormatV(std::string_view f, const FormatArg* args, std::size_t count) {
  std::size_t next = 0;
  for (std::size_t i = 0; i < f.size();) {
    if (f[i] != '%') {
      Put(f[i++]);
      continue;
    }
    const std::size_t start = i++;
    Spec s;
    for (; i < f.size(); ++i) {
      const char c = f[i];
      if (c == '-') s.left = true;
      else if (c == '0') s.zero = true;
      else if (c == '+') s.plus = true;
      else if (c == ' ') s.space = true;
      else if (c == '#') s.alt = true;
      else break;
    }
    s.width = ParseCount(f, i, args, count, next);
    if (s.width < 0) {
      s.left = true;
      s.width = -s.width;
    }
    if (i < f.size() && f[i] == '.') {
      ++i;
      s.precision = ParseCount(f, i, args, count, next);
    }
    // Size prefixes; "l" and "w" only name the string width, which the typed argument knows anyway.
    if (f.substr(i, 3) == "I64") s.size_bits = 64, i += 3;
    else if (f.substr(i, 3) == "I32") s.size_bits = 32, i += 3;
    else if (f.substr(i, 2) == "hh") s.size_bits = 8, i += 2;
    else if (f.substr(i, 2) == "ll") s.size_bits = 64, i += 2;
    else if (i < f.size() && f[i] == 'h') s.size_bits = 16, ++i;
    else if (i < f.size() && (f[i] == 'l' || f[i] == 'w')) ++i;
    else if (i < f.size() && (f[i] == 'z' || f[i] == 'I')) s.size_bits = 64, ++i;
    if (i >= f.size()) {
      Append(f.substr(start));
      break;
    }
    const char conv = f[i++];
    if (conv == '%') {
      Put('%');
      continue;
    }
    static const FormatArg kMissing = [] {
      FormatArg a{FormatArg::Kind::kInt};
      a.bytes = 4;
      return a;
    }();
    const FormatArg& a = next < count ? args[next] : kMissing;
    ++next;
    // The text of the conversion before padding: digits, a character or a string.
    char digits[72];
    std::size_t ndigits = 0;
    const char* prefix = "";
    std::string_view str;
    std::u16string_view wstr;
    bool is_wide = false, is_char = false;
    char32_t ch = 0;
    switch (conv) {
      case 'd':
      case 'i':
      case 'u':
      case 'x':
      case 'X':
      case 'o':
      case 'p': {
        if (a.kind != FormatArg::Kind::kInt && a.kind != FormatArg::Kind::kPointer) {
          str = "(?)";
          break;
        }
        Spec is = s;
        if (conv == 'p') is.size_bits = 64;
        bool negative = false;
        std::uint64_t v = IntegerBits(a, is, conv == 'd' || conv == 'i', &negative);
        const unsigned base = conv == 'x' || conv == 'X' || conv == 'p' ? 16 : conv == 'o' ? 8 : 10;
        const char* set = conv == 'x' ? "0123456789abcdef" : "0123456789ABCDEF";
        char rev[64];
        std::size_t n = 0;
        do {
          rev[n++] = set[v % base];
          v /= base;
        } while (v && n < sizeof rev);
        const int min_digits = conv == 'p' ? 16 : s.precision;
        for (int k = static_cast<int>(n); k < min_digits && ndigits < 64 - n; ++k) digits[ndigits++] = '0';
        while (n) digits[ndigits++] = rev[--n];
        if (negative) prefix = "-";
        else if (s.plus && (conv == 'd' || conv == 'i')) prefix = "+";
        else if (s.space && (conv == 'd' || conv == 'i')) prefix = " ";
        else if (s.alt && base == 16 && conv != 'p') prefix = conv == 'x' ? "0x" : "0X";
        break;
      }
      case 'c':
      case 'C':
        is_char = true;
        ch = a.kind == FormatArg::Kind::kInt ? static_cast<char32_t>(a.bits & 0xFFFF) : U'?';
        if (ch == 0) is_char = false;  // a NUL character prints as nothing
        break;
      case 's':
      case 'S':
        if (a.kind == FormatArg::Kind::kNarrow) str = a.narrow ? std::string_view(a.narrow) : "(null)";
        else if (a.kind == FormatArg::Kind::kWide && a.wide) is_wide = true, wstr = a.wide;
        else if (a.kind == FormatArg::Kind::kWide || (a.kind == FormatArg::Kind::kPointer && !a.pointer)) str = "(null)";
        else str = "(?)";
        if (s.precision >= 0) {
          if (is_wide && wstr.size() > static_cast<std::size_t>(s.precision)) wstr = wstr.substr(0, s.precision);
          if (!is_wide && str.size() > static_cast<std::size_t>(s.precision)) str = str.substr(0, s.precision);
        }
        break;
      default:  // unknown conversion: printed as written
        Append(f.substr(start, i - start));
        continue;
    }
    // Width in characters (UTF-16 units for wide strings, bytes otherwise).
    const std::size_t body = ndigits ? ndigits + std::strlen(prefix)
                             : is_wide ? wstr.size()
                             : is_char ? 1
                                       : str.size();
    const std::size_t pad = static_cast<std::size_t>(s.width) > body ? s.width - body : 0;
    const bool zero_pad = s.zero && !s.left && ndigits && s.precision < 0;
    if (!s.left && !zero_pad) PutRepeated(' ', pad);
    Append(prefix);
    if (zero_pad) PutRepeated('0', pad);
    if (ndigits) Append(std::string_view(digits, ndigits));
    else if (is_wide) AppendWide(wstr);
    else if (is_char) PutCodePoint(ch);
    else Append(str);
    if (s.left) PutRepeated(' ', pad);
  }
}

std::size_t Utf8ToUtf16Fixed(std::string_view text, char16_t* out, std::size_t capacity) {
  if (!out || capacity == 0) return 0;
  std::size_t n = 0;
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i++]);
    int extra = lead < 0x80 ? 0 : (lead & 0xE0) == 0xC0 ? 1 : (lead & 0xF0) == 0xE0 ? 2 : (lead & 0xF8) == 0xF0 ? 3 : -1;
    char32_t cp = extra == 0 ? lead : extra == 1 ? (lead & 0x1F) : extra == 2 ? (lead & 0x0F) : (lead & 0x07);
    static constexpr char32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    bool ok = extra >= 0;
    for (int k = 0; ok && k < extra; ++k) {
      if (i >= text.size() || (static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
        ok = false;
        break;
      }
      cp = (cp << 6) | (static_cast<unsigned char>(text[i++]) & 0x3F);
    }
    if (!ok || cp < kMin[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp < 0xE000)) cp = 0xFFFD;
    const std::size_t units = cp >= 0x10000 ? 2 : 1;
    if (n + units + 1 > capacity) break;
    if (units == 2) {
      out[n++] = static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
      out[n++] = static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
    } else {
      out[n++] = static_cast<char16_t>(cp);
    }
  }
  out[n] = 0;
  return n;
}

}  // namespace zr::os
