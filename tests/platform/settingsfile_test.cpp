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

namespace os = zr::os;

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
    EXPECT_EQ(os::WindowsDirectory(), "/srv/zr");
    WCHAR buffer[32];
    EXPECT_EQ(os::GetWindowsDirectoryW(buffer, 32), 7u);
    EXPECT_EQ(os::Utf16ToUtf8(buffer), "/srv/zr");
    EXPECT_EQ(os::GetWindowsDirectoryW(buffer, 7), 8u);  // too small: the size needed
    EXPECT_EQ(os::ProfileFilePath("ZRO.INI"), "/srv/zr/ZRO.INI");
    EXPECT_EQ(os::ProfileFilePath("/etc/x.ini"), "/etc/x.ini");
  }
  ScopedEnv no_home("ZROBJ_HOME", nullptr);
  {
    ScopedEnv xdg("XDG_CONFIG_HOME", "/cfg");
    EXPECT_EQ(os::WindowsDirectory(), "/cfg/zrobj");
  }
  ScopedEnv relative_xdg("XDG_CONFIG_HOME", "relative");  // not absolute: ignored
  ScopedEnv user("HOME", "/home/someone");
  EXPECT_EQ(os::WindowsDirectory(), "/home/someone/.config/zrobj");
}

TEST(Profile, WindowsSemantics) {
  ScopedHome home;
  char buffer[64];
  EXPECT_EQ(os::GetPrivateProfileStringA("S", "K", "dflt  ", buffer, 64, "ZRO.INI"), 4u);
  EXPECT_STREQ(buffer, "dflt");  // trailing blanks of the default dropped
  EXPECT_FALSE(std::filesystem::exists(home.File("ZRO.INI")));  // reads create nothing
  ASSERT_TRUE(os::WritePrivateProfileStringA("S", "K", "value", "ZRO.INI"));
  ASSERT_TRUE(os::WritePrivateProfileStringA("S", "  Other ", "\"  quoted  \"", "ZRO.INI"));
  ASSERT_TRUE(os::WritePrivateProfileStringA("T", "X", "1", "ZRO.INI"));
  EXPECT_EQ(os::GetPrivateProfileStringA("s", "k", "", buffer, 64, "ZRO.INI"), 5u);
  EXPECT_EQ(os::GetPrivateProfileStringA("S", "Other", "", buffer, 64, "ZRO.INI"), 10u);
  EXPECT_STREQ(buffer, "  quoted  ");  // surrounding quotes removed, inner blanks kept
  EXPECT_EQ(os::GetPrivateProfileStringA("S", "K", "", buffer, 4, "ZRO.INI"), 3u);
  EXPECT_STREQ(buffer, "val");

  EXPECT_EQ(os::GetPrivateProfileStringA("S", nullptr, "", buffer, 64, "ZRO.INI"), 8u);
  EXPECT_EQ(std::string(buffer, 9), std::string("K\0Other\0", 9));
  EXPECT_EQ(os::GetPrivateProfileStringA(nullptr, nullptr, "", buffer, 64, "ZRO.INI"), 4u);
  EXPECT_EQ(std::string(buffer, 5), std::string("S\0T\0", 5));
  EXPECT_EQ(os::GetPrivateProfileStringA("S", nullptr, "", buffer, 5, "ZRO.INI"), 3u);  // cut list: size-2
  EXPECT_EQ(std::string(buffer, 5), std::string("K\0O\0\0", 5));

  ASSERT_TRUE(os::WritePrivateProfileStringA("S", "K", nullptr, "ZRO.INI"));  // deletes the key
  EXPECT_EQ(os::GetPrivateProfileStringA("S", "K", "gone", buffer, 64, "ZRO.INI"), 4u);
  ASSERT_TRUE(os::WritePrivateProfileStringA("T", nullptr, nullptr, "ZRO.INI"));  // deletes the section
  EXPECT_EQ(os::GetPrivateProfileStringA(nullptr, nullptr, "", buffer, 64, "ZRO.INI"), 2u);

  EXPECT_FALSE(os::WritePrivateProfileStringA("S", "Bad", "two\nlines", "ZRO.INI"));
  EXPECT_FALSE(os::WritePrivateProfileStringA("S]", "K", "v", "ZRO.INI"));
  EXPECT_FALSE(os::WritePrivateProfileStringA("S", "A=B", "v", "ZRO.INI"));
  EXPECT_FALSE(os::WritePrivateProfileStringA("S", "", "v", "ZRO.INI"));
  EXPECT_EQ(os::GetPrivateProfileStringA("S", "K", "", nullptr, 64, "ZRO.INI"), 0u);
}

TEST(SetFile, ValuesAndRefusals) {
  ScopedHome home;
  const std::u16string path = os::Utf8ToUtf16(home.File("sub/dir/test.acl"));
  os::CSetFile file(path.c_str());
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

  const std::pair<const char*, std::optional<int>> ints[] = {{" 42 ", 42},       {"+7", 7},   {"0xFFFFFFFF", -1},
                                                             {"0x100000000", {}}, {"2147483648", {}},
                                                             {"1 2", {}},        {"", {}}};
  for (const auto& [text, value] : ints) EXPECT_EQ(os::ParseSettingInt(text), value) << text;
  EXPECT_EQ(os::EscapeSettingValue("\"a\\b\tc\""), "\\x22a\\\\b\\x09c\\x22");
  EXPECT_EQ(os::UnescapeSettingValue("\\x22a\\\\b\\x09c\\x22"), "\"a\\b\tc\"");
  EXPECT_EQ(os::UnescapeSettingValue("C:\\dir\\x"), "C:\\dir\\x");  // lone backslashes stay

  // An existing file that cannot be read is never replaced.
  const std::string blocked = home.File("blocked.vst");
  std::filesystem::create_directories(blocked);
  const std::u16string blocked16 = os::Utf8ToUtf16(blocked);
  os::CSetFile unusable(blocked16.c_str());
  EXPECT_FALSE(unusable.IsUsable());
  EXPECT_FALSE(unusable.WriteSettingInt("S", "K", 1));
  EXPECT_TRUE(std::filesystem::is_directory(blocked));
}

TEST(SetFile, WordsSectionsAndDeletion) {
  ScopedHome home;
  const std::string file8 = home.File("words.acl");
  const std::u16string path = os::Utf8ToUtf16(file8);
  os::CSetFile file(path.c_str());
  DWORD word = 5;
  EXPECT_FALSE(file.ReadSettingDWORD("A", "W", &word));
  EXPECT_EQ(word, 5u);
  EXPECT_TRUE(file.WriteSettingDWORD("A", "W", 0xE0000000u));
  EXPECT_NE(zrtest::ReadFile(file8).find("W=0xE0000000"), std::string::npos) << zrtest::ReadFile(file8);
  EXPECT_TRUE(file.ReadSettingDWORD("a", "w", &word));
  EXPECT_EQ(word, 0xE0000000u);
  EXPECT_TRUE(file.WriteSettingInt("B", "W", -1));  // any integer form reads as a word
  EXPECT_TRUE(file.ReadSettingDWORD("B", "W", &word));
  EXPECT_EQ(word, 0xFFFFFFFFu);
  EXPECT_TRUE(file.WriteSettingString("C", "W", u"text"));
  EXPECT_FALSE(file.ReadSettingDWORD("C", "W", &word));
  EXPECT_FALSE(file.ReadSettingDWORD("A", "W", nullptr));

  EXPECT_EQ(file.GetSectionNames(10), (std::vector<std::string>{"A", "B", "C"}));
  EXPECT_EQ(file.GetSectionNames(2), (std::vector<std::string>{"A", "B"}));
  EXPECT_TRUE(file.GetSectionNames(0).empty());

  EXPECT_TRUE(file.DeleteSettingFile());
  EXPECT_FALSE(std::filesystem::exists(file8));
  EXPECT_TRUE(file.GetSectionNames(10).empty());
  EXPECT_FALSE(file.ReadSettingDWORD("A", "W", &word));
  EXPECT_TRUE(file.DeleteSettingFile());  // nothing left to delete
  const std::string dir = home.File("full.acl");
  std::filesystem::create_directories(dir);
  const std::u16string dir16 = os::Utf8ToUtf16(dir);
  os::CSetFile directory(dir16.c_str());
  EXPECT_FALSE(directory.DeleteSettingFile());  // a directory is not a settings file
  EXPECT_TRUE(std::filesystem::is_directory(dir));
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
    os::IniDropCache();
    for (const std::string& section : os::IniSections(path))
      for (const std::string& key : os::IniKeys(path, section)) (void)os::IniRead(path, section, key);
    const os::IniOp op{os::IniOp::Kind::kSet, "Probe", "Key", std::to_string(round)};
    ASSERT_TRUE(os::IniUpdate(path, {&op, 1}));
    EXPECT_EQ(os::IniRead(path, "probe", "KEY"), std::to_string(round));
  }
}

TEST(IniFile, LinksAndSpecialFiles) {
  ScopedHome home;
  const std::string target = home.File("real.ini");
  const std::string link = home.File("link.ini");
  std::filesystem::create_symlink(target, link);
  const os::IniOp op{os::IniOp::Kind::kSet, "S", "K", "v"};
  ASSERT_TRUE(os::IniUpdate(link, {&op, 1}));
  EXPECT_TRUE(std::filesystem::is_symlink(link));  // still a link, the target holds the value
  EXPECT_EQ(os::IniRead(target, "S", "K"), "v");
  EXPECT_EQ(os::IniRead(link, "S", "K"), "v");

  const std::string fifo = home.File("fifo.ini");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(os::IniGetState(fifo), os::IniFileState::kUnreadable);  // refused, not waited on
  EXPECT_EQ(os::IniRead(fifo, "S", "K"), std::nullopt);
  EXPECT_FALSE(os::IniUpdate(fifo, {&op, 1}));
}

// Names and values the file cannot hold are refused, not written cut short: a NUL byte would end the
// parser's C strings, and a key with blanks before ';' would be written as a comment line.
TEST(IniFile, UpdateRefusesWhatTheFileCannotHold) {
  ScopedHome home;
  const std::string path = home.File("refuse.ini");
  ASSERT_TRUE(zrtest::WriteFile(path, "[S]\nk=v\n"));
  os::IniDropCache();
  using Kind = os::IniOp::Kind;
  const os::IniOp refused[] = {
      {Kind::kSet, "S", "K", std::string("a\0b", 3)}, {Kind::kSet, "S", std::string("\0K", 2), "v"},
      {Kind::kSet, std::string("S\0T", 3), "K", "v"}, {Kind::kSet, "S", " ;K", "v"},
      {Kind::kSet, "S", "\t#K", "v"},                {Kind::kDeleteKey, "S", "  [K", ""}};
  for (const os::IniOp& op : refused) EXPECT_FALSE(os::IniUpdate(path, {&op, 1})) << op.key;
  EXPECT_EQ(zrtest::ReadFile(path), "[S]\nk=v\n");
  const os::IniOp blanks{Kind::kSet, "S", "  K;  ", "v"};  // ';' inside a key is fine
  ASSERT_TRUE(os::IniUpdate(path, {&blanks, 1}));
  EXPECT_EQ(os::IniRead(path, "S", "K;"), "v");
}

// Found by fuzz_inifile: an unrelated update moved a key of the unnamed section that begins with
// the UTF-8 signature's bytes to the start of the file, where the reader dropped them.
TEST(IniFile, FirstKeyStartingLikeASignatureSurvivesUpdates) {
  ScopedHome home;
  const std::string path = home.File("signature.ini");
  const std::string key = "\xEF\xBB\xBFk";
  ASSERT_TRUE(zrtest::WriteFile(path, "\n" + key + "=v\n"));
  os::IniDropCache();
  ASSERT_EQ(os::IniRead(path, "", key), "v");
  const os::IniOp op{os::IniOp::Kind::kSet, "S", "K", "w"};
  ASSERT_TRUE(os::IniUpdate(path, {&op, 1}));
  EXPECT_EQ(os::IniRead(path, "", key), "v");
  EXPECT_EQ(os::IniRead(path, "", "k"), std::nullopt);
  EXPECT_EQ(os::IniRead(path, "S", "K"), "w");
}

// A value whose text is quoted twice reads with one pair of quotes; updates of other keys keep it so,
// while a value set in quotes reads back without them.
TEST(IniFile, QuotedValuesSurviveUpdatesOfOtherKeys) {
  ScopedHome home;
  const std::string path = home.File("quotes.ini");
  ASSERT_TRUE(zrtest::WriteFile(path, "[S]\na=\"\"x\"\"\nb=\"y\"\nc=\"\"\"\"\nd=\" z \"\n"));
  os::IniDropCache();
  const auto values = [&] {
    return std::vector<std::optional<std::string>>{os::IniRead(path, "S", "a"), os::IniRead(path, "S", "b"),
                                                   os::IniRead(path, "S", "c"), os::IniRead(path, "S", "d")};
  };
  const std::vector<std::optional<std::string>> expected = {"\"x\"", "y", "\"\"", " z "};
  ASSERT_EQ(values(), expected);
  for (int round = 0; round < 2; ++round) {
    const os::IniOp op{os::IniOp::Kind::kSet, "T", "k", "\"w\""};
    ASSERT_TRUE(os::IniUpdate(path, {&op, 1}));
    EXPECT_EQ(values(), expected) << zrtest::ReadFile(path);
    EXPECT_EQ(os::IniRead(path, "T", "k"), "w");
  }
}

std::string QueryDefault(const char16_t* sub, LONG* rc, DWORD capacity = 64) {
  os::HKEY key = nullptr;
  *rc = os::RegOpenKeyExW(HKEY_CLASSES_ROOT, sub, 0, os::KEY_READ, &key);
  if (*rc != ERROR_SUCCESS) return {};
  BYTE data[64];
  DWORD size = capacity, type = 0;
  *rc = os::RegQueryValueExW(key, nullptr, nullptr, &type, data, &size);
  os::RegCloseKey(key);
  return *rc == ERROR_SUCCESS ? std::string(reinterpret_cast<char*>(data), size) : std::to_string(size);
}

TEST(Registry, KeysValuesAndTrees) {
  ScopedHome home;
  os::HKEY key = nullptr;
  EXPECT_EQ(os::RegOpenKeyExW(HKEY_CLASSES_ROOT, u"A\\B", 0, os::KEY_READ, &key), ERROR_FILE_NOT_FOUND);
  ASSERT_EQ(os::RegCreateKeyExW(HKEY_CLASSES_ROOT, u"A\\B\\C", os::KEY_ALL_ACCESS, &key), ERROR_SUCCESS);
  const BYTE bytes[] = {1, 0, 2, 0xFF, 0};
  EXPECT_EQ(os::RegSetValueExW(key, nullptr, 0, os::REG_BINARY, bytes, 5), ERROR_SUCCESS);
  EXPECT_EQ(os::RegSetValueExW(key, u"Named", 0, os::REG_SZ, reinterpret_cast<const BYTE*>(u"xy"), 3), ERROR_SUCCESS);
  os::HKEY sub = nullptr;
  EXPECT_EQ(os::RegCreateKeyExW(key, u"D", os::KEY_ALL_ACCESS, &sub), ERROR_SUCCESS);  // relative to a key
  os::RegCloseKey(sub);
  os::RegCloseKey(key);
  EXPECT_EQ(os::RegOpenKeyExW(HKEY_CLASSES_ROOT, u"a\\b", 0, os::KEY_READ, &key), ERROR_SUCCESS);  // intermediate key
  os::RegCloseKey(key);
  EXPECT_EQ(os::RegOpenKeyExW(HKEY_CLASSES_ROOT, u"A\\B\\C\\D", 0, os::KEY_READ, &key), ERROR_SUCCESS);
  os::RegCloseKey(key);
  LONG rc = 0;
  EXPECT_EQ(QueryDefault(u"a\\B\\c", &rc), std::string("\x01\x00\x02\xff\x00", 5));
  EXPECT_EQ(QueryDefault(u"A\\B\\C", &rc, 4), "5");
  EXPECT_EQ(rc, ERROR_MORE_DATA);
  ASSERT_EQ(os::RegOpenKeyExW(HKEY_CLASSES_ROOT, u"A\\B\\C", 0, os::KEY_READ, &key), ERROR_SUCCESS);
  BYTE data[8];
  DWORD size = sizeof data, type = 0;
  EXPECT_EQ(os::RegQueryValueExW(key, u"named", nullptr, &type, data, &size), ERROR_SUCCESS);
  EXPECT_EQ(type, os::REG_SZ);
  EXPECT_EQ(size, 3u);
  EXPECT_EQ(os::RegQueryValueExW(key, u"Missing", nullptr, &type, data, &size), ERROR_FILE_NOT_FOUND);
  os::RegCloseKey(key);

  EXPECT_EQ(os::RegCreateKeyExW(HKEY_CLASSES_ROOT, u"bad\\\\empty", os::KEY_ALL_ACCESS, &key), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(os::RegCreateKeyExW(HKEY_CLASSES_ROOT, u"bad[name]", os::KEY_ALL_ACCESS, &key), ERROR_INVALID_PARAMETER);
  EXPECT_EQ(os::RegDeleteTreeW(HKEY_CLASSES_ROOT, u"A\\B"), ERROR_SUCCESS);
  EXPECT_EQ(os::RegOpenKeyExW(HKEY_CLASSES_ROOT, u"A\\B\\C\\D", 0, os::KEY_READ, &key), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(os::RegOpenKeyExW(HKEY_CLASSES_ROOT, u"A", 0, os::KEY_READ, &key), ERROR_SUCCESS);
  os::RegCloseKey(key);
  EXPECT_EQ(os::RegDeleteTreeW(HKEY_CLASSES_ROOT, u"A\\B"), ERROR_FILE_NOT_FOUND);

  ASSERT_TRUE(zrtest::WriteFile(home.File("HKCR.INI"), "[HKCR\\Junk]\n@=1:zz\nx=nohex\n"));
  os::IniDropCache();
  EXPECT_EQ(QueryDefault(u"Junk", &rc), "64");  // a damaged value reads as missing
  EXPECT_EQ(rc, ERROR_FILE_NOT_FOUND);
}

}  // namespace
