// Start-up and shut-down steps of the event log, called by the library's entry point, and the
// reading of an event's arguments.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <new>
#include <string_view>

#include "platform/wformat.h"
#include "zrobj/export.h"

namespace zr::steps {
void InitEventLog();  // CEventLogger::Init
void ExitEventLog();  // CEventLogger::Exit
}  // namespace zr::steps

namespace zr {

// The arguments of one event, at most kCapacity; built without constructing them up front
// (os::FormatArg has no default).
struct EventArgs {
  static constexpr std::size_t kCapacity = 64;
  union {
    os::FormatArg items[kCapacity];
  };
  std::size_t count = 0;
  EventArgs() {}
  void Push(const os::FormatArg& a) {
    if (count < kCapacity) new (&items[count++]) os::FormatArg(a);
  }
};

// Reads from `ap` the arguments a wide format names, each with the type its conversion has in the
// library's printf dialect (int and long are 32-bit; "ll", "I64", "I", "z", "j", "t" are 64-bit).
void CollectEventArgs(std::u16string_view format, std::va_list& ap, EventArgs& out);

}  // namespace zr
