// The Windows directory from the environment and private profile files on the INI layer.
#include "platform/profile.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/inifile.h"
#include "platform/text.h"

namespace zr::os {

namespace {

const char* NonEmptyEnv(const char* name) {
  const char* v = std::getenv(name);
  return v && *v ? v : nullptr;
}

std::string HomeDirectory() {
  if (const char* home = NonEmptyEnv("HOME")) return home;
  if (const passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir) return pw->pw_dir;
  return "/tmp";
}

std::string WithoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// Copies `text` as Windows does for a single value: cut to size-1 and terminated.
DWORD CopyValue(std::string_view text, char* buffer, DWORD size) {
  const std::size_t n = text.size() < size - 1 ? text.size() : size - 1;
  std::memcpy(buffer, text.data(), n);
  buffer[n] = 0;
  return static_cast<DWORD>(n);
}

// Copies names as a double-terminated list; a list that does not fit returns size-2.
DWORD CopyList(const std::vector<std::string>& names, char* buffer, DWORD size) {
  if (size < 2) {
    buffer[0] = 0;
    return 0;
  }
  std::size_t at = 0;
  for (const std::string& name : names) {
    if (at + name.size() + 1 > size - 1) {
      const std::size_t room = at < size - 2 ? size - 2 - at : 0;
      std::memcpy(buffer + at, name.data(), room);
      buffer[size - 2] = 0;
      buffer[size - 1] = 0;
      return size - 2;
    }
    std::memcpy(buffer + at, name.data(), name.size());
    at += name.size();
    buffer[at++] = 0;
  }
  buffer[at] = 0;
  if (at == 0 && size > 1) buffer[1] = 0;
  return static_cast<DWORD>(at);
}

}  // namespace

std::string WindowsDirectory() {
  if (const char* home = NonEmptyEnv("ZROBJ_HOME")) return WithoutTrailingSlashes(home);
  if (const char* xdg = NonEmptyEnv("XDG_CONFIG_HOME"); xdg && xdg[0] == '/')
    return WithoutTrailingSlashes(xdg) + "/zrobj";
  return WithoutTrailingSlashes(HomeDirectory()) + "/.config/zrobj";
}

void SetWindowsDirectoryForProcess(const std::string& directory) {
  ::setenv("ZROBJ_HOME", directory.c_str(), 1);
}

std::string ProfileFilePath(const char* fileName) {
  if (!fileName || !*fileName) return {};
  if (std::strchr(fileName, '/')) return fileName;
  return WindowsDirectory() + "/" + fileName;
}

UINT GetWindowsDirectoryW(WCHAR* buffer, UINT size) {
  const std::u16string dir = Utf8ToUtf16(WindowsDirectory());
  if (!buffer || dir.size() + 1 > size) return static_cast<UINT>(dir.size() + 1);
  WStrCopy(buffer, size, dir);
  return static_cast<UINT>(dir.size());
}

DWORD GetPrivateProfileStringA(const char* section, const char* key, const char* defaultValue, char* buffer,
                               DWORD size, const char* fileName) {
  if (!buffer || size == 0) return 0;
  const std::string path = ProfileFilePath(fileName);
  if (path.empty()) return CopyValue({}, buffer, size);
  if (!section) return CopyList(IniSections(path), buffer, size);
  if (!key) return CopyList(IniKeys(path, section), buffer, size);
  if (const auto value = IniRead(path, section, key)) return CopyValue(*value, buffer, size);
  // Like the system, the default loses its trailing blanks.
  std::string_view fallback = defaultValue ? defaultValue : "";
  while (!fallback.empty() && fallback.back() == ' ') fallback.remove_suffix(1);
  return CopyValue(fallback, buffer, size);
}

BOOL WritePrivateProfileStringA(const char* section, const char* key, const char* value, const char* fileName) {
  const std::string path = ProfileFilePath(fileName);
  if (path.empty() || !section) return FALSE;
  IniOp op{IniOp::Kind::kSet, section, key ? key : "", value ? value : ""};
  if (!key) op.kind = IniOp::Kind::kDeleteSection;
  else if (!value) op.kind = IniOp::Kind::kDeleteKey;
  return IniUpdate(path, {&op, 1}) ? TRUE : FALSE;
}

}  // namespace zr::os
