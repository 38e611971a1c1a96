// zrtool watch: waits until one file changes in the ways asked for, then says what changed.
#include <cstdio>
#include <filesystem>
#include <string>

#include "platform/text.h"
#include "tools/zrtool/command.h"
#include "zrobj/cosobject.h"

namespace zrtool {
namespace {

constexpr char kUsage[] =
    "usage: zrtool watch FILE [--filter LIST] [--timeout MS]\n"
    "\n"
    "Waits until FILE changes and prints what changed. Changes to other files of the\n"
    "same directory are ignored.\n"
    "\n"
    "  --filter LIST   comma-separated: name (appears, disappears or is renamed),\n"
    "                  attributes, size, time (last write); default: all four\n"
    "  --timeout MS    give up after MS milliseconds; default: wait without limit\n"
    "\n"
    "Exit status: 0 the file changed, 1 time-out or the watch could not be set up,\n"
    "2 bad usage.\n";

int RunWatch(const Args& args);
const Command kWatch{"watch", "wait until a file changes and say what changed", kUsage, RunWatch};

bool ParseFilter(const std::string& text, DWORD* filter) {
  *filter = 0;
  std::size_t start = 0;
  while (start <= text.size()) {
    const std::size_t comma = text.find(',', start);
    const std::string word = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    if (word == "name") *filter |= FILE_NOTIFY_CHANGE_FILE_NAME;
    else if (word == "attributes") *filter |= FILE_NOTIFY_CHANGE_ATTRIBUTES;
    else if (word == "size") *filter |= FILE_NOTIFY_CHANGE_SIZE;
    else if (word == "time") *filter |= FILE_NOTIFY_CHANGE_LAST_WRITE;
    else return false;
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return *filter != 0;
}

bool ParseTimeout(const std::string& text, DWORD* timeout) {
  if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  const unsigned long long value = std::stoull(text);
  if (value >= 0xFFFFFFFFull) return false;
  *timeout = static_cast<DWORD>(value);
  return true;
}

std::string Describe(DWORD changes, bool exists) {
  std::string text;
  auto add = [&](const char* word) { text += text.empty() ? word : std::string(" ") + word; };
  if (changes & 1u) add(exists ? "name" : "deleted");
  if (changes & 4u) add("attributes");
  if (changes & 8u) add("size");
  if (changes & 16u) add("time");
  return text.empty() ? "changed" : text;
}

int RunWatch(const Args& args) {
  std::string file;
  DWORD filter = 0x1Du;
  DWORD timeout = 0xFFFFFFFFu;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--filter" || arg == "--timeout") {
      if (i + 1 >= args.size()) return UsageError(kWatch, arg + " needs a value");
      const std::string& value = args[++i];
      const bool ok = arg == "--filter" ? ParseFilter(value, &filter) : ParseTimeout(value, &timeout);
      if (!ok) return UsageError(kWatch, "bad value for " + arg + ": '" + value + "'");
    } else if (!arg.empty() && arg[0] == '-') {
      return UsageError(kWatch, "unknown option '" + arg + "'");
    } else if (file.empty()) {
      file = arg;
    } else {
      return UsageError(kWatch, "only one FILE may be watched");
    }
  }
  if (file.empty()) return UsageError(kWatch, "no FILE given");

  std::error_code ec;
  const std::filesystem::path path = std::filesystem::absolute(file, ec);
  if (ec) return Fail("cannot resolve '" + file + "': " + ec.message());
  const std::u16string wide = zr::os::Utf8ToUtf16(path.string());
  if (wide.size() >= ZR_MAX_PATH) return Fail("path too long: " + path.string());
  COSFileChangeNotify notify(wide.c_str(), filter);
  if (!notify.AssertValid()) return Fail("cannot watch the directory of '" + path.string() + "'");
  const DWORD result = notify.Wait(timeout);
  if (result == WAIT_TIMEOUT) {
    std::fprintf(stderr, "zrtool watch: no change of %s\n", path.string().c_str());
    return 1;
  }
  if (result != 0) return Fail("waiting for '" + path.string() + "' failed");
  std::printf("%s: %s\n", path.string().c_str(),
              Describe(notify.GetLastChange(), std::filesystem::exists(path, ec)).c_str());
  return 0;
}

}  // namespace

ZRTOOL_COMMAND(kWatch);

}  // namespace zrtool
