// zrtool's subcommand registry: each command file registers itself with a static ZRTOOL_COMMAND.
#pragma once

#include <string>
#include <vector>

namespace zrtool {

using Args = std::vector<std::string>;
// A command returns the process exit status: 0 success, 1 failure of the work, 2 bad usage.
using CommandFn = int (*)(const Args& args);

struct Command {
  const char* name;
  const char* summary;  // one line for `zrtool --help`
  const char* usage;    // full text for `zrtool NAME --help`
  CommandFn run;
};

// Registers at static-initialisation time; returns true so it can initialise a dummy variable.
bool RegisterCommand(const Command& command);
const std::vector<Command>& Commands();

// Shared helpers for commands.
bool WantsHelp(const Args& args);            // -h or --help anywhere
int UsageError(const Command& command, const std::string& message);  // prints message + usage, returns 2
int Fail(const std::string& message);         // prints "zrtool: message", returns 1
// The full path of a file of the library's settings directory ("ZRO.INI", "ZRO.VST", ...).
std::string SettingsFilePath(const char* name);

// Progress on stderr for long work: "\rlabel: 42%" updated at most once per percent, newline at 100%.
// With a count of items: "label: 42%  12.3 MB  15 files  4.1 MB/s  3 s left", rewritten in place on
// a terminal, else written as a plain line at every tenth.
class Progress {
 public:
  Progress(std::string label, unsigned long long total);
  void Update(unsigned long long done);
  void Update(unsigned long long done, unsigned long items, const char* item_name);
  void Finish();

 private:
  std::string label_;
  unsigned long long total_;
  int last_percent_ = -1;
  bool terminal_;
  bool detailed_ = false;
  double started_;
};

}  // namespace zrtool

#define ZRTOOL_CONCAT_INNER(a, b) a##b
#define ZRTOOL_CONCAT(a, b) ZRTOOL_CONCAT_INNER(a, b)
#define ZRTOOL_COMMAND(...) \
  static const bool ZRTOOL_CONCAT(zrtool_registered_, __LINE__) = ::zrtool::RegisterCommand(::zrtool::Command{__VA_ARGS__})
