// zrtool file: what the library's file layer sees of a file (attributes kept beside the file, file
// times, share-aware touching) and the free space figure it reports for a volume.
#include <cctype>
#include <chrono>
#include <cstdio>
#include <string>

#include "platform/files.h"
#include "platform/text.h"
#include "tools/zrtool/command.h"
#include "zrobj/czrfile.h"

namespace zrtool {
namespace {

int RunFile(const Args& args);

const Command kFile = {
    "file", "show or change file attributes and times, volume free space",
    "usage: zrtool file info PATH...\n"
    "       zrtool file attrib PATH [+r|-r|+h|-h|+s|-s|+a|-a]...\n"
    "       zrtool file touch PATH...\n"
    "       zrtool file free PATH\n\n"
    "info    size, attributes and the creation, last-access and last-write times (UTC)\n"
    "attrib  shows the attributes (R read-only, H hidden, S system, A archive, D directory)\n"
    "        or sets (+) and clears (-) them; the library refuses to write to or delete\n"
    "        read-only files\n"
    "touch   sets the last-write time of existing files to now; a file another program\n"
    "        holds open is reported as busy\n"
    "free    free space of the volume holding PATH: the whole clusters the library\n"
    "        reports (at most 4 GiB - 1) and the full figure\n",
    RunFile};

ZRTOOL_COMMAND(kFile);

struct AttributeLetter {
  char letter;
  DWORD bit;
};
constexpr AttributeLetter kLetters[] = {{'R', zr::os::kFileAttributeReadOnly},
                                        {'H', zr::os::kFileAttributeHidden},
                                        {'S', zr::os::kFileAttributeSystem},
                                        {'A', zr::os::kFileAttributeArchive},
                                        {'D', zr::os::kFileAttributeDirectory}};

std::string ErrorText(DWORD error) {
  switch (error) {
    case zr::os::kErrorFileNotFound: return "no such file";
    case zr::os::kErrorPathNotFound: return "no such directory";
    case zr::os::kErrorAccessDenied: return "access denied";
    case zr::os::kErrorSharingViolation: return "the file is in use by another program";
    case zr::os::kErrorNotSupported: return "the file system cannot keep these attributes";
    default: return "system error " + std::to_string(error);
  }
}

int FailOn(const std::string& path, const std::string& what) { return Fail(path + ": " + what); }

std::string AttributeText(DWORD attributes) {
  std::string text;
  for (const AttributeLetter& l : kLetters) text += (attributes & l.bit) ? l.letter : '-';
  char hex[16];
  std::snprintf(hex, sizeof hex, " (0x%02X)", attributes);
  return text + hex;
}

// "YYYY-MM-DD hh:mm:ss.fffffff" in UTC from 100 ns units since 1601.
std::string TimeText(UINT64 file_time) {
  using namespace std::chrono;
  constexpr UINT64 kUnixEpoch = 116444736000000000ull;
  if (file_time < kUnixEpoch) return "before 1970";
  const UINT64 units = file_time - kUnixEpoch;
  const sys_seconds seconds{std::chrono::seconds{static_cast<long long>(units / 10000000)}};
  const sys_days day = floor<days>(seconds);
  const year_month_day ymd{day};
  const hh_mm_ss<std::chrono::seconds> clock{seconds - day};
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02u-%02u %02lld:%02lld:%02lld.%07llu", static_cast<int>(ymd.year()),
                static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                static_cast<long long>(clock.hours().count()), static_cast<long long>(clock.minutes().count()),
                static_cast<long long>(clock.seconds().count()), static_cast<unsigned long long>(units % 10000000));
  return text;
}

int RunInfo(const Args& paths) {
  int status = 0;
  for (const std::string& path : paths) {
    zr::os::FileInfo info;
    if (!zr::os::GetFileInfoW(zr::os::Utf8ToUtf16(path).c_str(), &info)) {
      status = FailOn(path, ErrorText(zr::os::GetLastError()));
      continue;
    }
    std::printf("%s\n  size        %llu\n  attributes  %s\n  created     %s\n  accessed    %s\n  written     %s\n",
                path.c_str(), static_cast<unsigned long long>(info.size), AttributeText(info.attributes).c_str(),
                TimeText(info.creation_time).c_str(), TimeText(info.last_access_time).c_str(),
                TimeText(info.last_write_time).c_str());
  }
  return status;
}

int RunAttrib(const Args& args) {
  const std::u16string path = zr::os::Utf8ToUtf16(args[0]);
  DWORD attributes = zr::os::GetFileAttributesW(path.c_str());
  if (attributes == zr::os::kInvalidFileAttributes) return FailOn(args[0], ErrorText(zr::os::GetLastError()));
  if (args.size() == 1) {
    std::printf("%s  %s\n", AttributeText(attributes).c_str(), args[0].c_str());
    return 0;
  }
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& change = args[i];
    const AttributeLetter* found = nullptr;
    for (const AttributeLetter& l : kLetters) {
      if (change.size() == 2 && l.bit != zr::os::kFileAttributeDirectory && std::toupper(change[1]) == l.letter) found = &l;
    }
    if (!found || (change[0] != '+' && change[0] != '-')) {
      return UsageError(kFile, "unknown attribute change '" + change + "'");
    }
    attributes = change[0] == '+' ? (attributes | found->bit) : (attributes & ~found->bit);
  }
  attributes &= ~(zr::os::kFileAttributeDirectory | zr::os::kFileAttributeNormal);
  if (!zr::os::SetFileAttributesW(path.c_str(), attributes)) return FailOn(args[0], ErrorText(zr::os::GetLastError()));
  std::printf("%s  %s\n", AttributeText(zr::os::GetFileAttributesW(path.c_str())).c_str(), args[0].c_str());
  return 0;
}

int RunTouch(const Args& paths) {
  int status = 0;
  for (const std::string& path : paths) {
    if (!CZRFile::TouchFile(zr::os::Utf8ToUtf16(path).c_str())) status = FailOn(path, ErrorText(zr::os::GetLastError()));
  }
  return status;
}

int RunFree(const std::string& path) {
  const std::u16string wide = zr::os::Utf8ToUtf16(path);
  zr::os::DiskFreeSpace space;
  if (!zr::os::GetDiskFreeSpaceW(wide.c_str(), &space)) return FailOn(path, ErrorText(zr::os::GetLastError()));
  const unsigned long long cluster = static_cast<unsigned long long>(space.sectors_per_cluster) * space.bytes_per_sector;
  std::printf("cluster     %llu bytes\nreported    %lu bytes\nfree        %llu bytes\n", cluster,
              static_cast<unsigned long>(CZRFile::GetFreeDiskSpace(wide.c_str())),
              static_cast<unsigned long long>(space.free_clusters) * cluster);
  return 0;
}

int RunFile(const Args& args) {
  if (args.empty()) return UsageError(kFile, "missing action");
  const std::string& action = args[0];
  const Args rest(args.begin() + 1, args.end());
  if (action != "info" && action != "attrib" && action != "touch" && action != "free") {
    return UsageError(kFile, "unknown action '" + action + "'");
  }
  if (rest.empty()) return UsageError(kFile, "missing PATH");
  if (action == "info") return RunInfo(rest);
  if (action == "attrib") return RunAttrib(rest);
  if (action == "touch") return RunTouch(rest);
  if (rest.size() != 1) return UsageError(kFile, "free takes one PATH");
  return RunFree(rest[0]);
}

}  // namespace
}  // namespace zrtool
