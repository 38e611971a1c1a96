// libFuzzer target: arbitrary bytes read as a project archive, listed and unpacked into a scratch
// directory. Checked: an archive that unpacks also lists to its end, nothing is written outside
// the destination, and a failed unpack leaves no project tree and no temporary tree behind.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/text.h"
#include "zrobj/prjloc.h"

namespace {

namespace fs = std::filesystem;

void Check(bool condition) {
  if (!condition) __builtin_trap();
}

struct Scratch {
  fs::path root = fs::temp_directory_path() / ("fuzz_prjpack." + std::to_string(::getpid()));
  fs::path archive = root / "in.zpk";
  fs::path out = root / "out";
};

const Scratch& Paths() {
  static const Scratch scratch;
  return scratch;
}

std::size_t EntriesOf(const fs::path& dir) {
  std::size_t n = 0;
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) ++n;
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Scratch& s = Paths();
  std::error_code ec;
  fs::remove_all(s.root, ec);
  fs::create_directories(s.out);
  {
    std::FILE* f = std::fopen(s.archive.c_str(), "wb");
    if (!f) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
  }
  const std::u16string archive = zr::os::Utf8ToUtf16(s.archive.string());
  WCHAR name[ZR_MAX_PATH];
  const int listed = PrjLocator::ListArchive(archive.c_str(), name, nullptr, nullptr);
  const int unpacked = PrjLocator::UnpackProject(archive.c_str(), zr::os::Utf8ToUtf16(s.out.string()).c_str());
  if (unpacked) {
    Check(listed == 1);
    Check(EntriesOf(s.out) == 1 && fs::is_directory(s.out / zr::os::Utf16ToUtf8(name)));
  } else {
    Check(EntriesOf(s.out) == 0);
  }
  Check(EntriesOf(s.root) == 2);  // the archive and the destination: nothing escaped
  fs::remove_all(s.root, ec);
  return 0;
}
