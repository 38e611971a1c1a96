// CShortCut: ".zrs" files written and read through the shared INI layer (UTF-8 text). Paths are
// taken as given (relative ones from the working directory), not placed in the settings directory.
#include "zrobj/cshortcut.h"

#include <optional>
#include <string>

#include "platform/dlgsvc.h"
#include "platform/fileutil.h"
#include "platform/inifile.h"
#include "platform/text.h"
#include "zrobj/zrdiag.h"

namespace os = zr::os;

namespace {

constexpr const char* kSection = "Driver";
constexpr const char* kLegacyKey = "Legacy";
constexpr const char* kPathKey = "Path";
constexpr const char16_t* kDefaultLegacy = u"ZROBJ";

std::string Utf8(const WCHAR* text) { return os::Utf16ToUtf8(text ? std::u16string_view(text) : u""); }

bool HasExtension(const WCHAR* path) { return path != nullptr && os::FU_FindExtension(path) != nullptr; }

bool IsExistingFile(const WCHAR* path) {
  if (path == nullptr || *path == 0) return false;
  const DWORD attributes = os::GetFileAttributesW(path);
  return attributes != os::kInvalidFileAttributes && (attributes & os::kFileAttributeDirectory) == 0;
}

char16_t Lower(char16_t c) { return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + 32) : c; }

// The extension begins with ".zrs" in any case; whatever follows those four characters is allowed.
bool IsShortcutName(const WCHAR* path) {
  if (!HasExtension(path)) return false;
  const WCHAR* extension = os::FU_FindExtension(path);
  const char16_t* expected = u".zrs";
  for (int i = 0; i < 4; ++i)
    if (Lower(extension[i]) != expected[i]) return false;  // a shorter extension stops at its terminator
  return true;
}

// Empties the buffer; false when there is none to fill.
bool ClearBuffer(WCHAR* buffer, int length) {
  if (buffer == nullptr || length <= 0) return false;
  buffer[0] = 0;
  return true;
}

std::optional<std::string> ReadValue(const WCHAR* shortcutPath, const char* key) {
  return os::IniRead(Utf8(shortcutPath), kSection, key);
}

}  // namespace

int CShortCut::Create(const WCHAR* shortcutPath, const WCHAR* targetPath, const WCHAR* legacy) {
  if (!HasExtension(shortcutPath) || !IsExistingFile(targetPath)) {
    if (IsDebugOn())
      os::wPrintf(3, 3, u"\rCShortCut::Create: Bad shortname or invalid target\n%s -> %s\r\n", shortcutPath, targetPath);
    return 0;
  }
  const os::IniOp ops[] = {
      {os::IniOp::Kind::kSet, kSection, kLegacyKey, Utf8(legacy ? legacy : kDefaultLegacy)},
      {os::IniOp::Kind::kSet, kSection, kPathKey, Utf8(targetPath)},
  };
  return os::IniUpdate(Utf8(shortcutPath), ops) ? 1 : 0;
}

int CShortCut::GetLegacy(const WCHAR* shortcutPath, WCHAR* buffer, int length) {
  if (!ClearBuffer(buffer, length) || !IsShortcutName(shortcutPath)) return 0;
  const std::optional<std::string> legacy = ReadValue(shortcutPath, kLegacyKey);
  os::WStrCopy(buffer, static_cast<std::size_t>(length), legacy ? os::Utf8ToUtf16(*legacy) : kDefaultLegacy);
  return 1;
}

int CShortCut::ResolvePath(const WCHAR* shortcutPath, WCHAR* buffer, int length) {
  if (!ClearBuffer(buffer, length) || !IsShortcutName(shortcutPath)) return 0;
  const std::optional<std::string> path = ReadValue(shortcutPath, kPathKey);
  if (path) os::WStrCopy(buffer, static_cast<std::size_t>(length), os::Utf8ToUtf16(*path));
  if (buffer[0] != 0) return 1;  // what was read into the buffer decides, as cut to its length
  if (IsDebugOn()) os::wPrintf(3, 4, u"\rCShortCut::ResolvePath: Shortcut empty\r\n");
  return 0;
}
