// zrtool crash-test: crashes on purpose so that a user can see a crash record (and a minidump);
// zrtool events: a small demonstration run of the event log, printed as the crash record shows it.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "platform/text.h"
#include "tools/zrtool/command.h"
#include "zrobj/zrcrash.h"
#include "zrobj/zrevent.h"

namespace zrtool {
namespace {

volatile int g_zero = 0;
volatile bool g_deeper = true;  // always true; keeps the compiler from seeing an endless recursion
int* volatile g_wild = reinterpret_cast<int*>(0x10);  // unmapped

__attribute__((noinline)) void CrashSegv() { *g_wild = 1; }
__attribute__((noinline, no_sanitize("undefined"))) void CrashFpe() { g_zero = 10 / g_zero; }
__attribute__((noinline)) void CrashIll() { __builtin_trap(); }
__attribute__((noinline)) void CrashAbort() { std::abort(); }
__attribute__((noinline)) int CrashStack(int depth) {
  volatile char frame[512];
  frame[depth % sizeof frame] = static_cast<char>(depth);
  return g_deeper ? CrashStack(depth + 1) + frame[0] : frame[0];
}

struct Kind {
  const char* name;
  void (*crash)();
};
const Kind kKinds[] = {
    {"segv", CrashSegv},
    {"fpe", CrashFpe},
    {"ill", CrashIll},
    {"abort", CrashAbort},
    {"stack", [] { CrashStack(0); }},
};

constexpr const char* kCrashUsage =
    "usage: zrtool crash-test [--kind segv|fpe|ill|abort|stack] [--minidump N] [--dir DIR] [--disable]\n"
    "\n"
    "Crashes this process on purpose, so that the crash handler writes its record:\n"
    "  --kind K      the fault: segv (access violation, default), fpe (integer divide by zero),\n"
    "                ill (illegal instruction), abort, stack (stack overflow)\n"
    "  --minidump N  also write crashdump.dmp: 1 normal, 2 with data segments, 3 full memory\n"
    "                (default 0: none); open it with `lldb -c crashdump.dmp`\n"
    "  --dir DIR     where CrashRecord.txt and crashdump.dmp go (default: the current directory)\n"
    "  --disable     after the record, leave the crash to the system (the process dies by the signal)\n"
    "The process ends with the exception code's low byte as exit status (e.g. 5 for an access violation).\n";

int RunCrashTest(const Args& args) {
  static const Command self{"crash-test", "", kCrashUsage, nullptr};
  if (WantsHelp(args)) {
    std::fputs(kCrashUsage, stdout);
    return 0;
  }
  const Kind* kind = &kKinds[0];
  int minidump = 0;
  bool disable = false;
  std::string dir = ".";
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool has_value = i + 1 < args.size();
    if (a == "--disable") {
      disable = true;
    } else if (a == "--kind" && has_value) {
      const std::string& v = args[++i];
      kind = nullptr;
      for (const Kind& k : kKinds)
        if (v == k.name) kind = &k;
      if (!kind) return UsageError(self, "unknown kind '" + v + "'");
    } else if (a == "--minidump" && has_value) {
      const std::string& v = args[++i];
      if (v.size() != 1 || v[0] < '0' || v[0] > '3') return UsageError(self, "--minidump takes 0, 1, 2 or 3");
      minidump = v[0] - '0';
    } else if (a == "--dir" && has_value) {
      dir = args[++i];
    } else {
      return UsageError(self, "unexpected argument '" + a + "'");
    }
  }
  std::error_code ec;
  const std::filesystem::path where = std::filesystem::absolute(dir, ec);
  if (ec || !std::filesystem::is_directory(where, ec)) return Fail("not a directory: " + dir);

  CEventLogger::Init();
  CEventLogger::LogEvent(u"crash-test started");
  CEventLogger::LogEvent(u"about to crash with %hs", kind->name);
  CUnhandledException handler;
  CUnhandledException::iMiniDump = minidump;
  CUnhandledException::bDisable = disable;
  CUnhandledException::SetState(u"crash-test");
  zr::SetCrashRecordDirectory(zr::os::Utf8ToUtf16(where.string()).c_str());
  std::fprintf(stderr, "zrtool crash-test: crashing on purpose (%s); the record goes to %s/CrashRecord.txt\n",
               kind->name, where.c_str());
  std::fflush(stderr);
  kind->crash();
  return Fail("the process survived its crash");
}

constexpr const char* kEventsUsage =
    "usage: zrtool events [--threads N] [--count N]\n"
    "\n"
    "Runs a small demonstration: N threads (default 3) each log --count events (default 4) into the\n"
    "event log, then the log is printed oldest first, one line per event as a crash record shows it:\n"
    "number, UTC date and time, thread id, thread name, text.\n";

bool ParseCount(const std::string& text, int max, int* out) {
  if (text.empty() || text.size() > 6 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  *out = std::stoi(text);
  return *out <= max;
}

int RunEvents(const Args& args) {
  static const Command self{"events", "", kEventsUsage, nullptr};
  if (WantsHelp(args)) {
    std::fputs(kEventsUsage, stdout);
    return 0;
  }
  int threads = 3, count = 4;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const bool has_value = i + 1 < args.size();
    if (args[i] == "--threads" && has_value) {
      if (!ParseCount(args[++i], 64, &threads)) return UsageError(self, "--threads takes 0 to 64");
    } else if (args[i] == "--count" && has_value) {
      if (!ParseCount(args[++i], 100000, &count)) return UsageError(self, "--count takes 0 to 100000");
    } else {
      return UsageError(self, "unexpected argument '" + args[i] + "'");
    }
  }
  CEventLogger::Init();
  if (CEventLogger::GetCapacity() == 0) return Fail("the event log is switched off (\"HistorySize\" = 0 in ZRO.VST)");
  CEventLogger::LogEvent(u"demonstration started with %d threads", threads);
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back([t, count] {
      for (int i = 0; i < count; ++i) CEventLogger::LogEvent(u"worker %d: step %d of %d", t, i + 1, count);
    });
  for (std::thread& w : workers) w.join();
  CEventLogger::LogEvent(nullptr);
  CEventLogger::LogEvent(u"demonstration finished");

  const CPMemory list = CEventLogger::GetEventList();
  const auto records = zr::EventRecords(list);
  std::printf("%zu events in the log (capacity %u), oldest first:\n", records.size(), CEventLogger::GetCapacity());
  for (const tagEVENTRECORD& r : records) {
    char line[2048];
    zr::FormatEventRecord(r, line, sizeof line);
    std::string shown;
    for (const char* c = line; *c; ++c)
      if (*c != '\r') shown.push_back(*c);
    std::fputs(shown.c_str(), stdout);
  }
  return 0;
}

}  // namespace

ZRTOOL_COMMAND("crash-test", "crash on purpose and write a crash record (and minidump)", kCrashUsage, RunCrashTest);
ZRTOOL_COMMAND("events", "log events from a few threads and print the event log", kEventsUsage, RunEvents);

}  // namespace zrtool
