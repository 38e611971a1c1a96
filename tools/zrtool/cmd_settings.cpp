// zrtool settings: reads and writes one key of the profile file "ZRO.INI" or the settings file
// "ZRO.VST" in the Windows directory.
#include <cstdio>
#include <optional>
#include <string>

#include "platform/inifile.h"
#include "platform/profile.h"
#include "platform/settingsfile.h"
#include "platform/text.h"
#include "tools/zrtool/command.h"

namespace zrtool {
namespace {

extern const Command kSettingsCommand;

struct Request {
  std::string action;  // get, set, path
  bool vst = false;
  std::vector<std::string> operands;
};

std::optional<Request> Parse(const Args& args, std::string* error) {
  Request r;
  for (const std::string& a : args) {
    if (a == "--ini") r.vst = false;
    else if (a == "--vst") r.vst = true;
    else if (a.rfind("--", 0) == 0) return *error = "unknown option " + a, std::nullopt;  // "-5" is a value
    else if (r.action.empty()) r.action = a;
    else r.operands.push_back(a);
  }
  const std::size_t want = r.action == "get" ? 2 : r.action == "set" ? 3 : r.action == "path" ? 0 : 99;
  if (want == 99) return *error = r.action.empty() ? "missing action" : "unknown action " + r.action, std::nullopt;
  if (r.operands.size() != want) return *error = "wrong number of arguments for " + r.action, std::nullopt;
  return r;
}

int Get(const Request& r) {
  const std::string& section = r.operands[0];
  const std::string& key = r.operands[1];
  if (!r.vst) {
    const std::string path = zr::os::ProfileFilePath("ZRO.INI");
    if (zr::os::IniGetState(path) == zr::os::IniFileState::kUnreadable) return Fail("cannot read " + path);
    const auto value = zr::os::IniRead(path, section, key);
    if (!value) return Fail("[" + section + "] " + key + " is not set in " + path);
    std::printf("%s\n", value->c_str());
    return 0;
  }
  const std::u16string path = zr::os::Utf8ToUtf16(zr::os::ProfileFilePath("ZRO.VST"));
  zr::os::CSetFile file(path.c_str());
  if (!file.IsUsable()) return Fail("cannot read " + file.path());
  std::u16string buffer(65536, u'\0');
  if (!file.ReadSettingString(section.c_str(), key.c_str(), buffer.data(), static_cast<UINT>(buffer.size())))
    return Fail("[" + section + "] " + key + " is not set in " + file.path());
  std::printf("%s\n", zr::os::Utf16ToUtf8(buffer.c_str()).c_str());
  return 0;
}

int Set(const Request& r) {
  const std::string& section = r.operands[0];
  const std::string& key = r.operands[1];
  const std::string& value = r.operands[2];
  if (!r.vst) {
    if (!zr::os::WritePrivateProfileStringA(section.c_str(), key.c_str(), value.c_str(), "ZRO.INI"))
      return Fail("cannot write [" + section + "] " + key + " to " + zr::os::ProfileFilePath("ZRO.INI") +
                  " (unreadable file, or a name or value the file cannot hold)");
    return 0;
  }
  if (value.empty()) return Fail("an empty value cannot be stored in ZRO.VST");
  const std::u16string path = zr::os::Utf8ToUtf16(zr::os::ProfileFilePath("ZRO.VST"));
  zr::os::CSetFile file(path.c_str());
  const std::u16string wide = zr::os::Utf8ToUtf16(value);
  if (!file.WriteSettingString(section.c_str(), key.c_str(), wide.c_str()))
    return Fail("cannot write [" + section + "] " + key + " to " + file.path());
  return 0;
}

int RunSettings(const Args& args) {
  std::string error;
  const auto request = Parse(args, &error);
  if (!request) return UsageError(kSettingsCommand, error);
  if (request->action == "path") {
    std::printf("%s\n%s\n", zr::os::ProfileFilePath("ZRO.INI").c_str(), zr::os::ProfileFilePath("ZRO.VST").c_str());
    return 0;
  }
  return request->action == "get" ? Get(*request) : Set(*request);
}

const Command kSettingsCommand{
    "settings", "read or write a key of ZRO.INI or ZRO.VST",
    "usage: zrtool settings get [--ini|--vst] SECTION KEY\n"
    "       zrtool settings set [--ini|--vst] SECTION KEY VALUE\n"
    "       zrtool settings path\n\n"
    "--ini (the default) uses the profile file ZRO.INI, --vst the settings file ZRO.VST, both in\n"
    "$ZROBJ_HOME, else $XDG_CONFIG_HOME/zrobj, else ~/.config/zrobj. Section and key names are\n"
    "case-insensitive. `get` prints the value or fails (exit 1) when it is not set.\n",
    RunSettings};

}  // namespace

ZRTOOL_COMMAND(kSettingsCommand);

}  // namespace zrtool
