// Stack walking, address-to-symbol text and raw dump output (frame pointers, dladdr, demangling).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/wformat.h"

namespace zr::os {

// Prints the call stack from a return address and frame pointer through dmp output; depth -1 is the
// whole stack. With a non-null filter, prints nothing and answers whether any frame's module file
// name contains the filter text (case-insensitive); without one it answers 1.
int WalkCallStack(std::uintptr_t address, std::uintptr_t frame, int depth, const char* filter);

// Fills up to `max` return addresses walking frame pointers from `frame` (first entry: `address`).
int CaptureCallStack(std::uintptr_t address, std::uintptr_t frame, std::uintptr_t* out, int max);

struct ZrAddressInfo {
  std::uintptr_t module_base = 0;
  std::string module_path;     // file name of the shared object or executable
  std::string symbol;          // demangled, empty when unknown
  std::uintptr_t symbol_offset = 0;
};
bool GetAddressInfo(std::uintptr_t address, ZrAddressInfo* info);
// "module!symbol+0xoff" style text (narrow), never empty.
std::string GetAddressInfoString(std::uintptr_t address);

// Raw dump output, by default into the diagnostics sink (channel 0, level 0); redirectable to a file.
void dmp_output(const char* text);
void dmp_printfV(const char* format, const FormatArg* args, std::size_t count);
template <class... Args>
void dmp_printf(const char* format, const Args&... args) {
  const FormatArg list[] = {MakeFormatArg(args)..., FormatArg{FormatArg::Kind::kPointer}};
  dmp_printfV(format ? format : "", list, sizeof...(Args));
}
// Appends dump output to `path` (created if missing) until dmp_SetOutputFile(nullptr).
bool dmp_SetOutputFile(const char* path);

// Crash output: from dmp_BeginCrashOutput until dmp_EndCrashOutput, dump output is written straight
// to `path` with no lock and no allocation (the crashed thread may hold the output's lock or be
// inside the allocator), or to standard error when `path` is null or cannot be created; false then.
bool dmp_BeginCrashOutput(const char* path);
void dmp_EndCrashOutput();
// Writes `text` to standard error at once, with no lock and no allocation.
void WriteStandardError(const char* text);

}  // namespace zr::os
