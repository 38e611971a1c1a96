// Windows-semantics printf engine over a typed argument array.
#include "platform/wformat.h"

#include <cstdio>
#include <cstring>

#include "platform/formatspec.h"
#include "platform/text.h"

namespace zr::os {

namespace {

class ArgReader {
 public:
  ArgReader(const FormatArg* args, std::size_t count) : args_(args), count_(count) {}
  const FormatArg* Next() { return index_ < count_ ? &args_[index_++] : nullptr; }

 private:
  const FormatArg* args_;
  std::size_t count_;
  std::size_t index_ = 0;
};

void Pad(std::u16string& out, int n, char16_t c) {
  if (n > 0) out.append(static_cast<std::size_t>(n), c);
}

// Writes prefix, `zeros` zero digits and body, padded to the width by '-' and '0' rules.
void EmitPadded(std::u16string& out, const FormatSpec& s, std::u16string_view prefix, std::size_t zeros,
                std::u16string_view body, bool zero_allowed) {
  const std::size_t len = prefix.size() + zeros + body.size();
  const int fill = s.width > static_cast<int>(len) ? s.width - static_cast<int>(len) : 0;
  if (!s.left && !(s.zero && zero_allowed)) Pad(out, fill, u' ');
  out.append(prefix);
  if (!s.left && s.zero && zero_allowed) Pad(out, fill, u'0');
  out.append(zeros, u'0');
  out.append(body);
  if (s.left) Pad(out, fill, u' ');
}

std::uint64_t IntegerBits(const FormatArg* a) {
  if (!a) return 0;
  switch (a->kind) {
    case FormatArg::Kind::kInt: return a->bits;
    case FormatArg::Kind::kDouble: return static_cast<std::uint64_t>(static_cast<std::int64_t>(a->real));
    case FormatArg::Kind::kPointer: return reinterpret_cast<std::uintptr_t>(a->pointer);
    case FormatArg::Kind::kNarrow: return reinterpret_cast<std::uintptr_t>(a->narrow);
    case FormatArg::Kind::kWide: return reinterpret_cast<std::uintptr_t>(a->wide);
  }
  return 0;
}

// Truncates the argument to the conversion's size, as the C library reads it from the stack.
std::uint64_t Truncate(std::uint64_t v, int bytes) {
  return bytes >= 8 ? v : (v & ((std::uint64_t{1} << (bytes * 8)) - 1));
}

std::int64_t SignExtend(std::uint64_t v, int bytes) {
  if (bytes >= 8) return static_cast<std::int64_t>(v);
  const int shift = 64 - bytes * 8;
  return static_cast<std::int64_t>(v << shift) >> shift;
}

void FormatInteger(std::u16string& out, const FormatSpec& s, char conv, int bytes, const FormatArg* arg) {
  const std::uint64_t raw = Truncate(IntegerBits(arg), bytes);
  const bool is_signed = conv == 'd' || conv == 'i';
  bool negative = false;
  std::uint64_t magnitude = raw;
  if (is_signed) {
    const std::int64_t v = SignExtend(raw, bytes);
    negative = v < 0;
    magnitude = negative ? 0 - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
  }
  const unsigned base = (conv == 'x' || conv == 'X') ? 16 : (conv == 'o' ? 8 : 10);
  const char* digits = conv == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
  // Digits fill the buffer from its end, so no reversal and no allocation.
  char16_t buffer[72];
  std::size_t first = sizeof buffer / sizeof buffer[0];
  for (std::uint64_t v = magnitude; v != 0; v /= base) buffer[--first] = static_cast<char16_t>(digits[v % base]);
  const std::u16string_view body(buffer + first, sizeof buffer / sizeof buffer[0] - first);
  const std::size_t min_digits = s.precision >= 0 ? static_cast<std::size_t>(s.precision) : 1;
  std::size_t zeros = min_digits > body.size() ? min_digits - body.size() : 0;
  if (conv == 'o' && s.alt && zeros == 0) zeros = 1;  // the '#' octal form starts with a 0
  char16_t prefix[3];
  std::size_t prefix_len = 0;
  if (negative) prefix[prefix_len++] = u'-';
  else if (is_signed && s.plus) prefix[prefix_len++] = u'+';
  else if (is_signed && s.space) prefix[prefix_len++] = u' ';
  if (s.alt && magnitude != 0 && base == 16) {
    prefix[prefix_len++] = u'0';
    prefix[prefix_len++] = conv == 'X' ? u'X' : u'x';
  }
  EmitPadded(out, s, std::u16string_view(prefix, prefix_len), zeros, body, s.precision < 0);
}

void FormatPointer(std::u16string& out, FormatSpec s, const FormatArg* arg) {
  s.precision = 16;
  FormatInteger(out, s, 'X', 8, arg);
}

void FormatReal(std::u16string& out, const FormatSpec& s, char conv, const FormatArg* arg) {
  double value = 0;
  if (arg && arg->kind == FormatArg::Kind::kDouble) value = arg->real;
  else if (arg && arg->kind == FormatArg::Kind::kInt)
    value = arg->is_signed ? static_cast<double>(static_cast<std::int64_t>(arg->bits)) : static_cast<double>(arg->bits);
  char spec[32];
  int p = 0;
  spec[p++] = '%';
  if (s.left) spec[p++] = '-';
  if (s.plus) spec[p++] = '+';
  if (s.space) spec[p++] = ' ';
  if (s.alt) spec[p++] = '#';
  if (s.zero) spec[p++] = '0';
  spec[p++] = '*';
  spec[p++] = '.';
  spec[p++] = '*';
  spec[p++] = conv;
  spec[p] = 0;
  const int precision = s.precision >= 0 ? (s.precision > 512 ? 512 : s.precision) : 6;
  const int width = s.width > 4096 ? 4096 : s.width;
  char small[128];
  const int len = std::snprintf(small, sizeof small, spec, width, precision, value);
  if (len < 0) return;
  if (static_cast<std::size_t>(len) < sizeof small) {
    out.append(small, small + len);
    return;
  }
  std::string big(static_cast<std::size_t>(len) + 1, '\0');
  std::snprintf(big.data(), big.size(), spec, width, precision, value);
  out.append(big.begin(), big.begin() + len);
}

// 'h' forces narrow, 'l'/'w' force wide; otherwise %s follows the format's width and %S the other.
bool IsWide(const FormatSpec& s, bool wide_default, bool upper) {
  switch (TextWidth(s.length)) {
    case FormatTextWidth::kNarrow: return false;
    case FormatTextWidth::kWide: return true;
    case FormatTextWidth::kDefault: break;
  }
  return wide_default != upper;
}

void FormatString(std::u16string& out, const FormatSpec& s, bool wide_default, bool upper, const FormatArg* arg) {
  const bool wide = IsWide(s, wide_default, upper);
  const bool is_text = arg && (arg->kind == FormatArg::Kind::kNarrow || arg->kind == FormatArg::Kind::kWide);
  if (!arg || (!is_text && !(arg->kind == FormatArg::Kind::kPointer && arg->pointer == nullptr))) {
    EmitPadded(out, s, {}, 0, u"(?)", false);
  } else if (!is_text || (arg->kind == FormatArg::Kind::kNarrow ? !arg->narrow : !arg->wide)) {
    EmitPadded(out, s, {}, 0, u"(null)", false);
  } else if (arg->kind == FormatArg::Kind::kWide || (wide && arg->kind != FormatArg::Kind::kNarrow)) {
    std::u16string_view w(arg->wide);
    if (s.precision >= 0 && static_cast<std::size_t>(s.precision) < w.size()) w = w.substr(0, s.precision);
    EmitPadded(out, s, {}, 0, w, false);
  } else {
    // Converted straight into the output; the padding goes in front of it or after it.
    std::string_view n(arg->narrow);
    if (s.precision >= 0 && static_cast<std::size_t>(s.precision) < n.size()) n = n.substr(0, s.precision);
    const std::size_t start = out.size();
    AppendUtf8AsUtf16(out, n);
    const std::size_t produced = out.size() - start;
    if (s.width > static_cast<int>(produced)) {
      const std::size_t fill = static_cast<std::size_t>(s.width) - produced;
      if (s.left) out.append(fill, u' ');
      else out.insert(start, fill, u' ');
    }
  }
}

void FormatChar(std::u16string& out, const FormatSpec& s, bool wide_default, bool upper, const FormatArg* arg) {
  const bool wide = IsWide(s, wide_default, upper);
  const std::uint64_t v = IntegerBits(arg);
  const char16_t c = wide ? static_cast<char16_t>(v & 0xFFFF) : static_cast<char16_t>(v & 0xFF);
  EmitPadded(out, s, {}, 0, std::u16string_view(&c, 1), false);
}

// The argument of a '*', read as the int it is.
int StarArgument(ArgReader& args) {
  return static_cast<int>(SignExtend(Truncate(IntegerBits(args.Next()), 4), 4));
}

void Format(std::u16string& out, std::u16string_view f, const FormatArg* list, std::size_t count,
            bool wide_default) {
  ArgReader args(list, count);
  std::size_t i = 0;
  while (i < f.size()) {
    const std::size_t next = f.find(u'%', i);
    if (next == std::u16string_view::npos) {
      out.append(f.substr(i));
      return;
    }
    out.append(f.substr(i, next - i));
    FormatSpec s = ParseFormatSpec(f.substr(next));
    const std::u16string_view written = f.substr(next, s.size);
    i = next + s.size;
    if (s.width_from_arg) SetWidthFromArg(s, StarArgument(args));
    if (s.precision_from_arg) SetPrecisionFromArg(s, StarArgument(args));
    switch (s.kind) {
      case FormatKind::kPercent:
        out.push_back(u'%');
        break;
      case FormatKind::kSigned:
      case FormatKind::kUnsigned:
        FormatInteger(out, s, s.conversion, IntegerBytes(s.length), args.Next());
        break;
      case FormatKind::kPointer:
        FormatPointer(out, s, args.Next());
        break;
      case FormatKind::kReal:
        FormatReal(out, s, s.conversion, args.Next());
        break;
      case FormatKind::kString:
        FormatString(out, s, wide_default, s.conversion == 'S', args.Next());
        break;
      case FormatKind::kChar:
        FormatChar(out, s, wide_default, s.conversion == 'C', args.Next());
        break;
      case FormatKind::kCount:  // never writes through an argument
        args.Next();
        break;
      case FormatKind::kUnknown:    // shown literally so the mistake is visible
      case FormatKind::kTruncated:  // a lone '%' at the end prints itself
        out.append(written);
        break;
    }
  }
}

}  // namespace

void AppendFormatWide(std::u16string& out, std::u16string_view format, const FormatArg* args, std::size_t count) {
  Format(out, format, args, count, true);
}

void AppendFormatNarrow(std::string& out, std::string_view format, const FormatArg* args, std::size_t count) {
  std::u16string wide;
  Format(wide, Utf8ToUtf16(format), args, count, false);
  AppendUtf16AsUtf8(out, wide);
}

}  // namespace zr::os
