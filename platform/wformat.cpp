// Windows-semantics printf engine over a typed argument array.
#include "platform/wformat.h"

#include <cstdio>
#include <cstring>

#include "platform/text.h"

namespace zr::os {

namespace {

struct Spec {
  bool left = false, plus = false, space = false, alt = false, zero = false;
  int width = 0;
  int precision = -1;
  int int_bytes = 4;        // default integer size of Windows' printf (int and long are 32-bit)
  int string_form = 0;      // 0 default, 'h' narrow, 'l' wide
};

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
void EmitPadded(std::u16string& out, const Spec& s, std::u16string_view prefix, std::size_t zeros,
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

void FormatInteger(std::u16string& out, const Spec& s, char conv, const FormatArg* arg) {
  const std::uint64_t raw = Truncate(IntegerBits(arg), s.int_bytes);
  const bool is_signed = conv == 'd' || conv == 'i';
  bool negative = false;
  std::uint64_t magnitude = raw;
  if (is_signed) {
    const std::int64_t v = SignExtend(raw, s.int_bytes);
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

void FormatPointer(std::u16string& out, Spec s, const FormatArg* arg) {
  s.int_bytes = 8;
  s.precision = 16;
  FormatInteger(out, s, 'X', arg);
}

void FormatReal(std::u16string& out, const Spec& s, char conv, const FormatArg* arg) {
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

void FormatString(std::u16string& out, const Spec& s, bool wide_default, bool upper, const FormatArg* arg) {
  // 'h' forces narrow, 'l'/'w' force wide; otherwise %s follows the format's width and %S the other.
  bool wide = wide_default != upper;
  if (s.string_form == 'h') wide = false;
  if (s.string_form == 'l') wide = true;
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

void FormatChar(std::u16string& out, const Spec& s, bool wide_default, bool upper, const FormatArg* arg) {
  bool wide = wide_default != upper;
  if (s.string_form == 'h') wide = false;
  if (s.string_form == 'l') wide = true;
  const std::uint64_t v = IntegerBits(arg);
  const char16_t c = wide ? static_cast<char16_t>(v & 0xFFFF) : static_cast<char16_t>(v & 0xFF);
  EmitPadded(out, s, {}, 0, std::u16string_view(&c, 1), false);
}

int ReadNumber(std::u16string_view f, std::size_t& i) {
  long long v = 0;
  while (i < f.size() && f[i] >= u'0' && f[i] <= u'9') {
    v = v * 10 + (f[i++] - u'0');
    if (v > 100000) v = 100000;  // absurd widths are capped, never allocate gigabytes
  }
  return static_cast<int>(v);
}

int StarArgument(ArgReader& args) {
  const auto v = SignExtend(Truncate(IntegerBits(args.Next()), 4), 4);
  return static_cast<int>(v < -100000 ? -100000 : (v > 100000 ? 100000 : v));
}

// Parses the length modifier at f[i]; returns false for a sequence that is not one.
void ReadLength(std::u16string_view f, std::size_t& i, Spec& s) {
  auto at = [&](std::size_t k) { return i + k < f.size() ? f[i + k] : char16_t{0}; };
  if (at(0) == u'I' && at(1) == u'6' && at(2) == u'4') { s.int_bytes = 8; i += 3; return; }
  if (at(0) == u'I' && at(1) == u'3' && at(2) == u'2') { s.int_bytes = 4; i += 3; return; }
  if (at(0) == u'I') { s.int_bytes = 8; i += 1; return; }
  if (at(0) == u'h' && at(1) == u'h') { s.int_bytes = 1; s.string_form = 'h'; i += 2; return; }
  if (at(0) == u'h') { s.int_bytes = 2; s.string_form = 'h'; i += 1; return; }
  if (at(0) == u'l' && at(1) == u'l') { s.int_bytes = 8; s.string_form = 'l'; i += 2; return; }
  if (at(0) == u'l' || at(0) == u'w') { s.int_bytes = 4; s.string_form = 'l'; i += 1; return; }
  if (at(0) == u'L') { s.int_bytes = 8; i += 1; return; }
  if (at(0) == u'z' || at(0) == u'j' || at(0) == u't') { s.int_bytes = 8; i += 1; return; }
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
    const std::size_t start = next;
    i = next + 1;
    if (i >= f.size()) {  // a lone '%' at the end prints itself
      out.push_back(u'%');
      return;
    }
    if (f[i] == u'%') {
      out.push_back(u'%');
      ++i;
      continue;
    }
    Spec s;
    for (bool flags = true; flags && i < f.size(); ) {
      switch (f[i]) {
        case u'-': s.left = true; ++i; break;
        case u'+': s.plus = true; ++i; break;
        case u' ': s.space = true; ++i; break;
        case u'#': s.alt = true; ++i; break;
        case u'0': s.zero = true; ++i; break;
        default: flags = false;
      }
    }
    if (i < f.size() && f[i] == u'*') {
      ++i;
      s.width = StarArgument(args);
      if (s.width < 0) { s.left = true; s.width = -s.width; }
    } else {
      s.width = ReadNumber(f, i);
    }
    if (i < f.size() && f[i] == u'.') {
      ++i;
      if (i < f.size() && f[i] == u'*') {
        ++i;
        s.precision = StarArgument(args);
        if (s.precision < 0) s.precision = -1;
      } else {
        s.precision = ReadNumber(f, i);
      }
    }
    ReadLength(f, i, s);
    if (i >= f.size()) {  // truncated specification: print it as it stands
      out.append(f.substr(start));
      return;
    }
    const char16_t conv = f[i++];
    switch (conv) {
      case u'd': case u'i': case u'u': case u'x': case u'X': case u'o':
        FormatInteger(out, s, static_cast<char>(conv), args.Next());
        break;
      case u'p':
        FormatPointer(out, s, args.Next());
        break;
      case u'f': case u'F': case u'e': case u'E': case u'g': case u'G': case u'a': case u'A':
        FormatReal(out, s, static_cast<char>(conv), args.Next());
        break;
      case u's': case u'S':
        FormatString(out, s, wide_default, conv == u'S', args.Next());
        break;
      case u'c': case u'C':
        FormatChar(out, s, wide_default, conv == u'C', args.Next());
        break;
      case u'n':  // never writes through an argument
        args.Next();
        break;
      default:  // unknown conversion: shown literally so the mistake is visible
        out.append(f.substr(start, i - start));
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
