// Chunk archives: byte layout of nested chunks, access rules, reading and searching, closing, the
// busy-file time-out, CPMemoryFile growth and seeking, the memory variant and CPMemory persistence.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "zrobj/byteorder.h"
#include "platform/clock.h"
#include "platform/diag_capture.h"
#include "platform/files.h"
#include "platform/text.h"
#include "test_support.h"
#include "zrobj/chunkarc.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrhash.h"

namespace {

using zrtest::DebugMode;
constexpr DWORD kRead = CHNK_ACCESS_READ;
constexpr DWORD kWrite = CHNK_ACCESS_WRITE;

std::u16string W(const std::string& text) { return zr::os::Utf8ToUtf16(text); }
char* N(const char* name) { return const_cast<char*>(name); }
bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::string LE32(DWORD v) {
  std::string out(4, '\0');
  zr::StoreLE32(out.data(), v);
  return out;
}
// A chunk's bytes: id, size, data.
std::string Chunk(DWORD id, const std::string& data) { return LE32(id) + LE32(static_cast<DWORD>(data.size())) + data; }
std::string Chunk(const char* name, const std::string& data) { return Chunk(GetHashID(name), data); }

std::string Bytes(const CPMemoryFile& memory) {
  const void* data = memory.GetCDataPtr();
  return data ? std::string(static_cast<const char*>(data), memory.GetSize()) : std::string();
}

// A file archive over a fresh file in a scratch directory.
class FileArchiveTest : public ::testing::Test {
 protected:
  void OpenNew() { ASSERT_EQ(arc.Open(W(path).c_str(), kWrite, zr::os::kCreateAlways, 0), 0ul); }
  void OpenExisting(DWORD access = kRead) { ASSERT_EQ(arc.Open(W(path).c_str(), access, zr::os::kOpenExisting, 0), 0ul); }
  void Write(const std::string& data) {
    ASSERT_EQ(arc.Chnk_Write(const_cast<char*>(data.data()), data.size()), data.size());
  }
  // Writes `content` as the file and opens it for reading.
  void Reading(const std::string& content) {
    ASSERT_TRUE(zrtest::WriteFile(path, content));
    OpenExisting();
  }

  zrtest::TempDir dir;
  std::string path = dir.File("arc.bin");
  CChunkArchive arc;
};

TEST_F(FileArchiveTest, NestedWritesGiveTheExactLayout) {
  OpenNew();
  EXPECT_EQ(arc.Chnk_Open(N("outer"), kWrite), 0u);
  EXPECT_EQ(arc.Chnk_Open(N("A"), kWrite), 1u);
  Write("0123456789");
  EXPECT_EQ(arc.Chnk_GetSize(1), 0ul);  // sizes are known only on close
  EXPECT_EQ(arc.Chnk_Close(1), 1);
  EXPECT_EQ(arc.Chnk_Open(nullptr, kWrite), 1u);
  Write("xyz");
  EXPECT_EQ(arc.Chnk_Close(1), 1);
  EXPECT_EQ(arc.Chnk_Close(0), 1);
  EXPECT_EQ(arc.Chnk_Close(0), 0);  // nothing open any more
  EXPECT_EQ(arc.Chnk_Open(N("B"), kWrite | 0x1234), 0u);  // low bits of the access are ignored
  EXPECT_EQ(arc.Close(), 1);

  const std::string a = Chunk("A", "0123456789");
  EXPECT_EQ(a.substr(0, 4), LE32(0x58E500D8));
  EXPECT_EQ(zrtest::ReadFile(path), Chunk("outer", a + Chunk(0xFC00, "xyz")) + Chunk("B", ""));
}

TEST_F(FileArchiveTest, SixteenLevelsAndNoSeventeenth) {
  OpenNew();
  for (unsigned i = 0; i < CHNK_MAX_LEVELS; ++i) ASSERT_EQ(arc.Chnk_Open(N("L"), kWrite), i);
  {
    DebugMode debug(1);
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(arc.Chnk_Open(N("L"), kWrite), CHNK_INVALID);
    ASSERT_EQ(capture.Entries().size(), 1u);
    EXPECT_EQ(capture.Entries()[0].channel, 3u);
    EXPECT_EQ(capture.Entries()[0].level, 4u);
    EXPECT_EQ(capture.Text(), "\rCChunkArchive::OpenChunk denied: Max. chunk layers expired\r\n");
  }
  Write("!");
  EXPECT_EQ(arc.Close(), 1);  // an interrupted writer still leaves every size right

  std::string expected = "!";
  for (unsigned i = 0; i < CHNK_MAX_LEVELS; ++i) expected = Chunk("L", expected);
  EXPECT_EQ(zrtest::ReadFile(path), expected);

  OpenExisting();
  for (unsigned i = 0; i < CHNK_MAX_LEVELS; ++i) ASSERT_EQ(arc.Chnk_Open(N("L"), kRead), i);
  EXPECT_EQ(arc.Chnk_GetSize(15), 1ul);
  EXPECT_EQ(arc.Chnk_GetSize(0), expected.size() - 8);
  EXPECT_EQ(arc.Chnk_GetSize(16), 0ul);
}

TEST_F(FileArchiveTest, AccessRules) {
  DebugMode debug(1);
  zr::os::ScopedDiagCapture capture;
  EXPECT_EQ(arc.Chnk_Open(N("A"), kWrite), CHNK_INVALID);
  EXPECT_EQ(capture.Text(), "\rCChunkArchive::OpenChunk denied: No file access\r\n");
  EXPECT_EQ(capture.Entries()[0].level, 3u);

  ASSERT_EQ(arc.Open(W(path).c_str(), kRead | kWrite, zr::os::kCreateAlways, 0), 0ul);
  capture.Clear();
  EXPECT_EQ(arc.Chnk_Open(N("A"), kRead | kWrite), CHNK_INVALID);
  EXPECT_EQ(arc.Chnk_Open(N("A"), 0x3FFFFFFF), CHNK_INVALID);
  EXPECT_EQ(capture.Text(),
            "CChunkArchive::OpenChunk denied: dwDesiredAccess=C0000000, dwFileAccess=C0000000, dwChunkAccess=00000000\r\n"
            "CChunkArchive::OpenChunk denied: dwDesiredAccess=00000000, dwFileAccess=C0000000, dwChunkAccess=00000000\r\n");
  EXPECT_EQ(capture.Entries()[0].level, 3u);

  ASSERT_EQ(arc.Chnk_Open(N("A"), kWrite), 0u);
  capture.Clear();
  EXPECT_EQ(arc.Chnk_Open(N("B"), kRead), CHNK_INVALID);  // read inside write
  EXPECT_EQ(capture.Text(),
            "CChunkArchive::OpenChunk denied: dwDesiredAccess=80000000, dwFileAccess=C0000000, dwChunkAccess=40000000\r\n");
  EXPECT_EQ(arc.Chnk_Read(&capture, 1), 0ul);
  EXPECT_EQ(arc.Chnk_Find(N("A")), 0);  // searching is for readers, silently
  EXPECT_EQ(arc.Chnk_Write(N("x"), 0), 0ul);
  EXPECT_EQ(arc.Close(), 1);

  // Write inside read, and each direction against a file that lacks it.
  ASSERT_TRUE(zrtest::WriteFile(path, Chunk("A", "data")));
  OpenExisting();
  ASSERT_EQ(arc.Chnk_Open(N("A"), kRead), 0u);
  capture.Clear();
  EXPECT_EQ(arc.Chnk_Open(N("B"), kWrite), CHNK_INVALID);
  EXPECT_EQ(arc.Chnk_Write(N("x"), 1), 0ul);
  EXPECT_EQ(capture.Text(),
            "CChunkArchive::OpenChunk denied: dwDesiredAccess=40000000, dwFileAccess=80000000, dwChunkAccess=80000000\r\n");
  arc.Close();
  OpenNew();
  capture.Clear();
  EXPECT_EQ(arc.Chnk_Open(N("A"), kRead), CHNK_INVALID);
  EXPECT_EQ(capture.Text(),
            "CChunkArchive::OpenChunk denied: dwDesiredAccess=80000000, dwFileAccess=40000000, dwChunkAccess=80000000\r\n");
}

TEST_F(FileArchiveTest, MessagesOnlyInDebugMode) {
  DebugMode quiet(0);
  zr::os::ScopedDiagCapture capture;
  EXPECT_EQ(arc.Chnk_Open(N("A"), kWrite), CHNK_INVALID);
  OpenNew();
  EXPECT_EQ(arc.Chnk_Open(N("A"), kRead | kWrite), CHNK_INVALID);
  for (int i = 0; i < 3; ++i) arc.Chnk_Open(N("A"), kWrite);
  EXPECT_EQ(arc.Chnk_Close(0), 1);  // several levels, but no warning without debug output
  EXPECT_EQ(capture.Text(), "");
}

TEST_F(FileArchiveTest, ClosingSeveralLevelsPatchesAllAndWarns) {
  OpenNew();
  ASSERT_EQ(arc.Chnk_Open(N("P"), kWrite), 0u);
  ASSERT_EQ(arc.Chnk_Open(N("Q"), kWrite), 1u);
  ASSERT_EQ(arc.Chnk_Open(N("R"), kWrite), 2u);
  Write("abc");
  {
    DebugMode debug(1);
    zr::os::ScopedDiagCapture capture;
    EXPECT_EQ(arc.Chnk_Close(0), 1);
    EXPECT_TRUE(Has(capture.Text(), "\rCChunkArchive::Chnk_Close: Multiple close detected!"));
    capture.Clear();
    ASSERT_EQ(arc.Chnk_Open(N("S"), kWrite), 0u);
    EXPECT_EQ(arc.Chnk_Close(0), 1);  // one level is no multiple close
    EXPECT_EQ(capture.Text(), "");
  }
  EXPECT_EQ(arc.GetLevelCount(), 0u);
  arc.Close();
  EXPECT_EQ(zrtest::ReadFile(path), Chunk("P", Chunk("Q", Chunk("R", "abc"))) + Chunk("S", ""));
}

// ---- Writing through: every call's writes, and their failure, happen at that call ----

// A file-size limit as a full disk gives it: a system write stops at `g_limit` bytes of file.
DWORD g_limit = 0;
DWORD LimitedWrite(zr::os::FileHandle file, DWORD count) {
  UINT64 at = 0;
  if (!zr::os::SetFilePointer(file, 0, zr::os::kFileCurrent, &at)) return 0;
  return at >= g_limit ? 0 : static_cast<DWORD>(std::min<UINT64>(count, g_limit - at));
}
DWORD RefuseWrite(zr::os::FileHandle, DWORD) { return 0; }

// Sets a write hook for its lifetime.
class ScopedWriteHook {
 public:
  explicit ScopedWriteHook(zr::os::FileWriteHook hook) : previous_(zr::os::SetFileWriteHook(hook)) {}
  ~ScopedWriteHook() { zr::os::SetFileWriteHook(previous_); }

 private:
  zr::os::FileWriteHook previous_;
};

// An archive whose derived class moves its file's position, as a writer may.
class SeekingArchive : public CChunkArchive {
 public:
  int Seek(LONG offset, DWORD method) { return file_.SetFilePtr(offset, method); }
};

TEST_F(FileArchiveTest, EveryCallReachesTheFileAtOnce) {
  OpenNew();
  const UINT64 writes = zr::os::GetFileWriteCount();
  ASSERT_EQ(arc.Chnk_Open(N("root"), kWrite), 0u);
  EXPECT_EQ(zrtest::ReadFile(path), LE32(GetHashID("root")) + LE32(0));
  ASSERT_EQ(arc.Chnk_Open(N("item"), kWrite), 1u);
  Write("0123456789");
  EXPECT_EQ(zrtest::ReadFile(path), LE32(GetHashID("root")) + LE32(0) + LE32(GetHashID("item")) + LE32(0) + "0123456789");
  EXPECT_EQ(zr::os::GetFileWriteCount(), writes + 3);  // two headers and the data
  ASSERT_EQ(arc.Chnk_Close(1), 1);
  EXPECT_EQ(zr::os::GetFileWriteCount(), writes + 4);  // one size patch
  EXPECT_EQ(zrtest::ReadFile(path), LE32(GetHashID("root")) + LE32(0) + Chunk("item", "0123456789"));
  ASSERT_EQ(arc.Chnk_Close(0), 1);
  EXPECT_EQ(zrtest::ReadFile(path), Chunk("root", Chunk("item", "0123456789")));
  EXPECT_EQ(arc.GetFilePtr(), 26u);
}

// With the file cut at every byte of the writing below, each call reports what reached the file:
// the first call whose bytes do not fit fails, nothing is reported written that is not on disk, and
// the sizes patched on close are those of the bytes written.
TEST_F(FileArchiveTest, FileLimitAtEveryByte) {
  const std::string full = Chunk("A", "12345" + Chunk("B", "abc") + "xy");
  ASSERT_EQ(full.size(), 26u);
  for (DWORD limit = 0; limit <= full.size(); ++limit) {
    SCOPED_TRACE("limit " + std::to_string(limit));
    CChunkArchive archive;
    ASSERT_EQ(archive.Open(W(path).c_str(), kWrite, zr::os::kCreateAlways, 0), 0ul);
    g_limit = limit;
    ScopedWriteHook hook(LimitedWrite);
    DebugMode debug(1);
    zr::os::ScopedDiagCapture capture;
    const auto on_disk = [&] { return static_cast<DWORD>(zrtest::ReadFile(path).size()); };
    const auto header_cut = [&](DWORD end) {
      return end > limit ? "\rCChunkArchive::OpenChunk denied: Error writing chunk header\r\n" : "";
    };

    EXPECT_EQ(archive.Chnk_Open(N("A"), kWrite), limit >= 8 ? 0u : CHNK_INVALID);
    EXPECT_EQ(capture.Text(), header_cut(8));
    EXPECT_EQ(on_disk(), std::min<DWORD>(limit, 8));
    EXPECT_EQ(archive.Chnk_Write(N("12345"), 5), limit >= 8 ? std::min<DWORD>(limit - 8, 5) : 0ul);
    EXPECT_EQ(on_disk(), std::min<DWORD>(limit, 13));
    capture.Clear();
    EXPECT_EQ(archive.Chnk_Open(N("B"), kWrite), limit >= 21 ? 1u : CHNK_INVALID);
    if (limit >= 8) {
      EXPECT_EQ(capture.Text(), header_cut(21));
    }
    EXPECT_EQ(on_disk(), std::min<DWORD>(limit, 21));
    EXPECT_EQ(archive.Chnk_Write(N("abc"), 3), limit >= 21 ? std::min<DWORD>(limit - 21, 3) : 0ul);
    EXPECT_EQ(on_disk(), std::min<DWORD>(limit, 24));
    EXPECT_EQ(archive.Chnk_Close(1), limit >= 21 ? 1 : 0);
    EXPECT_EQ(archive.Chnk_Write(N("xy"), 2), limit >= 24 ? std::min<DWORD>(limit - 24, 2) : 0ul);
    EXPECT_EQ(archive.Close(), 1);

    const std::string written = zrtest::ReadFile(path);
    ASSERT_EQ(written.size(), limit);
    if (limit >= 8) {
      EXPECT_EQ(written.substr(0, 8), LE32(GetHashID("A")) + LE32(limit - 8));
    }
    if (limit >= 21) {
      EXPECT_EQ(written.substr(13, 8), LE32(GetHashID("B")) + LE32(std::min<DWORD>(limit, 24) - 21));
    }
    if (limit == full.size()) {
      EXPECT_EQ(written, full);
    }
  }
}

// A size that does not reach the file is reported by the close that wrote it.
TEST_F(FileArchiveTest, FailedSizePatchIsReported) {
  OpenNew();
  ASSERT_EQ(arc.Chnk_Open(N("A"), kWrite), 0u);
  Write("data");
  {
    ScopedWriteHook hook(RefuseWrite);
    EXPECT_EQ(arc.Chnk_Close(0), 0);
  }
  EXPECT_EQ(arc.GetLevelCount(), 0u);  // closed all the same
  ASSERT_EQ(arc.Chnk_Open(N("B"), kWrite), 0u);
  {
    ScopedWriteHook hook(RefuseWrite);
    EXPECT_EQ(arc.Close(), 0);
  }
  EXPECT_EQ(zrtest::ReadFile(path), LE32(GetHashID("A")) + LE32(0) + "data" + LE32(GetHashID("B")) + LE32(0));
}

// A writer that moves back inside its chunk before closing it shortens the chunk; the bytes after
// the position stay in the file. A seek forward places the next chunk where the writer moved to.
TEST_F(FileArchiveTest, SeeksShortenTheChunkAndPlaceTheNext) {
  SeekingArchive archive;
  ASSERT_EQ(archive.Open(W(path).c_str(), kWrite, zr::os::kCreateAlways, 0), 0ul);
  ASSERT_EQ(archive.Chnk_Open(N("A"), kWrite), 0u);
  ASSERT_EQ(archive.Chnk_Write(N("\x01\x02\x03\x04\x05"), 5), 5ul);
  ASSERT_EQ(archive.Seek(-3, zr::os::kFileCurrent), 1);
  ASSERT_EQ(archive.Chnk_Close(0), 1);
  EXPECT_EQ(archive.GetFilePtr(), 10u);
  ASSERT_EQ(archive.Seek(16, zr::os::kFileBegin), 1);
  ASSERT_EQ(archive.Chnk_Open(N("B"), kWrite), 0u);
  ASSERT_EQ(archive.Chnk_Write(N("z"), 1), 1ul);
  ASSERT_EQ(archive.Close(), 1);
  EXPECT_EQ(zrtest::ReadFile(path), Chunk("A", "\x01\x02") + "\x03\x04\x05" + std::string(3, '\0') + Chunk("B", "z"));
}

// Opening an archive that is already open fails and loses nothing written before.
TEST_F(FileArchiveTest, OpenWhileOpenKeepsTheWrittenBytes) {
  OpenNew();
  ASSERT_EQ(arc.Chnk_Open(N("A"), kWrite), 0u);
  Write("abc");
  EXPECT_EQ(arc.Open(W(path).c_str(), kWrite, zr::os::kCreateAlways, 0), 0xFFFFFFFFul);
  EXPECT_EQ(arc.Close(), 1);
  EXPECT_EQ(zrtest::ReadFile(path), LE32(GetHashID("A")) + LE32(0) + "abc");  // Open reset the levels
}

TEST_F(FileArchiveTest, PatchesReachHeadersAlreadyWritten) {
  OpenNew();
  const std::string big(100000, 'b');
  std::string expected_inner;
  ASSERT_EQ(arc.Chnk_Open(N("root"), kWrite), 0u);
  for (int i = 0; i < 5000; ++i) {
    ASSERT_EQ(arc.Chnk_Open(N("item"), kWrite), 1u);
    Write(std::to_string(i));
    ASSERT_EQ(arc.Chnk_Close(1), 1);
    expected_inner += Chunk("item", std::to_string(i));
  }
  ASSERT_EQ(arc.Chnk_Open(N("big"), kWrite), 1u);
  Write("head");
  Write(big);
  Write("tail");
  expected_inner += Chunk("big", "head" + big + "tail");
  EXPECT_EQ(arc.Close(), 1);
  EXPECT_EQ(zrtest::ReadFile(path), Chunk("root", expected_inner));
}

TEST_F(FileArchiveTest, ReadingSkipsTheRestOnClose) {
  const std::string a = Chunk("A", "0123456789");
  Reading(a + Chunk("B", "xy"));
  ASSERT_EQ(arc.Chnk_Open(N("A"), kRead), 0u);
  EXPECT_EQ(arc.Chnk_GetSize(0), 10ul);
  char buffer[32] = {};
  // Fewer than remain: the whole remainder comes.
  EXPECT_EQ(arc.Chnk_Read(buffer, 3), 10ul);
  EXPECT_EQ(std::string(buffer, 10), "0123456789");
  ASSERT_EQ(arc.Chnk_Close(0), 1);
  EXPECT_EQ(arc.GetFilePtr(), 18u);

  // Any read takes the whole remainder, so an unread chunk is the partly read case here; the
  // memory variant's test reads part of one.
  ASSERT_EQ(arc.Chnk_Open(N("B"), kRead), 0u);
  ASSERT_EQ(arc.Chnk_Close(0), 1);
  EXPECT_EQ(arc.GetFilePtr(), a.size() + 10);
}

TEST_F(FileArchiveTest, ReadingPastTheEndLeavesThePosition) {
  Reading(Chunk("A", "0123") + Chunk("B", "56789"));
  ASSERT_EQ(arc.Chnk_Open(N("A"), kRead), 0u);
  char buffer[32] = {};
  // More than remains: n bytes, past the chunk's end.
  EXPECT_EQ(arc.Chnk_Read(buffer, 10), 10ul);
  EXPECT_EQ(std::string(buffer, 10), "0123" + Chunk("B", "56789").substr(0, 6));
  ASSERT_EQ(arc.Chnk_Close(0), 1);
  EXPECT_EQ(arc.GetFilePtr(), 18u);
  // Past the end of the file the read is short and stops further reads until a seek.
  ASSERT_EQ(arc.Chnk_Open(N("A"), kRead), CHNK_INVALID);
}

TEST_F(FileArchiveTest, FailedReadOpenRestoresThePosition) {
  Reading(Chunk("A", "1234") + "\x01\x02");
  DebugMode debug(1);
  zr::os::ScopedDiagCapture capture;
  EXPECT_EQ(arc.Chnk_Open(N("B"), kRead), CHNK_INVALID);
  EXPECT_EQ(arc.GetFilePtr(), 0u);
  ASSERT_EQ(arc.Chnk_Open(N("A"), kRead), 0u);
  ASSERT_EQ(arc.Chnk_Close(0), 1);
  EXPECT_EQ(arc.Chnk_Open(N("A"), kRead), CHNK_INVALID);  // two bytes are no header
  EXPECT_EQ(arc.GetFilePtr(), 12u);
  EXPECT_EQ(capture.Text(), "\rCChunkArchive::OpenChunk denied: Error reading chunk header\r\n"
                            "\rCChunkArchive::OpenChunk denied: Error reading chunk header\r\n");
  EXPECT_EQ(capture.Entries()[0].level, 4u);
}

TEST_F(FileArchiveTest, ParentChunkExceeded) {
  Reading(Chunk("P", Chunk("C", "") + Chunk("C", "")) + Chunk("C", ""));
  ASSERT_EQ(arc.Chnk_Open(N("P"), kRead), 0u);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(arc.Chnk_Open(N("C"), kRead), 1u);
    ASSERT_EQ(arc.Chnk_Close(1), 1);  // the parent's counter follows the closed child
  }
  DebugMode debug(1);
  zr::os::ScopedDiagCapture capture;
  EXPECT_EQ(arc.Chnk_Open(N("C"), kRead), CHNK_INVALID);
  EXPECT_EQ(capture.Text(), "\rCChunkArchive::OpenChunk denied: Parent chunk exceeded\r\n");
}

TEST_F(FileArchiveTest, NullNameReadsTheEmptyName) {
  OpenNew();
  ASSERT_EQ(arc.Chnk_Open(N(""), kWrite), 0u);
  arc.Chnk_Close(0);
  ASSERT_EQ(arc.Chnk_Open(nullptr, kWrite), 0u);
  arc.Close();
  EXPECT_EQ(zrtest::ReadFile(path), Chunk(0u, "") + Chunk(0xFC00, ""));

  OpenExisting();
  EXPECT_EQ(arc.Chnk_Open(nullptr, kRead), 0u);  // id 0, the hash of ""
  arc.Chnk_Close(0);
  EXPECT_EQ(arc.Chnk_Open(nullptr, kRead), CHNK_INVALID);  // an unnamed chunk is never found by name
}

class FindTest : public FileArchiveTest {
 protected:
  // P holds X ("1"), an unnamed chunk ("22"), Y ("333"); then U holds only an unnamed chunk.
  void SetUp() override {
    inner = Chunk("X", "1") + Chunk(0xFC00, "22") + Chunk("Y", "333");
    Reading(Chunk("P", inner) + Chunk("U", Chunk(0xFC00, "4")) + Chunk("Z", ""));
    ASSERT_EQ(arc.Chnk_Open(N("P"), kRead), 0u);
  }
  std::string inner;
};

TEST_F(FindTest, FindsByNameAndOpensWhatItFound) {
  EXPECT_EQ(arc.Chnk_Find(N("Y")), 1);
  EXPECT_EQ(arc.GetFilePtr(), 8u + 9 + 10);  // at Y's header
  ASSERT_EQ(arc.Chnk_Open(N("Y"), kRead), 1u);
  char buffer[8] = {};
  EXPECT_EQ(arc.Chnk_Read(buffer, 3), 3ul);
  EXPECT_EQ(std::string(buffer, 3), "333");
  ASSERT_EQ(arc.Chnk_Close(1), 1);
  // Everything of P is accounted for: no room for another sub-chunk.
  DebugMode debug(1);
  zr::os::ScopedDiagCapture capture;
  EXPECT_EQ(arc.Chnk_Find(N("X")), 0);
  EXPECT_EQ(capture.Text(), "\rCChunkArchive::Chnk_Find failed: Not enough data for subchunk\r\n");
}

TEST_F(FindTest, NullNameStepsOverOneSubChunk) {
  EXPECT_EQ(arc.Chnk_Find(nullptr), 1);
  EXPECT_EQ(arc.GetFilePtr(), 8u + 9);
  EXPECT_EQ(arc.Chnk_Find(nullptr), 1);  // over the unnamed one
  EXPECT_EQ(arc.GetFilePtr(), 8u + 9 + 10);
  ASSERT_EQ(arc.Chnk_Open(N("Y"), kRead), 1u);
  ASSERT_EQ(arc.Chnk_Close(1), 1);
  ASSERT_EQ(arc.Chnk_Close(0), 1);
  EXPECT_EQ(arc.GetFilePtr(), 8u + inner.size());
}

TEST_F(FindTest, NoMatchRestoresThePosition) {
  ASSERT_EQ(arc.Chnk_Close(0), 1);
  ASSERT_EQ(arc.Chnk_Open(N("U"), kRead), 0u);
  const DWORD start = arc.GetFilePtr();
  DebugMode debug(1);
  zr::os::ScopedDiagCapture capture;
  EXPECT_EQ(arc.Chnk_Find(N("X")), 0);  // only an unnamed sub-chunk: never found by name
  EXPECT_EQ(arc.GetFilePtr(), start);
  EXPECT_EQ(capture.Text(), "\rCChunkArchive::Chnk_Find failed: No matching subchunk\r\n");
  EXPECT_EQ(capture.Entries()[0].level, 4u);
  // The search left the chunk as it was: it can be read from its start.
  char buffer[16] = {};
  EXPECT_EQ(arc.Chnk_Read(buffer, 1), 9ul);
  EXPECT_EQ(std::string(buffer, 9), Chunk(0xFC00, "4"));
}

TEST_F(FindTest, OversizeSubChunkIsBadInfo) {
  ASSERT_EQ(arc.Chnk_Close(0), 1);
  arc.Close();
  // X claims more than its parent holds.
  Reading(Chunk("P", LE32(GetHashID("X")) + LE32(100) + "short") + Chunk("Q", "abc"));
  ASSERT_EQ(arc.Chnk_Open(N("P"), kRead), 0u);
  DebugMode debug(1);
  zr::os::ScopedDiagCapture capture;
  EXPECT_EQ(arc.Chnk_Find(N("X")), 0);
  EXPECT_EQ(arc.GetFilePtr(), 8u);
  EXPECT_EQ(capture.Text(), "\rCChunkArchive::Chnk_Find failed: Bad subchunk info\r\n");
  ASSERT_EQ(arc.Chnk_Close(0), 1);
  EXPECT_EQ(arc.Chnk_Open(N("Q"), kRead), 0u);
}

TEST_F(FindTest, NothingToSearchWithoutAChunk) {
  ASSERT_EQ(arc.Chnk_Close(0), 1);
  DebugMode debug(1);
  zr::os::ScopedDiagCapture capture;
  EXPECT_EQ(arc.Chnk_Find(N("X")), 0);
  EXPECT_EQ(capture.Text(), "");
}

std::uint32_t g_tick_calls = 0;
std::uint32_t CountingTicks() {
  ++g_tick_calls;
  return static_cast<std::uint32_t>(zr::os::GetSystemTimeAsFileTime() / 10000);
}

TEST_F(FileArchiveTest, BusyFileTimesOut) {
  ASSERT_TRUE(zrtest::WriteFile(path, Chunk("A", "")));
  CZRFile holder(W(path).c_str());
  ASSERT_EQ(holder.Open(kRead | kWrite, 0, zr::os::kOpenExisting, 0, 0), 0u);
  g_tick_calls = 0;
  const zr::os::TickSource previous = zr::os::SetTickSource(CountingTicks);
  const std::uint32_t start = CountingTicks();
  EXPECT_EQ(arc.Open(W(path).c_str(), kRead, zr::os::kOpenExisting, 40), CHNK_OPEN_TIMEOUT);
  const std::uint32_t elapsed = CountingTicks() - start;
  zr::os::SetTickSource(previous);
  EXPECT_GE(elapsed, 40u);
  EXPECT_LT(elapsed, 5000u);
  EXPECT_GE(g_tick_calls, 4u);  // it retried rather than waiting once
  EXPECT_LE(g_tick_calls, 40u / 5 + 4);  // no faster than every 5 ms

  EXPECT_EQ(arc.Open(W(dir.File("none/x")).c_str(), kRead, zr::os::kOpenExisting, 40), 0xFFFFFFFFul);
  holder.Close();
  EXPECT_EQ(arc.Open(W(path).c_str(), kRead, zr::os::kOpenExisting, 40), 0ul);
  EXPECT_EQ(arc.Open(W(path).c_str(), kRead, zr::os::kOpenExisting, 40), 0xFFFFFFFFul);  // already open
}

TEST_F(FileArchiveTest, SetEOFAndDelete) {
  OpenNew();
  ASSERT_EQ(arc.Chnk_Open(N("A"), kWrite), 0u);
  Write("abcdef");
  arc.Chnk_Close(0);
  EXPECT_EQ(arc.SetEOF(), 0);
  arc.Close();
  EXPECT_EQ(zrtest::ReadFile(path).size(), 14u);
  EXPECT_NE(arc.Delete(), 0);
  EXPECT_EQ(zrtest::ReadFile(path), "");
}

// ---- CPMemoryFile ----

TEST(CPMemoryFile, CapacityGrowsInSteps) {
  CPMemoryFile mem;
  EXPECT_STREQ(mem.GetClassID(), "CPMemoryFile");
  EXPECT_EQ(mem.Open(kRead), 0);  // nothing to read
  EXPECT_EQ(mem.GetAccess(), 0u);
  ASSERT_NE(mem.Open(kWrite | 0x123), 0);
  EXPECT_EQ(mem.GetAccess(), kWrite);
  EXPECT_EQ(mem.GetAllocSize(), 4096ul);
  EXPECT_EQ(mem.GetSize(), 0ul);
  const std::string page(4096, 'p');
  EXPECT_EQ(mem.Write(page.data(), 4095), 4095u);
  EXPECT_EQ(mem.GetAllocSize(), 4096ul);
  ASSERT_EQ(mem.SetFilePtr(0, 0), 1);
  EXPECT_EQ(mem.Write(page.data(), 4096), 4096u);  // the end reaches the capacity
  EXPECT_EQ(mem.GetAllocSize(), 8192ul);
  EXPECT_EQ(mem.GetSize(), 4096ul);
  EXPECT_EQ(Bytes(mem), page);
  EXPECT_EQ(mem.Write(page.data(), 0), 0u);
  mem.Close();
  EXPECT_EQ(mem.Write(page.data(), 1), 0u);

  CPMemoryFile fresh;
  ASSERT_NE(fresh.Open(kWrite), 0);
  EXPECT_EQ(fresh.Write(page.data(), 4096), 4096u);
  EXPECT_EQ(fresh.GetAllocSize(), 8192ul);
  // Reopening for writing gives up the content, also with the read bit.
  ASSERT_NE(fresh.Open(kRead | kWrite), 0);
  EXPECT_EQ(fresh.GetSize(), 0ul);
  EXPECT_EQ(fresh.GetAllocSize(), 4096ul);
}

TEST(CPMemoryFile, ReadClampsAtTheData) {
  CPMemoryFile mem;
  ASSERT_NE(mem.Open(kWrite), 0);
  mem.Write("hello", 5);
  char buffer[16] = {};
  EXPECT_EQ(mem.Read(buffer, 5), 0u);  // no read bit
  ASSERT_NE(mem.Open(kRead), 0);  // keeps the content
  EXPECT_EQ(mem.Read(buffer, 3), 3u);
  EXPECT_EQ(mem.Read(buffer + 3, 10), 2u);
  EXPECT_EQ(std::string(buffer, 5), "hello");
  EXPECT_EQ(mem.Read(buffer, 1), 0u);
  EXPECT_EQ(mem.Write("x", 1), 0u);  // no write bit
}

TEST(CPMemoryFile, SeekingWhenReading) {
  CPMemoryFile mem;
  EXPECT_EQ(mem.SetFilePtr(0, 0), 0);  // closed
  ASSERT_NE(mem.Open(kWrite), 0);
  mem.Write("0123456789", 10);
  ASSERT_NE(mem.Open(kRead), 0);
  EXPECT_EQ(mem.SetFilePtr(10, 0), 1);
  EXPECT_EQ(mem.SetFilePtr(11, 0), 0);  // beyond the data
  EXPECT_EQ(mem.SetFilePtr(-4, 1), 1);
  EXPECT_EQ(mem.GetFilePtr(), 6u);
  EXPECT_EQ(mem.SetFilePtr(-7, 1), 0);  // more than the position
  EXPECT_EQ(mem.SetFilePtr(-10, 2), 1);
  EXPECT_EQ(mem.GetFilePtr(), 0u);
  EXPECT_EQ(mem.SetFilePtr(-11, 2), 0);
  EXPECT_EQ(mem.SetFilePtr(-1, 0), 0);
  EXPECT_EQ(mem.SetFilePtr(0, 3), 0);
  EXPECT_EQ(mem.GetFilePtr(), 0u);
}

TEST(CPMemoryFile, SeekingWhenWriteOnly) {
  CPMemoryFile mem;
  ASSERT_NE(mem.Open(kWrite), 0);
  mem.Write("0123456789", 10);
  EXPECT_EQ(mem.SetFilePtr(5, 0), 1);  // within the data: just moves
  EXPECT_EQ(mem.GetSize(), 10ul);
  EXPECT_EQ(mem.SetFilePtr(100, 0), 1);  // within the capacity: the data grow to it
  EXPECT_EQ(mem.GetSize(), 100ul);
  EXPECT_EQ(mem.SetFilePtr(4095, 0), 1);
  EXPECT_EQ(mem.GetSize(), 4095ul);
  EXPECT_EQ(mem.GetAllocSize(), 4096ul);
  EXPECT_EQ(mem.SetFilePtr(4096, 0), 1);  // at the capacity: the block grows, the data do not
  EXPECT_EQ(mem.GetAllocSize(), 8192ul);
  EXPECT_EQ(mem.GetSize(), 4095ul);
  EXPECT_EQ(mem.GetFilePtr(), 4096u);
  EXPECT_EQ(mem.SetFilePtr(10000, 2), 1);
  EXPECT_EQ(mem.GetAllocSize(), 16384ul);
  EXPECT_EQ(mem.GetFilePtr(), 14095u);
  EXPECT_EQ(mem.Write("!", 1), 1u);
  EXPECT_EQ(mem.GetSize(), 14096ul);
  EXPECT_EQ(std::string(static_cast<const char*>(mem.GetCDataPtr()), 10), "0123456789");
}

// ---- CMemChunkArchive ----

TEST(CMemChunkArchive, SameLayoutAsTheFile) {
  CMemChunkArchive arc;
  ASSERT_NE(arc.Open(kWrite), 0);
  ASSERT_EQ(arc.Chnk_Open(N("outer"), kWrite), 0u);
  ASSERT_EQ(arc.Chnk_Open(N("A"), kWrite), 1u);
  EXPECT_EQ(arc.Chnk_Write(N("0123456789"), 10), 10ul);
  ASSERT_EQ(arc.Chnk_Open(nullptr, kWrite), 2u);
  EXPECT_EQ(arc.Chnk_GetSize(2), 0ul);
  EXPECT_EQ(arc.Close(), 1);
  EXPECT_EQ(Bytes(arc.GetContent()), Chunk("outer", Chunk("A", "0123456789" + Chunk(0xFC00, ""))));
}

TEST(CMemChunkArchive, MessagesNameTheMemoryVariant) {
  DebugMode debug(1);
  zr::os::ScopedDiagCapture capture;
  CMemChunkArchive arc;
  EXPECT_EQ(arc.Chnk_Open(N("A"), kWrite), CHNK_INVALID);
  ASSERT_NE(arc.Open(kWrite), 0);
  EXPECT_EQ(arc.Chnk_Open(N("A"), kRead), CHNK_INVALID);
  for (unsigned i = 0; i < CHNK_MAX_LEVELS; ++i) ASSERT_EQ(arc.Chnk_Open(N("L"), kWrite), i);
  EXPECT_EQ(arc.Chnk_Open(N("L"), kWrite), CHNK_INVALID);
  EXPECT_EQ(capture.Text(),
            "\rCMemChunkArchive::OpenChunk denied: No file access\r\n"
            "CMemChunkArchive::OpenChunk denied: dwDesiredAccess=80000000, dwFileAccess=40000000, dwChunkAccess=00000000\r\n"
            "\rCMemChunkArchive::OpenChunk denied: Max. chunk layers expired\r\n");
  capture.Clear();
  EXPECT_EQ(arc.Chnk_Close(14), 1);
  EXPECT_TRUE(Has(capture.Text(), "\rCMemChunkArchive::Chnk_Close: Multiple close detected!"));
  arc.Close();

  CPMemoryFile content = arc.GetContent();
  ASSERT_NE(arc.SetContent(content), 0);
  ASSERT_NE(arc.Open(kRead), 0);
  capture.Clear();
  EXPECT_EQ(arc.Chnk_Open(N("X"), kRead), CHNK_INVALID);
  EXPECT_EQ(capture.Text(), "\rCMemChunkArchive::OpenChunk denied: Error reading chunk header\r\n");
}

TEST(CMemChunkArchive, ReadsExactlyAndLeavesParentsAlone) {
  const std::string content = Chunk("P", Chunk("C", "") + Chunk("C", "")) + Chunk("C", "tail");
  CPMemoryFile source;
  ASSERT_NE(source.Open(kWrite), 0);
  source.Write(content.data(), static_cast<DWORD>(content.size()));
  CMemChunkArchive arc;
  ASSERT_NE(arc.SetContent(source), 0);
  EXPECT_EQ(source.GetHeader(), nullptr);  // taken over
  EXPECT_EQ(arc.Chnk_Open(N("P"), kRead), CHNK_INVALID);  // the content is not open yet
  ASSERT_NE(arc.Open(kRead), 0);
  ASSERT_EQ(arc.Chnk_Open(N("P"), kRead), 0u);
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(arc.Chnk_Open(N("C"), kRead), 1u);
    ASSERT_EQ(arc.Chnk_Close(1), 1);
  }
  // The parent's counter did not follow its children, so the next open reads beyond the parent
  // (the file variant reports "Parent chunk exceeded" here).
  ASSERT_EQ(arc.Chnk_Open(N("C"), kRead), 1u);
  char buffer[16] = {};
  EXPECT_EQ(arc.Chnk_Read(buffer, 2), 2ul);  // exactly what was asked
  EXPECT_EQ(arc.Chnk_Read(buffer + 2, 10), 2ul);  // clamped at the end of the data
  EXPECT_EQ(std::string(buffer, 4), "tail");
  ASSERT_EQ(arc.Chnk_Close(0), 1);
  EXPECT_EQ(arc.GetFilePtr(), content.size());

  // A partly read chunk is skipped to its end on close.
  ASSERT_NE(arc.Open(kRead), 0);
  ASSERT_EQ(arc.Chnk_Open(N("P"), kRead), 0u);
  EXPECT_EQ(arc.Chnk_Read(buffer, 3), 3ul);
  ASSERT_EQ(arc.Chnk_Close(0), 1);
  EXPECT_EQ(arc.GetFilePtr(), 24u);
}

TEST(CMemChunkArchive, ContentIsSharedAndCopiesKeepTheLevels) {
  CMemChunkArchive arc;
  ASSERT_NE(arc.Open(kWrite), 0);
  ASSERT_EQ(arc.Chnk_Open(N("A"), kWrite), 0u);
  arc.Chnk_Write(N("abc"), 3);
  CPMemoryFile shared = arc.GetContent();
  EXPECT_EQ(shared.GetHeader(), arc.GetContent().GetHeader());
  EXPECT_EQ(shared.GetRefCnt(), 2);

  CMemChunkArchive copy(arc);
  EXPECT_EQ(copy.GetLevelCount(), 1u);
  EXPECT_EQ(shared.GetRefCnt(), 3);
  CMemChunkArchive assigned;
  assigned = arc;
  EXPECT_EQ(assigned.GetLevelCount(), 1u);
  EXPECT_EQ(assigned.GetFilePtr(), 11u);
  EXPECT_EQ(shared.GetRefCnt(), 4);
  EXPECT_EQ(assigned.Delete(), 1);
  EXPECT_EQ(shared.GetRefCnt(), 3);
  EXPECT_EQ(assigned.Chnk_Write(N("x"), 1), 0ul);  // closed
}

// ---- CPMemory persistence ----

// Saves three blocks into `archive` (open for writing), reopens it for reading and loads them back.
template <class Archive, class Reopen>
void RoundTrip(Archive& archive, Reopen reopen) {
  CPMemory first, second, empty;
  ASSERT_TRUE(first.Alloc(5000));
  for (unsigned i = 0; i < 5000; ++i) static_cast<char*>(first.GetDataPtr())[i] = static_cast<char>(i * 13);
  ASSERT_TRUE(second.Alloc(3));
  std::memcpy(second.GetDataPtr(), "xyz", 3);
  EXPECT_EQ(first.DynaSave(N("first"), archive), 1);
  EXPECT_EQ(empty.DynaSave(N("empty"), archive), 1);
  EXPECT_EQ(second.DynaSave(N("second"), archive), 1);
  EXPECT_EQ(second.DynaLoad(N("second"), archive, 0), 0);  // not while writing
  archive.Close();
  ASSERT_TRUE(reopen());
  EXPECT_EQ(first.DynaSave(N("first"), archive), 0);  // not while reading

  CPMemory loaded;
  ASSERT_TRUE(loaded.Alloc(7));
  EXPECT_EQ(loaded.DynaLoad(N("first"), archive, 0), 1);
  EXPECT_TRUE(loaded == first);
  EXPECT_EQ(loaded.DynaLoad(N("empty"), archive, 0), 1);
  EXPECT_EQ(loaded.GetSize(), 0ul);
  EXPECT_EQ(loaded.DynaRead(N("second"), archive), 3);
  EXPECT_TRUE(loaded == second);
  EXPECT_EQ(loaded.DynaLoad(N("more"), archive, 0), 0);  // nothing left
  EXPECT_EQ(loaded.DynaRead(N("more"), archive), 0);
}

TEST(CPMemoryPersistence, RoundTripThroughAFile) {
  zrtest::TempDir dir;
  const std::u16string path = W(dir.File("mem.arc"));
  CChunkArchive arc;
  ASSERT_EQ(arc.Open(path.c_str(), kWrite, zr::os::kCreateAlways, 0), 0ul);
  RoundTrip(arc, [&] { return arc.Open(path.c_str(), kRead, zr::os::kOpenExisting, 0) == 0; });
  const std::string bytes = zrtest::ReadFile(dir.File("mem.arc"));
  EXPECT_EQ(bytes.size(), 8u + 5000 + 8 + 8 + 3);
  EXPECT_EQ(bytes.substr(5008), Chunk("empty", "") + Chunk("second", "xyz"));
}

TEST(CPMemoryPersistence, RoundTripThroughMemory) {
  CMemChunkArchive arc;
  ASSERT_NE(arc.Open(kWrite), 0);
  RoundTrip(arc, [&] { return arc.Open(kRead) != 0; });
}

// A damaged entry that claims more bytes than its archive holds is refused before anything is
// allocated, in both variants, and the handle keeps what it had.
TEST_F(FileArchiveTest, DynaLoadRefusesSizesTheArchiveCannotHold) {
  const std::string damaged = LE32(GetHashID("big")) + LE32(0xFFFFFFF0u) + "abcd";
  Reading(damaged);
  CPMemory kept;
  ASSERT_TRUE(kept.Alloc(2));
  std::memcpy(kept.GetDataPtr(), "ok", 2);
  EXPECT_EQ(kept.DynaLoad(N("big"), arc, 0), 0);
  EXPECT_EQ(kept.GetSize(), 2ul);
  EXPECT_EQ(std::memcmp(kept.GetDataPtr(), "ok", 2), 0);
  EXPECT_EQ(arc.GetLevelCount(), 0u);

  CPMemoryFile content;
  ASSERT_NE(content.Open(kWrite), 0);
  ASSERT_EQ(content.Write(const_cast<char*>(damaged.data()), damaged.size()), damaged.size());
  CMemChunkArchive memory;
  ASSERT_NE(memory.SetContent(content), 0);
  ASSERT_NE(memory.Open(kRead), 0);
  EXPECT_EQ(kept.DynaRead(N("big"), memory), 0);
  EXPECT_EQ(kept.GetSize(), 2ul);
}
}  // namespace
