// Thread register: naming, renaming, unregistering (known and unknown ids), the exit statistics line,
// the dump block and the scoped registration.
#include "zrobj/costhread.h"

#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <thread>

#include "platform/diag_capture.h"
#include "platform/privheap.h"
#include "platform/waitable.h"

namespace {

std::u16string NameOf(unsigned long id) {
  WCHAR buffer[64] = {};
  if (!COSThreadRegister::GetName(id, buffer, 63)) return u"<none>";
  return buffer;
}

TEST(COSThreadRegister, RegisterRenameAndUnregister) {
  const unsigned long id = 0x7FFF1234;  // no thread of this process
  EXPECT_EQ(COSThreadRegister::Register(id, u"first"), 1);
  EXPECT_EQ(NameOf(id), u"first");
  EXPECT_EQ(COSThreadRegister::Register(id, u"second"), 1);  // a second registration replaces the name
  EXPECT_EQ(NameOf(id), u"second");
  {
    zr::ScopedDiagCapture capture;
    EXPECT_EQ(COSThreadRegister::Unregister(id), 1);
    ASSERT_EQ(capture.Entries().size(), 1u);  // the thread has no times: only the exited line
    EXPECT_EQ(capture.Entries()[0].text, u"\rThread second exited\r\n");
    EXPECT_EQ(capture.Entries()[0].level, 15u);
  }
  EXPECT_EQ(NameOf(id), u"<none>");
  {
    zr::ScopedDiagCapture capture;
    COSThreadRegister::Unregister(id);
    EXPECT_EQ(capture.Text().find("exited"), std::string::npos);  // unknown ids write no exited line
  }
  // Many registrations grow the table; every name stays readable.
  for (unsigned long i = 0; i < 40; ++i) ASSERT_EQ(COSThreadRegister::Register(0x7FFE0000 + i, u"many"), 1);
  for (unsigned long i = 0; i < 40; ++i) EXPECT_EQ(NameOf(0x7FFE0000 + i), u"many");
  zr::ScopedDiagCapture quiet;
  for (unsigned long i = 0; i < 40; ++i) COSThreadRegister::Unregister(0x7FFE0000 + i);
}

TEST(COSThreadRegister, ExitStatisticsLineAndScopedRegistration) {
  std::u16string exited, busy, inside;
  std::thread worker([&] {
    zr::ScopedDiagCapture capture;
    {
      COSThreadRegister scope(u"Worker");
      WCHAR buffer[32] = {};
      if (COSThreadRegister::GetCurrentName(buffer, 31)) inside = buffer;
    }
    const auto entries = capture.Entries();
    if (entries.size() >= 2) {
      exited = entries[entries.size() - 2].text;
      busy = entries.back().text;
    }
  });
  worker.join();
  EXPECT_EQ(inside, u"Worker");
  EXPECT_EQ(exited, u"\rThread Worker exited\r\n");
  const std::string line = zr::Utf16ToUtf8(busy);
  EXPECT_TRUE(std::regex_match(line, std::regex("\r  Busy=[ 0-9]{2}[0-9]% Lifetime [ 0-9][0-9]:[0-9]{2}:[0-9]{2}\\.[0-9]{3} "
                                                "\\(User:[ 0-9][0-9]:[0-9]{2}:[0-9]{2}\\.[0-9]{3}, "
                                                "Kernel:[ 0-9][0-9]:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\\)\r\n")))
      << line;
}

TEST(COSThreadRegister, DumpBlockLayout) {
  ASSERT_EQ(COS_RegisterThread(0x7FFD0001, u"abc"), 1);
  unsigned long size = 0;
  void* block = COSThreadRegister::GetThreadDump(size);
  ASSERT_NE(block, nullptr);
  const auto* bytes = static_cast<const unsigned char*>(block);
  DWORD count = 0;
  std::memcpy(&count, bytes, 4);
  bool found = false;
  std::size_t at = 4;
  for (DWORD i = 0; i < count && at + 8 <= size; ++i) {
    DWORD id = 0, chars = 0;
    std::memcpy(&id, bytes + at, 4);
    std::memcpy(&chars, bytes + at + 4, 4);
    std::u16string name(chars, u'\0');
    std::memcpy(name.data(), bytes + at + 8, chars * 2);
    if (id == 0x7FFD0001) found = (name == u"abc");
    at += (8 + (chars + 1) * 2 + 3) & ~std::size_t{3};
  }
  EXPECT_EQ(at, size);
  EXPECT_TRUE(found);
  HeapFree(GetProcessHeap(), 0, block);
  zr::ScopedDiagCapture capture;
  COSThreadRegister::DumpRegistered();
  EXPECT_NE(capture.Text().find("\r7FFD0001 abc\r\n"), std::string::npos);
  COSThreadRegister::Unregister(0x7FFD0001);
}

}  // namespace
