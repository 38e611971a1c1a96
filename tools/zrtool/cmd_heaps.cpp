// zrtool heaps: lists the library's debug heaps and pools with their counts, or dumps one by name.
#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/text.h"
#include "platform/dlgsvc.h"
#include "tools/zrtool/command.h"
#include "zrobj/cfheap.h"
#include "zrobj/cheap.h"

namespace zrtool {
namespace {

const char kUsage[] =
    "usage: zrtool heaps [NAME]\n\n"
    "Without NAME, lists the debug heaps (items and bytes outstanding, flags) and the fixed-block\n"
    "pools (item size, items in use and free, blocks) that this process has registered, then the\n"
    "heap counters. With NAME (case-insensitive), prints the dump of every heap or pool of that\n"
    "name: a debug heap's watch list with its traces, a pool's summary line.\n";

// Prints diagnostics on standard output, one line per line: a carriage return starts a fresh line.
class StdoutSink : public zr::os::DiagSink {
 public:
  StdoutSink() : previous_filter_(zr::os::GetDiagFilter()) {
    zr::os::DiagFilter all = previous_filter_;
    all.channel_mask = 0xFFFFFFFFu;
    all.max_level = 0xFFFFFFFFu;
    zr::os::SetDiagFilter(all);
    previous_ = zr::os::SetDiagSink(this);
  }
  ~StdoutSink() override {
    zr::os::SetDiagSink(previous_);
    zr::os::SetDiagFilter(previous_filter_);
    if (!at_line_start_) std::fputc('\n', stdout);
  }
  void Write(unsigned, unsigned, std::u16string_view text) override {
    for (char c : zr::os::Utf16ToUtf8(text)) {
      if (c == '\r' || c == '\n') {
        if (!at_line_start_) std::fputc('\n', stdout);
        at_line_start_ = true;
      } else {
        std::fputc(c, stdout);
        at_line_start_ = false;
      }
    }
  }

 private:
  zr::os::DiagSink* previous_ = nullptr;
  zr::os::DiagFilter previous_filter_;
  bool at_line_start_ = true;
};

std::string NameOf(CHeap* heap) {
  char name[33] = {};
  heap->GetHeapName(name, 32);
  return name;
}

bool SameName(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) return false;
  return true;
}

std::vector<CHeap*> Heaps() {
  std::vector<CHeap*> list(256);
  list.resize(static_cast<std::size_t>(CHeap::GetHeapList(list.data(), 256)));
  return list;
}

std::vector<CFHeap*> Pools() {
  std::vector<CFHeap*> list(256);
  list.resize(static_cast<std::size_t>(CFHeap::GetHeapList(list.data(), 256)));
  return list;
}

void List() {
  std::printf("Debug heaps:\n  %-31s %10s %12s %6s\n", "NAME", "ITEMS", "BYTES", "FLAGS");
  for (CHeap* heap : Heaps()) {
    unsigned int items = 0;
    const unsigned long bytes = heap->GetHeapState(items);
    std::printf("  %-31s %10d %12lu %6lX\n", NameOf(heap).c_str(), static_cast<int>(items), bytes, heap->GetHeapFlags());
  }
  std::printf("\nPools:\n  %-31s %6s %10s %10s %7s %7s %10s\n", "NAME", "ITEM", "ITEMS", "FREE", "BLOCKS", "IDLE",
              "BLOCK KiB");
  for (CFHeap* pool : Pools()) {
    CFHeap::State s;
    pool->GetState(&s);
    std::printf("  %-31s %6u %10u %10u %7u %7u %10zu\n", pool->GetName(), pool->GetItemSize(), s.items, s.freeItems,
                s.blocks, s.freeBlocks, s.blockSize / 1024);
  }
  std::printf("\nCounters:");
  for (int c = 0; c < zr::kHeapCounterCount; ++c) {
    const auto counter = static_cast<zr::HeapCounter>(c);
    std::printf(" %s=%u", zr::HeapCounterName(counter), zr::GetHeapCounter(counter));
  }
  std::printf("\n");
}

int DumpNamed(const std::string& name) {
  int found = 0;
  StdoutSink sink;
  for (CHeap* heap : Heaps()) {
    if (!SameName(NameOf(heap), name)) continue;
    heap->Dump(1);
    ++found;
  }
  for (CFHeap* pool : Pools()) {
    if (!SameName(pool->GetName(), name)) continue;
    pool->Dump();
    ++found;
  }
  return found;
}

const char kSummary[] = "list the library's heaps and pools, or dump one";

int RunHeaps(const Args& args) {
  const Command self{"heaps", kSummary, kUsage, nullptr};
  if (args.size() > 1) return UsageError(self, "too many arguments");
  if (args.empty()) {
    List();
    return 0;
  }
  if (args[0].empty() || args[0][0] == '-') return UsageError(self, "unknown option '" + args[0] + "'");
  if (DumpNamed(args[0]) == 0) return Fail("no heap or pool named '" + args[0] + "'");
  return 0;
}

}  // namespace

ZRTOOL_COMMAND("heaps", kSummary, kUsage, RunHeaps);

}  // namespace zrtool
