// One conversion specification of the library's printf dialect (the Windows one), parsed without
// allocating, so that the formatter, the crash writer and the event log read a format alike.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "zrobj/export.h"

namespace zr::os {

// The length modifier as written.
enum class FormatLength : std::uint8_t {
  kNone,
  kChar,         // hh
  kShort,        // h
  kLong,         // l (32-bit: long is 32-bit in this dialect)
  kLongLong,     // ll
  kI32,          // I32
  kI64,          // I64
  kPointerSize,  // I
  kSize,         // z
  kIntMax,       // j
  kPtrDiff,      // t
  kLongDouble,   // L
  kWide,         // w
};

// What a conversion prints, and so which argument it takes.
enum class FormatKind : std::uint8_t {
  kPercent,    // "%%": a percent sign, no argument
  kSigned,     // d i
  kUnsigned,   // u o x X
  kPointer,    // p
  kReal,       // f F e E g G a A
  kString,     // s S
  kChar,       // c C
  kCount,      // n: takes a pointer and writes nothing
  kUnknown,    // any other character: printed as written, no argument
  kTruncated,  // the format ends inside the conversion: printed as written
};

struct FormatSpec {
  bool left = false;   // '-'
  bool plus = false;   // '+'
  bool space = false;  // ' '
  bool alt = false;    // '#'
  bool zero = false;   // '0'
  bool width_from_arg = false;      // '*': the next argument is the width
  bool precision_from_arg = false;  // ".*": the next argument is the precision
  int width = 0;
  int precision = -1;  // -1: none given
  FormatLength length = FormatLength::kNone;
  FormatKind kind = FormatKind::kTruncated;
  char conversion = 0;    // the conversion character; 0 when truncated or not ASCII
  std::size_t size = 0;   // characters from the '%' through the conversion
};

// Widths and precisions are capped, so an absurd one never makes the output huge.
inline constexpr int kMaxFormatWidth = 100000;

// Parses the conversion at the start of `text`, which starts with '%'.
FormatSpec ParseFormatSpec(std::string_view text);
FormatSpec ParseFormatSpec(std::u16string_view text);

// Applies the argument of a '*': a negative width left-justifies, a negative precision is none.
void SetWidthFromArg(FormatSpec& spec, int value);
void SetPrecisionFromArg(FormatSpec& spec, int value);

// Bytes an integer conversion reads: 1 (hh), 2 (h), 8 (ll I64 I z j t L), else 4 (int and long).
int IntegerBytes(FormatLength length);

// The text a string or character conversion names: narrow (h hh), wide (l ll w), or the conversion's own.
enum class FormatTextWidth : std::uint8_t { kDefault, kNarrow, kWide };
FormatTextWidth TextWidth(FormatLength length);

}  // namespace zr::os
