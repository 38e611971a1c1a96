// Process and machine facts from /proc, the clock and the password database.
#include "platform/procinfo.h"

#include <dlfcn.h>
#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "platform/crashio.h"
#include "platform/identity.h"
#include "platform/text.h"

namespace zr::os {

namespace {

char g_image_path[4096];
std::uint32_t g_loading_thread = 0;
std::atomic<bool> g_loader_is_forking{false};

// A child forked by the loading thread runs on its copy of that thread, which has a new id.
void BeforeFork() { g_loader_is_forking = CurrentOsThreadId() == g_loading_thread; }
void InForkedChild() {
  if (g_loader_is_forking) g_loading_thread = CurrentOsThreadId();
}

__attribute__((constructor)) void RecordLoadingProcess() {
  g_loading_thread = CurrentOsThreadId();
  ::pthread_atfork(BeforeFork, nullptr, InForkedChild);
  const ssize_t n = ::readlink("/proc/self/exe", g_image_path, sizeof g_image_path - 1);
  g_image_path[n > 0 ? n : 0] = 0;
}

// Value in kB of "key" in a /proc status-style text ("Key:   1234 kB"); 0 when absent.
std::uint64_t FieldKb(const char* text, const char* key) {
  const char* at = std::strstr(text, key);
  if (!at) return 0;
  at += std::strlen(key);
  while (*at == ' ' || *at == '\t') ++at;
  std::uint64_t v = 0;
  while (*at >= '0' && *at <= '9') v = v * 10 + static_cast<std::uint64_t>(*at++ - '0');
  return v;
}

void CopyCut(char* buffer, std::size_t capacity, const char* text, std::size_t limit) {
  if (!buffer || capacity == 0) return;
  std::size_t n = 0;
  for (; text && text[n] && n < limit && n + 1 < capacity; ++n) buffer[n] = text[n];
  buffer[n] = 0;
}

// Days since 1970-01-01 to a civil date (proleptic Gregorian).
void CivilFromDays(std::int64_t z, std::int64_t* y, unsigned* m, unsigned* d) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  *d = doy - (153 * mp + 2) / 5 + 1;
  *m = mp < 10 ? mp + 3 : mp - 9;
  *y = static_cast<std::int64_t>(yoe) + era * 400 + (*m <= 2);
}

}  // namespace

std::uint32_t CurrentOsThreadId() { return static_cast<std::uint32_t>(::syscall(SYS_gettid)); }

std::uint32_t CurrentProcessId() { return static_cast<std::uint32_t>(::getpid()); }

std::uint32_t LoadingThreadId() { return g_loading_thread; }

const char* ProcessImagePath() { return g_image_path; }

bool GetLibraryVersionText(char* buffer, std::size_t capacity) {
  if (!buffer || capacity == 0) return false;
  buffer[0] = 0;
  Dl_info dl{};
  if (!dladdr(reinterpret_cast<void*>(&GetLibraryVersionText), &dl) || !dl.dli_fname) return false;
  char real[PATH_MAX];
  if (!::realpath(dl.dli_fname, real)) return false;
  const char* slash = std::strrchr(real, '/');
  const char* so = std::strstr(slash ? slash : real, ".so.");
  if (!so || !so[4]) return false;
  CopyCut(buffer, capacity, so + 4, static_cast<std::size_t>(-1));
  return true;
}

bool GetSystemFigures(SystemFigures* f) {
  if (!f) return false;
  *f = SystemFigures{};
  const long cpus = ::sysconf(_SC_NPROCESSORS_ONLN);
  f->processors = cpus > 0 ? static_cast<std::uint32_t>(cpus) : 0;
  char text[8192];
  if (ReadSmallFile("/proc/meminfo", text, sizeof text) <= 0) return false;
  f->total_physical = FieldKb(text, "MemTotal:") * 1024;
  f->available_physical = FieldKb(text, "MemAvailable:") * 1024;
  f->total_pageable = FieldKb(text, "CommitLimit:") * 1024;
  const std::uint64_t committed = FieldKb(text, "Committed_AS:") * 1024;
  f->available_pageable = f->total_pageable > committed ? f->total_pageable - committed : 0;
  if (f->total_physical)
    f->memory_load = static_cast<std::uint32_t>((f->total_physical - f->available_physical) * 100 / f->total_physical);
  constexpr std::uint64_t kUserAddressSpace = 0x7FFFFFFFF000ull;  // x86-64 with 4-level page tables
  f->total_virtual = kUserAddressSpace;
  if (ReadSmallFile("/proc/self/status", text, sizeof text) > 0) {
    const std::uint64_t used = FieldKb(text, "VmSize:") * 1024;
    f->available_virtual = used < kUserAddressSpace ? kUserAddressSpace - used : 0;
  }
  return true;
}

void PrepareLocalTime() { ::tzset(); }

CivilTime LocalTimeNow() {
  timespec ts{};
  ::clock_gettime(CLOCK_REALTIME, &ts);
  tm parts{};
  ::localtime_r(&ts.tv_sec, &parts);
  CivilTime t;
  t.year = static_cast<std::uint16_t>(parts.tm_year + 1900);
  t.month = static_cast<std::uint16_t>(parts.tm_mon + 1);
  t.weekday = static_cast<std::uint16_t>(parts.tm_wday);
  t.day = static_cast<std::uint16_t>(parts.tm_mday);
  t.hour = static_cast<std::uint16_t>(parts.tm_hour);
  t.minute = static_cast<std::uint16_t>(parts.tm_min);
  t.second = static_cast<std::uint16_t>(parts.tm_sec);
  t.millisecond = static_cast<std::uint16_t>(ts.tv_nsec / 1000000);
  return t;
}

CivilTime FileTimeToCivil(std::uint64_t file_time) {
  constexpr std::int64_t kDaysFrom1601To1970 = 134774;
  const std::uint64_t ms_total = file_time / 10000;
  const std::int64_t days = static_cast<std::int64_t>(ms_total / 86400000) - kDaysFrom1601To1970;
  const std::uint64_t ms_of_day = ms_total % 86400000;
  std::int64_t y = 0;
  unsigned m = 0, d = 0;
  CivilFromDays(days, &y, &m, &d);
  CivilTime t;
  t.year = static_cast<std::uint16_t>(y);
  t.month = static_cast<std::uint16_t>(m);
  t.day = static_cast<std::uint16_t>(d);
  t.weekday = static_cast<std::uint16_t>(((days % 7) + 11) % 7);  // 1970-01-01 was a Thursday
  t.hour = static_cast<std::uint16_t>(ms_of_day / 3600000);
  t.minute = static_cast<std::uint16_t>(ms_of_day / 60000 % 60);
  t.second = static_cast<std::uint16_t>(ms_of_day / 1000 % 60);
  t.millisecond = static_cast<std::uint16_t>(ms_of_day % 1000);
  return t;
}

// The crash record names the user and computer as the rest of the library does (identity.h).
namespace {
using IdentityQuery = bool (*)(WCHAR*, DWORD*);
void QueryAsUtf8(IdentityQuery query, char* buffer, std::size_t capacity) {
  WCHAR wide[256] = {};
  DWORD length = 256;
  const std::string text = query(wide, &length) ? Utf16ToUtf8(std::u16string_view(wide, length)) : std::string();
  CopyCut(buffer, capacity, text.c_str(), static_cast<std::size_t>(-1));
}
}  // namespace

void GetUserLogonName(char* buffer, std::size_t capacity) { QueryAsUtf8(&QueryUserName, buffer, capacity); }

void GetComputerNameText(char* buffer, std::size_t capacity) { QueryAsUtf8(&QueryComputerName, buffer, capacity); }

}  // namespace zr::os
