// Helpers shared by the test programs: scratch directories and child processes.
#pragma once

#include <functional>
#include <string>

#include "platform/desktop.h"
#include "zrobj/zrdiag.h"

namespace zrtest {

// A fresh directory under $ZROBJ_TEST_HOME (or /tmp), removed with its contents on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// How a child process ended.
struct ChildResult {
  bool exited = false;   // true: ended normally with exit_code
  int exit_code = -1;
  int signal = 0;        // the signal that ended it, when !exited
};

// Forks; the child runs `body` and _exits with its result. Waits at most `timeout_ms` (then kills).
ChildResult RunChild(const std::function<int()>& body, int timeout_ms = 60000);

// Whole file contents ("" when unreadable) and writing a whole file.
std::string ReadFile(const std::string& path);
bool WriteFile(const std::string& path, const std::string& data);

// Sets the library's debug mode for the scope and restores the previous one.
struct DebugMode {
  explicit DebugMode(DWORD mode) : old(IsDebugOn()) { SetDebugMode(mode); }
  ~DebugMode() { SetDebugMode(old); }
  DebugMode(const DebugMode&) = delete;
  DebugMode& operator=(const DebugMode&) = delete;
  DWORD old;
};

// Makes MessageBeep silent (no diagnostics line of its own) for the scope, so tests can compare the
// library's own report lines exactly.
class ScopedQuietBeep {
 public:
  ScopedQuietBeep() {
    zr::os::DesktopHandlers quiet = zr::os::SetDesktopHandlers({});
    previous_ = quiet;
    quiet.message_beep = [](UINT) { return BOOL{1}; };
    zr::os::SetDesktopHandlers(quiet);
  }
  ~ScopedQuietBeep() { zr::os::SetDesktopHandlers(previous_); }
  ScopedQuietBeep(const ScopedQuietBeep&) = delete;
  ScopedQuietBeep& operator=(const ScopedQuietBeep&) = delete;

 private:
  zr::os::DesktopHandlers previous_;
};

}  // namespace zrtest
