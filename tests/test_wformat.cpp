// The Windows-semantics formatter: conversions, widths, flags, text forms and hostile formats.
#include <gtest/gtest.h>

#include "platform/text.h"
#include "platform/wformat.h"

namespace {

std::string W(std::u16string_view format) { return zr::Utf16ToUtf8(zr::FormatWide(format)); }
template <class... A>
std::string W(std::u16string_view format, const A&... a) { return zr::Utf16ToUtf8(zr::FormatWide(format, a...)); }

TEST(WFormat, IntegersFollowWindowsSizes) {
  EXPECT_EQ(W(u"%d|%u|%x|%X|%o", -1, -1, 255u, 0xABCDu, 8), "-1|4294967295|ff|ABCD|10");
  EXPECT_EQ(W(u"%08X", 0x1A2Bu), "00001A2B");
  EXPECT_EQ(W(u"%I64d %I64u", std::int64_t{-5}, std::uint64_t{1} << 40), "-5 1099511627776");
  EXPECT_EQ(W(u"%hd %hu", 70000, 70000), "4464 4464");
  EXPECT_EQ(W(u"%ld", 0x100000001ll), "1");  // long is 32-bit here, as on Windows
  EXPECT_EQ(W(u"%-5d|%5d|%+d|% d|%05d|%.3d", 42, 42, 42, 42, -42, 7), "42   |   42|+42| 42|-0042|007");
  EXPECT_EQ(W(u"%#x %#o %*d %-*d|", 255, 8, 4, 1, 4, 2), "0xff 010    1 2   |");
}

TEST(WFormat, TextFormsAndPrecision) {
  EXPECT_EQ(W(u"[%s] [%hs] [%ls] [%S]", u"wide", "narrow", u"also", "upper"), "[wide] [narrow] [also] [upper]");
  EXPECT_EQ(W(u"%.3s|%5s|%-5s|", u"abcdef", u"ab", u"ab"), "abc|   ab|ab   |");
  EXPECT_EQ(W(u"%c%hc%C", u'W', 'n', 'C'), "WnC");
  const char16_t pair[] = {0xD83D, 0xDE00, 0};  // U+1F600 as a surrogate pair
  EXPECT_EQ(W(u"%s", pair), "\xF0\x9F\x98\x80");
  EXPECT_EQ(W(u"%hs", "\xC3\xA9t\xC3\xA9"), "\xC3\xA9t\xC3\xA9");
  EXPECT_EQ(W(u"%s %hs", static_cast<const char16_t*>(nullptr), static_cast<const char*>(nullptr)), "(null) (null)");
}

TEST(WFormat, RealsAndPercent) {
  EXPECT_EQ(W(u"%f %.2f %e %g %%", 1.5, 3.14159, 1000.0, 0.25), "1.500000 3.14 1.000000e+03 0.25 %");
  EXPECT_EQ(W(u"Unknown, created %f s after startup", 1.25), "Unknown, created 1.250000 s after startup");
}

TEST(WFormat, HostileFormatsNeverCrash) {
  EXPECT_EQ(W(u"%d %s %f"), "0 (?) 0.000000");         // missing arguments
  EXPECT_EQ(W(u"%s", 42), "(?)");                      // mismatched argument
  EXPECT_EQ(W(u"100%"), "100%");                       // lone percent
  EXPECT_EQ(W(u"%5"), "%5");                           // truncated specification
  EXPECT_EQ(W(u"%q|%n|", 1), "%q||");                  // unknown conversion, %n writes nothing
  EXPECT_EQ(W(u"%999999999d", 1).size(), 100000u);     // width is capped
  EXPECT_EQ(W(u"%.999999999f", 1.0).size(), 514u);     // precision is capped
}

}  // namespace
