// CSetFile: a settings file ("ZRO.VST", ".acl") keeping wide strings, integers and booleans under
// narrow section and key names, in UTF-8 INI text shared safely between processes.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zrobj/export.h"
#include "zrobj/zrtypes.h"

namespace zr::os {

class CSetFile {
 public:
  // Binds to the file at `path` (UTF-16, '/' separators); nothing is created until a write.
  explicit CSetFile(const WCHAR* path);
  ~CSetFile();
  CSetFile(const CSetFile&) = delete;
  CSetFile& operator=(const CSetFile&) = delete;

  // Non-zero when the file can be used: it exists and is readable, or it does not exist yet.
  BOOL IsUsable() const;

  // The reads fill their last argument and return non-zero only when the key holds a value of the
  // kind asked for. A string longer than `length`-1 characters is cut. The writes return non-zero
  // when the file was replaced; a file that exists but cannot be read is never overwritten.
  BOOL ReadSettingString(const char* section, const char* key, WCHAR* buffer, UINT length) const;
  BOOL WriteSettingString(const char* section, const char* key, const WCHAR* value);
  BOOL ReadSettingInt(const char* section, const char* key, int* value) const;
  BOOL WriteSettingInt(const char* section, const char* key, int value);
  BOOL ReadSettingBool(const char* section, const char* key, int* value) const;
  BOOL WriteSettingBool(const char* section, const char* key, int value);

  // 32-bit values, written as "0x" and eight hex digits; reads take every integer form of
  // ReadSettingInt.
  BOOL ReadSettingDWORD(const char* section, const char* key, DWORD* value) const;
  BOOL WriteSettingDWORD(const char* section, const char* key, DWORD value);

  // The first `limit` section names, in file order.
  std::vector<std::string> GetSectionNames(std::size_t limit) const;
  // Removes the file (never a directory); non-zero when it is gone afterwards (also when there was
  // none).
  BOOL DeleteSettingFile();

  const std::string& path() const { return path_; }  // UTF-8

 private:
  std::optional<std::string> ReadRaw(const char* section, const char* key) const;
  BOOL WriteRaw(const char* section, const char* key, std::string value);

  std::string path_;
};

// The text form of a string value: backslash, control characters and a quote at either end are
// escaped (\\, \xHH) so that any string survives the line-based file. Exposed for tests.
std::string EscapeSettingValue(std::string_view utf8);
std::string UnescapeSettingValue(std::string_view text);
// Integer text: optional sign and decimal digits, or 0x and up to eight hex digits, nothing else.
std::optional<int> ParseSettingInt(std::string_view text);

}  // namespace zr::os
