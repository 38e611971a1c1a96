// The Windows-semantics formatter: conversions, widths, flags, text forms and hostile formats.
#include <gtest/gtest.h>

#include "platform/text.h"
#include "platform/wformat.h"

namespace {

std::string W(std::u16string_view format) { return zr::os::Utf16ToUtf8(zr::os::FormatWide(format)); }
template <class... A>
std::string W(std::u16string_view format, const A&... a) { return zr::os::Utf16ToUtf8(zr::os::FormatWide(format, a...)); }

TEST(WFormat, IntegersFollowWindowsSizes) {
  EXPECT_EQ(W(u"%d|%u|%x|%X|%o", -1, -1, 255u, 0xABCDu, 8), "-1|4294967295|ff|ABCD|10");
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
  EXPECT_EQ(W(u"%hs", "\xC3\xA9t\xC3\xA9"), "\xC3\xA9t\xC3\xA9");
  EXPECT_EQ(W(u"%s %hs", static_cast<const char16_t*>(nullptr), static_cast<const char*>(nullptr)), "(null) (null)");
  EXPECT_EQ(zr::os::FormatNarrow("%s %ls %S %hs %c", "n", u"w", u"W", "h", 'c'), "n w W h c");
  EXPECT_EQ(zr::os::FormatNarrow("%-4s|%08.3f|%I64d", "ab", 3.5, std::int64_t{1} << 40), "ab  |0003.500|1099511627776");
}

TEST(WFormat, ConversionsOfTheLibrarysMessages) {
  EXPECT_EQ(W(u"\rCHeap::Free: %hs bad block 0x%08X, size %u\r\n", "Main", 0xBEEFu, 48u),
            "\rCHeap::Free: Main bad block 0x0000BEEF, size 48\r\n");
  EXPECT_EQ(W(u"\r\nAssertion [%s] failed! Line: %d File:%hs\r\n", u"KIND", 42u, "a.cpp"),
            "\r\nAssertion [KIND] failed! Line: 42 File:a.cpp\r\n");
  EXPECT_EQ(W(u"%lu %ld %i %lX", 7u, -7, -8, 0xABu), "7 -7 -8 AB");
  EXPECT_EQ(W(u"%08X|%08x|%#X|%#x", -1, 0xAu, 0xABu, 0u), "FFFFFFFF|0000000a|0XAB|0");
  EXPECT_EQ(W(u"%p", reinterpret_cast<void*>(0xABCD)), "000000000000ABCD");
  EXPECT_EQ(W(u"%I64X %I64u %llu %lld", ~std::uint64_t{0}, ~std::uint64_t{0}, std::uint64_t{1} << 63,
              std::int64_t{-1}),
            "FFFFFFFFFFFFFFFF 18446744073709551615 9223372036854775808 -1");
  EXPECT_EQ(W(u"%I32d %Iu %zu %hhd %hhu", 0x100000005ll, std::size_t{1} << 33, std::size_t{3}, 257, -1),
            "5 8589934592 3 1 255");
  EXPECT_EQ(W(u"%+u|%+d|%+d|% 5d|%-+5d|", 3u, 0, -0, 3, 3), "3|+0|+0|    3|+3   |");
  EXPECT_EQ(W(u"%.0d|%.0f|%5.1f|%-8.3f|%08.2f|%+.1e", 0, 2.5, 3.14159, 1.0, -1.5, 12345.0),
            "|2|  3.1|1.000   |-0001.50|+1.2e+04");
  EXPECT_EQ(W(u"%f %.2f %e %g %%", 1.5, 3.14159, 1000.0, 0.25), "1.500000 3.14 1.000000e+03 0.25 %");
  EXPECT_EQ(W(u"%G %g %E", 1e-10, 123456789.0, 0.5), "1E-10 1.23457e+08 5.000000E-01");
  EXPECT_EQ(W(u"%f %f", 1.0 / 0.0, -1.0 / 0.0), "inf -inf");
  EXPECT_EQ(W(u"%d", 3.9), "3");            // a real given to an integer conversion
  EXPECT_EQ(W(u"%f", 2), "2.000000");       // an integer given to a real conversion
  EXPECT_EQ(W(u"%s|%-6hs|%6.2hs|", u"", "ab", "xyz"), "|ab    |    xy|");
}

TEST(WFormat, SurrogatePairsCountAsTwoUnits) {
  const char16_t pair[] = {0xD83D, 0xDE00, 0};
  const std::u16string smile(pair);
  EXPECT_EQ(W(u"%s", pair), "\xF0\x9F\x98\x80");
  // Widths and precisions count UTF-16 units, as the wide C library does.
  EXPECT_EQ(zr::os::FormatWide(u"[%4s]", pair), u"[  " + smile + u"]");
  EXPECT_EQ(zr::os::FormatWide(u"[%-3s]", pair), u"[" + smile + u" ]");
  EXPECT_EQ(zr::os::FormatWide(u"%.1s", pair), std::u16string(1, char16_t{0xD83D}));  // cut inside the pair
  EXPECT_EQ(W(u"%.1s", pair), "\xEF\xBF\xBD");  // which converts to U+FFFD, never invalid UTF-8
  EXPECT_EQ(zr::os::FormatWide(u"%hs", "\xF0\x9F\x98\x80"), smile);  // narrow UTF-8 becomes the pair
  EXPECT_EQ(W(u"%hs", "a\xFF" "b"), "a\xEF\xBF\xBD" "b");         // invalid UTF-8 becomes U+FFFD
  const std::u16string truncated = {char16_t{0xF600}, char16_t{0xD83D}};
  EXPECT_EQ(zr::os::FormatWide(u"%c%lc", 0x1F600, 0xD83D), truncated);  // %c keeps 16 bits
  EXPECT_EQ(zr::os::FormatWide(u"%hc", 0x1E9), u"\u00E9");  // a narrow %c keeps the low byte
  const std::u16string in_format = u"\u00E9" + smile + u"%d";
  EXPECT_EQ(zr::os::FormatWide(in_format, 1), u"\u00E9" + smile + u"1");
}

TEST(WFormat, HostileAndMalformedFormatsNeverCrash) {
  // A lone percent and specifications cut by the end of the format print as they stand.
  for (const std::u16string_view format : {u"", u"100%", u"%5", u"%-", u"%.", u"%l"})
    EXPECT_EQ(W(format), zr::os::Utf16ToUtf8(std::u16string(format)));
  EXPECT_EQ(W(u"%d %s %f"), "0 (?) 0.000000");         // missing arguments
  EXPECT_EQ(W(u"%s", 42), "(?)");                      // mismatched argument
  EXPECT_EQ(W(u"%q|%n|", 1), "%q||");                  // unknown conversion, %n writes nothing
  EXPECT_EQ(W(u"%999999999d", 1).size(), 100000u);     // width is capped
  EXPECT_EQ(W(u"%.999999999f", 1.0).size(), 514u);     // precision is capped
  EXPECT_EQ(W(u"%I6d", 5), "%I6d");                // 'I' alone is a 64-bit size, '6' no conversion
  EXPECT_EQ(W(u"%hz|%y", 1, 2), "%hz|%y");
  EXPECT_EQ(W(u"%%%d%%", 5), "%5%");
  EXPECT_EQ(W(u"%*d|%-*d|%.*s|", -4, 1, 3, 2, -1, u"all"), "1   |2  |all|");  // negative star values
  EXPECT_EQ(W(u"%*d"), "0");                       // star and value missing
  EXPECT_EQ(W(u"%d %d", 1, 2, 3, 4), "1 2");       // extra arguments are ignored
  EXPECT_EQ(zr::os::FormatWide(u"%c", u"str").size(), 1u);  // a pointer given to %c: one unit, no crash
  EXPECT_EQ(W(u"%ls|%hs", 5, 6), "(?)|(?)");
  EXPECT_EQ(W(u"%.3000000000d", 1).size(), 100000u);
}

}  // namespace
