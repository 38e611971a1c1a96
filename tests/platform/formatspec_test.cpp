// The parser of printf conversion specifications: flags, width, precision, length modifiers, conversions.
#include <gtest/gtest.h>

#include <string>

#include "platform/formatspec.h"
#include "platform/text.h"

namespace {

using zr::os::FormatKind;
using zr::os::FormatLength;
using zr::os::FormatSpec;
using zr::os::ParseFormatSpec;

struct LengthCase {
  const char* text;
  FormatLength length;
  int integer_bytes;
  char conversion;
  std::size_t size;
};

// Every length modifier of the dialect: int and long are 32-bit, "I", "z", "j", "t" 64-bit.
constexpr LengthCase kLengths[] = {
    {"%d", FormatLength::kNone, 4, 'd', 2},          {"%hhd", FormatLength::kChar, 1, 'd', 4},
    {"%hd", FormatLength::kShort, 2, 'd', 3},        {"%ld", FormatLength::kLong, 4, 'd', 3},
    {"%lld", FormatLength::kLongLong, 8, 'd', 4},    {"%I32u", FormatLength::kI32, 4, 'u', 5},
    {"%I64x", FormatLength::kI64, 8, 'x', 5},        {"%Iu", FormatLength::kPointerSize, 8, 'u', 3},
    {"%zu", FormatLength::kSize, 8, 'u', 3},         {"%jd", FormatLength::kIntMax, 8, 'd', 3},
    {"%td", FormatLength::kPtrDiff, 8, 'd', 3},      {"%Lf", FormatLength::kLongDouble, 8, 'f', 3},
    {"%wc", FormatLength::kWide, 4, 'c', 3},         {"%I6d", FormatLength::kPointerSize, 8, '6', 3},
    {"%I3", FormatLength::kPointerSize, 8, '3', 3},
};

TEST(FormatSpec, LengthModifiers) {
  for (const LengthCase& c : kLengths) {
    SCOPED_TRACE(c.text);
    const FormatSpec s = ParseFormatSpec(std::string_view(c.text));
    EXPECT_EQ(s.length, c.length);
    EXPECT_EQ(zr::os::IntegerBytes(s.length), c.integer_bytes);
    EXPECT_EQ(s.conversion, c.conversion);
    EXPECT_EQ(s.size, c.size);
    // The wide parser reads the same text alike.
    const FormatSpec w = ParseFormatSpec(std::u16string_view(zr::os::Utf8ToUtf16(c.text)));
    EXPECT_EQ(w.length, s.length);
    EXPECT_EQ(w.kind, s.kind);
    EXPECT_EQ(w.size, s.size);
  }
}

TEST(FormatSpec, TextWidthOfModifiers) {
  EXPECT_EQ(zr::os::TextWidth(FormatLength::kNone), zr::os::FormatTextWidth::kDefault);
  EXPECT_EQ(zr::os::TextWidth(FormatLength::kShort), zr::os::FormatTextWidth::kNarrow);
  EXPECT_EQ(zr::os::TextWidth(FormatLength::kChar), zr::os::FormatTextWidth::kNarrow);
  EXPECT_EQ(zr::os::TextWidth(FormatLength::kLong), zr::os::FormatTextWidth::kWide);
  EXPECT_EQ(zr::os::TextWidth(FormatLength::kLongLong), zr::os::FormatTextWidth::kWide);
  EXPECT_EQ(zr::os::TextWidth(FormatLength::kWide), zr::os::FormatTextWidth::kWide);
  EXPECT_EQ(zr::os::TextWidth(FormatLength::kI64), zr::os::FormatTextWidth::kDefault);
}

struct KindCase {
  const char* text;
  FormatKind kind;
  std::size_t size;
};

constexpr KindCase kKinds[] = {
    {"%d", FormatKind::kSigned, 2},     {"%i", FormatKind::kSigned, 2},     {"%u", FormatKind::kUnsigned, 2},
    {"%o", FormatKind::kUnsigned, 2},   {"%x", FormatKind::kUnsigned, 2},   {"%X", FormatKind::kUnsigned, 2},
    {"%p", FormatKind::kPointer, 2},    {"%f", FormatKind::kReal, 2},       {"%G", FormatKind::kReal, 2},
    {"%a", FormatKind::kReal, 2},       {"%s", FormatKind::kString, 2},     {"%S", FormatKind::kString, 2},
    {"%c", FormatKind::kChar, 2},       {"%C", FormatKind::kChar, 2},       {"%n", FormatKind::kCount, 2},
    {"%%", FormatKind::kPercent, 2},    {"%%d", FormatKind::kPercent, 2},   {"%q", FormatKind::kUnknown, 2},
    {"%Z", FormatKind::kUnknown, 2},    {"%5%", FormatKind::kUnknown, 3},   {"%hz", FormatKind::kUnknown, 3},
    {"%-08.3ly", FormatKind::kUnknown, 8},
    // Specifications cut by the end of the format cover the rest of it.
    {"%", FormatKind::kTruncated, 1},   {"%5", FormatKind::kTruncated, 2},  {"%-", FormatKind::kTruncated, 2},
    {"%.", FormatKind::kTruncated, 2},  {"%l", FormatKind::kTruncated, 2},  {"%I64", FormatKind::kTruncated, 4},
    {"%*.*", FormatKind::kTruncated, 4}, {"%#0", FormatKind::kTruncated, 3},
};

TEST(FormatSpec, ConversionsAndTruncatedSpecifications) {
  for (const KindCase& c : kKinds) {
    SCOPED_TRACE(c.text);
    const FormatSpec s = ParseFormatSpec(std::string_view(c.text));
    EXPECT_EQ(s.kind, c.kind);
    EXPECT_EQ(s.size, c.size);
  }
}

TEST(FormatSpec, FlagsWidthAndPrecision) {
  FormatSpec s = ParseFormatSpec(std::string_view("%-+ #012.5d tail"));
  EXPECT_TRUE(s.left && s.plus && s.space && s.alt && s.zero);
  EXPECT_EQ(s.width, 12);
  EXPECT_EQ(s.precision, 5);
  EXPECT_EQ(s.size, 11u);

  s = ParseFormatSpec(std::string_view("%5s"));
  EXPECT_FALSE(s.left || s.plus || s.space || s.alt || s.zero);
  EXPECT_EQ(s.width, 5);
  EXPECT_EQ(s.precision, -1);  // none given

  s = ParseFormatSpec(std::string_view("%.d"));
  EXPECT_EQ(s.precision, 0);  // a '.' alone is precision 0

  s = ParseFormatSpec(std::string_view("%999999999.3000000000d"));
  EXPECT_EQ(s.width, zr::os::kMaxFormatWidth);
  EXPECT_EQ(s.precision, zr::os::kMaxFormatWidth);
}

TEST(FormatSpec, StarWidthAndPrecisionComeFromArguments) {
  FormatSpec s = ParseFormatSpec(std::string_view("%*.*f"));
  EXPECT_TRUE(s.width_from_arg);
  EXPECT_TRUE(s.precision_from_arg);
  EXPECT_EQ(s.kind, FormatKind::kReal);
  EXPECT_EQ(s.size, 5u);
  zr::os::SetWidthFromArg(s, 7);
  zr::os::SetPrecisionFromArg(s, 2);
  EXPECT_EQ(s.width, 7);
  EXPECT_EQ(s.precision, 2);
  EXPECT_FALSE(s.left);

  // A negative width left-justifies; a negative precision is none.
  zr::os::SetWidthFromArg(s, -4);
  zr::os::SetPrecisionFromArg(s, -1);
  EXPECT_TRUE(s.left);
  EXPECT_EQ(s.width, 4);
  EXPECT_EQ(s.precision, -1);

  zr::os::SetWidthFromArg(s, -2147483647 - 1);
  EXPECT_EQ(s.width, zr::os::kMaxFormatWidth);
  zr::os::SetPrecisionFromArg(s, 2147483647);
  EXPECT_EQ(s.precision, zr::os::kMaxFormatWidth);

  s = ParseFormatSpec(std::string_view("%-*d"));
  EXPECT_TRUE(s.left && s.width_from_arg && !s.precision_from_arg);
}

TEST(FormatSpec, NonAsciiConversionIsUnknown) {
  const std::u16string text = u"%5\u00E9";
  const FormatSpec s = ParseFormatSpec(std::u16string_view(text));
  EXPECT_EQ(s.kind, FormatKind::kUnknown);
  EXPECT_EQ(s.conversion, 0);
  EXPECT_EQ(s.size, 3u);
}

}  // namespace
