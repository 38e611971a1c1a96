// The platform's settings layer: the Windows directory, profile semantics, CSetFile, the INI
// update rules and the class-key store.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

#include "frame_home.h"
#include "platform/inifile.h"
#include "platform/profile.h"
#include "platform/registry.h"
#include "platform/settingsfile.h"
#include "platform/text.h"
#include "test_support.h"

namespace {

using zrtest::ScopedHome;

// Sets or clears an environment variable for one scope.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old, had_ = true;
    value ? ::setenv(name, value, 1) : ::unsetenv(name);
  }
  ~ScopedEnv() { had_ ? ::setenv(name_, old_.c_str(), 1) : ::unsetenv(name_); }

 private:
  const char* name_;
  std::string old_;
  bool had_ = false;
};

TEST(WindowsDirectory, FromEnvironmentAtEachUse) {
  {
    ScopedEnv home("ZROBJ_HOME", "/srv/zr//");
    EXPECT_EQ(zr::WindowsDirectory(), "/srv/zr");
    WCHAR buffer[32];
    EXPECT_EQ(GetWindowsDirectoryW(buffer, 32), 7u);
    EXPECT_EQ(zr::Utf16ToUtf8(buffer), "/srv/zr");
    EXPECT_EQ(GetWindowsDirectoryW(buffer, 7), 8u);  // too small: the size needed
    EXPECT_EQ(zr::ProfileFilePath("ZRO.INI"), "/srv/zr/ZRO.INI");
    EXPECT_EQ(zr::ProfileFilePath("/etc/x.ini"), "/etc/x.ini");
  }
  ScopedEnv no_home("ZROBJ_HOME", nullptr);
  {
    ScopedEnv xdg("XDG_CONFIG_HOME", "/cfg");
    EXPECT_EQ(zr::WindowsDirectory(), "/cfg/zrobj");
  }
  ScopedEnv relative_xdg("XDG_CONFIG_HOME", "relative");  // not absolute: ignored
  ScopedEnv user("HOME", "/home/someone");
  EXPECT_EQ(zr::WindowsDirectory(), "/home/someone/.config/zrobj");
}

TEST(Profile, WindowsSemantics) {
  ScopedHome home;
  char buffer[64];
  EXPECT_EQ(GetPrivateProfileStringA("S", "K", "dflt  ", buffer, 64, "ZRO.INI"), 4u);
  EXPECT_STREQ(buffer, "dflt");  // trailing blanks of the default dropped
  EXPECT_FALSE(std::filesystem::exists(home.File("ZRO.INI")));  // reads create nothing
  ASSERT_TRUE(WritePrivateProfileStringA("S", "K", "value", "ZRO.INI"));
  ASSERT_TRUE(WritePrivateProfileStringA("S", "  Other ", "\"  quoted  \"", "ZRO.INI"));
  ASSERT_TRUE(WritePrivateProfileStringA("T", "X", "1", "ZRO.INI"));
  EXPECT_EQ(GetPrivateProfileStringA("s", "k", "", buffer, 64, "ZRO.INI"), 5u);
  EXPECT_EQ(GetPrivateProfileStringA("S", "Other", "", buffer, 64, "ZRO.INI"), 10u);
  EXPECT_STREQ(buffer, "  quoted  ");  // surrounding quotes removed, inner blanks kept
  EXPECT_EQ(GetPrivateProfileStringA("S", "K", "", buffer, 4, "ZRO.INI"), 3u);
  EXPECT_STREQ(buffer, "val");

  EXPECT_EQ(GetPrivateProfileStringA("S", nullptr, "", buffer, 64, "ZRO.INI"), 8u);
  EXPECT_EQ(std::string(buffer, 9), std::string("K\0Other\0", 9));
  EXPECT_EQ(GetPrivateProfileStringA(nullptr, nullptr, "", buffer, 64, "ZRO.INI"), 4u);
  EXPECT_EQ(std::string(buffer, 5), std::string("S\0T\0", 5));
  EXPECT_EQ(GetPrivateProfileStringA("S", nullptr, "", buffer, 5, "ZRO.INI"), 3u);  // cut list: size-2
  EXPECT_EQ(std::string(buffer, 5), std::string("K\0O\0\0", 5));

  ASSERT_TRUE(WritePrivateProfileStringA("S", "K", nullptr, "ZRO.INI"));  // deletes the key
  EXPECT_EQ(GetPrivateProfileStringA("S", "K", "gone", buffer, 64, "ZRO.INI"), 4u);
  ASSERT_TRUE(WritePrivateProfileStringA("T", nullptr, nullptr, "ZRO.INI"));  // deletes the section
  EXPECT_EQ(GetPrivateProfileStringA(nullptr, nullptr, "", buffer, 64, "ZRO.INI"), 2u);

  EXPECT_FALSE(WritePrivateProfileStringA("S", "Bad", "two\nlines", "ZRO.INI"));
  EXPECT_FALSE(WritePrivateProfileStringA("S]", "K", "v", "ZRO.INI"));
  EXPECT_FALSE(WritePrivateProfileStringA("S", "A=B", "v", "ZRO.INI"));
  EXPECT_FALSE(WritePrivateProfileStringA("S", "", "v", "ZRO.INI"));
  EXPECT_EQ(GetPrivateProfileStringA("S", "K", "", nullptr, 64, "ZRO.INI"), 0u);
}

TEST(SetFile, ValuesAndRefusals) {
  ScopedHome home;
  const std::u16string path = zr::Utf8ToUtf16(home.File("sub/dir/test.acl"));
  CSetFile file(path.c_str());
  EXPECT_TRUE(file.IsUsable());
  WCHAR text[32];
  int value = 99;
  EXPECT_FALSE(file.ReadSettingString("S", "K", text, 32));
  EXPECT_FALSE(file.ReadSettingInt("S", "K", &value));
  EXPECT_EQ(value, 99);  // untouched on failure
  EXPECT_TRUE(file.WriteSettingString("S", "K", u"wide \u00e9\u4e2d"));  // creates the directories
  EXPECT_TRUE(file.ReadSettingString("S", "K", text, 32));
  EXPECT_EQ(std::u16string(text), u"wide \u00e9\u4e2d");
  EXPECT_FALSE(file.ReadSettingInt("S", "K", &value));
  EXPECT_TRUE(file.WriteSettingInt("S", "N", -17));
  EXPECT_TRUE(file.ReadSettingInt("s", "n", &value));
  EXPECT_EQ(value, -17);
  EXPECT_TRUE(file.WriteSettingBool("S", "B", 5));
  EXPECT_TRUE(file.ReadSettingBool("S", "B", &value));
  EXPECT_EQ(value, 1);
  EXPECT_FALSE(file.ReadSettingString("S", "K", text, 0));
  EXPECT_FALSE(file.WriteSettingString(nullptr, "K", u"x"));
  EXPECT_FALSE(file.WriteSettingString("S", "", u"x"));
  EXPECT_FALSE(file.WriteSettingString("S", "K", nullptr));

  EXPECT_EQ(zr::ParseSettingInt(" 42 "), 42);
  EXPECT_EQ(zr::ParseSettingInt("+7"), 7);
  EXPECT_EQ(zr::ParseSettingInt("0xFFFFFFFF"), -1);
  EXPECT_EQ(zr::ParseSettingInt("0x100000000"), std::nullopt);
  EXPECT_EQ(zr::ParseSettingInt("2147483648"), std::nullopt);
  EXPECT_EQ(zr::ParseSettingInt("1 2"), std::nullopt);
  EXPECT_EQ(zr::ParseSettingInt(""), std::nullopt);
  EXPECT_EQ(zr::EscapeSettingValue("\"a\\b\tc\""), "\\x22a\\\\b\\x09c\\x22");
  EXPECT_EQ(zr::UnescapeSettingValue("\\x22a\\\\b\\x09c\\x22"), "\"a\\b\tc\"");
  EXPECT_EQ(zr::UnescapeSettingValue("C:\\dir\\x"), "C:\\dir\\x");  // lone backslashes stay

  // An existing file that cannot be read is never replaced.
  const std::string blocked = home.File("blocked.vst");
  std::filesystem::create_directories(blocked);
  const std::u16string blocked16 = zr::Utf8ToUtf16(blocked);
  CSetFile unusable(blocked16.c_str());
  EXPECT_FALSE(unusable.IsUsable());
  EXPECT_FALSE(unusable.WriteSettingInt("S", "K", 1));
  EXPECT_TRUE(std::filesystem::is_directory(blocked));
}

TEST(IniFile, HostileContentNeverCrashes) {
  ScopedHome home;
  const std::string path = home.File("fuzz.ini");
  std::mt19937 random(1234);
  const std::string alphabet = "[]=;#\"\\\r\n\t abcXYZ019\x80\xff";
  for (int round = 0; round < 200; ++round) {
    std::string data;
    const int length = static_cast<int>(random() % 400);
    for (int i = 0; i < length; ++i)
      data.push_back(round % 2 ? static_cast<char>(random()) : alphabet[random() % alphabet.size()]);
    ASSERT_TRUE(zrtest::WriteFile(path, data));
    zr::IniDropCache();
    for (const std::string& section : zr::IniSections(path))
      for (const std::string& key : zr::IniKeys(path, section)) (void)zr::IniRead(path, section, key);
    const zr::IniOp op{zr::IniOp::Kind::kSet, "Probe", "Key", std::to_string(round)};
    ASSERT_TRUE(zr::IniUpdate(path, {&op, 1}));
    EXPECT_EQ(zr::IniRead(path, "probe", "KEY"), std::to_string(round));
  }
}

TEST(IniFile, LinksAndSpecialFiles) {
  ScopedHome home;
  const std::string target = home.File("real.ini");
  const std::string link = home.File("link.ini");
  std::filesystem::create_symlink(target, link);
  const zr::IniOp op{zr::IniOp::Kind::kSet, "S", "K", "v"};
  ASSERT_TRUE(zr::IniUpdate(link, {&op, 1}));
  EXPECT_TRUE(std::filesystem::is_symlink(link));  // still a link, the target holds the value
  EXPECT_EQ(zr::IniRead(target, "S", "K"), "v");
  EXPECT_EQ(zr::IniRead(link, "S", "K"), "v");

  const std::string fifo = home.File("fifo.ini");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(zr::IniGetState(fifo), zr::IniFileState::kUnreadable);  // refused, not waited on
  EXPECT_EQ(zr::IniRead(fifo, "S", "K"), std::nullopt);
  EXPECT_FALSE(zr::IniUpdate(fifo, {&op, 1}));
}

// Names and values the file cannot hold are refused, not written cut short: a NUL byte would end the
// parser's C strings, and a key with blanks before ';' would be written as a comment line.
TEST(IniFile, UpdateRefusesWhatTheFileCannotHold) {
  ScopedHome home;
  const std::string path = home.File("refuse.ini");
  ASSERT_TRUE(zrtest::WriteFile(path, "[S]\nk=v\n"));
  zr::IniDropCache();
  using Kind = zr::IniOp::Kind;
  const zr::IniOp refused[] = {
      {Kind::kSet, "S", "K", std::string("a\0b", 3)}, {Kind::kSet, "S", std::string("\0K", 2), "v"},
      {Kind::kSet, std::string("S\0T", 3), "K", "v"}, {Kind::kSet, "S", " ;K", "v"},
      {Kind::kSet, "S", "\t#K", "v"},                {Kind::kDeleteKey, "S", "  [K", ""}};
  for (const zr::IniOp& op : refused) EXPECT_FALSE(zr::IniUpdate(path, {&op, 1})) << op.key;
  EXPECT_EQ(zrtest::ReadFile(path), "[S]\nk=v\n");
  const zr::IniOp blanks{Kind::kSet, "S", "  K;  ", "v"};  // ';' inside a key is fine
  ASSERT_TRUE(zr::IniUpdate(path, {&blanks, 1}));
  EXPECT_EQ(zr::IniRead(path, "S", "K;"), "v");
}

// Found by fuzz_inifile: an unrelated update moved a key of the unnamed section that begins with
// the UTF-8 signature's bytes to the start of the file, where the reader dropped them.
TEST(IniFile, FirstKeyStartingLikeASignatureSurvivesUpdates) {
  ScopedHome home;
  const std::string path = home.File("signature.ini");
  const std::string key = "\xEF\xBB\xBFk";
  ASSERT_TRUE(zrtest::WriteFile(path, "\n" + key + "=v\n"));
  zr::IniDropCache();
  ASSERT_EQ(zr::IniRead(path, "", key), "v");
  const zr::IniOp op{zr::IniOp::Kind::kSet, "S", "K", "w"};
  ASSERT_TRUE(zr::IniUpdate(path, {&op, 1}));
  EXPECT_EQ(zr::IniRead(path, "", key), "v");
  EXPECT_EQ(zr::IniRead(path, "", "k"), std::nullopt);
  EXPECT_EQ(zr::IniRead(path, "S", "K"), "w");
}

// A value whose text is quoted twice reads with one pair of quotes; updates of other keys keep it so,
// while a value set in quotes reads back without them.
TEST(IniFile, QuotedValuesSurviveUpdatesOfOtherKeys) {
  ScopedHome home;
  const std::string path = home.File("quotes.ini");
  ASSERT_TRUE(zrtest::WriteFile(path, "[S]\na=\"\"x\"\"\nb=\"y\"\nc=\"\"\"\"\nd=\" z \"\n"));
  zr::IniDropCache();
  const auto values = [&] {
    return std::vector<std::optional<std::string>>{zr::IniRead(path, "S", "a"), zr::IniRead(path, "S", "b"),
                                                   zr::IniRead(path, "S", "c"), zr::IniRead(path, "S", "d")};
  };
  const std::vector<std::optional<std::string>> expected = {"\"x\"", "y", "\"\"", " z "};
  ASSERT_EQ(values(), expected);
  for (int round = 0; round < 2; ++round) {
    const zr::IniOp op{zr::IniOp::Kind::kSet, "T", "k", "\"w\""};
    ASSERT_TRUE(zr::IniUpdate(path, {&op, 1}));
    EXPECT_EQ(values(), expected) << zrtest::ReadFile(path);
    EXPECT_EQ(zr::IniRead(path, "T", "k"), "w");
  }
}

std::string QueryDefault(const char16_t* sub, LONG* rc, DWORD capacity = 64) {
  HKEY key = nullptr;
  *rc = RegOpenKeyExW(HKEY_CLASSES_ROOT, sub, 0, KEY_READ, &key);
  if (*rc != ERROR_SUCCESS) return {};
  BYTE data[64];
  DWORD size = capacity, type = 0;
  *rc = RegQueryValueExW(key, nullptr, nullptr, &type, data, &size);
  RegCloseKey(key);
  return *rc == ERROR_SUCCESS ? std::string(reinterpret_cast<char*>(data), size) : std::to_string(size);
}

TEST(Registry, KeysValuesAndTrees) {
  ScopedHome home;
  HKEY key = nullptr;
  EXPECT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, u"A\\B", 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
  ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, u"A\\B\\C", KEY_ALL_ACCESS, &key), ERROR_SUCCESS);
  const BYTE bytes[] = {1, 0, 2, 0xFF, 0};
  EXPECT_EQ(RegSetValueExW(key, nullptr, 0, REG_BINARY, bytes, 5), ERROR_SUCCESS);
  EXPECT_EQ(RegSetValueExW(key, u"Named", 0, REG_SZ, reinterpret_cast<const BYTE*>(u"xy"), 3), ERROR_SUCCESS);
  HKEY sub = nullptr;
  EXPECT_EQ(RegCreateKeyExW(key, u"D", KEY_ALL_ACCESS, &sub), ERROR_SUCCESS);  // relative to a key
  RegCloseKey(sub);
  RegCloseKey(key);
  EXPECT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, u"a\\b", 0, KEY_READ, &key), ERROR_SUCCESS);  // intermediate key
  RegCloseKey(key);
  EXPECT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, u"A\\B\\C\\D", 0, KEY_READ, &key), ERROR_SUCCESS);
  RegCloseKey(key);
  LONG rc = 0;
  EXPECT_EQ(QueryDefault(u"a\\B\\c", &rc), std::string("\x01\x00\x02\xff\x00", 5));
  EXPECT_EQ(QueryDefault(u"A\\B\\C", &rc, 4), "5");
  EXPECT_EQ(rc, ERROR_MORE_DATA);
  ASSERT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, u"A\\B\\C", 0, KEY_READ, &key), ERROR_SUCCESS);
  BYTE data[8];
  DWORD size = sizeof data, type = 0;
  EXPECT_EQ(RegQueryValueExW(key, u"named", nullptr, &type, data, &size), ERROR_SUCCESS);
  EXPECT_EQ(type, REG_SZ);
  EXPECT_EQ(size, 3u);
  EXPECT_EQ(RegQueryValueExW(key, u"Missing", nullptr, &type, data, &size), ERROR_FILE_NOT_FOUND);
  RegCloseKey(key);

  EXPECT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, u"bad\\\\empty", KEY_ALL_ACCESS, &key), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, u"bad[name]", KEY_ALL_ACCESS, &key), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(RegDeleteTreeW(HKEY_CLASSES_ROOT, u"A\\B"), ERROR_SUCCESS);
  EXPECT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, u"A\\B\\C\\D", 0, KEY_READ, &key), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, u"A", 0, KEY_READ, &key), ERROR_SUCCESS);
  RegCloseKey(key);
  EXPECT_EQ(RegDeleteTreeW(HKEY_CLASSES_ROOT, u"A\\B"), ERROR_FILE_NOT_FOUND);

  ASSERT_TRUE(zrtest::WriteFile(home.File("HKCR.INI"), "[HKCR\\Junk]\n@=1:zz\nx=nohex\n"));
  zr::IniDropCache();
  EXPECT_EQ(QueryDefault(u"Junk", &rc), "64");  // a damaged value reads as missing
  EXPECT_EQ(rc, ERROR_FILE_NOT_FOUND);
}

}  // namespace
