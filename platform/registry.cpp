// Registry keys on the INI layer: section "HKCR\<path>" per key, "@" the default value,
// values stored as "<type>:<hex bytes>" so that any byte length survives exactly.
#include "platform/registry.h"

#include <string>

#include "platform/inifile.h"
#include "platform/profile.h"
#include "platform/text.h"

namespace zr::os {

struct ZrRegKey {
  std::string path;  // "HKCR" or "HKCR\\sub\\key", UTF-8
};

namespace {

constexpr const char* kStoreFile = "HKCR.INI";
constexpr const char* kDefaultValueName = "@";

ZrRegKey& Root() {
  static ZrRegKey* root = new ZrRegKey{"HKCR"};
  return *root;
}

std::string StorePath() { return ProfileFilePath(kStoreFile); }

// Joins parent and sub path; empty result for a name the store cannot hold.
std::string Join(HKEY parent, const WCHAR* subKey) {
  std::string path = parent->path;
  if (!subKey || !*subKey) return path;
  const std::string sub = Utf16ToUtf8(subKey);
  std::size_t start = 0;
  while (start <= sub.size()) {
    std::size_t end = sub.find('\\', start);
    if (end == std::string::npos) end = sub.size();
    const std::string part = sub.substr(start, end - start);
    if (part.empty() || part != std::string(IniTrimName(part)) || part.find_first_of("[]\r\n") != std::string::npos)
      return {};
    path += "\\" + part;
    start = end + 1;
  }
  return path;
}

std::string ValueKey(const WCHAR* valueName) {
  return valueName && *valueName ? Utf16ToUtf8(valueName) : kDefaultValueName;
}

std::string Encode(DWORD type, const BYTE* data, DWORD size) {
  static const char kHex[] = "0123456789abcdef";
  std::string text = std::to_string(type) + ":";
  for (DWORD i = 0; i < size; ++i) {
    text.push_back(kHex[data[i] >> 4]);
    text.push_back(kHex[data[i] & 15]);
  }
  return text;
}

int Nibble(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool Decode(const std::string& text, DWORD* type, std::string* bytes) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos || colon == 0 || colon > 10 || (text.size() - colon - 1) % 2) return false;
  unsigned long long t = 0;
  for (std::size_t i = 0; i < colon; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    t = t * 10 + static_cast<unsigned>(text[i] - '0');
  }
  if (t > 0xFFFFFFFFull) return false;
  bytes->clear();
  for (std::size_t i = colon + 1; i < text.size(); i += 2) {
    const int hi = Nibble(text[i]), lo = Nibble(text[i + 1]);
    if (hi < 0 || lo < 0) return false;
    bytes->push_back(static_cast<char>(hi * 16 + lo));
  }
  *type = static_cast<DWORD>(t);
  return true;
}

bool KeyExists(const std::string& path) { return path == Root().path || IniHasSection(StorePath(), path); }

}  // namespace

HKEY RegClassesRoot() { return &Root(); }

LONG RegOpenKeyExW(HKEY parent, const WCHAR* subKey, DWORD, REGSAM, HKEY* result) {
  if (!parent || !result) return ERROR_INVALID_PARAMETER;
  *result = nullptr;
  const std::string path = Join(parent, subKey);
  if (path.empty()) return ERROR_INVALID_PARAMETER;
  if (!KeyExists(path)) return ERROR_FILE_NOT_FOUND;
  *result = new ZrRegKey{path};
  return ERROR_SUCCESS;
}

LONG RegCreateKeyExW(HKEY parent, const WCHAR* subKey, REGSAM, HKEY* result) {
  if (!parent || !result) return ERROR_INVALID_PARAMETER;
  *result = nullptr;
  const std::string path = Join(parent, subKey);
  if (path.empty()) return ERROR_INVALID_PARAMETER;
  if (!KeyExists(path)) {
    // Every key on the way down exists afterwards, as in the registry.
    std::vector<IniOp> ops;
    for (std::size_t at = path.find('\\'); at != std::string::npos; at = path.find('\\', at + 1))
      ops.push_back({IniOp::Kind::kAddSection, path.substr(0, path.find('\\', at + 1)), {}, {}});
    if (!IniUpdate(StorePath(), ops)) return ERROR_ACCESS_DENIED;
  }
  *result = new ZrRegKey{path};
  return ERROR_SUCCESS;
}

LONG RegSetValueExW(HKEY key, const WCHAR* valueName, DWORD, DWORD type, const BYTE* data, DWORD size) {
  if (!key || key == HKEY_CLASSES_ROOT) return ERROR_INVALID_HANDLE;
  if (!data && size) return ERROR_INVALID_PARAMETER;
  const IniOp op{IniOp::Kind::kSet, key->path, ValueKey(valueName), Encode(type, data, size)};
  return IniUpdate(StorePath(), {&op, 1}) ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
}

LONG RegQueryValueExW(HKEY key, const WCHAR* valueName, DWORD*, DWORD* type, BYTE* data, DWORD* size) {
  if (!key) return ERROR_INVALID_HANDLE;
  if (data && !size) return ERROR_INVALID_PARAMETER;
  const auto text = IniRead(StorePath(), key->path, ValueKey(valueName));
  DWORD stored_type = 0;
  std::string bytes;
  if (!text || !Decode(*text, &stored_type, &bytes)) return ERROR_FILE_NOT_FOUND;
  if (type) *type = stored_type;
  const DWORD capacity = size ? *size : 0;
  if (size) *size = static_cast<DWORD>(bytes.size());
  if (!data) return ERROR_SUCCESS;
  if (capacity < bytes.size()) return ERROR_MORE_DATA;
  std::copy(bytes.begin(), bytes.end(), data);
  return ERROR_SUCCESS;
}

LONG RegCloseKey(HKEY key) {
  if (!key) return ERROR_INVALID_HANDLE;
  if (key != HKEY_CLASSES_ROOT) delete key;
  return ERROR_SUCCESS;
}

LONG RegDeleteTreeW(HKEY parent, const WCHAR* subKey) {
  if (!parent) return ERROR_INVALID_HANDLE;
  const std::string path = Join(parent, subKey);
  if (path.empty() || path == HKEY_CLASSES_ROOT->path) return ERROR_INVALID_PARAMETER;
  if (!KeyExists(path)) return ERROR_FILE_NOT_FOUND;
  const IniOp op{IniOp::Kind::kDeleteSectionTree, path, {}, {}};
  return IniUpdate(StorePath(), {&op, 1}) ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
}

}  // namespace zr::os
