// Path normalisation, file name positions and first-match directory search.
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
