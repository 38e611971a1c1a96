// zrtool settings: reads and writes one key of the profile file "ZRO.INI" or the settings file
// "ZRO.VST" in the Windows directory.
#include <cstdio>
#include <optional>
#include <string>

#include "tools/zrtool/command.h"
#include "tools/zrtool/text.h"
#include "zrobj/zrobj.h"

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

// The path of a settings file as the library builds it.
std::string SettingsPath(const char* name) {
  WCHAR path[4096];
  return ZROBJ_GetSettingsFilePath(name, path, 4096) ? ToNarrow(path) : std::string(name);
}

int Get(const Request& r) {
  const std::string& section = r.operands[0];
  const std::string& key = r.operands[1];
  const std::string path = SettingsPath(r.vst ? "ZRO.VST" : "ZRO.INI");
  std::string value;
  int found = 0;
  if (r.vst) {
    std::u16string buffer(65536, u'\0');
    found = ZROBJ_ReadCurrentSettingStr(section.c_str(), key.c_str(), buffer.data(), static_cast<UINT>(buffer.size()));
    value = ToNarrow(buffer.c_str());
  } else {
    std::string buffer(65536, '\0');
    found = ZROBJ_ReadProfileString(section.c_str(), key.c_str(), buffer.data(), static_cast<UINT>(buffer.size()));
    value = buffer.c_str();
  }
  if (found < 0) return Fail("cannot read " + path);
  if (found == 0) return Fail("[" + section + "] " + key + " is not set in " + path);
  std::printf("%s\n", value.c_str());
  return 0;
}

int Set(const Request& r) {
  const std::string& section = r.operands[0];
  const std::string& key = r.operands[1];
  const std::string& value = r.operands[2];
  if (!r.vst) {
    if (!ZROBJ_WriteProfileString(section.c_str(), key.c_str(), value.c_str()))
      return Fail("cannot write [" + section + "] " + key + " to " + SettingsPath("ZRO.INI") +
                  " (unreadable file, or a name or value the file cannot hold)");
    return 0;
  }
  if (value.empty()) return Fail("an empty value cannot be stored in ZRO.VST");
  if (!ZROBJ_WriteCurrentSettingStr(section.c_str(), key.c_str(), ToWide(value).c_str()))
    return Fail("cannot write [" + section + "] " + key + " to " + SettingsPath("ZRO.VST"));
  return 0;
}

int RunSettings(const Args& args) {
  std::string error;
  const auto request = Parse(args, &error);
  if (!request) return UsageError(kSettingsCommand, error);
  if (request->action == "path") {
    std::printf("%s\n%s\n", SettingsPath("ZRO.INI").c_str(), SettingsPath("ZRO.VST").c_str());
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
