// Access lists: the kept entry-0 quirk of CPACLList and its 512-byte growth, the scan of a project's
// ".acl" files, recording under concurrent copies, the grant/removal/enumeration rules with the
// hidden marker, the change stamp and the notification bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/lasterror.h"
#include "platform/settingsfile.h"
#include "platform/text.h"
#include "test_support.h"
#include "zrobj/byteorder.h"
#include "zrobj/cpacl.h"
#include "zrobj/czrfile.h"
#include "zrobj/zrhash.h"

namespace {

namespace os = zr::os;
using Pair = std::pair<DWORD, DWORD>;

std::u16string W(const std::string& text) { return os::Utf8ToUtf16(text); }

std::vector<Pair> Entries(const CPACLList& list) {
  std::vector<Pair> out;
  const tagACLLISTENTRY* entries = list.GetCList();
  for (DWORD i = 0; i < list.GetNItems(); ++i) out.emplace_back(entries[i].dwFirst, entries[i].dwSecond);
  return out;
}

bool SortedBySecond(const std::vector<Pair>& pairs) {
  return std::is_sorted(pairs.begin(), pairs.end(), [](const Pair& a, const Pair& b) { return a.second < b.second; });
}

// ---- CPACLList ----

TEST(CPACLList, FindAndAddTestTheFirstEntry) {
  CPACLList list;
  EXPECT_EQ(list.Find(1, 5), nullptr);
  ASSERT_EQ(list.Add(1, 5), 1);
  ASSERT_EQ(list.Add(2, 9), 1);
  EXPECT_EQ(Entries(list), (std::vector<Pair>{{1, 5}, {2, 9}}));
  EXPECT_EQ(list.Find(2, 9), nullptr);  // present, but not the first entry
  ASSERT_EQ(list.Add(2, 9), 1);         // so it goes in again
  EXPECT_EQ(Entries(list), (std::vector<Pair>{{1, 5}, {2, 9}, {2, 9}}));
  ASSERT_NE(list.Find(1, 5), nullptr);
  EXPECT_EQ(list.Find(1, 5), list.GetList());
  EXPECT_EQ(list.Add(1, 5), 1);  // the first entry is judged present: no change
  EXPECT_EQ(list.GetNItems(), 3u);
  EXPECT_EQ(list.Find(7, 5), nullptr);  // the first number must match too
  EXPECT_STREQ(list.GetClassID(), "CPACLList");
}

TEST(CPACLList, OrderIsBySecondNumberOnly) {
  CPACLList list;
  for (DWORD second : {50u, 10u, 30u, 20u, 40u}) ASSERT_EQ(list.Add(100 - second, second), 1);
  const std::vector<Pair> pairs = Entries(list);
  EXPECT_EQ(pairs, (std::vector<Pair>{{90, 10}, {80, 20}, {70, 30}, {60, 40}, {50, 50}}));
  ASSERT_EQ(list.Add(1, 30), 1);  // equal second numbers: in front of the equals (lower bound)
  EXPECT_EQ(Entries(list)[2], (Pair{1, 30}));
  EXPECT_TRUE(SortedBySecond(Entries(list)));
}

TEST(CPACLList, DeleteOnlyRemovesTheFirstEntry) {
  CPACLList list;
  EXPECT_EQ(list.Delete(1, 1), 1);  // empty
  list.Add(1, 5);
  list.Add(2, 9);
  EXPECT_EQ(list.Delete(2, 9), 1);  // not first: unchanged
  EXPECT_EQ(list.GetNItems(), 2u);
  EXPECT_EQ(list.Delete(1, 5), 1);
  EXPECT_EQ(Entries(list), (std::vector<Pair>{{2, 9}}));
  ASSERT_NE(list.GetHeader(), nullptr);
  EXPECT_EQ(list.Delete(2, 9), 1);  // the only entry: the memory goes
  EXPECT_EQ(list.GetHeader(), nullptr);
  EXPECT_EQ(list.GetCList(), nullptr);
}

TEST(CPACLList, GrowsBy512BytesAtThe65thEntry) {
  CPACLList list;
  ASSERT_EQ(list.Add(0, 0), 1);
  EXPECT_EQ(list.GetAllocSize(), 512u);
  for (DWORD i = 1; i < 64; ++i) ASSERT_EQ(list.Add(i, i), 1);
  EXPECT_EQ(list.GetNItems(), 64u);
  EXPECT_EQ(list.GetAllocSize(), 512u);
  ASSERT_EQ(list.Add(64, 64), 1);
  EXPECT_EQ(list.GetAllocSize(), 1024u);
  EXPECT_EQ(list.GetNItems(), 65u);
  EXPECT_EQ(Entries(list).back(), (Pair{64, 64}));
  EXPECT_TRUE(SortedBySecond(Entries(list)));
}

TEST(CPACLList, CopiesShareUntilMadePrivate) {
  CPACLList list;
  list.Add(1, 5);
  CPACLList copy(list);
  EXPECT_EQ(copy.GetHeader(), list.GetHeader());
  EXPECT_EQ(list.GetRefCnt(), 2);
  ASSERT_EQ(copy.Realloc(CPMEM_PRIVATE_COPY, 0, 0), 1);
  EXPECT_NE(copy.GetHeader(), list.GetHeader());
  copy.Add(3, 7);
  EXPECT_EQ(list.GetNItems(), 1u);
  EXPECT_EQ(copy.GetNItems(), 2u);
}

// ---- paths ----

TEST(ACLFiles, PathsAndLocations) {
  EXPECT_EQ(zr::ACLFilePath(u"/p/obj/0000000A/0000001F.zro"), u"/p/obj/0000000A/0000001F.acl");
  EXPECT_EQ(zr::ACLFilePath(u"/p/obj/a.b/noext"), u"/p/obj/a.b/noext.acl");
  EXPECT_EQ(zr::ACLFilePath(u"/p/.hidden"), u"/p/.hidden.acl");
  DWORD first = 0, second = 0;
  ASSERT_TRUE(zr::ACLLocationFromPath(u"/p/obj/0000000A/0000001F.zro", &first, &second));
  EXPECT_EQ(first, 0xAu);
  EXPECT_EQ(second, 0x1Fu);
  ASSERT_TRUE(zr::ACLLocationFromPath(u"/p/obj/ff/12xyz.acl", &first, &second));  // "%x" stops at 'x'
  EXPECT_EQ(first, 0xFFu);
  EXPECT_EQ(second, 0x12u);
  // Names longer than eight digits keep their low 32 bits; far too long ones saturate.
  ASSERT_TRUE(zr::ACLLocationFromPath(u"/p/obj/123456789/FFFFFFFFFFFFFFFFFFFFFFFF.acl", &first, &second));
  EXPECT_EQ(first, 0x23456789u);
  EXPECT_EQ(second, 0xFFFFFFFFu);
  EXPECT_FALSE(zr::ACLLocationFromPath(u"/p/obj/notes/1.acl", &first, &second));
  EXPECT_FALSE(zr::ACLLocationFromPath(u"/p/obj/1/readme.acl", &first, &second));
  EXPECT_FALSE(zr::ACLLocationFromPath(u"1.acl", &first, &second));
  EXPECT_FALSE(zr::ACLLocationFromPath(nullptr, &first, &second));
}

// ---- the active list ----

void Touch(const std::string& path) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  ASSERT_TRUE(zrtest::WriteFile(path, "[00000001]\n"));
}

class ActiveListTest : public ::testing::Test {
 protected:
  void TearDown() override { zr::ResetActiveACLList(nullptr); }
  zrtest::TempDir project_;
};

TEST_F(ActiveListTest, ScanTakesHexNamesWithTheExtensionInAnyCase) {
  const std::string obj = project_.File("obj/");
  Touch(obj + "0000000A/0000001F.acl");
  Touch(obj + "0000000B/00000002.ACL");
  Touch(obj + "0000000C/sub/00000003.Acl");   // recursive: its directory is "sub", no number
  Touch(obj + "0000000C/d/00000004.acl");      // "d" reads as 0xD
  Touch(obj + "0000000E/zz.acl");               // file name not hexadecimal
  Touch(obj + "notes/00000005.acl");            // directory name not hexadecimal
  Touch(obj + "0000000F/00000006.acl.bak");
  Touch(obj + "0000000F/00000007.zro");
  std::filesystem::create_directories(obj + "0000000F/00000008.acl");  // a directory
  Touch(project_.File("00000010/00000009.acl"));                        // outside obj/

  zr::ResetActiveACLList(W(project_.path()).c_str());  // the final separator is added
  EXPECT_FALSE(zr::IsActiveACLListScanned());
  const CPACLList list = zr::GetActiveACLList();
  EXPECT_TRUE(zr::IsActiveACLListScanned());
  EXPECT_EQ(Entries(list), (std::vector<Pair>{{0xB, 2}, {0xD, 4}, {0xA, 0x1F}}));

  // A reset forgets it; the next use scans again.
  Touch(obj + "00000011/00000001.acl");
  zr::ResetActiveACLList(W(project_.path() + "/").c_str());
  EXPECT_FALSE(zr::IsActiveACLListScanned());
  EXPECT_EQ(zr::GetActiveACLList().GetNItems(), 4u);
}

TEST_F(ActiveListTest, RecordingFollowsTheScannedList) {
  zr::ResetActiveACLList(W(project_.path()).c_str());
  zr::RecordNewACLList(1, 5);  // not scanned yet: nothing
  EXPECT_FALSE(zr::IsActiveACLListScanned());
  EXPECT_EQ(zr::GetActiveACLList().GetNItems(), 0u);  // no obj/ folder: empty, but scanned

  zr::RecordNewACLList(1, 5);
  zr::RecordNewACLList(2, 9);
  zr::RecordNewACLList(1, 5);  // found as the first entry: no change
  EXPECT_EQ(Entries(zr::GetActiveACLList()), (std::vector<Pair>{{1, 5}, {2, 9}}));
  zr::RecordNewACLList(2, 9);  // not first: the quirk inserts it again
  EXPECT_EQ(Entries(zr::GetActiveACLList()), (std::vector<Pair>{{1, 5}, {2, 9}, {2, 9}}));
  zr::RecordRemovedACLList(2, 9);  // not first: stays
  EXPECT_EQ(zr::GetActiveACLList().GetNItems(), 3u);
  zr::RecordRemovedACLList(1, 5);
  EXPECT_EQ(Entries(zr::GetActiveACLList()), (std::vector<Pair>{{2, 9}, {2, 9}}));

  CPACLList copy = zr::GetActiveACLList();
  EXPECT_EQ(copy.GetRefCnt(), 1);  // private
  copy.Add(0, 1);
  EXPECT_EQ(zr::GetActiveACLList().GetNItems(), 2u);
}

TEST_F(ActiveListTest, ConcurrentRecordingAndCopies) {
  zr::ResetActiveACLList(W(project_.path()).c_str());
  ASSERT_EQ(zr::GetActiveACLList().GetNItems(), 0u);  // scanned: recording counts from here on
  constexpr int kWriters = 3;
  constexpr DWORD kPerWriter = 150;
  std::atomic<int> writersLeft{kWriters};
  std::atomic<int> badCopies{0};
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([w, &writersLeft] {
      for (DWORD i = 0; i < kPerWriter; ++i) {
        const DWORD second = i * kWriters + static_cast<DWORD>(w) + 1;
        zr::RecordNewACLList(0x100 + static_cast<DWORD>(w), second);
        if (i % 10 == 0) zr::RecordRemovedACLList(0, 0);  // never present: takes the write lock only
      }
      writersLeft.fetch_sub(1);
    });
  }
  for (int r = 0; r < 3; ++r) {
    threads.emplace_back([&] {
      DWORD last = 0;
      do {  // copies keep growing, stay sorted and private
        const CPACLList copy = zr::GetActiveACLList();
        const std::vector<Pair> pairs = Entries(copy);
        if (!SortedBySecond(pairs) || pairs.size() < last || (copy.GetHeader() && copy.GetRefCnt() != 1)) ++badCopies;
        last = static_cast<DWORD>(pairs.size());
      } while (writersLeft.load() > 0);
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(badCopies.load(), 0);
  const std::vector<Pair> all = Entries(zr::GetActiveACLList());
  ASSERT_EQ(all.size(), kWriters * kPerWriter);
  for (DWORD s = 1; s <= kWriters * kPerWriter; ++s)
    EXPECT_EQ(all[s - 1], (Pair{0x100 + (s - 1) % kWriters, s}));
}

// ---- grants ----

struct Granted {
  std::u16string user;
  DWORD rights;
};

void Collect(const WCHAR* user, DWORD rights, void* context) {
  static_cast<std::vector<Granted>*>(context)->push_back({user, rights});
}

class GrantTest : public ::testing::Test {
 protected:
  void SetUp() override {
    objectPath_ = dir_.File("obj/0000000A/0000001F.zro");
    Touch(objectPath_);
    object_ = W(objectPath_);
    list_ = zr::ACLFilePath(object_.c_str());
  }
  bool Hidden() const { return (CZRFile::GetAttributes(object_.c_str()) & CZRFile::kAttributeHidden) != 0; }
  bool ListExists() const { return std::filesystem::exists(os::Utf16ToUtf8(list_)); }
  std::vector<Granted> Rights() const {
    std::vector<Granted> out;
    zr::ACLEnumRights(object_.c_str(), Collect, &out);
    return out;
  }
  zr::ACLGrantOutcome Grant(const WCHAR* current, bool admin, const WCHAR* target, DWORD access) const {
    return zr::ACLGrantAccess(object_.c_str(), current, admin, target, access);
  }

  zrtest::TempDir dir_;
  std::string objectPath_;
  std::u16string object_;
  std::u16string list_;
};

TEST_F(GrantTest, FirstGrantCreatesTwoSectionsAndTheMarker) {
  ASSERT_FALSE(Hidden());
  const zr::ACLGrantOutcome outcome = Grant(u"alice", false, u"bob", ACL_READ | ACL_WRITE | 0x1234);
  EXPECT_EQ(outcome.result, 1);
  EXPECT_TRUE(outcome.stampChanged);
  EXPECT_EQ(outcome.list, zr::ACLChange::kCreated);
  EXPECT_TRUE(Hidden());
  ASSERT_TRUE(ListExists());

  os::CSetFile file(list_.c_str());
  char alice[16], bob[16];
  std::snprintf(alice, sizeof alice, "%08X", GetUserHashIDW(u"alice"));
  std::snprintf(bob, sizeof bob, "%08X", GetUserHashIDW(u"bob"));
  EXPECT_EQ(file.GetSectionNames(10), (std::vector<std::string>{alice, bob}));
  DWORD rights = 0;
  WCHAR name[65];
  ASSERT_TRUE(file.ReadSettingDWORD(alice, "Rights", &rights));
  EXPECT_EQ(rights, 0xE0000000u);
  ASSERT_TRUE(file.ReadSettingString(bob, "User", name, 65));
  EXPECT_EQ(std::u16string(name), u"bob");
  ASSERT_TRUE(file.ReadSettingDWORD(bob, "Rights", &rights));
  EXPECT_EQ(rights, 0xC0000000u);  // only the three right bits are kept

  const std::vector<Granted> listed = Rights();
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].user, u"alice");
  EXPECT_EQ(listed[0].rights, 0xE0000000u);
  EXPECT_EQ(listed[1].user, u"bob");
  EXPECT_EQ(zr::ACLGetUserRights(object_.c_str(), u"bob"), 0xC0000000u);
}

TEST_F(GrantTest, GrantingToOneselfChangesNothing) {
  const zr::ACLGrantOutcome first = Grant(u"alice", false, u"alice", ACL_READ);
  EXPECT_EQ(first.result, 1);  // a new list: the creator's section only
  EXPECT_EQ(Rights().size(), 1u);
  EXPECT_EQ(zr::ACLGetUserRights(object_.c_str(), u"alice"), ACL_ALL_RIGHTS);

  const zr::ACLGrantOutcome partial = Grant(u"alice", false, u"alice", ACL_READ);
  EXPECT_EQ(partial.result, 0);
  EXPECT_FALSE(partial.stampChanged);
  const zr::ACLGrantOutcome all = Grant(u"alice", false, u"alice", ACL_ALL_RIGHTS);
  EXPECT_EQ(all.result, 1);
  EXPECT_FALSE(all.stampChanged);
  EXPECT_EQ(zr::ACLGetUserRights(object_.c_str(), u"alice"), ACL_ALL_RIGHTS);
  EXPECT_EQ(Grant(u"alice", true, u"alice", ACL_READ).result, 0);  // administrators too
}

TEST_F(GrantTest, OnlyListChangersAndAdministratorsChangeAList) {
  ASSERT_EQ(Grant(u"alice", false, u"bob", ACL_READ | ACL_WRITE).result, 1);
  EXPECT_EQ(Grant(u"bob", false, u"carol", ACL_READ).result, 0);
  EXPECT_EQ(Grant(u"bob", false, nullptr, 0).result, 0);  // nor remove it
  EXPECT_EQ(Grant(u"mallory", false, u"mallory", ACL_ALL_RIGHTS).result, 0);
  EXPECT_TRUE(ListExists());
  EXPECT_EQ(Rights().size(), 2u);

  const zr::ACLGrantOutcome admin = Grant(u"bob", true, u"carol", ACL_READ);
  EXPECT_EQ(admin.result, 1);
  EXPECT_TRUE(admin.stampChanged);
  EXPECT_EQ(admin.list, zr::ACLChange::kNone);
  EXPECT_EQ(zr::ACLGetUserRights(object_.c_str(), u"carol"), ACL_READ);

  ASSERT_EQ(Grant(u"alice", false, u"bob", ACL_CHANGE_LIST).result, 1);  // replaces bob's rights
  EXPECT_EQ(zr::ACLGetUserRights(object_.c_str(), u"bob"), ACL_CHANGE_LIST);
  EXPECT_EQ(Grant(u"bob", false, u"carol", 0).result, 1);
  EXPECT_EQ(zr::ACLGetUserRights(object_.c_str(), u"carol"), 0u);
  EXPECT_EQ(Rights().size(), 3u);
}

TEST_F(GrantTest, RemovalDeletesTheFileAndClearsTheMarker) {
  ASSERT_EQ(Grant(u"alice", false, u"bob", ACL_READ).result, 1);
  ASSERT_TRUE(Hidden());
  const zr::ACLGrantOutcome removed = Grant(u"alice", false, nullptr, 0);
  EXPECT_EQ(removed.result, 1);
  EXPECT_TRUE(removed.stampChanged);
  EXPECT_EQ(removed.list, zr::ACLChange::kRemoved);
  EXPECT_FALSE(ListExists());
  EXPECT_FALSE(Hidden());
  EXPECT_TRUE(Rights().empty());

  // Without a list a removal only clears a stray marker.
  ASSERT_TRUE(CZRFile::SetAttributes(object_.c_str(), CZRFile::kAttributeHidden));
  const zr::ACLGrantOutcome none = Grant(u"alice", false, nullptr, 0);
  EXPECT_EQ(none.result, 1);
  EXPECT_TRUE(none.stampChanged);
  EXPECT_EQ(none.list, zr::ACLChange::kNone);
  EXPECT_FALSE(Hidden());
}

TEST_F(GrantTest, RefusalsAndCutNames) {
  EXPECT_EQ(zr::ACLGrantAccess(W(dir_.File("missing.zro")).c_str(), u"alice", false, u"bob", ACL_READ).result, 0);
  EXPECT_FALSE(std::filesystem::exists(dir_.File("missing.acl")));
  EXPECT_EQ(Grant(u"alice", false, u"", ACL_READ).result, 0);
  EXPECT_EQ(Grant(nullptr, false, u"bob", ACL_READ).result, 0);
  EXPECT_FALSE(ListExists());
  EXPECT_FALSE(Hidden());

  const std::u16string longName(80, u'n');
  ASSERT_EQ(Grant(u"alice", false, longName.c_str(), ACL_READ).result, 1);
  const std::vector<Granted> listed = Rights();
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[1].user, longName.substr(0, 64));
  EXPECT_EQ(zr::ACLGetUserRights(object_.c_str(), longName.substr(0, 64).c_str()), ACL_READ);
}

// A creator whose name is longer than the list keeps is still the holder of the list it created.
TEST_F(GrantTest, ALongCreatorNameKeepsItsRights) {
  const std::u16string creator(80, u'c');
  ASSERT_EQ(Grant(creator.c_str(), false, u"bob", ACL_READ).result, 1);
  EXPECT_EQ(zr::ACLGetUserRights(object_.c_str(), creator.c_str()), ACL_ALL_RIGHTS);
  EXPECT_EQ(Grant(creator.c_str(), false, u"bob", ACL_READ | ACL_WRITE).result, 1);
  EXPECT_EQ(zr::ACLGetUserRights(object_.c_str(), u"bob"), ACL_READ | ACL_WRITE);
  EXPECT_EQ(Grant(creator.c_str(), false, creator.substr(0, 64).c_str(), ACL_READ).result, 0);  // itself
  EXPECT_EQ(Grant(creator.c_str(), false, nullptr, 0).result, 1);
  EXPECT_FALSE(ListExists());
}

TEST_F(GrantTest, EnumerationNeedsTheMarkerAndSurvivesHostileFiles) {
  ASSERT_EQ(Grant(u"alice", false, u"bob", ACL_READ).result, 1);
  ASSERT_TRUE(CZRFile::SetAttributes(object_.c_str(), 0));
  EXPECT_TRUE(Rights().empty());  // a list without the marker is not consulted
  ASSERT_TRUE(CZRFile::SetAttributes(object_.c_str(), CZRFile::kAttributeHidden));

  std::string text = "[not a user]\nRights=0xE0000000\nUser=x\n[0000ABCD]\nRights=lots\nUser=\"q\"\\x22\n"
                     "[0000ABCE\nUser=\xff\xfe\n";
  for (int i = 0; i < 300; ++i) text += "[" + std::to_string(10000000 + i) + "]\nRights=1\nUser=u\n";
  ASSERT_TRUE(zrtest::WriteFile(os::Utf16ToUtf8(list_), text));
  const std::vector<Granted> listed = Rights();
  ASSERT_FALSE(listed.empty());
  EXPECT_EQ(listed[0].user, u"\"q\"\"");
  EXPECT_EQ(listed[0].rights, 0u);  // not a number: absent
  EXPECT_LE(listed.size(), zr::kACLMaxUsers);
  EXPECT_GE(listed.size(), 250u);
}

// ---- change stamp and notification ----

TEST(ACLChangeStamp, RuleAndFiles) {
  EXPECT_EQ(zr::ACLNextWriteTime(200, 100), 200u);
  EXPECT_EQ(zr::ACLNextWriteTime(100, 100), 101u);
  EXPECT_EQ(zr::ACLNextWriteTime(50, 100), 101u);

  zrtest::TempDir dir;
  const std::u16string path = W(dir.File("stamp.zro"));
  ASSERT_TRUE(zrtest::WriteFile(dir.File("stamp.zro"), "x"));
  CZRFile closed(path.c_str());
  os::SetLastError(0);
  EXPECT_EQ(zr::ACLBumpChangeStamp(closed), 0);
  EXPECT_EQ(os::GetLastError(), 6u);

  CZRFile file;
  ASSERT_EQ(file.Open(path.c_str(), 0xC0000000u, 3, CZRFile::kOpenExisting, 0, 0), CZRFile::kOpened);
  const FILETIME older{1000000, 30000000}, newer{2000000, 30000000};
  ASSERT_TRUE(file.SetTime(nullptr, &newer, &older));
  ASSERT_EQ(zr::ACLBumpChangeStamp(file), 1);
  FILETIME access{}, write{};
  ASSERT_TRUE(file.GetTime(nullptr, &access, &write));
  EXPECT_EQ(write.dwLowDateTime, newer.dwLowDateTime);  // the later last-access time
  EXPECT_EQ(access.dwLowDateTime, newer.dwLowDateTime);
  ASSERT_EQ(zr::ACLBumpChangeStamp(file), 1);
  ASSERT_TRUE(file.GetTime(nullptr, &access, &write));
  EXPECT_EQ(write.dwLowDateTime, newer.dwLowDateTime + 1);  // one tick on
  EXPECT_EQ(write.dwHighDateTime, newer.dwHighDateTime);
  EXPECT_EQ(access.dwLowDateTime, newer.dwLowDateTime);      // only the last-write time is written
  file.Close();
}

TEST(ACLNotification, FortyLittleEndianBytes) {
  const DWORD location[5] = {0x11223344, 2, 3, 4, 0xA0B0C0D0};
  const auto created = zr::ACLChangeNotification(location, 1);
  ASSERT_EQ(created.size(), 40u);
  EXPECT_EQ(zr::LoadLE32(created.data()), 40u);
  EXPECT_EQ(zr::LoadLE32(created.data() + 4), 0u);
  EXPECT_EQ(zr::LoadLE32(created.data() + 8), 0u);
  EXPECT_EQ(zr::LoadLE32(created.data() + 12), 2u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(zr::LoadLE32(created.data() + 16 + 4 * i), location[i]);
  EXPECT_EQ(zr::LoadLE32(created.data() + 36), 1u);
  EXPECT_EQ(zr::LoadLE32(zr::ACLChangeNotification(location, 0).data() + 36), 0u);
}

}  // namespace
