// Project pack and unpack of a generated project (compressible object files and incompressible
// media-like files; 512 MiB, or ZROBJ_BENCH_PACK_MIB) against tar piped through zstd -1 and
// gzip -1, each direction timed as a whole.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>

#include "platform/text.h"
#include "zrobj/prjloc.h"

namespace {

namespace fs = std::filesystem;

const fs::path kRoot = fs::temp_directory_path() / "zrobj-bench-pack";
constexpr DWORD kProject = 21;

std::u16string W(const fs::path& p) { return zr::os::Utf8ToUtf16(p.string()); }

std::size_t TotalBytes() {
  const char* mib = std::getenv("ZROBJ_BENCH_PACK_MIB");
  return static_cast<std::size_t>(mib ? std::atoi(mib) : 512) << 20;
}

void WriteFile(const fs::path& path, const std::string& bytes) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return;
  std::fwrite(bytes.data(), 1, bytes.size(), f);
  std::fclose(f);
}

// Half of the bytes in 1 MiB object files of repetitive records, half in 8 MiB media-like noise.
const fs::path& Project() {
  static const fs::path dir = [] {
    const fs::path d = kRoot / "Film";
    fs::remove_all(kRoot);
    fs::create_directories(d / "objects");
    fs::create_directories(d / "media");
    std::mt19937_64 random(42);
    const std::size_t half = TotalBytes() / 2;
    std::string object;
    for (int i = 0; object.size() < (1u << 20); ++i)
      object += "object " + std::to_string(i) + " scene=" + std::to_string(i % 97) + " take=" + std::to_string(random() % 13) + "\n";
    object.resize(1u << 20);
    for (std::size_t done = 0, n = 0; done < half; done += object.size(), ++n)
      WriteFile(d / "objects" / ("obj" + std::to_string(n) + ".zro"), object);
    std::string media(8u << 20, '\0');
    for (std::size_t done = 0, n = 0; done < half; done += media.size(), ++n) {
      for (std::size_t i = 0; i + 8 <= media.size(); i += 8) {
        const std::uint64_t v = random();
        std::memcpy(&media[i], &v, 8);
      }
      WriteFile(d / "media" / ("clip" + std::to_string(n) + ".bin"), media);
    }
    ZROBJ_SetProjectDirectory(kProject, W(d).c_str());
    CProjUniID ids;
    ids.Create(kProject, 0);
    return d;
  }();
  return dir;
}

void Run(benchmark::State& state, const std::string& command) {
  for (auto _ : state)
    if (std::system(command.c_str()) != 0) state.SkipWithError(command.c_str());
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * TotalBytes()));
}

void BM_Pack(benchmark::State& state) {
  const fs::path archive = kRoot / "film.zpk";
  Project();
  for (auto _ : state)
    if (!PrjLocator::PackProject(W(archive).c_str(), kProject)) state.SkipWithError("pack failed");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * TotalBytes()));
  state.counters["archive_MiB"] = static_cast<double>(fs::file_size(archive)) / (1 << 20);
}

void BM_Unpack(benchmark::State& state) {
  const fs::path archive = kRoot / "film.zpk";
  Project();
  if (!fs::exists(archive)) PrjLocator::PackProject(W(archive).c_str(), kProject);
  for (auto _ : state)
    if (!PrjLocator::UnpackProject(W(archive).c_str(), W(kRoot / "out").c_str())) state.SkipWithError("unpack failed");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * TotalBytes()));
}

void BM_TarPack(benchmark::State& state, const char* compressor, const char* suffix) {
  Project();
  Run(state, "tar -C " + kRoot.string() + " -cf - Film | " + compressor + " > " + kRoot.string() + "/film.tar" + suffix);
}

void BM_TarUnpack(benchmark::State& state, const char* decompressor, const char* suffix) {
  Project();
  const std::string archive = kRoot.string() + "/film.tar" + suffix;
  if (!fs::exists(archive)) {
    state.SkipWithError("pack first (BM_TarPack runs before)");
    return;
  }
  fs::create_directories(kRoot / "tarout");
  Run(state, std::string(decompressor) + " -dc " + archive + " | tar -C " + kRoot.string() + "/tarout -xf -");
}

}  // namespace

BENCHMARK(BM_Pack)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Unpack)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK_CAPTURE(BM_TarPack, zstd, "zstd -1 -q", ".zst")->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK_CAPTURE(BM_TarUnpack, zstd, "zstd -q", ".zst")->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK_CAPTURE(BM_TarPack, gzip, "gzip -1", ".gz")->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK_CAPTURE(BM_TarUnpack, gzip, "gzip", ".gz")->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
