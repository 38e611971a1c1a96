// Chunk archive throughput: 100,000 small chunks nested three deep written through CChunkArchive,
// against the same bytes written with one system write per chunk and with stdio; reading them
// back with Chnk_Find and Chnk_Read; the memory variant for comparison.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/files.h"
#include "platform/text.h"
#include "zrobj/chunkarc.h"
#include "zrobj/zrhash.h"

namespace {

// One root holding kGroups groups of kItems items of kItemBytes each.
constexpr int kGroups = 1000;
constexpr int kItems = 100;
constexpr DWORD kItemBytes = 16;
constexpr DWORD kHeader = 8;
constexpr DWORD kGroupBytes = kItems * (kHeader + kItemBytes);
constexpr DWORD kRootBytes = kGroups * (kHeader + kGroupBytes);
constexpr DWORD kFileBytes = kHeader + kRootBytes;
constexpr std::int64_t kChunks = 1 + kGroups + std::int64_t{kGroups} * kItems;

char kRoot[] = "root";
char kGroup[] = "group";
char kItem[] = "item";

const std::string& BenchPathUtf8() {
  static const std::string path = "/tmp/zrobj-bench-chunkarc.bin";
  return path;
}
const std::u16string& BenchPath() {
  static const std::u16string path = zr::os::Utf8ToUtf16(BenchPathUtf8());
  return path;
}

struct Payload {
  char bytes[kItemBytes];
  Payload() { std::memcpy(bytes, "0123456789abcdef", kItemBytes); }
};

void PutHeader(char* out, DWORD id, DWORD size) {
  for (int i = 0; i < 4; ++i) {
    out[i] = static_cast<char>(id >> (8 * i));
    out[4 + i] = static_cast<char>(size >> (8 * i));
  }
}

void Finish(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * kChunks);
  state.SetBytesProcessed(state.iterations() * std::int64_t{kFileBytes});
}

// The root, its groups and their items, into an archive open for writing.
template <class Archive>
void WriteTree(Archive& arc) {
  Payload payload;
  arc.Chnk_Open(kRoot, CHNK_ACCESS_WRITE);
  for (int g = 0; g < kGroups; ++g) {
    const unsigned int group = arc.Chnk_Open(kGroup, CHNK_ACCESS_WRITE);
    for (int i = 0; i < kItems; ++i) {
      const unsigned int item = arc.Chnk_Open(kItem, CHNK_ACCESS_WRITE);
      arc.Chnk_Write(payload.bytes, kItemBytes);
      arc.Chnk_Close(item);
    }
    arc.Chnk_Close(group);
  }
  arc.Close();
}

void WriteArchive() {
  CChunkArchive arc;
  arc.Open(BenchPath().c_str(), zr::os::kGenericWrite, zr::os::kCreateAlways, 0);
  WriteTree(arc);
}

void BM_WriteChunkArchive(benchmark::State& state) {
  for (auto _ : state) WriteArchive();
  Finish(state);
}
BENCHMARK(BM_WriteChunkArchive)->Unit(benchmark::kMillisecond);

void BM_WriteMemChunkArchive(benchmark::State& state) {
  for (auto _ : state) {
    CMemChunkArchive arc;
    arc.Open(CHNK_ACCESS_WRITE);
    WriteTree(arc);
    benchmark::DoNotOptimize(arc.GetContent().GetSize());
  }
  Finish(state);
}
BENCHMARK(BM_WriteMemChunkArchive)->Unit(benchmark::kMillisecond);

// The same bytes with the sizes known in advance: one system write per chunk (an item's header
// and data go together).
void BM_WritePerChunkSyscall(benchmark::State& state) {
  Payload payload;
  char root[kHeader], group[kHeader], item[kHeader + kItemBytes];
  PutHeader(root, GetHashID(kRoot), kRootBytes);
  PutHeader(group, GetHashID(kGroup), kGroupBytes);
  PutHeader(item, GetHashID(kItem), kItemBytes);
  std::memcpy(item + kHeader, payload.bytes, kItemBytes);
  for (auto _ : state) {
    zr::os::FileHandle file = zr::os::CreateFileW(BenchPath().c_str(), zr::os::kGenericWrite, 0, zr::os::kCreateAlways, 0);
    DWORD done = 0;
    zr::os::WriteFile(file, root, kHeader, &done);
    for (int g = 0; g < kGroups; ++g) {
      zr::os::WriteFile(file, group, kHeader, &done);
      for (int i = 0; i < kItems; ++i) zr::os::WriteFile(file, item, sizeof item, &done);
    }
    zr::os::CloseFile(file);
  }
  Finish(state);
}
BENCHMARK(BM_WritePerChunkSyscall)->Unit(benchmark::kMillisecond);

// The same bytes through stdio's buffer, header and data written separately as a chunk writer would.
void BM_WriteStdio(benchmark::State& state) {
  Payload payload;
  char root[kHeader], group[kHeader], item[kHeader];
  PutHeader(root, GetHashID(kRoot), kRootBytes);
  PutHeader(group, GetHashID(kGroup), kGroupBytes);
  PutHeader(item, GetHashID(kItem), kItemBytes);
  for (auto _ : state) {
    std::FILE* file = std::fopen(BenchPathUtf8().c_str(), "wb");
    std::fwrite(root, 1, kHeader, file);
    for (int g = 0; g < kGroups; ++g) {
      std::fwrite(group, 1, kHeader, file);
      for (int i = 0; i < kItems; ++i) {
        std::fwrite(item, 1, kHeader, file);
        std::fwrite(payload.bytes, 1, kItemBytes, file);
      }
    }
    std::fclose(file);
  }
  Finish(state);
}
BENCHMARK(BM_WriteStdio)->Unit(benchmark::kMillisecond);

// Reads every item back, each found by name first.
void BM_ReadChunkArchive(benchmark::State& state) {
  WriteArchive();
  char buffer[kItemBytes];
  for (auto _ : state) {
    CChunkArchive arc;
    arc.Open(BenchPath().c_str(), zr::os::kGenericRead, zr::os::kOpenExisting, 0);
    arc.Chnk_Open(kRoot, CHNK_ACCESS_READ);
    int found = 0;
    while (arc.Chnk_Find(kGroup)) {
      const unsigned int group = arc.Chnk_Open(kGroup, CHNK_ACCESS_READ);
      while (arc.Chnk_Find(kItem)) {
        const unsigned int item = arc.Chnk_Open(kItem, CHNK_ACCESS_READ);
        found += arc.Chnk_Read(buffer, kItemBytes) == kItemBytes;
        arc.Chnk_Close(item);
      }
      arc.Chnk_Close(group);
    }
    arc.Close();
    if (found != kGroups * kItems) state.SkipWithError("items missing");
  }
  Finish(state);
}
BENCHMARK(BM_ReadChunkArchive)->Unit(benchmark::kMillisecond);

}  // namespace
