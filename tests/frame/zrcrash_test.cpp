// The crash handler: crash records written by crashing children (every kind of fault, two crashing
// threads, the OS handler), minidumps that lldb opens, the handler's life cycle and stolen handlers,
// and the exception analysis of guarded faults.
#include <gtest/gtest.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <thread>

#include "zrobj/byteorder.h"
#include "frame/services/zrcrash_internal.h"
#include "platform/crashio.h"
#include "platform/diag_capture.h"
#include "platform/fault.h"
#include "platform/platdiag.h"
#include "platform/procinfo.h"
#include "platform/text.h"
#include "frame_home.h"
#include "test_support.h"
#include "zrobj/cheap.h"
#include "zrobj/zrcrash.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrevent.h"
#include "zrobj/zrobj.h"

namespace os = zr::os;

namespace {

constexpr char kUser[] = "crash-user";
constexpr char kComputer[] = "CRASHBOX";

volatile int g_zero = 0;
int* volatile g_wild = reinterpret_cast<int*>(0x10);  // unmapped, and not null so UBSan lets it fault
volatile bool g_deeper = true;

__attribute__((noinline)) void CrashHereForTheDump() { *g_wild = 1; }
__attribute__((noinline, no_sanitize("undefined"))) void DivideByZero() { g_zero = 10 / g_zero; }
__attribute__((noinline)) void IllegalInstruction() { __builtin_trap(); }
__attribute__((noinline)) int Recurse(int depth) {
  volatile char frame[256];
  frame[depth % sizeof frame] = 1;
  return g_deeper ? Recurse(depth + 1) + frame[0] : 0;
}
void OverflowStack() { Recurse(0); }
void OverflowWorkerStack() {
  std::thread worker([] {
    CEventLogger::LogEvent(u"worker starts");  // first use of the library: prepares its signal stack
    OverflowStack();
  });
  worker.join();
}
void Abort() { std::abort(); }

std::string SelfPath() {
  char path[4096] = {};
  const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
  return n > 0 ? std::string(path, static_cast<std::size_t>(n)) : std::string();
}

std::string Hex(std::uint64_t v, int width) {
  char text[32];
  std::snprintf(text, sizeof text, "%0*llX", width, static_cast<unsigned long long>(v));
  return text;
}

std::size_t Count(const std::string& text, const std::string& piece) {
  std::size_t n = 0;
  for (std::size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + piece.size())) ++n;
  return n;
}

// Each piece must appear, in this order.
::testing::AssertionResult InOrder(const std::string& text, std::initializer_list<std::string> pieces) {
  std::size_t at = 0;
  for (const std::string& piece : pieces) {
    const std::size_t found = text.find(piece, at);
    if (found == std::string::npos) {
      std::string shown;
      for (char c : piece) shown += c == '\r' ? std::string("\\r") : c == '\n' ? std::string("\\n") : std::string(1, c);
      return ::testing::AssertionFailure() << "missing after offset " << at << ": \"" << shown << "\"\n" << text;
    }
    at = found + piece.size();
  }
  return ::testing::AssertionSuccess();
}

struct CrashOptions {
  int minidump = 0;
  bool disable = false;
  const char16_t* state = u"Testing";
  const char* directory = nullptr;      // where the record should go; null: the test's directory
  const char* errors = nullptr;         // a file that takes the child's standard error
  unsigned dump_budget = 60;            // seconds
  zr::testing::CrashPhaseHook hook = nullptr;
};

// Runs `crash` in a child process that has a crash handler writing into `dir`.
zrtest::ChildResult RunCrashingChild(const zrtest::TempDir& dir, void (*crash)(), CrashOptions options = {}) {
  return zrtest::RunChild([&] {
    rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    setenv("ZROBJ_USERNAME", kUser, 1);
    setenv("ZROBJ_COMPUTERNAME", kComputer, 1);
    CEventLogger::Exit();
    CEventLogger::Init();
    CEventLogger::LogEvent(u"child event %d", 1);
    CEventLogger::LogEvent(u"child event %d", 2);
    if (options.errors) {
      const int fd = ::open(options.errors, O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (fd < 0 || ::dup2(fd, 2) < 0) return 98;
    }
    zr::testing::SetCrashBudgets(options.dump_budget, 30);
    zr::testing::SetCrashPhaseHook(options.hook);
    CUnhandledException handler;
    zr::SetCrashRecordDirectory(os::Utf8ToUtf16(options.directory ? options.directory : dir.path()).c_str());
    CUnhandledException::iMiniDump = options.minidump;
    CUnhandledException::bDisable = options.disable;
    CUnhandledException::SetState(options.state);
    crash();
    return 99;
  });
}

TEST(CrashRecord, AccessViolationWritesEverySectionInOrder) {
  zrtest::TempDir dir;
  const zrtest::ChildResult result = RunCrashingChild(dir, CrashHereForTheDump);
  ASSERT_TRUE(result.exited) << "signal " << result.signal;
  EXPECT_EQ(result.exit_code, 0x05);  // the low byte of 0xC0000005
  const std::string record = zrtest::ReadFile(dir.File("CrashRecord.txt"));
  const std::string self = SelfPath();
  EXPECT_TRUE(InOrder(record, {"\r\n\n----- Crash record -----\r\n", "\rApplication: " + self + "\r\n",
                               "\rState      : Testing\r\n", "\rUser       : crash-user\r\n",
                               "\rComputer   : CRASHBOX\r\n", "\r\nException 0xC0000005 @ 0x", "\r\n  ",
                               "\rThread: Thread <<<Main>>> (0x", "Build 1.0.0 of ", "\rNumber of processors: ",
                               "\rMemory load         : ", "%", "\rTotal physical      : ", "\rAvailable physical  : ",
                               "\rTotal pageable      : ", "\rAvailable pageable  : ", "\rTotal virtual       : ",
                               "\rAvailable virtual   : ", "\r\nGS =", " FS =", " ES =", " DS =", " SS =", "\r\nRAX=",
                               "\r\nRCX=", "\r\nRDI=", "\r\nRSP=", "\r\nR8 =", "\r\nR10=", "\r\nR12=", "\r\nR14=",
                               "\r\nRIP=", "\r\nACCESS_VIOLATION @ 0x", "\r\n" + self + ", offset ", "\r\n[",
                               "\rThreadList\r\n", "\r<<EventList>>\r\n", "\r* 0     ", "] child event 1\r\n",
                               "\r* 1     ", "] child event 2\r\n", "\r\n<<Loaded libraries>>\r\n", self,
                               "libzrobju.so", "\r\n\n----- Crash record END -----\r\n"}));
  EXPECT_EQ(Count(record, "----- Crash record -----"), 1u);
  EXPECT_EQ(record.find("Invoking OS handler"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(dir.File("crashdump.dmp")));  // "MiniDump" 0

  // The header: English weekday and month, day.Mon.year hh:mm:ss:ms.
  EXPECT_TRUE(std::regex_search(record, std::regex("----- Crash record -----\r\n(Sun|Mon|Tues|Wednes|Thurs|Fri|Satur)day,"
                                                   "[0-9]{1,2}\\.(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec)\\."
                                                   "[0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}:[0-9]{1,3}\r\n")));
  // One address throughout: the exception line, the table entry and the instruction pointer.
  std::smatch m;
  ASSERT_TRUE(std::regex_search(record, m, std::regex("Exception 0xC0000005 @ 0x([0-9A-F]+)\r\n")));
  const std::string address = m[1];
  EXPECT_NE(record.find("ACCESS_VIOLATION @ 0x" + address), std::string::npos);
  EXPECT_NE(record.find("RIP=" + Hex(std::stoull(address, nullptr, 16), 16)), std::string::npos);
  // The stack trace names the functions (from the program's own symbol table).
  EXPECT_TRUE(InOrder(record, {"\r\nACCESS_VIOLATION @ 0x", "\r\n[(anonymous namespace)::CrashHereForTheDump() + ",
                               "\r\n[(anonymous namespace)::RunCrashingChild("}));
}

TEST(CrashRecord, EachFaultKindIsNamedAndEndsTheProcessWithItsCode) {
  struct Case {
    void (*crash)();
    const char* code;
    const char* name;  // null: a code outside the table, reported by its number
    int status;
    const char* thread;
  };
  const Case cases[] = {
      {DivideByZero, "C0000094", "INT_DIVIDE_BY_ZERO", 0x94, "\rThread: Thread <<<Main>>> (0x"},
      {IllegalInstruction, "C000001D", "ILLEGAL_INSTRUCTION", 0x1D, "\rThread: Thread <<<Main>>> (0x"},
      {OverflowStack, "C00000FD", "STACK_OVERFLOW", 0xFD, "\rThread: Thread <<<Main>>> (0x"},
      {OverflowWorkerStack, "C00000FD", "STACK_OVERFLOW", 0xFD, "\rThread: Thread <Unknown, created "},
      {Abort, "40000015", nullptr, 0x15, "\rThread: Thread <<<Main>>> (0x"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.code);
    zrtest::TempDir dir;
    const zrtest::ChildResult result = RunCrashingChild(dir, c.crash, {.state = u""});
    ASSERT_TRUE(result.exited) << "signal " << result.signal;
    EXPECT_EQ(result.exit_code, c.status);
    const std::string record = zrtest::ReadFile(dir.File("CrashRecord.txt"));
    const std::string second = c.name ? std::string("\r\n") + c.name + " @ 0x" : std::string("\r\nException 0x") + c.code + " @ 0x";
    EXPECT_TRUE(InOrder(record, {"\rState      : <<Unknown>>\r\n", std::string("\r\nException 0x") + c.code + " @ 0x",
                                 c.thread, "\r\nRIP=", second, "\r\n[", "\r<<EventList>>\r\n",
                                 "\r\n\n----- Crash record END -----\r\n"}));
  }
}

// The second thread crashes while the first writes its record (released from the thread dump).
std::atomic<bool> g_release_second{false};

void DumpWhileSecondThreadCrashes() {
  g_release_second = true;
  for (int i = 0; i < 10000 && zr::GetParkedCrashThreadCount() == 0; ++i) ::usleep(1000);
  os::dmp_printf("\rParked threads: %u\r\n", zr::GetParkedCrashThreadCount());
}

void CrashTwice() {
  static const zr::ThreadInfoProvider racing{nullptr, DumpWhileSecondThreadCrashes, nullptr};
  zr::SetThreadInfoProvider(&racing);
  std::thread second([] {
    for (int i = 0; i < 10000 && !g_release_second; ++i) ::usleep(1000);
    DivideByZero();
  });
  second.detach();
  CrashHereForTheDump();
}

TEST(CrashRecord, SecondCrashingThreadWaitsForTheFirst) {
  zrtest::TempDir dir;
  const zrtest::ChildResult result = RunCrashingChild(dir, CrashTwice);
  ASSERT_TRUE(result.exited) << "signal " << result.signal;
  EXPECT_EQ(result.exit_code, 0x05);  // the first crash's code
  const std::string record = zrtest::ReadFile(dir.File("CrashRecord.txt"));
  EXPECT_EQ(Count(record, "----- Crash record -----"), 1u);
  EXPECT_TRUE(InOrder(record, {"\r\nException 0xC0000005 @ 0x", "\rThread: Main (0x", "\rParked threads: 1\r\n",
                               "\r\n\n----- Crash record END -----\r\n"}));
  EXPECT_EQ(record.find("INT_DIVIDE_BY_ZERO"), std::string::npos);
}

// A minidump that takes longer than its time is abandoned (and removed), and the record is still
// written after it.
TEST(CrashRecord, ASlowMinidumpKeepsNoTimeFromTheRecord) {
  zrtest::TempDir dir;
  const std::string errors = dir.File("stderr.txt");
  CrashOptions options;
  options.minidump = 1;
  options.dump_budget = 1;
  options.errors = errors.c_str();
  options.hook = [](zr::testing::CrashPhase phase) {
    if (phase == zr::testing::CrashPhase::kDump)
      for (;;) ::pause();  // a dump that never ends
  };
  const zrtest::ChildResult result = RunCrashingChild(dir, CrashHereForTheDump, options);
  ASSERT_TRUE(result.exited) << "signal " << result.signal;
  EXPECT_EQ(result.exit_code, 0x05);
  const std::string record = zrtest::ReadFile(dir.File("CrashRecord.txt"));
  EXPECT_TRUE(InOrder(record, {"\r\n\n----- Crash record -----\r\n", "\r\nException 0xC0000005 @ 0x",
                               "\r\n\n----- Crash record END -----\r\n"}));
  EXPECT_FALSE(std::filesystem::exists(dir.File("crashdump.dmp")));
  EXPECT_NE(zrtest::ReadFile(errors).find("zrobj: minidump abandoned after 1 s, " + dir.File("crashdump.dmp") +
                                          " removed\n"),
            std::string::npos)
      << zrtest::ReadFile(errors);
}

// A directory that refuses the record sends it, and the dump, to the settings directory, and the
// first line on standard error says where it went.
TEST(CrashRecord, AnUnwritableDirectoryFallsBackToTheSettingsDirectory) {
  zrtest::TempDir dir;
  zrtest::ScopedHome settings;
  const std::string& home = settings.path();
  const std::string errors = dir.File("stderr.txt");
  const std::string refused = dir.File("not-a-directory");
  zrtest::WriteFile(refused, "a file where the directory should be");
  CrashOptions options;
  options.minidump = 1;
  options.directory = refused.c_str();
  options.errors = errors.c_str();
  const zrtest::ChildResult result = RunCrashingChild(dir, CrashHereForTheDump, options);
  ASSERT_TRUE(result.exited) << "signal " << result.signal;
  EXPECT_EQ(result.exit_code, 0x05);
  const std::string record = zrtest::ReadFile(home + "/CrashRecord.txt");
  EXPECT_TRUE(InOrder(record, {"\r\n\n----- Crash record -----\r\n", "\r\n\n----- Crash record END -----\r\n"}));
  EXPECT_GT(std::filesystem::file_size(home + "/crashdump.dmp"), 0u);
  const std::string said = zrtest::ReadFile(errors);
  EXPECT_EQ(said.substr(0, said.find('\n') + 1), "zrobj: crash record not writable in " + refused + "/, written to " +
                                                      home + "/CrashRecord.txt\n");
}

// A thread blocked inside the dump output (here: writing into a pipe nobody reads) holds its lock;
// a crash on another thread still writes its record, past that lock.
std::string g_fifo;
void CrashWhileTheDumpOutputIsHeld() {
  const int reader = ::open(g_fifo.c_str(), O_RDONLY | O_NONBLOCK);  // never read: the pipe fills up
  if (reader < 0 || !os::dmp_SetOutputFile(g_fifo.c_str())) ::_exit(97);
  std::atomic<bool> writing{false};
  std::thread blocked([&] {
    const std::string block(4096, 'x');
    writing = true;
    for (;;) os::dmp_output(block.c_str());  // blocks once the pipe is full, holding the output
  });
  blocked.detach();
  while (!writing) ::usleep(1000);
  ::usleep(100000);  // the writer fills the pipe within microseconds; the crash must not wait for it
  CrashHereForTheDump();
}

TEST(CrashRecord, AHeldDumpOutputDoesNotStopTheRecord) {
  zrtest::TempDir dir;
  g_fifo = dir.File("output.fifo");
  ASSERT_EQ(::mkfifo(g_fifo.c_str(), 0600), 0);
  const zrtest::ChildResult result = zrtest::RunChild([&] {
    const zrtest::ChildResult inner = RunCrashingChild(dir, CrashWhileTheDumpOutputIsHeld);
    return inner.exited ? inner.exit_code : 200 + inner.signal;
  }, 20000);
  ASSERT_TRUE(result.exited) << "the crash handler hung on the held output";
  EXPECT_EQ(result.exit_code, 0x05);
  const std::string record = zrtest::ReadFile(dir.File("CrashRecord.txt"));
  EXPECT_TRUE(InOrder(record, {"\r\n\n----- Crash record -----\r\n", "CrashHereForTheDump",
                               "\r\n\n----- Crash record END -----\r\n"}));
}

// A crash inside a diagnostics listener, while a heap dump holds the heap's lock and the output
// holds its own, still writes the record: the handler waits for neither.
struct CrashingListener final : os::DiagSink {
  void Write(unsigned, unsigned, std::u16string_view text) override {
    if (text.find(u"Dump [CrashDumpHeap]") != std::u16string_view::npos) CrashHereForTheDump();
  }
};

void CrashInsideAHeapDump() {
  auto* heap = new CHeap("CrashDumpHeap", 0, 0, 0, 1);
  if (!(heap->GetHeapFlags() & CHEAP_WATCH) || !heap->Alloc(16, 0, __FILE__, __LINE__, 0)) ::_exit(96);
  static CrashingListener listener;
  os::SetDiagSink(&listener);
  heap->Dump(1);  // prints under the heap's lock
}

TEST(CrashRecord, ACrashUnderTheHeapLockStillWritesTheRecord) {
  zrtest::TempDir dir;
  zrtest::ScopedHome home;
  zrtest::WriteFile(home.File("ZRO.INI"), "[CrashDumpHeap]\nWatch=1\n");
  const zrtest::ChildResult result = zrtest::RunChild([&] {
    const zrtest::ChildResult inner = RunCrashingChild(dir, CrashInsideAHeapDump);
    return inner.exited ? inner.exit_code : 200 + inner.signal;
  }, 20000);
  ASSERT_TRUE(result.exited) << "the crash handler hung";
  EXPECT_EQ(result.exit_code, 0x05);
  const std::string record = zrtest::ReadFile(dir.File("CrashRecord.txt"));
  EXPECT_TRUE(InOrder(record, {"\r\n\n----- Crash record -----\r\n", "CrashingListener",
                               "\r\n\n----- Crash record END -----\r\n"}));
}

// A crash whose stack passes through the allocator keeps the trace's names as they are: demangling
// would allocate while the crashed thread may hold the allocator's lock.
TEST(CrashRecord, TheAllocatorIsRecognisedOnAStack) {
  using NewFn = void* (*)(std::size_t);
  const std::uintptr_t in_malloc = reinterpret_cast<std::uintptr_t>(&::malloc) + 1;
  const std::uintptr_t in_new = reinterpret_cast<std::uintptr_t>(static_cast<NewFn>(&::operator new)) + 1;
  const std::uintptr_t in_test = reinterpret_cast<std::uintptr_t>(&CrashHereForTheDump) + 1;
  EXPECT_TRUE(zr::StackInsideAllocator(&in_malloc, 1));
  EXPECT_TRUE(zr::StackInsideAllocator(&in_new, 1));
  const std::uintptr_t mixed[] = {in_test, in_malloc};
  EXPECT_TRUE(zr::StackInsideAllocator(mixed, 2));
  EXPECT_FALSE(zr::StackInsideAllocator(&in_test, 1));
}

TEST(CrashRecord, DisableLeavesTheCrashToTheSystem) {
  using Crash = void (*)();
  for (auto [crash, signal] : {std::pair<Crash, int>{CrashHereForTheDump, SIGSEGV}, std::pair<Crash, int>{Abort, SIGABRT}}) {
    SCOPED_TRACE(signal);
    zrtest::TempDir dir;
    const zrtest::ChildResult result = RunCrashingChild(dir, crash, {.disable = true});
    EXPECT_FALSE(result.exited);
    EXPECT_EQ(result.signal, signal);
    const std::string record = zrtest::ReadFile(dir.File("CrashRecord.txt"));
    EXPECT_TRUE(InOrder(record, {"\r<<EventList>>\r\n", "\r\n<<Loaded libraries>>\r\n", "\r >>> Invoking OS handler\r\n",
                                 "\r\n\n----- Crash record END -----\r\n"}));
  }
}

// ---- Minidumps ----

struct Dump {
  std::string bytes;
  std::map<std::uint32_t, std::pair<std::uint32_t, std::uint32_t>> streams;  // type -> (size, rva)
  std::uint64_t flags = 0;

  template <class T>
  T At(std::size_t offset) const {
    return offset + sizeof(T) <= bytes.size() ? zr::LoadLE<T>(bytes.data() + offset) : T{};
  }
  std::uint32_t Rva(std::uint32_t type) const { return streams.count(type) ? streams.at(type).second : 0; }
};

Dump ReadDump(const std::string& path) {
  Dump d;
  d.bytes = zrtest::ReadFile(path);
  if (d.bytes.size() < 32 || d.At<std::uint32_t>(0) != 0x504D444Du) return d;
  const auto count = d.At<std::uint32_t>(8);
  const auto dir = d.At<std::uint32_t>(12);
  d.flags = d.At<std::uint64_t>(24);
  for (std::uint32_t i = 0; i < count; ++i)
    d.streams[d.At<std::uint32_t>(dir + 12 * i)] = {d.At<std::uint32_t>(dir + 12 * i + 4), d.At<std::uint32_t>(dir + 12 * i + 8)};
  return d;
}

std::string RunLldb(const std::string& dump) {
  const std::string command = "timeout 120 lldb-14 --batch -c '" + dump + "' -o bt 2>&1";
  std::string out;
  if (FILE* p = ::popen(command.c_str(), "r")) {
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, p)) > 0;) out.append(buffer, n);
    ::pclose(p);
  }
  return out;
}

TEST(Minidump, LevelsWriteDumpsThatLldbOpens) {
  const bool have_lldb = ::access("/usr/bin/lldb-14", X_OK) == 0;
  std::uint64_t memory_bytes[4] = {};
  for (int level = 0; level <= 3; ++level) {
    SCOPED_TRACE(level);
    zrtest::TempDir dir;
    const zrtest::ChildResult result = RunCrashingChild(dir, CrashHereForTheDump, {.minidump = level});
    ASSERT_TRUE(result.exited);
    EXPECT_EQ(result.exit_code, 0x05);
    const std::string path = dir.File("crashdump.dmp");
    if (level == 0) {
      EXPECT_FALSE(std::filesystem::exists(path));
      continue;
    }
    const Dump d = ReadDump(path);
    ASSERT_FALSE(d.streams.empty()) << "not a minidump: " << path;
    EXPECT_EQ(d.At<std::uint32_t>(4) & 0xFFFF, 0xA793u);
    EXPECT_EQ(d.flags, level == 1 ? 0u : level == 2 ? 1u : 2u);
    for (std::uint32_t type : {3u, 4u, 6u, 7u, 15u, 0x47670003u, 0x47670009u, zr::kMinidumpThreadDumpStream})
      EXPECT_TRUE(d.streams.count(type)) << "stream " << type;
    const std::uint32_t memory_stream = level >= 3 ? 9 : 5;
    ASSERT_TRUE(d.streams.count(memory_stream));
    EXPECT_FALSE(d.streams.count(level >= 3 ? 5 : 9));
    EXPECT_EQ(d.At<std::uint16_t>(d.Rva(7)), 9u);  // AMD64

    // The exception: SIGSEGV at address 0x10, the exception code and instruction address as parameters.
    const std::uint32_t ex = d.Rva(6);
    EXPECT_EQ(d.At<std::uint32_t>(ex + 8), static_cast<std::uint32_t>(SIGSEGV));
    EXPECT_EQ(d.At<std::uint64_t>(ex + 24), 0x10u);
    EXPECT_EQ(d.At<std::uint64_t>(ex + 40), 0xC0000005u);
    const std::uint64_t instruction = d.At<std::uint64_t>(ex + 48);
    // The crashing thread: its context (x86-64 layout) holds the same instruction pointer, and its stack
    // memory begins just below its stack pointer.
    const std::uint32_t threads = d.Rva(3);
    ASSERT_EQ(d.At<std::uint32_t>(threads), 1u);
    EXPECT_EQ(d.At<std::uint32_t>(threads + 4), d.At<std::uint32_t>(ex));
    const std::uint32_t context = d.At<std::uint32_t>(threads + 4 + 44);
    EXPECT_EQ(d.At<std::uint32_t>(threads + 4 + 40), sizeof(CONTEXT));
    EXPECT_EQ(d.At<std::uint32_t>(context + 48) & CONTEXT_AMD64, CONTEXT_AMD64);
    EXPECT_EQ(d.At<std::uint64_t>(context + 248), instruction);
    const std::uint64_t stack_start = d.At<std::uint64_t>(threads + 4 + 24);
    EXPECT_LE(stack_start, d.At<std::uint64_t>(context + 152));
    EXPECT_GT(d.At<std::uint32_t>(threads + 4 + 32), 0u);
    // The program is among the modules; the user stream holds the thread register's dump (count,
    // then id, length and name per thread), which names the crashing (forked main) thread.
    const std::u16string self16 = os::Utf8ToUtf16(SelfPath());
    EXPECT_NE(d.bytes.find(std::string(reinterpret_cast<const char*>(self16.data()), self16.size() * 2)), std::string::npos);
    const std::uint32_t user = d.Rva(zr::kMinidumpThreadDumpStream);
    EXPECT_EQ(d.At<std::uint32_t>(user), 1u);
    EXPECT_EQ(d.At<std::uint32_t>(user + 4), d.At<std::uint32_t>(threads + 4));
    EXPECT_EQ(d.At<std::uint32_t>(user + 8), 8u);
    EXPECT_EQ(d.At<char16_t>(user + 12), u'<');
    memory_bytes[level] = d.streams.at(memory_stream).first;
    if (level >= 3) memory_bytes[level] = d.At<std::uint64_t>(d.Rva(9));  // the number of ranges
    else memory_bytes[level] = d.At<std::uint32_t>(d.Rva(5));

    if (!have_lldb) continue;
    const std::string bt = RunLldb(path);
    EXPECT_NE(bt.find("stop reason = signal SIGSEGV"), std::string::npos) << bt;
    EXPECT_NE(bt.find("CrashHereForTheDump"), std::string::npos) << bt;
    EXPECT_NE(bt.find("RunCrashingChild"), std::string::npos) << bt;
  }
  EXPECT_EQ(memory_bytes[1], 1u);  // normal: the stack only
  EXPECT_GT(memory_bytes[2], 1u);  // with data segments
  EXPECT_GT(memory_bytes[3], memory_bytes[2]);
  if (!have_lldb) GTEST_SKIP() << "lldb-14 is not installed: the dumps were checked, not opened in a debugger";
}

// ---- The handler's life cycle ----

void ForeignHandler(int) {}
void ForeignHook(const os::FaultRecord&) {}

TEST(UnhandledException, CountsObjectsAndReinstallsAStolenHandler) {
  zrtest::TempDir dir;
  const std::string log = dir.File("messages.txt");
  const zrtest::ChildResult result = zrtest::RunChild([&] {
    if (CUnhandledException::ReInit() != 0) return 10;
    {
      CUnhandledException a;
      if (CUnhandledException::uLockCnt != 1 || !os::GetCrashHook()) return 11;
      { CUnhandledException b; }
      if (CUnhandledException::uLockCnt != 1 || !os::GetCrashHook()) return 12;
      os::ScopedDiagCapture capture;
      struct sigaction foreign {};
      foreign.sa_handler = ForeignHandler;
      SetDebugMode(1);
      sigaction(SIGSEGV, &foreign, nullptr);
      if (CUnhandledException::ReInit() != 1) return 13;
      struct sigaction current {};
      sigaction(SIGSEGV, nullptr, &current);
      if (current.sa_handler == ForeignHandler) return 14;
      CUnhandledException::bShowStolen = 1;
      os::SetCrashHook(ForeignHook);
      if (CUnhandledException::ReInit() != 1) return 15;
      SetDebugMode(0);
      sigaction(SIGFPE, &foreign, nullptr);
      if (CUnhandledException::ReInit() != 1) return 16;  // reinstalled, but not reported
      std::string text;
      for (const auto& e : capture.Entries()) text += std::to_string(e.channel) + "|" + std::to_string(e.level) + "|" + os::Utf16ToUtf8(e.text) + "\n";
      zrtest::WriteFile(log, text);
    }
    return CUnhandledException::uLockCnt == 0 && !os::GetCrashHook() ? 0 : 17;
  });
  ASSERT_TRUE(result.exited);
  EXPECT_EQ(result.exit_code, 0);
  const std::string self = SelfPath();
  EXPECT_EQ(zrtest::ReadFile(log), "0|0|\rUHE reset to Fluxor from module " + self + "\r\n\n" +
                                       "2147483648|0|\rUHE reset to Fluxor from module " + self + "\r\n\n");
}

TEST(UnhandledException, SetStateCopiesAndCutsTheText) {
  EXPECT_EQ(CUnhandledException::SetState(u"Loading project"), 1);
  EXPECT_EQ(std::u16string(CUnhandledException::szState), u"Loading project");
  const std::u16string long_state(400, u's');
  CUnhandledException::SetState(long_state.c_str());
  EXPECT_EQ(std::u16string(CUnhandledException::szState), long_state.substr(0, CUnhandledException::kStateLength - 1));
  CUnhandledException::SetState(u"Startup");
}

// The settings are read with write-default; only "Disable=1" hands the crash over to the system.
TEST(UnhandledException, ReadsItsSettingsWithWriteDefault) {
  zrtest::ScopedHome home;
  const std::string ini = home.File("ZRO.INI");
  zrtest::WriteFile(ini, "[UnhandledException]\nDisable=1\nMiniDump=2\nShowStolen=1\n");
  ASSERT_EQ(ZROBJ_GetProfileInt("UnhandledException", "MiniDump", 0, 0), 2) << "the settings store did not read ZRO.INI";
  {
    CUnhandledException handler;
    EXPECT_TRUE(CUnhandledException::bDisable);
    EXPECT_EQ(CUnhandledException::iMiniDump, 2);
    EXPECT_TRUE(CUnhandledException::bShowStolen);
  }
  for (const char* other : {"2", "-1"}) {
    zrtest::WriteFile(ini, std::string("[UnhandledException]\nDisable=") + other + "\n");
    ASSERT_EQ(ZROBJ_GetProfileInt("UnhandledException", "Disable", 7, 0), std::atoi(other));
    CUnhandledException handler;
    EXPECT_FALSE(CUnhandledException::bDisable) << "Disable=" << other;
  }
  std::filesystem::remove(ini);
  { CUnhandledException handler; }
  const std::string written = zrtest::ReadFile(ini);
  for (const char* key : {"Disable", "MiniDump", "ShowStolen"})
    EXPECT_TRUE(std::regex_search(written, std::regex(std::string(key) + "\\s*=\\s*0"))) << written;
  EXPECT_FALSE(CUnhandledException::bDisable);
}

// ---- Exception analysis ----

class ExceptionAnalysis : public ::testing::Test {
 protected:
  void SetUp() override { saved_ = ZROBJ_GetExceptionTable()[0]; }
  void TearDown() override { ZROBJ_GetExceptionTable()[0] = saved_; }
  // The analysis of the last guarded fault with the given trap mode of "ACCESS_VIOLATION".
  std::string Analyse(DWORD mode, DWORD flag = 1) {
    ZROBJ_GetExceptionTable()[0].dwTrapMode = mode;
    os::ScopedDiagCapture capture;
    CUnhandledException::AnalyseException(CUnhandledException::GetExceptionInfo(), flag);
    return capture.Text();
  }
  tagZREXCENTRY saved_{};
};

TEST_F(ExceptionAnalysis, ReportsGuardedFaultsAsTheTrapModeSays) {
  EXPECT_EQ(os::Guarded([] { *g_wild = 1; }), 0xC0000005u);
  const EXCEPTION_POINTERS* p = CUnhandledException::GetExceptionInfo();
  ASSERT_NE(p, nullptr);
  ASSERT_NE(p->ContextRecord, nullptr);
  EXPECT_EQ(p->ExceptionRecord->ExceptionCode, 0xC0000005u);
  EXPECT_EQ(p->ExceptionRecord->NumberParameters, 2u);
  EXPECT_EQ(p->ExceptionRecord->ExceptionInformation[0], 1u);  // a write
  EXPECT_EQ(p->ExceptionRecord->ExceptionInformation[1], 0x10u);
  const auto address = reinterpret_cast<std::uintptr_t>(p->ExceptionRecord->ExceptionAddress);
  EXPECT_EQ(p->ContextRecord->Rip, address);

  const std::string at = Hex(address, 8);
  const std::string thread = "\rThread: Thread <<<Main>>> (0x" + Hex(os::CurrentOsThreadId(), 8) + ")\r\n";
  std::string text = Analyse(0);
  EXPECT_TRUE(InOrder(text, {"\r\nException 0xC0000005 @ 0x" + at + "\r\n", thread, "\r\nACCESS_VIOLATION @ 0x" + at,
                             "\r\n" + SelfPath() + ", offset ", "\r\n[", "ReportsGuardedFaultsAsTheTrapModeSays"}));
  EXPECT_EQ(text.find("RAX="), std::string::npos);  // short report for guarded code
  EXPECT_TRUE(InOrder(Analyse(0x10), {"\rNumber of processors: ", "\r\nRAX=", "\r\nACCESS_VIOLATION @ 0x"}));
  EXPECT_EQ(Analyse(0x2), "");  // suppressed
  EXPECT_EQ(Count(Analyse(0x4), "\r\n["), 1u);  // one frame
  EXPECT_GT(Count(Analyse(0), "\r\n["), 1u);
  EXPECT_NE(Analyse(0x2, 0), "");  // the crash record's analysis ignores the trap mode

  tagZREXCENTRY& entry = ZROBJ_GetExceptionTable()[0];
  entry.lower = 1, entry.upper = 2;
  EXPECT_EQ(Analyse(0), "");  // outside the bounds
  entry.lower = address, entry.upper = address + 1;
  EXPECT_NE(Analyse(0), "");
  entry.lower = entry.upper = 0;
  std::strncpy(entry.szFilter, "no-such-module", sizeof entry.szFilter);
  EXPECT_EQ(Analyse(0x8), "");
  std::strncpy(entry.szFilter, "LIBZROBJU", sizeof entry.szFilter);  // a caller's module, as the fault found it
  EXPECT_NE(Analyse(0x8), "");

  // Guards are per thread: a fresh thread has caught nothing.
  const EXCEPTION_POINTERS* other = p;
  std::thread([&] { other = CUnhandledException::GetExceptionInfo(); }).join();
  EXPECT_EQ(other, nullptr);
}

TEST_F(ExceptionAnalysis, ReportsUnknownCodesAndMissingInformation) {
  EXCEPTION_RECORD record{};
  record.ExceptionCode = 0x12345678;
  record.ExceptionAddress = reinterpret_cast<void*>(0x1234);
  EXCEPTION_POINTERS p{&record, nullptr};
  os::ScopedDiagCapture capture;
  CUnhandledException::AnalyseException(&p, 0);
  EXPECT_TRUE(InOrder(capture.Text(), {"\r\nException 0x12345678 @ 0x00001234\r\n", "\rNo context available\r\n",
                                       "\r\nException 0x12345678 @ 0x00001234", "\r\n<<Unknown>>, offset 00001234"}));
  capture.Clear();
  CUnhandledException::AnalyseException(nullptr, 0);
  const std::string text = capture.Text();
  EXPECT_TRUE(InOrder(text, {"\r\nException, NO EXCEPTION INFORMATION!!!!!\r\n", "\rNumber of processors: ",
                             "\rNo context available\r\n"}));
  EXPECT_EQ(text.find(" @ 0x"), std::string::npos);
}

TEST_F(ExceptionAnalysis, FindsModulesAndListsLibraries) {
  WCHAR name[ZR_MAX_PATH];
  EXPECT_NE(CUnhandledException::GetModuleFilenameFromAddress(reinterpret_cast<const void*>(&CrashHereForTheDump), name), nullptr);
  EXPECT_EQ(os::Utf16ToUtf8(name), SelfPath());
  EXPECT_NE(CUnhandledException::GetModuleFilenameFromAddress(reinterpret_cast<const void*>(&CEventLogger::Init), name), nullptr);
  EXPECT_NE(os::Utf16ToUtf8(name).find("libzrobju.so"), std::string::npos);
  EXPECT_EQ(CUnhandledException::GetModuleFilenameFromAddress(reinterpret_cast<const void*>(0x10), name), nullptr);
  EXPECT_EQ(name[0], u'\0');

  os::ScopedDiagCapture capture;
  CUnhandledException::DumpAppDLLs(1);
  const std::string all = capture.Text();
  EXPECT_TRUE(InOrder(all, {"\r\n<<Loaded libraries>>\r\n", SelfPath()}));
  EXPECT_NE(all.find("libzrobju.so"), std::string::npos);
  EXPECT_NE(all.find("libc.so.6"), std::string::npos);
  capture.Clear();
  CUnhandledException::DumpAppDLLs(0);
  const std::string own = capture.Text();
  EXPECT_NE(own.find(SelfPath()), std::string::npos);
  EXPECT_NE(own.find("libzrobju.so"), std::string::npos);
  EXPECT_EQ(own.find("libc.so.6"), std::string::npos);

  // The crash handler names codes from its own copy of the table: the same codes and names.
  const tagZREXCENTRY* defaults = zr::GetDefaultExceptionTable();
  for (int n = 0; n < ZR_EXCEPTION_TABLE_SIZE; ++n) {
    EXPECT_EQ(defaults[n].dwCode, ZROBJ_GetExceptionTable()[n].dwCode) << n;
    EXPECT_EQ(std::u16string(defaults[n].szName), std::u16string(ZROBJ_GetExceptionTable()[n].szName)) << n;
  }
}

TEST(CrashOutput, FormatsTheRecordDialectWithinItsBuffer) {
  char buffer[96];
  os::FixedText text(buffer, sizeof buffer);
  text.Format("%08X|%08X|%-5u|%02u|%hu|%s|%hs|%%|%d|%016I64X", 0xC0000005u, std::uint64_t{0x55FD7F57E771}, 7u, 3u,
              70000, u"w\u00e9", "n", -12, std::uint64_t{0xABC});
  EXPECT_STREQ(buffer, "C0000005|55FD7F57E771|7    |03|4464|w\xc3\xa9|n|%|-12|0000000000000ABC");
  EXPECT_FALSE(text.truncated());
  char small[8];
  os::FixedText cut(small, sizeof small);
  cut.Format("%s", "0123456789");
  EXPECT_STREQ(small, "0123456");
  EXPECT_TRUE(cut.truncated());
  char16_t wide[3];
  EXPECT_EQ(os::Utf8ToUtf16Fixed("a\xf0\x9f\x98\x80z", wide, 3), 1u);  // a pair never splits
  EXPECT_EQ(std::u16string(wide), u"a");
}

}  // namespace
