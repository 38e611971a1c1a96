// Project unique ids: the counter file, reserved blocks, user slots, the project lock, and several
// processes allocating from one "PRJ.IDS".
#include "zrobj/prjloc.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/diag_capture.h"
#include "platform/text.h"
#include "test_support.h"
#include "zrobj/byteorder.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;

namespace {

constexpr DWORD kProject = 7;

std::u16string W(const std::string& text) { return os::Utf8ToUtf16(text); }

DWORD FileValue(const std::string& path) {
  const std::string bytes = zrtest::ReadFile(path);
  return bytes.size() == 4 ? zr::LoadLE32(bytes.data()) : 0xDEADu;
}

// A project directory registered under kProject, with its "PRJ.IDS" created holding `start`.
struct Project {
  zrtest::TempDir dir;
  explicit Project(DWORD start = 0) {
    ZROBJ_SetProjectDirectory(kProject, W(dir.path()).c_str());
    CProjUniID ids;
    EXPECT_EQ(ids.Create(kProject, start), 0u);
  }
  ~Project() { ZROBJ_SetProjectDirectory(kProject, nullptr); }
  std::string File() const { return dir.File("PRJ.IDS"); }
};

TEST(CProjUniID, CreatedFileCountsFrom1024) {
  Project project(0);
  EXPECT_EQ(zrtest::ReadFile(project.File()).size(), 4u);
  EXPECT_EQ(FileValue(project.File()), 1024u);
  CProjUniID ids;
  ASSERT_EQ(ids.Open(kProject), 0u);
  EXPECT_EQ(ids.GetUserSlot(), 0u);
  EXPECT_EQ(ids.GetNextID(), 1024ul);
  EXPECT_EQ(ids.GetNextID(), 1025ul);
  EXPECT_EQ(FileValue(project.File()), 1026u);
  ids.Close();
  EXPECT_FALSE(ids.IsOpen());
  EXPECT_EQ(ids.GetCurrentID(), 0u);

  // A larger start stays as given; SetStartID may move the counter back, never below 1024.
  ASSERT_EQ(ids.Create(kProject, 5000), 0u);
  EXPECT_EQ(FileValue(project.File()), 5000u);
  ASSERT_EQ(ids.Open(kProject), 0u);
  EXPECT_EQ(ids.SetStartID(3), 1);
  EXPECT_EQ(FileValue(project.File()), 1024u);
  EXPECT_EQ(ids.GetNextID(), 1024ul);
  ids.Close();
}

TEST(CProjUniID, ReservedBlocksComeWithoutTheFile) {
  Project project(2000);
  CProjUniID ids;
  ASSERT_EQ(ids.Open(kProject), 0u);
  ASSERT_EQ(ids.ReserveIDs(10), 1);
  EXPECT_EQ(FileValue(project.File()), 2010u);
  zrtest::WriteFile(project.File(), std::string("\x00\x00\x00\x00", 4));  // the block must not look
  for (unsigned long id = 2000; id < 2010; ++id) EXPECT_EQ(ids.GetNextID(), id);
  EXPECT_EQ(ids.GetNextID(), 0ul);  // the eleventh goes to the file (as it stands now)
  EXPECT_EQ(FileValue(project.File()), 1u);
  // A new reservation drops what is left of the old one.
  ASSERT_EQ(ids.SetStartID(3000), 1);
  ASSERT_EQ(ids.ReserveIDs(5), 1);
  EXPECT_EQ(ids.GetNextID(), 3000ul);
  ASSERT_EQ(ids.ReserveIDs(2), 1);
  EXPECT_EQ(ids.GetNextID(), 3005ul);
  ids.Close();
}

TEST(CProjUniID, RefusalsAndTheirMessages) {
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  CProjUniID ids;
  EXPECT_EQ(ids.GetNextID(), 0xFFFFFFFFul);
  EXPECT_EQ(capture.Text(), "\rCProjUniID::GetNextID: No file\r\n");
  ASSERT_EQ(capture.Entries().size(), 1u);
  EXPECT_EQ(capture.Entries()[0].channel, 3u);
  EXPECT_EQ(capture.Entries()[0].level, 4u);
  EXPECT_EQ(ids.ReserveIDs(3), 0);
  EXPECT_EQ(ids.SetStartID(3), 0);
  EXPECT_EQ(ids.HasChanged(), 0);
  EXPECT_EQ(ids.LockProject(), 256u);
  EXPECT_EQ(ids.UnlockProject(), 0);
  EXPECT_EQ(ids.Open(DWORD{999}), 1u);  // no directory registered

  // A file too short to hold an id.
  zrtest::TempDir dir;
  ZROBJ_SetProjectDirectory(kProject, W(dir.path()).c_str());
  zrtest::WriteFile(dir.File("PRJ.IDS"), "ab");
  capture.Clear();
  EXPECT_EQ(ids.Open(kProject), 3u);
  EXPECT_EQ(capture.Text(), "\rCProjUniID::Open(" + dir.path() + "/PRJ.IDS): ID not retrievable\r\n");
  EXPECT_FALSE(ids.IsOpen());
  ZROBJ_SetProjectDirectory(kProject, nullptr);

  // Without debug output the refusals are silent.
  zrtest::DebugMode quiet(0);
  capture.Clear();
  EXPECT_EQ(ids.GetNextID(), 0xFFFFFFFFul);
  EXPECT_TRUE(capture.Entries().empty());
}

TEST(CProjUniID, OpenByPathUsesThePercentName) {
  zrtest::TempDir dir;
  zrtest::WriteFile(dir.File("PRJ.IDS"), std::string("\x00\x10\x00\x00", 4));
  CProjUniID ids;
  EXPECT_EQ(ids.Open(W(dir.path() + "//").c_str()), 1u);  // "PRJ.IDS" is not the one it looks for
  zrtest::WriteFile(dir.File("%PRJ.IDS"), std::string("\x00\x08\x00\x00", 4));
  ASSERT_EQ(ids.Open(W(dir.path() + "//").c_str()), 0u);
  EXPECT_EQ(ids.GetNextID(), 0x800ul);
  EXPECT_EQ(FileValue(dir.File("%PRJ.IDS")), 0x801u);
  EXPECT_EQ(FileValue(dir.File("PRJ.IDS")), 0x1000u);
  ids.Close();
  EXPECT_EQ(ids.Open(static_cast<const WCHAR*>(nullptr)), 1u);
  EXPECT_EQ(ids.Open(u""), 1u);
}

TEST(CProjUniID, UsersTakeSlotsAndTheProjectLockCountsThem) {
  Project project;
  CProjUniID first, second;
  ASSERT_EQ(first.Open(kProject), 0u);
  ASSERT_EQ(second.Open(kProject), 0u);
  EXPECT_EQ(first.GetUserSlot(), 0u);
  EXPECT_EQ(second.GetUserSlot(), 1u);
  std::set<unsigned long> seen;
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(seen.insert(first.GetNextID()).second);
    EXPECT_TRUE(seen.insert(second.GetNextID()).second);
  }
  EXPECT_EQ(*seen.begin(), 1024ul);
  EXPECT_EQ(*seen.rbegin(), 1063ul);

  EXPECT_EQ(first.LockProject(), 1u);  // one other user: not locked
  EXPECT_EQ(first.GetLockCount(), 0u);
  EXPECT_EQ(second.HasChanged(), 1);  // what the first took moved the counter
  EXPECT_EQ(second.HasChanged(), 0);
  second.Close();
  EXPECT_EQ(first.LockProject(), 0u);
  EXPECT_EQ(first.LockProject(), 0u);
  EXPECT_EQ(first.GetLockCount(), 2u);
  EXPECT_EQ(second.Open(kProject), 2u);  // every slot is held by the lock
  EXPECT_EQ(first.UnlockProject(), 1);
  EXPECT_EQ(first.GetLockCount(), 1u);
  EXPECT_EQ(second.Open(kProject), 2u);
  EXPECT_EQ(first.UnlockProject(), 1);
  EXPECT_EQ(first.GetLockCount(), 0u);
  EXPECT_EQ(first.UnlockProject(), 0);
  ASSERT_EQ(second.Open(kProject), 0u);
  EXPECT_EQ(second.GetUserSlot(), 1u);  // the first got its own slot back
  EXPECT_EQ(first.Touch(), 1);
  second.Close();
  first.Close();
}

TEST(CProjUniID, The257thOpenerGetsNoSlot) {
  Project project;
  std::vector<std::unique_ptr<CProjUniID>> users;
  for (DWORD k = 0; k < CProjUniID::kUserSlots; ++k) {
    users.push_back(std::make_unique<CProjUniID>());
    ASSERT_EQ(users.back()->Open(kProject), 0u) << k;
    ASSERT_EQ(users.back()->GetUserSlot(), k);
  }
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  CProjUniID last;
  EXPECT_EQ(last.Open(kProject), 2u);
  EXPECT_EQ(capture.Text(), "\rCProjUniID::Open: All user locks expired...\r\n");
  EXPECT_EQ(last.GetUserSlot(), CProjUniID::kUserSlots);
  EXPECT_FALSE(last.IsOpen());
  users[100]->Close();
  ASSERT_EQ(last.Open(kProject), 0u);
  EXPECT_EQ(last.GetUserSlot(), 100u);
  last.Close();
  for (auto& user : users) user->Close();
}

// Eight processes take 10,000 ids each from one file, half one by one and half in reserved blocks:
// no id twice, none below 1024, and the file ends just past the last one.
TEST(CProjUniID, EightProcessesNeverShareAnId) {
  Project project;
  constexpr int kProcesses = 8;
  constexpr int kIds = 10000;
  constexpr DWORD kBlock = 50;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      CProjUniID ids;
      if (ids.Open(kProject) != 0) ::_exit(10);
      std::string out;
      for (int i = 0; i < kIds / 2; ++i) {
        const unsigned long id = ids.GetNextID();
        if (id == 0xFFFFFFFFul) ::_exit(11);
        out += std::to_string(id) + "\n";
      }
      for (int i = 0; i < kIds / 2; i += kBlock) {
        if (!ids.ReserveIDs(kBlock)) ::_exit(12);
        for (DWORD k = 0; k < kBlock; ++k) out += std::to_string(ids.GetNextID()) + "\n";
      }
      ids.Close();
      ::_exit(zrtest::WriteFile(project.dir.File("ids." + std::to_string(p)), out) ? 0 : 13);
    }
    children.push_back(pid);
  }
  for (const pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
  std::set<unsigned long> all;
  for (int p = 0; p < kProcesses; ++p) {
    const std::string text = zrtest::ReadFile(project.dir.File("ids." + std::to_string(p)));
    std::size_t at = 0, count = 0;
    while (at < text.size()) {
      const std::size_t end = text.find('\n', at);
      const unsigned long id = std::stoul(text.substr(at, end - at));
      EXPECT_GE(id, 1024ul);
      EXPECT_TRUE(all.insert(id).second) << "id " << id << " given twice";
      at = end + 1;
      ++count;
    }
    EXPECT_EQ(count, static_cast<std::size_t>(kIds));
  }
  EXPECT_EQ(all.size(), static_cast<std::size_t>(kProcesses * kIds));
  EXPECT_EQ(FileValue(project.File()), 1024u + kProcesses * kIds);
  EXPECT_EQ(*all.rbegin(), 1024ul + kProcesses * kIds - 1);
}

// A process killed while it holds the project lock leaves nothing held behind.
TEST(CProjUniID, AKilledHolderReleasesItsLocks) {
  Project project;
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t pid = ::fork();
  if (pid == 0) {
    CProjUniID ids;
    const char state = ids.Open(kProject) == 0 && ids.LockProject() == 0 ? 'L' : 'F';
    (void)!::write(ready[1], &state, 1);
    for (;;) ::pause();
  }
  char state = 0;
  ASSERT_EQ(::read(ready[0], &state, 1), 1);
  ASSERT_EQ(state, 'L');
  CProjUniID ids;
  EXPECT_EQ(ids.Open(kProject), 2u);  // every slot is held by the other's project lock
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  ASSERT_EQ(ids.Open(kProject), 0u);
  EXPECT_EQ(ids.GetUserSlot(), 0u);
  EXPECT_EQ(ids.LockProject(), 0u);
  EXPECT_EQ(ids.UnlockProject(), 1);
  ids.Close();
  ::close(ready[0]);
  ::close(ready[1]);
}

}  // namespace
