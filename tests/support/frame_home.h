// Test helper: points the Windows directory ($ZROBJ_HOME) at a fresh scratch directory for one
// scope, so settings, profile and class-key files start empty, and restores it afterwards.
#pragma once

#include <cstdlib>
#include <string>

#include "platform/inifile.h"
#include "test_support.h"
#include "frame/frame_internal.h"

namespace zrtest {

class ScopedHome {
 public:
  ScopedHome() {
    if (const char* old = std::getenv("ZROBJ_HOME")) previous_ = old;
    ::setenv("ZROBJ_HOME", dir_.path().c_str(), 1);
    Forget();
  }
  ~ScopedHome() {
    ::setenv("ZROBJ_HOME", previous_.c_str(), 1);
    Forget();
  }
  ScopedHome(const ScopedHome&) = delete;
  ScopedHome& operator=(const ScopedHome&) = delete;

  std::string File(const std::string& name) const { return dir_.File(name); }
  const std::string& path() const { return dir_.path(); }

 private:
  static void Forget() {
    zr::testing::ResetSettingsFile();
    zr::os::IniDropCache();
  }
  TempDir dir_;
  std::string previous_;
};

}  // namespace zrtest
