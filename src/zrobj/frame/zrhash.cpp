// Hash identifiers over the two process-wide dual CRCs: class names, users, paths, the computer id,
// and the CRC1615 checksum.
#include "zrobj/zrhash.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>

#include "zrobj/byteorder.h"
#include "platform/identity.h"
#include "platform/text.h"

namespace {

// Constant-initialised: the tables are part of the library image, so no static-initialisation
// order can reach an engine before it is built.
constinit const CDualCRC g_hash_id_engine(10, 0x83, 16, 0x1021);
constinit const CDualCRC g_checksum_engine(16, 0x1021, 15, 0x8123);

constexpr std::size_t kMaxPathChars = ZR_MAX_PATH;
constexpr DWORD kComputerNameBuffer = 16;   // 15 characters and the terminator
constexpr int kMaxNameAttempts = 100;       // generated names tried before giving up

std::atomic<DWORD> g_computer_id{ZR_NO_ID};

bool IsSeparator(char16_t c) { return c == u'/' || c == u'\\'; }

// Length of the path in the library's default form: separators unified and collapsed, no
// trailing separator except for the root itself; every component, "." too, is kept. Only the
// length is needed.
std::size_t NormalisedPathLength(std::u16string_view path) {
  const bool rooted = !path.empty() && IsSeparator(path[0]);
  std::size_t length = 0;
  std::size_t pos = 0;
  while (pos < path.size()) {
    while (pos < path.size() && IsSeparator(path[pos])) ++pos;
    std::size_t end = pos;
    while (end < path.size() && !IsSeparator(path[end])) ++end;
    const std::u16string_view part = path.substr(pos, end - pos);
    if (!part.empty()) length += part.size() + (length > 0 || rooted ? 1 : 0);
    pos = end;
  }
  return length == 0 && rooted ? 1 : length;
}

}  // namespace

namespace zr {

const CDualCRC& HashIdEngine() { return g_hash_id_engine; }
const CDualCRC& ChecksumEngine() { return g_checksum_engine; }

std::u16string GeneratedComputerName(long long unix_seconds, unsigned extra_seconds) {
  using namespace std::chrono;
  const sys_seconds when{seconds{unix_seconds}};
  const sys_days day = floor<days>(when);
  const year_month_day date{day};
  const auto second_of_day = static_cast<unsigned>((when - day).count()) + extra_seconds;
  char text[48];
  std::snprintf(text, sizeof(text), "VORN%02u%02u%02u%u", static_cast<unsigned>(int(date.year()) - 1996),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), second_of_day);
  return os::Utf8ToUtf16(text);
}

}  // namespace zr

DWORD GetHashID(const char* name) { return g_hash_id_engine.Eval(name); }
DWORD GetHashIDi(const char* name) { return g_hash_id_engine.Evali(name); }
DWORD GetHashIDT(const WCHAR* name) { return g_hash_id_engine.Eval(name); }
DWORD GetHashIDTi(const WCHAR* name) { return g_hash_id_engine.Evali(name); }
DWORD GetHashIDTW(const WCHAR* name) { return g_hash_id_engine.Eval(name); }
DWORD GetHashIDTWi(const WCHAR* name) { return g_hash_id_engine.Evali(name); }
DWORD GetHashIDW(const WCHAR* name) { return g_hash_id_engine.Eval(name); }
DWORD GetHashIDWi(const WCHAR* name) { return g_hash_id_engine.Eval(name); }  // no folding, on purpose

DWORD GetUserHashIDA(const char* userName) {
  if (!userName || !userName[0]) return ZR_NO_ID;
  std::u16string wide = zr::os::Utf8ToUtf16(userName);
  if (wide.size() > kMaxPathChars) wide.resize(kMaxPathChars);
  return GetHashIDWi(wide.c_str());
}

DWORD GetUserHashIDW(const WCHAR* userName) {
  if (!userName || !userName[0]) return ZR_NO_ID;
  return GetHashIDWi(userName);
}

DWORD GetPathHash(const WCHAR* path) {
  if (!path) return ZR_NO_ID;
  std::u16string_view copy(path);
  if (copy.size() > kMaxPathChars) copy = copy.substr(0, kMaxPathChars);
  if (NormalisedPathLength(copy) < 2) return ZR_NO_ID;
  return GetHashIDTW(path);  // the path as given, not the normalised copy
}

DWORD GetCRC1615(const void* data, DWORD length) { return g_checksum_engine.Eval(data, length); }

DWORD AddCRC1615(DWORD a, DWORD b) {
  BYTE bytes[8];
  zr::StoreLE32(bytes, a);
  zr::StoreLE32(bytes + 4, b);
  return g_checksum_engine.Eval(bytes, sizeof(bytes));
}

DWORD GetComputerID() {
  // A race only computes the same value twice; a failed lookup stays uncached and is retried.
  DWORD id = g_computer_id.load(std::memory_order_relaxed);
  if (id != ZR_NO_ID) return id;
  WCHAR name[kComputerNameBuffer] = {};
  if (!GetCreateComputerName(name, kComputerNameBuffer)) return ZR_NO_ID;
  id = GetHashIDWi(name);
  g_computer_id.store(id, std::memory_order_relaxed);
  return id;
}

int GetCreateComputerName(WCHAR* buffer, DWORD length) {
  if (!buffer) return 0;
  DWORD reported = length;
  bool have_name = zr::os::QueryComputerName(buffer, &reported);
  if (!have_name) {
    // A name that exists but does not fit is a failure too (names never exceed 15 characters).
    if (reported < kComputerNameBuffer || reported > length) return 0;
    // No name at all: make one from the current UTC time and keep it as this machine's name. When
    // keeping fails, another process may just have kept its own; take that, else try the next second.
    const long long now = std::chrono::duration_cast<std::chrono::seconds>(
                              std::chrono::system_clock::now().time_since_epoch()).count();
    for (int attempt = 0; attempt < kMaxNameAttempts && !have_name; ++attempt) {
      const std::u16string name = zr::GeneratedComputerName(now, static_cast<unsigned>(attempt));
      if (zr::os::StoreComputerName(name.c_str())) {
        zr::os::WStrCopy(buffer, length, name);
        have_name = true;
      } else {
        reported = length;
        have_name = zr::os::QueryComputerName(buffer, &reported);
      }
    }
    if (!have_name) return 0;
  }
  for (WCHAR* p = buffer; *p; ++p)
    if (*p >= u'a' && *p <= u'z') *p = static_cast<WCHAR>(*p - u'a' + u'A');
  return 1;
}
