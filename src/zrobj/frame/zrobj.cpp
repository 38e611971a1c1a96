// The library's settings stores ("ZRO.INI" integers, "ZRO.VST" settings file), the application
// root directory, the product name and the registration of file types under HKEY_CLASSES_ROOT.
#include "zrobj/zrobj.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "platform/fileutil.h"
#include "platform/inifile.h"
#include "platform/module.h"
#include "platform/profile.h"
#include "platform/registry.h"
#include "platform/settingsfile.h"
#include "platform/text.h"
#include "frame/frame_internal.h"

namespace os = zr::os;

namespace {

constexpr const char* kProfileFile = "ZRO.INI";
constexpr const char16_t* kSettingsFileName = u"ZRO.VST";
constexpr std::size_t kProductNameLength = 64;

std::atomic<os::CSetFile*> g_settings_file{nullptr};
WCHAR g_settings_path[ZR_MAX_PATH];
WCHAR g_product_name[kProductNameLength];

std::mutex g_override_mutex;
std::u16string* g_library_file_override = nullptr;  // tests only

// atoi as the system's C library has it: blanks, sign, digits up to the first other character;
// out-of-range values saturate instead of being undefined.
int ProfileAtoi(const char* text) {
  errno = 0;
  const long long v = std::strtoll(text, nullptr, 10);
  if (v > INT_MAX) return INT_MAX;
  if (v < INT_MIN) return INT_MIN;
  return static_cast<int>(v);
}

// Creates the settings file object on the Windows directory's "ZRO.VST"; null when it cannot be
// used now (the next call tries again).
os::CSetFile* SettingsFile() {
  if (os::CSetFile* file = g_settings_file.load(std::memory_order_acquire)) return file;
  WCHAR path[ZR_MAX_PATH];
  const UINT n = os::GetWindowsDirectoryW(path, ZR_MAX_PATH);
  if (n == 0 || n >= ZR_MAX_PATH || !os::FU_FormatPath(path, ZR_MAX_PATH, u'/')) return nullptr;
  const std::size_t dir_length = os::WStrLen(path);
  if (dir_length + std::char_traits<char16_t>::length(kSettingsFileName) + 1 > ZR_MAX_PATH) return nullptr;
  os::WStrCopy(path + dir_length, ZR_MAX_PATH - dir_length, kSettingsFileName);
  auto* file = new os::CSetFile(path);
  if (!file->IsUsable()) {
    delete file;
    return nullptr;
  }
  os::CSetFile* expected = nullptr;
  if (!g_settings_file.compare_exchange_strong(expected, file)) {
    delete file;  // another thread won the race
    return expected;
  }
  os::WStrCopy(g_settings_path, ZR_MAX_PATH, path);
  return file;
}

// The library's own file name, or the tests' stand-in; FALSE when it cannot be had in full.
BOOL LibraryFileName(WCHAR* buffer) {
  {
    std::lock_guard lock(g_override_mutex);
    if (g_library_file_override) {
      if (g_library_file_override->size() + 1 > ZR_MAX_PATH) return FALSE;
      os::WStrCopy(buffer, ZR_MAX_PATH, *g_library_file_override);
      return TRUE;
    }
  }
  const DWORD n = os::GetModuleFileNameW(ZROBJ_GetModuleHandle(), buffer, ZR_MAX_PATH);
  return n != 0 && n < ZR_MAX_PATH;
}

// An integer or boolean setting: the value read, else the default (written back on request).
int CurrentSettingValue(BOOL (os::CSetFile::*read)(const char*, const char*, int*) const,
                        BOOL (os::CSetFile::*write)(const char*, const char*, int), const char* section, const char* key,
                        int defaultValue, int writeDefault) {
  int value = defaultValue;
  os::CSetFile* file = SettingsFile();
  if (file && !(file->*read)(section, key, &value) && writeDefault) (file->*write)(section, key, defaultValue);
  return value;
}

// Sets a key's default value as the system always has: the length passed is the number of
// characters plus one, given as bytes, so only the first half of the text is stored.
LONG SetDefaultValue(os::HKEY key, const WCHAR* text) {
  const auto length = static_cast<DWORD>(os::WStrLen(text) + 1);
  return os::RegSetValueExW(key, nullptr, 0, os::REG_SZ, reinterpret_cast<const BYTE*>(text), length);
}

void SetSubkeyDefault(os::HKEY parent, const WCHAR* subKey, const WCHAR* text) {
  os::HKEY key = nullptr;
  if (os::RegCreateKeyExW(parent, subKey, os::KEY_ALL_ACCESS, &key) != ERROR_SUCCESS) return;
  SetDefaultValue(key, text);
  os::RegCloseKey(key);
}

}  // namespace

namespace zr {

void DestroySettingsFile() { delete g_settings_file.exchange(nullptr); }

namespace testing {

void ResetSettingsFile() { DestroySettingsFile(); }

void ResetProductName() { g_product_name[0] = 0; }

void SetLibraryFileNameOverride(const WCHAR* path) {
  std::lock_guard lock(g_override_mutex);
  delete g_library_file_override;
  g_library_file_override = path ? new std::u16string(path) : nullptr;
}

}  // namespace testing
}  // namespace zr

int ZROBJ_GetProfileInt(const char* section, const char* key, int defaultValue, int writeDefault) {
  // Null names would list or delete whole sections in a profile file: not for this function.
  if (!section || !key) return defaultValue;
  char text[32];
  os::GetPrivateProfileStringA(section, key, "", text, sizeof text, kProfileFile);
  if (text[0]) return ProfileAtoi(text);
  if (writeDefault) ZROBJ_WriteProfileInt(section, key, defaultValue);
  return defaultValue;
}

int ZROBJ_WriteProfileInt(const char* section, const char* key, int value) {
  if (!section || !key) return 0;
  char text[16];
  std::snprintf(text, sizeof text, "%d", value);
  return os::WritePrivateProfileStringA(section, key, text, kProfileFile);
}

UINT ZROBJ_GetCurrentSettingStr(const char* section, const char* key, const WCHAR* defaultValue, WCHAR* buffer,
                                UINT length, int writeDefault) {
  if (!buffer || length == 0) return 0;
  os::CSetFile* file = SettingsFile();
  if (file && file->ReadSettingString(section, key, buffer, length)) return static_cast<UINT>(os::WStrLen(buffer));
  const WCHAR* fallback = defaultValue ? defaultValue : u"";
  if (file && writeDefault) file->WriteSettingString(section, key, fallback);
  // At most `length` characters of the default, and the last one of the buffer is always 0.
  UINT i = 0;
  for (; i < length && fallback[i]; ++i) buffer[i] = fallback[i];
  if (i < length) buffer[i] = 0;
  buffer[length - 1] = 0;
  return static_cast<UINT>(os::WStrLen(buffer));
}

int ZROBJ_GetCurrentSettingInt(const char* section, const char* key, int defaultValue, int writeDefault) {
  return CurrentSettingValue(&os::CSetFile::ReadSettingInt, &os::CSetFile::WriteSettingInt, section, key, defaultValue,
                             writeDefault);
}

int ZROBJ_GetCurrentSettingBool(const char* section, const char* key, int defaultValue, int writeDefault) {
  return CurrentSettingValue(&os::CSetFile::ReadSettingBool, &os::CSetFile::WriteSettingBool, section, key, defaultValue,
                             writeDefault);
}

int ZROBJ_WriteCurrentSettingStr(const char* section, const char* key, const WCHAR* value) {
  if (!value || !value[0]) return 0;  // an empty string can never be stored, by design
  os::CSetFile* file = SettingsFile();
  return file ? file->WriteSettingString(section, key, value) : 0;
}

int ZROBJ_WriteCurrentSettingInt(const char* section, const char* key, int value) {
  os::CSetFile* file = SettingsFile();
  return file ? file->WriteSettingInt(section, key, value) : 0;
}

int ZROBJ_WriteCurrentSettingBool(const char* section, const char* key, int value) {
  os::CSetFile* file = SettingsFile();
  return file ? file->WriteSettingBool(section, key, value) : 0;
}

int ZROBJ_ReadCurrentSettingStr(const char* section, const char* key, WCHAR* buffer, UINT length) {
  if (!buffer || length == 0) return 0;
  buffer[0] = 0;
  os::CSetFile* file = SettingsFile();
  if (!file) return -1;
  return file->ReadSettingString(section, key, buffer, length) ? 1 : 0;
}

int ZROBJ_ReadProfileString(const char* section, const char* key, char* buffer, UINT size) {
  if (!buffer || size == 0 || !section || !key) return 0;
  buffer[0] = 0;
  const std::string path = zr::os::ProfileFilePath(kProfileFile);
  if (zr::os::IniGetState(path) == zr::os::IniFileState::kUnreadable) return -1;
  const auto value = zr::os::IniRead(path, section, key);
  if (!value) return 0;
  const std::size_t n = std::min<std::size_t>(value->size(), size - 1);
  value->copy(buffer, n);
  buffer[n] = 0;
  return 1;
}

int ZROBJ_WriteProfileString(const char* section, const char* key, const char* value) {
  if (!value) return 0;  // a null value would delete the key
  return os::WritePrivateProfileStringA(section, key, value, kProfileFile);
}

UINT ZROBJ_GetSettingsFilePath(const char* fileName, WCHAR* buffer, UINT length) {
  if (!fileName || !buffer || length == 0) return 0;
  const std::u16string path = zr::os::Utf8ToUtf16(zr::os::ProfileFilePath(fileName));
  if (path.size() + 1 > length) return 0;
  return static_cast<UINT>(zr::os::WStrCopy(buffer, length, path));
}

int ZROBJ_GetAppRootDir(WCHAR* buffer) {
  if (!buffer) return 0;
  buffer[0] = 0;
  WCHAR path[ZR_MAX_PATH];
  if (!LibraryFileName(path)) return 0;
  // Cut the file name with the separator before it, then the directory after its last separator.
  WCHAR* name = os::FU_FindFilename(path);
  if (name > path) name[-1] = 0;
  if (WCHAR* separator = os::FU_FindLastSeparator(path)) separator[1] = 0;
  os::WStrCopy(buffer, ZR_MAX_PATH, path);
  return 1;
}

const WCHAR* ZROBJ_GetProductName() {
  if (g_product_name[0]) return g_product_name;
  WCHAR pattern[ZR_MAX_PATH];
  if (!LibraryFileName(pattern)) return g_product_name;
  WCHAR* separator = os::FU_FindLastSeparator(pattern);
  WCHAR* tail = separator ? separator + 1 : pattern;
  const auto used = static_cast<std::size_t>(tail - pattern);
  if (os::WStrCopy(tail, ZR_MAX_PATH - used, u"resource/*.sc") != 13) return g_product_name;
  WCHAR found[ZR_MAX_PATH];
  if (!os::FU_GetFirstMatch(pattern, found, ZR_MAX_PATH)) return g_product_name;
  std::u16string_view name(found);
  if (const auto dot = name.rfind(u'.'); dot != std::u16string_view::npos) name = name.substr(0, dot);
  os::WStrCopy(g_product_name, kProductNameLength, name);
  return g_product_name;
}

int RegisterFileType(const WCHAR* extension, const WCHAR* typeName, const WCHAR* description, const WCHAR* icon,
                     const WCHAR* openCommand) {
  if (!extension || !extension[0] || !typeName || !typeName[0]) return 0;
  os::HKEY key = nullptr;
  if (os::RegOpenKeyExW(HKEY_CLASSES_ROOT, extension, 0, os::KEY_READ, &key) == ERROR_SUCCESS) {
    os::RegCloseKey(key);  // an existing registration is never overwritten
    return 1;
  }
  if (os::RegCreateKeyExW(HKEY_CLASSES_ROOT, extension, os::KEY_ALL_ACCESS, &key) != ERROR_SUCCESS) return 0;
  const LONG set = SetDefaultValue(key, typeName);
  os::RegCloseKey(key);
  if (set != ERROR_SUCCESS) return 1;
  os::HKEY type = nullptr;
  if (os::RegCreateKeyExW(HKEY_CLASSES_ROOT, typeName, os::KEY_ALL_ACCESS, &type) != ERROR_SUCCESS) return 1;
  if (description) SetDefaultValue(type, description);
  if (icon) SetSubkeyDefault(type, u"DefaultIcon", icon);
  if (openCommand) SetSubkeyDefault(type, u"shell\\open\\command", openCommand);
  os::RegCloseKey(type);
  return 1;
}
