// The bounded formatter of crash output: printf conversions into a fixed buffer, without allocating.
#include "platform/crashio.h"

#include <cstring>

#include "platform/formatspec.h"

namespace zr::os {
namespace {

// The argument of a '*': an integer's low 32 bits, 0 for anything else.
int StarValue(const FormatArg& a) { return a.kind == FormatArg::Kind::kInt ? static_cast<int>(a.bits) : 0; }

// The magnitude of an integer argument at `bits` bits, or at its own width when `bits` is 0.
std::uint64_t IntegerBits(const FormatArg& a, int bits, bool is_signed, bool* negative) {
  std::uint64_t v = a.kind == FormatArg::Kind::kPointer ? reinterpret_cast<std::uintptr_t>(a.pointer) : a.bits;
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

// The next argument; a missing one reads as a 32-bit zero.
const FormatArg& Take(const FormatArg* args, std::size_t count, std::size_t& next) {
  static const FormatArg kMissing = [] {
    FormatArg a{FormatArg::Kind::kInt};
    a.bytes = 4;
    return a;
  }();
  return next < count ? args[next++] : (++next, kMissing);
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
    FormatSpec s = ParseFormatSpec(f.substr(i));
    const std::string_view written = f.substr(i, s.size);
    i += s.size;
    if (s.width_from_arg) SetWidthFromArg(s, StarValue(Take(args, count, next)));
    if (s.precision_from_arg) SetPrecisionFromArg(s, StarValue(Take(args, count, next)));
    if (s.kind == FormatKind::kPercent) {
      Put('%');
      continue;
    }
    if (s.kind == FormatKind::kUnknown || s.kind == FormatKind::kTruncated) {
      Append(written);
      continue;
    }
    const FormatArg& a = Take(args, count, next);
    // Reals need the C library, which a signal handler cannot call: printed as written, argument skipped.
    if (s.kind == FormatKind::kReal) {
      Append(written);
      continue;
    }
    if (s.kind == FormatKind::kCount) continue;
    const char conv = s.conversion;
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
        // Without a length modifier an integer prints at its own width.
        const int bits = conv == 'p' ? 64 : s.length == FormatLength::kNone ? 0 : 8 * IntegerBytes(s.length);
        bool negative = false;
        std::uint64_t v = IntegerBits(a, bits, conv == 'd' || conv == 'i', &negative);
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
      default:  // the other kinds were handled above
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
