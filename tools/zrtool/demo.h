// zrtool demo's sections: each subsystem registers a short guided run with ZRTOOL_DEMO_SECTION,
// and `zrtool demo` runs them in order.
#pragma once

#include <string>
#include <vector>

#include "platform/diag_capture.h"
#include "tools/zrtool/command.h"

namespace zrtool {

// What a section gets: where the demo's settings live and helpers for readable output.
class DemoContext {
 public:
  explicit DemoContext(std::string home) : home_(std::move(home)) {}
  const std::string& home() const { return home_; }  // the Windows directory in use

  // "  text" on standard output.
  void Say(const std::string& text) const;
  // Every captured diagnostics message, one line each: "    [channel:level] text" with the
  // carriage returns and line feeds of the message shown as \r and \n.
  void ShowDiagnostics(const zr::os::ScopedDiagCapture& capture) const;
  // The text of a file, indented, for showing settings files.
  void ShowFile(const std::string& path) const;

 private:
  std::string home_;
};

struct DemoSection {
  const char* name;   // for `zrtool demo NAME`
  int order;          // sections run by ascending order (frame: 10-30, later subsystems above)
  const char* title;  // heading line
  int (*run)(DemoContext& context);  // 0 when the section worked, else 1
};

bool RegisterDemoSection(const DemoSection& section);
const std::vector<DemoSection>& DemoSections();

}  // namespace zrtool

#define ZRTOOL_DEMO_SECTION(...) \
  static const bool ZRTOOL_CONCAT(zrtool_demo_registered_, __LINE__) = \
      ::zrtool::RegisterDemoSection(::zrtool::DemoSection{__VA_ARGS__})
