// CZRFile and the platform file layer: open results and share modes across handles and processes,
// the write cache, failed status, byte-range locks, mapping, by-name operations, times, attributes.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/diag_capture.h"
#include "platform/files.h"
#include "platform/text.h"
#include "test_support.h"
#include "zrobj/cheap.h"
#include "zrobj/czrfile.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;

namespace {

using os::kGenericRead;
using os::kGenericWrite;
constexpr DWORD kRW = os::kGenericRead | os::kGenericWrite;
constexpr DWORD kShareRW = os::kFileShareRead | os::kFileShareWrite;

std::u16string W(const std::string& text) { return os::Utf8ToUtf16(text); }

bool Exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}
long long DiskSize(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

std::string Pattern(std::size_t size) {
  std::string data(size, '\0');
  for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 7 + i / 251);
  return data;
}

// One-byte signals between a parent and a forked child, each wait bounded.
class Signal {
 public:
  Signal() { EXPECT_EQ(::pipe(fd_), 0); }
  ~Signal() {
    ::close(fd_[0]);
    ::close(fd_[1]);
  }
  void Raise() { EXPECT_EQ(::write(fd_[1], "x", 1), 1); }
  bool Wait(int timeout_ms = 10000) {
    pollfd p{fd_[0], POLLIN, 0};
    char c;
    return ::poll(&p, 1, timeout_ms) == 1 && ::read(fd_[0], &c, 1) == 1;
  }

 private:
  int fd_[2] = {-1, -1};
};

FILETIME Ft(UINT64 value) { return FILETIME{static_cast<DWORD>(value), static_cast<DWORD>(value >> 32)}; }
UINT64 U64(const FILETIME& t) { return static_cast<UINT64>(t.dwHighDateTime) << 32 | t.dwLowDateTime; }

TEST(CZRFile, OpenResultCodesAndDirectoryCreation) {
  zrtest::TempDir dir;
  CZRFile file;
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusNeverOpened);
  EXPECT_EQ(file.Open(os::kGenericRead, 0, os::kOpenExisting, 0, 0), 4u);
  EXPECT_EQ(file.Open(nullptr, os::kGenericRead, 0, os::kOpenExisting, 0, 0), 4u);
  EXPECT_EQ(file.Open(W(dir.File("missing")).c_str(), os::kGenericRead, 0, os::kOpenExisting, 0, 0), 2u);
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusNeverOpened);

  // Creating dispositions make the missing directories; "create new" does not.
  const std::string deep = dir.File("a/b/c/new.bin");
  EXPECT_EQ(file.Open(W(dir.File("x/y/new.bin")).c_str(), os::kGenericWrite, 0, os::kCreateNew, 0, 0), 2u);
  EXPECT_FALSE(Exists(dir.File("x")));
  ASSERT_EQ(file.Open(W(deep).c_str(), os::kGenericWrite, 0, os::kCreateAlways, 0, 0), 0u);
  EXPECT_TRUE(Exists(deep));
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusReady);
  EXPECT_EQ(file.GetAccess(), os::kGenericWrite);
  EXPECT_EQ(file.Open(W(deep).c_str(), os::kGenericRead, 0, os::kOpenExisting, 0, 0), 1u);
  EXPECT_EQ(file.Write("hello", 5), 5u);
  EXPECT_EQ(file.Close(), 1);
  EXPECT_EQ(file.Close(), 1);
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusNeverOpened);
  EXPECT_EQ(os::Utf16ToUtf8(file.GetFilename()), deep);  // the name survives closing

  CZRFile other;
  EXPECT_EQ(other.Open(W(dir.File("p/q/always.bin")).c_str(), kRW, 0, os::kOpenAlways, 0, 0), 0u);
  EXPECT_EQ(file.Open(os::kGenericRead, 0, os::kOpenExisting, 0, 0), 0u);  // by the stored name
  file.Close();
  EXPECT_EQ(file.Open(file.GetFilename(), os::kGenericRead, 0, os::kOpenExisting, 0, 0), 0u);
  EXPECT_EQ(file.GetSize(), 5u);

  // A path that does not fit the name is refused, not cut.
  CZRFile long_name;
  const std::string too_long = dir.File(std::string(300, 'n'));
  EXPECT_EQ(long_name.Open(W(too_long).c_str(), kRW, 0, os::kCreateAlways, 0, 0), 2u);
  EXPECT_EQ(long_name.GetFilename()[0], 0);
  CZRFile named(W(too_long).c_str());
  EXPECT_EQ(named.GetFilename()[0], 0);
  CZRFile named_ok(W(deep).c_str());
  EXPECT_EQ(os::Utf16ToUtf8(named_ok.GetFilename()), deep);
}

TEST(CZRFile, ShareModesBetweenHandlesOfOneProcess) {
  zrtest::TempDir dir;
  const std::u16string path = W(dir.File("shared.bin"));
  CZRFile a, b, c;
  ASSERT_EQ(a.Open(path.c_str(), kRW, 0, os::kCreateAlways, 0, 0), 0u);
  EXPECT_EQ(b.Open(path.c_str(), os::kGenericRead, kShareRW, os::kOpenExisting, 0, 0), 5u);
  EXPECT_EQ(b.Open(path.c_str(), 0, kShareRW, os::kOpenExisting, 0, 0), 0u);  // no data access: no clash
  b.Close();
  // A replacing open that is refused must not have truncated the file.
  EXPECT_EQ(a.Write("data", 4), 4u);
  a.FlushCache();
  EXPECT_EQ(b.Open(path.c_str(), os::kGenericWrite, kShareRW, os::kCreateAlways, 0, 0), 5u);
  EXPECT_EQ(DiskSize(dir.File("shared.bin")), 4);
  a.Close();

  ASSERT_EQ(a.Open(path.c_str(), os::kGenericRead, os::kFileShareRead, os::kOpenExisting, 0, 0), 0u);
  EXPECT_EQ(b.Open(path.c_str(), os::kGenericRead, os::kFileShareRead, os::kOpenExisting, 0, 0), 0u);
  EXPECT_EQ(c.Open(path.c_str(), os::kGenericWrite, kShareRW, os::kOpenExisting, 0, 0), 5u);  // a denies write
  EXPECT_EQ(c.Open(path.c_str(), os::kGenericRead, 0, os::kOpenExisting, 0, 0), 5u);  // c would deny a's read
  // Deleting needs delete sharing from every open handle.
  CZRFile by_name(path.c_str());
  EXPECT_EQ(by_name.Delete(), 0);
  EXPECT_EQ(os::GetLastError(), os::kErrorSharingViolation);
  a.Close();
  b.Close();
  EXPECT_EQ(c.Open(path.c_str(), os::kGenericWrite, kShareRW, os::kOpenExisting, 0, 0), 0u);
  c.Close();
  EXPECT_EQ(by_name.Delete(), 1);
  EXPECT_FALSE(Exists(dir.File("shared.bin")));
}

TEST(CZRFile, ExclusiveHolderInAnotherProcess) {
  zrtest::TempDir dir;
  const std::string path = dir.File("held.bin");
  ASSERT_TRUE(zrtest::WriteFile(path, "content"));
  Signal ready, release;
  CZRFile probe(W(path).c_str());
  zrtest::ChildResult result;
  // The child holds the file exclusively until told to let go.
  std::thread parent_side([&] {
    ASSERT_TRUE(ready.Wait());
    const DWORD start = os::GetTickCount();
    EXPECT_EQ(probe.Open(os::kGenericRead, kShareRW, os::kOpenExisting, 0, 0), 5u);
    EXPECT_EQ(probe.Open(os::kGenericWrite, kShareRW, os::kOpenExisting, 0, 0), 5u);
    EXPECT_LT(os::GetTickCount() - start, 1000u);  // refused at once, not after a wait
    release.Raise();
  });
  result = zrtest::RunChild([&] {
    CZRFile held(W(path).c_str());
    if (held.Open(kRW, 0, os::kOpenExisting, 0, 0) != 0) return 3;
    ready.Raise();
    return release.Wait() ? 0 : 4;
  });
  parent_side.join();
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(probe.Open(os::kGenericRead, kShareRW, os::kOpenExisting, 0, 0), 0u);  // released with the process
}

TEST(CZRFile, ReadWriteFailedStatusAndSeeking) {
  zrtest::TempDir dir;
  const std::string path = dir.File("rw.bin");
  CZRFile file(W(path).c_str());
  char buffer[32] = {};
  EXPECT_EQ(file.Read(buffer, 4), 0u);
  EXPECT_EQ(file.Write("x", 1), 0u);
  EXPECT_EQ(file.SetFilePtr(0, 0), 0);
  EXPECT_EQ(file.FlushCache(), 0);
  EXPECT_EQ(file.GetSize(), 0u);
  ASSERT_EQ(file.Open(kRW, 0, os::kCreateAlways, 0, 0), 0u);
  EXPECT_EQ(file.Write("0123456789", 10), 10u);
  EXPECT_EQ(file.GetFilePtr(), 10u);
  EXPECT_EQ(file.GetSize(), 10u);
  EXPECT_EQ(file.Write(nullptr, 3), 0u);
  EXPECT_EQ(file.Read(nullptr, 3), 0u);

  ASSERT_EQ(file.SetFilePtr(4, 0), 1);
  EXPECT_EQ(file.Read(buffer, 20), 6u);  // reaches the end
  EXPECT_EQ(std::string(buffer, 6), "456789");
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusFailed);
  EXPECT_EQ(file.GetFilePtr(), 10u);
  EXPECT_EQ(file.Read(buffer, 1), 0u);
  EXPECT_EQ(file.Write("z", 1), 0u);
  EXPECT_EQ(file.SetFilePtr(-3, 1), 1);  // a seek brings it back
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusReady);
  EXPECT_EQ(file.Read(buffer, 3), 3u);
  EXPECT_EQ(std::string(buffer, 3), "789");

  EXPECT_EQ(file.SetFilePtr(0, 7), 0);   // unknown method
  EXPECT_EQ(file.SetFilePtr(-11, 2), 0);  // before the start
  EXPECT_EQ(file.SetFilePtr(5, 2), 1);    // past the end: the size follows the position
  EXPECT_EQ(file.GetFilePtr(), 15u);
  EXPECT_EQ(file.GetSize(), 15u);
  EXPECT_EQ(file.Write("AB", 2), 2u);
  EXPECT_EQ(file.GetSize(), 17u);

  // SetEOF answers 0 even though it truncated.
  EXPECT_EQ(file.SetEOF(4), 0);
  EXPECT_EQ(file.GetSize(), 4u);
  file.Close();
  EXPECT_EQ(zrtest::ReadFile(path), "0123");

  // Access decides what is allowed.
  ASSERT_EQ(file.Open(os::kGenericRead, 0, os::kOpenExisting, 0, 0), 0u);
  EXPECT_EQ(file.Write("x", 1), 0u);
  EXPECT_EQ(file.FlushCache(), 0);
  file.Close();
  ASSERT_EQ(file.Open(os::kGenericWrite, 0, os::kOpenExisting, 0, 0), 0u);
  EXPECT_EQ(file.Read(buffer, 1), 0u);
  EXPECT_EQ(file.FlushCache(), 1);
  file.Close();

  // With write sharing the size is asked from the system: another handle may grow the file.
  CZRFile a(W(path).c_str()), b(W(path).c_str());
  ASSERT_EQ(a.Open(kRW, kShareRW, os::kOpenExisting, 0, 0), 0u);
  ASSERT_EQ(b.Open(kRW, kShareRW, os::kOpenExisting, 0, 0), 0u);
  ASSERT_EQ(b.SetFilePtr(0, 2), 1);
  EXPECT_EQ(b.Write("grow", 4), 4u);
  EXPECT_EQ(a.GetSize(), 8u);
}

UINT64 g_allowed = ~0ull;
DWORD LimitWrites(os::FileHandle, DWORD count) { return static_cast<DWORD>(std::min<UINT64>(count, g_allowed)); }

TEST(CZRFile, WriteCacheTurnsSmallWritesIntoOneSystemWrite) {
  zrtest::TempDir dir;
  const std::string path = dir.File("cached.bin");
  const std::string data = Pattern(10000);
  CZRFile file(W(path).c_str());
  ASSERT_EQ(file.Open(os::kGenericWrite, 0, os::kCreateAlways, 0, 65536), 0u);
  const UINT64 before = os::GetFileWriteCount();
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(file.Write(data.data() + i * 10, 10), 10u);
  EXPECT_EQ(os::GetFileWriteCount(), before);
  EXPECT_EQ(DiskSize(path), 0);
  EXPECT_EQ(file.GetSize(), 10000u);
  EXPECT_EQ(file.GetFilePtr(), 10000u);
  EXPECT_EQ(file.FlushCache(), 1);
  EXPECT_EQ(os::GetFileWriteCount(), before + 1);
  EXPECT_EQ(zrtest::ReadFile(path), data);

  // A write larger than the cache goes straight to the system.
  const std::string big = Pattern(100 * 1024);
  const UINT64 before_big = os::GetFileWriteCount();
  EXPECT_EQ(file.Write(big.data(), static_cast<DWORD>(big.size())), big.size());
  EXPECT_EQ(os::GetFileWriteCount(), before_big + 1);
  EXPECT_EQ(DiskSize(path), static_cast<long long>(10000 + big.size()));

  // A write that does not fit the free part flushes first.
  EXPECT_EQ(file.Write(big.data(), 60000), 60000u);
  const UINT64 before_full = os::GetFileWriteCount();
  EXPECT_EQ(file.Write(big.data(), 6000), 6000u);
  EXPECT_EQ(os::GetFileWriteCount(), before_full + 1);
  file.Close();  // closing writes the rest
  EXPECT_EQ(DiskSize(path), static_cast<long long>(10000 + big.size() + 66000));

  // No cache unless the file is exclusive and writable.
  ASSERT_EQ(file.Open(os::kGenericWrite, os::kFileShareRead, os::kCreateAlways, 0, 65536), 0u);
  const UINT64 before_shared = os::GetFileWriteCount();
  for (int i = 0; i < 3; ++i) file.Write("abc", 3);
  EXPECT_EQ(os::GetFileWriteCount(), before_shared + 3);
  file.Close();

  // Bytes written after a read land at the read's end.
  ASSERT_TRUE(zrtest::WriteFile(path, "AAAAAAAAAA"));
  ASSERT_EQ(file.Open(kRW, 0, os::kOpenExisting, 0, 4096), 0u);
  char head[4];
  EXPECT_EQ(file.Read(head, 4), 4u);
  EXPECT_EQ(file.Write("BB", 2), 2u);
  EXPECT_EQ(file.GetFilePtr(), 6u);
  file.Close();
  EXPECT_EQ(zrtest::ReadFile(path), "AAAABBAAAA");
}

TEST(CZRFile, ShortWritesSetTheFailedStatus) {
  zrtest::TempDir dir;
  const std::string path = dir.File("short.bin");
  const std::string data = Pattern(1000);
  CZRFile file(W(path).c_str());
  ASSERT_EQ(file.Open(os::kGenericWrite, 0, os::kCreateAlways, 0, 0), 0u);
  g_allowed = 100;
  const os::FileWriteHook previous = os::SetFileWriteHook(LimitWrites);
  EXPECT_EQ(file.Write(data.data(), 300), 100u);
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusFailed);
  EXPECT_EQ(file.GetFilePtr(), 100u);
  EXPECT_EQ(file.Write(data.data(), 10), 0u);
  file.Close();

  ASSERT_EQ(file.Open(os::kGenericWrite, 0, os::kCreateAlways, 0, 4096), 0u);
  EXPECT_EQ(file.Write(data.data(), 500), 500u);  // into the cache
  EXPECT_EQ(file.FlushCache(), 0);                // only 100 reach the disk
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusFailed);
  os::SetFileWriteHook(previous);
  g_allowed = ~0ull;
  EXPECT_EQ(file.SetFilePtr(0, 2), 1);
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusReady);
  file.Close();
  EXPECT_EQ(DiskSize(path), 100);
}

TEST(CZRFile, ByteRangeLocksBetweenHandlesOfOneProcess) {
  zrtest::TempDir dir;
  const std::string path = dir.File("locks.bin");
  ASSERT_TRUE(zrtest::WriteFile(path, Pattern(100)));
  CZRFile a(W(path).c_str()), b(W(path).c_str());
  ASSERT_EQ(a.Open(kRW, kShareRW, os::kOpenExisting, 0, 0), 0u);
  ASSERT_EQ(b.Open(kRW, kShareRW, os::kOpenExisting, 0, 0), 0u);
  EXPECT_EQ(a.FileLock(0, 10), 1);
  EXPECT_EQ(b.FileLock(5, 10), 0);
  EXPECT_EQ(b.FileLock(10, 10), 1);
  EXPECT_EQ(a.FileLock(0, 0), 0);  // the whole file overlaps locked ranges
  const DWORD start = os::GetTickCount();
  EXPECT_EQ(b.WaitFileLock(0, 10, 30), 0);
  EXPECT_GE(os::GetTickCount() - start, 30u);
  EXPECT_EQ(a.FileUnlock(0, 10), 1);
  EXPECT_EQ(b.WaitFileLock(0, 10, 1000), 1);
  EXPECT_EQ(b.FileUnlock(0, 10), 1);
  EXPECT_EQ(b.FileUnlock(10, 10), 1);

  os::ScopedDiagCapture capture;
  // Uncounted waits: the lock stays, and unlocking it is reported as illegal.
  EXPECT_EQ(a.WaitFileLock(50, 10, 0xFFFFFFFFu), 1);
  EXPECT_EQ(a.FileUnlock(50, 10), 0);
  const std::u16string illegal = u"File " + W(path) + u"\r\nIllegal attempt to unlock non-locked file.";
  ASSERT_FALSE(capture.Entries().empty());
  EXPECT_EQ(capture.Entries()[0].text, illegal);
  EXPECT_EQ(capture.Entries()[0].channel, 3u);
  EXPECT_EQ(capture.Entries()[0].level, 4u);
  EXPECT_EQ(b.FileLock(50, 10), 0);

  // Locking "the whole file" of an empty file is refused with a report.
  capture.Clear();
  const std::string empty = dir.File("empty.bin");
  CZRFile e(W(empty).c_str());
  ASSERT_EQ(e.Open(kRW, 0, os::kCreateAlways, 0, 0), 0u);
  EXPECT_EQ(e.FileLock(0, 0), 0);
  EXPECT_EQ(e.WaitFileLock(0, 0, 10), 0);
  ASSERT_EQ(capture.Entries().size(), 2u);
  EXPECT_EQ(capture.Entries()[0].text, u"\rCZRFile " + W(empty) + u": Attempt to lock 0 bytes\r\n");
  EXPECT_EQ(capture.Entries()[0].level, 3u);

  // Closing with a counted lock held reports it, and closes all the same.
  capture.Clear();
  const DWORD debug = IsDebugOn();
  SetDebugMode(1);
  EXPECT_EQ(a.FileLock(60, 5), 1);
  EXPECT_EQ(a.Close(), 1);
  SetDebugMode(debug);
  EXPECT_EQ(a.GetStatus(), CZRFile::kStatusNeverOpened);
  ASSERT_FALSE(capture.Entries().empty());
  EXPECT_EQ(capture.Entries()[0].text, u"\rFile " + W(path) + u"\r\nAttempt to close file while locked (cnt=1)\r\n");
  EXPECT_EQ(capture.Entries()[0].level, 2u);
  EXPECT_NE(capture.Text().find("CLOSE HISTORY"), std::string::npos);
  EXPECT_EQ(b.FileLock(60, 5), 1);  // released with the handle
  EXPECT_EQ(b.FileLock(50, 10), 1);
}

TEST(CZRFile, ByteRangeLocksBetweenProcesses) {
  zrtest::TempDir dir;
  const std::string path = dir.File("plocks.bin");
  ASSERT_TRUE(zrtest::WriteFile(path, Pattern(200)));
  Signal locked, release, unlocked;
  CZRFile mine(W(path).c_str());
  std::thread parent_side([&] {
    ASSERT_TRUE(locked.Wait());
    ASSERT_EQ(mine.Open(kRW, kShareRW, os::kOpenExisting, 0, 0), 0u);
    EXPECT_EQ(mine.FileLock(0, 10), 0);
    EXPECT_EQ(mine.FileLock(100, 10), 1);  // outside the child's range
    EXPECT_EQ(mine.WaitFileLock(0, 10, 20), 0);
    release.Raise();
    EXPECT_EQ(mine.WaitFileLock(0, 10, 10000), 1);  // granted once the child unlocks
    unlocked.Raise();
  });
  const zrtest::ChildResult result = zrtest::RunChild([&] {
    CZRFile theirs(W(path).c_str());
    if (theirs.Open(kRW, kShareRW, os::kOpenExisting, 0, 0) != 0 || !theirs.FileLock(0, 50)) return 3;
    locked.Raise();
    if (!release.Wait()) return 4;
    if (!theirs.FileUnlock(0, 50)) return 5;
    return unlocked.Wait() ? 0 : 6;
  });
  parent_side.join();
  EXPECT_TRUE(result.exited);
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(mine.FileUnlock(0, 10), 1);

  // A process that ends while holding a lock releases it.
  Signal holding;
  const zrtest::ChildResult died = zrtest::RunChild([&] {
    CZRFile theirs(W(path).c_str());
    if (theirs.Open(kRW, kShareRW, os::kOpenExisting, 0, 0) != 0 || !theirs.FileLock(150, 10)) return 3;
    holding.Raise();
    ::_exit(0);
  });
  EXPECT_TRUE(died.exited);
  EXPECT_TRUE(holding.Wait(0));
  EXPECT_EQ(mine.WaitFileLock(150, 10, 5000), 1);
}

TEST(CZRFile, MappingAlignsToTheAllocationGranularity) {
  zrtest::TempDir dir;
  const std::string path = dir.File("map.bin");
  const std::string data = Pattern(200000);
  ASSERT_TRUE(zrtest::WriteFile(path, data));
  ASSERT_EQ(os::GetAllocationGranularity(), 65536u);
  CZRFile file(W(path).c_str());

  auto* p = static_cast<const char*>(file.MapFileR(100, 70000));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(file.GetViewOffset(), 65536u);
  EXPECT_EQ(p - static_cast<const char*>(file.GetViewAddress()), 4464);
  EXPECT_EQ(file.GetViewSize(), 4564u);
  EXPECT_EQ(std::memcmp(p, data.data() + 70000, 100), 0);
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusMapped);
  char buffer[8];
  EXPECT_EQ(file.Read(buffer, 8), 0u);
  EXPECT_EQ(file.SetFilePtr(0, 0), 0);
  EXPECT_EQ(file.MapFileR(10, 0), nullptr);  // one view at a time
  EXPECT_NE(file.FlushView(reinterpret_cast<const void*>(std::uintptr_t{0xFFFFFFFFu}), 0), 0);
  EXPECT_EQ(file.FlushView(p + 5000, 1), 0);  // outside the view

  // Remapping keeps the file; the file opened by the first mapping closes with the last unmap.
  p = static_cast<const char*>(file.RemapFile(10, 131077));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(file.GetViewOffset(), 131072u);
  EXPECT_EQ(std::memcmp(p, data.data() + 131077, 10), 0);
  EXPECT_EQ(file.UnmapFile(), 0);
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusNeverOpened);
  EXPECT_EQ(file.RemapFile(10, 0), nullptr);
  EXPECT_EQ(file.UnmapFile(), 0);

  // Read-only views stop at the end of the file.
  EXPECT_EQ(file.MapFileR(0, 200000), nullptr);
  EXPECT_EQ(file.MapFileR(10, 250000), nullptr);
  ASSERT_NE(file.MapFileR(100000, 150000), nullptr);
  EXPECT_EQ(file.GetViewSize(), 200000u - 131072u);
  ASSERT_EQ(file.RemapFile(10, 300000), nullptr);  // a failed remap closes what the mapping opened
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusNeverOpened);
  ASSERT_NE(file.MapFileR(0, 0), nullptr);
  EXPECT_EQ(file.GetViewSize(), 200000u);
  file.UnmapFile();

  // Writable views grow the file.
  const std::string grown = dir.File("grown.bin");
  CZRFile rw(W(grown).c_str());
  EXPECT_EQ(rw.MapFileRW(TRUE, 0, 0), nullptr);
  EXPECT_FALSE(Exists(grown));
  auto* q = static_cast<char*>(rw.MapFileRW(TRUE, 1000, 70000));
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(DiskSize(grown), 71000);
  EXPECT_EQ(rw.GetSize(), 71000u);
  std::memcpy(q, "mapped!", 7);
  EXPECT_NE(rw.FlushView(q, 7), 0);
  rw.UnmapFile();
  EXPECT_EQ(zrtest::ReadFile(grown).substr(70000, 7), "mapped!");

  // On a file that was open already, the view comes and goes and the file stays.
  ASSERT_EQ(rw.Open(kRW, 0, os::kOpenExisting, 0, 4096), 0u);
  EXPECT_EQ(rw.Write("head", 4), 4u);
  EXPECT_EQ(rw.MapFile(kRW, 0, os::kOpenExisting, 0, os::kPageReadWrite, 0, 10, nullptr, os::kFileMapWrite, 0),
            nullptr);  // real open parameters are for closed files
  q = static_cast<char*>(rw.MapFileRW(FALSE, 10, 0));
  ASSERT_NE(q, nullptr);
  EXPECT_EQ(std::string(q, 4), "head");  // the cache was written before mapping
  q[4] = '#';
  EXPECT_EQ(rw.UnmapFile(), 0);
  EXPECT_EQ(rw.GetStatus(), CZRFile::kStatusReady);
  ASSERT_EQ(rw.SetFilePtr(0, 0), 1);
  char back[5];
  EXPECT_EQ(rw.Read(back, 5), 5u);
  EXPECT_EQ(std::string(back, 5), "head#");
  EXPECT_EQ(rw.MapFileRW(TRUE, 10, 0), nullptr);  // "create" needs a closed file
  ASSERT_NE(rw.MapFileR(10, 0), nullptr);
  EXPECT_EQ(rw.SetEOF(100), 0);  // unmaps, then truncates
  EXPECT_EQ(rw.GetViewAddress(), nullptr);
  EXPECT_EQ(rw.GetSize(), 100u);
  rw.Close();
  EXPECT_EQ(DiskSize(grown), 100);

  ASSERT_EQ(rw.Open(os::kGenericRead, 0, os::kOpenExisting, 0, 0), 0u);
  EXPECT_EQ(rw.MapFileRW(FALSE, 10, 0), nullptr);  // needs read and write access
  ASSERT_NE(rw.MapFileR(0, 0), nullptr);
  EXPECT_EQ(rw.GetViewSize(), 100u);
}

TEST(CZRFile, ByNameOperations) {
  zrtest::TempDir dir;
  const std::string first = dir.File("first.bin");
  ASSERT_TRUE(zrtest::WriteFile(first, "payload"));
  ASSERT_TRUE(zrtest::WriteFile(dir.File("taken.bin"), "other"));
  CZRFile file(W(first).c_str());
  CZRFile nameless;
  EXPECT_EQ(nameless.Delete(), 0);
  EXPECT_EQ(nameless.Move(W(dir.File("x")).c_str()), 0);

  ASSERT_EQ(file.Open(os::kGenericRead, 0, os::kOpenExisting, 0, 0), 0u);
  EXPECT_EQ(file.Name(W(dir.File("n")).c_str()), 0);
  EXPECT_EQ(file.Move(W(dir.File("moved.bin")).c_str()), 0);
  EXPECT_EQ(file.Copy(W(dir.File("copy.bin")).c_str(), FALSE), 0);
  file.Close();

  EXPECT_EQ(file.Move(W(dir.File("taken.bin")).c_str()), 0);  // the target exists
  EXPECT_EQ(file.Move(u""), 0);
  EXPECT_EQ(file.Move(W(dir.File("moved.bin")).c_str()), 1);
  EXPECT_EQ(os::Utf16ToUtf8(file.GetFilename()), dir.File("moved.bin"));
  EXPECT_FALSE(Exists(first));

  EXPECT_EQ(file.Copy(W(dir.File("taken.bin")).c_str(), TRUE), 0);
  EXPECT_EQ(zrtest::ReadFile(dir.File("taken.bin")), "other");
  EXPECT_EQ(file.Copy(W(dir.File("taken.bin")).c_str(), FALSE), 1);
  EXPECT_EQ(zrtest::ReadFile(dir.File("taken.bin")), "payload");

  EXPECT_EQ(file.Rename(u"sub/renamed.bin"), 0);
  EXPECT_EQ(file.Rename(u"renamed.bin"), 1);
  EXPECT_EQ(os::Utf16ToUtf8(file.GetFilename()), dir.File("renamed.bin"));
  EXPECT_EQ(zrtest::ReadFile(dir.File("renamed.bin")), "payload");

  // Touch with a new path moves the file first.
  const UINT64 before = os::GetSystemTimeAsFileTime();
  EXPECT_EQ(file.Touch(W(dir.File("touched.bin")).c_str()), 1);
  EXPECT_FALSE(Exists(dir.File("renamed.bin")));
  FILETIME write{};
  ASSERT_EQ(file.GetTime(nullptr, nullptr, &write), 1);
  EXPECT_GE(U64(write) + 20000000, before);  // within the clock's granularity

  ASSERT_EQ(file.Open(kRW, 0, os::kOpenExisting, 0, 0), 0u);
  EXPECT_EQ(file.Delete(), 1);  // closes first
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusNeverOpened);
  EXPECT_FALSE(Exists(dir.File("touched.bin")));
  EXPECT_EQ(file.Delete(), 0);
  EXPECT_EQ(file.Name(u"/nowhere/else"), 1);
  EXPECT_EQ(os::Utf16ToUtf8(file.GetFilename()), "/nowhere/else");
}

TEST(CZRFile, TransferFromTakesOverTheOpenFile) {
  zrtest::TempDir dir;
  const std::string path = dir.File("transfer.bin");
  CZRFile source(W(path).c_str()), target(W(dir.File("target-old.bin")).c_str());
  ASSERT_EQ(source.Open(os::kGenericWrite, 0, os::kCreateAlways, 0, 4096), 0u);
  ASSERT_EQ(target.Open(os::kGenericWrite, 0, os::kCreateAlways, 0, 0), 0u);
  EXPECT_EQ(source.Write("cached", 6), 6u);
  EXPECT_EQ(source.FileLock(0, 6), 1);
  EXPECT_EQ(target.TransferFrom(source), 1);
  EXPECT_EQ(source.GetStatus(), CZRFile::kStatusNeverOpened);
  EXPECT_EQ(source.GetFilename()[0], 0);
  EXPECT_EQ(os::Utf16ToUtf8(target.GetFilename()), path);
  EXPECT_EQ(target.GetFilePtr(), 6u);
  EXPECT_EQ(target.Write("+more", 5), 5u);
  EXPECT_EQ(target.FileUnlock(0, 6), 1);
  EXPECT_EQ(target.TransferFrom(target), 1);
  target.Close();
  EXPECT_EQ(zrtest::ReadFile(path), "cached+more");
}

TEST(CZRFile, ThreadLockAccessHoldsOffOpenAndClose) {
  zrtest::TempDir dir;
  CZRFile file(W(dir.File("guarded.bin")).c_str());
  std::atomic<bool> opened{false};
  file.ThreadLockAccess();
  std::thread other([&] {
    file.Open(kRW, 0, os::kCreateAlways, 0, 0);
    opened = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(opened.load());  // still waiting for the critical section
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusNeverOpened);
  file.ThreadUnlockAccess();
  other.join();
  EXPECT_TRUE(opened.load());
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusReady);
}

// A lock of the whole file and its unlock name the same range, also when writes grew the file in
// between (through the cache or directly).
TEST(CZRFile, WholeFileLockAndUnlockNameTheSameRange) {
  zrtest::TempDir dir;
  const std::string path = dir.File("whole.bin");
  ASSERT_TRUE(zrtest::WriteFile(path, Pattern(10)));
  for (const DWORD cache : {DWORD{0}, DWORD{4096}}) {
    SCOPED_TRACE(cache);
    CZRFile file(W(path).c_str());
    ASSERT_EQ(file.Open(kRW, 0, zr::os::kOpenExisting, 0, cache), 0u);
    ASSERT_EQ(file.SetFilePtr(0, zr::os::kFileEnd), 1);
    ASSERT_EQ(file.FileLock(0, 0), 1);
    const std::string more = Pattern(100);
    ASSERT_EQ(file.Write(more.data(), 100), 100u);
    EXPECT_EQ(file.FileUnlock(0, 0), 1);
    EXPECT_EQ(file.FileUnlock(0, 0), 0);  // the count went back to 0
    EXPECT_EQ(file.FileLock(5, 0), 1);    // nothing of the range stayed locked
    EXPECT_EQ(file.FileUnlock(5, 0), 1);
    zr::os::ScopedDiagCapture capture;
    zrtest::DebugMode debug(1);
    EXPECT_EQ(file.Close(), 1);
    EXPECT_EQ(capture.Text().find("Attempt to close file while locked"), std::string::npos);
  }
}

// The write cache is a block of a named heap, counted while the file is open.
TEST(CZRFile, WriteCacheLivesInANamedHeap) {
  zrtest::TempDir dir;
  CHeap* pool = zr::GetLibraryHeap("MemPool");
  ASSERT_NE(pool, nullptr);
  unsigned int items_before = 0;
  const unsigned long bytes_before = pool->GetHeapState(items_before);
  CZRFile file(W(dir.File("cached.bin")).c_str());
  ASSERT_EQ(file.Open(kRW, 0, zr::os::kCreateAlways, 0, 4096), 0u);
  unsigned int items = 0;
  EXPECT_EQ(pool->GetHeapState(items), bytes_before + 4096 + 8);
  EXPECT_EQ(items, items_before + 1);
  EXPECT_EQ(file.Close(), 1);
  EXPECT_EQ(pool->GetHeapState(items), bytes_before);
  EXPECT_EQ(items, items_before);
}

// Open (by path and by the stored name), Delete, Move and Copy on one thread against Close on
// another: each sees the file either open or closed, never halfway.
TEST(CZRFile, OperationsByNameAgainstCloseOnAnotherThread) {
  zrtest::TempDir dir;
  const std::u16string path = W(dir.File("raced.bin"));
  const std::u16string moved = W(dir.File("moved.bin"));
  const std::u16string copy = W(dir.File("copy.bin"));
  CZRFile file;
  constexpr int kRounds = 200;
  std::latch start(2);
  std::thread closer([&] {
    start.arrive_and_wait();
    for (int i = 0; i < kRounds; ++i) EXPECT_NE(file.Close(), 0);
  });
  start.arrive_and_wait();
  for (int i = 0; i < kRounds; ++i) {
    const unsigned int by_path = file.Open(path.c_str(), kRW, 0, zr::os::kOpenAlways, 0, 64);
    EXPECT_TRUE(by_path == CZRFile::kOpened || by_path == CZRFile::kAlreadyOpen) << by_path;
    const unsigned int stored = file.Open(kRW, 0, zr::os::kOpenAlways, 0, 64);
    EXPECT_TRUE(stored == CZRFile::kOpened || stored == CZRFile::kAlreadyOpen) << stored;
    const int copied = file.Copy(copy.c_str(), FALSE);
    EXPECT_TRUE(copied == 0 || copied == 1);
    if (file.Move(moved.c_str())) {
      EXPECT_EQ(file.Move(path.c_str()), 1);  // nothing else renames it
    }
    EXPECT_NE(file.Delete(), 0);
  }
  closer.join();
  EXPECT_EQ(file.Close(), 1);
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusNeverOpened);
}

TEST(CZRFile, TimesAndAttributes) {
  zrtest::TempDir dir;
  const std::string path = dir.File("times.bin");
  ASSERT_TRUE(zrtest::WriteFile(path, "t"));
  CZRFile file(W(path).c_str());
  const UINT64 creation = 132000000000000000ull, access = 132500000000000001ull, write = 133000000000000123ull;
  const FILETIME c = Ft(creation), a = Ft(access), w = Ft(write);
  ASSERT_EQ(file.SetTime(&c, &a, &w), 1);
  FILETIME c2{}, a2{}, w2{};
  ASSERT_EQ(file.GetTime(&c2, &a2, &w2), 1);
  EXPECT_EQ(U64(c2), creation);
  EXPECT_EQ(U64(a2), access);
  EXPECT_EQ(U64(w2), write);
  EXPECT_EQ(file.SetTime(nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(file.GetTime(nullptr, nullptr, &w2), 1);
  EXPECT_EQ(U64(w2), write);

  EXPECT_EQ(CZRFile::WasModifiedSince(W(path).c_str(), &w), 1);  // equal counts as modified
  const FILETIME later = Ft(write + 1);
  EXPECT_EQ(CZRFile::WasModifiedSince(W(path).c_str(), &later), 0);
  EXPECT_EQ(CZRFile::WasModifiedSince(W(dir.File("missing")).c_str(), &w), 0);
  EXPECT_EQ(CZRFile::WasModifiedSince(nullptr, &w), 0);
  EXPECT_EQ(CZRFile::TouchFile(W(path).c_str()), 1);
  EXPECT_EQ(CZRFile::WasModifiedSince(W(path).c_str(), &later), 1);
  EXPECT_EQ(CZRFile::TouchFile(W(dir.File("missing")).c_str()), 0);

  // Through an open handle: reading handles cannot set times.
  ASSERT_EQ(file.Open(os::kGenericRead, os::kFileShareRead, os::kOpenExisting, 0, 0), 0u);
  EXPECT_EQ(file.SetTime(nullptr, nullptr, &w), 0);
  EXPECT_EQ(file.GetTime(nullptr, nullptr, &w2), 1);
  file.Close();

  // Attributes: stored ones win over what the file system says.
  const std::u16string wpath = W(path);
  EXPECT_EQ(os::GetFileAttributesW(wpath.c_str()), os::kFileAttributeNormal);
  EXPECT_EQ(os::GetFileAttributesW(W(dir.path()).c_str()), os::kFileAttributeDirectory);
  EXPECT_EQ(os::GetFileAttributesW(W(dir.File("missing")).c_str()), os::kInvalidFileAttributes);
  ASSERT_TRUE(os::SetFileAttributesW(wpath.c_str(), os::kFileAttributeReadOnly | os::kFileAttributeHidden));
  EXPECT_EQ(os::GetFileAttributesW(wpath.c_str()), os::kFileAttributeReadOnly | os::kFileAttributeHidden);
  EXPECT_EQ(file.Open(os::kGenericWrite, 0, os::kOpenExisting, 0, 0), 2u);
  EXPECT_EQ(file.Delete(), 0);
  EXPECT_EQ(file.Open(os::kGenericRead, 0, os::kOpenExisting, 0, 0), 0u);
  file.Close();
  ASSERT_TRUE(os::SetFileAttributesW(wpath.c_str(), os::kFileAttributeNormal));
  EXPECT_EQ(os::GetFileAttributesW(wpath.c_str()), os::kFileAttributeNormal);
  EXPECT_EQ(file.Open(os::kGenericWrite, 0, os::kOpenExisting, 0, 0), 0u);
  file.Close();

  // A new file takes the attributes it was created with; a copy keeps them and the write time.
  CZRFile hidden(W(dir.File("hidden.bin")).c_str());
  ASSERT_EQ(hidden.Open(os::kGenericWrite, 0, os::kCreateNew, os::kFileAttributeHidden, 0), 0u);
  hidden.Write("h", 1);
  hidden.Close();
  EXPECT_EQ(hidden.SetTime(nullptr, nullptr, &w), 1);
  EXPECT_EQ(os::GetFileAttributesW(W(dir.File("hidden.bin")).c_str()), os::kFileAttributeHidden);
  EXPECT_EQ(hidden.Copy(W(dir.File("hidden-copy.bin")).c_str(), TRUE), 1);
  os::FileInfo info;
  ASSERT_TRUE(os::GetFileInfoW(W(dir.File("hidden-copy.bin")).c_str(), &info));
  EXPECT_EQ(info.attributes, os::kFileAttributeHidden);
  EXPECT_EQ(info.last_write_time, write);
  EXPECT_EQ(info.size, 1u);
}

os::DiskFreeSpace g_fake_space;
BOOL FakeSpace(const char16_t*, os::DiskFreeSpace* space) {
  *space = g_fake_space;
  return g_fake_space.bytes_per_sector != 0;
}

TEST(CZRFile, FreeDiskSpaceIsWholeClustersClampedTo32Bits) {
  zrtest::TempDir dir;
  const DWORD free_bytes = CZRFile::GetFreeDiskSpace(W(dir.path()).c_str());
  struct statvfs vfs {};
  ASSERT_EQ(::statvfs(dir.path().c_str(), &vfs), 0);
  EXPECT_GT(free_bytes, 0u);
  EXPECT_EQ(free_bytes % vfs.f_frsize, 0u);
  // A path that does not exist yet is measured on its nearest existing directory.
  const DWORD for_new_path = CZRFile::GetFreeDiskSpace(W(dir.File("not/yet/there.bin")).c_str());
  EXPECT_GT(for_new_path, 0u);
  EXPECT_EQ(for_new_path % vfs.f_frsize, 0u);
  EXPECT_EQ(CZRFile::GetFreeDiskSpace(nullptr), 0u);
  EXPECT_EQ(CZRFile::GetFreeDiskSpace(u""), 0u);

  const os::DiskFreeSpaceSource previous = os::SetDiskFreeSpaceSource(FakeSpace);
  g_fake_space = {8, 512, 10, 100};
  EXPECT_EQ(CZRFile::GetFreeDiskSpace(u"/x"), 40960u);
  g_fake_space = {8, 512, 1ull << 40, 1ull << 41};
  EXPECT_EQ(CZRFile::GetFreeDiskSpace(u"/x"), 4096u * (0xFFFFFFFFu / 4096u));
  g_fake_space = {3, 1000, 1ull << 33, 1ull << 34};
  EXPECT_EQ(CZRFile::GetFreeDiskSpace(u"/x"), 3000u * (0xFFFFFFFFu / 3000u));
  g_fake_space = {0, 0, 5, 5};
  EXPECT_EQ(CZRFile::GetFreeDiskSpace(u"/x"), 0u);
  os::SetDiskFreeSpaceSource(previous);
}

TEST(CZRFile, InfoAttributesAndVolumeByName) {
  zrtest::TempDir dir;
  const std::u16string path = W(dir.File("info.bin"));
  ASSERT_TRUE(zrtest::WriteFile(dir.File("info.bin"), "abc"));
  CZRFile::Info info{};
  ASSERT_TRUE(CZRFile::GetInfo(path.c_str(), &info));
  EXPECT_EQ(info.size, 3u);
  EXPECT_EQ(info.attributes & CZRFile::kAttributeDirectory, 0u);
  FILETIME write{};
  CZRFile file(path.c_str());
  ASSERT_TRUE(file.GetTime(nullptr, nullptr, &write));
  EXPECT_EQ(info.lastWrite.dwLowDateTime, write.dwLowDateTime);
  EXPECT_EQ(info.lastWrite.dwHighDateTime, write.dwHighDateTime);

  const DWORD plain = CZRFile::GetAttributes(path.c_str());
  ASSERT_NE(plain, CZRFile::kInvalidAttributes);
  ASSERT_TRUE(CZRFile::SetAttributes(path.c_str(), CZRFile::kAttributeReadOnly | CZRFile::kAttributeNormal));
  EXPECT_EQ(CZRFile::GetAttributes(path.c_str()) & CZRFile::kAttributeReadOnly, CZRFile::kAttributeReadOnly);
  EXPECT_FALSE(CZRFile::TouchFile(path.c_str()));  // read-only files refuse writing
  EXPECT_EQ(CZRFile::GetLastError(), CZRFile::kErrorAccessDenied);
  ASSERT_TRUE(CZRFile::SetAttributes(path.c_str(), 0));
  EXPECT_TRUE(CZRFile::TouchFile(path.c_str()));

  EXPECT_EQ(CZRFile::GetAttributes(W(dir.File("missing")).c_str()), CZRFile::kInvalidAttributes);
  EXPECT_EQ(CZRFile::GetLastError(), CZRFile::kErrorFileNotFound);
  EXPECT_FALSE(CZRFile::GetInfo(W(dir.File("missing")).c_str(), &info));

  const zr::os::DiskFreeSpaceSource previous = zr::os::SetDiskFreeSpaceSource(FakeSpace);
  g_fake_space = {8, 512, 1ull << 40, 1ull << 41};
  UINT64 free_bytes = 0;
  DWORD cluster = 0;
  EXPECT_TRUE(CZRFile::GetVolumeSpace(u"/x", &free_bytes, &cluster));
  EXPECT_EQ(cluster, 4096u);
  EXPECT_EQ(free_bytes, 4096ull << 40);  // the full figure, beyond 32 bits
  g_fake_space = {};
  EXPECT_FALSE(CZRFile::GetVolumeSpace(u"/x", &free_bytes, &cluster));
  zr::os::SetDiskFreeSpaceSource(previous);
}

TEST(CZRFile, PlatformLayerRefusesBadArguments) {
  zrtest::TempDir dir;
  const std::u16string path = W(dir.File("bad.bin"));
  EXPECT_EQ(os::CreateFileW(nullptr, os::kGenericRead, 0, os::kOpenExisting, 0), os::kInvalidFile);
  EXPECT_EQ(os::CreateFileW(path.c_str(), os::kGenericRead, 0, 9, 0), os::kInvalidFile);
  EXPECT_EQ(os::GetLastError(), os::kErrorInvalidParameter);
  EXPECT_EQ(os::CreateFileW(path.c_str(), os::kGenericRead, 0, os::kOpenExisting, 0), os::kInvalidFile);
  EXPECT_EQ(os::GetLastError(), os::kErrorFileNotFound);
  EXPECT_EQ(os::CreateFileW(W(dir.File("no/dir/f")).c_str(), os::kGenericRead, 0, os::kOpenExisting, 0),
            os::kInvalidFile);
  EXPECT_EQ(os::GetLastError(), os::kErrorPathNotFound);
  EXPECT_EQ(os::CreateFileW(W(dir.path()).c_str(), os::kGenericRead, 0, os::kOpenExisting, 0), os::kInvalidFile);
  EXPECT_EQ(os::GetLastError(), os::kErrorAccessDenied);

  os::FileHandle h = os::CreateFileW(path.c_str(), kRW, 0, os::kCreateNew, 0);
  ASSERT_NE(h, os::kInvalidFile);
  EXPECT_EQ(os::CreateFileW(path.c_str(), kRW, kShareRW, os::kCreateNew, 0), os::kInvalidFile);
  EXPECT_EQ(os::GetLastError(), os::kErrorFileExists);
  EXPECT_FALSE(os::LockFile(h, 0, 0));
  EXPECT_FALSE(os::LockFile(h, ~0ull - 5, 10));
  EXPECT_TRUE(os::LockFile(h, 0, 10));
  EXPECT_FALSE(os::LockFile(h, 5, 1));  // overlaps a range this handle holds
  EXPECT_EQ(os::GetLastError(), os::kErrorLockViolation);
  EXPECT_FALSE(os::UnlockFile(h, 0, 5));  // not the locked range
  EXPECT_EQ(os::GetLastError(), os::kErrorNotLocked);
  EXPECT_TRUE(os::UnlockFile(h, 0, 10));
  EXPECT_FALSE(os::SetFilePointer(h, -1, os::kFileBegin, nullptr));
  EXPECT_EQ(os::GetLastError(), os::kErrorNegativeSeek);
  EXPECT_FALSE(os::WriteFile(h, nullptr, 4, nullptr));
  EXPECT_EQ(os::CreateFileMappingW(h, os::kPageReadOnly, 0, nullptr), nullptr);  // empty file
  EXPECT_EQ(os::GetLastError(), os::kErrorFileInvalid);
  os::FileMapping* m = os::CreateFileMappingW(h, os::kPageReadWrite, 70000, nullptr);
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(os::MapViewOfFile(m, os::kFileMapRead, 4096, 10), nullptr);
  EXPECT_EQ(os::GetLastError(), os::kErrorMappedAlignment);
  EXPECT_EQ(os::MapViewOfFile(m, os::kFileMapRead, 65536, 10000), nullptr);  // beyond the mapping
  EXPECT_TRUE(os::CloseFileMapping(m));
  EXPECT_FALSE(os::UnmapViewOfFile(&m));
  EXPECT_FALSE(os::FlushViewOfFile(&m, 1));
  EXPECT_TRUE(os::CloseFile(h));
  EXPECT_FALSE(os::CloseFile(nullptr));
  EXPECT_FALSE(os::ReadFile(nullptr, nullptr, 0, nullptr));
  EXPECT_FALSE(os::DeleteFileW(W(dir.File("missing")).c_str()));
  EXPECT_FALSE(os::MoveFileW(path.c_str(), W(dir.File("no/dir/f")).c_str()));
  EXPECT_EQ(os::GetLastError(), os::kErrorPathNotFound);

  CZRFile file(path.c_str());
  EXPECT_EQ(file.FlushView(nullptr, 0), 0);
  EXPECT_EQ(file.WaitFileLock(0, 1, 0xFFFFFFFFu), 0);  // closed: no endless wait
  EXPECT_EQ(file.SetEOF(0), 0);
  EXPECT_EQ(file.MapFile(0xFFFFFFFFu, 0, os::kOpenExisting, 0, os::kPageReadOnly, 0, 1, nullptr, os::kFileMapRead, 0),
            nullptr);
  EXPECT_EQ(file.GetStatus(), CZRFile::kStatusNeverOpened);
  ASSERT_EQ(file.Open(kRW, 0, os::kOpenExisting, 0, 0), 0u);
  EXPECT_EQ(file.SetFilePtr(0x7FFFFFFF, 0), 1);
  EXPECT_EQ(file.SetFilePtr(0x7FFFFFFF, 1), 1);
  EXPECT_EQ(file.SetFilePtr(2, 1), 0);  // past the 32-bit limit
  EXPECT_EQ(file.Write("x", 1), 1u);
  EXPECT_EQ(file.Write("x", 1), 0u);  // the last byte a 32-bit size allows was written
}

}  // namespace
