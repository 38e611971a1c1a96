// The object store: the project registry and its file, the working project's ids, object files
// written, committed and loaded through locators, access between processes, damaged files.
#include "zrobj/locator.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/diag_capture.h"
#include "platform/files.h"
#include "platform/inifile.h"
#include "platform/profile.h"
#include "platform/text.h"
#include "test_support.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrhash.h"

namespace os = zr::os;

namespace {

std::u16string W(const std::string& text) { return os::Utf8ToUtf16(text); }
std::string N(const std::u16string& text) { return os::Utf16ToUtf8(text); }

std::string Directory(DWORD projectId) {
  WCHAR buffer[ZR_MAX_PATH];
  return PrjRegistry::GetProjectDirectory(projectId, buffer) ? N(buffer) : "";
}

// A project registered in the registry file and made the working project for the test.
struct WorkingProject {
  zrtest::TempDir dir;
  DWORD id = 0;
  WorkingProject() {
    id = PrjRegistry::AddProject(W(dir.path()).c_str(), nullptr);
    EXPECT_NE(id, 0u);
    EXPECT_EQ(PrjRegistry::SetWorkingProject(id), 1);
  }
  ~WorkingProject() {
    PrjRegistry::SetWorkingProject(0);
    PrjRegistry::RemoveProject(id);
  }
};

// What the test objects store: a counted text inside the data chunk.
struct Payload {
  std::string text;
};

int StoreText(void* object, CZRArchive* archive) {
  auto* payload = static_cast<Payload*>(object);
  char name[] = "Text";
  const unsigned level = archive->Chnk_Open(name, ZR_ACCESS_WRITE);
  if (level == CHNK_INVALID) return 0;
  const auto size = static_cast<unsigned long>(payload->text.size());
  const bool written = archive->Chnk_Write(payload->text.data(), size) == size;
  return archive->Chnk_Close(level) && written;
}

int LoadText(void* object, CZRArchive* archive) {
  auto* payload = static_cast<Payload*>(object);
  char name[] = "Text";
  const unsigned level = archive->Chnk_Open(name, ZR_ACCESS_READ);
  if (level == CHNK_INVALID) return 0;
  payload->text.assign(archive->Chnk_GetSize(level), '\0');
  const unsigned long got = archive->Chnk_Read(payload->text.data(), static_cast<unsigned long>(payload->text.size()));
  archive->Chnk_Close(level);
  return got == payload->text.size();
}

// Creates, commits and releases an object holding `text`; its location.
Location CommitNew(const std::string& text) {
  Locator locator;
  EXPECT_EQ(locator.CreateDiskImage(GetHashID("CTestObject")), Locator::kAccessGranted);
  Payload payload{text};
  EXPECT_EQ(locator.Commit(Locator::kCommitRelease, &StoreText, &payload, "CTestObject"), 1);
  EXPECT_EQ(locator.QueryAccess(), 0u);
  return locator.GetLocation();
}

std::string LoadAt(const Location& location, DWORD access = ZR_ACCESS_READ) {
  Locator locator;
  if (!locator.SetLocation(location) || locator.Access(access) != Locator::kAccessGranted) return "<no access>";
  Payload payload;
  return locator.Load(&LoadText, &payload) ? payload.text : "<not loaded>";
}

// A one-byte message between parent and child.
struct Pipe {
  int fd[2] = {-1, -1};
  Pipe() { EXPECT_EQ(::pipe(fd), 0); }
  ~Pipe() {
    ::close(fd[0]);
    ::close(fd[1]);
  }
  bool Send(char c) const { return ::write(fd[1], &c, 1) == 1; }
  char Receive() const {
    char c = 0;
    return ::read(fd[0], &c, 1) == 1 ? c : '\0';
  }
};

}  // namespace

// ---- the registry ----

TEST(PrjRegistry, ProjectsPersistForOtherProcesses) {
  zrtest::TempDir a, b;
  const DWORD first = PrjRegistry::AddProject(W(a.path()).c_str(), u"Alpha");
  const DWORD second = PrjRegistry::AddProject(W(b.path() + "//sub/").c_str(), nullptr);
  ASSERT_NE(first, 0u);
  ASSERT_GT(second, first);
  EXPECT_EQ(PrjRegistry::AddProject(W(a.path() + "/").c_str(), u"Renamed"), first);  // same directory, same id
  EXPECT_EQ(PrjRegistry::FindProject(W(b.path() + "/sub").c_str()), second);
  EXPECT_EQ(PrjRegistry::AddProject(u"relative/dir", nullptr), 0u);
  EXPECT_EQ(PrjRegistry::AddProject(nullptr, nullptr), 0u);

  // Another process sees the same registry in the same settings directory.
  const auto child = zrtest::RunChild([&] {
    WCHAR name[ZR_MAX_PATH];
    if (Directory(first) != a.path() + "/" || Directory(second) != b.path() + "/sub/") return 1;
    if (!PrjRegistry::GetProjectName(first, name) || N(name) != "Renamed/") return 2;
    if (!PrjRegistry::GetProjectName(second, name) || N(name) != "sub/") return 3;
    return 0;
  });
  EXPECT_TRUE(child.exited);
  EXPECT_EQ(child.exit_code, 0);
  EXPECT_TRUE(os::DirectoryExistsW(W(b.path() + "/sub").c_str()));  // created on registration

  std::vector<DWORD> seen;
  PrjRegistry::EnumProjects(
      [](DWORD id, const WCHAR*, const WCHAR*, void* context) {
        static_cast<std::vector<DWORD>*>(context)->push_back(id);
        return 1;
      },
      &seen);
  ASSERT_GE(seen.size(), 2u);
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));

  EXPECT_EQ(PrjRegistry::RemoveProject(first), 1);
  EXPECT_EQ(PrjRegistry::RemoveProject(first), 0);
  EXPECT_EQ(Directory(first), "");
  EXPECT_EQ(PrjRegistry::RemoveProject(second), 1);
}

TEST(PrjRegistry, ProcessDirectoriesComeFirstAndStayLocal) {
  zrtest::TempDir dir;
  ASSERT_EQ(ZROBJ_SetProjectDirectory(4000, W(dir.path()).c_str()), 1);
  EXPECT_EQ(Directory(4000), dir.path() + "/");
  WCHAR name[ZR_MAX_PATH];
  ASSERT_EQ(PrjRegistry::GetProjectName(4000, name), 1);
  EXPECT_EQ(N(name), dir.path().substr(dir.path().rfind('/') + 1) + "/");
  EXPECT_FALSE(os::IniHasSection(os::ProfileFilePath("PROJECTS.INI"), "Project 00000FA0"));
  ASSERT_EQ(ZROBJ_SetProjectDirectory(4000, nullptr), 1);
  EXPECT_EQ(Directory(4000), "");
}

TEST(PrjRegistry, AdministratorsAndTheCurrentUser) {
  const char* old = ::getenv("ZROBJ_USERNAME");
  const std::string saved = old ? old : "";
  ::setenv("ZROBJ_USERNAME", "Mira", 1);
  WCHAR user[PrjRegistry::kMaxUserName + 1];
  ASSERT_EQ(PrjRegistry::GetCurrentUser(user, PrjRegistry::kMaxUserName + 1), 1);
  EXPECT_EQ(N(user), "Mira");
  EXPECT_EQ(PrjRegistry::GetCurrentUserHash(), GetUserHashIDW(u"Mira"));
  {
    WorkingProject project;
    EXPECT_EQ(PrjRegistry::IsCurrentUserAdministrator(), 0);
    EXPECT_EQ(PrjRegistry::AddAdministrator(project.id, nullptr), 1);
    EXPECT_EQ(PrjRegistry::AddAdministrator(project.id, u"Olek"), 1);
    EXPECT_EQ(PrjRegistry::IsCurrentUserAdministrator(), 1);
    EXPECT_EQ(PrjRegistry::IsAdministrator(project.id, u"Olek"), 1);
    EXPECT_EQ(PrjRegistry::IsAdministrator(project.id, u"Nobody"), 0);
    EXPECT_NE(zrtest::ReadFile(project.dir.File("PROJECT.INI")).find("Olek"), std::string::npos);
    EXPECT_EQ(PrjRegistry::RemoveAdministrator(project.id, nullptr), 1);
    EXPECT_EQ(PrjRegistry::RemoveAdministrator(project.id, nullptr), 0);
    EXPECT_EQ(PrjRegistry::IsCurrentUserAdministrator(), 0);
    EXPECT_EQ(PrjRegistry::AddAdministrator(0x7FFFFFF0u, u"Olek"), 0);  // unknown project
  }
  // A name longer than 64 characters is cut.
  ::setenv("ZROBJ_USERNAME", std::string(80, 'u').c_str(), 1);
  ASSERT_EQ(PrjRegistry::GetCurrentUser(user, PrjRegistry::kMaxUserName + 1), 1);
  EXPECT_EQ(N(user), std::string(64, 'u'));
  old ? ::setenv("ZROBJ_USERNAME", saved.c_str(), 1) : ::unsetenv("ZROBJ_USERNAME");
}

// ---- the working project ----

TEST(PrjRegistry, WorkingProjectSeedsIdsFromTheLargestObject) {
  zrtest::TempDir dir;
  // Object files left by an earlier life of the project (and things that are no object files).
  for (const char* sub : {"obj/00000010", "obj/00000004", "obj/notes"})
    std::filesystem::create_directories(dir.File(sub));
  ASSERT_TRUE(zrtest::WriteFile(dir.File("obj/00000010/00001005.zro"), "x"));
  ASSERT_TRUE(zrtest::WriteFile(dir.File("obj/00000004/00000400.zro"), "x"));
  ASSERT_TRUE(zrtest::WriteFile(dir.File("obj/00000004/FFFFFFFF"), "no extension"));
  ASSERT_TRUE(zrtest::WriteFile(dir.File("obj/notes/00009000.zro"), "wrong directory name"));
  const DWORD id = PrjRegistry::AddProject(W(dir.path()).c_str(), nullptr);
  ASSERT_NE(id, 0u);
  EXPECT_EQ(PrjRegistry::FindLargestObjectID(id), 0x1005u);

  static DWORD told = 0xDEAD;
  const auto listener = [](DWORD project) { told = project; };
  ASSERT_EQ(PrjRegistry::AddWorkingProjectListener(listener), 1);
  ASSERT_EQ(PrjRegistry::SetWorkingProject(id), 1);
  EXPECT_EQ(told, id);
  EXPECT_EQ(PrjRegistry::GetWorkingProject(), id);
  EXPECT_EQ(PrjRegistry::NewObjectID(), 0x1006u);
  EXPECT_EQ(PrjRegistry::ReserveObjectIDs(4), 1);
  EXPECT_EQ(PrjRegistry::NewObjectID(), 0x1007u);

  // An existing PRJ.IDS is opened as it stands, not re-seeded.
  ASSERT_EQ(PrjRegistry::SetWorkingProject(id), 1);
  EXPECT_EQ(PrjRegistry::NewObjectID(), 0x100Bu);

  EXPECT_EQ(PrjRegistry::SetWorkingProject(0x7FFFFFF1u), 0);  // unknown: no working project at all
  EXPECT_EQ(told, 0u);
  EXPECT_EQ(PrjRegistry::GetWorkingProject(), 0u);
  EXPECT_EQ(PrjRegistry::NewObjectID(), 0xFFFFFFFFu);
  EXPECT_EQ(PrjRegistry::ReserveObjectIDs(4), 0);
  EXPECT_EQ(PrjRegistry::RemoveWorkingProjectListener(listener), 1);
  EXPECT_EQ(PrjRegistry::RemoveWorkingProjectListener(listener), 0);
  PrjRegistry::RemoveProject(id);
}

// ---- object files ----

TEST(Locator, CreateNeedsAnIdGenerator) {
  PrjRegistry::SetWorkingProject(0);
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  Locator locator;
  EXPECT_EQ(locator.CreateDiskImage(0), Locator::kAccessNoIDs);
  EXPECT_EQ(capture.Text(), "\rLocator::CreateDiskImage: No ID generator available\r\n");
  EXPECT_FALSE(locator.IsValid());
  EXPECT_EQ(locator.GetFile(), nullptr);
}

TEST(Locator, CommitWritesTheFileAndLoadReadsItBack) {
  WorkingProject project;
  Locator locator;
  ASSERT_EQ(locator.CreateDiskImage(GetHashID("CTestObject")), Locator::kAccessGranted);
  const Location loc = locator.GetLocation();
  EXPECT_EQ(loc.dwProject, project.id);
  EXPECT_EQ(loc.dwFile, 1024u);
  EXPECT_EQ(loc.dwDir, 4u);
  EXPECT_EQ(locator.GetObjID(), 1024u);
  EXPECT_EQ(locator.QueryAccess(), ZR_ACCESS_READ | ZR_ACCESS_WRITE);
  EXPECT_TRUE(locator.QueryFlags() & Locator::kFlagCreated);
  WCHAR path[ZR_MAX_PATH];
  ASSERT_EQ(locator.GetObjectPath(path), 1);
  EXPECT_EQ(N(path), project.dir.path() + "/obj/00000004/00000400.zro");

  Payload payload{"first"};
  const GUID guid{0x12345678, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};
  ASSERT_EQ(locator.Commit(0, &StoreText, &payload, "CTestObject", &guid), 1);
  EXPECT_FALSE(locator.QueryFlags() & Locator::kFlagCreated);
  payload.text = "second, longer than the first";
  ASSERT_EQ(locator.Commit(0, &StoreText, &payload, "CTestObject", &guid), 1);
  payload.text = "third";  // shorter again: the file must end with it
  ASSERT_EQ(locator.Commit(0, &StoreText, &payload, "CTestObject", &guid), 1);

  ObjectFileHeader header;
  ASSERT_EQ(locator.ReadHeader(&header), 1);
  EXPECT_TRUE(header.location.SameObject(loc));
  EXPECT_EQ(header.location.dwClass, GetHashID("CTestObject"));
  EXPECT_EQ(header.classGuid, guid);
  EXPECT_STREQ(header.className, "CTestObject");
  EXPECT_EQ(header.commitCount, 3u);
  EXPECT_EQ(header.committerHash, PrjRegistry::GetCurrentUserHash());
  EXPECT_NE(header.commitTime, 0u);
  EXPECT_EQ(header.dataSize, 8u + 5u);
  ASSERT_EQ(locator.ReleaseAccess(), 1);
  EXPECT_EQ(locator.ReleaseAccess(), 1);

  EXPECT_EQ(LoadAt(loc), "third");
  // The commit count goes on from the file when access is taken again.
  ASSERT_EQ(locator.Access(ZR_ACCESS_WRITE), Locator::kAccessGranted);
  ASSERT_EQ(locator.Commit(Locator::kCommitRelease, &StoreText, &payload, "CTestObject"), 1);
  ASSERT_EQ(locator.Access(ZR_ACCESS_READ), Locator::kAccessGranted);
  ASSERT_EQ(locator.ReadHeader(&header), 1);
  EXPECT_EQ(header.commitCount, 4u);
  EXPECT_EQ(header.classGuid, GUID{});
  EXPECT_EQ(locator.Commit(0, &StoreText, &payload), 0);  // read access only
}

TEST(Locator, AnObjectWrittenByAChildIsReadByTheParent) {
  WorkingProject project;
  PrjRegistry::SetWorkingProject(0);  // each process opens the project's ids with its own handle
  Pipe result;
  const auto child = zrtest::RunChild([&] {
    PrjRegistry::SetWorkingProject(project.id);  // the child opens the project for itself
    const Location loc = CommitNew("written by the child");
    const DWORD file = loc.dwFile;
    return ::write(result.fd[1], &file, sizeof file) == sizeof file && loc.dwProject == project.id ? 0 : 1;
  });
  ASSERT_TRUE(child.exited);
  ASSERT_EQ(child.exit_code, 0);
  DWORD file = 0;
  ASSERT_EQ(::read(result.fd[0], &file, sizeof file), static_cast<ssize_t>(sizeof file));
  ASSERT_EQ(PrjRegistry::SetWorkingProject(project.id), 1);
  EXPECT_EQ(LoadAt(Location::ForObject(project.id, file)), "written by the child");
  // Both processes draw from one counter: the parent's next object has the next id.
  EXPECT_EQ(CommitNew("parent").dwFile, file + 1);
}

TEST(Locator, OneWriterManyReadersAcrossProcesses) {
  WorkingProject project;
  const Location loc = CommitNew("v1");
  Pipe toParent, toChild;
  const pid_t pid = ::fork();
  if (pid == 0) {
    Locator writer;
    Payload payload{"v2"};
    if (!writer.SetLocation(loc) || writer.Access(ZR_ACCESS_WRITE) != Locator::kAccessGranted) ::_exit(1);
    if (!writer.Commit(0, &StoreText, &payload) || !toParent.Send('W')) ::_exit(2);  // holding write access
    if (toChild.Receive() != 'R') ::_exit(3);
    ::_exit(writer.ReleaseAccess() == 1 ? 0 : 4);
  }
  ASSERT_GT(pid, 0);
  ::close(toParent.fd[1]);  // a child that dies early ends the parent's read
  toParent.fd[1] = -1;
  ASSERT_EQ(toParent.Receive(), 'W');
  Locator second;
  ASSERT_EQ(second.SetLocation(loc), 1);
  EXPECT_EQ(second.Access(ZR_ACCESS_WRITE), Locator::kAccessBusy);
  EXPECT_EQ(second.Access(ZR_ACCESS_READ | ZR_ACCESS_WRITE, 20), Locator::kAccessBusy);
  EXPECT_EQ(second.QueryAccess(), 0u);
  EXPECT_EQ(LoadAt(loc), "v2");  // readers share with the writer and see its commit
  ASSERT_TRUE(toChild.Send('R'));
  // The writer lets go when told: the wait is bounded by the time-out, not by luck.
  EXPECT_EQ(second.Access(ZR_ACCESS_WRITE, 30000), Locator::kAccessGranted);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  // Within one process two locators exclude each other too.
  Locator third;
  ASSERT_EQ(third.SetLocation(loc), 1);
  EXPECT_EQ(third.Access(ZR_ACCESS_WRITE), Locator::kAccessBusy);
  EXPECT_EQ(third.Access(ZR_ACCESS_READ), Locator::kAccessGranted);
  second.ReleaseAccess();
  EXPECT_EQ(third.Access(ZR_ACCESS_WRITE), Locator::kAccessGranted);
}

TEST(Locator, RefusalsAndDamagedFiles) {
  WorkingProject project;
  zrtest::DebugMode debug(1);
  Locator locator;
  EXPECT_EQ(locator.SetLocation(Location::ForObject(project.id, 1000)), 0);  // below the first id
  Location odd = Location::ForObject(project.id, 5000);
  odd.dwDir = 7;
  EXPECT_EQ(locator.SetLocation(odd), 0);
  odd = Location::ForObject(project.id, 5000, 0, 0x2F2E2E);  // "../" as an extension
  EXPECT_EQ(locator.SetLocation(odd), 0);
  EXPECT_EQ(locator.Access(ZR_ACCESS_READ), Locator::kAccessInvalid);
  ASSERT_EQ(locator.SetLocation(Location::ForObject(project.id, 5000)), 1);
  EXPECT_EQ(locator.Access(ZR_ACCESS_READ), Locator::kAccessNoFile);
  EXPECT_EQ(locator.Access(0), Locator::kAccessInvalid);
  ASSERT_EQ(locator.SetVirtual(7), 1);
  EXPECT_EQ(locator.QueryFlags(), Locator::kFlagVirtual);
  EXPECT_EQ(locator.Access(ZR_ACCESS_READ), Locator::kAccessInvalid);

  const Location loc = CommitNew("intact");
  WCHAR path[ZR_MAX_PATH];
  ASSERT_EQ(locator.SetLocation(loc), 1);
  ASSERT_EQ(locator.GetObjectPath(path), 1);
  const std::string file = N(path);
  const std::string whole = zrtest::ReadFile(file);
  os::ScopedDiagCapture capture;
  Payload payload;
  // Cut short (a torn write), emptied, and another object's file under this name.
  for (const std::string& damaged : {whole.substr(0, whole.size() - 3), std::string(), std::string("garbage!")}) {
    ASSERT_TRUE(zrtest::WriteFile(file, damaged));
    ASSERT_EQ(locator.Access(ZR_ACCESS_READ), Locator::kAccessGranted);
    capture.Clear();
    EXPECT_EQ(locator.Load(&LoadText, &payload), 0);
    EXPECT_NE(capture.Text().find("\rLocator::Load: " + file + " is not an object file of this location\r\n"),
              std::string::npos);
    ObjectFileHeader header;
    EXPECT_EQ(locator.ReadHeader(&header), 0);
  }
  const Location other = CommitNew("other");
  ASSERT_EQ(locator.SetLocation(other), 1);
  WCHAR otherPath[ZR_MAX_PATH];
  ASSERT_EQ(locator.GetObjectPath(otherPath), 1);
  ASSERT_TRUE(zrtest::WriteFile(file, zrtest::ReadFile(N(otherPath))));
  EXPECT_EQ(LoadAt(loc), "<not loaded>");
  EXPECT_EQ(LoadAt(other), "other");
}

TEST(Locator, WatchRangeLines) {
  int min = -5, max = -1;
  Locator::SetRWWatchRange(min, max);
  EXPECT_EQ(min, 0);
  EXPECT_EQ(max, 0);
  WorkingProject project;
  min = 1025;
  max = 1026;
  Locator::SetRWWatchRange(min, max);
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  const auto watchLines = [&] {
    std::string lines;
    for (const auto& entry : capture.Entries())
      if (entry.channel == 0 && entry.level == 9) lines += N(entry.text);
    return lines;
  };
  CommitNew("1024 is not watched");
  EXPECT_EQ(watchLines(), "");
  CommitNew("1025 is");
  EXPECT_EQ(watchLines(),
            "\rLocator::CreateDiskImage(0x00000401) watch, access C0000000\r\n"
            "\rLocator::Commit(0x00000401) watch, access C0000000\r\n"
            "\rLocator::ReleaseAccess(0x00000401) watch, access C0000000\r\n");
  capture.Clear();
  EXPECT_EQ(LoadAt(Location::ForObject(project.id, 1025)), "1025 is");
  EXPECT_EQ(watchLines(),
            "\rLocator::Access(0x00000401) watch, access 80000000\r\n"
            "\rLocator::ReleaseAccess(0x00000401) watch, access 80000000\r\n");
  min = max = 0;
  Locator::SetRWWatchRange(min, max);
}
