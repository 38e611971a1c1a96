// Path helpers: normalisation, file name / separator / extension positions, wildcard search.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/fileutil.h"
#include "platform/text.h"
#include "test_support.h"

namespace os = zr::os;

namespace {

std::string Format(const char16_t* input, UINT capacity = ZR_MAX_PATH, WCHAR separator = u'/') {
  WCHAR path[ZR_MAX_PATH];
  os::WStrCopy(path, ZR_MAX_PATH, input);
  const BOOL ok = os::FU_FormatPath(path, capacity, separator);
  return (ok ? "" : "FALSE:") + os::Utf16ToUtf8(path);
}

// Position of a result inside `path`, -1 for null.
long Pos(const WCHAR* path, const WCHAR* at) { return at ? at - path : -1; }

TEST(FileUtil, FormatPath) {
  EXPECT_EQ(Format(u"/home/user"), "/home/user/");
  EXPECT_EQ(Format(u"C:\\Suite\\\\bin"), "C:/Suite/bin/");
  EXPECT_EQ(Format(u"//a//b///"), "/a/b/");
  EXPECT_EQ(Format(u"/a/b", 256, u'\\'), "\\a\\b\\");
  EXPECT_EQ(Format(u""), "");
  EXPECT_EQ(Format(u"/abc", 6), "/abc/");
  EXPECT_EQ(Format(u"/abc", 5), "FALSE:/abc");  // no room for the separator: unchanged
  EXPECT_FALSE(os::FU_FormatPath(nullptr, 10, u'/'));
}

TEST(FileUtil, Positions) {
  const WCHAR path[] = u"/opt/suite.v2/bin/lib.tar.gz";
  EXPECT_EQ(Pos(path, os::FU_FindFilename(path)), 18);
  EXPECT_EQ(Pos(path, os::FU_FindLastSeparator(path)), 17);
  EXPECT_EQ(Pos(path, os::FU_FindExtension(path)), 25);
  const WCHAR bare[] = u"name";
  EXPECT_EQ(Pos(bare, os::FU_FindFilename(bare)), 0);
  EXPECT_EQ(Pos(bare, os::FU_FindLastSeparator(bare)), -1);
  EXPECT_EQ(Pos(bare, os::FU_FindExtension(bare)), -1);
  const WCHAR hidden[] = u"/dir.d/.profile";
  EXPECT_EQ(Pos(hidden, os::FU_FindExtension(hidden)), -1);  // a leading dot is no extension
  const WCHAR dir[] = u"/dir.d/";
  EXPECT_EQ(Pos(dir, os::FU_FindFilename(dir)), 7);
  EXPECT_EQ(Pos(dir, os::FU_FindExtension(dir)), -1);
  EXPECT_EQ(os::FU_FindFilename(nullptr), nullptr);
}

TEST(FileUtil, WildcardsAndFirstMatch) {
  EXPECT_TRUE(os::WildcardMatch(u"*.sc", u"Studio.SC"));
  EXPECT_TRUE(os::WildcardMatch(u"a?c*", u"abcdef"));
  EXPECT_TRUE(os::WildcardMatch(u"*a*b*", u"xxaxxbxx"));
  EXPECT_TRUE(os::WildcardMatch(u"**", u""));
  EXPECT_FALSE(os::WildcardMatch(u"*.sc", u"file.scx"));
  EXPECT_FALSE(os::WildcardMatch(u"?", u""));
  EXPECT_FALSE(os::WildcardMatch(u"[ab]", u"a"));  // brackets are plain characters

  zrtest::TempDir dir;
  zrtest::WriteFile(dir.File("b.sc"), "");
  zrtest::WriteFile(dir.File("a.sc"), "");
  zrtest::WriteFile(dir.File("c.txt"), "");
  WCHAR found[ZR_MAX_PATH];
  const std::u16string pattern = os::Utf8ToUtf16(dir.File("*.SC"));
  ASSERT_TRUE(os::FU_GetFirstMatch(pattern.c_str(), found, ZR_MAX_PATH));
  EXPECT_EQ(os::Utf16ToUtf8(found), "a.sc");
  EXPECT_FALSE(os::FU_GetFirstMatch(pattern.c_str(), found, 4));  // does not fit
  const std::u16string none = os::Utf8ToUtf16(dir.File("*.dll"));
  EXPECT_FALSE(os::FU_GetFirstMatch(none.c_str(), found, ZR_MAX_PATH));
  const std::u16string missing = os::Utf8ToUtf16(dir.File("nodir/*"));
  EXPECT_FALSE(os::FU_GetFirstMatch(missing.c_str(), found, ZR_MAX_PATH));
  const std::u16string folder = os::Utf8ToUtf16(dir.path() + "/");
  EXPECT_FALSE(os::FU_GetFirstMatch(folder.c_str(), found, ZR_MAX_PATH));  // no name pattern
}

}  // namespace
