// Access lists through the Locator: the first grant, grants to oneself, who may change or remove a
// list, the notification bytes handed to the store's sender, enumeration, the active list across
// working projects, the change stamp other locators see, and a second process reading the list.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/diag_capture.h"
#include "platform/text.h"
#include "test_support.h"
#include "zrobj/byteorder.h"
#include "zrobj/cpacl.h"
#include "zrobj/locator.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrhash.h"

namespace {

namespace os = zr::os;

std::u16string W(const std::string& text) { return os::Utf8ToUtf16(text); }
std::string N(const std::u16string& text) { return os::Utf16ToUtf8(text); }

// The registry's current user for the scope.
class AsUser {
 public:
  explicit AsUser(const char* name) {
    if (const char* old = ::getenv("ZROBJ_USERNAME")) old_ = old;
    ::setenv("ZROBJ_USERNAME", name, 1);
  }
  ~AsUser() {
    if (old_.empty())
      ::unsetenv("ZROBJ_USERNAME");
    else
      ::setenv("ZROBJ_USERNAME", old_.c_str(), 1);
  }
  AsUser(const AsUser&) = delete;
  AsUser& operator=(const AsUser&) = delete;

 private:
  std::string old_;
};

// Records every store notification while installed.
class CapturedNotifications {
 public:
  CapturedNotifications() { previous_ = zr::SetStoreNotifySender(&Capture); }
  ~CapturedNotifications() {
    zr::SetStoreNotifySender(previous_);
    std::lock_guard lock(mutex_);
    messages_.clear();
  }
  CapturedNotifications(const CapturedNotifications&) = delete;
  CapturedNotifications& operator=(const CapturedNotifications&) = delete;

  std::vector<std::vector<BYTE>> Messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
  }

 private:
  static int Capture(const void* message, DWORD size) {
    const auto* bytes = static_cast<const BYTE*>(message);
    std::lock_guard lock(mutex_);
    messages_.emplace_back(bytes, bytes + size);
    return 1;
  }
  static inline std::mutex mutex_;
  static inline std::vector<std::vector<BYTE>> messages_;
  zr::STORENOTIFYSENDER previous_ = nullptr;
};

// A registered working project with one committed object whose locator keeps write access.
struct ProjectWithObject {
  zrtest::TempDir dir;
  DWORD id = 0;
  Locator writer;
  std::u16string objectPath;
  std::u16string listPath;

  ProjectWithObject() {
    id = PrjRegistry::AddProject(W(dir.path()).c_str(), nullptr);
    EXPECT_NE(id, 0u);
    EXPECT_EQ(PrjRegistry::SetWorkingProject(id), 1);
    EXPECT_EQ(writer.CreateDiskImage(GetHashID("CTestObject")), Locator::kAccessGranted);
    EXPECT_EQ(writer.Commit(0, nullptr, nullptr, "CTestObject"), 1);
    WCHAR path[ZR_MAX_PATH];
    EXPECT_EQ(writer.GetObjectPath(path), 1);
    objectPath = path;
    listPath = zr::ACLFilePath(path);
  }
  ~ProjectWithObject() {
    writer.Reset();
    PrjRegistry::SetWorkingProject(0);
    PrjRegistry::RemoveProject(id);
  }
  bool ListExists() const { return CZRFile::GetAttributes(listPath.c_str()) != CZRFile::kInvalidAttributes; }
  bool Hidden() const { return (CZRFile::GetAttributes(objectPath.c_str()) & CZRFile::kAttributeHidden) != 0; }
  std::string ListText() const { return zrtest::ReadFile(N(listPath)); }
  bool InActiveList() const {
    CPACLList list = Locator::GetActiveACLList();
    const tagACLLISTENTRY* entries = list.GetCList();
    for (DWORD i = 0; i < list.GetNItems(); ++i)
      if (entries[i].dwFirst == writer.GetLocation().dwDir && entries[i].dwSecond == writer.GetLocation().dwFile) return true;
    return false;
  }
};

using Users = std::vector<std::pair<std::string, DWORD>>;

Users Enumerate(Locator& locator, int* calls = nullptr) {
  Users users;
  const int made = locator.EnumRights(
      [](const WCHAR* user, DWORD rights, void* context) { static_cast<Users*>(context)->emplace_back(N(user), rights); },
      &users);
  if (calls) *calls = made;
  return users;
}

// The words of a notification: size, computer id, tag, type, five location words, flag.
std::vector<DWORD> Words(const std::vector<BYTE>& message) {
  std::vector<DWORD> words;
  for (std::size_t at = 0; at + 4 <= message.size(); at += 4) words.push_back(zr::LoadLE32(message.data() + at));
  return words;
}

std::vector<DWORD> ExpectedWords(const Location& location, DWORD flag) {
  return {40, 0, 0, 2, location.dwProject, location.dwDir, location.dwFile, location.dwClass, location.dwKind, flag};
}

}  // namespace

TEST(LocatorACL, FirstGrantCreatesTheListMarksTheFileAndNotifies) {
  AsUser alice("alice");
  CapturedNotifications sent;
  ProjectWithObject project;
  ASSERT_FALSE(project.ListExists());
  ASSERT_FALSE(project.Hidden());
  EXPECT_EQ(project.writer.IsChangedOnDisk(), 0);
  const CZRFile::Info before = [&] {
    CZRFile::Info info{};
    CZRFile::GetInfo(project.objectPath.c_str(), &info);
    return info;
  }();

  ASSERT_EQ(project.writer.GrantAccess(u"bob", ACL_READ | 0x0000FFFFu), 1);  // bits outside 0xE0000000 dropped
  EXPECT_TRUE(project.ListExists());
  EXPECT_TRUE(project.Hidden());
  int calls = 0;
  EXPECT_EQ(Enumerate(project.writer, &calls), (Users{{"alice", ACL_ALL_RIGHTS}, {"bob", ACL_READ}}));
  EXPECT_EQ(calls, 2);

  const auto messages = sent.Messages();
  ASSERT_EQ(messages.size(), 1u);
  ASSERT_EQ(messages[0].size(), 40u);
  EXPECT_EQ(Words(messages[0]), ExpectedWords(project.writer.GetLocation(), 1));

  // The file is marked changed: a later last-write time, and this locator forgot the stamp it saw.
  CZRFile::Info after{};
  ASSERT_TRUE(CZRFile::GetInfo(project.objectPath.c_str(), &after));
  const auto value = [](const FILETIME& t) { return (UINT64{t.dwHighDateTime} << 32) | t.dwLowDateTime; };
  EXPECT_GT(value(after.lastWrite), value(before.lastWrite));
  EXPECT_EQ(project.writer.GetSeenStampLow(), 0u);
  EXPECT_EQ(project.writer.GetSeenStampHigh(), 0u);
  EXPECT_EQ(project.writer.IsChangedOnDisk(), 1);
}

TEST(LocatorACL, GrantingToOneselfChangesNothing) {
  AsUser alice("alice");
  CapturedNotifications sent;
  ProjectWithObject project;
  ASSERT_EQ(project.writer.GrantAccess(u"bob", ACL_READ), 1);
  const std::string list = project.ListText();
  ASSERT_FALSE(list.empty());

  EXPECT_EQ(project.writer.GrantAccess(u"alice", ACL_READ), 0);
  EXPECT_EQ(project.writer.GrantAccess(u"alice", ACL_ALL_RIGHTS), 1);
  EXPECT_EQ(project.ListText(), list);
  EXPECT_EQ(sent.Messages().size(), 1u);  // only the creation was announced
}

TEST(LocatorACL, OnlyHoldersOfTheListRightOrAdministratorsChangeAList) {
  CapturedNotifications sent;
  ProjectWithObject project;
  {
    AsUser alice("alice");
    ASSERT_EQ(project.writer.GrantAccess(u"bob", ACL_READ | ACL_WRITE), 1);
    ASSERT_EQ(project.writer.GrantAccess(u"dave", ACL_ALL_RIGHTS), 1);
  }
  const std::string list = project.ListText();
  {
    AsUser bob("bob");
    EXPECT_EQ(project.writer.GrantAccess(u"carol", ACL_READ), 0);
    EXPECT_EQ(project.writer.GrantAccess(u"alice", 0), 0);
    EXPECT_EQ(project.writer.GrantAccess(nullptr, 0), 0);
    EXPECT_EQ(project.ListText(), list);
    EXPECT_TRUE(project.Hidden());
  }
  {
    AsUser dave("dave");  // holds the list right
    EXPECT_EQ(project.writer.GrantAccess(u"carol", ACL_READ), 1);
    EXPECT_EQ(project.writer.GrantAccess(u"bob", 0), 1);  // rights taken away, entry kept
  }
  EXPECT_EQ(Enumerate(project.writer),
            (Users{{"alice", ACL_ALL_RIGHTS}, {"bob", 0}, {"dave", ACL_ALL_RIGHTS}, {"carol", ACL_READ}}));
  {
    AsUser erin("erin");  // not on the list at all
    EXPECT_EQ(project.writer.GrantAccess(u"erin", ACL_ALL_RIGHTS), 0);
    ASSERT_EQ(PrjRegistry::AddAdministrator(project.id, u"erin"), 1);
    ASSERT_EQ(PrjRegistry::SetWorkingProject(0), 1);  // administrators of the working project only
    EXPECT_EQ(project.writer.GrantAccess(u"carol", ACL_READ | ACL_WRITE), 0);
    ASSERT_EQ(PrjRegistry::SetWorkingProject(project.id), 1);
    EXPECT_EQ(project.writer.GrantAccess(u"carol", ACL_READ | ACL_WRITE), 1);
    EXPECT_EQ(zr::ACLGetUserRights(project.objectPath.c_str(), u"carol"), ACL_READ | ACL_WRITE);
    EXPECT_EQ(project.writer.GrantAccess(nullptr, 0), 1);  // an administrator removes the list
  }
  EXPECT_FALSE(project.ListExists());
  const auto messages = sent.Messages();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(Words(messages[1]), ExpectedWords(project.writer.GetLocation(), 0));
}

TEST(LocatorACL, RemovalDeletesTheListClearsTheMarkerAndNotifies) {
  AsUser alice("alice");
  CapturedNotifications sent;
  ProjectWithObject project;
  EXPECT_FALSE(project.InActiveList());  // scanned now: recording follows from here on
  ASSERT_EQ(project.writer.GrantAccess(u"bob", ACL_READ), 1);
  EXPECT_TRUE(project.InActiveList());

  Locator reader;  // another holder: it sees the removal as a change of the file
  ASSERT_EQ(reader.SetLocation(project.writer.GetLocation()), 1);
  ASSERT_EQ(reader.Access(ZR_ACCESS_READ), Locator::kAccessGranted);
  EXPECT_EQ(reader.IsChangedOnDisk(), 0);

  ASSERT_EQ(project.writer.GrantAccess(nullptr, 0), 1);
  EXPECT_FALSE(project.ListExists());
  EXPECT_FALSE(project.Hidden());
  EXPECT_FALSE(project.InActiveList());
  EXPECT_EQ(reader.IsChangedOnDisk(), 1);
  EXPECT_EQ(Enumerate(project.writer), Users{});
  const auto messages = sent.Messages();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(Words(messages[0]), ExpectedWords(project.writer.GetLocation(), 1));
  EXPECT_EQ(Words(messages[1]), ExpectedWords(project.writer.GetLocation(), 0));

  // Removing again: no list, so nothing to announce; the marker stays clear.
  EXPECT_EQ(project.writer.GrantAccess(nullptr, 0), 1);
  EXPECT_EQ(sent.Messages().size(), 2u);
  EXPECT_FALSE(project.Hidden());
}

TEST(LocatorACL, WithoutWriteAccessNothingIsGranted) {
  AsUser alice("alice");
  CapturedNotifications sent;
  ProjectWithObject project;
  const Location location = project.writer.GetLocation();
  project.writer.ReleaseAccess();
  zrtest::DebugMode debug(1);
  const std::u16string message = u"\rLocator::GrantAccess: Invalid access or rights\r\n";

  Locator reader;
  ASSERT_EQ(reader.SetLocation(location), 1);
  ASSERT_EQ(reader.Access(ZR_ACCESS_READ), Locator::kAccessGranted);
  Locator unbound;
  Locator virtualOne;
  virtualOne.SetVirtual(GetHashID("CTestObject"));
  for (Locator* locator : {&reader, &unbound, &virtualOne, &project.writer}) {
    os::ScopedDiagCapture capture;
    EXPECT_EQ(locator->GrantAccess(u"bob", ACL_READ), 0);
    const auto entries = capture.Entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].channel, 3u);
    EXPECT_EQ(entries[0].level, 4u);
    EXPECT_EQ(entries[0].text, message);
  }
  EXPECT_FALSE(project.ListExists());
  EXPECT_FALSE(project.Hidden());
  EXPECT_TRUE(sent.Messages().empty());
}

TEST(LocatorACL, EnumerationAndCheckFollowTheFlagsAndTheMarker) {
  AsUser alice("alice");
  ProjectWithObject project;
  Locator& locator = project.writer;
  EXPECT_EQ(locator.CheckACL(), 1);
  EXPECT_EQ(Enumerate(locator), Users{});  // no list yet
  ASSERT_EQ(locator.GrantAccess(u"bob", ACL_WRITE), 1);
  ASSERT_EQ(Enumerate(locator).size(), 2u);

  EXPECT_EQ(locator.SetACLFlag(1), 1);
  EXPECT_EQ(locator.QueryFlags() & Locator::kFlagUseACL, Locator::kFlagUseACL);
  EXPECT_EQ(Enumerate(locator).size(), 2u);  // the honour flag does not hide the list
  EXPECT_EQ(locator.SetACLFlag(0), 1);
  EXPECT_EQ(locator.QueryFlags() & Locator::kFlagUseACL, 0u);

  // Flag 0x20000 (no file) hides the list and fails the check.
  locator.SetFlags(Locator::kFlagVirtual, 0);
  int calls = -1;
  EXPECT_EQ(Enumerate(locator, &calls), Users{});
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(locator.CheckACL(), 0);
  locator.SetFlags(0, Locator::kFlagVirtual);

  // A list without the marker on the object file is not enumerated.
  const DWORD attributes = CZRFile::GetAttributes(project.objectPath.c_str());
  ASSERT_TRUE(CZRFile::SetAttributes(project.objectPath.c_str(), attributes & ~CZRFile::kAttributeHidden));
  EXPECT_EQ(Enumerate(locator), Users{});
  ASSERT_TRUE(CZRFile::SetAttributes(project.objectPath.c_str(), attributes));
  EXPECT_EQ(Enumerate(locator).size(), 2u);

  // An object file that has gone: nothing to check.
  Locator missing;
  Location gone = locator.GetLocation();
  gone.dwFile += 7;
  gone.dwDir = gone.dwFile >> 8;
  ASSERT_EQ(missing.SetLocation(gone), 1);
  EXPECT_EQ(missing.CheckACL(), 0);
  EXPECT_EQ(Enumerate(missing), Users{});
  EXPECT_EQ(Locator().CheckACL(), 0);
}

TEST(LocatorACL, TheActiveListFollowsTheWorkingProject) {
  AsUser alice("alice");
  ProjectWithObject first;
  ASSERT_EQ(first.writer.GrantAccess(u"bob", ACL_READ), 1);
  EXPECT_TRUE(first.InActiveList());
  EXPECT_TRUE(zr::IsActiveACLListScanned());

  zrtest::TempDir otherDir;
  const DWORD other = PrjRegistry::AddProject(W(otherDir.path()).c_str(), nullptr);
  ASSERT_NE(other, 0u);
  ASSERT_EQ(PrjRegistry::SetWorkingProject(other), 1);
  EXPECT_FALSE(zr::IsActiveACLListScanned());  // forgotten on the change
  EXPECT_EQ(Locator::GetActiveACLList().GetNItems(), 0u);

  ASSERT_EQ(PrjRegistry::SetWorkingProject(first.id), 1);
  EXPECT_FALSE(zr::IsActiveACLListScanned());
  CPACLList rescanned = Locator::GetActiveACLList();  // found again by the scan of the first project
  ASSERT_EQ(rescanned.GetNItems(), 1u);
  EXPECT_EQ(rescanned.GetCList()[0].dwFirst, first.writer.GetLocation().dwDir);
  EXPECT_EQ(rescanned.GetCList()[0].dwSecond, first.writer.GetLocation().dwFile);

  EXPECT_EQ(PrjRegistry::SetWorkingProject(0), 1);  // no working project: an empty list
  EXPECT_EQ(Locator::GetActiveACLList().GetNItems(), 0u);
  PrjRegistry::RemoveProject(other);
}

TEST(LocatorACL, WithoutASenderNothingLeavesTheProcess) {
  const zr::STORENOTIFYSENDER previous = zr::SetStoreNotifySender(nullptr);
  const BYTE bytes[40] = {40};
  EXPECT_EQ(zr::SendStoreNotification(bytes, sizeof bytes), 0);
  {
    AsUser alice("alice");
    ProjectWithObject project;
    EXPECT_EQ(project.writer.GrantAccess(u"bob", ACL_READ), 1);  // the grant itself still works
    EXPECT_TRUE(project.ListExists());
  }
  {
    CapturedNotifications sent;
    EXPECT_EQ(zr::SendStoreNotification(bytes, sizeof bytes), 1);
    EXPECT_EQ(zr::SendStoreNotification(nullptr, 0), 0);
    ASSERT_EQ(sent.Messages().size(), 1u);
    EXPECT_EQ(sent.Messages()[0], std::vector<BYTE>(bytes, bytes + sizeof bytes));
  }
  EXPECT_EQ(zr::SetStoreNotifySender(previous), nullptr);
}

TEST(LocatorACL, ASecondProcessSeesTheList) {
  AsUser alice("alice");
  ProjectWithObject project;
  ASSERT_EQ(project.writer.GrantAccess(u"bob", ACL_READ | ACL_WRITE), 1);
  const Location location = project.writer.GetLocation();
  project.writer.ReleaseAccess();

  const auto child = zrtest::RunChild([&] {
    AsUser bob("bob");
    if (PrjRegistry::SetWorkingProject(location.dwProject) != 1) return 1;
    Locator locator;
    if (!locator.SetLocation(location) || locator.Access(ZR_ACCESS_WRITE) != Locator::kAccessGranted) return 2;
    if (locator.CheckACL() != 1) return 3;
    if (Enumerate(locator) != Users{{"alice", ACL_ALL_RIGHTS}, {"bob", ACL_READ | ACL_WRITE}}) return 4;
    CPACLList active = Locator::GetActiveACLList();
    if (active.GetNItems() != 1 || active.GetCList()[0].dwSecond != location.dwFile) return 5;
    if (locator.GrantAccess(u"carol", ACL_READ) != 0) return 6;  // bob may not change the list
    return 0;
  });
  EXPECT_TRUE(child.exited);
  EXPECT_EQ(child.exit_code, 0);
  EXPECT_EQ(zr::ACLGetUserRights(project.objectPath.c_str(), u"carol"), 0u);
}
