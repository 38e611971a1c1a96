// Shortcuts: creation and its refusals with their reports, the extension rule of the readers, the
// defaults of missing keys, cut buffers and the file as written.
#include <gtest/gtest.h>

#include <string>

#include "platform/diag_capture.h"
#include "platform/text.h"
#include "test_support.h"
#include "zrobj/cshortcut.h"

namespace {

namespace os = zr::os;

std::u16string W(const std::string& text) { return os::Utf8ToUtf16(text); }

constexpr int kChars = 512;

struct Buffer {
  WCHAR text[kChars];
  Buffer() { std::fill(std::begin(text), std::end(text), u'#'); }
  std::string Utf8() const { return os::Utf16ToUtf8(text); }
};

class CShortCutTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(zrtest::WriteFile(target_, "driver")); }
  std::u16string Path(const std::string& name) const { return W(dir_.File(name)); }

  zrtest::TempDir dir_;
  std::string target_ = dir_.File("target driver.so");
};

TEST_F(CShortCutTest, CreateWritesBothKeysAndTheReadersFindThem) {
  const std::u16string link = Path("a.zrs");
  ASSERT_EQ(CShortCut::Create(link.c_str(), W(target_).c_str(), u"EDITOR"), 1);
  const std::string text = zrtest::ReadFile(dir_.File("a.zrs"));
  EXPECT_NE(text.find("[Driver]"), std::string::npos) << text;
  EXPECT_LT(text.find("Legacy"), text.find("Path")) << text;
  Buffer legacy, path;
  EXPECT_EQ(CShortCut::GetLegacy(link.c_str(), legacy.text, kChars), 1);
  EXPECT_EQ(legacy.Utf8(), "EDITOR");
  EXPECT_EQ(CShortCut::ResolvePath(link.c_str(), path.text, kChars), 1);
  EXPECT_EQ(path.Utf8(), target_);

  ASSERT_EQ(CShortCut::Create(link.c_str(), W(target_).c_str(), nullptr), 1);  // rewrites the tag
  EXPECT_EQ(CShortCut::GetLegacy(link.c_str(), legacy.text, kChars), 1);
  EXPECT_EQ(legacy.Utf8(), "ZROBJ");
}

TEST_F(CShortCutTest, CreateAcceptsAnyExtensionButNeedsOne) {
  const std::u16string other = Path("b.lnk");
  EXPECT_EQ(CShortCut::Create(other.c_str(), W(target_).c_str(), u"X"), 1);
  Buffer buffer;
  EXPECT_EQ(CShortCut::GetLegacy(other.c_str(), buffer.text, kChars), 0);  // written, but not a ".zrs" name
  EXPECT_EQ(buffer.text[0], 0);

  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  const std::u16string bare = Path("noext");
  EXPECT_EQ(CShortCut::Create(bare.c_str(), W(target_).c_str(), u"X"), 0);
  EXPECT_EQ(zrtest::ReadFile(dir_.File("noext")), "");
  const auto entries = capture.Entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].channel, 3u);
  EXPECT_EQ(entries[0].level, 3u);
  EXPECT_EQ(os::Utf16ToUtf8(entries[0].text),
            "\rCShortCut::Create: Bad shortname or invalid target\n" + dir_.File("noext") + " -> " + target_ + "\r\n");
}

TEST_F(CShortCutTest, CreateRefusesAMissingOrDirectoryTarget) {
  const std::u16string link = Path("c.zrs");
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  const std::string missing = dir_.File("missing.so");
  EXPECT_EQ(CShortCut::Create(link.c_str(), W(missing).c_str(), u"X"), 0);
  EXPECT_EQ(CShortCut::Create(link.c_str(), W(dir_.path()).c_str(), u"X"), 0);
  EXPECT_EQ(zrtest::ReadFile(dir_.File("c.zrs")), "");  // nothing written
  const auto entries = capture.Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(os::Utf16ToUtf8(entries[0].text), "\rCShortCut::Create: Bad shortname or invalid target\n" +
                                                    dir_.File("c.zrs") + " -> " + missing + "\r\n");
}

TEST_F(CShortCutTest, NoReportWithoutDebugMode) {
  zrtest::DebugMode debug(0);
  os::ScopedDiagCapture capture;
  const std::u16string link = Path("d.zrs");
  EXPECT_EQ(CShortCut::Create(link.c_str(), W(dir_.File("missing")).c_str(), nullptr), 0);
  Buffer buffer;
  EXPECT_EQ(CShortCut::ResolvePath(link.c_str(), buffer.text, kChars), 0);
  EXPECT_TRUE(capture.Entries().empty());
}

TEST_F(CShortCutTest, ExtensionRuleOfTheReaders) {
  ASSERT_TRUE(zrtest::WriteFile(dir_.File("a.txt"), "[Driver]\nLegacy=T\nPath=/p\n"));
  Buffer buffer;
  EXPECT_EQ(CShortCut::GetLegacy(Path("a.txt").c_str(), buffer.text, kChars), 0);
  EXPECT_EQ(buffer.text[0], 0);
  for (const char* name : {"up.ZRS", "longer.zrsx", "mixed.ZrS"}) {
    ASSERT_TRUE(zrtest::WriteFile(dir_.File(name), "[Driver]\nLegacy=T\nPath=/p\n"));
    Buffer legacy, path;
    EXPECT_EQ(CShortCut::GetLegacy(Path(name).c_str(), legacy.text, kChars), 1) << name;
    EXPECT_EQ(legacy.Utf8(), "T") << name;
    EXPECT_EQ(CShortCut::ResolvePath(Path(name).c_str(), path.text, kChars), 1) << name;
    EXPECT_EQ(path.Utf8(), "/p") << name;
  }
  for (const char* name : {"short.zr", "other.zsr", ".zrs", "dir.zrs/file"}) {
    Buffer legacy;
    EXPECT_EQ(CShortCut::GetLegacy(Path(name).c_str(), legacy.text, kChars), 0) << name;
    EXPECT_EQ(legacy.text[0], 0) << name;
  }
  EXPECT_EQ(CShortCut::GetLegacy(nullptr, buffer.text, kChars), 0);
  EXPECT_EQ(CShortCut::GetLegacy(Path("a.zrs").c_str(), nullptr, 64), 0);
}

TEST_F(CShortCutTest, MissingKeysTakeTheirDefaults) {
  ASSERT_TRUE(zrtest::WriteFile(dir_.File("empty.zrs"), "[Driver]\n"));
  Buffer legacy, path;
  EXPECT_EQ(CShortCut::GetLegacy(Path("empty.zrs").c_str(), legacy.text, kChars), 1);
  EXPECT_EQ(legacy.Utf8(), "ZROBJ");
  EXPECT_EQ(CShortCut::GetLegacy(Path("absent.zrs").c_str(), legacy.text, kChars), 1);  // no file at all
  EXPECT_EQ(legacy.Utf8(), "ZROBJ");

  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  EXPECT_EQ(CShortCut::ResolvePath(Path("empty.zrs").c_str(), path.text, kChars), 0);
  EXPECT_EQ(path.text[0], 0);
  ASSERT_TRUE(zrtest::WriteFile(dir_.File("blank.zrs"), "[Driver]\nPath=\n"));
  EXPECT_EQ(CShortCut::ResolvePath(Path("blank.zrs").c_str(), path.text, kChars), 0);
  const auto entries = capture.Entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].channel, 3u);
  EXPECT_EQ(entries[0].level, 4u);
  EXPECT_EQ(os::Utf16ToUtf8(entries[0].text), "\rCShortCut::ResolvePath: Shortcut empty\r\n");
}

TEST_F(CShortCutTest, ValuesAreCutToTheBuffer) {
  const std::u16string link = Path("cut.zrs");
  ASSERT_EQ(CShortCut::Create(link.c_str(), W(target_).c_str(), u"ABCDEFGH"), 1);
  Buffer legacy, path;
  EXPECT_EQ(CShortCut::GetLegacy(link.c_str(), legacy.text, 4), 1);
  EXPECT_EQ(legacy.Utf8(), "ABC");
  EXPECT_EQ(CShortCut::ResolvePath(link.c_str(), path.text, 6), 1);
  EXPECT_EQ(path.Utf8(), target_.substr(0, 5));
  // A buffer of one character holds nothing of the path: that reads as an empty shortcut.
  EXPECT_EQ(CShortCut::ResolvePath(link.c_str(), path.text, 1), 0);
  EXPECT_EQ(path.text[0], 0);
}

TEST_F(CShortCutTest, DamagedFilesReadAsMissingKeys) {
  static const char kDamaged[] = "[Driver]\nPa\0th=/x\n\xFF\xFE=\n[Driver\nLegacy";
  ASSERT_TRUE(zrtest::WriteFile(dir_.File("bad.zrs"), std::string(kDamaged, sizeof kDamaged - 1)));
  Buffer legacy, path;
  EXPECT_EQ(CShortCut::GetLegacy(Path("bad.zrs").c_str(), legacy.text, kChars), 1);
  EXPECT_EQ(legacy.Utf8(), "ZROBJ");
  EXPECT_EQ(CShortCut::ResolvePath(Path("bad.zrs").c_str(), path.text, kChars), 0);
}

}  // namespace
