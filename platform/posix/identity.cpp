// Computer and user names on POSIX: environment overrides, the host name, the account database, and
// the generated name kept in the settings directory for a machine without a name of its own.
#include "platform/identity.h"

#include <fcntl.h>
#include <limits.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/text.h"

namespace zr::os {

namespace {

std::optional<std::string> EnvValue(const char* name) {
  const char* value = std::getenv(name);
  if (!value) return std::nullopt;
  return std::string(value);
}

std::string HomeDirectory() {
  if (auto home = EnvValue("HOME"); home && !home->empty()) return *home;
  std::vector<char> buf(16384);
  passwd pw{};
  passwd* result = nullptr;
  if (getpwuid_r(geteuid(), &pw, buf.data(), buf.size(), &result) == 0 && result && result->pw_dir)
    return result->pw_dir;
  return "/tmp";
}

// The settings ("Windows") directory: $ZROBJ_HOME, else $XDG_CONFIG_HOME/zrobj, else ~/.config/zrobj.
std::string SettingsDirectory() {
  if (auto home = EnvValue("ZROBJ_HOME"); home && !home->empty()) return *home;
  if (auto xdg = EnvValue("XDG_CONFIG_HOME"); xdg && !xdg->empty()) return *xdg + "/zrobj";
  return HomeDirectory() + "/.config/zrobj";
}

// mkdir -p; true when the directory exists afterwards.
bool MakeDirectories(const std::string& path) {
  for (std::size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos != path.size() && path[pos] != '/') continue;
    const std::string part = path.substr(0, pos);
    if (::mkdir(part.c_str(), 0777) != 0 && errno != EEXIST) return false;
  }
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string UpperAscii(std::string text) {
  for (char& c : text)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return text;
}

// Upper-cased and cut to 15 UTF-16 units, as a computer name is reported.
std::u16string AsComputerName(const std::string& raw) {
  std::u16string name = Utf8ToUtf16(UpperAscii(raw));
  if (name.size() > kMaxComputerNameLength) name.resize(kMaxComputerNameLength);
  return name;
}

bool IsValidStoredName(std::u16string_view name) {
  if (name.empty() || name.size() > kMaxComputerNameLength) return false;
  return std::all_of(name.begin(), name.end(), [](char16_t c) {
    return (c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') || c == u'-' || c == u'_';
  });
}

bool IsPlaceholderHostName(std::string_view host) {
  return host.empty() || host == "(none)" || host == "localhost" || host == "localhost.localdomain";
}

std::optional<std::u16string> HostName() {
  char host[HOST_NAME_MAX + 1] = {};
  if (::gethostname(host, sizeof(host) - 1) != 0) return std::nullopt;
  if (IsPlaceholderHostName(host)) return std::nullopt;
  return AsComputerName(host);
}

std::optional<std::u16string> ReadStoredName() {
  const int fd = ::open(StoredComputerNamePath().c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  char buf[64];
  const ssize_t n = ::read(fd, buf, sizeof(buf));
  ::close(fd);
  if (n <= 0) return std::nullopt;
  std::string_view text(buf, static_cast<std::size_t>(n));
  text = text.substr(0, text.find_first_of("\r\n"));
  std::u16string name = Utf8ToUtf16(text);
  if (!IsValidStoredName(name)) return std::nullopt;  // a damaged file counts as no name
  return name;
}

std::optional<std::u16string> ComputerName() {
  if (auto env = EnvValue("ZROBJ_COMPUTERNAME")) {
    if (!env->empty()) return AsComputerName(*env);
  } else if (auto host = HostName()) {
    return host;
  }
  return ReadStoredName();
}

std::optional<std::u16string> UserName() {
  if (auto env = EnvValue("ZROBJ_USERNAME"); env && !env->empty()) return Utf8ToUtf16(*env);
  std::vector<char> buf(16384);
  passwd pw{};
  passwd* result = nullptr;
  if (getpwuid_r(geteuid(), &pw, buf.data(), buf.size(), &result) == 0 && result && result->pw_name &&
      result->pw_name[0])
    return Utf8ToUtf16(result->pw_name);
  if (auto user = EnvValue("USER"); user && !user->empty()) return Utf8ToUtf16(*user);
  return std::nullopt;
}

// Copies `name` under the buffer/length contract of the header.
bool DeliverName(const std::optional<std::u16string>& name, WCHAR* buffer, DWORD* length) {
  if (!length) return false;
  if (!name) return false;
  const DWORD needed = static_cast<DWORD>(name->size() + 1);
  if (!buffer || *length < needed) {
    *length = needed;
    return false;
  }
  std::copy(name->begin(), name->end(), buffer);
  buffer[name->size()] = 0;
  *length = needed - 1;
  return true;
}

bool WriteAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

}  // namespace

std::string StoredComputerNamePath() { return SettingsDirectory() + "/COMPUTERNAME"; }

bool QueryComputerName(WCHAR* buffer, DWORD* length) { return DeliverName(ComputerName(), buffer, length); }

bool QueryUserName(WCHAR* buffer, DWORD* length) { return DeliverName(UserName(), buffer, length); }

bool StoreComputerName(const WCHAR* name) {
  if (!name) return false;
  const std::u16string_view view(name);
  if (!IsValidStoredName(view)) return false;
  const std::string directory = SettingsDirectory();
  if (!MakeDirectories(directory)) return false;

  // Write a private temporary file, then link it into place: link() never replaces an existing
  // name, so the first process to publish wins and every other one reads the same name back.
  const std::string final_path = StoredComputerNamePath();
  std::string temp_path = final_path + ".XXXXXX";
  const int fd = ::mkstemp(temp_path.data());
  if (fd < 0) return false;
  ::fchmod(fd, 0644);  // readable like the other settings files
  const bool written = WriteAll(fd, Utf16ToUtf8(view) + "\n") && ::fsync(fd) == 0;
  ::close(fd);
  bool published = written && ::link(temp_path.c_str(), final_path.c_str()) == 0;
  // A damaged file holds no usable name: replace it rather than leave the machine nameless.
  if (written && !published && errno == EEXIST && !ReadStoredName())
    published = ::rename(temp_path.c_str(), final_path.c_str()) == 0;
  ::unlink(temp_path.c_str());
  return published;
}

}  // namespace zr::os
