// Path normalisation, file name positions, first-match search and directory trees (walk, create, delete).
#include "platform/fileutil.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/text.h"

namespace zr::os {

namespace {

char16_t Lower(char16_t c) { return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + 32) : c; }

WCHAR* Mutable(const WCHAR* p) { return const_cast<WCHAR*>(p); }

}  // namespace

bool WildcardMatch(std::u16string_view pattern, std::u16string_view name) {
  // Greedy match with one backtrack point: the last '*' seen.
  std::size_t p = 0, n = 0, star = std::u16string_view::npos, resume = 0;
  while (n < name.size()) {
    if (p < pattern.size() && (pattern[p] == u'?' || Lower(pattern[p]) == Lower(name[n]))) {
      ++p;
      ++n;
    } else if (p < pattern.size() && pattern[p] == u'*') {
      star = p++;
      resume = n;
    } else if (star != std::u16string_view::npos) {
      p = star + 1;
      n = ++resume;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == u'*') ++p;
  return p == pattern.size();
}

BOOL FU_FormatPath(WCHAR* path, UINT capacity, WCHAR separator) {
  if (!path || capacity == 0 || separator == 0) return FALSE;
  const std::size_t length = WStrLen(path);
  if (length >= capacity) return FALSE;
  std::u16string out;
  out.reserve(length + 1);
  for (std::size_t i = 0; i < length; ++i) {
    const bool sep = path[i] == u'/' || path[i] == u'\\';
    if (!sep) {
      out.push_back(path[i]);
    } else if (out.empty() || out.back() != separator) {
      out.push_back(separator);
    }
  }
  if (!out.empty() && out.back() != separator) out.push_back(separator);
  if (out.size() + 1 > capacity) return FALSE;
  WStrCopy(path, capacity, out);
  return TRUE;
}

WCHAR* FU_FindFilename(const WCHAR* path) {
  if (!path) return nullptr;
  const WCHAR* sep = FU_FindLastSeparator(path);
  return Mutable(sep ? sep + 1 : path);
}

WCHAR* FU_FindLastSeparator(const WCHAR* path) {
  if (!path) return nullptr;
  const WCHAR* last = nullptr;
  for (const WCHAR* p = path; *p; ++p)
    if (*p == u'/') last = p;
  return Mutable(last);
}

WCHAR* FU_FindExtension(const WCHAR* path) {
  const WCHAR* name = FU_FindFilename(path);
  if (!name || !*name) return nullptr;
  const WCHAR* dot = nullptr;
  for (const WCHAR* p = name + 1; *p; ++p)
    if (*p == u'.') dot = p;
  return Mutable(dot);
}

BOOL FU_GetFirstMatch(const WCHAR* pattern, WCHAR* found, UINT capacity) {
  if (!pattern || !found || capacity == 0) return FALSE;
  found[0] = 0;
  const WCHAR* name_pattern = FU_FindFilename(pattern);
  const std::u16string dir(pattern, static_cast<std::size_t>(name_pattern - pattern));
  const std::u16string_view wanted(name_pattern);
  if (wanted.empty()) return FALSE;
  std::error_code ec;
  std::filesystem::directory_iterator it(dir.empty() ? std::string(".") : Utf16ToUtf8(dir), ec);
  std::vector<std::string> matches;
  for (; !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (WildcardMatch(wanted, Utf8ToUtf16(name))) matches.push_back(name);
  }
  if (matches.empty()) return FALSE;
  const std::u16string first = Utf8ToUtf16(*std::min_element(matches.begin(), matches.end()));
  if (first.size() + 1 > capacity) return FALSE;
  WStrCopy(found, capacity, first);
  return TRUE;
}

}  // namespace zr::os

// ---- Directory trees ----

namespace zr::os {
namespace {

namespace fs = std::filesystem;

fs::path NativePath(const WCHAR* path) { return fs::path(Utf16ToUtf8(path ? path : u"")); }

std::u16string Normalised(const WCHAR* path) {
  WCHAR buffer[ZR_MAX_PATH * 4] = {};
  WStrCopy(buffer, std::size(buffer), path ? path : u"");
  if (!FU_FormatPath(buffer, std::size(buffer), u'/')) return {};
  return buffer;
}

// Visits the entries of one directory in name order, descending into subdirectories.
bool Walk(const fs::path& directory, FU_EnumCallback visit, void* context) {
  std::error_code ec;
  std::vector<fs::path> names;
  for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec))
    names.push_back(it->path());
  if (ec) return false;
  std::sort(names.begin(), names.end());
  for (const fs::path& entry : names) {
    if (fs::is_symlink(fs::symlink_status(entry, ec))) continue;
    const std::u16string wide = Utf8ToUtf16(entry.string());
    FileInfo info;
    if (!GetFileInfoW(wide.c_str(), &info) || !visit(wide.c_str(), info, context)) return false;
    if ((info.attributes & kFileAttributeDirectory) && !Walk(entry, visit, context)) return false;
  }
  return true;
}

}  // namespace

bool FU_IsPathContained(const WCHAR* path, const WCHAR* directory) {
  const std::u16string p = Normalised(path), d = Normalised(directory);
  return !d.empty() && p.size() >= d.size() && p.compare(0, d.size(), d) == 0;
}

BOOL FU_TestDirExists(const WCHAR* path) {
  std::error_code ec;
  return fs::is_directory(NativePath(path), ec) ? TRUE : FALSE;
}

BOOL FU_CreatePath(const WCHAR* path) {
  const WCHAR* last = FU_FindLastSeparator(path);
  if (!last) return TRUE;  // no directory part
  const std::u16string directory(path, static_cast<std::size_t>(last - path) + 1);
  std::error_code ec;
  fs::create_directories(NativePath(directory.c_str()), ec);
  return FU_TestDirExists(directory.c_str());
}

BOOL FU_DeleteDirectory(const WCHAR* path) {
  std::error_code ec;
  const fs::path native = NativePath(path);
  fs::remove_all(native, ec);
  return !fs::exists(fs::symlink_status(native, ec)) ? TRUE : FALSE;
}

BOOL FU_EnumDirectory(FU_EnumCallback visit, const WCHAR* directory, void* context) {
  if (!visit || !FU_TestDirExists(directory)) return FALSE;
  return Walk(NativePath(directory), visit, context) ? TRUE : FALSE;
}

}  // namespace zr::os
