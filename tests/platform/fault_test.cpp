// Probed reads and guarded calls: faults become exception codes, never crashes.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <thread>
#include <vector>

#include "platform/fault.h"
#include "platform/platdiag.h"

namespace os = zr::os;

namespace {

TEST(Fault, ProbeReadAcceptsMappedAndRejectsUnmapped) {
  const char text[] = "probe me";
  char copy[sizeof text] = {};
  EXPECT_TRUE(os::ProbeRead(text, copy, sizeof text));
  EXPECT_STREQ(copy, "probe me");
  EXPECT_FALSE(os::ProbeRead(nullptr, copy, 1));
  EXPECT_FALSE(os::ProbeRead(reinterpret_cast<const void*>(16), copy, 4));
  EXPECT_TRUE(os::ProbeRead(reinterpret_cast<const void*>(16), copy, 0));
  char buffer[8] = "abc";
  EXPECT_TRUE(os::ProbeWritable(buffer, sizeof buffer));
  EXPECT_STREQ(buffer, "abc");
  EXPECT_FALSE(os::ProbeWritable(const_cast<char*>(static_cast<const char*>("literal")), 4));
}

volatile int g_zero = 0;
int* volatile g_wild = reinterpret_cast<int*>(0x10);  // unmapped, and not null so UBSan lets it fault

__attribute__((no_sanitize("undefined"))) void DivideByZero() { g_zero = 10 / g_zero; }

// Copies stop at the first page that cannot be read, across page boundaries and batches.
TEST(Fault, ReadUntilFaultStopsAtTheFirstUnreadablePage) {
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t pages = 300;  // more pages than one batch of vectors
  auto* area = static_cast<unsigned char*>(
      mmap(nullptr, (pages + 1) * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(area, MAP_FAILED);
  for (std::size_t i = 0; i < pages * page; ++i) area[i] = static_cast<unsigned char>(i * 7);
  ASSERT_EQ(mprotect(area + pages * page, page, PROT_NONE), 0);
  std::vector<unsigned char> out(pages * page + page, 0);
  const unsigned char* start = area + 100;
  EXPECT_EQ(os::ReadUntilFault(start, out.data(), out.size()), pages * page - 100);
  EXPECT_EQ(std::memcmp(out.data(), start, pages * page - 100), 0);
  EXPECT_EQ(os::ReadUntilFault(start, out.data(), 50), 50u);
  EXPECT_EQ(os::ReadUntilFault(area + pages * page, out.data(), 10), 0u);
  EXPECT_EQ(os::ReadUntilFault(nullptr, out.data(), 10), 0u);
  munmap(area, (pages + 1) * page);
}

TEST(Fault, GuardedCallTurnsSignalsIntoCodes) {
  EXPECT_EQ(os::Guarded([] {}), 0u);  // the codes of single faults are checked with the signal mask below
  // Nested guards: the inner fault is handled by the inner guard, the outer call completes.
  std::uint32_t inner = 1;
  EXPECT_EQ(os::Guarded([&] { inner = os::Guarded([] { *g_wild = 2; }); }), 0u);
  EXPECT_EQ(inner, 0xC0000005u);
  // Guards are per thread.
  std::uint32_t other = 0;
  std::thread t([&] { other = os::Guarded([] { *g_wild = 3; }); });
  t.join();
  EXPECT_EQ(other, 0xC0000005u);
}

// After a fault the thread's signal mask is the one it had in the guarded code: the fault signal is
// not left blocked, and a signal the caller had blocked stays blocked.
TEST(Fault, GuardedFaultKeepsTheSignalMask) {
  sigset_t usr2, before, after;
  sigemptyset(&usr2);
  sigaddset(&usr2, SIGUSR2);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &usr2, &before), 0);
  for (int round = 0; round < 2; ++round) {  // a second fault is caught as well
    EXPECT_EQ(os::Guarded([] { *g_wild = 4; }), 0xC0000005u);
    EXPECT_EQ(os::Guarded([] { DivideByZero(); }), 0xC0000094u);
  }
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, &after), 0);
  EXPECT_EQ(sigismember(&after, SIGUSR2), 1);
  EXPECT_EQ(sigismember(&after, SIGSEGV), 0);
  EXPECT_EQ(sigismember(&after, SIGFPE), 0);
}

TEST(Fault, StackWalkFindsThisFunction) {
  std::uintptr_t frames[16];
  const int n = os::CaptureCallStack(reinterpret_cast<std::uintptr_t>(__builtin_return_address(0)),
                                 reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0)), frames, 16);
  ASSERT_GE(n, 2);
  EXPECT_NE(os::GetAddressInfoString(frames[0]).find("platform_tests"), std::string::npos);
  EXPECT_EQ(os::CaptureCallStack(0, 0x10, frames, 16), 0);  // a wild frame pointer ends the walk quietly
}

}  // namespace
