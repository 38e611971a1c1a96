// Project pack and unpack: round trips with names, times, attributes and both stored forms; the
// refusals with their messages; archives written by hand, tolerant and hostile.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "platform/diag_capture.h"
#include "platform/files.h"
#include "platform/text.h"
#include "frame_home.h"
#include "test_support.h"
#include "zrobj/byteorder.h"
#include "zrobj/locator.h"
#include "zrobj/prjloc.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;
namespace fs = std::filesystem;

namespace {

constexpr DWORD kProject = 11;
constexpr UINT64 kOldTime = 0x01D000000000ABCDull;  // a file time in 2014, 100 ns units

std::u16string W(const std::string& text) { return os::Utf8ToUtf16(text); }

struct Entry {
  std::string name;
  DWORD attributes;
  UINT64 time;
  DWORD stored;
  DWORD size;
};

std::vector<Entry> List(const std::string& archive, std::string* project = nullptr, int* result = nullptr) {
  std::vector<Entry> entries;
  WCHAR name[ZR_MAX_PATH];
  const int r = PrjLocator::ListArchive(W(archive).c_str(), name, [](const PrjLocator::ArchiveEntry& e, void* c) {
    static_cast<std::vector<Entry>*>(c)->push_back({os::Utf16ToUtf8(e.name), e.attributes, e.time, e.storedSize, e.fileSize});
  }, &entries);
  if (project) *project = os::Utf16ToUtf8(name);
  if (result) *result = r;
  return entries;
}

// A project "Film" with an id file, text, noise, an empty file, a nested directory and an empty one.
struct Project {
  zrtest::TempDir root;
  std::string dir = root.File("Film");
  std::string noise;
  Project() {
    fs::create_directories(dir + "/scenes/empty");
    CProjUniID ids;
    ZROBJ_SetProjectDirectory(kProject, W(dir).c_str());
    EXPECT_EQ(ids.Create(kProject, 0), 0u);
    std::mt19937 random(7);
    for (int i = 0; i < 100000; ++i) noise.push_back(static_cast<char>(random()));
    zrtest::WriteFile(dir + "/noise.bin", noise);
    std::string text;
    for (int i = 0; i < 2000; ++i) text += "take " + std::to_string(i % 7) + " of the scene\n";
    zrtest::WriteFile(dir + "/scenes/script.txt", text);
    zrtest::WriteFile(dir + "/empty.txt", "");
    zrtest::WriteFile(dir + "/scenes/Sz\xc3\xa9ne \xe6\x98\xa0\xe5\x83\x8f.txt", "non-ASCII name");
    os::SetFileAttributesW(W(dir + "/scenes/script.txt").c_str(), os::kFileAttributeReadOnly | os::kFileAttributeHidden);
    os::SetPathWriteTime(W(dir + "/noise.bin").c_str(), kOldTime);
  }
  ~Project() { ZROBJ_SetProjectDirectory(kProject, nullptr); }
};

std::map<std::string, std::string> Tree(const std::string& dir) {
  std::map<std::string, std::string> files;
  for (const auto& e : fs::recursive_directory_iterator(dir)) {
    const std::string rel = fs::relative(e.path(), dir).string();
    files[rel] = e.is_directory() ? "<dir>" : zrtest::ReadFile(e.path().string());
  }
  return files;
}

TEST(PrjLocator, PackAndUnpackKeepContentsTimesAndAttributes) {
  Project project;
  const std::string archive = project.root.File("film.zpk");
  ASSERT_EQ(PrjLocator::PackProject(W(archive).c_str(), kProject), 1);
  EXPECT_FALSE(fs::exists(archive + ".part"));
  EXPECT_EQ(std::distance(fs::directory_iterator(project.root.path()), fs::directory_iterator()), 2);

  const std::string bytes = zrtest::ReadFile(archive);
  ASSERT_GE(bytes.size(), 532u);
  EXPECT_EQ(bytes.substr(0, 4), "jPvo");
  EXPECT_EQ(zr::LoadLE32(bytes.data() + 4), 532u);
  EXPECT_EQ(zr::LoadLE32(bytes.data() + 8), kProject);
  EXPECT_EQ(std::string(bytes.data() + 12, 8), std::string("F\0i\0l\0m\0", 8));
  EXPECT_EQ(bytes.substr(20, 512), std::string(512, '\0'));

  std::string name;
  const std::vector<Entry> entries = List(archive, &name);
  EXPECT_EQ(name, "Film");
  std::map<std::string, Entry> by_name;
  for (const Entry& e : entries) by_name[e.name] = e;
  ASSERT_EQ(entries.size(), 7u);  // the non-ASCII file, PRJ.IDS, empty.txt, noise.bin, scenes, scenes/empty, scenes/script.txt
  EXPECT_EQ(by_name["scenes"].attributes & os::kFileAttributeDirectory, os::kFileAttributeDirectory);
  EXPECT_EQ(by_name["scenes/empty"].size, 0u);
  EXPECT_EQ(by_name["empty.txt"].size, 0u);
  EXPECT_EQ(by_name["empty.txt"].stored, 0u);
  EXPECT_EQ(by_name["noise.bin"].stored, 100000u);  // does not compress: stored as it stands
  EXPECT_EQ(by_name["noise.bin"].time, kOldTime);
  EXPECT_LT(by_name["scenes/script.txt"].stored, by_name["scenes/script.txt"].size);

  zrtest::TempDir out;
  fs::create_directories(out.File("Film/old"));  // replaced
  ASSERT_EQ(PrjLocator::UnpackProject(W(archive).c_str(), W(out.path()).c_str()), 1);
  EXPECT_EQ(Tree(out.File("Film")), Tree(project.dir));
  os::FileInfo info;
  ASSERT_TRUE(os::GetFileInfoW(W(out.File("Film/noise.bin")).c_str(), &info));
  EXPECT_EQ(info.last_write_time, kOldTime);
  EXPECT_EQ(os::GetFileAttributesW(W(out.File("Film/scenes/script.txt")).c_str()) &
                (os::kFileAttributeReadOnly | os::kFileAttributeHidden),
            os::kFileAttributeReadOnly | os::kFileAttributeHidden);
  EXPECT_FALSE(fs::exists(out.File(".Film.unpacking")));
}

// A project registered under a name of its own is packed under that name; a name that is more
// than one path component could not be unpacked, so the directory's name stands in for it.
TEST(PrjLocator, PackUsesTheRegisteredName) {
  zrtest::ScopedHome home;
  zrtest::TempDir root;
  const std::string dir = root.File("take7");
  fs::create_directories(dir);
  zrtest::WriteFile(dir + "/cut.txt", "cut");
  for (const auto& [given, packed] : {std::pair{u"Cutting Room", "Cutting Room"}, std::pair{u"a/b", "take7"}}) {
    const DWORD id = PrjRegistry::AddProject(W(dir).c_str(), given);
    ASSERT_NE(id, 0u);
    CProjUniID ids;
    ids.Create(id, 0);
    const std::string archive = root.File("cut.zpk");
    ASSERT_EQ(PrjLocator::PackProject(W(archive).c_str(), id), 1);
    std::string name;
    List(archive, &name);
    EXPECT_EQ(name, packed);
    zrtest::TempDir out;
    ASSERT_EQ(PrjLocator::UnpackProject(W(archive).c_str(), W(out.path()).c_str()), 1);
    EXPECT_EQ(zrtest::ReadFile(out.File(std::string(packed) + "/cut.txt")), "cut");
    PrjRegistry::RemoveProject(id);
  }
}

// A pack killed half-way leaves nothing: the archive has no name until it is whole.
TEST(PrjLocator, AKilledPackLeavesNothing) {
  Project project;
  for (int i = 0; i < 40; ++i) zrtest::WriteFile(project.dir + "/media" + std::to_string(i) + ".bin", project.noise);
  const std::string archive = project.root.File("killed.zpk");
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  const pid_t pid = ::fork();
  if (pid == 0) {
    PrjLocator::SetProgressCallback([](DWORD entries, UINT64, void* fd) {
      if (entries == 10) {
        const char c = 'p';
        (void)!::write(*static_cast<int*>(fd), &c, 1);
        for (;;) ::pause();  // half-way: wait to be killed
      }
    }, &ready[1]);
    PrjLocator::PackProject(W(archive).c_str(), kProject);
    ::_exit(0);
  }
  char c = 0;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  ::close(ready[0]);
  ::close(ready[1]);
  EXPECT_EQ(std::distance(fs::directory_iterator(project.root.path()), fs::directory_iterator()), 1);  // Film only
  CProjUniID ids;  // and the project is not left locked
  ASSERT_EQ(ids.Open(kProject), 0u);
  EXPECT_EQ(ids.LockProject(), 0u);
  ids.UnlockProject();
  ids.Close();
}

TEST(PrjLocator, PackRefusalsLeaveNoArchive) {
  Project project;
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  const auto refused = [&](const std::u16string& path, DWORD id, const std::string& message) {
    capture.Clear();
    EXPECT_EQ(PrjLocator::PackProject(path.c_str(), id), 0);
    EXPECT_EQ(capture.Text(), "\rPrjLocator::PackProject: " + message + "\r\n");
  };
  refused(u"", kProject, "Invalid archive path");
  refused(W(project.root.File("a.zpk")), 999, "Invalid Project ID");
  refused(W(project.root.path() + "/"), kProject, "Archive <" + project.root.path() + "/> is not a file");
  refused(W(project.dir + "/scenes/inside.zpk"), kProject,
          "Archive can not reside in subdirectory of project to be archived");
  EXPECT_FALSE(fs::exists(project.dir + "/scenes/inside.zpk"));

  CProjUniID other;  // another user of the project
  ASSERT_EQ(other.Open(kProject), 0u);
  refused(W(project.root.File("busy.zpk")), kProject, "Project can not be locked (other users have access)");
  EXPECT_FALSE(fs::exists(project.root.File("busy.zpk")));
  other.Close();
  EXPECT_EQ(PrjLocator::PackProject(W(project.root.File("busy.zpk")).c_str(), kProject), 1);
}

// ---- archives written by hand ----

std::string LE32(DWORD v) {
  std::string s(4, '\0');
  zr::StoreLE32(s.data(), v);
  return s;
}

std::string Header(const std::string& name, DWORD size = 532) {
  std::string h = "jPvo" + LE32(size) + LE32(5);
  for (char c : name) h += std::string{c, '\0'};
  h.resize(532, '\0');
  return h + std::string(size > 532 ? size - 532 : 0, 'x');
}

std::string Record(const std::string& name, DWORD attributes, DWORD stored, DWORD size, DWORD record = 28,
                   UINT64 when = kOldTime) {
  std::string wide;
  for (char c : name) wide += std::string{c, '\0'};
  wide += std::string(2, '\0');
  std::string r = LE32(record) + LE32(static_cast<DWORD>(wide.size())) + LE32(attributes);
  std::string time(8, '\0');
  zr::StoreLE64(time.data(), when);
  r += time + LE32(stored) + LE32(size);
  r.resize(record < 4 ? 4 : record, '\0');
  return r + wide;
}

struct Unpacked {
  int result;
  std::string messages;
};

Unpacked Unpack(const zrtest::TempDir& dir, const std::string& bytes) {
  zrtest::WriteFile(dir.File("hand.zpk"), bytes);
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  const int result = PrjLocator::UnpackProject(W(dir.File("hand.zpk")).c_str(), W(dir.File("out")).c_str());
  return {result, capture.Text()};
}

TEST(PrjLocator, TolerantReaderOfHeadersAndRecords) {
  zrtest::TempDir dir;
  // A longer header, a longer record, a shorter one (its file size reads 0), a file of raw bytes.
  const std::string bytes = Header("Doc", 600) + Record("a.txt", 0x80, 3, 3, 32) + "abc" +
                            Record("b", 0x10, 0, 0) + Record("empty", 0x80, 0, 7, 24);
  const Unpacked u = Unpack(dir, bytes);
  ASSERT_EQ(u.result, 1) << u.messages;
  EXPECT_EQ(zrtest::ReadFile(dir.File("out/Doc/a.txt")), "abc");
  EXPECT_TRUE(fs::is_directory(dir.File("out/Doc/b")));
  EXPECT_TRUE(fs::exists(dir.File("out/Doc/empty")));
  EXPECT_EQ(fs::file_size(dir.File("out/Doc/empty")), 0u);

  // Any time converts, also the extremes a damaged archive may carry.
  const std::string extremes = Header("Doc") + Record("late", 0x80, 1, 1, 28, ~UINT64{0}) + "x" +
                               Record("early", 0x80, 1, 1, 28, 0) + "y" +
                               Record("wrapped", 0x80, 1, 1, 28, UINT64{1} << 63) + "z";
  EXPECT_EQ(Unpack(dir, extremes).result, 1);

  // A directory's record that claims stored bytes has none: the next record follows its name, for
  // the list as for the unpack.
  const std::string odd = Header("Doc") + Record("d", 0x10, 5, 0) + Record("c.txt", 0x80, 2, 2) + "hi";
  const Unpacked v = Unpack(dir, odd);
  ASSERT_EQ(v.result, 1) << v.messages;
  EXPECT_EQ(zrtest::ReadFile(dir.File("out/Doc/c.txt")), "hi");
  int listed = 0;
  EXPECT_EQ(List(dir.File("hand.zpk"), nullptr, &listed).size(), 2u);
  EXPECT_EQ(listed, 1);
}

TEST(PrjLocator, DamagedArchivesLeaveNoTree) {
  zrtest::TempDir dir;
  const auto fails = [&](const std::string& bytes, const std::string& message) {
    const Unpacked u = Unpack(dir, bytes);
    EXPECT_EQ(u.result, 0);
    EXPECT_EQ(u.messages, "\rPrjLocator::UnpackProject: " + message + "\r\n");
    EXPECT_FALSE(fs::exists(dir.File("out/Doc")));
    EXPECT_FALSE(fs::exists(dir.File("out/.Doc.unpacking")));
  };
  const std::string good = Header("Doc") + Record("a.txt", 0x80, 3, 3) + "abc";
  fails(good + Record("b.txt", 0x80, 10, 10) + "12345", "Unable to read packed data");
  fails(good + Record("b.txt", 0x80, 0xFFFFFFF0u, 0xFFFFFFF0u) + "1", "Unable to read packed data");
  fails(good + LE32(28) + "xx", "Unable to read entry information");
  fails(good + Record("../evil", 0x80, 1, 1) + "e", "Read error entry name");
  fails(good + Record("/etc/evil", 0x80, 1, 1) + "e", "Read error entry name");
  fails(good + LE32(28) + LE32(0xFFFFFF00u) + std::string(20, '\0'), "Read error entry name");
  fails(good + Record("z.txt", 0x80, 5, 900) + "abcde", "Failed to write data of " + dir.path() +
                                                           "/out/.Doc.unpacking/z.txt");
  EXPECT_FALSE(fs::exists(dir.File("evil")));
  const std::string archive = dir.File("hand.zpk");
  fails("jPvx" + Header("Doc").substr(4), archive + " is not a valid archive");
  fails(Header("..") , archive + " is not a valid archive");
  fails(Header("Doc").substr(0, 100), archive + " is not a valid archive");
  const Unpacked whole = Unpack(dir, good);  // ends exactly after an entry
  EXPECT_EQ(whole.result, 1);
  EXPECT_EQ(zrtest::ReadFile(dir.File("out/Doc/a.txt")), "abc");
  zrtest::DebugMode debug(1);
  os::ScopedDiagCapture capture;
  EXPECT_EQ(PrjLocator::UnpackProject(u"", u"x"), 0);
  EXPECT_EQ(capture.Text(), "\rPrjLocator::UnpackProject: Invalid parameters\r\n");
}

}  // namespace
