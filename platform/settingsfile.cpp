// CSetFile on the shared INI layer: values are escaped text, integers decimal, booleans 1/0.
#include "platform/settingsfile.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "platform/inifile.h"
#include "platform/text.h"

namespace zr::os {

namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool EqualsNoCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const char x = a[i] >= 'A' && a[i] <= 'Z' ? static_cast<char>(a[i] + 32) : a[i];
    if (x != b[i]) return false;
  }
  return true;
}

std::string_view Trim(std::string_view s) {
  const auto first = s.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t") - first + 1);
}

bool ValidName(const char* name) { return name && *name; }

}  // namespace

std::string EscapeSettingValue(std::string_view utf8) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(utf8.size());
  for (std::size_t i = 0; i < utf8.size(); ++i) {
    const auto c = static_cast<unsigned char>(utf8[i]);
    const bool edge_quote = c == '"' && (i == 0 || i + 1 == utf8.size());
    if (c == '\\') {
      out += "\\\\";
    } else if (c < 0x20 || c == 0x7F || edge_quote) {
      out += "\\x";
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  return out;
}

std::string UnescapeSettingValue(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == '\\') {
      out.push_back('\\');
      ++i;
    } else if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' && HexDigit(text[i + 2]) >= 0 &&
               HexDigit(text[i + 3]) >= 0) {
      out.push_back(static_cast<char>(HexDigit(text[i + 2]) * 16 + HexDigit(text[i + 3])));
      i += 3;
    } else {
      out.push_back(text[i]);  // a lone backslash (hand-edited file) stays as written
    }
  }
  return out;
}

std::optional<int> ParseSettingInt(std::string_view text) {
  text = Trim(text);
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    std::uint32_t v = 0;
    const auto hex = text.substr(2);
    const auto [end, ec] = std::from_chars(hex.data(), hex.data() + hex.size(), v, 16);
    if (ec != std::errc() || end != hex.data() + hex.size()) return std::nullopt;
    return static_cast<int>(v);
  }
  if (!text.empty() && text[0] == '+') text.remove_prefix(1);
  int v = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, 10);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return v;
}

CSetFile::CSetFile(const WCHAR* path) : path_(Utf16ToUtf8(path ? std::u16string_view(path) : u"")) {}

CSetFile::~CSetFile() = default;

BOOL CSetFile::IsUsable() const {
  return !path_.empty() && IniGetState(path_) != IniFileState::kUnreadable ? TRUE : FALSE;
}

std::optional<std::string> CSetFile::ReadRaw(const char* section, const char* key) const {
  if (!ValidName(section) || !ValidName(key) || path_.empty()) return std::nullopt;
  return IniRead(path_, section, key);
}

BOOL CSetFile::WriteRaw(const char* section, const char* key, std::string value) {
  if (!ValidName(section) || !ValidName(key) || path_.empty()) return FALSE;
  const IniOp op{IniOp::Kind::kSet, section, key, std::move(value)};
  return IniUpdate(path_, {&op, 1}) ? TRUE : FALSE;
}

BOOL CSetFile::ReadSettingString(const char* section, const char* key, WCHAR* buffer, UINT length) const {
  if (!buffer || length == 0) return FALSE;
  const auto raw = ReadRaw(section, key);
  if (!raw) return FALSE;
  WStrCopy(buffer, length, Utf8ToUtf16(UnescapeSettingValue(*raw)));
  return TRUE;
}

BOOL CSetFile::WriteSettingString(const char* section, const char* key, const WCHAR* value) {
  if (!value) return FALSE;
  return WriteRaw(section, key, EscapeSettingValue(Utf16ToUtf8(value)));
}

BOOL CSetFile::ReadSettingInt(const char* section, const char* key, int* value) const {
  const auto raw = ReadRaw(section, key);
  const auto parsed = raw ? ParseSettingInt(*raw) : std::nullopt;
  if (!parsed || !value) return FALSE;
  *value = *parsed;
  return TRUE;
}

BOOL CSetFile::WriteSettingInt(const char* section, const char* key, int value) {
  return WriteRaw(section, key, std::to_string(value));
}

BOOL CSetFile::ReadSettingBool(const char* section, const char* key, int* value) const {
  const auto raw = ReadRaw(section, key);
  if (!raw || !value) return FALSE;
  const std::string_view text = Trim(*raw);
  for (const char* yes : {"true", "yes", "on"})
    if (EqualsNoCase(text, yes)) return *value = 1, TRUE;
  for (const char* no : {"false", "no", "off"})
    if (EqualsNoCase(text, no)) return *value = 0, TRUE;
  const auto number = ParseSettingInt(text);
  if (!number) return FALSE;
  *value = *number != 0 ? 1 : 0;
  return TRUE;
}

BOOL CSetFile::WriteSettingBool(const char* section, const char* key, int value) {
  return WriteRaw(section, key, value ? "1" : "0");
}

BOOL CSetFile::ReadSettingDWORD(const char* section, const char* key, DWORD* value) const {
  int read = 0;
  if (!value || !ReadSettingInt(section, key, &read)) return FALSE;
  *value = static_cast<DWORD>(read);
  return TRUE;
}

BOOL CSetFile::WriteSettingDWORD(const char* section, const char* key, DWORD value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(value));
  return WriteRaw(section, key, text);
}

std::vector<std::string> CSetFile::GetSectionNames(std::size_t limit) const {
  if (path_.empty()) return {};
  std::vector<std::string> names = IniSections(path_);
  if (names.size() > limit) names.resize(limit);
  return names;
}

BOOL CSetFile::DeleteSettingFile() {
  if (path_.empty()) return FALSE;
  std::error_code ec;
  if (std::filesystem::is_directory(std::filesystem::symlink_status(path_, ec))) return FALSE;
  std::filesystem::remove(path_, ec);
  return ec ? FALSE : TRUE;
}

}  // namespace zr::os
