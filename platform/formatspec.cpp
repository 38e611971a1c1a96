// The parser of printf conversion specifications, shared by every formatter of the library. It
// neither allocates nor calls the C library, so the crash handler may use it.
#include "platform/formatspec.h"

#include <type_traits>

namespace zr::os {
namespace {

// The character at `i` as a code, 0 past the end.
template <class Char>
char32_t At(std::basic_string_view<Char> text, std::size_t i) {
  return i < text.size() ? static_cast<char32_t>(static_cast<std::make_unsigned_t<Char>>(text[i])) : 0;
}

bool IsDigit(char32_t c) { return c >= U'0' && c <= U'9'; }

template <class Char>
int ReadCount(std::basic_string_view<Char> text, std::size_t& i) {
  int n = 0;
  for (; IsDigit(At(text, i)); ++i) {
    n = n * 10 + static_cast<int>(At(text, i) - U'0');
    if (n > kMaxFormatWidth) n = kMaxFormatWidth;
  }
  return n;
}

bool ReadFlag(char32_t c, FormatSpec& s) {
  switch (c) {
    case U'-': s.left = true; return true;
    case U'+': s.plus = true; return true;
    case U' ': s.space = true; return true;
    case U'#': s.alt = true; return true;
    case U'0': s.zero = true; return true;
    default: return false;
  }
}

// The modifier at `i` and its length in characters ("I" alone when not followed by "32" or "64").
template <class Char>
FormatLength ReadLength(std::basic_string_view<Char> text, std::size_t& i) {
  const char32_t c = At(text, i), d = At(text, i + 1), e = At(text, i + 2);
  auto take = [&i](std::size_t n, FormatLength length) {
    i += n;
    return length;
  };
  switch (c) {
    case U'I':
      if (d == U'6' && e == U'4') return take(3, FormatLength::kI64);
      if (d == U'3' && e == U'2') return take(3, FormatLength::kI32);
      return take(1, FormatLength::kPointerSize);
    case U'h': return d == U'h' ? take(2, FormatLength::kChar) : take(1, FormatLength::kShort);
    case U'l': return d == U'l' ? take(2, FormatLength::kLongLong) : take(1, FormatLength::kLong);
    case U'w': return take(1, FormatLength::kWide);
    case U'L': return take(1, FormatLength::kLongDouble);
    case U'z': return take(1, FormatLength::kSize);
    case U'j': return take(1, FormatLength::kIntMax);
    case U't': return take(1, FormatLength::kPtrDiff);
    default: return FormatLength::kNone;
  }
}

FormatKind KindOf(char32_t c) {
  switch (c) {
    case U'd': case U'i': return FormatKind::kSigned;
    case U'u': case U'o': case U'x': case U'X': return FormatKind::kUnsigned;
    case U'p': return FormatKind::kPointer;
    case U'f': case U'F': case U'e': case U'E': case U'g': case U'G': case U'a': case U'A': return FormatKind::kReal;
    case U's': case U'S': return FormatKind::kString;
    case U'c': case U'C': return FormatKind::kChar;
    case U'n': return FormatKind::kCount;
    default: return FormatKind::kUnknown;
  }
}

template <class Char>
FormatSpec Parse(std::basic_string_view<Char> text) {
  FormatSpec s;
  std::size_t i = 1;  // past the '%'
  if (At(text, i) == U'%') {
    s.kind = FormatKind::kPercent;
    s.conversion = '%';
    s.size = 2;
    return s;
  }
  while (i < text.size() && ReadFlag(At(text, i), s)) ++i;
  if (At(text, i) == U'*') {
    s.width_from_arg = true;
    ++i;
  } else {
    s.width = ReadCount(text, i);
  }
  if (At(text, i) == U'.') {
    ++i;
    if (At(text, i) == U'*') {
      s.precision_from_arg = true;
      ++i;
    } else {
      s.precision = ReadCount(text, i);
    }
  }
  s.length = ReadLength(text, i);
  if (i >= text.size()) {
    s.size = text.size();
    return s;  // kTruncated
  }
  const char32_t c = At(text, i);
  s.kind = KindOf(c);
  s.conversion = c < 0x80 ? static_cast<char>(c) : 0;
  s.size = i + 1;
  return s;
}

int Cap(int value) { return value > kMaxFormatWidth ? kMaxFormatWidth : value; }

}  // namespace

FormatSpec ParseFormatSpec(std::string_view text) { return Parse(text); }
FormatSpec ParseFormatSpec(std::u16string_view text) { return Parse(text); }

void SetWidthFromArg(FormatSpec& spec, int value) {
  if (value < 0) {
    spec.left = true;
    value = value < -kMaxFormatWidth ? kMaxFormatWidth : -value;
  }
  spec.width = Cap(value);
}

void SetPrecisionFromArg(FormatSpec& spec, int value) { spec.precision = value < 0 ? -1 : Cap(value); }

int IntegerBytes(FormatLength length) {
  switch (length) {
    case FormatLength::kChar: return 1;
    case FormatLength::kShort: return 2;
    case FormatLength::kLongLong:
    case FormatLength::kI64:
    case FormatLength::kPointerSize:
    case FormatLength::kSize:
    case FormatLength::kIntMax:
    case FormatLength::kPtrDiff:
    case FormatLength::kLongDouble: return 8;
    default: return 4;
  }
}

FormatTextWidth TextWidth(FormatLength length) {
  switch (length) {
    case FormatLength::kChar:
    case FormatLength::kShort: return FormatTextWidth::kNarrow;
    case FormatLength::kLong:
    case FormatLength::kLongLong:
    case FormatLength::kWide: return FormatTextWidth::kWide;
    default: return FormatTextWidth::kDefault;
  }
}

}  // namespace zr::os
