// What the targets that drive zrtool commands share: a command from the tool's registry, a scratch
// file per process and per role, and a run of a command with its standard output discarded.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>

#include "tools/zrtool/command.h"

namespace fuzz_tool {

// The registered command called `name`; the target is built wrongly when there is none.
inline const zrtool::Command& FindCommand(const char* name) {
  for (const zrtool::Command& c : zrtool::Commands())
    if (std::strcmp(c.name, name) == 0) return c;
  __builtin_trap();
}

// "/tmp/zrobj-fuzz-TARGET-PID-ROLE": parallel fuzzing processes never share a file.
inline std::string TempPath(const char* target, const char* role) {
  return "/tmp/zrobj-fuzz-" + std::string(target) + "-" + std::to_string(::getpid()) + "-" + role;
}

// Replaces the file at `path` with `size` bytes; false when that did not work out.
inline bool WriteFile(const std::string& path, const std::uint8_t* data, std::size_t size) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return false;
  const bool written = size == 0 || std::fwrite(data, 1, size, file) == size;
  return std::fclose(file) == 0 && written;
}

// Runs the command as `zrtool NAME ARGS...` would, with standard output sent to /dev/null (the
// printing would otherwise dominate the run time); standard error is left to -close_fd_mask.
inline int RunQuietly(const zrtool::Command& command, const zrtool::Args& args) {
  static const int null_fd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  static const int stdout_fd = ::dup(1);
  if (null_fd < 0 || stdout_fd < 0) __builtin_trap();
  std::fflush(stdout);
  ::dup2(null_fd, 1);
  const int status = command.run(args);
  std::fflush(stdout);
  ::dup2(stdout_fd, 1);
  return status;
}

}  // namespace fuzz_tool
