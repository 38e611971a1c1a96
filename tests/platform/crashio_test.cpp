// The crash writer's bounded formatter: the shared dialect, and what it does without the C library.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "platform/crashio.h"

namespace {

template <class... A>
std::string Fixed(std::string_view format, const A&... a) {
  char buffer[256];
  zr::os::FixedText text(buffer, sizeof buffer);
  text.Format(format, a...);
  return text.c_str();
}

TEST(FixedText, LengthModifiersFollowTheDialect) {
  const std::uint64_t wide = 0x123456789ABCDEFull;
  EXPECT_EQ(Fixed("%lX|%I64X|%X", wide, wide, wide), "89ABCDEF|123456789ABCDEF|123456789ABCDEF");
  EXPECT_EQ(Fixed("%hhu|%hu|%jd|%td|%Id", 0x1FF, 0x1FFFF, std::int64_t{-1}, std::int64_t{-2}, std::int64_t{-3}),
            "255|65535|-1|-2|-3");
  EXPECT_EQ(Fixed("%*d|%-*d|%.*s|", 4, 1, -3, 2, 2, "abc"), "   1|2  |ab|");
}

TEST(FixedText, UnknownConversionsAndRealsKeepTheArgumentsInStep) {
  EXPECT_EQ(Fixed("%q %d", 1), "%q 1");         // no argument for an unknown conversion
  EXPECT_EQ(Fixed("%5% %d", 2), "%5% 2");       // only "%%" is a percent sign
  EXPECT_EQ(Fixed("%.2f %d", 1.5, 3), "%.2f 3");  // a real is skipped, not formatted
  EXPECT_EQ(Fixed("%n%d", nullptr, 4), "4");
  EXPECT_EQ(Fixed("100%% %"), "100% %");
  EXPECT_EQ(Fixed("%I6"), "%I6");
}

}  // namespace
