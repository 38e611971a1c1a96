// zrtool: the command-line client of the library; dispatches to the registered subcommands.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
#include "zrobj/zrdiag.h"
#include "zrobj/zrobj.h"

namespace zrtool {

std::vector<Command>& MutableCommands() {
  static std::vector<Command> commands;
  return commands;
}

bool RegisterCommand(const Command& command) {
  MutableCommands().push_back(command);
  return true;
}

const std::vector<Command>& Commands() {
  auto& commands = MutableCommands();
  std::sort(commands.begin(), commands.end(),
            [](const Command& a, const Command& b) { return std::strcmp(a.name, b.name) < 0; });
  return commands;
}

bool WantsHelp(const Args& args) {
  return std::any_of(args.begin(), args.end(), [](const std::string& a) { return a == "-h" || a == "--help"; });
}

int UsageError(const Command& command, const std::string& message) {
  std::fprintf(stderr, "zrtool %s: %s\n\n%s", command.name, message.c_str(), command.usage);
  return 2;
}

int Fail(const std::string& message) {
  std::fprintf(stderr, "zrtool: %s\n", message.c_str());
  return 1;
}

std::string SettingsFilePath(const char* name) {
  WCHAR path[4096];
  return ZROBJ_GetSettingsFilePath(name, path, 4096) ? ToNarrow(path) : std::string(name);
}

namespace {

// Whether standard error is a terminal: the device it is open on is one.
bool StderrIsTerminal() {
  std::error_code ec;
  const std::string device = std::filesystem::read_symlink("/proc/self/fd/2", ec).string();
  return !ec && (device.rfind("/dev/pts/", 0) == 0 || device.rfind("/dev/tty", 0) == 0 || device == "/dev/console");
}

}  // namespace

namespace {
double Seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
}  // namespace

Progress::Progress(std::string label, unsigned long long total)
    : label_(std::move(label)), total_(total), terminal_(StderrIsTerminal()), started_(Seconds()) {}

void Progress::Update(unsigned long long done) {
  if (!terminal_ || total_ == 0) return;
  const int percent = static_cast<int>(std::min<unsigned long long>(100, done * 100 / total_));
  if (percent == last_percent_) return;
  last_percent_ = percent;
  std::fprintf(stderr, "\r%s: %3d%%", label_.c_str(), percent);
  std::fflush(stderr);
}

void Progress::Update(unsigned long long done, unsigned long items, const char* item_name) {
  detailed_ = true;
  const int percent = total_ ? static_cast<int>(std::min<unsigned long long>(100, done * 100 / total_)) : 100;
  if (percent == last_percent_ || (!terminal_ && percent / 10 == last_percent_ / 10 && percent != 100)) return;
  last_percent_ = percent;
  const double elapsed = std::max(Seconds() - started_, 1e-3);
  const double rate = static_cast<double>(done) / elapsed;
  const double left = rate > 0 && total_ > done ? static_cast<double>(total_ - done) / rate : 0;
  std::fprintf(stderr, "%s%s: %3d%%  %.1f MB  %lu %s  %.1f MB/s  %.0f s left%s", terminal_ ? "\r" : "",
               label_.c_str(), percent, static_cast<double>(done) / 1e6, items, item_name, rate / 1e6, left,
               terminal_ ? "   " : "\n");
  std::fflush(stderr);
}

void Progress::Finish() {
  if (!terminal_) return;
  if (!detailed_) Update(total_);
  std::fputc('\n', stderr);
}

namespace {

void PrintHelp(std::FILE* out) {
  std::fprintf(out,
               "usage: zrtool [-v|--verbose] COMMAND [ARGS...]\n"
               "       zrtool COMMAND --help\n\n"
               "The command-line client of the zrobju library.\n"
               "-v, --verbose  write all of the library's diagnostics lines to standard error, not\n"
               "               only its warnings and error reports\n\ncommands:\n");
  for (const Command& c : Commands()) std::fprintf(out, "  %-12s %s\n", c.name, c.summary);
}

int RunVersion(const Args& args) {
  std::printf("zrtool (zrobju) 1.0.0\n");
  return 0;
}

}  // namespace

ZRTOOL_COMMAND("version", "print the version of the tool and library", "usage: zrtool version\n", RunVersion);

}  // namespace zrtool

int main(int argc, char** argv) {
  using namespace zrtool;
  if (argc >= 2 && (!std::strcmp(argv[1], "-v") || !std::strcmp(argv[1], "--verbose"))) {
    zr::SetDiagnosticsActive(true);
    argv[1] = argv[0];
    ++argv;
    --argc;
  }
  if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "help")) {
    PrintHelp(argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  for (const Command& c : Commands()) {
    if (std::strcmp(c.name, argv[1]) != 0) continue;
    Args args(argv + 2, argv + argc);
    if (WantsHelp(args)) {
      std::fputs(c.usage, stdout);
      return 0;
    }
    return c.run(args);
  }
  std::fprintf(stderr, "zrtool: unknown command '%s' (try 'zrtool --help')\n", argv[1]);
  return 2;
}
