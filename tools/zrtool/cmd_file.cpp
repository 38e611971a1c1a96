// zrtool file: what the library's file layer sees of a file (attributes kept beside the file, file
// times, share-aware touching) and the free space figure it reports for a volume.
#include <cctype>
#include <chrono>
#include <cstdio>
#include <string>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
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
constexpr AttributeLetter kLetters[] = {{'R', CZRFile::kAttributeReadOnly},
                                        {'H', CZRFile::kAttributeHidden},
                                        {'S', CZRFile::kAttributeSystem},
                                        {'A', CZRFile::kAttributeArchive},
                                        {'D', CZRFile::kAttributeDirectory}};

std::string ErrorText(DWORD error) {
  switch (error) {
    case CZRFile::kErrorFileNotFound: return "no such file";
    case CZRFile::kErrorPathNotFound: return "no such directory";
    case CZRFile::kErrorAccessDenied: return "access denied";
    case CZRFile::kErrorSharingViolation: return "the file is in use by another program";
    case CZRFile::kErrorNotSupported: return "the file system cannot keep these attributes";
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
std::string TimeText(const FILETIME& time) {
  using namespace std::chrono;
  const UINT64 file_time = (static_cast<UINT64>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
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
    CZRFile::Info info;
    if (!CZRFile::GetInfo(ToWide(path).c_str(), &info)) {
      status = FailOn(path, ErrorText(CZRFile::GetLastError()));
      continue;
    }
    std::printf("%s\n  size        %llu\n  attributes  %s\n  created     %s\n  accessed    %s\n  written     %s\n",
                path.c_str(), static_cast<unsigned long long>(info.size), AttributeText(info.attributes).c_str(),
                TimeText(info.creation).c_str(), TimeText(info.lastAccess).c_str(),
                TimeText(info.lastWrite).c_str());
  }
  return status;
}

int RunAttrib(const Args& args) {
  const std::u16string path = ToWide(args[0]);
  DWORD attributes = CZRFile::GetAttributes(path.c_str());
  if (attributes == CZRFile::kInvalidAttributes) return FailOn(args[0], ErrorText(CZRFile::GetLastError()));
  if (args.size() == 1) {
    std::printf("%s  %s\n", AttributeText(attributes).c_str(), args[0].c_str());
    return 0;
  }
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& change = args[i];
    const AttributeLetter* found = nullptr;
    for (const AttributeLetter& l : kLetters) {
      if (change.size() == 2 && l.bit != CZRFile::kAttributeDirectory && std::toupper(change[1]) == l.letter) found = &l;
    }
    if (!found || (change[0] != '+' && change[0] != '-')) {
      return UsageError(kFile, "unknown attribute change '" + change + "'");
    }
    attributes = change[0] == '+' ? (attributes | found->bit) : (attributes & ~found->bit);
  }
  if (!CZRFile::SetAttributes(path.c_str(), attributes)) return FailOn(args[0], ErrorText(CZRFile::GetLastError()));
  std::printf("%s  %s\n", AttributeText(CZRFile::GetAttributes(path.c_str())).c_str(), args[0].c_str());
  return 0;
}

int RunTouch(const Args& paths) {
  int status = 0;
  for (const std::string& path : paths) {
    if (!CZRFile::TouchFile(ToWide(path).c_str())) status = FailOn(path, ErrorText(CZRFile::GetLastError()));
  }
  return status;
}

int RunFree(const std::string& path) {
  const std::u16string wide = ToWide(path);
  UINT64 free_bytes = 0;
  DWORD cluster = 0;
  if (!CZRFile::GetVolumeSpace(wide.c_str(), &free_bytes, &cluster))
    return FailOn(path, ErrorText(CZRFile::GetLastError()));
  std::printf("cluster     %lu bytes\nreported    %lu bytes\nfree        %llu bytes\n", static_cast<unsigned long>(cluster),
              static_cast<unsigned long>(CZRFile::GetFreeDiskSpace(wide.c_str())),
              static_cast<unsigned long long>(free_bytes));
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
