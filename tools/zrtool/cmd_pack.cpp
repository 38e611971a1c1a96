// zrtool pack / unpack: a project directory into one archive file and back, and the list of an
// archive's entries.
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
#include "zrobj/prjloc.h"
#include "zrobj/zrdiag.h"

namespace zrtool {
namespace {

int RunPack(const Args& args);
int RunUnpack(const Args& args);

const Command kPack = {
    "pack", "pack a project directory into one archive file, or list an archive",
    "usage: zrtool pack DIR OUT\n"
    "       zrtool pack list ARCHIVE\n"
    "\n"
    "Packs the project in DIR (every file and directory below it, with names, times and attribute\n"
    "bits; contents compressed where that makes them smaller) into the archive OUT, holding the\n"
    "project's lock meanwhile: it fails while another process has the project open. DIR needs its\n"
    "PRJ.IDS (see `zrtool ids create`). OUT may not lie inside DIR. A failed pack leaves no OUT.\n"
    "`pack list` prints the project name and one line per entry: kind, stored and file size,\n"
    "last write time (UTC) and name.\n",
    RunPack};

const Command kUnpack = {
    "unpack", "unpack a project archive into a directory",
    "usage: zrtool unpack ARCHIVE DIR\n"
    "\n"
    "Unpacks ARCHIVE into DIR/NAME, NAME being the project's name in the archive; an existing\n"
    "DIR/NAME is replaced. Times and attribute bits are restored. A failed unpack leaves no DIR/NAME.\n",
    RunUnpack};

ZRTOOL_COMMAND(kPack);
ZRTOOL_COMMAND(kUnpack);

constexpr DWORD kToolProject = 1;

// Bytes and files of the tree below `dir`, for the progress line.
unsigned long long TreeBytes(const std::string& dir) {
  unsigned long long bytes = 0;
  std::error_code ec;
  for (std::filesystem::recursive_directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
    if (it->is_regular_file(ec)) bytes += it->file_size(ec);
  return bytes;
}

// Shows PackProject's / UnpackProject's progress for the life of the object.
class ShowProgress {
 public:
  ShowProgress(const char* label, unsigned long long total) : progress_(label, total) {
    PrjLocator::SetProgressCallback(&ShowProgress::OnEntry, this);
  }
  ~ShowProgress() { PrjLocator::SetProgressCallback(nullptr, nullptr); }
  void Finish() { progress_.Finish(); }

 private:
  static void OnEntry(DWORD entries, UINT64 bytes, void* self) {
    static_cast<ShowProgress*>(self)->progress_.Update(bytes, entries, "entries");
  }
  Progress progress_;
};

// The library's own reason, when it gave one, goes with our message.
int FailWithDiagnostics(const std::string& message) {
  return Fail(message + " (run with -v for the library's reason)");
}

struct ListTotals {
  unsigned long entries = 0;
  unsigned long long stored = 0;
  unsigned long long size = 0;
};

void PrintEntry(const PrjLocator::ArchiveEntry& e, void* context) {
  auto& totals = *static_cast<ListTotals*>(context);
  ++totals.entries;
  totals.stored += e.storedSize;
  totals.size += e.fileSize;
  // File times count 100 ns units from 1601; Unix seconds start 11644473600 s later.
  const long long unix_seconds = static_cast<long long>(e.time / 10000000ull) - 11644473600ll;
  const bool directory = (e.attributes & 0x10u) != 0;
  std::printf("%s %10u %10u %12lld %s\n", directory ? "dir " : "file", e.storedSize, e.fileSize, unix_seconds,
              ToNarrow(e.name).c_str());
}

int List(const std::string& archive) {
  WCHAR name[ZR_MAX_PATH];
  ListTotals totals;
  std::printf("kind     stored       size   written(s) name\n");
  const int whole = PrjLocator::ListArchive(ToWide(archive).c_str(), name, PrintEntry, &totals);
  if (!whole && name[0] == 0) return Fail(archive + " is not a project archive");
  std::printf("project %s: %lu entries, %llu bytes stored for %llu\n", ToNarrow(name).c_str(), totals.entries,
              totals.stored, totals.size);
  if (!whole) return Fail(archive + " is damaged after the entries shown");
  return 0;
}

int RunPack(const Args& args) {
  if (args.size() == 2 && args[0] == "list") return List(args[1]);
  if (args.size() != 2) return UsageError(kPack, "pack takes DIR and OUT (or list ARCHIVE)");
  const std::string& dir = args[0];
  const std::string& out = args[1];
  std::error_code ec;
  if (!std::filesystem::is_directory(dir, ec)) return Fail("not a directory: " + dir);
  if (!ZROBJ_SetProjectDirectory(kToolProject, ToWide(dir).c_str())) return Fail("directory name too long: " + dir);
  ShowProgress progress("packing", TreeBytes(dir));
  if (!PrjLocator::PackProject(ToWide(out).c_str(), kToolProject)) return FailWithDiagnostics("cannot pack " + dir);
  progress.Finish();
  return 0;
}

int RunUnpack(const Args& args) {
  if (args.size() != 2) return UsageError(kUnpack, "unpack takes ARCHIVE and DIR");
  const std::string& archive = args[0];
  ListTotals totals;  // the bytes the archive unpacks to, for the progress line
  WCHAR name[ZR_MAX_PATH];
  PrjLocator::ListArchive(ToWide(archive).c_str(), name, [](const PrjLocator::ArchiveEntry& e, void* c) {
    static_cast<ListTotals*>(c)->size += e.fileSize;
  }, &totals);
  ShowProgress progress("unpacking", totals.size);
  if (!PrjLocator::UnpackProject(ToWide(archive).c_str(), ToWide(args[1]).c_str()))
    return FailWithDiagnostics("cannot unpack " + archive);
  progress.Finish();
  return 0;
}

}  // namespace
}  // namespace zrtool
