// Threads: the register (naming, renaming, unregistering known and unknown ids, the exit statistics
// line, the dump block, the scoped registration), CThread's status transitions, suspension,
// termination and priorities, auto threads and their table, and the library's thread attach.
#include "zrobj/costhread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <regex>
#include <thread>

#include "zrobj/byteorder.h"
#include "platform/diag_capture.h"
#include "memory/heap/privheap_internal.h"
#include "platform/clock.h"
#include "platform/text.h"
#include "platform/threads.h"
#include "platform/waitable.h"
#include "platform/wformat.h"
#include "zrobj/zrevent.h"

namespace os = zr::os;

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
    os::ScopedDiagCapture capture;
    EXPECT_EQ(COSThreadRegister::Unregister(id), 1);
    ASSERT_EQ(capture.Entries().size(), 1u);  // the thread has no times: only the exited line
    EXPECT_EQ(capture.Entries()[0].text, u"\rThread second exited\r\n");
    EXPECT_EQ(capture.Entries()[0].level, 15u);
  }
  EXPECT_EQ(NameOf(id), u"<none>");
  {
    os::ScopedDiagCapture capture;
    COSThreadRegister::Unregister(id);
    EXPECT_EQ(capture.Text().find("exited"), std::string::npos);  // unknown ids write no exited line
  }
  // Many registrations grow the table; every name stays readable.
  for (unsigned long i = 0; i < 40; ++i) ASSERT_EQ(COSThreadRegister::Register(0x7FFE0000 + i, u"many"), 1);
  for (unsigned long i = 0; i < 40; ++i) EXPECT_EQ(NameOf(0x7FFE0000 + i), u"many");
  os::ScopedDiagCapture quiet;
  for (unsigned long i = 0; i < 40; ++i) COSThreadRegister::Unregister(0x7FFE0000 + i);
}

TEST(COSThreadRegister, ExitStatisticsLineAndScopedRegistration) {
  std::u16string exited, busy, inside;
  std::thread worker([&] {
    os::ScopedDiagCapture capture;
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
  const std::string line = os::Utf16ToUtf8(busy);
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
  const DWORD count = zr::LoadLE32(bytes);
  bool found = false;
  std::size_t at = 4;
  for (DWORD i = 0; i < count && at + 8 <= size; ++i) {
    const DWORD id = zr::LoadLE32(bytes + at);
    const DWORD chars = zr::LoadLE32(bytes + at + 4);
    std::u16string name(chars, u'\0');
    std::memcpy(name.data(), bytes + at + 8, chars * 2);
    if (id == 0x7FFD0001) found = (name == u"abc");
    at += (8 + (chars + 1) * 2 + 3) & ~std::size_t{3};
  }
  EXPECT_EQ(at, size);
  EXPECT_TRUE(found);
  zr::HeapFree(zr::GetProcessHeap(), 0, block);
  os::ScopedDiagCapture capture;
  COSThreadRegister::DumpRegistered();
  EXPECT_NE(capture.Text().find("\r7FFD0001 abc\r\n"), std::string::npos);
  COSThreadRegister::Unregister(0x7FFD0001);
}

// ---- CThread and COSAutoThread ----

namespace threads {

constexpr DWORD kWaitMs = 10000;  // bound for every wait on a thread that is expected to act

// Suspension and termination reach a thread through a signal. ThreadSanitizer holds signals back
// while the thread sleeps in a system call it does not intercept (our futex waits), so these tests
// cannot run under it.
#if defined(__SANITIZE_THREAD__)
#define SKIP_SIGNAL_CONTROL_UNDER_TSAN() GTEST_SKIP() << "ThreadSanitizer defers the control signal"
#else
#define SKIP_SIGNAL_CONTROL_UNDER_TSAN() (void)0
#endif

// A manual-reset event, not signalled.
struct Event {
  COSEvent event{nullptr, 1, 0, nullptr};
  void Set() { event.Set(); }
  DWORD Wait(DWORD ms) { return event.Wait(ms); }
};

// Events a thread function and its test share.
struct Script {
  Event started;
  Event go;
  Event passed;
  std::atomic<int> runs{0};
  DWORD result = 0;
};

// Reports that it runs, waits for "go", reports that it got past it and returns `result`.
DWORD WaitForGo(void* p) {
  auto* s = static_cast<Script*>(p);
  s->runs.fetch_add(1);
  s->started.Set();
  s->go.Wait(INFINITE);
  s->passed.Set();
  return s->result;
}

// A handle of the thread that outlives the CThread object.
HANDLE KeepHandle(CThread& thread) {
  HANDLE copy = nullptr;
  os::DuplicateHandle(os::GetCurrentProcess(), thread.GetHandle(), os::GetCurrentProcess(), &copy, 0, FALSE,
                  DUPLICATE_SAME_ACCESS);
  return copy;
}

DWORD ExitCodeOf(HANDLE thread) {
  DWORD code = 0;
  return os::GetExitCodeThread(thread, &code) ? code : 0xDEADu;
}

TEST(CThread, RunsSuspendsResumesAndReportsItsEnd) {
  SKIP_SIGNAL_CONTROL_UNDER_TSAN();
  Script s;
  s.result = 42;
  CThread thread(nullptr, 0, WaitForGo, &s, 0);
  ASSERT_NE(thread.GetHandle(), nullptr);
  const unsigned long id = thread.GetID();
  EXPECT_NE(id, 0xFFFFFFFFul);
  EXPECT_EQ(NameOf(id), os::FormatWide(u"ZROBJ::CThread (%08X)", static_cast<DWORD>(id)));
  ASSERT_EQ(s.started.Wait(kWaitMs), WAIT_OBJECT_0);
  EXPECT_EQ(thread.GetStatus(), CTHREAD_RUNNING);
  unsigned long code = 0;
  EXPECT_EQ(thread.GetExitCode(&code), 1);
  EXPECT_EQ(code, STILL_ACTIVE);

  // A suspended thread really stops: "go" does not get it past its wait until it is resumed.
  EXPECT_EQ(thread.Suspend(), 0ul);
  EXPECT_EQ(thread.GetStatus(), CTHREAD_SUSPENDED);
  EXPECT_EQ(thread.Suspend(), 1ul);
  s.go.Set();
  EXPECT_EQ(s.passed.Wait(50), WAIT_TIMEOUT);
  EXPECT_EQ(thread.Resume(), 2ul);
  EXPECT_EQ(thread.GetStatus(), CTHREAD_SUSPENDED);  // still suspended once
  EXPECT_EQ(s.passed.Wait(50), WAIT_TIMEOUT);
  EXPECT_EQ(thread.Resume(), 1ul);
  EXPECT_NE(thread.GetStatus(), CTHREAD_SUSPENDED);  // running, or already ended
  ASSERT_EQ(s.passed.Wait(kWaitMs), WAIT_OBJECT_0);
  ASSERT_EQ(thread.Wait(kWaitMs), WAIT_OBJECT_0);

  EXPECT_EQ(thread.GetStatus(), CTHREAD_ENDED);
  EXPECT_EQ(thread.GetID(), 0xFFFFFFFFul);
  EXPECT_EQ(thread.GetExitCode(&code), 1);
  EXPECT_EQ(code, 42ul);
  // An ended thread refuses everything and keeps its status.
  EXPECT_EQ(thread.Resume(), 0xFFFFFFFFul);
  EXPECT_EQ(thread.Suspend(), 0xFFFFFFFFul);
  EXPECT_EQ(thread.Terminate(1), 0);
  EXPECT_EQ(thread.GetPriority(), THREAD_PRIORITY_ERROR_RETURN);
  EXPECT_EQ(thread.SetPriority(THREAD_PRIORITY_LOWEST), 0);
  EXPECT_EQ(thread.GetStatus(), CTHREAD_ENDED);
  EXPECT_EQ(s.runs.load(), 1);
  // The thread left the register as it ended (before its handle was signalled).
  EXPECT_EQ(NameOf(id), u"<none>");
}

TEST(CThread, SuspendedCreationPrioritiesAndDestruction) {
  SKIP_SIGNAL_CONTROL_UNDER_TSAN();
  Script s;
  HANDLE handle = nullptr;
  {
    CThread thread(nullptr, 64 * 1024, WaitForGo, &s, CREATE_SUSPENDED);
    EXPECT_EQ(thread.GetStatus(), CTHREAD_SUSPENDED);
    handle = KeepHandle(thread);
    // Priorities work before the thread ever ran, and map back to the value set.
    EXPECT_EQ(thread.GetPriority(), THREAD_PRIORITY_NORMAL);
    EXPECT_EQ(thread.SetPriority(THREAD_PRIORITY_BELOW_NORMAL), 1);
    EXPECT_EQ(thread.GetPriority(), THREAD_PRIORITY_BELOW_NORMAL);
    EXPECT_EQ(thread.SetPriority(THREAD_PRIORITY_IDLE), 1);
    EXPECT_EQ(thread.GetPriority(), THREAD_PRIORITY_IDLE);
    EXPECT_EQ(thread.SetPriority(3), 0);  // not a Windows priority
    EXPECT_EQ(s.started.Wait(20), WAIT_TIMEOUT);  // still at its start gate
    // Destroyed without Resume: resumed, given 20 ms, then terminated in its wait.
  }
  EXPECT_EQ(os::WaitForSingleObject(handle, kWaitMs), WAIT_OBJECT_0);
  EXPECT_EQ(ExitCodeOf(handle), 0u);
  s.go.Set();
  EXPECT_EQ(s.passed.Wait(50), WAIT_TIMEOUT);  // it never runs again
  EXPECT_LE(s.runs.load(), 1);
  // Terminating or resuming an ended thread fails.
  EXPECT_FALSE(os::TerminateThread(handle, 5));
  EXPECT_EQ(os::ResumeThread(handle), 0xFFFFFFFFu);
  os::CloseHandle(handle);
}

TEST(CThread, TerminateRunningAndSuspendedThreads) {
  SKIP_SIGNAL_CONTROL_UNDER_TSAN();
  for (bool suspend_first : {false, true}) {
    SCOPED_TRACE(suspend_first ? "suspended" : "running");
    Script s;
    CThread thread(nullptr, 0, WaitForGo, &s, 0);
    ASSERT_EQ(s.started.Wait(kWaitMs), WAIT_OBJECT_0);
    const unsigned long id = thread.GetID();
    if (suspend_first) {
      ASSERT_EQ(thread.Suspend(), 0ul);
    }
    EXPECT_EQ(thread.Terminate(7), 1);
    EXPECT_EQ(thread.GetStatus(), CTHREAD_ENDED);
    EXPECT_EQ(thread.Wait(0), WAIT_OBJECT_0);
    unsigned long code = 0;
    EXPECT_EQ(thread.GetExitCode(&code), 1);
    EXPECT_EQ(code, 7ul);
    EXPECT_EQ(thread.Terminate(8), 0);
    s.go.Set();
    EXPECT_EQ(s.passed.Wait(50), WAIT_TIMEOUT);
    // A terminated thread runs no detach: its name stays until someone removes it.
    EXPECT_NE(NameOf(id), u"<none>");
    os::ScopedDiagCapture quiet;
    COSThreadRegister::Unregister(id);
  }
}

DWORD Throws(void*) { throw std::runtime_error("thread function failed"); }
DWORD Faults(void*) {
  volatile int* nowhere = reinterpret_cast<volatile int*>(std::uintptr_t{16});  // unmapped, not null
  return static_cast<DWORD>(*nowhere);
}

// A termination racing the thread's own end releases the thread's own reference once: a second
// release would signal and close whatever object reused the handle's number meanwhile.
TEST(CThread, TerminateRacingTheThreadsEndReleasesItsHandleOnce) {
  SKIP_SIGNAL_CONTROL_UNDER_TSAN();
  for (int i = 0; i < 300; ++i) {
    DWORD id = 0;
    const HANDLE thread = os::CreateThread(nullptr, 0, [](void*) -> DWORD { return 7; }, nullptr, 0, &id);
    ASSERT_NE(thread, nullptr);
    os::TerminateThread(thread, 9);  // either stops it or finds it ended
    const HANDLE event = os::CreateEventW(nullptr, TRUE, FALSE, nullptr);  // may take a freed number
    ASSERT_NE(event, nullptr);
    ASSERT_EQ(os::WaitForSingleObject(thread, kWaitMs), WAIT_OBJECT_0);
    const DWORD code = ExitCodeOf(thread);
    EXPECT_TRUE(code == 7 || code == 9) << code;
    ASSERT_EQ(os::WaitForSingleObject(event, 0), WAIT_TIMEOUT) << "iteration " << i;
    ASSERT_TRUE(os::SetEvent(event));
    ASSERT_TRUE(os::CloseHandle(event));
    ASSERT_TRUE(os::CloseHandle(thread));
  }
}

TEST(CThread, AnExceptionOrFaultEndsWithStatusThree) {
  for (ZR_THREAD_FN fn : {Throws, Faults}) {
    os::ScopedDiagCapture capture;
    CThread thread(nullptr, 0, fn, nullptr, 0);
    ASSERT_EQ(thread.Wait(kWaitMs), WAIT_OBJECT_0);
    EXPECT_EQ(thread.GetStatus(), CTHREAD_EXCEPTION);
    EXPECT_EQ(thread.GetID(), 0xFFFFFFFFul);
    unsigned long code = 1;
    EXPECT_EQ(thread.GetExitCode(&code), 1);
    EXPECT_EQ(code, 0ul);
    const std::string report = capture.Text();
    EXPECT_NE(report.find(fn == Throws ? "Exception 0xE06D7363" : "Exception 0xC0000005"), std::string::npos) << report;
  }
}

// Auto threads: sets the handshake, then waits for the shared release event.
struct AutoScript {
  Event release;
  Event all_left;  // set by the last of `leavers` threads past the release
  int leavers = 0;
  std::atomic<int> runs{0};
  std::atomic<int> left{0};
  std::atomic<void*> parameter{nullptr};
};

DWORD HoldUntilReleased(void* p) {
  auto* info = static_cast<AUTOTHREADINFO*>(p);
  auto* s = static_cast<AutoScript*>(info->pParam);
  s->parameter.store(info->pParam);
  s->runs.fetch_add(1);
  os::SetEvent(info->hEvent);  // release the creator early
  s->release.Wait(INFINITE);
  if (s->left.fetch_add(1) + 1 == s->leavers) s->all_left.Set();  // the last use of the script
  return 0;
}

DWORD ReturnAtOnce(void* p) {
  static_cast<AutoScript*>(static_cast<AUTOTHREADINFO*>(p)->pParam)->runs.fetch_add(1);
  return 0;
}

class COSAutoThreadTest : public ::testing::Test {
 protected:
  void SetUp() override { COSAutoThread::AppInit(); }
  void TearDown() override {
    COSAutoThread::AppExit();
    COSAutoThread::AppInit();
  }
};

TEST_F(COSAutoThreadTest, HandshakeTableLimitAndSelfDeletion) {
  AutoScript s;
  // The creator returns once the function set the event (or returned).
  EXPECT_EQ(COSAutoThread::CreateAutoThread(nullptr, 0, ReturnAtOnce, &s), 1);
  EXPECT_EQ(s.runs.load(), 1);
  s.runs = 0;
  // 128 at once: the slot of the one above frees itself; the 129th is refused without a thread.
  for (unsigned i = 0; i < COSAutoThread::kMaxAutoThreads; ++i)
    ASSERT_EQ(COSAutoThread::CreateAutoThread(nullptr, 0, HoldUntilReleased, &s), 1) << i;
  EXPECT_EQ(s.parameter.load(), &s);
  EXPECT_EQ(COSAutoThread::CreateAutoThread(nullptr, 0, ReturnAtOnce, &s), 0);
  EXPECT_EQ(s.runs.load(), 128);
  s.leavers = 128;
  s.release.Set();
  // Once a thread has left, its slot is free again (it deleted its object under the table lock).
  for (int tries = 0; COSAutoThread::CreateAutoThread(nullptr, 0, ReturnAtOnce, &s) == 0; ++tries) {
    ASSERT_LT(tries, 10000);
    os::Sleep(1);
  }
  EXPECT_EQ(s.runs.load(), 129);
  ASSERT_EQ(s.all_left.Wait(10000), WAIT_OBJECT_0);  // nothing uses the script after this
}

TEST_F(COSAutoThreadTest, ShutdownRefusesNewThreadsAndTerminatesStuckOnes) {
  SKIP_SIGNAL_CONTROL_UNDER_TSAN();
  AutoScript s;
  ASSERT_EQ(COSAutoThread::CreateAutoThread(nullptr, 0, HoldUntilReleased, &s), 1);
  const DWORD start = os::GetTickCount();
  COSAutoThread::AppExit();  // waits 100 ms for the stuck thread, then terminates it
  EXPECT_GE(os::GetTickCount() - start, 100u);
  EXPECT_EQ(COSAutoThread::CreateAutoThread(nullptr, 0, ReturnAtOnce, &s), 0);
  EXPECT_EQ(s.runs.load(), 1);
  s.release.Set();
  os::Sleep(50);
  EXPECT_EQ(s.left.load(), 0);  // terminated in its wait: it never got past it
  COSAutoThread::AppInit();
  EXPECT_EQ(COSAutoThread::CreateAutoThread(nullptr, 0, ReturnAtOnce, &s), 1);
}

// Never sets the handshake: waits for the shared release event.
DWORD HoldWithoutHandshake(void* p) {
  auto* s = static_cast<AutoScript*>(static_cast<AUTOTHREADINFO*>(p)->pParam);
  s->runs.fetch_add(1);
  s->release.Wait(INFINITE);
  return 0;
}

// AppExit ending a thread whose creator still waits for its handshake wakes the creator.
TEST_F(COSAutoThreadTest, ExitEndingAThreadBeforeItsHandshakeReleasesTheCreator) {
  SKIP_SIGNAL_CONTROL_UNDER_TSAN();
  AutoScript s;
  Event created;
  int result = -1;
  std::thread creator([&] {
    result = COSAutoThread::CreateAutoThread(nullptr, 0, HoldWithoutHandshake, &s);
    created.Set();
  });
  for (int tries = 0; s.runs.load() == 0; ++tries) {
    ASSERT_LT(tries, 10000);
    os::Sleep(1);
  }
  EXPECT_EQ(created.Wait(0), static_cast<DWORD>(WAIT_TIMEOUT));  // still waiting for the handshake
  COSAutoThread::AppExit();  // terminates the thread after its 100 ms
  const DWORD woke = created.Wait(kWaitMs);
  if (woke != WAIT_OBJECT_0) {
    creator.detach();  // a creator that never returns must not hang the test program
    FAIL() << "the creator still waits";
  }
  creator.join();
  EXPECT_EQ(result, 1);
}

TEST(ThreadAttach, NamesUnknownThreadsAndUnregistersThemAtTheirEnd) {
  os::ScopedDiagCapture capture;
  DWORD id = 0;
  std::u16string name;
  std::thread worker([&] {
    id = os::GetCurrentThreadId();
    WCHAR buffer[64] = {};
    CEventLogger::LogEvent(u"first use");  // the thread's first call into the library attaches it
    if (COSThreadRegister::GetCurrentName(buffer, 63)) name = buffer;
  });
  worker.join();
  EXPECT_TRUE(std::regex_match(os::Utf16ToUtf8(name), std::regex("Unknown, created [0-9]+\\.[0-9]{6} s after startup")))
      << os::Utf16ToUtf8(name);
  EXPECT_NE(capture.Text().find("\rThread " + os::Utf16ToUtf8(name) + " exited\r\n"), std::string::npos);
  EXPECT_EQ(NameOf(id), u"<none>");
}

}  // namespace threads

}  // namespace
