// The DF_ conversions: sizes and lengths, conversions into buffers that fit or cut, and the repair
// of loaded text fields.
#include "zrobj/cpstr.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(DFInit, RefusesBuffersOfFewerThanThreeBytes) {
  unsigned char buffer[2] = {0xAA, 0xBB};
  EXPECT_EQ(DF_Init(buffer, 2), 0);
  EXPECT_EQ(buffer[0], 0xAA);
  EXPECT_EQ(buffer[1], 0xBB);
}

TEST(DFInit, ClearsTheFirstAndLastWholeUnit) {
  WCHAR buffer[3] = {u'a', u'b', u'c'};
  EXPECT_EQ(DF_Init(buffer, 5), 1);  // two whole units: 0 and 1
  EXPECT_EQ(buffer[0], 0);
  EXPECT_EQ(buffer[1], 0);
  EXPECT_EQ(buffer[2], u'c');
}

TEST(DFSizes, NullEmptyAndMultiByteText) {
  EXPECT_EQ(DF_WideBufferSize(nullptr), 0u);
  EXPECT_EQ(DF_WideBufferSize(""), 2u);
  EXPECT_EQ(DF_WideBufferSize("abc"), 8u);
  EXPECT_EQ(DF_WideBufferSize("caf\xC3\xA9"), 10u);
  EXPECT_EQ(DF_WideBufferSize("\xF0\x9F\x98\x80"), 6u);  // one character, a surrogate pair
  EXPECT_EQ(DF_ANSIBufferSize(nullptr), 0u);
  EXPECT_EQ(DF_ANSIBufferSize(u""), 1u);
  EXPECT_EQ(DF_ANSIBufferSize(u"caf\u00e9"), 6u);
  EXPECT_EQ(DF_WideLen(nullptr), 0u);
  EXPECT_EQ(DF_WideLen(""), 0u);
  EXPECT_EQ(DF_WideLen("caf\xC3\xA9"), 4u);
  EXPECT_EQ(DF_ANSILen(nullptr), 0u);
  EXPECT_EQ(DF_ANSILen(u""), 0u);
  EXPECT_EQ(DF_ANSILen(u"caf\u00e9"), 5u);
  EXPECT_EQ(DF_ANSILen(u"\U0001F600"), 4u);
}

TEST(DFToWideBuffer, ZeroOrNullArgumentsConvertNothing) {
  WCHAR dest[4] = {u'x', u'x', u'x', u'x'};
  EXPECT_EQ(DF_ToWideBuffer(nullptr, "a", 4), 0u);
  EXPECT_EQ(DF_ToWideBuffer(dest, nullptr, 4), 0u);
  EXPECT_EQ(DF_ToWideBuffer(dest, "a", 0), 0u);
  EXPECT_EQ(dest[0], u'x');
}

TEST(DFToWideBuffer, WholeTextCountsItsTerminator) {
  WCHAR dest[8];
  EXPECT_EQ(DF_ToWideBuffer(dest, "caf\xC3\xA9", 8), 5u);
  EXPECT_EQ(std::u16string(dest), u"caf\u00e9");
  EXPECT_EQ(DF_ToWideBuffer(dest, "", 8), 1u);
  EXPECT_EQ(dest[0], 0);
}

TEST(DFToWideBuffer, CutTextIsTerminatedAndCountsZero) {
  WCHAR dest[4] = {u'x', u'x', u'x', u'x'};
  EXPECT_EQ(DF_ToWideBuffer(dest, "abcdef", 4), 0u);
  EXPECT_EQ(std::u16string(dest), u"abc");
  EXPECT_EQ(dest[3], 0);
}

TEST(DFToWideBuffer, CutNeverSplitsASurrogatePair) {
  WCHAR dest[3];
  EXPECT_EQ(DF_ToWideBuffer(dest, "a\xF0\x9F\x98\x80", 3), 0u);
  EXPECT_EQ(std::u16string(dest), u"a");
}

TEST(DFToWideBuffer, MalformedInputBecomesReplacementCharacter) {
  WCHAR dest[4];
  EXPECT_EQ(DF_ToWideBuffer(dest, "a\xFF", 4), 3u);
  EXPECT_EQ(std::u16string(dest), u"a\uFFFD");
}

TEST(DFToANSIBuffer, WholeAndCutText) {
  char dest[8];
  EXPECT_EQ(DF_ToANSIBuffer(dest, u"caf\u00e9", 8), 6u);
  EXPECT_STREQ(dest, "caf\xC3\xA9");
  EXPECT_EQ(DF_ToANSIBuffer(dest, u"caf\u00e9", 5), 0u);  // the two bytes of e-acute do not fit
  EXPECT_STREQ(dest, "caf");
  EXPECT_EQ(DF_ToANSIBuffer(dest, u"abc", 1), 0u);
  EXPECT_EQ(dest[0], 0);
  EXPECT_EQ(DF_ToANSIBuffer(dest, nullptr, 8), 0u);
  EXPECT_EQ(DF_ToANSIBuffer(dest, u"a", 0), 0u);
}

TEST(DFToANSIPath, LoneSurrogatesBecomeUnderscores) {
  const WCHAR text[] = {u'a', 0xD800, u'b', 0xDC00, 0};
  char path[16];
  EXPECT_EQ(DF_ToANSIPath(path, text, sizeof path), 5u);
  EXPECT_STREQ(path, "a_b_");
  char plain[16];
  EXPECT_EQ(DF_ToANSIBuffer(plain, text, sizeof plain), 9u);
  EXPECT_STREQ(plain, "a\xEF\xBF\xBD" "b\xEF\xBF\xBD");
  EXPECT_EQ(DF_ToANSIPath(path, u"\U0001F600", sizeof path), 5u);  // a pair is a character
  EXPECT_STREQ(path, "\xF0\x9F\x98\x80");
}

TEST(DFLoadInit, ShortBuffersAndWideFieldsAreLeftAlone) {
  WCHAR field[4] = {u'a', u'b', u'c', 0};
  EXPECT_EQ(DF_LoadInit(field, 2), 1);
  EXPECT_EQ(DF_LoadInit(field, sizeof field), 1);
  EXPECT_EQ(std::u16string(field), u"abc");
}

TEST(DFLoadInit, NarrowTextBecomesWide) {
  WCHAR field[4];
  std::memcpy(field, "abcdef", 6);
  field[3] = 1;  // marks narrow text
  EXPECT_EQ(DF_LoadInit(field, sizeof field), 1);
  EXPECT_EQ(std::u16string(field), u"abc");  // four bytes read, cut to leave the terminator
  EXPECT_EQ(field[3], 0);

  WCHAR short_text[4];
  std::memcpy(short_text, "hi\0\0\0", 6);
  short_text[3] = 2;
  EXPECT_EQ(DF_LoadInit(short_text, sizeof short_text), 1);
  EXPECT_EQ(std::u16string(short_text), u"hi");
}

TEST(DFLoadInit, WideTextMeantToBeNarrowBecomesNarrow) {
  WCHAR field[4] = {u'w', u'x', u'y', u'z'};
  EXPECT_EQ(DF_LoadInit(field, sizeof field), 1);
  EXPECT_STREQ(reinterpret_cast<const char*>(field), "wxy");
  EXPECT_EQ(field[3], 0);
}

}  // namespace
