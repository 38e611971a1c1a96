// Frame-pointer stack walks, dladdr symbol lookup with demangling, and the raw dump output.
#include "platform/platdiag.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/dlgsvc.h"
#include "platform/fault.h"

namespace zr::os {

namespace {

std::mutex g_dump_mutex;
int g_dump_fd = -1;  // -1: into the diagnostics sink
std::atomic<int> g_crash_fd{-1};  // while a crash record is written: where everything goes

void WriteAll(int fd, const char* text, std::size_t len) {
  for (std::size_t done = 0; done < len;) {
    const ssize_t n = ::write(fd, text + done, len - done);
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
}

// Follows saved frame pointers: [frame] = caller's frame, [frame+8] = return address.
// Every read is probed, so a damaged or foreign stack ends the walk instead of faulting.
int Walk(std::uintptr_t address, std::uintptr_t frame, std::uintptr_t* out, int max) {
  int n = 0;
  if (max <= 0) return 0;
  if (address) out[n++] = address;
  while (n < max && frame && (frame & 7) == 0) {
    std::uintptr_t pair[2];
    if (!ProbeRead(reinterpret_cast<const void*>(frame), pair, sizeof pair)) break;
    if (pair[1] == 0) break;
    out[n++] = pair[1];
    if (pair[0] <= frame) break;  // stacks grow down: callers' frames lie above
    frame = pair[0];
  }
  return n;
}

bool ContainsNoCase(const std::string& hay, const char* needle) {
  const std::size_t n = std::strlen(needle);
  if (n == 0) return true;
  for (std::size_t i = 0; i + n <= hay.size(); ++i)
    if (strncasecmp(hay.c_str() + i, needle, n) == 0) return true;
  return false;
}

}  // namespace

int CaptureCallStack(std::uintptr_t address, std::uintptr_t frame, std::uintptr_t* out, int max) {
  return Walk(address, frame, out, max);
}

bool GetAddressInfo(std::uintptr_t address, ZrAddressInfo* info) {
  Dl_info dl{};
  if (!info || !dladdr(reinterpret_cast<void*>(address), &dl)) return false;
  info->module_base = reinterpret_cast<std::uintptr_t>(dl.dli_fbase);
  info->module_path = dl.dli_fname ? dl.dli_fname : "";
  info->symbol.clear();
  info->symbol_offset = 0;
  if (dl.dli_sname) {
    int status = 0;
    char* demangled = abi::__cxa_demangle(dl.dli_sname, nullptr, nullptr, &status);
    info->symbol = status == 0 && demangled ? demangled : dl.dli_sname;
    std::free(demangled);
    info->symbol_offset = address - reinterpret_cast<std::uintptr_t>(dl.dli_saddr);
  }
  return true;
}

std::string GetAddressInfoString(std::uintptr_t address) {
  ZrAddressInfo info;
  char hex[32];
  if (!GetAddressInfo(address, &info)) {
    std::snprintf(hex, sizeof hex, "0x%016lX", static_cast<unsigned long>(address));
    return std::string("<unknown> ") + hex;
  }
  const std::size_t slash = info.module_path.rfind('/');
  std::string text = slash == std::string::npos ? info.module_path : info.module_path.substr(slash + 1);
  if (!info.symbol.empty()) {
    std::snprintf(hex, sizeof hex, "+0x%lX", static_cast<unsigned long>(info.symbol_offset));
    text += "!" + info.symbol + hex;
  } else {
    std::snprintf(hex, sizeof hex, "+0x%lX", static_cast<unsigned long>(address - info.module_base));
    text += hex;
  }
  return text;
}

int WalkCallStack(std::uintptr_t address, std::uintptr_t frame, int depth, const char* filter) {
  constexpr int kMaxFrames = 128;
  std::uintptr_t frames[kMaxFrames];
  const int max = depth < 0 || depth > kMaxFrames ? kMaxFrames : depth;
  const int n = Walk(address, frame, frames, filter ? kMaxFrames : max);
  if (filter) {
    for (int i = 0; i < n; ++i) {
      ZrAddressInfo info;
      if (GetAddressInfo(frames[i], &info) && ContainsNoCase(info.module_path, filter)) return 1;
    }
    return 0;
  }
  for (int i = 0; i < n; ++i) {
    const std::string line = "\r\n  [" + std::to_string(i) + "] " + GetAddressInfoString(frames[i]);
    dmp_output(line.c_str());
  }
  dmp_output("\r\n");
  return 1;
}

void dmp_output(const char* text) {
  if (!text) return;
  if (const int crash_fd = g_crash_fd.load(std::memory_order_acquire); crash_fd >= 0) {
    WriteAll(crash_fd, text, std::strlen(text));
    return;
  }
  std::lock_guard lock(g_dump_mutex);
  if (g_dump_fd < 0) {
    wPrintf(0, 0, u"%hs", text);
    return;
  }
  WriteAll(g_dump_fd, text, std::strlen(text));
}

void dmp_printfV(const char* format, const FormatArg* args, std::size_t count) {
  std::string text;
  AppendFormatNarrow(text, format, args, count);
  dmp_output(text.c_str());
}

bool dmp_SetOutputFile(const char* path) {
  std::lock_guard lock(g_dump_mutex);
  if (g_dump_fd >= 0) ::close(g_dump_fd);
  g_dump_fd = -1;
  if (!path) return true;
  g_dump_fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  return g_dump_fd >= 0;
}

bool dmp_BeginCrashOutput(const char* path) {
  const int fd = path ? ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644) : -1;
  g_crash_fd.store(fd >= 0 ? fd : STDERR_FILENO, std::memory_order_release);
  return fd >= 0;
}

void dmp_EndCrashOutput() {
  const int fd = g_crash_fd.exchange(-1, std::memory_order_acq_rel);
  if (fd > STDERR_FILENO) ::close(fd);
}

void WriteStandardError(const char* text) {
  if (text) WriteAll(STDERR_FILENO, text, std::strlen(text));
}

}  // namespace zr::os
