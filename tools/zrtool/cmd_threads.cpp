// zrtool threads: starts named worker threads, lists the thread register's dump block, and shows the
// register's exit statistics lines as the workers leave.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/diag_capture.h"
#include "platform/privheap.h"
#include "platform/text.h"
#include "tools/zrtool/command.h"
#include "zrobj/costhread.h"

namespace zrtool {
namespace {

int RunThreads(const Args& args);

const Command kThreads = {
    "threads", "name worker threads in the thread register and show its dump",
    "usage: zrtool threads [N]\n\n"
    "starts N worker threads (1..64, default 4), each registered as \"worker K\", prints the\n"
    "register's dump block (id and name per thread) and the lines written as each worker leaves\n",
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
    std::printf("%08X %s\n", id, zr::Utf16ToUtf8(name).c_str());
    at += entry;
  }
  HeapFree(GetProcessHeap(), 0, block);
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
  std::atomic<int> registered{0};
  std::atomic<bool> release{false};
  zr::ScopedDiagCapture capture;
  std::vector<std::thread> workers;
  for (int k = 0; k < count; ++k) {
    workers.emplace_back([k, &registered, &release] {
      const std::u16string name = u"worker " + zr::Utf8ToUtf16(std::to_string(k + 1));
      COSThreadRegister scope(name.c_str());
      registered.fetch_add(1);
      const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      while (!release.load() && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
    });
  }
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (registered.load() < count && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
  const bool all = registered.load() == count;
  PrintDump();
  release.store(true);
  for (std::thread& t : workers) t.join();
  for (const auto& entry : capture.Entries()) {
    std::string line = zr::Utf16ToUtf8(entry.text);
    for (char& c : line)
      if (c == '\r') c = ' ';
    std::printf("%s", line.c_str());
  }
  return all ? 0 : Fail("not every worker registered in time");
}

}  // namespace
}  // namespace zrtool
