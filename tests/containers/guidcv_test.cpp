// GUID text: the dash-separated form written from a GUID, parsed back, and the texts it refuses.
#include "zrobj/guidcv.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/diag_capture.h"
#include "test_support.h"

namespace {

namespace os = zr::os;

constexpr GUID kSample = {0x35D48101, 0x67BE, 0x11CF, {0x90, 0xC2, 0x00, 0x00, 0xE8, 0xCE, 0x82, 0x46}};
constexpr GUID kZero = {};

std::u16string TextOf(const GUID& guid) {
  GUIDcv cv(guid);
  return static_cast<const WCHAR*>(cv);
}

GUID Parsed(const char16_t* text) { return static_cast<GUID>(GUIDcv(text)); }

// Each of the last eight bytes is a field of its own; every field keeps its width.
TEST(GUIDcvText, WrittenFormAndItsWidths) {
  EXPECT_EQ(TextOf(kSample), u"35d48101-67be-11cf-90-c2-00-00-e8-ce-82-46");
  EXPECT_EQ(TextOf(kZero), u"00000000-0000-0000-00-00-00-00-00-00-00-00");
  const GUID ones = {0xFFFFFFFF, 0xFFFF, 0xFFFF, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};
  const std::u16string text = TextOf(ones);
  EXPECT_EQ(text, u"ffffffff-ffff-ffff-ff-ff-ff-ff-ff-ff-ff-ff");
  EXPECT_EQ(text.size(), static_cast<std::size_t>(GUIDcv::kTextLength));
  GUIDcv cv(kSample);  // the text lives in the object's own buffer
  EXPECT_EQ(static_cast<const WCHAR*>(cv), static_cast<const WCHAR*>(cv));
}

TEST(GUIDcvParse, WrittenTextsParseBack) {
  EXPECT_EQ(Parsed(u"35D48101-67BE-11CF-90-C2-00-00-E8-CE-82-46"), kSample);
  GUID g = {};
  for (unsigned i = 0; i < 64; ++i) {
    g.Data1 = 0x9E3779B9u * (i + 1);
    g.Data2 = static_cast<WORD>(0x1234 * i);
    g.Data3 = static_cast<WORD>(0xFFFF - 7 * i);
    for (int b = 0; b < 8; ++b) g.Data4[b] = static_cast<BYTE>(i * 31 + b * 17);
    GUIDcv cv(g);
    EXPECT_EQ(Parsed(cv), g) << i;
  }
}

// Numbers are read as the scanning format reads them: no padding needed, the last eight keep their
// low byte, white space, a "0x" prefix and a sign belong to a number, the middle fields are 16 bits
// wide and the first wraps at 32; text after the eleventh number is ignored.
TEST(GUIDcvParse, NumbersAreReadAsTheScanningFormatReadsThem) {
  EXPECT_EQ(Parsed(u"1-2-3-4-5-6-7-8-9-a-b"), (GUID{0x1, 0x2, 0x3, {0x4, 0x5, 0x6, 0x7, 0x8, 0x9, 0xA, 0xB}}));
  EXPECT_EQ(Parsed(u"10-1234-abcd-1ff-123-100-1-2-3-4-5"),
            (GUID{0x10, 0x1234, 0xABCD, {0xFF, 0x23, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05}}));
  const GUID expected = {0x35D48101, 0xFFFF, 0x11CF, {0x90, 0xC2, 0x00, 0x00, 0xE8, 0xCE, 0x82, 0x46}};
  EXPECT_EQ(Parsed(u" 0x35d48101- -1-\t11cf-+90-c2-0-0-e8-ce-82-0X46"), expected);
  EXPECT_EQ(Parsed(u"135d48101-ffff-11cf-90-c2-0-0-e8-ce-82-46"), expected);
  EXPECT_EQ(Parsed(u"35d48101-67be-11cf-90-c2-00-00-e8-ce-82-46}"), kSample);
  EXPECT_EQ(Parsed(u"35d48101-67be-11cf-90-c2-00-00-e8-ce-82-46-77"), kSample);
}

// Every refused text gives the zero GUID and one report naming it, in debug mode only.
class GUIDcvRefusal : public ::testing::TestWithParam<const char16_t*> {};

TEST_P(GUIDcvRefusal, GivesTheZeroGuidAndReportsIt) {
  const char16_t* text = GetParam();
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  EXPECT_EQ(Parsed(text), kZero);
  GUID untouched = kSample;
  EXPECT_FALSE(GUIDcv::Parse(text, &untouched));
  EXPECT_EQ(untouched, kSample);
  const auto entries = capture.Entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].channel, 3u);
  EXPECT_EQ(entries[0].level, 5u);
  EXPECT_EQ(entries[0].text, u"\rGUIDcv::GUIDcv(" + std::u16string(text) + u"): Invalid GUID format\r\n");
}

INSTANTIATE_TEST_SUITE_P(
    Texts, GUIDcvRefusal,
    ::testing::Values(u"35d48101-67be-11cf-90-c2-00-00-e8-ce-82",    // ten fields
                      u"35d48101-67be-11cf-90-c2-00-00-e8-ce-82-",   // the eleventh missing
                      u"{35D48101-67BE-11CF-90C2-0000E8CE8246}",     // the usual braced form
                      u"35D48101-67BE-11CF-90C2-0000E8CE8246",       // the usual grouped form
                      u"35d48101-67be-11cf-90-c2-00-00-e8-ce-82 46",  // another separator
                      u"35d48101-67be-11cf-90-c2-00-00-e8-ce-82--",  // a sign without digits
                      u"0x-1-2-3-4-5-6-7-8-9-a",                     // a prefix without digits
                      u"g-1-2-3-4-5-6-7-8-9-a",                      // not hexadecimal
                      u""));

// A null text is refused like any other; outside debug mode nothing is reported.
TEST(GUIDcvParse, NullTextAndQuietRefusals) {
  {
    zrtest::DebugMode debug(1);
    os::ScopedDiagCapture capture;
    EXPECT_EQ(Parsed(nullptr), kZero);
    ASSERT_EQ(capture.Entries().size(), 1u);
    EXPECT_EQ(capture.Entries()[0].text, u"\rGUIDcv::GUIDcv((null)): Invalid GUID format\r\n");
  }
  zrtest::DebugMode debug(0);
  os::ScopedDiagCapture capture;
  EXPECT_EQ(Parsed(u"35d48101-67be-11cf-90-c2-00-00-e8-ce-82"), kZero);
  EXPECT_TRUE(capture.Entries().empty());
}

}  // namespace
