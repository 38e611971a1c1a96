// zrtool threads: starts named CThread workers (created suspended, some at a lower priority), lists
// the thread register's dump block, and shows the register's exit statistics lines as they leave.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/diag_capture.h"
#include "memory/heap/privheap_internal.h"
#include "platform/text.h"
#include "platform/threads.h"
#include "tools/zrtool/command.h"
#include "tools/zrtool/demo.h"
#include "zrobj/costhread.h"
#include "zrobj/zrobj.h"

namespace zrtool {
namespace {

int RunThreads(const Args& args);

const Command kThreads = {
    "threads", "name worker threads in the thread register and show its dump",
    "usage: zrtool threads [N]\n\n"
    "starts N worker threads (1..64, default 4) suspended, names them \"worker K\" in the thread\n"
    "register, lowers the priority of every second one, resumes them, prints the register's dump\n"
    "block (id and name per thread), their statuses and exit codes, and the lines the register\n"
    "writes as each worker leaves (busy percentage, lifetime, user and kernel time)\n",
    RunThreads};
ZRTOOL_COMMAND(kThreads);

void PrintDump() {
  unsigned long size = 0;
  void* block = COSThreadRegister::GetThreadDump(size);
  if (!block) {
    std::printf("no registered threads\n");
    return;
  }
  const auto* bytes = static_cast<const unsigned char*>(block);
  DWORD count = 0;
  std::memcpy(&count, bytes, 4);
  std::size_t at = 4;
  for (DWORD i = 0; i < count && at + 8 <= size; ++i) {
    DWORD id = 0, chars = 0;
    std::memcpy(&id, bytes + at, 4);
    std::memcpy(&chars, bytes + at + 4, 4);
    const std::size_t entry = (8 + (static_cast<std::size_t>(chars) + 1) * 2 + 3) & ~std::size_t{3};
    if (at + entry > size) break;
    std::u16string name(chars, u'\0');
    std::memcpy(name.data(), bytes + at + 8, chars * 2);
    std::printf("%08X %s\n", id, zr::os::Utf16ToUtf8(name).c_str());
    at += entry;
  }
  zr::HeapFree(zr::GetProcessHeap(), 0, block);
}

// Each worker spins for a while (so its statistics show CPU time), then waits to be released.
struct WorkerScript {
  COSEvent release{nullptr, 1, 0, nullptr};
};

DWORD Work(void* p) {
  volatile std::uint64_t sum = 0;
  for (std::uint64_t i = 0; i < 20'000'000; ++i) sum = sum + i;
  static_cast<WorkerScript*>(p)->release.Wait(10000);
  return static_cast<DWORD>(sum & 0xFF);
}

const char* StatusName(unsigned int status) {
  switch (status) {
    case CTHREAD_CREATED: return "created";
    case CTHREAD_CREATE_FAILED: return "creation failed";
    case CTHREAD_ENDED: return "ended";
    case CTHREAD_EXCEPTION: return "ended by an exception";
    case CTHREAD_RUNNING: return "running";
    case CTHREAD_SUSPENDED: return "suspended";
    default: return "?";
  }
}

int RunThreads(const Args& args) {
  if (WantsHelp(args)) return UsageError(kThreads, "");
  if (args.size() > 1) return UsageError(kThreads, "too many arguments");
  int count = 4;
  if (!args.empty()) {
    try {
      std::size_t used = 0;
      count = std::stoi(args[0], &used);
      if (used != args[0].size()) throw std::invalid_argument("trailing");
    } catch (const std::exception&) {
      return UsageError(kThreads, "N must be a number");
    }
    if (count < 1 || count > 64) return UsageError(kThreads, "N must be 1..64");
  }
  WorkerScript script;
  zr::os::ScopedDiagCapture capture;
  std::vector<std::unique_ptr<CThread>> workers;
  for (int k = 0; k < count; ++k) {
    auto worker = std::make_unique<CThread>(nullptr, 0, Work, &script, CREATE_SUSPENDED);
    if (worker->GetStatus() == CTHREAD_CREATE_FAILED) return Fail("a worker thread could not be created");
    worker->Label((u"worker " + zr::os::Utf8ToUtf16(std::to_string(k + 1))).c_str());
    if (k % 2) worker->SetPriority(THREAD_PRIORITY_BELOW_NORMAL);
    std::printf("worker %d: thread %08lX %s, priority %d\n", k + 1, worker->GetID(), StatusName(worker->GetStatus()),
                worker->GetPriority());
    workers.push_back(std::move(worker));
  }
  for (auto& worker : workers) worker->Resume();
  std::printf("\nthe register while they run (id, name):\n");
  PrintDump();
  std::printf("\nreleasing the workers...\n");
  script.release.Set();
  bool all_ended = true;
  for (std::size_t k = 0; k < workers.size(); ++k) {
    all_ended = workers[k]->Wait(30000) == WAIT_OBJECT_0 && all_ended;
    unsigned long code = 0;
    workers[k]->GetExitCode(&code);
    std::printf("worker %zu: %s, exit code %lu\n", k + 1, StatusName(workers[k]->GetStatus()), code);
  }
  std::printf("\nwhat the register wrote as they left:\n");
  for (const auto& entry : capture.Entries()) {
    std::string line = zr::os::Utf16ToUtf8(entry.text);
    for (char& c : line)
      if (c == '\r') c = ' ';
    std::printf("%s", line.c_str());
  }
  return all_ended ? 0 : Fail("not every worker ended in time");
}

// The demo: a CThread created suspended, labelled, resumed and ended, and an auto thread whose
// creator waits for its handshake; the register names both while they run.
DWORD ShowOwnName(void* p) {
  WCHAR name[64] = {};
  COSThreadRegister::GetCurrentName(name, 63);
  *static_cast<std::string*>(p) = zr::os::Utf16ToUtf8(name);
  return 7;
}

DWORD AutoShowOwnName(void* p) { return ShowOwnName(static_cast<AUTOTHREADINFO*>(p)->pParam); }

int DemoThreads(DemoContext& context) {
  std::string seen;
  CThread thread(nullptr, 0, ShowOwnName, &seen, CREATE_SUSPENDED);
  context.Say(std::string("CThread created suspended: status ") + StatusName(thread.GetStatus()));
  thread.Label(u"demo worker");
  thread.Resume();
  if (thread.Wait(10000) != WAIT_OBJECT_0) return 1;
  unsigned long code = 0;
  thread.GetExitCode(&code);
  context.Say("it ran as \"" + seen + "\" and " + StatusName(thread.GetStatus()) + " with exit code " +
              std::to_string(code) + "; its id now reads " + std::to_string(thread.GetID()));
  // Auto threads belong to an initialised application: its exit stops them and refuses new ones.
  ZROBJ_AppInitialize();
  const bool ran = COSAutoThread::CreateAutoThread(nullptr, 0, AutoShowOwnName, &seen) != 0;
  ZROBJ_AppExit();
  if (!ran) return 1;
  context.Say("an auto thread ran as \"" + seen + "\" (its creator waited for the handshake)");
  WCHAR main_name[64] = {};
  COSThreadRegister::GetCurrentName(main_name, 63);
  context.Say("this thread is \"" + zr::os::Utf16ToUtf8(main_name) + "\" in the register");
  return 0;
}
ZRTOOL_DEMO_SECTION("threads", 40, "Threads and the thread register", DemoThreads);

}  // namespace
}  // namespace zrtool
