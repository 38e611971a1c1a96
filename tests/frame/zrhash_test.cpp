// Hash identifiers: stated values, folding rules, user and path ids, CRC1615, and the computer name
// and id (each identity case runs in its own child, since the id is cached per process).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/identity.h"
#include "platform/text.h"
#include "test_support.h"
#include "zrobj/zrhash.h"

namespace {

TEST(ZrHash, StatedValues) {
  EXPECT_EQ(GetHashID("123456789"), 0x31C30282u);
  EXPECT_EQ(GetHashID("A"), 0x58E500D8u);
  EXPECT_EQ(GetHashIDT(u"A"), 0x3EFD0050u);
  EXPECT_EQ(GetCRC1615("123456789", 9), 0x0D2831C3u);
  EXPECT_EQ(AddCRC1615(0, 0), 0u);
  EXPECT_EQ(AddCRC1615(1, 2), 0xFCCCAABBu);
  EXPECT_EQ(GetHashID(""), 0u);
  EXPECT_EQ(zr::HashIdEngine().Eval("123456789"), 0x31C30282u);
  EXPECT_EQ(zr::ChecksumEngine().Eval("123456789"), 0x0D2831C3u);
}

TEST(ZrHash, FoldingAndWideForms) {
  EXPECT_EQ(GetHashIDi("a"), GetHashID("A"));
  EXPECT_EQ(GetHashIDi("{"), GetHashID("["));
  EXPECT_EQ(GetHashIDi("CZRObject"), GetHashID("CZROBJECT"));
  EXPECT_NE(GetHashID("CZRObject"), GetHashID("CZROBJECT"));

  // T, TW and W are the same wide hash; Ti and TWi fold; Wi deliberately does not.
  for (const char16_t* s : {u"A", u"a", u"CZRObject", u"{x}", u"\u00e9t\u00e9"}) {
    EXPECT_EQ(GetHashIDTW(s), GetHashIDT(s));
    EXPECT_EQ(GetHashIDW(s), GetHashIDT(s));
    EXPECT_EQ(GetHashIDWi(s), GetHashIDT(s));
    EXPECT_EQ(GetHashIDTWi(s), GetHashIDTi(s));
    EXPECT_EQ(GetHashIDTi(s), zr::HashIdEngine().Evali(s));
  }
  EXPECT_NE(GetHashIDWi(u"a"), GetHashIDWi(u"A"));
  EXPECT_EQ(GetHashIDTi(u"a"), GetHashIDT(u"A"));
  EXPECT_EQ(GetHashIDTWi(u"{"), GetHashIDTW(u"["));
  // Wide text hashes its two bytes per unit, so it differs from the narrow hash of the same text.
  EXPECT_NE(GetHashIDW(u"A"), GetHashID("A"));

  // Real ids never touch bits 10-15, so ZR_NO_ID can never collide with one.
  for (const char* s : {"a", "CPMemory", "COSCriticalSection", "x{y}z", "0123456789abcdef"}) {
    EXPECT_EQ(GetHashID(s) & 0xFC00u, 0u) << s;
    EXPECT_NE(GetHashID(s), ZR_NO_ID);
  }
}

TEST(ZrHash, UserAndPathIds) {
  for (const char16_t* none : {u"", static_cast<const char16_t*>(nullptr)}) EXPECT_EQ(GetUserHashIDW(none), ZR_NO_ID);
  for (const char* none : {"", static_cast<const char*>(nullptr)}) EXPECT_EQ(GetUserHashIDA(none), ZR_NO_ID);
  EXPECT_EQ(GetUserHashIDW(u"Editor"), GetHashIDWi(u"Editor"));
  EXPECT_EQ(GetUserHashIDA("Editor"), GetHashIDWi(u"Editor"));
  EXPECT_NE(GetUserHashIDA("editor"), GetUserHashIDA("Editor"));     // user ids keep case
  EXPECT_EQ(GetUserHashIDA("J\xC3\xBCrg"), GetHashIDWi(u"J\u00fcrg"));  // narrow text is UTF-8
  // Long narrow names are cut to 260 UTF-16 units before hashing.
  const std::string long_name(300, 'u');
  EXPECT_EQ(GetUserHashIDA(long_name.c_str()), GetHashIDWi(std::u16string(260, u'u').c_str()));

  // Paths shorter than two characters once normalised ("a/" is "a", "//" is "/", ".//" is ".") have
  // no id; "." is a component like any other.
  EXPECT_EQ(GetPathHash(nullptr), ZR_NO_ID);
  for (const char16_t* none : {u"a", u"", u"/", u"//", u".", u".//", u"./", u"a/"})
    EXPECT_EQ(GetPathHash(none), ZR_NO_ID) << zr::os::Utf16ToUtf8(none);
  for (const char16_t* path : {u"./a", u"a/.", u"ab", u"/a"}) {
    EXPECT_EQ(GetPathHash(path), GetHashIDTW(path)) << zr::os::Utf16ToUtf8(path);
    EXPECT_NE(GetPathHash(path), ZR_NO_ID);
  }
  // The path is hashed as given: two spellings of one path differ.
  EXPECT_EQ(GetPathHash(u"/proj//x"), GetHashIDTW(u"/proj//x"));
  EXPECT_NE(GetPathHash(u"/proj//x"), GetPathHash(u"/proj/x"));
  // Only the first 260 characters decide the length, but the whole path is hashed.
  std::u16string deep = u"/" + std::u16string(300, u'd');
  EXPECT_EQ(GetPathHash(deep.c_str()), GetHashIDTW(deep.c_str()));
}

TEST(ZrHash, Crc1615) {
  const BYTE le[8] = {0x78, 0x56, 0x34, 0x12, 0xEF, 0xCD, 0xAB, 0x89};
  EXPECT_EQ(AddCRC1615(0x12345678, 0x89ABCDEF), GetCRC1615(le, 8));
  EXPECT_EQ(GetCRC1615(le, 0), 0u);
  EXPECT_EQ(GetCRC1615("123456789", 9) & 0x10000u, 0u);
}

TEST(ZrHash, GeneratedNameFormat) {
  // 2025-03-07 01:02:03 UTC: year 29, seconds of the day 3723.
  EXPECT_EQ(zr::os::Utf16ToUtf8(zr::GeneratedComputerName(1741309323, 0)), "VORN2903073723");
  EXPECT_EQ(zr::os::Utf16ToUtf8(zr::GeneratedComputerName(1741309323, 2)), "VORN2903073725");
  // Midnight 1999-12-31: seconds of the day are printed without padding.
  EXPECT_EQ(zr::os::Utf16ToUtf8(zr::GeneratedComputerName(946598400, 0)), "VORN0312310");
}

// Runs `body` in a child with the identity environment variables set (nullptr = unset).
template <class Body>
void InChild(const char* computer, const char* user, const std::string& home, Body body) {
  const auto result = zrtest::RunChild([&] {
    computer ? ::setenv("ZROBJ_COMPUTERNAME", computer, 1) : ::unsetenv("ZROBJ_COMPUTERNAME");
    user ? ::setenv("ZROBJ_USERNAME", user, 1) : ::unsetenv("ZROBJ_USERNAME");
    ::setenv("ZROBJ_HOME", home.c_str(), 1);
    return body() ? 0 : 1;
  });
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.exit_code, 0);
}

std::string Name(const WCHAR* w) { return zr::os::Utf16ToUtf8(w); }

TEST(ZrHash, ComputerNameAndId) {
  zrtest::TempDir home;
  // The override is upper-cased and cut to 15 characters; the id is GetHashIDWi of that name.
  InChild("render-node-0123456789", "anna", home.path(), [] {
    WCHAR buf[16] = {};
    if (!GetCreateComputerName(buf, 16) || Name(buf) != "RENDER-NODE-012") return false;
    WCHAR user[64] = {};
    DWORD len = 64;
    if (!zr::os::QueryUserName(user, &len) || Name(user) != "anna" || len != 4) return false;
    return GetComputerID() == GetHashIDWi(u"RENDER-NODE-012") && GetComputerID() == GetComputerID();
  });
  // Buffers that cannot hold the name fail, and a name that exists is never replaced by a generated one.
  InChild("host7", nullptr, home.path(), [&] {
    WCHAR buf[16] = {};
    DWORD len = 3;
    if (zr::os::QueryComputerName(buf, &len) || len != 6) return false;
    if (GetCreateComputerName(buf, 3)) return false;
    return !std::filesystem::exists(zr::os::StoredComputerNamePath());
  });
  // Without any override the host name (or the kept name) is used, upper-cased.
  InChild(nullptr, nullptr, home.path(), [] {
    WCHAR buf[16] = {};
    if (!GetCreateComputerName(buf, 16)) return false;
    for (const WCHAR* p = buf; *p; ++p)
      if (*p >= u'a' && *p <= u'z') return false;
    return buf[0] != 0 && GetComputerID() == GetHashIDWi(buf);
  });
}

TEST(ZrHash, MachineWithoutNameKeepsGeneratedName) {
  zrtest::TempDir home;
  const std::string settings = home.File("settings");
  std::string first;
  // An empty override plays a system without a name: a VORN name is made and kept on disk.
  InChild("", nullptr, settings, [&] {
    WCHAR small[15] = {};
    if (GetCreateComputerName(small, 15)) return false;  // below 16 characters: no name is made
    if (std::filesystem::exists(zr::os::StoredComputerNamePath())) return false;
    WCHAR buf[16] = {};
    if (!GetCreateComputerName(buf, 16)) return false;
    const std::string name = Name(buf);
    if (name.rfind("VORN", 0) != 0 || name.size() < 11 || name.size() > 15) return false;
    return GetComputerID() == GetHashIDWi(buf) && zrtest::ReadFile(settings + "/COMPUTERNAME") == name + "\n";
  });
  first = zrtest::ReadFile(settings + "/COMPUTERNAME");
  ASSERT_FALSE(first.empty());
  first.pop_back();
  // A later process reads the same name back instead of making a new one.
  InChild("", nullptr, settings, [&] {
    WCHAR buf[16] = {};
    return GetCreateComputerName(buf, 16) && Name(buf) == first &&
           GetComputerID() == GetHashIDWi(zr::os::Utf8ToUtf16(first).c_str());
  });
  // The kept name is never overwritten, and invalid names are refused.
  InChild("", nullptr, settings, [&] {
    return !zr::os::StoreComputerName(u"OTHER") && !zr::os::StoreComputerName(u"") &&
           !zr::os::StoreComputerName(u"lower") && !zr::os::StoreComputerName(u"SIXTEEN-CHARS-XX") &&
           zrtest::ReadFile(settings + "/COMPUTERNAME") == first + "\n";
  });
  // A damaged file counts as no name and is replaced by a newly generated one.
  zrtest::WriteFile(settings + "/COMPUTERNAME", "bad name!\n");
  InChild("", nullptr, settings, [&] {
    WCHAR buf[16] = {};
    DWORD len = 16;
    if (zr::os::QueryComputerName(buf, &len) || len != 16) return false;
    if (!GetCreateComputerName(buf, 16) || Name(buf).rfind("VORN", 0) != 0) return false;
    return zrtest::ReadFile(settings + "/COMPUTERNAME") == Name(buf) + "\n";
  });
}

}  // namespace
